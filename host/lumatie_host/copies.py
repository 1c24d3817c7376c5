"""The second copy of each picture: written, read back, compared, and only then given its name.

A copier has a thread of its own, so a slow, full or missing drive never holds up the shoot. What
cannot be copied is told once and tried again until it works.
"""

import collections
import dataclasses
import errno
import hashlib
import heapq
import io
import itertools
import logging
import os
import platform
import re
import secrets
import sys
import threading
import time
from typing import Callable, Deque, Iterator, List, Optional, Tuple, TypeVar

from . import errors
from .files import candidates, flush_folder, is_inside, rename_new

LOG = logging.getLogger("lumatie_host")

BLOCK = 1 << 20  # bytes that are held in memory at a time
MOST_NAMES = 10_000  # tried for one picture before it is given up
GRACE = 0.5  # seconds for a thread that was told to stop

_TEMPORARY = ".lumatie-copy-"
_LEFT_OVER = re.compile(r"\.lumatie-copy-([0-9a-f]{8})-([0-9]+)-[0-9a-f]{16}")

OnCopied = Callable[[str, str, str, float], None]
OnFailed = Callable[[str, str], None]
Done = TypeVar("Done")


@dataclasses.dataclass
class _Job:
    path: str
    name: str
    sha256: str
    size: int
    added: float
    delay: float = 0.0  # seconds before the next try; 0: none failed yet
    told: bool = False  # on_failed was called


class _Stopped(Exception):
    """The time of close is over."""


class _Failure(Exception):
    """One picture cannot be copied now; others may."""


class _TargetFailure(_Failure):
    """Nothing can be copied now."""


