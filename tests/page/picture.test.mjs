/** The picture itself, held against the pixels that are seen. */

import assert from "node:assert/strict";
import { after, afterEach, before, test } from "node:test";

import { Visitor, launch } from "./browsers.mjs";
import { Station, stopAll } from "./station.mjs";
import { LONG, until } from "./tools.mjs";

/** @typedef {import("./station.mjs").Json} Json */

/** @type {import("puppeteer-core").Browser} */
let browser;
/** @type {Station} */
let station;
before(async () => {
    browser = await launch();
    station = await Station.start();
    await station.open();
});
afterEach(() => station.steer("configure", "picture.folder ="));
after(async () => {
    await browser?.close();
    await stopAll();
});

const RED = "#e00000";
const BLUE = "#0000e0";

/** A big grey picture with one coloured box in it. @param {string} colour */
function boxed(colour) {
    return {
        width: 2400,
        height: 1600,
        background: "#707070",
        boxes: [[1504, 1000, 1560, 1040, colour]],
    };
}

/**
 * Waits until the picture is shown with its own pixels, not with those of its preview.
 * @param {Visitor} visitor @param {number} n
 */
async function sharp(visitor, n) {
    await visitor.shown(n);
    await visitor.page.waitForSelector(`lumatie-picture [data-sharp="${n}"]`);
}

/** @param {number[]} colour */
const word = ([red, green, blue]) =>
    red > 150 && green < 90 && blue < 90
        ? "red"
        : blue > 150 && green < 90 && red < 90
          ? "blue"
          : "grey";

/**
 * The colour of the box, and where it begins and ends along a line across and one down, which meet at
 * a point of the window; within the stage, or another part of the window.
 * @param {Visitor} visitor @param {number} x @param {number} y
 * @param {import("./browsers.mjs").Box} [part]
 */
async function seen(visitor, x, y, part) {
    const { left, top, width, height } = part ?? (await visitor.box("lumatie-picture"));
    const along = (/** @type {number} */ begin, /** @type {number} */ length) =>
        Array.from({ length: Math.floor(length) - 1 }, (_, step) => Math.ceil(begin) + step);
    const across = along(left, width).map((at) => [at, y]);
    const down = along(top, height).map((at) => [x, at]);
    const words = (await visitor.colours([...across, ...down])).map(word);
    const ends = (/** @type {typeof words} */ line) => [
        line.findIndex((one) => one !== "grey"),
        line.findLastIndex((one) => one !== "grey"),
    ];
    return {
        colour: words.find((one) => one !== "grey"),
        across: ends(words.slice(0, across.length)),
        down: ends(words.slice(across.length)),
    };
}

test("100 % keeps its place from picture to picture", async () => {
    const arrivals = LONG ? 100 : 6;
    await station.showCharts([boxed(RED), boxed(BLUE)], arrivals);
    const operator = await Visitor.open(browser, station);
    const picture = await station.press();
    await operator.shown(picture.n);
    await operator.page.keyboard.press("z");
    await sharp(operator, picture.n);
    const { left, top, width, height } = await operator.box("lumatie-picture");
    const { mouse } = operator.page;
    // The middle of the box, which is 332 and 220 pixels from the picture's, is brought to here.
    const [x, y] = [Math.round(left + width / 2) - 48, Math.round(top + height / 2) + 50];
    await mouse.move(left + width / 2, top + height / 2);
    await mouse.down();
    await mouse.move(left + width / 2 - 380, top + height / 2 - 170, { steps: 5 });
    await mouse.up();
    const first = await until(async () => {
        const now = await seen(operator, x, y);
        return now.colour === "red" ? now : undefined;
    }, "the red box");
    assert.equal(first.across[1] - first.across[0], 55);
    assert.equal(first.down[1] - first.down[0], 39);
    for (let number = 1; number < arrivals; number++) {
        await sharp(operator, (await station.press()).n);
        const now = await seen(operator, x, y);
        assert.deepEqual(now, { ...first, colour: number % 2 ? "blue" : "red" }, `${number} arrivals`);
    }
    await operator.leave();
});

