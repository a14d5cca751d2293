// The arm's panel, with the station on the virtual board; KESTREL_BROWSER says in which browser: all of it
// in chromium, in firefox and webkit what may differ there; of that what the panel's own script decides, and
// takes long, only when KESTREL_BROWSERS is "whole".
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { after, before, test } from "node:test";

import { Board, HTTP_PORT, TOKEN } from "./board.js";
import { endBrowser, startPage } from "./browsers.js";

const NAME = process.env.KESTREL_BROWSER;
const AXE = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");
const PAGE = `http://127.0.0.1:${HTTP_PORT}/index.html`;
const STATION = "http://127.0.0.1:8330";
const SIZES = { phone: [390, 844], across: [844, 390], desktop: [1280, 800] };
const LEASE = 15000; // ms in which one has run out

let board;

before(async () => {
    board = await Board.start("station");
});

after(async () => {
    try {
        await endBrowser(NAME);
    } finally {
        await board?.close();
    }
});

/** An operator's request beside the page. */
async function ask(path, body) {
    const response = await fetch(STATION + path, {
        method: body ? "POST" : "GET",
        headers: { Authorization: `Bearer ${TOKEN}`, "Content-Type": "application/json" },
        body: body && JSON.stringify(body),
    });
    return response.json();
}

async function until(condition, what) {
    const end = Date.now() + 30000;
    for (;;) {
        const value = await condition();
        if (value) {
            return value;
        }
        assert.ok(Date.now() < end, `not within 30 s: ${what}`);
        await new Promise((resolve) => setTimeout(resolve, 50));
    }
}

/** Dark, with no job, the beam seen off. */
async function calmDown() {
    await until(async () => (await ask("/state")).guard.present, "the guard is there");
    if ((await ask("/state")).guard.level !== "dark") {
        await ask("/off", {});
    }
    await until(async () => {
        const { guard, job, terminal } = await ask("/state");
        return guard.beam_seen_off && job === null && terminal;
    }, "it is dark");
}

/** A test with a page of its own; nothing of it may fail unseen. */
function armTest(name, body, { scheme = "light", size = SIZES.desktop } = {}) {
    test(`${NAME}: ${name}`, async () => {
        await calmDown();
        const page = await startPage(NAME, scheme);
        try {
            await page.resize(...size);
            await page.goTo(PAGE);
            await page.until(() => document.getElementById("arm-bar") !== null);
            await page.run(() => {
                window.failures = [];
                addEventListener("error", ({ message }) => window.failures.push(message));
                addEventListener("unhandledrejection", ({ reason }) => window.failures.push(String(reason)));
            });
            await body(page);
            assert.deepEqual(await page.run(() => window.failures ?? []), []);
        } finally {
            await page.close();
        }
    });
}

/** What may not differ between browsers. */
const chromiumTest = NAME === "chromium" ? armTest : () => {};
const longTest = process.env.KESTREL_BROWSERS === "whole" ? armTest : chromiumTest;

async function login(page, token = TOKEN) {
    await page.run((token) => {
        document.getElementById("arm-token").value = token;
    }, token);
    await page.click("#arm-login button");
}

async function enter(page) {
    await login(page);
    await page.textBecomes("arm-level", /^Dark$/);
}

/** Press a button of the panel once it can be pressed. */
async function press(page, id) {
    await page.until((id) => {
        const button = document.getElementById(id);
        return button.checkVisibility() && button.getAttribute("aria-disabled") !== "true";
    }, id);
    await page.click(`#${id}`);
}

async function home(page) {
    await press(page, "arm-motion");
    await page.textBecomes("arm-level", /^Motion$/);
    await press(page, "arm-home");
    await page.textBecomes("arm-homed", /^Homed$/);
}

/** A square of so many millimetres, gone round so often. */
function square(side, rounds) {
    const once = [`G1 X${side} Y0`, `G1 X${side} Y${side}`, `G1 X0 Y${side}`, "G1 X0 Y0"];
    const moves = Array.from({ length: rounds }, () => once).flat();
    return ["G21", "G90", "M3 S100", "G1 F3000 X0 Y0", ...moves, "M5", ""].join("\n");
}

