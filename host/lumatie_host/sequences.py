"""Several shots in a row: at an interval, or with a setting that changes from shot to shot.

A sequence is a generator: each frame is shot when it is asked for, and yielded when its picture is
there. It ends at its first failure with `FrameFailed`, which names the frame; no frame that may
have fired is ever shot a second time.
"""

import dataclasses
import logging
import math
import threading
import time
from typing import Callable, Generator, List, Mapping, Optional, Protocol, Sequence

from . import errors
from .events import Picture
from .settings import Choice, Setting, seconds_of

LOG = logging.getLogger("lumatie_host")

MOST_FRAMES = 100_000
SHOT_TIMEOUT = 30.0  # seconds for a picture to be there
SET_TIMEOUT = 15.0  # seconds for a setting to be confirmed, with all tries
ANSWER_TIMEOUT = 5.0  # seconds for one try
_PAUSE = 0.1  # seconds between tries
_NO_CAUSE = ("", "M", "Manual")  # modes that explain no setting that cannot be set


class Shot(Protocol):
    """What is needed of a shot."""

    @property
    def pictures(self) -> Sequence[Picture]: ...


class Camera(Protocol):
    """What is needed of a session."""

    @property
    def settings(self) -> Mapping[str, Setting]: ...

    def set(
        self, name: str, text: Optional[str] = None, *, key: Optional[int] = None, timeout: float
    ) -> object:
        """See `Session.set`."""

    def shoot(self, *, timeout: float, pair: bool) -> Shot:
        """See `Session.shoot`."""


@dataclasses.dataclass(frozen=True)
class Frame:
    """One frame of a sequence, shot and there.

    `number` counts from 1 to `of`; `late` is how long after its time it was asked for, in seconds;
    `wanted` is the value of the setting that changes, None where none does.
    """

    number: int
    of: int
    shot: Shot
    late: float = 0.0
    wanted: Optional[str] = None


def interval(
    session: Camera,
    count: int,
    every: float,
    *,
    stop: Optional[threading.Event] = None,
    timeout: float = SHOT_TIMEOUT,
    pair: bool = False,
    clock: Callable[[], float] = time.monotonic,
) -> Generator[Frame, None, None]:
    """Shoots frames at fixed times: the first at once, number k at k - 1 times `every` after it.

    A frame whose time is over already, because the one before took long, is shot at once and tells
    how late it is; those after it keep to their times. Any thread, one at a time.

    Args:
        session: what shoots.
        count: how many frames.
        every: seconds from one frame to the next.
        stop: ends the sequence before the next frame, also while it waits for its time.
        timeout: seconds for the picture of each frame.
        pair: wait for RAW and JPEG of each frame.
        clock: seconds of a clock that never goes back.

    Raises:
        ValueError: the count or the interval is out of range; at once, not at the first frame.
        FrameFailed: a frame brought no picture. Frames after it are not shot.
    """
    if not 1 <= count <= MOST_FRAMES:
        raise ValueError("a sequence has 1 to %d frames: %r" % (MOST_FRAMES, count))
    if not (math.isfinite(every) and every >= 0):
        raise ValueError("no interval in seconds: %r" % every)
    return _interval(session, count, every, stop or threading.Event(), timeout, pair, clock)


def _interval(
    session: Camera,
    count: int,
    every: float,
    stop: threading.Event,
    timeout: float,
    pair: bool,
    clock: Callable[[], float],
) -> Generator[Frame, None, None]:
    start = clock()
    for index in range(count):
        due = start + index * every
        while not stop.is_set() and clock() < due:
            stop.wait(due - clock())
        if stop.is_set():
            return
        late = max(0.0, clock() - due)
        try:
            shot = session.shoot(timeout=timeout, pair=pair)
        except errors.TetherError as error:
            raise errors.FrameFailed(index + 1, error) from error
        yield Frame(index + 1, count, shot, late)


def bracket(
    session: Camera,
    setting: str = "shutter",
    values: Optional[Sequence[str]] = None,
    *,
    frames: int = 3,
    steps: int = 3,
    stop: Optional[threading.Event] = None,
    timeout: float = SHOT_TIMEOUT,
    set_timeout: float = SET_TIMEOUT,
    pair: bool = False,
    clock: Callable[[], float] = time.monotonic,
) -> Generator[Frame, None, None]:
    """Shoots frames that differ in one setting, and sets it back to its value before.

    Each value is confirmed by the camera before its frame, and compared afterwards with what the
    pictures tell. A camera that is too busy to confirm is asked again until `set_timeout` is over.
    The value before is set again when the sequence ends, whichever way: after its last frame, a
    failure, `stop`, or when the generator is closed. Who leaves the loop early closes it
    (`contextlib.closing`). Any thread, one at a time.

    Args:
        session: what sets and shoots.
        setting: which one changes.
        values: one for each frame, as texts; exposure times may be written in another way than the
            camera does. None: `frames` of the camera's list, around the present one.
        frames: how many when they are computed; an odd number, so that the present value is there.
        steps: positions in the camera's list from one frame to the next when they are computed.
            Where the list goes in thirds of stops, 3 is a stop.
        stop: ends the sequence before the next frame.
        timeout: seconds for the pictures of each frame.
        set_timeout: seconds for each value to be confirmed.
        pair: wait for RAW and JPEG of each frame.
        clock: seconds of a clock that never goes back.

    Raises:
        ValueError: no values, an even number of frames, or steps less than 1.
        NotSettable: the setting cannot be changed now.
        Refused: a value is none of those allowed, or the list has no room around the present one.
            These three come at once, before anything was set.
        FrameFailed: a frame's value was not confirmed, it brought no picture, or one that was taken
            with another value. Its `not_restored` tells when the value before is not back either.
        NotRestored: all went well, but the value before could not be set again.
    """
    if setting not in session.settings:
        raise errors.NotSettable(setting)
    before = session.settings[setting]
    if not before.settable or not before.choices:
        mode = session.settings.get("mode")
        is_cause = mode is not None and mode.text not in _NO_CAUSE
        raise errors.NotSettable(setting, mode.text if mode and is_cause else None)
    if values is None:
        choices = _around(before, frames, steps)
    elif isinstance(values, str) or not values:
        raise ValueError("no values to bracket with: %r" % (values,))
    else:
        choices = [_choice(before, value) for value in values]
    setter = _Setter(session, before, set_timeout, clock)
    return _bracket(session, setter, choices, stop or threading.Event(), timeout, pair)


