// Questions to the board that end: a snapshot, a measurement, a sign of life.

const SNAPSHOT_LIMIT = 10000; // ms; a plugged-in camera has a picture every 40
const LIFE_LIMIT = 4000; // ms for a small file

/** Run `ask` with a signal that aborts after `limit` ms or by `abort`; ends its connection. */
async function within(limit, ask, abort = new AbortController()) {
    const timer = setTimeout(() => abort.abort("limit"), limit);
    try {
        return await ask(abort.signal);
    } finally {
        clearTimeout(timer);
        abort.abort();
    }
}

/** "/snap" answers on and on until the connection closes: take Content-Length bytes, no more. */
async function readPicture(response) {
    const length = Number(response.headers.get("Content-Length"));
    const reader = response.body.getReader();
    const chunks = [];
    let held = 0;
    while (held < length) {
        const { done, value } = await reader.read();
        if (done) {
            throw new Error("cut off");
        }
        chunks.push(value);
        held += value.length;
    }
    return new Blob(chunks, { type: "image/jpeg" }).slice(0, length, "image/jpeg");
}

/**
 * Take a snapshot.
 * @param filename  as the board is to keep it; it decodes no percent signs
 * @returns {jpeg, filename}, or {problem}: "late", "silent", "cut off" or "empty"
 */
export async function snapshot(filename, corrected) {
    const abort = new AbortController();
    const found = { problem: "silent" };
    try {
        await within(
            SNAPSHOT_LIMIT,
            async (signal) => {
                const query = `filename=${filename}${corrected ? "&mode=correction" : ""}`;
                const response = await fetch(`snap?${query}`, { cache: "no-store", signal });
                found.problem = "cut off";
                found.jpeg = await readPicture(response);
                found.filename = response.headers.get("Filename") ?? filename;
                found.problem = found.jpeg.size === 0 ? "empty" : null;
            },
            abort,
        );
    } catch {
        found.problem = abort.signal.reason === "limit" ? "late" : found.problem;
    }
    return found;
}

/**
 * Measure. The board cannot be stopped: aborting only ends the waiting.
 * @param abort  its reason shows afterwards whether the wait ended by the `limit` (ms)
 * @returns the board's text, e.g. "0.0000"; throws without one
 */
export function measurement(limit, abort) {
    return within(
        limit,
        async (signal) => {
            const response = await fetch("camera?focus=1", { cache: "no-store", signal });
            return JSON.parse(await response.text()).measure;
        },
        abort,
    );
}

/** True when the board answers a file. */
export async function isAlive() {
    try {
        await within(LIFE_LIMIT, async (signal) => {
            const response = await fetch("favicon.ico", { cache: "no-store", signal });
            await response.arrayBuffer();
        });
        return true;
    } catch {
        return false;
    }
}
