"""How the studio stands, as its page is told: the whole of it, and what has become different.

All of it belongs to the loop's thread. What stations tell is looked at before it is passed on: each
of them can write what it likes into its own branch.
"""

import collections
import shutil
from typing import Any, Deque, Dict, Iterable, List, Mapping, Optional, Tuple

from ..page.problems import VERSION
from ..page.tokens import OPERATOR
from .studio import GONE, Studio

ACTS = ["set", "shoot", "tag"]
STATION_ACTS = [*ACTS, "rate", "sequence"]
MOST_ALARMS = 20

_PICTURE = ("file", "time", "size", "sha256", "format", "shot", "width", "height")
_WORDS = {
    "open": "ready",
    "opening": "is opened",
    "silent": "has not answered for a moment",
    "lost": "the camera is gone",
    "reopening": "the camera is looked for again",
    "closed": "the session is closed",
    "left": "has left",
    "gone": "is gone",
}
_ADVICE = {
    "lost": "Check the cable, the battery and the power switch; it goes on by itself.",
    "gone": "Look after the station and its network; what it has is not lost.",
}
_SHARED = ("v", "kind", "n", "stations", "alarms")  # told otherwise than as a change


class Overview:
    """Puts the state together.

    Args:
        studio: what is shown.
    """

    def __init__(self, studio: Studio) -> None:
        self._studio = studio
        self.viewers = 0
        self.release: Optional[Dict[str, Any]] = None  # what came of the last request for pictures
        self.shooting = 0  # requests for pictures that are under way
        self.tag = ""  # that was given last
        self.free: Optional[int] = None  # bytes on the folder's disk
        self._alarms: Deque[Dict[str, Any]] = collections.deque(maxlen=MOST_ALARMS)
        self._alarm_count = 0
        self._tiles: Dict[str, Dict[str, Any]] = {}
        self._told: Dict[str, Any] = {}

    def whole(self, role: str) -> Dict[str, Any]:
        """The state as somebody of this role is told it."""
        may = list(ACTS) if role == OPERATOR else []
        return {
            **self._shared(),
            "role": role,
            "may": may,
            "stations": list(self._tiles.values()),
            "alarms": list(self._alarms),
        }

    def look(self, names: Optional[Iterable[str]] = None) -> List[Dict[str, Any]]:
        """The stations that stand otherwise than at the last look, of some or of all."""
        changed = []
        for view in self._studio.known(names):
            name = view["station"]
            tile = _tile(view, self._studio.book.newest(name))
            if tile != self._tiles.get(name):
                self._tiles[name] = tile
                changed.append(tile)
        return changed

    def changes(self) -> Dict[str, Any]:
        """The fields that are others than at the last call; stations and alarms apart."""
        now = self._shared()
        told = {**now, "disk": now["disk"] and now["disk"]["free"] >> 26}
        changed = {
            name: now[name]
            for name, value in told.items()
            if name not in _SHARED and value != self._told.get(name, _NOTHING)
        }
        self._told = told
        return changed

    def take(self, record: Mapping[str, Any]) -> bool:
        """Takes in what the studio tells; whether the alarms are others now."""
        what = _alarm(record)
        if what is None:
            return False
        self._alarm_count += 1
        self._alarms.append(
            {
                "v": VERSION,
                "kind": "alarm",
                "n": self._alarm_count,
                "time": _text(record, "time"),
                "station": _text(record, "station"),
                "what": what[:1000],
                "advice": _text(record, "advice")[:1000],
            }
        )
        return True

    def forget(self) -> bool:
        """That a station was gone is no alarm any more when it is back; whether there was one."""
        over = [one for one in self._alarms if self._is_over(one)]
        for alarm in over:
            self._alarms.remove(alarm)
        return bool(over)

    def _is_over(self, alarm: Mapping[str, Any]) -> bool:
        station = alarm["station"]
        is_there = self._tiles.get(station, {}).get("online") is True
        return is_there and alarm["what"] == GONE % station

    @property
    def alarms(self) -> List[Dict[str, Any]]:
        """The newest alarms, the newest last."""
        return list(self._alarms)

    def look_at_disk(self) -> None:
        """Looks how much room there is; it may take a moment. Any thread."""
        try:
            self.free = shutil.disk_usage(self._studio.book.folder).free
        except OSError:
            self.free = None

    def _shared(self) -> Dict[str, Any]:
        studio = self._studio
        connection, words, advice = self._words()
        return {
            "v": VERSION,
            "kind": "state",
            "n": studio.book.ledger.last,
            "studio": studio.name,
            "folder": studio.book.folder,
            "broker": studio.is_at_broker,
            "connection": connection,
            "words": words,
            "advice": advice,
            "to_collect": studio.to_collect,
            "collected": studio.book.count,
            "disk": None if self.free is None else {"free": self.free},
            "tag": self.tag,
            "shooting": self.shooting > 0,
            "release": self.release,
            "viewers": self.viewers,
        }

    def _words(self) -> Tuple[str, str, str]:
        """How it stands: in one word, in one sentence, and what to do."""
        if not self._studio.is_at_broker:
            advice = "Look after it; what is shown is as it was, and goes on by itself."
            return "lost", "The broker is not there.", advice
        tiles = [tile for tile in self._tiles.values() if tile["connection"] != "left"]
        if not tiles:
            return "waiting", "No station is there yet.", "Start stations with this broker."
        bad = [tile for tile in tiles if tile["connection"] != "open"]
        of = "1 station" if len(tiles) == 1 else "%d stations" % len(tiles)
        if not bad:
            return "open", "%s: %s ready." % (of, "it is" if len(tiles) == 1 else "all"), ""
        names = ", ".join("%s %s" % (tile["station"], tile["words"]) for tile in bad[:3])
        more = "" if len(bad) < 4 else ", and %d more" % (len(bad) - 3)
        words = "%d of %s ready: %s%s." % (len(tiles) - len(bad), of, names, more)
        return "lost", words, bad[0]["advice"]


