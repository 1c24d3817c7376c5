"""Hands events to those who listen, and lets none of them delay the session or each other.

Each listener has a mailbox of its own with a limit. Of the events about one setting only the
newest waits there. When a mailbox overflows, the older half of what waits is replaced with one
`Lagged`, which names the numbers under which the ledger has all of it: the numbers that a listener
sees, those of a `Lagged` included, have no gap but for settings that a newer event stands for.
An alarm that is in no ledger, because nothing can be recorded, is kept: of several the newest.

Everything here may be called on any thread. No lock is held while a listener's code runs.
"""

import collections
import logging
import os
import threading
import time
import weakref
from typing import Callable, Deque, Iterable, Iterator, Optional, Tuple, Union

from .events import Alarm, Event, Lagged, SettingChanged

Heard = Union[Event, Lagged]

LIMIT = 1000  # events that wait for one listener

# A wait without end would not notice Ctrl-C on Windows.
_PORTION = 0.1 if os.name == "nt" else None

_log = logging.getLogger("lumatie_host")


class Mailbox:
    """The events that wait for one listener.

    Args:
        limit: how many events may wait.
        on_ready: called when something waits, or nothing more will come, after nothing did; on the
            thread that brought it, so it should only pass that on.
    """

    def __init__(self, limit: int = LIMIT, on_ready: Optional[Callable[[], None]] = None) -> None:
        self._limit = max(2, limit)
        self._on_ready = on_ready
        self._condition = threading.Condition()
        self._waiting: Deque[Heard] = collections.deque()
        self._is_closed = False

    def put(self, event: Event) -> None:
        """Adds an event; does nothing once the mailbox is closed."""
        with self._condition:
            if self._is_closed:
                return
            was_empty = not self._waiting
            if isinstance(event, SettingChanged):
                self._forget_setting(event.name)
            self._waiting.append(event)
            if len(self._waiting) > self._limit:
                self._give_up_half()
            self._condition.notify()
        if was_empty:
            self._tell()

    def close(self) -> None:
        """Ends it: what waits can still be taken, and nothing more comes."""
        with self._condition:
            if self._is_closed:
                return
            self._is_closed = True
            self._condition.notify_all()
        self._tell()

    def clear(self) -> None:
        """Drops what waits."""
        with self._condition:
            self._waiting.clear()

    @property
    def is_over(self) -> bool:
        """Whether it is closed and nothing waits."""
        with self._condition:
            return self._is_closed and not self._waiting

    def take(self, timeout: Optional[float] = None) -> Optional[Heard]:
        """The next event; waits for one, up to `timeout` seconds or, with None, for as long as it
        takes. None when there is none in time, or none will come.
        """
        end = None if timeout is None else time.monotonic() + timeout
        with self._condition:
            while not self._waiting and not self._is_closed:
                left = None if end is None else end - time.monotonic()
                if left is not None and left <= 0:
                    return None
                self._condition.wait(
                    _PORTION if left is None or (_PORTION and left > _PORTION) else left
                )
            return self._waiting.popleft() if self._waiting else None

    def _forget_setting(self, name: str) -> None:
        """Takes out what waits about a setting. (At most one event does.)"""
        for index in range(len(self._waiting) - 1, -1, -1):
            event = self._waiting[index]
            if isinstance(event, SettingChanged) and event.name == name:
                del self._waiting[index]
                return

    def _give_up_half(self) -> None:
        older = [self._waiting.popleft() for _ in range(len(self._waiting) // 2)]
        given_up = [event for event in older if _is_in_ledger(event)]
        self._waiting.extendleft([event for event in older if not _is_in_ledger(event)][-1:])
        if not given_up:
            return
        first, last = given_up[0], given_up[-1]
        self._waiting.appendleft(
            Lagged(
                first.first if isinstance(first, Lagged) else first.n,
                last.last if isinstance(last, Lagged) else last.n,
            )
        )

    def _tell(self) -> None:
        if self._on_ready is not None:
            try:
                self._on_ready()
            except Exception:
                _log.exception("a listener could not be woken")


class Subscribers:
    """All listeners of one session."""

    def __init__(self, limit: int = LIMIT) -> None:
        self._limit = limit
        self._lock = threading.Lock()
        # A mailbox lives as long as somebody takes from it. Replaced, never changed: reading them
        # needs no lock.
        self._mailboxes: "Tuple[weakref.ref[Mailbox], ...]" = ()
        self._is_closed = False

    def publish(self, event: Event) -> None:
        """Gives an event to all who listen now."""
        for reference in self._mailboxes:
            mailbox = reference()
            if mailbox is not None:
                mailbox.put(event)

    def mailbox(self, on_ready: Optional[Callable[[], None]] = None) -> Mailbox:
        """A new mailbox, which gets the events from now on for as long as it is kept."""
        mailbox = Mailbox(self._limit, on_ready)
        with self._lock:
            is_closed = self._is_closed
            if not is_closed:
                self._mailboxes = (*self._without(None), weakref.ref(mailbox))
        if is_closed:
            mailbox.close()
        return mailbox

    def remove(self, mailbox: Mailbox) -> None:
        """Has a mailbox get nothing more; what waits in it stays."""
        with self._lock:
            self._mailboxes = self._without(mailbox)
        mailbox.close()

    def subscribe(self, listener: Callable[[Heard], object]) -> Callable[[], None]:
        """Calls the listener with each event from now on, on a thread of its own.

        What it raises is logged, and the next event comes all the same. The function that is
        returned ends it: what waits is dropped, and no call begins afterwards; one that is under
        way is not waited for, so it may be called inside the listener, too.
        """
        mailbox = self.mailbox()
        thread = threading.Thread(
            target=_deliver, args=(mailbox, listener), name="lumatie-subscriber", daemon=True
        )
        thread.start()

        def unsubscribe() -> None:
            self.remove(mailbox)
            mailbox.clear()

        return unsubscribe

    def close(self) -> None:
        """Ends all of them, once they have taken what waits for them. Waits for nobody."""
        with self._lock:
            self._is_closed = True
            mailboxes, self._mailboxes = self._mailboxes, ()
        for reference in mailboxes:
            mailbox = reference()
            if mailbox is not None:
                mailbox.close()

    def _without(self, mailbox: Optional[Mailbox]) -> "Tuple[weakref.ref[Mailbox], ...]":
        """Those that are there but this one, with the lock held."""
        return tuple(one for one in self._mailboxes if one() not in (None, mailbox))


class EventIterator(Iterator[Heard]):
    """Iterates over events as they come; ends when the session is closed.

    One thread at a time may use it. Dropped, it costs nothing any more.
    """

    def __init__(self, mailbox: Mailbox, earlier: Iterable[Event] = ()) -> None:
        """For `Session.events`."""
        self._mailbox = mailbox
        self._earlier: Optional[Iterator[Event]] = iter(earlier)
        self._seen = 0

    def __iter__(self) -> "EventIterator":
        return self

    def __next__(self) -> Heard:
        event = self.next()
        if event is None:
            raise StopIteration
        return event

    def next(self, timeout: Optional[float] = None) -> Optional[Heard]:
        """The next event, waited for up to `timeout` seconds; None when there is none in time, or
        none will come.
        """
        if self._earlier is not None:
            for earlier in self._earlier:
                self._seen = earlier.n
                return earlier
            self._earlier = None
        while True:
            event = self._mailbox.take(timeout)
            if event is None or not _is_in_ledger(event):
                return event
            # What was read from the ledger may wait in the mailbox, too.
            if self._seen < (event.last if isinstance(event, Lagged) else event.n):
                return event

    def close(self) -> None:
        """Ends the iteration; may be called on any thread."""
        self._mailbox.close()
        self._mailbox.clear()


def _is_in_ledger(event: Heard) -> bool:
    return not isinstance(event, Alarm) or event.is_recorded


def _deliver(mailbox: Mailbox, listener: Callable[[Heard], object]) -> None:
    while True:
        event = mailbox.take()
        if event is None:
            return
        try:
            listener(event)
        except BaseException:  # SystemExit, too: it would end this thread and nothing else
            _log.exception("a subscriber failed at %r", event)
        del event
