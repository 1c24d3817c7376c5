"""The virtual cameras of the build under test, steered through their C interface with ctypes.

The build tree is the one that the environment variable LUMATIE_BUILD_DIR names, `build/linux` of
this repository when it is not set. LUMATIE_INSTALLED names the folder that its wheels were
installed in, if they are what is tested.
"""

import ctypes
import os
import pathlib
import re
import textwrap
import time

from this_process import ON_WINDOWS

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(
    os.environ.get("LUMATIE_BUILD_DIR") or REPOSITORY / "build" / "linux"
).resolve()
INSTALLED = os.environ.get("LUMATIE_INSTALLED")
PYTHON_DIR = pathlib.Path(INSTALLED or BUILD / "python").resolve()
VIRTUAL_DIR = PYTHON_DIR / "lumatie_virtual" if INSTALLED else BUILD / "virtual"
CANON_LIBRARY = VIRTUAL_DIR / ("EDSDK.dll" if ON_WINDOWS else "libEDSDK.so")
NIKON_MODULE = VIRTUAL_DIR / "VirtualNikon.md3"

# Long enough for a loaded machine; only a failing test ever waits for it.
DEADLINE = 20.0


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


class SteeringError(Exception):
    """The virtual camera refused what a test asked of it."""


class VirtualCamera:
    """The steering interface of any maker's library (virtual/VirtualCamera.h).

    One world for the whole process: every instance of a maker's steers the same. Methods about one
    camera take its number, 0 for the first. A refusal raises SteeringError; a wait whose time runs
    out fails. "Functions" are Canon's functions, "EdsOpenSession", or the commands to Nikon's
    driver, "Open", "CapGet".
    """

    own = None  # the start of the names that only this maker's library has

    def __init__(self, library):
        self._library = ctypes.CDLL(str(library))
        for name in ("Clock", "PictureValue", "PictureBytes"):
            self._function(name).restype = ctypes.c_int64
        self._function("PictureBytes").argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int64]
        self._function("FailNext").argtypes = [ctypes.c_char_p, ctypes.c_int64, ctypes.c_int]
        self._function("EventCount").argtypes = [ctypes.c_int64]
        self._function("WaitForEvents").argtypes = [ctypes.c_int64, ctypes.c_int, ctypes.c_int]

    def _function(self, name):
        """A function that all libraries have; with "own." in front one of this maker's."""
        start, _, rest = name.rpartition(".")
        return getattr(self._library, (self.own if start else "VirtualCamera") + rest)

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

    def add(self, name, identifier=1):
        """Plugs in another camera, of this sub-type (Canon) or id (Nikon); returns its number."""
        return self._function("Add")(name.encode(), ctypes.c_uint32(identifier))

    def remove(self, camera=0):
        """Unplugs the camera and forgets it."""
        self._do("Remove", camera)

    def unplug(self, camera=0):
        """Pulls the cable: every call on the camera fails from now on."""
        self._do("Unplug", camera)

    def plug(self, camera=0):
        """Puts the cable back in."""
        self._do("Plug", camera)

    def session_open(self, camera=0):
        """Whether a session is open with the camera."""
        return bool(self._function("SessionOpen")(camera))

    def press_shutter(self, camera=0):
        """Presses the button on the body; does not wait for the picture."""
        self._do("PressShutter", camera)

    def is_exposing(self, camera=0, deadline=0.0):
        """Whether the camera exposes, or begins to before the deadline."""
        return bool(self._function("WaitForExposure")(camera, int(deadline * 1000)))

    def end_exposure(self, camera=0):
        """Closes a shutter that is open until told, if one is."""
        self._function("EndExposure")(camera)

    def turn_dial(self, mode, camera=0):
        """Turns the mode dial; what depends on it changes and is announced."""
        self._do("TurnDial", camera, ctypes.c_uint32(mode))

    def fault(self, rule):
        """Makes calls misbehave, e.g. "EdsSendCommand code=0x60 command=4 parameter=3"."""
        self._do("Fault", rule.encode())

    def fail_next(self, function, code, calls=1):
        """The next `calls` calls of the function answer `code` and do nothing."""
        self._do("FailNext", function.encode(), code, calls)

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

    def event_count(self, event=-1):
        """How many events of this code (-1: of all) were delivered."""
        return self._function("EventCount")(event)

    def wait_for_events(self, event, count=1, deadline=DEADLINE):
        """Waits until at least `count` events of this code (-1: any) were delivered."""
        self._wait("WaitForEvents", event, count, deadline=deadline)

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

    def has_pictures(self, count, deadline):
        """Whether at least `count` pictures were made before the deadline."""
        return bool(self._function("WaitForPictures")(count, int(deadline * 1000)))

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


