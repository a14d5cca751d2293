// What holds in every browser; KESTREL_BROWSER says in which: chromium, firefox or webkit. In the latter two
// only what their engines do themselves, unless KESTREL_BROWSERS is "whole".
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { after, before, test } from "node:test";

import { Board, Network } from "./board.js";
import { endBrowser, startPage } from "./browsers.js";

const NAME = process.env.KESTREL_BROWSER;
const WHOLE = NAME === "chromium" || process.env.KESTREL_BROWSERS === "whole";
const AXE = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");
const PHONE = [390, 844];
const PHONE_ACROSS = [844, 390];
const DESKTOP = [1280, 800];
const LARGE = [1920, 1080];

let board;

before(async () => {
    board = await Board.start();
});

after(async () => {
    try {
        await endBrowser(NAME);
    } finally {
        await board?.close();
    }
});

/** A test with a browser and a network of its own. */
function pageTest(name, body, { scheme = "light", size = DESKTOP } = {}) {
    test(`${NAME}: ${name}`, async () => {
        const network = await Network.start();
        try {
            const page = await startPage(NAME, scheme);
            try {
                await page.resize(...size);
                await body(page, network);
            } finally {
                await page.close();
            }
        } finally {
            network.close(); // or it would keep this process waiting
        }
    });
}

/** What the page's own script decides, and takes long. */
const longTest = WHOLE ? pageTest : () => {};

/** While the camera is in this state, and again as before. */
async function whileCamera(state, back, body) {
    await board.command(`camera ${state}`);
    try {
        await body();
    } finally {
        await board.command(`camera ${back}`);
    }
}

/** The first pixels of the picture's rows as a number. */
const drawn = (page) =>
    page.run(() => {
        const canvas = document.getElementById("picture");
        const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
        return data.reduce((sum, value, i) => (sum * 31 + value * (i % 97)) % 1000000007, 7);
    });

async function drawsAnother(page) {
    const first = await drawn(page);
    const end = Date.now() + 30000;
    while ((await drawn(page)) === first) {
        assert.ok(Date.now() < end, "the picture stands still");
    }
}

/** What the page says when no new picture comes. */
const stopped = (page) => (page.showsImage ? "unchanged" : "stopped");

pageTest("the live picture moves, with its age where that can be known", async (page, network) => {
    await page.open(network.url);

    await drawsAnother(page);
    await page.textBecomes("rate", /^[1-9]\d*\.\d \/s$/);
    await page.textBecomes("count", /^\d\d+$/);
    assert.equal(await page.text("badge"), "Live");
    await page.textBecomes(
        "age",
        page.showsImage ? /^not known in this browser$/ : /^[01]\.\d+ s$/,
    );
});

longTest("a camera that stands still is not live", async (page, network) => {
    await page.open(network.url);

    await whileCamera("freeze", "thaw", async () => {
        await page.reach(stopped(page));
        if (page.showsImage) {
            assert.match(await page.text("veil-title"), /^No change since \d\d:\d\d:\d\d$/);
            assert.equal(await page.text("badge"), "No change");
            await page.textBecomes(
                "detail",
                /^No change for \d+ s\. The board answers\. Its camera .* this browser cannot tell which\.$/,
            );
        } else {
            assert.match(await page.text("veil-title"), /^No picture since \d\d:\d\d:\d\d$/);
            assert.equal(await page.text("badge"), "No picture");
            await page.textBecomes("detail", /^The board answers, but its camera sends no/);
        }
        await page.until(
            () => Number(getComputedStyle(document.getElementById("picture")).opacity) < 0.4,
        );
        // Looking away and back makes no old picture live, not for a moment.
        await page.run(() => {
            const live = document.getElementById("live");
            window.states = [];
            new MutationObserver(() => window.states.push(live.dataset.state)).observe(live, {
                attributes: true,
            });
        });
        await page.click("#pause");
        await page.reach("paused");
        await page.click("#pause");
        await page.reach(stopped(page));
        assert.ok(!(await page.run(() => window.states.includes("live"))));
    });

    await page.reach("live");
    await drawsAnother(page);
});

