"""lumatie check against the fault matrix: every call, misbehaving in every way, while it asks.

The rows and columns are those of fault_matrix.py. Each cell is a check in a process of its own,
with pictures where the call is only made for them; each process that it starts meets the fault. In
the column "interpreter ends" the check is interrupted while the call is held; what the application
does in the column "Uninit" is not the check's to do. One rule judges all cells:

- it ends by itself within the minutes that it stated, with a status that docs/check.md names, and
  without a traceback; interrupted, it ends within INTERRUPTED seconds with status 130;
- what it printed is a line of JSON for each point, in their order, and the one that sums up; no
  point took longer than its seconds, and none is told of with an error of Python's;
- no process of it is left, and no file;
- each session that was opened is closed, unless the fault keeps it from being closed: the library
  hangs or refuses to, or the cable is pulled;
- the virtual camera records no fault of its caller;
- of a call that is refused each time the first point that is "no" is the one that calls.txt names;
  a call that hangs makes a point "no", and one that is slow none but messages.pace.

A cell whose fault was not met was not tried, which is a failure, too. The tables, also in
build/results/stress/check-matrix.md, have the first point that is "no", or how long the check took
to end when it was interrupted.
"""

import collections
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

import fault_matrix

HERE = pathlib.Path(__file__).resolve().parent
for folder in ("../../host", "../python", "../host/check"):
    sys.path.insert(0, str((HERE / folder).resolve()))
from lumatie_host.check.points import NO, POINTS, UNSEEN, YES, points_of  # noqa: E402
from running import command, environment  # noqa: E402

LONGEST = 1700.0  # seconds; more than a check states
SLACK = 3.0  # seconds that a busy machine may take longer than a point
INTERRUPTED = 35.0  # seconds from an interrupt to the end
QUIET = 6.0  # seconds without a call after which one is taken to hang
SMALL = "picture.width = 64\npicture.height = 48\n"
NOT_THEIRS = ("Uninit",)  # a column of what an application does
# A shoot calls these earlier than a check, which sets the shutter for its long exposure only.
SHOOTING = ("EdsSetPropertyData, shutter speed", "CapSet, source: shutter speed")
NOT_CALLED = ("EnumChildren, source",)  # only when pictures come whose camera did not tell of them
STATED = re.compile(r"and (\d+) minutes at most")
OF_PYTHON = re.compile(r"Traceback|\b[A-Z]\w*(Error|Exception)\b")
HUNG = re.compile(r"no answer within|did not|not carried out|not confirmed|no picture|was ended")
# What a library sees that hung: the held call comes back when it is ended, or nothing is closed.
GIVEN_UP = re.compile(r"called after EdsTerminateSDK|unloaded with open objects")
# What a second Init over an open session does to a Nikon module, once in a check.
TWICE = re.compile(r".* MISUSE Open: the module is open already")
# What it sees when it refused to close an object, which stays.
KEPT = re.compile(r"closed before its children|is open already")
GONE = re.compile(r" = (0x80|-10) |E event 0x301|camera\.plugged = 0")
OPENED = {"canon": r"EdsOpenSession\(.*\) = 0x0 ", "nikon": r" Open\(module.*\) = 0 "}
CLOSED = {"canon": r"EdsCloseSession\(.*\) = 0x0 ", "nikon": r" Close\(source.*\) = 0 "}

Outcome = collections.namedtuple("Outcome", "status output said seconds log left")


def play(cell, base):
    """Runs a check with the cell's fault in an empty folder; what came of it."""
    os.mkdir(os.path.join(base, "temporary"))
    variables = environment(base, SMALL + "fault = " + cell.rule, cell.call.maker)
    variables["TMPDIR"] = os.path.join(base, "temporary")
    log = pathlib.Path(base, "camera.log")
    with open(os.path.join(base, "said"), "w+b") as said, open(
        os.path.join(base, "told"), "w+b"
    ) as told:
        begun = time.monotonic()
        process = subprocess.Popen(
            command(*cell.arguments),
            env=variables,
            cwd=base,
            stdin=subprocess.DEVNULL,
            stdout=told,
            stderr=said,
        )
        try:
            if cell.is_interrupted and wait_for_silence(process, log):
                begun = time.monotonic()
                process.send_signal(signal.SIGINT)
            process.wait(LONGEST)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        seconds = time.monotonic() - begun
        texts = [read(file) for file in (told, said)]
    calls = log.read_text("utf-8", "replace") if log.exists() else ""
    return Outcome(process.returncode, *texts, seconds, calls, left_behind(base))


