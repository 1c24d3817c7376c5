"""One cell of the fault matrix: a tethered shoot during which one call of a maker's library
misbehaves. fault_matrix.py runs it, each time in a process of its own.

Usage: faulty_shoot.py RESULT CELL, where CELL is a JSON object:
    maker    "canon" or "nikon"
    rule     what the virtual camera is to do, a text for its fault()
    arm      when the rule is given: at the "start", before the first "picture", or at the "end"
    sign     a regular expression that the call log or the settings show when the rule has applied
    holds    the call does not return until it is let go; otherwise the rule says all
    during   what happens while the call is held: nothing (""), the interpreter "ends", or a second
             thread calls "uninit"
RESULT gets what came of it, also as JSON, when the interpreter has ended the module's sessions.
"""

import atexit
import hashlib
import json
import os
import re
import sys
import tempfile
import threading
import time

folder = tempfile.TemporaryDirectory(prefix="lumatie-stress-")
# Registered before the module is imported, so it runs after the module's own exit function.
atexit.register(lambda: shoot.report(sys.argv[1]))

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, "python"))
import nikon_support  # noqa: E402
import support  # noqa: E402

HELD = 1.5  # seconds that a held call takes
ANSWER = 3.0  # seconds after which a picture that did not come is not waited for any more
LONG = 15.0  # seconds for what is tried again and again in the end
MET = 20.0  # seconds within which the rule must have been met


class Shoot:
    """The session: a value set, pictures by the host and by the camera's button, the end."""

    def __init__(self, cell):
        self._cell = cell
        self._is_nikon = cell["maker"] == "nikon"
        self._camera = nikon_support.VirtualNikon() if self._is_nikon else support.VirtualCanon()
        self._camera.configure("picture.width = 64\npicture.height = 48")
        self._host = support.Host()
        self._tether = support.Lumatie.Lumatie()
        self._over = threading.Event()
        self._held = False
        self._result = {"init": None, "uninit": []}

    def run(self):
        """All of it, on the calling thread."""
        self._arm("start")
        info = nikon_support.MODULE if self._is_nikon else support.CAMERA_NAME
        self._result["init"] = self._tether.Init(info, folder.name, self._host)
        if self._result["init"]:
            self._wait(lambda: self._host.events)
            if self._is_nikon:
                # The only road on which the module asks for a source's children.
                self._steer("Add", b"Second", 2)
            self._tether.SetValue(3, 2 if self._is_nikon else 0x60)
            self._arm("picture")
            self._take(self._tether.Shoot)
            self._take(lambda: self._steer("PressShutter", 0))
            self._take(self._tether.Shoot)
            self._wait(self._nothing_under_way, LONG)
        self._arm("end")
        self.end()

    def end(self):
        """Calls Uninit and notes how long it took."""
        self._over.set()
        begun = time.monotonic()
        self._tether.Uninit()
        self._result["uninit"].append(time.monotonic() - begun)

    def disturb(self):
        """Waits until the call is held, and lets it go when it has done its harm."""
        try:
            self._camera.wait_for_hang(deadline=MET)
        except AssertionError:
            return
        self._held = True
        ender = threading.Thread(target=self.end)
        if self._cell["during"] == "uninit":
            ender.start()
        release = threading.Timer(HELD, self._camera.release_hangs)
        release.daemon = True
        release.start()
        if self._cell["during"] == "uninit":
            ender.join()

    def report(self, path):
        """Writes what came of it."""
        result = dict(
            self._result,
            met=self._held or self._has_sign(),
            misuse=self._camera.misuse(),
            pictures=[
                dict(picture, hash=_hash(self._camera.picture_bytes(number)))
                for number, picture in enumerate(self._camera.pictures())
            ],
            files={entry.path: _hash_file(entry.path) for entry in os.scandir(folder.name)},
            announced=[
                support.picture_path(event.text) for event in self._status("GENERAL_NEWFILE")
            ],
            failed=len(self._status("GENERAL_WRITEFAIL")),
            calls=sorted({_call(line) for line in self._camera.log()} - {None}),
        )
        with open(path, "w", encoding="utf-8") as file:
            json.dump(result, file)

    def _arm(self, moment):
        if self._cell["arm"] == moment:
            self._camera.fault(self._cell["rule"])

    def _has_sign(self):
        told = self._camera.log() + self._camera.settings().splitlines()
        return any(re.search(self._cell["sign"], line) for line in told)

    def _status(self, fragment):
        codes = self._host.of(support.Lumatie.TETHER_GENERAL)
        return [event for event in codes if fragment in event.text]

    def _outcomes(self):
        return len(self._status("GENERAL_NEWFILE")) + len(self._status("GENERAL_WRITEFAIL"))

    def _take(self, press):
        """Presses a button, twice when nothing came of it, and waits for the picture."""
        expected = self._outcomes() + 1
        for _ in range(2):
            if not self._over.is_set():
                press()
                if self._wait(lambda: self._outcomes() >= expected):
                    return

    def _nothing_under_way(self):
        pictures = self._camera.pictures()
        # A Canon camera offers a picture once, and then only to a session that takes pictures.
        offered = [p for p in pictures if self._is_nikon or (p["to_host"] and p["announced"])]
        return self._outcomes() >= len(offered)

    def _wait(self, predicate, seconds=ANSWER):
        end = time.monotonic() + seconds
        while time.monotonic() < end and not self._over.is_set():
            if predicate():
                return True
            time.sleep(0.01)
        return False

    def _steer(self, function, *arguments):
        # Refused by a camera that was unplugged.
        self._camera._function(function)(*arguments)


def _hash(content):
    return hashlib.sha256(content).hexdigest()


def _hash_file(path):
    with open(path, "rb") as file:
        return _hash(file.read())


def _call(line):
    """The call of a line of the call log, with the kind of its object: "Open(source", say."""
    fields = line.split(" ", 3)
    if len(fields) < 4 or "(" not in fields[3] or fields[2] == "E":
        return None
    name, rest = fields[3].split("(", 1)
    kind = rest.split("#")[0] if "#" in rest.split(",")[0].split(")")[0] else ""
    return name + "(" + kind


if __name__ == "__main__":
    cell = json.loads(sys.argv[2])
    shoot = Shoot(cell)
    shooting = threading.Thread(target=shoot.run, daemon=True)
    shooting.start()
    if cell["holds"]:
        shoot.disturb()
    if cell["during"] != "ends":
        shooting.join()
