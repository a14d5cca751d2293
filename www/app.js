// The board's page: starts the live picture and runs snapshot, measurement and the log's address.

import { measurement, snapshot } from "./board.js";
import { LivePicture } from "./live.js";
import { Snapshots } from "./snapshots.js";
import { Stage } from "./stage.js";
import { Station } from "./station.js";
import { clockTime, duration } from "./text.js";

const MEASURE_LIMIT = 120000; // ms; then the page stops waiting, whatever the board does
const LOOK_EVERY = 15000; // ms between looks for a station
const SERVICE_PORT = "8329"; // on another one a proxy answers

const PROBLEMS = {
    late: "No picture came within 10 seconds. Is the camera plugged in?",
    silent: "No snapshot: the board gave no answer.",
    "cut off": "No snapshot: the connection ended within the picture.",
    empty: "No snapshot: the board answered an empty picture.",
};
const WAITING = "A measurement that has begun goes on and may move the arm; until it is done the board answers nothing else.";

const element = (id) => document.getElementById(id);

const live = new LivePicture();
const snapshots = new Snapshots();

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

async function takeSnapshot(form) {
    const corrected = form.elements.correction.checked;
    say("snap-status", "Waiting for a picture…");
    const taken = await snapshot(form.elements.filename.value, corrected);
    if (taken.problem) {
        const held = live.boardIsBusy && taken.problem !== "empty";
        say(
            "snap-status",
            held ? "No snapshot: a measurement is not answered yet." : PROBLEMS[taken.problem],
            true,
        );
        return;
    }
    live.boardIsBusy &&= isMeasuring(); // the board answers: one that was left has ended
    snapshots.add(taken, Date.now());
    say(
        "snap-status",
        "Not reported by this board: whether the SD card kept it" +
            (corrected ? ", and whether its distortion was corrected." : "."),
    );
}

const isMeasuring = () => !element("leave").hidden;

/** Show one of the three: the button, the question, the way out. The focus goes with it. */
function showStep(step) {
    const hadFocus = element("measuring").contains(document.activeElement);
    for (const id of ["measure", "question", "leave"]) {
        element(id).hidden = id !== step;
    }
    if (hadFocus) {
        element(step === "question" ? "cancel" : step).focus();
    }
}

async function measure() {
    const begun = Date.now();
    const timer = setInterval(() => {
        element("measure-time").textContent = `${Math.floor((Date.now() - begun) / 1000)} s`;
    }, 1000);
    const abort = new AbortController();
    element("leave").onclick = () => abort.abort("left");
    live.boardIsBusy = true;
    element("value").textContent = "…";
    say("measure-status", "Measuring…");
    showStep("leave");
    try {
        const value = await measurement(MEASURE_LIMIT, abort);
        live.boardIsBusy = false;
        element("value").textContent = value;
        tellMeasured(value);
    } catch {
        element("value").textContent = "–";
        live.boardIsBusy = ["left", "limit"].includes(abort.signal.reason);
        say("measure-status", whyNoValue(abort.signal.reason), true);
    } finally {
        clearInterval(timer);
        element("measure-time").textContent = "";
        showStep("measure");
    }
}

function tellMeasured(value) {
    if (Number(value) === 0) {
        say(
            "measure-status",
            "Nothing was measured: this board has no vision plug-in or no spot was seen.",
            true,
        );
    } else if (!Number.isFinite(Number(value))) {
        say("measure-status", "The plug-in answered no number.", true);
    } else {
        say("measure-status", `Measured at ${clockTime(Date.now())}. The plug-in sets the unit.`);
    }
}

function whyNoValue(reason) {
    switch (reason) {
        case "left":
            return `No longer waiting. ${WAITING}`;
        case "limit":
            return `No value within ${duration(MEASURE_LIMIT)}. ${WAITING}`;
        default:
            return "Not known whether the board has measured: it gave no answer.";
    }
}

function tellOfLog() {
    const direct = location.port === SERVICE_PORT;
    element("log").textContent = direct ? `nc ${location.hostname} 8001` : "nc BOARD 8001";
    element("log-proxy").hidden = direct;
}

/** Look for a station while the page is seen; what is for the arm comes with it. */
async function findArm() {
    const station = new Station();
    while (document.hidden || !(await station.isThere())) {
        await new Promise((resolve) => setTimeout(resolve, LOOK_EVERY));
    }
    const { Arm } = await import("./arm.js");
    new Arm(station).start();
}

element("host").textContent = location.host;
tellOfLog();
new Stage().start();
element("snap").addEventListener("submit", (event) => {
    event.preventDefault();
    once(event.submitter ?? event.target.querySelector("button"), () => takeSnapshot(event.target));
});
element("measure").addEventListener("click", () => showStep("question"));
element("cancel").addEventListener("click", () => showStep("measure"));
element("question").addEventListener("keydown", (event) => {
    if (event.key === "Escape") {
        showStep("measure");
    }
});
element("confirm").addEventListener("click", measure);
live.onLive = () => {
    if (element("snap-status").classList.contains("failed")) {
        say("snap-status", ""); // its cause has gone
    }
};
live.start();
findArm();
