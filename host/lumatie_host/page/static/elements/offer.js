// What a camera offers that came back with other settings: to set them back. Loaded when one does.

import {set} from "../actions.js";
import {h} from "../dom.js";
import {get, may} from "../store.js";
import {labelOf} from "./settings.js";

/**
 * @param {HTMLElement} place
 * @param {Record<string, [string, string]> | null} offer name to what it was, and what it is
 */
export function offerBack(place, offer) {
    const names = Object.entries(offer ?? {});
    place.replaceChildren();
    if (!names.length || !may("set")) {
        return;
    }
    /** @param {0 | 1} which what it was, or what it is: either ends the offer */
    const choose = async (which) => {
        place.replaceChildren();
        for (const [name, texts] of names) {
            const setting = get().settings.find((other) => other.name === name);
            const at = setting?.allowed.indexOf(texts[which]) ?? -1;
            if (at >= 0) {
                await set(name, at);
            }
        }
    };
    const list = names.map(([name, [before, now]]) => `${labelOf(name)} ${now}, before ${before}`);
    place.append(
        h(
            "div",
            {class: "notice offer"},
            h("strong", {text: "The camera came back with other settings."}),
            h("span", {text: list.join("; ") + "."}),
            h("button", {text: "Set back", onclick: () => choose(0)}),
            h("button", {text: "Leave", onclick: () => choose(1)}),
        ),
    );
}
