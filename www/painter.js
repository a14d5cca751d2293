// Draws JPEG pictures, always the newest one.

/** The canvas of the live picture. */
export class Painter {
    #canvas = document.getElementById("picture");
    #drawing = false;
    #next = null; // newest picture that came while one was being drawn

    /**
     * Decode and draw a picture; those that come meanwhile, but for the newest, are passed over.
     * @param picture   {jpeg}; damaged ones are left out
     * @param isWanted  asked when it is decoded, with the picture
     * @param onDrawn   called for each that was drawn
     */
    async draw(picture, isWanted, onDrawn) {
        this.#next = picture;
        if (this.#drawing) {
            return;
        }
        this.#drawing = true;
        while (this.#next) {
            const current = this.#next;
            this.#next = null;
            const blob = new Blob([current.jpeg], { type: "image/jpeg" });
            const bitmap = await createImageBitmap(blob).catch(() => null); // null: not a picture
            if (bitmap && isWanted(current)) {
                this.paint(bitmap);
                onDrawn(current);
            }
            bitmap?.close();
        }
        this.#drawing = false;
    }

    /** Draw a bitmap or a canvas as it is. */
    paint(source) {
        if (this.#canvas.width !== source.width || this.#canvas.height !== source.height) {
            this.#canvas.width = source.width;
            this.#canvas.height = source.height;
        }
        this.#canvas.getContext("2d", { alpha: false }).drawImage(source, 0, 0);
    }
}
