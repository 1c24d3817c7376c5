"""What can go wrong, in words for the person in front of the screen.

Every error has a `reason`, for programs, a text, and an `advice`: one sentence that says what to
do. All of them can be pickled, so they cross processes whole, and read on any thread.
"""

import enum
from typing import Any, Optional, Sequence, Tuple, Type


class Reason(enum.Enum):
    """Why something did not work; the values stand in ledgers and answers, and never change."""

    CAMERA_NOT_FOUND = "camera_not_found"
    LIBRARY_MISSING = "library_missing"
    LIBRARY_UNFIT = "library_unfit"  # there, but for another bitness, or without a function
    FOLDER_REJECTED = "folder_rejected"
    NAME_REJECTED = "name_rejected"
    REFUSED = "refused"
    NOT_SETTABLE = "not_settable"
    NO_ANSWER = "no_answer"
    SESSION_LOST = "session_lost"
    PICTURE_LOST = "picture_lost"
    WRITE_FAILED = "write_failed"
    CLOSED = "closed"


class TetherError(Exception):
    """The base of all errors of this package.

    Attributes:
        reason: for programs.
        advice: one sentence that says what to do, for the person in front of the screen.
    """

    reason: Reason = Reason.CLOSED
    advice: str = ""

    def __init__(self, text: str, reason: Reason, advice: str, *arguments: Any) -> None:
        """For the errors below; `arguments` are those that make an equal one."""
        super().__init__(text)
        self.reason = reason
        self.advice = advice
        self._arguments = arguments

    def __reduce__(self) -> Tuple[Type["TetherError"], Tuple[Any, ...]]:
        return type(self), self._arguments


class CameraNotFound(TetherError):
    """No camera answers to the name, or the driver module finds none.

    Args:
        camera: the name; empty: none was given.
        file: a file of that name, which the module would take for a driver module.
    """

    def __init__(self, camera: str = "", file: Optional[str] = None) -> None:
        self.camera = camera
        self.file = file
        if file is not None:
            text = '"%s" is not only a camera\'s name: there is %s' % (camera, file)
            advice = "Start the program in another folder, or rename the file."
        elif not camera:
            text = "no camera was named"
            advice = "Name the camera as it calls itself, or the driver module of a Nikon camera."
        else:
            text = 'no camera "%s" was found' % camera
            advice = "Switch the camera on, check its cable, and close other programs that use it."
        super().__init__(text, Reason.CAMERA_NOT_FOUND, advice, camera, file)


class LibraryMissing(TetherError):
    """A maker's library cannot be loaded.

    Args:
        path: where it was looked for; may be a bare name.
        bitness: of the library in bits; None when it is not there or no library.
        system_text: what the operating system said.
    """

    def __init__(self, path: str, bitness: Optional[int], system_text: str) -> None:
        self.path = path
        self.bitness = bitness
        self.system_text = system_text
        unfit = bitness is not None
        if bitness == 32:
            text = "the camera library %s is for 32-bit programs, and this one has 64 bits" % path
            advice = "Install the maker's 64-bit library."
        elif unfit:
            text = "the camera library %s cannot be used: %s" % (path, system_text)
            advice = "Install the version of the maker's library that belongs to your camera."
        else:
            text = "the camera library %s cannot be loaded: %s" % (path, system_text)
            advice = "Install the maker's library, or name its place."
        reason = Reason.LIBRARY_UNFIT if unfit else Reason.LIBRARY_MISSING
        super().__init__(text, reason, advice, path, bitness, system_text)


class FolderRejected(TetherError):
    """Pictures cannot go into the folder; found out before the first shot.

    Args:
        folder: as it was given.
        why: what is wrong with it, in words. A single argument is this one; `folder` is empty then.
    """

    def __init__(self, folder: str, why: Optional[str] = None) -> None:
        arguments = (folder, why)
        place = "there" if why is None else "into %s" % (folder or '""')
        self.folder: str = "" if why is None else folder
        self.why: str = folder if why is None else why
        super().__init__(
            "pictures cannot go %s: %s" % (place, self.why),
            Reason.FOLDER_REJECTED,
            "Choose a folder on this computer that you may write to, with a short path.",
            *arguments,
        )