class Copier:
    """Copies pictures into a second folder, on a thread of its own.

    Thread-safe. Names are given without replacing anything: a file that is there already and has
    the same content counts as the copy, beside another one " (2)" is added.

    A picture that fails is told of once and tried again, after `retry[0]` seconds at first, twice
    as long each time, `retry[1]` at most. While the target itself is missing, full or read-only
    the other pictures wait with it, untried. When the target lay on a drive of its own and that
    drive is away, its empty mount point gets nothing.

    Args:
        target: the folder of the copies; made when only its last part is missing.
        on_copied: called with the name, the complete path of the copy, its SHA-256 and the seconds
            since `add`, on the copier's thread.
        on_failed: called with the name and a text, once for each picture, on the copier's thread.
        source: the folder of the pictures; the copies must not lie in it.
        retry: the first and the longest pause in seconds.
        clock: seconds of a clock that never goes back.

    Raises:
        FolderRejected: the target is the source or lies in it, is no folder, has no name, or cannot
            be written.
    """

    def __init__(
        self,
        target: str,
        on_copied: OnCopied,
        on_failed: OnFailed,
        *,
        source: Optional[str] = None,
        retry: Tuple[float, float] = (1.0, 30.0),
        clock: Callable[[], float] = time.monotonic,
    ) -> None:
        if not target:
            raise errors.FolderRejected(target, "no folder was named")
        self._target = os.path.abspath(target)
        _check_target(self._target, source)
        self._mount = _mount_point(self._target)
        remove_left_overs(self._target)
        self._on_copied = on_copied
        self._on_failed = on_failed
        self._retry = retry
        self._clock = clock
        # Guards what follows; notified at each change.
        self._changed = threading.Condition()
        self._fresh: Deque[_Job] = collections.deque()
        self._aside: List[Tuple[float, int, _Job]] = []  # a heap: when to try again
        self._order = itertools.count()
        self._under_way: Optional[_Job] = None
        self._telling = False  # of the copy that was made last
        self._has_failed = False  # a drive that was pulled may have kept a temporary file
        self._pause = 0.0  # seconds; grows while the target fails
        self._not_before = 0.0  # on the clock; while the target fails
        self._closing = False
        self._stopped = False
        self._thread = threading.Thread(target=self._run, name="lumatie-copies", daemon=True)
        self._thread.start()

    def add(self, path: str, name: str, sha256: str, size: Optional[int] = None) -> None:
        """Takes a picture to copy, and returns at once.

        Args:
            path: of the picture.
            name: of the copy, relative to the target, with `/` between its parts.
            sha256: of the picture, in hex.
            size: in bytes, where it is known; it is looked up otherwise.

        Raises:
            ValueError: the name leads out of the target.
            Closed: after `close`.
        """
        if not is_inside(name):
            raise ValueError("no name of a copy: %r" % name)
        if size is None:
            size = _size_of(path)
        with self._changed:
            if self._closing:
                raise errors.Closed()
            self._fresh.append(_Job(path, name, sha256.lower(), size, self._clock()))
            self._changed.notify_all()

    @property
    def lag(self) -> Tuple[int, int]:
        """How many pictures, and bytes of them, wait or are under way."""
        with self._changed:
            jobs = self._waiting()
            return len(jobs), sum(job.size for job in jobs)

    def wait(self, seconds: float) -> bool:
        """Waits until nothing waits any more and all was told; says whether that came true.

        Args:
            seconds: how long it may take.
        """
        with self._changed:
            return self._changed.wait_for(
                lambda: not self._waiting() and not self._telling, seconds
            )

    def close(self, seconds: float) -> List[str]:
        """Ends the copying; the names of the pictures that were not copied are returned.

        What waits is copied as far as the time goes; what had failed is tried once more. With
        nothing that could still work, it returns earlier. Can be called again, and on any thread.

        Args:
            seconds: how long it may take; a copy that hangs in the system, half a second longer.
        """
        deadline = self._clock() + seconds
        with self._changed:
            if not self._closing:
                self._closing = True
                self._not_before = 0.0
                self._aside = [(0.0, number, job) for _, number, job in self._aside]
                heapq.heapify(self._aside)
                self._changed.notify_all()
        of_others = threading.current_thread() is not self._thread
        if of_others:
            self._thread.join(max(0.0, deadline - self._clock()))
        with self._changed:
            self._stopped = True
            self._changed.notify_all()
        if of_others:
            self._thread.join(GRACE)  # a system that hangs in a write is not waited for
        with self._changed:
            return [job.name for job in self._waiting()]

    def _waiting(self) -> List[_Job]:
        """All that are not copied yet; the lock is held."""
        jobs = [self._under_way] if self._under_way else []
        return [*jobs, *(job for _, _, job in sorted(self._aside)), *self._fresh]

    def _run(self) -> None:
        while True:
            job = self._next()
            if job is None:
                return
            try:
                to = self._copy(job)
            except _Stopped:
                return  # stays under way: it was not copied
            except _TargetFailure as failure:
                self._put_back(job, str(failure), of_target=True)
            except _Failure as failure:
                self._put_back(job, str(failure), of_target=False)
            except Exception as error:  # whatever it is, the thread has to live
                LOG.exception("the copy of %s failed unexpectedly", job.name)
                self._put_back(job, repr(error), of_target=False)
            else:
                self._finish(job, to)

    def _next(self) -> Optional[_Job]:
        """The job to do now, which is under way then; None: end."""
        with self._changed:
            while True:
                now = self._clock()
                due = self._due()
                if self._stopped or (self._closing and (due is None or due > now)):
                    return None  # what is left, if anything, failed again
                if due is not None and due <= now:
                    if self._aside and self._aside[0][0] <= now:
                        self._under_way = heapq.heappop(self._aside)[2]
                    else:
                        self._under_way = self._fresh.popleft()
                    return self._under_way
                self._changed.wait(None if due is None else due - now)

    def _due(self) -> Optional[float]:
        """When the next job can be done; None: there is none. The lock is held."""
        if self._fresh:
            return self._not_before
        if self._aside:
            return max(self._aside[0][0], self._not_before)
        return None

    def _put_back(self, job: _Job, text: str, *, of_target: bool) -> None:
        """Lets a job that failed wait, and tells of it when it is the first time."""
        first, longest = self._retry
        with self._changed:
            now = self._clock()
            if of_target:
                self._pause = min(max(first, self._pause * 2), longest)
                due = self._not_before = float("inf") if self._closing else now + self._pause
            else:
                job.delay = min(max(first, job.delay * 2), longest)
                due = float("inf") if self._closing else now + job.delay
            heapq.heappush(self._aside, (due, next(self._order), job))
            self._under_way = None
            self._has_failed = True
            tell, job.told = not job.told, True
            self._changed.notify_all()
        LOG.log(logging.WARNING if tell else logging.DEBUG, "no copy of %s: %s", job.name, text)
        if tell:
            _call("on_failed", lambda: self._on_failed(job.name, text))

    def _finish(self, job: _Job, to: str) -> None:
        with self._changed:
            self._pause = self._not_before = 0.0
            if self._stopped:
                return  # close has said that it was not copied
            self._under_way = None
            self._telling = True
            seconds = self._clock() - job.added
        _call("on_copied", lambda: self._on_copied(job.name, to, job.sha256, seconds))
        with self._changed:
            self._telling = False
            self._changed.notify_all()

    def _copy(self, job: _Job) -> str:
        """Makes one copy; returns its complete path."""
        self._check_target_is_there()
        if self._has_failed:
            _of_target(self._target, lambda: remove_left_overs(self._target))
            self._has_failed = False
        size = _of_source(job, lambda: os.stat(job.path).st_size)
        there = _of_name(job, lambda: self._equal_file(job, size))
        if there is not None:
            return there
        temporary, stream = _of_target(self._target, lambda: _new_temporary(self._target))
        try:
            with stream:
                self._fill(job, stream)
                self._verify(job, stream)
                if os.name != "nt":  # whose rename takes no open file
                    return self._give_name(job, temporary, size)
            return self._give_name(job, temporary, size)
        finally:
            _remove(temporary)

    def _check_target_is_there(self) -> None:
        if not os.path.isdir(self._target):
            raise _TargetFailure("the folder %s is not there" % self._target)
        if not os.path.ismount(self._mount):
            raise _TargetFailure("the drive of %s is not there" % self._target)

    def _fill(self, job: _Job, stream: io.FileIO) -> None:
        """Writes the picture's bytes to the disk, and checks that they are those recorded."""
        digest = hashlib.sha256()
        block = memoryview(bytearray(BLOCK))
        with _of_source(job, lambda: open(job.path, "rb", buffering=0)) as source:
            while True:
                self._stop_if_told()
                count = _of_source(job, lambda: source.readinto(block)) or 0
                if not count:
                    break
                digest.update(block[:count])
                _of_target(self._target, lambda: _write_all(stream, block[:count]))
        if digest.hexdigest() != job.sha256:
            raise _Failure("%s is not what it was when it came" % job.path)
        _of_target(self._target, lambda: _flush_to_disk(stream))

    def _verify(self, job: _Job, stream: io.FileIO) -> None:
        """Reads back what was written."""
        if _of_target(self._target, lambda: self._sha256(stream)) != job.sha256:
            raise _TargetFailure("what was written to %s reads otherwise" % self._target)

    def _give_name(self, job: _Job, temporary: str, size: int) -> str:
        """Gives the verified file the first name that is free, or finds an equal file."""
        self._stop_if_told()
        _of_name(job, lambda: _make_folders(self._target, job.name))
        for path in self._paths(job):
            try:
                _of_name(job, lambda: rename_new(temporary, path))
            except FileExistsError:
                if _of_name(job, lambda: self._is_equal(job, path, size)):
                    return path
            else:
                _flush_folder(os.path.dirname(path))
                return path
        raise _Failure("%s has no name left in %s" % (job.name, self._target))

    def _equal_file(self, job: _Job, size: int) -> Optional[str]:
        """The copy that is there already, under the name or a numbered one."""
        for path in self._paths(job):
            if not os.path.lexists(path):
                return None
            if self._is_equal(job, path, size):
                return path
        return None

    def _paths(self, job: _Job) -> Iterator[str]:
        """Of the names that the copy may get."""
        for name in itertools.islice(candidates(job.name), MOST_NAMES):
            yield os.path.join(self._target, *name.split("/"))

    def _is_equal(self, job: _Job, path: str, size: int) -> bool:
        """Whether a file is a copy of the picture; the picture itself by another name is none."""
        if not os.path.isfile(path) or os.path.getsize(path) != size:
            return False
        if os.path.samefile(path, job.path):
            raise _Failure("%s is the picture itself, not a copy" % path)
        with open(path, "rb", buffering=0) as stream:
            return self._sha256(stream) == job.sha256

    def _sha256(self, stream: io.FileIO) -> str:
        digest = hashlib.sha256()
        block = memoryview(bytearray(BLOCK))
        stream.seek(0)
        while True:
            self._stop_if_told()
            count = stream.readinto(block) or 0
            if not count:
                return digest.hexdigest()
            digest.update(block[:count])

    def _stop_if_told(self) -> None:
        with self._changed:
            if self._stopped:
                raise _Stopped


