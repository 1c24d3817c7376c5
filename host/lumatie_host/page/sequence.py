"""One sequence at a time, on a thread of its own: its progress, its end, its stop."""

import contextlib
import logging
import threading
import time
from typing import Any, Dict, Generator, Optional

from .. import sequences
from ..errors import TetherError
from .problems import Problem, told

_log = logging.getLogger("lumatie_host")

Frames = Generator[sequences.Frame, None, None]


class Sequences:
    """The sequence that runs, or that ran last. Any thread may call."""

    def __init__(self) -> None:
        self._lock = threading.Lock()  # guards the next ones
        self._kind = ""
        self._is_running = False
        self._is_stopped = False
        self._frame = 0
        self._of = 0
        self._every = 0.0
        self._begun = 0.0
        self._error: Optional[TetherError] = None
        self._stop = threading.Event()
        self._thread: Optional[threading.Thread] = None

    def told(self) -> Optional[Dict[str, Any]]:
        """As the page is told; None before the first one."""
        with self._lock:
            if not self._kind:
                return None
            return {
                "kind": self._kind,
                "running": self._is_running,
                "frame": self._frame,
                "of": self._of,
                "next": self._next(),
                "error": None if self._error is None else told(self._error),
                "stopped": self._is_stopped,
            }

    def start_interval(self, camera: sequences.Camera, count: int, every: float) -> None:
        """Begins one; raises Problem when one is running, ValueError for what cannot be."""
        stop = threading.Event()
        frames = sequences.interval(camera, count, every, stop=stop)
        self._start("interval", frames, stop, count, every)

    def start_bracket(self, camera: sequences.Camera, of: int, **wanted: Any) -> None:
        """As `start_interval`; `wanted` are the arguments of `sequences.bracket`."""
        stop = threading.Event()
        frames = sequences.bracket(camera, stop=stop, **wanted)
        self._start("bracket", frames, stop, of, 0.0)

    def stop(self) -> None:
        """Ends it before its next frame; does nothing when none runs."""
        with self._lock:
            if self._is_running:
                self._is_stopped = True
                self._stop.set()

    def close(self, seconds: float) -> None:
        """Stops it, and waits until a bracket has set its setting back."""
        self.stop()
        thread = self._thread
        if thread is not None:
            thread.join(seconds)

    def _next(self) -> Optional[float]:
        """Seconds until the next frame of an interval; the lock is held."""
        if not self._is_running or self._kind != "interval" or self._frame >= self._of:
            return None
        return round(max(0.0, self._begun + self._frame * self._every - time.monotonic()), 1)

    def _start(
        self, kind: str, frames: Frames, stop: threading.Event, of: int, every: float
    ) -> None:
        with self._lock:
            if self._is_running:
                raise Problem(
                    409, "a sequence is running", "Stop it, or wait for its end.", "running"
                )
            self._kind = kind
            self._is_running = True
            self._is_stopped = False
            self._frame = 0
            self._of = of
            self._every = every
            self._begun = time.monotonic()
            self._error = None
            self._stop = stop
            self._thread = threading.Thread(
                target=self._run, args=(frames,), name="lumatie-sequence", daemon=True
            )
            self._thread.start()

    def _run(self, frames: Frames) -> None:
        error = None
        try:
            with contextlib.closing(frames):
                for frame in frames:
                    with self._lock:
                        self._frame = frame.number
        except TetherError as failure:
            error = failure
        except Exception:
            _log.exception("a sequence met an error of its own")
        with self._lock:
            self._error = error
            self._is_running = False