class NameRejected(FolderRejected):
    """The name template makes names that no file can have; found out before the first shot.

    Args:
        template: as it was given; `folder` tells it.
        why: what is wrong with it, in words.
    """

    def __init__(self, template: str, why: str) -> None:
        super().__init__(template, why)
        self.args: Tuple[Any, ...] = ("the file name %s cannot be used: %s" % (template, why),)
        self.reason = Reason.NAME_REJECTED
        self.advice = "Change the template of the names."


class FolderShared(FolderRejected):
    """Another camera is open in this program: the module has one folder for all of them.

    Args:
        folder: the one that was asked for.
    """

    def __init__(self, folder: str) -> None:
        super().__init__(folder, "another camera is open in this program, and has the only folder")
        self.advice = "Close the other camera, or start a program of its own for each of them."
        self._arguments = (folder,)


class Refused(TetherError):
    """The camera does not take the value, or it is none of those that it allows now.

    Args:
        setting: its name, "shutter".
        wanted: the text that was asked for.
        allowed: the texts that the camera allows now, in its order.
        keys: those of the values that the text may mean, when it means more than one.
    """

    def __init__(
        self, setting: str, wanted: str, allowed: Sequence[str], keys: Sequence[int] = ()
    ) -> None:
        self.setting = setting
        self.wanted = wanted
        self.allowed: Tuple[str, ...] = tuple(allowed)
        self.keys: Tuple[int, ...] = tuple(keys)
        words = setting.replace("_", " ")
        if self.keys:
            text = "%s means more than one value of the camera's %s" % (wanted, words)
            advice = "Name it by one of the keys: %s."
            choices = [str(key) for key in self.keys]
        else:
            text = "the camera does not take %s for its %s" % (wanted, words)
            advice = "Choose one of: %s."
            choices = list(self.allowed)
        advice = advice % ", ".join(_shortened(choices))
        super().__init__(text, Reason.REFUSED, advice, setting, wanted, self.allowed, self.keys)


class NotSettable(TetherError):
    """The setting cannot be changed now, or not from a computer at all.

    Args:
        setting: its name, "iso".
        mode: the exposure mode that the camera is in, when that may be the cause.
        advice: what makes it possible, when it is something else.
    """

    def __init__(
        self, setting: str = "setting", mode: Optional[str] = None, advice: Optional[str] = None
    ) -> None:
        self.setting = setting
        self.mode = mode
        words = setting.replace("_", " ")
        arguments = (setting, mode, advice)
        if advice is not None:
            text = "the camera's %s cannot be set now" % words
        elif mode is None:
            text = "the camera's %s cannot be set from here" % words
            advice = "Set it on the camera itself."
        else:
            text = "the camera chooses its %s itself in mode %s" % (words, mode)
            advice = "Turn the camera's mode dial to M."
        super().__init__(text, Reason.NOT_SETTABLE, advice, *arguments)


class NoAnswer(TetherError, TimeoutError):
    """The camera did not do in time what it was asked for.

    Args:
        after: seconds that were waited for.
        asked: what it was asked for, "set shutter to 1/250".
    """

    def __init__(self, after: float, asked: str = "answer") -> None:
        self.after = after
        self.asked = asked
        super().__init__(
            "the camera did not %s within %g seconds" % (asked, round(after, 3)),
            Reason.NO_ANSWER,
            "Wake the camera, wait until it is ready, and try again.",
            after,
            asked,
        )

    def __str__(self) -> str:  # an OSError would show its arguments in another form
        return str(self.args[0])


class SessionLost(TetherError):
    """The camera went away.

    Args:
        since: seconds since its last sign of life.
        evidence: what showed it.
    """

    def __init__(self, since: float, evidence: str) -> None:
        self.since = since
        self.evidence = evidence
        super().__init__(
            "the camera has been gone for %.0f seconds: %s" % (since, evidence),
            Reason.SESSION_LOST,
            "Check the cable, the battery and the power switch; the session goes on by itself.",
            since,
            evidence,
        )


