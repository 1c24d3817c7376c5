// <lumatie-rating>: 0 to 5 for the picture that is shown.

import {canRate, rate} from "../actions.js";
import {attribute, h, icon, show, text} from "../dom.js";
import * as shots from "../shots.js";
import {get, may, on} from "../store.js";

class LumatieRating extends HTMLElement {
    connectedCallback() {
        attribute(this, "role", "group");
        attribute(this, "aria-label", "Rating");
        const buttons = [0, 1, 2, 3, 4, 5].map((value) =>
            h(
                "button",
                {
                    type: "button",
                    "aria-label": `Rate ${value}`,
                    title: `Rate ${value} (${value})`,
                    onclick: () => rate(value),
                },
                icon(value ? "star" : "none"),
            ),
        );
        const stars = h("output");
        this.append(...buttons, stars);
        const update = () => {
            const shot = shots.find(get().chosen);
            const rating = shot?.rating ?? 0;
            text(stars, "\u2605".repeat(rating));
            attribute(stars, "aria-label", shots.starsOf(rating));
            show(stars, !may("rate"));
            buttons.forEach((button, value) => {
                show(button, may("rate"));
                button.disabled = !shot || !canRate();
                attribute(button, "aria-pressed", String(value === rating));
                button.classList.toggle("lit", value > 0 && value <= rating);
            });
        };
        on(["chosen", "may", "connection", "line"], update);
        shots.news.addEventListener("changed", update);
    }
}

customElements.define("lumatie-rating", LumatieRating);
