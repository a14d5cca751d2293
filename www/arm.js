// The arm's panel: loaded when a station answers, and only then.

import { ArmJobs } from "./armjobs.js";
import { ArmMoves } from "./armmoves.js";
import { ArmPath } from "./armpath.js";
import { ArmView, set } from "./armview.js";
import { Problem } from "./station.js";

const AGAIN = 1000; // ms between tries to hear from it
const RENEW_EVERY = 1000; // ms between looks at the lease
const CLICK = 500; // ms in which a click leaves the full screen

const element = (id) => document.getElementById(id);
const pause = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/** The panel, and the bar with the button that turns the beam off. */
export class Arm {
    #station;
    #view = new ArmView();
    #path = null;
    #jobs = null;
    #moves;
    #state = null; // as the station told it last; null while it does not answer
    #heard = 0; // states that came as events
    #last = ""; // the journal's entry that was seen last
    #busy = new Set(); // buttons whose work is under way
    #asked = 0; // works, ever
    #clicked = -Infinity; // ms
    #entered = () => {}; // a token

    /** @param station  one that answers */
    constructor(station) {
        this.#station = station;
        this.#moves = new ArmMoves(station);
    }

    /** Show it from now on. */
    async start() {
        this.#build();
        this.#show(null);
        setInterval(() => this.#jobs.renew(), RENEW_EVERY);
        for (;;) {
            await this.#watch();
        }
    }

    /** Put the panel in place of what only a page without a station says. */
    #build() {
        element("stage").append(element("arm-path-template").content.cloneNode(true));
        document.querySelector(".side").prepend(element("arm-template").content.cloneNode(true));
        document.body.append(element("arm-bar-template").content.cloneNode(true));
        document.documentElement.classList.add("with-arm");
        for (const id of ["measure-card", "unknown-card"]) {
            element(id).hidden = true;
        }
        this.#path = new ArmPath();
        this.#jobs = new ArmJobs(this.#station, this.#path);
        element("arm-width").value = this.#path.width || "";
        this.#wireOff();
        this.#wireButtons();
    }

