"""Memory for a library to fill, with bytes behind it that show whether more was written."""

import ctypes
from typing import Any, Callable, Dict, List, Tuple, Type

MARGIN = 1024  # bytes that are watched behind each record
_FILLINGS = (0x5C, 0xC3)  # two, for what happens to be written may be one of them


class Overruns:
    """What was written behind records, record by record. Belongs to one thread."""

    def __init__(self) -> None:
        self._behind: Dict[str, int] = {}
        self.filled: List[str] = []

    def fill(self, name: str, size: int, call: Callable[[Any], int]) -> Tuple[int, bytes]:
        """Has a record of `size` bytes filled; the call's result, and the bytes.

        `call` gets the memory, twice, each time with other bytes in and behind it.
        """
        written, result, data = 0, 0, b""
        for filling in _FILLINGS:
            memory = (ctypes.c_ubyte * (size + MARGIN))()
            ctypes.memset(memory, filling, size + MARGIN)
            result = call(memory)
            every = bytes(memory)
            data = every[:size]
            rest = every[size:].rstrip(bytes((filling,)))
            written = max(written, len(rest))
            if result < 0 or result > 1:
                break
        self.note(name, written)
        return result, data

    def note(self, name: str, written: int) -> None:
        """Notes that a record was filled, and how many bytes behind it."""
        self.filled.append(name)
        if written:
            self._behind[name] = max(written, self._behind.get(name, 0))

    @property
    def findings(self) -> List[str]:
        """One text for each record that was not enough."""
        return ["%s: %d bytes" % item for item in self._behind.items()]


def parsed(kind: Type[ctypes.Structure], data: bytes) -> Any:
    """The record that these bytes are."""
    return kind.from_buffer_copy(data)


def is_ended(data: bytes) -> bool:
    """Whether a text has its end inside its memory."""
    return b"\0" in data


def text_of(data: bytes) -> str:
    """A text as it can be shown; what is no UTF-8 is shown as its bytes."""
    return data.partition(b"\0")[0].decode("utf-8", "backslashreplace")


def is_utf8(data: bytes) -> bool:
    try:
        data.partition(b"\0")[0].decode("utf-8")
    except UnicodeDecodeError:
        return False
    return True
