// The live stream without a page: its bytes, its clock, its rate and the waits between connections.

const encoder = new TextEncoder();
const HEADER_END = encoder.encode("\r\n\r\n");
// Follows every picture and opens the next part. The board puts nothing before the first part, a
// proxy in front of it may put the boundary there.
const BOUNDARY = "--boundarydonotcross\r\n";
const TRAILER = encoder.encode(`\r\n${BOUNDARY}`);
const HEADER_LIMIT = 1024; // bytes; a part header has about 100
const PICTURE_LIMIT = 4 * 1024 * 1024; // bytes; a picture has 20 to 60 KB

/**
 * Where the bytes of `wanted` begin in `data` at or after `from`, or -1.
 */
function find(data, wanted, from = 0) {
    const last = data.length - wanted.length;
    for (
        let at = data.indexOf(wanted[0], from);
        at !== -1 && at <= last;
        at = data.indexOf(wanted[0], at + 1)
    ) {
        if (wanted.every((byte, i) => data[at + i] === byte)) {
            return at;
        }
    }
    return -1;
}

/**
 * The length and time stamp that a part header states: {length, stamp}, or null when it is damaged.
 * The stamp is milliseconds of the board's clock, or null when the header has none.
 */
export function parsePartHeader(text) {
    const fields = new Map();
    for (const line of text.split("\r\n")) {
        const match = /^([A-Za-z-]+):(.*)$/.exec(line);
        if (!match) {
            return null;
        }
        fields.set(match[1].toLowerCase(), match[2].trim());
    }
    if (
        fields.get("content-type") !== "image/jpeg" ||
        !/^\d{1,8}$/.test(fields.get("content-length") ?? "")
    ) {
        return null;
    }
    // Seconds and microseconds are each padded with blanks to 16 places, not with zeros.
    const stamp = /^(\d+)\. *(\d{1,6})$/.exec(fields.get("x-timestamp") ?? "");
    return {
        length: Number(fields.get("content-length")),
        stamp: stamp ? Number(stamp[1]) * 1000 + Number(stamp[2]) / 1000 : null,
    };
}

/**
 * Cuts the body of "/live" into pictures. A picture counts once the boundary behind it has come,
 * so that none is shown whose stated length was wrong. After damage it resumes after the next
 * boundary.
 */
export class StreamParser {
    /** Parts given up so far. */
    damaged = 0;

    #data = new Uint8Array(0); // looked at and not yet used
    #chunks = []; // not looked at yet
    #held = 0; // bytes in both
    #needed = 0; // bytes before there is anything to do
    #lost = false; // looking for a boundary

    /**
     * Take the next bytes.
     * @returns the pictures that they complete, in order: [{jpeg, stamp}]
     */
    push(bytes) {
        this.#chunks.push(bytes);
        this.#held += bytes.length;
        if (this.#held < this.#needed) {
            return [];
        }
        this.#join();
        this.#needed = 0;
        const pictures = [];
        let more = true;
        while (more) {
            more = this.#lost ? this.#resume() : this.#part(pictures);
        }
        this.#held = this.#data.length;
        return pictures;
    }

