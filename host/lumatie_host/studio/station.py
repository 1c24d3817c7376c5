"""A station: a session whose ledger is published, and that does what the studio asks.

All that is sent is sent by one thread, which waits for nothing but its queue. The folder's ledger
is the source: whatever happens to broker and network, the rest of it is published afterwards.
"""

import logging
import math
import queue
import secrets
import threading
from typing import Any, Callable, Dict, List, Mapping, Optional, Tuple

from ..events import VERSION, SettingChanged
from ..page.sequence import Sequences
from ..session import Session
from ..subscribers import Heard
from ..turns import taken
from . import ages, messages
from .address import Address
from .answers import Answers
from .broker import Connection, Listener, Message
from .claims import Claim, Reply, Verdict
from .clock import now
from .commands import Commands
from .memory import Memory
from .problems import BrokerRefused, NameTaken
from .publisher import Publisher
from .topics import Branch, check_name, parse
from .words import Words

STATE_EVERY = 1.0  # seconds at least between two states that differ in nothing but "n"
LOOK_EVERY = 1.0  # seconds until records of other programs in the folder are noticed
ECHO_PATIENCE = 10.0  # seconds from the broker's receipt of a claim until it comes back
CLAIM_AGAIN = 5.0  # seconds after which a name that was taken is asked for again

_log = logging.getLogger("lumatie_host")


