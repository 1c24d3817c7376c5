"""How far apart the stations fired, told with its own uncertainty.

Each answer tells, on its station's clock, when the request came, when the shutter was asked for,
and when the answer went. With when both passed the studio that places the moment on the studio's
clock: half of the time on the way went before, give or take that half.
"""

import dataclasses
from typing import Any, Dict, List, Mapping, Optional, Tuple


@dataclasses.dataclass(frozen=True)
class Release:
    """What came of one station's request. `at` is on the studio's clock, in seconds."""

    station: str
    answer: Mapping[str, Any]
    at: Optional[float] = None
    uncertainty: float = 0.0

    @property
    def is_done(self) -> bool:
        return self.answer.get("ok") is True


@dataclasses.dataclass(frozen=True)
class Spread:
    """Of several stations: from the first release to the last, in seconds, and how sure that is.

    None when fewer than two have told.
    """

    releases: Tuple[Release, ...]
    seconds: Optional[float]
    uncertainty: float

    def __str__(self) -> str:
        done = sum(1 for release in self.releases if release.is_done)
        text = "%d of %d stations" % (done, len(self.releases))
        if self.seconds is None:
            return text
        return "%s, within %.0f ms (give or take %.0f ms)" % (
            text,
            self.seconds * 1e3,
            self.uncertainty * 1e3,
        )


def release(station: str, answer: Mapping[str, Any], sent: float, heard: float) -> Release:
    """One station's; `sent` and `heard` are when the request went and the answer came."""
    clock = answer.get("clock")
    times = _times(clock) if isinstance(clock, dict) else None
    if times is None:
        return Release(station, answer)
    received, fired, answered = times
    on_the_way = max(0.0, (heard - sent) - (answered - received))
    return Release(station, answer, sent + on_the_way / 2 + fired - received, on_the_way / 2)


def spread(releases: List[Release]) -> Spread:
    """Of all stations that were asked at one time."""
    told = [one for one in releases if one.at is not None]
    if len(told) < 2:
        return Spread(tuple(releases), None, 0.0)
    first = min(told, key=lambda one: one.at or 0.0)
    last = max(told, key=lambda one: one.at or 0.0)
    seconds = (last.at or 0.0) - (first.at or 0.0)
    return Spread(tuple(releases), seconds, first.uncertainty + last.uncertainty)


def _times(clock: Dict[str, Any]) -> Optional[Tuple[float, float, float]]:
    values = [clock.get(name) for name in ("received", "fired", "sent")]
    if not all(isinstance(value, float) for value in values):
        return None
    received, fired, answered = (float(value or 0.0) for value in values)
    return received, fired, answered
