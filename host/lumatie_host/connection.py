"""How it stands with the camera: it is opened, seen to be lost, and opened again.

It belongs to the event thread of a session; `state`, `opened` and `last_event` may be read on any.
"""

import logging
import os
import time
from concurrent.futures import Future
from typing import Callable, Dict, Iterable, List, Mapping, Optional, Sequence

from . import reopen, settings
from .announcer import Announcer
from .camera_thread import CameraThread, Note
from .confirmations import Confirmations
from .errors import CameraNotFound, Closed, SessionLost, TetherError, WriteFailed
from .intake import Intake
from .ledger import LONGEST_LINE
from .opening import Plan
from .settings import Setting

USB_EVERY = 1.0  # seconds between two looks at the devices
LONGEST_ALLOWED = LONGEST_LINE // 16  # characters of a record, which may take 12 bytes each
START_PATIENCE = 15.0  # seconds for a camera that is opened again to tell its settings

_log = logging.getLogger("lumatie_host")


class Connection:
    """The camera of one session.

    Args:
        session: the session's name in the records.
        post: has the event thread call a function.
        give_up: called with the error that all who wait for the camera get.
    """

    def __init__(
        self,
        plan: Plan,
        session: str,
        camera_thread: CameraThread,
        announcer: Announcer,
        intake: Intake,
        confirmations: Confirmations,
        post: Callable[[Callable[[], object]], bool],
        give_up: Callable[[TetherError], None],
    ) -> None:
        self._plan = plan
        self._session = session
        self._camera_thread = camera_thread
        self._announcer = announcer
        self._intake = intake
        self._confirmations = confirmations
        self._post = post
        self._give_up = give_up
        self._watch = reopen.Watch(plan.maker, time.monotonic)
        self._usb = reopen.UsbCameras(plan.maker)
        self._looked_at = 0.0  # the devices
        self._start = 0
        self._start_deadline = 0.0
        self._before: Dict[str, str] = {}  # texts, of the camera that was lost
        self.opened: "Future[None]" = Future()
        self.last_event: float = 0.0

    @property
    def state(self) -> str:
        """One of the words of reopen.py."""
        return self._watch.state

    def check_open(self) -> None:
        """Raises SessionLost or Closed when the camera cannot be asked for anything."""
        state = self._watch.state
        if state in (reopen.LOST, reopen.REOPENING):
            raise SessionLost(self._watch.since, self._watch.evidence)
        if state not in (reopen.OPEN, reopen.SILENT):
            raise Closed

    def hear(self, note: Note, is_picture: bool) -> bool:
        """The camera tells something; whether it is the camera of now that does."""
        if note.start != self._start or self._watch.state in (reopen.LOST, reopen.CLOSED):
            return False
        self._watch.sign(is_picture)
        self.last_event = note.time
        return True

    def learn(self, changes: Iterable[Setting]) -> None:
        """The camera has told settings: how long it may be silent, and maybe all that it has."""
        for setting in changes:
            if setting.name == "shutter":
                self._watch.expose(settings.seconds_of(setting.text))
            elif setting.name == "quality":
                self._watch.expect(setting.text)
        if self._confirmations.is_complete:
            if self._watch.state == reopen.OPENING:
                self._became_open()
            elif self._watch.state == reopen.REOPENING:
                self._came_back()

    def expect_picture(self) -> None:
        """The shutter was released; a Nikon camera is silent while it fetches the picture."""
        self._watch.fetch()

    def miss(self, since: float) -> bool:
        """A deadline has passed; whether the camera has told nothing `since` the request."""
        is_missed = self.last_event <= since
        if is_missed:
            self._watch.missed()
        return is_missed

    def hear_devices(self, came: bool, all_left: bool) -> None:
        """The system tells of devices that may be cameras."""
        if all_left:
            self._watch.departed("the camera left the USB")
        if came:
            self._watch.arrived()

    def record_settings(self) -> None:
        """Records what has changed, while the camera is there."""
        if self._watch.state not in (reopen.OPEN, reopen.SILENT):
            return
        for setting in self._confirmations.take_changed():
            self._announcer.announce(
                "setting",
                name=setting.name,
                text=setting.text,
                allowed=_recordable(setting.allowed),
                settable=setting.settable,
            )

    def pause(self) -> Optional[float]:
        """Seconds until `look` is due; None: not before something is told."""
        if self._watch.state == reopen.CLOSED:
            return None
        waits = [self._watch.wait()]
        if self._watch.state == reopen.REOPENING:
            waits.append(max(0.0, self._start_deadline - time.monotonic()))
        if self._usb.is_readable:
            waits.append(USB_EVERY)
        return min((wait for wait in waits if wait is not None), default=None)

    def look(self) -> None:
        """Does what is due: looks for the camera's device, loses it, or starts it again."""
        if self._watch.state == reopen.CLOSED:
            return
        now = time.monotonic()
        if now - self._looked_at >= USB_EVERY * 0.9:
            self._looked_at = now
            change = self._usb.change()
            if change is not None:
                self.hear_devices(change.came, change.all_left)
        if self._watch.state == reopen.REOPENING and now > self._start_deadline:
            self._end_start()
            self._watch.failed("it does not tell its settings")
        action = self._watch.poll()
        if action is reopen.Do.LOSE:
            self._lose()
        elif action is reopen.Do.START:
            self.start()

    def start(self) -> None:
        """Starts the camera."""
        if self._watch.state == reopen.CLOSED:
            return
        module = self._plan.module
        if module is not None and not os.path.isfile(module):
            # The module would take its path for a Canon camera's name.
            self._end_hope("the driver module %s is gone" % module)
            return
        self._start += 1
        self._confirmations.forget()
        if self._plan.maker == "nikon":
            self._intake.expect_known()
        self._start_deadline = time.monotonic() + START_PATIENCE
        start = self._start
        future = self._camera_thread.init(self._plan.info, self._intake.spool)
        future.add_done_callback(
            lambda done: self._post(lambda: self._started(start, done)) and None
        )

    def close(self) -> None:
        """The session ends."""
        self._watch.close()
        self._give_up(Closed())
        self._fail_opening(Closed())

    def _started(self, start: int, future: "Future[int]") -> None:
        if start != self._start or self._watch.state == reopen.CLOSED:
            return
        error = future.exception()
        if error is None and future.result():
            self._start_deadline = time.monotonic() + START_PATIENCE
        elif self._watch.state == reopen.OPENING:
            self._fail_opening(error or CameraNotFound(self._plan.camera))
        else:
            self._watch.failed("no camera was found" if error is None else str(error))

    def _end_start(self) -> None:
        """Ends what was started, and takes the picture that was under way meanwhile."""
        texts = self._confirmations.texts

        # Before the next start, on the camera thread: what is written by then is whole.
        def list_files(_: object) -> None:
            files = self._intake.unannounced()
            self._post(lambda: self._adopt(files, texts))

        self._camera_thread.uninit().add_done_callback(list_files)

    def _adopt(self, files: List[str], texts: Mapping[str, str]) -> None:
        if files:
            self._watch.fetched()
        self._intake.adopt(files, texts)

    def _end_hope(self, what: str) -> None:
        self._watch.give_up(what)
        advice = "Put it back, and open the camera again."
        self._announcer.announce("alarm", what=what, advice=advice)
        self._fail_opening(CameraNotFound(self._plan.camera))

    def _became_open(self) -> None:
        self._watch.opened()
        try:
            self._announcer.announce(
                "opened",
                camera=self._plan.camera,
                maker=self._plan.maker,
                session=self._session,
                must=True,
            )
        except WriteFailed as error:
            self._fail_opening(error)
            return
        self.record_settings()
        if not self.opened.done():
            self.opened.set_result(None)

    def _fail_opening(self, error: BaseException) -> None:
        if not self.opened.done():
            self.opened.set_exception(error)

    def _lose(self) -> None:
        self._before = self._confirmations.texts
        since, evidence = self._watch.since, self._watch.evidence
        _log.warning("the camera is lost: %s", evidence)
        self._announcer.announce("lost", evidence=evidence)
        self._end_start()
        self._give_up(SessionLost(since, evidence))

    def _came_back(self) -> None:
        after = self._watch.away
        self._watch.opened()
        now = self._confirmations.texts
        differences = {
            name: [before, now[name]]
            for name, before in self._before.items()
            if name in now and now[name] != before
        }
        self._announcer.announce("back", after=round(after, 3), differences=differences)
        self._confirmations.keep_changed(differences)


def _recordable(texts: Sequence[str]) -> Sequence[str]:
    """As many of them as a record has room for, whatever letters they have."""
    left = LONGEST_ALLOWED
    for index, text in enumerate(texts):
        left -= len(text)
        if left < 0:
            return texts[:index]
    return texts
