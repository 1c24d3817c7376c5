"""Fetches originals from the stations: whole, verified, each once, under names of their own.

A picture is written beside its place, into `.lumatie/parts/`, under a name that says whose it is;
a studio that was killed goes on where it was. Only when size and SHA-256 are those of the record it
gets its final name, `<station>/<file>`, by a rename that replaces nothing, and only then it is
acknowledged in the studio's record.
"""

import collections
import functools
import hashlib
import heapq
import io
import json
import logging
import os
import threading
import time
from typing import Any, Callable, Deque, Dict, Iterator, List, Mapping, Optional, Set, Tuple

from ..errors import TetherError
from ..files import flush_folder, rename_new
from ..ledger import INNER_FOLDER, path_of
from .book import Book, Key
from .fetch import Forbidden, Gone, Site, Unreachable, read

TRANSFERS = 4  # at a time
OF_ONE_STATION = 2  # of these
TURN = 30.0  # seconds, after which a picture that is still coming makes room for others that wait
BLOCK = 1 << 18  # bytes
PAUSES = (0.5, 10.0)  # seconds before the next try: at first, and at most
TRIES = 3  # for a picture that is absent, or comes with a wrong content, before that is an alarm
AGAIN = 60.0  # seconds before the next try behind that alarm

_PARTS = "parts"
_MOST_NAMES = 10_000

_Source = Tuple[str, str]  # a station, and the ledger whose numbers its pictures have

_log = logging.getLogger("lumatie_host")


class _Job:
    """A picture to collect. Very many may wait: what its record tells waits as a text."""

    __slots__ = ("_text", "absent", "key", "wrong")

    def __init__(self, key: Key, record: Mapping[str, Any]) -> None:
        self.key = key
        self.wrong = 0  # contents that were not the record's
        self.absent = 0  # times that the station did not have it
        self._text = json.dumps(record, separators=(",", ":"))

    @property
    def source(self) -> _Source:
        return self.key[:2]

    @property
    def record(self) -> Dict[str, Any]:
        """What the station has told of it."""
        record: Dict[str, Any] = json.loads(self._text)
        return record


class _Folder(Exception):
    """The studio's own folder cannot be written; all pictures wait."""


class _Wrong(Exception):
    """What came is not what the record tells."""


