/** What lies in build/tools/node and in the build tree, and waiting for what nobody announces. */

import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join, resolve } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";

export const REPOSITORY = resolve(fileURLToPath(import.meta.url), "../../..");
export const BUILD = resolve(REPOSITORY, process.env.LUMATIE_BUILD_DIR ?? "build/linux");
export const RESULTS = join(REPOSITORY, "build/results/page");

/** Whether the long forms of the tests are asked for. */
export const LONG = Boolean(process.env.LUMATIE_PAGE_LONG);

const require = createRequire(join(REPOSITORY, "build/tools/node/package.json"));

/** @type {typeof import("puppeteer-core")} */
export const puppeteer = require("puppeteer-core");

/** A socket for programs. @type {any} */
export const { WebSocket } = require("ws");

/** Reads a QR code: its bytes as [red, green, blue, alpha], width, height. @type {any} */
export const readCode = require("jsqr");

/** The source of axe-core, to be run in a page. */
export const axeSource = readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");

/** Long enough for a loaded machine; only a failing test ever waits for it. */
export const DEADLINE = 60000;

/**
 * Asks until the answer is truthy, and returns it; fails when time runs out.
 * @template T
 * @param {() => T | Promise<T>} ask
 * @param {string | (() => string | Promise<string>)} what what did not come true
 * @returns {Promise<Exclude<T, false | null | undefined | 0 | "">>}
 */
export async function until(ask, what, deadline = DEADLINE) {
    const end = Date.now() + deadline;
    for (;;) {
        const answer = await ask();
        if (answer) {
            return /** @type {any} */ (answer);
        }
        if (Date.now() > end) {
            const text = typeof what === "string" ? what : await what();
            throw new Error(`not within ${deadline / 1000} s: ${text}`);
        }
        await sleep(5);
    }
}
