"""Takes pictures from a spool folder to the folder, one after the other, on a thread of its own.

Each is awaited until it is whole, looked at, given to its shot, named, recorded, announced and
copied. Before that nobody hears of it.
"""

import contextlib
import datetime
import filecmp
import logging
import os
import queue
import threading
import time
from typing import (
    Any,
    Callable,
    Dict,
    Iterable,
    List,
    Mapping,
    NamedTuple,
    Optional,
)

from . import pictures
from .announcer import Announcer
from .copies import Copier
from .errors import Closed, PictureLost, TetherError, WriteFailed
from .ledger import INNER_FOLDER, Ledger, path_of
from .names import Template
from .shots import Exposure, Shots
from .turns import taken

WHOLE_PATIENCE = 5.0  # seconds until an announced picture is whole
UNANNOUNCED_PATIENCE = 0.2  # the same for one that was written before
MOST_PATHS = 400  # of announced pictures that are remembered
RETRY_EVERY = 2.0  # seconds between two attempts to record a picture
UNWRITTEN_EVERY = 3.0  # seconds; failures that come faster are one

_log = logging.getLogger("lumatie_host")


class Arrival(NamedTuple):
    """A picture that was announced.

    `time` is of the monotonic clock; `texts` are what the camera was set to then; `patience` is how
    many seconds it may take until it is whole; `may_return` says that a Nikon camera's card may
    still hold it at the next start.
    """

    path: str
    time: float
    texts: Mapping[str, str]
    patience: float
    may_return: bool = False


class _Unwritten(NamedTuple):
    """A picture that the module could not write."""

    time: float


class _Unsettled(NamedTuple):
    """A whole picture that could not be named or recorded yet."""

    arrival: Arrival
    found: pictures.Inspected
    exposure: Exposure