class Collector:
    """Collects pictures on threads of its own. Any thread may call.

    Args:
        book: where what is collected is recorded; its folder is where they go.
        site_of: a station's server, None while it is not there, or has another ledger.
        on_forbidden: called with a station that does not know the studio's token.
        on_collected: called with the key of each picture that is here, and the record of it.
        on_alarm: called with a text, an advice and the station, once for each trouble.
        may_begin: whether another picture may be begun now; asked again and again.
    """

    def __init__(
        self,
        book: Book,
        site_of: Callable[[str, str], Optional[Site]],
        on_forbidden: Callable[[str], None],
        on_collected: Callable[[Key, Dict[str, Any]], None],
        on_alarm: Callable[[str, str, str], None],
        transfers: int = TRANSFERS,
        may_begin: Callable[[], bool] = lambda: True,
    ) -> None:
        self._book = book
        self._may_begin_now = may_begin
        self._site_of = site_of
        self._on_forbidden = on_forbidden
        self._on_collected = on_collected
        self._on_alarm = on_alarm
        self._parts = os.path.join(book.folder, INNER_FOLDER, _PARTS)
        self._changed = threading.Condition()  # guards all that follows
        self._waiting: "collections.OrderedDict[_Source, Deque[_Job]]" = collections.OrderedDict()
        self._aside: List[Tuple[float, Key, _Job]] = []  # a heap: by the moment of the next try
        self._known: Set[Key] = set()  # that wait or are under way
        self._active: Dict[str, int] = {}  # by station
        self._not_before: Dict[_Source, float] = {}  # the moment of its next try
        self._pauses: Dict[_Source, float] = {}
        self._folder_not_before = 0.0
        self._folder_pause = 0.0
        self._is_closed = False
        self._naming = threading.Lock()  # one picture at a time gets its name
        self._threads = [
            threading.Thread(target=self._run, name="lumatie-collect", daemon=True)
            for _ in range(transfers)
        ]
        for thread in self._threads:
            thread.start()

    def add(self, key: Key, record: Dict[str, Any]) -> None:
        """Takes a picture to collect, once; returns at once."""
        with self._changed:
            if key not in self._known:
                self._known.add(key)
                self._append(_Job(key, record))
                self._changed.notify()

    def wake(self, station: str) -> None:
        """A station is there again: what waits for it is tried at once."""
        with self._changed:
            for source in [one for one in self._not_before if one[0] == station]:
                del self._not_before[source]
                self._pauses.pop(source, None)
            self._take_back(lambda _, key: key[0] == station)
            self._changed.notify_all()

    def look(self) -> None:
        """It may be begun what could not be begun before."""
        with self._changed:
            self._changed.notify_all()

    @property
    def lag(self) -> int:
        """How many pictures are still to be collected."""
        with self._changed:
            return len(self._known)

    def close(self) -> None:
        """Ends it; what is under way is left as it is, and goes on at the next start."""
        with self._changed:
            self._is_closed = True
            self._changed.notify_all()
        for thread in self._threads:
            thread.join(2.0)

    # The threads.

    def _run(self) -> None:
        while True:
            job = self._next()
            if job is None:
                return
            try:
                self._work(job)
            except Exception as error:
                _log.exception("a picture could not be collected")
                self._put_back(job, str(error))
            finally:
                with self._changed:
                    self._active[job.key[0]] -= 1
                    self._changed.notify()

    def _next(self) -> Optional[_Job]:
        """Waits for a job whose turn it is: the stations take turns."""
        with self._changed:
            while not self._is_closed:
                moment = time.monotonic()
                if self._aside and self._aside[0][0] <= moment:
                    self._take_back(lambda due, _: due <= moment)
                for source in list(self._waiting) if self._may_begin_now() else []:
                    if not self._may_begin(source, moment):
                        continue
                    jobs = self._waiting[source]
                    job = jobs.popleft()
                    self._waiting.move_to_end(source)
                    if not jobs:
                        del self._waiting[source]
                    self._active[source[0]] = self._active.get(source[0], 0) + 1
                    return job
                self._changed.wait(0.2 if self._waiting else 1.0 if self._aside else None)
            return None

    def _may_begin(self, source: _Source, moment: float) -> bool:
        return (
            self._active.get(source[0], 0) < OF_ONE_STATION
            and self._not_before.get(source, 0.0) <= moment
            and self._folder_not_before <= moment
        )

    def _work(self, job: _Job) -> None:
        station = job.key[0]
        site = self._site_of(*job.source)
        if site is None:
            self._put_back(job, "it is not there")
            return
        try:
            self._collect(job, site)
        except Forbidden as error:
            self._on_forbidden(station)
            self._put_back(job, str(error))
        except Unreachable as error:
            self._put_back(job, str(error))
        except Gone as error:
            job.absent += 1
            if job.absent < TRIES:  # all of its folder may be away
                self._put_back(job, str(error))
            else:
                self._put_aside(job, job.absent, str(error))
        except _Wrong as error:
            job.wrong += 1
            self._put_aside(job, job.wrong, str(error))
        except (_Folder, TetherError) as error:
            self._wait_for_folder(job, str(error))
        else:
            with self._changed:
                self._known.discard(job.key)
                self._pauses.pop(job.source, None)
                self._folder_pause = 0.0

    def _collect(self, job: _Job, site: Site) -> None:
        if self._book.is_collected(job.key):
            self._on_collected(job.key, {})
            return
        target = self._target(job)
        if target is None:
            self._give_up(job, "its name %.100r leads out of its folder" % job.record["file"])
            return
        part = self._part_path(job)
        self._fetch(job, site, part)
        with self._naming:
            file = self._named(job, part, target)
            recorded = self._book.collect(job.key, file, job.record)
        self._on_collected(job.key, recorded)

    def _target(self, job: _Job) -> Optional[str]:
        """Where it belongs, relative to the folder; None when that is outside."""
        file = "%s/%s" % (job.key[0], job.record["file"])
        is_inner = any(part.lower().startswith(INNER_FOLDER) for part in file.split("/"))
        path = path_of(self._book.folder, file)
        return None if path is None or is_inner or len(file.encode()) > 1000 else file

    def _part_path(self, job: _Job) -> str:
        station, ledger, number = job.key
        text = "\0".join((station, ledger, str(number), str(job.record["sha256"])))
        return os.path.join(self._parts, hashlib.sha256(text.encode()).hexdigest()[:32])

    def _fetch(self, job: _Job, site: Site, part: str) -> None:
        """Has the whole picture in the part's file, verified and on the disk."""
        size = job.record["size"]
        try:
            os.makedirs(self._parts, exist_ok=True)
            file = open(part, "ab", buffering=0)  # noqa: SIM115  closed below
        except OSError as error:
            raise _Folder(_words(error)) from error
        with file:
            have = self._size_of(file)
            if have > size:
                self._write(lambda: file.truncate(0))
                have = 0
            if have < size or size == 0:
                self._load(job, site, file, have, size)
            self._write(lambda: os.fsync(file.fileno()))
        self._verify(job, part)

    def _load(self, job: _Job, site: Site, file: io.FileIO, have: int, size: int) -> None:
        turn_ends = time.monotonic() + TURN
        station, _, number = job.key
        with site.picture(number, have, job.record.get("url")) as picture:
            if picture.size not in (-1, size):
                raise _Wrong("the station has %d bytes, and told of %d" % (picture.size, size))
            if picture.offset != have:
                self._write(lambda: file.truncate(picture.offset))
                have = picture.offset
            while have < size:
                if self._is_closed:
                    raise Unreachable("the studio is being closed")
                if time.monotonic() > turn_ends and self._is_awaited(station):
                    raise Unreachable("it is slow, and others wait")
                block = memoryview(read(picture.stream, min(BLOCK, size - have)))
                if not block:
                    raise Unreachable("it ended in the middle of a picture")
                have += len(block)
                while block:
                    block = block[self._write(functools.partial(file.write, block)) :]

    def _is_awaited(self, station: str) -> bool:
        """Whether pictures of other stations wait, and all places are taken."""
        moment = time.monotonic()
        with self._changed:
            others = [source for source in self._waiting if source[0] != station]
            is_full = sum(self._active.values()) >= len(self._threads)
            return is_full and any(self._may_begin(source, moment) for source in others)

    def _verify(self, job: _Job, part: str) -> None:
        digest = hashlib.sha256()
        try:
            with open(part, "rb") as file:
                for block in iter(lambda: file.read(BLOCK), b""):
                    digest.update(block)
        except OSError as error:
            raise _Folder(_words(error)) from error
        if digest.hexdigest() != job.record["sha256"]:
            self._write(lambda: os.unlink(part))
            raise _Wrong("what the station sends is not what it has told of")

    def _named(self, job: _Job, part: str, target: str) -> str:
        """Gives the picture its final name; returns that, relative to the folder."""
        folder = os.path.dirname(os.path.join(self._book.folder, *target.split("/")))
        try:
            os.makedirs(folder, exist_ok=True)
            for file in _names(target):
                path = os.path.join(self._book.folder, *file.split("/"))
                if self._is_left(path, file, job):
                    os.unlink(part)
                    return file
                try:
                    rename_new(part, path)
                except FileExistsError:
                    continue
                flush_folder(folder)
                return file
        except OSError as error:
            raise _Folder(_words(error)) from error
        raise _Folder("there are %d files called %s" % (_MOST_NAMES, target))

    def _is_left(self, path: str, file: str, job: _Job) -> bool:
        """Whether this very picture got its name before the studio was killed."""
        if not os.path.isfile(path) or self._book.owns(file, str(job.record["sha256"])):
            return False
        if os.path.getsize(path) != job.record["size"]:
            return False
        digest = hashlib.sha256()
        with open(path, "rb") as stream:
            for block in iter(lambda: stream.read(BLOCK), b""):
                digest.update(block)
        return digest.hexdigest() == str(job.record["sha256"])

    # Failures.

    def _put_back(self, job: _Job, why: str) -> None:
        """All pictures of a station wait: it is the station that is in trouble."""
        _log.info("a picture of station %s is tried again: %s", job.key[0], why)
        with self._changed:
            pause = min(2 * self._pauses.get(job.source, PAUSES[0] / 2), PAUSES[1])
            self._pauses[job.source] = pause
            self._not_before[job.source] = time.monotonic() + pause
            self._return(job)

    def _put_aside(self, job: _Job, tries: int, why: str) -> None:
        """Only this picture waits; that is told once."""
        station = job.key[0]
        _log.info("picture %d of station %s is tried again: %s", job.key[2], station, why)
        if tries == TRIES:
            text = "%.200s of station %s is not collected yet: %s"
            self._on_alarm(
                text % (job.record["file"], station, why),
                "Look at the station's disk; it is tried again.",
                station,
            )
        pause = AGAIN if tries >= TRIES else min(PAUSES[0] * 2 ** (tries - 1), PAUSES[1])
        with self._changed:
            heapq.heappush(self._aside, (time.monotonic() + pause, job.key, job))

    def _take_back(self, is_meant: Callable[[float, Key], bool]) -> None:
        """Some of those that were put aside wait behind the others again."""
        chosen = [one for one in self._aside if is_meant(one[0], one[1])]
        if chosen:
            self._aside = [one for one in self._aside if not is_meant(one[0], one[1])]
            heapq.heapify(self._aside)
            for _, _, job in sorted(chosen, key=lambda one: one[1]):
                self._append(job)

    def _wait_for_folder(self, job: _Job, why: str) -> None:
        with self._changed:
            is_first = self._folder_pause == 0.0
            self._folder_pause = min(max(2 * self._folder_pause, PAUSES[0]), PAUSES[1])
            self._folder_not_before = time.monotonic() + self._folder_pause
            self._return(job)
        if is_first:
            self._on_alarm(
                "pictures cannot be collected into %s: %s" % (self._book.folder, why),
                "Make room on the disk; they are tried again.",
                job.key[0],
            )

    def _give_up(self, job: _Job, why: str) -> None:
        with self._changed:
            self._known.discard(job.key)
        station = job.key[0]
        text = "%.200s of station %s is not collected: %s" % (job.record["file"], station, why)
        self._on_alarm(text, "Look for it at the station.", station)

    def _return(self, job: _Job) -> None:
        self._waiting.setdefault(job.source, collections.deque()).appendleft(job)

    def _append(self, job: _Job) -> None:
        self._waiting.setdefault(job.source, collections.deque()).append(job)

    @staticmethod
    def _size_of(file: io.FileIO) -> int:
        return os.fstat(file.fileno()).st_size

    @staticmethod
    def _write(do: Callable[[], Any]) -> Any:
        """Does something with a file of ours."""
        try:
            return do()
        except OSError as error:
            raise _Folder(_words(error)) from error


def _names(file: str) -> Iterator[str]:
    """The name, then numbered ones: "a (2).JPG"."""
    yield file
    stem, extension = os.path.splitext(file)
    for number in range(2, _MOST_NAMES):
        yield "%s (%d)%s" % (stem, number, extension)


def _words(error: OSError) -> str:
    return error.strerror or str(error)
