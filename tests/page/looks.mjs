/** How the pages look to everybody: sizes of windows, and what is wrong with a page. */

import { axeSource } from "./tools.mjs";

/** @typedef {import("./browsers.mjs").Visitor} Visitor */

export const SIZES = [
    { width: 360, height: 740, touch: true },
    { width: 1280, height: 800 },
    { width: 2560, height: 1440 },
];

/**
 * What axe-core finds wrong, and what is too wide for the window.
 * @param {Visitor} visitor @returns {Promise<unknown[]>}
 */
export async function violations(visitor) {
    if (!(await visitor.page.evaluate(() => "axe" in window))) {
        await visitor.page.evaluate(axeSource);
    }
    const found = await visitor.page.evaluate(async () => {
        const { violations } = await /** @type {any} */ (window).axe.run();
        return violations.map((/** @type {any} */ one) => [
            one.id,
            one.nodes.map((/** @type {any} */ node) => `${node.target} ${node.failureSummary}`),
        ]);
    });
    const beyond = await visitor.page.evaluate(
        () => document.documentElement.scrollWidth - innerWidth,
    );
    return beyond > 0 ? [...found, `${beyond} pixels beyond the window's right edge`] : found;
}
