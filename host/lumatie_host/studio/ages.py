"""How old a request is, without comparing two computers' clocks.

A station tells its clock on `tick` twice a second and hears it back itself. What the broker sends
a station comes in its order, so what comes behind a tick has left the broker after that tick was
told: no message that is heard can have been on its way, or waited in the broker or here, for
longer than the time since the last tick that was heard before it.

That does not tell how long a request took to the broker. A studio that hears the ticks, too, says
in its request which one it heard, and how long before: the request is no older than the time since
that tick, less what the studio waited. Both bounds hold whatever the network does; only that clocks
run equally fast is relied on.
"""

import threading
from typing import Any, Dict, Mapping, Optional

from .clock import now

TICK_EVERY = 0.5  # seconds
OLDEST = 2.0  # seconds; an older request does not fire


class Ticks:
    """A station's ticks, as it hears them itself. Any thread may call.

    `instance` tells the starts of a station apart: each has a clock of its own.
    """

    def __init__(self, instance: str) -> None:
        self._instance = instance
        self._lock = threading.Lock()
        self._heard: Optional[float] = None

    def forget(self) -> None:
        """The connection is another one."""
        with self._lock:
            self._heard = None

    def hear(self, message: Mapping[str, Any]) -> None:
        """A tick that came back."""
        tick = message.get("tick")
        if message.get("instance") == self._instance and isinstance(tick, float):
            with self._lock:
                self._heard = max(self._heard or tick, tick)

    def sent_after(self) -> Optional[float]:
        """When what comes now has left the broker at the earliest; None: nothing is known."""
        with self._lock:
            return self._heard

    def asked_after(self, request: Mapping[str, Any]) -> Optional[float]:
        """When a request was made at the earliest, as it tells itself; None: it does not.

        Raises ValueError when it tells of a clock that is not this start's.
        """
        told = request.get("since")
        if told is None:
            return None
        if not isinstance(told, dict) or told.get("instance") != self._instance:
            raise ValueError("it was made for an earlier start of the station")
        tick, after = told.get("tick"), told.get("after")
        if not isinstance(tick, float) or not isinstance(after, (int, float)) or after < 0:
            raise ValueError("it does not tell its age")
        if tick > now():
            raise ValueError("it tells of a moment that is to come")
        return tick + after


class Heard:
    """The ticks of one station, as somebody else hears them. Any thread may call."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._instance = ""
        self._tick = 0.0
        self._at = 0.0

    def hear(self, instance: str, tick: float) -> None:
        """Keeps the one that bounds best: the least time on its way, as far as can be told."""
        at = now()
        with self._lock:
            # Ten minutes of two clocks that do not run equally fast are some milliseconds.
            is_better = tick - at >= self._tick - self._at or at - self._at > 600
            if instance != self._instance or is_better:
                self._instance, self._tick, self._at = instance, tick, at

    def since(self) -> Optional[Dict[str, Any]]:
        """What a request tells of its age when it is sent now."""
        with self._lock:
            if not self._instance:
                return None
            return {"instance": self._instance, "tick": self._tick, "after": now() - self._at}
