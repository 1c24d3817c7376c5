"""The record of everything that happened: JSON lines in `.lumatie/ledger.jsonl` of a folder.

A record is on the disk before anybody hears of what it tells. Several processes may write into one
folder: each of them takes the folder's lock, reads what the others have added, and goes on with the
next number. What is in the file is never changed; a line that cannot be read is passed over. Who
only reads makes nothing, so that a folder on a disk that cannot be written can be read, too.
"""

import collections
import contextlib
import dataclasses
import datetime
import enum
import hashlib
import io
import json
import logging
import math
import os
from typing import (
    Any,
    BinaryIO,
    Dict,
    Iterator,
    List,
    Mapping,
    NamedTuple,
    Optional,
    Tuple,
)

from . import locks, strict_json
from .errors import FolderRejected, WriteFailed
from .events import VERSION, Event, from_record, time_text
from .files import flush_folder, is_inside
from .places import Places

INNER_FOLDER = ".lumatie"
FILE = "ledger.jsonl"
LOCK = "lock"
TORN_END = "the last line is torn"

LONGEST_LINE = 1 << 20  # bytes; longer ones are passed over, and not written
LARGEST_NUMBER = (1 << 53) - 1  # that every reader of JSON takes
MOST_PROBLEMS = 1000  # that are kept as texts
MOST_SHOTS = 400  # whose numbers are kept: a second file comes soon after the first
PATIENCE = 60.0  # seconds, for other processes to give the lock back

_MARK_EVERY = 256  # records; reading with `since` starts at a mark
_OPEN = os.O_RDWR | os.O_APPEND | getattr(os, "O_BINARY", 0) | getattr(os, "O_NOINHERIT", 0)

_log = logging.getLogger("lumatie_host")


class _Mark(NamedTuple):
    """A place in the file in front of which no number is above `last`."""

    offset: int
    line: int
    last: int


class _Line(NamedTuple):
    """A line with its newline."""

    number: int
    end: int  # the offset behind it
    record: Optional[Dict[str, Any]]
    problem: str  # empty: none