longTest("a page opened without a camera says so and goes live with it", async (page, network) => {
    await whileCamera("unplug", "replug", async () => {
        await page.goTo(network.url);
        await page.reach("stopped");
        await page.textBecomes("detail", /^The board answers, but its camera sends no pictures/);
    });

    await page.reach("live");
    await drawsAnother(page);
});

pageTest("a service that stops and starts is reported and found again", async (page, network) => {
    await page.open(network.url);

    await board.command("server stop");
    try {
        await page.textBecomes("detail", /^The board does not answer\. Next try in \d+ s\.$/);
        await page.reach("stopped");
    } finally {
        await board.command("server start");
    }

    await page.reach("live");
    await drawsAnother(page);
});

longTest("a network that goes and comes back is reported and found again", async (page, network) => {
    await page.open(network.url);

    network.gone = true;
    await page.reach(stopped(page));
    await page.textBecomes(
        "detail",
        page.showsImage ? /The board does not answer\.$/ : /^Waiting for the board to answer\.$/,
    );
    network.gone = false;

    await page.reach("live");
    await drawsAnother(page);
});

if (NAME !== "webkit") {
    longTest("pictures that are late from the first on are not live", async (page, network) => {
        network.delay = 4000;
        await page.goTo(network.url);

        await page.reach("late");
        await page.textBecomes("age", /^[4-9]\.\d s$/);
        network.delay = 0;

        await page.reach("live"); // by another connection
    });
}

