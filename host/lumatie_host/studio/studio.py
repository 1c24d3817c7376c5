"""The studio: follows all its stations, collects their pictures, asks them to do something.

Threads: the broker connection's, which hands each message to the hub; the desk, which writes the
studio's own record and looks at deadlines; some that ask stations for records that are missing; the
collector's.
"""

import logging
import queue
import secrets
import threading
import time
from concurrent.futures import Future
from typing import Any, Callable, Dict, Iterable, List, NamedTuple, Optional, Sequence, Set

from ..errors import TetherError
from ..turns import taken
from . import spread
from .address import Address
from .asking import Answered, Asking, checked
from .book import Book, Key
from .broker import Connection, Listener, Message
from .collector import TRANSFERS, Collector
from .feed import Feed, Feeds
from .fetch import Forbidden, Site, Unreachable
from .hub import GRACE, SHOT_PATIENCE, Hub, Record, Watcher
from .newest import Newest
from .problems import BrokerRefused, NotDone
from .topics import Branch, check_name, parse

LOOK_EVERY = 0.25  # seconds between two looks at deadlines
KEEP_EVERY = 1.0  # seconds between two notes of what is settled
ANSWER_PATIENCE = 10.0  # seconds for an answer to what needs no picture
FILLERS = 4  # stations that are asked for records at a time
FILL_AGAIN = 2.0  # seconds, after a station could not be asked

GONE = "station %s is gone"  # the alarm

_log = logging.getLogger("lumatie_host")


class Door(NamedTuple):
    """A station's web server, and the token that opens it."""

    url: str
    token: str


