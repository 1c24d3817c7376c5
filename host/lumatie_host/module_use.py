"""The module serves one camera of a program at a time.

It writes the pictures of all of them into the folder that was named last. Any thread may call.
"""

import threading
from typing import Callable, Optional

from .errors import FolderShared

PATIENCE = 10.0  # seconds for a camera that was left behind

_lock = threading.Lock()
_ending: Optional[threading.Thread] = None  # waits for the camera that was left behind


def take(folder: str) -> None:
    """Raises FolderShared when a camera is open already; one that is ending is waited for."""
    await_end()
    if not _lock.acquire(blocking=False):
        raise FolderShared(folder)


def release() -> None:
    """Lets the next one have it."""
    _lock.release()


def await_end() -> None:
    """Waits for a camera that was left behind."""
    ending = _ending
    if ending is not None:
        ending.join(PATIENCE)


def end_behind(function: Callable[[], None]) -> bool:
    """Calls what ends a camera, and releases, on a thread of its own.

    False when there is none, at the end of the program from 3.12 on.
    """
    global _ending  # noqa: PLW0603
    ending = threading.Thread(target=function, name="lumatie-ending", daemon=True)
    try:
        ending.start()
    except RuntimeError:
        return False
    _ending = ending
    return True
