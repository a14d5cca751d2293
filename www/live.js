// The live picture: connects, draws, and says how old what it shows is.

import { Backoff, FrameClock, RateMeter, StreamParser } from "./stream.js";
import { clockTime, duration } from "./text.js";

const STALE = 2000; // ms; an older picture is not live
const SILENCE = 5000; // ms without a byte before another connection is tried
const LONGEST_SILENCE = 30000;
const LONGEST_PICTURE = 30000; // ms for one picture over a slow network
const TICK = 250;

/**
 * Runs the section with the picture. The picture is dimmed whenever it is not live: paused, older
 * than two seconds, or of unknown age. An open connection without pictures (camera unplugged) is
 * given up after five seconds, then ten, twenty and thirty, as a network that is gone looks the
 * same; a closed or refused one is tried again after 1, 2, 4, 8 and 10 seconds.
 */
export class LivePicture {
    /** True while another request is known to hold the board's answers back. */
    boardIsBusy = false;

    #section = document.getElementById("live");
    #canvas = document.getElementById("picture");
    #text = Object.fromEntries(["badge", "rate", "age", "count", "detail", "announcement",
        "veil-title", "veil-text", "pause"].map((id) => [id, document.getElementById(id)]));

    #clock = new FrameClock();
    #rate = new RateMeter();
    #waits = new Backoff(1000, 10000);
    #silence = SILENCE;
    #count = 0;

    #shown = null; // the drawn picture: {arrived, late} in ms, {wall} as time of day
    #drawing = false;
    #next = null; // newest picture that came while one was being drawn

    #connection = null; // {abort, answered, lastByte, lastWhole, pictures}
    #retryAt = 0;
    #wake = () => {};
    #pausedAt = null; // time of day
    #begun = performance.now(); // last time that the user or the browser started the stream
    #liveUntil = Date.now();
    #clocksApart = Date.now() - performance.now();
    #title = "";
    #titleSince = 0;

    start() {
        document.addEventListener("visibilitychange", () => this.#restart());
        window.addEventListener("online", () => this.#restart());
        document.getElementById("reconnect").addEventListener("click", () => {
            this.#pausedAt = null;
            this.#restart();
        });
        this.#text.pause.addEventListener("click", () => {
            this.#pausedAt = this.#pausedAt === null ? Date.now() : null;
            this.#restart();
        });
        setInterval(() => this.#tick(), TICK);
        this.#tick();
        this.#run();
    }

    async #run() {
        for (;;) {
            if (this.#pausedAt !== null || document.hidden) {
                await this.#sleep(3600000);
            } else if (await this.#stream()) {
                const wait = this.#waits.take();
                this.#retryAt = performance.now() + wait;
                await this.#sleep(wait);
            }
        }
    }

    /** Read one connection to its end; true when it ended by itself. */
    async #stream() {
        const abort = new AbortController();
        const now = performance.now();
        const connection = { abort, answered: false, lastByte: now, lastWhole: now, pictures: 0 };
        this.#connection = connection;
        this.#rate.restart(now);
        try {
            const response = await fetch("live", { cache: "no-store", signal: abort.signal });
            if (response.ok) {
                connection.answered = true;
                connection.lastByte = performance.now();
                await this.#read(response.body.getReader(), connection);
            }
        } catch {
            // refused, cut off or given up: all the same from here
        }
        abort.abort(); // a connection that is left half read would stay open
        this.#connection = null;
        return !connection.given;
    }

    async #read(reader, connection) {
        const parser = new StreamParser();
        for (;;) {
            const { done, value } = await reader.read();
            if (done) {
                return;
            }
            const arrived = performance.now();
            connection.lastByte = arrived;
            for (const { jpeg, stamp } of parser.push(value)) {
                connection.lastWhole = arrived;
                connection.pictures++;
                this.#count++;
                this.#rate.add(arrived);
                this.#next = { jpeg, arrived, wall: Date.now(), late: this.#clock.lateness(arrived, stamp) };
            }
            this.#draw();
        }
    }

    /** Draw the newest picture; those that come meanwhile, but for the newest, are passed over. */
    async #draw() {
        if (this.#drawing) {
            return;
        }
        this.#drawing = true;
        while (this.#next) {
            const picture = this.#next;
            this.#next = null;
            try {
                const bitmap = await createImageBitmap(new Blob([picture.jpeg], { type: "image/jpeg" }));
                this.#paint(bitmap);
                this.#shown = { arrived: picture.arrived, late: picture.late, wall: picture.wall };
                this.#waits.reset();
                this.#silence = SILENCE;
                if (this.#section.dataset.state !== "live") {
                    this.#tick();
                }
            } catch {
                // not a picture: the age of the one that is shown tells
            }
        }
        this.#drawing = false;
    }

    #paint(bitmap) {
        if (this.#canvas.width !== bitmap.width || this.#canvas.height !== bitmap.height) {
            this.#canvas.width = bitmap.width;
            this.#canvas.height = bitmap.height;
        }
        this.#canvas.getContext("2d", { alpha: false }).drawImage(bitmap, 0, 0);
        bitmap.close();
    }

    /** Give the connection or the wait up and go on at once, as far as the page is to go on. */
    #restart() {
        this.#begun = performance.now();
        this.#waits.reset();
        this.#silence = SILENCE;
        this.#giveUp();
        this.#tick();
    }

    #giveUp() {
        if (this.#connection) {
            this.#connection.given = true;
            this.#connection.abort.abort();
        }
        this.#wake();
    }

    #sleep(ms) {
        return new Promise((resolve) => {
            const timer = setTimeout(resolve, ms);
            this.#wake = () => {
                clearTimeout(timer);
                resolve();
            };
        });
    }

    #tick() {
        const now = performance.now();
        this.#watchClocks(now);
        this.#watchSilence(now);
        this.#display(now);
    }

    /** A computer that slept, or whose time was set, holds bytes of unknown age: start afresh. */
    #watchClocks(now) {
        const apart = Date.now() - now;
        if (Math.abs(apart - this.#clocksApart) > 1000) {
            this.#clocksApart = apart;
            this.#clock.reset();
            this.#shown = null;
            this.#restart();
        }
    }

    #watchSilence(now) {
        const connection = this.#connection;
        if (!connection || connection.given || this.boardIsBusy) {
            return;
        }
        if (now - connection.lastByte > this.#silence ||
            now - connection.lastWhole > Math.max(LONGEST_PICTURE, this.#silence)) {
            this.#silence = Math.min(this.#silence * 2, LONGEST_SILENCE);
            this.#giveUp();
        }
    }

    #age(now) {
        return this.#shown ? now - this.#shown.arrived + this.#shown.late : Infinity;
    }

    #state(now) {
        if (this.#pausedAt !== null) {
            return "paused";
        }
        if (this.#age(now) <= STALE) {
            return "live";
        }
        if (now - this.#begun < STALE && (this.#shown?.arrived ?? 0) < this.#begun) {
            return "connecting";
        }
        return this.#connection?.pictures > 0 && now - this.#connection.lastWhole < STALE
            ? "late" : "stopped";
    }

    #display(now) {
        const state = this.#state(now);
        const age = this.#age(now);
        if (state === "live") {
            this.#liveUntil = Date.now();
        }
        const [badge, title, since] = {
            live: ["Live", "Live picture.", null],
            connecting: ["Connecting", "Connecting", null],
            paused: ["Paused", "Paused since ", this.#pausedAt],
            late: ["Late", "Pictures are late since ", this.#liveUntil],
            stopped: ["No picture", "No picture since ", this.#shown?.wall ?? this.#liveUntil],
        }[state];
        this.#section.dataset.state = state;
        this.#set("badge", badge);
        this.#set("rate", `${this.#connection ? this.#rate.rate(now).toFixed(1) : "0.0"} /s`);
        this.#set("age", this.#shown ? duration(age) : "–");
        this.#set("count", String(this.#count));
        this.#set("veil-title", title + (since === null ? "" : clockTime(since)));
        this.#set("veil-text", since === null ? ""
            : state === "late" ? `${duration(age)} old` : `for ${duration(Date.now() - since)}`);
        this.#set("detail", this.#reason(state, now));
        this.#set("pause", state === "paused" ? "Resume" : "Pause");
        this.#announce(now);
    }

    #reason(state, now) {
        if (state === "late") {
            return "The pictures that arrive are old or damaged; the network may be too slow.";
        }
        if (state !== "stopped") {
            return "";
        }
        if (this.boardIsBusy) {
            return "A measurement is running; the board answers nothing else.";
        }
        if (!this.#connection) {
            const seconds = Math.max(0, Math.ceil((this.#retryAt - now) / 1000));
            return `The board does not answer. Next try in ${seconds} s.`;
        }
        if (!this.#connection.answered) {
            return "Waiting for the board to answer.";
        }
        return this.#connection.pictures > 0
            ? "Nothing comes from the board any more."
            : "The board answers, but its camera sends no pictures. Is it plugged in?";
    }

    /** Tell a screen reader of a state that has lasted, not of each flicker and each second. */
    #announce(now) {
        const title = this.#text["veil-title"].textContent;
        if (title !== this.#title) {
            this.#title = title;
            this.#titleSince = now;
        }
        if (now - this.#titleSince >= 1500) {
            this.#set("announcement", title);
        }
    }

    #set(id, text) {
        if (this.#text[id].textContent !== text) {
            this.#text[id].textContent = text;
        }
    }
}
