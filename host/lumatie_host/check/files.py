"""The points that a library's file answers without being loaded."""

import os
import struct
import time
from typing import Callable, Dict, Iterator, Optional, Tuple

from .. import libraries
from . import binary
from .points import POINTS, YES
from .report import Finding
from .teller import Evidence, No, answered

_BITS = struct.calcsize("P") * 8


class File:
    """A library's file. Belongs to one thread; `library` is None when it could not be read."""

    def __init__(self, path: str, maker: str) -> None:
        self._path = path
        self._maker = maker
        self.library: Optional[binary.Library] = None

    def found(self) -> Finding:
        """Whether there is a file."""
        return asked("library.found", self._find)

    def look(self) -> Iterator[Finding]:
        """What the file says; ends with the first point without which there is no next one."""
        whole = asked("library.whole", self._read)
        yield whole
        if whole.answer != YES:
            return
        bits = asked("library.bits", self._look_at_bits)
        yield bits
        yield asked("library.version", self._look_at_version)
        if bits.answer == YES:
            yield asked("library.functions", self._look_at_functions)

    def _find(self) -> Evidence:
        if not os.path.isfile(self._path):
            raise No("there is no file %s" % self._path)
        return self._path, {"path": self._path}

    def _read(self) -> Evidence:
        try:
            self.library = binary.read(self._path)
        except (binary.NoLibrary, OSError) as error:
            raise No(str(error)) from None
        library = self.library
        return "%s for %s, %d bytes" % (library.kind, library.machine, library.size), {
            "sha256": library.sha256,
            "size": library.size,
        }

    def _look_at_bits(self) -> Evidence:
        assert self.library is not None
        if self.library.bits != _BITS:
            raise No("it has %d bits, and this program %d" % (self.library.bits, _BITS))
        return "%d" % _BITS

    def _look_at_version(self) -> Evidence:
        assert self.library is not None
        versions: Dict[str, str] = self.library.versions
        told = ["%s %s" % item for item in versions.items()]
        told.append("SHA-256 %s..." % self.library.sha256[:8])
        return ", ".join(told), dict(versions)

    def _look_at_functions(self) -> Evidence:
        assert self.library is not None
        wanted: Tuple[str, ...] = libraries.CANON_FUNCTIONS
        if self._maker == "nikon":
            wanted = (libraries.NIKON_ENTRY,)
        missing = [name for name in wanted if name not in self.library.exports]
        if missing:
            raise No("missing: %s" % ", ".join(missing), missing=missing)
        return "%d of %d that it has" % (len(wanted), len(self.library.exports))


def asked(point_id: str, question: Callable[[], Evidence]) -> Finding:
    """Asks a point in this process."""
    begun = time.monotonic()
    answer, evidence, facts = answered(question)
    return Finding(POINTS[point_id], answer, evidence, time.monotonic() - begun, facts)
