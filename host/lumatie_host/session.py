"""A camera that is open: settings, shots, events. What the other parts are put together to.

A session has these threads, all of them daemons:

- the camera thread, which starts, asks and ends the camera (camera_thread.py);
- a thread of the module's, which notes each event into the inbox;
- the event thread, which works off the inbox (inbox.py): settings and confirmations
  (confirmations.py), loss and return (connection.py);
- the picture thread, which checks, names, records and announces pictures (intake.py);
- one for each subscriber, and one for the second copies, where there are any.

No lock is held while foreign code runs, the module's included, and every wait has a deadline.
"""

import atexit
import contextlib
import logging
import os
import secrets
import threading
import time
from concurrent.futures import Future
from types import TracebackType
from typing import Any, Callable, Dict, Optional, Sequence, Set, Type, Union

from . import copies, module_use, pictures, protocol, reopen, second_copies, sidecar
from .announcer import Announcer
from .camera_thread import CameraThread, IsWanted, Note
from .confirmations import Asked, Confirmations
from .connection import Connection
from .copies import Copier
from .errors import NoAnswer, NotSettable, Refused, TetherError, TooLate, WriteFailed
from .inbox import Inbox
from .intake import Intake, files_of
from .ledger import Ledger, path_of
from .names import Template
from .opening import Plan, checked_folder, made_spool
from .settings import NAMES, Setting, seconds_of
from .shots import Exposure, Shot, Shots
from .subscribers import EventIterator, Heard, Mailbox, Subscribers
from .turns import Late, Turns, wait_for

CLOSE_PATIENCE = 10.0  # seconds for a module that hangs
CLOSE_WITHIN = 2.0  # seconds until `close` returns
CAMERA_WITHIN = 1.0  # seconds of that for the camera
TELLING = 0.4  # seconds of that for the last records
SETTLING = 0.2  # seconds without an event after which nothing more follows from a change

_log = logging.getLogger("lumatie_host")


def open(  # noqa: A001  as in tether.open
    camera: str = "",
    *,
    folder: str,
    name: str = "{original}",
    job: str = "",
    station: str = "",
    tag: str = "",
    copy: Optional[str] = None,
    module: Optional[str] = None,
    canon_library: Optional[str] = None,
    virtual: Optional[str] = None,
    timeout: float = 15.0,
    begin: Optional[Callable[["Session"], object]] = None,
) -> "Session":
    """Opens a camera, and returns when its settings are known. Any thread may call.

    Args:
        camera: what a Canon camera calls itself; a label for a Nikon camera.
        folder: where the pictures go; it has to be there.
        name: the template of their names, see `names.Template`.
        job, station, tag: what its tokens of these names stand for.
        copy: a folder for a second, verified copy of each picture.
        module: the complete path of a Nikon camera's driver module.
        canon_library: the library to use in place of the one that would be found.
        virtual: "canon" or "nikon": the virtual camera that came along.
        timeout: seconds without a sign of life before it is given up.
        begin: is called with the session before its camera is looked for: to listen from the
            beginning, and to keep it for a thread that may `close` it, which ends the opening.

    Raises:
        ValueError: there is no such virtual camera.
        FolderRejected, NameRejected: pictures cannot go there, or be called that.
        FolderShared: another camera is open in this program.
        LibraryMissing: the maker's library cannot be used.
        CameraNotFound: no camera answers to the name.
        NoAnswer: it is there, and did not tell its settings.
        WriteFailed: what an earlier session has left cannot be recorded.
        Closed: the session was closed meanwhile.
    """
    plan = Plan(camera, module, canon_library, virtual)
    folder = checked_folder(folder)
    template = Template(
        name,
        camera=plan.camera,
        maker=plan.maker,
        station=station,
        job=job,
        folder=folder,
    )
    with contextlib.ExitStack() as stack:
        module_use.take(folder)
        stack.callback(module_use.release)
        native = plan.load()
        ledger = Ledger(folder)
        ledger.prepare()
        spool = made_spool(folder)
        stack.callback(spool.close)
        session = Session(plan, ledger, spool, template, tag, native)
        stack.pop_all()
    try:
        session._open(copy, timeout, begin)
    except BaseException:
        session.close()
        raise
    return session


