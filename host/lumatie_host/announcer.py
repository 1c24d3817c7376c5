"""Records what happens, and tells it then: in that order, and in the order of the numbers."""

import contextlib
import datetime
import logging
import threading
from typing import Any, Callable, Iterable, Iterator, Optional

from .errors import TetherError, WriteFailed
from .events import Alarm, Event, Picture
from .ledger import PATIENCE, Ledger
from .subscribers import Subscribers

_log = logging.getLogger("lumatie_host")


class Announcer:
    """The way from a session to its ledger and its listeners. Any thread may call."""

    def __init__(self, ledger: Ledger, subscribers: Subscribers) -> None:
        self._ledger = ledger
        self._subscribers = subscribers
        self._lock = threading.Lock()  # whose record comes first is told first
        self._is_unwritable = False

    def announce(self, kind: str, *, must: bool = False, **fields: Any) -> None:
        """Records something, and tells it then; what cannot be recorded is not told.

        With `must` it raises WriteFailed; otherwise there is one alarm, which nobody can record.
        """
        try:
            with self._turn():
                event = self._ledger.append(kind, **fields)
                self._is_unwritable = False
                self._subscribers.publish(event)
        except WriteFailed as error:
            if must:
                raise
            self._tell_unwritable(error)

    def announce_picture(self, settle: Callable[[], Picture]) -> Picture:
        """Tells of the picture that a function records; raises what it raises, and WriteFailed."""
        with self._turn():
            picture = settle()
            self._subscribers.publish(picture)
            return picture

    def tell_recorded(self, recorded: Iterable[Event]) -> None:
        """Tells of what is recorded already, in the order of the numbers; raises WriteFailed."""
        with self._turn():
            for event in sorted(recorded, key=lambda event: event.n):
                self._subscribers.publish(event)

    def announce_failure(
        self, error: TetherError, shot: Optional[int] = None, file: Optional[str] = None
    ) -> None:
        """Records and tells that a shot has failed, or a picture is lost."""
        self.announce(
            "failed",
            reason=error.reason.value,
            advice=error.advice,
            text=str(error),
            shot=shot,
            file=file,
        )

    @contextlib.contextmanager
    def _turn(self) -> Iterator[None]:
        """Raises WriteFailed when the one before does not end."""
        if not self._lock.acquire(timeout=PATIENCE):
            raise WriteFailed("another record waits for the disk, for %g s by now" % PATIENCE)
        try:
            yield
        finally:
            self._lock.release()

    def _tell_unwritable(self, error: WriteFailed) -> None:
        if self._is_unwritable:
            return
        self._is_unwritable = True
        _log.error("nothing can be recorded: %s", error)
        now = datetime.datetime.now(datetime.timezone.utc)
        last = self._ledger.last
        self._subscribers.publish(Alarm(last, now, str(error), error.advice, is_recorded=False))
