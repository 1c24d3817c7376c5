/** The main roads of the page, for both engines. */

import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";

import { Visitor } from "./browsers.mjs";
import { begin } from "./stage.mjs";
import { until } from "./tools.mjs";

const { browser, station } = await begin();
beforeEach(() => station.steer("clear_faults"));

/** Waits until a list shows this as chosen. @param {any} control @param {string} text */
function shows(control, text) {
    const chosen = () =>
        control.evaluate((/** @type {HTMLSelectElement} */ one) => one.selectedOptions[0]?.text);
    return until(async () => (await chosen()) === text, async () => `${text}; it is ${await chosen()}`);
}

test("the page tells in words that the camera is ready, and takes its token out of the address", async () => {
    const operator = await Visitor.open(browser, station);
    await operator.says("Virtual EOS is ready.");
    assert.equal(operator.page.url(), station.url);
    await operator.page.reload();
    await operator.ready();
    await operator.says("Virtual EOS is ready.");
    await operator.leave();
});

test("a picture that is released at the body appears by itself, on an operator's page and a viewer's", async () => {
    const operator = await Visitor.open(browser, station);
    const viewer = await Visitor.open(browser, station, { role: "viewer" });
    const picture = await station.press();
    await Promise.all([operator.shown(picture.n), viewer.shown(picture.n)]);
    await operator.says(picture.file);
    await operator.leave();
    await viewer.leave();
});

test("the button takes a picture, and it is shown", async () => {
    const operator = await Visitor.open(browser, station);
    const before = station.pictures.length;
    await operator.click("Take a picture");
    await until(() => station.pictures.length > before, "a picture");
    assert.equal(station.pictures[before].origin, "host");
    await operator.shown(station.pictures[before].n);
    assert.equal(station.pictures.length, before + 1);
    await operator.leave();
});

test("a setting that is chosen is what the camera has then", async () => {
    const operator = await Visitor.open(browser, station);
    const from = station.records.length;
    const control = await operator.control("Shutter", "combobox");
    const [value, text] = await control.evaluate((element) => {
        const options = [.../** @type {HTMLSelectElement} */ (element).options];
        const other = options.find((one) => !one.selected && one.text.startsWith("1/"));
        return [other?.value ?? "", other?.text ?? ""];
    });
    await control.select(value);
    const told = await station.record(
        (record) => record.kind === "setting" && record.name === "shutter",
        from,
    );
    assert.equal(told.text, text);
    await shows(control, text);
    const state = (await station.call("/api/state")).body;
    const setting = state.settings.find((/** @type {any} */ one) => one.name === "shutter");
    assert.equal(setting.text, text);
    await operator.leave();
});

test("a setting that is turned at the body is shown", async () => {
    const operator = await Visitor.open(browser, station);
    const control = await operator.control("ISO", "combobox");
    await station.steer("configure", "value.0x402 = 0x60");
    await shows(control, "800");
    await operator.leave();
});

test("100 % shows the original's own pixels, and once more the whole picture", async () => {
    const boxes = [[980, 730, 1020, 770, "#ff0000"]];
    await station.showCharts([{ width: 2000, height: 1500, background: "#808080", boxes }]);
    const operator = await Visitor.open(browser, station);
    const picture = await station.press();
    await operator.shown(picture.n);
    const { left, top, width, height } = await operator.box("lumatie-picture");
    const [x, y] = [left + width / 2, top + height / 2];
    // The box is 40 pixels wide at 100 %, less in the whole picture.
    const reds = async () =>
        (await operator.colours([[x, y], [x - 18, y], [x + 18, y], [x - 22, y], [x + 22, y]])).map(
            ([red, green]) => red > 200 && green < 60,
        );
    assert.deepEqual(await reds(), [true, false, false, false, false]);
    await operator.page.keyboard.press("z");
    await until(
        async () => JSON.stringify(await reds()) === "[true,true,true,false,false]",
        "the box at its own size",
    );
    await operator.click("100 %");
    await until(
        async () => JSON.stringify(await reds()) === "[true,false,false,false,false]",
        "the whole picture",
    );
    await station.steer("configure", "picture.folder =");
    await operator.leave();
});

test("a viewer sees everything and has nothing that acts", async () => {
    const operator = await Visitor.open(browser, station);
    const viewer = await Visitor.open(browser, station, { role: "viewer" });
    await viewer.says("Virtual EOS is ready.");
    await operator.page.click("lumatie-sequence summary");
    for (const [name, role] of [
        ["Take a picture", "button"],
        ["Tag", "textbox"],
        ["Start", "button"],
    ]) {
        await operator.control(name, role);
        assert.equal(await viewer.count(name, role), 0, `a viewer has no ${name}`);
    }
    const enabled = await viewer.page.$$eval("lumatie-settings *", (all) =>
        all
            .filter((one) => one.matches("select, input, button") && one.checkVisibility())
            .filter((one) => one.matches(":enabled"))
            .map((one) => one.outerHTML),
    );
    assert.deepEqual(enabled, []);
    const before = station.pictures.length;
    for (const key of /** @type {const} */ (["a", "t", " "])) {
        await viewer.page.keyboard.press(key);
    }
    const answers = await viewer.page.evaluate(() =>
        Promise.all(
            [
                ["set", { name: "iso", text: "100" }],
                ["shoot", {}],
                ["tag", { tag: "x" }],
                ["sequence", { kind: "stop" }],
                ["open", {}],
            ].map(async ([path, body]) => {
                const answer = await fetch(`/api/${path}`, {
                    method: "POST",
                    headers: { "Content-Type": "application/json" },
                    body: JSON.stringify(body),
                });
                return answer.status;
            }),
        ),
    );
    assert.deepEqual(answers, [403, 403, 403, 403, 403]);
    assert.equal(station.pictures.length, before);
    viewer.complaints = viewer.complaints.filter((text) => !text.includes("403"));
    await operator.leave();
    await viewer.leave();
});