class Ledger:
    """The ledger of one folder. Any thread may call."""

    def __init__(self, folder: str) -> None:
        """Reads the ledger of `folder`; where there is none yet the first `append` makes it.

        Raises FolderRejected when the folder is missing, or its ledger cannot be read.
        """
        self.folder: str = os.path.abspath(folder)
        self._inner = os.path.join(self.folder, INNER_FOLDER)
        self._path = os.path.join(self._inner, FILE)
        self._lock = locks.SharedLock.of(os.path.join(self._inner, LOCK))
        # Guarded by the lock, as is all that is added to them.
        self._last = 0
        self._pictures = Places()  # of their records, by SHA-256
        self._shots: "collections.OrderedDict[Tuple[str, int], int]" = collections.OrderedDict()
        self._total = 0
        self._epoch = 0
        self._problems: List[str] = []
        self._more_problems = 0
        self._identity: Tuple[int, int] = (0, 0)
        self._is_prepared = False
        self._start_anew()
        self._check_folder(folder)
        try:
            with self._lock.held(PATIENCE, is_reader=True):
                self._refresh()
        except OSError as error:
            raise FolderRejected(folder, _words_of(error)) from error

    def prepare(self) -> None:
        """Makes the ledger where there is none.

        Raises FolderRejected when nothing can be written there.
        """
        try:
            self._prepare()
        except OSError as error:
            raise FolderRejected(self.folder, _words_of(error)) from error

    @property
    def last(self) -> int:
        """The highest number, as of the latest append, read or lock of this ledger; 0: none."""
        return self._last

    @property
    def total(self) -> int:
        """How many shots the folder has pictures of, those of other sessions included."""
        return self._total

    def files_of(self, sha256: str, until: int = LARGEST_NUMBER) -> List[str]:
        """The files of the pictures with a SHA-256 (`sha256`, in hex), up to the number `until`.

        Raises WriteFailed when the ledger cannot be had or read.
        """
        with self._held(is_reader=True):
            places = self._pictures.of(sha256)
        files: List[str] = []
        if not places:
            return files
        try:
            with open(self._path, "rb") as file:
                for place in places:
                    file.seek(place)
                    record, _ = _record_of(file.readline(LONGEST_LINE + 1))
                    if record and record.get("sha256") == sha256 and record["n"] <= until:
                        files.append(str(record["file"]))
        except OSError as error:
            raise WriteFailed(_words_of(error)) from error
        return files

    def number_of(self, session: str, shot: int) -> int:
        """The number of a session's shot among all of the folder; without pictures, the next one.

        It stays free only as long as the caller holds the lock. Shot 0 is not known, and gets a
        new number each time.
        """
        return self._shots.get((session or self._nameless(), shot), self._total + 1)

    def problems(self) -> List[str]:
        """What reading found, one text for each line that could not be taken as it is.

        Raises WriteFailed when the ledger cannot be had.
        """
        with self._current(is_reader=True):
            texts = list(self._problems)
            if self._more_problems:
                texts.append("%d more" % self._more_problems)
            if self._is_torn():
                texts.append(TORN_END)
            return texts

    @contextlib.contextmanager
    def exclusive(self) -> Iterator[None]:
        """The folder's lock: no other thread and no other process appends meanwhile.

        A thread that has it may take it again. Raises WriteFailed when it cannot be had.
        """
        self._prepare_to_write()
        with self._current(is_reader=False):
            yield

    def append(self, kind: str, **fields: Any) -> Event:
        """Writes a record, and returns its event once it is on the disk.

        Fields that are None are left out. Raises WriteFailed, and then nothing of the record
        stays; ValueError or TypeError when the fields do not make an event of that kind.
        """
        body = {name: _plain(value) for name, value in fields.items() if value is not None}
        if not body.keys().isdisjoint(("v", "n", "time", "kind")):
            raise TypeError("a record's number, time and kind are not fields")
        self._prepare_to_write()
        with self._held():
            try:
                descriptor = os.open(self._path, _OPEN)
                try:
                    self._catch_up(descriptor)
                    return self._write(descriptor, kind, body)
                finally:
                    os.close(descriptor)
            except OSError as error:
                raise WriteFailed(_words_of(error)) from error

    def read(self, since: int = 0) -> Iterator[Dict[str, Any]]:
        """The records with a number above `since`, in their order, up to the newest one of now.

        Unknown kinds and versions are among them; lines that hold no record, and numbers that go
        back, are passed over. Raises FolderRejected when the ledger cannot be read any more.
        """
        mark, end = self._part_since(since)
        if mark.offset == end:
            return
        last = mark.last
        try:
            file = open(self._path, "rb")  # noqa: SIM115  closed below
        except OSError as error:
            raise FolderRejected(self.folder, _words_of(error)) from error
        with file:
            for line in _lines(file, mark, end):
                if line.record is not None and line.record["n"] > last:
                    last = line.record["n"]
                    if last > since:
                        yield line.record

    def events(self, since: int = 0) -> Iterator[Event]:
        """The events with a number above `since`; records that tell none are passed over.

        Raises FolderRejected as `read` does.
        """
        for record in self.read(since):
            event = from_record(record)
            if event is not None:
                yield event

    @contextlib.contextmanager
    def _held(self, is_reader: bool = False) -> Iterator[bool]:
        # What the block itself raises is not taken for a lock that cannot be had.
        with contextlib.ExitStack() as stack:
            try:
                is_first = stack.enter_context(self._lock.held(PATIENCE, is_reader))
            except OSError as error:
                raise WriteFailed(_words_of(error)) from error
            yield is_first

    @contextlib.contextmanager
    def _current(self, is_reader: bool) -> Iterator[None]:
        """The lock, with all read that is there; raises WriteFailed."""
        with self._held(is_reader) as is_first:
            if is_first:
                try:
                    self._refresh()
                except OSError as error:
                    raise WriteFailed(_words_of(error)) from error
            yield

    def _check_folder(self, folder: str) -> None:
        if not folder:
            raise FolderRejected(folder, "no folder was named")
        if not os.path.exists(self.folder):
            raise FolderRejected(folder, "there is no such folder")
        if not os.path.isdir(self.folder):
            raise FolderRejected(folder, "it is a file, not a folder")
        if os.path.lexists(self._inner) and not os.path.isdir(self._inner):
            raise FolderRejected(
                folder, "%s in it is a file, where the record of the shoot belongs" % INNER_FOLDER
            )

    def _prepare_to_write(self) -> None:
        try:
            self._prepare()
        except OSError as error:
            raise WriteFailed(_words_of(error)) from error

    def _prepare(self) -> None:
        """Makes the file, once: one that is taken away later is a disk that is away."""
        if self._is_prepared:
            return
        with contextlib.suppress(FileExistsError):
            os.mkdir(self._inner)
        with self._lock.held(PATIENCE):
            is_new = not os.path.exists(self._path)
            os.close(os.open(self._path, _OPEN | os.O_CREAT, 0o666))
            if is_new:
                flush_folder(self._inner)
        self._is_prepared = True

    def _refresh(self) -> None:
        """Reads what others have added, with the lock held; raises OSError."""
        try:
            with open(self._path, "rb", buffering=0) as file:
                self._catch_up(file.fileno())
        except FileNotFoundError:
            if self._is_prepared or self._end:
                raise

    def _is_torn(self) -> bool:
        """Whether something stands behind the last whole line, with the lock held."""
        try:
            return os.path.getsize(self._path) > self._end
        except OSError:
            return False

    def _start_anew(self) -> None:
        """Forgets what was read; the highest number stays, so that none is given twice."""
        self._marks = [_Mark(0, 1, 0)]
        self._end = 0  # the offset behind the last line that was read
        self._line = 1  # the number of the next one
        self._records = 0
        self._pictures.clear()
        self._shots.clear()
        self._total = 0
        self._epoch = 0
        self._problems.clear()
        self._more_problems = 0
        self._highest_read = 0

    def _catch_up(self, descriptor: int) -> None:
        """Reads what others have added, with the lock held."""
        status = os.fstat(descriptor)
        identity = (status.st_dev, status.st_ino)
        if status.st_size < self._end or (self._end and identity != self._identity):
            _log.warning("%s is another file than before, and is read again", self._path)
            self._start_anew()
        self._identity = identity
        if status.st_size == self._end:
            return
        with io.open(descriptor, "rb", closefd=False) as file:
            for line in _lines(file, _Mark(self._end, self._line, 0), status.st_size):
                self._take(line)

    def _take(self, line: _Line) -> None:
        begin, self._end = self._end, line.end
        self._line = line.number + 1
        problem = line.problem
        if line.record is not None:
            number = line.record["n"]
            if number <= self._highest_read:
                problem = "number %d comes behind %d" % (number, self._highest_read)
            self._highest_read = max(self._highest_read, number)
            self._last = max(self._last, number)
            self._learn(line.record, begin)
            self._records += 1
            if self._records % _MARK_EVERY == 0:
                self._marks.append(_Mark(self._end, self._line, self._highest_read))
        if not problem:
            return
        if len(self._problems) < MOST_PROBLEMS:
            self._problems.append("line %d: %s" % (line.number, problem))
        else:
            self._more_problems += 1

    def _learn(self, record: Mapping[str, Any], begin: int) -> None:
        kind = record["kind"]
        if record["v"] != VERSION:
            return
        if kind == "opened":
            self._epoch += 1
        if kind != "picture":
            return
        file, digest, shot = record.get("file"), record.get("sha256"), record.get("shot")
        if isinstance(file, str) and isinstance(digest, str):
            self._pictures.add(digest, begin)
        if isinstance(shot, int):
            self._count(str(record.get("session") or self._nameless()), shot)

    def _count(self, session: str, shot: int) -> None:
        if shot == 0 or (session, shot) not in self._shots:
            self._total += 1
            if shot:
                self._shots[session, shot] = self._total
                if len(self._shots) > MOST_SHOTS:
                    self._shots.popitem(last=False)

    def _nameless(self) -> str:
        """Stands for the session of records that name none: each opening begins another."""
        return "\0%d" % self._epoch

    def _write(self, descriptor: int, kind: str, body: Mapping[str, Any]) -> Event:
        if self._end != os.fstat(descriptor).st_size:
            # A writer was killed in the middle of a line. It stays, as a line of its own.
            self._write_all(descriptor, b"\n")
            self._catch_up(descriptor)
        number = self._last + 1
        if number > LARGEST_NUMBER:
            raise WriteFailed("the numbers of %s are used up" % self._path)
        record: Dict[str, Any] = {
            "v": VERSION,
            "n": number,
            "time": time_text(datetime.datetime.now(datetime.timezone.utc)),
            "kind": kind,
            **body,
        }
        event = from_record(record)
        if event is None:
            raise ValueError("these fields make no event of the kind %r" % kind)
        text = _text_of(record)
        self._write_all(descriptor, text)
        self._take(_Line(self._line, self._end + len(text), record, ""))
        return event

    def _write_all(self, descriptor: int, text: bytes) -> None:
        """Adds `text` and flushes it to the disk; when that fails nothing of it stays."""
        before = os.fstat(descriptor).st_size
        try:
            left = memoryview(text)
            while left:
                left = left[os.write(descriptor, left) :]
            os.fsync(descriptor)
        except BaseException:
            # What cannot be taken back either is a torn line, or a record that nobody heard of.
            with contextlib.suppress(OSError):
                os.ftruncate(descriptor, before)
            raise

    def _part_since(self, since: int) -> Tuple[_Mark, int]:
        """Where to begin to read, and the end of what is known to be on the disk."""
        try:
            with self._current(is_reader=True):
                return self._mark_before(since), self._end
        except WriteFailed as error:
            _log.warning("the ledger is read as far as it is known: %s", error.evidence)
            return self._mark_before(since), self._end

    def _mark_before(self, since: int) -> _Mark:
        low, high = 0, len(self._marks)
        while high - low > 1:
            middle = (low + high) // 2
            if self._marks[middle].last <= since:
                low = middle
            else:
                high = middle
        return self._marks[low]


