"""What each error says, letter by letter, and that it crosses processes whole."""

import copy
import pickle
import unittest

from lumatie_host import errors
from lumatie_host.errors import Reason

BUSY = errors.NoAnswer(2.5, "set shutter to 1/250")
WAKE = "Wake the camera, wait until it is ready, and try again."
BUSY_TEXT = "the camera did not set shutter to 1/250 within 2.5 seconds"
STUCK = errors.NotRestored("white_balance", "Daylight", BUSY)
MAKE_ROOM = "Make room on the disk, or choose another folder, before the next shot."

# error, reason, text, advice
ALL = (
    (
        errors.CameraNotFound("Virtual EOS"),
        Reason.CAMERA_NOT_FOUND,
        'no camera "Virtual EOS" was found',
        "Switch the camera on, check its cable, and close other programs that use it.",
    ),
    (
        errors.CameraNotFound(),
        Reason.CAMERA_NOT_FOUND,
        "no camera was named",
        "Name the camera as it calls itself, or the driver module of a Nikon camera.",
    ),
    (
        errors.LibraryMissing("EDSDK.dll", None, "module not found"),
        Reason.LIBRARY_MISSING,
        "the camera library EDSDK.dll cannot be loaded: module not found",
        "Install the maker's library, or name its place.",
    ),
    (
        errors.LibraryMissing("EDSDK.dll", 32, "not a valid application"),
        Reason.LIBRARY_UNFIT,
        "the camera library EDSDK.dll is for 32-bit programs, and this one has 64 bits",
        "Install the maker's 64-bit library.",
    ),
    (
        errors.LibraryMissing("EDSDK.dll", 64, "procedure not found"),
        Reason.LIBRARY_UNFIT,
        "the camera library EDSDK.dll cannot be used: procedure not found",
        "Install the version of the maker's library that belongs to your camera.",
    ),
    (
        errors.FolderRejected("shoot", "it cannot be written to"),
        Reason.FOLDER_REJECTED,
        "pictures cannot go into shoot: it cannot be written to",
        "Choose a folder on this computer that you may write to, with a short path.",
    ),
    (
        errors.FolderRejected("it cannot be written to"),
        Reason.FOLDER_REJECTED,
        "pictures cannot go there: it cannot be written to",
        "Choose a folder on this computer that you may write to, with a short path.",
    ),
    (
        errors.FolderShared("shoot"),
        Reason.FOLDER_REJECTED,
        "pictures cannot go into shoot: another camera is open in this program, and has the only "
        "folder",
        "Close the other camera, or start a program of its own for each of them.",
    ),
    (
        errors.NameRejected("{job", "a bracket is missing"),
        Reason.NAME_REJECTED,
        "the file name {job cannot be used: a bracket is missing",
        "Change the template of the names.",
    ),
    (
        errors.Refused("white_balance", "Moon", ["Auto", "Daylight"]),
        Reason.REFUSED,
        "the camera does not take Moon for its white balance",
        "Choose one of: Auto, Daylight.",
    ),
    (
        errors.Refused("iso", "1", [str(number) for number in range(100, 110)]),
        Reason.REFUSED,
        "the camera does not take 1 for its iso",
        "Choose one of: 100, 101, 102, 103, ..., 106, 107, 108, 109.",
    ),
    (
        errors.Refused("iso", "1", ()),
        Reason.REFUSED,
        "the camera does not take 1 for its iso",
        "Choose one of: nothing in this mode.",
    ),
    (
        errors.Refused("iso", "Hi", ["Hi", "Hi"], [7, 8]),
        Reason.REFUSED,
        "Hi means more than one value of the camera's iso",
        "Name it by one of the keys: 7, 8.",
    ),
    (
        errors.NotSettable("color_temperature"),
        Reason.NOT_SETTABLE,
        "the camera's color temperature cannot be set from here",
        "Set it on the camera itself.",
    ),
    (
        errors.NotSettable(),
        Reason.NOT_SETTABLE,
        "the camera's setting cannot be set from here",
        "Set it on the camera itself.",
    ),
    (
        errors.NotSettable("shutter", "P"),
        Reason.NOT_SETTABLE,
        "the camera chooses its shutter itself in mode P",
        "Turn the camera's mode dial to M.",
    ),
    (
        errors.NotSettable("color_temperature", None, "Set the white balance to K first."),
        Reason.NOT_SETTABLE,
        "the camera's color temperature cannot be set now",
        "Set the white balance to K first.",
    ),
    (
        errors.NoAnswer(30),
        Reason.NO_ANSWER,
        "the camera did not answer within 30 seconds",
        WAKE,
    ),
    (BUSY, Reason.NO_ANSWER, BUSY_TEXT, WAKE),
    (
        errors.TooLate(7),
        Reason.NO_ANSWER,
        "the camera could not be asked in time, and no picture was taken",
        "Ask again when the camera has nothing else to do.",
    ),
    (
        errors.SessionLost(6.6, "no report came"),
        Reason.SESSION_LOST,
        "the camera has been gone for 7 seconds: no report came",
        "Check the cable, the battery and the power switch; the session goes on by itself.",
    ),
    (
        errors.PictureLost("a.JPG", "it ends in its middle"),
        Reason.PICTURE_LOST,
        "the picture a.JPG is lost: it ends in its middle",
        "Look for it on the camera's card, and take it again.",
    ),
    (
        errors.WriteFailed("no space left"),
        Reason.WRITE_FAILED,
        "a picture could not be written: no space left",
        MAKE_ROOM,
    ),
    (
        errors.WriteFailed(),
        Reason.WRITE_FAILED,
        "a picture could not be written: the system did not say why",
        MAKE_ROOM,
    ),
    (
        errors.SidecarDamaged("a.xmp", "it is no XMP"),
        Reason.WRITE_FAILED,
        "the sidecar a.xmp is left as it is: it is no XMP",
        "Look at the sidecar, and move it away if nobody needs it.",
    ),
    (
        errors.TakenOtherwise("white_balance", "Auto", "Daylight"),
        Reason.REFUSED,
        "the picture was taken with white balance Daylight and not with Auto",
        "Leave the camera's dials alone during the sequence, and start it again.",
    ),
    (
        errors.TakenOtherwise("white_balance", "Auto", None),
        Reason.REFUSED,
        "the picture does not tell the white balance that it was taken with",
        "Leave the camera's dials alone during the sequence, and start it again.",
    ),
    (
        STUCK,
        Reason.NO_ANSWER,
        "the white balance could not be set back to Daylight: " + BUSY_TEXT,
        WAKE,
    ),
    (errors.FrameFailed(3, BUSY), Reason.NO_ANSWER, "frame 3 failed: " + BUSY_TEXT, WAKE),
    (
        errors.FrameFailed(3, errors.WriteFailed("no space left"), STUCK),
        Reason.WRITE_FAILED,
        "frame 3 failed: a picture could not be written: no space left; and the white balance "
        "could not be set back to Daylight: " + BUSY_TEXT,
        MAKE_ROOM,
    ),
    (
        errors.Closed(),
        Reason.CLOSED,
        "the session is closed",
        "Open the camera again to go on.",
    ),
)


