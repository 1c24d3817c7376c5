"""A Nikon driver module, asked directly: what it fills, tells and announces, in one session.

Runs in a process of its own, for a module that crashes or hangs takes its process with it.
"""

import ctypes
import time
from typing import Any, Dict, List, Optional, Tuple

from . import maid, pace
from .direct import EVENT_PATIENCE, LATE, Direct
from .pace import milliseconds
from .records import is_ended, is_utf8, parsed, text_of
from .teller import Evidence, No, Teller, Unseen

# What the module reads: the capability, its name, and what it is described as, if that matters.
_ENUMERATIONS = {
    0x8111: ("mode", ""),
    0x8112: ("shutter", "Shutter Speed"),
    0x8113: ("aperture", "Aperture"),
    0x8117: ("iso", "Sensitivity"),
    0x8118: ("white balance", "White Balance Mode"),
    0x8110: ("quality", "Compression Level"),
}
_MODES = frozenset((0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 12, 13, 14, 15, 16, 17))  # those with a text
_CHANGEABLE = (0x8118, 0x8113, 0x8117, 0x8112)
_LONGEST_ARRAY = 65536  # bytes; no camera has so many values


class Object:
    """An object of the driver module that is open."""

    def __init__(self, level: str) -> None:
        self.level = level
        self.memory: Any = (ctypes.c_ubyte * (maid.OBJECT_SIZE + 1024))()
        self.capabilities: Dict[int, maid.CapInfo] = {}
        self.procedures: List[int] = []

    def can(self, capability: int, operation: int) -> bool:
        info = self.capabilities.get(capability)
        return info is not None and bool(info.operations & operation)


