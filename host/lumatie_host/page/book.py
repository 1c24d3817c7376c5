"""What the page knows from the ledger: pictures by their number, ratings, alarms, counts.

All of it belongs to the loop's thread. Records are looked at before they are believed: the file may
have been written by anybody who may write into the folder.
"""

import collections
import itertools
import os
import re
import sys
from typing import Any, Deque, Dict, List, Mapping, NamedTuple, Optional, Tuple

from ..ledger import path_of

MOST_RATINGS = 2000  # that a state tells
MOST_ALARMS = 20
MOST_SHOTS = 400  # that may get a further file: it comes soon after the first

_SHA256 = re.compile("[0-9a-f]{64}")
_FORMATS = ("JPEG", "RAW", "OTHER")


class Entry(NamedTuple):
    """A picture, as its record tells it."""

    n: int
    file: str
    size: int
    sha256: str
    format: str
    shot: int
    session: str


class _Kept(NamedTuple):
    """What is kept of an entry for as long as the page runs."""

    file: str
    size: int
    digest: bytes
    format: str
    shot: int
    session: str


class Book:
    """The index of one ledger. It grows with each picture, so little is kept of one.

    Args:
        since: records up to this number were there before; their alarms are over.
    """

    def __init__(self, since: int = 0) -> None:
        self.since = since
        self.last = 0
        self.newest: Optional[Dict[str, Any]] = None
        self.shots = 0
        self.evidence = ""  # of the camera's latest loss
        self.offer: Dict[str, List[str]] = {}
        self._kept: Dict[int, _Kept] = {}
        self._by_file: Dict[str, int] = {}
        self._siblings: Dict[int, List[int]] = {}  # of shots with several files
        self._by_shot: "collections.OrderedDict[Tuple[str, int], List[int]]"
        self._by_shot = collections.OrderedDict()  # of the newest shots
        self._ratings: "collections.OrderedDict[str, Dict[str, Any]]" = collections.OrderedDict()
        self._alarms: Deque[Dict[str, Any]] = collections.deque(maxlen=MOST_ALARMS)
        self._copy_seconds = 0.0

    @property
    def is_whole(self) -> bool:
        """Whether it has all records of before."""
        return self.last >= self.since

    @property
    def pictures(self) -> int:
        """How many there are."""
        return len(self._kept)

    @property
    def alarms(self) -> List[Dict[str, Any]]:
        """The newest alarms and failures since the start, the newest last."""
        return list(self._alarms)

    @property
    def ratings(self) -> Dict[str, Dict[str, Any]]:
        """File to rating and label, of those rated last."""
        return dict(self._ratings)

    def entry(self, n: int) -> Optional[Entry]:
        """The picture of a number."""
        kept = self._kept.get(n)
        if kept is None:
            return None
        file, size, digest, format_, shot, session = kept
        return Entry(n, file, size, digest.hex(), format_, shot, session)

    def of_file(self, file: str) -> Optional[Entry]:
        """The newest picture of a name."""
        return self.entry(self._by_file.get(file, 0))

    def siblings(self, entry: Entry) -> List[Entry]:
        """All files of the shot that a picture is of, itself among them."""
        found = [self.entry(n) for n in self._siblings.get(entry.n, [])]
        return [one for one in found if one is not None] or [entry]

    def mean_size(self, count: int = 20) -> int:
        """What a shot takes of the disk, from the newest pictures; 0: nothing is known."""
        shots: Dict[Any, int] = {}
        for n, kept in itertools.islice(reversed(self._kept.items()), count):
            key = (kept.session, kept.shot) if kept.shot else n
            shots[key] = shots.get(key, 0) + kept.size
        return sum(shots.values()) // len(shots) if shots else 0

    def copy_lag(self) -> float:
        """How far the latest copy was behind its picture, in seconds."""
        return self._copy_seconds

    def take(self, record: Dict[str, Any]) -> Optional[Entry]:
        """Takes in a record; returns the picture that it tells of, if any."""
        self.last = max(self.last, record["n"])
        kind = record.get("kind")
        if kind == "picture":
            return self._take_picture(record)
        if kind == "rated":
            self._take_rating(record)
        elif kind in ("alarm", "failed") and record["n"] > self.since:
            self._alarms.append(record)
        elif kind == "copied":
            seconds = record.get("seconds")
            self._copy_seconds = float(seconds) if isinstance(seconds, (int, float)) else 0.0
        elif kind == "lost":
            self.evidence = _text(record, "evidence")
        elif kind == "opened":
            self.evidence = ""
            self.offer = {}
        elif kind == "back":
            self._take_return(record)
        elif kind == "setting":
            pair = self.offer.get(_text(record, "name"))
            if pair is not None and pair[0] == record.get("text"):
                del self.offer[_text(record, "name")]
        return None

    def _take_picture(self, record: Dict[str, Any]) -> Optional[Entry]:
        file, digest = _text(record, "file"), _text(record, "sha256").lower()
        size, shot = record.get("size"), record.get("shot")
        if not file or not _SHA256.fullmatch(digest) or type(size) is not int or size < 0:
            return None
        format_ = _text(record, "format")
        entry = Entry(
            record["n"],
            file,
            size,
            digest,
            sys.intern(format_ if format_ in _FORMATS else "OTHER"),
            shot if type(shot) is int else 0,
            sys.intern(_text(record, "session")),
        )
        about = file, size, bytes.fromhex(digest), entry.format, entry.shot, entry.session
        self._kept[entry.n] = _Kept(*about)
        self._by_file[file] = entry.n
        self._take_shot(entry)
        self.newest = record
        return entry

    def _take_shot(self, entry: Entry) -> None:
        key = (entry.session, entry.shot)
        numbers = self._by_shot.get(key) if entry.shot else None
        if numbers is None:
            self.shots += 1
            if entry.shot:
                self._by_shot[key] = [entry.n]
                if len(self._by_shot) > MOST_SHOTS:
                    self._by_shot.popitem(last=False)
            return
        numbers.append(entry.n)
        for n in numbers:
            self._siblings[n] = numbers

    def _take_rating(self, record: Mapping[str, Any]) -> None:
        file, rating = _text(record, "file"), record.get("rating")
        if file and type(rating) is int:
            self._ratings.pop(file, None)  # the newest stand last
            self._ratings[file] = {"rating": rating, "label": _text(record, "label")}
            if len(self._ratings) > MOST_RATINGS:
                self._ratings.popitem(last=False)

    def _take_return(self, record: Mapping[str, Any]) -> None:
        self.evidence = ""
        self.offer = {}
        differences = record.get("differences")
        if isinstance(differences, dict):
            for name, pair in differences.items():
                if isinstance(pair, list) and len(pair) == 2:
                    self.offer[name] = [str(pair[0]), str(pair[1])]


def path_in(folder: str, name: str) -> Optional[str]:
    """The path of a file that a record names; None when it is none, or a link leads elsewhere."""
    path = path_of(folder, name)
    if path is None or not os.path.isfile(path):  # neither a pipe, which would be waited for
        return None
    real, home = (os.path.normcase(os.path.realpath(one)) for one in (path, folder))
    return path if real.startswith(os.path.join(home, "")) else None


def _text(record: Mapping[str, Any], name: str) -> str:
    value = record.get(name)
    return value if isinstance(value, str) else ""
