"""What tests of sessions have in common: a fresh virtual camera, and nothing left of it."""

import gc
import os
import tempfile
import threading
import unittest

from virtual_cameras import VirtualCanon, VirtualNikon, wait_until

DEADLINE = 20.0  # seconds for anything to happen


class CameraCase(unittest.TestCase):
    """A fresh virtual camera and a fresh folder; afterwards no thread may be left."""

    maker = "canon"

    def setUp(self):
        self.camera = VirtualNikon() if self.maker == "nikon" else VirtualCanon()
        self.camera.reset()
        folder = tempfile.TemporaryDirectory(prefix="lumatie-")
        self.addCleanup(folder.cleanup)
        self.base = os.path.realpath(folder.name)
        self.folder = os.path.join(self.base, "shoot")
        os.mkdir(self.folder)
        gc.collect()
        self.threads = set(threading.enumerate())
        self.addCleanup(self.check_leftovers)
        self.addCleanup(self.let_go)

    def let_go(self):
        """Nothing that the camera was told to do holds up an end."""
        self.camera.clear_faults()
        self.camera.end_exposure()
        self.camera.release_hangs()

    def check_leftovers(self):
        """Raises AssertionError when a session has left a thread, or used the camera wrongly."""
        wait_until(
            lambda: not [
                thread
                for thread in set(threading.enumerate()) - self.threads
                if thread.name.startswith("lumatie")
            ],
            lambda: "the session's threads have ended: %s" % threading.enumerate(),
        )
        self.assertEqual(self.camera.misuse(), [])
