/** Who looks at the page, and on what: eyes, ears, fingers, keys; sizes, light and dark. */

import assert from "node:assert/strict";
import { mkdirSync } from "node:fs";
import { join } from "node:path";
import { after, before, test } from "node:test";

import { Visitor, launch } from "./browsers.mjs";
import { SIZES, violations } from "./looks.mjs";
import { Station, stopAll } from "./station.mjs";
import { RESULTS, until } from "./tools.mjs";

/** @type {import("puppeteer-core").Browser} */
let browser;
/** @type {Station} */
let station;
before(async () => {
    mkdirSync(RESULTS, { recursive: true });
    browser = await launch();
    station = await Station.start({
        settings: "picture.width = 1920\npicture.height = 1280",
        args: ["--name", "{job}_{n:04}", "--job", "spring"],
    });
    await station.open();
    for (let number = 0; number < 3; number++) {
        await station.press();
    }
});
after(async () => {
    await browser?.close();
    await stopAll();
});

for (const role of /** @type {const} */ (["operator", "viewer"])) {
    test(`everybody can use the page, small and large, dark and light: ${role}`, async () => {
        const visitor = await Visitor.open(browser, station, { role });
        await visitor.shown(station.pictures[station.pictures.length - 1].n);
        /** @type {{ [look: string]: unknown[] }} */
        const wrong = {};
        for (const dark of [true, false]) {
            for (const { width, height } of SIZES) {
                const look = `${role}-${width}-${dark ? "dark" : "light"}`;
                await visitor.look({ width, height, dark });
                const picture = /** @type {`${string}.png`} */ (join(RESULTS, `${look}.png`));
                await visitor.page.screenshot({ path: picture });
                const found = await violations(visitor);
                if (found.length > 0) {
                    wrong[look] = found;
                }
            }
        }
        assert.deepEqual(wrong, {});
        await visitor.leave();
    });
}

test("a screen reader finds landmarks, controls by their names, and is told of alarms", async () => {
    const operator = await Visitor.open(browser, station);
    const tree = await operator.page.accessibility.snapshot({ interestingOnly: false });
    /** @type {string[]} */
    const found = [];
    const walk = (/** @type {import("puppeteer-core").SerializedAXNode} */ node) => {
        found.push(`${node.role} ${node.name}`);
        node.children?.forEach(walk);
    };
    walk(/** @type {import("puppeteer-core").SerializedAXNode} */ (tree));
    for (const wanted of [
        /^main /,
        /^complementary /,
        /^status /,
        /^button Take a picture$/,
        /^combobox Shutter$/,
        /^combobox ISO$/,
        /^textbox Tag$/,
        /^button 100 %$/,
        /^button Follow$/,
        /^(button|radio) Rate 3$/,
    ]) {
        assert.ok(
            found.some((one) => wanted.test(one)),
            `${wanted} among\n${found.join("\n")}`,
        );
    }
    const nameless = found.filter((one) => /^(button|combobox|textbox|link|slider|checkbox) $/.test(one));
    assert.deepEqual(nameless, []);
    const live = await operator.page.$$eval("[aria-live=assertive], [role=alert]", (all) => all.length);
    assert.ok(live > 0, "a live region for alarms");
    const loud = await operator.page.$$eval("aside output:not([aria-live=off])", (all) =>
        all.map((one) => one.id),
    );
    assert.deepEqual(loud, [], "what changes with every picture is not read out");
    await operator.leave();
});

test("at 360 pixels a thumb takes a picture, and everything that is touched is big enough", async () => {
    const operator = await Visitor.open(browser, station, SIZES[0]);
    const button = await operator.control("Take a picture", "button");
    const before = station.pictures.length;
    await button.tap();
    await until(() => station.pictures.length > before, "a picture");
    await operator.shown(station.pictures[before].n);
    const small = await operator.page.$$eval("button, select, input, a[href]", (all) =>
        all
            .filter((one) => one.checkVisibility())
            .map((one) => ({
                name: one.outerHTML.slice(0, 80),
                box: (one.closest("label") ?? one).getBoundingClientRect(),
            }))
            .filter(({ box }) => box.width > 0 && (box.width < 24 || box.height < 24))
            .map(({ name, box }) => `${name}: ${box.width} x ${box.height}`),
    );
    assert.deepEqual(small, []);
    await operator.leave();
});

test("markup in a job and in a tag is shown as text", async () => {
    const markup = "<img src=x onerror=alert()>";
    const own = await Station.start({ args: ["--job", markup] });
    await own.open();
    assert.equal((await own.call("/api/tag", { tag: markup })).status, 200);
    const operator = await Visitor.open(browser, own);
    await operator.says(markup);
    const field = await operator.control("Tag", "textbox");
    assert.equal(await field.evaluate((one) => /** @type {HTMLInputElement} */ (one).value), markup);
    assert.equal(await operator.page.$$eval("img[src=x]", (all) => all.length), 0);
    await operator.leave();
    await own.stop();
});

test("the first load is no more than 100 kB, and asks nobody else", async () => {
    const operator = await Visitor.open(browser, station);
    await operator.page.waitForNetworkIdle({ concurrency: 1 });
    const { bytes } = operator;
    assert.ok(bytes > 5000 && bytes <= 100000, `${bytes} bytes`);
    await operator.leave();
});

test("the keys of the shutter take a picture while it is armed, and none before", async () => {
    const operator = await Visitor.open(browser, station);
    const before = station.pictures.length;
    const { keyboard } = operator.page;
    await keyboard.press("t");
    await keyboard.press(" ");
    await keyboard.press("a");
    for (const [index, key] of /** @type {const} */ (["t", " "]).entries()) {
        const button = await operator.control("Take a picture", "button");
        await until(() => button.evaluate((one) => one.ariaBusy !== "true"), "no shot under way");
        await keyboard.press(key);
        await until(() => station.pictures.length > before + index, `a picture by "${key}"`);
        await operator.shown(station.pictures[before + index].n);
    }
    assert.equal(station.pictures.length, before + 2);
    await operator.leave();
});

test("keys are shown by ?, 0 to 5 rate, and arrows change the chosen setting", async () => {
    const operator = await Visitor.open(browser, station);
    const picture = await station.press();
    await operator.shown(picture.n);
    await operator.page.keyboard.press("4");
    await station.record((record) => record.kind === "rated" && record.rating === 4);
    await operator.page.keyboard.press("2");
    await station.record((record) => record.kind === "rated" && record.rating === 2);
    const next = await station.press(); // the newest picture's rating comes with the state
    await operator.shown(next.n);
    await operator.page.reload();
    await operator.ready();
    await operator.page.waitForSelector("body[data-strip=yes]");
    const [rated] = (await operator.strip()).filter((name) => name.includes(picture.file));
    assert.match(rated, /2 stars/);
    await operator.page.keyboard.type("?");
    await operator.says(/space/i);
    await operator.page.keyboard.press("Escape");
    const iso = await operator.control("ISO", "combobox");
    await iso.focus();
    const from = station.records.length;
    await operator.page.keyboard.press("ArrowDown");
    await station.record((record) => record.kind === "setting" && record.name === "iso", from);
    await operator.leave();
});
