/** What most files of tests begin with. */

import { after } from "node:test";

import { launch } from "./browsers.mjs";
import { Station, stopAll } from "./station.mjs";

/** A browser, and a station that is ready; both end with the file of tests. */
export async function begin() {
    const browser = await launch();
    after(async () => {
        await browser.close();
        await stopAll();
    });
    const station = await Station.start();
    await station.open();
    return { browser, station };
}
