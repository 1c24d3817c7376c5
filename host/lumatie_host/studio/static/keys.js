// The keys of the wall. They are silent while a person types.

import {ARROWS, isForPage} from "/static/dom.js";
import * as actions from "./actions.js";
import {get, may, patch} from "./store.js";

/** @typedef {import("./elements/stations.js").WallStations} WallStations */

/**
 * @param {WallStations} wall
 * @param {() => void} help opens it
 */
export function listen(wall, help) {
    /** @type {Record<string, (() => unknown) | undefined>} */
    const keys = {
        a: () => may("shoot") && patch({armed: !get().armed}),
        t: () => get().armed && actions.shoot(),
        " ": () => get().armed && actions.shoot(),
        x: () => wall.focused && actions.pick(wall.focused),
        escape: () => patch({picked: []}),
        g: () => document.getElementById("tag")?.focus(),
        "?": help,
    };
    addEventListener("keydown", (event) => {
        const {key, target, repeat} = event;
        if (!isForPage(event)) {
            return;
        }
        const arrow = ARROWS[key];
        const does = keys[key.toLowerCase()];
        const isOnControl = target instanceof Element && target.closest("button, input, summary") !== null;
        if ((!arrow && !does) || (key === " " && isOnControl)) {
            return;
        }
        event.preventDefault();
        if (arrow) {
            wall.move(...arrow);
        } else if (!repeat) {
            does?.();
        }
    });
    // a control that was clicked would take the space key away from the shutter
    addEventListener("click", ({detail}) => {
        const focused = document.activeElement;
        if (detail > 0 && focused instanceof HTMLElement && focused.matches("aside button, input[type=checkbox]")) {
            focused.blur();
        }
    });
}