class VirtualCanon(VirtualCamera):
    """The steering interface of the virtual Canon camera (virtual/VirtualCanon.h)."""

    own = "VirtualCanon"

    def __init__(self):
        super().__init__(CANON_LIBRARY)
        for name in ("own.Property", "StreamBytes"):
            self._function("own." + name).restype = ctypes.c_int64
        self._function("own.NewItem").restype = ctypes.c_void_p
        self._function("own.SendObjectEvent").argtypes = [
            ctypes.c_int,
            ctypes.c_uint32,
            ctypes.c_void_p,
        ]
        self._markers = 0

    # Cameras.

    def set_name(self, name, camera=0):
        """Names the camera with exactly these bytes; 256 of them leave no terminator."""
        self._do("own.SetName", camera, name, len(name))

    def sleep(self, asleep=True, camera=0):
        """Lets the camera fall asleep, or wakes it."""
        self._do("own.Sleep", camera, int(asleep))

    # Properties.

    def set_property(self, identifier, value, camera=0):
        """Changes a 32-bit setting on the body, allowed or not; makes the property if need be."""
        code = ctypes.c_uint32(identifier)
        self._do("own.SetProperty", camera, code, ctypes.c_uint32(value & 0xFFFFFFFF))

    def set_property_bytes(self, identifier, kind, data, camera=0):
        """The same for a property of any type and size."""
        code = ctypes.c_uint32(identifier)
        self._do("own.SetPropertyBytes", camera, code, ctypes.c_uint32(kind), data, len(data))

    def remove_property(self, identifier, camera=0):
        """Takes a property away: reading it fails from now on."""
        self._do("own.RemoveProperty", camera, ctypes.c_uint32(identifier))

    def set_allowed(self, identifier, values, camera=0):
        """Replaces the list of allowed values and announces it; None gives the own one back."""
        count = -1 if values is None else len(values)
        array = (ctypes.c_int32 * max(count, 1))(*(values or ()))
        self._do("own.SetAllowed", camera, ctypes.c_uint32(identifier), array, count)

    def property(self, identifier, camera=0):
        """The property's value, unsigned; None when there is none."""
        value = self._function("own.Property")(camera, ctypes.c_uint32(identifier))
        return None if value < 0 else value

    def allowed(self, identifier, camera=0):
        """The allowed values now; None when the property has no list."""
        array = (ctypes.c_int32 * 128)()
        count = self._function("own.Allowed")(
            camera, ctypes.c_uint32(identifier), array, len(array)
        )
        return None if count < 0 else list(array[:count])

    # Events.

    def send_property_event(self, event, identifier, parameter=0, camera=0):
        """Raises a property event; the camera's event thread delivers it."""
        codes = [ctypes.c_uint32(value) for value in (event, identifier, parameter)]
        self._do("own.SendPropertyEvent", camera, *codes)

    def send_object_event(self, event, reference=None, camera=0):
        """Raises an object event; the reference goes to the handler as it is."""
        self._do("own.SendObjectEvent", camera, event, reference)

    def send_state_event(self, event, parameter=0, camera=0):
        """Raises a state event."""
        self._do("own.SendStateEvent", camera, ctypes.c_uint32(event), ctypes.c_uint32(parameter))

    def new_item(self, file=-1, camera=0):
        """A fresh reference on a file of the picture list, on a folder for -1; the caller's."""
        reference = self._function("own.NewItem")(camera, file)
        if not reference:
            raise SteeringError("NewItem: " + self._text("LastError"))
        return reference

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
        return self._function("own.ReferenceCount")(kind.encode())

    # Pictures.

    def set_picture_name(self, name, camera=0):
        """Names the files to come with exactly these bytes; b"" goes back to IMG_0001.JPG."""
        self._do("own.SetPictureName", camera, name, len(name))

    def pictures(self):
        """The files made since the reset: dicts of name, size, shot, camera, origin, to_host,
        announced, downloaded and complete (see VirtualCanon.h)."""
        return self.picture_fields(
            *"shot camera origin size to_host announced downloaded complete".split()
        )


class VirtualNikon(VirtualCamera):
    """The steering interface of the virtual driver module (virtual/VirtualNikon.h).

    It holds the module loaded, so that its state outlives sessions.
    """

    own = "VirtualNikon"

    def __init__(self):
        super().__init__(NIKON_MODULE)
        self._function("own.Value").restype = ctypes.c_int64
        self._function("own.AddItem").argtypes = [
            ctypes.c_int,
            ctypes.c_uint32,
            ctypes.c_int,
            ctypes.c_uint32,
            ctypes.c_char_p,
            ctypes.c_int64,
        ]

    def set_value(self, capability, value, camera=0):
        """Moves an enumeration to a position counted from 0, as on the body."""
        self._do("own.SetValue", camera, ctypes.c_uint32(capability), ctypes.c_uint32(value))

    def value(self, capability, camera=0):
        """The position of an enumeration, counted from 0."""
        return self._function("own.Value")(camera, ctypes.c_uint32(capability))

    def texts(self, capability, camera=0):
        """An enumeration's texts or numbers."""
        return self._text("own.Texts", camera, ctypes.c_uint32(capability)).splitlines()

    def set_texts(self, capability, texts, camera=0):
        """Replaces an enumeration's texts."""
        lines = "\n".join(texts).encode()
        self._do("own.SetTexts", camera, ctypes.c_uint32(capability), lines)

    def pending(self):
        """How many commands have not completed."""
        return self._function("own.Pending")()

    def release_completions(self):
        """Lets the commands complete that were told never to; returns how many."""
        return self._function("own.ReleaseCompletions")()

    def wait_for_delivered(self, count=1, deadline=20.0):
        """Waits until at least `count` pictures were taken over whole."""
        self._wait("own.WaitForDelivered", count, deadline=deadline)

    def add_item(self, content, file_type=1, data_types=1, row_bytes=0, camera=0):
        """Puts an item with this content on the camera; returns the picture's number."""
        size = len(content)
        number = self._function("own.AddItem")(
            camera, data_types, file_type, row_bytes, content, size
        )
        assert number >= 0, self._text("LastError")
        return number

    def remove_item(self, picture):
        """Erases a picture on its camera."""
        self._do("own.RemoveItem", picture)

    def listed(self, camera=0):
        """How many items the camera lists."""
        return self._function("own.ItemCount")(camera)

    def pictures(self):
        """The pictures made since the reset, see VirtualNikon.h for the fields."""
        return self.picture_fields(
            *"shot camera origin type size listed announced opened started delivered".split()
        )

    def open_objects(self):
        """The objects that the application has open."""
        return self._text("own.OpenObjects").splitlines()
