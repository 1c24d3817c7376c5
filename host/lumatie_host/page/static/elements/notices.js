// <lumatie-notices>: alarms, what did not work, and what a camera that came back offers.

import {sentence} from "../api.js";
import {h, icon} from "../dom.js";
import {on} from "../store.js";

/** @typedef {import("../types.js").Notice} Notice */

const MOST = 4;
const DISMISSED = "lumatie-put-away"; // keys of the alarms that were put away
const MOST_DISMISSED = 100;

class LumatieNotices extends HTMLElement {
    #list = h("div", {"aria-live": "assertive", "aria-relevant": "additions"});
    #offer = h("div", {"aria-live": "polite"});
    /** @type {Set<string>} */
    #told = new Set();

    connectedCallback() {
        this.append(this.#offer, this.#list);
        addEventListener("lumatie-notice", (event) => {
            this.#add(/** @type {CustomEvent<Notice>} */ (event).detail);
        });
        on(["alarms"], ({alarms}) => {
            this.#drop(new Set(alarms.map(({n, time}) => `${n} ${time}`)));
            for (const {n, time, what, text, advice, kind} of [...alarms].sort((one, other) => one.n - other.n)) {
                const key = `${n} ${time}`;
                if (!this.#told.has(key) && !dismissed().includes(key)) {
                    this.#told.add(key);
                    const words = what || text || (kind === "failed" ? "No picture came." : "Something is wrong.");
                    this.#add({text: words, advice}, key);
                }
            }
        });
        on(["offer", "may"], async ({offer}) => {
            if (offer || this.#offer.firstChild) {
                const {offerBack} = await import("./offer.js");
                offerBack(this.#offer, offer);
            }
        });
    }

    /** @param {Set<string>} alarms what stands; an alarm that is over is not shown any more */
    #drop(alarms) {
        for (const notice of [...this.#list.children]) {
            const key = /** @type {HTMLElement} */ (notice).dataset.key;
            if (key && !alarms.has(key)) {
                notice.remove();
            }
        }
    }

    /**
     * @param {Notice} notice
     * @param {string} [key] of its alarm
     */
    #add({text, advice}, key = "") {
        const words = sentence(text);
        const same = [...this.#list.children].find((other) => other.firstElementChild?.textContent === words);
        same?.remove();
        const close = h("button", {type: "button", class: "plain", "aria-label": "Dismiss"}, icon("close"));
        const notice = h(
            "div",
            {class: "notice", "data-key": key || null},
            h("strong", {text: words}),
            advice ? h("span", {text: advice}) : null,
            close,
        );
        close.addEventListener("click", () => {
            notice.remove();
            if (key) {
                const keys = [...dismissed(), key].slice(-MOST_DISMISSED);
                sessionStorage.setItem(DISMISSED, JSON.stringify(keys));
            }
        });
        this.#list.prepend(notice);
        while (this.#list.children.length > MOST) {
            this.#list.lastElementChild?.remove();
        }
    }
}

/** @returns {string[]} by the clock of the day nothing can be told: it may be set back */
function dismissed() {
    return JSON.parse(sessionStorage.getItem(DISMISSED) ?? "[]");
}

customElements.define("lumatie-notices", LumatieNotices);
