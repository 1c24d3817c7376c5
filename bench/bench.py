"""Runs every benchmark and shows one table: bench.py --build TREE --results FOLDER

Exit status 1 when a picture was lost or a result was wrong, and when a target was missed; in a
short run only when it was missed by far.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import subprocess
import sys
import time

import page
import roads
import studio

roads.ROADS += page.ROADS + studio.ROADS
HERE = pathlib.Path(__file__).resolve().parent
# The measurements of each program.
SESSIONS = {
    "sessions.py": (
        "canon_pictures canon_set_value nikon_set_value canon_shoot nikon_shoot nikon_memory"
    ).split(),
    "host_sessions.py": "host_pictures host_set host_events canon_idle nikon_idle".split(),
}
# Groups of the C++ program: a pattern of names, and how often each of them takes its turn, in a
# full and in a short run.
PROGRAM = {
    "calls": ("^call_", 600, 60),
    "texts": ("^(list|report)_", 300, 30),
    "cycles": ("^cycle_", 300, 30),
    "pictures": ("^picture_", 40, 4),
}
# Short turns: most of them pass without the system giving the core to somebody else.
SECONDS_OF_A_TURN = 0.001
# A load that the measurements do not make themselves.
BUSY = 1.5
IMPORT_HOST = """
import sys, time
begin = time.monotonic()
import lumatie_host
open(sys.argv[1], "w").write(str(time.monotonic() - begin))
"""


def note(text):
    print("== " + text, flush=True)


def run(command, **options):
    """Runs what measures something; what it writes to standard output is the module's chatter."""
    subprocess.run(
        [str(word) for word in command], check=True, stdout=subprocess.DEVNULL, **options
    )


class Bench:
    def __init__(self, options):
        self.build = pathlib.Path(options.build).resolve()
        self.folder = pathlib.Path(options.results).resolve()
        self.short = options.short
        self.embedded = ""
        self.found = []
        self.samples = {}
        self.folder.mkdir(parents=True, exist_ok=True)
        for old in [*self.folder.glob("*.json"), *self.folder.glob("*.jpg")]:
            old.unlink()
        self.environment = dict(
            os.environ, LUMATIE_BUILD_DIR=str(self.build), PYTHONDONTWRITEBYTECODE="1"
        )

    def add(self, key, samples, floor=()):
        what = next(one for one in roads.ROADS if one.key == key)
        self.samples[key] = {"samples": list(samples), "floor": list(floor)}
        self.found.append(roads.evaluate(what, samples, floor))

    def measure_program(self):
        """Roads and floors take turns at random, so that both have the same neighbours."""
        for name, (pattern, full, short) in PROGRAM.items():
            note("{} in C++".format(name))
            output = self.folder / "cpp-{}.json".format(name)
            run(
                [
                    self.build / "bench" / "lumatie_bench",
                    "--benchmark_filter=" + pattern,
                    "--benchmark_enable_random_interleaving=true",
                    "--benchmark_repetitions={}".format(short if self.short else full),
                    "--benchmark_min_time={}".format(SECONDS_OF_A_TURN),
                    "--benchmark_out={}".format(output),
                ],
                cwd=str(self.folder),
                stderr=subprocess.DEVNULL,
            )
            self.read_program(output)

    def read_program(self, output):
        report = json.loads(output.read_text())
        times = {}
        for one in report["benchmarks"]:
            if one.get("error_occurred"):
                raise SystemExit("{}: {}".format(one["name"], one["error_message"]))
            if one["run_type"] == "iteration":
                key, side = one["name"].split("/")[:2]
                sides = times.setdefault(key, {"module": [], "floor": []})
                sides["floor" if side == "floor" else "module"].append(one["real_time"] * 1e-9)
                if side == "both":
                    sides["floor"].append(one["floor"])
        self.embedded = report["context"]["embedded_python"]
        for what in roads.ROADS:
            if what.key in times:
                self.add(what.key, times[what.key]["module"], times[what.key]["floor"])

    def measure_sessions(self):
        for program, name in ((one, name) for one, names in SESSIONS.items() for name in names):
            note(name.replace("_", " "))
            output = self.folder / (name + ".json")
            command = [sys.executable, HERE / program, name, output]
            run(
                command + ["--short"] * self.short,
                cwd=str(self.folder),
                env=self.environment,
                timeout=600,
            )
            result = json.loads(output.read_text())
            self.add(name, result["samples"], result.get("floor", ()))
            if "until_call" in result:
                self.add(name + "_call", result["until_call"])
            if "hosted" in result:
                self.add(name + "_hosted", result["hosted"], result["samples"])

    def measure_starts(self):
        note("starts and ends")
        floor = []
        host = []
        taken = {"canon": [], "nikon": []}
        output = self.folder / "start.json"
        self.import_host(output)  # which compiles it
        for _ in range(3 if self.short else 20):
            begin = time.monotonic()
            run([sys.executable, "-c", "pass"])
            floor.append(time.monotonic() - begin)
            host.append(self.import_host(output))
            for maker, results in taken.items():
                run(
                    [sys.executable, HERE / "start.py", maker, self.build, output],
                    cwd=str(self.folder),
                    env=self.environment,
                    timeout=60,
                )
                results.append(json.loads(output.read_text()))
        output.unlink()
        imports = [one["import"] for results in taken.values() for one in results]
        self.add("import", imports, floor)
        self.add("host_import", host, floor)
        for step in ("init", "uninit"):
            for maker, results in taken.items():
                own = [one[step + "_inside"] for one in results]
                self.add("{}_{}".format(maker, step), [one[step] for one in results], own)

    def import_host(self, output):
        """Seconds that the import of the host package takes, with its bytecode kept, as usual."""
        environment = dict(
            self.environment,
            PYTHONPATH=str(HERE.parent / "host"),
            PYTHONPYCACHEPREFIX=str(self.folder / "bytecode"),
            PYTHONDONTWRITEBYTECODE="",
        )
        run([sys.executable, "-c", IMPORT_HOST, output], env=environment, timeout=60)
        return float(output.read_text())

    def machine(self):
        """What the figures were measured on."""
        info = pathlib.Path("/proc/cpuinfo").read_text()
        model = re.search(r"^model name\s*: (.*)$", info, re.MULTILINE)
        cache = (self.build / "CMakeCache.txt").read_text()

        def cached(name):
            return re.search(r"^{}:\w+=(.*)$".format(name), cache, re.MULTILINE).group(1)

        compiler = subprocess.run(
            [cached("CMAKE_CXX_COMPILER"), "--version"], stdout=subprocess.PIPE, check=True
        )
        kind = cached("CMAKE_BUILD_TYPE") or "RelWithDebInfo"
        return {
            "date": datetime.datetime.utcnow().strftime("%Y-%m-%d"),
            "processor": model.group(1) if model else platform.processor(),
            "cores": os.cpu_count(),
            "kernel": "{} {}".format(platform.system(), platform.release()),
            "compiler": compiler.stdout.decode().splitlines()[0],
            "build": "{} ({})".format(kind, cached("CMAKE_CXX_FLAGS_" + kind.upper())),
            "python": platform.python_version(),
            "embedded_python": self.embedded,
        }

    def measure(self):
        load = os.getloadavg()[0]
        self.measure_program()
        self.measure_sessions()
        self.measure_starts()
        page.measure(self)
        note("events to a page, and to a studio of 100 stations")
        studio.measure(self)
        order = [what.key for what in roads.ROADS]
        self.found.sort(key=lambda found: order.index(found["key"]))
        result = {
            "machine": dict(self.machine(), load=[load, os.getloadavg()[0]]),
            "short": self.short,
            "roads": self.found,
            "samples": self.samples,
        }
        (self.folder / "results.json").write_text(json.dumps(result, indent=1))
        return result


