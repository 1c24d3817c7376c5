/** The studio's page: a wall of stations that are real but for their cameras. */

import assert from "node:assert/strict";
import { mkdirSync, readFileSync, readdirSync } from "node:fs";
import { join } from "node:path";
import { after, before, test } from "node:test";

import { ENGINE, Visitor, launch } from "./browsers.mjs";
import { SIZES, violations } from "./looks.mjs";
import { Studio, stopStudios } from "./studio.mjs";
import { RESULTS, until } from "./tools.mjs";

const NAMES = ["1", "2", "10"];

/** @type {import("puppeteer-core").Browser} */
let browser;
/** @type {Studio} */
let studio;
before(async () => {
    mkdirSync(RESULTS, { recursive: true });
    [browser, studio] = await Promise.all([launch(), Studio.start(NAMES)]);
});
after(async () => {
    await browser?.close();
    await stopStudios();
});

/** Waits until each card shows the picture that its station took last. @param {Visitor} visitor */
async function allShown(visitor) {
    /** @type {{ station: string, picture: { n: number } | null }[]} */
    let stations = [];
    await until(async () => {
        stations = (await studio.call("/api/state")).body.stations;
        return stations.every(({ picture }) => picture);
    }, "a picture of each station");
    for (const { station, picture } of stations) {
        await visitor.page.waitForSelector(`.card[data-station="${station}"][data-shown="${picture?.n}"]`);
    }
}

/** How many shots each card tells of. @param {Visitor} visitor */
function counts(visitor) {
    return visitor.page.$$eval(".card", (all) => all.map((one) => one.querySelector(".count")?.textContent));
}

/** Follows the link that a person calls so. @param {Visitor} visitor @param {string} name */
async function follow(visitor, name) {
    const link = await visitor.control(name, "link");
    await Promise.all([visitor.page.waitForNavigation({ waitUntil: "domcontentloaded" }), link.click()]);
    await visitor.ready();
}

test("all stations shoot at a click; their pictures and the measured spread are shown to everybody", async () => {
    const desk = await Visitor.open(browser, studio);
    const viewer = await Visitor.open(browser, studio, { role: "viewer" });
    await desk.says("3 stations: all ready.");
    assert.equal(await viewer.count("Shoot all 3", "button"), 0);
    await desk.click("Shoot all 3");
    for (const one of [desk, viewer]) {
        await one.says(/3 of 3 stations, within \d+ ms \(give or take \d+ ms\)/);
        await allShown(one);
        await until(async () => (await counts(one)).join() === "1 of 1,1 of 1,1 of 1", "the counts");
    }
    const names = await desk.page.$$eval(".card strong", (all) => all.map((one) => one.textContent));
    assert.deepEqual(names, ["1", "2", "10"]);
    await desk.leave();
    await viewer.leave();
});

test("a station is opened large with the tether page's own elements, set and shot with there", async () => {
    const desk = await Visitor.open(browser, studio);
    await follow(desk, "Station 2, ready, 1 of 1 pictures");
    await desk.says("Virtual EOS is ready.");
    const iso = await desk.control("ISO", "combobox");
    const value = await iso.evaluate((one) => {
        const { options } = /** @type {HTMLSelectElement} */ (one);
        return [...options].find(({ text }) => text === "800")?.value ?? "";
    });
    await iso.select(value);
    const set = async () => {
        const { stations } = (await studio.call("/api/state")).body;
        return stations.find((/** @type {any} */ one) => one.station === "2").settings.iso === "800";
    };
    await until(set, "ISO 800 at station 2");
    await desk.click("Take a picture");
    await desk.page.waitForFunction(() => document.querySelectorAll("[role=option]").length === 2);
    await desk.says("2_0002.JPG");
    await follow(desk, "All stations");
    await desk.says("2 of 2");
    await desk.leave();
});

