"""Waiting with a deadline: in the order of coming, and for results."""

import collections
import contextlib
import os
import queue
import threading
import time
from concurrent.futures import Future
from concurrent.futures import TimeoutError as FutureTimeout
from typing import Any, Callable, Deque, Iterator, Optional, TypeVar

from .errors import Closed, TetherError

# A wait without end would not notice Ctrl-C on Windows.
_PORTION = 0.1 if os.name == "nt" else 3600.0

Result = TypeVar("Result")


class Turns:
    """Lets one thread in at a time, in the order in which they came. Any thread may call."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._waiting: Deque[object] = collections.deque()
        self._is_closed = False

    @contextlib.contextmanager
    def turn(self, deadline: float, late: Callable[[], TetherError]) -> Iterator[None]:
        """Waits for its turn until `deadline` of the monotonic clock, and has it in the block.

        Raises what `late` gives when the time is over, and Closed after `close`.
        """
        ticket = object()
        with self._changed:
            self._waiting.append(ticket)
        try:
            with self._changed:
                while not self._is_closed and self._waiting[0] is not ticket:
                    left = deadline - time.monotonic()
                    if left <= 0:
                        raise late()
                    self._changed.wait(min(left, _PORTION))
                if self._is_closed:
                    raise Closed
            yield
        finally:
            with self._changed:
                self._waiting.remove(ticket)
                self._changed.notify_all()

    def close(self) -> None:
        """Sends all away who wait."""
        with self._changed:
            self._is_closed = True
            self._changed.notify_all()


def taken(items: "queue.SimpleQueue[Any]", timeout: Optional[float]) -> Any:
    """The next of a queue that one thread alone takes from; raises queue.Empty after `timeout`.

    Before 3.11 a wait whose time is over as it begins may last for ever: not behind a look.
    """
    try:
        return items.get_nowait()
    except queue.Empty:
        if timeout is not None and timeout <= 0:
            raise
    return items.get(timeout=timeout)


class Late(Exception):
    """The deadline has passed. Not a TimeoutError, which what is waited for may raise itself."""


def wait_for(future: "Future[Result]", deadline: float) -> Result:
    """A future's result, waited for until `deadline` of the monotonic clock.

    Raises what the future raises, and Late at the deadline.
    """
    while True:
        left = deadline - time.monotonic()
        try:
            return future.result(max(0.0, min(left, _PORTION)))
        except FutureTimeout:
            if future.done():  # its own error, or it came at this moment
                return future.result()
            if left <= _PORTION:
                raise Late from None
