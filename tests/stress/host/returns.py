"""A camera that goes and comes back: pulled cables, cameras that are switched off and on.

Half of it with a system that tells of devices, as a computer does with a real camera, and half of
it with one that says nothing, so that only the camera's own silence tells of the loss.
"""

import collections
import os
import pathlib
import random
import shutil
import threading
import time

import lumatie_host as tether
from lumatie_host import reopen
from proof import Heard, Shoot, shoot
from virtual_cameras import wait_until

COUNTS = {"long": 120, "short": 3}  # a sixth of them are restarts

BACK_WITHIN = 5.0  # seconds after the device is there again
AWAY = {"long": 20.0, "short": 3.0}  # seconds for which a camera that stays away is watched
SHARE = 0.01  # of a core, which it may cost

# A picture takes some time on its way.
CAMERA = """
    picture.size = 300000
    transfer.rate = 1
    shutter.lag_ms = 100
    log.lines = 500
"""
WHITE_BALANCE = {"canon": 0x106, "nikon": 0x8118}
VENDOR = {"canon": "04a9", "nikon": "04b0"}
MOMENTS = ("any", "transfer", "set", "exposure")


def play(proof, maker, count):
    """Both halves, and a camera that stays away."""
    tally = Tally()
    for tells in (True, False):
        half = (count + tells) // 2
        with shoot(maker) as made, Computer(maker, made.base) as computer:
            made.camera.configure(CAMERA)
            Returns(proof, made, computer if tells else None, tally).play(half)
    tally.show(proof, count)
    stay_away(proof, maker, AWAY["long" if count >= COUNTS["long"] else "short"])


class Tally:
    """What the returns were like."""

    def __init__(self):
        self.seconds = collections.defaultdict(list)  # by what happened
        self.states = collections.Counter()  # when the device came back
        self.errors = collections.Counter()  # that those who worked got
        self.losses = self.compared = 0

    def show(self, proof, count):
        """Prints it."""
        total = 0
        for what, seconds in sorted(self.seconds.items()):
            good = sum(one <= BACK_WITHIN for one in seconds)
            total += len(seconds)
            form = "%d of %d, slowest %.2f s"
            proof.figure(what + ": open within 5 s", form, good, len(seconds), max(seconds))
            proof.check(good == len(seconds), "%s: %d were not", what, len(seconds) - good)
        proof.check(total == count, "%d of %d were tried", total, count)
        proof.figure("noticed as lost, compared", "%d, %d", self.losses, self.compared)
        proof.figure("states at the return", "%s", dict(self.states))
        proof.figure("errors meanwhile", "%s", dict(self.errors))


class Computer:
    """The list of USB devices, as the system would tell it."""

    def __init__(self, maker, base):
        self._vendor = VENDOR[maker]
        self._usb = pathlib.Path(base, "usb")
        self._number = 0
        self._original = reopen.UsbCameras

    def __enter__(self):
        self._usb.mkdir()
        return self

    def __exit__(self, *_):
        reopen.UsbCameras = self._original

    def take_over(self):
        """From now on sessions look at this list."""
        reopen.UsbCameras = lambda maker: self._original(maker, str(self._usb))

    def plug(self):
        """The device is there, with a number that it did not have before."""
        self._number += 1
        new = pathlib.Path(str(self._usb) + ".new")
        for name, text in (("devnum", str(self._number)), ("idVendor", self._vendor)):
            path = new / name
            path.parent.mkdir(exist_ok=True)
            path.write_text(text + "\n")
        interface = self._usb / "1-2:1.0"
        interface.mkdir()
        (interface / "bInterfaceClass").write_text("06\n")
        os.rename(str(new), str(self._usb / "1-2"))

    def unplug(self):
        """It is gone."""
        shutil.rmtree(str(self._usb / "1-2"))
        shutil.rmtree(str(self._usb / "1-2:1.0"))


