"""The one thread that talks to the camera, and the only place that imports the module.

On Windows the thread that called `Init` has to look after its window messages, every 10 to 20 ms,
for a camera maker's library to deliver events. Nobody else's thread can be asked for that, so the
session has one: it calls `Init`, pumps, and calls `Uninit`. It is a daemon, for a library that
hangs must not keep a program from ending.

Events come on a thread of the module's, which only notes them.
"""

import collections
import importlib
import logging
import queue
import threading
import time
from concurrent.futures import Future
from typing import Any, Callable, Deque, NamedTuple, Optional, Tuple

from . import messages
from .errors import Closed, TooLate
from .protocol import Code
from .turns import taken

PUMP_EVERY = 0.01  # seconds, on Windows
GIVE_UP = 2.0  # seconds that a library may take to end, before it is given up
PUMP_EVERY_AWAY = 0.1  # the same without a session: only devices are told of then

_log = logging.getLogger("lumatie_host")


class Note(NamedTuple):
    """One call of the module's callback.

    `start` counts the starts of the camera, so that what a session before told can be told apart;
    `time` is of the monotonic clock.
    """

    start: int
    time: float
    code: Any
    values: Tuple[Any, ...]


# Says at the last moment whether a shutter is still to be released.
IsWanted = Callable[[], bool]


class _Job(NamedTuple):
    future: "Future[Any]"
    function: Callable[[], Any]


class _Wanted(NamedTuple):
    future: "Future[float]"
    is_wanted: Optional[IsWanted]