class PictureLost(TetherError):
    """A picture was announced, and is not there or not whole.

    Args:
        name: of its file.
        evidence: what showed it.
    """

    def __init__(self, name: str, evidence: str) -> None:
        self.name = name
        self.evidence = evidence
        super().__init__(
            "the picture %s is lost: %s" % (name, evidence),
            Reason.PICTURE_LOST,
            "Look for it on the camera's card, and take it again.",
            name,
            evidence,
        )


class WriteFailed(TetherError):
    """A picture, or its record, could not be written.

    Args:
        evidence: what the system said, and of which file.
    """

    def __init__(self, evidence: str = "the system did not say why") -> None:
        self.evidence = evidence
        super().__init__(
            "a picture could not be written: %s" % evidence,
            Reason.WRITE_FAILED,
            "Make room on the disk, or choose another folder, before the next shot.",
            evidence,
        )


class SidecarDamaged(WriteFailed):
    """A sidecar cannot be understood, so it is neither read nor replaced.

    Args:
        path: of the sidecar.
        why: what is wrong with it, in words.
    """

    def __init__(self, path: str, why: str) -> None:
        super().__init__(path)
        self.path = path
        self.why = why
        self.args: Tuple[Any, ...] = ("the sidecar %s is left as it is: %s" % (path, why),)
        self.advice = "Look at the sidecar, and move it away if nobody needs it."
        self._arguments = (path, why)


class TakenOtherwise(TetherError):
    """A picture was taken with another setting than the one that had been confirmed.

    Args:
        setting: its name, "shutter".
        wanted: the text that was confirmed before the shot.
        text: what the picture tells; None when it tells nothing of the setting.
    """

    def __init__(self, setting: str, wanted: str, text: Optional[str]) -> None:
        self.setting = setting
        self.wanted = wanted
        self.text = text
        words = setting.replace("_", " ")
        if text is None:
            told = "the picture does not tell the %s that it was taken with" % words
        else:
            told = "the picture was taken with %s %s and not with %s" % (words, text, wanted)
        super().__init__(
            told,
            Reason.REFUSED,
            "Leave the camera's dials alone during the sequence, and start it again.",
            setting,
            wanted,
            text,
        )


class NotRestored(TetherError):
    """A sequence has ended, and a setting could not be given the value that it had before.

    Args:
        setting: its name, "shutter".
        text: the value before.
        cause: why; its reason and advice are this one's, too.
    """

    def __init__(self, setting: str, text: str, cause: TetherError) -> None:
        self.setting = setting
        self.text = text
        self.cause = cause
        super().__init__(
            "the %s could not be set back to %s: %s" % (setting.replace("_", " "), text, cause),
            cause.reason,
            cause.advice,
            setting,
            text,
            cause,
        )


class FrameFailed(TetherError):
    """One frame of a sequence failed, and the sequence has ended with it.

    Args:
        frame: its number, from 1.
        cause: what went wrong; its reason and advice are this one's, too.
        not_restored: what else went wrong, when the setting is not the one before either.
    """

    def __init__(
        self, frame: int, cause: TetherError, not_restored: Optional[NotRestored] = None
    ) -> None:
        self.frame = frame
        self.cause = cause
        self.not_restored = not_restored
        text = "frame %d failed: %s" % (frame, cause)
        if not_restored is not None:
            text += "; and %s" % not_restored
        super().__init__(text, cause.reason, cause.advice, frame, cause, not_restored)


class TooLate(TetherError):
    """A picture was not taken, because it was not wanted any more when the camera could be asked.

    Args:
        shot: the number that it had got by then; None: there is no record of it.
    """

    def __init__(self, shot: Optional[int] = None) -> None:
        self.shot = shot
        super().__init__(
            "the camera could not be asked in time, and no picture was taken",
            Reason.NO_ANSWER,
            "Ask again when the camera has nothing else to do.",
            shot,
        )


class Closed(TetherError):
    """The session was closed, by whoever owns it, before this could be done."""

    def __init__(self) -> None:
        super().__init__("the session is closed", Reason.CLOSED, "Open the camera again to go on.")


def _shortened(texts: Sequence[str]) -> Sequence[str]:
    """At most nine of the texts, so that an advice stays one that can be read."""
    if len(texts) <= 9:
        return texts or ("nothing in this mode",)
    return (*texts[:4], "...", *texts[-4:])
