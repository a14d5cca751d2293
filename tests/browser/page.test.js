// The web application in Chromium, on the built service with the virtual camera.
import assert from "node:assert/strict";
import { createHash } from "node:crypto";
import { readFileSync, readdirSync, statSync } from "node:fs";
import { after, before, test } from "node:test";

import { Board, CARD, HTTP_PORT, Network } from "./board.js";
import { startChromium } from "./browsers.js";

const PAGE = `http://127.0.0.1:${HTTP_PORT}/index.html`;
const STATION = "http://127.0.0.1:8330/healthz"; // where the page looks for one
const PHONE = {
    viewport: { width: 390, height: 844 },
    deviceScaleFactor: 2,
    isMobile: true,
    hasTouch: true,
};
const DESKTOP = { viewport: { width: 1280, height: 800 } };
const DEADLINE = 30000; // ms; only ends a failing run

let board;
let browser;

before(async () => {
    board = await Board.start();
    browser = await startChromium();
});

after(async () => {
    try {
        await browser?.close();
    } finally {
        await board?.close();
    }
});

/** A test with a page of its own; nothing of it may fail unseen in the page's console. */
function pageTest(name, options, body) {
    test(name, async () => {
        const context = await browser.newContext({ ...DESKTOP, ...options });
        context.setDefaultTimeout(DEADLINE);
        const page = await context.newPage();
        const errors = [];
        page.on("pageerror", (error) => errors.push(String(error)));
        try {
            await body(page, context);
            assert.deepEqual(errors, []);
        } finally {
            await context.close();
        }
    });
}

async function open(page, url = PAGE) {
    await page.goto(url);
    await reach(page, "live");
}

const reach = (page, state) => page.waitForSelector(`#live[data-state="${state}"]`);
const text = (page, id) => page.locator(`#${id}`).innerText();
const dimmed = (page) =>
    page.waitForFunction(() => {
        const { opacity, filter } = getComputedStyle(document.getElementById("picture"));
        return Number(opacity) < 0.4 && filter === "grayscale(1)"; // the end of a transition
    });
const textBecomes = (page, id, pattern) =>
    page.waitForFunction(
        ([id, source]) => new RegExp(source).test(document.getElementById(id).textContent),
        [id, pattern.source],
    );
const drawn = async (page) =>
    createHash("md5")
        .update(await page.locator("#picture").evaluate((canvas) => canvas.toDataURL()))
        .digest("hex");
const drawsAnother = async (page) => {
    const first = await drawn(page);
    const end = Date.now() + DEADLINE;
    while ((await drawn(page)) === first) {
        assert.ok(Date.now() < end, "the picture stands still");
    }
};

test("the bare stream in an <img> moves", async () => {
    const page = await browser.newPage(DESKTOP);
    await page.setContent(`<img src="http://127.0.0.1:${HTTP_PORT}/live">`);
    await page.waitForFunction(() => document.querySelector("img").naturalWidth === 640);

    const first = await page.screenshot();
    const moved = Date.now() + DEADLINE;
    while ((await page.screenshot()).equals(first)) {
        assert.ok(Date.now() < moved, "the picture stands still");
    }
    await board.command("camera freeze"); // the screenshots can be alike
    try {
        const end = Date.now() + DEADLINE;
        for (let last = first, next; ; last = next) {
            next = await page.screenshot();
            if (next.equals(last)) {
                break;
            }
            assert.ok(Date.now() < end, "a frozen camera's picture moves");
        }
    } finally {
        await board.command("camera thaw");
    }
    await page.close();
});

pageTest("the live picture moves, with rate, age and count", {}, async (page) => {
    await open(page);
    await drawsAnother(page);
    await textBecomes(page, "rate", /^[1-9]\d*\.\d \/s$/);

    await page.waitForFunction(() => {
        const shown = (id) => document.getElementById(id).textContent;
        const { opacity } = getComputedStyle(document.getElementById("picture"));
        return shown("badge") === "Live" && opacity === "1" && /^[01]\.\d+ s$/.test(shown("age"));
    });
    const count = Number(await text(page, "count"));
    await page.waitForFunction(
        (count) => Number(document.getElementById("count").textContent) > count,
        count,
    );
    assert.equal(
        await page.locator("#picture").evaluate((canvas) => `${canvas.width}x${canvas.height}`),
        "640x480",
    );
    assert.equal(await text(page, "log"), "nc 127.0.0.1 8001");
});

