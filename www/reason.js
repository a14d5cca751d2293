// Why no picture is live, as far as is known.

const UNPLUGGED = "The board answers, but its camera sends no pictures. Is it plugged in?";

/**
 * @param isBusy       a measurement may hold the board's answers back
 * @param isConnected  else the next try is in `retryIn` seconds
 * @param showsImage   the stream is seen in an image only, see ImageStream
 * @param answered     the board has answered this connection; an image: it has a picture
 * @param hadPictures  this connection brought pictures; else another one is tried in `nextIn` seconds
 * @param isAlive      image only: what the last sign of life showed, null when none was asked for
 */
export function reasonOf(known) {
    if (known.isBusy) {
        return "A measurement is not answered yet. While one runs, the board answers nothing else.";
    }
    if (!known.isConnected) {
        return `The board does not answer. Next try in ${known.retryIn} s.`;
    }
    if (known.showsImage) {
        return imageReason(known);
    }
    if (!known.answered) {
        return "Waiting for the board to answer.";
    }
    return known.hadPictures
        ? `The camera, the board or the network has stopped. In ${known.nextIn} s another connection will show which.`
        : UNPLUGGED;
}

function imageReason({ answered, isAlive }) {
    if (isAlive === false) {
        return "The board does not answer.";
    }
    if (isAlive === null) {
        return answered
            ? "The camera, the board or the network has stopped, or nothing moves in the picture."
            : "Waiting for the first picture.";
    }
    return answered
        ? "The board answers. Its camera sends no pictures, or nothing moves in them: this browser cannot tell which."
        : UNPLUGGED;
}
