// Times as the page writes them.

const two = (number) => String(number).padStart(2, "0");

/** A moment (ms since 1970) as local time of day, with the date when it is not today. */
export function clockTime(moment) {
    const at = new Date(moment);
    const time = `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
    if (at.toDateString() === new Date().toDateString()) {
        return time;
    }
    return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ${time}`;
}

/** A span (ms): "0.04 s", "3.2 s", "45 s", "3 min 12 s", "2 h 5 min". */
export function duration(span) {
    const seconds = Math.max(0, span) / 1000;
    if (seconds < 1) {
        return `${seconds.toFixed(2)} s`;
    }
    if (seconds < 10) {
        return `${seconds.toFixed(1)} s`;
    }
    const whole = Math.floor(seconds);
    if (whole < 60) {
        return `${whole} s`;
    }
    const minutes = Math.floor(whole / 60);
    return minutes < 60
        ? `${minutes} min ${whole % 60} s`
        : `${Math.floor(minutes / 60)} h ${minutes % 60} min`;
}
