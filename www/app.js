// The board's page: starts the live picture and runs snapshot, measurement and the log's address.

import { LivePicture } from "./live.js";
import { clockTime } from "./text.js";

const SNAPSHOT_LIMIT = 10000; // ms; a plugged-in camera has a picture every 40
const element = (id) => document.getElementById(id);

const live = new LivePicture();

function say(id, text, failed = false) {
    element(id).textContent = text;
    element(id).classList.toggle("failed", failed);
}

/**
 * Run a button's work, one at a time. The button stays focusable while it is off, so that a
 * keyboard user is not thrown to the top of the page.
 */
async function once(button, work) {
    if (button.getAttribute("aria-disabled") === "true") {
        return;
    }
    button.setAttribute("aria-disabled", "true");
    try {
        await work();
    } finally {
        button.removeAttribute("aria-disabled");
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

async function takeSnapshot(form) {
    const filename = form.elements.filename.value;
    const corrected = form.elements.correction.checked;
    const abort = new AbortController();
    const timer = setTimeout(() => abort.abort(), SNAPSHOT_LIMIT);
    say("snap-status", "Waiting for a picture…");
    try {
        // The name goes as it is: the board decodes no percent signs.
        const query = `filename=${filename}${corrected ? "&mode=correction" : ""}`;
        const response = await fetch(`snap?${query}`, { cache: "no-store", signal: abort.signal });
        const picture = await readPicture(response);
        if (picture.size === 0) {
            say("snap-status", "The board answered an empty picture.", true);
        } else {
            showSnapshot(picture, response.headers.get("Filename") ?? filename, corrected);
            say("snap-status", "");
        }
    } catch {
        say(
            "snap-status",
            live.boardIsBusy
                ? "No picture: a measurement is running."
                : abort.signal.aborted
                  ? "No picture came within 10 seconds. Is the camera plugged in?"
                  : "The board closed the connection without a picture.",
            true,
        );
    } finally {
        clearTimeout(timer);
        abort.abort();
    }
}

function showSnapshot(picture, filename, corrected) {
    const image = element("shot-picture");
    const link = element("shot-link");
    URL.revokeObjectURL(link.href);
    image.src = link.href = URL.createObjectURL(picture);
    image.alt = `Snapshot ${filename}`;
    link.download = filename;
    link.textContent = `Download ${filename}`;
    element("shot-text").textContent =
        `${Math.ceil(picture.size / 1024)} KB, ${clockTime(Date.now())}` +
        (corrected ? ", correction asked for" : "");
    element("shot").hidden = false;
}

async function measure() {
    const begun = Date.now();
    const timer = setInterval(() => {
        element("measure-time").textContent = `${Math.floor((Date.now() - begun) / 1000)} s`;
    }, 1000);
    live.boardIsBusy = true;
    element("value").textContent = "…";
    say("measure-status", "Measuring…");
    try {
        const response = await fetch("camera?focus=1", { cache: "no-store" });
        const answer = JSON.parse(await response.text());
        element("value").textContent = answer.measure;
        say("measure-status", `Measured at ${clockTime(Date.now())}.`);
    } catch {
        element("value").textContent = "–";
        say("measure-status", "The board closed the connection without a value.", true);
    } finally {
        clearInterval(timer);
        element("measure-time").textContent = "";
        live.boardIsBusy = false;
    }
}

element("host").textContent = location.host;
element("log").textContent = `nc ${location.hostname} 8001`;
element("snap").addEventListener("submit", (event) => {
    event.preventDefault();
    once(event.submitter ?? event.target.querySelector("button"), () => takeSnapshot(event.target));
});
element("measure").addEventListener("click", (event) => once(event.currentTarget, measure));
live.start();
