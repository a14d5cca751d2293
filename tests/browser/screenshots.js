// Takes pictures of the page in each browser, size, colour scheme and state, to be looked at.
// usage: screenshots.js FOLDER [chromium|firefox|webkit|readme...]
import { mkdirSync } from "node:fs";
import { join, resolve } from "node:path";

import { Board, Network } from "./board.js";
import { endBrowser, startPage } from "./browsers.js";

const SIZES = { phone: [390, 844], across: [844, 390], desktop: [1280, 800] };
const README = [1120, 760];

const folder = resolve(process.env.FROM ?? ".", process.argv[2]);
const names = process.argv.length > 3 ? process.argv.slice(3) : ["chromium", "firefox", "webkit", "readme"];
mkdirSync(folder, { recursive: true });

/** Pictures in each size, with the element of this id in view. */
async function take(page, name, id) {
    for (const [size, [width, height]] of Object.entries(SIZES)) {
        await page.resize(width, height);
        await page.run((id) => {
            document.activeElement.blur();
            document.getElementById(id).scrollIntoView({ block: id === "live" ? "start" : "end" });
            scrollBy(0, id === "live" ? -9999 : 24);
        }, id);
        await new Promise((resolve) => setTimeout(resolve, 400)); // fades
        await page.screenshot(join(folder, `${name}-${size}.png`));
    }
}

async function visit(board, browser, scheme) {
    const network = await Network.start();
    const page = await startPage(browser, scheme);
    const name = (state) => `${browser}-${scheme}-${state}`;
    try {
        await page.resize(...SIZES.desktop);
        await page.open(network.url);
        await page.textBecomes("count", /^\d{3}$/); // the rate has settled
        await take(page, name("live"), "live");

        await page.click("#crosshair");
        await page.click("#snap .main");
        await page.until(() => document.getElementById("shot-picture").naturalWidth === 640);
        await page.click("#measure");
        await take(page, name("question"), "question");
        await page.click("#confirm");
        await page.textBecomes("measure-status", /^Nothing was measured/);
        await take(page, name("measured"), "measure-status");
        await page.click("#crosshair");

        if (!page.showsImage) {
            network.delay = 4000;
            await page.reach("late");
            await take(page, name("late"), "live");
            network.delay = 0;
            await page.click("#reconnect");
            await page.reach("live");
        }

        await board.command("camera unplug");
        await page.textBecomes("detail", /The board answers/);
        await take(page, name("unplugged"), "live");
        await page.click("#snap .main");
        await page.textBecomes("snap-status", /^No picture came within/);
        await take(page, name("failed"), "snap-status");
    } finally {
        await board.command("camera replug");
        await page.close();
        network.close();
    }
}

async function takeReadme(board) {
    await board.command("camera spot 8 6 0 on");
    const page = await startPage("chromium");
    await page.resize(...README);
    await page.open("http://127.0.0.1:8329/index.html");
    await page.textBecomes("count", /^\d{3}$/);
    await page.screenshot(join(folder, "page-desktop.jpg"), { type: "jpeg", quality: 45 });
    await page.close();
    await endBrowser("chromium");
}

const board = await Board.start();
try {
    for (const browser of names.filter((name) => name !== "readme")) {
        for (const scheme of ["light", "dark"]) {
            await visit(board, browser, scheme);
        }
        await endBrowser(browser);
    }
    if (names.includes("readme")) {
        await takeReadme(board);
    }
} finally {
    await board.close();
}
