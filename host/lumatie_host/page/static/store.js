// What the page knows. Everything that is shown comes from here and changes in place.

/** @typedef {import("./types.js").Known} Known */
/** @typedef {import("./types.js").Notice} Notice */

/** @type {Known} */
const known = {
    n: 0,
    role: "viewer",
    may: [],
    camera: "",
    maker: "",
    connection: "waiting",
    words: "",
    advice: "",
    error: null,
    folder: null,
    job: "",
    station: "",
    tag: "",
    next_name: "",
    settings: [],
    picture: null,
    pictures: 0,
    shots: 0,
    ratings: {},
    alarms: [],
    copy: null,
    disk: null,
    sequence: null,
    viewers: 0,
    offer: null,
    absent: [],
    line: "entering",
    follow: true,
    armed: false,
    busy: false,
    compare: false,
    clipping: false,
    chosen: "",
    pinned: "",
    setting: "shutter",
    histogram: null,
    clipped: null,
};

/** @type {{keys: (keyof Known)[], changed: (known: Readonly<Known>) => void}[]} */
const listeners = [];
/** @type {Set<string>} */
const different = new Set();

/** @returns {Readonly<Known>} */
export function get() {
    return known;
}

/**
 * Adds what another page knows beside that.
 * @param {object} more
 */
export function extend(more) {
    Object.assign(known, more);
}

/**
 * Takes what has become different; who listens to it is told once, soon, in order.
 * Names that the page does not know are passed over.
 * @param {Partial<Known>} changes
 */
export function patch(changes) {
    for (const [name, value] of Object.entries(changes)) {
        const key = /** @type {keyof Known} */ (name);
        if (!(key in known) || value === undefined || known[key] === value) {
            continue;
        }
        if (different.size === 0) {
            queueMicrotask(tell);
        }
        different.add(key);
        /** @type {Record<string, unknown>} */ (known)[key] = value;
    }
}

/**
 * Calls at once, and after each change of one of these.
 * @param {(keyof Known)[]} keys
 * @param {(known: Readonly<Known>) => void} changed
 */
export function on(keys, changed) {
    listeners.push({keys, changed});
    changed(known);
}

/** @param {string} what one of State.may */
export function may(what) {
    return known.may.includes(what);
}

function tell() {
    const keys = new Set(different);
    different.clear();
    for (const listener of listeners) {
        if (listener.keys.some((key) => keys.has(key))) {
            try {
                listener.changed(known);
            } catch (error) {
                reportError(error); // one element's trouble is not the others'
            }
        }
    }
}

/** @param {Notice} notice one line for the person at this page; `lumatie-notices` shows it */
export function notify(notice) {
    dispatchEvent(new CustomEvent("lumatie-notice", {detail: notice}));
}
