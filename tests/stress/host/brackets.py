"""Exposure brackets on a camera that is busy three calls out of ten.

Every frame has the exposure that was asked for, by the picture's own EXIF, or an error names it.
"""

import collections
import os
import random
import struct

import lumatie_host as tether
from lumatie_host import sequences
from lumatie_host.errors import FrameFailed, NotRestored
from lumatie_host.settings import seconds_of
from proof import shoot

COUNTS = {"long": 1000, "short": 10}
SHORT_NIKON = 1  # its camera is looked at once a second

BUSY = 0.3
CALLS = 60  # that are planned ahead, of each kind, for one bracket
PATIENCE = {"canon": 1.0, "nikon": 8.0}  # seconds for a picture: a release may be answered busy
CODE = {"canon": "0x81", "nikon": "-9"}
CALLED = {
    "canon": "EdsGetPropertyData EdsGetPropertyDesc EdsSetPropertyData EdsSendCommand",
    "nikon": "CapSet CapStart",
}
CAMERA = "picture.width = 64\npicture.height = 48\nshutter.lag_ms = 0\nlog.lines = 500\n"
EXPOSURE_TIME = 0x829A


def play(proof, maker, count):
    """So many brackets of three."""
    if maker == "nikon" and count == COUNTS["short"]:
        count = SHORT_NIKON
    chance = random.Random(proof.seed)
    tally = collections.Counter()
    with shoot(maker) as made:
        made.camera.configure(CAMERA)
        with made.open(name="{n:05}") as session:
            middles = [text for text in session.settings["shutter"].allowed if "1/" in text][6:-6]
            for _ in range(count):
                set_start(made, session, chance.choice(middles))
                make_busy(made, chance)
                bracket(proof, made, session, tally)
                made.camera.clear_faults()
                made.forget(CAMERA)
        proof.figure("brackets", "%d, %d of them whole", count, tally["whole"])
        proof.figure(
            "frames as asked for", "%d, named by an error %d", tally["right"], tally["named"]
        )
        proof.figure("calls answered busy", "%d", tally["busy"])
        proof.figure("errors", "%s", {k[1:]: n for k, n in tally.items() if k.startswith("!")})
        proof.check(tally["right"] + tally["named"] >= count, "a bracket came to nothing")
        made.compare(proof)


def set_start(made, session, text):
    """The value in the middle, with a camera that has time."""
    for _ in range(20):
        try:
            session.set("shutter", text)
            return
        except tether.TetherError:
            continue
    raise AssertionError("the shutter is not set to %s" % text)


def make_busy(made, chance):
    """Three of ten of the calls to come are answered busy, each by a rule of its own."""
    for call in CALLED[made.maker].split():
        passed = 0
        for _ in range(CALLS):
            if chance.random() < BUSY:
                rule = "%s code=%s skip=%d" % (call, CODE[made.maker], passed)
                made.camera.fault(rule)
            else:
                passed += 1


def bracket(proof, made, session, tally):
    """One bracket; its frames are compared with what was asked for."""
    before = session.settings["shutter"].text
    frames = []
    try:
        for frame in sequences.bracket(session, timeout=PATIENCE[made.maker]):
            frames.append(frame)
        tally["whole"] += len(frames) == 3
    except FrameFailed as error:
        tally["!%s of frame %d" % (type(error.cause).__name__, error.frame)] += 1
        tally["named"] += 1
        proof.check(error.frame == len(frames) + 1, "%s names another frame", error)
    except NotRestored as error:
        tally["!" + type(error).__name__] += 1
    for frame in frames:
        for picture in frame.shot.pictures:
            path = os.path.join(made.folder, picture.file)
            is_right = is_exposure(path, frame.wanted)
            tally["right"] += is_right
            form = "frame %d around %s was to have %s, and its EXIF says %r"
            wanted = frame.number, before, frame.wanted, exposure_of(path)
            proof.check(is_right, form, *wanted)
    busy = (" = 0x81", " = 0x00000081", " = -9")
    tally["busy"] += sum(any(word in line for word in busy) for line in made.camera.log())
    made.camera.clear_log()


def is_exposure(path, text):
    """Whether a picture says this time: 1/3 may be 0.3 there, and the next ones are 26 % away."""
    wanted, found = seconds_of(text), exposure_of(path)
    return bool(wanted and found) and abs(found / wanted - 1) < 0.12


def exposure_of(path):
    """The exposure time in a JPEG's EXIF, in seconds; None when it does not tell any."""
    with open(path, "rb") as file:
        data = file.read(1 << 16)
    begin = data.find(b"Exif\0\0") + 6
    if begin < 6:
        return None
    tiff = data[begin:]
    order = "<" if tiff[:2] == b"II" else ">"
    directories = [struct.unpack_from(order + "I", tiff, 4)[0]]
    while directories:
        at = directories.pop()
        for entry in range(struct.unpack_from(order + "H", tiff, at)[0]):
            tag, _, _, value = struct.unpack_from(order + "HHII", tiff, at + 2 + entry * 12)
            if tag == 0x8769:
                directories.append(value)
            elif tag == EXPOSURE_TIME:
                above, below = struct.unpack_from(order + "II", tiff, value)
                return above / below
    return None
