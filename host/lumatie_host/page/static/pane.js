// One picture on the stage. The one before stays until the next is decoded.

import {originalOf, previewOf} from "./api.js";
import {attribute, h} from "./dom.js";
import {nameOf} from "./shots.js";

/** @typedef {import("./shots.js").Shot} Shot */
/** @typedef {import("./types.js").Picture} Picture */
/** @typedef {import("./view.js").View} View */

const WIDTHS = [256, 512, 1024, 2048];
const SOFT = 1.15; // a preview that is enlarged by more is replaced by the original
const TRIES = 3; // a server that is busy answers later
const AGAIN = 700; // milliseconds between them
const REST = 400; // milliseconds before the original is fetched for a picture that fits

/**
 * A picture that is wanted.
 * @typedef {object} Wanted
 * @property {Shot} shot
 * @property {Picture} picture
 * @property {HTMLImageElement} image
 */

/** Tells "shown", "missing" (detail: n of the picture) and "placed". */
export class Pane extends EventTarget {
    element = h("div", {class: "pane", role: "img", "aria-label": "No picture"});
    size = {width: 3, height: 2};
    /** @type {Shot | null} */
    shot = null;
    /** @type {Picture | null} */
    picture = null; // that is painted
    url = "";
    /** @type {Wanted[]} */
    #wanted = [];
    #sheet = h("div", {class: "sheet"});
    /** @type {HTMLImageElement | null} */
    #preview = null;
    /** @type {HTMLImageElement | null} */
    #original = null;
    #marks = h("canvas", {class: "marks"});
    /** @type {HTMLElement | null} */
    #overlay = null;
    /** @type {ReturnType<typeof setTimeout> | undefined} */
    #timer;