class CameraThread:
    """Starts, steers and ends a camera. Everything but `run`'s own may be called on any thread.

    Operations return a `Future`, which says what the module's operation returned; whoever waits for
    it does so with a deadline. After `end` they fail with `Closed`.

    Args:
        is_nikon: whether the camera is reached through a driver module.
        note: called with each event, on a thread of the module's that the camera waits for: it must
            return at once and raise nothing.
        on_devices: called on the camera thread when the system says that a device came or left,
            see `messages.OnDevices`; Windows only.
        module: stands in for the module in tests; imported when there is none.
    """

    def __init__(
        self,
        is_nikon: bool,
        note: Callable[[Note], None],
        on_devices: Optional[messages.OnDevices] = None,
        module: Any = None,
    ) -> None:
        self._is_nikon = is_nikon
        self._note = note
        self._on_devices = on_devices
        self._module = module
        self._tether: Any = None
        self._starts = 0
        self._is_started = False
        self._jobs: "queue.SimpleQueue[Optional[_Job]]" = queue.SimpleQueue()
        # A Nikon camera's: pictures that wait for the next report to begin.
        self._wanted: Deque[_Wanted] = collections.deque()
        self._lock = threading.Lock()  # guards the next two
        self._is_ending = False
        self._is_given_up = False
        self._thread = threading.Thread(target=self._run, name="lumatie-camera", daemon=True)
        self._thread.start()

    def init(self, camera: str, folder: str) -> "Future[int]":
        """Starts the camera; 1, or 0 when there is none, and then everything is given back.

        A start that is under way is ended first. Raises in the future what the module raises.
        """
        return self._post(lambda: self._init(camera, folder))

    def uninit(self) -> "Future[int]":
        """Ends the camera's session; the thread stays."""
        return self._post(self._uninit)

    def set_value(self, code: int, value: int) -> "Future[float]":
        """Asks for a setting; when that was done, on the monotonic clock."""
        return self._post(lambda: self._set_value(code, value))

    def shoot(self, is_wanted: Optional[IsWanted] = None) -> "Future[float]":
        """Releases the shutter, once; when that was, on the monotonic clock.

        A Nikon camera's shutter is released when its next report begins: a request at any other
        time may be lost. Cancelling the future withdraws the request if it was not carried out.

        Args:
            is_wanted: asked right before the shutter is released, on a thread that the camera waits
                for; when it says no, the future fails with `TooLate`.
        """
        if not self._is_nikon:
            return self._post(lambda: self._release(is_wanted))
        future: "Future[float]" = Future()
        with self._lock:
            is_ending = self._is_ending
        if is_ending:
            future.set_exception(Closed())
        else:
            self._wanted.append(_Wanted(future, is_wanted))
        return future

    def update_folder(self, folder: str) -> "Future[int]":
        """Has pictures from now on go into another folder."""
        return self._post(lambda: self._tether.UpdateExportFolder(folder) if self._tether else 0)

    def end(self, timeout: float) -> bool:
        """Ends camera and thread; whether that was done within `timeout` seconds.

        A library that hangs for longer than GIVE_UP is left behind: `Uninit` is called once more
        on a thread of its own, which is what makes the module give up on it. May be called again,
        to wait on.
        """
        with self._lock:
            is_first = not self._is_ending
            self._is_ending = True
        if is_first:
            self._jobs.put(_Job(Future(), self._uninit))
            self._jobs.put(None)
        if threading.current_thread() is self._thread:
            return False
        end = time.monotonic() + timeout
        self._thread.join(min(timeout, GIVE_UP))
        if timeout > GIVE_UP and self._thread.is_alive():
            self._give_up()
        self._thread.join(max(0.0, end - time.monotonic()))
        return not self._thread.is_alive()

    def _give_up(self) -> None:
        tether = self._tether
        with self._lock:
            is_first = not self._is_given_up
            self._is_given_up = True
        if tether is None or not is_first:
            return
        helper = threading.Thread(target=tether.Uninit, name="lumatie-uninit", daemon=True)
        try:
            helper.start()
        except RuntimeError:  # at the end of the program, from 3.12 on
            _log.debug("the camera library is left to the module's own end")

    @property
    def is_alive(self) -> bool:
        """Whether the thread runs, be it in a library that hangs."""
        return self._thread.is_alive()

    def _post(self, function: Callable[[], Any]) -> "Future[Any]":
        future: "Future[Any]" = Future()
        with self._lock:
            if not self._is_ending:
                self._jobs.put(_Job(future, function))
                return future
        future.set_exception(Closed())
        return future

    def _run(self) -> None:
        pump = messages.open_pump(self._on_devices)
        try:
            while True:
                if pump is not None:
                    pump.run()
                try:
                    job = taken(self._jobs, None if pump is None else self._pause())
                except queue.Empty:
                    continue
                if job is None:
                    break
                _carry_out(job)
                del job  # holds what it was for
        finally:
            self._give_up_wanted()
            self._tether = None
            if pump is not None:
                pump.close()

    def _pause(self) -> float:
        return PUMP_EVERY if self._is_started else PUMP_EVERY_AWAY

    def _init(self, camera: str, folder: str) -> int:
        if self._tether is None:
            module = self._module or importlib.import_module("Lumatie")
            self._tether = module.Lumatie()
        if self._is_started:
            self._uninit()
        self._starts += 1
        start = self._starts
        tether, note, wanted = self._tether, self._note, self._wanted

        # Holds no reference to this object: the module keeps its callable where no collector looks.
        def receive(*event: Any) -> None:
            now = time.monotonic()
            if wanted and event and event[0] == Code.EXPOSUREMODE:
                _shoot_once(tether, wanted, now)
            note(Note(start, now, event[0] if event else None, event[1:]))

        self._is_started = True
        answer = int(
            tether.Init(camera, folder, receive if self._is_nikon else _noting(note, start))
        )
        if not answer:
            self._uninit()  # a start that failed may have got half of the way
        return answer

    def _uninit(self) -> int:
        self._give_up_wanted()
        if not self._is_started:
            return 0
        self._is_started = False
        return int(self._tether.Uninit())

    def _set_value(self, code: int, value: int) -> float:
        if not self._is_started:
            raise Closed
        self._tether.SetValue(code, value)
        return time.monotonic()

    def _release(self, is_wanted: Optional[IsWanted]) -> float:
        if not self._is_started:
            raise Closed
        _check_wanted(is_wanted)
        now = time.monotonic()  # before: the picture may be there as soon as this returns
        self._tether.Shoot()
        return now

    def _give_up_wanted(self) -> None:
        while self._wanted:
            try:
                self._wanted.popleft().future.cancel()
            except IndexError:
                return


def _noting(note: Callable[[Note], None], start: int) -> Callable[..., None]:
    def receive(*event: Any) -> None:
        note(Note(start, time.monotonic(), event[0] if event else None, event[1:]))

    return receive


def _shoot_once(tether: Any, wanted: Deque[_Wanted], now: float) -> None:
    """Carries out the oldest request that is wanted and was not withdrawn, if there is one."""
    while True:
        try:
            future, is_wanted = wanted.popleft()
        except IndexError:
            return
        if not future.set_running_or_notify_cancel():
            continue
        try:
            _check_wanted(is_wanted)
        except Exception as error:  # the module must hear nothing of it
            future.set_exception(error)
            continue
        tether.Shoot()
        future.set_result(now)
        return


def _check_wanted(is_wanted: Optional[IsWanted]) -> None:
    if is_wanted is not None and not is_wanted():
        raise TooLate


def _carry_out(job: _Job) -> None:
    if not job.future.set_running_or_notify_cancel():
        return
    try:
        job.future.set_result(job.function())
    except BaseException as error:  # whoever waits gets it
        _log.debug("the camera thread: %r", error)
        job.future.set_exception(error)
