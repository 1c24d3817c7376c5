"""What the Python tests stand on: the build under test, the virtual camera, a host that listens.

Tests import `Lumatie` and `_Lumatie` from here, which finds them. The build tree is the one that
the environment variable LUMATIE_BUILD_DIR names, `build/linux` of this repository when it is not
set.

Nothing here sleeps for a guess: whatever has to come true is waited for with a deadline, and a
deadline that passes is a failure that says what was there instead.
"""

import ast
import collections
import gc
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import threading
import time
import unittest
import weakref

from this_process import ON_WINDOWS, native_threads
from virtual_cameras import (  # noqa: F401  tests take all of these from here
    BUILD,
    CANON_LIBRARY,
    DEADLINE,
    NIKON_MODULE,
    PYTHON_DIR,
    REPOSITORY,
    VIRTUAL_DIR,
    SteeringError,
    VirtualCanon,
    VirtualNikon,
    wait_until,
)

TEST_PYTHON_DIR = BUILD / "test-python"  # the module with settings of its own, see log_support.py
TEST_CONFIG_DIR = BUILD / "test-config"

# Windows looks for the camera's library beside the module and in folders that are named to it.
if ON_WINDOWS:
    os.add_dll_directory(str(VIRTUAL_DIR))

if str(PYTHON_DIR) not in sys.path:
    sys.path.insert(0, str(PYTHON_DIR))

import _Lumatie  # noqa: E402, F401  both lie in the build tree; tests take them from here
import Lumatie  # noqa: E402

CAMERA_NAME = "Virtual EOS"

# Property codes of the interface, and commands.
PRODUCT_NAME = 0x2
IMAGE_QUALITY = 0x100
WHITE_BALANCE = 0x106
COLOR_TEMPERATURE = 0x107
ISO = 0x402
APERTURE = 0x405
SHUTTER_SPEED = 0x406
EXPOSURE_MODE = 0x436

# Event codes of the interface.
PROPERTY_CHANGED = 0x101
LIST_CHANGED = 0x102
NEW_PICTURE = 0x208

JPEG = 0x0013FF0F
RAW = 0x0064FF0F
RAW_AND_JPEG = 0x00640013


def folder_names(*names):
    """Those of the names that a folder can have here."""
    if not ON_WINDOWS:
        return list(names)
    return [name for name in names if not re.search(r'[\0-\x1f"*/:<>?\\|]|[ .]$', name)]


def make_link(target, link):
    """Makes a symbolic link; skips the test on a Windows that makes none."""
    try:
        os.symlink(target, link)
    except OSError:
        if not ON_WINDOWS:
            raise
    if not os.path.lexists(link):
        raise unittest.SkipTest("Windows lets only the privileged make symbolic links")


def name_in_library(name):
    """The name of a file that a maker's library calls by these bytes."""
    return name.decode("mbcs") if ON_WINDOWS else os.fsdecode(name)


class Event(collections.namedtuple("Event", "code values thread time")):
    """One call of the host: type code, further arguments, thread identifier, monotonic time."""

    @property
    def text(self):
        """The last argument: a display, status or list text."""
        return self.values[-1]

    def parsed(self):
        """The dictionary that a status or list text stands for."""
        return ast.literal_eval(self.text)


