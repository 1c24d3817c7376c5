"""Exposures that take long: half a minute, an hour, and what a host does meanwhile.

The virtual camera's exposures last until the test says so, or a given time.
"""

import concurrent.futures
import os
import tempfile
import threading
import time
import unittest

from nikon_support import SENSITIVITY, NikonTestCase
from support import Lumatie, run_host, wait_until
from timing import timed, within

UNTIL_TOLD = "shutter.until_told = 2\n"


class LongExposures(NikonTestCase):
    """A shutter that is open until the test closes it."""

    def open_shutter(self, settings=""):
        """A session in the middle of an exposure; returns the tether object and its host."""
        self.nikon.configure(UNTIL_TOLD + settings)
        tether, host = self.start(wait=True)
        self.tether = tether  # it must not go, and wait, before the shutter is closed
        self.addCleanup(self.nikon.end_exposure)
        for _ in range(5):
            tether.Shoot()
            if self.nikon.is_exposing(deadline=3.0):
                return tether, host
        raise AssertionError("no exposure began")

    @timed
    def test_a_value_is_set_at_once_during_an_exposure(self):
        tether, _ = self.open_shutter()
        with within(1):
            self.assertEqual(tether.SetValue(Lumatie.TETHER_ISO, 5), 1)
        self.assertEqual(self.nikon.value(SENSITIVITY), 4)
        self.assertTrue(self.nikon.is_exposing())

    def test_other_threads_run_while_a_value_waits_for_what_the_monitor_is_in(self):
        # The call that lets the module work does not come back: nobody else gets in.
        tether, _ = self.open_shutter()
        self.nikon.fault("Async hang")
        self.nikon.wait_for_hang("Async")
        setting = threading.Thread(target=tether.SetValue, args=(Lumatie.TETHER_ISO, 5))
        setting.start()
        for _ in range(100):
            time.sleep(0.01)
        self.assertTrue(setting.is_alive())
        self.nikon.release_hangs()
        setting.join(20)
        self.assertEqual(self.nikon.value(SENSITIVITY), 4)

    def test_a_session_whose_camera_can_read_nothing_meanwhile_goes_on(self):
        tether, host = self.open_shutter("shutter.reads = 0\nshutter.sets = 0\n")
        tether.SetValue(Lumatie.TETHER_ISO, 5)
        self.nikon.end_exposure()
        host.wait_for_picture()
        count = len(host.events)
        wait_until(lambda: len(host.events) > count + 10, "reports after the exposure")

    def test_uninit_waits_for_the_exposure_and_for_its_picture(self):
        tether, host = self.open_shutter()
        ending = threading.Thread(target=tether.Uninit)
        ending.start()
        # Longer than the pause between two cycles.
        ending.join(2.5)
        self.assertTrue(ending.is_alive())
        self.assertEqual(self.files(), [])
        self.nikon.end_exposure()
        ending.join(20)
        self.assertFalse(ending.is_alive())
        self.assertEqual(len(self.files()), 1)
        self.assertEqual(host.of(Lumatie.TETHER_GENERAL), [])

    def test_a_cable_that_is_pulled_ends_the_exposure_and_the_reports(self):
        tether, _ = self.open_shutter()
        self.nikon.unplug()
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(self.files(), [])


HOST = """
import sys, threading, time
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()

def expose():
    host.wait_for_event(13)
    for _ in range(5):
        tether.Shoot()
        if nikon.is_exposing(deadline=3.0):
            return time.monotonic()
    raise SystemExit("no exposure began")

def start_again(await_what):
    other, heard = Lumatie.Lumatie(), Host()
    assert other.Init(MODULE, sys.argv[1], heard) == 1
    await_what(heard)
    assert other.Uninit() == 1

"""

# A camera that exposes for longer than any other command is waited for.
OVER_A_MINUTE = """
nikon.configure("shutter.exposure_ms = 65000\\nshutter.reads = 2")
assert tether.Init(MODULE, sys.argv[1], host) == 1
begun = expose()
host.wait_for_picture(deadline=80)
assert 64 < time.monotonic() - begun < 75
count = len(host.events)
time.sleep(2.5)
assert len(host.events) > count + 10, "no report after the exposure"
assert tether.Uninit() == 1
"""

# An exposure that outlasts what Uninit waits for.
LEFT_BEHIND = """
nikon.configure("shutter.until_told = 2")
assert tether.Init(MODULE, sys.argv[1], host) == 1
expose()
begun = time.monotonic()
assert tether.Uninit() == 1
taken = time.monotonic() - begun
assert 34 < taken < 40, taken
nikon.end_exposure()
deadline = time.monotonic() + 10
while nikon.open_objects() and time.monotonic() < deadline:
    time.sleep(0.01)
assert not nikon.open_objects(), nikon.open_objects()
start_again(lambda heard: heard.wait_for_picture())
"""

# A module that hangs in a command until Uninit has given it up.
HUNG = """
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_event(13)
nikon.fault("CapGet hang")
nikon.wait_for_hang("CapGet")
assert tether.Uninit() == 1
nikon.release_hangs()
deadline = time.monotonic() + 10
while nikon.open_objects() and time.monotonic() < deadline:
    time.sleep(0.01)
assert not nikon.open_objects(), nikon.open_objects()
start_again(lambda heard: heard.wait_for_event(13))
"""

# The program ends in an exposure.
EXIT = """
nikon.configure("shutter.exposure_ms = 14000")
assert tether.Init(MODULE, sys.argv[1], host) == 1
expose()
"""


class Patience(unittest.TestCase):
    """How long a session waits; each host in a process of its own, all at the same time."""

    hosts = {"over a minute": OVER_A_MINUTE, "left behind": LEFT_BEHIND, "hung": HUNG, "exit": EXIT}

    @classmethod
    def setUpClass(cls):
        pool = concurrent.futures.ThreadPoolExecutor(len(cls.hosts))
        cls.addClassCleanup(pool.shutdown)
        cls._runs = {name: pool.submit(cls._run, script) for name, script in cls.hosts.items()}

    @staticmethod
    def _run(script):
        with tempfile.TemporaryDirectory(prefix="lumatie-exposure-") as folder:
            run = run_host(HOST + script, 120, arguments=(folder,))
            return run, len(os.listdir(folder))

    def assert_done(self, name, pictures):
        """The host has ended as it should, with so many pictures in its folder."""
        run, count = self._runs[name].result()
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertEqual(count, pictures)

    def test_an_exposure_of_more_than_a_minute_is_waited_for(self):
        self.assert_done("over a minute", 1)

    def test_uninit_leaves_a_longer_exposure_behind_and_its_module_can_be_used_again(self):
        # The next session has fetched its picture.
        self.assert_done("left behind", 1)

    def test_a_module_that_was_left_behind_and_comes_back_can_be_used_again(self):
        self.assert_done("hung", 0)

    def test_the_end_of_the_program_waits_for_an_exposure_and_its_picture(self):
        self.assert_done("exit", 1)


if __name__ == "__main__":
    unittest.main()