pageTest("a snapshot is shown, downloaded and saved", {}, async (page) => {
    await open(page);
    await page.getByLabel("File name").fill("first_part-2.jpg");
    const asked = page.waitForRequest(/\/snap/);
    await page.getByRole("button", { name: "Take snapshot" }).click();
    assert.equal(new URL((await asked).url()).search, "?filename=first_part-2.jpg");

    const picture = page.getByRole("img", { name: "Snapshot first_part-2.jpg" });
    await picture.waitFor();
    await page.waitForFunction(() => document.getElementById("shot-picture").naturalWidth === 640);
    const [download] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("link", { name: "Download first_part-2.jpg" }).click(),
    ]);
    assert.equal(download.suggestedFilename(), "first_part-2.jpg");
    const bytes = readFileSync(await download.path());
    assert.deepEqual(
        [...bytes.subarray(0, 2), ...bytes.subarray(-2)],
        [0xff, 0xd8, 0xff, 0xd9], // the ends of a JPEG picture
    );
    await board.command("saved first_part-2.jpg");
    assert.equal(
        await text(page, "snap-status"),
        "Not reported by this board: whether the SD card kept it.",
    );
});

pageTest("the snapshots of this visit are listed, the newest first", {}, async (page) => {
    await open(page);
    for (const name of ["one.jpg", "two.jpg"]) {
        await page.getByLabel("File name").fill(name);
        await page.getByRole("button", { name: "Take snapshot" }).click();
        await page.getByRole("img", { name: `Snapshot ${name}` }).waitFor();
    }

    const listed = page.locator("#shots li");
    assert.equal(await listed.count(), 2);
    assert.match(await listed.nth(0).innerText(), /^two\.jpg\s+\d+ KB, \d\d:\d\d:\d\d$/);
    assert.match(await listed.nth(1).innerText(), /^one\.jpg\s+\d+ KB, \d\d:\d\d:\d\d$/);
    const [download] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("link", { name: "Download one.jpg" }).click(),
    ]);
    assert.equal(download.suggestedFilename(), "one.jpg");
    assert.equal(readFileSync(await download.path())[0], 0xff, "an older one can still be had");
});

pageTest("the list of snapshots keeps thirty", {}, async (page) => {
    await open(page);
    await page.evaluate(async () => {
        const { Snapshots } = await import("./snapshots.js");
        const snapshots = new Snapshots();
        for (let i = 1; i <= 31; i++) {
            snapshots.add({ jpeg: new Blob(["x"]), filename: `p${i}.jpg` }, Date.now());
        }
    });

    const names = await page.locator("#shots a").allInnerTexts();
    assert.equal(names.length, 30);
    assert.equal(names[0], "p31.jpg");
    assert.equal(names[29], "p2.jpg");
});

pageTest("the correction switch asks for the corrected picture", {}, async (page) => {
    await open(page);
    await page.getByText("Correct lens distortion").click();
    assert.ok(await page.getByRole("switch", { name: "Correct lens distortion" }).isChecked());
    const asked = page.waitForRequest(/\/snap/);

    await page.getByRole("button", { name: "Take snapshot" }).click();

    assert.equal(new URL((await asked).url()).search, "?filename=photo.jpg&mode=correction");
    await page.getByRole("img", { name: "Snapshot photo.jpg" }).waitFor();
    assert.equal(
        await text(page, "snap-status"),
        "Not reported by this board: whether the SD card kept it, and whether its distortion was corrected.",
    );
});

