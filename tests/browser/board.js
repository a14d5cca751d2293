// What the browsers' tests stand on: the board and a network that can fail.
import { spawn } from "node:child_process";
import net from "node:net";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

export const HTTP_PORT = 8329;
export const TOKEN = "0123456789abcdef0123456789abcdef"; // the station's, see station.py
export const CARD = "/tmp/run/mountd/mmcblk0p1/kestrel-server";

/** The service on the virtual camera, see board.py. */
export class Board {
    /** @param kind  "station" for the station in the service's place; see board.py */
    static async start(...kind) {
        const board = new Board();
        board.process = spawn(
            "python3",
            ["-B", fileURLToPath(new URL("board.py", import.meta.url)), ...kind],
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

/**
 * A network between browser and board: passes bytes on, late on demand, or swallows them, and counts
 * the streams that the board has open.
 */
export class Network {
    delay = 0; // ms by which the bytes of streams come late
    gone = false; // nothing gets through and nothing is answered
    held = null; // requests that begin so get no answer, e.g. "GET /camera"
    streams = 0; // open now
    mostStreams = 0; // open at once so far
    streamsBegun = 0;

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
        let isStream = false;
        let isHeld = false;
        browser.once("data", (request) => {
            isHeld = this.held !== null && request.toString().startsWith(this.held);
            isStream = request.toString().startsWith("GET /live");
            if (isStream) {
                this.streamsBegun++;
                this.streams++;
                this.mostStreams = Math.max(this.mostStreams, this.streams);
                let open = true;
                const end = () => {
                    this.streams -= Number(open);
                    open = false;
                };
                browser.once("end", end);
                browser.once("close", end);
            }
        });
        const pass = (from, to, late) => {
            this.sockets.add(from);
            const deliver = (action) => {
                lost.yes ||= this.gone;
                if (!lost.yes && !isHeld) {
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
        pass(board, browser, () => (isStream ? this.delay : 0));
    }

    close() {
        this.server.close();
        for (const socket of this.sockets) {
            socket.destroy();
        }
    }
}
