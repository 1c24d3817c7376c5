// A layout or the last picture over the one that is shown. A layout is read by this page alone.
// Loaded when asked for.

import {previewOf} from "../api.js";
import {h, show} from "../dom.js";
import * as shots from "../shots.js";
import {get, notify, on} from "../store.js";

/** @typedef {import("../pane.js").Pane} Pane */

const MOST_PIXELS = 64_000_000;

/**
 * @param {Pane} pane
 * @param {HTMLButtonElement} button that opens and closes the panel
 * @returns {HTMLElement} the panel, open
 */
export function overlay(pane, button) {
    const kind = h(
        "select",
        {"aria-label": "Overlay picture"},
        new Option("None", "none"),
        new Option("Last picture", "last"),
        new Option("Layout\u2026", "layout"),
    );
    const opacity = h("input", {type: "range", min: 0, max: 100, value: 50, "aria-label": "Overlay opacity"});
    const file = h("input", {type: "file", accept: "image/png,image/*", "aria-label": "Layout", hidden: true});
    const panel = h("div", {class: "popup", role: "group", "aria-label": "Overlay"}, kind, file, opacity);
    const layout = h("canvas", {class: "overlay"});
    const last = h("img", {class: "overlay", alt: ""});
    button.setAttribute("aria-expanded", "true");
    button.addEventListener("click", () => {
        show(panel, panel.hidden === true);
        button.setAttribute("aria-expanded", String(!panel.hidden));
    });

    const update = () => {
        show(file, kind.value === "layout");
        button.setAttribute("aria-pressed", String(kind.value !== "none"));
        layout.style.opacity = last.style.opacity = String(opacity.valueAsNumber / 100);
        const before = shots.beside(get().chosen, -1);
        const hasLast = kind.value === "last" && before !== null && before.key !== get().chosen;
        if (hasLast) {
            last.src = previewOf(before.shown, 2048);
        }
        pane.cover(kind.value === "layout" ? layout : hasLast ? last : null);
    };
    kind.addEventListener("change", update);
    opacity.addEventListener("input", update);
    file.addEventListener("change", async () => {
        if (file.files?.[0]) {
            await draw(file.files[0], layout);
            update();
        }
    });
    pane.addEventListener("shown", () => kind.value === "last" && update());
    on(["chosen"], () => kind.value === "last" && update());
    return panel;
}

/**
 * @param {File} file
 * @param {HTMLCanvasElement} canvas
 */
async function draw(file, canvas) {
    try {
        const bitmap = await createImageBitmap(file);
        if (bitmap.width * bitmap.height > MOST_PIXELS) {
            throw new RangeError("too many pixels");
        }
        canvas.width = bitmap.width;
        canvas.height = bitmap.height;
        canvas.getContext("2d")?.drawImage(bitmap, 0, 0);
        bitmap.close();
    } catch {
        notify({text: `${file.name} cannot be laid over the picture.`, advice: "Choose a PNG of at most 64 million pixels."});
    }
}