class Host:
    """A callable that records its calls; any thread may call it and any may wait.

    `on_event`, when given, is called with each event after it was recorded, on the calling thread;
    what it raises goes to the caller, as from any host.
    """

    def __init__(self, on_event=None):
        self._condition = threading.Condition()
        self._events = []
        self._on_event = on_event

    def __call__(self, *arguments):
        # Not threading.current_thread(): that would leave an entry behind for a foreign thread.
        code, values = arguments[:1], arguments[1:]
        event = Event(code[0] if code else None, values, threading.get_ident(), time.monotonic())
        with self._condition:
            self._events.append(event)
            self._condition.notify_all()
        if self._on_event is not None:
            self._on_event(event)

    @property
    def events(self):
        """All events so far, oldest first."""
        with self._condition:
            return list(self._events)

    def calls(self):
        """The calls as they came: tuples of the code and the further arguments."""
        return [(event.code,) + event.values for event in self.events]

    def of(self, code):
        """The events with this type code."""
        return [event for event in self.events if event.code == code]

    def codes(self):
        """The type codes in the order in which they came."""
        return [event.code for event in self.events]

    def clear(self):
        """Forgets what came so far."""
        with self._condition:
            self._events.clear()

    def wait_for(self, predicate, deadline=DEADLINE):
        """Waits until `predicate(events)` is true and returns its value; fails at the deadline."""
        end = time.monotonic() + deadline
        with self._condition:
            while True:
                value = predicate(list(self._events))
                if value:
                    return value
                if not self._condition.wait(end - time.monotonic()) and time.monotonic() >= end:
                    break
        calls = "\n".join(map(repr, self.calls())) or "nothing"
        raise AssertionError("not within {:g} s; there came:\n{}".format(deadline, calls))

    def wait_for_event(self, code, count=1, deadline=DEADLINE):
        """Waits for the `count`th event with this type code and returns it."""

        def found(events):
            matching = [event for event in events if event.code == code]
            return matching[count - 1] if len(matching) >= count else None

        return self.wait_for(found, deadline)

    def wait_for_call(self, *arguments, deadline=DEADLINE):
        """Waits for a call with exactly these arguments and returns its event."""

        def found(events):
            return next((e for e in events if (e.code,) + e.values == arguments), None)

        return self.wait_for(found, deadline)

    def wait_for_text(self, fragment, count=1, deadline=DEADLINE):
        """Waits for the `count`th status text (type 0) that holds `fragment`; returns its event."""

        def found(events):
            matching = [
                e for e in events if e.code == Lumatie.TETHER_GENERAL and fragment in e.text
            ]
            return matching[count - 1] if len(matching) >= count else None

        return self.wait_for(found, deadline)

    def wait_for_picture(self, count=1, deadline=DEADLINE):
        """Waits for the `count`th new picture and returns its path, taken from the raw text."""
        return picture_path(self.wait_for_text("GENERAL_NEWFILE", count, deadline).text)

    def wait_for_failure(self, count=1, deadline=DEADLINE):
        """Waits for the `count`th write failure and returns its event."""
        return self.wait_for_text("GENERAL_WRITEFAIL", count, deadline)


NEW_FILE_START = "{'GENERAL_NEWFILE':r'"
NEW_FILE_END = "'}"
WRITE_FAILURE = "{'GENERAL_WRITEFAIL':1}"
DEVICE_BUSY = "{'GENERAL_DEVICEBUSY':1}"


def picture_path(text):
    """The path in a new-picture text, also when a quote in it spoils the literal."""
    if not (text.startswith(NEW_FILE_START) and text.endswith(NEW_FILE_END)):
        raise AssertionError("no new-picture text: " + text)
    return text[len(NEW_FILE_START) : -len(NEW_FILE_END)]


