// The live picture: connects, draws, and says how old what it shows is.

import { Backoff, FrameClock, RateMeter, StreamParser } from "./stream.js";
import { View } from "./view.js";

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

    #view = new View();
    #canvas = document.getElementById("picture");
    #clock = new FrameClock();
    #rate = new RateMeter();
    #waits = new Backoff(1000, 10000);
    #silence = SILENCE;
    #count = 0;

    #shown = null; // the drawn picture: {arrived, late} in ms, {wall} as time of day
    #drawing = false;
    #next = null; // newest picture that came while one was being drawn

    #connection = null; // see #stream; null while waiting for the next try
    #retryAt = 0;
    #wake = () => {};
    #pausedAt = null; // time of day
    #begun = performance.now(); // last time that the user or the browser started the stream
    #liveUntil = Date.now();
    #clocksApart = Date.now() - performance.now();

    start() {
        document.addEventListener("visibilitychange", () => this.#restart());
        window.addEventListener("online", () => this.#restart());
        document.getElementById("reconnect").addEventListener("click", () => {
            this.#pausedAt = null;
            this.#restart();
        });
        document.getElementById("pause").addEventListener("click", () => {
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
        const connection = {
            abort,
            answered: false, // the header has come
            givenUp: false, // by this page
            lastByte: now,
            lastWhole: now, // last whole picture
            pictures: 0,
        };
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
        return !connection.givenUp;
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
            this.#watchClocks(arrived);
            if (connection.givenUp) {
                return;
            }
            for (const { jpeg, stamp } of parser.push(value)) {
                connection.lastWhole = arrived;
                connection.pictures++;
                this.#count++;
                this.#rate.add(arrived);
                this.#next = {
                    jpeg,
                    arrived,
                    late: this.#clock.lateness(arrived, stamp),
                    wall: Date.now(),
                    clocksApart: this.#clocksApart,
                };
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
            const blob = new Blob([picture.jpeg], { type: "image/jpeg" });
            const bitmap = await createImageBitmap(blob).catch(() => null); // null: not a picture
            if (bitmap && picture.clocksApart === this.#clocksApart) {
                this.#paint(bitmap);
                this.#shown = picture;
                this.#waits.reset();
                this.#silence = SILENCE;
                if (this.#view.state !== "live") {
                    this.#tick();
                }
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
            this.#connection.givenUp = true;
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
        if (!connection || connection.givenUp) {
            return;
        }
        if (
            now - connection.lastByte > this.#silence ||
            now - connection.lastWhole > Math.max(LONGEST_PICTURE, this.#silence)
        ) {
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
            ? "late"
            : "stopped";
    }

    #display(now) {
        const state = this.#state(now);
        if (state === "live") {
            this.#liveUntil = Date.now();
        }
        const since = {
            paused: this.#pausedAt,
            late: this.#liveUntil,
            stopped: this.#shown?.wall ?? this.#liveUntil,
        };
        this.#view.show({
            state,
            since: since[state],
            age: this.#shown ? this.#age(now) : null,
            rate: this.#connection ? this.#rate.rate(now) : 0,
            count: this.#count,
            reason: state === "stopped" ? this.#reason(now) : "",
        });
    }

    #reason(now) {
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
}