@dataclasses.dataclass(frozen=True)
class Finding:
    """Something that is not as the ledger tells it.

    `what` is "missing", "changed", "damaged" or "gap"; `text` says it to a person.
    """

    what: str
    text: str
    file: Optional[str] = None
    line: Optional[int] = None


def verify(folder: str) -> List[Finding]:
    """Compares a folder with its ledger, and reads every picture for it; writes nothing.

    Any thread may call.

    Raises FolderRejected when there is no ledger that can be read.
    """
    try:
        with open(os.path.join(folder, INNER_FOLDER, FILE), "rb") as file:
            size = os.fstat(file.fileno()).st_size
            return list(_findings(folder, file, size))
    except OSError as error:
        raise FolderRejected(folder, _words_of(error)) from error


def path_of(folder: str, file: str) -> Optional[str]:
    """The path of a file that a record names, None when it would not be inside the folder."""
    return os.path.join(folder, *file.split("/")) if is_inside(file) else None


def _findings(folder: str, file: BinaryIO, size: int) -> Iterator[Finding]:
    last, end = 0, 0
    for line in _lines(file, _Mark(0, 1, 0), size):
        end = line.end
        if line.record is None:
            if line.problem:
                text = "line %d: %s" % (line.number, line.problem)
                yield Finding("damaged", text, None, line.number)
            continue
        number = line.record["n"]
        if number != last + 1:
            text = "line %d: number %d follows %d" % (line.number, number, last)
            yield Finding("gap" if number > last else "damaged", text, None, line.number)
        last = max(last, number)
        if line.record["v"] == VERSION and line.record["kind"] == "picture":
            yield from _picture_findings(folder, line)
    if end != size:
        yield Finding("damaged", TORN_END)