    #join() {
        const all = new Uint8Array(this.#held);
        let end = 0;
        for (const piece of [this.#data, ...this.#chunks]) {
            all.set(piece, end);
            end += piece.length;
        }
        this.#data = all;
        this.#chunks = [];
    }

    /** Use one part; false when it has not come whole. */
    #part(pictures) {
        const head = this.#data.subarray(0, HEADER_LIMIT);
        const headEnd = find(head, HEADER_END);
        if (headEnd === -1) {
            return head.length === HEADER_LIMIT ? this.#lose() : false;
        }
        const text = String.fromCharCode(...head.subarray(0, headEnd));
        const header = parsePartHeader(
            text.startsWith(BOUNDARY) ? text.slice(BOUNDARY.length) : text,
        );
        if (!header || header.length > PICTURE_LIMIT) {
            return this.#lose();
        }
        const begin = headEnd + HEADER_END.length;
        const end = begin + header.length;
        if (this.#data.length < end + TRAILER.length) {
            this.#needed = end + TRAILER.length;
            return false;
        }
        if (!TRAILER.every((byte, i) => this.#data[end + i] === byte)) {
            return this.#lose();
        }
        pictures.push({ jpeg: this.#data.slice(begin, end), stamp: header.stamp });
        this.#data = this.#data.subarray(end + TRAILER.length);
        return true;
    }

    #lose() {
        this.damaged++;
        this.#lost = true;
        return true;
    }

    /** Step behind the next boundary; false when none has come. */
    #resume() {
        const at = find(this.#data, TRAILER);
        if (at === -1) {
            // its first bytes may be the last ones here
            this.#data = this.#data.slice(-(TRAILER.length - 1));
            return false;
        }
        this.#data = this.#data.subarray(at + TRAILER.length);
        this.#lost = false;
        return true;
    }
}

const SURE = 1000; // ms by which a first picture's age may be wrong, well below what counts as old

/**
 * How old a picture is, though the board's clock and the browser's differ: arrival minus time stamp
 * is least for a picture that was held up nowhere; what another has above that, it was late.
 *
 * Nothing is forgiven for clocks that drift apart: lateness that comes slowly looks the same. The
 * first picture of a connection tells them apart, as it was stamped after it was asked for and so
 * cannot be older than the time since then.
 */
export class FrameClock {
    #least = null; // arrival minus stamp of a picture held up nowhere, ms, as far as is known
    #late = 0; // ms, of the last picture
    #lastStamp = null;

    /**
     * False for a first picture that would be the measure of all others and may itself be old: only
     * another connection, whose picture comes at once, can tell.
     */
    canJudge(arrived, asked) {
        return this.#least !== null || arrived - asked <= SURE;
    }

    /**
     * @param arrived  ms of the browser's steady clock
     * @param stamp    ms of the board's clock, null when the part had none
     * @param asked    for the first picture of a connection: when it was asked for, as `arrived`
     * @returns how late the picture arrived, ms
     */
    lateness(arrived, stamp, asked = null) {
        if (stamp === null) {
            return 0;
        }
        const offset = arrived - stamp;
        const set = stamp < this.#lastStamp || offset < this.#least - SURE; // the board's clock
        if (this.#least === null || (set && asked !== null)) {
            this.#least = asked === null || arrived - asked <= SURE ? offset : asked - stamp;
        } else if (set) {
            this.#least = offset - this.#late; // the way did not change with the clock
        } else {
            this.#least = Math.max(Math.min(offset, this.#least), (asked ?? -Infinity) - stamp);
        }
        this.#lastStamp = stamp;
        this.#late = offset - this.#least;
        return this.#late;
    }

    /** Forget what was seen: the browser's own clock has jumped. */
    reset() {
        this.#least = null;
        this.#late = 0;
        this.#lastStamp = null;
    }
}

/** Pictures per second over the last three seconds. */
export class RateMeter {
    #window = 3000;
    #times = [];
    #start = 0;

    /** A connection begins at `now` (ms). */
    restart(now) {
        this.#times = [];
        this.#start = now;
    }

    add(now) {
        this.#times.push(now);
    }

    rate(now) {
        while (this.#times.length > 0 && this.#times[0] <= now - this.#window) {
            this.#times.shift();
        }
        const span = Math.min(this.#window, Math.max(now - this.#start, 500));
        return (this.#times.length * 1000) / span;
    }
}

/** Waits that double from `first` to `most` (ms) until reset() starts over. */
export class Backoff {
    #first;
    #most;
    #next;

    constructor(first, most) {
        this.#first = first;
        this.#most = most;
        this.#next = first;
    }

    /** The wait that is due now; the next one is longer. */
    take() {
        const wait = this.#next;
        this.#next = Math.min(wait * 2, this.#most);
        return wait;
    }

    reset() {
        this.#next = this.#first;
    }
}
