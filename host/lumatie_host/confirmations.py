"""What the camera tells of its settings, and who waits for it to confirm one.

It belongs to the event thread of a session; what is told may be read on any thread.
"""

import time
from concurrent.futures import Future
from typing import Callable, Container, Dict, List, Optional, Sequence, Tuple, Union

from . import protocol, settings
from .errors import Refused, TetherError
from .settings import Setting, Settings


class Asked:
    """A setting that was asked for; `result` gets the text that the camera confirmed."""

    def __init__(self, request: settings.Request) -> None:
        self.request = request
        self.result: "Future[str]" = Future()
        self.begun: float = time.monotonic()
        self.sent: "Future[float]" = Future()
        self.reports = 0  # that showed another value since it was sent

    def was_sent_before(self, moment: float) -> bool:
        """Whether the camera was asked before a moment."""
        sent = self.sent
        if not sent.done() or sent.cancelled() or sent.exception() is not None:
            return False
        return sent.result() < moment


class Confirmations:
    """The settings of one camera.

    Args:
        send: asks the camera for a code's value; when that was done, on the monotonic clock.
    """

    def __init__(self, maker: str, send: Callable[[int, int], "Future[float]"]) -> None:
        self._is_nikon = maker == "nikon"
        self._send = send
        self._settings = Settings(maker)
        self._asked: List[Asked] = []
        self._confirmed: List[Tuple[Asked, str]] = []  # told when it is recorded
        self._changed: Dict[str, Setting] = {}  # to be recorded
        self._is_back = False  # begun anew behind what was told
        # Replaced, never changed.
        self.told: Dict[str, Setting] = {}
        self.texts: Dict[str, str] = {}

    @property
    def is_complete(self) -> bool:
        """Whether the camera has told all of them since `forget`."""
        return self._settings.is_complete

    def forget(self) -> None:
        """The camera begins anew."""
        self._settings.forget()
        self._changed = {}
        self._is_back = bool(self.told)

    def take(
        self, message: Union[protocol.Value, protocol.Allowed], moment: float
    ) -> Sequence[Setting]:
        """Notes what the camera tells; the settings that are others than before."""
        changes = self._settings.changes(message)
        self._changed.update((setting.name, setting) for setting in changes)
        # What a camera that comes back has told so far would show lists that are empty.
        if changes and (self.is_complete or not self._is_back):
            self.told = {setting.name: setting for setting in self._settings.all()}
            self.texts = self._settings.texts()
        for asked in list(self._asked):
            if asked.request.name == message.setting:
                self._look_at_answer(asked, isinstance(message, protocol.Allowed), moment)
        return changes

    def take_changed(self) -> List[Setting]:
        """What is to be recorded."""
        changed, self._changed = self._changed, {}
        return list(changed.values())

    def keep_changed(self, names: Container[str]) -> None:
        """Has only these recorded of what is to be."""
        self._changed = {name: setting for name, setting in self._changed.items() if name in names}

    def ask(self, name: str, text: Optional[str], key: Optional[int]) -> Union[str, Asked]:
        """Asks for a setting; its text when the camera is set to that already.

        Raises Refused or NotSettable.
        """
        request = self._settings.choose(name, text, key)
        setting = self._settings.get(name)
        if request.is_met_by(setting):
            return setting.text
        asked = Asked(request)
        asked.sent = self._send(request.code, request.value)
        self._asked.append(asked)
        return asked

    def confirm(self) -> None:
        """Tells those who wait what was confirmed, once it is recorded."""
        confirmed, self._confirmed = self._confirmed, []
        for asked, text in confirmed:
            if not asked.result.done():
                asked.result.set_result(text)

    def withdraw(self, asked: Asked) -> None:
        """Nobody waits for it any more."""
        if asked in self._asked:
            self._asked.remove(asked)

    def answer_to(self, asked: Asked) -> Optional[str]:
        """What was confirmed, told or not; None: nothing. Raises what was answered instead."""
        for confirmed, text in self._confirmed:
            if confirmed is asked:
                return text
        return asked.result.result() if asked.result.done() else None

    def refusal(self, asked: Asked) -> Refused:
        """The error that says that the camera does not take it."""
        request = asked.request
        return Refused(request.name, request.choice.text, self._settings.get(request.name).allowed)

    def fail(self, error: TetherError) -> None:
        """Nobody gets an answer any more."""
        asked, self._asked = self._asked, []
        for one in asked:
            _fail(one, error)

    def _look_at_answer(self, asked: Asked, is_report: bool, moment: float) -> None:
        setting = self._settings.get(asked.request.name)
        if asked.request.is_met_by(setting):
            self._asked.remove(asked)
            self._confirmed.append((asked, setting.text))
        elif self._is_nikon and is_report and asked.was_sent_before(moment):
            asked.reports += 1
            if asked.reports >= 2:
                self._asked.remove(asked)
                _fail(asked, self.refusal(asked))


def _fail(asked: Asked, error: TetherError) -> None:
    if not asked.result.done():
        asked.result.set_exception(error)
