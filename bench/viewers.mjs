/**
 * Viewers that are programs: viewers.mjs URL TOKEN COUNT. Each hears of every picture and fetches its
 * preview. They say "open" when all of them are connected, and end with their standard input.
 *
 * In life viewers are machines of their own. Here they have a process of the lowest priority, so that
 * what is measured is what they cost the station, and neither the program that measures nor a core.
 */

import assert from "node:assert/strict";
import { constants, setPriority } from "node:os";

import { WebSocket } from "../tests/page/tools.mjs";

const [url, token, count] = process.argv.slice(2);
const headers = { Authorization: `Bearer ${token}` };

function view() {
    const socket = new WebSocket(new URL("/api/live", url.replace("http", "ws")), { headers });
    socket.on("message", async (/** @type {Buffer} */ data) => {
        const { kind, n } = JSON.parse(String(data));
        if (kind === "picture") {
            const answer = await fetch(new URL(`/api/pictures/${n}/preview?w=2048`, url), { headers });
            assert.equal(answer.status, 200);
            await answer.arrayBuffer();
        }
    });
    return new Promise((resolve, reject) => {
        socket.once("open", resolve);
        socket.once("error", reject);
    });
}

setPriority(constants.priority.PRIORITY_LOW);
await Promise.all(Array.from({ length: Number(count) }, view));
console.log("open");
process.stdin.resume().on("end", () => process.exit(0));
