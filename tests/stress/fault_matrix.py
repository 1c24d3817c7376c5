"""The fault matrix: every call of a maker's library, misbehaving in every way, during a shoot.

Each cell is a tethered shoot in a process of its own (faulty_shoot.py): a session, a value set,
three pictures, the end. calls.txt has the rows, FAULTS the columns. One rule judges all cells:

- the process ends by itself, with status 0 and nothing on standard error;
- each Uninit returns within BOUND seconds;
- the virtual camera records no fault of its caller;
- every picture that the camera handed over is on the disk whole, or its failure was announced;
- no other file is there.

A cell whose fault was not met was not tried, which is a failure, too. So is a call of a shoot
without faults that has no row, and a row that such a shoot has no call for. The cells run side by
side: what may be wrong for want of time alone has to be right when the cell runs by itself.

The tables, also in build/results/stress/fault-matrix.md, say what became of the pictures: whole on
the disk; failed, and announced so; left on the camera. "Init 0": there was no session. A dash: the
caller keeps the interpreter lock during the call, so that nothing else can happen.
"""

import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
RESULTS = HERE.parents[1] / "build" / "results" / "stress"
BOUND = 5.0  # seconds; a call is held for 1.5, or is slow by 2
DEADLINE = 90  # seconds for a whole cell
AT_ONCE = 32  # cells; they wait more than they work
# What is found, too, when a machine was too busy for the time that a shoot gives its camera.
OF_TIME = re.compile(
    r"\d+ pictures lost|the fault was not met|Uninit took|did not end|left no result"
)

# What a refused call answers, and one that finds the camera busy.
ERROR = {"canon": "0x8D07", "nikon": "-127"}
BUSY = {"canon": "0x81", "nikon": "-9"}

# Column -> (the rest of the rule, whether the call is held, what happens meanwhile).
FAULTS = {
    "error": ("code={error}", False, ""),
    "error each time": ("code={error} calls=0", False, ""),
    "busy 3 times": ("code={busy} calls=3", False, ""),
    "hang": ("hang", True, ""),
    "slow by 2 s": ("delay_ms=2000", False, ""),
    "unplugged": ("unplug", False, ""),
    "interpreter ends": ("hang", True, "ends"),
    "Uninit": ("hang", True, "uninit"),
}
# In these the session gets well, and has to deliver whatever the camera handed over.
PASSING = ("error", "busy 3 times", "hang", "slow by 2 s")

Call = collections.namedtuple("Call", "maker name rule arm kind unless check")


def read_calls():
    """The rows of calls.txt."""
    lines = (HERE / "calls.txt").read_text(encoding="utf-8").splitlines()
    rows = [line.split("|") for line in lines if line and not line.startswith("#")]
    return [Call(*(field.strip() for field in row)) for row in rows]


def shoot(cell, result):
    """Runs faulty_shoot.py with a cell. The file `result`, in its own folder, gets the outcome."""
    return subprocess.run(
        [sys.executable, str(HERE / "faulty_shoot.py"), result, json.dumps(cell)],
        check=False,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        timeout=DEADLINE,
        env=dict(os.environ, PYTHONFAULTHANDLER="1", TMPDIR=os.path.dirname(result)),
    )


