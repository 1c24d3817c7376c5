"""Canon's library, asked directly: what it fills, tells and announces, in one session.

Runs in a process of its own, for a library that crashes or hangs takes its process with it.
"""

import ctypes
import time
from typing import Any, Dict, List, Optional, Tuple

from . import eds, pace
from .direct import EVENT_PATIENCE, LATE, Direct
from .known import CODES
from .pace import milliseconds
from .records import is_ended, is_utf8, parsed, text_of
from .teller import Evidence, No, Teller, Unseen

# The numbers that are reported, and the names of their settings.
NAMES = {
    0x436: "mode",
    0x406: "shutter",
    0x405: "aperture",
    0x402: "iso",
    0x403: "metering",
    0x407: "compensation",
    0x100: "quality",
    0x106: "white balance",
    0x107: "color temperature",
}
_LISTS = (0x406, 0x405, 0x402, 0x106, 0x107)
_OF_TYPE_9 = (0x436, 0x406, 0x405, 0x402, 0x403, 0x407)  # read as nothing else
_LONGEST_NUMBER = 4
_PRODUCT_NAME, _SAVE_TO, _FOCUS_INFO = 0x2, 0xB, 0x104
_FOCUS_INFO_SIZE = 19224
_TO_BOTH = 3
_CHANGEABLE = (0x405, 0x106, 0x402, 0x406)

_PACES = (0.02, 0.05, 0.1, None)