def read(file):
    file.seek(0)
    return file.read().decode("utf-8", "replace")


def wait_for_silence(process, log):
    """Waits until a call hangs; False when the process ends before one does."""
    size, since = -1, time.monotonic()
    while process.poll() is None:
        now = log.stat().st_size if log.exists() else -1
        if now != size:
            size, since = now, time.monotonic()
        if log.exists() and time.monotonic() - since > QUIET:
            return True
        time.sleep(0.05)
    return False


def left_behind(base):
    """What is still there of a check: processes, by their arguments, and temporary files."""
    left = os.listdir(os.path.join(base, "temporary"))
    for place in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(str(place / "cwd")) == base:
                arguments = (place / "cmdline").read_bytes()
                left.append(arguments.replace(b"\0", b" ").decode(errors="replace"))
        except OSError:  # it is another user's, or has ended
            continue
    return left


class Cell(fault_matrix.Cell):
    """One call with one fault, met by a check."""

    def __init__(self, call, fault):
        super().__init__(call, fault)
        self.is_interrupted = self.during == "ends"
        self.shoots = call.arm == "picture" or call.name in SHOOTING
        self.arguments = ("--virtual", call.maker, "--json") + ("--shoot",) * self.shoots
        self.is_possible = fault not in NOT_THEIRS and call.name not in NOT_CALLED
        if self.call.arm != "start" and call.rule.startswith("EdsRelease"):
            # Here the rule is given at the start, and the list is let go of before.
            words, _, skip = call.rule.partition(" skip=")
            self.rule = self.rule.replace(call.rule, "%s skip=%d" % (words, int(skip or 0) + 1))

    def run(self):
        """Runs the check, and judges it."""
        with tempfile.TemporaryDirectory(prefix="lumatie-matrix-") as base:
            self.judge(play(self, os.path.realpath(base)))
        return self

    def judge(self, outcome):
        """Makes `faults` and `summary` of what came of it."""
        self.outcome = outcome
        if outcome.left:
            self.faults.append("left behind: {}".format(outcome.left))
        if OF_PYTHON.search(outcome.said):
            self.faults.append("it said: " + outcome.said[-500:])
        if self.is_interrupted:
            self._judge_interrupted()
        else:
            self._judge_report()
        self._judge_log()

    def _judge_interrupted(self):
        self.summary = "{:.0f} s".format(self.outcome.seconds)
        if self.outcome.status != 130:
            self.faults.append("status {} when interrupted".format(self.outcome.status))
        if self.outcome.seconds > INTERRUPTED:
            self.faults.append("took {:.1f} s to end".format(self.outcome.seconds))
        if json_lines(self.outcome.output) is None:
            self.faults.append("a line is no JSON")

    def _judge_report(self):
        outcome = self.outcome
        stated = STATED.search(outcome.said)
        if not stated or outcome.seconds > 60 * int(stated.group(1)):
            self.faults.append("took {:.0f} s".format(outcome.seconds))
        records = json_lines(outcome.output)
        if not records or records[-1].get("kind") != "checked":
            self.faults.append("no whole report: " + outcome.output[-300:])
            return
        points, end = records[:-1], records[-1]
        if [point["point"] for point in points] != [p.id for p in points_of(self.call.maker)]:
            self.faults.append("not every point once, in order")
        self._judge_end(points, end)
        for point in points:
            self._judge_point(point)
        self._judge_what_was_seen(points)

    def _judge_end(self, points, end):
        names = {
            answer: [point["point"] for point in points if point["answer"] == answer]
            for answer in (YES, NO, UNSEEN)
        }
        told = (end["yes"], end["no"], end["could_not_be_seen"])
        if told != (len(names[YES]), names[NO], names[UNSEEN]):
            self.faults.append("the sum is {}".format(end))
        status = POINTS[names[NO][0]].status if names[NO] else 0
        if not self.outcome.status == end["status"] == status:
            self.faults.append("status {}, not {}".format(self.outcome.status, status))
        self.summary = names[NO][0] if names[NO] else "yes"
        if not names[NO] and any(not is_yes_or_not_asked(point) for point in points):
            self.summary = "unseen"

    def _judge_point(self, point):
        if point["seconds"] > point["limit"] + SLACK:
            self.faults.append("{point} took {seconds} s of {limit}".format(**point))
        if OF_PYTHON.search(point["evidence"]):
            self.faults.append("{point}: {evidence}".format(**point))

    def _judge_what_was_seen(self, points):
        first = next((point for point in points if point["answer"] == NO), None)
        if self.fault == "error each time" and (first["point"] if first else "") != self.call.check:
            self.faults.append("it is {}, not {}".format(self.summary, self.call.check or "yes"))
        if first is None and "hang" in self.rule:
            self.faults.append("nothing is no")
        # How long a Nikon camera takes for a command is what messages.pace asks.
        if first and self.fault == "slow by 2 s" and first["point"] != "messages.pace":
            self.faults.append("{point} is no: {evidence}".format(**first))

    def _judge_log(self):
        log = self.outcome.log
        met = re.search(self._sign(), log, re.MULTILINE)
        if "hang" in self.rule:
            met = HUNG.search(self.outcome.output) or self.is_interrupted
        if "unplug" in self.rule:
            met = GONE.search(log) or self.summary != "yes" or self.call.kind in log
        if not met:
            self.faults.append("the fault was not met")
        misuse = [line for line in TWICE.sub("", log, 1).splitlines() if " MISUSE " in line]
        self.faults += [line for line in misuse if not self._may_be(line)]
        opened, closed = (
            len(re.findall(calls[self.call.maker], log)) for calls in (OPENED, CLOSED)
        )
        if opened > closed + self._cables_pulled() and not self._keeps_open():
            self.faults.append("{} sessions opened, {} closed".format(opened, closed))

    def _may_be(self, misuse):
        if "hang" in self.rule:
            return GIVEN_UP.search(misuse)
        is_kept = self.call.name.startswith("Close") and "code=" in self.rule
        return self._is_expected(misuse) or (is_kept and KEPT.search(misuse))

    def _cables_pulled(self):
        """How many sessions the check itself takes from the camera."""
        return 1 if self.shoots else 0

    def _keeps_open(self):
        """Whether the fault may keep a session from being closed."""
        return "hang" in self.rule or "unplug" in self.rule or self._is_expected(self.call.unless)


def is_yes_or_not_asked(point):
    """Whether a point is yes, or was not asked for."""
    return point["answer"] == YES or "was not asked for" in point["evidence"]


def json_lines(text):
    """The records of an output; None when a line is none."""
    try:
        return [json.loads(line) for line in text.splitlines()]
    except ValueError:
        return None


def main():
    parser = fault_matrix.make_parser(__doc__.splitlines()[0])
    parser.add_argument(
        "--short", action="store_true", help="without pictures and interrupts, 5 s a point at most"
    )
    options = parser.parse_args()
    begun = time.monotonic()
    calls = [call for call in fault_matrix.read_calls() if options.maker in (None, call.maker)]
    cells = fault_matrix.choose(calls, options, Cell)
    if options.short:
        cells = [cell for cell in cells if not (cell.shoots or cell.is_interrupted)]
        for cell in cells:
            cell.arguments += ("--timeout", "5")
    fault_matrix.play(cells)
    return fault_matrix.conclude(
        "The check against the fault matrix", "check-matrix.md", cells, begun
    )


if __name__ == "__main__":
    sys.exit(main())