class Intake:
    """The pictures of one session. Any thread may call.

    Args:
        session: the session's name in the records.
        spool: is its own from now on.
        move_spool: has the camera's pictures go into another folder, from the next one on.
    """

    def __init__(
        self,
        ledger: Ledger,
        announcer: Announcer,
        shots: Shots,
        template: Template,
        session: str,
        spool: pictures.Spool,
        move_spool: Callable[[str], object],
    ) -> None:
        self.tag = ""
        self.copier: Optional[Copier] = None
        self.progress: float = time.monotonic()  # of the last picture, or the first start
        self._ledger = ledger
        self._announcer = announcer
        self._shots = shots
        self._template = template
        self._session = session
        self._move_spool = move_spool
        self._lock = threading.Lock()  # guards the next two
        self._spool = spool
        self._announced: Dict[str, None] = {}  # paths, in their order
        self._queue: "queue.SimpleQueue[Any]" = queue.SimpleQueue()
        self._is_closed = False
        # The thread's own.
        self._known = 0  # pictures up to this number may still be on a Nikon camera's card
        self._unsettled: List[_Unsettled] = []
        self._unwritten = float("-inf")
        self._thread = threading.Thread(target=self._run, name="lumatie-pictures", daemon=True)
        self._thread.start()

    @property
    def spool(self) -> str:
        """The folder that the camera's pictures go into."""
        return self._spool.path

    def take(self, path: str, time: float, texts: Mapping[str, str]) -> None:
        """A picture was announced, maybe once more, as after an attempt that failed."""
        if self._is_first(path):
            self.progress = time
            self._queue.put(Arrival(path, time, texts, WHOLE_PATIENCE))

    def expect_known(self) -> None:
        """A Nikon camera's card may still hold pictures that are in the folder by now."""
        self._known = self._ledger.last

    def unannounced(self) -> List[str]:
        """Pictures that were fetched while a start ended: the module does not tell of them."""
        with self._lock:
            try:
                return [path for path in self._spool.files() if path not in self._announced]
            except OSError:
                return []

    def adopt(self, paths: Iterable[str], texts: Mapping[str, str]) -> None:
        """Takes them in."""
        for path in paths:
            if self._is_first(path):
                moment = time.monotonic()
                self._queue.put(Arrival(path, moment, texts, UNANNOUNCED_PATIENCE, True))

    def mend_spool(self) -> None:
        """Raises WriteFailed when pictures have nowhere to go to."""
        with self._lock:
            if os.path.isdir(self._spool.path):
                return
            folder = self._ledger.folder
            try:
                if not os.path.isdir(folder):
                    raise FileNotFoundError("the folder %s is not there" % folder)
                spool = pictures.Spool.make(folder)
            except OSError as error:
                raise WriteFailed(str(error)) from error
            self._spool.close()
            self._spool = spool
            self._move_spool(spool.path)

    def miss(self, time: float) -> None:
        """The module could not write a picture."""
        self._queue.put(_Unwritten(time))

    def recover(self) -> None:
        """Takes in what processes that are gone have left, as shots of this one.

        Raises WriteFailed, and Closed after `close`. To be called before anything is taken.
        """

        def adopt(original: str, found: pictures.Inspected) -> pictures.Adoption:
            if self._is_closed:
                raise Closed
            exposure = self._shots.take(found.format, found.taken, time.monotonic(), 2)
            name = self._name_of(exposure, original, found.taken or datetime.datetime.now())
            return pictures.Adoption(name, {"shot": exposure.number})

        found = pictures.recover(
            self._ledger.folder, self._ledger, adopt, {"session": self._session}
        )
        self._announcer.tell_recorded([*found.pictures, *found.alarms])

    def close(self, seconds: Optional[float]) -> bool:
        """Ends behind what has come; what cannot be recorded stays for the next session.

        Whether it has ended within that time. May be called again, to wait on.
        """
        self._is_closed = True
        self._queue.put(None)
        self._thread.join(seconds)
        return not self._thread.is_alive()

    def leave_spool(self) -> None:
        """Gives the spool folder back, when nothing can come into it any more.

        While its thread works in it still it stays this process's own.
        """
        if not self._thread.is_alive():
            self._spool.close()

    def _is_first(self, path: str) -> bool:
        with self._lock:
            if path in self._announced:
                return False
            self._announced[path] = None
            if len(self._announced) > MOST_PATHS:
                # What has its final name does not come again, but for the last ones.
                for older in list(self._announced)[: MOST_PATHS // 2]:
                    if not os.path.lexists(older):
                        del self._announced[older]
            return True

    def _run(self) -> None:
        while True:
            try:
                item = taken(self._queue, RETRY_EVERY if self._unsettled else None)
            except queue.Empty:
                self._guarded(self._try_again)
                continue
            if item is None:
                return
            if isinstance(item, _Unwritten):
                self._guarded(lambda: self._tell_unwritten(item.time))
            else:
                self._guarded(lambda: self._take(item))
            del item

    def _guarded(self, function: Callable[[], object]) -> None:
        """One picture must not be the end of those behind it; its file stays in the spool."""
        try:
            function()
        except Exception:
            _log.exception("a picture was not taken")

    def _take(self, arrival: Arrival) -> None:
        try:
            found = pictures.await_whole(arrival.path, arrival.patience)
        except pictures.Torn as torn:
            self._tell_torn(arrival, torn)
            return
        pending = self._shots.pending
        is_awaited = pending is not None and pending.is_released(arrival.time)
        if not is_awaited and self._is_there(arrival.path, found):
            return
        exposure = self._shots.take(
            found.format, found.taken, arrival.time, files_of(arrival.texts)
        )
        item = _Unsettled(arrival, found, exposure)
        try:
            self._settle(item)
        except WriteFailed as error:
            self._unsettled.append(item)
            name = os.path.basename(arrival.path)
            self._announcer.announce_failure(error, exposure.number, name)
            self._shots.give_up(exposure, error)

    def _try_again(self) -> None:
        try:
            self._settle(self._unsettled[0])
        except WriteFailed:
            return
        except BaseException:
            self._unsettled.pop(0)
            raise
        self._unsettled.pop(0)

    def _is_there(self, path: str, found: pictures.Inspected) -> bool:
        """Whether a Nikon camera's card still holds a picture that is in the folder already.

        The second file is removed then, after its bytes were compared.
        """
        try:
            files = self._ledger.files_of(found.sha256, self._known) if self._known else []
        except WriteFailed:
            return False
        for file in files:
            other = path_of(self._ledger.folder, file)
            try:
                if other is not None and filecmp.cmp(path, other, shallow=False):
                    os.remove(path)
                    _log.info("%s came again from the camera's card", file)
                    return True
            except OSError:
                continue
        return False

    def _settle(self, item: _Unsettled) -> None:
        """Names, records and announces a picture; raises WriteFailed."""
        arrival, found, exposure = item
        original = os.path.basename(arrival.path)
        now = datetime.datetime.now()

        def make_name() -> str:
            return self._name_of(exposure, original, now)

        fields = {
            "shot": exposure.number,
            "origin": exposure.origin,
            "settings": dict(arrival.texts),
            "session": self._session,
        }
        try:
            picture = self._announcer.announce_picture(
                lambda: pictures.settle(self._ledger, arrival.path, make_name, fields, found)
            )
        except pictures.Torn as torn:
            self._tell_torn(arrival, torn, exposure)
            return
        if arrival.may_return and self._known:
            self._known = max(self._known, picture.n)
        if self.copier is not None:
            with contextlib.suppress(TetherError):
                path = os.path.join(self._ledger.folder, *picture.file.split("/"))
                self.copier.add(path, picture.file, picture.sha256, picture.size)
        self._shots.settled(exposure, picture)

    def _name_of(self, exposure: Exposure, original: str, moment: datetime.datetime) -> str:
        """With the folder's lock held."""
        total = self._ledger.number_of(self._session, exposure.number)
        ext = os.path.splitext(original)[1]
        return self._template.name(exposure.number, total, original, self.tag, moment, ext)

    def _tell_torn(
        self, arrival: Arrival, torn: pictures.Torn, exposure: Optional[Exposure] = None
    ) -> None:
        name = os.path.basename(arrival.path)
        if os.path.isfile(arrival.path):
            inner = os.path.join(self._ledger.folder, INNER_FOLDER)
            with contextlib.suppress(OSError):
                pictures.place(arrival.path, inner, "%s/%s" % (pictures.TORN, name))
        if exposure is None:
            exposure = self._shots.blame(arrival.time)
        self._tell_failure(PictureLost(name, torn.evidence), exposure, name)
        with contextlib.suppress(WriteFailed):
            self.mend_spool()  # which may be why

    def _tell_unwritten(self, time: float) -> None:
        error = WriteFailed("the camera's picture did not reach %s" % self._ledger.folder)
        exposure = self._shots.blame(time)
        # A Nikon camera that keeps the picture is asked for it again every second.
        is_news = time - self._unwritten >= UNWRITTEN_EVERY
        self._unwritten = time
        if is_news or exposure is not None:
            self._tell_failure(error, exposure, None)

    def _tell_failure(
        self, error: TetherError, exposure: Optional[Exposure], file: Optional[str]
    ) -> None:
        """Recorded before whoever waits gets the error."""
        number = None if exposure is None else exposure.number
        self._announcer.announce_failure(error, number, file)
        if exposure is not None:
            self._shots.give_up(exposure, error)


def files_of(texts: Mapping[str, str]) -> int:
    """How many files a shot makes: "RAW + Large Fine Jpeg" makes two."""
    return 1 + texts.get("quality", "").count("+")