pageTest("a file name that the board would not keep as typed is not sent", {}, async (page) => {
    await open(page);
    const asked = [];
    page.on("request", (request) => asked.push(new URL(request.url()).pathname));
    for (const name of [
        "",
        "a b.jpg",
        "a&mode=correction",
        "ä.jpg",
        "../x.jpg",
        ".hidden",
        "a=b",
        "50%.jpg",
    ]) {
        await page.getByLabel("File name").fill(name);
        await page.getByRole("button", { name: "Take snapshot" }).click();
        assert.equal(
            await page.locator("#filename").evaluate((field) => field.validity.valid),
            false,
            name,
        );
    }
    assert.deepEqual(
        asked.filter((path) => path === "/snap"),
        [],
    );
});

/** Measure, and answer the question. */
async function measure(page) {
    await page.getByRole("button", { name: "Measure…" }).click();
    await page.getByRole("button", { name: "Move arm and measure" }).click();
}

pageTest("a measurement of nothing is reported as such", {}, async (page) => {
    await open(page);
    await measure(page);

    await textBecomes(
        page,
        "measure-status",
        /^Nothing was measured: this board has no vision plug-in or no spot was seen\.$/,
    );
    assert.equal(await text(page, "value"), "0.0000");
});

for (const [answer, told] of [
    ["12.3456", /^Measured at \d\d:\d\d:\d\d\. The plug-in sets the unit\.$/],
    ["nan", /^The plug-in answered no number\.$/],
]) {
    pageTest(`a measurement of ${answer} is reported`, {}, async (page) => {
        await open(page);
        await page.route(/\/camera/, (route) =>
            route.fulfill({ contentType: "text/plain", body: `{"measure":"${answer}"}` }),
        );
        await measure(page);

        await textBecomes(page, "measure-status", told);
        assert.equal(await text(page, "value"), answer);
    });
}

pageTest("the arm moves only after a question, which is asked each time", {}, async (page) => {
    await open(page);
    const asked = [];
    page.on("request", (request) => asked.push(new URL(request.url()).pathname));
    const focused = () => page.evaluate(() => document.activeElement.id);
    const button = page.getByRole("button", { name: "Measure…" });

    await button.click();
    assert.equal(await focused(), "cancel", "a second press of the same key moves nothing");
    await page.getByRole("button", { name: "Cancel" }).click();
    assert.equal(await focused(), "measure");
    await button.click();
    await page.keyboard.press("Escape");
    assert.equal(await focused(), "measure");
    await button.click();
    assert.ok(!asked.includes("/camera"));

    await page.getByRole("button", { name: "Move arm and measure" }).click();
    await textBecomes(page, "value", /^0\.0000$/);
    assert.equal(asked.filter((path) => path === "/camera").length, 1);
    assert.ok(await page.locator("#question").isHidden());
    assert.equal(await focused(), "measure");
});

pageTest("what moves the arm looks like nothing else", {}, async (page) => {
    await open(page);
    await page.getByRole("button", { name: "Measure…" }).click();

    const looks = await page.evaluate(() =>
        [...document.querySelectorAll("button")].map((button) => {
            const { backgroundColor, backgroundImage } = getComputedStyle(button);
            return { id: button.id, look: backgroundColor + backgroundImage };
        }),
    );
    const arm = looks.filter(({ id }) => ["measure", "confirm"].includes(id));
    assert.equal(arm.length, 2);
    assert.equal(arm[0].look, arm[1].look);
    assert.deepEqual(
        looks.filter(({ id, look }) => look === arm[0].look && !arm.some((a) => a.id === id)),
        [],
    );
});

