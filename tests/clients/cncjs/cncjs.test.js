// A G-code sender that nobody here wrote has to be content with the virtual controller's Grbl.
"use strict";

const assert = require("node:assert");
const childProcess = require("node:child_process");
const fs = require("node:fs");
const http = require("node:http");
const os = require("node:os");
const path = require("node:path");
const test = require("node:test");
const socketClient = require("socket.io-client");

const BUILD = process.env.KESTREL_BUILD;
const PORT = 8000;

/** A condition, looked at until it holds; a deadline only ends a failing run. */
async function until(what, condition) {
    const deadline = Date.now() + 60000;
    for (;;) {
        const value = await condition();
        if (value) {
            return value;
        }
        assert.ok(Date.now() < deadline, `never came: ${what}`);
        await new Promise((resolve) => setTimeout(resolve, 20));
    }
}

function post(url, body) {
    return new Promise((resolve, reject) => {
        const request = http.request(
            `http://127.0.0.1:${PORT}${url}`,
            { method: "POST", headers: { "Content-Type": "application/json" } },
            (response) => {
                let text = "";
                response.on("data", (data) => {
                    text += data;
                });
                response.on("end", () => resolve({ status: response.statusCode, text }));
            },
        );
        request.on("error", reject);
        request.end(JSON.stringify(body));
    });
}

/** The virtual controller, with homing and laser mode, and a quick arm. */
class Controller {
    constructor(folder) {
        this.node = path.join(folder, "ttyACM0");
        this.control = path.join(folder, "arm");
        this.journal = path.join(folder, "journal");
        const settings = ["22=1", "32=1", "24=500", "25=3000", "26=10"];
        for (const axis of [0, 1, 2]) {
            settings.push(`${110 + axis}=6000`, `${120 + axis}=500`);
        }
        this.process = childProcess.spawn(
            `${BUILD}/simulator/controller/kestrel-controller`,
            ["--language", "grbl", "--node", this.node, "--control", this.control,
                "--journal", this.journal, "--speed-up", "3", ...settings.flatMap((text) => ["--setting", text])],
            { stdio: ["ignore", "pipe", "inherit"] },
        );
    }

    ready() {
        return new Promise((resolve) => this.process.stdout.once("data", resolve));
    }

    ask(...words) {
        return childProcess.execFileSync(`${BUILD}/tools/kestrel-controller-ctl`,
            [this.control, ...words], { encoding: "utf8" }).trim();
    }

    field(name) {
        return Number(new RegExp(`(?:^| )${name}=([^ ]*)`).exec(this.ask("state"))[1]);
    }

    /** The texts of one kind in the journal. */
    texts(kind) {
        this.ask("state");
        return fs.readFileSync(this.journal, "latin1").split("\n")
            .map((line) => line.split(" "))
            .filter((words) => words[1] === kind)
            .map((words) => words.slice(2).join(" "));
    }
}

/** The sender, and what it says of the controller. */
class Sender {
    constructor(folder) {
        this.state = {};
        this.settings = {};
        this.workflow = "";
        this.process = childProcess.spawn(
            process.execPath,
            [path.join(__dirname, "node_modules/cncjs/bin/cncjs"), "--port", String(PORT),
                "--host", "127.0.0.1", "--config", path.join(folder, "cncrc"), "--controller", "Grbl"],
            { stdio: ["ignore", "ignore", "inherit"], env: { ...process.env, HOME: folder } },
        );
    }

