"""What a library's file says of itself: ELF and PE, read by hand, and nothing of it is run.

Every number of a file is a claim until it was compared with the file's size. Any thread may call.
"""

import dataclasses
import hashlib
import os
import struct
from typing import Dict, List, Optional, Tuple

_LARGEST = 1 << 29  # bytes; no library is larger
_MOST = 1 << 16  # names of one kind
_LONGEST = 1024  # bytes of a name

_MACHINES = {3: "i386", 62: "x86-64", 40: "ARM", 183: "ARM64"}
_PE_MACHINES = {0x14C: "i386", 0x8664: "x86-64", 0x1C0: "ARM", 0xAA64: "ARM64"}


class NoLibrary(Exception):
    """The file is not what it would have to be; the argument says why."""


@dataclasses.dataclass(frozen=True)
class Library:
    """What is known of a file.

    `versions` is what the library says of its version, name to text; `search` the folders in which
    it has the system look for the libraries that it needs.
    """

    kind: str  # ELF or PE
    bits: int
    machine: str
    size: int
    sha256: str
    exports: Tuple[str, ...]
    needs: Tuple[str, ...]  # file names of other libraries
    versions: Dict[str, str]
    search: Tuple[str, ...] = ()


def read(path: str) -> Library:
    """Reads a library's file; raises NoLibrary, or OSError."""
    if not os.path.isfile(path):  # a pipe would be waited for
        raise NoLibrary("it is no file")
    size = os.path.getsize(path)
    if size > _LARGEST:
        raise NoLibrary("it has %d bytes" % size)
    with open(path, "rb") as file:
        data = file.read()
    if not data:
        raise NoLibrary("it is empty")
    try:
        if data[:4] == b"\x7fELF":
            return _Elf(data).library()
        if data[:2] == b"MZ":
            return _Pe(data).library()
    except (struct.error, IndexError, KeyError, ValueError) as error:
        raise NoLibrary("it is cut off or damaged (%s)" % error) from error
    raise NoLibrary("it is no library of Linux or Windows")


class _Data:
    """The bytes of a file; what reaches beyond them raises NoLibrary."""

    def __init__(self, data: bytes) -> None:
        self.data = data

    def numbers(self, form: str, at: int) -> Tuple[int, ...]:
        self.check(at, struct.calcsize("<" + form))
        return struct.unpack_from("<" + form, self.data, at)

    def number(self, form: str, at: int) -> int:
        return self.numbers(form, at)[0]

    def check(self, at: int, length: int) -> None:
        if at < 0 or length < 0 or at + length > len(self.data):
            raise NoLibrary("its end is missing: it has %d bytes of %d at least"
                            % (len(self.data), at + length))  # fmt: skip

    def text(self, at: int) -> str:
        self.check(at, 1)
        end = self.data.find(b"\0", at, at + _LONGEST)
        if end < 0:
            raise NoLibrary("a name has no end")
        return self.data[at:end].decode("utf-8", "backslashreplace")

    def made(self, kind: str, bits: int, machine: str, exports: List[str], needs: List[str],
             versions: Dict[str, str]) -> Library:  # fmt: skip
        return Library(
            kind,
            bits,
            machine,
            len(self.data),
            hashlib.sha256(self.data).hexdigest(),
            tuple(sorted(set(exports))),
            tuple(needs),
            versions,
        )


class _Elf(_Data):
    """A shared object of Linux. The names of one for other bits are not read."""

    def library(self) -> Library:
        bits = {1: 32, 2: 64}.get(self.number("B", 4))
        if bits is None or self.number("B", 5) != 1:
            raise NoLibrary("it is for another kind of processor")
        kind, machine = self.numbers("HH", 16)
        if kind != 3:
            raise NoLibrary("it is no shared library")
        name = _MACHINES.get(machine, "machine %d" % machine)
        if bits != 64:
            return self.made("ELF", bits, name, [], [], {})
        self._read_parts()
        needs, versions = self._dynamic()
        made = self.made("ELF", bits, name, self._exports(), needs, versions)
        return dataclasses.replace(made, search=self._search())

    def _read_parts(self) -> None:
        """The parts that are loaded, the dynamic section, and notes."""
        table = self.number("Q", 32)
        length, count = self.numbers("HH", 54)
        self._loads: List[Tuple[int, int, int]] = []  # address, offset, length
        self._at: Tuple[int, int] = (0, 0)
        self._notes: List[Tuple[int, int]] = []
        for index in range(count):
            kind, _, offset, address, _, in_file = self.numbers("IIQQQQ", table + index * length)
            if kind == 1:
                self.check(offset, in_file)
                self._loads.append((address, offset, in_file))
            elif kind == 2:
                self._at = (offset, in_file)
            elif kind == 4:
                self._notes.append((offset, in_file))

    def _place(self, address: int) -> int:
        for start, offset, length in self._loads:
            if start <= address < start + length:
                return offset + address - start
        raise NoLibrary("an address is in no part of it")

    def _dynamic(self) -> Tuple[List[str], Dict[str, str]]:
        offset, length = self._at
        tags: List[Tuple[int, int]] = []
        for at in range(offset, offset + min(length, 16 * _MOST), 16):
            tag, value = self.numbers("qQ", at)
            if tag == 0:
                break
            tags.append((tag, value))
        self._values = dict(tags)
        self._texts = self._place(self._values[5])
        needs = [self.text(self._texts + value) for tag, value in tags if tag == 1]
        versions = {}
        if 14 in self._values:
            versions["soname"] = self.text(self._texts + self._values[14])
        build = self._build_id()
        if build:
            versions["build"] = build
        return needs, versions

    def _search(self) -> Tuple[str, ...]:
        texts = [self.text(self._texts + self._values[tag]) for tag in (15, 29)
                 if tag in self._values]  # fmt: skip
        return tuple(folder for text in texts for folder in text.split(":") if folder)

    def _build_id(self) -> str:
        for offset, length in self._notes:
            at = offset
            while at + 12 <= offset + length:
                owner, described, kind = self.numbers("III", at)
                start = at + 12 + (owner + 3) // 4 * 4
                self.check(start, described)
                if kind == 3 and self.data[at + 12 : at + 16] == b"GNU\0":
                    return self.data[start : start + described].hex()
                at = start + (described + 3) // 4 * 4
        return ""

    def _exports(self) -> List[str]:
        symbols = self._place(self._values[6])
        names = []
        for index in range(1, min(self._symbol_count(), _MOST)):
            name, info, _, section, value = self.numbers("IBBHQ", symbols + 24 * index)
            if section != 0 and value != 0 and info >> 4 in (1, 2):  # defined, global or weak
                names.append(self.text(self._texts + name))
        return names

    def _symbol_count(self) -> int:
        """How many symbols there are: only the tables for looking them up tell it."""
        if 4 in self._values:
            return self.number("I", self._place(self._values[4]) + 4)
        if 0x6FFFFEF5 not in self._values:
            raise NoLibrary("it has no table of its functions")
        table = self._place(self._values[0x6FFFFEF5])
        buckets, first, filters = self.numbers("III", table)
        if buckets > _MOST:
            raise NoLibrary("its table of functions is damaged")
        start = table + 16 + filters * 8
        highest = max(self.numbers("%dI" % buckets, start), default=0)
        if highest < first:
            return first
        chain = start + 4 * buckets
        while not self.number("I", chain + 4 * (highest - first)) & 1:
            highest += 1
        return highest + 1


