"""What the tests of the interpreter's end stand on: hosts that end while a session lives.

A host is a script that runs after PRELUDE in a process of its own, with one maker's virtual camera
in reach as `camera`.
"""

import collections
import concurrent.futures
import os
import re
import signal
import tempfile
import time
import unittest

import exit_hosts as hosts
from support import CAMERA_NAME, CANON_LIBRARY, NIKON_MODULE, run_host
from this_process import ON_WINDOWS

# How often each host runs, where the environment names no number for all of them.
REPEATS = 10
REPEATS_OF_ALL = int(os.environ.get("LUMATIE_EXIT_REPEATS", "0"))
AT_ONCE = 4  # hosts that run at the same time
STUCK_AT_ONCE = 40  # the same of those that only wait
QUICK = 30.0  # seconds; a quick end takes a tenth of one, unless the machine is busy
PATIENCE = 10.0  # seconds that the module waits for a session that gives no sign of life

# Memory that was given back does not go on looking like what it held. This is for glibc alone.
SPOILT_MEMORY = {"GLIBC_TUNABLES": "glibc.malloc.tcache_count=0:glibc.malloc.perturb=165"}

# The exit status of a process that Ctrl-C ended, and that a termination did, as no handler of the
# host's own was set for it.
INTERRUPTED = 0xC000013A if ON_WINDOWS else -signal.SIGINT
TERMINATED = 3 if ON_WINDOWS else -signal.SIGTERM

# A maker: the virtual camera's library, the start of its functions' names, what Init gets, what
# SetValue gets for another shutter speed, and what the call log says once when a session was
# closed.
Maker = collections.namedtuple("Maker", "library prefix info shutter_speed closes")

CANON = Maker(
    CANON_LIBRARY,
    "VirtualCamera",
    CAMERA_NAME,
    0x60,
    (" EdsCloseSession(", " EdsTerminateSDK("),
)
NIKON = Maker(
    NIKON_MODULE,
    "VirtualNikon",
    str(NIKON_MODULE),
    2,
    (" Close(source#1, 0x0) = 0 ", " Close(module#0, 0x0) = 0 "),
)

PRELUDE = """
import atexit, ctypes, gc, os, signal, sys, threading, time
{before_import}
import Lumatie

folder, library, prefix, info = sys.argv[1:5]
shutter_speed = int(sys.argv[5])
camera = ctypes.CDLL(library)
called = threading.Event()

def hear(*arguments):
    called.set()

def wait(event):
    if not event.wait(20):
        os._exit(99)

def steer(function, *arguments):
    return getattr(camera, prefix + function)(*arguments)

def wait_for_call(function, count=1):
    if not steer("WaitForCalls", function, count, 20000):
        os._exit(98)

def wait_for_hang(function):
    if not steer("WaitForHang", function, 20000):
        os._exit(97)

def configure(text):
    assert steer("Configure", text) == 0

def start(callback=hear, tether=None):
    tether = tether or Lumatie.Lumatie()
    assert tether.Init(info, folder, callback) == 1
    return tether

def uninit_on_daemon_thread(tether):
    # Returns when Uninit has begun: nobody takes the interpreter lock from the thread before.
    sys.setswitchinterval(100)
    begun = threading.Event()

    def end():
        begun.set()
        tether.Uninit()

    threading.Thread(target=end, daemon=True).start()
    wait(begun)

"""

# Makes the interpreter's taking down last a second, in which other threads may run.
SLOW_TAKING_DOWN = """
class Slow:
    def __del__(self, sleep=time.sleep):
        sleep(1)

sys.slow = Slow()
"""


# Tells when the interpreter begins to end.
TELL_END = """
atexit.register(lambda: os.write(1, b"\\nends at %f\\n" % time.monotonic()))
"""


class End:
    """How one host ended: `status`, `stdout`, `stderr`, `seconds`, `files` and the call `log`.

    `ending` is how many seconds the end itself took, in a host with TELL_END.
    """

    def __init__(self, script, before_import="", deadline=QUICK, maker=CANON):
        with tempfile.TemporaryDirectory(prefix="lumatie-exit-") as base:
            folder, log = os.path.join(base, "export"), os.path.join(base, "log")
            os.mkdir(folder)
            begun = time.monotonic()
            run = run_host(
                PRELUDE.format(before_import=before_import) + script,
                deadline,
                environment={"LUMATIE_VIRTUAL_LOG": log, **SPOILT_MEMORY},
                arguments=(folder, *maker[:4]),
            )
            self.seconds = time.monotonic() - begun
            self.status, self.stdout, self.stderr = run
            told = re.search(r"^ends at ([0-9.]+)$", self.stdout, re.M)
            self.ending = begun + self.seconds - float(told.group(1)) if told else None
            self.files = {
                name: os.path.getsize(os.path.join(folder, name)) for name in os.listdir(folder)
            }
            self.log = ""
            if os.path.exists(log):
                with open(log, encoding="utf-8", errors="replace") as file:
                    self.log = file.read()


class ExitTestCase(unittest.TestCase):
    """Runs hosts and states how they end."""

    maker = CANON
    repeats = REPEATS

    def run_often(self, script, before_import="", repeats=None, at_once=AT_ONCE, deadline=QUICK):
        """Runs the host several times; returns how each run ended."""
        with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
            runs = [
                pool.submit(End, script, before_import, deadline, self.maker)
                for _ in range(REPEATS_OF_ALL or repeats or self.repeats)
            ]
            return [run.result() for run in runs]

    def assert_ends(self, script, status=0, stderr="", **how):
        """Each run of the script ends with this status, and with `stderr` in what it prints."""
        ends = self.run_often(script, **how)
        for end in ends:
            self.assertEqual(end.status, status, end.stderr)
            if stderr:
                self.assertIn(stderr, end.stderr)
                self.assertNotIn("Fatal", end.stderr)
            else:
                self.assertEqual(end.stderr, "")
        return ends

    def assert_closed(self, ends):
        """In each run the camera's session was closed and the library left, once."""
        for end in ends:
            self.assertEqual([end.log.count(text) for text in self.maker.closes], [1, 1], end.log)
            self.assertNotIn("MISUSE", end.log)


class OrphanTests:
    """A process that was split off and outlives the one that it came from."""

    def test_a_process_whose_parent_has_ended_still_ends_its_session(self):
        self.assert_closed(self.assert_ends(hosts.LOSE_PARENT, repeats=2))


class StuckTestCase(unittest.TestCase):
    """Hosts that take the module's whole patience; all run at the same time, each several times.

    A subclass names them: `hosts` has name -> (script, status).
    """

    maker = CANON
    hosts = {}
    repeats = 1
    at_least = 0.0  # seconds that each takes
    at_most = PATIENCE + 4  # seconds that the end itself takes, with some for a busy machine

    @classmethod
    def setUpClass(cls):
        pool = concurrent.futures.ThreadPoolExecutor(STUCK_AT_ONCE)
        cls.addClassCleanup(pool.shutdown)
        cls._runs = {
            name: [
                pool.submit(End, TELL_END + script, "", PATIENCE + QUICK, cls.maker)
                for _ in range(REPEATS_OF_ALL or cls.repeats)
            ]
            for name, (script, _) in cls.hosts.items()
        }

    def assert_given_up(self, name, at_least=None, stderr=""):
        """The hosts of this name end after the patience, and as they wanted."""
        for run in self._runs[name]:
            end = run.result()
            self.assertEqual((end.status, end.stderr), (self.hosts[name][1], stderr))
            self.assertGreater(end.seconds, self.at_least if at_least is None else at_least)
            self.assertLess(end.ending, self.at_most)
