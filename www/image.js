// The live stream where a browser shows it in an image and nowhere else.

const POLL = 30; // ms; a picture comes every 40
const GAP = 1000; // ms without a look; what came meanwhile is of unknown age

/**
 * True when fetch() hands out the parts of a multipart answer. WebKit cancels it, but leaves its
 * connection to the board open for good: try it on an answer of our own.
 */
export async function canFetchMultipart() {
    const answer = URL.createObjectURL(
        new Blob(["."], { type: "multipart/x-mixed-replace;boundary=probe" }),
    );
    try {
        await (await fetch(answer)).text();
        return true;
    } catch {
        return false;
    } finally {
        URL.revokeObjectURL(answer);
    }
}

/**
 * One stream in an image. The image shows neither that a picture came nor when it was taken: what
 * can be seen is that its pixels have changed.
 *
 * WebKit keeps reading a stream whose image is gone, so there is no way to close one. The owner
 * keeps this object, stops watching while nothing is to be shown, and makes another one only when
 * this one has ended.
 */
export class ImageStream {
    /** The board closed the connection, or did not take it. */
    ended = false;

    #image = new Image();
    #scratch = document.createElement("canvas");
    #begun = false;
    #last = null; // pixels of the last look, null before the first
    #lookedAt = 0;

    /** @param number  of this stream: an address used before would give its last picture */
    constructor(number) {
        this.#image.addEventListener("error", () => (this.ended = true));
        this.#image.src = `live?stream=0&number=${number}`;
    }

    /**
     * Look every 30 ms until the stream ends or `until()` is true.
     * @param onPicture  gets the image with its size and whether its pixels are new: those of the
     *                   first look may be old
     */
    async watch(until, onPicture) {
        this.#last = null;
        while (!this.ended && !until()) {
            this.#look(onPicture);
            await new Promise((resolve) => setTimeout(resolve, POLL));
        }
    }

    #look(onPicture) {
        const image = this.#image;
        const { naturalWidth: width, naturalHeight: height } = image;
        if (width === 0) {
            this.ended ||= this.#begun; // an image without its picture: the connection is closed
            return;
        }
        this.#begun = true;
        const now = performance.now();
        const pixels = this.#pixels(width, height);
        if (pixels[0] === 0) {
            return; // the browser has let go of the pixels of an image that stands still
        }
        const before = now - this.#lookedAt <= GAP ? this.#last : null;
        this.#last = pixels;
        this.#lookedAt = now;
        const changed =
            before !== null &&
            (before.length !== pixels.length || pixels.some((pixel, i) => pixel !== before[i]));
        if (changed || before === null) {
            onPicture(this.#scratch, changed);
        }
    }

    #pixels(width, height) {
        if (this.#scratch.width !== width || this.#scratch.height !== height) {
            this.#scratch.width = width;
            this.#scratch.height = height;
        }
        const context = this.#scratch.getContext("2d", { willReadFrequently: true });
        context.clearRect(0, 0, width, height);
        context.drawImage(this.#image, 0, 0);
        return new Uint32Array(context.getImageData(0, 0, width, height).data.buffer);
    }
}
