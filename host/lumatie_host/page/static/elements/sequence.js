// <lumatie-sequence>: several pictures in a row, at an interval or with one setting that changes.
// Loaded when it is opened, or when one runs.

import {act, sentence} from "../api.js";
import {h, show, text} from "../dom.js";
import {get, may, on} from "../store.js";
import {labelOf} from "./settings.js";

/** @typedef {import("../types.js").Sequence} Sequence */

class LumatieSequence extends HTMLElement {
    #kind = h("select", {}, new Option("Interval", "interval"), new Option("Bracket", "bracket"));
    #frames = h("input", {type: "number", min: 1, max: 9999, value: 10, required: true});
    #every = h("input", {type: "number", min: 0, max: 86400, step: "any", value: 5, required: true});
    #setting = h("select");
    #steps = h("input", {type: "number", min: 1, max: 30, value: 3, required: true});
    #progress = h("progress", {"aria-label": "Sequence"});
    #count = h("p"); // changes every second, so it is not read out
    #words = h("p", {"aria-live": "polite"});
    #due = 0; // performance.now() of the next frame
    /** @type {ReturnType<typeof setInterval> | undefined} */
    #clock;

    connectedCallback() {
        const start = h("button", {text: "Start"});
        const stop = h("button", {type: "button", class: "danger", text: "Stop", onclick: () => act("sequence", {kind: "stop"})});
        const fields = h("div", {class: "fields"});
        const every = field("Every (seconds)", this.#every);
        const setting = field("Setting", this.#setting);
        const steps = field("Steps", this.#steps);
        fields.append(field("Kind", this.#kind), field("Frames", this.#frames), every, setting, steps, start);
        const form = h("form", {}, fields);
        const running = h("div", {class: "running", hidden: true}, this.#progress, stop);
        const details = /** @type {HTMLDetailsElement} */ (this.firstElementChild);
        details.append(form, running, this.#count, this.#words);
        const reveal = () => details.open && this.scrollIntoView({block: "nearest"});
        details.addEventListener("toggle", reveal);
        requestAnimationFrame(reveal);
        form.addEventListener("submit", (event) => {
            event.preventDefault();
            void act("sequence", this.#request());
        });
        const choose = () => {
            const isBracket = this.#kind.value === "bracket";
            show(every, !isBracket);
            show(setting, isBracket);
            show(steps, isBracket);
            this.#frames.value = isBracket ? "3" : "10";
        };
        this.#kind.addEventListener("change", choose);
        choose();
        on(["settings"], ({settings}) => this.#list(settings.filter((one) => one.settable).map(({name}) => name)));
        on(["may", "connection", "line"], ({connection, line}) => {
            show(stop, may("sequence"));
            start.disabled = line !== "on" || connection !== "open";
        });
        on(["sequence"], ({sequence}) => {
            const isRunning = sequence?.running ?? false;
            show(form, !isRunning);
            show(running, isRunning);
            show(this.#count, isRunning);
            details.open ||= isRunning;
            this.#tell(sequence);
        });
    }

    #request() {
        const count = this.#frames.valueAsNumber;
        if (this.#kind.value === "interval") {
            return {kind: "interval", count, every: this.#every.valueAsNumber};
        }
        return {kind: "bracket", setting: this.#setting.value, frames: count, steps: this.#steps.valueAsNumber};
    }

    /** @param {string[]} names of the settings that can be set */
    #list(names) {
        if ([...this.#setting.options].map(({value}) => value).join() !== names.join()) {
            const chosen = this.#setting.value || "shutter";
            this.#setting.replaceChildren(...names.map((name) => new Option(labelOf(name), name)));
            this.#setting.value = names.includes(chosen) ? chosen : (names[0] ?? "");
        }
    }

    /** @param {Sequence | null} sequence */
    #tell(sequence) {
        clearInterval(this.#clock);
        if (!sequence) {
            text(this.#words, "");
            return;
        }
        const {running, frame, of, next, error, stopped} = sequence;
        this.#progress.max = of;
        this.#progress.value = frame;
        if (running) {
            this.#due = performance.now() + (next ?? 0) * 1000;
            text(this.#words, "");
            this.#tick(next !== null);
            this.#clock = next === null ? undefined : setInterval(() => this.#tick(true), 1000);
        } else if (error) {
            text(this.#words, `Ended after ${frame} of ${of}. ${sentence(error.text)} ${error.advice}`);
        } else {
            text(this.#words, stopped ? `Stopped after ${frame} of ${of}.` : `Done: ${frame} of ${of}.`);
        }
    }

    /** @param {boolean} hasNext */
    #tick(hasNext) {
        const {frame = 0, of = 0} = get().sequence ?? {};
        const seconds = Math.ceil((this.#due - performance.now()) / 1000);
        const next = hasNext && seconds > 0 ? `, the next in ${seconds} s` : "";
        text(this.#count, `${frame} of ${of}${next}`);
    }
}

/**
 * @param {string} name
 * @param {HTMLElement} control
 */
function field(name, control) {
    return h("label", {}, h("span", {text: name}), control);
}

customElements.define("lumatie-sequence", LumatieSequence);
