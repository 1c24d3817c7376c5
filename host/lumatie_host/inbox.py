"""The thread on which a session works off what it hears and what it is asked for, one by one."""

import logging
import queue
import threading
import time
from concurrent.futures import Future
from typing import Any, Callable, Optional, TypeVar

from .errors import Closed, TetherError
from .turns import Late, taken, wait_for

_MOST = 1000  # items that are worked off before the session looks after the rest

BEGUN_PATIENCE = 5.0  # seconds behind a deadline, for what is being done then

_Result = TypeVar("_Result")

_log = logging.getLogger("lumatie_host")


class Inbox:
    """Any thread may put something in. What fails is logged, and the next is done all the same.

    Args:
        receive: called with each note.
        look: called after each flood of notes and requests, and after each pause.
        pause: seconds after which `look` is due though nothing came; None: it is not.
    """

    def __init__(
        self,
        receive: Callable[[Any], None],
        look: Callable[[], None],
        pause: Callable[[], Optional[float]],
    ) -> None:
        self._receive = receive
        self._look = look
        self._pause = pause
        self._queue: "queue.SimpleQueue[Any]" = queue.SimpleQueue()
        self._lock = threading.Lock()  # guards the next
        self._is_over = False
        # Takes a note. The module keeps it where no collector looks, so it holds the queue alone.
        self.note: Callable[[Any], None] = self._queue.put
        self._thread = threading.Thread(target=self._run, name="lumatie-events", daemon=True)

    def start(self) -> None:
        """Begins to work off what is in it."""
        self._thread.start()

    def end(self, seconds: float) -> bool:
        """Ends behind what is in it; whether that was done within that time.

        May be called again, to wait on.
        """
        self.post(None)
        self._thread.join(seconds)
        return not self._thread.is_alive()

    def work_off(self, seconds: float) -> None:
        """Waits that long until what is in it now was worked off."""
        done = threading.Event()
        if self.post(done.set):
            done.wait(seconds)

    def post(self, function: Optional[Callable[[], object]]) -> bool:
        """Has the thread call a function, or end; False when it has ended."""
        with self._lock:
            if self._is_over:
                return False
            self._is_over = function is None
            self._queue.put(function)
            return True

    def ask(
        self,
        function: Callable[[], _Result],
        deadline: float,
        late: Callable[[], TetherError],
    ) -> _Result:
        """What a function returns on the thread; raises what it raises.

        Raises what `late` gives after `deadline` of the monotonic clock, and Closed at the end.
        """
        future: "Future[_Result]" = Future()

        def run() -> None:
            if future.set_running_or_notify_cancel():
                try:
                    future.set_result(function())
                except BaseException as error:
                    future.set_exception(error)

        if not self.post(run):
            raise Closed
        try:
            return wait_for(future, deadline)
        except Late:
            if future.cancel():
                raise late() from None
        except BaseException:  # interrupted
            future.cancel()
            raise
        try:  # it is being done at this moment
            return wait_for(future, time.monotonic() + BEGUN_PATIENCE)
        except Late:
            raise late() from None

    def _run(self) -> None:
        while self._work_off():
            _guarded(self._look)

    def _work_off(self) -> bool:
        """Waits for something, and does what is there; False: it is to end.

        A flood is worked off before anything is recorded: of each setting the last.
        """
        timeout = self._pause()
        for _ in range(_MOST):
            try:
                item = taken(self._queue, timeout)
            except queue.Empty:
                break
            if item is None:
                return False
            self._take(item)
            timeout = 0.0
        return True

    def _take(self, item: Any) -> None:
        _guarded(item if callable(item) else lambda: self._receive(item))


def _guarded(function: Callable[[], object]) -> None:
    try:
        function()
    except Exception:
        _log.exception("the session met an error of its own")
