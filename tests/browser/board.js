// What the browser's tests stand on: the board, a network that can fail, and Chromium.
import { spawn } from "node:child_process";
import { mkdtempSync, rmSync } from "node:fs";
import net from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

import { chromium } from "playwright-core";

export const HTTP_PORT = 8329;
export const CARD = "/tmp/run/mountd/mmcblk0p1/kestrel-server";

/** The service on the virtual camera, see board.py. */
export class Board {
    static async start() {
        const board = new Board();
        board.process = spawn(
            "python3",
            ["-B", fileURLToPath(new URL("board.py", import.meta.url))],
            { stdio: ["pipe", "pipe", "inherit"] },
        );
        board.ended = new Promise((resolve) => board.process.once("close", resolve));
        board.answers = createInterface({ input: board.process.stdout })[Symbol.asyncIterator]();
        await board.answer("start");
        return board;
    }

    async command(line) {
        this.process.stdin.write(`${line}\n`);
        await this.answer(line);
    }

    async answer(line) {
        const { value, done } = await this.answers.next();
        if (done || value !== "ok") {
            this.process.stdin.end(); // or it would keep this process waiting
            throw new Error(`board: ${line}: ${value ?? "ended"}`);
        }
    }

    /** End all; throws when the service ended badly, e.g. with a sanitizer's finding. */
    async close() {
        this.process.stdin.end("quit\n");
        const status = await this.ended;
        if (status !== 0) {
            throw new Error(`the board ended with ${status}`);
        }
    }
}

/** A network between browser and board: passes bytes on, late on demand, or swallows them. */
export class Network {
    delay = 0; // ms by which the board's bytes come late
    gone = false; // nothing gets through and nothing is answered

    static async start() {
        const network = new Network();
        network.sockets = new Set();
        network.server = net.createServer((browser) => network.join(browser));
        await new Promise((resolve) => network.server.listen(0, "127.0.0.1", resolve));
        network.url = `http://127.0.0.1:${network.server.address().port}/index.html`;
        return network;
    }

    join(browser) {
        const board = net.connect(HTTP_PORT, "127.0.0.1");
        const lost = { yes: this.gone }; // what the network swallowed once, stays lost
        const pass = (from, to, late) => {
            this.sockets.add(from);
            const deliver = (action) => {
                lost.yes ||= this.gone;
                if (!lost.yes) {
                    action();
                }
            };
            const send = (action) =>
                late() > 0 ? setTimeout(deliver, late(), action) : deliver(action);
            from.on("data", (data) => send(() => to.write(data)));
            from.on("close", () => {
                this.sockets.delete(from);
                send(() => to.destroy());
            });
            from.on("error", () => {}); // "close" follows
        };
        pass(browser, board, () => 0);
        pass(board, browser, () => this.delay);
    }

    close() {
        this.server.close();
        for (const socket of this.sockets) {
            socket.destroy();
        }
    }
}

/** Chromium with a profile of its own that is removed with it. */
export async function startBrowser() {
    const profile = mkdtempSync(join(tmpdir(), "kestrel-browser."));
    const browser = await chromium.launch({
        executablePath: process.env.KESTREL_CHROMIUM ?? "/usr/bin/chromium",
        env: { ...process.env, HOME: profile, XDG_CONFIG_HOME: profile, XDG_CACHE_HOME: profile },
        args: [
            "--headless",
            "--no-sandbox",
            "--disable-gpu",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
        ],
    });
    browser.on("disconnected", () => rmSync(profile, { recursive: true, force: true }));
    return browser;
}
