"""Measures sessions with the virtual cameras as a host sees them: sessions.py NAME RESULT

Each measurement runs in a process of its own and writes a JSON object with its samples, or fails
when a picture is lost, spoilt or not announced. Seconds, unless the name says otherwise.
"""

import argparse
import gc
import json
import os
import pathlib
import random
import sys
import tempfile
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "tests" / "python"))

from calls import clock_offset, parse, time_inside  # noqa: E402
from nikon_support import MODULE, VirtualNikon  # noqa: E402
from support import (  # noqa: E402
    CAMERA_NAME,
    ISO,
    Host,
    Lumatie,
    VirtualCanon,
    picture_path,
    wait_until,
)

PICTURE_SIZE = 60_000_000
TAKE_PICTURE = "EdsSendCommand"
CAPTURE = "0x11"
ACQUIRE = "0x14"


class Session:
    """A tether object with a camera behind it; the folder is a fresh one in the current folder."""

    def __init__(self, camera, name, settings=""):
        self.camera = camera
        self.camera.reset()
        self.camera.configure(settings)
        self.offset = clock_offset(camera.clock)
        self.host = Host()
        self.folder = tempfile.TemporaryDirectory(prefix="session-", dir=".")
        self.tether = Lumatie.Lumatie()
        if self.tether.Init(name, self.folder.name, self.host) != 1:
            raise SystemExit("Init failed")

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.tether.Uninit()
        self.folder.cleanup()
        misuse = self.camera.misuse()
        if misuse and exception[0] is None:
            raise SystemExit("the camera's interface was misused: {}".format(misuse))

    def calls(self):
        return parse(self.camera.log(), self.offset)

    def take_picture_file(self, text, content):
        """Checks and removes the file that a new-picture event names."""
        path = picture_path(text)
        with open(path, "rb") as file:
            if file.read() != content:
                raise SystemExit("not the picture that was taken: " + path)
        os.remove(path)


def canon(settings=""):
    session = Session(VirtualCanon(), CAMERA_NAME, settings)
    session.camera.wait_for_calls("EdsSetCapacity")
    session.camera.settle()
    return session


def nikon(settings=""):
    session = Session(VirtualNikon(), MODULE, settings)
    session.host.wait_for_event(Lumatie.TETHER_IMAGEQUALITY)
    return session


def pause(shortest, longest):
    """Somewhere in the rhythm of whoever waits in turns."""
    time.sleep(random.uniform(shortest, longest))


def canon_pictures(short):
    """From the event of a new object to the host's, and the library's own share of it."""
    samples = []
    library = []
    with canon("picture.size = {}\npicture.keep = 1".format(PICTURE_SIZE)) as session:
        for number in range(5 if short else 120):
            pause(0.02, 0.05)
            session.camera.clear_log()
            session.host.clear()
            session.camera.press_shutter()
            event = session.host.wait_for_text("GENERAL_NEWFILE")
            session.camera.wait_until_idle()
            calls = session.calls()
            begin = next(call.start for call in calls if "0x208" in call.text)
            worker = next(call.thread for call in calls if call.text.startswith("EdsDownload("))
            inside = time_inside([c for c in calls if c.thread == worker], begin, event.time)
            samples.append(event.time - begin - inside)
            library.append(inside)
            session.take_picture_file(event.text, session.camera.picture_bytes(number))
    return {"samples": samples, "library": library}


def canon_set_value(short):
    """How long the host is in SetValue, and how long it takes until the library is asked."""
    samples = []
    until_call = []
    with canon() as session:
        values = session.camera.allowed(ISO)[1:3]
        for number in range(20 if short else 400):
            pause(0.02, 0.06)
            session.camera.clear_log()
            begin = time.monotonic()
            session.tether.SetValue(Lumatie.TETHER_ISO, values[number % 2])
            samples.append(time.monotonic() - begin)
            wait_until(
                lambda: session.camera.property(ISO) == values[number % 2], "the value is set"
            )
            set_call = "EdsSetPropertyData("
            call = wait_until(
                lambda: next((c for c in session.calls() if c.text.startswith(set_call)), None),
                "the library was asked",
            )
            until_call.append(call.start - begin)
    return {"samples": samples, "until_call": until_call}


