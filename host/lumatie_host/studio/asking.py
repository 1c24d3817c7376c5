"""The studio's commands to its stations, and their answers. Any thread may call.

A command goes once, or not at all: nothing that could not be sent now waits for later.
"""

import contextlib
import math
import secrets
import threading
from concurrent.futures import Future, InvalidStateError
from typing import Any, Callable, Dict, Mapping, NamedTuple, Optional

from ..errors import Reason
from . import messages
from .broker import Connection, Message
from .clock import now
from .problems import NotDone
from .topics import Branch, parse

FIRING_EXPIRY = 2  # seconds that a shutter request may be under way; others: while somebody waits

Answer = Dict[str, Any]


class Answered(NamedTuple):
    """An answer, and when the command went and the answer came, on the studio's clock."""

    answer: Answer
    sent: float
    heard: float


class _Asked(NamedTuple):
    station: str
    sent: float
    until: float
    result: "Future[Answered]"


class Asking:
    """Commands under way.

    Args:
        since: what a request to a station tells of its age, None while that is not known.
    """

    def __init__(
        self, studio: str, client: str, since: Callable[[str], Optional[Mapping[str, Any]]]
    ) -> None:
        self._studio = studio
        self._client = client
        self._since = since
        self._lock = threading.Lock()  # guards the next one
        self._asked: Dict[bytes, _Asked] = {}

    def ask(
        self,
        connection: Connection,
        station: str,
        operation: str,
        request: Mapping[str, Any],
        patience: float,
    ) -> "Future[Answered]":
        """Sends a command; the future gets the answer whatever it is, or NotDone.

        It is cancelled when there is none within so many seconds.
        """
        result: "Future[Answered]" = Future()
        correlation = secrets.token_bytes(12)
        message = dict(request)
        branch = Branch(self._studio, station)
        with self._lock:
            moment = now()
            self._asked[correlation] = _Asked(station, moment, moment + patience, result)
        result.add_done_callback(lambda _: self._forget(correlation))
        expiry = math.ceil(patience)
        if operation in messages.FIRING:
            expiry = FIRING_EXPIRY
            since = self._since(station)
            if since is None:
                result.set_exception(_not_done(station, "it is not known how late it is there"))
                return result
            message["since"] = since
        number = connection.publish(
            branch.command(operation),
            messages.encode(message),
            expiry=expiry,
            response=branch.reply(self._client),
            correlation=correlation,
        )
        if number is None and not result.done():
            result.set_exception(_not_done(station, "the broker is not there"))
        return result

    def heard(self, message: Message) -> None:
        """Something has come on the topic of our answers."""
        topic = parse(message.topic)
        if topic is None or topic.name != self._client or message.is_retained:
            return
        with self._lock:
            asked = self._asked.get(message.correlation or b"")
        if asked is None or asked.station != topic.station or asked.result.done():
            return
        try:
            answer = messages.decode(message.payload)
        except messages.Rubbish:
            return
        with contextlib.suppress(InvalidStateError):  # nobody waits any more
            asked.result.set_result(Answered(answer, asked.sent, now()))

    def look(self) -> None:
        """Gives up what has not been answered in time; to be called now and then."""
        moment = now()
        with self._lock:
            late = [one.result for one in self._asked.values() if one.until < moment]
        for result in late:
            result.cancel()

    def wait(self, result: "Future[Answered]", station: str, seconds: float) -> Answered:
        """The answer; raises NotDone when there is none in time."""
        try:
            return result.result(seconds)
        except NotDone:
            raise
        except Exception:  # of two classes, by version
            result.cancel()
            raise _not_done(station, "no answer within %g seconds" % seconds) from None

    def _forget(self, correlation: bytes) -> None:
        with self._lock:
            self._asked.pop(correlation, None)


def checked(station: str, answer: Answer) -> Answer:
    """The answer of what was done; raises NotDone with what the station says else."""
    if answer.get("ok") is True:
        return answer
    text, advice = str(answer.get("error", "it was refused")), str(answer.get("advice", ""))
    raise NotDone(station, text, messages.reason_of(answer), advice)


def _not_done(station: str, text: str) -> NotDone:
    return NotDone(station, text, Reason.NO_ANSWER, "Look after the station and its network.")
