"""Brings a ledger to the broker: each record at least once, in order, and none forgotten."""

import itertools
import logging
import time
from typing import Any, Callable, Dict, Mapping, Optional

from ..errors import TetherError
from ..ledger import Ledger
from . import messages
from .memory import Memory

WINDOW = 64  # records that the broker has not acknowledged yet
REMEMBER_EVERY = 0.5  # seconds between two notes of how far the broker is

_log = logging.getLogger("lumatie_host")

# Sends a record; the message's number, or None when that cannot be done now.
Send = Callable[[Mapping[str, Any]], Optional[int]]


class Publisher:
    """How far the broker has got a ledger. One thread at a time.

    Args:
        say: called with words for the person at the station.
    """

    def __init__(
        self, ledger: Ledger, memory: Memory, send: Send, say: Callable[[str], None]
    ) -> None:
        self._ledger = ledger
        self._memory = memory
        self._send = send
        self._say = say
        self._sent = self._acknowledged = min(memory.acknowledged, self._newest())
        self._under_way: Dict[int, int] = {}  # message to record
        self._noted_at = 0.0
        self._held_until = 0.0

    @property
    def left(self) -> int:
        """How many records the broker has not acknowledged."""
        return max(0, self._ledger.last - self._acknowledged)

    def begin_anew(self) -> None:
        """The connection is another one: what was not acknowledged is sent again."""
        self._under_way.clear()
        self._sent = self._acknowledged

    def pump(self) -> None:
        """Sends what may be sent now."""
        room = WINDOW - len(self._under_way)
        if room <= 0 or time.monotonic() < self._held_until:
            return
        try:
            for record in itertools.islice(self._ledger.read(self._sent), room):
                if not self._publish(record):
                    return
        except TetherError as error:
            _log.warning("the ledger cannot be read: %s", error)

    def acknowledge(self, message: int, is_taken: bool) -> None:
        """The broker has answered for a message."""
        record = self._under_way.pop(message, None)
        if record is None:
            return
        if not is_taken:
            self._say(
                "The broker does not take this station's records. Look at its access list: a "
                "station may write its own branch, with its name as user name."
            )
            self.begin_anew()
            self._held_until = time.monotonic() + 10.0
            return
        self._advance()

    def remember(self, at_once: bool = False) -> None:
        """Notes on the disk how far the broker is, not too often."""
        is_new = self._acknowledged != self._memory.acknowledged
        if is_new and (at_once or time.monotonic() - self._noted_at > REMEMBER_EVERY):
            self._noted_at = time.monotonic()
            try:
                self._memory.acknowledge(self._acknowledged)
            except OSError as error:
                _log.warning("it cannot be noted how far the broker is: %s", error)

    def _publish(self, record: Mapping[str, Any]) -> bool:
        # The studio asks the station's own server for those that are too long for the broker.
        is_short = len(messages.encode(record)) <= messages.LONGEST - 4096
        if is_short and record["kind"].isidentifier():
            message = self._send(record)
            if message is None:
                return False
            self._under_way[message] = record["n"]
        self._sent = record["n"]
        self._advance()
        return True

    def _advance(self) -> None:
        oldest = min(self._under_way.values(), default=self._sent + 1)
        self._acknowledged = max(self._acknowledged, oldest - 1)

    def _newest(self) -> int:
        with self._ledger.exclusive():
            return self._ledger.last