class _Pe(_Data):
    """A DLL of Windows."""

    def library(self) -> Library:
        header = self.number("I", 60)
        if self.data[header : header + 4] != b"PE\0\0":
            raise NoLibrary("it is no library of Windows")
        machine, sections = self.numbers("HH", header + 4)
        optional = self.number("H", header + 20)
        if not self.number("H", header + 22) & 0x2000:
            raise NoLibrary("it is a program, not a library")
        magic = self.number("H", header + 24)
        bits = {0x10B: 32, 0x20B: 64}.get(magic)
        if bits is None:
            raise NoLibrary("it is of an unknown kind")
        self._tables = header + 24 + (96 if bits == 32 else 112)
        self._table_count = self.number("I", self._tables - 4)
        self._sections = [
            self.numbers("IIII", header + 24 + optional + 40 * index + 8)
            for index in range(min(sections, 96))
        ]
        for _, _, length, offset in self._sections:
            self.check(offset if length else 0, length)
        name = _PE_MACHINES.get(machine, "machine %#x" % machine)
        return self.made("PE", bits, name, self._exports(), self._imports(), self._versions())

    def _table(self, index: int) -> int:
        """Where one of the tables is in the file; -1 when there is none."""
        if index >= self._table_count:
            return -1
        address, length = self.numbers("II", self._tables + 8 * index)
        return self._place(address) if address and length else -1

    def _place(self, address: int) -> int:
        for size, start, length, offset in self._sections:
            if start <= address < start + max(size, length):
                return offset + address - start
        raise NoLibrary("an address is in no part of it")

    def _exports(self) -> List[str]:
        table = self._table(0)
        if table < 0:
            return []
        count, names = self.number("I", table + 24), self.number("I", table + 32)
        if not count:
            return []
        places = self._place(names)
        return [
            self.text(self._place(self.number("I", places + 4 * index)))
            for index in range(min(count, _MOST))
        ]

    def _imports(self) -> List[str]:
        table = self._table(1)
        found: List[str] = []
        while table >= 0 and len(found) < _MOST:
            entry = self.numbers("IIIII", table)
            if not entry[3]:
                break
            found.append(self.text(self._place(entry[3])))
            table += 20
        return found

    def _versions(self) -> Dict[str, str]:
        """The version resource: its numbers, and the texts that the maker put into it."""
        start = self._table(2)
        at = None if start < 0 else self._version_entry(start)
        if at is None:
            return {}
        address, length = self.numbers("II", at)
        place = self._place(address)
        self.check(place, length)
        data = self.data[place : place + length]
        versions = {}
        fixed = data.find(b"\xbd\x04\xef\xfe")
        if fixed >= 0 and fixed + 16 <= len(data):
            low, high = struct.unpack_from("<II", data, fixed + 8)
            parts = (low >> 16, low & 0xFFFF, high >> 16, high & 0xFFFF)
            versions["file version"] = "%d.%d.%d.%d" % parts
        for name in ("FileVersion", "ProductVersion", "ProductName", "CompanyName"):
            text = _resource_text(data, name)
            if text:
                versions[name] = text
        return versions

    def _version_entry(self, start: int) -> Optional[int]:
        """The first leaf below the resources of the kind 16."""
        at = start
        for wanted in (16, None, None):
            named, numbered = self.numbers("HH", at + 12)
            for index in range(min(named + numbered, 4096)):
                kind, place = self.numbers("II", at + 16 + 8 * index)
                if wanted is None or kind == wanted:
                    break
            else:
                return None
            at = start + (place & 0x7FFFFFFF)
            if not place & 0x80000000:
                return at
        return at


def _resource_text(data: bytes, name: str) -> str:
    key = name.encode("utf-16-le") + b"\0\0"
    at = data.find(key)
    if at < 0:
        return ""
    start = at + len(key)
    while data[start : start + 2] == b"\0\0":  # padding
        start += 2
    text = data[start : start + _LONGEST].decode("utf-16-le", "replace")
    return text.partition("\0")[0].strip()
