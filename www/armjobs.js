// The files at the station, and the job that this page has started.

import { duration } from "./text.js";

const LEASE = "kestrel-lease"; // kept for this tab: a page that is loaded again goes on renewing
const RENEW_EVERY = 2000; // ms; a lease lasts ten seconds
const SHOWN = 5; // findings

const element = (id) => document.getElementById(id);

/** A name that the station takes, from a file's. */
function plainName(name) {
    return name
        .replace(/[^A-Za-z0-9._-]/g, "_")
        .replace(/^[.-]/, "_")
        .slice(0, 64);
}

/** What a check came to, in a sentence. */
function tellCheck({ passes, lines, seconds, burn_mm: burnt, refused, findings }) {
    if (passes) {
        return `Passes: ${lines} lines, ${duration(seconds * 1000)}, ${burnt.toFixed(0)} mm to burn.`;
    }
    const first = findings
        .filter((finding) => finding.refused)
        .slice(0, SHOWN)
        .map(({ line, reason }) => (line === 0 ? reason : `line ${line}: ${reason}`));
    const places = refused === 1 ? "one place" : `${refused} places`;
    return `Refused in ${places}: ${first.join("; ")}${refused > SHOWN ? "; …" : "."}`;
}

/** Lists, uploads, draws and starts jobs, and renews the lease of the one that it has started. */
export class ArmJobs {
    /** Whether the chosen one may be started. */
    passes = false;

    #station;
    #path;
    #renewed = 0;
    #renewing = false;
    #followed = ""; // name of the last one

    constructor(station, path) {
        this.#station = station;
        this.#path = path;
    }

    get chosen() {
        return element("arm-jobs").value;
    }

    /** The chosen one, in words. */
    get what() {
        const line = element("arm-line").value;
        return line > 1 ? `${this.chosen} from line ${line} on` : this.chosen;
    }

    get isOwner() {
        return sessionStorage.getItem(LEASE) !== null;
    }

    /** Fill the list again; what was chosen stays so while it is there. */
    async list(wanted) {
        const { jobs } = await this.#station.get("/jobs");
        const chosen = wanted ?? this.chosen;
        const options = jobs.map(({ name }) => new Option(name, name));
        element("arm-jobs").replaceChildren(new Option("None", ""), ...options);
        element("arm-jobs").value = jobs.some(({ name }) => name === chosen) ? chosen : "";
    }

    /** @returns what to say */
    async upload(file) {
        if (!file) {
            return ""; // the dialogue was left
        }
        const query = `name=${plainName(file.name)}&replace=true`;
        const job = await this.#station.upload(`/jobs?${query}`, file);
        await this.list(job.name);
        await this.#show(job);
        return `${job.name} is at the station.`;
    }

    async choose(name = this.chosen) {
        element("arm-jobs").value = name;
        if (name === "") {
            this.#clear();
        } else {
            await this.#show(await this.#station.get(`/jobs/${name}`));
        }
        return "";
    }

    /** Show the job that runs, where none was chosen: the page was loaded again, or another began it. */
    async follow(job) {
        if (job !== null && this.chosen === "" && job.name !== this.#followed) {
            this.#followed = job.name;
            await this.list(job.name);
            await this.choose();
        }
    }

    async remove() {
        const name = this.chosen;
        await this.#station.post(`/jobs/${name}/remove`);
        await this.list("");
        this.#clear();
        return `${name} is removed.`;
    }

    async start() {
        const name = this.chosen;
        const line = Number(element("arm-line").value);
        const { lease, state } = await this.#station.post(`/jobs/${name}/start`, {
            unattended: element("arm-unattended").checked,
            ...(line > 1 ? { line } : {}),
        });
        sessionStorage.setItem(LEASE, lease);
        this.#renewed = performance.now();
        return state;
    }

    /**
     * Renew the lease when it is time. Called for each event, too: a hidden page's timers come as
     * seldom as once a minute, bytes do not.
     */
    async renew() {
        const lease = sessionStorage.getItem(LEASE);
        if (lease === null || this.#renewing || performance.now() - this.#renewed < RENEW_EVERY) {
            return;
        }
        this.#renewing = true;
        try {
            await this.#station.post("/job/lease", { lease });
            this.#renewed = performance.now();
        } catch ({ name }) {
            if (name === "no-job" || name === "lease") {
                sessionStorage.removeItem(LEASE);
            }
        } finally {
            this.#renewing = false;
        }
    }

    async #show({ name, check }) {
        this.passes = check.passes;
        element("arm-check").textContent = tellCheck(check);
        element("arm-check").classList.toggle("failed", !check.passes);
        element("arm-line").value = "1";
        element("arm-line").max = check.lines;
        this.#path.show(await this.#station.text(`/jobs/${name}/picture`));
    }

    #clear() {
        this.passes = false;
        element("arm-check").textContent = "";
        this.#path.show(null);
    }
}
