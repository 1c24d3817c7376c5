"""Records what happens, and tells it then: in that order, and in the order of the numbers."""

import datetime
import logging
import threading
from typing import Any, Callable, Iterable, Optional

from .errors import TetherError, WriteFailed
from .events import Alarm, Event, Picture
from .ledger import Ledger
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
        with self._lock:
            try:
                event = self._ledger.append(kind, **fields)
            except WriteFailed as error:
                if must:
                    raise
                self._tell_unwritable(error)
            else:
                self._is_unwritable = False
                self._subscribers.publish(event)

    def announce_picture(self, settle: Callable[[], Picture]) -> Picture:
        """Tells of the picture that a function records; raises what it raises."""
        with self._lock:
            picture = settle()
            self._subscribers.publish(picture)
            return picture

    def tell_recorded(self, recorded: Iterable[Event]) -> None:
        """Tells of what is recorded already, in the order of the numbers."""
        with self._lock:
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

    def _tell_unwritable(self, error: WriteFailed) -> None:
        if self._is_unwritable:
            return
        self._is_unwritable = True
        _log.error("nothing can be recorded: %s", error)
        now = datetime.datetime.now(datetime.timezone.utc)
        last = self._ledger.last
        self._subscribers.publish(Alarm(last, now, str(error), error.advice, is_recorded=False))
