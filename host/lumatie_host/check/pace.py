"""Waiting on the thread that called a library, while its window messages are looked after."""

import sys
import time
from typing import Callable, Optional

from .teller import go_on

EVERY = 0.01  # seconds; what the package's own thread does

if sys.platform == "win32":
    import ctypes
    from ctypes import wintypes

    _APARTMENT = 2  # single-threaded

    def prepare() -> None:
        """Makes the calling thread one that libraries of Windows expect."""
        ctypes.WinDLL("ole32").CoInitializeEx(None, _APARTMENT)

    def _look_after() -> None:
        user = ctypes.WinDLL("user32")
        message = wintypes.MSG()
        while user.PeekMessageW(ctypes.byref(message), None, 0, 0, 1):
            user.TranslateMessage(ctypes.byref(message))
            user.DispatchMessageW(ctypes.byref(message))

    HAS_MESSAGES = True

else:

    def prepare() -> None:
        """There is nothing to do on this system."""

    def _look_after() -> None:
        pass

    HAS_MESSAGES = False


def milliseconds(seconds: float) -> str:
    return "%d ms" % round(seconds * 1000)


def wait(
    is_there: Callable[[], bool], seconds: float, every: Optional[float] = EVERY
) -> Optional[float]:
    """Waits until it is there; after how many seconds that was, None when it was not in time.

    `every` is how often messages are looked after; None: never.
    """
    begun = time.monotonic()
    pumped = begun
    while True:
        go_on()
        now = time.monotonic()
        if every is not None and now - pumped >= every:
            _look_after()
            pumped = now
        if is_there():
            return time.monotonic() - begun
        if now - begun > seconds:
            return None
        time.sleep(0.002)