class Cell:
    """One call with one fault. `run()` makes `faults`, what is wrong, and `summary`, in short."""

    def __init__(self, call, fault):
        self.call, self.fault = call, fault
        how, self.holds, self.during = FAULTS[fault]
        if "code=" in how and call.unless == "after":
            how += " after"
        codes = {"error": ERROR[call.maker], "busy": BUSY[call.maker]}
        self.rule = call.rule + " " + how.format(**codes)
        self.is_possible = not (self.holds and call.unless == "locked")
        self.faults, self.summary = [], ""

    def word(self):
        """What the table says of it."""
        if not self.is_possible:
            return "-"
        return "**FAILED**" if self.faults else self.summary

    @property
    def is_late(self):
        """Whether all that is wrong may be for want of time."""
        return bool(self.faults) and all(map(OF_TIME.match, self.faults))

    def run(self):
        """Runs the shoot, and judges it."""
        with tempfile.TemporaryDirectory(prefix="lumatie-matrix-") as base:
            result = os.path.join(base, "result")
            try:
                run = shoot(self._order(), result)
                self._judge_process(run.returncode, run.stderr.decode(errors="replace"))
            except subprocess.TimeoutExpired:
                self.faults.append("did not end within {} s".format(DEADLINE))
            if os.path.exists(result):
                with open(result, encoding="utf-8") as file:
                    self._judge(json.load(file))
            elif not self.faults:
                self.faults.append("left no result")
        return self

    def _order(self):
        return {
            "maker": self.call.maker,
            "rule": self.rule,
            "arm": self.call.arm,
            "sign": self._sign(),
            "holds": self.holds,
            "during": self.during,
        }

    def _sign(self):
        """What the call log, or the settings, show of a fault that was met."""
        line = r" {}.*\) = ".format(re.escape(self.call.kind))
        if "unplug" in self.rule:
            return r"^camera\.plugged = 0$"
        if "delay_ms" in self.rule:
            return line + r"\S+ 1?\d{4}\.\d+ ms"
        code = re.search(r"code=(\S+)", self.rule)
        return line + (code.group(1) if code else "") + r"\b"

    def _judge_process(self, status, errors):
        if status != 0:
            self.faults.append("ended with status {}".format(status))
        if errors and not self._is_expected(errors):
            self.faults.append("standard error: " + errors[:500])

    def _judge(self, result):
        if not result["met"]:
            self.faults.append("the fault was not met")
        self.faults += [
            "Uninit took {:.1f} s".format(seconds)
            for seconds in result["uninit"]
            if seconds > BOUND
        ]
        if self.during != "ends" and not result["uninit"]:
            self.faults.append("Uninit did not return")
        self.faults += [line for line in result["misuse"] if not self._is_expected(line)]
        self._judge_pictures(result)

    def _is_expected(self, complaint):
        kept = self.call.unless.partition("kept: ")[2]
        return kept and "code=" in self.rule and kept in complaint

    def _judge_pictures(self, result):
        made = {picture["hash"] for picture in result["pictures"]}
        whole = set(result["files"].values()) & made
        for path, content in result["files"].items():
            if content not in made:
                self.faults.append("partial file " + os.path.basename(path))
        missing = [path for path in result["announced"] if path not in result["files"]]
        if missing and not self._may_be_missing():
            self.faults.append("announced, but not there: {}".format(missing))
        told = result["failed"] + len(missing)
        left = {p["hash"] for p in result["pictures"] if self._is_on_camera(p)} - whole
        lost = len(made - whole - left) - told
        if lost > 0:
            self.faults.append("{} pictures lost".format(lost))
        self.summary = _summarize(result["init"], len(whole), told, len(left))

    def _may_be_missing(self):
        # A camera without its cable does not tell of the picture, as if that call had failed.
        return self.call.unless == "no file" or (self.call.maker, self.fault) == (
            "canon",
            "unplugged",
        )

    def _is_on_camera(self, picture):
        """Whether the application can still have it, in the same camera session or a later one."""
        if self.call.maker == "nikon":
            return picture["listed"] > 0
        if not picture["to_host"] or not picture["announced"]:
            return True
        # It was offered: a session that is well has to take it.
        return picture["complete"] == 0 and self.fault not in PASSING


def _summarize(init, whole, failed, left):
    if init == 0:
        return "`Init` 0"
    counts = ((whole, "whole"), (failed, "failed"), (left, "left"))
    return ", ".join("{} {}".format(count, word) for count, word in counts if count) or "none"


