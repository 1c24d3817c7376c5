// What a person can have done, by a control or a key.

import {act} from "./api.js";
import * as shots from "./shots.js";
import {get, may, patch} from "./store.js";

/** @typedef {import("./types.js").Setting} Setting */

export async function shoot() {
    if (!canShoot() || get().busy) {
        return;
    }
    patch({busy: true});
    await act("shoot", {});
    patch({busy: false});
}

export function canShoot() {
    return may("shoot") && canReach() && !get().sequence?.running;
}

/** Whether the camera, and the server, may be asked for something. */
export function canReach() {
    const {line, connection} = get();
    return line === "on" && (connection === "open" || connection === "silent");
}

/** Whether there is a session, which a camera that is away has, too. */
export function canRate() {
    const {line, connection} = get();
    return may("rate") && line === "on" && !["waiting", "opening", "closed"].includes(connection);
}

/** @type {Map<string, number>} what was chosen and is not confirmed: name to place in the list */
const wanted = new Map();
/** @type {Set<string>} */
const asked = new Set();

/**
 * The place of a setting's value in its list, or of the one that was asked for; -1: not in it.
 * @param {Setting} setting
 */
export function placeOf(setting) {
    return wanted.get(setting.name) ?? setting.allowed.indexOf(setting.text);
}

/** @param {string} name */
export function isWanted(name) {
    return wanted.has(name);
}

/**
 * Sets a setting; while the camera is being asked, the last of several wins.
 * @param {string} name
 * @param {number} place in the list of what is allowed
 */
export async function set(name, place) {
    wanted.set(name, place);
    changed();
    if (asked.has(name)) {
        return;
    }
    asked.add(name);
    let sent = place;
    let answer = await act("set", request(name, sent));
    while (answer && wanted.get(name) !== sent) {
        sent = wanted.get(name) ?? sent;
        answer = await act("set", request(name, sent));
    }
    confirm(name, answer?.text);
    asked.delete(name);
    wanted.delete(name);
    changed();
}

/**
 * @param {string} name
 * @param {number} place
 */
function request(name, place) {
    const setting = get().settings.find((other) => other.name === name);
    const text = setting?.allowed[place] ?? "";
    const isDouble = (setting?.allowed.filter((other) => other === text).length ?? 0) > 1;
    const choice = setting?.choices?.[place];
    return isDouble && choice?.text === text ? {name, key: choice.key} : {name, text};
}

/**
 * @param {string} name
 * @param {string | undefined} text
 */
function confirm(name, text) {
    if (text !== undefined) {
        patch({
            settings: get().settings.map((setting) =>
                setting.name === name ? {...setting, text} : setting,
            ),
        });
    }
}

function changed() {
    patch({settings: get().settings.slice()});
}

/** @param {number} steps the chosen setting goes along its list */
export function step(steps) {
    const setting = get().settings.find((other) => other.name === get().setting);
    if (!setting?.settable || !may("set") || !canReach()) {
        return;
    }
    const place = placeOf(setting) + steps;
    if (place >= 0 && place < setting.allowed.length) {
        void set(setting.name, place);
    }
}

/** @param {number} steps another setting becomes the chosen one */
export function stepSetting(steps) {
    const names = get().settings.filter((setting) => setting.settable).map(({name}) => name);
    const at = names.indexOf(get().setting) + steps;
    patch({setting: names[(at + names.length) % names.length] ?? get().setting});
}

/** @param {number} rating of the picture that is shown */
export async function rate(rating) {
    const shot = shots.find(get().chosen);
    if (!shot || !canRate()) {
        return;
    }
    const before = shot.rating;
    shots.rate(shot.shown.file, rating); // at once; back when it fails
    if (!(await act("rate", {n: shot.shown.n, rating}))) {
        shots.rate(shot.shown.file, before);
    }
}

/** @param {string} key of the shot to look at */
export function choose(key) {
    patch({chosen: key, follow: get().follow && key === shots.newest()?.key});
}

/** @param {number} steps to older or newer shots */
export function chooseBeside(steps) {
    const shot = shots.beside(get().chosen, steps);
    if (shot) {
        choose(shot.key);
    }
}

/** @param {boolean} follow the newest picture is shown */
export function follow(follow) {
    patch({follow, chosen: (follow && shots.newest()?.key) || get().chosen});
}

export function compare() {
    const {compare, chosen} = get();
    patch({compare: !compare, pinned: compare ? "" : chosen});
}

shots.news.addEventListener("added", () => {
    const newest = shots.newest();
    if (newest && (get().follow || !get().chosen)) {
        patch({chosen: newest.key});
    }
});
