// <lumatie-picture>: the stage with the newest or the chosen picture, and the one beside it.
// `data-shown` is the number of the picture that is painted.

import * as actions from "../actions.js";
import {attribute, h, show, text} from "../dom.js";
import {listen} from "../gestures.js";
import {Pane} from "../pane.js";
import * as shots from "../shots.js";
import {get, on, patch} from "../store.js";
import {View} from "../view.js";

/** @typedef {import("../shots.js").Shot} Shot */

const PATIENCE = 2500; // milliseconds for the JPEG that comes behind its RAW

export class LumatiePicture extends HTMLElement {
    view = new View();
    main = new Pane(this.view);
    #pinned = new Pane(this.view);
    #news = h("p", {class: "unseen", "aria-live": "polite"});
    #missing = h("p", {class: "missing", hidden: true});
    /** @type {Worker | null} */
    #worker = null;
    #hasWords = false;

    connectedCallback() {
        this.append(this.#pinned.element, this.main.element, this.#missing, this.#news);
        new ResizeObserver(() => this.#measure()).observe(this);
        listen(this, this.view, (target) => this.#paneOf(target), actions.chooseBeside);
        this.#listen();
        this.view.addEventListener("change", () => attribute(this, "data-zoomed", this.view.zoom > 0));
    }

    /** 100 % at the place that was looked at last, or the whole picture. */
    zoom() {
        this.view.zoomTo(this.view.zoom ? 0 : 1, this.main.room, this.main.size);
    }

    /**
     * @param {number} x parts of the pane
     * @param {number} y
     */
    pan(x, y) {
        const {room, size} = this.main;
        this.view.pan(-x * room.width, -y * room.height, room, size);
    }

    #listen() {
        this.main.addEventListener("shown", () => this.#shown());
        this.#pinned.addEventListener("shown", () => this.#count(this.#pinned));
        this.main.addEventListener("missing", () => this.#lacks(this.main.shot));
        on(["line"], ({line}) => {
            if (line === "on") {
                this.#counter();
                this.main.retry();
                this.#pinned.retry();
            }
        });
        on(["chosen", "line"], ({chosen, line}) => {
            if (!chosen && line !== "entering" && !this.#hasWords) {
                this.#hasWords = true;
                void import("./first.js").then(({firstUse}) => this.append(firstUse()));
            }
        });
        on(["chosen", "pinned", "compare"], () => this.#choose());
        on(["clipping"], () => [this.main, this.#pinned].forEach((pane) => this.#count(pane)));
        shots.news.addEventListener("changed", (event) => {
            const {key} = /** @type {CustomEvent<Shot>} */ (event).detail;
            if (key === get().chosen || key === get().pinned) {
                this.#choose();
            }
        });
        addEventListener("lumatie-preview", () => !this.#missing.hidden && this.#choose());
    }

    #choose() {
        const {chosen, compare, pinned} = get();
        const shot = shots.find(chosen);
        const other = compare ? shots.find(pinned) : null;
        if (compare !== this.classList.contains("two")) {
            this.classList.toggle("two", compare);
            this.#measure();
        }
        if (shot?.shown.n === this.main.n && this.classList.contains("lacking")) {
            this.#miss("");
            this.#count(this.main);
        }
        if (shot) {
            void this.main.show(shot);
        } else {
            this.main.clear();
            attribute(this, "data-shown", null);
        }
        if (other) {
            void this.#pinned.show(other);
        } else {
            this.#pinned.clear();
        }
    }

    #shown() {
        const {n, shot} = this.main;
        this.#miss("");
        attribute(this, "data-shown", n);
        performance.mark(`shown-${n}`);
        this.dispatchEvent(new CustomEvent("shown", {bubbles: true, detail: {n}}));
        this.#count(this.main);
        if (shot && get().follow) {
            text(this.#news, `New picture: ${shots.nameOf(shot)}`);
        }
        document.title = shot ? `${shots.nameOf(shot)} \u2013 Lumatie` : "Lumatie";
    }

    /** @param {Shot | null} shot without a preview, so far */
    #lacks(shot) {
        setTimeout(() => {
            if (shot && shot.key === get().chosen && this.main.n !== shot.shown.n) {
                const advice =
                    shot.shown.format === "RAW"
                        ? "Have the camera make a JPEG beside each RAW, or install the extra [raw] on the computer."
                        : "Look at the file on the computer.";
                this.#miss(`${shots.nameOf(shot)} is in the folder, but cannot be shown here. ${advice}`);
                patch({histogram: null, clipped: null});
            }
        }, PATIENCE);
    }

    /** @param {string} words why the chosen picture is not there; no words: it is */
    #miss(words) {
        text(this.#missing, words);
        show(this.#missing, words !== "");
        this.classList.toggle("lacking", words !== "");
    }

    /** @param {EventTarget | null} target */
    #paneOf(target) {
        return this.#pinned.element.contains(/** @type {Node | null} */ (target)) ? this.#pinned : this.main;
    }

    #measure() {
        this.main.measure();
        this.#pinned.measure();
    }

    /** @param {Pane} pane */
    #count(pane) {
        pane.mark(null);
        if (pane.n && (pane === this.main || get().clipping)) {
            const job = {id: pane.n, isMain: pane === this.main, url: pane.url, marks: get().clipping};
            this.#counter().postMessage(job);
        }
    }

    /** The worker; it starts with the page, so that the first histogram does not wait for it. */
    #counter() {
        if (!this.#worker) {
            this.#worker = new Worker("/static/histogram-worker.js");
            this.#worker.onmessage = ({data}) => this.#counted(data);
        }
        return this.#worker;
    }

    /** @param {{id: number, isMain: boolean, counts: Uint32Array | null, clipped: [number, number], marks: ImageBitmap | null}} counted */
    #counted({id, isMain, counts, clipped, marks}) {
        const pane = isMain ? this.main : this.#pinned;
        if (id !== pane.n) {
            return;
        }
        if (isMain) {
            patch({histogram: counts, clipped: counts && clipped});
            performance.mark(`histogram-${id}`);
        }
        if (marks && get().clipping) {
            pane.mark(marks);
        }
    }
}

customElements.define("lumatie-picture", LumatiePicture);
