"""What a station is asked to do: taken once, answered, and never done late or twice."""

import collections
import contextlib
import logging
import math
import queue
import threading
import time
from typing import Any, Callable, Dict, Iterator, Mapping, NamedTuple, Optional, Tuple

from ..errors import Reason, TetherError, TooLate
from ..events import to_record
from ..page import wishes
from ..page.fields import Fields
from ..page.problems import Problem
from ..page.sequence import Sequences
from ..session import Session
from ..settings import Setting
from ..shots import Shot
from . import ages, messages
from .broker import Message
from .clock import now
from .memory import KEPT, Memory
from .topics import Branch, may_answer_to

MOST_WAITING = 32
MOST_REMEMBERED = 1000
MOST_REFUSALS = 100  # that are told without a command between them that was carried out

_FIELDS = {
    "set": {"name", "text", "key", "timeout"},
    "shoot": {"pair", "timeout"},
    "tag": {"tag"},
    "rate": {"n", "file", "rating", "label"},
    "sequence": {"kind", "count", "every", "setting", "values", "frames", "steps"},
    "stop": set(),
    "enter": {"token"},
}

_log = logging.getLogger("lumatie_host")

Answer = Dict[str, Any]
OnAnswer = Callable[[str, Optional[bytes], Answer], None]


class NotTaken(TetherError):
    """A command that is not carried out; `shot` is the number of the one that failed for it."""

    def __init__(self, text: str, advice: str, shot: Optional[int] = None) -> None:
        self.shot = shot
        super().__init__(text, Reason.REFUSED, advice, text, advice, shot)


class _Command(NamedTuple):
    operation: str
    request: Dict[str, Any]
    message: Message
    received: float  # on the station's clock
    not_before: Optional[float]  # it was not made before this moment of it, as far as can be told
    not_after: float  # the moment of it at which its message has expired, at the earliest
    key: str