def nikon_set_value(short):
    samples = []
    with nikon() as session:
        for number in range(20 if short else 400):
            pause(0.02, 0.06)
            position = 2 + number % 2
            begin = time.monotonic()
            session.tether.SetValue(Lumatie.TETHER_ISO, position)
            samples.append(time.monotonic() - begin)
            if session.camera.value(0x8117) != position - 1:
                raise SystemExit("the value was not set")
    return {"samples": samples}


def canon_shoot(short):
    """From the host's Shoot to the library's call."""
    samples = []
    per_shot = []
    with canon("picture.keep = 1") as session:
        for number in range(10 if short else 200):
            pause(0.02, 0.06)
            session.camera.clear_log()
            session.host.clear()
            begin = time.monotonic()
            session.tether.Shoot()
            event = session.host.wait_for_text("GENERAL_NEWFILE")
            per_shot.append(event.time - begin)
            call = next(c for c in session.calls() if c.text.startswith(TAKE_PICTURE))
            samples.append(call.start - begin)
            session.take_picture_file(event.text, session.camera.picture_bytes(number))
    return {"samples": samples, "until_event": per_shot}


def nikon_shoot(short):
    samples = []
    per_shot = []
    with nikon("picture.keep = 1") as session:
        for _ in range(2 if short else 30):
            pause(0.1, 0.9)
            begin, event = _shoot_nikon(session)
            capture = [c for c in session.calls() if _starts(c, CAPTURE)][-1]
            samples.append(capture.start - begin)
            per_shot.append(event.time - begin)
            newest = len(session.camera.pictures()) - 1
            session.take_picture_file(event.text, session.camera.picture_bytes(newest))
    return {"samples": samples, "until_event": per_shot}


def _starts(call, capability):
    return call.text.startswith("CapStart(") and ", {})".format(capability) in call.text


def _shoot_nikon(session):
    """A request that falls between a cycle's capture and its end is lost: it is made again."""
    for _ in range(5):
        count = len(session.camera.pictures())
        session.host.clear()
        begin = time.monotonic()
        session.tether.Shoot()
        if session.camera.has_pictures(count + 1, deadline=3.0):
            return begin, session.host.wait_for_text("GENERAL_NEWFILE")
    raise SystemExit("no picture was taken")


def _memory(field):
    with open("/proc/self/status", encoding="ascii") as file:
        for line in file:
            if line.startswith(field + ":"):
                return int(line.split()[1]) * 1024
    raise SystemExit("the system does not say " + field)


def nikon_memory(short):
    """The most memory that the process has in use while a picture is fetched, in bytes beyond what
    it had when the camera was just about to begin, the picture being on the camera."""
    samples = []
    with nikon("transfer.per_call = 0\npicture.keep = 1") as session:
        content = os.urandom(PICTURE_SIZE)
        for number in range(3 if short else 10):
            session.host.clear()
            session.camera.fault("CapStart hang capability=" + ACQUIRE)
            session.camera.add_item(content if number else content[:100_000])
            session.camera.wait_for_hang("CapStart")
            gc.collect()
            before = _memory("VmRSS")
            with open("/proc/self/clear_refs", "w", encoding="ascii") as file:
                file.write("5")  # the peak begins anew
            session.camera.release_hangs()
            event = session.host.wait_for_text("GENERAL_NEWFILE")
            if number:  # the first one is small, and warms up what every picture needs
                samples.append(_memory("VmHWM") - before)
            session.take_picture_file(event.text, content if number else content[:100_000])
    return {"samples": samples, "floor": [PICTURE_SIZE]}


def main(measurements):
    """Runs the one of these functions that the command line names."""
    known = {function.__name__: function for function in measurements}
    parser = argparse.ArgumentParser()
    parser.add_argument("name", choices=sorted(known))
    parser.add_argument("result", help="the file for the JSON object")
    parser.add_argument("--short", action="store_true", help="few repetitions")
    options = parser.parse_args()
    result = known[options.name](options.short)
    with open(options.result, "w", encoding="ascii") as file:
        json.dump(result, file)


if __name__ == "__main__":
    main(
        (
            canon_pictures,
            canon_set_value,
            nikon_set_value,
            canon_shoot,
            nikon_shoot,
            nikon_memory,
        )
    )