/** Give the page a file, as its own dialogue does. */
const upload = (page, name, text) =>
    page.run(
        (name, text) => {
            const files = new DataTransfer();
            files.items.add(new File([text], name));
            const input = document.getElementById("arm-file");
            input.files = files.files;
            input.dispatchEvent(new Event("change"));
        },
        name,
        text,
    );

async function burn(page, name, text) {
    await upload(page, name, text);
    await page.textBecomes("arm-check", /^Passes: /);
    // Now the drawing is there, which has moved the buttons.
    await page.textBecomes("arm-status", / is at the station\.$/);
    await press(page, "arm-start");
    await page.textBecomes("arm-question-text", /^The beam will burn .*\. Is everything clear\?$/);
    await press(page, "arm-burn");
    await page.textBecomes("arm-level", /^Job$/);
}

/** Until the lease of the job that runs has been renewed so often. */
async function renewals(count) {
    let last = 0;
    for (let seen = 0; seen < count; ) {
        const left = (await ask("/state")).job.lease_left_ms;
        seen += Number(left > last);
        last = left;
        await new Promise((resolve) => setTimeout(resolve, 100));
    }
}

armTest("the panel asks for the token once, and keeps it for the tab", async (page) => {
    assert.ok(await page.run(() => document.getElementById("arm-token").checkVisibility()));
    assert.equal(await page.text("arm-level"), "Not known");
    assert.ok(await page.run(() => document.getElementById("measure-card").hidden));

    await login(page, "not the token");
    await page.textBecomes("arm-login-said", /^The station does not know this token\.$/);
    await enter(page);
    await page.textBecomes("arm-beam", /^Seen off$/);
    assert.ok(!(await page.run(() => document.getElementById("arm-token").checkVisibility())));

    await page.goTo(PAGE);
    await page.until(() => document.getElementById("arm-level")?.textContent === "Dark");
    assert.equal(await page.run(() => localStorage.length), 0);
});

armTest("a job from the file to its end, drawn over the picture", async (page) => {
    await enter(page);
    await page.reach("live");
    await home(page);

    await burn(page, "a square.gcode", square(10, 3));
    await page.textBecomes("arm-name", /^a_square\.gcode$/);
    await page.textBecomes("arm-lines", /^Line \d+ of 17, \d+ %, \d.* left$/);
    await page.textBecomes("arm-owner", /^This page keeps the job going/);
    await page.textBecomes("arm-beam", /^May be on$/);
    await page.run(() => {
        const width = document.getElementById("arm-width");
        width.value = "64";
        width.dispatchEvent(new Event("change"));
    });
    const box = await page.run(() => {
        const round = (rect) => [rect.left, rect.top, rect.right, rect.bottom].map(Math.round);
        const burnt = document.querySelector("#arm-path .burn");
        const picture = document.getElementById("picture").getBoundingClientRect();
        const perMm = Math.min(picture.width / 64, picture.height / 48);
        const [x, y] = [(picture.left + picture.right) / 2, (picture.top + picture.bottom) / 2];
        return [round(burnt.getBoundingClientRect()), [x - 10 * perMm, y - 10 * perMm, x, y].map(Math.round)];
    });
    box[0].forEach((edge, i) => assert.ok(Math.abs(edge - box[1][i]) <= 3, JSON.stringify(box)));
    assert.ok(await page.run(() => document.querySelector("#arm-drawing .burn").getBBox().width > 9));
    await page.run(() => localStorage.clear());

    await page.textBecomes("arm-last", /^a_square\.gcode: done at line 17 of 17\. /);
    await page.textBecomes("arm-level", /^Dark$/);
    assert.equal((await ask("/state")).last_job.result, "done");
});