pageTest("a running measurement is reported, and its end without a value too", {}, async (page) => {
    await open(page);
    const answers = [];
    await page.route(/\/camera/, (route) => answers.push(route));
    for (const path of [/\/live/, /\/snap/]) {
        await page.route(path, (route) => route.abort("connectionclosed"));
    }

    await measure(page);
    await textBecomes(page, "measure-time", /^[1-9] s$/);

    assert.equal(answers.length, 1);
    assert.equal(await text(page, "measure-status"), "Measuring…");
    assert.ok(await page.locator("#measure").isHidden(), "it cannot be asked for again");
    await page.getByRole("button", { name: "Reconnect" }).click();
    await textBecomes(page, "detail", /^A measurement is not answered yet\. While one runs/);
    await page.getByRole("button", { name: "Take snapshot" }).click();
    await textBecomes(page, "snap-status", /^No snapshot: a measurement is not answered yet\.$/);
    await answers[0].abort("connectionclosed");
    await textBecomes(page, "measure-status", /^Not known whether the board has measured/);
    assert.equal(await text(page, "value"), "–");
    assert.ok(await page.locator("#measure").isVisible());
});

const GOES_ON = / A measurement that has begun goes on and may move the arm; until it is done/;

pageTest("a running measurement can be left", {}, async (page) => {
    await open(page);
    await page.route(/\/camera/, () => {});
    await measure(page);
    assert.equal(await page.evaluate(() => document.activeElement.id), "leave");

    await page.getByRole("button", { name: "Stop waiting" }).click();

    await textBecomes(page, "measure-status", new RegExp(`^No longer waiting\\.${GOES_ON.source}`));
    assert.equal(await text(page, "value"), "–");
    assert.ok(await page.locator("#measure").isVisible());
    // Until the board answers something, it may be measuring:
    await page.route(/\/live/, (route) => route.abort("connectionclosed"));
    await page.getByRole("button", { name: "Reconnect" }).click();
    await textBecomes(page, "detail", /^A measurement is not answered yet/);
    await page.unroute(/\/live/);
    await page.getByRole("button", { name: "Reconnect" }).click();
    await reach(page, "live");
    await page.route(/\/live/, (route) => route.abort("connectionclosed"));
    await page.getByRole("button", { name: "Reconnect" }).click();
    await textBecomes(page, "detail", /^The board does not answer/);
});

pageTest("a measurement without an answer ends after two minutes", {}, async (page) => {
    await page.addInitScript(() => {
        const later = window.setTimeout;
        window.setTimeout = (action, ms) => later(action, ms === 120000 ? 500 : ms);
    });
    await open(page);
    await page.route(/\/camera/, () => {});
    await measure(page);

    await textBecomes(
        page,
        "measure-status",
        new RegExp(`^No value within 2 min 0 s\\.${GOES_ON.source}`),
    );
    assert.ok(await page.locator("#measure").isVisible());
});

pageTest("a failure is amber, of a snapshot as of a measurement", {}, async (page) => {
    await open(page);
    for (const path of [/\/camera/, /\/snap/]) {
        await page.route(path, (route) => route.abort("connectionclosed"));
    }
    await measure(page);
    await textBecomes(page, "measure-status", /^Not known/);
    await page.getByRole("button", { name: "Take snapshot" }).click();
    await textBecomes(page, "snap-status", /^No snapshot: the board gave no answer\.$/);

    for (const id of ["measure-status", "snap-status"]) {
        assert.equal(
            await page.locator(`#${id}`).evaluate((e) => getComputedStyle(e).color),
            "rgb(156, 74, 0)",
            id,
        );
    }
});

pageTest("a snapshot that is cut off is reported as such", {}, async (page) => {
    await open(page);
    await page.route(/\/snap/, (route) =>
        route.fulfill({ headers: { "Content-Length": "9", Filename: "a.jpg" }, body: "four" }),
    );
    await page.getByRole("button", { name: "Take snapshot" }).click();

    await textBecomes(page, "snap-status", /^No snapshot: the connection ended within the picture\.$/);
});

