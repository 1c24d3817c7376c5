"""Which shot a picture belongs to: pictures carry no number that would say so.

A picture belongs to the shot that was asked for, or else to one released at the camera. The second
file of a shot that makes two is told by its kind, by when it came, and by the time in it. Any
thread may call.
"""

import dataclasses
import datetime
import threading
import time
from concurrent.futures import Future
from typing import Dict, List, Mapping, Optional, Tuple

from .errors import TetherError
from .events import Picture

PAIR_WITHIN = 60.0  # seconds between the arrivals of two files of one shot
SAME_MOMENT = datetime.timedelta(seconds=2)  # between the times in them
LATE_WITHIN = 300.0  # seconds in which a picture may still come that was given up

_MOST = 50  # shots that are remembered


@dataclasses.dataclass(frozen=True)
class Shot:
    """One release of the shutter, and what came of it.

    `settings` are those of the first picture, name to text; `milliseconds` are from the request to
    the last picture here. `origin` is "host" or "body". `released` is when the camera was told to
    release, on the monotonic clock; None: nobody here has told it.
    """

    number: int
    pictures: Tuple[Picture, ...]
    settings: Mapping[str, str]
    milliseconds: float
    origin: str = "host"
    released: Optional[float] = None


class Exposure:
    """One release that was asked for, or that pictures have told of.

    `result` gets the shot once it has what was asked for, or the error.
    """

    def __init__(self, number: int, origin: str, files: int, wants_pair: bool) -> None:
        self.number = number
        self.origin = origin
        self.files = files
        self.wants_pair = wants_pair
        self.begun: float = time.monotonic()
        self.released: Optional["Future[float]"] = None  # when the shutter was asked for
        self.result: "Future[Shot]" = Future()
        # Guarded by the lock of `Shots`.
        self.came: List[Tuple[str, Optional[datetime.datetime], float]] = []
        self.pictures: List[Picture] = []
        self.given_up: Optional[float] = None

    def is_released(self, by: float) -> bool:
        """Whether the shutter was asked for before a moment."""
        released = self.released
        if released is None or released.cancelled():
            return False
        if not released.done():
            return released.running()
        return released.exception() is None and released.result() <= by

    @property
    def moment(self) -> Optional[float]:
        """When the shutter was asked for; None while it was not."""
        released = self.released
        is_done = released is not None and released.done() and not released.cancelled()
        if released is None or not is_done or released.exception() is not None:
            return None
        return released.result()


class Shots:
    """The shots of one session, numbered from 1."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._count = 0
        self._pending: Optional[Exposure] = None
        self._recent: Dict[int, Exposure] = {}  # in the order of their numbers

    @property
    def next_number(self) -> int:
        """The number that the next shot will have."""
        with self._lock:
            return self._count + 1

    @property
    def pending(self) -> Optional[Exposure]:
        """The one that was asked for and has brought nothing yet."""
        with self._lock:
            return self._pending

    def ask(self, files: int, wants_pair: bool) -> Exposure:
        """A shot is asked for; `files` are to be expected."""
        with self._lock:
            self._pending = self._add("host", files, wants_pair)
            return self._pending

    def take(
        self,
        kind: str,
        taken: Optional[datetime.datetime],
        arrived: float,
        files: int,
    ) -> Exposure:
        """A picture has come: the shot that it belongs to, a new one if it is nobody's.

        Args:
            kind: "JPEG", "RAW" or "OTHER".
            taken: the time in it.
            arrived: on the monotonic clock.
            files: how many a shot makes now.
        """
        with self._lock:
            exposure = self._half_of(kind, taken, arrived) or self._asked_for(arrived)
            if exposure is None:
                exposure = self._add("body", files, False)
            exposure.came.append((kind, taken, arrived))
            if self._pending is exposure:
                self._pending = None
            return exposure

    def settled(self, exposure: Exposure, picture: Picture) -> None:
        """The picture was recorded, and the shot is done when it has all that was asked for."""
        with self._lock:
            exposure.pictures.append(picture)
            is_done = len(exposure.pictures) >= (exposure.files if exposure.wants_pair else 1)
            pictures = tuple(exposure.pictures)
        if is_done and not exposure.result.done():
            milliseconds = (time.monotonic() - exposure.begun) * 1000
            _resolve(
                exposure,
                Shot(
                    exposure.number,
                    pictures,
                    pictures[0].settings,
                    milliseconds,
                    exposure.origin,
                    exposure.moment,
                ),
            )

    def blame(self, at: float) -> Optional[Exposure]:
        """A picture did not become one: the shot whose it must have been, if that is known."""
        with self._lock:
            exposure = self._pending
            if exposure is not None and exposure.is_released(at):
                self._pending = None
            else:
                exposure = self._incomplete(at)
            if exposure is not None:
                exposure.files -= 1  # nothing else is to be expected in its place
            return exposure

    def give_up(self, exposure: Exposure, error: Optional[TetherError] = None) -> bool:
        """Nobody waits for it any more; what comes of it yet is still its own.

        False when it has its result already.
        """
        with self._lock:
            if self._pending is exposure:
                self._pending = None
            if not exposure.pictures:
                exposure.given_up = time.monotonic()
        if exposure.result.done():
            return False
        if error is not None:
            return _fail(exposure, error)
        return exposure.result.cancel()

    def waiting(self) -> List[Exposure]:
        """Those that somebody may wait for."""
        with self._lock:
            return [
                exposure
                for exposure in self._recent.values()
                if exposure.origin == "host" and not exposure.result.done()
            ]

    def _add(self, origin: str, files: int, wants_pair: bool) -> Exposure:
        self._count += 1
        exposure = Exposure(self._count, origin, files, wants_pair)
        self._recent[self._count] = exposure
        self._recent.pop(self._count - _MOST, None)
        return exposure

    def _half_of(
        self, kind: str, taken: Optional[datetime.datetime], arrived: float
    ) -> Optional[Exposure]:
        """The shot that lacks a file of this kind."""
        if kind == "OTHER":
            return None
        for exposure in self._recent.values():
            if not 0 < len(exposure.came) < exposure.files:
                continue
            first_kind, first_taken, first_arrived = exposure.came[0]
            if kind == first_kind or arrived - first_arrived > PAIR_WITHIN:
                continue
            if taken and first_taken and abs(taken - first_taken) > SAME_MOMENT:
                continue
            return exposure
        return None

    def _asked_for(self, arrived: float) -> Optional[Exposure]:
        """The shot that was asked for and has nothing yet; a late one if it is the only one."""
        if self._pending is not None and self._pending.is_released(arrived):
            return self._pending
        late = [
            exposure
            for exposure in self._recent.values()
            if exposure.given_up is not None
            and not exposure.came
            and exposure.is_released(arrived)
            and arrived - exposure.given_up < LATE_WITHIN
        ]
        return late[0] if len(late) == 1 else None

    def _incomplete(self, at: float) -> Optional[Exposure]:
        """The newest shot that lacks a file."""
        for exposure in reversed(list(self._recent.values())):
            if 0 < len(exposure.came) < exposure.files:
                if at - exposure.came[0][2] <= PAIR_WITHIN:
                    return exposure
                return None
        return None


def _resolve(exposure: Exposure, shot: Shot) -> None:
    try:
        exposure.result.set_result(shot)
    except Exception:  # given up at the same moment; the picture is recorded all the same
        pass


def _fail(exposure: Exposure, error: TetherError) -> bool:
    try:
        exposure.result.set_exception(error)
    except Exception:  # it came at the same moment
        return False
    return True