    /** Beam off: nothing that this page does keeps it waiting. */
    #wireOff() {
        element("arm-off").addEventListener("click", () => this.#off());
        document.addEventListener("keydown", (event) => {
            if (event.key === "Escape" && !event.repeat && !this.#isIdle()) {
                this.#off();
            }
        });
        element("arm-bar").addEventListener("click", (event) => event.stopPropagation());
        document.addEventListener("click", () => (this.#clicked = performance.now()), true);
        document.addEventListener("fullscreenchange", () => {
            const full = document.fullscreenElement;
            (full ?? document.body).append(element("arm-bar"));
            // The browser keeps that Escape to itself: left without a click, it was one.
            if (!full && performance.now() - this.#clicked > CLICK && !this.#isIdle()) {
                this.#off();
            }
        });
        window.addEventListener("beforeunload", (event) => {
            if (this.#state?.job && this.#jobs.isOwner) {
                event.preventDefault(); // the browser asks
            }
        });
    }

    /** Whether all is known to be dark, and nothing of this page's is on its way. */
    #isIdle() {
        return this.#state?.guard.level === "dark" && this.#busy.size === 0;
    }

    #wireButtons() {
        const work = {
            "arm-motion": () => this.#station.post("/level", { level: "motion" }),
            "arm-dark": () => this.#station.post("/level", { level: "dark" }),
            "arm-home": () => this.#moves.home(),
            "arm-measure": () => this.#moves.measure(),
            "arm-move": () => this.#moves.move(),
            "arm-burn": () => this.#start(),
            "arm-pause": () => this.#station.post("/job/pause"),
            "arm-resume": () => this.#station.post("/job/resume"),
            "arm-stop": () => this.#station.post("/job/stop"),
            "arm-reset": () => this.#station.post("/reset"),
            "arm-unlock": () => this.#unlock(),
            "arm-remove": () => this.#jobs.remove(),
            "arm-again": () => this.#again(),
        };
        for (const [id, does] of Object.entries(work)) {
            element(id).addEventListener("click", () => this.#do(element(id), does));
        }
        for (const button of document.querySelectorAll("[data-jog]")) {
            button.addEventListener("click", () => this.#do(button, () => this.#moves.jog(button.dataset.jog)));
        }
        const files = element("arm-file");
        files.addEventListener("change", () =>
            this.#do(files, () => this.#jobs.upload(files.files[0])).finally(() => (files.value = "")),
        );
        const jobs = element("arm-jobs");
        jobs.addEventListener("change", () => this.#do(jobs, () => this.#jobs.choose()));
        element("arm-start").addEventListener("click", () => this.#ask(true));
        element("arm-cancel").addEventListener("click", () => this.#ask(false));
        element("arm-width").addEventListener("change", () => {
            this.#path.width = Number(element("arm-width").value);
        });
        element("arm-login").addEventListener("submit", (event) => {
            event.preventDefault();
            this.#station.token = element("arm-token").value.trim();
            element("arm-token").value = "";
            set("arm-login-said", "");
            this.#entered();
        });
    }

    /** Hear from the station until it ends, or does not know the token. */
    async #watch() {
        element("arm-login").hidden = this.#station.hasToken;
        element("arm-body").hidden = !this.#station.hasToken;
        if (!this.#station.hasToken) {
            this.#show(null);
            set("arm-activity", "Token needed");
            await new Promise((resolve) => (this.#entered = resolve));
            return;
        }
        try {
            await this.#begin();
            await this.#station.watch(this.#last, (event) => this.#hear(event));
        } catch ({ name, message }) {
            if (name === "unauthorized") {
                this.#station.token = "";
                this.#last = "";
                set("arm-login-said", "The station does not know this token.");
                return;
            }
            this.#show(null);
            if (name !== "silent") {
                this.#view.say(message, true);
            }
        }
        await pause(AGAIN);
    }

    /** What comes before the first event. */
    async #begin() {
        if (this.#last === "") {
            element("arm-journal").replaceChildren();
            const { entries } = await this.#station.get("/journal?limit=20");
            entries.forEach((entry) => this.#note(entry));
            await this.#jobs.list();
        }
    }

    #note(entry) {
        this.#last = String(entry.id);
        this.#view.note(entry);
    }

    #hear(event) {
        if (event?.name === "state") {
            this.#heard++;
            this.#show(event.data);
            this.#jobs.follow(event.data.job).catch(() => {}); // the list is there by hand, too
        } else if (event?.name === "journal") {
            this.#note(event.data);
            if (event.data.text.startsWith("file ")) {
                this.#jobs.list().catch(() => {}); // one was kept or removed; the next one shows it, too
            }
        }
        this.#jobs.renew();
    }

    /**
     * Take the state that a request has answered with, unless an event came since it began: the event's
     * may be newer, and if it is not, another event follows.
     * @param heard  how many had come when it began
     */
    #take(answer, heard) {
        if (answer?.guard && this.#heard === heard) {
            this.#state = answer;
        }
    }

    #show(state) {
        this.#state = state;
        this.#view.show(state, this.#jobs.isOwner);
        this.#path.fit();
        this.#showButtons();
    }

    /** A button that cannot be pressed stays focusable, so that a keyboard user keeps the place. */
    #showButtons() {
        const { guard = {}, job = null } = this.#state ?? {};
        const canMove = guard.level === "motion" && guard.homed === true;
        const can = {
            "arm-motion": guard.level === "dark",
            "arm-dark": guard.level === "motion",
            "arm-home": guard.level === "motion",
            "arm-measure": guard.level === "motion",
            "arm-move": canMove,
            "arm-start": guard.homed === true && job === null && this.#jobs.passes,
            "arm-burn": guard.homed === true && job === null && this.#jobs.passes,
            "arm-pause": job?.status === "running",
            "arm-resume": job?.status === "held",
            "arm-stop": job !== null,
            "arm-reset": guard.present === true,
            "arm-unlock": guard.level === "dark",
            "arm-remove": job === null && this.#jobs.chosen !== "",
        };
        for (const button of document.querySelectorAll("#arm-body button")) {
            const isPossible = "jog" in button.dataset ? canMove : (can[button.id] ?? true);
            button.setAttribute("aria-disabled", String(!isPossible || this.#busy.has(button)));
        }
        if (job !== null) {
            element("arm-question").hidden = true;
        }
    }

    /**
     * Run what a button is for, once at a time, and tell what came of it. What went well is not told
     * any more once something else was asked for.
     */
    async #do(button, work) {
        if (this.#busy.has(button) || button.getAttribute("aria-disabled") === "true") {
            return;
        }
        this.#busy.add(button);
        this.#showButtons();
        this.#view.say("…");
        const asked = ++this.#asked;
        const heard = this.#heard;
        try {
            const answer = await work();
            this.#take(answer, heard);
            if (asked === this.#asked) {
                this.#view.say(typeof answer === "string" ? answer : "");
            }
        } catch (problem) {
            this.#view.say(problem instanceof Problem ? problem.message : String(problem), true);
        } finally {
            this.#busy.delete(button);
            this.#show(this.#state);
        }
    }

    async #off() {
        set("arm-off-said", "Turning the beam off…");
        const heard = this.#heard;
        try {
            this.#take(await this.#station.post("/off"), heard);
            this.#show(this.#state);
            set("arm-off-said", "Beam off was sent.");
            await pause(3000);
            set("arm-off-said", "");
        } catch ({ message }) {
            set("arm-off-said", `Beam off was NOT sent. ${message} Use the arm's own switch.`);
        }
    }

    /** Show or hide the question before a job; the focus goes with it. */
    #ask(isAsked) {
        if (isAsked && element("arm-start").getAttribute("aria-disabled") === "true") {
            return;
        }
        set("arm-question-text", `The beam will burn ${this.#jobs.what}. Is everything clear?`);
        element("arm-question").hidden = !isAsked;
        element("arm-start").hidden = isAsked;
        element(isAsked ? "arm-cancel" : "arm-start").focus();
    }

    async #start() {
        const heard = this.#heard;
        this.#take(await this.#jobs.start(), heard);
        this.#show(this.#state);
        element("arm-pause").focus();
    }

    /** The button goes with the alarm; the focus to one near it that does nothing while all is dark. */
    async #unlock() {
        this.#show(await this.#station.post("/unlock"));
        element("arm-home").focus();
        return "The lock is cleared. The arm is dark and not homed: raise the level, and home it.";
    }

    /** Choose what did not come to its end, with the line to go on at; starting it is left to a person. */
    async #again() {
        const { name, restart } = this.#state.last_job;
        await this.#jobs.list(name);
        await this.#jobs.choose(name);
        element("arm-line").value = String(restart.line);
        return `${name} is chosen, from line ${restart.line}.`;
    }
}
