/** Debian's Chromium and Firefox, and people who look at the page with them. */

import assert from "node:assert/strict";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

import { DEADLINE, puppeteer, until } from "./tools.mjs";

/** @typedef {import("puppeteer-core").Page} Page */
/** Whose page it is. @typedef {{ url: string, link(role: "operator" | "viewer"): string }} Station */
/** @typedef {{ left: number, top: number, width: number, height: number }} Box */

/** The engine that tests run in. @type {"chrome" | "firefox"} */
export const ENGINE = process.env.LUMATIE_PAGE_ENGINE === "firefox" ? "firefox" : "chrome";

const CHROMIUM = [
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    // Whoever asks for another host than this machine gets no answer, not even from a resolver.
    "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
];

/** Starts the engine with an empty profile; it ends, and the profile goes, with `close()`. */
export async function launch(engine = ENGINE) {
    const profile = mkdtempSync(join(tmpdir(), "lumatie-browser-"));
    const chromium = engine === "chrome";
    const browser = await puppeteer.launch({
        browser: engine,
        executablePath: chromium ? "/usr/bin/chromium" : "/usr/bin/firefox-esr",
        headless: true,
        userDataDir: profile,
        args: chromium ? CHROMIUM : [],
        timeout: 90000, // for the first start, whose files come from a slow disk
        protocolTimeout: 60000,
    });
    const clean = { recursive: true, force: true, maxRetries: 20, retryDelay: 50 };
    browser.process()?.once("exit", () => rmSync(profile, clean));
    return browser;
}

/** One person's browser: cookies of its own, one page of a station, and what went wrong in it. */
export class Visitor {
    /**
     * Opens the page as a link says and waits until it stands.
     * @param {import("puppeteer-core").Browser} browser @param {Station} station
     * @param {{ role?: "operator" | "viewer", link?: string, width?: number, height?: number,
     *     dark?: boolean, touch?: boolean }} options `link` is another one than the role's
     */
    static async open(browser, station, options = {}) {
        const context = await browser.createBrowserContext();
        const visitor = new Visitor(station, context, await context.newPage());
        await visitor.look(options);
        if (ENGINE === "chrome") {
            await visitor.weigh();
        }
        await visitor.go(options.link ?? station.link(options.role ?? "operator"));
        return visitor;
    }

    /**
     * @param {Station} station @param {import("puppeteer-core").BrowserContext} context
     * @param {Page} page
     */
    constructor(station, context, page) {
        this.station = station;
        this.context = context;
        this.page = page;
        /** Errors of the page's scripts, and what it wrote as errors. @type {string[]} */
        this.complaints = [];
        /** Bytes that came over the wire, but for pictures; Chromium tells them. */
        this.bytes = 0;
        /** Addresses that the page asked. @type {string[]} */
        this.asked = [];
        page.setDefaultTimeout(DEADLINE);
        page.on("pageerror", (error) => this.complaints.push(String(error)));
        page.on("console", (message) => {
            if (message.type() === "error") {
                this.complaints.push(`${message.text()} (${message.location().url})`);
            }
        });
        page.on("request", (request) => this.asked.push(request.url()));
    }

    /** @param {{ width?: number, height?: number, dark?: boolean, touch?: boolean }} options */
    async look({ width = 1280, height = 800, dark, touch = false }) {
        await this.page.setViewport({ width, height, hasTouch: touch, isMobile: touch });
        if (dark !== undefined) {
            const value = dark ? "dark" : "light";
            await this.page.emulateMediaFeatures([{ name: "prefers-color-scheme", value }]);
        }
    }

    /** Counts the bytes that come over the wire from now on. */
    async weigh() {
        const tools = await this.page.createCDPSession();
        /** @type {Set<string>} */
        const pictures = new Set();
        tools.on("Network.responseReceived", ({ requestId, response }) => {
            if (/\/api\/.*pictures\//.test(response.url)) {
                pictures.add(requestId);
            }
        });
        tools.on("Network.loadingFinished", ({ requestId, encodedDataLength }) => {
            this.bytes += pictures.has(requestId) ? 0 : encodedDataLength;
        });
        await tools.send("Network.enable");
    }

    /** @param {string} link */
    async go(link) {
        await this.page.goto(link, { waitUntil: "domcontentloaded" });
        await this.ready();
    }