class Session:
    """A camera that is open; made by `open`. All of it may be called on any thread.

    Use it as a context manager, or call `close`. Sessions that are left open are closed when the
    program ends.

    Attributes:
        maker: "canon" or "nikon".
        camera: the name that was given to `open`, or else its driver module's.
        folder: the complete path of where the pictures go.
        ledger: the folder's.
        first: the ledger's number before the session: `events(since=first)` tells all of it.
        id: tells the sessions that share a folder apart, as `Picture.session` does.
    """

    def __init__(
        self,
        plan: Plan,
        ledger: Ledger,
        spool: pictures.Spool,
        template: Template,
        tag: str,
        native: Any,
    ) -> None:
        """For `open`."""
        self.maker: str = plan.maker
        self.camera: str = plan.camera
        self.folder: str = ledger.folder
        self.ledger = ledger
        self.first: int = ledger.last
        self.id: str = "%d-%s" % (int(time.time()), secrets.token_hex(4))
        self._template = template
        self._subscribers = Subscribers()
        self._announcer = Announcer(ledger, self._subscribers)
        self._shots = Shots()
        self._shutter = Turns()
        self._setters: Dict[str, Turns] = {name: Turns() for name in NAMES}

        self._lock = threading.Lock()  # guards the next
        self._closer: Optional[threading.Thread] = None
        self._closed = threading.Event()

        self._inbox = Inbox(self._receive, self._look, lambda: self._connection.pause())
        self._camera_thread = CameraThread(
            plan.maker == "nikon", self._inbox.note, self._hear, native
        )
        self._confirmations = Confirmations(plan.maker, self._camera_thread.set_value)
        self._intake = Intake(
            *(ledger, self._announcer, self._shots, template, self.id),
            *(spool, self._camera_thread.update_folder),
        )
        self._intake.tag = tag
        self._connection = Connection(
            *(plan, self.id, self._camera_thread, self._announcer, self._intake),
            *(self._confirmations, self._inbox.post, self._fail_all),
        )
        self._inbox.start()
        _remember(self)

    # What it is.

    @property
    def state(self) -> str:
        """How it stands with the camera.

        One of "opening", "open", "silent" (it may be lost), "lost", "reopening" and "closed".
        """
        return self._connection.state

    @property
    def settings(self) -> Dict[str, Setting]:
        """What the camera has told, name to setting; while it is away, what it told last."""
        return dict(self._confirmations.told)

    @property
    def tag(self) -> str:
        """What `{tag}` stands for in the names of the pictures to come."""
        return self._intake.tag

    @tag.setter
    def tag(self, text: str) -> None:
        self._intake.tag = text

    @property
    def copier(self) -> Optional[Copier]:
        """Makes the second copies, where there are any; tells how far it is behind."""
        return self._intake.copier

    def next_name(self) -> str:
        """What the next picture will be called, as far as it can be known before the shot."""
        number = self._shots.next_number
        return self._template.next(number, self.ledger.total + 1, self._intake.tag, ext="JPG")

    # What it does.

    def set(
        self,
        name: str,
        text: Optional[str] = None,
        *,
        key: Optional[int] = None,
        timeout: float = 5.0,
    ) -> str:
        """Changes a setting; returns the text that the camera confirmed.

        Args:
            name: one of `NAMES`.
            text: one of those that the setting allows, or as photographers write it.
            key: the code of the choice, where a text is ambiguous.
            timeout: seconds for the camera to confirm it.

        Raises:
            ValueError: neither a text nor a key.
            Refused: it is none of the choices, or the camera did not take it.
            NotSettable: it cannot be changed now, or not at all.
            NoAnswer: the camera did not tell that it has changed.
            SessionLost, Closed: the camera is away; the session is over.
        """
        deadline = time.monotonic() + timeout
        wanted = text if text is not None else "key %s" % key
        what = "set %s to %s" % (name.replace("_", " "), wanted)

        def late() -> NoAnswer:
            return NoAnswer(timeout, what)

        turns = self._setters.get(name) or Turns()
        with turns.turn(deadline, late):
            asked = self._ask_settled(name, text, key, deadline, late)
            if isinstance(asked, str):
                return asked
            try:
                return wait_for(asked.result, deadline)
            except Late:
                pass
            except BaseException:  # answered otherwise, or interrupted
                self._inbox.post(lambda: self._confirmations.withdraw(asked))
                raise
            return self._inbox.ask(
                lambda: self._end_set(asked, late()), time.monotonic() + 2.0, late
            )

    def shoot(
        self,
        timeout: float = 30.0,
        pair: bool = False,
        *,
        is_wanted: Optional[IsWanted] = None,
    ) -> Shot:
        """Takes a picture; returns when its first file is in the folder, and recorded.

        One at a time: a second call waits for the first.

        Args:
            timeout: seconds, beside the exposure, which may take twice as long as it is set.
            pair: wait for the second file of RAW and JPEG, too.
            is_wanted: is asked when it is this shot's turn, and again right before the camera is
                told to release, on a thread that the camera waits for: it must return at once.
                When it says no, no picture is taken.

        Raises:
            NoAnswer: no picture came in time; one that comes later is taken all the same.
            TooLate: it was not wanted any more when its turn came.
            WriteFailed: it could not be written.
            PictureLost: it was announced, and is not there or not whole.
            SessionLost, Closed: the camera is away; the session is over.
        """
        begun = time.monotonic()
        patience = timeout + self._exposure_time()

        def late() -> NoAnswer:
            return NoAnswer(patience, "take a picture")

        with self._shutter.turn(begun + patience, late):
            exposure = self._inbox.ask(
                lambda: self._begin_shot(pair, is_wanted, begun + patience), begun + patience, late
            )
            try:
                return wait_for(exposure.result, begun + patience)
            except Late:
                if not exposure.result.done():
                    self._end_shot(exposure, late())
                return exposure.result.result()
            finally:
                if not exposure.result.done():  # interrupted
                    _withdraw(exposure)
                    self._shots.give_up(exposure)

    def rate(self, file: str, rating: int, label: str = "") -> None:
        """Rates a picture in its sidecar, and records that.

        Args:
            file: as its record tells it, relative to the folder.
            rating: 0 to 5.
            label: the name of a colour; empty: none.

        Raises:
            ValueError: no such rating, or a file that is not in the folder.
            WriteFailed: the sidecar cannot be written.
        """
        if not 0 <= rating <= 5:
            raise ValueError("no rating from 0 to 5: %r" % rating)
        path = path_of(self.folder, file)
        if path is None or not os.path.isfile(path):
            raise ValueError("no picture: %r" % file)
        sidecar.write(path, rating=rating, label=label)
        self._announcer.announce("rated", file=file, rating=rating, label=label)

    def events(self, since: Optional[int] = None) -> EventIterator:
        """Iterates over what happens from now on, or behind the ledger's number `since`.

        It waits for the next event, and ends when the session is closed. A listener that is too
        slow gets a `Lagged` in place of events; they are in the ledger.
        """
        mailbox = self._subscribers.mailbox()
        return EventIterator(mailbox, () if since is None else self.ledger.events(since))

    def subscribe(self, listener: Callable[[Heard], object]) -> Callable[[], None]:
        """Calls the listener with each event from now on, on a thread of its own.

        Returns a function that ends it. What the listener raises is logged. It may do anything,
        `close` included.
        """
        return self._subscribers.subscribe(listener)

    def mailbox(self, on_ready: Optional[Callable[[], None]] = None) -> Mailbox:
        """A mailbox that gets each event from now on, for adapters; see `subscribers.Mailbox`.

        `on_ready` is called when something waits in it, on the thread that brought it.
        """
        return self._subscribers.mailbox(on_ready)

    def close(self) -> None:
        """Ends the session; does nothing when it is over.

        It takes up to 2 seconds, whatever the camera does. A transfer or an exposure that takes
        longer ends behind it: the picture is found by the next session in the folder, and the next
        camera of this program waits for it. Whoever waits for an answer gets
        `SessionClosed`. May be called by a subscriber.
        """
        with self._lock:
            closer = self._closer
            if closer is None:
                self._closer = threading.current_thread()
        if closer is not None:
            if closer is not threading.current_thread():
                self._closed.wait(CLOSE_PATIENCE + 5.0)
            return
        is_ended = False
        try:
            is_ended = self._close()
        finally:
            if is_ended or not module_use.end_behind(self._leave_behind):
                self._intake.leave_spool()
                module_use.release()
            self._closed.set()
            _forget(self)

    def __enter__(self) -> "Session":
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    # Beginning and end.

    def _open(
        self, copy: Optional[str], timeout: float, begin: Optional[Callable[["Session"], object]]
    ) -> None:
        copier = None
        if copy is not None:
            copier = second_copies.make_copier(copy, self.folder, self._announcer)
            self._intake.copier = copier
        if begin is not None:
            begin(self)
        self._intake.recover()
        if copier is not None and copy is not None:
            second_copies.add_missing(copier, copy, self.ledger)
        self._intake.progress = time.monotonic()
        self._inbox.post(self._connection.start)
        while True:
            deadline = self._intake.progress + timeout
            try:
                return wait_for(self._connection.opened, deadline)
            except Late:
                if self._intake.progress + timeout <= deadline:
                    raise NoAnswer(timeout, "tell its settings") from None

    def _close(self) -> bool:
        """Whether the camera has ended, too, and nothing works with pictures or records any more.

        What records does so on other threads, for a disk may hang.
        """
        end = time.monotonic() + CLOSE_WITHIN

        def left(kept: float = TELLING) -> float:
            return max(0.05, end - kept - time.monotonic())

        self._inbox.post(self._connection.close)
        self._shutter.close()
        for turns in self._setters.values():
            turns.close()
        is_ended = self._camera_thread.end(CAMERA_WITHIN)
        if not is_ended:
            _log.warning("the camera is busy still, or its library hangs: it is left behind")
        self._inbox.work_off(left())
        if is_ended:
            self._intake.adopt(self._intake.unannounced(), self._confirmations.texts)
        is_ended = self._intake.close(left()) and is_ended
        copier = self._intake.copier
        not_copied = [] if copier is None else copier.close(left(TELLING + copies.GRACE))
        self._inbox.post(lambda: self._tell_end(not_copied))
        if not self._inbox.end(left(0.0)):
            _log.warning("the last records wait for the disk: they are left behind")
            is_ended = False
        self._subscribers.close()
        return is_ended

    def _leave_behind(self) -> None:
        """Waits for a camera and its pictures that a close has left; on a thread of its own."""
        end = time.monotonic() + CLOSE_PATIENCE
        self._camera_thread.end(CLOSE_PATIENCE)
        self._inbox.end(max(0.0, end - time.monotonic()))
        is_ended = self._intake.close(max(0.0, end - time.monotonic()))
        module_use.release()
        if not is_ended:
            self._intake.close(None)  # for as long as the disk takes
        self._intake.leave_spool()

    # On the event thread.

    def _receive(self, note: Note) -> None:
        message = protocol.read(note.code, *note.values)
        is_picture = isinstance(message, protocol.NewFile)
        if isinstance(message, protocol.NewFile):
            self._intake.take(message.path, note.time, self._confirmations.texts)
        if not self._connection.hear(note, is_picture):
            return
        if isinstance(message, (protocol.Value, protocol.Allowed)):
            self._connection.learn(self._confirmations.take(message, note.time))
        elif isinstance(message, protocol.WriteFailed):
            self._intake.miss(note.time)
        elif isinstance(message, protocol.Unreadable):
            _log.debug("an event that says nothing: %d, %s", message.code, message.what)

    def _look(self) -> None:
        """What has to be done whatever came."""
        self._connection.record_settings()
        self._confirmations.confirm()
        self._connection.look()

    def _tell_end(self, not_copied: Sequence[object]) -> None:
        second_copies.tell_left(not_copied, self._announcer)
        opened = self._connection.opened
        if opened.done() and opened.exception() is None:
            self._announcer.announce("closed")

    def _end_set(self, asked: Asked, late: NoAnswer) -> str:
        """Nothing has confirmed it in time: what that means."""
        self._confirmations.withdraw(asked)
        text = self._confirmations.answer_to(asked)
        if text is not None:
            return text
        # A camera that refuses says nothing of it. One that tells of other things is there.
        if self._connection.miss(asked.begun):
            raise late
        raise self._confirmations.refusal(asked)

    def _begin_set(self, name: str, text: Optional[str], key: Optional[int]) -> Union[str, Asked]:
        self._connection.check_open()
        return self._confirmations.ask(name, text, key)

    def _begin_shot(self, pair: bool, is_wanted: Optional[IsWanted], deadline: float) -> Exposure:
        self._connection.check_open()
        self._intake.mend_spool()
        if is_wanted is not None and not is_wanted():
            raise TooLate
        exposure = self._shots.ask(files_of(self._confirmations.texts), pair)
        try:
            self._announcer.announce("shot", shot=exposure.number, must=True)
        except WriteFailed as error:
            self._shots.give_up(exposure, error)
            raise
        if time.monotonic() > deadline:  # the disk took so long, and nobody waits any more
            late = TooLate(exposure.number)
            self._fail_shot(exposure, late)
            raise late
        exposure.released = self._camera_thread.shoot(is_wanted)
        exposure.released.add_done_callback(lambda released: self._note_release(exposure, released))
        return exposure

    def _fail_all(self, error: TetherError) -> None:
        """Nobody gets an answer any more."""
        self._confirmations.fail(error)
        for exposure in self._shots.waiting():
            _withdraw(exposure)
            self._announcer.announce_failure(error, exposure.number)
            self._shots.give_up(exposure, error)

    # On the caller's thread.

    def _ask_settled(
        self,
        name: str,
        text: Optional[str],
        key: Optional[int],
        deadline: float,
        late: Callable[[], TetherError],
    ) -> Union[str, Asked]:
        """Asks for a setting.

        A Canon camera tells what follows from a change right behind it: that the color temperature
        counts, say. So what cannot be set is looked at again until nothing more comes.
        """
        while True:
            try:
                return self._inbox.ask(lambda: self._begin_set(name, text, key), deadline, late)
            except (NotSettable, Refused):
                now = time.monotonic()
                is_settled = now - self._connection.last_event > SETTLING
                if self.maker == "nikon" or is_settled or now > deadline:
                    raise
            time.sleep(SETTLING / 10)

    def _exposure_time(self) -> float:
        """Seconds that an exposure may take; noise reduction takes as long again."""
        seconds = seconds_of(self._confirmations.texts.get("shutter", ""))
        return 0.0 if seconds is None else 2 * seconds

    def _end_shot(self, exposure: Exposure, error: TetherError) -> None:
        """No picture came in time."""
        _withdraw(exposure)
        if self._fail_shot(exposure, error):
            self._inbox.post(lambda: self._connection.miss(exposure.begun))

    def _fail_shot(self, exposure: Exposure, error: TetherError) -> bool:
        is_failed = self._shots.give_up(exposure, error)
        if is_failed:
            self._announcer.announce_failure(error, exposure.number)
        return is_failed

    # On the camera's threads.

    def _note_release(self, exposure: Exposure, released: "Future[float]") -> None:
        """A Nikon camera's shutter waits for a report; without one nothing explains a silence."""
        if released.cancelled():
            return
        error = released.exception()
        if error is None:
            self._inbox.post(self._connection.expect_picture)
        elif isinstance(error, TooLate):
            self._inbox.post(lambda: self._fail_shot(exposure, TooLate(exposure.number)))

    def _hear(self, device: str, came: bool) -> None:
        """Windows tells of a device."""
        if not device or reopen.is_camera_of(self.maker, device):
            all_left = bool(device) and not came
            self._inbox.post(lambda: self._connection.hear_devices(came, all_left))


def _withdraw(exposure: Exposure) -> None:
    """A shutter that was not released yet stays closed."""
    if exposure.released is not None:
        exposure.released.cancel()


# Sessions that are open, for the end of the program. The module's own exit function was registered
# before, when it was imported, so it runs after this.
_sessions: Set[Session] = set()
_sessions_lock = threading.Lock()
_is_registered = False


def _remember(session: Session) -> None:
    global _is_registered  # noqa: PLW0603
    with _sessions_lock:
        _sessions.add(session)
        if not _is_registered:
            _is_registered = True
            atexit.register(_close_all)


def _forget(session: Session) -> None:
    with _sessions_lock:
        _sessions.discard(session)


def _close_all() -> None:
    with _sessions_lock:
        sessions = list(_sessions)
    for session in sessions:
        session.close()
    # Threads that the end of a process stops in the middle of a library may leave its locks behind.
    module_use.await_end()