class Returns:
    """One session, in which somebody works all the time while the camera goes and comes."""

    def __init__(self, proof, made: Shoot, computer, tally):
        self.proof = proof
        self.made = made
        self.computer = computer
        self.tally = tally
        self.random = random.Random(proof.seed + bool(computer))
        self.number = 0  # of the camera
        self.stop = threading.Event()
        self.setting = threading.Event()
        self.session = self.heard = None

    def play(self, count):
        """Loses the camera so often."""
        if self.computer:
            self.computer.take_over()
            self.computer.plug()
        with self.made.open(name="{n:05}") as self.session:
            self.heard = Heard(self.session)
            # How long a transfer takes is not known before the first one.
            self.session.shoot()
            worker = threading.Thread(target=self.work)
            worker.start()
            try:
                for number in range(count):
                    self.lose(MOMENTS[number % len(MOMENTS)], is_restart=number % 6 == 5)
                    self.made.count()
            finally:
                self.stop.set()
                worker.join()
            self.made.count()
        self.made.count()
        self.made.compare(self.proof, self.heard)
        for line in self.made.camera.misuse():
            self.proof.check(False, "misuse: %s", line)

    def work(self):
        """Takes pictures and sets, again and again."""
        number = 0
        while not self.stop.is_set():
            number += 1
            try:
                if number % 3:
                    self.session.shoot(timeout=2.0)
                else:
                    allowed = self.session.settings["iso"].allowed
                    self.setting.set()
                    self.session.set("iso", allowed[number % len(allowed)], timeout=2.0)
            except tether.TetherError as error:
                self.tally.errors[type(error).__name__] += 1
                self.stop.wait(0.05)
            finally:
                self.setting.clear()

    def lose(self, moment, is_restart):
        """Takes the camera away at a moment of a kind, and brings it back."""
        before, after = self.change_white_balance()
        self.await_moment(moment)
        losses, returns = len(self.heard.of(tether.Lost)), len(self.heard.of(tether.Back))
        camera = self.made.camera
        camera.remove(self.number) if is_restart else camera.unplug(self.number)
        if self.computer:
            self.computer.unplug()
        # Without a word of the system a camera that is gone for a blink is not missed in time.
        self.stop.wait(self.random.uniform(0.1 if self.computer else 1.0, 8.0))
        if is_restart:
            self.number = camera.add(self.session.camera)
        self.put_white_balance(after)
        self.tally.states[self.session.state] += 1
        if not is_restart:
            camera.plug(self.number)
        if self.computer:
            self.computer.plug()
        kind = "restart" if is_restart else "cable pulled, %s" % moment
        self.tally.seconds[kind].append(self.seconds_until_back(losses, returns))
        if len(self.heard.of(tether.Lost)) > losses:
            self.tally.losses += 1
            self.compare_settings(self.heard.of(tether.Back)[returns:], before, after)

    def change_white_balance(self):
        """Sets one, and says which one the camera is going to have when it is back."""
        choices = [choice.text for choice in self.session.settings["white_balance"].choices]
        before, after = self.random.sample(choices[:4], 2)
        wait_until(lambda: self.is_set("white_balance", before), "the white balance is set", 30.0)
        return before, after

    def put_white_balance(self, text):
        """Somebody has changed it on the camera."""
        choices = self.session.settings["white_balance"].choices
        position, choice = next(
            (number, choice) for number, choice in enumerate(choices) if choice.text == text
        )
        code = WHITE_BALANCE[self.made.maker]
        if self.made.maker == "nikon":
            self.made.camera.set_value(code, position, self.number)
        else:
            self.made.camera.set_property(code, choice.key, self.number)

    def await_moment(self, moment):
        """Returns at a random moment of a kind."""
        self.stop.wait(self.random.uniform(0.2, 1.0 if self.made.maker == "canon" else 2.5))
        if moment == "transfer":
            made = len(self.made.camera.pictures())
            wait_until(lambda: len(self.made.camera.pictures()) > made, "a picture is made", 30.0)
        elif moment == "set":
            self.setting.wait(30.0)
        elif moment == "exposure":
            wait_until(lambda: self.made.camera.is_exposing(self.number), "it exposes", 30.0)
        if moment != "any":
            self.stop.wait(self.random.uniform(0.0, 0.3))

    def seconds_until_back(self, losses, returns):
        """Until the return is told; without one, until a setting is confirmed. 30 at most."""
        begun = now = time.monotonic()
        while now - begun < 30.0:
            allowed = self.session.settings["aperture"].allowed
            is_first = self.session.settings["aperture"].text == allowed[0]
            is_open = self.is_set("aperture", allowed[1 if is_first else 0])
            now = time.monotonic()
            if is_open:
                break
        if len(self.heard.of(tether.Lost)) > losses:
            self.heard.wait_for(tether.Back, returns + 1)  # hearing takes a moment
        backs = self.heard.of(tether.Back)[returns:]
        return max(0.0, (self.heard.moment(backs[-1]) if backs else now) - begun)

    def is_set(self, name, text):
        """Tries to set something."""
        try:
            self.session.set(name, text, timeout=1.0)
        except tether.TetherError:
            self.stop.wait(0.02)
            return False
        return True

    def compare_settings(self, backs, before, after):
        """The return has told what is different now."""
        told = [event.differences for event in backs]
        found = [dict(one).get("white_balance") for one in told]
        is_right = [tuple(one) for one in found if one] == [(before, after)]
        self.tally.compared += is_right
        wanted = "white balance %s became %s" % (before, after)
        self.proof.check(is_right, "%s, and the return told %s", wanted, told)


def stay_away(proof, maker, seconds):
    """A camera that does not come back costs next to nothing."""
    with shoot(maker) as made, made.open() as session:
        made.camera.unplug()
        while session.state not in ("lost", "reopening"):
            try:
                session.set("iso", session.settings["iso"].allowed[0], timeout=0.5)
                session.set("iso", session.settings["iso"].allowed[1], timeout=0.5)
            except tether.TetherError:
                time.sleep(0.05)
        before, begun = time.process_time(), time.monotonic()
        time.sleep(seconds)
        share = (time.process_time() - before) / (time.monotonic() - begun)
        proof.figure(
            "a camera that stays away", "%.2f %% of a core in %.0f s", share * 100, seconds
        )
        proof.check(share < SHARE, "it costs %.2f %% of a core", share * 100)
