// The texts around the live picture.

import { clockTime, duration } from "./text.js";

const TITLES = {
    live: "Live picture.",
    connecting: "Connecting",
    paused: "Paused since ",
    late: "Pictures are late since ",
    stopped: "No picture since ",
    unchanged: "No change since ",
};
const BADGES = {
    live: "Live",
    connecting: "Connecting",
    paused: "Paused",
    late: "Late",
    stopped: "No picture",
    unchanged: "No change",
};
const LATE = "The pictures that arrive are old or damaged; the network may be too slow.";
const UNKNOWN = "not known in this browser";
const SETTLED = 1500; // ms that a state lasts before it is announced to a screen reader

/** Writes what the live picture's section says. The style sheet dims the picture by its state. */
export class View {
    /** What the section shows now: live, connecting, paused, late, stopped or unchanged. */
    state = "";

    #section = document.getElementById("live");
    #title = "";
    #titleSince = 0;

    /**
     * @param since   ms since 1970, where the state has a beginning to show
     * @param age     ms, null without a picture, NaN where it cannot be known
     * @param rate    pictures per second
     * @param reason  why the picture has stopped
     */
    show({ state, since, age, rate, count, reason }) {
        this.state = state;
        this.#section.dataset.state = state;
        const title = TITLES[state] + (since ? clockTime(since) : "");
        this.#set("veil-title", title);
        const span = since ? `for ${duration(Date.now() - since)}` : "";
        this.#set("veil-text", span);
        this.#set("badge", BADGES[state]);
        this.#set("rate", `${rate.toFixed(1)} /s`);
        this.#set("age", age === null ? "–" : isNaN(age) ? UNKNOWN : duration(age));
        this.#set("count", String(count));
        this.#set(
            "detail",
            state === "late" ? LATE : state === "unchanged" ? `No change ${span}. ${reason}` : reason,
        );
        this.#set("pause", state === "paused" ? "Resume" : "Pause");
        this.#announce(title, performance.now());
    }

    /** Announce a state that has lasted to a screen reader, not each flicker and each second. */
    #announce(title, now) {
        if (title !== this.#title) {
            this.#title = title;
            this.#titleSince = now;
        }
        if (now - this.#titleSince >= SETTLED) {
            this.#set("announcement", title);
        }
    }

    #set(id, text) {
        const element = document.getElementById(id);
        if (element.textContent !== text) {
            element.textContent = text;
        }
    }
}
