// <wall-help>: the keys. Loaded when asked for.

import {h} from "/static/dom.js";
import {Help} from "/static/elements/help.js";

const KEYS = [
    ["Space, T", "Take pictures, when armed", "shoot"],
    ["A", "Armed on or off", "shoot"],
    ["\u2190 \u2191 \u2192 \u2193", "Go to another station"],
    ["Enter", "Look at the station"],
    ["X", "Choose the station, or no longer", "shoot"],
    ["Esc", "Choose none: all are meant again", "shoot"],
    ["G", "Type a tag", "tag"],
    ["?", "This help"],
];

class WallHelp extends Help {
    connectedCallback() {
        this.fill(
            KEYS,
            h("p", {text: "Shooting over a network is soon, not together: what stands beside the shutter was measured. Where it matters use a trigger box; its pictures arrive all the same."}),
        );
    }
}

customElements.define("wall-help", WallHelp);