    /** @param {View} view */
    constructor(view) {
        super();
        this.view = view;
        this.room = {left: 0, top: 0, width: 1, height: 1};
        this.element.append(this.#sheet);
        view.addEventListener("change", () => this.layout());
    }

    /**
     * Shows a shot as soon as its preview is decoded. Of several that come meanwhile the first and
     * the newest are finished.
     * @param {Shot} shot
     */
    async show(shot) {
        const picture = shot.shown;
        this.shot = shot;
        const place = this.#wanted.findIndex((wanted) => isSame(wanted.picture, picture));
        if (place >= 0) {
            this.#cancel(place + 1);
            return;
        }
        if (isSame(this.picture, picture)) {
            this.#cancel(0);
            return;
        }
        this.#cancel(1);
        const image = new Image();
        image.decoding = "sync";
        image.alt = "";
        const wanted = {shot, picture, image};
        this.#wanted.push(wanted);
        let isDecoded = false;
        for (let tries = 0; tries < TRIES && !isDecoded && this.#wanted.includes(wanted); tries += 1) {
            await pause(tries * AGAIN);
            isDecoded = await decode(image, previewOf(picture, this.#width()));
        }
        if (isDecoded) {
            await frame();
        }
        const at = this.#wanted.indexOf(wanted);
        if (at < 0) {
            return;
        }
        this.#wanted.splice(0, at + 1).forEach(({image: other}) => other !== image && cancel(other));
        if (isDecoded) {
            this.#swap(shot, picture, image);
        } else {
            this.dispatchEvent(new CustomEvent("missing", {detail: picture.n}));
        }
    }

    /** The server is there again: what did not come from it is asked for once more. */
    retry() {
        this.#cancel(0);
        if (this.shot) {
            void this.show(this.shot);
            this.layout();
        }
    }

    clear() {
        this.#cancel(0);
        this.shot = this.picture = null;
        this.#preview = this.#original = null;
        this.#sheet.replaceChildren();
        attribute(this.element, "aria-label", "No picture");
    }

    /** Measures the pane; call it when its size may be another. */
    measure() {
        const {left, top, width, height} = this.element.getBoundingClientRect();
        this.room = {left, top, width: width || 1, height: height || 1};
        this.layout();
    }

    layout() {
        const {scale, left, top} = this.view.place(this.room, this.size);
        const style = this.#sheet.style;
        style.width = `${this.size.width}px`;
        style.height = `${this.size.height}px`;
        style.transform = `translate(${left}px, ${top}px) scale(${scale})`;
        clearTimeout(this.#timer);
        if (!this.#needsOriginal(scale)) {
            this.#original?.remove();
        } else if (!this.#original?.isConnected) {
            this.#timer = setTimeout(() => void this.#sharpen(), this.view.zoom ? 0 : REST);
        }
        this.dispatchEvent(new Event("placed"));
    }

    /** @param {ImageBitmap | null} marks of the picture that is shown; null removes them */
    mark(marks) {
        this.#marks.remove();
        if (marks) {
            this.#marks.width = marks.width;
            this.#marks.height = marks.height;
            this.#marks.getContext("bitmaprenderer")?.transferFromImageBitmap(marks);
            this.#sheet.append(this.#marks);
        }
    }

    /** @param {HTMLElement | null} overlay lies over the picture, and moves with it */
    cover(overlay) {
        this.#overlay?.remove();
        this.#overlay = overlay;
        if (overlay) {
            this.#sheet.append(overlay);
        }
    }

    /** Number of the picture that is painted; 0: there is none. */
    get n() {
        return this.picture?.n ?? 0;
    }

    /** How many pixels of the screen one of the picture takes. */
    get scale() {
        return this.view.place(this.room, this.size).scale * devicePixelRatio;
    }

    /** @returns {boolean} whether what is shown is sharp at 100 % */
    get canBeSharp() {
        return this.shot?.shown.format === "JPEG";
    }

    #width() {
        const side = Math.max(this.room.width, this.room.height) * devicePixelRatio;
        return WIDTHS.find((width) => width * SOFT >= side) ?? 2048;
    }

    /** @param {number} keep how many of the pictures on their way may still come */
    #cancel(keep) {
        this.#wanted.splice(keep).forEach(({image}) => cancel(image));
    }

    /**
     * @param {Shot} shot
     * @param {Picture} picture
     * @param {HTMLImageElement} image
     */
    #swap(shot, picture, image) {
        const sheet = h("div", {class: "sheet"}, image);
        if (this.#overlay) {
            sheet.append(this.#overlay);
        }
        this.#marks.remove();
        this.#sheet.replaceWith(sheet);
        this.#sheet = sheet;
        this.#preview = image;
        if (this.#original) {
            cancel(this.#original);
        }
        this.#original = null;
        attribute(this.element, "data-sharp", null);
        this.picture = picture;
        this.url = image.src;
        this.size = sizeOf(shot, image);
        const name = [nameOf(shot), ...Object.values(shot.shown.settings)].join(", ");
        attribute(this.element, "aria-label", name);
        this.layout();
        this.dispatchEvent(new CustomEvent("shown", {detail: picture.n}));
    }

    /** @param {number} scale CSS pixels for one of the picture */
    #needsOriginal(scale) {
        const drawn = this.size.width * scale * devicePixelRatio;
        const preview = this.#preview?.naturalWidth ?? Infinity;
        const isSmaller = preview < this.size.width;
        return isSmaller && this.canBeSharp && (this.view.zoom > 0 || drawn > preview * SOFT);
    }

    /** The original over the preview, as soon as it is decoded. */
    async #sharpen() {
        const sheet = this.#sheet;
        const {picture} = this;
        if (!picture) {
            return;
        }
        const image = this.#original ?? new Image();
        if (!this.#original) {
            this.#original = image;
            image.alt = "";
            image.className = "original";
        }
        attribute(this.element, "data-loading", true);
        const isDecoded = await decode(image, originalOf(picture));
        await frame();
        attribute(this.element, "data-loading", false);
        const isWanted = sheet === this.#sheet && this.#needsOriginal(this.scale / devicePixelRatio);
        if (isDecoded && isWanted) {
            this.#preview?.after(image);
            attribute(this.element, "data-sharp", this.n);
        }
    }
}

/**
 * Numbers begin anew in each folder.
 * @param {Picture | null} one
 * @param {Picture} other
 */
function isSame(one, other) {
    return one?.n === other.n && one.sha256 === other.sha256;
}

/**
 * @param {HTMLImageElement} image
 * @param {string} url
 * @returns {Promise<boolean>} whether there is a picture, decoded
 */
async function decode(image, url) {
    if (image.getAttribute("src") !== url || !image.naturalWidth) {
        image.src = url;
    }
    try {
        await image.decode();
        return true;
    } catch {
        return false;
    }
}

/** @param {number} milliseconds */
function pause(milliseconds) {
    return milliseconds ? new Promise((resolve) => setTimeout(resolve, milliseconds)) : null;
}

/** @param {HTMLImageElement} image */
function cancel(image) {
    image.removeAttribute("src");
}

/**
 * The picture's size; a camera that was held upright tells it lying.
 * @param {Shot} shot
 * @param {HTMLImageElement} image
 */
function sizeOf({shown}, image) {
    const {naturalWidth, naturalHeight} = image;
    const {width = naturalWidth, height = naturalHeight} = shown;
    const isTurned = width > height !== naturalWidth > naturalHeight && width !== height;
    return isTurned ? {width: height, height: width} : {width, height};
}

/** The next frame; a page that is hidden has none. */
function frame() {
    return new Promise((resolve) => {
        if (document.hidden) {
            resolve(null);
        } else {
            requestAnimationFrame(resolve);
            setTimeout(resolve, 200); // hidden meanwhile
        }
    });
}
