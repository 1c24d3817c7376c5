/** What stands on the page when there is nothing to shoot with yet, and what is done about it there. */

import assert from "node:assert/strict";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";

import { Visitor, launch } from "./browsers.mjs";
import { Station, stopAll } from "./station.mjs";
import { until } from "./tools.mjs";

/** @type {import("puppeteer-core").Browser} */
let browser;
/** @type {string} */
let base;
before(async () => {
    browser = await launch();
    base = mkdtempSync(join(tmpdir(), "lumatie-first-"));
});
after(async () => {
    await browser?.close();
    await stopAll();
    rmSync(base, { recursive: true, force: true });
});

/** The page says what is wrong, and what to do. @param {Station} station */
async function tells(station) {
    const state = await until(async () => {
        const { body } = await station.call("/api/state");
        return body.error && body;
    }, "an error in the state");
    assert.ok(state.error.advice, JSON.stringify(state));
    const operator = await Visitor.open(browser, station);
    // The page begins the sentence with a capital letter.
    await operator.says(state.error.text.slice(1));
    await operator.says(state.error.advice);
    return { operator, error: state.error };
}

test("without a camera the page says so, and goes on by itself once there is one", async () => {
    const station = await Station.start({ maker: "nikon", settings: "camera.plugged = 0" });
    const { operator } = await tells(station);
    await station.steer("plug");
    await operator.says(/is ready\./);
    const picture = await station.press();
    await operator.shown(picture.n);
    await operator.leave();
    await station.stop();
});

test("without a folder to write into the page asks for another one, and takes it", async () => {
    const file = join(base, "no-folder");
    writeFileSync(file, "");
    const station = await Station.start({ folder: file });
    const { operator } = await tells(station);
    const field = await operator.control("Folder", "textbox");
    await field.evaluate((one) => /** @type {HTMLInputElement} */ (one).select());
    await field.type(mkdtempSync(join(base, "shoot-")));
    await operator.page.keyboard.press("Enter");
    await operator.says("Virtual EOS is ready.");
    await operator.leave();
    await station.stop();
});

test("with a library that is none the page says which, and does not try again by itself", async () => {
    const library = join(base, "libEDSDK.so");
    writeFileSync(library, "not a library\n");
    const station = await Station.start({ library });
    const { operator, error } = await tells(station);
    assert.match(error.text, /libEDSDK\.so/);
    const isAsked = () => operator.asked.some((address) => address.endsWith("/api/open"));
    assert.ok(!isAsked());
    await operator.click("Try again");
    await until(isAsked, "another try");
    const isTaken = await operator.page.$eval(
        ".first",
        (words) => !words.dispatchEvent(new WheelEvent("wheel", { bubbles: true, cancelable: true })),
    );
    assert.ok(!isTaken, "the wheel scrolls the words");
    await operator.leave();
    await station.stop();
});
