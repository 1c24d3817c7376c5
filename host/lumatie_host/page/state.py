"""How it stands, as the page is told: the whole of it, and what has become different."""

from typing import Any, Dict, List, Optional, Tuple

from ..errors import TetherError
from ..ledger import Ledger
from ..settings import NAMES, Setting
from .book import Book
from .desk import Desk
from .problems import VERSION, told
from .sequence import Sequences
from .tokens import OPERATOR

# What cannot be had through the module; the page says so instead of pretending.
ABSENT = ["live view", "focus drive", "battery", "card", "bulb"]

ACTS = ["set", "shoot", "rate", "tag", "sequence", "open"]
RATE = "rate"

# These are told by records as they come, or by nothing but a whole state.
_OF_RECORDS = ("picture", "ratings", "alarms", "absent", "n", "v", "kind")

_LOST_ADVICE = "Check the cable, the battery and the power switch; the session goes on by itself."


class State:
    """Puts the state together. All of it belongs to the loop's thread."""

    def __init__(self, desk: Desk, sequences: Sequences, viewers_rate: bool) -> None:
        self.book = Book()
        self.free: Optional[int] = None  # bytes on the folder's disk
        self.viewers = 0
        self._desk = desk
        self._sequences = sequences
        self._viewers_rate = viewers_rate
        self._told: Dict[str, Any] = {}
        self._ledger: Optional[Ledger] = None

    def begin(self, ledger: Optional[Ledger], book: Book) -> None:
        """Tells of another ledger from now on, whose records are taken into the book."""
        self._ledger = ledger
        self.book = book

    @property
    def is_loaded(self) -> bool:
        """Whether the book has what was in the folder before, as far as that can be had."""
        ledger = self._desk.ledger
        if ledger is None:
            return self._desk.error is not None
        return (ledger is self._ledger and self.book.is_whole) or self._desk.needs_folder

    def may(self, role: str) -> List[str]:
        """What somebody may do."""
        if role == OPERATOR:
            return list(ACTS)
        return [RATE] if self._viewers_rate else []

    def whole(self, role: str) -> Dict[str, Any]:
        """The state as somebody of this role is told it."""
        return {**self._shared(), "role": role, "may": self.may(role)}

    def changes(self) -> Dict[str, Any]:
        """The fields that are others than at the last call, but for those that records tell."""
        now = self._shared()
        changed = {
            name: value
            for name, value in now.items()
            if name not in _OF_RECORDS and _compared(name, value) != self._told.get(name, _NOTHING)
        }
        self._told = {name: _compared(name, value) for name, value in now.items()}
        return changed

    def _shared(self) -> Dict[str, Any]:
        desk, book = self._desk, self.book
        session, error = desk.session, desk.error
        connection = desk.connection
        camera = desk.wanted.label if session is None else session.camera
        words, advice = self._words(connection, camera, error)
        copier = None if session is None else session.copier
        return {
            "v": VERSION,
            "kind": "state",
            "n": book.last,
            "camera": camera,
            "maker": desk.wanted.maker if session is None else session.maker,
            "session": "" if session is None else session.id,
            "connection": connection,
            "words": words,
            "advice": advice,
            "error": self._error(error) if connection == "waiting" else None,
            "folder": desk.wanted.folder,
            "job": desk.wanted.job,
            "station": desk.wanted.station,
            "tag": desk.wanted.tag if session is None else session.tag,
            "next_name": self.next_name(),
            "settings": [] if session is None else _settings(session.settings),
            "picture": book.newest,
            "pictures": book.pictures,
            "shots": book.shots,
            "ratings": book.ratings,
            "alarms": book.alarms,
            "copy": None if copier is None else self._copy(copier.lag[0]),
            "disk": self._disk(),
            "sequence": self._sequences.told(),
            "viewers": self.viewers,
            "offer": self._offer(),
            "absent": ABSENT,
        }

    def next_name(self) -> str:
        """What the next picture will be called; empty while that is not known."""
        session = self._desk.session
        return "" if session is None else session.next_name()

    def _error(self, error: Optional[TetherError]) -> Optional[Dict[str, str]]:
        """Why it is waiting, and what the page can do about it."""
        if error is None:
            return None
        return {**told(error), **({"asks": "folder"} if self._desk.needs_folder else {})}

    def _copy(self, waiting: int) -> Dict[str, Any]:
        return {
            "to": self._desk.wanted.copy,
            "waiting": waiting,
            "lag": round(self.book.copy_lag(), 3) if waiting else 0.0,
        }

    def _offer(self) -> Optional[Dict[str, List[str]]]:
        """Of what is another than before the camera was gone, that which can be set back."""
        session = self._desk.session
        if session is None or not self.book.offer:
            return None
        settings = session.settings
        can_be_set = {name for name, setting in settings.items() if setting.settable}
        return {name: pair for name, pair in self.book.offer.items() if name in can_be_set} or None

    def _disk(self) -> Optional[Dict[str, Any]]:
        if self.free is None:
            return None
        size = self.book.mean_size()
        return {"free": self.free, "pictures_left": self.free // size if size else None}

    def _words(self, connection: str, camera: str, error: Optional[TetherError]) -> Tuple[str, str]:
        """One sentence that says how it stands, and one that says what to do."""
        if connection == "waiting" and error is not None:
            return _sentence(str(error)), error.advice
        if connection == "lost":
            why = ": " + self.book.evidence if self.book.evidence else ""
            return _sentence("%s is gone%s" % (camera, why)), _LOST_ADVICE
        words = {
            "opening": "%s is being opened",
            "open": "%s is ready",
            "silent": "%s has not answered for a moment",
            "reopening": "%s is looked for again",
            "closed": "The session with %s is closed",
        }
        return _sentence(words.get(connection, "%s") % camera), ""


_NOTHING = object()


def _compared(name: str, value: Any) -> Any:
    """What has to differ for a field to be told anew: not what moves all the time."""
    if name == "sequence" and value is not None:
        return {key: item for key, item in value.items() if key != "next"}
    if name == "copy" and value is not None:
        return {key: item for key, item in value.items() if key != "lag"}
    if name == "disk" and value is not None:
        left = value["pictures_left"]
        return value["free"] >> 26, left if left is None or left < 200 else left >> 6
    return value


def _settings(settings: Dict[str, Setting]) -> List[Dict[str, Any]]:
    """The settings in the order in which photographers name them."""
    return [
        {
            "name": setting.name,
            "text": setting.text,
            "allowed": list(setting.allowed),
            "settable": setting.settable,
            "choices": [{"key": choice.key, "text": choice.text} for choice in setting.choices],
        }
        for setting in (settings[name] for name in NAMES if name in settings)
    ]


def _sentence(text: str) -> str:
    text = " ".join(text.split())
    return text[:1].upper() + text[1:] + ("" if text.endswith((".", "!", "?")) else ".")
