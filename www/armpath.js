// A job's path: by itself, and over the live picture.

const KEPT = "kestrel-picture-width"; // mm of the workpiece that the picture shows
const SVG = "http://www.w3.org/2000/svg";

function create(name, attributes) {
    const element = document.createElementNS(SVG, name);
    Object.entries(attributes).forEach(([key, value]) => element.setAttribute(key, value));
    return element;
}

/**
 * Draws the path of the chosen job in the panel and, once somebody has told how wide the picture is,
 * over the live picture: its centre is the arm's X0 Y0, and the arm's axes point against the
 * picture's. The lens is taken to be without distortion.
 */
export class ArmPath {
    #overlay = document.getElementById("arm-path");
    #drawing = document.getElementById("arm-drawing");
    #picture = document.getElementById("picture");
    #paths = []; // {class, d} in the arm's millimetres
    #drawnFor = ""; // size of the picture

    /** In millimetres; NaN while nobody has told it. */
    get width() {
        return parseFloat(localStorage.getItem(KEPT));
    }

    set width(width) {
        if (width > 0) {
            localStorage.setItem(KEPT, String(width));
        } else {
            localStorage.removeItem(KEPT);
        }
        this.#overlayPath();
    }

    /** @param text  the station's SVG, or null for none */
    show(text) {
        const plain = (text ?? "<svg/>").replace(/<style>[^]*?<\/style>/, ""); // the page has its own
        const root = new DOMParser().parseFromString(plain, "image/svg+xml").documentElement;
        this.#paths = [...root.querySelectorAll("path")].map((path) => ({
            class: path.getAttribute("class"),
            d: path.getAttribute("d"),
        }));
        this.#drawing.toggleAttribute("hidden", this.#paths.length === 0);
        const box = root.querySelector("rect");
        const group = this.#group("scale(1 -1)");
        this.#drawing.replaceChildren(group);
        const { x, y, width, height } = group.getBBox();
        const edge = Math.max(width, height) * 0.1;
        const seen = [x - edge, -(y + height) - edge, width + 2 * edge, height + 2 * edge];
        this.#drawing.setAttribute("viewBox", seen.join(" "));
        if (box) {
            const at = ["x", "y", "width", "height"].map((key) => [key, box.getAttribute(key)]);
            group.prepend(create("rect", Object.fromEntries(at)));
        }
        this.#overlayPath();
    }

    /** Follow the picture, whose size the camera may change. */
    fit() {
        if (this.#drawnFor !== `${this.#picture.width} ${this.#picture.height}`) {
            this.#overlayPath();
        }
    }

    #overlayPath() {
        const { width: columns, height: rows } = this.#picture;
        const isShown = this.#paths.length > 0 && this.width > 0;
        this.#drawnFor = `${columns} ${rows}`;
        this.#overlay.toggleAttribute("hidden", !isShown);
        if (isShown) {
            const height = (this.width * rows) / columns;
            const box = [-this.width / 2, -height / 2, this.width, height];
            this.#overlay.setAttribute("viewBox", box.join(" "));
            this.#overlay.replaceChildren(this.#group("scale(-1)"));
        }
    }

    #group(transform) {
        const group = create("g", { transform });
        group.append(...this.#paths.map((path) => create("path", path)));
        return group;
    }
}