def remove_left_overs(folder: str) -> List[str]:
    """Removes the temporary files of processes of this machine that are gone; returns their names.

    Those of a process that lives, of another machine, and everything else stay.
    """
    removed = []
    for name in sorted(os.listdir(folder)):
        match = _LEFT_OVER.fullmatch(name)
        path = os.path.join(folder, name)
        if match is None or match.group(1) != _machine() or not os.path.isfile(path):
            continue
        if _is_left(path, int(match.group(2))) and _remove(path):
            removed.append(name)
            LOG.info("removed %s, which an earlier run had not finished", path)
    return removed


def _check_target(target: str, source: Optional[str]) -> None:
    """Raises FolderRejected when copies cannot go into the folder; makes it when it is missing."""
    if source is not None and _lies_in(target, os.path.abspath(source)):
        why = "the second copy has to lie outside the folder of the pictures"
        raise errors.FolderRejected(target, why)
    try:
        if not os.path.isdir(target):
            os.mkdir(target)
        temporary, stream = _new_temporary(target)
        stream.close()
        _remove(temporary)
    except OSError as error:
        raise errors.FolderRejected(target, _words(error)) from error


def _lies_in(path: str, folder: str) -> bool:
    """Whether a path, which need not exist, is the folder or lies in it, by whatever name."""
    path, folder = os.path.realpath(path), os.path.realpath(folder)
    while True:
        if os.path.normcase(path) == os.path.normcase(folder) or _same(path, folder):
            return True
        parent = os.path.dirname(path)
        if parent == path:
            return False
        path = parent