def judge_completeness(calls):
    """Complains about calls of shoots without faults that have no row."""
    faults = []
    for maker in sorted({call.maker for call in calls}):
        kinds = {call.kind for call in calls if call.maker == maker}
        with tempfile.TemporaryDirectory(prefix="lumatie-matrix-") as base:
            result = os.path.join(base, "result")
            cell = {"maker": maker, "rule": "", "arm": "", "sign": "", "holds": False, "during": ""}
            shoot(cell, result).check_returncode()
            with open(result, encoding="utf-8") as file:
                made = {call for call in json.load(file)["calls"] if " " not in call}
        faults += ["{} has no row: {}".format(maker, call) for call in sorted(made - kinds)]
        faults += ["{} is not called: {}".format(maker, call) for call in sorted(kinds - made)]
    return faults


def table(cells, maker):
    """The cells of a maker as a table in Markdown."""
    lines = ["| call | " + " | ".join(FAULTS) + " |", "|---" * (len(FAULTS) + 1) + "|"]
    rows = collections.OrderedDict()
    for cell in cells:
        if cell.call.maker == maker:
            rows.setdefault(cell.call.name, {})[cell.fault] = cell
    for name, row in rows.items():
        words = [row[fault].word() if fault in row else "" for fault in FAULTS]
        lines.append("| {} | {} |".format(name, " | ".join(words)))
    return "\n".join(lines)


def tables(cells):
    """The tables of all makers."""
    makers = sorted({cell.call.maker for cell in cells})
    return "\n\n".join(
        "## {}\n\n{}".format(maker.capitalize(), table(cells, maker)) for maker in makers
    )


def make_parser(description):
    """Reads which cells the command line asks for."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--maker", choices=("canon", "nikon"), help="this maker's calls only")
    parser.add_argument("--call", default="", help="calls whose names hold this text only")
    parser.add_argument("--fault", choices=FAULTS, help="this column only")
    parser.add_argument(
        "--sample", type=int, default=1, metavar="N", help="each Nth cell, along the diagonals"
    )
    return parser


def choose(calls, options, kind):
    """The cells that the options ask for, made by `kind`."""
    return [
        kind(call, fault)
        for row, call in enumerate(calls)
        if options.call in call.name
        for column, fault in enumerate(FAULTS)
        if options.fault in (None, fault) and (row + column) % options.sample == 0
    ]


def report(failed, faults):
    """Prints what is wrong."""
    for cell in failed:
        print("\nFAILED: {}, {}: {}".format(cell.call.name, cell.fault, cell.rule))
        print("\n".join("    " + fault for fault in cell.faults))
    for fault in faults:
        print("\nFAILED: " + fault)


def play(cells):
    """Runs the cells that are possible, many at a time."""
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        list(pool.map(lambda cell: cell.run(), [cell for cell in cells if cell.is_possible]))
    for cell in cells:
        if cell.is_late:
            print("once more, alone: {}, {}: {}".format(cell.call.name, cell.fault, cell.faults))
            cell.faults = []
            cell.run()


def conclude(title, file, cells, begun, faults=()):
    """Prints the tables, leaves them in a file of RESULTS, and tells what is wrong.

    Returns the exit status. `faults` are those of no cell.
    """
    tried = [cell for cell in cells if cell.is_possible]
    failed = [cell for cell in tried if cell.faults]
    seconds = time.monotonic() - begun
    verdict = "{} cells, {} failed, in {:.0f} s".format(len(tried), len(failed), seconds)
    RESULTS.mkdir(parents=True, exist_ok=True)
    (RESULTS / file).write_text(
        "# {}\n\n{}\n\n{}\n".format(title, verdict, tables(cells)), encoding="utf-8"
    )
    print(tables(cells))
    report(failed, faults)
    print("\n" + verdict)
    return int(bool(failed or faults))


def main():
    options = make_parser(__doc__.splitlines()[0]).parse_args()
    begun = time.monotonic()
    calls = [call for call in read_calls() if options.maker in (None, call.maker)]
    faults = judge_completeness(calls)
    cells = choose(calls, options, Cell)
    play(cells)
    return conclude("The fault matrix", "fault-matrix.md", cells, begun, faults)


if __name__ == "__main__":
    sys.exit(main())
