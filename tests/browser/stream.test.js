// The page's parts that need no page: stream parser, frame clock, rate, waits, times.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { test } from "node:test";
import { setFlagsFromString } from "node:v8";
import { runInNewContext } from "node:vm";

// The page's files lie beside no package.json, so node would take them for another kind of module.
function load(name) {
    const source = readFileSync(new URL(`../../www/${name}`, import.meta.url));
    return import(`data:text/javascript;base64,${source.toString("base64")}`);
}
const { Backoff, FrameClock, RateMeter, StreamParser, parsePartHeader } = await load("stream.js");
const { clockTime, duration } = await load("text.js");
const { reasonOf } = await load("reason.js");

const TRAILER = Buffer.from("\r\n--boundarydonotcross\r\n");

function part(jpeg, seconds = 1700000000, microseconds = 42) {
    const head =
        `Content-Type: image/jpeg\r\nContent-Length: ${String(jpeg.length).padStart(8)}\r\n` +
        `X-Timestamp: ${String(seconds).padStart(16)}.${String(microseconds).padStart(16)}\r\n\r\n`;
    return Buffer.concat([Buffer.from(head), jpeg, TRAILER]);
}

const pictureA = Buffer.from([0xff, 0xd8, 13, 10, 13, 10, 1, 2, 3, 0xff, 0xd9]);
const pictureB = Buffer.concat([
    Buffer.from("\xff\xd8\r\n--boundarydonotcross\r", "latin1"),
    Buffer.alloc(40, 7),
]);
const pictureC = Buffer.alloc(3000, 9);
const stream = Buffer.concat([part(pictureA), part(pictureB), part(pictureC)]);

function parse(...chunks) {
    const parser = new StreamParser();
    const pictures = chunks.flatMap((chunk) => parser.push(chunk));
    return {
        pictures: pictures.map(({ jpeg }) => Buffer.from(jpeg)),
        stamps: pictures.map((p) => p.stamp),
        parser,
    };
}

test("parser: whole parts in one piece", () => {
    const { pictures, stamps, parser } = parse(stream);

    assert.deepEqual(pictures, [pictureA, pictureB, pictureC]);
    assert.deepEqual(stamps, [1700000000000.042, 1700000000000.042, 1700000000000.042]);
    assert.equal(parser.damaged, 0);
});

test("parser: cut after every byte", () => {
    for (let cut = 0; cut <= stream.length; cut++) {
        const { pictures, parser } = parse(stream.subarray(0, cut), stream.subarray(cut));
        assert.deepEqual(pictures, [pictureA, pictureB, pictureC], `cut at ${cut}`);
        assert.equal(parser.damaged, 0);
    }
});

test("parser: byte by byte", () => {
    const { pictures, parser } = parse(...Array.from(stream, (byte) => Buffer.from([byte])));

    assert.deepEqual(pictures, [pictureA, pictureB, pictureC]);
    assert.equal(parser.damaged, 0);
});

test("parser: a picture counts only when its boundary has come", () => {
    const parser = new StreamParser();
    const one = part(pictureA);

    assert.equal(parser.push(one.subarray(0, one.length - 1)).length, 0);
    assert.equal(parser.damaged, 0);
    assert.equal(parser.push(one.subarray(one.length - 1)).length, 1);
});

test("parser: keeps no reference to the caller's bytes", () => {
    const bytes = Buffer.from(part(pictureA));
    const [{ jpeg }] = new StreamParser().push(bytes);

    bytes.fill(0);

    assert.deepEqual(Buffer.from(jpeg), pictureA);
});

test("parser: an empty picture is a part", () => {
    assert.deepEqual(parse(part(Buffer.alloc(0)), part(pictureA)).pictures, [
        Buffer.alloc(0),
        pictureA,
    ]);
});

test("parser: resumes after the next boundary after damage, wherever it is cut", () => {
    const damages = {
        "garbage with line ends": Buffer.from(
            "rubbish\r\nmore: rubbish\r\n\r\n\xff\xd8 and so on",
            "latin1",
        ),
        "a header without length": Buffer.from("Content-Type: image/jpeg\r\n\r\nabc"),
        "a header without type": Buffer.from("Content-Length:        3\r\n\r\nabc"),
        "another type": Buffer.from(
            "Content-Type: text/html\r\nContent-Length:        3\r\n\r\nabc",
        ),
        "a negative length": Buffer.from(
            "Content-Type: image/jpeg\r\nContent-Length:       -3\r\n\r\nabc",
        ),
        "a length that is no number": Buffer.from(
            "Content-Type: image/jpeg\r\nContent-Length: 3x\r\n\r\nabc",
        ),
        "a length of more than any picture": Buffer.from(
            "Content-Type: image/jpeg\r\nContent-Length: 99999999\r\n\r\nabc",
        ),
        "a length that is too short": Buffer.from(
            "Content-Type: image/jpeg\r\nContent-Length:        2\r\n\r\nabc",
        ),
        "a length that is too long": Buffer.from(
            "Content-Type: image/jpeg\r\nContent-Length:      900\r\n\r\nabc",
        ),
        "an empty header": Buffer.from("\r\n\r\nabc"),
        "no header, the picture alone": pictureC,
        "a header without end": Buffer.alloc(5000, "x"),
    };
    for (const [name, damage] of Object.entries(damages)) {
        const bytes = Buffer.concat([
            part(pictureA),
            damage,
            TRAILER,
            part(pictureB),
            part(pictureC),
        ]);
        const before = part(pictureA).length;
        for (let cut = before; cut <= before + damage.length + TRAILER.length + 200; cut++) {
            const { pictures, parser } = parse(bytes.subarray(0, cut), bytes.subarray(cut));
            assert.deepEqual(pictures, [pictureA, pictureB, pictureC], `${name}, cut at ${cut}`);
            assert.equal(parser.damaged, 1, name);
        }
    }
});

