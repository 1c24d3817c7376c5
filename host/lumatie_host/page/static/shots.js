// The shots of this folder, oldest first: RAW and JPEG of one shot are one.

import {get, patch} from "./store.js";

/** @typedef {import("./types.js").Picture} Picture */
/** @typedef {import("./types.js").LedgerRecord} LedgerRecord */

/**
 * @typedef {object} Shot
 * @property {string} key
 * @property {number} n of its first record
 * @property {Picture[]} pictures
 * @property {Picture} shown the one to look at: the JPEG where there is one
 * @property {number} rating
 */

export const MOST = 3000; // older ones are in the folder

/** @type {Shot[]} */
let shots = [];
/** @type {Map<string, Shot>} */
let byKey = new Map();
/** @type {Map<string, Shot>} */
let byFile = new Map();
/** @type {Map<string, number>} */
let ratings = new Map();

/** Tells "added", "older", "changed" (detail: the shot) and "cleared". */
export const news = new EventTarget();

/**
 * @param {string} type
 * @param {Shot | null} shot
 */
function tell(type, shot) {
    news.dispatchEvent(new CustomEvent(type, {detail: shot}));
}

export function all() {
    return shots;
}

/** @param {string} key */
export function find(key) {
    return byKey.get(key) ?? null;
}

export function newest() {
    return shots.length ? shots[shots.length - 1] : null;
}

/**
 * The shot `steps` after another; the ends are the last.
 * @param {string} key
 * @param {number} steps
 */
export function beside(key, steps) {
    const at = shots.findIndex((shot) => shot.key === key);
    const index = Math.min(Math.max((at < 0 ? shots.length - 1 : at) + steps, 0), shots.length - 1);
    return shots[index] ?? null;
}

export function clear() {
    shots = [];
    byKey = new Map();
    byFile = new Map();
    ratings = new Map();
    patch({chosen: "", pinned: ""});
    tell("cleared", null);
}

/**
 * Records of pictures and ratings that came before those that are known.
 * @param {LedgerRecord[]} records in their order
 */
export function addOlder(records) {
    for (const record of records.reverse()) {
        if (record.kind === "rated" && record.file && !ratings.has(record.file)) {
            rate(record.file, record.rating ?? 0);
        } else if (record.kind === "picture") {
            add(/** @type {Picture} */ (/** @type {unknown} */ (record)));
        }
    }
}

/** @param {Picture} picture */
export function add(picture) {
    if (byFile.has(picture.file)) {
        return;
    }
    const pair = `${picture.session ?? ""}:${picture.shot}`;
    const partner = picture.shot ? byKey.get(pair) : undefined;
    const isPartner = partner?.pictures.every((other) => other.format !== picture.format);
    if (partner && isPartner) {
        partner.pictures.push(picture);
        partner.n = Math.min(partner.n, picture.n);
        partner.shown = best(partner.pictures);
        partner.rating ||= ratings.get(picture.file) ?? 0;
        byFile.set(picture.file, partner);
        tell("changed", partner);
        return;
    }
    const key = picture.shot && !partner ? pair : `n${picture.n}`;
    const rating = ratings.get(picture.file) ?? get().ratings[picture.file]?.rating ?? 0;
    const shot = {key, n: picture.n, pictures: [picture], shown: picture, rating};
    byKey.set(key, shot);
    byFile.set(picture.file, shot);
    if (!shots.length || shot.n > shots[shots.length - 1].n) {
        shots.push(shot);
        tell("added", shot);
    } else {
        shots.unshift(shot);
        tell("older", shot);
    }
}

/**
 * @param {string} file
 * @param {number} rating
 */
export function rate(file, rating) {
    ratings.set(file, rating);
    const shot = byFile.get(file);
    if (shot && shot.rating !== rating) {
        shot.rating = rating;
        tell("changed", shot);
    }
}

/** @param {Picture[]} pictures */
function best(pictures) {
    return pictures.find((picture) => picture.format === "JPEG") ?? pictures[0];
}

/**
 * What a person calls it.
 * @param {Shot} shot
 */
export function nameOf(shot) {
    const names = shot.pictures.map((picture) => picture.file);
    const name = shot.shown.file.replace(/^.*\//, "");
    return names.length > 1 ? name.replace(/\.[^.]*$/, "") + " (RAW + JPEG)" : name;
}

/** @param {number} rating */
export function starsOf(rating) {
    return rating === 1 ? "1 star" : `${rating || "no"} stars`;
}
