// The snapshots of this visit.

import { clockTime } from "./text.js";

const KEPT = 30; // pictures of 20 to 60 KB

/** Shows the newest snapshot and lists all of this visit, the newest first, up to thirty. */
export class Snapshots {
    #list = document.getElementById("shots");

    /** @param moment  ms since 1970 */
    add({ jpeg, filename }, moment) {
        const link = document.createElement("a");
        link.href = URL.createObjectURL(jpeg);
        link.download = filename;
        link.textContent = filename;
        link.setAttribute("aria-label", `Download ${filename}`);
        const about = document.createElement("span");
        about.textContent = `${Math.ceil(jpeg.size / 1024)} KB, ${clockTime(moment)}`;
        const entry = document.createElement("li");
        entry.append(link, about);
        this.#list.prepend(entry);
        while (this.#list.children.length > KEPT) {
            URL.revokeObjectURL(this.#list.lastChild.querySelector("a").href);
            this.#list.lastChild.remove();
        }
        const image = document.getElementById("shot-picture");
        image.src = link.href;
        image.alt = `Snapshot ${filename}`;
        document.getElementById("shot").hidden = false;
    }
}