class _Setter:
    """Sets one setting, and back."""

    def __init__(
        self, session: Camera, before: Setting, timeout: float, clock: Callable[[], float]
    ) -> None:
        self._session = session
        self._timeout = timeout
        self._clock = clock
        self.before = before

    def set(self, text: str, key: Optional[int]) -> None:
        """Returns when the camera has confirmed it; asks again while it gives no answer."""
        deadline = self._clock() + self._timeout
        while True:
            patience = min(max(_PAUSE, deadline - self._clock()), ANSWER_TIMEOUT)
            try:
                self._session.set(self.before.name, text, key=key, timeout=patience)
                return
            except errors.NoAnswer:
                if deadline - self._clock() <= _PAUSE:
                    raise
                LOG.debug("%s %s was not confirmed, asked again", self.before.name, text)
            time.sleep(_PAUSE)

    def choose(self, choice: Choice) -> None:
        """As `set`; names the key where the text stands for several values."""
        is_plain = self.before.allowed.count(choice.text) == 1
        self.set(choice.text, None if is_plain else choice.key)

    def restore(self) -> Optional[errors.NotRestored]:
        """Sets the value before; what went wrong is returned, and logged in any case."""
        before = self.before
        is_plain = before.allowed.count(before.text) <= 1
        try:
            self.set(before.text, None if is_plain else before.key)
        except errors.TetherError as error:
            failure = errors.NotRestored(before.name, before.text, error)
            failure.__cause__ = error
            LOG.warning("%s", failure)
            return failure
        return None


def _bracket(
    session: Camera,
    setter: _Setter,
    choices: Sequence[Choice],
    stop: threading.Event,
    timeout: float,
    pair: bool,
) -> Generator[Frame, None, None]:
    number = 0
    name = setter.before.name
    try:
        for choice in choices:
            if stop.is_set():
                break
            number += 1
            setter.choose(choice)
            shot = session.shoot(timeout=timeout, pair=pair)
            _compare(name, choice.text, shot)
            yield Frame(number, len(choices), shot, 0.0, choice.text)
    except errors.TetherError as error:
        raise errors.FrameFailed(number, error, setter.restore()) from error
    except BaseException:  # the generator was closed, or interrupted
        setter.restore()
        raise
    if number:
        failure = setter.restore()
        if failure is not None:
            raise failure


def _compare(name: str, wanted: str, shot: Shot) -> None:
    """Raises TakenOtherwise unless all pictures of a shot tell the value that was wanted."""
    texts = [picture.settings.get(name) for picture in shot.pictures]
    for text in texts or [None]:
        if text is None or not _is_same(name, text, wanted):
            raise errors.TakenOtherwise(name, wanted, text)


def _is_same(name: str, text: str, other: str) -> bool:
    """Whether two texts are one value; exposure times are compared by their seconds."""
    if text == other:
        return True
    if name != "shutter":
        return False
    seconds = seconds_of(text)
    return seconds is not None and seconds == seconds_of(other)


def _choice(setting: Setting, text: str) -> Choice:
    """The choice that a text names, by its own words first."""
    for choice in setting.choices:
        if choice.text == text:
            return choice
    for choice in setting.choices:
        if _is_same(setting.name, choice.text, text):
            return choice
    raise errors.Refused(setting.name, text, setting.allowed)


def _around(setting: Setting, frames: int, steps: int) -> List[Choice]:
    """Choices around the present one, in the order of the camera's list."""
    if frames < 3 or frames % 2 == 0:
        raise ValueError("an odd number of frames, from 3 on: %r" % frames)
    if steps < 1:
        raise ValueError("at least one step from frame to frame: %r" % steps)
    choices = [
        choice
        for choice in setting.choices
        if setting.name != "shutter" or seconds_of(choice.text) is not None  # no Bulb
    ]
    present = _choice(setting, setting.text)
    if setting.key is not None and setting.allowed.count(setting.text) > 1:
        present = next((one for one in choices if one.key == setting.key), present)
    if present not in choices:
        raise errors.Refused(setting.name, setting.text, [choice.text for choice in choices])
    middle = choices.index(present)
    first = middle - frames // 2 * steps
    last = middle + frames // 2 * steps
    if first < 0 or last >= len(choices):
        wanted = "%d values, %d apart, around %s" % (frames, steps, setting.text)
        raise errors.Refused(setting.name, wanted, [choice.text for choice in choices])
    return choices[first : last + 1 : steps]
