"""What the bytes of a picture file say: whether it is whole, how large the picture is, and when.

The formats' own structure only, as far as these questions need it; every length and every offset
of a file is taken for a claim until it was compared with the file's size.
"""

import datetime
import re
import struct
from typing import BinaryIO, Dict, Iterator, List, NamedTuple, Optional, Tuple

JPEG, RAW, OTHER = "JPEG", "RAW", "OTHER"

_JPEGS = frozenset((".jpg", ".jpeg", ".jpe"))
_TIFF_RAWS = frozenset((".cr2", ".nef", ".nrw", ".dng"))
_TIFFS = frozenset((".tif", ".tiff"))
_BOXED_RAWS = frozenset((".cr3",))

# More than any camera writes; what claims more is not believed.
_MOST_SEGMENTS = 4096
_MOST_DIRECTORIES = 128
_MOST_ENTRIES = 4096
_MOST_STRIPS = 1 << 20
_MOST_BOXES = 4096
_LONGEST_SEARCH = 1 << 26  # bytes in front of the end, for the end of a JPEG


class Malformed(Exception):
    """The file is not what its format asks for; the argument says why."""


class Facts(NamedTuple):
    """What is known of a whole file."""

    format: str
    width: Optional[int] = None  # pixels
    height: Optional[int] = None
    taken: Optional[datetime.datetime] = None  # the camera's own clock, without a time zone


def tells_its_end(extension: str) -> bool:
    """Whether a file of that extension (".JPG") shows by itself that it is whole."""
    return extension.lower() in _JPEGS | _TIFF_RAWS | _TIFFS | _BOXED_RAWS


class Fillings:
    """Where segments of a JPEG lie that say nothing here, found while somebody reads all of it.

    Some have hundreds: to look at each of them in the file takes longer than all else of `judge`.
    """

    def __init__(self) -> None:
        self._ends: Dict[int, int] = {}  # of runs of them, by their beginning
        self._begin = self._next = 2
        self._left = _MOST_SEGMENTS

    def see(self, part: memoryview, begin: int) -> None:
        """The bytes of the file from `begin` on; parts come in their order."""
        last = begin + len(part) - 4
        while begin <= self._next <= last and self._left:
            at = self._next - begin
            code, length = part[at + 1], part[at + 2] << 8 | part[at + 3]
            if part[at] != 0xFF or code in _LONE or code == 0xDA or length < 2:
                self._left = 0
                return
            self._left -= 1
            self._next += 2 + length
            if code in _TELLING:
                self._begin = self._next
            else:
                self._ends[self._begin] = self._next

    def behind(self, offset: int) -> int:
        """The end of those that begin at an offset; the offset itself where none were seen."""
        return self._ends.get(offset, offset)


def judge(file: BinaryIO, size: int, extension: str, fillings: Optional[Fillings] = None) -> Facts:
    """Looks into an open file of `size` bytes; raises Malformed when it is not whole, OSError.

    Args:
        fillings: have seen all of the file, which spares looking at them.
    """
    source = _Source(file, 0, size)
    extension = extension.lower()
    if size == 0:
        raise Malformed("it is empty")
    if extension in _JPEGS:
        return _judge_jpeg(source, fillings or Fillings())
    if extension in _TIFF_RAWS:
        return _judge_tiff(source, RAW)
    if extension in _TIFFS:
        return _judge_tiff(source, OTHER)
    if extension in _BOXED_RAWS:
        return _judge_boxes(source)
    return Facts(OTHER)


class _Source:
    """A part of a file, `size` bytes from `start`."""

    def __init__(self, file: BinaryIO, start: int, size: int) -> None:
        self._file = file
        self._start = start
        self.size = size

    def read(self, offset: int, length: int) -> bytes:
        """All of `length` bytes; raises Malformed when they are not inside."""
        self.check(offset, length)
        self._file.seek(self._start + offset)
        data = self._file.read(length)
        while len(data) < length:
            more = self._file.read(length - len(data))
            if not more:
                raise Malformed("it became shorter")
            data += more
        return data

    def check(self, offset: int, length: int) -> None:
        if offset < 0 or length < 0 or offset + length > self.size:
            raise Malformed("it ends before byte %d" % (offset + length))

    def part(self, offset: int, length: int) -> "_Source":
        self.check(offset, length)
        return _Source(self._file, self._start + offset, length)


