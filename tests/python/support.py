"""What the Python tests stand on: the build under test, the virtual camera, a host that listens.

Tests import `Lumatie` and `_Lumatie` from here, which finds them. The build tree is the one that
the environment variable LUMATIE_BUILD_DIR names, `build/linux` of this repository when it is not
set.

Nothing here sleeps for a guess: whatever has to come true is waited for with a deadline, and a
deadline that passes is a failure that says what was there instead.
"""

import ast
import collections
import ctypes
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

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(
    os.environ.get("LUMATIE_BUILD_DIR") or REPOSITORY / "build" / "linux"
).resolve()
PYTHON_DIR = BUILD / "python"
VIRTUAL_DIR = BUILD / "virtual"
CANON_LIBRARY = VIRTUAL_DIR / ("EDSDK.dll" if ON_WINDOWS else "libEDSDK.so")
NIKON_MODULE = VIRTUAL_DIR / "VirtualNikon.md3"
TEST_PYTHON_DIR = BUILD / "test-python"  # the module with settings of its own, see log_support.py
TEST_CONFIG_DIR = BUILD / "test-config"

# Windows looks for the camera's library beside the module and in folders that are named to it.
if ON_WINDOWS:
    os.add_dll_directory(str(VIRTUAL_DIR))

if str(PYTHON_DIR) not in sys.path:
    sys.path.insert(0, str(PYTHON_DIR))

import _Lumatie  # noqa: E402, F401  both lie in the build tree; tests take them from here
import Lumatie  # noqa: E402

# Long enough for a loaded machine; only a failing test ever waits for it.
DEADLINE = 20.0

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


def wait_until(predicate, what, deadline=DEADLINE):
    """Polls until `predicate()` is true and returns its value; fails when time runs out.

    For conditions that nobody announces; `what` says in the failure what did not come true: a
    text, or a function that makes one then.
    """
    end = time.monotonic() + deadline
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > end:
            what = what() if callable(what) else what
            raise AssertionError("not within {:g} s: {}".format(deadline, what))
        time.sleep(0.002)


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
        raise unittest.SkipTest("no symbolic link can be made here")


def name_in_library(name):
    """The name of a file that a maker's library calls by these bytes."""
    return name.decode("mbcs") if ON_WINDOWS else os.fsdecode(name)


class SteeringError(Exception):
    """The virtual camera refused what a test asked of it."""


