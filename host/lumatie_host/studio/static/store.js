// What the wall knows beside what every page does.

import * as shared from "/static/store.js";

/** @typedef {import("./types.js").Known} Known */
/** @typedef {import("./types.js").Tile} Tile */

shared.extend({
    studio: "",
    broker: true,
    to_collect: 0,
    collected: 0,
    shooting: false,
    release: null,
    stations: [],
    picked: [],
});

export const get = /** @type {() => Readonly<Known>} */ (/** @type {unknown} */ (shared.get));

export const patch = /** @type {(changes: Partial<Known>) => void} */ (shared.patch);

export const on =
    /** @type {(keys: (keyof Known)[], changed: (known: Readonly<Known>) => void) => void} */ (
        /** @type {unknown} */ (shared.on)
    );

export const {may, notify} = shared;

/**
 * Takes stations as they are now; their order is that of their names, numbers by their value.
 * @param {Tile[]} tiles
 * @param {boolean} areAll whether there are no others
 */
export function put(tiles, areAll) {
    const known = new Map((areAll ? [] : get().stations).map((tile) => [tile.station, tile]));
    for (const tile of tiles) {
        known.set(tile.station, tile);
    }
    const stations = [...known.values()].sort(
        (one, other) => Number(hasLeft(one)) - Number(hasLeft(other)) || order.compare(one.station, other.station),
    );
    const names = new Set(stations.filter(({online}) => online).map(({station}) => station));
    const picked = get().picked.filter((name) => names.has(name));
    patch({stations, ...(picked.length < get().picked.length ? {picked} : {})});
}

const order = new Intl.Collator("en", {numeric: true});

/** @param {Tile} tile */
export function hasLeft(tile) {
    return tile.connection === "left";
}

/**
 * What a shot or a tag is for: the stations that were chosen, or all that are there.
 * @returns {{names: string[], areAll: boolean}}
 */
export function meant() {
    const {picked, stations} = get();
    const names = stations.filter(({online}) => online).map(({station}) => station);
    return picked.length ? {names: picked, areAll: false} : {names, areAll: true};
}