pageTest("camera unplugged: says since when, dims, announces it once, and continues", {}, async (page) => {
    await open(page);
    await textBecomes(page, "announcement", /^Live picture\.$/);
    await page.evaluate(() => {
        window.told = [];
        new MutationObserver(() =>
            window.told.push(document.getElementById("announcement").textContent),
        ).observe(document.getElementById("announcement"), { childList: true });
    });
    const before = new Date();

    await board.command("camera unplug");
    try {
        await page.getByRole("button", { name: "Take snapshot" }).click();
        await reach(page, "stopped");
        await textBecomes(
            page,
            "detail",
            /^The camera, the board or the network has stopped\. In \d+ s another connection will/,
        );
        const title = await text(page, "veil-title");
        const [, hours, minutes, seconds] = /^No picture since (\d\d):(\d\d):(\d\d)$/.exec(title);
        const since = new Date(before).setHours(hours, minutes, seconds);
        assert.ok(Math.abs(since - before) < 10000, `${title}, unplugged at ${before}`);
        await dimmed(page);
        assert.equal(await text(page, "badge"), "No picture");
        // What another connection has shown:
        await textBecomes(page, "detail", /The board answers, but its camera sends no pictures/);
        assert.equal(await text(page, "rate"), "0.0 /s");
        assert.deepEqual(await page.evaluate(() => window.told), [title]);

        await textBecomes(page, "snap-status", /^No picture came within 10 seconds/);
    } finally {
        await board.command("camera replug");
    }

    await reach(page, "live");
    await drawsAnother(page);
    assert.equal(await text(page, "badge"), "Live");
    assert.equal(await text(page, "snap-status"), "", "its cause has gone");
});

pageTest("service stopped and started: says so and comes back by itself", {}, async (page) => {
    await open(page);
    await board.command("server stop");
    try {
        await reach(page, "stopped");
        await textBecomes(page, "detail", /^The board does not answer\. Next try in \d+ s\.$/);
        await measure(page);
        await textBecomes(page, "measure-status", /it gave no answer\.$/);
        await page.getByRole("button", { name: "Take snapshot" }).click();
        await textBecomes(page, "snap-status", /^No snapshot: the board gave no answer\.$/);
    } finally {
        await board.command("server start");
    }

    await reach(page, "live");
    await drawsAnother(page);
});

pageTest("waits between tries grow", {}, async (page) => {
    await open(page);
    const tries = [];
    await page.route(/\/live/, (route) => {
        tries.push(Date.now());
        return route.abort("connectionrefused");
    });
    await page.getByRole("button", { name: "Reconnect" }).click();
    // What was tried before the button started over (a picture that came late) does not count.
    const waits = () => tries.slice(1).map((at, i) => at - tries[i]);
    const deadline = Date.now() + DEADLINE;
    const grown = () =>
        waits().some(
            (first, i, all) => first >= 950 && all[i + 1] >= 1950 && all[i + 2] >= 3950,
        );
    while (!grown() && Date.now() < deadline) {
        await page.waitForTimeout(50);
    }

    assert.ok(grown() && waits()[0] < 3950, waits().join(" "));
    await page.unroute(/\/live/);
    // At once, not after eight seconds:
    await page.getByRole("button", { name: "Reconnect" }).click();
    await page.waitForSelector("#live[data-state=live]", { timeout: 7000 });
});

pageTest("pictures that come late are not live, however many come", {}, async (page) => {
    const network = await Network.start();
    try {
        await open(page, network.url);
        await textBecomes(page, "rate", /^[1-9]\d*\.\d \/s$/);
        network.delay = 4000;

        await reach(page, "late");
        await drawsAnother(page);
        await textBecomes(page, "age", /^[3-9]\.\d s$/);
        await textBecomes(page, "rate", /^[1-9]\d*\.\d \/s$/);
        await textBecomes(page, "veil-title", /^Pictures are late since \d\d:\d\d:\d\d$/);
        network.delay = 0;
        await page.getByRole("button", { name: "Reconnect" }).click();
        await reach(page, "live");
    } finally {
        network.close();
    }
});

pageTest("pictures that are none are not counted as live", {}, async (page) => {
    await open(page);
    await board.command("camera bytes 176 always"); // the beginning of a picture
    try {
        await reach(page, "late");
        await textBecomes(page, "detail", /old or damaged/);
    } finally {
        await board.command("camera clear");
    }
    await reach(page, "live");
});