longTest("at most one stream is open, whatever is pressed", async (page, network) => {
    await page.open(network.url);
    const hide = (hidden) =>
        page.run((hidden) => {
            Object.defineProperty(document, "hidden", { value: hidden, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        }, hidden);
    const closes = async () => {
        const end = Date.now() + 30000;
        while (!page.showsImage && network.streams > 0) {
            assert.ok(Date.now() < end, "the stream stays open");
            await new Promise((resolve) => setTimeout(resolve, 20));
        }
    };

    for (let i = 0; i < 5; i++) {
        await page.click("#reconnect");
    }
    await page.reach("live");
    await page.click("#pause");
    await closes();
    await page.click("#pause");
    await page.reach("live");
    await hide(true);
    await closes();
    await hide(false);
    await page.reach("live");
    await whileCamera("freeze", "thaw", async () => {
        await page.textBecomes("detail", /The board answers/);
        await page.click("#reconnect");
    });
    await page.reach("live");
    await page.click("#snap .main");
    await page.until(() => document.getElementById("shot-picture").naturalWidth === 640);

    assert.equal(network.mostStreams, 1);
    assert.ok(page.showsImage || network.streamsBegun > 3, String(network.streamsBegun));
});

pageTest("snapshot and measurement, through a measurement that hangs", async (page, network) => {
    await page.open(network.url);
    await page.click("#snap .main");
    await page.until(() => document.getElementById("shot-picture").naturalWidth === 640);
    await page.textBecomes("snap-status", /^Not reported by this board: whether the SD card/);
    await page.textBecomes("shots", /^photo\.jpg\d+ KB, \d\d:\d\d:\d\d$/);

    network.held = "GET /camera";
    await page.click("#measure");
    await page.click("#confirm");
    await page.textBecomes("measure-time", /^[1-9] s$/);
    await page.click("#leave");
    await page.textBecomes("measure-status", /^No longer waiting\. A measurement that has begun/);

    network.held = null;
    await page.click("#measure");
    await page.click("#confirm");
    await page.textBecomes("measure-status", /^Nothing was measured: this board has no vision/);
    assert.equal(await page.text("value"), "0.0000");
    await page.reach("live");
});

pageTest("crosshair in the middle of the picture, in the full screen too", async (page, network) => {
    await page.open(network.url);
    const offset = () =>
        page.run(() => {
            const middle = (id) => {
                const { left, right, top, bottom } = document
                    .getElementById(id)
                    .getBoundingClientRect();
                return [(left + right) / 2, (top + bottom) / 2];
            };
            const [x, y] = middle("picture");
            const [crossX, crossY] = middle("cross");
            return Math.hypot(x - crossX, y - crossY);
        });
    assert.ok(await page.run(() => document.getElementById("cross").checkVisibility() === false));

    await page.click("#crosshair");
    assert.ok(await page.run(() => document.getElementById("cross").checkVisibility()));
    assert.ok((await offset()) < 1);

    await page.click("#full-screen");
    await page.until(() => document.fullscreenElement?.id === "stage");
    await page.until(
        () => document.getElementById("picture").clientHeight >= innerHeight - 1,
    );
    assert.ok((await offset()) < 1);
    await page.click("#stage");
    await page.until(() => document.fullscreenElement === null);
    await page.click("#crosshair");
    assert.ok(await page.run(() => document.getElementById("cross").checkVisibility() === false));
});

for (const [name, size] of Object.entries({ upright: PHONE, across: PHONE_ACROSS })) {
    pageTest(
        `on a phone held ${name} the picture stays in view`,
        async (page, network) => {
            await page.open(network.url);
            await page.click("#measure");
            const seen = await page.run(() => {
                document.getElementById("question").scrollIntoView({ block: "end" });
                const { top, bottom, left, right } = document
                    .getElementById("picture")
                    .getBoundingClientRect();
                const button = document.getElementById("confirm").getBoundingClientRect();
                return {
                    top,
                    bottom,
                    area: ((bottom - top) * (right - left)) / (innerWidth * innerHeight),
                    apart: button.top >= bottom || button.left >= right,
                    shown: button.top >= 0 && button.bottom <= innerHeight + 1,
                    sideways: document.documentElement.scrollWidth - innerWidth,
                };
            });

            assert.ok(seen.top >= 0 && seen.bottom <= size[1] + 0.5, JSON.stringify(seen));
            assert.ok(seen.area > (name === "across" ? 0.5 : 0.3), JSON.stringify(seen));
            assert.ok(seen.apart && seen.shown, JSON.stringify(seen));
            assert.ok(seen.sideways <= 0, JSON.stringify(seen));
        },
        { size },
    );
}

pageTest(
    "a large screen is used",
    async (page, network) => {
        await page.open(network.url);
        const width = await page.run(() => {
            const { width, height } = document.getElementById("picture").getBoundingClientRect();
            return Math.min(width, (height * 4) / 3); // of the picture in it
        });
        assert.ok(width > 1100, String(width));
    },
    { size: LARGE },
);

/** What axe-core finds fault with. */
async function faults(page) {
    await page.run(`() => { window.axe ?? (() => { ${AXE} })(); }`);
    return page.run(async () => {
        // Texts fade and states follow: only what stands still can be measured.
        // A cancelled one is over, too.
        await Promise.allSettled(document.getAnimations().map((animation) => animation.finished));
        const { violations } = await window.axe.run();
        return violations.flatMap(({ id, nodes }) => nodes.map(({ html }) => `${id}: ${html}`));
    });
}

for (const scheme of ["light", "dark"]) {
    longTest(
        `axe-core finds nothing, ${scheme}`,
        async (page, network) => {
            await page.open(network.url);
            assert.deepEqual(await faults(page), [], "live");

            await page.click("#snap .main");
            await page.until(() => document.getElementById("shot-picture").naturalWidth === 640);
            await page.click("#measure");
            assert.deepEqual(await faults(page), [], "a snapshot, and a question");

            await page.click("#confirm");
            await page.textBecomes("measure-status", /^Nothing was measured/);
            await page.click("#pause");
            await page.reach("paused");
            assert.deepEqual(await faults(page), [], "measured and paused");

            await page.click("#pause");
            await page.reach("live");
            network.held = "GET /snap";
            network.close(); // and takes no further connection
            await page.click("#snap .main");
            await page.textBecomes("snap-status", /^No snapshot: the board gave no answer\.$/);
            await page.reach("stopped");
            assert.deepEqual(await faults(page), [], "failed and stopped");

            await page.resize(...PHONE);
            assert.deepEqual(await faults(page), [], "on a phone");
        },
        { scheme },
    );
}
