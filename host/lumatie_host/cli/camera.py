"""The words of the command that open a camera: shoot, bracket, watch, set, events."""

import contextlib
import datetime
import os
import time
from typing import Callable, Dict, List, Optional, Tuple, Type

from .. import sequences, session
from ..errors import (
    FolderRejected,
    FrameFailed,
    NoAnswer,
    Reason,
    SessionLost,
    TetherError,
)
from ..events import Closed, Event, Opened, SettingChanged, ShotAsked
from . import words
from .arguments import Options
from .console import Console, OutputGone
from .control import Control
from .follower import Follower

DONE = 0
A_PICTURE_LOST = 9

STATUS_OF = {
    Reason.CAMERA_NOT_FOUND: 3,
    Reason.LIBRARY_MISSING: 4,
    Reason.LIBRARY_UNFIT: 4,
    Reason.FOLDER_REJECTED: 5,
    Reason.NAME_REJECTED: 5,
    Reason.REFUSED: 6,
    Reason.NOT_SETTABLE: 6,
    Reason.NO_ANSWER: 7,
    Reason.SESSION_LOST: 8,
    Reason.CLOSED: 8,
    Reason.PICTURE_LOST: A_PICTURE_LOST,
    Reason.WRITE_FAILED: A_PICTURE_LOST,
}

# Seconds, where the options name none.
OPEN_PATIENCE = 15.0
SET_PATIENCE = 5.0
SHOT_PATIENCE = 30.0
RETURN_PATIENCE = 60.0
RECORD_PATIENCE = 2.0
FOR_EVER = 1e9

_HIDDEN: Dict[str, Tuple[Type[Event], ...]] = {
    "set": (Opened, Closed, SettingChanged),
    "watch": (SettingChanged, ShotAsked),
}


def run(options: Options, console: Console, control: Control) -> int:
    """Opens the camera and does what the word says; the exit status. Raises TetherError."""
    folder = chosen_folder(options, console)
    works: List[Work] = []

    def begin(camera: session.Session) -> None:
        control.adopt(camera)
        works.append(Work(options, console, control, camera))

    try:
        with session.open(
            options.camera,
            folder=folder,
            name=options.name,
            job=options.job,
            copy=options.copy,
            module=options.module,
            canon_library=options.canon_library,
            virtual=options.virtual,
            timeout=options.timeout or OPEN_PATIENCE,
            begin=begin,
        ):
            return works[0].do()
    finally:
        for work in works:
            work.finish()


def chosen_folder(options: Options, console: Console) -> str:
    """Where the pictures go; one of today's date is made when none was named."""
    if options.folder is not None:
        return options.folder
    folder = os.path.abspath("lumatie-%s" % datetime.date.today().isoformat())
    try:
        os.makedirs(folder, exist_ok=True)
    except OSError as error:
        raise FolderRejected(folder, error.strerror or str(error)) from error
    console.say("Pictures go into %s" % folder)
    return folder


