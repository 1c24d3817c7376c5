// The keys of the whole page. They are silent while a person types or chooses.

import * as actions from "./actions.js";
import {ARROWS, isForPage} from "./dom.js";
import {get, may, patch} from "./store.js";

/** @typedef {import("./elements/picture.js").LumatiePicture} LumatiePicture */

const PAN = 0.1; // parts of the pane

const OF_SLIDERS = ["Home", "End", "PageUp", "PageDown"];

/**
 * @param {LumatiePicture} stage
 * @param {() => void} help opens it
 */
export function listen(stage, help) {
    /** @type {Record<string, (() => unknown) | undefined>} */
    const keys = {
        z: () => stage.zoom(),
        c: actions.compare,
        f: () => actions.follow(!get().follow),
        x: () => patch({clipping: !get().clipping}),
        a: () => may("shoot") && patch({armed: !get().armed}),
        t: () => get().armed && actions.shoot(),
        " ": () => get().armed && actions.shoot(),
        "?": help,
        pageup: () => actions.chooseBeside(-1),
        pagedown: () => actions.chooseBeside(1),
        home: () => actions.chooseBeside(-Infinity),
        end: () => actions.follow(true),
        escape: () => stage.view.zoom && stage.zoom(),
    };
    for (const rating of [0, 1, 2, 3, 4, 5]) {
        keys[rating] = () => actions.rate(rating);
    }
    addEventListener("keydown", (event) => {
        const {key, target, repeat} = event;
        if (!isForPage(event)) {
            return;
        }
        const isOnControl =
            target instanceof Element && target.closest("button, select, summary, a, input") !== null;
        const arrow = ARROWS[key];
        if (arrow) {
            if (!isOnControl && arrowed(stage, arrow, event)) {
                event.preventDefault();
            }
            return;
        }
        const does = keys[key.toLowerCase()];
        const choosers = OF_SLIDERS.includes(key) ? "select, [type=range]" : "select";
        const isChoosing = target instanceof Element && target.closest(choosers) !== null;
        if (!does || isChoosing || (isOnControl && key === " ")) {
            return;
        }
        event.preventDefault();
        if (!repeat || key.startsWith("Page")) {
            does();
        }
    });
    // a button that was clicked would take the space key away from the shutter
    addEventListener("click", ({target, detail}) => {
        const clicked = target instanceof Element && target.closest("button, summary, .armed");
        const focused = document.activeElement;
        if (clicked && detail > 0 && focused instanceof HTMLElement && !clicked.closest("dialog")) {
            if (focused.matches("button, summary, .armed input")) {
                focused.blur();
            }
        }
    });
}

/**
 * @param {LumatiePicture} stage
 * @param {[number, number]} arrow
 * @param {KeyboardEvent} event
 * @returns {boolean} whether it did anything
 */
function arrowed(stage, [x, y], {shiftKey, target}) {
    if (shiftKey) {
        stage.pan(x * PAN, y * PAN);
        return stage.view.zoom > 0;
    }
    if (target instanceof Element && target.closest("[role=listbox]")) {
        actions.chooseBeside(x || y);
        return true;
    }
    if (!may("set")) {
        actions.chooseBeside(x);
        return x !== 0;
    }
    if (x) {
        actions.step(x);
    } else {
        actions.stepSetting(y);
    }
    return true;
}