# JPEG

_FRAMES = frozenset(range(0xC0, 0xD0)) - {0xC4, 0xC8, 0xCC}  # these say how large the picture is
_TELLING = _FRAMES | {0xE1, 0xE2}  # the others are passed over
_LONE = frozenset((0x01, *range(0xD0, 0xDA), 0xFF))  # these have no length


class _Head:
    """What stands in front of the scan of a JPEG."""

    def __init__(self) -> None:
        self.scan: Optional[int] = None  # the offset of its data; None: the segments end before
        self.width: Optional[int] = None
        self.height: Optional[int] = None
        self.exif: Optional[_Source] = None
        self.index: Optional[Tuple[int, _Source]] = None  # of further pictures, and where it is


def _judge_jpeg(source: _Source, fillings: Fillings) -> Facts:
    if source.size < 4 or source.read(0, 3) != b"\xff\xd8\xff":
        raise Malformed("it does not begin as a JPEG")
    head = _head_of_jpeg(source, fillings)
    end = _end_of_data(source)
    ends_well = source.read(end - 2, 2) == b"\xff\xd9" and end >= (head.scan or 0) + 2
    # Some cameras put more behind the picture. A scan's data never hold an end marker, so any one
    # behind its beginning ends a picture.
    if not ends_well and (head.scan is None or not _has_end(source, head.scan, end)):
        raise Malformed("it does not end as a JPEG")
    if head.index is not None:
        _check_index(source, *head.index)
    return Facts(JPEG, head.width, head.height, _taken_of(head.exif))


def _head_of_jpeg(source: _Source, fillings: Fillings) -> _Head:
    """Reads the segments up to the scan; segments that are none end it early, without an error."""
    head = _Head()
    offset = 2
    for _ in range(_MOST_SEGMENTS):
        offset = fillings.behind(offset)
        source.check(0, offset)
        # With the length behind it, where there is one.
        mark = source.read(offset, 4 if offset + 4 <= source.size else 2)
        if mark[0] != 0xFF:
            return head
        code = mark[1]
        if code == 0xFF:  # filled up
            offset += 1
            continue
        if code == 0xD9:
            return head
        if code in _LONE:
            offset += 2
            continue
        length = _big16(mark[2:])
        source.check(offset + 2, max(length, 2))
        if length < 2:
            return head
        if code == 0xDA:
            head.scan = offset + 2 + length
            return head
        if code in _TELLING:
            _take_segment(head, code, source.part(offset + 4, length - 2), offset + 4)
        offset += 2 + length
    return head


def _take_segment(head: _Head, code: int, body: _Source, offset: int) -> None:
    if code in _FRAMES and body.size >= 5:
        height, width = struct.unpack(">HH", body.read(1, 4))
        head.width, head.height = width or None, height or None
    elif code == 0xE1 and body.size > 6 and body.read(0, 6) == b"Exif\0\0" and not head.exif:
        head.exif = body.part(6, body.size - 6)
    elif code == 0xE2 and body.size > 4 and body.read(0, 4) == b"MPF\0":
        head.index = (offset + 4, body.part(4, body.size - 4))


def _end_of_data(source: _Source) -> int:
    """The offset behind the last byte that is not 0, of at least the first four."""
    end = source.size
    while end > 4:
        length = min(1 << 16, end - 4)
        rest = source.read(end - length, length).rstrip(b"\0")
        if rest:
            return end - length + len(rest)
        end -= length
    return 4


def _has_end(source: _Source, begin: int, end: int) -> bool:
    """Whether there is an end marker between two offsets, not too far from the end."""
    begin = max(begin, end - _LONGEST_SEARCH)
    while end - begin >= 2:
        length = min(1 << 20, end - begin)
        if b"\xff\xd9" in source.read(end - length, length):
            return True
        end -= length - 1 if length < end - begin else length
    return False