class Steering:
    """What the steering interfaces of all virtual cameras have in common.

    One world for the whole process: every instance steers the same. Methods about one camera take
    its number, 0 for the first. A refusal raises SteeringError; a wait whose time runs out fails.
    """

    def __init__(self, library, prefix):
        self._library = ctypes.CDLL(str(library))
        self._prefix = prefix
        self._function("Clock").restype = ctypes.c_int64

    def _function(self, name):
        return getattr(self._library, self._prefix + name)

    def _text(self, name, *arguments):
        """A text that the library gives out; it may grow between the two calls."""
        capacity = 4096
        while True:
            buffer = ctypes.create_string_buffer(capacity)
            length = self._function(name)(*arguments, buffer, capacity)
            if length < capacity:
                return buffer.value.decode("utf-8", "surrogateescape")
            capacity = length + 4096

    def _do(self, name, *arguments):
        if not self._function(name)(*arguments):
            raise SteeringError("{}: {}".format(name, self._text("LastError")))

    def _wait(self, name, *arguments, deadline=DEADLINE):
        if not self._function(name)(*arguments, int(deadline * 1000)):
            raise AssertionError(
                "not within {:g} s: {}{}\n{}".format(deadline, name, arguments, self.story())
            )

    def reset(self):
        """Back to the factory: one camera, plugged in, no faults, all logs and counts empty."""
        self._function("Reset")()

    def configure(self, text):
        """Applies settings, one "key = value" a line."""
        text = textwrap.dedent(text)
        bad = self._function("Configure")(text.encode("utf-8", "surrogateescape"))
        if bad:
            raise SteeringError(
                "{}: {}".format(text.splitlines()[bad - 1], self._text("LastError"))
            )

    def settings(self):
        """Every setting with its value now, as a text that configure() takes."""
        return self._text("Settings")

    def remove(self, camera=0):
        """Unplugs the camera and forgets it."""
        self._do("Remove", camera)

    def unplug(self, camera=0):
        """Pulls the cable: every call on the camera fails from now on."""
        self._do("Unplug", camera)

    def plug(self, camera=0):
        """Puts the cable back in."""
        self._do("Plug", camera)

    def press_shutter(self, camera=0):
        """Presses the button on the body; does not wait for the picture."""
        self._do("PressShutter", camera)

    def turn_dial(self, mode, camera=0):
        """Turns the mode dial; what depends on it changes and is announced."""
        self._do("TurnDial", camera, ctypes.c_uint32(mode))

    def fault(self, rule):
        """Makes calls misbehave, e.g. "EdsSendCommand code=0x60 command=4 parameter=3"."""
        self._do("Fault", rule.encode())

    def event_rule(self, rule):
        """Makes events misbehave, e.g. "0x208 lose"."""
        self._do("EventRule", rule.encode())

    def clear_faults(self):
        """Forgets all faults and event rules."""
        self._function("ClearFaults")()

    def release_hangs(self):
        """Lets every hanging call go on; returns how many there were."""
        return self._function("ReleaseHangs")()

    def wait_for_hang(self, function="*", deadline=DEADLINE):
        """Waits until a call of the function hangs."""
        self._wait("WaitForHang", function.encode(), deadline=deadline)

    def calls(self, function="*"):
        """How many calls of the function were answered."""
        return self._function("CallCount")(function.encode())

    def wait_for_calls(self, function, count=1, deadline=DEADLINE):
        """Waits until at least `count` calls of the function were answered since the reset."""
        self._wait("WaitForCalls", function.encode(), count, deadline=deadline)

    def wait_until_idle(self, deadline=DEADLINE):
        """Waits until no call, exposure, event or handler is under way.

        The module's own queue may still hold commands.
        """
        self._wait("WaitUntilIdle", deadline=deadline)

    def log(self):
        """The call log, a line for each answered call and delivered event."""
        return self._text("Log").splitlines()

    def clock(self):
        """What the call log's clock shows now: seconds since the library was loaded."""
        return self._function("Clock")() / 1e6

    def clear_log(self):
        """Empties the log; counts stay."""
        self._function("ClearLog")()

    def misuse(self):
        """How the application broke the rules of the interface, a line each."""
        return self._text("Misuse").splitlines()

    def clear_misuse(self):
        """Forgets the misuses."""
        self._function("ClearMisuse")()

    def story(self):
        """The end of the call log, for the message of a failure."""
        return "\n".join(self.log()[-30:])

    def wait_for_pictures(self, count=1, deadline=DEADLINE):
        """Waits until at least `count` picture files were made."""
        self._wait("WaitForPictures", count, deadline=deadline)

    def picture_fields(self, *fields):
        """The files made since the reset: dicts of their name and these fields."""
        found = []
        for index in range(self._function("PictureCount")()):
            value = self._function("PictureValue")
            picture = {field: value(index, field.encode()) for field in fields}
            picture["name"] = self._text("PictureName", index)
            found.append(picture)
        return found

    def picture_bytes(self, index):
        """The bytes of one file, as they lie on the camera."""
        size = self._function("PictureBytes")(index, None, 0)
        if size < 0:
            raise SteeringError("picture {} is not kept".format(index))
        buffer = ctypes.create_string_buffer(max(size, 1))
        self._function("PictureBytes")(index, buffer, size)
        return buffer.raw[:size]


