"""What the studio knows of all its stations.

Messages go in, from the broker or from a station's own ledger over HTTP; what is new comes out, to
whoever listens. Station and number decide what is new, whichever way and in whatever order it came.
Nothing here waits, and nothing is written. Any thread may call; `Watcher` is called with no lock
held, on the thread that brought the news.
"""

import collections
import contextlib
import logging
import re
import threading
import urllib.parse
from typing import Any, Deque, Dict, Iterable, List, Mapping, NamedTuple, Optional, Tuple

from ..ledger import LARGEST_NUMBER
from ..settings import seconds_of
from . import ages, messages
from .broker import KEEP_ALIVE, Message
from .clock import now
from .problems import NotAName
from .streams import Stream
from .topics import Topic, check_name, parse

SHOT_PATIENCE = 30.0  # seconds for a picture, beside its exposure
FIRED_WITHIN = ages.OLDEST + 1.0  # seconds after which the ledger has a request's shot, or never
# Seconds without a tick after which a station is gone, whatever the broker has kept of it. By then
# it is known whether the connection is the studio's own trouble.
SILENCE = 2 * KEEP_ALIVE + 5.0
STANDSTILL = 2.0  # seconds between two looks after which all stations are given that time anew
GRACE = 0.3  # seconds in which records may overtake each other
MOST_STATIONS = 2000
_URL = re.compile("[!-~]+")  # as it goes over the network
_MOST_REFUSALS = 100  # that are told of one station, or of all unknown names; then only counted

_log = logging.getLogger("lumatie_host")

Record = Dict[str, Any]


class Mark(NamedTuple):
    """Up to where a station's ledger is settled, and what there was up to there."""

    settled: int = 0
    asked: int = 0
    have: int = 0


class Watcher:
    """What the hub tells."""

    def record(self, station: str, ledger: str, record: Record) -> None:
        """A record that is new, with `studio` and `station`."""

    def state(self, station: str, was_online: bool, is_new_start: bool) -> None:
        """A station's state is another one."""

    def gap(self, station: str) -> None:
        """Records of a station are missing."""

    def missing(self, station: str, have: int, asked: int) -> None:
        """A shot has brought no picture in time."""

    def refused(self, station: str, words: str) -> None:
        """A message that was not taken, in words; the station may be none that is known."""


class Request:
    """A request for a shot, and where in the ledger its shot is if there is one.

    With the hub's lock held.
    """

    def __init__(self, ledger: str, after: int, since: Mapping[str, Any]) -> None:
        self.ledger = ledger
        self.after = after  # the ledger's last number when it was made
        self.upto: Optional[int] = None  # and when it was too old to be fired; None: not known yet
        self.has_fired = False  # its shot is recorded
        self.is_unanswered = False  # and counted as such
        self._instance = str(since["instance"])
        self._too_old = float(since["tick"]) + float(since["after"]) + FIRED_WITHIN

    def hear(self, instance: str, tick: float, number: int) -> None:
        """The station's clock, and its ledger's last number then."""
        if self.upto is None and (instance != self._instance or tick > self._too_old):
            self.upto = number

    def is_met_by(self, ledger: str, number: int) -> bool:
        """Whether a shot may be the one."""
        is_behind = self.ledger == ledger and number > self.after and not self.has_fired
        return is_behind and (self.upto is None or number <= self.upto)


