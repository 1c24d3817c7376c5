// <lumatie-settings>: what the camera is set to, and what it allows now.

import {canReach, isWanted, placeOf, set} from "../actions.js";
import {attribute, h, show, text} from "../dom.js";
import {get, may, on, patch} from "../store.js";

/** @typedef {import("../types.js").Setting} Setting */

/** @type {Record<string, string>} */
const LABELS = {iso: "ISO", white_balance: "White balance", color_temperature: "Color temperature"};

/** @param {string} name */
export function labelOf(name) {
    return LABELS[name] ?? name.charAt(0).toUpperCase() + name.slice(1);
}

/** One setting: a list where it can be set, its text where it cannot. */
class Row {
    #select;
    #output = h("output", {"aria-live": "off"});
    #listed = ""; // what the list was made of
    #isByPointer = false;
    /** @type {Setting} */
    #setting;
    element;

    /** @param {Setting} setting */
    constructor(setting) {
        const {name} = setting;
        const id = `setting-${name}`;
        this.#setting = setting;
        this.#select = h("select", {
            id,
            onchange: () => this.#chosen(),
            onfocus: () => patch({setting: name}),
            onpointerdown: () => (this.#isByPointer = true),
            onkeydown: () => (this.#isByPointer = false),
        });
        const label = h("label", {for: id, text: labelOf(name)});
        this.element = h("div", {class: "setting"}, label, this.#select, this.#output);
        for (const type of ["blur", "change", "keyup", "pointerup"]) {
            this.#select.addEventListener(type, () => setTimeout(() => this.update()));
        }
    }

    #chosen() {
        if (this.#select.value !== "") {
            void set(this.#setting.name, Number(this.#select.value));
        }
        if (this.#isByPointer) {
            this.#select.blur(); // or it would take the space key away from the shutter
        }
    }

    /** @param {Setting} [setting] a list that is open stays as it is until it is closed */
    update(setting = this.#setting) {
        this.#setting = setting;
        const {name, text: value, allowed} = setting;
        const canSet = setting.settable && may("set");
        text(this.#output, value || "\u2013");
        show(this.#select, canSet);
        show(this.#output, !canSet);
        attribute(this.element, "data-wanted", isWanted(name));
        const isThere = canReach();
        if (this.#select.disabled === isThere) {
            this.#select.disabled = !isThere;
        }
        if (!canSet || isOpen(this.#select)) {
            return;
        }
        const place = placeOf(setting);
        const other = place < 0 ? value || "\u2013" : "";
        const listed = [other, ...allowed].join("\n");
        if (this.#listed !== listed) {
            this.#listed = listed;
            const options = allowed.map((choice, at) => new Option(choice, String(at)));
            this.#select.replaceChildren(...(other ? [new Option(other, "")] : []), ...options);
        }
        if (this.#select.value !== String(place)) {
            this.#select.value = place < 0 ? "" : String(place);
        }
    }
}

class LumatieSettings extends HTMLElement {
    /** @type {Map<string, Row>} */
    #rows = new Map();

    connectedCallback() {
        attribute(this, "role", "group");
        attribute(this, "aria-label", "Settings");
        const none = h("p", {class: "advice", text: "The settings come with the camera."});
        this.append(none);
        on(["settings", "may", "setting", "connection", "line"], ({settings, setting: chosen}) => {
            if (!settings.length) {
                // There is no session: what was told last stays, and cannot be set.
                this.#rows.forEach((row) => row.update());
                show(none, !this.#rows.size && get().line === "on");
                return;
            }
            show(none, false);
            for (const [name, row] of this.#rows) {
                if (!settings.some((setting) => setting.name === name)) {
                    row.element.remove();
                    this.#rows.delete(name);
                }
            }
            for (const setting of settings) {
                let row = this.#rows.get(setting.name);
                if (!row) {
                    row = new Row(setting);
                    this.#rows.set(setting.name, row);
                    this.append(row.element);
                }
                row.update(setting);
                const isChosen = setting.name === chosen && setting.settable && may("set");
                row.element.classList.toggle("chosen", isChosen);
            }
        });
    }
}

/** @param {HTMLSelectElement} select */
function isOpen(select) {
    try {
        return select.matches(":open");
    } catch {
        return select === document.activeElement; // an older browser does not tell
    }
}

customElements.define("lumatie-settings", LumatieSettings);