def _same(path: str, other: str) -> bool:
    try:
        return os.path.samefile(path, other)
    except OSError:
        return False


def _mount_point(path: str) -> str:
    path = os.path.realpath(path)
    while not os.path.ismount(path) and os.path.dirname(path) != path:
        path = os.path.dirname(path)
    return path


def _size_of(path: str) -> int:
    try:
        return os.path.getsize(path)
    except OSError:
        return 0  # told when its turn comes


def _make_folders(target: str, name: str) -> None:
    """Makes the folders of a name in the target, never the target itself."""
    folder = target
    for part in name.split("/")[:-1]:
        folder = os.path.join(folder, part)
        if os.path.isdir(folder):
            continue
        try:
            os.mkdir(folder)
        except FileExistsError:
            raise NotADirectoryError(errno.ENOTDIR, "%s is no folder" % folder) from None


def _machine() -> str:
    """Tells this machine's files from those of others on a shared drive."""
    return hashlib.sha256(platform.node().encode("utf-8", "replace")).hexdigest()[:8]


def _new_temporary(folder: str) -> Tuple[str, io.FileIO]:
    """A new file, which is locked as long as it is open."""
    while True:
        name = "%s%s-%d-%s" % (_TEMPORARY, _machine(), os.getpid(), secrets.token_hex(8))
        path = os.path.join(folder, name)
        stream = open(path, "x+b", buffering=0)  # noqa: SIM115  the caller closes it
        if _lock(stream) is not False:
            return path, stream
        stream.close()  # somebody who starts has just taken it for a left-over


def _write_all(stream: io.FileIO, data: memoryview) -> None:
    while data:
        data = data[stream.write(data) :]


def _flush_to_disk(stream: io.FileIO) -> None:
    """Returns when the disk has it, and lets the next read come from the disk where that works."""
    os.fsync(stream.fileno())
    if sys.platform.startswith("linux"):
        os.posix_fadvise(stream.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def _flush_folder(folder: str) -> None:
    """Makes a new name last through a power cut, where the system can."""
    try:
        flush_folder(folder)
    except OSError as error:
        LOG.debug("the folder %s was not flushed: %s", folder, error)


if sys.platform == "win32":

    def _lock(stream: io.FileIO) -> Optional[bool]:
        return True  # nobody can remove a file that is open

    def _is_left(path: str, process: int) -> bool:
        return True  # otherwise it cannot be removed

else:
    import fcntl

    def _lock(stream: io.FileIO) -> Optional[bool]:
        """Locks an open file; False: another one has it; None: there are no locks here."""
        try:
            fcntl.flock(stream.fileno(), fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return False
        except OSError:
            return None
        return True

    def _is_left(path: str, process: int) -> bool:
        """Whether the process that made a temporary file is gone."""
        try:
            with open(path, "rb", buffering=0) as stream:
                locked = _lock(stream)
        except OSError:
            return False
        return _is_gone(process) if locked is None else locked

    def _is_gone(process: int) -> bool:
        try:
            os.kill(process, 0)
        except ProcessLookupError:
            return True
        except (OSError, OverflowError):
            return False
        return False


def _remove(path: str) -> bool:
    """Removes a file of our own; what cannot be removed is left to the next start."""
    try:
        os.unlink(path)
    except OSError:
        return False
    return True


def _of_source(job: _Job, do: Callable[[], Done]) -> Done:
    """Does something that reads the picture; its failure concerns no other one."""
    try:
        return do()
    except OSError as error:
        raise _Failure("%s cannot be read: %s" % (job.path, _words(error))) from error


def _of_target(target: str, do: Callable[[], Done]) -> Done:
    """Does something with a file of our own in the target; its failure concerns all pictures."""
    try:
        return do()
    except OSError as error:
        text = "the copy cannot be written to %s: %s" % (target, _words(error))
        raise _TargetFailure(text) from error


def _of_name(job: _Job, do: Callable[[], Done]) -> Done:
    """Does something with the copy's name, which the target's file system may refuse."""
    try:
        return do()
    except FileExistsError:
        raise
    except OSError as error:
        raise _Failure("the copy %s cannot be made: %s" % (job.name, _words(error))) from error


def _words(error: OSError) -> str:
    return error.strerror or str(error)


def _call(what: str, call: Callable[[], None]) -> None:
    """Calls somebody else's function, whose errors are no reason to stop copying."""
    try:
        call()
    except Exception:
        LOG.exception("%s raised", what)