class VirtualCamera(Steering):
    """The steering interface of the virtual Canon library (virtual/VirtualCamera.h)."""

    def __init__(self):
        super().__init__(CANON_LIBRARY, "VirtualCamera")
        for name in ("Property", "PictureValue", "PictureBytes", "StreamBytes"):
            self._function(name).restype = ctypes.c_int64
        self._function("PictureBytes").argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int64]
        self._function("NewItem").restype = ctypes.c_void_p
        self._function("SendObjectEvent").argtypes = [
            ctypes.c_int,
            ctypes.c_uint32,
            ctypes.c_void_p,
        ]
        self._markers = 0

    # Settings.

    # Cameras.

    def add(self, name, sub_type=1):
        """Plugs in another camera; returns its number."""
        number = self._function("Add")(name.encode(), ctypes.c_uint32(sub_type))
        if number < 0:
            raise SteeringError("Add: " + self._text("LastError"))
        return number

    def set_name(self, name, camera=0):
        """Names the camera with exactly these bytes; 256 of them leave no terminator."""
        self._do("SetName", camera, name, len(name))

    def sleep(self, asleep=True, camera=0):
        """Lets the camera fall asleep, or wakes it."""
        self._do("Sleep", camera, int(asleep))

    def session_open(self, camera=0):
        """Whether a session is open with the camera."""
        return bool(self._function("SessionOpen")(camera))

    # Properties.

    def set_property(self, identifier, value, camera=0):
        """Changes a 32-bit setting on the body, allowed or not; makes the property if need be."""
        code = ctypes.c_uint32(identifier)
        self._do("SetProperty", camera, code, ctypes.c_uint32(value & 0xFFFFFFFF))

    def set_property_bytes(self, identifier, kind, data, camera=0):
        """The same for a property of any type and size."""
        code = ctypes.c_uint32(identifier)
        self._do("SetPropertyBytes", camera, code, ctypes.c_uint32(kind), data, len(data))

    def remove_property(self, identifier, camera=0):
        """Takes a property away: reading it fails from now on."""
        self._do("RemoveProperty", camera, ctypes.c_uint32(identifier))

    def set_allowed(self, identifier, values, camera=0):
        """Replaces the list of allowed values and announces it; None gives the own one back."""
        count = -1 if values is None else len(values)
        array = (ctypes.c_int32 * max(count, 1))(*(values or ()))
        self._do("SetAllowed", camera, ctypes.c_uint32(identifier), array, count)

    def property(self, identifier, camera=0):
        """The property's value, unsigned; None when there is none."""
        value = self._function("Property")(camera, ctypes.c_uint32(identifier))
        return None if value < 0 else value

    def allowed(self, identifier, camera=0):
        """The allowed values now; None when the property has no list."""
        array = (ctypes.c_int32 * 128)()
        count = self._function("Allowed")(camera, ctypes.c_uint32(identifier), array, len(array))
        return None if count < 0 else list(array[:count])

    # Faults.

    def fail_next(self, function, code, calls=1):
        """The next `calls` calls of the function answer `code` and do nothing."""
        self._do("FailNext", function.encode(), ctypes.c_uint32(code), calls)

    # Events.

    def send_property_event(self, event, identifier, parameter=0, camera=0):
        """Raises a property event; the camera's event thread delivers it."""
        codes = [ctypes.c_uint32(value) for value in (event, identifier, parameter)]
        self._do("SendPropertyEvent", camera, *codes)

    def send_object_event(self, event, reference=None, camera=0):
        """Raises an object event; the reference goes to the handler as it is."""
        self._do("SendObjectEvent", camera, event, reference)

    def send_state_event(self, event, parameter=0, camera=0):
        """Raises a state event."""
        self._do("SendStateEvent", camera, ctypes.c_uint32(event), ctypes.c_uint32(parameter))

    def new_item(self, file=-1, camera=0):
        """A fresh reference on a file of the picture list, on a folder for -1; the caller's."""
        reference = self._function("NewItem")(camera, file)
        if not reference:
            raise SteeringError("NewItem: " + self._text("LastError"))
        return reference

    def event_count(self, event=0):
        """How many events of this code (0: of all) handlers were called with."""
        return self._function("EventCount")(ctypes.c_uint32(event))

    def wait_for_events(self, event, count=1, deadline=DEADLINE):
        """Waits until handlers were called at least `count` times with this code (0: any)."""
        self._wait("WaitForEvents", ctypes.c_uint32(event), count, deadline=deadline)

    # What the application did.

    def settle(self, camera=0, deadline=DEADLINE):
        """Waits until everything that was asked for or raised so far has been dealt with, also
        what came of it in turn, the calls of the host included. Needs a session that opens.

        A marker goes through the camera's events and the module's queue: a property that nobody
        reports. When its value has been read, the worker has done all that was queued before. Two
        markers in a row with nothing else around them say that nothing is left, not even a
        command that waits to be tried again.
        """
        end = time.monotonic() + deadline
        wait_until(lambda: self.session_open(camera), "the session is open", deadline)
        quiet_rounds = 0
        while quiet_rounds < 2:
            self.wait_until_idle(deadline)
            before = self.calls(), self.event_count()
            self._pass_marker(camera, end - time.monotonic())
            self.wait_until_idle(deadline)
            # The marker itself takes one event and two calls.
            is_quiet = (self.calls(), self.event_count()) == (before[0] + 2, before[1] + 1)
            quiet_rounds = quiet_rounds + 1 if is_quiet else 0

    def _pass_marker(self, camera, deadline):
        self._markers += 1
        marker = 0x0F000000 + self._markers
        self.set_property(marker, 0, camera)
        read = re.compile(r"EdsGetPropertyData\(camera#\d+, 0x{:X},".format(marker))
        wait_until(
            lambda: read.search(self._text("Log")),
            lambda: "the module has worked off its queue\n" + self.story(),
            deadline,
        )
        self.remove_property(marker, camera)

    def references(self, kind=""):
        """How many objects of a kind (list, camera, item, stream, image) the application holds."""
        return self._function("ReferenceCount")(kind.encode())

    # Pictures.

    def set_picture_name(self, name, camera=0):
        """Names the files to come with exactly these bytes; b"" goes back to IMG_0001.JPG."""
        self._do("SetPictureName", camera, name, len(name))

    def pictures(self):
        """The files made since the reset: dicts of name, size, shot, camera, origin, to_host,
        announced, downloaded and complete (see VirtualCamera.h)."""
        return self.picture_fields(
            *"shot camera origin size to_host announced downloaded complete".split()
        )


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
        self.camera = VirtualCamera()
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