test("parser: a boundary before the first part, as a proxy may put it, is passed over", () => {
    const bytes = Buffer.concat([TRAILER.subarray(2), part(pictureA), part(pictureB)]);
    for (let cut = 0; cut <= bytes.length; cut++) {
        const { pictures, parser } = parse(bytes.subarray(0, cut), bytes.subarray(cut));
        assert.deepEqual(pictures, [pictureA, pictureB], `cut at ${cut}`);
        assert.equal(parser.damaged, 0);
    }
});

test("parser: endless garbage is dropped, not collected", async () => {
    setFlagsFromString("--expose-gc");
    const collect = runInNewContext("gc");
    const parser = new StreamParser();
    collect();
    const before = process.memoryUsage().arrayBuffers;
    for (let i = 0; i < 300; i++) {
        assert.equal(parser.push(Buffer.alloc(65536, 0x0d)).length, 0);
    }
    const held = () => process.memoryUsage().arrayBuffers - before;
    for (let tries = 0; tries < 100 && held() > 1e6; tries++) {
        // the collector frees beside us
        collect();
        await new Promise((resolve) => setTimeout(resolve, 20));
    }
    assert.ok(held() < 1e6, `${held()} bytes held of 19 MB`);

    assert.equal(parser.push(Buffer.concat([TRAILER, part(pictureA)])).length, 1);
    assert.equal(parser.damaged, 1);
});

test("part header: seconds and microseconds are padded with blanks", () => {
    const head = (stamp) =>
        `Content-Type: image/jpeg\r\nContent-Length:       12\r\nX-Timestamp: ${stamp}`;

    assert.deepEqual(parsePartHeader(head("      1700000000.              42")), {
        length: 12,
        stamp: 1700000000000.042,
    });
    assert.deepEqual(parsePartHeader(head("      1700000000.          999999")), {
        length: 12,
        stamp: 1700000000999.999,
    });
    assert.equal(parsePartHeader(head("yesterday")).stamp, null);
});

test("part header: the stamp may be missing, letter case does not matter", () => {
    assert.deepEqual(parsePartHeader("content-type: image/jpeg\r\nCONTENT-LENGTH:7"), {
        length: 7,
        stamp: null,
    });
});

test("clock: clocks that differ make no picture late", () => {
    const clock = new FrameClock();
    for (let i = 0; i < 100; i++) {
        assert.equal(Math.round(clock.lateness(1000 + i * 40, 1.7e12 + i * 40)), 0);
    }
});

test("clock: growth over the smallest arrival minus stamp is lateness", () => {
    const clock = new FrameClock();
    clock.lateness(1300, 0); // itself held up by 300 ms, which nobody can know

    assert.equal(Math.round(clock.lateness(1040, 40)), 0);
    assert.equal(Math.round(clock.lateness(4080, 80)), 3000);
    assert.equal(Math.round(clock.lateness(4120, 3120)), 0);
});

test("clock: lateness that stays is not forgotten in hours", () => {
    const clock = new FrameClock();
    let late = 0;
    for (let at = 0; at < 10000; at += 40) {
        late = clock.lateness(at + 40, at, at === 0 ? 20 : null);
    }
    for (let at = 13000; at < 7200000; at += 40) {
        late = clock.lateness(at + 40, at - 3000);
    }
    assert.equal(late, 3000);
});

test("clock: lateness that comes as slowly as clocks drift is still lateness", () => {
    const clock = new FrameClock();
    let late = 0;
    for (let at = 0; at < 6000000; at += 1000) {
        late = clock.lateness(at, at * 0.9995);
    }
    assert.equal(Math.round(late), 3000);
});

test("clock: a connection whose picture comes at once takes a drift back", () => {
    const clock = new FrameClock();
    clock.lateness(40, 1e6, 0);
    assert.equal(clock.lateness(6000000, 1e6 + 5997000), 2960);

    assert.equal(clock.lateness(7000090, 1e6 + 6997050, 7000000), 90); // no older than its wait
    assert.equal(clock.lateness(7000130, 1e6 + 6997090), 90);
    assert.equal(clock.lateness(7000130, 1e6 + 6997120), 60);
});

test("clock: another connection over a way that is late takes no lateness back", () => {
    const clock = new FrameClock();
    clock.lateness(40, 20, 0);
    assert.equal(clock.lateness(63020, 60000), 3000);

    assert.equal(clock.lateness(73040, 70020, 70000), 3000);
});

