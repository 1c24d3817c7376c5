"""The log of the package: silent by itself, and switched on from outside."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import lumatie_host

HOST = str(pathlib.Path(lumatie_host.__file__).resolve().parents[1])
PROGRAM = """
import logging, lumatie_host
log = logging.getLogger("lumatie_host")
log.debug("a small thing")
log.warning("a large thing of caf\\udce9")
"""


class Log(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name, "host.log")

    def told(self, wanted):
        """What a program writes to standard error with the variable set, None: not set."""
        environment = dict(os.environ, PYTHONPATH=HOST, PYTHONIOENCODING="utf-8:backslashreplace")
        environment.pop("LUMATIE_HOST_LOG", None)
        if wanted is not None:
            environment["LUMATIE_HOST_LOG"] = wanted
        done = subprocess.run(
            [sys.executable, "-X", "dev", "-c", PROGRAM],
            env=environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            universal_newlines=True,
            timeout=60,
            check=True,
        )
        self.assertEqual(done.stdout, "")
        return done.stderr.splitlines()

    def test_without_the_variable_nothing_is_told(self):
        for wanted in (None, "", "0"):
            with self.subTest(wanted=wanted):
                self.assertEqual(self.told(wanted), [])

    def test_one_tells_everything_on_standard_error(self):
        for wanted in ("1", "debug", "DEBUG"):
            with self.subTest(wanted=wanted):
                small, large = self.told(wanted)
                self.assertRegex(small, r"^\S+ \S+ DEBUG MainThread: a small thing$")
                self.assertRegex(large, r"^\S+ \S+ WARNING MainThread: a large thing of caf")

    def test_the_name_of_a_level_tells_what_is_of_that_level(self):
        [line] = self.told("warning")
        self.assertIn("a large thing", line)
        self.assertEqual(self.told("error"), [])

    def test_anything_else_is_a_file_that_everything_is_added_to(self):
        for count in (2, 4):
            self.assertEqual(self.told(str(self.path)), [])
            lines = self.path.read_text(encoding="utf-8").splitlines()
            self.assertEqual(len(lines), count)
        self.assertIn(r"a large thing of caf\udce9", lines[-1])

    def test_a_file_that_cannot_be_written_is_told_and_ends_nothing(self):
        problem, *lines = self.told(str(self.path.parent / "none" / "host.log"))
        self.assertIn("LUMATIE_HOST_LOG: there is no log in that file", problem)
        self.assertEqual(len(lines), 2)


if __name__ == "__main__":
    unittest.main()