def _check_index(source: _Source, base: int, index: _Source) -> None:
    """Looks for the further pictures that a JPEG tells of; raises Malformed without them."""
    try:
        tiff = _Tiff(index)
        entry = tiff.directory(tiff.first).entries.get(0xB002)
        data = tiff.data(entry, 16 * 256) if entry else b""
    except Malformed:
        return  # the index is what is not readable, not the picture
    for at in range(16, len(data) - 15, 16):  # the first one is the picture itself
        _, length, offset = struct.unpack_from(tiff.order + "III", data, at)
        if offset and source.read(base + offset, 2) == b"\xff\xd8":
            further = source.part(base + offset, length)
            if not _has_end(further, 2, further.size):
                raise Malformed("the further picture in it does not end as a JPEG")
        elif offset:
            raise Malformed("the further picture in it is not there")


# TIFF, which is the body of EXIF and of most raw formats, too

_SIZES = {1: 1, 2: 1, 3: 2, 4: 4, 5: 8, 6: 1, 7: 1, 8: 2, 9: 4, 10: 8, 11: 4, 12: 8, 13: 4}
_LETTERS = {1: "B", 3: "H", 4: "I", 13: "I"}


class _Entry(NamedTuple):
    type: int
    values: int  # how many
    at: int  # the offset of its value


class _Directory(NamedTuple):
    entries: Dict[int, _Entry]
    next: int  # the offset of the next one, 0: none


class _Tiff:
    def __init__(self, source: _Source) -> None:
        self.source = source
        head = source.read(0, 8)
        if head[:2] not in (b"II", b"MM"):
            raise Malformed("it does not begin as a TIFF")
        self.order = "<" if head[:2] == b"II" else ">"
        magic, self.first = struct.unpack(self.order + "HI", head[2:])
        if magic != 42:
            raise Malformed("it does not begin as a TIFF")

    def directory(self, offset: int) -> _Directory:
        (count,) = struct.unpack(self.order + "H", self.source.read(offset, 2))
        if not 0 < count <= _MOST_ENTRIES:
            raise Malformed("a directory of %d entries" % count)
        data = self.source.read(offset + 2, count * 12 + 4)
        entries: Dict[int, _Entry] = {}
        for at in range(0, count * 12, 12):
            tag, kind, number = struct.unpack_from(self.order + "HHI", data, at)
            place = offset + 2 + at + 8
            if _SIZES.get(kind, 1) * number > 4:
                (place,) = struct.unpack_from(self.order + "I", data, at + 8)
            entries.setdefault(tag, _Entry(kind, number, place))
        (following,) = struct.unpack_from(self.order + "I", data, count * 12)
        return _Directory(entries, following)

    def data(self, entry: _Entry, limit: int) -> bytes:
        length = _SIZES.get(entry.type, 1) * entry.values
        if length > limit:
            raise Malformed("a value of %d bytes" % length)
        return self.source.read(entry.at, length)

    def numbers(self, entry: Optional[_Entry]) -> List[int]:
        if entry is None or entry.type not in _LETTERS:
            return []
        data = self.data(entry, 4 * _MOST_STRIPS)
        letter = _LETTERS[entry.type]
        return list(struct.unpack("%s%d%s" % (self.order, entry.values, letter), data))

    def directories(self) -> Iterator[Dict[int, _Entry]]:
        """All of a file, those inside of others included, each once."""
        waiting, seen = [(self.first, True)], set()
        if not self.first:
            raise Malformed("it has no directory")
        while waiting:
            offset, is_in_chain = waiting.pop()
            if offset in seen:
                continue
            seen.add(offset)
            if len(seen) > _MOST_DIRECTORIES:
                raise Malformed("more than %d directories" % _MOST_DIRECTORIES)
            directory = self.directory(offset)
            yield directory.entries
            inner = self.numbers(directory.entries.get(0x014A))
            waiting.extend((inside, False) for inside in inner[:_MOST_DIRECTORIES] if inside)
            if is_in_chain and directory.next:
                waiting.append((directory.next, True))

    def size(self, entries: Dict[int, _Entry]) -> Tuple[int, int]:
        """Width and height, 0 where the directory has none."""
        width, height = (self.numbers(entries.get(tag))[:1] for tag in (0x0100, 0x0101))
        return (width[0], height[0]) if width and height else (0, 0)

    def taken(self, entries: Dict[int, _Entry]) -> Optional[datetime.datetime]:
        """When the picture was taken, from the directory that has the times; None: not told."""
        time = entries.get(0x9003)
        if time is None or time.type != 2:
            return None
        part = entries.get(0x9291)
        fraction = self.data(part, 64) if part is not None and part.type == 2 else b""
        return _time_of(self.data(time, 64), fraction)


