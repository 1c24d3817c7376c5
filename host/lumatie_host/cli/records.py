"""Prints records on a thread of its own: who reads them slowly holds up nothing."""

import queue
import threading
from typing import Any, Dict, Mapping, Optional

from ..events import from_record
from . import words
from .console import Console, OutputGone
from .control import Control

_HIDDEN = ("setting", "shot")
_PATIENCE = 2.0  # seconds to print what is left
_MANY = 1000  # records that wait


class Records:
    """Prints what is put, in its order; any thread may call.

    Args:
        added: what each record gets beside its own fields.
    """

    def __init__(self, console: Console, control: Control, added: Mapping[str, Any]) -> None:
        self._console = console
        self._control = control
        self._added = dict(added)
        self._waiting: "queue.SimpleQueue[Optional[Dict[str, Any]]]" = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._run, name="lumatie-print", daemon=True)

    def begin(self) -> None:
        """Prints what was put and what is put from now on."""
        self._thread.start()

    def put(self, record: Dict[str, Any]) -> None:
        """A record to print."""
        self._waiting.put(record)

    @property
    def is_behind(self) -> bool:
        """Whether very many wait, so that who can do with less puts no more."""
        return self._waiting.qsize() >= _MANY

    def finish(self) -> bool:
        """Prints what is left; False when nobody takes it."""
        self._waiting.put(None)
        if self._thread.is_alive():
            self._thread.join(_PATIENCE)
        return not self._thread.is_alive()

    def _run(self) -> None:
        while True:
            record = self._waiting.get()
            if record is None:
                return
            try:
                self._print({**record, **self._added})
            except OutputGone:
                self._control.stop()
                return

    def _print(self, record: Dict[str, Any]) -> None:
        if self._console.as_json:
            self._console.record(record)
        elif not self._console.is_quiet and record["kind"] not in _HIDDEN:
            event = from_record({"n": 0, **record})
            if event is not None:
                whose = record.get("station")
                self._console.line(words.line(event, "%s: " % whose if whose else ""))
