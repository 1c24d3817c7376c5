// The head of a page: the links, the help. They are loaded when asked for.

import {show} from "./dom.js";
import {on} from "./store.js";

/** @typedef {HTMLElement & {open(): void}} Opens */

/**
 * @param {string} name of the element with the help
 * @param {() => Promise<unknown>} load its code
 * @returns {() => void} opens the help
 */
export function start(name, load) {
    const links = opens("lumatie-links", () => import("./elements/links.js"));
    on(["role", "line"], ({role, line}) => {
        if (line === "on") {
            document.body.dataset.role = role;
        }
        show(links.element, role === "operator" && line !== "refused");
    });
    return opens(name, load).open;
}

/**
 * @param {string} name of an element with a button and a dialog
 * @param {() => Promise<unknown>} load
 */
function opens(name, load) {
    const element = /** @type {Opens} */ (document.querySelector(name));
    const open = async () => {
        await load();
        element.open();
    };
    element.querySelector("button")?.addEventListener("click", open);
    return {element, open};
}
