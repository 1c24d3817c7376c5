// What acts on several stations: <wall-shutter>, <wall-tag>; what came of it: <wall-release>; and
// <wall-storage>, how far the desk is with the pictures.

import {attribute, h, icon, show, text} from "/static/dom.js";
import * as actions from "../actions.js";
import {get, may, meant, on, patch} from "../store.js";

/** @param {number} count */
function stations(count) {
    return count === 1 ? "1 station" : `${count} stations`;
}

class WallShutter extends HTMLElement {
    connectedCallback() {
        const words = h("span");
        const button = h(
            "button",
            {type: "button", class: "shutter", title: "Space or T, when armed", onclick: actions.shoot},
            icon("shutter"),
            words,
        );
        const armed = h("input", {type: "checkbox", role: "switch"});
        armed.addEventListener("change", () => patch({armed: armed.checked}));
        const label = h(
            "label",
            {class: "armed", title: "While it is armed, the keys Space and T take pictures (A)"},
            armed,
            h("span", {text: "Armed"}),
        );
        this.append(button, label);
        on(["armed", "busy", "shooting", "may", "line", "stations", "picked"], (known) => {
            const {names, areAll} = meant();
            show(this, may("shoot"));
            text(words, areAll ? `Shoot all ${names.length}` : `Shoot ${stations(names.length)}`);
            button.disabled = !actions.canShoot();
            attribute(button, "aria-busy", String(known.busy || known.shooting));
            armed.checked = known.armed;
            attribute(this, "data-armed", known.armed);
        });
    }
}

/** A scanner types into the field and sends Enter; the field keeps the focus. */
class WallTag extends HTMLElement {
    connectedCallback() {
        const tag = h("input", {
            id: "tag",
            autocomplete: "off",
            autocapitalize: "off",
            spellcheck: "false",
            maxlength: 200,
            enterkeyhint: "done",
        });
        const label = h("label", {for: "tag"});
        const form = h("form", {class: "field"}, label, tag);
        this.append(form);
        form.addEventListener("submit", async (event) => {
            event.preventDefault();
            tag.select();
            attribute(form, "data-unsaved", !(await actions.giveTag(tag.value.trim())));
        });
        tag.addEventListener("input", () => attribute(form, "data-unsaved", true));
        tag.addEventListener("keydown", ({key}) => key === "Escape" && tag.blur());
        on(["may", "picked"], ({picked}) => {
            show(this, may("tag"));
            text(label, picked.length ? `Tag for ${stations(picked.length)}` : "Tag for all");
        });
        on(["tag"], (known) => {
            if (document.activeElement !== tag) {
                tag.value = known.tag;
            }
        });
    }
}

class WallRelease extends HTMLElement {
    connectedCallback() {
        const words = h("p", {role: "status"});
        this.append(words);
        on(["release", "shooting"], ({release, shooting}) => {
            text(words, shooting ? "Taking pictures\u2026" : (release?.words ?? ""));
            const told = Object.entries(release?.stations ?? {}).filter(([, {after}]) => after !== null);
            told.sort(([, one], [, other]) => Number(one.after) - Number(other.after));
            this.title = told.map(([name, {after}]) => `${name}: ${Math.round(Number(after) * 1000)} ms`).join(", ");
            attribute(this, "data-bad", release !== null && !shooting && release.done < release.asked);
        });
    }
}

class WallStorage extends HTMLElement {
    connectedCallback() {
        const words = h("p");
        this.append(words);
        on(["to_collect", "collected", "disk", "line"], ({to_collect: left, collected, disk, line}) => {
            const pictures = collected === 1 ? "1 picture" : `${collected.toLocaleString()} pictures`;
            const room = disk ? ` \u00b7 ${(disk.free / 1e9).toFixed(disk.free < 1e11 ? 1 : 0)} GB free` : "";
            text(words, line === "entering" ? "" : `${pictures} here${left ? `, ${left} to collect` : ""}${room}`);
            this.title = get().folder ?? "";
        });
    }
}

customElements.define("wall-shutter", WallShutter);
customElements.define("wall-tag", WallTag);
customElements.define("wall-release", WallRelease);
customElements.define("wall-storage", WallStorage);
