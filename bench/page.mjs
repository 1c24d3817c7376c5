/**
 * Measures the page, in Chromium and with clients that only listen: page.mjs OUTPUT [--short].
 * OUTPUT gets { road: { samples, floor } }, seconds or bytes; page.py says what the roads are.
 */

import assert from "node:assert/strict";
import { execFileSync, spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, readFileSync, statSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";

import { Visitor, launch } from "../tests/page/browsers.mjs";
import { Station } from "../tests/page/station.mjs";
import { WebSocket, until } from "../tests/page/tools.mjs";

const [output, form] = process.argv.slice(2);
const SHORT = form === "--short";
const PYTHON = process.env.LUMATIE_PAGE_PYTHON ?? "python3";

/** @type {{ [road: string]: { samples: number[], floor: number[] } }} */
const found = {};

/** @param {string} road @param {number[]} samples @param {number[]} floor */
function add(road, samples, floor = []) {
    found[road] = { samples, floor };
}

/** A viewer that is a program: hears of each picture and fetches its preview. */
class Listener {
    /** @param {Station} station @param {{ stalls?: boolean }} options one that stalls reads nothing */
    static async start(station, { stalls = false } = {}) {
        const listener = new Listener(station);
        await new Promise((resolve, reject) => {
            listener.socket.once("open", resolve);
            listener.socket.once("error", reject);
        });
        if (stalls) {
            listener.socket.pause();
        }
        return listener;
    }

    /** @param {Station} station */
    constructor(station) {
        const headers = { Authorization: `Bearer ${station.token("viewer")}` };
        /** When the preview of each picture was there, in milliseconds since 1970. */
        this.had = new Map();
        this.socket = new WebSocket(new URL("/api/live", station.url.replace("http", "ws")), {
            headers,
        });
        this.socket.on("message", async (/** @type {Buffer} */ data) => {
            const { kind, n } = JSON.parse(String(data));
            if (kind === "picture") {
                const path = `/api/pictures/${n}/preview?w=2048`;
                const answer = await fetch(new URL(path, station.url), { headers });
                assert.equal(answer.status, 200);
                await answer.arrayBuffer();
                this.had.set(n, now());
            }
        });
    }

    stop() {
        this.socket.terminate();
    }
}

/** Starts viewers that do not keep this program busy; returns what ends them. */
async function beginViewers(/** @type {Station} */ station, /** @type {number} */ count) {
    const program = fileURLToPath(new URL("viewers.mjs", import.meta.url));
    const command = [program, station.url, station.token("viewer"), String(count)];
    const viewers = spawn(process.execPath, command, { stdio: ["pipe", "pipe", "inherit"] });
    const ended = once(viewers, "exit");
    await Promise.race([once(viewers.stdout, "data"), ended]);
    return async () => {
        viewers.stdin.end();
        assert.deepEqual(await ended, [0, null]);
    };
}

/** Milliseconds since 1970, to the microsecond. */
const now = () => performance.timeOrigin + performance.now();

/** A JPEG with a comment behind its first segments: the same picture, another file. */
function commented(/** @type {Buffer} */ jpeg, /** @type {number} */ number) {
    let at = 2;
    while (jpeg[at] === 0xff && jpeg[at + 1] >= 0xe0 && jpeg[at + 1] <= 0xef) {
        at += 2 + jpeg.readUInt16BE(at + 2);
    }
    const text = Buffer.from(`picture ${String(number).padStart(6, "0")}`);
    const head = Buffer.from([0xff, 0xfe, 0, text.length + 2]);
    return Buffer.concat([jpeg.subarray(0, at), head, text, jpeg.subarray(at)]);
}

/** Has the camera deliver files of one picture of 45 megapixels, each with a hash of its own. */
async function deliverBigPictures(/** @type {Station} */ station, /** @type {number} */ count) {
    await station.steer("configure", "picture.full_size = 1");
    const { file } = await station.press();
    const jpeg = readFileSync(join(station.folder, file));
    const folder = mkdtempSync(join(station.base, "big-"));
    for (let number = 0; number < count; number++) {
        writeFileSync(
            join(folder, `${String(number).padStart(5, "0")}.jpg`),
            commented(jpeg, number),
        );
    }
    await station.steer("configure", `picture.folder = ${folder}`);
}

/** When a mark was set in the page, in milliseconds since 1970. */
async function marked(/** @type {Visitor} */ visitor, /** @type {string} */ name) {
    const at = () =>
        visitor.page.evaluate((wanted) => {
            const [mark] = performance.getEntriesByName(wanted);
            return mark && performance.timeOrigin + mark.startTime;
        }, name);
    return until(at, `the mark ${name}`);
}

async function measurePictures(/** @type {import("puppeteer-core").Browser} */ browser) {
    const [count, together] = SHORT ? [4, 2] : [100, 30];
    const station = await Station.start();
    await station.open();
    await deliverBigPictures(station, count + together);
    const operator = await Visitor.open(browser, station);
    /** @type {number[][]} */
    const [recorded, painted, histogram, decoded] = [[], [], [], []];
    for (let number = 0; number < count; number++) {
        const picture = await station.press();
        const path = join(station.folder, picture.file);
        await operator.shown(picture.n);
        const shown = await marked(operator, `shown-${picture.n}`);
        const whole = statSync(path).mtimeMs;
        recorded.push((Date.parse(picture.time) - whole) / 1000);
        painted.push((shown - whole) / 1000);
        const counted = await marked(operator, `histogram-${picture.n}`);
        histogram.push(Math.max(counted - shown, 0) / 1000);
        decoded.push(await station.steer("decode", path));
    }
    add("page_painted", painted, decoded);
    add("page_recorded", recorded);
    add("page_histogram", histogram);

    /** @type {Listener[]} */
    const listeners = [];
    for (let number = 0; number < 9; number++) {
        listeners.push(await Listener.start(station));
    }
    const stalled = await Listener.start(station, { stalls: true });
    const last = [];
    for (let number = 0; number < together; number++) {
        const { n, file } = await station.press();
        const whole = statSync(join(station.folder, file)).mtimeMs;
        await operator.shown(n);
        await until(() => listeners.every((one) => one.had.has(n)), "nine previews");
        const ends = listeners.map((one) => one.had.get(n));
        last.push((Math.max(await marked(operator, `shown-${n}`), ...ends) - whole) / 1000);
    }
    add("page_ten_viewers", last);
    [...listeners, stalled].forEach((one) => one.stop());
    await operator.leave();
    await station.stop();
}

async function measureStarts() {
    /** @type {number[][]} */
    const [starts, floor] = [[], []];
    for (let number = 0; number < (SHORT ? 1 : 10); number++) {
        const begin = now();
        execFileSync(PYTHON, ["-c", "import aiohttp.web"]);
        floor.push((now() - begin) / 1000);
        const from = now();
        const station = await Station.start();
        const answer = await fetch(station.url);
        assert.equal(answer.status, 200);
        await answer.text();
        starts.push((now() - from) / 1000);
        await station.stop();
    }
    add("page_start", starts, floor);
}

async function measureIdleViewers(/** @type {Station} */ station) {
    const endViewers = await beginViewers(station, 50);
    await sleep(SHORT ? 300 : 1000); // what the beginning of fifty visits leaves to do
    const shares = [];
    for (let number = 0; number < (SHORT ? 1 : 6); number++) {
        const [used, begin] = [await station.steer("processor_seconds"), now()];
        await sleep(SHORT ? 1000 : 10000);
        const more = (await station.steer("processor_seconds")) - used;
        shares.push(more / ((now() - begin) / 1000));
    }
    add("page_idle_viewers", shares);
    await endViewers();
}

/**
 * Shots with and without viewers take turns, so that both have the same neighbours.
 * @param {Station} station @param {string} road @param {number} lag of the shutter, in milliseconds
 */
async function measureShots(station, road, lag) {
    await station.steer("configure", `shutter.lag_ms = ${lag}`);
    /** @type {number[][]} */
    const [beside, alone] = [[], []];
    const shoot = async (/** @type {number[]} */ times) => {
        for (let number = 0; number < (SHORT ? 5 : 20); number++) {
            const begin = now();
            const answer = await station.call("/api/shoot", {});
            assert.equal(answer.status, 200, JSON.stringify(answer.body));
            times.push((now() - begin) / 1000);
        }
    };
    await shoot([]);
    for (let turn = 0; turn < (SHORT ? 2 : 10); turn++) {
        await shoot(alone);
        const endViewers = await beginViewers(station, 10);
        await shoot(beside);
        await endViewers();
    }
    add(road, beside, alone);
}

/** @param {import("puppeteer-core").Browser} browser @param {Station} station */
async function measureFirstLoad(browser, station) {
    const visitor = await Visitor.open(browser, station);
    await visitor.page.waitForNetworkIdle({ concurrency: 1 });
    add("page_first_load", [visitor.bytes]);
    await visitor.leave();
}

const browser = await launch("chrome");
const station = await Station.start();
await station.open();
await measureFirstLoad(browser, station);
await measureIdleViewers(station);
await measureShots(station, "page_shots", 250);
await measureShots(station, "page_quick_shots", 5);
await station.stop();
await measurePictures(browser);
await browser.close();
await measureStarts();
writeFileSync(output, JSON.stringify(found));