for (const [name, off] of Object.entries({
    "the button": (page) => page.click("#arm-off"),
    "the key": (page) => page.pressEscape(),
})) {
    armTest(`beam off by ${name} ends a job`, async (page) => {
        await enter(page);
        await page.reach("live");
        await home(page);
        await burn(page, "long.gcode", square(20, 200));
        await board.command("laser 1");

        await off(page);

        await board.command("laser 0");
        await page.textBecomes("arm-level", /^Dark$/);
        await page.textBecomes("arm-beam", /^Seen off$/);
        await page.textBecomes("arm-last", /^long\.gcode: /);
    });
}

longTest("a station that goes and comes back is reported and found again", async (page) => {
    await enter(page);

    await board.command("station stop");
    try {
        await page.textBecomes("arm-level", /^Not known$/);
        await page.textBecomes("arm-missing", /^The station does not answer\./);
        assert.equal(await page.text("arm-activity"), "Station silent");
        await page.click("#arm-off");
        await page.textBecomes("arm-off-said", /^Beam off was NOT sent\. .* Use the arm's own switch\.$/);
    } finally {
        await board.command("station start");
    }

    await page.textBecomes("arm-level", /^Dark$/);
});

chromiumTest("a station that hangs is not known", async (page) => {
    await enter(page);

    await board.command("station freeze");
    try {
        await page.textBecomes("arm-level", /^Not known$/);
    } finally {
        await board.command("station thaw");
    }

    await page.textBecomes("arm-level", /^Dark$/);
});

chromiumTest("a guard that goes and comes back is told", async (page) => {
    await enter(page);

    await board.command("guard stop");
    try {
        await page.textBecomes("arm-missing", /Start kestrel-guard/);
        await page.textBecomes("arm-level", /^Not known$/);
        assert.equal(
            await page.run(() => document.getElementById("arm-home").getAttribute("aria-disabled")),
            "true",
        );
    } finally {
        await board.command("guard start");
    }

    await page.textBecomes("arm-level", /^Dark$/);
});

chromiumTest("the arm is jogged as the spot goes in the picture, and moved", async (page) => {
    await enter(page);
    await home(page);
    await page.run(() => {
        document.querySelectorAll("#arm details").forEach((details) => (details.open = true));
        document.getElementById("arm-feed").value = "3000";
        document.getElementById("arm-x").value = "5";
        document.getElementById("arm-y").value = "-4";
        document.getElementById("arm-z").value = "0";
    });

    await press(page, "arm-move");
    await board.command("arm 5 -4 0");
    await page.textBecomes("arm-activity", /^Nothing$/);
    const places = await page.run(() =>
        ["x+", "x-", "y+", "y-"].map((way) => {
            const { left, top } = document.querySelector(`[data-jog="${way}"]`).getBoundingClientRect();
            return [left, top];
        }),
    );
    assert.ok(places[0][0] < places[1][0] && places[2][1] < places[3][1], JSON.stringify(places));
    await page.click('[data-jog="x-"]');
    await board.command("arm 4 -4 0");
    await page.until(() => document.querySelector('[data-jog="z+"]').ariaDisabled === "false");
    await page.click('[data-jog="z+"]');
    await board.command("arm 4 -4 1");

    await page.run(() => (document.getElementById("arm-x").value = "1000"));
    await press(page, "arm-move");
    await page.textBecomes("arm-status", /answered with error/);
    assert.ok(await page.run(() => document.getElementById("arm-status").classList.contains("failed")));
});

chromiumTest("a job that would be refused is not started, and told why", async (page) => {
    await enter(page);
    await home(page);

    await upload(page, "bad.gcode", "G21\nG1 X500 F100\nG1 Y600 F100\n");

    await page.textBecomes("arm-check", /^Refused in 2 places: line 2: outside the box; line 3: outside the box\.$/);
    assert.equal(
        await page.run(() => document.getElementById("arm-start").getAttribute("aria-disabled")),
        "true",
    );
    await page.run(() => document.querySelectorAll("#arm details").forEach((each) => (each.open = true)));
    await press(page, "arm-remove");
    await page.textBecomes("arm-status", /^bad\.gcode is removed\.$/);
});

chromiumTest("a job is paused, held by a lost camera, resumed and stopped", async (page) => {
    await enter(page);
    await page.reach("live");
    await home(page);
    await burn(page, "long.gcode", square(20, 200));

    await press(page, "arm-pause");
    await page.textBecomes("arm-hold", /^Paused\.$/);
    await page.textBecomes("arm-beam", /^Off, paused$/);
    await press(page, "arm-resume");
    await page.textBecomes("arm-hold", /^$/);

    await board.command("camera unplug");
    try {
        await page.textBecomes("arm-hold", /^Held: no new picture came\./);
        await page.textBecomes("arm-missing", /Plug the camera in\./);
    } finally {
        await board.command("camera replug");
    }
    await page.reach("live");
    await page.textBecomes("arm-missing", /^(?!.*camera)/); // the station has seen a picture, too
    await press(page, "arm-resume");
    await page.textBecomes("arm-hold", /^$/);

    await press(page, "arm-stop");
    await page.textBecomes("arm-last", /^long\.gcode: stopped at line /);
});

chromiumTest("an answer that comes after a newer event takes nothing back", async (page) => {
    await enter(page);
    await home(page);
    await burn(page, "long.gcode", square(20, 200));
    await page.run(() => {
        const { fetch } = window;
        window.fetch = async (...asked) => {
            const answer = await fetch(...asked);
            if (String(asked[0]).endsWith("/job/pause")) {
                const isOff = () => document.getElementById("arm-beam").textContent === "Off, paused";
                while (!isOff()) {
                    await new Promise((resolve) => setTimeout(resolve, 20));
                }
            }
            return answer;
        };
    });

    await press(page, "arm-pause");
    await page.textBecomes("arm-beam", /^Off, paused$/);
    await page.textBecomes("arm-status", /^$/); // the answer has come

    assert.equal(await page.text("arm-beam"), "Off, paused");
    await press(page, "arm-stop");
    await page.textBecomes("arm-last", /^long\.gcode: stopped at line /);
});

chromiumTest("an answer that comes late does not wipe out what a newer one tells", async (page) => {
    await enter(page);
    await press(page, "arm-motion");
    await page.textBecomes("arm-level", /^Motion$/);
    await page.run(() => {
        const { fetch } = window;
        window.fetch = async (...asked) => {
            const answer = await fetch(...asked);
            if (String(asked[0]).endsWith("/home")) {
                const status = document.getElementById("arm-status");
                while (!status.textContent.endsWith(" is at the station.")) {
                    await new Promise((resolve) => setTimeout(resolve, 20));
                }
            }
            return answer;
        };
    });

    await press(page, "arm-home");
    await page.textBecomes("arm-homed", /^Homed$/);
    await upload(page, "a square.gcode", square(10, 3));
    // Home's answer has come when its button can be pressed again.
    await page.until(() => document.getElementById("arm-home").getAttribute("aria-disabled") !== "true");

    assert.equal(await page.text("arm-status"), "a_square.gcode is at the station.");
});

chromiumTest("a page that is loaded again keeps its job, one that is closed does not", async (page) => {
    await enter(page);
    await page.reach("live");
    await home(page);
    await burn(page, "long.gcode", square(20, 400));

    await page.goTo(PAGE);
    await page.until(() => /^This page keeps/.test(document.getElementById("arm-owner")?.textContent));
    await page.textBecomes("arm-check", /^Passes: /); // it is chosen again
    await renewals(4);

    await page.goTo("about:blank");
    const begun = Date.now();
    await board.command("laser 0");
    assert.ok(Date.now() - begun < LEASE);
    await until(async () => (await ask("/state")).last_job?.result === "tripped", "the guard has ended it");
});

longTest("the browser asks before the page of a job is left, and only then", async (page) => {
    const asks = () =>
        page.run(() => {
            const event = new Event("beforeunload", { cancelable: true });
            window.dispatchEvent(event);
            return event.defaultPrevented;
        });
    await enter(page);
    await page.reach("live");
    await home(page);
    assert.equal(await asks(), false);

    await burn(page, "long.gcode", square(20, 200));
    assert.equal(await asks(), true);

    await press(page, "arm-stop");
    await page.textBecomes("arm-last", /^long\.gcode: stopped at line /);
    assert.equal(await asks(), false);
});

chromiumTest("a page in the background keeps its job", async (page) => {
    // What a browser does to a tab that is long hidden: its timers come once a minute.
    await page.page.addInitScript(() => {
        const { setTimeout: later, setInterval: often } = window;
        window.setTimeout = (does, ms, ...rest) => later(does, window.isHidden ? 60000 : ms, ...rest);
        window.setInterval = (does, ms, ...rest) => {
            let last = performance.now();
            return often(() => {
                if (!window.isHidden || performance.now() - last >= 60000) {
                    last = performance.now();
                    does(...rest);
                }
            }, ms);
        };
    });
    await page.goTo(PAGE);
    await page.until(() => document.getElementById("arm-bar") !== null);
    await enter(page);
    await page.reach("live");
    await home(page);
    await burn(page, "long.gcode", square(20, 400));

    await page.run(() => {
        window.isHidden = true;
        Object.defineProperty(document, "hidden", { get: () => true });
        Object.defineProperty(document, "visibilityState", { get: () => "hidden" });
        document.dispatchEvent(new Event("visibilitychange"));
    });
    for (const begun = Date.now(); Date.now() - begun < 2 * LEASE; ) {
        await renewals(1);
    }

    assert.equal((await ask("/state")).job.status, "running");
});

chromiumTest("in the full screen the button is there, and Escape turns the beam off", async (page) => {
    await enter(page);
    await page.reach("live");
    await home(page);
    await burn(page, "long.gcode", square(20, 200));
    await page.click("#full-screen");
    await page.until(() => document.fullscreenElement?.id === "stage");
    // The page moves it there once it is told of the full screen, which is a moment later.
    await page.until(() => {
        const { left, top, width, height } = document.getElementById("arm-off").getBoundingClientRect();
        const there = document.elementFromPoint(left + width / 2, top + height / 2);
        return there?.id === "arm-off";
    });
    // Long after the click, as a browser's own Escape comes: the page sees the full screen end.
    await new Promise((resolve) => setTimeout(resolve, 600));
    await page.run(() => document.exitFullscreen());

    await board.command("laser 0");
    await page.textBecomes("arm-level", /^Dark$/);
});

longTest("an alarm is told, and its lock cleared by a button", async (page) => {
    await enter(page);
    assert.ok(!(await page.run(() => document.getElementById("arm-unlock").checkVisibility())));
    await home(page);

    await board.command("controller alarm-now 1");
    await page.until(() => document.getElementById("arm-unlock").checkVisibility());
    await page.textBecomes("arm-level", /^Dark$/);
    await page.textBecomes("arm-beam", /^Seen off$/);
    await press(page, "arm-unlock");

    await page.textBecomes("arm-status", /^The lock is cleared\. The arm is dark and not homed: /);
    await page.until(() => !document.getElementById("arm-unlock").checkVisibility());
    assert.equal(await page.run(() => document.activeElement.id), "arm-home");
    assert.equal(await page.text("arm-level"), "Dark");
    assert.equal(await page.text("arm-homed"), "Not homed");
    const { entries } = await ask("/journal?limit=20");
    assert.ok(entries.some(({ source, text }) => source === "operator" && text === "unlock"));
    await home(page);
});

chromiumTest("a measurement without a plug-in says so", async (page) => {
    await enter(page);
    await home(page);

    await press(page, "arm-measure");

    await page.textBecomes("arm-status", /libframe_process\.so/);
});

if (NAME === "chromium" && process.env.KESTREL_PLUGIN) {
    armTest("the panel measures the spot, and shows the picture", async (page) => {
        await board.command("station stop");
        await board.command(`plugin ${process.env.KESTREL_PLUGIN}`);
        await board.command("station start");
        try {
            await enter(page);
            await page.reach("live");
            await home(page);
            await ask("/move", { x: -5, y: 5, z: 0, feed: 3000 });
            await board.command("arm -5 5 0");
            assert.ok(!(await page.run(() => document.getElementById("arm-seen").checkVisibility())));

            await press(page, "arm-measure");
            await page.textBecomes(
                "arm-status",
                /^Spot at 5\.0\d, -(5\.0|4\.9)\d mm\. The homed laser is -?\d+\.\d\d mm over its focus\. Focused\.$/,
            );

            const shown = await page.run(async () => {
                const seen = document.getElementById("arm-seen");
                await seen.decode();
                return [seen.checkVisibility(), seen.naturalWidth, seen.naturalHeight];
            });
            assert.deepEqual(shown, [true, 640, 480]);
        } finally {
            await board.command("station stop");
            await board.command("plugin");
            await board.command("station start");
        }
    });
}

chromiumTest("the journal is told", async (page) => {
    await enter(page);
    await press(page, "arm-motion");

    await page.textBecomes("arm-journal", /^\d\d:\d\d:\d\d .*operator: level motion/);
});

for (const [name, size] of Object.entries(SIZES)) {
    armTest(
        `level and beam off are in sight, wherever one scrolls, ${name}`,
        async (page) => {
            await enter(page);
            for (const place of [0, 99999]) {
                const seen = await page.run((place) => {
                    scrollTo(0, place);
                    const inSight = (id) => {
                        const { left, top, right, bottom } = document
                            .getElementById(id)
                            .getBoundingClientRect();
                        const there = document.elementFromPoint((left + right) / 2, (top + bottom) / 2);
                        return there?.closest(`#${id}`) && bottom <= innerHeight && right <= innerWidth;
                    };
                    const { bottom } = [...document.querySelectorAll(".side > .card")]
                        .filter((card) => !card.hidden)
                        .pop()
                        .getBoundingClientRect();
                    return {
                        off: Boolean(inSight("arm-off")),
                        level: Boolean(inSight("arm-level")),
                        end: place === 0 || bottom <= document.getElementById("arm-bar").getBoundingClientRect().top,
                        sideways: document.documentElement.scrollWidth - innerWidth,
                    };
                }, place);
                assert.deepEqual(seen, { off: true, level: true, end: true, sideways: Math.min(0, seen.sideways) });
            }
        },
        { size },
    );
}

/** What axe-core finds fault with; the rest of the page is looked at elsewhere in firefox and webkit. */
async function faults(page) {
    await page.run(`() => { window.axe ?? (() => { ${AXE} })(); }`);
    return page.run(async (isWhole) => {
        // A cancelled one is over, too.
        await Promise.allSettled(document.getAnimations().map((animation) => animation.finished));
        const part = isWhole ? document : { include: ["#arm", "#arm-bar"] };
        const { violations } = await window.axe.run(part);
        return violations.flatMap(({ id, nodes }) => nodes.map(({ html }) => `${id}: ${html}`));
    }, NAME === "chromium");
}

for (const [scheme, schemeTest] of Object.entries({ light: longTest, dark: chromiumTest })) {
    schemeTest(
        `axe-core finds nothing, ${scheme}`,
        async (page) => {
            assert.deepEqual(await faults(page), [], "the token is asked for");
            await enter(page);
            await page.reach("live");
            await page.run(() => document.querySelectorAll("#arm details").forEach((each) => (each.open = true)));
            assert.deepEqual(await faults(page), [], "dark");
            await home(page);
            await upload(page, "long.gcode", square(20, 200));
            await page.textBecomes("arm-check", /^Passes: /);
            await page.textBecomes("arm-status", / is at the station\.$/);
            await press(page, "arm-start");
            assert.deepEqual(await faults(page), [], "motion, and a question");
            await press(page, "arm-burn");
            await page.textBecomes("arm-level", /^Job$/);
            await press(page, "arm-pause");
            await page.textBecomes("arm-hold", /^Paused\.$/);
            assert.deepEqual(await faults(page), [], "a job that is held");
            await page.resize(...SIZES.phone);
            await page.click("#arm-off");
            await page.textBecomes("arm-off-said", /^Beam off was sent\.$/);
            assert.deepEqual(await faults(page), [], "off, on a phone");
        },
        { scheme },
    );
}
