/** What a page stands while it is open: sleep, losses, restarts, a slow network, a long day. */

import assert from "node:assert/strict";
import { createHash } from "node:crypto";
import { appendFileSync, linkSync, mkdirSync, readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";

import { Visitor, launch } from "./browsers.mjs";
import { Station, stopAll } from "./station.mjs";
import { LONG, until } from "./tools.mjs";

/** @type {import("puppeteer-core").Browser} */
let browser;
/** @type {Station} */
let station;
before(async () => {
    browser = await launch();
    station = await Station.start({ args: ["--name", "{job}_{n:04}", "--job", "day"] });
    await station.open();
});
after(async () => {
    await browser?.close();
    await stopAll();
});

test("five tabs of one browser all show the newest picture", async () => {
    const first = await Visitor.open(browser, station);
    const tabs = [first];
    while (tabs.length < 5) {
        const tab = new Visitor(station, first.context, await first.context.newPage());
        await tab.go(station.url);
        tabs.push(tab);
    }
    const picture = await station.press();
    for (const tab of tabs) {
        await tab.page.bringToFront();
        await tab.shown(picture.n);
    }
    await first.leave();
});

test("a tab that slept shows what was taken meanwhile", async () => {
    const operator = await Visitor.open(browser, station);
    const tools = await operator.page.createCDPSession();
    await tools.send("Page.setWebLifecycleState", { state: "frozen" });
    const pictures = [];
    for (let number = 0; number < 3; number++) {
        pictures.push(await station.press());
    }
    await sleep(LONG ? 60000 : 500);
    await tools.send("Page.setWebLifecycleState", { state: "active" });
    await operator.shown(pictures[2].n);
    const names = (await operator.strip()).slice(-pictures.length);
    pictures.forEach(({ file }, index) => assert.ok(names[index].includes(file), `${names}`));
    operator.complaints = operator.complaints.filter((text) => !text.includes("Back-Forward"));
    await operator.leave();
});

test("a page that is woken while it enters opens one socket, and looks after it when it is online", async () => {
    const context = await browser.createBrowserContext();
    const viewer = new Visitor(station, context, await context.newPage());
    await viewer.page.evaluateOnNewDocument(() => {
        const own = /** @type {any} */ (window);
        own.sockets = 0;
        own.WebSocket = class extends WebSocket {
            /** @param {string} url */
            constructor(url) {
                super(url);
                own.sockets += 1;
            }
        };
    });
    /** @type {import("puppeteer-core").HTTPRequest[]} */
    const held = [];
    await viewer.page.setRequestInterception(true);
    viewer.page.on("request", (request) => {
        if (request.url().endsWith("/api/enter")) {
            held.push(request);
        } else {
            void request.continue();
        }
    });
    await viewer.page.goto(station.link("viewer"), { waitUntil: "domcontentloaded" });
    await until(() => held.length === 1, "it enters");
    await viewer.page.evaluate(() => dispatchEvent(new Event("online")));
    await until(() => held.length === 2, "it enters once more");
    for (const request of held) {
        const answered = viewer.page.waitForResponse((response) => response.request() === request);
        await request.continue();
        await answered;
    }
    await viewer.ready();
    await viewer.page.evaluate(() => fetch("/api/state").then((answer) => answer.json()));
    assert.equal(await viewer.page.evaluate(() => /** @type {any} */ (window).sockets), 1);
    const before = viewer.asked.length;
    await viewer.page.evaluate(() => dispatchEvent(new Event("online")));
    await until(
        () => viewer.asked.slice(before).some((address) => address.endsWith("/api/state")),
        "it asks how it stands",
    );
    await viewer.leave();
});

test("an alarm that was put away stays so; one that an earlier clock has told is shown", async () => {
    const operator = await Visitor.open(browser, station);
    const told = (/** @type {number} */ hours, /** @type {string} */ what) => {
        const { n } = station.records[station.records.length - 1];
        const time = new Date(Date.now() - hours * 3600e3).toISOString();
        const record = { v: 1, n: n + 1, time, kind: "alarm", what, advice: "Look." };
        appendFileSync(join(station.folder, ".lumatie/ledger.jsonl"), `${JSON.stringify(record)}\n`);
        return station.record((one) => one.what === what);
    };
    await told(0, "The first one");
    await operator.says("The first one.");
    await operator.click("Dismiss");
    await told(2, "The second one");
    await operator.says("The second one.");
    await operator.page.reload();
    await operator.ready();
    await operator.says("The second one.");
    assert.ok(!(await operator.text()).includes("The first one."));
    await operator.leave();
});

test("a text that is being typed stays, and so does the cursor, while events arrive", async () => {
    const operator = await Visitor.open(browser, station);
    const field = await operator.control("Tag", "textbox");
    await field.focus();
    await operator.page.keyboard.type("4711-");
    for (let number = 0; number < 3; number++) {
        await station.steer("configure", `value.0x402 = ${number % 2 ? 0x60 : 0x68}`);
        const picture = await station.press();
        await operator.shown(picture.n);
        await operator.page.keyboard.type(String(number));
    }
    assert.deepEqual(
        await field.evaluate((element) => {
            const input = /** @type {HTMLInputElement} */ (element);
            return [input.value, document.activeElement === input, input.selectionStart];
        }),
        ["4711-012", true, 8],
    );
    await operator.leave();
});

test("a slow network delays the picture, not the words, and does not undo the one before", async () => {
    const operator = await Visitor.open(browser, station);
    const before = await station.press();
    await operator.shown(before.n);
    const tools = await operator.page.createCDPSession();
    await tools.send("Network.enable");
    await tools.send("Network.emulateNetworkConditions", {
        offline: false,
        latency: 300,
        downloadThroughput: 40000,
        uploadThroughput: 40000,
    });
    const picture = await station.press();
    await operator.says(picture.file);
    await operator.shown(picture.n);
    await operator.leave();
});

test("a page goes on when the program was started again; with new links, it says that it needs one", async () => {
    const own = await Station.start();
    await own.open();
    const operator = await Visitor.open(browser, own);
    const first = await own.press();
    await operator.shown(first.n);
    const port = Number(new URL(own.url).port);
    await own.stop({ keep: true });
    await operator.page.waitForFunction(
        () => !document.body.innerText.includes("Virtual EOS is ready."),
    );
    await operator.shown(first.n);
    const same = await Station.start({ base: own.base, port });
    await same.open();
    assert.equal(same.link("viewer"), own.link("viewer"));
    await operator.says("Virtual EOS is ready.");
    const second = await same.press();
    await operator.shown(second.n);
    await same.stop({ keep: true });
    const again = await Station.start({ base: own.base, port, args: ["--new-links"] });
    await again.open();
    await operator.says("This link is not valid any more.");
    // What the browser writes of the server that was away.
    operator.complaints = [];
    await operator.page.goto("about:blank");
    await operator.go(again.link("operator"));
    await operator.says("Virtual EOS is ready.");
    await operator.shown(second.n);
    const picture = await again.press();
    await operator.shown(picture.n);
    await operator.leave();
    await again.stop();
});

test("a picture that was chosen while nobody answered is shown once somebody does", async () => {
    const own = await Station.start();
    await own.open();
    const operator = await Visitor.open(browser, own);
    const first = await own.press();
    const second = await own.press();
    await operator.shown(second.n);
    const port = Number(new URL(own.url).port);
    await operator.page.setCacheEnabled(false); // it was on the stage for a moment
    await own.stop({ keep: true });
    await operator.says("The program on the computer was closed.");
    await operator.page.$eval(`[role=option][title="${first.file}"]`, (item) =>
        /** @type {HTMLElement} */ (item).click(),
    );
    await operator.says("cannot be shown here");
    const same = await Station.start({ base: own.base, port });
    await operator.shown(first.n);
    await operator.page.waitForSelector("lumatie-picture .missing", { hidden: true });
    operator.complaints = []; // what the browser writes of the server that was away
    await operator.leave();
    await same.stop();
});

test("another folder's picture of the same number is not the one that the browser has kept", async () => {
    const one = await Station.start();
    await one.open();
    const size = [900, 600];
    await one.showCharts([{ width: 900, height: 600, background: "#e00000", boxes: [] }]);
    const operator = await Visitor.open(browser, one);
    const picture = await one.press();
    await operator.shown(picture.n);
    const folder = join(one.base, "tuesday");
    mkdirSync(join(folder, ".lumatie"), { recursive: true });
    const file = "blue.jpg";
    await one.steer("chart", join(folder, file), ...size, "#0000e0", []);
    await one.stop({ keep: true });
    const data = readFileSync(join(folder, file));
    const sha256 = createHash("sha256").update(data).digest("hex");
    const record = { ...picture, file, sha256, size: data.length };
    writeFileSync(join(folder, ".lumatie/ledger.jsonl"), `${JSON.stringify(record)}\n`);
    await operator.page.goto("about:blank");
    const port = Number(new URL(one.url).port);
    const two = await Station.start({ base: one.base, folder, port });
    await operator.go(two.link("operator"));
    await operator.shown(picture.n);
    const { left, top, width, height } = await operator.box("lumatie-picture");
    const [[r, , b]] = await operator.colours([[left + width / 2, top + height / 2]]);
    assert.ok(r < 60 && b > 180, `${r}, ${b}`);
    const strip = await operator.page.waitForFunction(() => {
        const image = document.querySelector("[role=option] img");
        if (!(image instanceof HTMLImageElement) || !image.complete || !image.naturalWidth) {
            return null;
        }
        const context = new OffscreenCanvas(1, 1).getContext("2d");
        context?.drawImage(image, 0, 0, 1, 1);
        return [...(context?.getImageData(0, 0, 1, 1).data ?? [])];
    });
    assert.ok(/** @type {number[]} */ (await strip.jsonValue())[2] > 180, "the strip's, too");
    operator.complaints = []; // what the browser writes of the server that was away
    await operator.leave();
    await two.stop();
});

test("a day's pictures are in the strip, the oldest one within reach and the next one shown", async () => {
    const count = LONG ? 2000 : 500;
    const earlier = await Station.start();
    await earlier.open();
    const first = await earlier.press();
    await earlier.stop({ keep: true });
    let { n } = earlier.records[earlier.records.length - 1];
    const lines = [];
    for (let number = 1; number < count; number++) {
        const file = `many-${String(number).padStart(4, "0")}.JPG`;
        linkSync(join(earlier.folder, first.file), join(earlier.folder, file));
        n += 1;
        lines.push(JSON.stringify({ ...first, n, file, shot: 1 + number }));
    }
    appendFileSync(join(earlier.folder, ".lumatie/ledger.jsonl"), `${lines.join("\n")}\n`);

    const own = await Station.start({ base: earlier.base });
    await own.open();
    const operator = await Visitor.open(browser, own);
    await operator.shown(n);
    await until(async () => (await operator.strip()).length === count, "all of them");
    await operator.page.$eval("[role=listbox]", (list) => list.scrollTo(0, 0));
    await operator.page.waitForFunction(() => {
        const image = document.querySelector("[role=listbox] [role=option] img");
        return image instanceof HTMLImageElement && image.complete && image.naturalWidth > 0;
    });
    const next = await own.press();
    await operator.shown(next.n);
    const names = await operator.strip();
    assert.equal(names.length, count + 1);
    assert.ok(names[0].includes(first.file) && names[count].includes(next.file));
    await operator.leave();
    await own.stop();
});
