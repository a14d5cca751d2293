// One viewer of one mount point of Janus's streaming plug-in, over Janus's HTTP interface.

const POLL_LIMIT = 40000; // ms; Janus answers a poll after 30 s
const ANSWER_LIMIT = 10000; // ms
const GATHERING = 1000; // ms for the browser's own addresses; Janus needs none of them

const name = () => crypto.randomUUID();

/**
 * Watches from construction until close(), or until something fails: then `onEnd` is called once, with
 * the reason. A WebSocket would not carry the password in every browser; fetch() does.
 */
export class JanusViewer {
    #video;
    #onEnd;
    #peer = null;
    #session = "";
    #handle = "";
    #abort = new AbortController();

    /** @param mount  the mount point's number */
    constructor(mount, video, onEnd) {
        this.#video = video;
        this.#onEnd = onEnd;
        this.#watch(mount).catch((error) => this.#end(error.message));
    }

    close() {
        this.#onEnd = () => {};
        this.#end("closed");
    }

    async #watch(mount) {
        const session = await this.#post("janus", { janus: "create" });
        this.#session = `janus/${session.data.id}`;
        const handle = await this.#post(this.#session, {
            janus: "attach",
            plugin: "janus.plugin.streaming",
        });
        this.#handle = `${this.#session}/${handle.data.id}`;
        await this.#message({ request: "watch", id: mount });
        for (;;) {
            await this.#event(await this.#ask(this.#session, {}, POLL_LIMIT));
        }
    }

    async #event(event) {
        const said = event.plugindata?.data;
        if (said?.error || event.janus === "timeout" || event.janus === "hangup") {
            throw new Error(said?.error ?? "Janus has ended the connection");
        }
        if (event.jsep) {
            await this.#answer(event.jsep);
        }
    }

    async #answer(offer) {
        const peer = new RTCPeerConnection();
        this.#peer = peer;
        peer.ontrack = (event) => {
            this.#video.srcObject = event.streams[0] ?? new MediaStream([event.track]);
        };
        peer.onconnectionstatechange = () => {
            if (["failed", "closed"].includes(peer.connectionState)) {
                this.#end("the connection to Janus has failed");
            }
        };
        await peer.setRemoteDescription(offer);
        await peer.setLocalDescription(await peer.createAnswer());
        await this.#gathered(peer);
        const { type, sdp } = peer.localDescription;
        await this.#message({ request: "start" }, { type, sdp });
    }

    #gathered(peer) {
        return new Promise((resolve) => {
            setTimeout(resolve, GATHERING);
            peer.onicegatheringstatechange = () => {
                if (peer.iceGatheringState === "complete") {
                    resolve();
                }
            };
        });
    }

    #message(body, jsep) {
        return this.#post(this.#handle, { janus: "message", body, ...(jsep && { jsep }) });
    }

    async #post(path, message) {
        const answer = await this.#ask(
            path,
            { method: "POST", body: JSON.stringify({ ...message, transaction: name() }) },
            ANSWER_LIMIT,
        );
        if (answer.janus === "error") {
            throw new Error(answer.error.reason);
        }
        return answer;
    }

    async #ask(path, options, limit) {
        const signal = AbortSignal.any
            ? AbortSignal.any([this.#abort.signal, AbortSignal.timeout(limit)])
            : this.#abort.signal;
        const response = await fetch(path, { cache: "no-store", signal, ...options });
        if (!response.ok) {
            throw new Error(`Janus is not there (${response.status})`);
        }
        return response.json();
    }

    #end(reason) {
        if (this.#abort.signal.aborted) {
            return;
        }
        this.#abort.abort();
        this.#peer?.close();
        this.#video.srcObject = null;
        if (this.#session) {
            const body = JSON.stringify({ janus: "destroy", transaction: name() });
            fetch(this.#session, { method: "POST", body, keepalive: true }).catch(() => {});
        }
        this.#onEnd(reason);
    }
}