class Studio(Listener, Watcher):
    """A studio with its folder. Any thread may call.

    Args:
        address: of the broker.
        name: of the studio.
        folder: where the originals go, each station's into a folder of its own.
        say: called with words for the person at the desk, on any thread.
        patience: seconds after which a shot without a picture is told, beside its exposure.
        transfers: pictures that are fetched at a time.

    Raises:
        NotAName, ClientMissing, FolderRejected.
    """

    def __init__(
        self,
        address: Address,
        name: str,
        folder: str,
        say: Callable[[str], None],
        patience: float = SHOT_PATIENCE,
        transfers: int = TRANSFERS,
    ) -> None:
        self.name = check_name("studio", name)
        self.book = Book(folder, name)
        # Called with a station and the number of its picture when a preview of it has come.
        self.on_preview: Callable[[str, int], None] = lambda station, number: None
        self._address = address
        self._say = say
        self._patience = patience
        self._feeds = Feeds()
        self._hub = Hub(name, self, self.book.marks, patience)
        client = "lumatie-%s" % secrets.token_hex(8)
        self._asking = Asking(name, client, self._hub.since)
        branch = Branch(name, "+")
        topics = [branch.state, branch.settings, branch.tick, branch.reply(client)]
        self._connection = Connection(address, client, self, topics, [branch.event("+")])
        self.newest = Newest(
            self.book.folder, self._site_of, self._enter, self._previewed, self._collect_on
        )
        self._collector = Collector(
            *(self.book, self._site_of, self._enter, self._collected, self._troubled, transfers),
            may_begin=lambda: not self.newest.is_ahead,
        )
        self._settled = threading.Event()
        self._problem: Optional[TetherError] = None
        self._last_words = ""
        self._closing = threading.Event()
        self._desk: "queue.SimpleQueue[Callable[[], None]]" = queue.SimpleQueue()
        self._gaps = threading.Condition()  # guards the next three
        self._to_fill: Dict[str, float] = {}  # station to the moment at which it is asked
        self._filling: Set[str] = set()
        self._told_gaps: Set[str] = set()
        self._threads = [
            threading.Thread(target=self._run_desk, name="lumatie-desk", daemon=True),
            *(
                threading.Thread(target=self._run_filler, name="lumatie-fill", daemon=True)
                for _ in range(FILLERS)
            ),
        ]

    def start(self, timeout: float = 30.0) -> None:
        """Begins, and returns when the broker has let it in, or is not there.

        Raises BrokerRefused.
        """
        for thread in self._threads:
            thread.start()
        self._connection.start()
        self._settled.wait(timeout)
        if self._problem is not None:
            problem = self._problem
            self.close()
            raise problem

    def close(self) -> None:
        """Ends it. What is not collected yet is collected by the next start."""
        if self._closing.is_set():
            return
        self._connection.close()
        self._closing.set()
        with self._gaps:
            self._gaps.notify_all()
        self.newest.close()
        self._collector.close()
        for thread in self._threads:
            if thread.is_alive() and thread is not threading.current_thread():
                thread.join(2.0)
        self._keep()
        self._feeds.close()

    # What is known.

    def feed(self) -> Feed:
        """The records of all stations from now on, each once, and the studio's own."""
        return self._feeds.open()

    @property
    def is_at_broker(self) -> bool:
        """Whether the broker is there."""
        return self._connection.is_up

    @property
    def to_collect(self) -> int:
        """How many pictures are still to be collected."""
        return self._collector.lag

    def known(self, names: Optional[Iterable[str]] = None) -> List[Dict[str, Any]]:
        """What is known of some stations or all, one object each."""
        return self._hub.view(names)

    def door(self, station: str) -> Optional[Door]:
        """Where a station's web server is, None while that is not known."""
        url, _, instance = self._hub.place(station)
        return Door(url, self.book.token(station, instance)) if url and instance else None

    def knock(self, station: str) -> None:
        """Has a station's web server know the studio's token, once more."""
        self._enter(station)

    def view(self) -> Dict[str, Any]:
        """How it stands, for a page: the stations, and what is still to be collected."""
        return {
            "v": 1,
            "kind": "studio",
            "studio": self.name,
            "broker": self._connection.is_up,
            "to_collect": self._collector.lag,
            "stations": self._hub.view(),
        }

    @property
    def stations(self) -> List[str]:
        """The stations that are there."""
        return self._hub.online()

    # What is done.

    def shoot(
        self, stations: Optional[Sequence[str]] = None, timeout: float = 30.0, pair: bool = False
    ) -> spread.Spread:
        """Takes a picture at some stations or all that are there; how far apart they were.

        Soon, not together: a trigger box does better, and its pictures arrive all the same.
        A station that did not do it says why in its answer.
        """
        names = self.stations if stations is None else list(stations)
        request = {"pair": pair, "timeout": timeout}
        patience = timeout + ANSWER_PATIENCE
        asked = [
            (name, self._hub.asked(name), self._ask(name, "shoot", request, patience))
            for name in names
        ]
        deadline = time.monotonic() + patience
        releases = []
        for name, noted, result in asked:
            try:
                told = self._asking.wait(result, name, max(0.0, deadline - time.monotonic()))
                one = spread.release(name, told.answer, told.sent, told.heard)
            except NotDone as error:
                one = spread.Release(name, {"ok": False, "error": str(error)})
            if result.cancelled():
                self._hub.unanswered(name, noted)
            else:
                self._hub.answered(name, noted)
                if not one.is_done:
                    self._note_unanswered(name, one.answer)
            releases.append(one)
        return spread.spread(releases)

    def set(
        self, station: str, name: str, text: Optional[str] = None, key: Optional[int] = None
    ) -> str:
        """Changes a setting of one station; the text that its camera confirmed. Raises NotDone."""
        wanted: Dict[str, Any] = {"text": text} if key is None else {"key": key}
        answer = self.do(station, "set", {"name": name, **wanted})
        return str(answer.get("text"))

    def tag(self, text: str, stations: Optional[Sequence[str]] = None) -> Dict[str, Optional[str]]:
        """Gives some stations or all a tag; station to what went wrong, None: nothing."""
        names = self.stations if stations is None else list(stations)
        asked = [(name, self._ask(name, "tag", {"tag": text})) for name in names]
        done: Dict[str, Optional[str]] = {}
        for name, result in asked:
            try:
                checked(name, self._asking.wait(result, name, ANSWER_PATIENCE).answer)
                done[name] = None
            except NotDone as error:
                done[name] = str(error)
        return done

    def _ask(
        self, station: str, operation: str, request: Dict[str, Any], patience: float = 0.0
    ) -> "Future[Answered]":
        patience = patience or ANSWER_PATIENCE
        return self._asking.ask(self._connection, station, operation, request, patience)

    def do(self, station: str, operation: str, request: Dict[str, Any]) -> Dict[str, Any]:
        """Has a station do what brings no picture at once; its answer. Raises NotDone."""
        result = self._ask(station, operation, request)
        return checked(station, self._asking.wait(result, station, ANSWER_PATIENCE).answer)

    def _note_unanswered(self, station: str, answer: Any) -> None:
        # A shot that the station knows of tells of its end itself.
        if "shot" not in answer and answer.get("reason") in (None, "refused", "closed"):
            self._hub.unanswered(station)

    # What the connection tells.

    def up(self) -> None:
        self._last_words = ""
        self._hub.connected(True)
        self._say("Studio %s is at the broker %s." % (self.name, self._address))
        self._settled.set()

    def down(self, words: str, is_hopeless: bool) -> None:
        self._hub.connected(False)
        if is_hopeless and not self._settled.is_set():
            self._problem = BrokerRefused(str(self._address), words)
        elif words != self._last_words:
            self._last_words = words
            self._say("The broker at %s: %s. It is tried again." % (self._address, words))
        self._settled.set()

    def heard(self, message: Message) -> None:
        topic = parse(message.topic)
        if topic is not None and topic.what == "reply":
            self._asking.heard(message)
        else:
            self._hub.heard(message)

    # What the hub tells.

    def record(self, station: str, ledger: str, record: Record) -> None:
        if record["kind"] == "picture":
            key = (station, ledger, record["n"])
            if self.book.is_collected(key):
                self._hub.settle(*key)
            else:
                if self._hub.is_newest(*key):
                    self.newest.add(station, {**record, "ledger": ledger})
                self._collector.add(key, record)
        self._feeds.put(record)

    def state(self, station: str, was_online: bool, is_new_start: bool) -> None:
        url, _, instance = self._hub.place(station)
        if instance and (is_new_start or not was_online):
            self._say("Station %s is there." % station)
            self._enter(station)
            self._collector.wake(station)
            self.gap(station)
        elif was_online and not instance and self._hub.has_left(station):
            self._say("Station %s has left." % station)
        elif was_online and not instance:
            self._alarm_later(GONE % station, "Look after it; what it has is not lost.", station)

    def gap(self, station: str) -> None:
        with self._gaps:
            self._to_fill.setdefault(station, time.monotonic() + GRACE)
            self._gaps.notify()

    def missing(self, station: str, have: int, asked: int) -> None:
        what = "station %s has %d of %d" % (station, have, asked)
        self._alarm_later(what, "Look at the station, and take the picture again.", station)

    def refused(self, station: str, words: str) -> None:
        self._say("Refused from station %.60s: %s" % (station, words))

    # What the collector tells.

    def _site_of(self, station: str, ledger: str) -> Optional[Site]:
        """Its server, None while it is not there or works in another folder: there the numbers
        are other pictures'."""
        url, known, instance = self._hub.place(station)
        if not url or not instance or known != ledger:
            return None
        try:
            return Site(url, self.book.token(station, instance))
        except ValueError as error:
            _log.debug("station %s: %s", station, error)
            return None

    def _enter(self, station: str) -> None:
        """Has a station's server know the token of the studio."""
        _, _, instance = self._hub.place(station)
        if not instance:
            return
        result = self._ask(station, "enter", {"token": self.book.token(station, instance)})

        def done(told: "Future[Answered]") -> None:
            if not told.cancelled() and told.exception() is None:
                self.newest.wake(station)
                self._collector.wake(station)
                with self._gaps:
                    if station in self._to_fill:
                        self._to_fill[station] = time.monotonic()
                        self._gaps.notify()

        result.add_done_callback(done)

    def _collected(self, key: Key, record: Record) -> None:
        self._hub.settle(*key)
        if record:
            self._feeds.put(_own({**record, "kind": "collected"}))

    def _previewed(self, station: str, number: int) -> None:
        self.on_preview(station, number)

    def _collect_on(self) -> None:
        self._collector.look()

    def _troubled(self, text: str, advice: str, station: str) -> None:
        self._alarm_later(text, advice, station)

    # The desk.

    def _alarm_later(self, what: str, advice: str, station: str) -> None:
        def alarm() -> None:
            try:
                record = self.book.alarm(what, advice, station=station)
            except TetherError as error:
                _log.warning("an alarm could not be recorded: %s", error)
                record = {"kind": "alarm", "what": what, "advice": advice, "station": station}
            self._feeds.put(_own({**record, "studio": self.name}))

        self._desk.put(alarm)

    def _run_desk(self) -> None:
        kept = looked = time.monotonic()
        while not self._closing.is_set() or not self._desk.empty():
            try:
                work = taken(self._desk, LOOK_EVERY)
            except queue.Empty:
                work = None
            try:
                if work is not None:
                    work()
                moment = time.monotonic()
                if moment - looked >= LOOK_EVERY:
                    looked = moment
                    self._hub.look()
                    self._asking.look()
                if moment - kept >= KEEP_EVERY:
                    kept = moment
                    self._keep()
                    self.newest.look()
            except Exception:
                _log.exception("the studio's desk failed")

    def _keep(self) -> None:
        try:
            self.book.keep(self._hub.marks())
        except OSError as error:
            _log.warning("it cannot be noted what is settled: %s", error)

    # Records that are missing.

    def _run_filler(self) -> None:
        while True:
            station = self._next_gap()
            if station is None:
                return
            is_filled = False
            try:
                is_filled = self._fill(station)
            except Exception:
                _log.exception("records of station %s could not be asked for", station)
            with self._gaps:
                self._filling.discard(station)
                if not is_filled and self._hub.place(station)[0]:
                    self._to_fill[station] = time.monotonic() + FILL_AGAIN

    def _next_gap(self) -> Optional[str]:
        with self._gaps:
            while not self._closing.is_set():
                moment = time.monotonic()
                due = [
                    name
                    for name, at in self._to_fill.items()
                    if at <= moment and name not in self._filling
                ]
                if due:
                    self._to_fill.pop(due[0])
                    self._filling.add(due[0])
                    return due[0]
                self._gaps.wait(0.1 if self._to_fill else None)
            return None

    def _fill(self, station: str) -> bool:
        """Asks a station for what is missing; whether that is no longer to be asked for."""
        _, ledger, _ = self._hub.place(station)
        site = self._site_of(station, ledger)
        since = self._hub.gap(station)
        if site is None or since is None:
            return True
        try:
            while not self._closing.is_set():
                records, is_end = site.records(since)
                since = self._hub.fill(station, ledger, records, is_end) or since
                if is_end:
                    break
        except Forbidden:
            self._enter(station)
            return False
        except Unreachable as error:
            _log.info("records of station %s are missing: %s", station, error)
            if station not in self._told_gaps:
                self._told_gaps.add(station)
                self._say("Records of station %s are missing, and it says: %s" % (station, error))
            return False
        self._told_gaps.discard(station)
        return True


def _own(record: Record) -> Record:
    """A record of the studio's own: its number is not one of the station that it tells of."""
    told = {name: value for name, value in record.items() if name != "n"}
    return {**told, "studio_n": record.get("n")}
