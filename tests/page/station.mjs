/** `lumatie serve` with a virtual camera, as a process that a test steers. */

import { spawn } from "node:child_process";
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { delimiter, join } from "node:path";
import { createInterface } from "node:readline";

import { BUILD, DEADLINE, REPOSITORY, until } from "./tools.mjs";

/** For the first start, whose files come from a slow disk; in milliseconds. */
const START_DEADLINE = 90000;

/** @typedef {{ [key: string]: any }} Json */

/** Those that have not been stopped. @type {Set<Station>} */
const running = new Set();

/** Ends what a test that failed left running; a file of tests calls it in the end. */
export async function stopAll() {
    await Promise.all([...running].map((station) => station.stop()));
}

export class Station {
    /**
     * Starts a station that takes its pictures into `folder` (a new one) and waits until it serves.
     * @param {{ maker?: "canon" | "nikon", settings?: string, args?: string[], port?: number,
     *     base?: string, folder?: string, library?: string }} options `settings` are the virtual
     *     camera's; `base` is the folder of a station that ran before; `library` takes the place of
     *     the virtual camera's
     */
    static async start(options = {}) {
        const station = new Station(options);
        await until(
            () => station.links || station.hasEnded,
            () => `the links of the station\n${station.words}`,
            START_DEADLINE,
        );
        if (!station.links) {
            throw new Error(`the station ended:\n${station.words}`);
        }
        return station;
    }

    /** @param {Parameters<typeof Station.start>[0]} options */
    constructor(options = {}) {
        const { maker = "canon", settings = "", args = [], port = 0 } = options;
        running.add(this);
        /** Where everything of the station lies. */
        this.base = options.base ?? mkdtempSync(join(tmpdir(), "lumatie-page-"));
        this.folder = options.folder ?? join(this.base, "shoot");
        if (options.folder === undefined) {
            mkdirSync(this.folder, { recursive: true });
        }
        const configuration = join(this.base, "camera.txt");
        writeFileSync(configuration, settings);

        /** The ledger's records, as they are printed. @type {Json[]} */
        this.records = [];
        /** The record with the links. @type {Json | undefined} */
        this.links = undefined;
        /** What the station wrote to standard error. */
        this.words = "";
        this.hasEnded = false;
        /** @type {((answer: Json) => void)[]} */
        this.waiting = [];

        const library = options.library
            ? ["--camera", "Virtual EOS", "--canon-library", options.library]
            : ["--virtual", maker];
        const python = process.env.LUMATIE_PAGE_PYTHON ?? "python3";
        const program = join(REPOSITORY, "tests/page/station.py");
        const command = ["serve", "--json", "--port", String(port), "--folder", this.folder];
        this.process = spawn(python, ["-B", program, maker, ...command, ...library, ...args], {
            cwd: this.base,
            env: {
                ...process.env,
                LUMATIE_BUILD_DIR: BUILD,
                [`LUMATIE_VIRTUAL_${maker.toUpperCase()}`]: configuration,
                XDG_STATE_HOME: this.base, // where links are kept
                PYTHONPATH: [join(BUILD, "python"), join(REPOSITORY, "host")].join(delimiter),
            },
            stdio: ["pipe", "pipe", "pipe", "pipe"],
        });
        this.ended = new Promise((resolve) => {
            this.process.on("exit", (status, signal) => {
                this.hasEnded = true;
                resolve(status ?? signal);
            });
        });
        this.process.stderr?.on("data", (data) => (this.words += data));
        this.listen(1, (record) => {
            if (record.kind === "serving") {
                this.links = record;
            } else {
                this.records.push(record);
            }
        });
        this.listen(3, (answer) => this.waiting.shift()?.(answer));
    }

    /** @param {number} file @param {(value: Json) => void} hear */
    listen(file, hear) {
        const stream = /** @type {import("node:stream").Readable} */ (this.process.stdio[file]);
        createInterface({ input: stream }).on("line", (line) => hear(JSON.parse(line)));
    }

    /**
     * Steers the virtual camera: the names are those that station.py knows.
     * @param {string} name @param {any[]} args @returns {Promise<any>}
     */
    async steer(name, ...args) {
        const answer = await new Promise((/** @type {(answer: Json) => void} */ resolve) => {
            this.waiting.push(resolve);
            this.process.stdin?.write(`${JSON.stringify([name, ...args])}\n`);
        });
        if (answer.error) {
            throw new Error(`${name}: ${answer.error}`);
        }
        return answer.is;
    }

    get url() {
        return /** @type {Json} */ (this.links).url;
    }

    /** @param {"operator" | "viewer"} role */
    link(role) {
        return /** @type {Json} */ (this.links)[role];
    }

    /** @param {"operator" | "viewer"} role */
    token(role) {
        return new URL(this.link(role)).hash.slice(1);
    }

    /**
     * Calls the HTTP interface as a program does; a body makes it a POST.
     * @param {string} path @param {Json} [body] @param {"operator" | "viewer"} role
     * @returns {Promise<{ status: number, body: any }>}
     */
    async call(path, body, role = "operator") {
        const answer = await fetch(new URL(path, this.url), {
            method: body ? "POST" : "GET",
            headers: { Authorization: `Bearer ${this.token(role)}` },
            body: body && JSON.stringify(body),
        });
        return { status: answer.status, body: await answer.json() };
    }

    /** Waits for a record that fits, among those from `from` on. @param {(record: Json) => unknown} fits */
    record(fits, from = 0) {
        return until(
            () => this.records.slice(from).find(fits),
            () => `a record; there are ${JSON.stringify(this.records.slice(-5))}\n${this.words}`,
        );
    }

    get pictures() {
        return this.records.filter((record) => record.kind === "picture");
    }

    /** Waits until the camera is open. */
    async open() {
        await this.record((record) => record.kind === "opened");
        await until(
            async () => (await this.call("/api/state")).body.connection === "open",
            "the camera is open",
        );
    }

    /** Presses the button on the body; returns the picture's record once it is there. */
    async press() {
        const before = this.pictures.length;
        await this.steer("press_shutter");
        return until(() => this.pictures[before], () => `a picture\n${this.words}`);
    }

    /**
     * The camera delivers these charts from now on, one after the other (station.py's `chart`).
     * @param {{ width: number, height: number, background: string, boxes: any[][] }[]} charts
     */
    async showCharts(charts, copies = 1) {
        const folder = mkdtempSync(join(this.base, "charts-"));
        for (let number = 0; number < charts.length * copies; number++) {
            const { width, height, background, boxes } = charts[number % charts.length];
            const path = join(folder, `${String(number).padStart(5, "0")}.jpg`);
            await this.steer("chart", path, width, height, background, boxes, number);
        }
        await this.steer("configure", `picture.folder = ${folder}`);
    }

    /** Ends the station, as Ctrl-C does or at once; its folder stays when it goes on later. */
    async stop({ signal = /** @type {NodeJS.Signals} */ ("SIGINT"), keep = false } = {}) {
        if (!this.hasEnded) {
            this.process.kill(signal);
        }
        const patience = setTimeout(() => this.process.kill("SIGKILL"), DEADLINE);
        const status = await this.ended;
        clearTimeout(patience);
        running.delete(this);
        if (!keep) {
            rmSync(this.base, { recursive: true, force: true });
        }
        return status;
    }
}