class Commands:
    """Takes the commands of one station.

    Shots have a thread of their own, so that a setting does not wait for a picture.

    Args:
        sequences: those of the station's page; their frames are the station's own acts.
        answer: called with a response topic, correlation data and the answer.
        admit: called with a token that opens the station's web server from then on.
        say: called with words for the person at the station.
    """

    def __init__(
        self,
        session: Session,
        sequences: Sequences,
        branch: Branch,
        memory: Memory,
        ticks: ages.Ticks,
        answer: OnAnswer,
        admit: Callable[[str], None],
        say: Callable[[str], None],
    ) -> None:
        self._session = session
        self._sequences = sequences
        self._branch = branch
        self._memory = memory
        self._ticks = ticks
        self._answer = answer
        self._admit = admit
        self._say = say
        self._lock = threading.Lock()  # guards the next ones
        self._refusals = 0  # since a command was carried out
        self._known: "collections.OrderedDict[str, Tuple[float, Optional[Answer]]]"
        self._known = collections.OrderedDict()  # key to moment and answer; None: under way
        self._shots: "queue.Queue[Optional[_Command]]" = queue.Queue(MOST_WAITING)
        self._others: "queue.Queue[Optional[_Command]]" = queue.Queue(MOST_WAITING)
        for waiting, name in ((self._shots, "shots"), (self._others, "commands")):
            threading.Thread(
                target=self._work, args=(waiting,), name="lumatie-" + name, daemon=True
            ).start()

    def take(self, operation: str, message: Message) -> None:
        """A command has come. Returns at once."""
        received = now()
        try:
            command = self._checked(operation, message, received)
            if command is None:
                return
            try:
                (self._shots if operation in messages.FIRING else self._others).put_nowait(command)
            except queue.Full:
                with self._lock:
                    self._known.pop(command.key, None)
                raise NotTaken("too many commands wait", "Ask again in a moment.") from None
        except TetherError as error:
            self._tell_refusal("A command was refused: %s." % error)
            self._reply(message, {"operation": operation, **messages.failure(error)})

    def close(self) -> None:
        """Takes nothing more; what is under way is not waited for."""
        for waiting in (self._shots, self._others):
            try:
                while True:
                    waiting.get_nowait()
            except queue.Empty:
                waiting.put(None)

    def _checked(self, operation: str, message: Message, received: float) -> Optional[_Command]:
        """The command; None for one that is known already. Raises TetherError."""
        if message.is_retained:
            raise NotTaken("it is retained, which no command may be", "Send it without that mark.")
        if operation not in _FIELDS:
            raise NotTaken(
                "there is no operation %.40r" % operation,
                "There are %s." % ", ".join(name for name in _FIELDS if name != "enter"),
            )
        if not message.correlation:
            raise NotTaken("it has no correlation data", "Give each command some of its own.")
        if message.response and not may_answer_to(message.response, self._branch):
            raise NotTaken(
                "answers cannot go to %.80r" % message.response,
                "Name a response topic like %s." % self._branch.reply("NAME"),
            )
        key = "%s %s %s" % (operation, message.correlation.hex(), message.response or "")
        if self._is_known(key, message):
            return None
        try:
            request = self._request(operation, message)
            not_before = self._not_before(operation, request, message)
        except BaseException:
            with self._lock:
                self._known.pop(key, None)
            raise
        left = self._left_after(message)
        not_after = math.inf
        if message.expiry is not None:
            not_after = (received if left is None else left) + message.expiry
        return _Command(operation, request, message, received, not_before, not_after, key)

    def _is_known(self, key: str, message: Message) -> bool:
        """Whether it is done or under way; what is done is answered from memory."""
        moment = time.monotonic()
        with self._lock:
            while self._known:
                oldest, (since, _) = next(iter(self._known.items()))
                if moment - since < KEPT and len(self._known) < MOST_REMEMBERED:
                    break
                del self._known[oldest]
            known = self._known.get(key)
            if known is None:
                self._known[key] = (moment, None)
                return False
        if known[1] is not None:
            self._reply(message, known[1])
        return True

    def _request(self, operation: str, message: Message) -> Dict[str, Any]:
        try:
            request = messages.decode(message.payload or b"{}", messages.LONGEST_COMMAND)
        except messages.Rubbish as error:
            raise NotTaken("it cannot be read: %s" % error, "Send a JSON object.") from None
        unknown = set(request) - _FIELDS[operation] - {"v", "since"}
        if unknown:
            raise NotTaken("it has an unknown field %.40r" % min(unknown), "Leave it out.")
        _check_fields(operation, request)
        return request

    def _not_before(
        self, operation: str, request: Mapping[str, Any], message: Message
    ) -> Optional[float]:
        if operation not in messages.FIRING:
            return None
        if message.expiry is None:
            raise NotTaken("it has no message expiry", "Give it one of 2 seconds.")
        try:
            asked = self._ticks.asked_after(request)
        except ValueError as error:
            raise NotTaken("it cannot be told how old it is: %s" % error, "Ask again.") from None
        return self._left_after(message) if asked is None else asked

    def _left_after(self, message: Message) -> Optional[float]:
        """When it has left the broker at the earliest; None: nothing is known."""
        heard = self._ticks.sent_after()
        return message.after if heard is None else heard

    def _work(self, waiting: "queue.Queue[Optional[_Command]]") -> None:
        while True:
            command = waiting.get()
            if command is None:
                return
            try:
                answer = {"operation": command.operation, "ok": True, **self._do(command)}
            except TetherError as error:
                self._tell_refusal("A command was not carried out: %s." % error)
                answer = {"operation": command.operation, **messages.failure(error)}
            except Exception as error:
                _log.exception("a command failed")
                refusal = NotTaken("it failed: %s" % error, "Look at the station.")
                answer = {"operation": command.operation, **messages.failure(refusal)}
            answer["clock"] = {"received": command.received, "sent": now()}
            if "fired" in answer:
                answer["clock"]["fired"] = answer.pop("fired")
            with self._lock:
                self._known[command.key] = (time.monotonic(), answer)
                if answer["ok"]:
                    self._refusals = 0
            self._reply(command.message, answer)

    def _do(self, command: _Command) -> Answer:
        request, session = command.request, self._session
        timeout = request.get("timeout")
        if command.operation == "shoot":
            return self._shoot(command)
        if command.operation == "sequence":
            return self._begin_sequence(command)
        if command.operation == "stop":
            self._sequences.stop()
            return {"sequence": self._sequences.told()}
        if command.operation == "enter":
            self._admit(request["token"])
            return {}
        # To end something, and to fetch pictures, is never too late; the rest is.
        if now() > command.not_after:
            raise NotTaken("it has expired", "Ask again.")
        if command.operation == "set":
            text = session.set(
                request["name"], request.get("text"), key=request.get("key"), timeout=timeout or 5.0
            )
            return {"name": request["name"], "text": text}
        if command.operation == "rate":
            return self._rate(request)
        session.tag = request["tag"]
        return {"tag": session.tag, "next_name": session.next_name()}

    def _begin_sequence(self, command: _Command) -> Answer:
        with _meant():
            begin = wishes.sequence(_fields(command.request))
        if begin is None:
            raise NotTaken("a sequence is ended by stop", "Send that.")
        self._take_once(command)
        self._check_age(command)  # the disk may have taken its time
        with _meant():
            begin(self._sequences, _PromptCamera(self._session, command))
        return {"sequence": self._sequences.told()}

    def _rate(self, request: Mapping[str, Any]) -> Answer:
        with _meant():
            wish = wishes.rating(_fields(request))
            file = wish.file if wish.n is None else self._file_of(wish.n)
            label = wishes.rate(self._session, file, wish)
        return {"file": file, "rating": wish.rating, "label": label}

    def _file_of(self, number: int) -> str:
        record = next(self._session.ledger.read(number - 1), {})
        file = record.get("file")
        if record.get("n") == number and record.get("kind") == "picture" and isinstance(file, str):
            return file
        raise NotTaken("there is no picture %d" % number, "Look at the station's record.")

    def _take_once(self, command: _Command) -> None:
        """Notes what is about to take pictures; raises NotTaken when it must not."""
        state = self._session.state
        if state != "open":
            raise NotTaken("the camera is %s" % state, "Look after the camera.")
        if self._memory.was_fired(command.key):
            raise NotTaken("it was taken before the station was started anew", "Ask again.")
        self._check_age(command)
        self._memory.fire(command.key)

    def _shoot(self, command: _Command) -> Answer:
        self._take_once(command)
        shot = self._fire(command)
        answer: Answer = {
            "shot": shot.number,
            "pictures": [to_record(picture) for picture in shot.pictures],
            "milliseconds": round(shot.milliseconds),
        }
        if shot.released is not None:
            # Not when its record was written: a Nikon camera is told a second later.
            answer["fired"] = now() - (time.monotonic() - shot.released)
        return answer

    def _fire(self, command: _Command) -> Shot:
        """The disk, another's shot and the camera may take their time: it is asked at the last."""
        request = command.request
        timeout, pair = request.get("timeout") or 30.0, bool(request.get("pair"))
        try:
            return self._session.shoot(
                timeout, pair, is_wanted=lambda: _age(command) <= ages.OLDEST
            )
        except TooLate as error:
            raise _too_old(_age(command), error.shot) from error

    def _check_age(self, command: _Command) -> None:
        """Raises NotTaken when the request is too old to fire, or its age cannot be told."""
        if command.not_before is None:
            raise NotTaken("it cannot be told how old it is", "Ask again in a second.")
        age = _age(command)
        if age > ages.OLDEST:
            raise _too_old(age)

    def _tell_refusal(self, words: str) -> None:
        with self._lock:
            self._refusals += 1
            count = self._refusals
        if count <= MOST_REFUSALS:
            self._say(words)
        elif count == MOST_REFUSALS + 1:
            self._say("More commands are refused, which is not told any more.")

    def _reply(self, message: Message, answer: Answer) -> None:
        topic = message.response
        if topic and may_answer_to(topic, self._branch):
            self._answer(topic, message.correlation, answer)