class Station(Listener):
    """A session under a name in a studio. Any thread may call.

    Args:
        session: the camera; it stays the caller's, who closes it first.
        url: where the station's web server answers, "http://host:port/".
        sequences: that server's.
        admit: has that server accept a token from now on.
        address: of the broker.
        studio, name: what both are called.
        say: called with words for the person at the station, on a thread of its own; it may wait.

    Raises:
        NotAName: studio or station cannot be called that.
        ClientMissing: paho-mqtt is not installed.
        FolderRejected: the folder cannot keep what a station has to remember.
    """

    def __init__(
        self,
        session: Session,
        url: str,
        sequences: Sequences,
        admit: Callable[[str], None],
        address: Address,
        studio: str,
        name: str,
        say: Callable[[str], None],
    ) -> None:
        self.studio = check_name("studio", studio)
        self.name = check_name("station", name)
        self.instance = secrets.token_hex(8)
        self._session = session
        self._url = url
        self._address = address
        self._words = Words(say)
        self._say = say = self._words.put
        self._branch = branch = Branch(studio, name)
        self._memory = Memory(session.folder, studio, name)
        self._ticks = ages.Ticks(self.instance)
        self._publisher = Publisher(session.ledger, self._memory, self._send_record, say)
        self._answers = Answers(self._send_answer)
        self._commands = Commands(
            *(session, sequences, branch, self._memory, self._ticks),
            *(self._post_answer, admit, say),
        )
        self._connection = Connection(
            address,
            "lumatie-%s" % self.instance,
            self,
            [branch.state, branch.claim, branch.tick],
            [branch.command("+")],
            (branch.state, messages.encode(self._state(False))),
        )
        self._settled = threading.Event()  # the name is ours or not, or there is no broker
        self._problem: Optional[Exception] = None
        self._last_words = ""

        # The station's thread's own.
        self._claim: Optional[Claim] = None  # None: there is no broker
        self._claimed_at = 0.0
        self._claim_number: Optional[int] = None  # of its message
        self._heard_by = math.inf  # when it has to be back
        self._early: List[Tuple[str, Message]] = []  # kept commands, to be refused
        self._told: Dict[str, Any] = {}  # the state that was told last
        self._told_at = 0.0
        self._is_state_due = False  # again, though it is as it was told
        self._ticked_at = 0.0
        self._settings_changed = True
        self._inbox: "queue.SimpleQueue[Tuple[str, Any]]" = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._run, name="lumatie-station", daemon=True)
        self._unsubscribe: Callable[[], None] = lambda: None

    def start(self, timeout: float = 30.0) -> None:
        """Begins, and returns when the name is the station's own, or the broker is not there.

        A broker that is not there is waited for in the background.

        Raises:
            NameTaken: another station has the name.
            BrokerRefused: the broker does not let it in.
        """
        self._unsubscribe = self._session.subscribe(self._note)
        self._words.start()
        self._thread.start()
        self._connection.start()
        self._settled.wait(timeout)
        if self._problem is not None:
            problem = self._problem
            self.close()
            raise problem

    def close(self) -> None:
        """Publishes what is left, as far as that is possible at once, and leaves the broker."""
        self._unsubscribe()
        self._commands.close()
        self._inbox.put(("close", None))
        if self._thread.is_alive():
            self._thread.join(10.0)
        self._words.close()

    @property
    def left(self) -> int:
        """How many records the broker has not got yet."""
        return self._publisher.left

    # What the connection tells, on its thread.

    def up(self) -> None:
        self._ticks.forget()
        self._inbox.put(("up", None))

    def down(self, words: str, is_hopeless: bool) -> None:
        self._inbox.put(("down", (words, is_hopeless)))

    def heard(self, message: Message) -> None:
        topic = parse(message.topic)
        if topic is None:
            return
        if topic.what == "cmd":
            if self._has_name:
                self._commands.take(topic.name, message)
            elif message.is_retained:
                self._inbox.put(("early", (topic.name, message)))
            return
        try:
            told = messages.decode(message.payload)
        except messages.Rubbish:
            return  # an empty one takes away what was retained
        if topic.what == "tick":
            self._ticks.hear(told)
        else:
            self._inbox.put((topic.what, (told, message.is_retained)))

    def sent(self, number: int, is_taken: bool) -> None:
        self._inbox.put(("sent", (number, is_taken)))

    def _note(self, event: Heard) -> None:
        self._inbox.put(("setting" if isinstance(event, SettingChanged) else "event", None))

    def _post_answer(
        self, topic: str, correlation: Optional[bytes], answer: Dict[str, Any]
    ) -> None:
        self._inbox.put(("answer", (topic, correlation, answer)))

    # The station's thread.

    @property
    def _has_name(self) -> bool:
        return self._claim is not None and self._claim.verdict is Verdict.OURS

    def _run(self) -> None:
        looked_at = 0.0
        while True:
            try:
                what, about = taken(self._inbox, 0.1)
            except queue.Empty:
                what, about = "", None
            try:
                if what == "close":
                    self._leave()
                    return
                if what:
                    self._take(what, about)
                if what in ("event", "setting", "sent", "up") or now() - looked_at > LOOK_EVERY:
                    looked_at = now()
                    self._pump()
                self._look()
            except Exception:
                _log.exception("the station failed at %s", what)

    def _take(self, what: str, about: Any) -> None:
        if what == "up":
            self._publisher.begin_anew()
            self._answers.begin_anew()
            self._begin_claim()
        elif what == "down":
            self._claim = None
            self._tell_problem(*about)
        elif what == "sent":
            number, is_taken = about
            if number == self._claim_number and is_taken:
                self._heard_by = now() + ECHO_PATIENCE
            elif number == self._claim_number:
                words = "it does not let this user write as station %s" % self.name
                self._tell_problem(words, True)
            self._publisher.acknowledge(number, is_taken)
            self._answers.acknowledge(number)
        elif what == "early":
            self._early = [*self._early, about][-16:]
        elif what == "setting":
            self._settings_changed = True
        elif what == "answer":
            topic, correlation, answer = about
            message = {"v": VERSION, "kind": "answer", **self._names, **answer}
            self._answers.put(topic, correlation, messages.encode(message))
        elif self._claim is not None and what in ("state", "claim"):
            told, is_retained = about
            reply = (
                self._claim.hear_claim(told)
                if what == "claim"
                else self._claim.hear_state(told, is_retained)
            )
            if reply is Reply.CLAIM:
                self._tell_claim()
            elif reply is Reply.STATE:
                # Two that tell that they are there must not do so by turns without a pause.
                self._is_state_due = True
                self._tell_state(at_once=what == "claim" or told.get("online") is not True)

    def _look(self) -> None:
        """What has to be done whatever came."""
        self._answers.pump()
        self._publisher.remember()
        if self._claim is None:
            return
        before = self._claim.verdict
        verdict = self._claim.poll()
        if verdict is Verdict.TAKEN:
            self._tell_problem_once(NameTaken(self.name, self._claim.by))
            if now() - self._claimed_at > CLAIM_AGAIN:
                self._begin_claim()
        elif verdict is Verdict.OURS:
            if before is not Verdict.OURS:
                self._begin()
            self._tell_state()
            if now() - self._ticked_at > ages.TICK_EVERY:
                self._tick()
            if self._settings_changed:
                self._tell_settings()
        elif not self._claim.is_heard and now() > self._heard_by:
            words = "it does not let this user read what it writes as station %s" % self.name
            self._tell_problem(words, True)

    def _begin_claim(self) -> None:
        self._claim = Claim(self.instance, self._memory.ledger)
        self._claimed_at = now()
        self._heard_by = math.inf
        self._claim_number = self._tell_claim()

    def _tell_claim(self) -> Optional[int]:
        return self._send(self._branch.claim, {"kind": "claim", "instance": self.instance})

    def _begin(self) -> None:
        """The name is ours."""
        self._say("Station %s is at the broker %s." % (self.name, self._address))
        self._last_words = ""
        self._settings_changed = True
        self._is_state_due = True
        self._tell_state(at_once=True)
        self._tick()
        self._pump()
        self._settled.set()
        early, self._early = self._early, []
        for operation, message in early:
            self._commands.take(operation, message)

    def _pump(self) -> None:
        if self._has_name:
            self._publisher.pump()

    def _leave(self) -> None:
        for _ in range(100):  # two seconds
            if not self._has_name or not (self._publisher.left or self._answers.left):
                break
            self._answers.pump()
            self._pump()
            try:
                what, about = taken(self._inbox, 0.02)
            except queue.Empty:
                continue
            if what in ("sent", "down", "answer"):
                self._take(what, about)
        self._publisher.remember(at_once=True)
        state = messages.encode({**self._state(False), "connection": "closed"})
        self._connection.close([(self._branch.state, state)] if self._has_name else [])

    # What is told.

    @property
    def _names(self) -> Dict[str, str]:
        return {"studio": self.studio, "station": self.name}

    def _state(self, is_online: bool) -> Dict[str, Any]:
        session = self._session
        return {
            "v": VERSION,
            "kind": "state",
            **self._names,
            "online": is_online,
            "instance": self.instance,
            "ledger": self._memory.ledger,
            "n": session.ledger.last,
            "camera": session.camera,
            "maker": session.maker,
            "connection": session.state if is_online else "gone",
            "session": session.id,
            "tag": session.tag,
            "url": self._url,
        }

    def _tell_state(self, at_once: bool = False) -> None:
        """Tells what has changed; with `_is_state_due` what has not, too."""
        state = self._state(True)
        if {**state, "n": 0} == {**self._told, "n": 0}:
            is_new = self._is_state_due or state != self._told
            if not is_new or (not at_once and now() - self._told_at < STATE_EVERY):
                return
        if self._send(self._branch.state, state, retain=True) is not None:
            self._told, self._told_at = state, now()
            self._is_state_due = False

    def _tell_settings(self) -> None:
        settings = {
            name: {
                "text": setting.text,
                "allowed": list(setting.allowed),
                "settable": setting.settable,
            }
            for name, setting in self._session.settings.items()
        }
        message = {"v": VERSION, "kind": "settings", **self._names, "settings": settings}
        if self._send(self._branch.settings, message, retain=True) is not None:
            self._settings_changed = False

    def _tick(self) -> None:
        self._ticked_at = now()
        message = {"kind": "tick", "instance": self.instance, "tick": self._ticked_at}
        self._send(self._branch.tick, {**message, "n": self._session.ledger.last})

    def _send(self, topic: str, message: Mapping[str, Any], retain: bool = False) -> Optional[int]:
        return self._connection.publish(topic, messages.encode(message), retain=retain)

    def _send_answer(
        self, topic: str, correlation: Optional[bytes], payload: bytes
    ) -> Optional[int]:
        return self._connection.publish(topic, payload, correlation=correlation)

    def _send_record(self, record: Mapping[str, Any]) -> Optional[int]:
        message = {**record, **self._names}
        if record["kind"] == "picture":
            message["url"] = "%sapi/pictures/%d" % (self._url, record["n"])
        return self._connection.publish(
            self._branch.event(record["kind"]), messages.encode(message), ledger=self._memory.ledger
        )

    def _tell_problem(self, words: str, is_hopeless: bool) -> None:
        if is_hopeless:
            self._tell_problem_once(BrokerRefused(str(self._address), words))
            return
        text = "The broker at %s: %s. The station goes on without it." % (self._address, words)
        if text != self._last_words:
            self._last_words = text
            self._say(text)
        self._settled.set()

    def _tell_problem_once(self, problem: Exception) -> None:
        if not self._settled.is_set():
            self._problem = problem
        elif str(problem) != self._last_words:
            self._last_words = str(problem)
            self._say("%s. %s" % (problem, getattr(problem, "advice", "")))
        self._settled.set()
