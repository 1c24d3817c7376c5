// <lumatie-help>: the keys, and what this connection to the camera cannot do. Loaded when asked for.

import {h, show, text} from "../dom.js";
import {on} from "../store.js";

const KEYS = [
    ["Space, T", "Take a picture, when armed", "shoot"],
    ["A", "Armed on or off", "shoot"],
    ["\u2190 \u2192", "Change the chosen setting", "set"],
    ["\u2191 \u2193", "Choose another setting", "set"],
    ["Z", "100 % or the whole picture"],
    ["Shift + \u2190 \u2191 \u2192 \u2193", "Move the picture at 100 %"],
    ["Esc", "Back to the whole picture"],
    ["C", "Compare two pictures"],
    ["X", "Clipping marks"],
    ["F", "Follow: show the newest picture"],
    ["Page Up, Page Down", "Older or newer picture"],
    ["Home", "The oldest picture"],
    ["End", "The newest picture, and follow"],
    ["0 to 5", "Rate the picture", "rate"],
    ["?", "This help"],
];

export class Help extends HTMLElement {
    #dialog = h("dialog", {"aria-labelledby": "help-title"});

    /**
     * @param {string[][]} keys each with what it does and, where not everybody may, what that is
     * @param {HTMLElement[]} more that stands below them
     */
    fill(keys, ...more) {
        const table = h("table", {}, h("caption", {text: "Keys, outside of text fields"}));
        const title = h("h2", {id: "help-title", tabindex: -1, autofocus: true, text: "Help"});
        this.#dialog.append(title, table, ...more, closing(this.#dialog));
        this.append(this.#dialog);
        on(["may"], ({may}) => {
            const rows = keys.filter(([, , needs]) => !needs || may.includes(needs));
            table.tBodies[0]?.remove();
            table.append(h("tbody", {}, ...rows.map(([key, does]) => h("tr", {}, h("th", {scope: "row"}, h("kbd", {text: key})), h("td", {text: does})))));
        });
    }

    open() {
        this.#dialog.showModal();
    }
}

class LumatieHelp extends Help {
    connectedCallback() {
        const absent = h("p");
        this.fill(
            KEYS,
            h("p", {text: "With fingers or the mouse: pinch or turn the wheel for nearer, tap twice for 100 %, swipe for the next picture."}),
            h("h3", {text: "Not to be had"}),
            absent,
        );
        on(["absent", "camera"], (known) => {
            const list = known.absent.join(", ");
            text(absent, `This connection to the camera has no ${list || "live view"}: use the camera itself for these.`);
            show(absent, known.absent.length > 0);
        });
    }
}

/** @param {HTMLDialogElement} dialog */
export function closing(dialog) {
    dialog.addEventListener("click", (event) => event.target === dialog && dialog.close()); // beside it
    return h("form", {method: "dialog", class: "row"}, h("button", {class: "main", text: "Close"}));
}

customElements.define("lumatie-help", LumatieHelp);