def show_table(found):
    rows = [roads.HEADINGS] + [roads.row(one) for one in found]
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def describe(machine):
    load = "load {:.1f} before, {:.1f} after".format(*machine["load"])
    return (
        "{date}: {processor}, {cores} cores, {kernel}; {compiler}, {build}; CPython {python} "
        "(events into Python: CPython {embedded_python} embedded)".format(**machine)
        + "; "
        + load
    )


def write_page(path, result):
    """Writes the machine and the table for people."""
    lines = ["# Speed", "", describe(result["machine"]) + "."]
    if max(result["machine"]["load"]) > BUSY:
        lines.append(
            "The machine did other things meanwhile: what is missed here by little, or by a "
            "percentile, need not be missed on one that does not."
        )
    lines.append("")
    lines.append("| " + " | ".join(roads.HEADINGS) + " |")
    lines.append("|" + "---|" * len(roads.HEADINGS))
    lines += ["| " + " | ".join(roads.row(one)) + " |" for one in result["roads"]]
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")


def verdict(result):
    """The exit status."""
    column = "broken" if result["short"] else "verdict"
    failed = [one["key"] for one in result["roads"] if one[column] in (True, "MISSED")]
    missed = [one["key"] for one in result["roads"] if one["verdict"] == "MISSED"]
    print("missed: {}".format(", ".join(missed) or "nothing"))
    if result["short"]:
        print("missed by far: {}".format(", ".join(failed) or "nothing"))
    return 1 if failed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help="the build tree")
    parser.add_argument("--results", required=True, help="the folder for the JSON files")
    parser.add_argument("--short", action="store_true", help="few repetitions")
    options = parser.parse_args()
    result = Bench(options).measure()
    print(describe(result["machine"]))
    show_table(result["roads"])
    write_page(pathlib.Path(options.results) / "speed.md", result)
    return verdict(result)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except subprocess.SubprocessError as error:
        sys.exit("error: {}".format(error))