class Nikon(Direct):
    """A session with a Nikon camera, past the module `Lumatie`."""

    def __init__(self, tell: Teller, path: str) -> None:
        super().__init__(tell, path)
        self._enums: Dict[int, maid.Enum] = {}
        self._arrays: Dict[int, bytes] = {}
        self._root: Optional[Object] = None
        self._source: Optional[Object] = None
        self._procedures = {
            maid.PROGRESS_PROC: maid.ProgressProcedure(lambda *arguments: None),
            maid.EVENT_PROC: maid.EventProcedure(self._on_event),
            maid.USER_PROC: maid.UserProcedure(lambda reference, request: 0),
        }

    # The session.

    def _load(self) -> None:
        self._driver = maid.Driver(self._path)

    def _start(self) -> Evidence:
        begun = time.monotonic()
        self._root = self._opened(None, 0, "module")
        self._fetch_capabilities(self._root)
        count = len(self._root.capabilities)
        return "%d capabilities after %s" % (count, milliseconds(time.monotonic() - begun))

    def _find(self) -> Evidence:
        root = self._root
        assert root is not None
        if root.can(maid.MODULE_MODE, maid.CAN_SET):
            result = self._driver.issue(root.memory, maid.SET, maid.MODULE_MODE, maid.UNSIGNED, 1)
            if result != 0:
                raise No("setting the module's mode is answered with %d" % result)
        if not root.can(maid.CAP_CHILDREN, maid.CAN_GET):
            raise No("the module has no list of cameras")
        ids = self._children(root)
        if not ids:
            raise No("the module lists no camera")
        self._id = ids[0]
        return "id %d, one of %d" % (self._id, len(ids)), {"ids": ids}

    def _take_handlers(self) -> Evidence:
        assert self._root is not None
        self._install(self._root, (*self._procedures,))
        return "of the module: %s" % " ".join(map(str, self._root.procedures))

    def _open(self) -> Evidence:
        begun = time.monotonic()
        self._source = self._opened(self._root, self._id, "source")
        return "after %s" % milliseconds(time.monotonic() - begun)

    def _make_ready(self) -> Evidence:
        source = self._source
        assert source is not None
        begun = time.monotonic()
        self._fetch_capabilities(source)
        self._install(source, (maid.PROGRESS_PROC, maid.EVENT_PROC))
        if source.can(maid.SOURCE_SETTING, maid.CAN_GET):
            before = self._number(source, maid.SOURCE_SETTING)
            if source.can(maid.SOURCE_SETTING, maid.CAN_SET):
                result = self._driver.issue(
                    source.memory, maid.SET, maid.SOURCE_SETTING, maid.UNSIGNED, 1
                )
                if result != 0:
                    raise No("setting %#x is answered with %d" % (maid.SOURCE_SETTING, result))
            return "%#x was %d, in %s" % (
                *(maid.SOURCE_SETTING, before),
                milliseconds(time.monotonic() - begun),
            )
        return "%#x cannot be read, which may be" % maid.SOURCE_SETTING

    def _close(self) -> Evidence:
        begun = time.monotonic()
        source, self._source = self._source, None
        root, self._root = self._root, None
        problems = [text for node in (source, root) for text in self._closed(node)]
        if problems:
            raise No("; ".join(problems))
        return milliseconds(time.monotonic() - begun)

    def _give_back(self) -> None:
        for node in (self._source, self._root):
            self._closed(node)

    # What records hold.

    def _measure(self) -> None:
        self._tell.ask("session.capabilities", self._look_at_capabilities)
        super()._measure()

    def _look_at_capabilities(self) -> Evidence:
        odd: List[str] = []
        assert self._source is not None
        for code, (name, description) in _ENUMERATIONS.items():
            info = self._source.capabilities.get(code)
            if info is None:
                odd.append("there is no %#x (%s)" % (code, name))
            elif info.type != maid.TYPE_ENUM or not info.operations & maid.CAN_GET:
                odd.append("%#x (%s) has type %d and operations %#x"
                           % (code, name, info.type, info.operations))  # fmt: skip
            elif description and text_of(info.description).lower() != description.lower():
                odd.append("%#x is called %r, not %r" % (code, text_of(info.description),
                                                         description))  # fmt: skip
        for code, operation, name in (
            (maid.LIVENESS, maid.CAN_GET, "the sign of life"),
            (maid.CAP_CHILDREN, maid.CAN_GET, "the list of pictures"),
            (maid.CAPTURE, maid.CAN_START, "the capture"),
        ):
            if not self._source.can(code, operation):
                odd.append("there is no %#x (%s)" % (code, name))
        pictures = None
        if self._source.can(maid.CAP_CHILDREN, maid.CAN_GET):
            pictures = len(self._children(self._source))
        if odd:
            raise No("; ".join(odd), pictures=pictures)
        self._number(self._source, maid.LIVENESS)
        described = {
            "%#x" % code: "%s, type %d, operations %#x"
            % (text_of(info.description), info.type, info.operations)
            for code, info in self._source.capabilities.items()
        }
        return "%d capabilities; %d pictures on the card" % (len(described), pictures or 0), {
            "capabilities": described,
            "pictures": pictures,
        }

    def _read_all(self) -> None:
        assert self._source is not None
        for code in _ENUMERATIONS:
            if self._source.can(code, maid.CAN_GET):
                self._read(code)

    def _look_at_sizes(self) -> Evidence:
        odd = []
        for code, record in self._enums.items():
            wanted = (maid.OF_NUMBERS, 4) if code == 0x8111 else (maid.OF_TEXTS, 1)
            if (record.element_type, record.element_size) != wanted:
                odd.append("%s has elements of type %d and %d bytes"
                           % (_named(code), record.element_type, record.element_size))  # fmt: skip
        if odd:
            raise No("; ".join(odd))
        if not self._enums:
            raise Unseen("no enumeration was told")
        return "of %d enumerations" % len(self._enums)

    def _look_at_counts(self) -> Evidence:
        odd: List[str] = []
        counts: Dict[str, int] = {}
        for code, record in self._enums.items():
            length = record.elements * max(1, record.element_size)
            if length > _LONGEST_ARRAY:
                odd.append("%s claims %d bytes" % (_named(code), length))
                continue
            count = counts[_named(code)] = self._count(code)
            if count and record.value >= count:
                odd.append("%s stands on %d of %d" % (_named(code), record.value + 1, count))
        if odd:
            raise No("; ".join(odd))
        return ", ".join("%s %d" % item for item in counts.items()), {"counts": counts}

    def _look_at_texts(self) -> Evidence:
        assert self._root is not None and self._source is not None
        odd = [
            "the description of %#x" % code
            for node in (self._root, self._source)
            for code, info in node.capabilities.items()
            if not is_ended(_description(info))
        ]
        odd += [
            "the last of %s" % _named(code)
            for code, record in self._enums.items()
            if record.element_type == maid.OF_TEXTS
            and not maid.texts_of(self._arrays.get(code, b""))[1]
        ]
        if odd:
            raise No("no end in %s" % ", ".join(odd))
        return "of descriptions and lists"

    def _look_at_bytes(self) -> Evidence:
        odd = [
            "%s: %r" % (_named(code), text_of(text))
            for code, record in self._enums.items()
            if record.element_type == maid.OF_TEXTS
            for text in maid.texts_of(self._arrays.get(code, b""))[0]
            if not is_utf8(text)
        ]
        if odd:
            raise No("; ".join(odd[:10]))
        return "of %d lists" % len(self._arrays)

    def _look_at_codes(self) -> Evidence:
        modes = self._arrays.get(0x8111, b"")
        codes = [int.from_bytes(modes[at : at + 4], "little") for at in range(0, len(modes), 4)]
        odd = [code for code in codes if code not in _MODES]
        if odd:
            raise No("no text for the modes %s" % " ".join(map(str, odd)))
        if not codes:
            raise Unseen("the modes were not told")
        return "%d modes" % len(codes)

    # Events.

    def _look_at_events(self) -> Evidence:
        self._capability, self._old, self._new = self._changeable()
        delays = [self._change(self._new), self._change(self._old)]
        known = [delay for delay in delays if delay is not None]
        if len(known) < 2:
            raise No("%s was changed and changed back, and %s told within %g s"
                     % (_named(self._capability), "one was" if known else "nothing was",
                        EVENT_PATIENCE))  # fmt: skip
        self._delays = known
        return "%s: after %s and %s" % (_named(self._capability), *map(milliseconds, known))

    def _look_at_pace(self) -> Evidence:
        longest, command = max(self._delays), self._driver.longest
        text = "events after %s, commands after %s, asked every 10 ms" % (
            *(milliseconds(longest), milliseconds(command)),
        )
        if longest > LATE or command > LATE:
            raise No(text, event=longest, command=command)
        return text, {"event": longest, "command": command}

    def _change(self, value: int) -> Optional[float]:
        before = len(self._events)
        is_back = value == self._old
        if not is_back:
            self._tell.changed({"id": self._capability, "value": self._old})
        begun = time.monotonic()
        result = self._set(self._capability, value)
        if (result == 0) == is_back:
            self._tell.changed(None)
        if result != 0:
            raise Unseen("changing %s is answered with %d" % (_named(self._capability), result))

        def is_told() -> bool:
            assert self._source is not None
            self._driver.plain(self._source.memory, maid.ASYNC)
            return any(
                event == maid.VALUE_CHANGED and parameter == self._capability
                for _, event, parameter in self._events[before:]
            )

        if pace.wait(is_told, EVENT_PATIENCE) is None:
            return None
        return max(0.0, min(at for at, _, what in self._events[before:] if what == self._capability)
                   - begun)  # fmt: skip

    def _changeable(self) -> Tuple[int, int, int]:
        assert self._source is not None
        for code in _CHANGEABLE:
            count = self._count(code) if code in self._enums else 0
            if self._source.can(code, maid.CAN_SET) and count > 1:
                now = self._enums[code].value
                if now < count:
                    return code, now, now - 1 if now else 1
        raise Unseen("nothing can be changed now: turn the mode dial to M")

    def _on_event(self, reference: Any, event: int, parameter: int) -> None:
        self._events.append((time.monotonic(), event, parameter))

    # Objects and capabilities.

    def _opened(self, parent: Optional[Object], code: int, level: str) -> Object:
        """Opens an object; raises No when that fails."""
        child = Object(level)
        ctypes.memset(child.memory, 0x5C, len(child.memory))
        ctypes.memset(child.memory, 0, maid.OBJECT_SIZE)
        result = self._driver.plain(
            None if parent is None else parent.memory,
            maid.OPEN,
            code,
            maid.OBJECT,
            self._driver.keep(child.memory),
        )
        if result != 0:
            raise No("opening the %s is answered with %d" % (level, result))
        behind = bytes(child.memory)[maid.OBJECT_SIZE :].rstrip(b"\x5c")
        self._overruns.note("the %s's record" % level, len(behind))
        return child

    def _closed(self, node: Optional[Object]) -> List[str]:
        """Closes an object; what went wrong."""
        if node is None:
            return []
        problems = []
        for procedure in node.procedures:
            try:
                result = self._driver.issue(node.memory, maid.SET, procedure)
            except maid.Silent as error:
                problems.append(str(error))
                continue
            if result != 0:
                problems.append("taking procedure %d back is answered with %d"
                                % (procedure, result))  # fmt: skip
        result = self._driver.plain(node.memory, maid.CLOSE)
        if result != 0:
            problems.append("closing the %s is answered with %d" % (node.level, result))
        return problems

    def _fetch_capabilities(self, node: Object) -> None:
        for _ in range(10):
            count = ctypes.c_uint32()
            result = self._driver.issue(node.memory, maid.CAP_COUNT, 0, maid.UNSIGNED_POINTER,
                                        self._driver.keep(count))  # fmt: skip
            if result == maid.BUFFER_SIZE:
                continue
            if result != 0:
                raise No("the number of capabilities is answered with %d" % result)
            size = count.value * maid.CAP_INFO_SIZE
            if size > maid.MOST_BYTES:
                raise No("the %s claims %d capabilities" % (node.level, count.value))
            result, data = self._descriptions(node, count.value)
            if result == maid.BUFFER_SIZE:
                continue
            if result not in (0, 1):
                raise No("the capabilities are answered with %d" % result)
            for at in range(0, size, maid.CAP_INFO_SIZE):
                info = parsed(maid.CapInfo, data[at : at + maid.CAP_INFO_SIZE])
                node.capabilities.setdefault(info.id, info)
            return
        raise No("the number of capabilities changes all the time")

    def _descriptions(self, node: Object, count: int) -> Tuple[int, bytes]:
        return self._overruns.fill(
            "the %s's capabilities" % node.level,
            count * maid.CAP_INFO_SIZE,
            lambda memory: self._driver.issue(
                node.memory, maid.CAP_INFO, count, maid.INFOS, self._driver.keep(memory)
            ),
        )

    def _install(self, node: Object, procedures: Tuple[int, ...]) -> None:
        for number in procedures:
            if not node.can(number, maid.CAN_SET):
                continue
            record = maid.Callback(ctypes.cast(self._procedures[number], ctypes.c_void_p).value, 1)
            result = self._driver.issue(
                node.memory, maid.SET, number, maid.CALLBACK, self._driver.keep(record)
            )
            if result != 0:
                raise No("procedure %d of the %s is answered with %d"
                         % (number, node.level, result))  # fmt: skip
            node.procedures.append(number)

    def _children(self, node: Object) -> List[int]:
        record = self._enum(node, maid.CAP_CHILDREN)
        if record.element_size != 4:
            raise No("the list of children has elements of %d bytes" % record.element_size)
        data = self._array(node, maid.CAP_CHILDREN, record)
        return [int.from_bytes(data[at : at + 4], "little") for at in range(0, len(data), 4)]

    def _read(self, code: int) -> None:
        """Reads an enumeration, with its array where that is plausible."""
        assert self._source is not None
        try:
            record = self._enum(self._source, code)
            self._enums[code] = record
            if record.elements * max(1, record.element_size) <= _LONGEST_ARRAY:
                self._arrays[code] = self._array(self._source, code, record)
        except No:
            return  # which of them are missing is asked elsewhere

    def _enum(self, node: Object, code: int) -> maid.Enum:
        data = self._get(node, code, "the enumeration", maid.ENUM_SIZE, maid.ENUM)
        record: maid.Enum = parsed(maid.Enum, data)
        return record

    def _array(self, node: Object, code: int, record: maid.Enum) -> bytes:
        size = record.elements * max(1, record.element_size)
        if not size:
            return b""
        whole = maid.Enum.from_buffer_copy(bytes(record))

        def fill(memory: Any) -> int:
            nonlocal whole
            whole = maid.Enum.from_buffer_copy(bytes(record))
            whole.array = self._driver.keep(memory)
            return self._driver.issue(
                node.memory, maid.GET_ARRAY, code, maid.ENUM, self._driver.keep(whole)
            )

        result, data = self._overruns.fill("the array of %#x" % code, size, fill)
        if result != 0:
            raise No("reading the array of %#x is answered with %d" % (code, result))
        return data[: whole.elements * max(1, record.element_size)]  # it may be shorter by now

    def _number(self, node: Object, code: int) -> int:
        data = self._get(node, code, "the number", maid.NUMBER_SIZE, maid.UNSIGNED_POINTER)
        return int.from_bytes(data, "little")

    def _get(self, node: Object, code: int, what: str, size: int, kind: int) -> bytes:
        """What a capability holds; raises No when it cannot be read."""
        result, data = self._overruns.fill(
            "%s %#x" % (what, code),
            size,
            lambda memory: self._driver.issue(
                node.memory, maid.GET, code, kind, self._driver.keep(memory)
            ),
        )
        if result != 0:
            raise No("reading %#x is answered with %d" % (code, result))
        return data

    def _set_back(self, what: int, value: int) -> None:
        self._read(what)
        self._set(what, value)

    def _set(self, code: int, value: int) -> int:
        assert self._source is not None
        record = maid.Enum.from_buffer_copy(bytes(self._enums[code]))
        record.value = value
        return self._driver.issue(
            self._source.memory, maid.SET, code, maid.ENUM, self._driver.keep(record)
        )

    def _count(self, code: int) -> int:
        """How many values an enumeration has."""
        data = self._arrays.get(code, b"")
        if self._enums[code].element_type == maid.OF_TEXTS:
            return len(maid.texts_of(data)[0])
        return len(data) // max(1, int(self._enums[code].element_size))


def _description(info: maid.CapInfo) -> bytes:
    """All bytes of a description; a field of ctypes would end at the first zero."""
    return bytes(info)[16:]


def _named(code: int) -> str:
    return _ENUMERATIONS[code][0] if code in _ENUMERATIONS else "%#x" % code
