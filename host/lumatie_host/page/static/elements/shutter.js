// <lumatie-shutter>: takes a picture. Its keys work while it is armed, so that neither a scanner nor
// an elbow does.

import * as actions from "../actions.js";
import {attribute, h, icon, show} from "../dom.js";
import {may, on, patch} from "../store.js";

class LumatieShutter extends HTMLElement {
    connectedCallback() {
        const button = h(
            "button",
            {type: "button", class: "shutter", title: "Space or T, when armed", onclick: actions.shoot},
            icon("shutter"),
            h("span", {text: "Take a picture"}),
        );
        const armed = h("input", {type: "checkbox", role: "switch"});
        armed.addEventListener("change", () => patch({armed: armed.checked}));
        const label = h(
            "label",
            {class: "armed", title: "While it is armed, the keys Space and T take a picture (A)"},
            armed,
            h("span", {text: "Armed"}),
        );
        this.append(button, label);
        on(["armed", "busy", "may", "connection", "line", "sequence"], (known) => {
            show(this, may("shoot"));
            button.disabled = !actions.canShoot();
            attribute(button, "aria-busy", String(known.busy));
            armed.checked = known.armed;
            attribute(this, "data-armed", known.armed);
        });
    }
}

customElements.define("lumatie-shutter", LumatieShutter);
