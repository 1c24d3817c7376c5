// Hears how the stations stand. Whoever connects gets all of it, so nothing is to be caught up.

import * as api from "/static/api.js";
import * as line from "/static/line.js";
import {patch, put} from "./store.js";

export function start() {
    line.start({
        query: () => "",
        hear,
        async catchUp() {
            takeState(await api.read("state"));
        },
    });
}

/** @param {any} message */
function hear(message) {
    switch (message.kind) {
        case "state":
            takeState(message);
            break;
        case "station":
            put([message.station], false);
            break;
        case "status":
        case "alarms":
            takeStatus(message);
            break;
        case "preview":
            dispatchEvent(new CustomEvent("wall-preview", {detail: message.station}));
            break;
    }
}

/** @param {any} state */
function takeState({stations, ...state}) {
    put(stations, true);
    takeStatus(state);
    line.settle();
}

/** @param {any} state */
function takeStatus({kind, v, n, line: _, ...state}) {
    patch(state);
}
