"""Ctrl-C and its like: the first ends in an orderly way, a second one at once."""

import os
import signal
import sys
import threading
from types import FrameType
from typing import Optional, Protocol

INTERRUPTED = 130

_BRACKET_PATIENCE = 5.0  # seconds for a frame to end, so that the setting can be set back
_END_PATIENCE = 15.0


class Closable(Protocol):
    """A session, or what has one."""

    def close(self) -> object: ...


class Control:
    """Ends the command's work, on signals or when nobody reads what it writes.

    The work is done by a thread of its own, because Python runs handlers of signals on the main
    thread, which must not wait for a camera then.
    """

    def __init__(self) -> None:
        self.stopped = threading.Event()
        self.is_output_stuck = False
        self._signals = 0
        self._camera: Optional[Closable] = None

    @property
    def is_stopped(self) -> bool:
        """Whether the work is to end. Any thread."""
        return self._signals > 0 or self.stopped.is_set()

    @property
    def is_output_gone(self) -> bool:
        """Whether nobody reads what is written, and no signal came."""
        return self._signals == 0 and self.stopped.is_set()

    def stop(self) -> None:
        """Ends the work. Any thread."""
        self.stopped.set()

    def adopt(self, camera: Closable) -> None:
        """The session, or what has one, that is closed when the work is to end. Any thread."""
        self._camera = camera

    def listen(self) -> None:
        """Handles signals from now on. Main thread."""
        numbers = [signal.SIGINT, signal.SIGTERM]
        if sys.platform == "win32":
            numbers.append(signal.SIGBREAK)
        for number in numbers:
            signal.signal(number, self._handle)

    def supervise(self, work: threading.Thread, is_bracket: bool) -> None:
        """Returns when the work has ended, or has been stopped. Main thread."""
        while work.is_alive() and not self.is_stopped:
            work.join(0.1)
        if not self.is_stopped:
            return
        self.stopped.set()
        if is_bracket:
            _join(work, _BRACKET_PATIENCE)
        camera = self._camera
        if camera is not None:
            closer = threading.Thread(target=camera.close, name="lumatie-close", daemon=True)
            closer.start()
            _join(closer, _END_PATIENCE)
            _join(work, _END_PATIENCE)

    def _handle(self, number: int, frame: Optional[FrameType]) -> None:
        # Takes no lock: the thread that it interrupts may hold it.
        self._signals += 1
        if self._signals > 1:
            os._exit(INTERRUPTED)


def _join(thread: threading.Thread, seconds: float) -> None:
    """Waits in portions: a long wait would not notice a signal on every system."""
    for _ in range(int(seconds * 10)):
        thread.join(0.1)
        if not thread.is_alive():
            return
