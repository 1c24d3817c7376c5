"""The studio's own record: what it has collected, and what a person has to know.

It is the ledger of the studio's folder, so `lumatie ledger verify` compares the one with the other.
A picture's record says in `station`, `ledger` and `of` which one it is: the acknowledgement that
it is here. Any thread may call.
"""

import hashlib
import hmac
import os
import secrets
import threading
from typing import Any, Dict, Mapping, Optional, Tuple

from ..events import to_record
from ..ledger import INNER_FOLDER, Ledger
from .hub import Mark
from .memory import read_whole, write_whole
from .numbers import Numbers

_COPIED_FIELDS = (
    "size", "sha256", "shot", "origin", "format", "settings", "width", "height", "original",
    "session",
)  # fmt: skip

Key = Tuple[str, str, int]  # station, ledger, number


class Book:
    """The record in one folder; raises FolderRejected when there can be none."""

    def __init__(self, folder: str, studio: str) -> None:
        self.ledger = Ledger(folder)
        self.ledger.prepare()
        self.folder = self.ledger.folder
        self._studio = studio
        self._path = os.path.join(self.folder, INNER_FOLDER, "studio.%s.json" % studio)
        self._lock = threading.Lock()  # guards the next two
        # Of all pictures that were ever collected; their names and hashes are in the ledger.
        self._collected: Dict[Tuple[str, str], Numbers] = {}  # by station and ledger
        self._newest: Dict[str, Dict[str, Any]] = {}  # by station
        for record in self.ledger.read():
            self._learn(record)
        stored = read_whole(self._path)
        secret = stored.get("secret")
        is_known = isinstance(secret, str) and len(secret) == 64
        self._secret = str(secret) if is_known else secrets.token_hex(32)
        self._marks = _marks_of(stored.get("marks"))
        self._store()

    def token(self, station: str, instance: str) -> str:
        """What opens the web server of one start of a station to this studio."""
        text = "\0".join((self._studio, station, instance))
        return hmac.new(self._secret.encode(), text.encode(), hashlib.sha256).hexdigest()[:32]

    @property
    def marks(self) -> Dict[Tuple[str, str], Mark]:
        """Up to where each station's ledger is settled, as it was kept last."""
        return dict(self._marks)

    def keep(self, marks: Mapping[Tuple[str, str], Mark]) -> None:
        """Keeps that, when it is another one; raises OSError."""
        if marks != self._marks:
            self._marks = dict(marks)
            self._store()

    def is_collected(self, key: Key) -> bool:
        """Whether a picture is here."""
        with self._lock:
            return key[2] in self._collected.get(key[:2], ())

    def owns(self, file: str, sha256: str) -> bool:
        """Whether a file of the folder stands in the record with a hash; raises WriteFailed."""
        wanted = os.path.normcase(file)
        return any(os.path.normcase(one) == wanted for one in self.ledger.files_of(sha256))

    def collect(self, key: Key, file: str, record: Mapping[str, Any]) -> Dict[str, Any]:
        """Records a picture that is here under its final name; raises WriteFailed."""
        station, ledger, number = key
        fields = {name: record[name] for name in _COPIED_FIELDS if record.get(name) is not None}
        fields.setdefault("format", "OTHER")
        more = {"studio": self._studio, "station": station, "ledger": ledger, "of": number}
        event = self.ledger.append("picture", file=file, **fields, **more)
        with self._lock:
            self._note(key)
            self._show({**to_record(event), **more})
        return {**to_record(event), **more}

    def newest(self, station: str) -> Optional[Dict[str, Any]]:
        """The record of a station's newest picture that is here, None: there is none."""
        with self._lock:
            return self._newest.get(station)

    @property
    def count(self) -> int:
        """How many pictures are here."""
        with self._lock:
            return sum(map(len, self._collected.values()))

    def alarm(self, what: str, advice: str, **more: Any) -> Dict[str, Any]:
        """Records what a person has to look after; raises WriteFailed."""
        more = {"studio": self._studio, **more}
        event = self.ledger.append("alarm", what=what, advice=advice, **more)
        return {**to_record(event), **more}

    def _note(self, key: Key) -> None:
        self._collected.setdefault(key[:2], Numbers()).add(key[2])

    def _learn(self, record: Mapping[str, Any]) -> None:
        station, ledger, number = record.get("station"), record.get("ledger"), record.get("of")
        if record.get("kind") != "picture" or not isinstance(record.get("file"), str):
            return
        if isinstance(station, str) and isinstance(ledger, str) and type(number) is int:
            self._note((station, ledger, number))
            self._show(record)

    def _show(self, record: Mapping[str, Any]) -> None:
        """Takes a picture for its station's newest, unless it is an older one of that ledger."""
        before = self._newest.get(record["station"])
        is_older = before is not None and (
            before["ledger"] == record["ledger"] and before["of"] > record["of"]
        )
        if not is_older:
            self._newest[record["station"]] = dict(record)

    def _store(self) -> None:
        marks = [[*names, *mark] for names, mark in self._marks.items()]
        write_whole(self._path, {"secret": self._secret, "marks": marks})
        if os.name != "nt":
            os.chmod(self._path, 0o600)


def _marks_of(stored: Any) -> Dict[Tuple[str, str], Mark]:
    marks = {}
    try:
        for station, ledger, settled, asked, have in stored or []:
            marks[str(station), str(ledger)] = Mark(int(settled), int(asked), int(have))
    except (TypeError, ValueError):
        return {}  # all is asked for again
    return marks
