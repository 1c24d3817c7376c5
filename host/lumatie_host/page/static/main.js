// Puts the page together. What few need is loaded when they ask for it.

import "./elements/picture.js";
import "./elements/tools.js";
import "./elements/status.js";
import "./elements/notices.js";
import "./elements/rating.js";
import "./elements/strip.js";
import "./elements/histogram.js";
import "./elements/settings.js";
import "./elements/next.js";
import "./elements/storage.js";
import "./elements/shutter.js";
import {station} from "./api.js";
import {h, icon, show} from "./dom.js";
import * as head from "./head.js";
import * as keys from "./keys.js";
import * as live from "./live.js";
import {may, on} from "./store.js";

/** @typedef {import("./elements/picture.js").LumatiePicture} LumatiePicture */

/** @param {string} name */
function find(name) {
    return /** @type {HTMLElement} */ (document.querySelector(`lumatie-${name}`));
}

find("sequence").querySelector("summary")?.addEventListener("click", () => import("./elements/sequence.js"));
on(["may", "sequence"], ({sequence}) => {
    show(find("sequence"), may("sequence") || sequence?.running === true);
    if (sequence) {
        void import("./elements/sequence.js");
    }
});
if (station) {
    const back = h("a", {class: "back", href: "/", "aria-label": "All stations", title: "All stations"}, icon("back"));
    document.querySelector("header")?.prepend(back);
}
keys.listen(/** @type {LumatiePicture} */ (find("picture")), head.start("lumatie-help", () => import("./elements/help.js")));
live.start();
