"""Programs that are killed in the middle of a burst, and what the next start makes of it.

LUMATIE_KILLS says how often; at the moments that a seed chooses.
"""

import collections
import hashlib
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import unittest

import lumatie_host as tether
from virtual_cameras import wait_until

KILLS = int(os.environ.get("LUMATIE_KILLS", "5"))
HOST = pathlib.Path(tether.__file__).resolve().parents[1]

# Bursts with RAW and JPEG of some size, each started anew.
BURST = """
import sys
import lumatie_host as tether

name = "{job}_{n:04}"
with tether.open(virtual=sys.argv[1], folder=sys.argv[2], name=name, job="burst") as camera:
    while True:
        camera.shoot(pair=True)
"""
NEXT_START = """
import sys
import lumatie_host as tether

tether.open(virtual=sys.argv[1], folder=sys.argv[2], name="{job}_{n:04}", job="burst").close()
"""
SETTINGS = {
    "canon": "value.0x100 = 0x640013\npicture.size = 3000000\npicture.raw_size = 6000000\n",
    "nikon": "value.0x8110 = 6\npicture.size = 3000000\npicture.raw_size = 6000000\n",
}
# What the log of a virtual camera says when a picture was handed over whole.
HANDED_OVER = {
    "canon": re.compile(r" EdsDownloadComplete\(.* = 0x0+ "),
    "nikon": re.compile(r" completion CapStart\(data#\d+, 0x14\) = 0 "),
}


class Killed(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="lumatie-")
        self.addCleanup(folder.cleanup)
        self.base = pathlib.Path(folder.name).resolve()
        self.folder = self.base / "shoot"
        self.folder.mkdir()
        self.log = self.base / "calls"

    def start(self, program, maker):
        settings = self.base / "settings"
        settings.write_text(SETTINGS[maker])
        environment = dict(os.environ, LUMATIE_VIRTUAL_LOG=str(self.log))
        environment["LUMATIE_VIRTUAL_" + maker.upper()] = str(settings)
        environment["PYTHONPATH"] = os.pathsep.join([str(HOST), environment["PYTHONPATH"]])
        return subprocess.Popen(
            [sys.executable, "-c", program, maker, str(self.folder)],
            env=environment,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )

    def handed_over(self, maker):
        text = self.log.read_text(errors="replace") if self.log.exists() else ""
        return len(HANDED_OVER[maker].findall(text))

    def check(self, maker, moment):
        files = [path for path in self.folder.iterdir() if path.is_file()]
        ledger = tether.Ledger(str(self.folder))
        records = [event for event in ledger.events() if isinstance(event, tether.Picture)]
        with self.subTest(maker=maker, killed=moment):
            self.assertEqual(tether.verify(str(self.folder)), [])
            self.assertEqual(
                sorted(record.file for record in records), sorted(f.name for f in files)
            )
            hashes = collections.Counter(
                hashlib.sha256(path.read_bytes()).hexdigest() for path in files
            )
            self.assertEqual([one for one, count in hashes.items() if count > 1], [])
            self.assertGreaterEqual(len(files), self.handed_over(maker))
            for path in files:
                self.assertRegex(path.name, r"^burst_\d{4}( \(\d+\))?\.")
            self.assertEqual(list((self.folder / ".lumatie" / "spool").iterdir()), [])

    def kill_bursts(self, maker):
        moments = random.Random(maker)
        for _ in range(KILLS):
            before = self.handed_over(maker)
            program = self.start(BURST, maker)
            self.addCleanup(program.kill)
            first = moments.random() < 0.9  # else it is killed at its start
            wait_until(
                lambda before=before: not first or self.handed_over(maker) > before,
                "a picture that is handed over",
                60,
            )
            moment = moments.uniform(0, 0.4 if maker == "canon" else 2.0)
            with self.assertRaises(subprocess.TimeoutExpired):
                program.wait(moment)
            program.kill()
            program.wait()
            following = self.start(NEXT_START, maker)
            self.assertEqual(following.wait(60), 0)
            self.check(maker, moment)
        self.assertGreater(self.handed_over(maker), KILLS // 2)

    def test_a_burst_of_a_canon_camera_leaves_every_picture_once(self):
        self.kill_bursts("canon")

    def test_a_burst_of_a_nikon_camera_leaves_every_picture_once(self):
        self.kill_bursts("nikon")


if __name__ == "__main__":
    unittest.main()