pageTest("a computer that slept starts afresh", {}, async (page) => {
    await page.addInitScript(() => {
        const now = Date.now;
        window.slept = 0;
        Date.now = () => now() + window.slept;
    });
    await open(page);
    const again = page.waitForRequest(/\/live/);

    await page.evaluate(() => {
        window.slept = 3600000;
    });

    await again;
    await reach(page, "live");
    await drawsAnother(page);
});

pageTest("paused: dims, says since when, closes the connection; resumes", {}, async (page) => {
    await open(page);
    const closed = page.waitForEvent("requestfailed", (request) => request.url().endsWith("/live"));
    await page.getByRole("button", { name: "Pause" }).click();

    await closed;
    await reach(page, "paused");
    assert.match(await text(page, "veil-title"), /^Paused since \d\d:\d\d:\d\d$/);
    await page.getByRole("button", { name: "Resume" }).click();
    await reach(page, "live");
});

pageTest("a hidden page leaves the board alone", {}, async (page) => {
    await open(page);
    const hide = (hidden) =>
        page.evaluate((hidden) => {
            Object.defineProperty(document, "hidden", { value: hidden, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        }, hidden);
    const closed = page.waitForEvent("requestfailed", (request) => request.url().endsWith("/live"));

    const asked = [];
    page.on("request", (request) => asked.push(new URL(request.url()).pathname));

    await hide(true);
    await closed;
    await hide(false);

    await reach(page, "live");
    await drawsAnother(page);
    assert.deepEqual(asked, ["/live"], "one connection, after it is seen again");
});

pageTest("behind a proxy the log's address is not promised", {}, async (page) => {
    const network = await Network.start();
    try {
        await open(page);
        assert.ok(await page.locator("#log-proxy").isHidden());
        await open(page, network.url);

        assert.equal(await text(page, "log"), "nc BOARD 8001");
        assert.match(await text(page, "log-proxy"), /^This page comes through a proxy/);
    } finally {
        network.close();
    }
});

pageTest(
    "forced colours: on and off, live and not, differ by more than a colour",
    { forcedColors: "active" },
    async (page) => {
        await open(page);
        /** The colours that an element shows, of each pixel. */
        const seen = async (selector) => {
            const shot = await page.locator(selector).screenshot({ animations: "disabled" });
            return createHash("md5").update(shot).digest("hex");
        };
        const plain = await seen(".switch span");
        await page.getByText("Correct lens distortion").click();
        await page.evaluate(() => document.activeElement.blur());
        assert.notEqual(await seen(".switch span"), plain, "on and off look alike");

        const shape = () =>
            page.locator("#badge").evaluate((badge) => {
                const { borderRadius, backgroundColor } = getComputedStyle(badge, "::before");
                return { borderRadius, backgroundColor };
            });
        const live = await shape();
        await page.getByRole("button", { name: "Pause" }).click();
        await reach(page, "paused");
        const paused = await shape();
        assert.notEqual(paused.borderRadius, live.borderRadius);
        assert.notEqual(paused.backgroundColor, live.backgroundColor);
    },
);

pageTest("by keyboard alone", {}, async (page) => {
    await open(page);
    const focused = () =>
        page.evaluate(() => {
            const { activeElement: element } = document;
            const ring = getComputedStyle(
                element.id === "correction" ? element.nextElementSibling : element,
            );
            return { name: element.id || element.textContent, ring: ring.outlineStyle === "solid" };
        });
    const stops = [];
    for (let i = 0; i < 8; i++) {
        await page.keyboard.press("Tab");
        stops.push(await focused());
    }
    assert.deepEqual(
        stops.map(({ name }) => name),
        [
            "pause",
            "reconnect",
            "crosshair",
            "full-screen",
            "filename",
            "correction",
            "Take snapshot",
            "measure",
        ],
    );
    assert.ok(
        stops.every(({ ring }) => ring),
        "where the keyboard is can be seen",
    );

    await page.keyboard.press("Enter"); // measure
    await page.keyboard.press("Shift+Tab"); // from "Cancel"
    await page.keyboard.press("Enter");
    await textBecomes(page, "value", /^0\.0000$/);
    assert.equal((await focused()).name, "measure", "the focus stays");

    await page.keyboard.press("Shift+Tab");
    await page.keyboard.press("Shift+Tab");
    await page.keyboard.press("Space"); // correction
    assert.ok(await page.locator("#correction").isChecked());
    await page.keyboard.press("Shift+Tab");
    await page.keyboard.type("by-key.jpg"); // into a field that is selected when tabbed into
    await page.keyboard.press("Enter");
    await page.getByRole("img", { name: "Snapshot by-key.jpg" }).waitFor();

    for (let i = 0; i < 4; i++) {
        await page.keyboard.press("Shift+Tab");
    }
    await page.keyboard.press("Space"); // pause
    await reach(page, "paused");
    await page.keyboard.press("Space");
    await reach(page, "live");
});

pageTest(
    "for a screen reader: language, title, landmarks, headings, names, live regions",
    {},
    async (page) => {
        await open(page);

        const found = await page.evaluate(() => ({
            language: document.documentElement.lang,
            title: document.title,
            main: document.querySelectorAll("main").length,
            headings: [...document.querySelectorAll("h1, h2")].map(
                (h) => `${h.tagName} ${h.textContent}`,
            ),
            live: [...document.querySelectorAll("[role=status], [aria-live], output")].map(
                (e) => e.id,
            ),
            duplicates: [...document.querySelectorAll("[id]")]
                .map((e) => e.id)
                .filter((id, i, all) => all.indexOf(id) !== i),
            nowhere: [...document.querySelectorAll("[aria-labelledby], [aria-describedby], [for]")]
                .flatMap((e) =>
                    ["aria-labelledby", "aria-describedby", "for"].map((a) => e.getAttribute(a)),
                )
                .filter((id) => id && !document.getElementById(id)),
        }));

        assert.deepEqual(found, {
            language: "en",
            title: "Kestrel camera",
            main: 1,
            headings: [
                "H1 Kestrel camera",
                "H2 Live picture",
                "H2 Snapshot",
                "H2 Measurement",
                "H2 Log",
                "H2 Not reported by this board",
            ],
            live: ["announcement", "snap-status", "value", "measure-status"],
            duplicates: [],
            nowhere: [],
        });
        for (const [role, names] of Object.entries({
            button: [
                "Pause",
                "Reconnect",
                "Crosshair",
                "Full screen",
                "Take snapshot",
                "Measure…",
            ],
            textbox: ["File name"],
            switch: ["Correct lens distortion"],
            img: ["Picture of the camera"],
            region: [
                "Live picture",
                "Snapshot",
                "Measurement",
                "Log",
                "Not reported by this board",
            ],
        })) {
            for (const name of names) {
                assert.equal(
                    await page.getByRole(role, { name, exact: true }).count(),
                    1,
                    `${role} ${name}`,
                );
            }
            assert.equal(await page.getByRole(role).count(), names.length, role);
        }
    },
);

for (const [size, options] of Object.entries({ phone: PHONE, desktop: DESKTOP })) {
    for (const colorScheme of ["light", "dark"]) {
        pageTest(
            `${size}, ${colorScheme}: nothing is cut off, all text has contrast`,
            { ...options, colorScheme },
            async (page) => {
                await open(page);
                await page.getByRole("button", { name: "Take snapshot" }).click();
                await page.getByRole("img", { name: "Snapshot photo.jpg" }).waitFor();
                await measure(page);
                await textBecomes(page, "measure-status", /^Nothing was measured/);
                await page.mouse.move(0, 0);
                await page.evaluate(() => document.activeElement.blur());

                assert.equal(
                    await page.evaluate(() => document.documentElement.scrollWidth),
                    options.viewport.width,
                );
                assert.deepEqual(await page.evaluate(findCutOff), []);
                const texts = await page.evaluate(measureContrast);
                assert.ok(texts.length > 20, `${texts.length} texts`);
                assert.deepEqual(
                    texts.filter(({ ratio, needed }) => ratio < needed),
                    [],
                );
                assert.deepEqual(await page.evaluate(findSmallTargets), []);
            },
        );
    }
}

/** Elements that reach out of the window or hide part of their text. */
function findCutOff() {
    return [...document.querySelectorAll("body *:not(.hidden)")]
        .filter((e) => {
            const box = e.getBoundingClientRect();
            return (
                box.width > 0 &&
                !e.closest(".switch") &&
                (box.left < 0 ||
                    box.right > innerWidth + 0.5 ||
                    e.scrollWidth > e.clientWidth + 1) &&
                getComputedStyle(e).display !== "inline"
            );
        })
        .map((e) => e.id || e.outerHTML.slice(0, 80));
}

/** Contrast of every text against what is behind it, WCAG 2.1 (1.4.3). */
function measureContrast() {
    const channels = (color) => color.match(/[\d.]+/g).map(Number);
    const luminance = (color) =>
        channels(color)
            .slice(0, 3)
            .map((c) => (c / 255 <= 0.03928 ? c / 255 / 12.92 : ((c / 255 + 0.055) / 1.055) ** 2.4))
            .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
    const ground = (e) => {
        const color = getComputedStyle(e).backgroundColor;
        return (channels(color)[3] ?? 1) > 0 ? color : ground(e.parentElement);
    };
    const texts = [];
    for (const e of document.querySelectorAll("body *:not(script):not(noscript)")) {
        const own =
            e instanceof HTMLInputElement ||
            [...e.childNodes].some((n) => n.nodeType === Node.TEXT_NODE && n.textContent.trim());
        if (!own || e.closest(".hidden, #veil") || e.getClientRects().length === 0) {
            continue;
        }
        const style = getComputedStyle(e);
        const [dark, light] = [luminance(style.color), luminance(ground(e))].sort((a, b) => a - b);
        texts.push({
            text: e.id || e.textContent.trim().slice(0, 40),
            ratio: Math.round(((light + 0.05) / (dark + 0.05)) * 100) / 100,
            needed: parseFloat(style.fontSize) >= 24 ? 3 : 4.5,
        });
    }
    return texts;
}

/** What is pressed and lower than 44 pixels, WCAG 2.1 (2.5.5). */
function findSmallTargets() {
    return [...document.querySelectorAll("button:not([hidden]), #shots a, #filename, .switch")]
        .filter((e) => e.checkVisibility() && e.getBoundingClientRect().height < 44)
        .map((e) => e.id || e.textContent);
}

pageTest(
    "all comes from the board, without cookies, in less than 80 KB, and nothing of the arm's",
    {},
    async (page, context) => {
        const asked = [];
        page.on("request", (request) => asked.push(request.url()));
        await open(page);
        await page.getByRole("button", { name: "Take snapshot" }).click();
        await page.getByRole("img", { name: "Snapshot photo.jpg" }).waitFor();

        const files = readdirSync(`${CARD}/www`);
        const loaded = new Set();
        for (const url of asked.filter((url) => url !== STATION)) {
            assert.ok(new URL(url).origin === new URL(PAGE).origin, url);
            loaded.add(new URL(url).pathname.slice(1));
        }
        assert.ok(asked.includes(STATION)); // which no station answers
        assert.deepEqual([...loaded].filter((name) => name.startsWith("arm")), []);
        assert.equal(await page.locator("#arm, #arm-bar, .with-arm").count(), 0);
        assert.deepEqual(await context.cookies(), []);
        for (const file of files) {
            assert.match(file, /\.(html|htm|css|js|txt|jpg|jpeg|png|ico)$/);
        }
        const total = files
            .filter((file) => loaded.has(file))
            .reduce((sum, file) => sum + statSync(`${CARD}/www/${file}`).size, 0);
        assert.ok(total > 1000 && total < 80 * 1024, `${total} bytes`);
    },
);