def _judge_tiff(source: _Source, name: str) -> Facts:
    tiff = _Tiff(source)
    best = (0, 0)
    taken = None
    for entries in tiff.directories():
        for offsets, lengths in ((0x0111, 0x0117), (0x0144, 0x0145), (0x0201, 0x0202)):
            starts = tiff.numbers(entries.get(offsets))
            for start, length in zip(starts, tiff.numbers(entries.get(lengths))):
                source.check(start, length)
        best = max(best, tiff.size(entries), key=lambda size: size[0] * size[1])
        taken = taken or _taken_in(tiff, entries)
    return Facts(name, best[0] or None, best[1] or None, taken)


def _taken_in(tiff: _Tiff, entries: Dict[int, _Entry]) -> Optional[datetime.datetime]:
    """The time in the EXIF directory that a directory leads to."""
    try:
        for offset in tiff.numbers(entries.get(0x8769))[:1]:
            return tiff.taken(tiff.directory(offset).entries)
    except Malformed:
        pass  # a wrong time is no reason to take the picture for torn
    return None


def _taken_of(exif: Optional[_Source]) -> Optional[datetime.datetime]:
    if exif is None:
        return None
    try:
        tiff = _Tiff(exif)
        return _taken_in(tiff, tiff.directory(tiff.first).entries)
    except Malformed:
        return None


_TIME = re.compile(rb"(\d{4}):(\d\d):(\d\d) (\d\d):(\d\d):(\d\d)\0*")
_FRACTION = re.compile(rb"(\d{1,6})\d*[ \0]*")


def _time_of(text: bytes, fraction: bytes) -> Optional[datetime.datetime]:
    match, parts = _TIME.fullmatch(text), _FRACTION.fullmatch(fraction)
    if not match:
        return None
    try:
        time = datetime.datetime(*(int(group) for group in match.groups()))  # type: ignore[arg-type]
    except ValueError:
        return None
    return time.replace(microsecond=int(parts.group(1).ljust(6, b"0")) if parts else 0)


# Boxes of ISO base media files

_INNER_BOX = bytes.fromhex("85c0b687820f11e08111f4ce462b6a48")  # where the EXIF directories are


def _boxes(source: _Source, begin: int = 0) -> Iterator[Tuple[bytes, _Source]]:
    """Type and body of each box; raises Malformed when they do not fill the part."""
    offset = begin
    for _ in range(_MOST_BOXES):
        if offset == source.size:
            return
        length, kind = struct.unpack(">I4s", source.read(offset, 8))
        head = 8
        if length == 1:
            (length,) = struct.unpack(">Q", source.read(offset + 8, 8))
            head = 16
        elif length == 0:
            length = source.size - offset
        if length < head:
            raise Malformed("a box of %d bytes" % length)
        yield kind, source.part(offset + head, length - head)
        offset += length
    raise Malformed("more than %d boxes" % _MOST_BOXES)


def _judge_boxes(source: _Source) -> Facts:
    boxes = list(_boxes(source))
    if boxes[0][0] != b"ftyp":
        raise Malformed("it does not begin as a CR3")
    if not {b"moov", b"mdat"}.issubset(kind for kind, _ in boxes):
        raise Malformed("it ends between two of its parts")
    found: Dict[bytes, _Source] = {}
    try:
        for kind, body in boxes:
            for inner, part in _boxes(body) if kind == b"moov" else ():
                if inner == b"uuid" and part.read(0, 16) == _INNER_BOX:
                    found.update(_boxes(part, 16))
        return _facts_of_boxes(found)
    except Malformed:
        return Facts(RAW)


def _facts_of_boxes(found: Dict[bytes, _Source]) -> Facts:
    width = height = 0
    taken = None
    if b"CMT1" in found:
        tiff = _Tiff(found[b"CMT1"])
        width, height = tiff.size(tiff.directory(tiff.first).entries)
    if b"CMT2" in found:
        tiff = _Tiff(found[b"CMT2"])
        taken = tiff.taken(tiff.directory(tiff.first).entries)
    return Facts(RAW, width or None, height or None, taken)


def _big16(data: bytes) -> int:
    return int.from_bytes(data, "big")
