"""Locks that processes share: on a file, given back by the system however a process ends."""

import contextlib
import errno
import os
import sys
import threading
import time
import weakref
from typing import Iterator

if sys.platform == "win32":
    import msvcrt
else:
    import fcntl

_PAUSE = 0.002  # seconds between two looks at a lock that another process has

# What a lock in use is called; Wine gives no number.
_LOCKED = (errno.EACCES, errno.EAGAIN, errno.EDEADLK, 0)

_OPEN = os.O_RDWR | getattr(os, "O_BINARY", 0) | getattr(os, "O_NOINHERIT", 0)


def open_to_lock(path: str, create: bool = True) -> int:
    """A descriptor of a file to lock, not handed on to child processes; raises OSError."""
    return os.open(path, _OPEN | (os.O_CREAT if create else 0), 0o666)


def try_lock(descriptor: int) -> bool:
    """Locks an open file for its descriptor alone; False when it is locked already."""
    try:
        if sys.platform == "win32":
            os.lseek(descriptor, 0, os.SEEK_SET)
            msvcrt.locking(descriptor, msvcrt.LK_NBLCK, 1)
        else:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError as error:
        if error.errno in _LOCKED:
            return False
        raise
    return True


def unlock(descriptor: int) -> None:
    """Gives a lock back."""
    if sys.platform == "win32":
        os.lseek(descriptor, 0, os.SEEK_SET)
        msvcrt.locking(descriptor, msvcrt.LK_UNLCK, 1)
    else:
        # Not by closing alone: a child made by fork may have the descriptor, too.
        fcntl.flock(descriptor, fcntl.LOCK_UN)


class SharedLock:
    """A lock that one thread of one process on this computer holds at a time.

    A thread that holds it may take it again. Any thread may call.
    """

    def __init__(self, path: str) -> None:
        """Use `of`: two locks of one process on one file would shut each other out."""
        self._path = path
        self._threads = threading.RLock()  # guards the two below
        self._depth = 0
        self._descriptor = -1

    @staticmethod
    def of(path: str) -> "SharedLock":
        """The lock on the file of that path, which is made when it is first held."""
        key = os.path.normcase(os.path.realpath(path))
        with _known_guard:
            lock = _known.get(key)
            if lock is None:
                lock = _known[key] = SharedLock(key)
            return lock

    @contextlib.contextmanager
    def held(self, seconds: float, is_reader: bool = False) -> Iterator[bool]:
        """Holds the lock; yields whether this thread did not hold it before.

        A reader makes no file: where there is none that it may lock, it shuts out the threads of
        its own process alone.

        Raises TimeoutError when it cannot be had within `seconds`, OSError when the file cannot
        be opened.
        """
        deadline = time.monotonic() + seconds
        if not self._threads.acquire(timeout=seconds):
            raise TimeoutError("another thread has held %s for %g s" % (self._path, seconds))
        try:
            if self._descriptor < 0:
                self._descriptor = self._locked(deadline, seconds, is_reader)
            self._depth += 1
            try:
                yield self._depth == 1
            finally:
                self._depth -= 1
                if self._depth == 0 and self._descriptor >= 0:
                    descriptor, self._descriptor = self._descriptor, -1
                    _close(descriptor)
        finally:
            self._threads.release()

    def _locked(self, deadline: float, seconds: float, is_reader: bool) -> int:
        """A descriptor that has the lock; -1 for a reader who cannot have one."""
        try:
            return self._waited_for(deadline, seconds, create=not is_reader)
        except TimeoutError:
            raise
        except OSError:
            if is_reader:
                return -1
            raise

    def _waited_for(self, deadline: float, seconds: float, create: bool) -> int:
        # Opened each time: the disk may have been away, and the file be another one by now.
        descriptor = open_to_lock(self._path, create)
        try:
            while not try_lock(descriptor):
                if time.monotonic() > deadline:
                    raise TimeoutError(
                        "another program has held %s for %g s" % (self._path, seconds)
                    )
                time.sleep(_PAUSE)
        except BaseException:
            os.close(descriptor)
            raise
        return descriptor


def _close(descriptor: int) -> None:
    try:
        unlock(descriptor)
    finally:
        os.close(descriptor)


_known: "weakref.WeakValueDictionary[str, SharedLock]" = weakref.WeakValueDictionary()
_known_guard = threading.Lock()
