"""Tells a person words on a thread of its own: who reads them slowly, or not, holds up nothing."""

import contextlib
import queue
import threading
from typing import Callable, Optional

MOST_WAITING = 200
PATIENCE = 1.0  # seconds to say what is left


class Words:
    """Says what is put, in its order; any thread may call.

    Args:
        say: called with words; it may wait.
    """

    def __init__(self, say: Callable[[str], None]) -> None:
        self._say = say
        self._waiting: "queue.Queue[Optional[str]]" = queue.Queue(MOST_WAITING)
        self._thread = threading.Thread(target=self._run, name="lumatie-words", daemon=True)

    def start(self) -> None:
        """Says what was put and what is put from now on."""
        self._thread.start()

    def put(self, text: str) -> None:
        """Returns at once; when too many wait, this one is dropped."""
        with contextlib.suppress(queue.Full):
            self._waiting.put_nowait(text)

    def close(self) -> None:
        """Says what is left, as far as somebody reads it at once."""
        try:
            self._waiting.put_nowait(None)
        except queue.Full:
            return
        if self._thread.is_alive():
            self._thread.join(PATIENCE)

    def _run(self) -> None:
        while True:
            text = self._waiting.get()
            if text is None:
                return
            self._say(text)
