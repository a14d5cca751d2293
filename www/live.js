// The live picture: connects, draws, and says how old what it shows is.

import { isAlive } from "./board.js";
import { ImageStream, canFetchMultipart } from "./image.js";
import { Painter } from "./painter.js";
import { reasonOf } from "./reason.js";
import { Backoff, FrameClock, RateMeter, StreamParser } from "./stream.js";
import { View } from "./view.js";

const SOON = 500; // ms in which a board answers
const STALE = 2000; // ms; an older picture is not live
const SILENCE = 5000; // ms without a byte before another connection is tried
const LONGEST_SILENCE = 30000;
const LONGEST_PICTURE = 30000; // ms for one picture over a slow network
const CLOSING = 100; // ms in which the board learns that a connection was given up
const RETURN = 3000; // ms for a stream to go on once a lost board answers again
const TICK = 250;

/**
 * Runs the section with the picture. The picture is dimmed whenever it is not live: paused, older
 * than two seconds, or of unknown age. An open connection without pictures (camera unplugged), or
 * with late ones, is given up after five seconds, then ten, twenty and thirty, as a network that is
 * gone looks the same; a closed or refused one is tried again after 1, 2, 4, 8 and 10 seconds. There
 * is never more than one.
 *
 * Where only an image shows the stream, see ImageStream, its one connection is kept: after a silence
 * the board is asked for a sign of life, and another stream is begun only when the board was lost.
 */
export class LivePicture {
    /** True while another request may hold the board's answers back. */
    boardIsBusy = false;
    /** Called whenever the picture has become live. */
    onLive = () => {};

    #view = new View();
    #painter = new Painter();
    #clock = new FrameClock();
    #rate = new RateMeter();
    #waits = new Backoff(1000, 10000);
    #silence = SILENCE;
    #count = 0;

    #shown = null; // the drawn picture: {arrived, late} in ms, {wall} as time of day
    #lateSince = null; // ms
    #isSecondLook = false; // the connection was made to tell a late picture from one waited for

    #connection = null; // see #connect; null while waiting for the next try
    #retryAt = 0;
    #wake = () => {};
    #pausedAt = null; // time of day
    #begun = performance.now(); // last time that the user or the browser started the stream
    #liveUntil = Date.now();
    #clocksApart = Date.now() - performance.now();

    #showsImage = false; // the browser shows the stream in an image only
    #image = null;
    #images = Date.now(); // numbers the streams, also across loads of the page
    #alive = null; // what the last sign of life showed: true, false, null when none was asked for
    #asking = false;
    #askAt = 0;

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
        this.#showsImage = !(await canFetchMultipart());
        for (;;) {
            if (this.#pausedAt !== null || document.hidden) {
                await this.#sleep(3600000);
            } else if (await (this.#showsImage ? this.#watchImage() : this.#stream())) {
                const wait = this.#waits.take();
                this.#retryAt = performance.now() + wait;
                await this.#sleep(wait);
            } else {
                await new Promise((resolve) => setTimeout(resolve, CLOSING));
            }
        }
    }

