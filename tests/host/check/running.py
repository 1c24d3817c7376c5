"""The word check as a process, with virtual cameras that are set up by a text file."""

import json
import os
import pathlib
import subprocess
import sys
from typing import Any, Dict, List, NamedTuple

import lumatie_host as tether
from deviations import FILES, Deviation
from support import PYTHON_DIR

HOST = pathlib.Path(tether.__file__).resolve().parents[1]
LONGEST = 400.0  # seconds; more than any check takes with virtual cameras on a busy machine
CANON = ("--virtual", "canon")
NIKON = ("--virtual", "nikon")


class Checked(NamedTuple):
    """What came out: records of points, the one of all, the exit status, the camera's calls."""

    points: List[Dict[str, Any]]
    summary: Dict[str, Any]
    status: int
    errors: str
    log: str

    def answers(self, answer):
        return [point["point"] for point in self.points if point["answer"] == answer]

    def evidence(self, point_id):
        return next(point["evidence"] for point in self.points if point["point"] == point_id)


def environment(base, settings="", maker="canon"):
    """That of a process whose virtual camera has these settings and logs into `base`.

    Each Python of it looks for modules in the folder `first` there before it does elsewhere.
    """
    file = pathlib.Path(base, "camera.txt")
    file.write_bytes(settings.encode("utf-8", "surrogateescape"))
    return {
        **os.environ,
        "PYTHONPATH": os.pathsep.join((str(file.parent / "first"), str(HOST), str(PYTHON_DIR))),
        "PYTHONIOENCODING": "utf-8",
        "LUMATIE_VIRTUAL_LOG": str(pathlib.Path(base, "camera.log")),
        "LUMATIE_VIRTUAL_" + maker.upper(): str(file),
    }


def command(*arguments):
    return [sys.executable, "-m", "lumatie_host.cli", "check", *arguments]


def check(base, *arguments, settings="", maker="canon"):
    """Runs it to its end, without a terminal."""
    done = subprocess.run(
        command("--json", *arguments),
        env=environment(base, settings, maker),
        cwd=base,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        timeout=LONGEST,
        check=False,
    )
    errors = done.stderr.decode("utf-8", "replace")
    records = [json.loads(line) for line in done.stdout.decode("ascii").splitlines()]
    if not records or records[-1]["kind"] != "checked":
        raise AssertionError("it has no end: %r, %s" % (records[-1:], errors))
    log = pathlib.Path(base, "camera.log")
    calls = log.read_text("utf-8", "replace") if log.exists() else ""
    return Checked(records[:-1], records[-1], done.returncode, errors, calls)


def check_deviation(base, deviation: Deviation):
    """Runs it with a camera or a library that deviates."""
    if deviation.what in FILES:
        library = FILES[deviation.what](base)
        chosen = ("--camera", "Virtual EOS", "--canon-library", str(library))
        return check(base, *chosen, *deviation.arguments)
    chosen = ("--virtual", deviation.maker)
    if deviation.what.startswith("camera.name"):
        chosen += ("--camera", "Virtual EOS")
    return check(
        base, *chosen, *deviation.arguments, settings=deviation.what, maker=deviation.maker
    )