test("the picture before stays until the next one is decoded, and nothing moves", async () => {
    await station.showCharts([
        { width: 3000, height: 2000, background: RED, boxes: [] },
        { width: 3000, height: 2000, background: BLUE, boxes: [] },
    ]);
    const operator = await Visitor.open(browser, station);
    await operator.shown((await station.press()).n);
    await operator.page.evaluate(() => {
        const shifts = /** @type {any} */ (window);
        shifts.shifts = [];
        const hear = (/** @type {any} */ list) =>
            shifts.shifts.push(
                ...list
                    .getEntries()
                    .flatMap((/** @type {any} */ one) =>
                        one.sources.map((/** @type {any} */ { node }) => node?.outerHTML),
                    ),
            );
        new PerformanceObserver(hear).observe({
            type: "layout-shift",
            buffered: false,
        });
    });
    const { left, top, width, height } = await operator.box("lumatie-picture");
    const tools = await operator.page.createCDPSession();
    /** @type {string[]} */
    const frames = [];
    tools.on("Page.screencastFrame", ({ data, sessionId }) => {
        frames.push(data);
        tools.send("Page.screencastFrameAck", { sessionId }).catch(() => {});
    });
    await tools.send("Page.startScreencast", { format: "png" });
    for (let number = 0; number < (LONG ? 30 : 4); number++) {
        await operator.shown((await station.press()).n);
    }
    await until(() => frames.length > 4, "some frames");
    await tools.send("Page.stopScreencast");
    const colours = await operator.page.evaluate(
        async (all, x, y) => {
            const found = [];
            for (const data of all) {
                const bytes = Uint8Array.from(atob(data), (letter) => letter.charCodeAt(0));
                const bitmap = await createImageBitmap(new Blob([bytes], { type: "image/png" }));
                const scale = bitmap.width / innerWidth;
                const canvas = new OffscreenCanvas(1, 1);
                const context = /** @type {OffscreenCanvasRenderingContext2D} */ (
                    canvas.getContext("2d")
                );
                context.drawImage(bitmap, -x * scale, -y * scale);
                found.push([...context.getImageData(0, 0, 1, 1).data]);
            }
            return found;
        },
        frames,
        left + width / 2,
        top + height / 2,
    );
    const words = colours.map(word);
    assert.deepEqual(words.filter((one) => one === "grey"), [], `${words}`);
    assert.ok(words.includes("red") && words.includes("blue"), `${words}`);
    const shifts = await operator.page.evaluate(() => /** @type {any} */ (window).shifts);
    assert.deepEqual(shifts, []);
    await operator.leave();
});

test("two pictures side by side are zoomed and moved as one", async () => {
    await station.showCharts([boxed(RED), boxed(BLUE)]);
    const operator = await Visitor.open(browser, station);
    const picture = await station.press();
    await operator.shown(picture.n);
    await operator.click("Compare");
    const other = await station.press();
    await operator.shown(other.n);
    await operator.page.keyboard.press("z");
    const { left, top, width, height } = await operator.box("lumatie-picture");
    const { mouse } = operator.page;
    await mouse.move(left + width * 0.75, top + height / 2);
    await mouse.down();
    await mouse.move(left + width * 0.75 - 300, top + height / 2 - 200, { steps: 5 });
    await mouse.up();
    const places = async () => {
        const panes = await operator.page.$$eval("lumatie-picture .pane", (all) =>
            all.map((one) => {
                const { left, top, width, height } = one.getBoundingClientRect();
                return { left, top, width, height };
            }),
        );
        assert.equal(panes.length, 2);
        assert.ok(panes.every((pane) => pane.width > 200 && pane.height > 200));
        const found = [];
        for (const pane of panes) {
            // The middle of the box is 332 and 220 pixels from the picture's.
            const x = Math.round(pane.left + pane.width / 2) + 332 - 300;
            const y = Math.round(pane.top + pane.height / 2) + 220 - 200;
            const { colour, across, down } = await seen(operator, x, y, pane);
            found.push({ colour, place: [...across, ...down] });
        }
        return found.sort((one, two) => String(two.colour).localeCompare(String(one.colour)));
    };
    const [red, blue] = await until(async () => {
        const now = await places();
        const colours = now.map(({ colour }) => colour);
        const widths = now.map(({ place }) => place[1] - place[0]);
        return `${colours}` === "red,blue" && `${widths}` === "55,55" ? now : undefined;
    }, async () => `a red box and a blue one: ${JSON.stringify(await places())}`);
    assert.deepEqual(red.place, blue.place);
    await operator.click("Compare");
    await operator.leave();
});