def kinds(base=errors.TetherError):
    """All errors of the package."""
    for kind in base.__subclasses__():
        if kind.__module__ == errors.__name__:
            yield kind
            yield from kinds(kind)


def told(error):
    """All that an error tells, in a form that can be compared."""
    fields = {
        name: told(value) if isinstance(value, errors.TetherError) else value
        for name, value in vars(error).items()
        if name != "_arguments"
    }
    return type(error), str(error), error.args, error.reason, error.advice, fields


class Errors(unittest.TestCase):
    def test_each_says_its_text_reason_and_advice(self):
        for error, reason, text, advice in ALL:
            with self.subTest(text):
                self.assertEqual((str(error), error.reason, error.advice), (text, reason, advice))
                self.assertIsInstance(error, errors.TetherError)

    def test_each_is_the_same_after_pickling_and_copying(self):
        for error, *_ in ALL:
            for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
                with self.subTest(error, protocol=protocol):
                    self.assertEqual(told(pickle.loads(pickle.dumps(error, protocol))), told(error))
            self.assertEqual(told(copy.copy(error)), told(error))

    def test_each_kind_is_looked_at(self):
        self.assertEqual({type(error) for error, *_ in ALL}, set(kinds()))

    def test_each_reason_is_used_and_its_value_stays(self):
        self.assertEqual({reason for _, reason, *_ in ALL}, set(Reason))
        self.assertEqual(
            [reason.value for reason in Reason],
            [
                "camera_not_found",
                "library_missing",
                "library_unfit",
                "folder_rejected",
                "name_rejected",
                "refused",
                "not_settable",
                "no_answer",
                "session_lost",
                "picture_lost",
                "write_failed",
                "closed",
            ],
        )

    def test_an_advice_is_one_sentence(self):
        for error, *_ in ALL:
            with self.subTest(error):
                self.assertRegex(error.advice, r"\A[A-Z][^!?\n]*\.\Z")

    def test_no_answer_is_a_timeout_and_an_operating_system_error_in_name_only(self):
        with self.assertRaises(TimeoutError):
            raise BUSY
        self.assertIsNone(BUSY.errno)

    def test_a_name_that_is_rejected_is_a_folder_rejected_too(self):
        error = errors.NameRejected("{job", "a bracket is missing")
        self.assertIsInstance(error, errors.FolderRejected)
        self.assertEqual((error.folder, error.why), ("{job", "a bracket is missing"))

    def test_a_list_that_was_given_can_change_without_the_error(self):
        allowed = ["100", "200"]
        error = errors.Refused("iso", "1", allowed)
        allowed.clear()
        self.assertEqual(error.allowed, ("100", "200"))


if __name__ == "__main__":
    unittest.main()