class Work:
    """One session, doing what the word says."""

    def __init__(
        self, options: Options, console: Console, control: Control, camera: session.Session
    ) -> None:
        self._options = options
        self._console = console
        self._control = control
        self._camera = camera
        self._wanted = 0  # frames
        self._done = 0
        self._begun = 0.0
        hidden = _HIDDEN.get(options.word, ())
        self._follower = Follower(console, camera, hidden, control.stop)

    def do(self) -> int:
        """Until it is done, or stopped; the exit status."""
        self._begun = time.monotonic()
        todo: Dict[str, Callable[[], None]] = {
            "shoot": self._shoot,
            "bracket": self._bracket,
            "watch": self._watch,
            "set": self._set,
            "events": self._watch,
        }
        todo[self._options.word]()
        if self._control.is_stopped:
            return DONE  # says nothing: who stopped it decides
        self._await_rest()
        is_copied = self._await_copies()
        is_lost = self._follower.losses or self._done < self._wanted
        return A_PICTURE_LOST if is_lost or not is_copied else DONE

    def finish(self) -> None:
        """After the session was closed: prints what is left to print, and says what is missing."""
        self._console.progress("")
        is_printed = self._follower.finish(lambda: self._control.is_stopped)
        self._control.is_output_stuck = not is_printed
        if self._control.is_stopped and not self._control.is_output_gone:
            self._tell_rest()

    def _shoot(self) -> None:
        self._wanted = self._options.n
        skipped = 0
        while self._done + skipped < self._wanted and not self._control.is_stopped:
            before = self._done + skipped
            try:
                for _ in sequences.interval(
                    self._camera,
                    self._wanted - before,
                    self._options.every,
                    stop=self._control.stopped,
                    timeout=self._shot_patience,
                    pair=self._options.pair,
                ):
                    self._frame_is_done()
            except FrameFailed as failed:
                if not isinstance(failed.cause, SessionLost):
                    raise self._worded(failed, before) from failed
                self._await_return(failed.cause)
                # A frame that may have fired is not shot again.
                if self._follower.asked > self._done + skipped:
                    skipped += 1
                    frame = self._done + skipped
                    self._console.complain("Picture %d was lost with the camera." % frame)

    def _worded(self, failed: FrameFailed, before: int) -> TetherError:
        """The failure with the frame's number among all, which does not matter of one alone."""
        if self._wanted == 1:
            return failed.cause
        return FrameFailed(failed.frame + before, failed.cause)

    def _bracket(self) -> None:
        options = self._options
        frames = sequences.bracket(
            self._camera,
            options.setting,
            options.values or None,
            frames=options.frames or 3,
            steps=options.steps or 3,
            stop=self._control.stopped,
            timeout=self._shot_patience,
            pair=options.pair,
        )
        with contextlib.closing(frames):
            for frame in frames:
                self._wanted = frame.of
                self._frame_is_done()

    def _watch(self) -> None:
        """Until it is stopped, or the camera is gone for longer than was allowed."""
        self._console.say("Shoot at the camera; Ctrl-C ends.")
        patience = self._options.timeout or FOR_EVER
        control, follower = self._control, self._follower
        while not (control.is_stopped or follower.is_over):
            follower.wait_until(lambda: control.is_stopped or bool(follower.evidence), FOR_EVER)
            if follower.evidence and not control.is_stopped:
                self._await_return(SessionLost(0.0, follower.evidence), patience)

    def _set(self) -> None:
        for name, text, key in self._options.settings:
            patience = self._options.timeout or SET_PATIENCE
            confirmed = self._camera.set(name, text, key=key, timeout=patience)
            # Its record is made right behind the confirmation.
            self._follower.wait_until(
                lambda: self._follower.text_of(name) == confirmed, RECORD_PATIENCE
            )
            if not self._console.as_json and not self._console.is_quiet:
                with contextlib.suppress(OutputGone):
                    self._console.line("%s %s" % (name.replace("_", " "), confirmed))

    # Waiting.

    @property
    def _shot_patience(self) -> float:
        return self._options.timeout or SHOT_PATIENCE

    def _await_return(self, lost: SessionLost, seconds: Optional[float] = None) -> None:
        """Raises SessionLost when the camera does not come back in time."""
        begun = time.monotonic()
        patience = seconds or self._options.timeout or RETURN_PATIENCE
        if self._follower.wait_until(
            lambda: self._control.is_stopped or self._camera.state in ("open", "silent"), patience
        ):
            # The record of its return is heard a moment later.
            self._follower.wait_until(lambda: not self._follower.evidence, RECORD_PATIENCE)
            return
        if not self._control.is_stopped:
            raise SessionLost(lost.since + time.monotonic() - begun, lost.evidence)

    def _await_rest(self) -> None:
        """The second files of the last shots; raises NoAnswer."""
        follower, control = self._follower, self._control
        if not follower.wait_until(
            lambda: control.is_stopped or not follower.missing, self._shot_patience
        ):
            raise NoAnswer(self._shot_patience, "deliver the second file of a picture")

    def _await_copies(self) -> bool:
        """Waits for the second copies as long as they get fewer; whether all are made."""
        copier = self._camera.copier
        if copier is None:
            return True
        left, moved = copier.lag, time.monotonic()
        while not copier.wait(0.1):
            if self._control.is_stopped:
                return True
            now = time.monotonic()
            if copier.lag != left:
                left, moved = copier.lag, now
            self._console.progress("%s to copy" % words.count(left[0], "picture"))
            if now - moved > self._shot_patience:
                self._tell_uncopied()
                return False
        return True

    # Telling.

    def _frame_is_done(self) -> None:
        self._done += 1
        if self._wanted > 1:
            spent = time.monotonic() - self._begun
            rate = self._done / max(spent, 1e-3)
            left = (self._wanted - self._done) / rate
            self._console.progress(
                "%d of %d, %.*f a minute, %s left"
                % (self._done, self._wanted, rate < 0.2, rate * 60, words.duration(left))
            )

    def _tell_rest(self) -> None:
        """What was not done yet when it was stopped."""
        if self._wanted > 1:
            self._console.say("%d of %d pictures were taken." % (self._done, self._wanted))
        missing = self._follower.missing
        if missing:
            self._console.complain(
                "%s not fetched: look at the camera's card." % words.count_is(missing, "picture")
            )
        self._tell_uncopied()

    def _tell_uncopied(self) -> None:
        copier = self._camera.copier
        left = 0 if copier is None else copier.lag[0]
        if left:
            self._console.complain(
                "%s no second copy in %s." % (words.count_have(left, "picture"), self._options.copy)
            )
