"""What the tests of the interpreter's end stand on: hosts that end while a session lives.

A host is a script that runs after PRELUDE in a process of its own, with one maker's virtual camera
in reach as `camera`.
"""

import collections
import concurrent.futures
import os
import re
import signal
import sys
import tempfile
import time
import unittest
import unittest.mock

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

# A maker: the virtual camera's library, what Init gets, what SetValue gets for another shutter
# speed, and what the call log says once when a session was closed.
Maker = collections.namedtuple("Maker", "library info shutter_speed closes")

CANON = Maker(
    CANON_LIBRARY,
    CAMERA_NAME,
    0x60,
    (" EdsCloseSession(", " EdsTerminateSDK("),
)
NIKON = Maker(
    NIKON_MODULE,
    str(NIKON_MODULE),
    2,
    (" Close(source#1, 0x0) = 0 ", " Close(module#0, 0x0) = 0 "),
)

PRELUDE = """
import atexit, ctypes, gc, os, signal, sys, threading, time
{before_import}
import Lumatie

folder, library, info = sys.argv[1:4]
shutter_speed = int(sys.argv[4])
camera = ctypes.CDLL(library)
called = threading.Event()

def hear(*arguments):
    called.set()

def wait(event):
    if not event.wait(20):
        os._exit(99)

def steer(function, *arguments):
    return getattr(camera, "VirtualCamera" + function)(*arguments)

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
                arguments=(folder, *maker[:3]),
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


class ForkTests:
    """Processes that are split off beside a session end as Python's own, and touch no camera."""

    repeats = 3

    def assert_child(self, script, told, stderr=""):
        """Each run tells this of the process that it has made, and closes its session once."""
        ends = self.run_parents(script, told, stderr)
        self.assert_closed(ends)

    def run_parents(self, script, told, stderr=""):
        """Each run tells this of the process that it has made."""
        # In its development mode, CPython 3.8 aborts when a forked process ends, and from 3.12 on
        # each fork beside a thread is worth a warning.
        how = {"PYTHONMALLOC": "pymalloc", "PYTHONWARNINGS": "ignore"}
        with unittest.mock.patch.dict(os.environ, how):
            ends = self.assert_ends(script, stderr=stderr)
        for end in ends:
            self.assertEqual(re.findall("child.*", end.stdout), told)
        return ends

    def test_a_child_of_the_callable_that_returns_ends_without_exit_functions(self):
        self.assert_child("leave = int" + hosts.FORK_IN_CALLABLE, ["child: 0, signal 0"])

    def test_a_child_of_the_callable_that_raises_ends_behind_its_traceback(self):
        self.assert_child(
            "def leave(): raise RuntimeError('child at fault')" + hosts.FORK_IN_CALLABLE,
            ["child: 0, signal 0"],
            "RuntimeError: child at fault",
        )

    def test_a_child_of_the_callable_that_exits_has_its_status_and_the_exit_functions(self):
        self.assert_child(
            "def leave(): sys.exit(5)" + hosts.FORK_IN_CALLABLE,
            ["child exits", "child: 5, signal 0"],
        )

    def test_a_child_of_the_callable_may_leave_by_os_exit(self):
        self.assert_child(
            "def leave(): os._exit(6)" + hosts.FORK_IN_CALLABLE, ["child: 6, signal 0"]
        )

    def test_a_child_of_the_callable_returns_while_uninit_waits_for_that(self):
        self.assert_child(
            "leave = int" + hosts.FORK_IN_CALLABLE_THAT_UNINIT_WAITS_FOR, ["child: 0, signal 0"]
        )

    def test_a_child_of_the_callable_exits_while_uninit_waits_for_that(self):
        self.assert_child(
            "def leave(): sys.exit(5)" + hosts.FORK_IN_CALLABLE_THAT_UNINIT_WAITS_FOR,
            ["child exits", "child: 5, signal 0"],
        )

    def test_a_process_that_the_callable_starts_ends_with_its_status(self):
        self.assert_child(hosts.START_PROCESS_IN_CALLABLE, ["child: 5"])

    def test_a_child_that_exits_does_not_wait_for_an_end_of_the_parents(self):
        self.assert_child(hosts.FORK_WHILE_UNINIT_WAITS, ["child exits", "child: 7, signal 0"])


class ExitInCallableTests:
    """Whoever ends the program, and how many do: the host's exit functions run once."""

    def assert_ends_once(self, script, status, **how):
        """Each run ends with this status after one turn of the exit functions."""
        ends = self.assert_ends(script, status, repeats=4, **how)
        self.assertEqual({end.stdout.count("exit functions\n") for end in ends}, {1})
        return ends

    def test_sys_exit_in_the_excepthook_ends_the_process_with_its_status(self):
        self.assert_closed(self.assert_ends_once(hosts.EXIT_IN_HOOK_WHILE_MAIN_SLEEPS, 5))

    def test_sys_exit_in_the_excepthook_while_the_main_thread_works(self):
        self.assert_ends_once(hosts.EXIT_IN_HOOK_WHILE_MAIN_WORKS, 5)

    def test_sys_exit_in_the_excepthook_while_uninit_waits_for_the_callable(self):
        self.assert_ends_once(hosts.EXIT_IN_HOOK_WHILE_UNINIT_WAITS, 5)

    def test_sys_exit_in_the_main_thread_while_a_callable_ends_the_process(self):
        self.assert_closed(self.assert_ends_once(hosts.EXIT_IN_MAIN_BEHIND_THE_CALLABLE, 5))

    def test_sys_exit_in_a_callable_while_the_main_thread_ends_the_process(self):
        self.assert_closed(self.assert_ends_once(hosts.EXIT_IN_CALLABLE_BEHIND_MAIN, 7))

    @unittest.skipIf(sys.version_info < (3, 9), "Python 3.8 waits for the thread before it exits")
    def test_sys_exit_in_a_callable_when_the_main_thread_waits_for_another_one(self):
        self.assert_closed(self.assert_ends_once(hosts.EXIT_BESIDE_A_THREAD, 5))


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