class Canon(Direct):
    """A session with a Canon camera, past the module."""

    def __init__(self, tell: Teller, path: str, camera: str) -> None:
        super().__init__(tell, path)
        self._name = camera
        self._values: Dict[int, Tuple[int, int, bytes]] = {}  # type, size told, bytes
        self._told: Dict[int, Tuple[int, List[int]]] = {}  # count told, and those that are there
        self._camera: Optional[int] = None
        self._is_open = False
        self._is_started = False
        self._saved_to: Optional[int] = None

    # The session.

    def _load(self) -> None:
        self._library = eds.Library(self._path)

    def _start(self) -> Evidence:
        begun = time.monotonic()
        self._expect("EdsInitializeSDK")
        self._is_started = True
        return "EdsInitializeSDK took %s" % milliseconds(time.monotonic() - begun)

    def _find(self) -> Evidence:
        cameras = self._reference("EdsGetCameraList")
        try:
            found = self._listed(cameras)
        finally:
            self._call("EdsRelease", cameras)
        if not found:
            raise No("the library lists no camera")
        if self._camera is None:
            raise No("there is no %r, but %s" % (self._name, ", ".join(map(repr, found))))
        return "%s, sub-type %d, one of %d" % (self._name, self._sub_type, len(found)), {
            "cameras": found
        }

    def _listed(self, cameras: Any) -> List[str]:
        """The names of the cameras of a list; keeps the one that is meant."""
        count = ctypes.c_uint32()
        self._expect("EdsGetChildCount", cameras, ctypes.byref(count))
        found: List[str] = []
        for index in range(min(count.value, 64)):
            camera = self._reference("EdsGetChildAtIndex", cameras, index)
            try:
                found.append(self._named_camera(camera))
            finally:
                if camera != self._camera:
                    self._call("EdsRelease", camera)
        return found

    def _named_camera(self, camera: Any) -> str:
        """The name of a camera, which is kept when it is the first of the one that is meant."""
        result, data = self._fill("EdsGetDeviceInfo", eds.DEVICE_INFO, camera)
        if result != eds.OK:
            raise No("EdsGetDeviceInfo answers %#x" % result)
        name = text_of(data[256:512])
        if self._camera is None and name.lower() == self._name.lower():
            self._camera, self._info = camera, data
            self._sub_type = parsed(eds.DeviceInfo, data).sub_type
        return name

    def _take_handlers(self) -> Evidence:
        self._handlers = (
            ("Property", eds.PropertyHandler(self._on_property)),
            ("Object", eds.ObjectHandler(self._on_object)),
            ("CameraState", eds.StateHandler(lambda event, parameter, context: 0)),
        )
        for kind, handler in self._handlers:
            self._expect("EdsSet%sEventHandler" % kind, self._camera, eds.ALL_EVENTS[kind],
                         handler, None)  # fmt: skip
        return "for properties, objects and states"

    def _open(self) -> Evidence:
        begun = time.monotonic()
        while True:  # as the module does: a camera that just woke up may be busy
            result = self._call("EdsOpenSession", self._camera)
            if result == eds.OK:
                break
            if time.monotonic() - begun > 3:
                raise No("EdsOpenSession answers %#x" % result)
            pace.wait(lambda: False, 0.5)
        self._is_open = True
        return "after %s" % milliseconds(time.monotonic() - begun)

    def _make_ready(self) -> Evidence:
        begun = time.monotonic()
        self._saved_to = self._number(_SAVE_TO)
        self._set(_SAVE_TO, _TO_BOTH)
        self._expect("EdsSendStatusCommand", self._camera, 0, 0)
        try:
            self._expect("EdsSetCapacity", self._camera, eds.Capacity(0x7FFFFFFF, 0x1000, 1))
        finally:
            result = self._call("EdsSendStatusCommand", self._camera, 1, 0)
        if result != eds.OK:
            raise No("EdsSendStatusCommand answers %#x to the end of locking" % result)
        return "pictures to here and to the card, in %s" % milliseconds(time.monotonic() - begun)

    def _close(self) -> Evidence:
        begun = time.monotonic()
        self._restore_saving()
        self._is_open = False
        self._expect("EdsCloseSession", self._camera)
        camera, self._camera = self._camera, None
        left = self._call("EdsRelease", camera)
        self._is_started = False
        self._expect("EdsTerminateSDK")
        return "%s, %d references left" % (milliseconds(time.monotonic() - begun), left)

    def _give_back(self) -> None:
        if self._is_open:
            self._restore_saving()
            self._call("EdsCloseSession", self._camera)
        if self._camera is not None:
            self._call("EdsRelease", self._camera)
        if self._is_started:
            self._call("EdsTerminateSDK")

    def _restore_saving(self) -> None:
        saved, self._saved_to = self._saved_to, None
        if saved is not None and saved != _TO_BOTH:
            self._set_quietly(_SAVE_TO, saved)

    # What records hold.

    def _read_all(self) -> None:
        for prop in (*NAMES, _PRODUCT_NAME, _FOCUS_INFO):
            self._read(prop)
        for prop in NAMES:
            self._read_list(prop)

    def _look_at_sizes(self) -> Evidence:
        odd: List[str] = []
        for prop, (kind, size, _) in self._values.items():
            wrong_type = (prop in _OF_TYPE_9 and kind != 9) or (prop == _PRODUCT_NAME and kind != 2)
            wrong_size = size > _LONGEST_NUMBER if prop in NAMES else size > 256
            if prop == _FOCUS_INFO:
                wrong_size = kind == 101 and size != _FOCUS_INFO_SIZE
            if wrong_type or wrong_size or size == 0:
                odd.append("%s has type %d and %d bytes" % (_named(prop), kind, size))
        if odd:
            raise No("; ".join(odd))
        if not self._values:
            raise Unseen("no property was told")
        return "of %d properties" % len(self._values)

    def _look_at_counts(self) -> Evidence:
        odd = [
            "%s claims %d values" % (_named(prop), count)
            for prop, (count, _) in self._told.items()
            if not 0 <= count <= eds.MAX_ELEMENTS
        ]
        if odd:
            raise No("; ".join(odd))
        if not self._told:
            raise Unseen("no list was told")
        counts = {_named(prop): count for prop, (count, _) in self._told.items()}
        return ", ".join("%s %d" % item for item in counts.items()), {"counts": counts}

    def _look_at_texts(self) -> Evidence:
        odd = [name for name, data in self._texts() if not is_ended(data)]
        if odd:
            raise No("no end in %s" % ", ".join(odd))
        return "of %s" % ", ".join(name for name, _ in self._texts())

    def _look_at_bytes(self) -> Evidence:
        odd = ["%s: %r" % (name, text_of(data)) for name, data in self._texts()
               if not is_utf8(data)]  # fmt: skip
        if odd:
            raise No("; ".join(odd))
        return ", ".join("%s %r" % (name, text_of(data)) for name, data in self._texts())

    def _look_at_codes(self) -> Evidence:
        unknown: List[str] = []
        for prop, known in CODES.items():
            codes = []
            if prop in self._values and len(self._values[prop][2]) >= 4:
                codes.append(int.from_bytes(self._values[prop][2][:4], "little"))
            codes += [code & 0xFFFFFFFF for code in self._told.get(prop, (0, []))[1]]
            odd = sorted({code for code in codes if code not in known})
            if odd:
                unknown.append("%s %s" % (_named(prop), " ".join("%#x" % code for code in odd)))
        if unknown:
            raise No("no text for %s" % "; ".join(unknown))
        return "in values and lists"

    # Events.

    def _look_at_events(self) -> Evidence:
        self._property, self._old, self._new = self._changeable()
        there = self._change(self._new, pace.EVERY)
        back = self._change(self._old, pace.EVERY)
        if there is None and back is None:
            raise No("%s was changed and changed back, and nobody told within %g s"
                     % (_named(self._property), EVENT_PATIENCE))  # fmt: skip
        self._delays = [delay for delay in (there, back) if delay is not None]
        if len(self._delays) < 2:
            raise No("of two changes of %s one was told" % _named(self._property))
        return "%s: after %s and %s" % (_named(self._property), *map(milliseconds, self._delays))

    def _look_at_pace(self) -> Evidence:
        longest = max(self._delays)
        delays: Dict[str, Optional[float]] = {"10 ms": longest}
        if pace.HAS_MESSAGES:
            for every in _PACES:
                values = (self._new, self._old)
                found = [self._change(value, every) for value in values]
                slow = None if None in found else max(delay or 0.0 for delay in found)
                delays["never" if every is None else "%d ms" % (every * 1000)] = slow
            text = "pumped every " + ", ".join(
                "%s: %s" % (name, "nothing comes" if delay is None else milliseconds(delay))
                for name, delay in delays.items()
            )
        else:
            text = "%s; this system has no window messages" % milliseconds(longest)
        if longest > LATE:
            raise No(text, delays=delays)
        return text, {"delays": delays}

    def _change(self, value: int, every: Optional[float]) -> Optional[float]:
        """Sets the property that is tried; after how long that was announced."""
        before = len(self._events)
        is_back = value == self._old
        if not is_back:
            self._tell.changed({"id": self._property, "value": self._old})
        begun = time.monotonic()
        result = self._set_quietly(self._property, value)
        if (result == eds.OK) == is_back:
            self._tell.changed(None)
        if result != eds.OK:
            raise Unseen("changing %s is answered with %#x" % (_named(self._property), result))

        def is_told() -> bool:
            return any(event == eds.PROPERTY_CHANGED and prop in (self._property, 0xFFFF)
                       for _, event, prop in self._events[before:])  # fmt: skip

        found = pace.wait(is_told, EVENT_PATIENCE, every)
        if every is None:
            pace.wait(lambda: False, 0.1)  # what waited is not to be taken for the next one
        told = [at for at, event, prop in self._events[before:] if prop == self._property]
        return None if found is None else max(0.0, (told[0] - begun) if told else found)

    def _changeable(self) -> Tuple[int, int, int]:
        """A property with its value, and another one that is allowed."""
        for prop in _CHANGEABLE:
            values = self._told.get(prop, (0, []))[1]
            if prop not in self._values:
                continue
            now = int.from_bytes(self._values[prop][2][:4], "little")
            if now in values and len(values) > 1:
                place = values.index(now)
                return prop, now, values[place - 1 if place else 1] & 0xFFFFFFFF
        raise Unseen("nothing can be changed now: turn the mode dial to M")

    def _on_property(self, event: int, prop: int, parameter: int, context: Any) -> int:
        self._events.append((time.monotonic(), event, prop))
        return 0

    def _on_object(self, event: int, reference: Any, context: Any) -> int:
        if reference:
            self._call("EdsRelease", reference)
        return 0

    # The library's functions.

    def _texts(self) -> List[Tuple[str, bytes]]:
        texts = [("camera", self._info[256:512]), ("port", self._info[:256])]
        if _PRODUCT_NAME in self._values:
            texts.append(("product name", self._values[_PRODUCT_NAME][2]))
        return texts

    def _read(self, prop: int) -> None:
        """Reads a property, if there is one."""
        kind, size = ctypes.c_uint32(), ctypes.c_uint32()
        if self._call("EdsGetPropertySize", self._camera, prop, 0, ctypes.byref(kind),
                      ctypes.byref(size)):  # fmt: skip
            return
        if size.value > 1 << 20:
            self._values[prop] = (kind.value, size.value, b"")
            return
        result, data = self._overruns.fill(
            "EdsGetPropertyData %#x" % prop,
            size.value,
            lambda memory: self._call(
                "EdsGetPropertyData", self._camera, prop, 0, size.value, memory
            ),
        )
        if result == eds.OK:
            self._values[prop] = (kind.value, size.value, data)

    def _read_list(self, prop: int) -> None:
        result, data = self._overruns.fill(
            "EdsGetPropertyDesc %#x" % prop,
            eds.DESCRIPTION,
            lambda memory: self._call("EdsGetPropertyDesc", self._camera, prop, memory),
        )
        if result == eds.OK:
            numbers = memoryview(data).cast("i").tolist()
            count = numbers[2]
            # A count that is not believed tells nothing about which of them are there.
            values = numbers[3 : 3 + count] if 0 <= count <= eds.MAX_ELEMENTS else []
            self._told[prop] = (count, values)

    def _fill(self, name: str, size: int, reference: Any) -> Tuple[int, bytes]:
        """Has a record filled by a function that takes nothing else."""
        return self._overruns.fill(name, size, lambda memory: self._call(name, reference, memory))

    def _number(self, prop: int) -> Optional[int]:
        value = ctypes.c_uint32()
        if self._call("EdsGetPropertyData", self._camera, prop, 0, 4, ctypes.byref(value)):
            return None
        return value.value

    def _set_back(self, what: int, value: int) -> None:
        self._set(what, value)

    def _set(self, prop: int, value: int) -> None:
        result = self._set_quietly(prop, value)
        if result != eds.OK:
            raise No("EdsSetPropertyData answers %#x for %s" % (result, _named(prop)))

    def _set_quietly(self, prop: int, value: int) -> int:
        data = ctypes.c_uint32(value)
        return self._call("EdsSetPropertyData", self._camera, prop, 0, 4, ctypes.byref(data))

    def _reference(self, name: str, *arguments: Any) -> Any:
        reference = ctypes.c_void_p()
        self._expect(name, *arguments, ctypes.byref(reference))
        return reference.value

    def _expect(self, name: str, *arguments: Any) -> None:
        """Calls a function; raises No when it does not answer 0."""
        result = self._call(name, *arguments)
        if result != eds.OK:
            raise No("%s answers %#x" % (name, result))

    def _call(self, name: str, *arguments: Any) -> int:
        return self._library.call(name, *arguments)


def _named(prop: int) -> str:
    names = {_PRODUCT_NAME: "product name", _FOCUS_INFO: "focus information", _SAVE_TO: "saving"}
    return names.get(prop) or NAMES.get(prop) or "%#x" % prop
