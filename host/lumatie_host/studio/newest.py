"""Fetches previews of the stations' newest pictures, before anybody's originals.

A preview is a hundredth of its picture: so the desk sees what was shot at once, however much is
still to be collected. Of each station only the newest picture is fetched unasked. What has come
lies in the studio's `.lumatie/previews/`, as a page keeps it.
"""

import logging
import threading
import time
from concurrent.futures import Future
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Set, Tuple

from ..page.developing import cache_of, keep, kept, prune
from ..page.previews import PRUNE_EVERY
from .fetch import Forbidden, Gone, Site, Unreachable

WIDTH = 512  # pixels of those that are fetched unasked
WORKERS = 4  # previews at a time
OF_ONE_STATION = 2  # of these
HOLD = 5.0  # seconds for which a preview that does not come keeps originals back
MOST_WAITING = 4000

Record = Dict[str, Any]
_Key = Tuple[str, str, int]  # station, hash, width

_log = logging.getLogger("lumatie_host")


class NoPreview(Exception):
    """There is none, or not now; in words."""


class _Job(NamedTuple):
    station: str
    record: Record
    width: int
    is_asked: bool  # somebody waits for it
    holds: bool  # originals back
    since: float
    result: "Future[bytes]"

    @property
    def key(self) -> _Key:
        return self.station, self.record["sha256"], self.width