_NOTHING = object()


def _tile(view: Mapping[str, Any], collected: Optional[Mapping[str, Any]]) -> Dict[str, Any]:
    """One station, as the page is told."""
    state = view["state"]
    connection = _text(state, "connection")
    if not view["online"]:
        connection = "left" if connection == "closed" else "gone"
    return {
        "station": view["station"],
        "online": view["online"],
        "connection": connection if connection in _WORDS else "opening",
        "words": _WORDS.get(connection, "is opened"),
        "advice": _ADVICE.get(connection, ""),
        "camera": _text(state, "camera")[:200],
        "maker": _text(state, "maker")[:20],
        "tag": _text(state, "tag")[:200],
        "settings": _settings(view["settings"]),
        "picture": _picture(view["picture"], collected),
        "asked": view["asked"],
        "have": view["have"],
        "missing": view["missing"],
    }


def _settings(told: Mapping[str, Any]) -> Dict[str, str]:
    return {
        str(name)[:40]: _text(setting, "text")[:200]
        for name, setting in list(told.items())[:20]
        if isinstance(setting, dict)
    }


def _picture(
    told: Optional[Mapping[str, Any]], collected: Optional[Mapping[str, Any]]
) -> Optional[Dict[str, Any]]:
    """The newest picture: as the station told, or as it was collected by an earlier run."""
    record = told or collected
    if record is None:
        return None
    number = record["n"] if told else record["of"]
    return {"n": number, **{name: record[name] for name in _PICTURE if name in record}}


def _alarm(record: Mapping[str, Any]) -> Optional[str]:
    """What a record alarms of, None: of nothing. The studio's own alarms name the station."""
    kind, station = record.get("kind"), _text(record, "station")
    if kind == "alarm":
        what = _text(record, "what") or "something is wrong"
        return what if "studio_n" in record else "station %s: %s" % (station, what)
    if kind == "failed":
        return "station %s: %s" % (station, _text(record, "text") or "no picture came of a shot")
    if kind == "lost":
        why = _text(record, "evidence")
        return "station %s: the camera is gone%s" % (station, why and ": " + why)
    return None


def _text(record: Mapping[str, Any], name: str) -> str:
    value = record.get(name)
    return value if isinstance(value, str) else ""
