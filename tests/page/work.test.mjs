/** What an operator does besides single pictures: layouts, sequences, a cable put back, links, an end. */

import assert from "node:assert/strict";
import { join } from "node:path";
import { test } from "node:test";

import { Visitor } from "./browsers.mjs";
import { begin } from "./stage.mjs";
import { Station } from "./station.mjs";
import { readCode, until } from "./tools.mjs";

const { browser, station } = await begin();

/** @param {string} background @param {any[][]} boxes */
const chart = (background, boxes = []) => ({ width: 900, height: 600, background, boxes });

/** Waits until the middle of the stage, and a point left of it, have these colours, or nearly. */
async function painted(/** @type {Visitor} */ visitor, /** @type {number[][]} */ wanted) {
    const { left, top, width, height } = await visitor.box("lumatie-picture");
    const [x, y] = [left + width / 2, top + height / 2];
    const seen = () => visitor.colours([[x, y], [x - 120, y]]);
    const isNear = (/** @type {number[][]} */ colours) =>
        colours.every((colour, index) =>
            colour.every((value, channel) => Math.abs(value - wanted[index][channel]) < 12),
        );
    await until(async () => isNear(await seen()), async () => `${wanted}; it is ${await seen()}`);
}

test("a layout lies over the picture as strongly as is wanted, and so does the last picture", async () => {
    await station.showCharts([chart("#00a000"), chart("#0000c8"), chart("#0000c8")]);
    const operator = await Visitor.open(browser, station);
    await operator.shown((await station.press()).n);
    await operator.shown((await station.press()).n);
    await operator.click("Overlay");
    const kind = await operator.control("Overlay picture", "combobox");
    const opacity = await operator.control("Overlay opacity", "slider");
    await kind.select("last");
    await painted(operator, [[0, 80, 100], [0, 80, 100]]);
    const layout = join(station.base, "layout.png");
    await station.steer("chart", layout, 900, 600, "#c80000", [[410, 260, 490, 340, "#ffffff"]]);
    await kind.select("layout");
    const file = await operator.page.$("input[aria-label=Layout]");
    await /** @type {import("puppeteer-core").ElementHandle<HTMLInputElement>} */ (file).uploadFile(layout);
    await painted(operator, [[128, 128, 228], [100, 0, 100]]);
    await opacity.press("End");
    await painted(operator, [[255, 255, 255], [200, 0, 0]]);
    await operator.shown((await station.press()).n);
    await painted(operator, [[255, 255, 255], [200, 0, 0]]);
    await opacity.press("Home");
    await painted(operator, [[0, 0, 200], [0, 0, 200]]);
    await opacity.press("End");
    await kind.select("none");
    await painted(operator, [[0, 0, 200], [0, 0, 200]]);
    await station.steer("configure", "picture.folder =");
    await operator.leave();
});

test("an interval tells how far it is, takes what was asked for, and ends where it is stopped", async () => {
    const operator = await Visitor.open(browser, station);
    const viewer = await Visitor.open(browser, station, { role: "viewer" });
    await operator.page.click("lumatie-sequence summary");
    await operator.fill("Frames", 3);
    await operator.fill("Every (seconds)", 0.1);
    const before = station.pictures.length;
    await operator.click("Start");
    await operator.says("Done: 3 of 3.");
    assert.equal(station.pictures.length, before + 3);

    await operator.fill("Frames", 99);
    await operator.fill("Every (seconds)", 0.3);
    await operator.click("Start");
    await operator.says(/\b[1-9]\d* of 99/);
    await viewer.says(/\b[1-9]\d* of 99/);
    const readOut = await operator.page.$$eval("lumatie-sequence [aria-live=polite]", (all) =>
        all.map((one) => one.textContent).join(""),
    );
    assert.equal(readOut, "", "what changes all the time is not read out");
    const shutter = await operator.control("Take a picture", "button");
    assert.ok(await shutter.evaluate((one) => /** @type {HTMLButtonElement} */ (one).disabled));
    assert.equal(await viewer.count("Stop", "button"), 0, "a viewer has no Stop");
    await operator.click("Stop");
    await operator.says(/Stopped after \d+ of 99\./);
    const [, frames] = /Stopped after (\d+) of 99\./.exec(await operator.text()) ?? [];
    await until(() => station.pictures.length >= before + 3 + Number(frames), "its pictures");
    assert.equal(station.pictures.length, before + 3 + Number(frames));
    await operator.control("Start", "button");
    await operator.leave();
    await viewer.leave();
});

test("the seconds to the next frame go on when the connection to the camera changes", async () => {
    const operator = await Visitor.open(browser, station);
    const begun = await station.call("/api/sequence", { kind: "interval", count: 2, every: 100 });
    assert.equal(begun.status, 200);
    const seconds = async () => {
        const [, left] = /the next in (\d+) s/.exec(await operator.text()) ?? [];
        return Number(left);
    };
    await until(async () => (await seconds()) <= 97, async () => `less than ${await seconds()} s`);
    await operator.page.evaluate(async () => {
        const store = "/static/store.js";
        const { patch } = await import(store);
        patch({ connection: "silent" });
    });
    assert.ok((await seconds()) <= 97, `${await seconds()} s`);
    await station.call("/api/sequence", { kind: "stop" });
    await operator.says("Stopped after 1 of 2.");
    await operator.leave();
});

