// <lumatie-tools>: what can be done with the picture on the stage, and what it is.

import * as actions from "../actions.js";
import {attribute, h, text, toggle} from "../dom.js";
import * as shots from "../shots.js";
import {get, on, patch} from "../store.js";

/** @typedef {import("./picture.js").LumatiePicture} LumatiePicture */
/** @typedef {import("../shots.js").Shot} Shot */

class LumatieTools extends HTMLElement {
    #caption = h("p", {class: "caption"});

    connectedCallback() {
        const stage = /** @type {LumatiePicture} */ (document.querySelector("lumatie-picture"));
        const follow = toggle("Follow", "follow", "F", () => actions.follow(!get().follow));
        const zoom = toggle("100 %", "zoom", "Z", () => stage.zoom());
        const compare = toggle("Compare", "compare", "C", actions.compare);
        const clipping = toggle("Clipping", "clipping", "X", () => patch({clipping: !get().clipping}));
        const tools = h("div", {class: "tools", role: "group", "aria-label": "Picture"});
        const cover = toggle("Overlay", "overlay", "", async () => {
            if (!isLoaded) {
                isLoaded = true;
                const {overlay} = await import("./overlay.js");
                tools.append(overlay(stage.main, cover));
            }
        });
        let isLoaded = false;
        attribute(cover, "aria-expanded", "false");
        tools.append(follow, zoom, compare, clipping, cover);
        this.append(tools, this.#caption);
        stage.view.addEventListener("change", () => {
            attribute(zoom, "aria-pressed", String(stage.view.zoom > 0));
        });
        on(["follow", "compare", "clipping"], (known) => {
            attribute(follow, "aria-pressed", String(known.follow));
            attribute(compare, "aria-pressed", String(known.compare));
            attribute(clipping, "aria-pressed", String(known.clipping));
        });
        on(["follow", "picture", "chosen"], (known) => {
            const newest = shots.newest();
            attribute(follow, "data-news", !known.follow && newest !== null && newest.key !== known.chosen);
        });
        on(["chosen"], ({chosen}) => this.#describe(shots.find(chosen)));
        shots.news.addEventListener("changed", () => this.#describe(shots.find(get().chosen)));
    }

    /** @param {Shot | null} shot */
    #describe(shot) {
        const {settings = {}, width, height, time = ""} = shot?.shown ?? {};
        const {shutter, aperture = "", iso} = settings;
        const parts = [
            shot && shots.nameOf(shot),
            shutter,
            /^\d/.test(aperture) ? "f/" + aperture : aperture,
            iso && `ISO ${iso}`,
            width && `${width} \u00d7 ${height}`,
            time && new Date(time).toLocaleTimeString(),
        ];
        text(this.#caption, parts.filter(Boolean).join(" \u00b7 "));
        this.#caption.title = this.#caption.textContent ?? "";
    }
}

customElements.define("lumatie-tools", LumatieTools);
