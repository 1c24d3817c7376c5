"""The commands and records of a Nikon driver module that are asked here, in our own words.

64-bit systems only. All of it belongs to the thread that opens the module.
"""

import ctypes
import sys
import time
from typing import Any, Dict, List, Optional, Tuple

from .teller import No

ENTRY = "MAIDEntryPoint"

# Commands.
ASYNC, OPEN, CLOSE, CAP_COUNT, CAP_INFO, START, SET, GET, GET_ARRAY, CHILDREN = (
    *(0, 1, 2, 3, 4, 5, 6, 7),
    *(9, 13),
)
# Data types.
NULL, UNSIGNED, UNSIGNED_POINTER, CALLBACK, ENUM, OBJECT, INFOS = 0, 3, 6, 13, 16, 17, 18
# Operations of a capability.
CAN_START, CAN_GET, CAN_SET, CAN_GET_ARRAY = 1, 2, 4, 8
# Types of capabilities, and of what is in an enumeration.
TYPE_UNSIGNED, TYPE_ENUM = 3, 12
OF_NUMBERS, OF_TEXTS = 2, 7
# Procedures and other capabilities.
PROGRESS_PROC, EVENT_PROC, USER_PROC = 2, 3, 5
CAP_CHILDREN, CAPTURE, MODULE_MODE, LIVENESS, SOURCE_SETTING = 7, 17, 0x8101, 0x81D7, 0x8305

DATA_PROC, CAP_DATA_TYPES, ACQUIRE = 4, 12, 20
IMAGE = 1  # of the data types, of parts, and the id of the data object
IS_FILE = 0x10
FILE_TYPES = (1, 2, 4, 257)

VALUE_CHANGED = 6  # an event
BUFFER_SIZE = -124  # the set of capabilities has changed meanwhile

OBJECT_SIZE, CAP_INFO_SIZE, ENUM_SIZE, NUMBER_SIZE = 24, 272, 26, 4
MOST_BYTES = 1 << 26  # of an array; what claims more is not asked for

_Prototype: Any = ctypes.CFUNCTYPE
if sys.platform == "win32":
    _Prototype = ctypes.WINFUNCTYPE  # the same on 64-bit systems

_Number, _Address, _Data = ctypes.c_uint32, ctypes.c_void_p, ctypes.c_size_t
Completion = _Prototype(None, _Address, _Number, _Number, _Number, _Data, _Address, ctypes.c_int32)
EventProcedure = _Prototype(None, _Address, _Number, _Data)
ProgressProcedure = _Prototype(None, _Number, _Number, _Address, _Number, _Number)
UserProcedure = _Prototype(_Number, _Address, _Address)
DataProcedure = _Prototype(ctypes.c_int32, _Address, _Address, _Address)
_Entry = _Prototype(ctypes.c_int32, _Address, _Number, _Number, _Number, _Data, _Address, _Address)


class CapInfo(ctypes.Structure):
    """What an object says of one of its capabilities."""

    _pack_ = 2
    _fields_ = [
        ("id", _Number),
        ("type", _Number),
        ("visibility", _Number),
        ("operations", _Number),
        ("description", ctypes.c_char * 256),
    ]


class Enum(ctypes.Structure):
    """An enumeration, without its array."""

    _pack_ = 2
    _fields_ = [
        ("element_type", _Number),
        ("elements", _Number),
        ("value", _Number),
        ("default", _Number),
        ("element_size", ctypes.c_int16),
        ("array", _Address),
    ]


class Callback(ctypes.Structure):
    """A procedure for the module to call."""

    _pack_ = 2
    _fields_ = [("procedure", _Address), ("reference", _Address)]


class Silent(No):
    """A command did not complete in time, or the module ended the waiting; the text says which."""


class Driver:
    """A driver module, loaded: issues commands and waits for what completes them."""

    def __init__(self, path: str) -> None:
        self.native: Any = ctypes.CDLL(path)
        self._entry = _Entry((ENTRY, self.native))
        self._completed: Dict[int, int] = {}
        self._count = 0
        self._completion = Completion(self._complete)
        self._kept: List[Any] = []  # what a late completion may still write to
        self.longest = 0.0  # seconds that a command took to complete

    def plain(self, node: Any, command: int, parameter: int = 0, kind: int = NULL,
              data: int = 0) -> int:  # fmt: skip
        """Issues a command that has no completion; its result."""
        return int(self._entry(node, command, parameter, kind, data, None, None))

    def issue(self, node: Any, command: int, parameter: int = 0, kind: int = NULL, data: int = 0,
              seconds: float = 5.0) -> int:  # fmt: skip
        """Issues a command and waits until it completes; what it was answered with.

        Raises Silent when it does not.
        """
        self._count += 1
        number = self._count
        begun = time.monotonic()
        result = int(self._entry(node, command, parameter, kind, data, self._completion, number))
        while number not in self._completed:
            work = self.plain(node, ASYNC)
            time.sleep(0.01)
            if number in self._completed:
                break
            if work not in (0, 1):
                raise Silent("running pending work was answered with %d" % work)
            if time.monotonic() - begun > seconds:
                raise Silent("command %d for %#x did not complete in %g s"
                             % (command, parameter, seconds))  # fmt: skip
        self.longest = max(self.longest, time.monotonic() - begun)
        return result

    def keep(self, memory: Any) -> int:
        """Keeps memory for as long as this object; its address."""
        self._kept.append(memory)
        return ctypes.addressof(memory)

    def _complete(self, node: Any, command: int, parameter: int, kind: int, data: int,
                  reference: Optional[int], result: int) -> None:  # fmt: skip
        self._completed[reference or 0] = result


def texts_of(array: bytes) -> Tuple[List[bytes], bool]:
    """The texts of a packed array, and whether the last one has its end."""
    if not array:
        return [], True
    texts = array.split(b"\0")
    if array.endswith(b"\0"):
        return texts[:-1], True
    return texts, False