    /** Waits until the first state stands. */
    async ready() {
        await this.page.waitForSelector("body[data-ready=yes]");
    }

    /** Waits until the picture of this number is painted. @param {number} n */
    async shown(n) {
        await this.page.waitForSelector(`lumatie-picture[data-shown="${n}"]`);
    }

    /** The control that a person calls so. @param {string} name @param {string} [role] */
    async control(name, role) {
        const selector = `::-p-aria([name="${name}"]${role ? `[role="${role}"]` : ""})`;
        const found = await this.page.waitForSelector(selector, { visible: true });
        return /** @type {import("puppeteer-core").ElementHandle<HTMLElement>} */ (found);
    }

    /** Clicks, or touches, the control that a person calls so. @param {string} name */
    async click(name, role = "button") {
        await (await this.control(name, role)).click();
    }

    /** Types a number into the field that a person calls so. @param {string} name @param {number} value */
    async fill(name, value) {
        const field = await this.control(name, "spinbutton");
        await field.evaluate((one) => /** @type {HTMLInputElement} */ (one).select());
        await field.type(String(value));
    }

    /** How many controls a person calls so. @param {string} name @param {string} [role] */
    async count(name, role) {
        return (await this.page.$$(`::-p-aria([name="${name}"]${role ? `[role="${role}"]` : ""})`))
            .length;
    }

    /** What the film strip holds, as it is read out, the newest last. @returns {Promise<string[]>} */
    strip() {
        return this.page.$$eval("[role=listbox] [role=option]", (all) =>
            all.map((one) => one.getAttribute("aria-label") ?? one.textContent ?? ""),
        );
    }

    /** All that stands on the page. */
    text() {
        return this.page.evaluate(() => document.body.innerText);
    }

    /** Waits until this stands on the page. @param {string | RegExp} text */
    async says(text) {
        await until(
            async () => {
                const all = await this.text();
                return typeof text === "string" ? all.includes(text) : text.test(all);
            },
            async () => `the page says ${text}; it says\n${await this.text()}`,
        );
    }

    /** Where an element is in the window. @param {string} selector @returns {Promise<Box>} */
    box(selector) {
        return this.page.$eval(selector, (element) => {
            const { left, top, width, height } = element.getBoundingClientRect();
            return { left, top, width, height };
        });
    }

    /**
     * The colours of points of the window, as [red, green, blue] each.
     * @param {number[][]} points [x, y] in pixels of CSS
     * @returns {Promise<number[][]>}
     */
    async colours(points) {
        // The part of the window that they lie in alone: less to be packed, sent and unpacked.
        const [left, top] = [0, 1].map((axis) => Math.floor(Math.min(...points.map((one) => one[axis]))));
        const [right, bottom] = [0, 1].map((axis) => Math.max(...points.map((one) => one[axis])) + 1);
        const image = await this.page.screenshot({
            encoding: "base64",
            captureBeyondViewport: false,
            clip: { x: left, y: top, width: Math.ceil(right - left), height: Math.ceil(bottom - top) },
        });
        return this.page.evaluate(
            async (data, wanted, width) => {
                const bytes = Uint8Array.from(atob(data), (letter) => letter.charCodeAt(0));
                const bitmap = await createImageBitmap(new Blob([bytes], { type: "image/png" }));
                const canvas = new OffscreenCanvas(bitmap.width, bitmap.height);
                const context = /** @type {OffscreenCanvasRenderingContext2D} */ (
                    canvas.getContext("2d")
                );
                context.drawImage(bitmap, 0, 0);
                const scale = bitmap.width / width;
                return wanted.map(([x, y]) =>
                    [...context.getImageData(x * scale, y * scale, 1, 1).data].slice(0, 3),
                );
            },
            image,
            points.map(([x, y]) => [x - left, y - top]),
            Math.ceil(right - left),
        );
    }

    /** Ends the visit; fails when a script failed or somebody else than the station was asked. */
    async leave() {
        await this.context.close();
        assert.deepEqual(this.complaints, []);
        const outside = this.asked.filter(
            (address) => !/^(data|blob|about):/.test(address) && !this.isOwn(address),
        );
        assert.deepEqual(outside, []);
    }

    /** @param {string} address */
    isOwn(address) {
        return new URL(address).host === new URL(this.station.url).host;
    }
}
