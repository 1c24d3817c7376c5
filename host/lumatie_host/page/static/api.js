// The server's HTTP interface.

import {notify} from "./store.js";

/** @typedef {import("./types.js").Picture} Picture */

const shown = /^\/stations\/([^/]+)\//.exec(location.pathname);

/** The station of a studio that this page shows; empty: it is the camera's own page. */
export const station = shown ? decodeURIComponent(shown[1]) : "";

/** Where what this page shows is asked for. */
export const base = shown ? `/api${shown[0]}` : "/api/";

/** An answer that is an error: what is wrong, and what to do. */
export class Failure extends Error {
    /**
     * @param {number} status 0 when nobody answered
     * @param {string} message
     * @param {string} advice
     */
    constructor(status, message, advice) {
        super(message);
        this.status = status;
        this.advice = advice;
    }
}

/**
 * @param {string} path below the page's own part of the interface, or from "/" on
 * @param {RequestInit} [options]
 * @returns {Promise<any>}
 * @throws {Failure}
 */
async function ask(path, options) {
    let response;
    try {
        response = await fetch(path.startsWith("/") ? path : base + path, {cache: "no-store", ...options});
    } catch {
        throw new Failure(
            0,
            "The program on the computer does not answer.",
            "Look whether it still runs, and whether this device is in its network.",
        );
    }
    const answer = await response.json().catch(() => ({}));
    if (!response.ok) {
        const error = answer.error || `The program answered with ${response.status}.`;
        throw new Failure(response.status, sentence(error), answer.advice || "");
    }
    return answer;
}

/** @param {string} path */
export function read(path) {
    return ask(path);
}

/**
 * @param {string} path
 * @param {object} body
 * @param {string} [token]
 */
export function post(path, body, token) {
    /** @type {Record<string, string>} */
    const headers = {"Content-Type": "application/json"};
    if (token) {
        headers.Authorization = "Bearer " + token;
    }
    return ask(path, {method: "POST", headers, body: JSON.stringify(body)});
}

/**
 * Asks for something to be done; says what is wrong when it is not.
 * @param {string} path
 * @param {object} body
 * @returns {Promise<any>} the answer; null when it failed
 */
export async function act(path, body) {
    try {
        return await post(path, body);
    } catch (error) {
        if (!(error instanceof Failure)) {
            throw error;
        }
        if (error.status === 403) {
            dispatchEvent(new Event("lumatie-role")); // another link was opened in this browser
        }
        notify({text: error.message, advice: error.advice});
        return null;
    }
}

/**
 * @param {Picture} picture
 * @param {number} width
 */
export function previewOf(picture, width) {
    return `${base}pictures/${picture.n}/preview?w=${width}&of=${hashOf(picture)}`;
}

/** @param {Picture} picture */
export function originalOf(picture) {
    return `${base}pictures/${picture.n}?of=${hashOf(picture)}`;
}

/**
 * What the server passes over: browsers keep a picture for ever, and numbers begin anew in each folder.
 * @param {Picture} picture
 */
function hashOf({sha256 = ""}) {
    return sha256.slice(0, 8);
}

/** @param {string} text errors begin small */
export function sentence(text) {
    const big = text.charAt(0).toUpperCase() + text.slice(1);
    return /[.!?]$/.test(big) ? big : big + ".";
}