test("clock: late from the first picture on is late", () => {
    const clock = new FrameClock();
    assert.equal(clock.canJudge(3040, 0), false);

    assert.equal(clock.lateness(3040, 1e6, 0), 3040); // its connection was asked for at 0
    assert.equal(clock.lateness(3080, 1e6 + 40), 3040);
});

test("clock: a first picture that comes soon is the measure", () => {
    const clock = new FrameClock();
    assert.equal(clock.canJudge(900, 0), true);
    assert.equal(clock.lateness(900, 1e6, 0), 0);
    assert.equal(clock.canJudge(99000, 0), true, "there is one already");
});

test("clock: a board's clock that is set leaves late what was late", () => {
    for (const by of [-3600000, 3600000]) {
        const clock = new FrameClock();
        clock.lateness(40, 0);
        assert.equal(clock.lateness(3080, 40), 3000);
        assert.equal(clock.lateness(3120, 80 + by), 3000, `set by ${by} ms`);
        assert.equal(clock.lateness(3160, 120 + by), 3000);
    }
});

test("clock: a board's clock that is set back or forth makes nothing late", () => {
    const clock = new FrameClock();
    clock.lateness(0, 5e6);
    assert.equal(clock.lateness(40, 5e6 - 3600000), 0);
    assert.equal(Math.round(clock.lateness(80, 5e6 - 3600000 + 40)), 0);
    assert.equal(clock.lateness(120, 9e6), 0);
    assert.equal(Math.round(clock.lateness(160, 9e6 + 40)), 0);
});

test("clock: a part without a stamp is not late, and changes nothing", () => {
    const clock = new FrameClock();
    clock.lateness(0, 0);
    assert.equal(clock.lateness(9000, null), 0);
    assert.equal(Math.round(clock.lateness(1000, 0)), 1000);
});

test("clock: reset forgets", () => {
    const clock = new FrameClock();
    clock.lateness(0, 0);
    clock.reset();
    assert.equal(clock.lateness(9000, 0), 0);
});

test("rate: pictures of the last three seconds", () => {
    const rate = new RateMeter();
    rate.restart(0);
    for (let at = 40; at <= 10000; at += 40) {
        rate.add(at);
    }
    assert.equal(rate.rate(10000), 25);
    assert.equal(rate.rate(11500), 38 / 3);
    assert.equal(rate.rate(13001), 0);
});

test("rate: a connection's first seconds count as long as they are", () => {
    const rate = new RateMeter();
    rate.restart(1000);
    for (let i = 1; i <= 25; i++) {
        rate.add(1000 + i * 40);
    }
    assert.equal(rate.rate(2000), 25);
    rate.restart(2000);
    assert.equal(rate.rate(2100), 0);
});

test("waits: double up to the longest, and start over", () => {
    const waits = new Backoff(1000, 10000);
    assert.deepEqual(
        [1, 2, 3, 4, 5, 6].map(() => waits.take()),
        [1000, 2000, 4000, 8000, 10000, 10000],
    );
    waits.reset();
    assert.equal(waits.take(), 1000);
});

test("text: spans", () => {
    assert.deepEqual(
        [-5, 40, 999, 1000, 9940, 10000, 59999, 60000, 192000, 7500000].map(duration),
        [
            "0.00 s",
            "0.04 s",
            "1.00 s",
            "1.0 s",
            "9.9 s",
            "10 s",
            "59 s",
            "1 min 0 s",
            "3 min 12 s",
            "2 h 5 min",
        ],
    );
});

test("text: another day's time has its date", () => {
    assert.match(clockTime(Date.now()), /^\d\d:\d\d:\d\d$/);
    assert.equal(clockTime(new Date(2001, 1, 3, 4, 5, 6).getTime()), "2001-02-03 04:05:06");
});

test("reason: what is not known is not said", () => {
    const known = {
        isBusy: false,
        isConnected: true,
        retryIn: 4,
        showsImage: false,
        answered: true,
        hadPictures: false,
        nextIn: 3,
        isAlive: null,
    };
    const unplugged = /^The board answers, but its camera sends no pictures\. Is it plugged in\?$/;
    for (const [what, expected] of [
        [{}, unplugged],
        [{ hadPictures: true }, /camera, the board or the network has stopped\. In 3 s another/],
        [{ answered: false }, /^Waiting for the board to answer\.$/],
        [{ isConnected: false }, /^The board does not answer\. Next try in 4 s\.$/],
        [{ isConnected: false, isBusy: true }, /^A measurement is not answered yet\./],
        [{ showsImage: true }, /^The camera, the board or the network has stopped, or nothing moves/],
        [{ showsImage: true, answered: false }, /^Waiting for the first picture\.$/],
        [{ showsImage: true, isAlive: false }, /^The board does not answer\.$/],
        [{ showsImage: true, isAlive: true }, /^The board answers\. .* this browser cannot tell which/],
        [{ showsImage: true, isAlive: true, answered: false }, unplugged],
    ]) {
        assert.match(reasonOf({ ...known, ...what }), expected, JSON.stringify(what));
    }
});
