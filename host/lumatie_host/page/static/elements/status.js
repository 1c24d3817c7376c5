// <lumatie-status>: the camera's state in words, and whether this page hears of it.

import {act, station} from "../api.js";
import {attribute, h, show, text} from "../dom.js";
import {may, on} from "../store.js";

/** @typedef {import("../types.js").Known} Known */

class LumatieStatus extends HTMLElement {
    connectedCallback() {
        const dot = h("span", {class: "dot", "aria-hidden": "true"});
        const words = h("strong");
        const advice = h("span", {class: "advice"});
        const about = h("span", {class: "about"});
        const again = h("button", {text: "Try again", hidden: true, onclick: () => act("open", {})});
        this.append(dot, h("p", {role: "status"}, words, advice), again, about);
        on(["line", "connection", "words", "advice", "error", "chosen", "may"], (known) => {
            const [what, todo] = wordsFor(known);
            text(words, what);
            text(advice, todo);
            attribute(advice, "title", todo);
            attribute(this, "data-state", known.line === "on" ? known.connection : known.line);
            show(again, known.line === "on" && known.error !== null && known.chosen !== "" && may("open"));
        });
        on(["job", "station", "shots", "viewers", "role", "folder"], (known) => {
            const {job, station, role, viewers} = known;
            const looking = viewers === 1 ? "1 viewer" : `${viewers} viewers`;
            const parts = [station, job, role === "operator" ? viewers && looking : "Viewer"];
            text(about, parts.filter(Boolean).join(" \u00b7 "));
        });
    }
}

/**
 * @param {Readonly<Known>} known
 * @returns {[string, string]}
 */
function wordsFor({line, connection, words, advice, error}) {
    switch (line) {
        case "entering":
            return ["", ""];
        case "off":
            if (connection === "closed") {
                return [
                    "The program on the computer was closed.",
                    "What is shown is as it was. This page goes on by itself when the program is started again.",
                ];
            }
            return [
                station ? `Station ${station} does not answer.` : "No connection to the program on the computer.",
                "What is shown is as it was. This page goes on by itself as soon as there is an answer.",
            ];
        case "refused":
            return ["This link is not valid any more.", "Open the link that the program printed last."];
        default:
            return [words, advice || error?.advice || ""];
    }
}

customElements.define("lumatie-status", LumatieStatus);
