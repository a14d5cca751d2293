// The relay's page: lists the boards, shows one of them, and says when what it shows is old.

import { JanusViewer } from "./janus.js";

const STALE = 2000; // ms; an older picture is not live
const ASK = 1000; // ms between two questions for the boards' state
const TICK = 250;
const RETRY = [1000, 2000, 4000, 8000, 10000]; // ms between two connections to Janus
const PATIENCE = 8000; // ms for Janus's first picture, and for the next one while the board has some

const element = (id) => document.getElementById(id);
const two = (number) => String(number).padStart(2, "0");
const page = crypto.randomUUID();

function clockTime(moment) {
    const at = new Date(moment);
    return `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
}

function setText(id, text) {
    if (element(id).textContent !== text) {
        element(id).textContent = text;
    }
}

/** The board that is shown. The picture is dimmed whenever it is not live. */
class Shown {
    #name;
    #video = element("picture");
    #viewer = null;
    #viewerSince = 0;
    #frames = 0;
    #lastFrame = null; // ms since 1970
    #tries = 0;
    #retryAt = 0;
    #board = null; // its state as the relay told it, null while the relay does not answer
    #reason = "";

    constructor(name) {
        this.#name = name;
    }

    close() {
        this.#viewer?.close();
    }

    /** @param board  {live, age, id}, or null when the relay gave no answer */
    tell(board) {
        this.#board = board;
    }

    tick(now) {
        const frames = this.#video.getVideoPlaybackQuality().totalVideoFrames;
        if (this.#viewer && frames > this.#frames) {
            this.#lastFrame = now;
            this.#tries = 0;
        }
        this.#frames = frames;
        this.#keepViewer(now);
        this.#show(now);
    }

    #keepViewer(now) {
        if (this.#viewer) {
            const since = Math.max(this.#lastFrame ?? 0, this.#viewerSince);
            if (this.#board?.live && now - since > PATIENCE) {
                this.#viewer.close();
                this.#drop("No picture came from Janus.", now);
            }
        } else if (this.#board?.live && now >= this.#retryAt) {
            this.#viewerSince = now;
            this.#frames = 0;
            this.#viewer = new JanusViewer(this.#board.id, this.#video, (reason) =>
                this.#drop(`${reason}.`, Date.now()),
            );
        }
    }

    #drop(reason, now) {
        this.#viewer = null;
        this.#reason = reason;
        this.#retryAt = now + RETRY[Math.min(this.#tries, RETRY.length - 1)];
        this.#tries++;
    }

    #show(now) {
        const live = this.#lastFrame !== null && now - this.#lastFrame < STALE;
        const state = live ? "live" : this.#lastFrame === null ? "connecting" : "stopped";
        element("live").dataset.state = state;
        const title = {
            live: "Live picture.",
            connecting: "Connecting",
            stopped: `No picture since ${clockTime(this.#lastFrame)}`,
        }[state];
        setText("veil-title", title);
        setText("announcement", title);
        setText(
            "veil-text",
            state === "stopped" ? `for ${Math.floor((now - this.#lastFrame) / 1000)} s` : "",
        );
        setText("badge", { live: "Live", connecting: "Connecting", stopped: "No picture" }[state]);
        setText("detail", live ? "" : this.#why());
    }

    #why() {
        if (this.#board === null) {
            return "The relay does not answer.";
        }
        return this.#board.live ? this.#reason : `No picture comes from ${this.#name} to the relay.`;
    }
}

let shown = null;
let chosen = "";

function choose() {
    const name = decodeURIComponent(location.hash.slice(1));
    if (name === chosen) {
        return;
    }
    shown?.close();
    chosen = name;
    shown = name ? new Shown(name) : null;
    setText("board", name || "Choose a board");
    element("stream").hidden = !name;
    element("stream").href = `live/${name}`;
    mark();
}

function mark() {
    for (const link of element("boards").querySelectorAll("a")) {
        if (link.dataset.name === chosen) {
            link.setAttribute("aria-current", "true");
        } else {
            link.removeAttribute("aria-current");
        }
    }
}

function list(boards) {
    const names = Object.keys(boards);
    const links = [...element("boards").querySelectorAll("a")];
    if (links.map((link) => link.dataset.name).join() !== names.join()) {
        element("boards").replaceChildren(
            ...names.map((name) => {
                const link = document.createElement("a");
                link.href = `#${name}`;
                link.dataset.name = name;
                link.append(name, " ", document.createElement("span"));
                const item = document.createElement("li");
                item.append(link);
                return item;
            }),
        );
        mark();
    }
    for (const link of element("boards").querySelectorAll("a")) {
        const { live } = boards[link.dataset.name];
        link.classList.toggle("live", live);
        link.querySelector("span").textContent = live ? "Live" : "No picture";
    }
    element("none").hidden = names.length > 0;
}

async function get(path) {
    const response = await fetch(path, { cache: "no-store", signal: AbortSignal.timeout(4000) });
    if (!response.ok) {
        throw new Error(String(response.status));
    }
    return response.json();
}

/** Ask for all boards, and, so that the relay encodes it, for the one that is shown. */
async function ask() {
    const asked = shown;
    const watched = chosen;
    try {
        list(await get("state"));
        if (asked) {
            // A page in the background lets go of what it does not show.
            const query = document.hidden ? "" : `?page=${page}`;
            asked.tell(await get(`state/${watched}${query}`));
        }
    } catch {
        asked?.tell(null);
    } finally {
        setTimeout(ask, ASK);
    }
}

addEventListener("hashchange", () => {
    choose();
});
choose();
ask();
setInterval(() => shown?.tick(Date.now()), TICK);
