// Chromium, Firefox and WebKit as Debian has them, driven alike.
import { spawn } from "node:child_process";
import { mkdirSync, mkdtempSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

import { chromium } from "playwright-core";
import puppeteer from "puppeteer-core";

const DEADLINE = 30000; // ms; only ends a failing run
const POLL = 50;
const DRIVER = "http://127.0.0.1:4444"; // WebKit's; the host is the test's own
const WEBKIT = "/usr/lib/x86_64-linux-gnu/webkit2gtk-4.1/MiniBrowser";

const pause = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/**
 * A folder for a browser's profile, with the environment that makes it keep to it. It goes with the
 * private host's /tmp: a browser's processes may still write into it when the browser has ended.
 */
class Profile {
    folder = mkdtempSync(join(tmpdir(), "kestrel-browser."));
    env = {
        ...process.env,
        HOME: this.folder,
        XDG_CONFIG_HOME: join(this.folder, ".config"),
        XDG_CACHE_HOME: join(this.folder, ".cache"),
    };
}

/** Chromium by playwright, with a profile of its own. */
export async function startChromium() {
    const profile = new Profile();
    return chromium.launch({
        executablePath: process.env.KESTREL_CHROMIUM ?? fileURLToPath(new URL("chromium", import.meta.url)),
        env: profile.env,
        args: [
            "--headless",
            "--no-sandbox",
            "--disable-gpu",
            "--disable-software-rasterizer",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
        ],
    });
}

/** What the three have in common. */
class Page {
    /** True where the stream is seen in an image only. */
    showsImage = false;

    /** Wait until `condition`, run in the page with `args`, gives something true; returns it. */
    async until(condition, ...args) {
        const end = Date.now() + DEADLINE;
        for (;;) {
            const value = await this.run(condition, ...args);
            if (value) {
                return value;
            }
            if (Date.now() > end) {
                const seen = await this.run(() => document.body.innerText);
                throw new Error(`not within ${DEADLINE} ms: ${condition} ${args}; seen:\n${seen}`);
            }
            await pause(POLL);
        }
    }

    reach(state) {
        return this.until((state) => document.getElementById("live").dataset.state === state, state);
    }

    text(id) {
        return this.run((id) => document.getElementById(id).textContent, id);
    }

    textBecomes(id, pattern) {
        return this.until(
            (id, source) => new RegExp(source).test(document.getElementById(id).textContent),
            id,
            pattern.source,
        );
    }

    async open(url) {
        await this.goTo(url);
        await this.reach("live");
    }

    /** Bring an element into view and wait until the page has stopped moving it, so that a click meets it. */
    async still(selector) {
        await this.until((selector) => {
            const element = document.querySelector(selector);
            element?.scrollIntoView({ block: "center" });
            return element?.checkVisibility();
        }, selector);
        for (let former = null, now = ""; now !== former; await pause(POLL)) {
            former = now;
            now = await this.run(
                (selector) => JSON.stringify(document.querySelector(selector).getBoundingClientRect()),
                selector,
            );
        }
    }
}

class ChromiumPage extends Page {
    static browser = null;

    static async start(scheme) {
        const page = new ChromiumPage();
        ChromiumPage.browser ??= await startChromium();
        page.page = await ChromiumPage.browser.newPage({ colorScheme: scheme });
        return page;
    }

    static async end() {
        await ChromiumPage.browser?.close();
        ChromiumPage.browser = null;
    }

    goTo(url) {
        return this.page.goto(url);
    }

    run(script, ...args) {
        return this.page.evaluate(`(${script})(...${JSON.stringify(args)})`);
    }

    click(selector) {
        return this.page.click(selector);
    }

    pressEscape() {
        return this.page.keyboard.press("Escape");
    }

    resize(width, height) {
        return this.page.setViewportSize({ width, height });
    }

    /** @param options  also "quality", when the path ends in ".jpg" */
    screenshot(path, options = {}) {
        return this.page.screenshot({ path, ...options });
    }

    close() {
        return this.page.close();
    }
}

class FirefoxPage extends Page {
    static browsers = {}; // by scheme: no page of it can change that

    static async start(scheme) {
        const page = new FirefoxPage();
        FirefoxPage.browsers[scheme] ??= await FirefoxPage.launch(scheme);
        page.page = await FirefoxPage.browsers[scheme].newPage();
        return page;
    }

    static launch(scheme) {
        const profile = new Profile();
        return puppeteer.launch({
            browser: "firefox",
            executablePath: "/usr/bin/firefox-esr",
            env: profile.env,
            extraPrefsFirefox: {
                "layout.css.prefers-color-scheme.content-override": scheme === "dark" ? 0 : 1,
            },
        });
    }

    static async end() {
        for (const browser of Object.values(FirefoxPage.browsers)) {
            await browser.close();
        }
    }

    goTo(url) {
        return this.page.goto(url);
    }

    run(script, ...args) {
        return this.page.evaluate(`(${script})(...${JSON.stringify(args)})`);
    }

    async click(selector) {
        await this.still(selector);
        await this.page.click(selector);
    }

    pressEscape() {
        return this.page.keyboard.press("Escape");
    }

    resize(width, height) {
        return this.page.setViewport({ width, height });
    }

    screenshot(path) {
        return this.page.screenshot({ path });
    }

    close() {
        return this.page.close();
    }
}

/**
 * WebKitGTK's small browser on a display of its own, by WebDriver. Each page has a browser of its
 * own, as the streams of a page that is gone stay open.
 */
class WebKitPage extends Page {
    showsImage = true;

    static async end() {}

    static async start(scheme) {
        const page = new WebKitPage();
        const profile = new Profile();
        const settings = join(profile.folder, ".config", "gtk-3.0");
        mkdirSync(settings, { recursive: true });
        // Its tool bar would keep the window wider than a phone.
        writeFileSync(
            join(settings, "gtk.css"),
            "* { min-width: 0; padding: 0; margin: 0 } image { -gtk-icon-transform: scale(.3) }",
        );
        const env = {
            ...profile.env,
            NO_AT_BRIDGE: "1",
            WEBKIT_DISABLE_COMPOSITING_MODE: "1", // in software it takes twice the processor's time
            GST_REGISTRY: join(tmpdir(), "kestrel-gstreamer"), // made once, not for each profile
        };
        if (scheme === "dark") {
            env.GTK_THEME = "Adwaita:dark";
        }
        page.display = spawn(
            "Xvfb",
            ["-displayfd", "1", "-screen", "0", "2000x1300x24", "-nolisten", "tcp"],
            { stdio: ["ignore", "pipe", "ignore"] },
        );
        const [number] = await new Promise((resolve, reject) => {
            const lines = createInterface({ input: page.display.stdout });
            lines.once("line", (line) => resolve([line]));
            page.display.once("error", reject);
        });
        env.DISPLAY = `:${number}`;
        page.driver = spawn("WebKitWebDriver", ["-p", new URL(DRIVER).port], {
            env,
            stdio: "ignore",
        });
        await page.begin();
        return page;
    }

    async begin() {
        const end = Date.now() + DEADLINE;
        for (;;) {
            const status = await fetch(`${DRIVER}/status`).catch(() => null);
            if (status?.ok) {
                break;
            }
            if (Date.now() > end) {
                throw new Error("WebKitWebDriver does not answer");
            }
            await pause(POLL);
        }
        const { sessionId } = await this.call("POST", "/session", {
            capabilities: {
                alwaysMatch: {
                    browserName: "MiniBrowser",
                    "webkitgtk:browserOptions": { binary: WEBKIT, args: ["--automation"] },
                },
            },
        });
        this.session = `/session/${sessionId}`;
    }

    async call(method, path, body) {
        const response = await fetch(DRIVER + path, {
            method,
            body: body === undefined ? undefined : JSON.stringify(body),
        });
        const { value } = await response.json();
        if (value?.error) {
            throw new Error(`${path}: ${value.error}: ${value.message}`);
        }
        return value;
    }

    goTo(url) {
        return this.call("POST", `${this.session}/url`, { url });
    }

    async run(script, ...args) {
        const [failed, value] = await this.call("POST", `${this.session}/execute/async`, {
            script: `const done = arguments[1];
                (async () => (${script})(...JSON.parse(arguments[0])))().then(
                    (value) => done([null, value ?? null]), (error) => done([String(error), null]));`,
            args: [JSON.stringify(args)],
        });
        if (failed) {
            throw new Error(failed);
        }
        return value;
    }

    async find(selector) {
        const element = await this.call("POST", `${this.session}/element`, {
            using: "css selector",
            value: selector,
        });
        return `${this.session}/element/${Object.values(element)[0]}`;
    }

    async click(selector) {
        // The driver itself scrolls no farther than to the window's edge, below what is fixed there.
        await this.still(selector);
        await this.call("POST", `${await this.find(selector)}/click`, {});
    }

    async pressEscape() {
        await this.call("POST", `${await this.find("body")}/value`, { text: "\uE00C" });
    }

    /** The page's size; the window has a bar above it. */
    async resize(width, height) {
        for (let bar = 38, tries = 0; tries < 40; tries++) {
            await this.call("POST", `${this.session}/window/rect`, {
                x: 0,
                y: 0,
                width,
                height: height + bar,
            });
            await pause(POLL);
            const [w, h] = await this.run(() => [innerWidth, innerHeight]);
            if (w === width && h === height) {
                return;
            }
            bar += height - h;
        }
        throw new Error(`the window does not become ${width} x ${height}`);
    }

    async screenshot(path) {
        const image = await this.call("GET", `${this.session}/screenshot`);
        writeFileSync(path, Buffer.from(image, "base64"));
    }

    async close() {
        await this.call("DELETE", this.session).catch(() => {}); // it may be hung
        for (const process of [this.driver, this.display]) {
            const ended = new Promise((resolve) => process.once("close", resolve));
            process.kill();
            await ended;
        }
    }
}

const KINDS = { chromium: ChromiumPage, firefox: FirefoxPage, webkit: WebKitPage };

/**
 * A page of its own.
 * @param name    "chromium", "firefox" or "webkit"
 * @param scheme  "light" or "dark"
 */
export function startPage(name, scheme = "light") {
    return KINDS[name].start(scheme);
}

/** End what pages have left running, after the last one. */
export function endBrowser(name) {
    return KINDS[name].end();
}
