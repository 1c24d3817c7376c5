"""The studio that is there to be looked at: it starts, shoots, and leaves nothing behind."""

import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest
import urllib.request

from studio_support import DEADLINE, wait_until
from this_process import ON_WINDOWS
from virtual_cameras import REPOSITORY

SCRIPTS = REPOSITORY / "scripts"

# Two stations, one of each maker: eight are for people.
PROGRAM = """
import sys
sys.path.insert(0, sys.argv.pop(1))
import studio_demo
studio_demo.STATIONS = ["1", "4"]
studio_demo.main()
"""


def processes_of(folder):
    """The processes that were started with something of a folder."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            words = path.read_bytes()
        except OSError:
            continue
        if os.fsencode(folder) in words:
            found.append(words)
    return found


@unittest.skipIf(ON_WINDOWS, "it is a command of this tree, for Linux")
class Demo(unittest.TestCase):
    def start(self):
        """The demo, and what it says until it says no more."""
        base = tempfile.TemporaryDirectory(prefix="lumatie-studio-")
        self.addCleanup(base.cleanup)
        self.base = base.name
        process = subprocess.Popen(
            [sys.executable, "-c", PROGRAM, str(SCRIPTS), "--port", "0"],
            env=dict(os.environ, TMPDIR=self.base),
            stdout=subprocess.PIPE,
            universal_newlines=True,
        )
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait, DEADLINE)
        self.addCleanup(lambda: process.poll() is None and process.terminate())
        lines = []
        while not lines or lines[-1] != "Ctrl-C ends all of it.\n":
            lines.append(process.stdout.readline())
            self.assertTrue(lines[-1], lines)
        self.assertEqual(len(processes_of(self.base)), 4)
        return process, lines

    def wait_for_the_end(self):
        wait_until(lambda: not processes_of(self.base), "the end of all processes")

    def test_it_shoots_and_ends_with_all_its_processes_and_folders(self):
        process, lines = self.start()
        url, token = re.match(r"Desk:     (\S+)#(\S+)", lines[0]).groups()
        # On a busy machine a station may refuse a request that came too late.
        self.assertEqual(len(lines[2:-1]), 3)
        self.assertRegex("".join(lines[2:-1]), r"(?m)^2 of 2 stations, within \d+ ms")
        request = urllib.request.Request(url + "api/state")
        request.add_header("Authorization", "Bearer " + token)
        with urllib.request.urlopen(request, timeout=DEADLINE) as answer:
            state = json.loads(answer.read().decode())
        makers = {one["station"]: one["maker"] for one in state["stations"]}
        self.assertEqual(makers, {"1": "canon", "4": "nikon"})
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(2 * DEADLINE), 130)
        self.wait_for_the_end()
        self.assertEqual(os.listdir(self.base), [])

    def test_what_it_has_started_ends_when_it_is_killed(self):
        process, _ = self.start()
        process.kill()
        process.wait(DEADLINE)
        self.wait_for_the_end()


if __name__ == "__main__":
    unittest.main()