def _picture_findings(folder: str, line: _Line) -> Iterator[Finding]:
    record = line.record or {}
    file = record.get("file")
    path = path_of(folder, file) if isinstance(file, str) else None
    if path is None or not isinstance(record.get("sha256"), str):
        yield Finding("damaged", "line %d: no picture" % line.number, None, line.number)
        return
    try:
        digest = hashlib.sha256()
        with open(path, "rb") as picture:
            for block in iter(lambda: picture.read(1 << 20), b""):
                digest.update(block)
    except FileNotFoundError:
        yield Finding("missing", "%s is not there" % file, file, line.number)
    except (OSError, ValueError) as error:
        yield Finding("missing", "%s cannot be read: %s" % (file, error), file, line.number)
    else:
        if digest.hexdigest() != record["sha256"].lower():
            yield Finding("changed", "%s is not what it was" % file, file, line.number)


def _lines(file: BinaryIO, mark: _Mark, bound: int) -> Iterator[_Line]:
    """The whole lines between a mark and the offset `bound`; a rest without a newline is not."""
    offset, number = mark.offset, mark.line
    file.seek(offset)
    while offset < bound:
        line = file.readline(min(LONGEST_LINE + 1, bound - offset))
        offset += len(line)
        is_long = False
        rest = line
        while rest and not rest.endswith(b"\n") and offset < bound:
            is_long = True
            rest = file.readline(min(LONGEST_LINE, bound - offset))
            offset += len(rest)
        if not rest.endswith(b"\n"):
            return
        if is_long:
            yield _Line(number, offset, None, "longer than %d bytes" % LONGEST_LINE)
        else:
            yield _Line(number, offset, *_record_of(line))
        number += 1