class TetherTestCase(unittest.TestCase):
    """A fresh virtual camera and a fresh folder for each test.

    After each test its sessions are ended, and the test fails when the virtual camera saw misuse,
    when references on its objects are left over, or when threads are.
    """

    def setUp(self):
        self.camera = VirtualCanon()
        self.assertEqual(self.camera.references(), 0, "an earlier test left references behind")
        self.camera.reset()
        folder = tempfile.TemporaryDirectory(prefix="lumatie-")
        self.addCleanup(folder.cleanup)
        self.base = os.path.realpath(folder.name)
        self.folder = os.path.join(self.base, "export")
        os.mkdir(self.folder)
        gc.collect()
        self._threads = native_threads()
        # Cleanups run last in, first out: sessions have ended when this looks.
        self.addCleanup(self._check_leftovers)
        self.addCleanup(self.camera.release_hangs)

    def new_host(self, on_event=None):
        """A host without a session."""
        return Host(on_event)

    def start(self, host=None, folder=None, name=CAMERA_NAME, wait=True):
        """Starts a session that ends with the test; returns the tether object and its host.

        With `wait`, only once the session is open and its first news have been delivered.
        """
        host = Host() if host is None else host
        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        self.assertEqual(tether.Init(name, self.folder if folder is None else folder, host), 1)
        if wait:
            self.camera.wait_for_calls("EdsSetCapacity")
            self.camera.settle()
        return tether, host

    def end_with_test(self, tether):
        """Ends the object's session after the test, if it is still alive then."""
        reference = weakref.ref(tether)

        def end():
            alive = reference()
            if alive is not None:
                # A call that a failed test left hanging would hang the end, too.
                self.camera.clear_faults()
                self.camera.release_hangs()
                alive.Uninit()

        self.addCleanup(end)

    def files(self, folder=None):
        """The names of the files in the export folder."""
        return sorted(os.listdir(self.folder if folder is None else folder))

    def _check_leftovers(self):
        gc.collect()
        self.camera.release_hangs()
        wait_until(lambda: self.camera.references() == 0, "all references on the camera given back")
        wait_until(
            lambda: native_threads() <= self._threads,
            "the session's threads have ended",
        )
        self.assertEqual(self.camera.misuse(), [], "the module misused the camera's interface")


INTERNAL_ERROR = 1359  # of Windows

HostRun = collections.namedtuple("HostRun", "status stdout stderr")


def run_host(code, deadline=60.0, **how):
    """Runs a host script in a process of its own; returns its exit status and what it wrote.

    Takes what start_host does. A script that outlives the deadline is killed, which is a failure
    that shows what it had written. A status below 0 is a signal's number.
    """
    process = start_host(code, **how)
    late = False
    try:
        written = process.communicate(timeout=deadline)
    except subprocess.TimeoutExpired:
        late = True
        process.kill()
        written = process.communicate()
    run = HostRun(process.returncode, *map(decode_output, written))
    if late:
        message = "the host script did not end within {:g} s\nstdout:\n{}\nstderr:\n{}"
        raise AssertionError(message.format(deadline, run.stdout, run.stderr))
    return run


def start_host(code, environment=None, python_dir=None, arguments=(), **options):
    """Starts a host script in a process of its own, with pipes for what it writes.

    The script may import `support` and `Lumatie`. `environment` adds variables (None removes one);
    `python_dir` is searched for the module first; `options` are those of subprocess.Popen.
    """
    paths = [str(pathlib.Path(__file__).resolve().parent), str(PYTHON_DIR)]
    if python_dir is not None:
        paths.insert(0, str(python_dir))
    variables = dict(
        os.environ,
        PYTHONPATH=os.pathsep.join(paths),
        PYTHONIOENCODING="utf-8:surrogateescape",
        PYTHONDONTWRITEBYTECODE="1",
        PYTHONFAULTHANDLER="1",
        LUMATIE_BUILD_DIR=str(BUILD),
    )
    variables.pop("LUMATIE_VIRTUAL_CANON", None)
    variables.pop("LUMATIE_VIRTUAL_NIKON", None)
    for name, value in (environment or {}).items():
        if value is None:
            variables.pop(name, None)
        else:
            variables[name] = str(value)
    code = textwrap.dedent(code)
    if ON_WINDOWS:
        code = "import os\nos.add_dll_directory({!r})\n{}".format(str(VIRTUAL_DIR), code)
    command = [sys.executable]
    if sys.flags.dev_mode:
        command += ["-X", "dev"]
    command += ["-c", code] + [str(argument) for argument in arguments]
    options.update(stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        return subprocess.Popen(command, env=variables, **options)
    except OSError as error:
        # Wine fails to start one process in some thousands.
        if getattr(error, "winerror", None) != INTERNAL_ERROR:
            raise
        return subprocess.Popen(command, env=variables, **options)


def decode_output(written):
    """What a host wrote, as a text with plain line ends."""
    return written.decode("utf-8", "surrogateescape").replace(os.linesep, "\n")
