"""Brings answers to the broker: each again, until the broker has it or it is too old."""

import dataclasses
import logging
from typing import Callable, List, Optional

from .clock import now

KEPT = 60.0  # seconds

_log = logging.getLogger("lumatie_host")

# Sends to a topic, with correlation data; the message's number, or None: it cannot be sent now.
Send = Callable[[str, Optional[bytes], bytes], Optional[int]]


@dataclasses.dataclass
class _Answer:
    topic: str
    correlation: Optional[bytes]
    payload: bytes
    until: float
    number: Optional[int] = None  # of its message; None: it has to be sent


class Answers:
    """Answers that the broker has not acknowledged. One thread at a time.

    A command's answer may come twice; it is never carried out for that.
    """

    def __init__(self, send: Send) -> None:
        self._send = send
        self._waiting: List[_Answer] = []

    @property
    def left(self) -> int:
        """How many the broker has not got."""
        return len(self._waiting)

    def put(self, topic: str, correlation: Optional[bytes], payload: bytes) -> None:
        """An answer, which `pump` sends."""
        self._waiting.append(_Answer(topic, correlation, payload, now() + KEPT))

    def begin_anew(self) -> None:
        """The connection is another one: what was not acknowledged is sent again."""
        for answer in self._waiting:
            answer.number = None

    def pump(self) -> None:
        """Sends what may be sent now, and forgets what is too old."""
        while self._waiting and now() > self._waiting[0].until:
            _log.info("an answer to %s came to nobody", self._waiting.pop(0).topic)
        for answer in self._waiting:
            if answer.number is None:
                answer.number = self._send(answer.topic, answer.correlation, answer.payload)
                if answer.number is None:
                    return

    def acknowledge(self, message: int) -> None:
        """The broker has answered for a message; one that it does not allow is not sent again."""
        for answer in self._waiting:
            if answer.number == message:
                self._waiting.remove(answer)
                return
