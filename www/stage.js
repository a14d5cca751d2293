// Around the live picture: full screen and crosshair.

/** The buttons for full screen and crosshair. */
export class Stage {
    #stage = document.getElementById("stage");
    #fullScreen = document.getElementById("full-screen");
    #crosshair = document.getElementById("crosshair");

    start() {
        // An iPhone gives the full screen to videos only.
        this.#fullScreen.hidden = !document.fullscreenEnabled;
        this.#fullScreen.addEventListener("click", () => this.#stage.requestFullscreen());
        // Without a keyboard there is no other way back.
        this.#stage.addEventListener("click", () => {
            if (document.fullscreenElement) {
                document.exitFullscreen();
            }
        });
        this.#crosshair.addEventListener("click", () => {
            const on = this.#crosshair.getAttribute("aria-pressed") !== "true";
            this.#crosshair.setAttribute("aria-pressed", String(on));
            document.getElementById("cross").toggleAttribute("hidden", !on);
        });
    }
}
