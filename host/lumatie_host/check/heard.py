"""A camera through the module, and what was heard of it: for questions that wait for an answer."""

import threading
import time
from concurrent.futures import TimeoutError as NotInTime
from typing import Callable, List, NamedTuple, Optional, Set, TypeVar

from .. import libraries, protocol
from ..camera_thread import CameraThread, Note
from ..settings import Settings
from .teller import No, go_on

_Result = TypeVar("_Result")

START_PATIENCE = 15.0
END_PATIENCE = 12.0
_LISTEN = 0.2  # seconds after which a wait looks whether it is to end


class Target(NamedTuple):
    """Which camera is meant: what Init is called with, and Canon's library where it was named."""

    maker: str
    info: str
    canon_library: Optional[str]
    folder: str

    @property
    def is_nikon(self) -> bool:
        return self.maker == "nikon"


class Picture(NamedTuple):
    """A picture that was announced, at this time; `path` is empty when it could not be written."""

    time: float
    path: str


class Camera:
    """A camera thread with a record of all that its camera told. Belongs to one thread."""

    def __init__(self, target: Target) -> None:
        libraries.load_canon(target.canon_library)
        libraries.load_module()
        self.target = target
        self.settings = Settings(target.maker)
        self._notes: List[Note] = []
        self._lists: Set[str] = set()
        self._read = 0
        self._changed = threading.Condition()
        self.unreadable: List[str] = []
        self.pictures: List[Picture] = []  # in the order in which they were announced
        self.reports = 0  # since the start; a Nikon camera sends one a second
        self.is_open = False
        self.thread = CameraThread(target.is_nikon, self._note)

    def start(self) -> float:
        """Calls Init; how many seconds it took. Raises No when it fails."""
        self._take_in()
        self.settings.forget()
        self.reports = 0
        begun = time.monotonic()
        answer = wait_for(
            lambda left: self.thread.init(self.target.info, self.target.folder).result(left),
            START_PATIENCE,
            "Init",
        )
        if answer != 1:
            raise No("Init answers %d" % answer)
        self.is_open = True
        return time.monotonic() - begun

    def stop(self) -> float:
        """Calls Uninit; how many seconds it took. Raises No when it fails."""
        self.is_open = False
        begun = time.monotonic()
        wait_for(lambda left: self.thread.uninit().result(left), END_PATIENCE, "Uninit")
        return time.monotonic() - begun

    def close(self) -> None:
        """Ends the thread, and the session that is open still."""
        self.thread.end(END_PATIENCE)

    def set(self, name: str, key: int) -> None:
        """Asks for a setting."""
        code = protocol.CODES[name]
        wait_for(lambda left: self.thread.set_value(code, key).result(left), 5.0, "SetValue")

    def wait(self, is_there: Callable[[], bool], seconds: float) -> Optional[float]:
        """Waits until what was heard makes it true; after how long, None when not in time."""
        begun = time.monotonic()
        end = begun + seconds
        while True:
            go_on()
            self._take_in()
            if is_there():
                return time.monotonic() - begun
            left = end - time.monotonic()
            if left <= 0:
                return None
            with self._changed:
                if len(self._notes) == self._read:
                    self._changed.wait(min(left, _LISTEN))

    def pictures_since(self, since: float) -> List[Picture]:
        """Those that were announced at that time and later."""
        return [picture for picture in self.pictures if picture.time >= since]

    @property
    def has_fetched(self) -> bool:
        """Whether what a Nikon camera's card held was fetched: its second report comes behind."""
        return not self.target.is_nikon or self.reports > 1

    @property
    def events(self) -> int:
        """How many events came so far."""
        return len(self._notes)

    def has_list(self, name: str) -> bool:
        """Whether the camera told a setting's list, be it an empty one."""
        return name in self._lists

    def is_set(self, name: str, key: int) -> bool:
        """Whether the camera says that a setting has this key."""
        return self.settings.get(name).key == key

    def _note(self, note: Note) -> None:
        with self._changed:
            self._notes.append(note)
            self._changed.notify_all()

    def _take_in(self) -> None:
        with self._changed:
            new, self._read = self._notes[self._read :], len(self._notes)
        for note in new:
            values = () if note.code is None else note.values
            message = protocol.read(note.code, *values)
            self.settings.apply(message)
            if isinstance(message, protocol.Allowed):
                self._lists.add(message.setting)
            self.reports += note.code == protocol.Code.EXPOSUREMODE
            if isinstance(message, protocol.Unreadable):
                self.unreadable.append("event %s: %s" % (message.code, message.what))
            elif isinstance(message, protocol.NewFile):
                self.pictures.append(Picture(note.time, message.path))
            elif isinstance(message, protocol.WriteFailed):
                self.pictures.append(Picture(note.time, ""))


def wait_for(result: Callable[[float], _Result], seconds: float, what: str) -> _Result:
    """What an operation of the module returns; raises No when it does not in time."""
    try:
        return result(seconds)
    except NotInTime:
        raise No("%s did not return in %g s" % (what, seconds)) from None
