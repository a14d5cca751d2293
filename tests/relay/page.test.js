// The relay's page in Chromium, on Janus behind nginx. The board obeys files in the folder KESTREL_ANSWERS,
// which go when it has.
import assert from "node:assert/strict";
import { existsSync, writeFileSync } from "node:fs";
import { after, before, test } from "node:test";

import { startChromium } from "../browser/browsers.js";

const DEADLINE = 30000; // ms; only ends a failing run
const { KESTREL_ANSWERS, KESTREL_USER, KESTREL_PASSWORD } = process.env;

let browser;
let page;
const problems = [];

const pause = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

async function command(name) {
    const file = `${KESTREL_ANSWERS}/${name}`;
    writeFileSync(file, "");
    while (existsSync(file)) {
        await pause(10);
    }
}

async function reach(state, deadline = DEADLINE) {
    const begun = Date.now();
    await page.waitForFunction(
        (wanted) => document.getElementById("live").dataset.state === wanted,
        state,
        { timeout: deadline, polling: 50 },
    );
    return Date.now() - begun;
}

/** What is drawn of the picture: a hash of its pixels. */
const drawn = () =>
    page.evaluate(() => {
        const video = document.getElementById("picture");
        const canvas = document.createElement("canvas");
        canvas.width = video.videoWidth;
        canvas.height = video.videoHeight;
        const context = canvas.getContext("2d");
        context.drawImage(video, 0, 0);
        const { data } = context.getImageData(0, 0, canvas.width, canvas.height);
        let hash = 0;
        for (let i = 0; i < data.length; i += 4) {
            hash = (hash * 31 + data[i]) | 0;
        }
        return { width: canvas.width, height: canvas.height, hash };
    });

before(async () => {
    browser = await startChromium();
    const context = await browser.newContext({
        ignoreHTTPSErrors: true,
        httpCredentials: { username: KESTREL_USER, password: KESTREL_PASSWORD },
    });
    page = await context.newPage();
    page.on("console", (message) => {
        if (message.type() === "error" && !/Failed to load resource/.test(message.text())) {
            problems.push(message.text());
        }
    });
    page.on("pageerror", (error) => problems.push(String(error)));
});

after(async () => {
    await browser?.close();
});

test("boards are listed, and one is shown live", async () => {
    await page.goto("https://127.0.0.1/");
    await page.locator("#boards a").click();
    const first = await reach("live");

    const seen = new Set();
    for (let i = 0; i < 10; i++) {
        const picture = await drawn();
        assert.deepEqual([640, 480], [picture.width, picture.height]);
        seen.add(picture.hash);
        await pause(100);
    }
    assert.ok(seen.size >= 5, `${seen.size} different pictures in a second`);
    assert.equal(await page.textContent("#board"), "board-1");
    console.log(`first picture after ${first} ms`);
});

test("a picture that gets old is veiled within three seconds, and comes back", async () => {
    await command("freeze");
    const veiled = await reach("stopped");
    assert.ok(veiled < 3000, `veiled after ${veiled} ms`);
    assert.match(await page.textContent("#veil-title"), /^No picture since \d\d:\d\d:\d\d$/);
    const opacity = () =>
        page.evaluate(() => Number(getComputedStyle(document.getElementById("picture")).opacity));
    await page.waitForFunction(
        () => getComputedStyle(document.getElementById("picture")).opacity === "0.3",
    );
    await page.waitForFunction(() =>
        /No picture comes from board-1/.test(document.getElementById("detail").textContent),
    );

    await command("thaw");
    const back = await reach("live");
    assert.ok(back < 5000, `back after ${back} ms`);
    await page.waitForFunction(
        () => getComputedStyle(document.getElementById("picture")).opacity === "1",
    );
    assert.equal(1, await opacity());
    console.log(`veiled after ${veiled} ms, back after ${back} ms`);
});

test("Janus may go and come back", async () => {
    await command("janus-off");
    await reach("stopped");
    await command("janus-on");
    await reach("live");
});

test("no error was shown, and nothing was refused by the page's own policy", () => {
    assert.deepEqual([], problems);
});
