// <wall-stations>: every station with its newest picture, as large as all of them fit.

import {base} from "/static/api.js";
import {attribute, h, show, text} from "/static/dom.js";
import {pick} from "../actions.js";
import {get, may, on} from "../store.js";

/** @typedef {import("../types.js").Tile} Tile */

const NARROWEST = 150; // CSS pixels of a picture
const FOOT = 46; // and below it
const GAP = 8;
const SMALL = 512; // pixels of the preview that the desk has at once
const LARGE = 1024;
const SOFT = 1.3; // a preview that is enlarged by more is replaced by a larger one
const TRIES = 5;
const AGAIN = 1500; // milliseconds

/** One station. What is shown of a picture stays until the next one is decoded. */
class Card {
    #image = h("img", {alt: "", hidden: true});
    #blank = h("span", {class: "blank"});
    #words = h("span", {class: "words"});
    #count = h("span", {class: "count"});
    #name = h("strong");
    #box;
    #link;
    /** @type {Tile} */
    #tile;
    #wanted = "";
    #tries = 0;
    element;

    /** @param {Tile} tile */
    constructor(tile) {
        const name = tile.station;
        this.#tile = tile;
        this.#link = h("a", {href: `/stations/${encodeURIComponent(name)}/`, class: "look"}, this.#image, this.#blank);
        this.#box = h("input", {type: "checkbox", "aria-label": `Choose station ${name}`, onchange: () => pick(name)});
        text(this.#name, name);
        const label = h("label", {class: "name"}, this.#box, this.#name);
        const foot = h("div", {class: "foot"}, label, this.#words, this.#count);
        this.element = h("li", {class: "card", "data-station": name}, this.#link, foot);
    }

    focus() {
        this.#link.focus();
    }

    /** @param {boolean} isPicked */
    pickedIs(isPicked) {
        this.#box.checked = isPicked;
        attribute(this.element, "data-picked", isPicked);
    }

    /** @param {Tile} tile */
    update(tile) {
        this.#tile = tile;
        const {station, words, connection, asked, have, missing, online, advice} = tile;
        attribute(this.element, "data-state", connection);
        attribute(this.element, "data-missing", missing > 0);
        text(this.#words, words);
        attribute(this.#words, "title", advice || null);
        text(this.#count, asked ? `${have} of ${asked}` : "");
        attribute(this.#count, "title", asked ? `${have} of ${asked} shots have brought a picture` : null);
        show(this.#box, may("shoot"));
        this.#box.disabled = !online;
        const counts = asked ? `, ${have} of ${asked} pictures` : "";
        attribute(this.#link, "aria-label", `Station ${station}, ${words}${counts}`);
        attribute(this.#link, "title", tile.picture?.file ?? null);
        text(this.#blank, tile.picture ? "" : "No picture yet");
        void this.show();
    }

    /** A preview has come, or there is room for a larger one: the picture is tried again. */
    again() {
        this.#tries = 0;
        this.#wanted = "";
        void this.show();
    }

    /** The studio is heard again: a picture that did not come meanwhile is tried again. */
    heardAgain() {
        if (this.element.dataset.shown !== String(this.#tile.picture?.n)) {
            this.again();
        }
    }

    async show() {
        const {picture, station} = this.#tile;
        if (!picture) {
            return;
        }
        const side = this.element.clientWidth * devicePixelRatio;
        const width = side > SMALL * SOFT ? LARGE : SMALL;
        const of = (picture.sha256 ?? "").slice(0, 8);
        const path = `${base}stations/${encodeURIComponent(station)}/pictures/${picture.n}/preview`;
        const url = `${path}?w=${width}&of=${of}`;
        if (url === this.#wanted) {
            return;
        }
        this.#wanted = url;
        const image = new Image();
        image.alt = "";
        image.src = url;
        const isDecoded = await image.decode().then(
            () => true,
            () => false,
        );
        if (url !== this.#wanted) {
            return; // another one is wanted by now
        }
        if (isDecoded) {
            this.#tries = 0;
            this.#image.replaceWith(image);
            this.#image = image;
            attribute(this.element, "data-shown", picture.n);
            performance.mark(`shown-${station}-${picture.n}`);
        } else if (this.#tries < TRIES) {
            this.#tries += 1;
            this.#wanted = "";
            setTimeout(() => void this.show(), AGAIN * this.#tries);
        }
    }
}

export class WallStations extends HTMLElement {
    #list = h("ul", {"aria-label": "Stations"});
    #none = h("p", {class: "none", hidden: true});
    /** @type {Map<string, Card>} */
    #cards = new Map();
    /** @type {Map<string, Tile>} */
    #shown = new Map();

    connectedCallback() {
        this.append(this.#list, this.#none);
        new ResizeObserver(() => this.#arrange()).observe(this);
        on(["stations", "may"], ({stations}) => this.#update(stations));
        on(["picked"], ({picked}) => {
            for (const [name, card] of this.#cards) {
                card.pickedIs(picked.includes(name));
            }
        });
        on(["line"], ({line}) => {
            if (line === "on") {
                this.#cards.forEach((card) => card.heardAgain());
            }
        });
        on(["line", "stations"], ({line, stations}) => {
            show(this.#none, line !== "entering" && !stations.length);
            const isRefused = line === "refused";
            text(this.#none, isRefused ? "Open the link that the program printed last." : "Stations appear here as soon as they are at the broker.");
        });
        addEventListener("wall-preview", (event) => {
            this.#cards.get(/** @type {CustomEvent<string>} */ (event).detail)?.again();
        });
    }

    /** The name of the station that has the focus. @returns {string} */
    get focused() {
        const card = document.activeElement?.closest(".card");
        return card instanceof HTMLElement ? (card.dataset.station ?? "") : "";
    }

    /**
     * The focus goes to another station.
     * @param {number} x
     * @param {number} y rows
     */
    move(x, y) {
        const names = get().stations.map(({station}) => station);
        const at = names.indexOf(this.focused);
        const next = at < 0 ? 0 : at + x + y * this.#columns;
        const name = names[next];
        if (name !== undefined) {
            this.#cards.get(name)?.focus();
        }
    }

    #columns = 1;

    /** @param {Tile[]} stations in their order */
    #update(stations) {
        const names = new Set(stations.map(({station}) => station));
        for (const [name, card] of this.#cards) {
            if (!names.has(name)) {
                card.element.remove();
                this.#cards.delete(name);
                this.#shown.delete(name);
            }
        }
        const {picked} = get();
        stations.forEach((tile, index) => {
            let card = this.#cards.get(tile.station);
            if (!card) {
                card = new Card(tile);
                card.pickedIs(picked.includes(tile.station));
                this.#cards.set(tile.station, card);
            }
            if (this.#list.children[index] !== card.element) {
                this.#list.insertBefore(card.element, this.#list.children[index] ?? null);
            }
        });
        this.#arrange();
        for (const tile of stations) {
            if (this.#shown.get(tile.station) !== tile || this.#may !== may("shoot")) {
                this.#shown.set(tile.station, tile);
                this.#cards.get(tile.station)?.update(tile);
            }
        }
        this.#may = may("shoot");
    }

    #may = false;

    /** As few columns as let all stations be seen at once; too many of them are scrolled. */
    #arrange() {
        const count = this.#cards.size;
        const {clientWidth: width, clientHeight: height} = this;
        const most = Math.max(1, Math.floor((width + GAP) / (NARROWEST + GAP)));
        let columns = Math.min(most, Math.max(1, count));
        for (let tried = 1; tried <= most; tried += 1) {
            const side = (width - (tried + 1) * GAP) / tried;
            if (Math.ceil(count / tried) * ((side * 2) / 3 + FOOT + GAP) + GAP <= height) {
                columns = tried;
                break;
            }
        }
        if (columns !== this.#columns) {
            this.#columns = columns;
            this.#list.style.setProperty("--columns", String(columns));
            for (const card of this.#cards.values()) {
                void card.show();
            }
        }
    }
}

customElements.define("wall-stations", WallStations);