class _PromptCamera:
    """A session for a sequence: the first frame is shot in time or not at all.

    That the first value of a bracket is set belongs to its beginning, and is not counted.
    """

    def __init__(self, session: Session, command: _Command) -> None:
        self._session = session
        self._command = command
        self._spent = 0.0  # seconds for setting
        self._has_begun = False

    @property
    def settings(self) -> Mapping[str, Setting]:
        return self._session.settings

    def set(
        self, name: str, text: Optional[str] = None, *, key: Optional[int] = None, timeout: float
    ) -> str:
        begun = now()
        told = self._session.set(name, text, key=key, timeout=timeout)
        self._spent += now() - begun
        return told

    def shoot(self, *, timeout: float, pair: bool) -> Shot:
        is_first, self._has_begun = not self._has_begun, True
        return self._session.shoot(timeout, pair, is_wanted=self._is_wanted if is_first else None)

    def _is_wanted(self) -> bool:
        return _age(self._command) - self._spent <= ages.OLDEST


@contextlib.contextmanager
def _meant() -> Iterator[None]:
    """Raises NotTaken for what cannot be meant, or not now."""
    try:
        yield
    except (Problem, ValueError) as error:
        advice = getattr(error, "advice", "") or "Look at the operation's fields."
        raise NotTaken(str(error), advice) from None


def _fields(request: Mapping[str, Any]) -> Fields:
    return Fields({name: request[name] for name in request if name not in ("v", "since")})


def _age(command: _Command) -> float:
    """Seconds since a request was made, at most."""
    return math.inf if command.not_before is None else now() - command.not_before


def _too_old(age: float, shot: Optional[int] = None) -> NotTaken:
    text = "it is up to %.1f seconds old, and %g are allowed" % (age, ages.OLDEST)
    return NotTaken(text, "Ask again.", shot)


def _check_fields(operation: str, request: Mapping[str, Any]) -> None:
    """Raises NotTaken when a field is missing or of a wrong type."""
    timeout = request.get("timeout", 1)
    is_right = isinstance(timeout, (int, float)) and not isinstance(timeout, bool)
    if is_right:
        is_right = 0 < timeout <= 3600
    if operation == "set":
        has_text, has_key = "text" in request, "key" in request
        is_right = is_right and isinstance(request.get("name"), str) and has_text != has_key
        is_right = is_right and isinstance(request.get("text", ""), str)
        is_right = is_right and type(request.get("key", 0)) is int
    elif operation == "shoot":
        is_right = is_right and isinstance(request.get("pair", False), bool)
    elif operation in ("tag", "enter"):
        field = "tag" if operation == "tag" else "token"
        text = request.get(field)
        is_right = is_right and isinstance(text, str) and len(text) <= 200
        if operation == "enter" and is_right:
            is_right = isinstance(text, str) and len(text) >= 32
    if not is_right:
        raise NotTaken("a field is missing or wrong", "Look at the operation's fields.")
