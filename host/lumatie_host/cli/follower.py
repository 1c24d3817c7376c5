"""Follows the events of one session: prints them, and knows what is still to come."""

import queue
import threading
import time
from typing import Callable, Dict, Iterator, Optional, Tuple, Type

from ..errors import Reason
from ..events import (
    Back,
    Event,
    Failed,
    Lagged,
    Lost,
    Opened,
    Picture,
    SettingChanged,
    ShotAsked,
    to_record,
)
from ..session import Session
from . import words
from .console import Console, OutputGone

_LOSSES = (Reason.PICTURE_LOST.value, Reason.WRITE_FAILED.value)
_NOTHING_YET = -1
PATIENCE = 2.0  # seconds


class Follower:
    """Reads the events of one session on a thread of its own, from now on, and prints them on
    another one: who reads standard output slowly holds up nothing.

    Any thread may call.

    Args:
        hidden: events that are not put in words.
        on_gone: called once, on the printing thread, when nobody reads standard output any more.
    """

    def __init__(
        self,
        console: Console,
        session: Session,
        hidden: Tuple[Type[Event], ...],
        on_gone: Callable[[], None],
    ) -> None:
        self._console = console
        self._session = session
        self._hidden = hidden
        self._on_gone = on_gone
        # Guards the next ones.
        self._changed = threading.Condition()
        self._due: Dict[int, int] = {}  # shot to the files that are to come, or _NOTHING_YET
        self._texts: Dict[str, str] = {}  # of the settings
        self._asked = 0
        self._pictures = 0
        self._losses = 0
        self._evidence = ""  # of the camera's loss; empty: it is there
        self._is_over = False
        self._mailbox = session.mailbox()
        self._waiting: "queue.SimpleQueue[Optional[Event]]" = queue.SimpleQueue()
        self._printer = _thread(self._print_all, "lumatie-print")
        self._reader = _thread(self._read_all, "lumatie-follow")

    @property
    def asked(self) -> int:
        """How many shots were asked for."""
        return self._asked

    @property
    def pictures(self) -> int:
        """How many pictures have come."""
        return self._pictures

    @property
    def losses(self) -> int:
        """How many pictures are lost, or could not be written."""
        return self._losses

    @property
    def missing(self) -> int:
        """How many files of shots that were taken have not come."""
        with self._changed:
            return sum(abs(left) for left in self._due.values())

    @property
    def evidence(self) -> str:
        """What showed that the camera is gone; empty when it is there."""
        return self._evidence

    @property
    def is_over(self) -> bool:
        """Whether the session has ended."""
        return self._is_over

    def text_of(self, setting: str) -> str:
        """What the camera has told of a setting."""
        with self._changed:
            return self._texts.get(setting, "")

    def wait_until(self, is_done: Callable[[], bool], seconds: float) -> bool:
        """Waits until a condition holds, or the session is over; whether it holds."""
        deadline = time.monotonic() + seconds
        while not is_done():
            with self._changed:
                left = deadline - time.monotonic()
                if self._is_over or left <= 0:
                    break
                # In portions: what the condition asks for may change without an event.
                self._changed.wait(min(left, 0.1))
        return is_done()

    def finish(self, is_given_up: Callable[[], bool]) -> bool:
        """Waits until all is printed, once the session is closed.

        As soon as it is given up that may take two seconds yet; False when they are not enough.
        """
        self._reader.join(PATIENCE)
        self._waiting.put(None)
        deadline = None
        while self._printer.is_alive():
            self._printer.join(0.1)
            if deadline is None and is_given_up():
                deadline = time.monotonic() + PATIENCE
            if deadline is not None and time.monotonic() > deadline:
                return not self._printer.is_alive()
        return True

    def _read_all(self) -> None:
        for event in self._own_events():
            with self._changed:
                self._note(event)
                self._changed.notify_all()
            self._waiting.put(event)
        with self._changed:
            self._is_over = True
            self._changed.notify_all()

    def _own_events(self) -> Iterator[Event]:
        while True:
            heard = self._mailbox.take()
            if heard is None:
                return
            if isinstance(heard, Lagged):
                yield from self._missed(heard)
            else:
                yield heard

    def _missed(self, lagged: Lagged) -> Iterator[Event]:
        """What the record has; it may have some of others who write into the folder."""
        for event in self._session.ledger.events(lagged.first - 1):
            if event.n > lagged.last:
                return
            if not isinstance(event, (Opened, Picture)) or event.session == self._session.id:
                yield event

    def _note(self, event: Event) -> None:
        if isinstance(event, SettingChanged):
            self._texts[event.name] = event.text
        elif isinstance(event, ShotAsked):
            self._asked += 1
            self._due[event.shot] = _NOTHING_YET
        elif isinstance(event, Picture) and event.origin != "recovered":
            self._pictures += 1
            self._due[event.shot] = self._left_after(event)
        elif isinstance(event, Failed):
            self._losses += event.reason in _LOSSES
            # What the end of the session has cut short is still at the camera.
            if event.shot is not None and event.reason != Reason.CLOSED.value:
                self._due[event.shot] = 0
        elif isinstance(event, Lost):
            self._evidence = event.evidence
        elif isinstance(event, Back):
            self._evidence = ""

    def _left_after(self, picture: Picture) -> int:
        """How many files of a shot are to come behind this one."""
        left = self._due.get(picture.shot, _NOTHING_YET)
        if left == _NOTHING_YET:
            return picture.settings.get("quality", "").count("+")  # "RAW + Large Fine Jpeg"
        return max(0, left - 1)

    def _print_all(self) -> None:
        is_gone = False
        while True:
            event = self._waiting.get()
            if event is None:
                return
            try:
                if not is_gone:
                    self._print(event)
            except OutputGone:
                is_gone = True
                self._on_gone()

    def _print(self, event: Event) -> None:
        if self._console.as_json:
            self._console.record(to_record(event))
        elif not self._console.is_quiet and not isinstance(event, self._hidden):
            self._console.line(words.line(event))


def _thread(target: Callable[[], None], name: str) -> threading.Thread:
    thread = threading.Thread(target=target, name=name, daemon=True)
    thread.start()
    return thread