class Station:
    """What is known of one station. With the hub's lock held."""

    def __init__(self, name: str) -> None:
        self.name = name
        self.state: Dict[str, Any] = {}
        self.settings: Dict[str, Any] = {}
        self.ticks = ages.Heard()
        self.heard_at = 0.0  # the last sign of life
        self.has_ticked = False  # a station that is not of our making may have no ticks
        self.is_silent = False
        self.picture: Optional[Record] = None  # the newest, with its `ledger`
        self.unanswered = 0  # requests for a shot that the station does not know of
        # Those of which an answer may be lost.
        self.requests: Deque[Request] = collections.deque(maxlen=100)
        self.refusals = 0
        self.streams: Dict[str, Stream] = {}

    def show(self, ledger: str, picture: Record) -> None:
        """Takes a picture for the newest, unless it only comes late."""
        before = self.picture
        if before is None or ledger != before["ledger"] or picture["n"] > before["n"]:
            self.picture = {**picture, "ledger": ledger}

    @property
    def ledger(self) -> str:
        """The identity of the ledger that it has now."""
        return str(self.state.get("ledger", ""))

    def hear(self) -> None:
        """A sign of life."""
        self.heard_at, self.is_silent = now(), False

    @property
    def is_online(self) -> bool:
        return self.state.get("online") is True and not self.is_silent

    @property
    def url(self) -> str:
        """Where its server answers; empty: nowhere."""
        url = self.state.get("url")
        return url if isinstance(url, str) else ""


