// Questions to the station, the program that works the arm.

const SERVICE_PORT = "8329";
const STATION_PORT = "8330";
const LIMIT = 5000; // ms for an answer that takes no time
const LONG_LIMIT = 100000; // ms; a measurement takes 90 s at most
const SILENCE = 7000; // ms of the events: something comes at least every 5 s
const TOKEN = "kestrel-token"; // kept for this tab

// At its own port, or where the proxy has put it.
const BASE =
    location.port === SERVICE_PORT
        ? `http://${location.hostname}:${STATION_PORT}`
        : new URL("arm", location.href).href;

/** Why the station did not do it; `name` is the problem's, "silent" when nobody answered. */
export class Problem extends Error {
    constructor(name, text) {
        super(text);
        this.name = name;
    }
}

const silent = () => new Problem("silent", "The station does not answer.");

async function problemOf(response) {
    const told = await response.json().catch(() => ({}));
    const name = String(told.type ?? "").replace("urn:problem:kestrel:", "");
    const text = [told.detail, told.action].filter(Boolean).join(" ");
    return new Problem(name, text || `The station answered ${response.status}.`);
}

/** The fields of one server-sent event, or null for a comment. */
function parseEvent(text) {
    const field = (name) =>
        text
            .split("\n")
            .filter((line) => line.startsWith(`${name}: `))
            .map((line) => line.slice(name.length + 2))
            .join("\n");
    const data = field("data");
    return data === "" ? null : { name: field("event"), id: field("id"), data: JSON.parse(data) };
}

/** Asks the station. The token is the operator's, and goes with the tab. */
export class Station {
    /** Whether a station answers here, whoever may use it. */
    async isThere() {
        try {
            const signal = AbortSignal.timeout(LIMIT);
            const response = await fetch(`${BASE}/healthz`, { cache: "no-store", signal });
            return response.ok && (await response.json()).status === "ok";
        } catch {
            return false;
        }
    }

    get hasToken() {
        return sessionStorage.getItem(TOKEN) !== null;
    }

    /** @param token  empty: none */
    set token(token) {
        if (token) {
            sessionStorage.setItem(TOKEN, token);
        } else {
            sessionStorage.removeItem(TOKEN);
        }
    }

    /** A JSON answer; throws a Problem, as all of these do. */
    async get(path) {
        return (await this.#ask(path, {}, LIMIT)).json();
    }

    async text(path) {
        return (await this.#ask(path, {}, LONG_LIMIT)).text();
    }

    async blob(path) {
        return (await this.#ask(path, {}, LONG_LIMIT)).blob();
    }

    /** Change something; it goes out even when the page is closed meanwhile. */
    async post(path, body = {}) {
        const asked = { method: "POST", body: JSON.stringify(body), keepalive: true };
        return (await this.#ask(path, asked, LONG_LIMIT, "application/json")).json();
    }

    async upload(path, file) {
        const asked = { method: "POST", body: file };
        return (await this.#ask(path, asked, LONG_LIMIT, "application/octet-stream")).json();
    }

    /**
     * Hand on what changes, until it ends: that throws a Problem.
     * @param last     journal entry that was seen last; those behind it come first
     * @param onEvent  gets {name, id, data}; null for a sign of life
     */
    async watch(last, onEvent) {
        const abort = new AbortController();
        let timer = null;
        const wait = () => {
            clearTimeout(timer);
            timer = setTimeout(() => abort.abort(), SILENCE);
        };
        try {
            wait();
            const headers = this.#headers(last ? { "Last-Event-ID": last } : {});
            const asked = { headers, cache: "no-store", signal: abort.signal };
            const response = await fetch(`${BASE}/events`, asked);
            if (!response.ok) {
                throw await problemOf(response);
            }
            const reader = response.body.getReader();
            const decoder = new TextDecoder();
            let text = "";
            for (;;) {
                const { done, value } = await reader.read();
                if (done) {
                    throw silent();
                }
                wait();
                const parts = (text + decoder.decode(value, { stream: true })).split("\n\n");
                text = parts.pop();
                parts.forEach((part) => onEvent(parseEvent(part)));
            }
        } catch (problem) {
            throw problem instanceof Problem ? problem : silent();
        } finally {
            clearTimeout(timer);
            abort.abort();
        }
    }

    #headers(more) {
        return { Authorization: `Bearer ${sessionStorage.getItem(TOKEN)}`, ...more };
    }

    async #ask(path, asked, limit, type) {
        const headers = this.#headers(type ? { "Content-Type": type } : {});
        const signal = AbortSignal.timeout(limit);
        let response;
        try {
            response = await fetch(BASE + path, { ...asked, headers, cache: "no-store", signal });
        } catch {
            throw silent();
        }
        if (!response.ok) {
            throw await problemOf(response);
        }
        return response;
    }
}