test("clipping is marked where the file clips, and nowhere else", async () => {
    await station.showCharts([
        {
            width: 1200,
            height: 800,
            background: "#808080",
            boxes: [
                [200, 300, 400, 500, "#ffffff"],
                [500, 300, 700, 500, "#000000"],
                [800, 300, 1000, 500, "#f0f0f0"],
            ],
        },
    ]);
    const operator = await Visitor.open(browser, station);
    await operator.shown((await station.press()).n);
    const stage = await operator.box("lumatie-picture");
    const scale = Math.min(stage.width / 1200, stage.height / 800, 1);
    const point = (/** @type {number} */ x, /** @type {number} */ y) => [
        stage.left + stage.width / 2 + (x - 600) * scale,
        stage.top + stage.height / 2 + (y - 400) * scale,
    ];
    const points = [point(300, 400), point(600, 400), point(900, 400), point(450, 400)];
    const plain = await operator.colours(points);
    assert.deepEqual(
        plain.map(([red]) => Math.round(red / 16)),
        [16, 0, 15, 8],
    );
    await operator.click("Clipping");
    const differs = async () => {
        const marked = await operator.colours(points);
        return marked.map((colour, index) =>
            colour.some((value, channel) => Math.abs(value - plain[index][channel]) > 40),
        );
    };
    await until(
        async () => JSON.stringify(await differs()) === "[true,true,false,false]",
        async () => `marks on white and black: ${await differs()}`,
    );
    await operator.click("Compare");
    await operator.page.waitForFunction(() => document.querySelectorAll(".pane .marks").length === 2);
    await operator.click("Compare");
    await operator.click("Clipping");
    await until(async () => !(await differs()).includes(true), "no marks");
    await operator.leave();
});

test("a picture that was turned away from and back to is shown, however late it comes", async () => {
    const [first, second, third] = [await station.press(), await station.press(), await station.press()];
    const operator = await Visitor.open(browser, station);
    await operator.shown(third.n);
    await until(async () => (await operator.strip()).length >= 3, "the strip");
    const choose = (/** @type {Json} */ { file }) =>
        operator.page.$eval(`[role=option][title="${file}"]`, (item) =>
            /** @type {HTMLElement} */ (item).click(),
        );
    const address = (/** @type {Json} */ { n }) => `/pictures/${n}/preview?`;
    /** @type {import("puppeteer-core").HTTPRequest[]} */
    const held = [];
    /** @type {string[]} */
    const givenUp = [];
    const isOf = (/** @type {string} */ url, /** @type {Json} */ picture) =>
        url.includes(address(picture)) && !url.includes("?w=256");
    operator.page.on("requestfailed", (request) => givenUp.push(request.url()));
    await operator.page.setRequestInterception(true);
    operator.page.on("request", (request) => {
        if ([first, second].some((picture) => isOf(request.url(), picture))) {
            held.push(request);
        } else {
            void request.continue();
        }
    });
    await choose(first);
    const one = await until(() => held.find((request) => isOf(request.url(), first)), "the first");
    await choose(second);
    const other = await until(() => held.find((request) => isOf(request.url(), second)), "the second");
    await choose(first);
    await other.continue().catch(() => {}); // it may be given up by now
    const isShown = () => operator.page.$(`lumatie-picture[data-shown="${second.n}"]`);
    const isGivenUp = () => givenUp.some((url) => isOf(url, second));
    await until(async () => isGivenUp() || (await isShown()), "the second is given up, or shown");
    await one.continue();
    await operator.shown(first.n);
    await operator.page.setRequestInterception(false);
    await operator.leave();
});

test("with Follow off the picture that is looked at stays", async () => {
    const operator = await Visitor.open(browser, station);
    const picture = await station.press();
    await operator.shown(picture.n);
    await operator.click("Follow");
    const next = await station.press();
    await operator.says(next.file);
    const chosen = await operator.page.$eval("[role=option][aria-selected=true]", (one) => one.textContent);
    assert.ok(chosen?.includes(picture.file), `${chosen}`);
    await operator.shown(picture.n);
    await operator.click("Follow");
    await operator.shown(next.n);
    await operator.leave();
});
