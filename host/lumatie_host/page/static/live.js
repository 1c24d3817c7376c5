// Hears what happens, and catches up with the ledger after a gap, a sleep or a restart.

import * as api from "./api.js";
import * as line from "./line.js";
import * as shots from "./shots.js";
import {get, patch} from "./store.js";

/** @typedef {import("./types.js").LedgerRecord} LedgerRecord */
/** @typedef {import("./types.js").Picture} Picture */
/** @typedef {import("./types.js").State} State */

const RECENT = 600; // records that are read first
const CHUNK = 4000; // and those before them, at a time

let seen = 0; // the last record that was taken in
let known = 0; // the last record that was heard of
let folder = 0; // counts the folders that this page has shown
let place = ""; // of the folder that is shown
let isFilling = false;

/** Hears of everything from now on. */
export function start() {
    line.start({query: () => (seen ? `?since=${seen}` : ""), hear, catchUp});
}

async function catchUp() {
    line.send({since: seen});
    const state = await api.read("state");
    takeState(state);
    setTimeout(() => {
        if (seen < state.n && !isFilling) {
            line.drop();
        }
    }, 2000);
}

/** @param {any} message */
function hear(message) {
    switch (message.kind) {
        case "state":
            takeState(message);
            break;
        case "status":
            takeStatus(message);
            reach(message.n);
            break;
        case "lagged":
            reach(message.last);
            break;
        case "preview":
            dispatchEvent(new CustomEvent("lumatie-preview", {detail: message.n}));
            break;
        default:
            if (message.n === seen + 1) {
                take(message);
            } else {
                reach(message.n);
            }
    }
}

/** @param {State} state */
function takeState(state) {
    const isNew = !seen || state.n < seen || (state.folder ?? "") !== place;
    place = state.folder ?? "";
    takeStatus(state);
    line.settle();
    if (!isNew) {
        setTimeout(() => reach(state.n), 1000); // unless the socket brings them
        return;
    }
    if (seen) {
        shots.clear();
    }
    folder += 1;
    seen = known = state.n;
    if (state.picture) {
        shots.add(state.picture);
    }
    void readOlder(folder, state.n);
}

/** @param {any} state all of it, or what has become different */
function takeStatus(state) {
    const {kind, v, n, line: _, ...rest} = state;
    patch(rest);
}

/**
 * The strip's pictures from the ledger, newest first.
 * @param {number} of which folder
 * @param {number} end number of the last record
 */
async function readOlder(of, end) {
    let size = RECENT;
    while (end > 0 && shots.all().length < shots.MOST) {
        const since = Math.max(0, end - size);
        const records = await api.read(`ledger?since=${since}&limit=${end - since}`).catch(() => null);
        if (of !== folder) {
            return;
        }
        if (records === null) {
            await new Promise((resolve) => setTimeout(resolve, 3000));
            continue;
        }
        shots.addOlder(records.filter((/** @type {LedgerRecord} */ record) => record.n <= end));
        document.body.dataset.strip = "yes";
        end = since;
        size = CHUNK;
    }
}

/** @param {number} n a record that exists: all up to it are taken in */
function reach(n) {
    known = Math.max(known, n || 0);
    if (known > seen && !isFilling) {
        void fill();
    }
}

async function fill() {
    isFilling = true;
    const of = folder;
    try {
        while (seen < known && of === folder) {
            const records = await api.read(`ledger?since=${seen}`);
            if (!records.length) {
                break;
            }
            for (const record of records) {
                if (record.n > seen && of === folder) {
                    take(record);
                }
            }
        }
    } catch {
        // the next message, or the next connection, tries again
    } finally {
        isFilling = false;
    }
}

/** @param {LedgerRecord} record the one after the last */
function take(record) {
    seen = record.n;
    known = Math.max(known, seen);
    const state = get();
    switch (record.kind) {
        case "setting":
            takeSetting(record);
            break;
        case "picture": {
            const picture = /** @type {Picture} */ (/** @type {unknown} */ (record));
            shots.add(picture);
            patch({picture, pictures: state.pictures + 1});
            break;
        }
        case "rated":
            shots.rate(record.file ?? "", record.rating ?? 0);
            break;
        case "failed":
        case "alarm":
            patch({alarms: [...state.alarms, record].slice(-20)});
            break;
    }
}

/** @param {LedgerRecord} record */
function takeSetting({name = "", text = "", allowed = [], settable = false}) {
    const settings = get().settings.slice();
    const at = settings.findIndex((setting) => setting.name === name);
    const setting = {...settings[at], name, text, allowed, settable};
    settings.splice(at < 0 ? settings.length : at, 1, setting);
    patch({settings});
    if (new Set(allowed).size < allowed.length) {
        // records have texts alone, and one that stands twice needs its key
        api.read("state").then(takeStatus, () => {});
    }
}
