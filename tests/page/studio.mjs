/** A studio as processes that a test steers: a broker, stations with virtual cameras, the desk. */

import { execFileSync, spawn } from "node:child_process";
import { copyFileSync, existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { delimiter, join } from "node:path";
import { createInterface } from "node:readline";

import { BUILD, DEADLINE, REPOSITORY, until } from "./tools.mjs";

const BROKER = join(REPOSITORY, "host/lumatie_host/studio/mosquitto");
const START_DEADLINE = 90000; // for the first start, whose files come from a slow disk; milliseconds

/** @typedef {{ [key: string]: any }} Json */
/** @typedef {{ process: import("node:child_process").ChildProcess, ended: Promise<void>,
 *     hasEnded: boolean, words: string, records: Json[] }} Program */

/** Those that have not been stopped. @type {Set<Studio>} */
const running = new Set();

/** Ends what a test that failed left running; a file of tests calls it in the end. */
export async function stopStudios() {
    await Promise.all([...running].map((studio) => studio.stop()));
}

/** A port of this machine's that nobody has. @returns {Promise<number>} */
function freePort() {
    return new Promise((resolve) => {
        const probe = createServer().listen(0, "127.0.0.1", () => {
            const { port } = /** @type {import("node:net").AddressInfo} */ (probe.address());
            probe.close(() => resolve(port));
        });
    });
}

export class Studio {
    /**
     * Starts a broker, the desk, and stations of these names, and waits until all are ready.
     * @param {string[]} names @param {{ patience?: number }} options seconds until a shot without a
     *     picture is told
     */
    static async start(names, { patience = 30 } = {}) {
        const studio = new Studio(await freePort(), ["studio", ...names]);
        await studio.startBroker();
        const desk = studio.lumatie("studio", "studio", ["--port", "0", "--timeout", String(patience)]);
        await until(
            () => desk.records.length || desk.hasEnded,
            () => `the desk\n${desk.words}`,
            START_DEADLINE,
        );
        if (desk.hasEnded) {
            throw new Error(`the desk ended:\n${desk.words}`);
        }
        studio.links = desk.records[0];
        names.forEach((name) => studio.startStation(name));
        await studio.areReady(names.length);
        return studio;
    }

    /** @param {number} port of the broker @param {string[]} users */
    constructor(port, users) {
        running.add(this);
        this.port = port;
        this.users = users;
        this.base = mkdtempSync(join(tmpdir(), "lumatie-studio-"));
        /** @type {Json} */
        this.links = {};
        /** @type {Map<string, Program>} */
        this.programs = new Map();
    }

    async startBroker() {
        const passwords = join(this.base, "passwords");
        writeFileSync(passwords, this.users.map((name) => `${name}:pw\n`).join(""), { mode: 0o600 });
        execFileSync("mosquitto_passwd", ["-U", passwords]);
        copyFileSync(join(BROKER, "acl"), join(this.base, "acl"));
        const text = readFileSync(join(BROKER, "mosquitto.conf"), "utf8")
            .replace("listener 1883", `listener ${this.port} 127.0.0.1`)
            .replaceAll("/etc/mosquitto/", `${this.base}/`)
            .replaceAll("/var/lib/mosquitto/", `${this.base}/`);
        const isRoot = process.getuid?.() === 0;
        writeFileSync(join(this.base, "mosquitto.conf"), text + (isRoot ? "user root\n" : ""));
        const path = "/usr/sbin/mosquitto";
        const program = existsSync(path) ? path : "mosquitto";
        this.run("broker", program, ["-c", join(this.base, "mosquitto.conf")], {});
    }

    /** @param {string} name */
    startStation(name) {
        const camera = join(this.base, `camera-${name}.txt`);
        writeFileSync(camera, "picture.width = 1200\npicture.height = 800\n");
        const args = ["--name", name, "--virtual", "canon", "--template", "{station}_{n:04}"];
        this.lumatie("station", name, args, { LUMATIE_VIRTUAL_CANON: camera });
    }

    /**
     * @param {string} word @param {string} user @param {string[]} args
     * @param {{ [name: string]: string }} variables
     */
    lumatie(word, user, args, variables = {}) {
        const folder = join(this.base, `folder-${user}`);
        mkdirSync(folder, { recursive: true });
        const broker = `mqtt://${encodeURIComponent(user)}:pw@127.0.0.1:${this.port}`;
        const command = ["-B", "-m", "lumatie_host.cli", word, "--broker", broker, "--studio", "test"];
        return this.run(
            user,
            process.env.LUMATIE_PAGE_PYTHON ?? "python3",
            [...command, "--folder", folder, "--json", ...args],
            {
                ...variables,
                LUMATIE_BUILD_DIR: BUILD,
                PYTHONPATH: [join(BUILD, "python"), join(REPOSITORY, "host")].join(delimiter),
            },
        );
    }

    /**
     * @param {string} name @param {string} path @param {string[]} args
     * @param {{ [name: string]: string }} variables
     */
    run(name, path, args, variables) {
        const child = spawn(path, args, {
            cwd: this.base,
            env: { ...process.env, ...variables },
            stdio: ["ignore", "pipe", "pipe"],
        });
        /** @type {Program} */
        const program = {
            process: child,
            hasEnded: false,
            words: "",
            records: [],
            ended: new Promise((resolve) => {
                child.on("exit", () => {
                    program.hasEnded = true;
                    resolve();
                });
            }),
        };
        child.stderr.on("data", (data) => (program.words += data));
        createInterface({ input: child.stdout }).on("line", (line) => {
            program.records.push(JSON.parse(line));
        });
        this.programs.set(name, program);
        return program;
    }

    get url() {
        return this.links.url;
    }

    /** @param {"operator" | "viewer"} role */
    link(role) {
        return this.links[role];
    }

    /** Calls the page as a program does; a body makes it a POST. @param {string} path @param {Json} [body] */
    async call(path, body) {
        const answer = await fetch(new URL(path, this.url), {
            method: body ? "POST" : "GET",
            headers: { Authorization: `Bearer ${new URL(this.link("operator")).hash.slice(1)}` },
            body: body && JSON.stringify(body),
        });
        return { status: answer.status, body: await answer.json() };
    }

    /** Waits until so many stations are ready. @param {number} count */
    areReady(count) {
        return until(
            async () => {
                const { stations } = (await this.call("/api/state")).body;
                const isReady = (/** @type {Json} */ one) => one.connection === "open";
                return stations.filter(isReady).length === count;
            },
            () => [...this.programs].map(([name, { words }]) => `${name}: ${words}`).join("\n"),
            START_DEADLINE,
        );
    }

    /** Kills a station, as a power cut does. @param {string} name */
    async kill(name) {
        const program = /** @type {Program} */ (this.programs.get(name));
        program.process.kill("SIGKILL");
        await program.ended;
    }

    /** Ends all of it: the desk and the stations, then the broker. */
    async stop() {
        const all = [...this.programs.entries()];
        const end = async (/** @type {Program[]} */ programs) => {
            programs.filter(({ hasEnded }) => !hasEnded).forEach((one) => one.process.kill("SIGINT"));
            const patience = setTimeout(() => programs.forEach((one) => one.process.kill("SIGKILL")), DEADLINE);
            await Promise.all(programs.map(({ ended }) => ended));
            clearTimeout(patience);
        };
        await end(all.filter(([name]) => name !== "broker").map(([, one]) => one));
        await end(all.filter(([name]) => name === "broker").map(([, one]) => one));
        rmSync(this.base, { recursive: true, force: true, maxRetries: 20, retryDelay: 50 });
        running.delete(this);
    }
}
