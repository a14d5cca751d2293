// Takes pictures of the page in each browser, size, colour scheme and state, to be looked at.
// usage: screenshots.js FOLDER [chromium|firefox|webkit|readme|arm...]
import { mkdirSync } from "node:fs";
import { join, resolve } from "node:path";

import { Board, Network, TOKEN } from "./board.js";
import { endBrowser, startPage } from "./browsers.js";

const SIZES = { phone: [390, 844], across: [844, 390], desktop: [1280, 800] };
const README = [1120, 760];

const folder = resolve(process.env.FROM ?? ".", process.argv[2]);
const names = process.argv.length > 3 ? process.argv.slice(3) : ["chromium", "firefox", "webkit", "readme", "arm"];
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

/** A job that shows what it does: a star in a circle, in short pieces. */
const corner = (number, radius) => {
    const angle = (number * 2 * Math.PI) / 5;
    return [radius * Math.cos(angle), radius * Math.sin(angle)];
};
const go = (word, [x, y]) => `${word} X${x.toFixed(2)} Y${y.toFixed(2)}`;
const between = ([x, y], [toX, toY], share) => [x + (toX - x) * share, y + (toY - y) * share];
const STAR = [
    "G21 G90",
    go("G0", corner(0, 18)),
    "M3 S700",
    "G1 F1500",
    ...Array.from({ length: 100 }, (_, i) => go("G1", corner((i + 1) / 20, 18))),
    ...Array.from({ length: 100 }, (_, i) => {
        const edge = Math.floor(i / 20) * 2;
        return go("G1", between(corner(edge, 18), corner(edge + 2, 18), (i % 20) / 20 + 0.05));
    }),
    "M5",
    "",
].join("\n");

async function pressArm(page, id) {
    await page.until((id) => document.getElementById(id).ariaDisabled !== "true", id);
    await page.click(`#${id}`);
}

async function visitArm(board, scheme) {
    const page = await startPage("chromium", scheme);
    const name = (state) => `arm-${scheme}-${state}`;
    try {
        await page.resize(...SIZES.desktop);
        await page.open("http://127.0.0.1:8329/index.html");
        await page.until(() => document.getElementById("arm-token"));
        await take(page, name("token"), "live");
        await page.run((token) => (document.getElementById("arm-token").value = token), TOKEN);
        await page.click("#arm-login button");
        await page.textBecomes("arm-level", /^Dark$/);
        await take(page, name("dark"), "live");

        await pressArm(page, "arm-motion");
        await page.textBecomes("arm-level", /^Motion$/);
        await pressArm(page, "arm-home");
        await page.textBecomes("arm-homed", /^Homed$/);
        await board.command("controller alarm-now 1");
        await page.until(() => document.getElementById("arm-unlock").checkVisibility());
        await page.textBecomes("arm-beam", /^Seen off$/);
        await take(page, name("alarm"), "arm-alarm");
        await pressArm(page, "arm-unlock");
        await page.textBecomes("arm-status", /^The lock is cleared/);
        await take(page, name("unlocked"), "live");
        await pressArm(page, "arm-motion");
        await page.textBecomes("arm-level", /^Motion$/);
        await pressArm(page, "arm-home");
        await page.textBecomes("arm-homed", /^Homed$/);
        await page.run((text) => {
            const files = new DataTransfer();
            files.items.add(new File([text], "star.gcode"));
            document.getElementById("arm-file").files = files.files;
            document.getElementById("arm-file").dispatchEvent(new Event("change"));
            document.getElementById("arm-width").value = "64";
            document.getElementById("arm-width").dispatchEvent(new Event("change"));
        }, STAR);
        await page.textBecomes("arm-check", /^Passes/);
        await pressArm(page, "arm-start");
        await take(page, name("question"), "arm-question");
        await page.run(() => document.querySelectorAll("#arm details").forEach((each) => (each.open = true)));
        await take(page, name("moves"), "arm-jog");
        await take(page, name("journal"), "arm-reset");
        await page.run(() => document.querySelectorAll("#arm details").forEach((each) => (each.open = false)));

        await pressArm(page, "arm-burn");
        await page.textBecomes("arm-lines", /, [3-9]\d %/);
        await take(page, name("job"), "live");
        if (scheme === "light") {
            await page.resize(...README);
            await page.run(() => scrollTo(0, 0));
            await page.screenshot(join(folder, "page-arm.jpg"), { type: "jpeg", quality: 45 });
        }
        await pressArm(page, "arm-pause");
        await page.textBecomes("arm-hold", /^Paused/);
        await take(page, name("held"), "arm-progress");
        await page.click("#arm-off");
        await page.textBecomes("arm-off-said", /^Beam off was sent/);
        await take(page, name("off"), "live");
        await board.command("station stop");
        await page.textBecomes("arm-level", /^Not known$/);
        await take(page, name("silent"), "arm");
    } finally {
        await board.command("station start");
        await page.close();
    }
}

async function withBoard(kind, body) {
    const board = await Board.start(...kind);
    try {
        await body(board);
    } finally {
        await board.close();
    }
}

const browsers = names.filter((name) => name !== "readme" && name !== "arm");
if (browsers.length > 0 || names.includes("readme")) {
    await withBoard([], async (board) => {
        for (const browser of browsers) {
            for (const scheme of ["light", "dark"]) {
                await visit(board, browser, scheme);
            }
            await endBrowser(browser);
        }
        if (names.includes("readme")) {
            await takeReadme(board);
        }
    });
}
if (names.includes("arm")) {
    await withBoard(["station"], async (board) => {
        for (const scheme of ["light", "dark"]) {
            await visitArm(board, scheme);
        }
        await endBrowser("chromium");
    });
}
