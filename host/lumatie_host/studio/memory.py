"""What a station remembers between two starts, in its folder's `.lumatie/`.

It is the ledger's own identity, how far the broker has got the ledger, and which shots were asked
for lately. Each station of a folder has files of its own.
"""

import json
import os
import secrets
import time
from typing import Any, Dict

from ..errors import FolderRejected
from ..ledger import INNER_FOLDER

KEPT = 600.0  # seconds for which a request is known again; the broker forgets it much sooner
_MOST_LINES = 2000


class Memory:
    """The memory of one station. One thread at a time, but for `fired`, which is another's."""

    def __init__(self, folder: str, studio: str, station: str) -> None:
        """Raises FolderRejected when it can neither be read nor made."""
        base = os.path.join(folder, INNER_FOLDER)
        name = "%s.%s" % (studio, station)
        self._identity = os.path.join(base, "ledger.id")
        self._mark = os.path.join(base, "station.%s.json" % name)
        self._fired_path = os.path.join(base, "station.%s.fired" % name)
        try:
            self.ledger = self._known_identity()
            self.acknowledged = self._known_mark()
            self._lines = 0  # of the requests' file
            self._most_lines = _MOST_LINES
            self._fired = self._known_fired()
        except OSError as error:
            raise FolderRejected(folder, error.strerror or str(error)) from error

    def acknowledge(self, number: int) -> None:
        """The broker has all records up to this one. Raises OSError."""
        self.acknowledged = number
        write_whole(self._mark, {"ledger": self.ledger, "acknowledged": number})

    def was_fired(self, request: str) -> bool:
        """Whether a shot was asked for by this request, before this start perhaps."""
        return request in self._fired

    def fire(self, request: str) -> None:
        """Notes a request on the disk, before the camera is asked. Raises OSError."""
        now = time.time()
        self._fired[request] = now
        line = json.dumps([request, now]) + "\n"
        with open(self._fired_path, "a", encoding="ascii") as file:
            file.write(line)
            file.flush()
            os.fsync(file.fileno())
        self._lines += 1
        if self._lines > self._most_lines:
            self._forget_old(now)

    def _forget_old(self, now: float) -> None:
        self._fired = {one: at for one, at in self._fired.items() if abs(now - at) < KEPT}
        text = "".join(json.dumps([one, at]) + "\n" for one, at in self._fired.items())
        _replace(self._fired_path, text)
        self._lines = len(self._fired)
        self._most_lines = max(_MOST_LINES, 2 * self._lines)

    def _known_identity(self) -> str:
        """The ledger's identity; made by whoever comes first."""
        while True:
            try:
                with open(self._identity, encoding="ascii") as file:
                    text = file.read().strip()
                if len(text) == 32 and text.isalnum():
                    return text
                os.unlink(self._identity)
            except FileNotFoundError:
                pass
            except UnicodeDecodeError:
                os.unlink(self._identity)
            temporary = "%s.%s" % (self._identity, secrets.token_hex(4))
            with open(temporary, "w", encoding="ascii") as file:
                file.write(secrets.token_hex(16))
                file.flush()
                os.fsync(file.fileno())
            try:
                if os.name == "nt":
                    os.rename(temporary, self._identity)
                else:
                    os.link(temporary, self._identity)
                    os.unlink(temporary)
            except FileExistsError:
                os.unlink(temporary)

    def _known_mark(self) -> int:
        stored = read_whole(self._mark)
        number = stored.get("acknowledged")
        is_own = stored.get("ledger") == self.ledger
        return number if is_own and type(number) is int and number >= 0 else 0

    def _known_fired(self) -> Dict[str, float]:
        fired: Dict[str, float] = {}
        try:
            with open(self._fired_path, encoding="ascii", errors="replace") as file:
                lines = file.readlines()
        except FileNotFoundError:
            return fired
        for line in lines:
            try:
                request, moment = json.loads(line)
                if abs(time.time() - moment) < KEPT:
                    fired[str(request)] = float(moment)
            except (TypeError, ValueError):
                continue  # a torn line: the camera was not asked
        if lines and not lines[-1].endswith("\n"):
            with open(self._fired_path, "a", encoding="ascii") as file:
                file.write("\n")
        self._lines = len(lines)
        return fired


def read_whole(path: str) -> Dict[str, Any]:
    """The JSON object in a file; empty when there is none that can be read."""
    try:
        with open(path, encoding="utf-8") as file:
            stored = json.load(file)
    except (FileNotFoundError, ValueError):
        return {}
    return stored if isinstance(stored, dict) else {}


def write_whole(path: str, value: Dict[str, Any]) -> None:
    """Replaces a file of ours with a JSON object: it holds the old or the new one, never a part."""
    _replace(path, json.dumps(value))


def _replace(path: str, text: str) -> None:
    temporary = "%s.new" % path
    with open(temporary, "w", encoding="utf-8") as file:
        file.write(text)
        file.flush()
        os.fsync(file.fileno())
    os.replace(temporary, path)