test("a bracket takes its frames, each with another value, and sets the setting back", async () => {
    assert.equal((await station.call("/api/set", { name: "shutter", text: "1/125" })).status, 200);
    const operator = await Visitor.open(browser, station);
    await operator.page.click("lumatie-sequence summary");
    await (await operator.control("Kind", "combobox")).select("bracket");
    await (await operator.control("Setting", "combobox")).select("shutter");
    await operator.fill("Frames", 3);
    await operator.fill("Steps", 3);
    const before = station.pictures.length;
    await operator.click("Start");
    await until(() => station.pictures.length === before + 3, "three pictures");
    await operator.says("Done: 3 of 3.");
    const taken = station.pictures.slice(before).map(({ settings }) => settings.shutter);
    assert.deepEqual(taken.sort(), ["1/125", "1/250", "1/60"]);
    const { settings } = (await station.call("/api/state")).body;
    const { text } = settings.find((/** @type {any} */ { name }) => name === "shutter");
    assert.equal(text, "1/125");
    await operator.leave();
});

test("a cable that is pulled is told, and the picture stays; put back, settings of before are offered", async () => {
    const operator = await Visitor.open(browser, station);
    const picture = await station.press();
    await operator.shown(picture.n);
    assert.equal((await station.call("/api/set", { name: "iso", text: "400" })).status, 200);
    for (const [button, iso] of [["Set back", "400"], ["Leave", "800"]]) {
        const from = station.records.length;
        await station.steer("unplug");
        // One that is over before the camera was asked tells nothing of it.
        await until(async () => {
            await station.call("/api/shoot", { timeout: 0.5 });
            return station.records.slice(from).some(({ kind }) => kind === "lost");
        }, () => `it is lost; there are ${JSON.stringify(station.records.slice(from))}`);
        await operator.says(/Virtual EOS is (gone: 2 requests in a row were not answered|looked for again)\./);
        await operator.shown(picture.n);
        await station.steer("set_property", 0x402, 0x60);
        await station.steer("plug");
        await operator.says("Virtual EOS is ready.");
        await operator.says(/The camera came back with other settings\.\s+ISO 800, before 400\./);
        await operator.click(button);
        await operator.page.waitForSelector("lumatie-notices .offer", { hidden: true });
        await until(async () => {
            const { offer, settings } = (await station.call("/api/state")).body;
            const { text } = settings.find((/** @type {any} */ { name }) => name === "iso");
            return offer === null && text === iso;
        }, `no offer any more, and ISO ${iso}`);
    }
    await operator.shown((await station.press()).n);
    await operator.leave();
});

test("the code that an operator shows is the viewers' link, and opens a viewer's page", async () => {
    const operator = await Visitor.open(browser, station);
    await operator.click("Links");
    const field = await operator.control("Viewer\u2019s link", "textbox");
    assert.equal(
        await field.evaluate((one) => /** @type {HTMLInputElement} */ (one).value),
        station.link("viewer"),
    );
    await operator.page.waitForFunction(() => {
        const code = document.querySelector("lumatie-links img");
        return code instanceof HTMLImageElement && code.complete && code.naturalWidth > 0;
    });
    const pixels = await operator.page.$eval("lumatie-links img", (code) => {
        const context = new OffscreenCanvas(240, 240).getContext("2d");
        context?.drawImage(/** @type {HTMLImageElement} */ (code), 0, 0, 240, 240);
        return [...(context?.getImageData(0, 0, 240, 240).data ?? [])];
    });
    const link = readCode(Uint8ClampedArray.from(pixels), 240, 240)?.data;
    assert.equal(link, station.link("viewer"));
    const viewer = await Visitor.open(browser, station, { link });
    await viewer.says("Viewer");
    assert.equal(await viewer.count("Links", "button"), 0, "a viewer has no links");
    await operator.leave();
    await viewer.leave();
});

test("when the program is closed the page says so, keeps what it shows, and offers nothing", async () => {
    const own = await Station.start();
    await own.open();
    const operator = await Visitor.open(browser, own);
    const picture = await own.press();
    await operator.shown(picture.n);
    const enabled = () =>
        operator.page.$$eval("aside select, aside button, lumatie-rating button", (all) =>
            all.filter((one) => one.checkVisibility() && one.matches(":enabled")).map((one) => one.id),
        );
    assert.ok((await enabled()).length > 8);
    const shown = () =>
        operator.page.$$eval("lumatie-settings select, lumatie-settings output", (all) =>
            all
                .filter((one) => one.checkVisibility())
                .map((one) => (one instanceof HTMLSelectElement ? one.selectedOptions[0]?.text : one.textContent)),
        );
    const before = await shown();
    await own.stop();
    await operator.says("The program on the computer was closed.");
    assert.deepEqual(await enabled(), []);
    assert.deepEqual(await shown(), before);
    await operator.shown(picture.n);
    operator.complaints = []; // what the browser writes of the server that is away
    await operator.leave();
});
