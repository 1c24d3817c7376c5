// What stands on the stage while there is no picture: what is the matter, and what to do.

import {act, sentence} from "../api.js";
import {h, show, text} from "../dom.js";
import {may, on} from "../store.js";

/** @typedef {import("../types.js").Known} Known */

/** @type {Record<string, string>} */
const TITLES = {
    camera_not_found: "No camera",
    library_missing: "The camera\u2019s library is missing",
    library_unfit: "The camera\u2019s library does not fit",
    folder_rejected: "No folder for the pictures",
    name_rejected: "These file names do not work",
    session_lost: "The camera is away",
};

/** @returns {HTMLElement} */
export function firstUse() {
    const title = h("h2");
    const what = h("p");
    const advice = h("p", {class: "advice"});
    const folder = h("input", {
        name: "folder",
        "aria-label": "Folder",
        autocomplete: "off",
        spellcheck: "false",
        placeholder: "Another folder on this computer",
    });
    const button = h("button", {class: "main", text: "Try again"});
    const form = h("form", {class: "row", hidden: true}, folder, button);
    form.addEventListener("submit", async (event) => {
        event.preventDefault();
        button.disabled = true;
        await act("open", folder.value.trim() ? {folder: folder.value.trim()} : {});
        button.disabled = false;
    });
    const block = h("div", {class: "first", hidden: true}, title, what, advice, form);
    on(["line", "connection", "error", "words", "advice", "chosen", "may", "role"], (known) => {
        show(block, !known.chosen && known.line !== "entering");
        const words = wordsFor(known);
        text(title, words.title);
        text(what, words.what);
        text(advice, words.advice);
        const {error, line} = known;
        show(form, line === "on" && error !== null && may("open"));
        show(folder, error?.asks === "folder");
    });
    return block;
}

/** @param {Readonly<Known>} known */
function wordsFor({line, connection, error, words, advice, role, camera}) {
    if (line === "refused") {
        return {
            title: "This link is not valid",
            what: "It is the link of another folder, or new links were made since.",
            advice: "Open the link that it printed last, or scan the code under Links on the operator\u2019s page.",
        };
    }
    if (line === "off") {
        return {
            title: "No connection",
            what: "The program on the computer does not answer.",
            advice: "Start it there, or bring this device into its network. This page goes on by itself.",
        };
    }
    if (error) {
        return {
            title: TITLES[error.reason] ?? "The camera is not ready",
            what: sentence(error.text),
            advice: error.advice,
        };
    }
    if (connection !== "open") {
        return {title: camera || "One moment", what: words, advice};
    }
    return {
        title: "No picture yet",
        what:
            role === "operator"
                ? "Press the shutter on the camera, or take a picture here."
                : "The next picture appears here by itself.",
        advice: "",
    };
}