    #connect() {
        const now = performance.now();
        this.#connection = {
            abort: new AbortController(),
            asked: now,
            answered: false, // the header has come, or another sign of life
            asksForLife: false,
            givenUp: false, // by this page
            lastByte: now,
            lastWhole: now, // last whole picture
            pictures: 0,
        };
        this.#rate.restart(now);
        return this.#connection;
    }

    /** Read one connection to its end; true when it ended by itself. */
    async #stream() {
        const connection = this.#connect();
        const { abort } = connection;
        try {
            const response = await fetch("live", { cache: "no-store", signal: abort.signal });
            if (response.ok) {
                connection.answered = true;
                connection.lastByte = performance.now();
                this.boardIsBusy = false; // or it would not have answered
                await this.#read(response.body.getReader(), connection);
            }
        } catch {
            // refused, cut off or given up: no difference from here on
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
            for (const picture of parser.push(value)) {
                if (!connection.givenUp) {
                    this.#take(picture, arrived, connection);
                }
            }
            if (connection.givenUp) {
                return;
            }
        }
    }

    #take({ jpeg, stamp }, arrived, connection) {
        const first = connection.pictures === 0;
        connection.lastWhole = arrived;
        connection.pictures++;
        if (first && !this.#isSecondLook && !this.#clock.canJudge(arrived, connection.asked)) {
            this.#isSecondLook = true;
            this.#giveUp();
            return;
        }
        this.#count++;
        this.#rate.add(arrived);
        const picture = {
            jpeg,
            arrived,
            late: this.#clock.lateness(arrived, stamp, first ? connection.asked : null),
            wall: Date.now(),
            clocksApart: this.#clocksApart,
        };
        this.#painter.draw(
            picture,
            (decoded) => decoded.clocksApart === this.#clocksApart,
            (drawn) => this.#show(drawn),
        );
    }

    /** Look at the image's stream; true when it ended by itself. */
    async #watchImage() {
        const connection = this.#connect();
        this.#image ??= new ImageStream(++this.#images);
        const image = this.#image;
        await image.watch(
            () => connection.givenUp,
            (canvas, isNew) => {
                const arrived = performance.now();
                this.#painter.paint(canvas);
                connection.answered = true;
                if (isNew) {
                    connection.pictures++;
                    connection.lastByte = connection.lastWhole = arrived;
                    this.#count++;
                    this.#rate.add(arrived);
                    this.#alive = null;
                    this.#show({ arrived, late: 0, wall: Date.now() });
                }
            },
        );
        this.#connection = null;
        if (image.ended && this.#image === image) {
            this.#image = null;
        }
        return !connection.givenUp;
    }

    /** A picture was drawn. */
    #show(picture) {
        this.#shown = picture;
        if (this.#age(performance.now()) <= STALE) {
            this.#waits.reset();
            this.#silence = SILENCE;
            this.#isSecondLook = false;
        }
        if (this.#view.state !== "live") {
            this.#tick();
        }
    }

    /** Give the connection or the wait up and go on at once, as far as the page is to go on. */
    #restart() {
        this.#begun = performance.now();
        this.#waits.reset();
        this.#silence = SILENCE;
        this.#lateSince = null;
        this.#askAt = 0;
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
        this.#display(now);
        const connection = this.#connection;
        if (connection && !connection.givenUp) {
            if (this.#showsImage) {
                this.#watchBoard(now, connection);
            } else {
                this.#watchSilence(now, connection);
            }
        }
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

    #watchSilence(now, connection) {
        if (!connection.answered && now - connection.asked > SOON) {
            this.#askForLife(connection);
        }
        if (
            now - connection.lastByte > this.#silence ||
            now - connection.lastWhole > Math.max(LONGEST_PICTURE, this.#silence) ||
            (this.#lateSince !== null && now - this.#lateSince > this.#silence)
        ) {
            this.#silence = Math.min(this.#silence * 2, LONGEST_SILENCE);
            this.#lateSince = null;
            this.#giveUp();
        }
    }

    /** Firefox reports an answer only with its first picture: ask in another way, once. */
    async #askForLife(connection) {
        if (!connection.asksForLife) {
            connection.asksForLife = true;
            connection.answered = (await isAlive()) || connection.answered;
        }
    }

    /** Ask a board whose picture does not change for a sign of life, now and then. */
    async #watchBoard(now, connection) {
        if (this.#asking || now - connection.lastByte < SILENCE || now < this.#askAt) {
            return;
        }
        this.#asking = true;
        const wasLost = this.#alive === false;
        const alive = await isAlive();
        if (alive && wasLost) {
            await new Promise((resolve) => setTimeout(resolve, RETURN));
        }
        this.#asking = false;
        if (alive) {
            this.boardIsBusy = false; // or it would not have answered
        }
        if (this.#connection !== connection || performance.now() - connection.lastByte < SILENCE) {
            return; // all has changed meanwhile
        }
        this.#alive = alive;
        if (alive && wasLost) {
            this.#image = null;
            this.#giveUp();
        } else if (alive) {
            this.#askAt = performance.now() + this.#silence;
            this.#silence = Math.min(this.#silence * 2, LONGEST_SILENCE);
        } else {
            this.#askAt = performance.now() + this.#waits.take();
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
        if (this.#showsImage) {
            return this.#connection?.answered ? "unchanged" : "stopped";
        }
        return this.#connection?.pictures > 0 && now - this.#connection.lastWhole < STALE
            ? "late"
            : "stopped";
    }

    #display(now) {
        const state = this.#state(now);
        const wasLive = this.#view.state === "live";
        if (state === "live") {
            this.#liveUntil = Date.now();
        }
        this.#lateSince = state === "late" ? (this.#lateSince ?? now) : null;
        const noPicture = this.#shown?.wall ?? this.#liveUntil;
        const since = {
            paused: this.#pausedAt,
            late: this.#liveUntil,
            stopped: noPicture,
            unchanged: noPicture,
        };
        this.#view.show({
            state,
            since: since[state],
            age: this.#showsImage ? NaN : this.#shown ? this.#age(now) : null,
            rate: this.#connection ? this.#rate.rate(now) : 0,
            count: this.#count,
            reason: state === "stopped" || state === "unchanged" ? this.#reason(now) : "",
        });
        if (state === "live" && !wasLive) {
            this.onLive();
        }
    }

    #reason(now) {
        const connection = this.#connection;
        const inSeconds = (moment) => Math.max(0, Math.ceil((moment - now) / 1000));
        return reasonOf({
            isBusy: this.boardIsBusy,
            isConnected: connection !== null,
            retryIn: inSeconds(this.#retryAt),
            showsImage: this.#showsImage,
            answered: connection?.answered,
            hadPictures: connection?.pictures > 0,
            nextIn: inSeconds((connection?.lastByte ?? 0) + this.#silence),
            isAlive: this.#alive,
        });
    }
}
