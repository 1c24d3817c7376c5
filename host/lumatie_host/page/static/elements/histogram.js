// <lumatie-histogram>: how the values of the picture's JPEG are spread, and how much of it clips.

import {attribute, h, text} from "../dom.js";
import {get, on} from "../store.js";

const WIDTH = 256;
const HEIGHT = 96;
const NAMES = ["luminance", "red", "green", "blue"];

class LumatieHistogram extends HTMLElement {
    #canvas = h("canvas", {width: WIDTH, height: HEIGHT, role: "img"});
    #clipped = h("p", {class: "clipped"});

    connectedCallback() {
        this.append(this.#canvas, h("p", {class: "title", text: "Histogram of the JPEG"}), this.#clipped);
        on(["histogram", "clipped"], ({histogram, clipped}) => {
            this.#draw(histogram);
            const words = clipped ? `White clips ${share(clipped[0])}, black ${share(clipped[1])}` : "";
            text(this.#clipped, words);
            attribute(this.#canvas, "aria-label", `Histogram of the JPEG. ${words}`);
        });
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.#draw(get().histogram));
    }

    /** @param {Uint32Array | null} counts */
    #draw(counts) {
        const context = this.#canvas.getContext("2d");
        context?.clearRect(0, 0, WIDTH, HEIGHT);
        if (!context || !counts) {
            return;
        }
        const style = getComputedStyle(this);
        // the two ends may tower above everything, so they do not set the height
        const most = Math.max(...counts.subarray(0, 256).slice(2, 254), 1) * 1.15;
        NAMES.forEach((name, channel) => {
            context.beginPath();
            context.moveTo(0, HEIGHT);
            for (let value = 0; value < 256; value += 1) {
                const part = Math.min(counts[channel * 256 + value] / most, 1);
                context.lineTo(value + 0.5, HEIGHT - part * HEIGHT);
            }
            context.lineTo(WIDTH, HEIGHT);
            const color = style.getPropertyValue(`--${name}`);
            if (channel === 0) {
                context.fillStyle = color;
                context.fill();
            } else {
                context.strokeStyle = color;
                context.stroke();
            }
        });
    }
}

/** @param {number} part */
function share(part) {
    const percent = part * 100;
    return percent > 0 && percent < 0.1 ? "under 0.1 %" : `${percent.toFixed(1)} %`;
}

customElements.define("lumatie-histogram", LumatieHistogram);