def _record_of(line: bytes) -> Tuple[Optional[Dict[str, Any]], str]:
    """What a line holds: a record, or why it is none; an empty line is neither."""
    if not line.strip():
        return None, ""
    try:
        record = strict_json.decode(line.decode())
    except (ValueError, RecursionError):
        return None, "no JSON"
    if not isinstance(record, dict):
        return None, "no record"
    number, version, kind = record.get("n"), record.get("v"), record.get("kind")
    if type(number) is not int or not 0 < number <= LARGEST_NUMBER:
        return None, "a record without a number"
    if type(version) is not int or not isinstance(kind, str):
        return None, "a record without a version or a kind"
    if version != VERSION:
        return record, "version %d is not known here" % version
    return record, ""


def _plain(value: Any) -> Any:
    """A value as JSON can say it; raises TypeError or ValueError when it cannot."""
    if isinstance(value, enum.Enum):
        return _plain(value.value)
    if value is None or isinstance(value, (str, bool, int)):
        return value
    if isinstance(value, float):
        if not math.isfinite(value):
            raise ValueError("%r cannot be recorded" % value)
        return value
    if isinstance(value, datetime.datetime):
        return time_text(value)
    if isinstance(value, os.PathLike):
        return os.fsdecode(value)
    if isinstance(value, Mapping):
        if not all(isinstance(name, str) for name in value):
            raise TypeError("names in a record are texts")
        return {name: _plain(item) for name, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [_plain(item) for item in value]
    raise TypeError("%r cannot be recorded" % (value,))


def _text_of(record: Mapping[str, Any]) -> bytes:
    try:
        text = json.dumps(record, ensure_ascii=False, separators=(",", ":")).encode()
    except UnicodeEncodeError:
        # The half of a letter, as in a file name of another encoding: escaped it comes back whole.
        text = json.dumps(record, separators=(",", ":")).encode()
    if len(text) >= LONGEST_LINE:
        raise ValueError("a record of %d bytes" % len(text))
    return text + b"\n"


def _words_of(error: OSError) -> str:
    """What the system said, and of which file."""
    text = error.strerror or str(error) or type(error).__name__
    return "%s: %s" % (error.filename, text) if error.filename is not None else text