if (ENGINE === "chrome") {
    test("pictures of a station are rated from the desk, and its sequences begun, followed and ended", async () => {
        assert.equal((await studio.call("/api/stations/2/shoot", {})).status, 200);
        const desk = await Visitor.open(browser, studio);
        await desk.page.goto(`${studio.url}stations/2/`);
        await desk.says("Virtual EOS is ready.");
        await desk.page.waitForSelector("lumatie-rating button:enabled");
        await desk.click("Rate 4");
        const folder = join(studio.base, "folder-2");
        const ratings = () =>
            readdirSync(folder)
                .filter((name) => name.endsWith(".xmp"))
                .map((name) => /Rating[=>"]+(\d)/.exec(readFileSync(join(folder, name), "utf8"))?.[1]);
        await until(() => ratings().join() === "4", () => `a sidecar with 4; there are ${ratings()}`);

        await desk.page.click("lumatie-sequence summary");
        await desk.fill("Frames", 2);
        await desk.fill("Every (seconds)", 0.1);
        await desk.click("Start");
        await desk.says("Done: 2 of 2.");
        await desk.fill("Frames", 99);
        await desk.fill("Every (seconds)", 0.3);
        await desk.click("Start");
        await desk.says(/\b[1-9]\d* of 99/);
        await desk.click("Stop");
        await desk.says(/Stopped after \d+ of 99\./);
        await desk.control("Start", "button");
        await desk.leave();
    });

    test("keys choose stations, and those alone shoot", async () => {
        const desk = await Visitor.open(browser, studio);
        await desk.page.waitForSelector(".card");
        const before = await counts(desk);
        const { keyboard } = desk.page;
        await keyboard.press("t"); // not armed
        await keyboard.press("ArrowRight");
        await keyboard.press("x");
        await desk.control("Shoot 1 station", "button");
        await keyboard.press("a");
        await keyboard.press("t");
        await desk.says(/1 of 1 stations/);
        const after = await counts(desk);
        assert.notEqual(after[0], before[0]);
        assert.deepEqual(after.slice(1), before.slice(1));
        await keyboard.press("Escape");
        await desk.control("Shoot all 3", "button");
        await desk.leave();
    });

    test("the help tells the keys of the page that it is opened on", async () => {
        const desk = await Visitor.open(browser, studio);
        for (const [path, element, key, title] of [
            ["", "wall-help", "G", "Type a tag"],
            ["stations/1/", "lumatie-help", "0 to 5", "Rate the picture"],
        ]) {
            await desk.page.goto(studio.url + path);
            await desk.ready();
            await desk.page.keyboard.press("?");
            await desk.page.waitForSelector(`${element} dialog[open]`);
            const rows = await desk.page.$$eval(`${element} tr`, (all) =>
                all.map((row) => [...row.children].map((cell) => cell.textContent)),
            );
            assert.ok(rows.some(([one, does]) => one === key && does === title), String(rows));
            await desk.click("Close");
            await desk.page.waitForSelector(`${element} dialog[open]`, { hidden: true });
            await desk.click("Help");
            await desk.page.waitForSelector(`${element} dialog[open]`);
        }
        await desk.leave();
    });

    test("names and tags with markup are text", async () => {
        const markup = "<img src=x onerror=alert()>";
        const desk = await Visitor.open(browser, studio);
        const field = await desk.control("Tag for all", "textbox");
        await field.type(`${markup}\n`);
        await until(async () => (await studio.call("/api/state")).body.tag === markup, "the tag");
        await studio.call("/api/stations/1/tag", { tag: markup });
        await desk.page.goto(`${studio.url}stations/1/`);
        await desk.ready();
        const tag = await desk.control("Tag", "textbox");
        assert.equal(await tag.evaluate((one) => /** @type {HTMLInputElement} */ (one).value), markup);
        assert.equal(await desk.page.$$eval("img[src=x]", (all) => all.length), 0);
        await studio.call("/api/tag", { tag: "" });
        await desk.leave();
    });

    test("a station that is gone is an alarm at once, and none any more when it is back", async () => {
        const desk = await Visitor.open(browser, studio);
        await studio.kill("10");
        await desk.says("Station 10 is gone.");
        await desk.says("2 of 3 stations ready: 10 is gone.");
        await desk.page.waitForSelector('.card[data-station="10"][data-state=gone]');
        await desk.page.screenshot({ path: join(RESULTS, "studio-alarm.png") });
        await desk.control("Shoot all 2", "button");
        studio.startStation("10");
        await desk.says("3 stations: all ready.");
        await until(async () => !(await desk.text()).includes("Station 10 is gone."), "no alarm");
        await desk.leave();
    });

    for (const role of /** @type {const} */ (["operator", "viewer"])) {
        test(`everybody can use the wall, small and large, dark and light: ${role}`, async () => {
            const visitor = await Visitor.open(browser, studio, { role });
            await allShown(visitor);
            /** @type {{ [look: string]: unknown[] }} */
            const wrong = {};
            for (const dark of [true, false]) {
                for (const { width, height } of SIZES) {
                    const look = `studio-${role}-${width}-${dark ? "dark" : "light"}`;
                    await visitor.look({ width, height, dark });
                    const path = /** @type {`${string}.png`} */ (join(RESULTS, `${look}.png`));
                    await visitor.page.screenshot({ path });
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

    test("the wall's first load is no more than 100 kB, and asks nobody else", async () => {
        const desk = await Visitor.open(browser, studio);
        await desk.page.waitForNetworkIdle({ concurrency: 1 });
        const { bytes } = desk;
        assert.ok(bytes > 5000 && bytes <= 100000, `${bytes} bytes`);
        await desk.leave();
    });
}
