// What the arm's panel and its bar say.

import { clockTime, duration } from "./text.js";

const LEVELS = { dark: "Dark", motion: "Motion", job: "Job" };
const ACTIVITIES = { home: "Homing", move: "Moving", jog: "Jogging", measure: "Measuring" };
const HOLDS = {
    operator: "Paused.",
    camera: "Held: no new picture came. Resume it when the picture moves again.",
    controller: "Held by the controller itself. Release it there.",
};
const RESULTS = {
    done: "done",
    stopped: "stopped",
    tripped: "ended by the guard",
    interrupted: "interrupted",
};
const NOTED = 30; // entries of the journal

const element = (id) => document.getElementById(id);

/** Write what has changed, and nothing else: a screen reader would read the rest again. */
export function set(id, text) {
    if (element(id).textContent !== text) {
        element(id).textContent = text;
    }
}

function known(value, yes, no) {
    return value === true ? yes : value === false ? no : "Not known";
}

/** What was seen before a job says nothing about the beam in it. */
function beamOf({ level, paused, beam_seen_off: isOff }) {
    if (level === "job") {
        return paused ? "Off, paused" : "May be on";
    }
    return known(isOff, "Seen off", "Not seen off");
}

/** "Line 12 of 300, 4 %, 2 min 3 s left" */
function progressOf(job) {
    const left = job.seconds_left === null ? "" : `, ${duration(job.seconds_left * 1000)} left`;
    return `Line ${job.line} of ${job.lines}, ${Math.floor(job.percent)} %${left}`;
}

function activityOf(state) {
    const { job, activity, guard } = state;
    if (job) {
        const left = job.seconds_left === null ? "" : `, ${duration(job.seconds_left * 1000)} left`;
        return job.status === "held" ? "Job held" : `${Math.floor(job.percent)} %${left}`;
    }
    if (guard.firmware !== null) {
        return "Firmware";
    }
    return activity === null ? "Nothing" : ACTIVITIES[activity];
}

function endOf({ name, result, reason, line, lines }) {
    return `${name}: ${RESULTS[result]} at line ${line} of ${lines}${reason ? `, ${reason}` : ""}.`;
}

/** How to go on with a job that has not come to its end. */
function restartOf({ line, unsure_from: unsure, reason }) {
    if (!line) {
        return reason === null ? "" : `It cannot go on there: ${reason}`;
    }
    const doubt =
        unsure === null || unsure >= line
            ? ""
            : ` Lines ${unsure} to ${line - 1} may not have been carried out: look at the workpiece.`;
    return `It can go on at line ${line}.${doubt}`;
}

/** Shows the station's state. */
export class ArmView {
    #missing = null; // as it was written

    /**
     * @param state  the station's, or null when it does not answer
     * @param owns   whether this page keeps the job's lease
     */
    show(state, owns) {
        const guard = state?.guard ?? {};
        const level = guard.level ?? "unknown";
        element("arm-bar").dataset.level = level;
        set("arm-level", LEVELS[level] ?? "Not known");
        set("arm-beam", beamOf(guard));
        set("arm-homed", known(guard.homed, "Homed", "Not homed"));
        set("arm-activity", state ? activityOf(state) : "Station silent");
        element("arm-motion").hidden = level === "motion" || level === "job";
        element("arm-dark").hidden = level !== "motion";
        this.#showJob(state?.job ?? null, state?.last_job ?? null, owns);
        this.#showMissing(
            state === null
                ? ["The station does not answer. The guard ends a job whose lease runs out."]
                : state.missing.map(({ action }) => action),
        );
        element("arm-reset-held").hidden = !guard.reset_held;
        element("arm-alarm").hidden = !guard.alarm;
    }

    #showJob(job, last, owns) {
        element("arm-progress").hidden = job === null;
        element("arm-start").hidden = job !== null || !element("arm-question").hidden;
        if (job !== null) {
            element("arm-percent").value = job.percent;
            set("arm-name", job.name);
            set("arm-lines", progressOf(job));
            set("arm-hold", HOLDS[job.held_by] ?? "");
            set(
                "arm-owner",
                owns
                    ? "This page keeps the job going: closed, it ends within ten seconds, beam off."
                    : "Started elsewhere, and kept going there.",
            );
        }
        set("arm-last", job === null && last !== null ? `${endOf(last)} ${clockTime(Date.parse(last.ended))}` : "");
        const restart = job === null ? last?.restart : null;
        element("arm-again").hidden = !restart?.line;
        set("arm-restart", restart ? restartOf(restart) : "");
    }

    #showMissing(actions) {
        const text = actions.join("\n");
        if (text === this.#missing) {
            return;
        }
        this.#missing = text;
        element("arm-missing").hidden = actions.length === 0;
        element("arm-missing").replaceChildren(
            ...actions.map((action) => {
                const item = document.createElement("li");
                item.textContent = action;
                return item;
            }),
        );
    }

    /** Add an entry of the journal, the newest on top. */
    note({ time, source, text }) {
        const item = document.createElement("li");
        const moment = document.createElement("span");
        moment.textContent = clockTime(Date.parse(time));
        item.append(moment, ` ${source}: ${text}`);
        element("arm-journal").prepend(item);
        while (element("arm-journal").children.length > NOTED) {
            element("arm-journal").lastChild.remove();
        }
    }

    /** What came of the last thing that was asked for. */
    say(text, failed = false) {
        set("arm-status", text);
        element("arm-status").classList.toggle("failed", failed);
    }
}