class Hub:
    """All stations of a studio.

    Args:
        marks: what an earlier run has settled, for each station and ledger.
        patience: seconds after which a shot without a picture is told, beside its exposure.
    """

    def __init__(
        self,
        studio: str,
        watcher: Watcher,
        marks: Optional[Mapping[Tuple[str, str], Mark]] = None,
        patience: float = SHOT_PATIENCE,
    ) -> None:
        self._studio = studio
        self._watcher = watcher
        self._patience = patience
        self._lock = threading.Lock()  # guards all that follows
        self._stations: Dict[str, Station] = {}
        self._marks = dict(marks or {})
        self._refusals = 0  # of names that are no station's
        self._listening_since: Optional[float] = None  # None: the broker is not there
        self._looked_at = 0.0

    # What comes in.

    def connected(self, is_connected: bool) -> None:
        """The broker is there, or is not."""
        with self._lock:
            self._listening_since = now() if is_connected else None

    def heard(self, message: Message) -> None:
        """A message of the broker's."""
        topic = parse(message.topic)
        if topic is None or topic.studio != self._studio:
            return
        try:
            self._check_station(topic.station)
            self._take(topic, message)
        except (messages.Rubbish, NotAName) as error:
            self._refuse(topic, str(error))

    def fill(self, station: str, ledger: str, records: List[Any], is_end: bool) -> int:
        """Records from a station's own ledger, in their order, up to its end perhaps.

        What is missing between them does not exist. Returns the number to go on behind.
        """
        last = 0
        for record in records:
            number: Any = record.get("n") if isinstance(record, dict) else None
            is_number = type(number) is int and 0 < number <= LARGEST_NUMBER
            if is_number:
                self._pass_over(station, ledger, number - 1)
                last = number
            try:
                if not isinstance(record, dict):
                    raise messages.Rubbish("no record")
                messages.check_record(record)
                if record["kind"] == "picture":
                    messages.check_picture(record)
            except messages.Rubbish as error:
                _log.debug("station %s: its ledger has %s", station, error)
            else:
                # Where it is tells the message alone, of which that is checked.
                told = {name: value for name, value in record.items() if name != "url"}
                self._offer(station, ledger, record["n"], told)
            if is_number:
                self._pass_over(station, ledger, number)
        if is_end:
            with self._lock:
                stream = self._stream(station, ledger)
                stream.limit(max(last, stream.taken))
        return last

    def _pass_over(self, station: str, ledger: str, number: int) -> None:
        with self._lock:
            self._stream(station, ledger).pass_over(number)

    def _take(self, topic: Topic, message: Message) -> None:
        if topic.what == "state":
            state = messages.decode(message.payload) if message.payload else {
                "online": False, **self._names(topic.station)}  # fmt: skip
            self._take_state(topic.station, state, message.is_retained)
        elif topic.what == "settings" and message.payload:
            told = self._own(topic, messages.decode(message.payload))
            if not isinstance(told.get("settings"), dict):
                raise messages.Rubbish("settings that are none")
            with self._lock:
                self._station(topic.station).settings = told["settings"]
        elif topic.what == "tick":
            self._take_tick(topic.station, messages.decode(message.payload))
        elif topic.what == "event":
            if message.is_retained:
                raise messages.Rubbish("a retained record")
            self._take_record(topic, message)

    def _take_record(self, topic: Topic, message: Message) -> None:
        name = topic.station
        record = self._own(topic, messages.decode(message.payload))
        number = messages.check_record(record, topic.name)
        with self._lock:
            ledger = message.ledger or self._station(name).ledger
            # Refused or not, the station is asked for the one that it has.
            self._stream(name, ledger).tell_of(number)
        if topic.name == "picture":
            messages.check_picture(record)
            self._check_url(name, record)
        if self._offer(name, ledger, number, record):
            self._look_for_gap(name)

    def _offer(self, name: str, ledger: str, number: int, record: Record) -> bool:
        """Takes a record that is new; returns whether others are missing before it."""
        with self._lock:
            station = self._station(name)
            stream = self._stream(name, ledger)
            is_new = stream.is_new(number)
            if is_new:
                stream.take(number, record, now() + self._patience + _exposure(station.settings))
                if record["kind"] == "picture":
                    station.show(ledger, record)
                elif record["kind"] == "shot":
                    self._meet(station, ledger, number)
            has_gap = stream.has_gap
            counts = stream.have, stream.asked + station.unanswered
        if is_new:
            self._watcher.record(name, ledger, {**record, **self._names(name)})
            if record["kind"] == "failed" and record.get("shot") is not None:
                self._watcher.missing(name, *counts)
        return has_gap

    def _take_state(self, name: str, state: Record, is_retained: bool) -> None:
        self._own(Topic(self._studio, name, "state", ""), state)
        number = state.get("n", 0)
        if type(number) is not int or number < 0 or not isinstance(state.get("online"), bool):
            raise messages.Rubbish("a state that is none")
        with self._lock:
            station = self._station(name)
            was_online = station.is_online
            before, station.state = station.state, state
            is_new = state.get("instance") != before.get("instance")
            if is_new:
                station.has_ticked = False
            if is_new or not is_retained:
                station.hear()
            is_other = {**before, "n": 0} != {**state, "n": 0} or station.is_online != was_online
            is_gap = False
            if station.is_online and number:
                stream = self._stream(name, station.ledger)
                stream.tell_of(number)
                is_gap = stream.has_gap
        if is_other:
            self._watcher.state(name, was_online, is_new)
        if is_gap:
            self._look_for_gap(name)

    def _take_tick(self, name: str, told: Record) -> None:
        tick, number = told.get("tick"), told.get("n")
        if not isinstance(tick, float) or type(number) is not int:
            raise messages.Rubbish("a tick that is none")
        with self._lock:
            station = self._station(name)
            if told.get("instance") != station.state.get("instance"):
                return
            was_silent = station.is_silent
            station.hear()
            station.has_ticked = True
            station.ticks.hear(str(told["instance"]), tick)
            for request in station.requests:
                if request.ledger == station.ledger:
                    request.hear(str(told["instance"]), tick, number)
            stream = self._stream(name, station.ledger)
            stream.tell_of(number)
            is_gap = stream.has_gap
        if was_silent:
            self._watcher.state(name, False, False)
        if is_gap:
            self._look_for_gap(name)

    def _look_for_gap(self, name: str) -> None:
        self._watcher.gap(name)

    # What is asked.

    def names(self) -> List[str]:
        """All stations, those that are away included."""
        with self._lock:
            return sorted(self._stations)

    def online(self) -> List[str]:
        """The stations that are there."""
        with self._lock:
            return sorted(name for name, one in self._stations.items() if one.is_online)

    def since(self, name: str) -> Optional[Dict[str, Any]]:
        """What a request to a station tells of its age when it is sent now."""
        with self._lock:
            station = self._stations.get(name)
            return None if station is None else station.ticks.since()

    def place(self, name: str) -> Tuple[str, str, str]:
        """Where a station's server is, its ledger and its start; empty where not known."""
        with self._lock:
            station = self._stations.get(name)
            if station is None or not station.is_online:
                return "", "", ""
            return station.url, station.ledger, str(station.state.get("instance", ""))

    def has_left(self, name: str) -> bool:
        """Whether a station has said itself that it goes, and was not lost."""
        with self._lock:
            station = self._stations.get(name)
            return station is not None and station.state.get("connection") == "closed"

    def gap(self, name: str) -> Optional[int]:
        """The number behind which records of the station's ledger are missing; None: nowhere."""
        with self._lock:
            station = self._stations.get(name)
            if station is None:
                return None
            stream = self._stream(name, station.ledger)
            return stream.taken if stream.has_gap else None

    def settle(self, name: str, ledger: str, number: int) -> None:
        """A picture is collected."""
        with self._lock:
            self._stream(name, ledger).settle(number)

    def is_newest(self, name: str, ledger: str, number: int) -> bool:
        """Whether a picture is the newest of its station."""
        with self._lock:
            station = self._station(name)
            picture = station.picture
            return picture is not None and (picture["ledger"], picture["n"]) == (ledger, number)

    def marks(self) -> Dict[Tuple[str, str], Mark]:
        """What is to be kept for the next run."""
        with self._lock:
            for name, station in self._stations.items():
                for ledger, one in station.streams.items():
                    self._marks[name, ledger] = Mark(
                        one.settled, one._settled_asked, one._settled_have
                    )
            return dict(self._marks)

    def look(self) -> None:
        """Tells the shots whose deadline has passed, and who is gone; to be called now and then."""
        moment = now()
        late: List[Tuple[str, int, int]] = []
        with self._lock:
            for name, station in self._stations.items():
                for stream in station.streams.values():
                    for _ in stream.late(moment):
                        late.append((name, stream.have, stream.asked + station.unanswered))
            silent = self._silent(moment)
        for name, have, asked in late:
            self._watcher.missing(name, have, asked)
        for name in silent:
            self._watcher.state(name, True, False)

    def _silent(self, moment: float) -> List[str]:
        """The stations that are gone without a word: their will may be lost with a broker."""
        stood_still = moment - self._looked_at > STANDSTILL
        self._looked_at = moment
        if self._listening_since is None:
            return []
        if stood_still:  # what has come meanwhile is still to be heard
            self._listening_since = moment
        silent = []
        for name, station in self._stations.items():
            heard_at = max(station.heard_at, self._listening_since)
            is_late = station.has_ticked and moment - heard_at > SILENCE
            if station.is_online and is_late:
                station.is_silent = True
                silent.append(name)
        return silent

    def asked(self, name: str) -> Optional[Request]:
        """A station is about to be asked for a shot; it is to be told what becomes of that."""
        with self._lock:
            station = self._stations.get(name)
            since = None if station is None else station.ticks.since()
            if station is None or since is None:
                return None
            request = Request(station.ledger, self._stream(name, station.ledger).highest, since)
            station.requests.append(request)
            return request

    def answered(self, name: str, request: Optional[Request]) -> None:
        """The station has said what has become of a request."""
        with self._lock, contextlib.suppress(ValueError):
            if request is not None:
                self._station(name).requests.remove(request)

    def unanswered(self, name: str, request: Optional[Request] = None) -> None:
        """A request for a shot has brought no shot at the station.

        With `request` that is not sure, because its answer may be lost: its shot's record tells.
        """
        with self._lock:
            station = self._station(name)
            if request is not None and request.has_fired:
                return
            if request is not None:
                request.is_unanswered = True
            station.unanswered += 1
            stream = self._stream(name, station.ledger)
            counts = stream.have, stream.asked + station.unanswered
        self._watcher.missing(name, *counts)

    def view(self, names: Optional[Iterable[str]] = None) -> List[Dict[str, Any]]:
        """What is known of some stations or all, one object each, for a page."""
        with self._lock:
            views = []
            for name in sorted(self._stations if names is None else names):
                one = self._stations.get(name)
                if one is None:
                    continue
                stream = one.streams.get(one.ledger) or Stream()
                views.append(
                    {
                        "station": name,
                        "online": one.is_online,
                        "state": one.state,
                        "settings": one.settings,
                        "picture": one.picture,
                        "asked": stream.asked + one.unanswered,
                        "have": stream.have,
                        "missing": stream.missing + one.unanswered,
                        "n": stream.taken,
                        "missing_records": max(0, stream.highest - stream.taken),
                        "refused": one.refusals,
                    }
                )
            return views

    # Within.

    def _meet(self, station: Station, ledger: str, number: int) -> None:
        """A shot is that of the first request that it may be of."""
        for request in station.requests:
            if request.is_met_by(ledger, number):
                request.has_fired = True
                station.unanswered -= request.is_unanswered
                return

    def _names(self, station: str) -> Dict[str, str]:
        return {"studio": self._studio, "station": station}

    def _check_station(self, name: str) -> None:
        with self._lock:
            if name in self._stations:
                return
            if len(self._stations) >= MOST_STATIONS:
                raise messages.Rubbish("there are %d stations already" % MOST_STATIONS)
        check_name("station", name)

    def _station(self, name: str) -> Station:
        return self._stations.setdefault(name, Station(name))

    def _stream(self, name: str, ledger: str) -> Stream:
        streams = self._station(name).streams
        if ledger not in streams:
            streams[ledger] = Stream(*self._marks.get((name, ledger), Mark()))
        return streams[ledger]

    def _own(self, topic: Topic, message: Record) -> Record:
        """The message, when it tells of its topic's station; raises Rubbish."""
        if message.get("studio") != topic.studio or message.get("station") != topic.station:
            raise messages.Rubbish("a message that tells of another station than its topic")
        return message

    def _check_url(self, name: str, record: Record) -> None:
        """Raises Rubbish when a picture is said to be elsewhere than at its station."""
        url = record.get("url")
        with self._lock:
            base = self._station(name).url
        if url is None:
            return
        if not isinstance(url, str) or not base or not _is_below(url, base):
            raise messages.Rubbish(
                "a picture that is said to be at %.100s, and the station is at %s"
                % (url, base or "no address")
            )

    def _refuse(self, topic: Topic, words: str) -> None:
        with self._lock:
            station = self._stations.get(topic.station)
            if station is None:
                count = self._refusals = self._refusals + 1
            else:
                count = station.refusals = station.refusals + 1
        if count <= _MOST_REFUSALS:
            self._watcher.refused(topic.station, "%s on %s" % (words, _shown(topic)))
        if station is not None:
            self._look_for_gap(topic.station)


def _is_below(url: str, base: str) -> bool:
    """Whether an address begins with another one, and leads nowhere else on its way."""
    base = base if base.endswith("/") else base + "/"
    if not url.startswith(base) or not _URL.fullmatch(url):
        return False
    way = urllib.parse.unquote(url[len(base) :].partition("?")[0])
    return not {".", ".."} & set(way.replace("\\", "/").split("/"))


def _shown(topic: Topic) -> str:
    return topic.what if not topic.name else "%s/%.40s" % (topic.what, topic.name)


def _exposure(settings: Mapping[str, Any]) -> float:
    """Seconds that an exposure may take; noise reduction takes as long again."""
    shutter = settings.get("shutter")
    text = shutter.get("text") if isinstance(shutter, dict) else None
    seconds = seconds_of(text) if isinstance(text, str) else None
    return 0.0 if seconds is None else 2 * seconds