class Newest:
    """Fetches previews on threads of its own. Any thread may call.

    A picture's record has `ledger`, the identity of the one whose number `n` is.

    Args:
        folder: the studio's.
        site_of: a station's server, None while it is not there, or has another ledger.
        on_forbidden: called with a station that does not know the studio's token.
        on_made: called with a station and the number of a picture whose preview has come.
        on_idle: called when no preview keeps originals back any more.
    """

    def __init__(
        self,
        folder: str,
        site_of: Callable[[str, str], Optional[Site]],
        on_forbidden: Callable[[str], None],
        on_made: Callable[[str, int], None],
        on_idle: Callable[[], None],
    ) -> None:
        self._folder = folder
        self._site_of = site_of
        self._on_forbidden = on_forbidden
        self._on_made = on_made
        self._on_idle = on_idle
        self._changed = threading.Condition()  # guards all that follows
        self._jobs: Dict[_Key, _Job] = {}  # those that wait or are under way
        self._waiting: List[_Job] = []
        self._active: Dict[str, int] = {}  # by station
        self._unreachable: Set[str] = set()  # stations that did not answer the last time
        self._wanted: Dict[str, Record] = {}  # by station, what could not be had
        self._kept = 0  # previews that have come
        self._is_closed = False
        self._threads = [
            threading.Thread(target=self._run, name="lumatie-newest", daemon=True)
            for _ in range(WORKERS)
        ]
        for thread in self._threads:
            thread.start()

    def add(self, station: str, record: Record) -> None:
        """A station has a new picture. One that still waits for its preview gives way to it."""
        with self._changed:
            for job in [one for one in self._waiting if one.station == station]:
                is_other = job.record["ledger"] != record["ledger"]
                if not job.is_asked and (is_other or job.record["n"] <= record["n"]):
                    self._drop(job, "a newer picture came")
            self._wanted[station] = record
            self._add(station, record, WIDTH, holds=True)

    def wake(self, station: str) -> None:
        """A station is there and knows the studio's token: what could not be had is tried again."""
        with self._changed:
            record = self._wanted.get(station)
            if record is not None:
                self._add(station, record, WIDTH, holds=True)

    def look(self) -> None:
        """Tries again what could not be had from stations that are there; now and then."""
        with self._changed:
            wanted = list(self._wanted.items())
        for station, record in wanted:
            if self._site_of(station, record["ledger"]) is not None:
                with self._changed:
                    self._add(station, record, WIDTH)

    def ask(self, station: str, record: Record, width: int) -> "Future[bytes]":
        """The preview of a picture, as soon as it is there; gets NoPreview."""
        with self._changed:
            return self._add(station, record, width, is_asked=True).result

    @property
    def is_ahead(self) -> bool:
        """Whether previews of newest pictures are still to come, and originals have to wait."""
        begun = time.monotonic() - HOLD
        with self._changed:
            return any(
                job.holds and job.since > begun and job.station not in self._unreachable
                for job in self._jobs.values()
            )

    def close(self) -> None:
        """Ends it; whoever waits gets NoPreview."""
        with self._changed:
            self._is_closed = True
            for job in list(self._waiting):
                self._drop(job, "the studio is being closed")
            self._changed.notify_all()
        for thread in self._threads:
            thread.join(2.0)

    def _add(
        self,
        station: str,
        record: Record,
        width: int,
        is_asked: bool = False,
        holds: bool = False,
    ) -> _Job:
        job = _Job(station, record, width, is_asked, holds, time.monotonic(), Future())
        known = self._jobs.get(job.key)
        if known is not None:
            return known
        if self._is_closed:
            job.result.set_exception(NoPreview("the studio is being closed"))
            return job
        if len(self._waiting) >= MOST_WAITING:
            self._drop(self._waiting[0], "too many are asked for")
        self._jobs[job.key] = job
        self._waiting.append(job)
        self._changed.notify()
        return job

    def _drop(self, job: _Job, why: str) -> None:
        self._waiting.remove(job)
        del self._jobs[job.key]
        job.result.set_exception(NoPreview(why))

    # The threads.

    def _run(self) -> None:
        while True:
            job = self._next()
            if job is None:
                return
            try:
                self._do(job)
            except Exception as error:
                _log.exception("a preview could not be fetched")
                self._fail(job, str(error))
            with self._changed:
                self._active[job.station] -= 1
                self._changed.notify_all()
            if not self.is_ahead:
                self._on_idle()

    def _next(self) -> Optional[_Job]:
        with self._changed:
            while not self._is_closed:
                for job in reversed(self._waiting):  # what came last is what people look for
                    active = self._active.get(job.station, 0)
                    if active < OF_ONE_STATION:
                        self._active[job.station] = active + 1
                        self._waiting.remove(job)
                        return job
                self._changed.wait()
            return None

    def _do(self, job: _Job) -> None:
        station, record = job.station, job.record
        digest = record["sha256"]
        data = kept(self._folder, digest, job.width)
        try:
            if data is None:
                site = self._site_of(station, record["ledger"])
                if site is None:
                    raise Unreachable("the station is not there")
                data = self._asked(site, job)
                self._keep(digest, job.width, data)
        except Forbidden as error:
            self._fail(job, str(error))
            self._on_forbidden(station)
            return
        except Gone as error:
            self._forget(job)
            self._fail(job, str(error))
            return
        except Unreachable as error:
            self._fail(job, str(error))
            return
        self._forget(job)
        self._end(job)
        job.result.set_result(data)
        self._on_made(station, record["n"])

    def _asked(self, site: Site, job: _Job) -> bytes:
        """Asks a station; one that does not answer holds nobody back until it has answered."""
        try:
            data = site.preview(job.record["n"], job.width)
        except (Forbidden, Gone):
            raise
        except Unreachable:
            with self._changed:
                self._unreachable.add(job.station)
            raise
        with self._changed:
            self._unreachable.discard(job.station)
        return data

    def _keep(self, sha256: str, width: int, data: bytes) -> None:
        """Writes a preview beside the others, of which the oldest go when they become too many."""
        keep(self._folder, sha256, width, data)
        with self._changed:
            self._kept += 1
            is_time = self._kept % PRUNE_EVERY == 1
        if is_time:
            prune(cache_of(self._folder))

    def _forget(self, job: _Job) -> None:
        with self._changed:
            wanted = self._wanted.get(job.station)
            if wanted is not None and wanted["sha256"] == job.record["sha256"]:
                del self._wanted[job.station]

    def _fail(self, job: _Job, why: str) -> None:
        _log.debug("no preview of station %s: %s", job.station, why)
        self._end(job)
        job.result.set_exception(NoPreview(why))

    def _end(self, job: _Job) -> None:
        with self._changed:
            self._jobs.pop(job.key, None)
