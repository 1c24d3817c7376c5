// <lumatie-links>: the viewer's link as a code for a telephone, for the operator alone.
// Loaded when asked for.

import {Failure, read} from "../api.js";
import {h, show, text} from "../dom.js";
import {notify} from "../store.js";
import {closing} from "./help.js";

class LumatieLinks extends HTMLElement {
    #dialog = h("dialog", {"aria-labelledby": "links-title"});
    #code = h("img", {alt: "QR code of the viewer\u2019s link", width: 240, height: 240});
    #viewer = link("Viewer\u2019s link");
    #operator = link("Operator\u2019s link");
    #local = h("p", {class: "advice", text: "These links work on this computer alone. Start the program with --lan for telephones and other computers."});

    connectedCallback() {
        this.#dialog.append(
            h("h2", {id: "links-title", tabindex: -1, autofocus: true, text: "Links"}),
            this.#code,
            h("p", {text: "For a client or the crew: they see everything, and can neither set the camera nor take a picture."}),
            copying("Viewer\u2019s link", this.#viewer),
            this.#local,
            h("details", {}, h("summary", {text: "Your own link"}), h("p", {text: "Whoever has it can use the camera."}), copying("Operator\u2019s link", this.#operator)),
            closing(this.#dialog),
        );
        this.append(this.#dialog);
    }

    async open() {
        try {
            const links = await read("/api/links");
            this.#viewer.value = links.viewer;
            this.#operator.value = links.operator;
            this.#code.src = `/api/qr.svg?${Date.now()}`;
            show(this.#local, /^https?:\/\/(127\.|localhost|\[::1])/.test(links.viewer));
            this.#dialog.showModal();
        } catch (error) {
            if (!(error instanceof Failure)) {
                throw error;
            }
            notify({text: error.message, advice: error.advice});
        }
    }
}

/** @param {string} name */
function link(name) {
    return h("input", {readonly: true, "aria-label": name});
}

/**
 * @param {string} name
 * @param {HTMLInputElement} input
 */
function copying(name, input) {
    const button = h("button", {type: "button", "aria-label": `Copy the ${name.toLowerCase()}`, text: "Copy"});
    button.addEventListener("click", async () => {
        input.select();
        try {
            await navigator.clipboard.writeText(input.value);
            text(button, "Copied");
            setTimeout(() => text(button, "Copy"), 2000);
        } catch {
            // without a secure connection a browser lets no page copy: it is selected, Ctrl-C does it
        }
    });
    return h("div", {class: "row"}, input, button);
}

customElements.define("lumatie-links", LumatieLinks);
