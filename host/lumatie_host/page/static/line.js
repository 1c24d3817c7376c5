// The socket: enters with the link's token, and comes back after a gap, a sleep or a restart.

import * as api from "./api.js";
import {patch} from "./store.js";

const SHORTEST = 500; // milliseconds between tries
const LONGEST = 10_000;
const SLEEP = 15_000; // a clock that stood still for longer was asleep

/**
 * What a page does with the line.
 * @typedef {object} Ends
 * @property {() => string} query of the socket's address
 * @property {(message: any) => void} hear
 * @property {() => Promise<void>} catchUp after a sleep the socket may be dead without knowing, or
 *     have missed something; it throws when nobody answers
 */

let token = "";
let tries = 0;
let entries = 0; // counts the tries to connect; one that is overtaken ends
/** @type {WebSocket | null} */
let socket = null;
/** @type {ReturnType<typeof setTimeout> | undefined} */
let timer;
/** @type {Ends} */
let ends;

/**
 * Enters, and stays connected from then on.
 * @param {Ends} page
 */
export function start(page) {
    ends = page;
    takeToken();
    void connect();
    addEventListener("hashchange", () => {
        takeToken();
        again(0);
    });
    addEventListener("online", () => void wake()); // a socket of before may be dead without knowing
    addEventListener("lumatie-role", () => void wake());
    document.addEventListener("visibilitychange", () => {
        if (!document.hidden) {
            void wake();
        }
    });
    let tick = Date.now();
    setInterval(() => {
        if (Date.now() - tick > SLEEP) {
            void wake();
        }
        tick = Date.now();
    }, 5000);
}

/** @param {object} message goes when there is somebody to take it */
export function send(message) {
    if (socket?.readyState === WebSocket.OPEN) {
        socket.send(JSON.stringify(message));
    }
}

/** Ends the socket, which comes back. */
export function drop() {
    socket?.close();
}

/** All is well: the next trouble is tried again soon. */
export function settle() {
    tries = 0;
    patch({line: "on"});
    document.body.dataset.ready = "yes";
}

/** The token leaves the address bar before anything else happens. */
function takeToken() {
    const found = /^#([0-9a-f]{32})$/i.exec(location.hash);
    if (found) {
        token = found[1];
        history.replaceState(null, "", location.pathname + location.search);
    }
}

async function connect() {
    clearTimeout(timer);
    entries += 1;
    const entry = entries;
    try {
        if (token) {
            const entered = token;
            await api.post("/api/enter", {}, entered);
            token = token === entered ? "" : token;
        }
    } catch (error) {
        if (entry === entries) {
            failed(error);
        }
        return;
    }
    if (entry !== entries) {
        return;
    }
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    const opened = new WebSocket(`${scheme}//${location.host}${api.base}live${ends.query()}`);
    socket = opened;
    opened.onmessage = (event) => {
        if (socket === opened) {
            ends.hear(JSON.parse(event.data));
        }
    };
    opened.onclose = () => {
        if (socket === opened) {
            socket = null;
            api.read("state").then(() => again(delay()), failed); // a socket does not say why
        }
    };
}

/** @param {unknown} error why there is no socket */
function failed(error) {
    if (!(error instanceof api.Failure)) {
        throw error;
    }
    if (error.status === 401) {
        token = "";
        patch({line: "refused"});
        tries = 4; // another tab may enter with a new link
    } else {
        patch({line: "off"});
    }
    again(delay());
}

function delay() {
    tries += 1;
    return Math.min(SHORTEST * 2 ** (tries - 1), LONGEST) * (0.7 + 0.6 * Math.random());
}

/** @param {number} milliseconds until the next try; a socket that is open stays, unless a new token came */
function again(milliseconds) {
    if (socket && !token) {
        return;
    }
    const old = socket;
    socket = null;
    old?.close();
    clearTimeout(timer);
    timer = setTimeout(() => void connect(), milliseconds);
}

async function wake() {
    if (!socket) {
        again(0);
        return;
    }
    try {
        await ends.catchUp();
    } catch {
        drop();
    }
}
