// <lumatie-strip>: all shots, oldest first. New ones come at the end, so nothing that is seen moves;
// what is out of sight costs no layout (content-visibility).

import {choose} from "../actions.js";
import {previewOf} from "../api.js";
import {attribute, h, text} from "../dom.js";
import * as shots from "../shots.js";
import {get, on} from "../store.js";

/** @typedef {import("../shots.js").Shot} Shot */

const HANDS_OFF = 3000; // milliseconds after a person has scrolled
const TRIES = 3;
const AGAIN = 1500; // milliseconds

class LumatieStrip extends HTMLElement {
    #list = h("div", {role: "listbox", "aria-label": "Film strip", "aria-orientation": "horizontal", tabindex: 0});
    /** @type {Map<string, HTMLElement>} */
    #items = new Map();
    /** @type {Shot[]} */
    #older = [];
    #scrolled = -HANDS_OFF;

    connectedCallback() {
        this.append(this.#list);
        this.#list.addEventListener("click", (event) => {
            const item = /** @type {Element} */ (event.target).closest("[role=option]");
            if (item instanceof HTMLElement) {
                choose(item.dataset.key ?? "");
            }
        });
        for (const type of ["wheel", "touchmove", "pointerdown"]) {
            this.#list.addEventListener(type, () => (this.#scrolled = performance.now()), {passive: true});
        }
        const {news} = shots;
        news.addEventListener("added", (event) => this.#add(shotOf(event)));
        news.addEventListener("older", (event) => this.#addOlder(shotOf(event)));
        news.addEventListener("changed", (event) => this.#update(shotOf(event)));
        news.addEventListener("cleared", () => {
            this.#items.clear();
            this.#list.replaceChildren();
        });
        on(["line"], ({line}) => {
            if (line === "on") {
                this.#list.querySelectorAll("img.none").forEach((image) => image.dispatchEvent(new Event("retry")));
            }
        });
        let last = "";
        on(["chosen", "follow"], ({chosen}) => {
            this.#items.get(last)?.setAttribute("aria-selected", "false");
            last = chosen;
            this.#select(chosen);
        });
    }

    /** @param {Shot} shot */
    #add(shot) {
        this.#list.append(this.#make(shot));
    }

    /** @param {Shot} shot they come one by one, and are put in together */
    #addOlder(shot) {
        if (!this.#older.length) {
            queueMicrotask(() => {
                const list = this.#list;
                const fromEnd = list.scrollWidth - list.scrollLeft;
                list.prepend(...this.#older.reverse().map((older) => this.#make(older)));
                this.#older = [];
                list.scrollLeft = list.scrollWidth - fromEnd;
                this.#select(get().chosen);
            });
        }
        this.#older.push(shot);
    }

    /** @param {Shot} shot */
    #make(shot) {
        const image = h("img", {alt: "", loading: "lazy", decoding: "async", width: 108, height: 72});
        let tries = 0;
        image.addEventListener("error", () => {
            image.classList.add("none");
            tries += 1;
            if (tries <= TRIES) {
                setTimeout(() => (image.src = image.src), tries * AGAIN); // a busy server answers later
            }
        });
        image.addEventListener("load", () => image.classList.remove("none"));
        image.addEventListener("retry", () => {
            tries = 0;
            image.src = image.src;
        });
        const item = h(
            "div",
            {role: "option", id: `shot-${shot.n}`, "aria-selected": "false", "data-key": shot.key},
            image,
            h("span", {class: "name"}),
            h("span", {class: "stars"}),
        );
        this.#items.set(shot.key, item);
        this.#update(shot);
        return item;
    }

    /** @param {Shot} shot */
    #update(shot) {
        const item = this.#items.get(shot.key);
        if (!item) {
            return;
        }
        const [image, name, stars] = item.children;
        const source = previewOf(shot.shown, 256);
        if (image.getAttribute("src") !== source) {
            attribute(image, "src", source);
        }
        // the end of a long name is what differs; the marks keep its letters in their order
        text(name, `\u200e${shot.shown.file.replace(/^.*\//, "")}\u200e`);
        const format = shot.pictures.length > 1 ? "R+J" : shot.shown.format === "RAW" ? "RAW" : "";
        text(stars, ["\u2605".repeat(shot.rating), format].filter(Boolean).join(" "));
        attribute(item, "aria-label", `${shots.nameOf(shot)}, ${shots.starsOf(shot.rating)}`);
        attribute(item, "title", shots.nameOf(shot));
    }

    /** @param {string} key */
    #select(key) {
        const item = this.#items.get(key);
        attribute(this.#list, "aria-activedescendant", item?.id);
        if (!item) {
            return;
        }
        attribute(item, "aria-selected", "true");
        const list = this.#list;
        const left = item.offsetLeft - list.offsetLeft;
        const isOut = left < list.scrollLeft || left + item.offsetWidth > list.scrollLeft + list.clientWidth;
        const isInUse = get().follow && performance.now() - this.#scrolled < HANDS_OFF;
        if (key === shots.newest()?.key && !isInUse) {
            list.scrollLeft = list.scrollWidth;
        } else if (isOut && !isInUse) {
            list.scrollLeft = left - (list.clientWidth - item.offsetWidth) / 2;
        }
    }
}

/** @param {Event} event */
function shotOf(event) {
    return /** @type {CustomEvent<Shot>} */ (event).detail;
}

customElements.define("lumatie-strip", LumatieStrip);
