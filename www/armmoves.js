// What moves the arm outside a job.

const element = (id) => document.getElementById(id);
const number = (id) => Number(element(id).value);

/** Each answers the station's new state, or what to say. */
export class ArmMoves {
    #station;

    constructor(station) {
        this.#station = station;
    }

    home() {
        return this.#station.post("/home");
    }

    /** To the place in the fields; an axis without a number stays. */
    move() {
        const axes = ["x", "y", "z"].filter((axis) => element(`arm-${axis}`).value !== "");
        const place = axes.map((axis) => [axis, number(`arm-${axis}`)]);
        return this.#station.post("/move", { feed: number("arm-feed"), ...Object.fromEntries(place) });
    }

    /** @param way  axis and sign, e.g. "x+" */
    jog([axis, sign]) {
        const step = number("arm-step") * (sign === "-" ? -1 : 1);
        return this.#station.post("/jog", { feed: number("arm-feed"), [axis]: step });
    }

    async measure() {
        const { result, spot, height } = await this.#station.post("/measure");
        this.#show(await this.#station.blob(`/measure/pictures/${spot ? "height" : "spot"}`));
        if (result === "no-spot") {
            return "No spot was found; nothing was moved.";
        }
        const at = `Spot at ${spot.x.toFixed(2)}, ${spot.y.toFixed(2)} mm.`;
        return result === "no-height"
            ? `${at} No height was found; the arm stands there, not in focus.`
            : `${at} The homed laser is ${height.toFixed(2)} mm over its focus. Focused.`;
    }

    /** The picture that a measurement was made on. */
    #show(picture) {
        URL.revokeObjectURL(element("arm-seen").src);
        element("arm-seen").src = URL.createObjectURL(picture);
        element("arm-seen").hidden = false;
    }
}