    async connect(node) {
        const answer = await until("the sender's sign-in", () =>
            post("/api/signin", {}).catch(() => null));
        assert.strictEqual(200, answer.status, answer.text);
        const { token } = JSON.parse(answer.text);
        this.socket = socketClient(`http://127.0.0.1:${PORT}`, { query: `token=${token}` });
        this.socket.on("controller:state", (type, state) => {
            this.state = state;
        });
        this.socket.on("controller:settings", (type, settings) => {
            this.settings = settings;
        });
        this.socket.on("workflow:state", (state) => {
            this.workflow = state;
        });
        await new Promise((resolve) => this.socket.once("startup", resolve));
        this.node = node;
        await new Promise((resolve, reject) => {
            this.socket.emit("open", node, { controllerType: "Grbl", baudrate: 115200 },
                (error) => (error ? reject(new Error(String(error))) : resolve()));
        });
    }

    command(...words) {
        this.socket.emit("command", this.node, ...words);
    }

    async active(name) {
        return until(`the state ${name}`, () =>
            this.state.status && this.state.status.activeState === name);
    }

    async position(axis, value) {
        return until(`${axis} at ${value}`, () =>
            this.state.status && Math.abs(Number(this.state.status.mpos[axis]) - value) < 0.001);
    }

    close() {
        if (this.socket) {
            this.socket.close();
        }
        this.process.kill("SIGTERM");
    }
}

test("A sender of others' making connects, homes, jogs, runs a file, holds, resumes and resets",
    { timeout: 240000 }, async (context) => {
        const folder = fs.mkdtempSync(path.join(os.tmpdir(), "kestrel-cncjs."));
        const controller = new Controller(folder);
        await controller.ready();
        const sender = new Sender(folder);
        context.after(() => {
            sender.close();
            controller.process.kill("SIGTERM");
            fs.rmSync(folder, { recursive: true, force: true });
        });

        await sender.connect(controller.node);
        await sender.active("Alarm"); // locked at power-up
        await until("the settings", () =>
            sender.settings.settings && sender.settings.settings.$32 === "1");

        sender.command("homing");
        await sender.active("Idle");
        await sender.position("x", -1);
        assert.strictEqual(1, controller.field("homed"));

        sender.command("gcode", "$J=G91 X-20 F3000");
        await sender.position("x", -21);
        await sender.active("Idle");

        const lines = ["G21 G90", "M4 S500", "G1 F3000"];
        for (let i = 0; i < 100; ++i) {
            lines.push(`X${-30 - (i % 2) * 10} Y${-1 - i * 0.4}`);
        }
        lines.push("M5", "G0 X-5 Y-5");
        sender.command("gcode:load", "job.nc", `${lines.join("\n")}\n`, {});
        sender.command("gcode:start");
        await sender.active("Run");
        await until("the beam", () => controller.field("laser") === 1);

        // Its own pause holds the controller, too.
        sender.command("gcode:pause");
        await sender.active("Hold");
        await until("the dark", () => controller.field("laser") === 0);
        const held = controller.ask("state");
        assert.match(held, / moving=0 held=1 /);
        sender.command("gcode:resume");
        await until("the beam again", () => controller.field("laser") === 1);

        // Overrides go out as UTF-8: a byte too many each, which the controller drops.
        sender.command("feedOverride", 10);
        await until("the override", () =>
            sender.state.status.ov && Number(sender.state.status.ov[0]) === 110);

        await until("the end of the job", () => sender.workflow === "idle");
        await sender.position("y", -5);
        await sender.active("Idle");
        assert.strictEqual(0, controller.field("laser"));
        const job = controller.texts("rx").filter((line) => line.startsWith("X"));
        assert.strictEqual(100, job.length); // each once
        assert.strictEqual(0, controller.texts("overflow").length);
        assert.ok(!controller.texts("tx").some((text) => text.startsWith("error:")));

        // A reset in motion: dark at once, position lost, locked until told otherwise.
        sender.command("gcode", ["M3 S500", "G1 X-100 F600"]);
        await until("the beam of the last move", () => controller.field("laser") === 1);
        sender.command("reset");
        await sender.active("Alarm");
        assert.strictEqual(0, controller.field("laser"));
        assert.strictEqual(0, controller.field("homed"));
        sender.command("unlock");
        await sender.active("Idle");
    });
