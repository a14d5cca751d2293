// Burns the job that lies ready, as somebody does who has only what "scripts/run station" prints.
// usage: newcomer.js CHECKOUT FOLDER    the folder gets pictures of the way, and what was printed
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdirSync, writeFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { createInterface } from "node:readline";

import { endBrowser, startPage } from "./browsers.js";

const [checkout, given] = process.argv.slice(2);
const folder = resolve(process.env.FROM ?? ".", given);
const SIZE = [1120, 760];

/** Start it. @returns {url, token, end()} */
async function start() {
    const run = spawn(join(checkout, "scripts/run"), ["station"], { stdio: ["ignore", "pipe", "inherit"] });
    const ended = new Promise((done) => run.once("close", done));
    const printed = [];
    const end = async () => {
        run.kill("SIGINT");
        assert.equal(await ended, 0, "it ends with Ctrl-C");
    };
    for await (const line of createInterface({ input: run.stdout })) {
        printed.push(line);
        writeFileSync(join(folder, "printed"), `${printed.join("\n")}\n`);
        const url = /^running: +(\S+)/.exec(line)?.[1];
        if (url) {
            return { url, token: /^token: +(\S+)$/m.exec(printed.join("\n"))[1], end };
        }
    }
    throw new Error("scripts/run station has ended");
}

let pictures = 0;
function show(page, name) {
    pictures++;
    const options = { type: "jpeg", quality: 45 };
    return page.screenshot(join(folder, `${pictures}-${name}.jpg`), options);
}

async function press(page, id) {
    await page.until((id) => {
        const button = document.getElementById(id);
        return button.checkVisibility() && button.ariaDisabled !== "true";
    }, id);
    await page.click(`#${id}`);
}

async function burn(page, token) {
    await page.until(() => document.getElementById("arm-token")?.checkVisibility());
    await page.page.fill("#arm-token", token);
    await page.click("#arm-login button");
    await page.textBecomes("arm-level", /^Dark$/);
    await show(page, "dark");

    await press(page, "arm-motion");
    await page.textBecomes("arm-level", /^Motion$/);
    await press(page, "arm-home");
    await page.textBecomes("arm-homed", /^Homed$/);
    await press(page, "arm-measure");
    await page.textBecomes("arm-status", /^(Spot|No spot)/);
    await page.page.selectOption("#arm-jobs", "demonstration.gcode");
    await page.textBecomes("arm-check", /^Passes: /);
    await press(page, "arm-start");
    await show(page, "question");

    await press(page, "arm-burn");
    await page.textBecomes("arm-lines", /, [5-9]\d %/);
    await page.run(() => scrollTo(0, 0));
    await show(page, "job");
    await page.textBecomes("arm-last", /^demonstration\.gcode: done at line (\d+) of \1\. /);
    await page.run(() => scrollTo(0, 0));
    await show(page, "done");
}

mkdirSync(folder, { recursive: true });
const station = await start();
try {
    const page = await startPage("chromium");
    await page.resize(...SIZE);
    await page.open(station.url);
    await burn(page, station.token);
    await page.close();
} finally {
    await endBrowser("chromium");
    await station.end();
}
console.log(`a job was burnt; pictures of the way are in ${folder}`);
