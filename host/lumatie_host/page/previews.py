"""Previews of pictures: made once, newest first, on threads of low priority.

Of a picture that has come the largest one is made, and whatever is asked for; what is asked for
comes first, so that a page that shows 1024 pixels does not wait for 2048.
"""

import collections
import logging
import os
import sys
import threading
from concurrent.futures import Future
from typing import Callable, Dict, List, Optional, Set, Tuple

from .developing import LARGEST, SIZES, Developing, NoPreview, Source, cache_of, prune

MOST_WAITING = 400  # pictures
PRUNE_EVERY = 500  # pictures that previews were made of
SMALLEST_ON_STAGE = 512  # pixels
AT_HAND = 6  # previews that were made last

_log = logging.getLogger("lumatie_host")


class _Job:
    """The previews of one picture that are wanted and not made; guarded as its pool's."""

    def __init__(self, source: Source) -> None:
        self.source = source
        self.asked: Set[int] = set()  # widths; one that nobody has asked for is made last
        self.results: Dict[int, "Future[bytes]"] = {}

    def next(self) -> int:
        """The width to be made now: the quickest that somebody waits for, the strip's behind it."""
        return min(self.asked or self.results, key=lambda width: (width < SMALLEST_ON_STAGE, width))

    def end(self, width: int) -> "Future[bytes]":
        """A width is made, or given up."""
        self.asked.discard(width)
        return self.results.pop(width)

    def drop(self, width: int, why: str) -> None:
        """Gives a width up."""
        self.end(width).set_exception(NoPreview(why, False))


def size_for(wanted: int) -> int:
    """The size that is made for a wanted one: the next greater."""
    return next((size for size in SIZES if size >= wanted), LARGEST)


class Previews:
    """Makes and keeps previews. Any thread may call.

    Args:
        on_made: called with a picture's number when its large preview is there; on a worker.
        workers: how many threads; one less than there are cores by default.
    """

    def __init__(
        self, on_made: Callable[[int], None] = lambda n: None, workers: Optional[int] = None
    ) -> None:
        self._on_made = on_made
        self._condition = threading.Condition()  # guards the next ones
        self._jobs: Dict[str, _Job] = {}  # those that wait or are being done, by the hash
        self._waiting: List[_Job] = []
        self._at_hand: "collections.OrderedDict[Tuple[str, int], bytes]" = collections.OrderedDict()
        self._is_closed = False
        self._done = 0
        count = max(1, (os.cpu_count() or 2) - 1) if workers is None else workers
        self._threads = [
            threading.Thread(target=self._run, name="lumatie-preview-%d" % n, daemon=True)
            for n in range(count)
        ]
        for thread in self._threads:
            thread.start()

    def announce(self, source: Source) -> None:
        """A new picture has come: its preview is made, unless a newer one comes before."""
        with self._condition:
            for job in list(self._waiting):
                for width in set(job.results) - job.asked:
                    job.drop(width, "a newer picture came")
                if not job.results:
                    self._forget(job)
            self._add(source, LARGEST)

    def ask(self, source: Source, width: int) -> "Future[bytes]":
        """The preview as a JPEG, as soon as it is made; raises NoPreview."""
        with self._condition:
            wanted = size_for(width)
            data = self._at_hand.get((source.entry.sha256, wanted))
            if data is None:
                return self._add(source, wanted, is_asked=True)
        made: "Future[bytes]" = Future()  # while it was asked for; it may wait for the disk now
        made.set_result(data)
        return made

    def at_hand(self, sha256: str, width: int) -> Optional[bytes]:
        """One of those that were made last; all who look at a new picture ask for it at once."""
        with self._condition:
            return self._at_hand.get((sha256, width))

    def close(self) -> None:
        """Ends the work; whoever waits gets NoPreview."""
        with self._condition:
            self._is_closed = True
            for job in list(self._waiting):
                self._give_up(job, "the page is closed")
            self._condition.notify_all()

    # With the condition held.

    def _add(self, source: Source, width: int, is_asked: bool = False) -> "Future[bytes]":
        if self._is_closed:
            result: "Future[bytes]" = Future()
            result.set_exception(NoPreview("the page is closed", False))
            return result
        job = self._jobs.get(source.entry.sha256) or self._begin(source)
        if is_asked:
            job.asked.add(width)
        return job.results.setdefault(width, Future())

    def _begin(self, source: Source) -> _Job:
        if len(self._waiting) >= MOST_WAITING:
            self._give_up(min(self._waiting, key=_age), "too many are asked for")
        job = self._jobs[source.entry.sha256] = _Job(source)
        self._waiting.append(job)
        self._condition.notify()
        return job

    def _give_up(self, job: _Job, why: str) -> None:
        for width in list(job.results):
            job.drop(width, why)
        self._forget(job)

    def _forget(self, job: _Job) -> None:
        self._jobs.pop(job.source.entry.sha256, None)
        if job in self._waiting:
            self._waiting.remove(job)

    # On a worker.

    def _run(self) -> None:
        _be_modest()
        while True:
            with self._condition:
                while not self._waiting and not self._is_closed:
                    self._condition.wait()
                if self._is_closed:
                    return
                job = max(self._waiting, key=_age)
                self._waiting.remove(job)
            self._do(job)

    def _do(self, job: _Job) -> None:
        developing = Developing(job.source)
        while True:
            with self._condition:
                if self._is_closed:
                    self._give_up(job, "the page is closed")
                if not job.results:
                    self._forget(job)
                    break
                if self._is_older(job):
                    self._waiting.append(job)
                    break
            self._make(job, developing)
        with self._condition:
            self._done += 1
            is_time = self._done % PRUNE_EVERY == 1
        if is_time:
            prune(cache_of(job.source.folder))

    def _is_older(self, job: _Job) -> bool:
        return any(_age(other) > _age(job) for other in self._waiting)

    def _make(self, job: _Job, developing: Developing) -> None:
        data, failure = None, NoPreview("it cannot be read")
        with self._condition:
            width, upto = job.next(), max(job.results)
        try:
            developing.decode(width, upto)
            with self._condition:
                width = job.next()  # somebody may have asked for another one meanwhile
            data = developing.preview(width)
        except NoPreview as error:
            failure = error
        except Exception:
            _log.exception("a preview of %s could not be made", job.source.entry.file)
        with self._condition:
            result = job.end(width)
            if data is not None:
                self._at_hand[job.source.entry.sha256, width] = data
                while len(self._at_hand) > AT_HAND:
                    self._at_hand.popitem(last=False)
        if data is None:
            result.set_exception(failure)
            return
        result.set_result(data)
        developing.keep()  # nobody waits for a slow disk
        if width == LARGEST:
            self._on_made(job.source.entry.n)


def _age(job: _Job) -> int:
    return job.source.entry.n


def _be_modest() -> None:
    """Gives this thread less of the processor than those that look after the camera."""
    try:
        if sys.platform == "win32":
            import ctypes

            kernel = ctypes.WinDLL("kernel32")
            kernel.GetCurrentThread.restype = ctypes.c_void_p
            kernel.SetThreadPriority.argtypes = (ctypes.c_void_p, ctypes.c_int)
            kernel.SetThreadPriority(kernel.GetCurrentThread(), -1)
        elif sys.platform == "linux":
            # There a thread is niced by its own number.
            os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), 10)
    except (OSError, AttributeError):
        _log.debug("previews are made at the usual priority")
