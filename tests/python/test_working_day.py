"""A photographer's day: 200 shots, settings, trouble with the camera and a pulled cable.

What happens when is drawn at random with a fixed seed, which is printed. In the evening every
picture that the camera took for the host is on disk once, byte for byte, and was announced once.
"""

import contextlib
import os
import random
import time
import unittest

from support import (
    APERTURE,
    DEVICE_BUSY,
    IMAGE_QUALITY,
    ISO,
    JPEG,
    NEW_FILE_START,
    NEW_PICTURE,
    RAW,
    RAW_AND_JPEG,
    SHUTTER_SPEED,
    WHITE_BALANCE,
    WRITE_FAILURE,
    Lumatie,
    SteeringError,
    TetherTestCase,
    picture_path,
)

SEED = int(os.environ.get("LUMATIE_SEED", "20260514"))
SHOTS = 200
CABLE_PULL = 110  # the shot in whose transfer it happens
LONGEST = 120.0  # seconds; a machine without other work needs 9

SETTINGS = {
    Lumatie.TETHER_SHUTTERSPEED: SHUTTER_SPEED,
    Lumatie.TETHER_APERTURE: APERTURE,
    Lumatie.TETHER_ISO: ISO,
    Lumatie.TETHER_WB: WHITE_BALANCE,
}
COLOR_TEMPERATURE_MODE = 9  # white balance: the colour temperature counts
NOT_ALLOWED = 0x6FFF


def is_about_a_picture(event):
    """Whether the event announces a picture or the failure of one."""
    if event.code != Lumatie.TETHER_GENERAL:
        return False
    return event.text == WRITE_FAILURE or event.text.startswith(NEW_FILE_START)


def read(path):
    """The bytes of a file."""
    with open(path, "rb") as file:
        return file.read()


class WorkingDay(TetherTestCase):
    """One test that plays the day; its methods are what may happen in it."""

    def setUp(self):
        super().setUp()
        self.random = random.Random(SEED)
        self.folders = [self.folder, os.path.join(self.base, "afternoon")]
        os.mkdir(self.folders[1])
        self.camera.configure(
            """
            picture.width = 96
            picture.height = 64
            picture.keep = 1000
            shutter.lag_ms = 2
            log.lines = 500
            """
        )
        self.happened = {}
        self.shots = 0
        self.host = self.new_host()
        self.tether, _ = self.start(self.host)

    def test_every_picture_of_a_working_day_is_on_disk_and_announced_once(self):
        begun = time.monotonic()
        # The few that cost half a second of waiting each are rare.
        incidents = (
            [self.change_setting] * 30
            + [self.change_color_temperature] * 4
            + [self.change_quality] * 8
            + [self.refuse_setting] * 4
            + [self.lose_setting] * 3
            + [self.lose_shot] * 6
            + [self.transfer_slowly] * 6
            + [self.change_folder] * 3
            + [self.make_setting_wait] * 1
            + [self.make_report_wait] * 1
        )
        while self.shots < SHOTS:
            if self.random.random() < 0.6:
                self.happen(self.random.choice(incidents))
            self.happen(self.shoot if self.random.random() < 0.75 else self.press_on_body)
            if self.random.random() < 0.8:
                self.catch_up()
            if self.shots >= CABLE_PULL and "pull_the_cable" not in self.happened:
                self.happen(self.pull_the_cable)
        self.catch_up()

        seconds = time.monotonic() - begun
        print("\nseed {}: {:.1f} s, {}".format(SEED, seconds, self.happened))
        self.check_pictures()
        self.check_settings()
        self.assertLess(seconds, LONGEST)

    # What happens.

    def happen(self, what):
        """Does it, and counts it."""
        self.happened[what.__name__] = self.happened.get(what.__name__, 0) + 1
        what()

    def shoot(self):
        """The host asks for a picture."""
        self.shots += 1
        self.assertEqual(self.tether.Shoot(), 1)

    def press_on_body(self):
        """The photographer presses the button; a camera that is busy does nothing."""
        self.shots += 1
        with contextlib.suppress(SteeringError):
            self.camera.press_shutter()

    def change_setting(self):
        """The host picks another value of a list."""
        kind, identifier = self.random.choice(sorted(SETTINGS.items()))
        value = self.random.choice(self.camera.allowed(identifier))
        self.assertEqual(self.tether.SetValue(kind, value), 1)

    def change_color_temperature(self):
        """The host chooses the white balance that takes a temperature, and one."""
        self.tether.SetValue(Lumatie.TETHER_WB, COLOR_TEMPERATURE_MODE)
        self.tether.SetValue(Lumatie.TETHER_COLORTEMP, self.random.randrange(2500, 10001, 100))

    def change_quality(self):
        """The photographer chooses what files the camera makes."""
        quality = self.random.choice([JPEG, RAW, RAW_AND_JPEG])
        self.camera.set_property(IMAGE_QUALITY, quality)

    def refuse_setting(self):
        """The host asks for a value that the camera does not have."""
        self.tether.SetValue(Lumatie.TETHER_ISO, NOT_ALLOWED)

    def lose_setting(self):
        """The camera is busy in the way that is not tried again."""
        self.camera.fault("EdsSetPropertyData code=0xC0")
        self.change_setting()

    def lose_shot(self):
        """The camera is busy, in one way or the other, when the shutter is released."""
        code = self.random.choice([0x81, 0xC0])
        self.camera.fault("EdsSendCommand code={:#x} command=4 parameter=3".format(code))
        self.shoot()

    def make_setting_wait(self):
        """The camera is busy: the setting comes half a second later."""
        self.camera.fault("EdsSetPropertyData code=0x81")
        self.change_setting()

    def make_report_wait(self):
        """The camera is busy: what it has to report comes half a second later."""
        self.camera.fault("EdsGetPropertyData code=0x81 property={:#x}".format(SHUTTER_SPEED))
        self.change_setting()

    def transfer_slowly(self):
        """The next pictures take their time."""
        self.camera.configure("transfer.rate = 0.2")
        self.shoot()
        self.catch_up()
        self.camera.configure("transfer.rate = 0")

    def change_folder(self):
        """The host moves on to the other folder."""
        self.catch_up()
        self.folder = self.random.choice(self.folders)
        self.assertEqual(self.tether.UpdateExportFolder(self.folder), 1)

    def pull_the_cable(self):
        """In the middle of a transfer; then the host starts anew."""
        self.catch_up()
        self.camera.clear_faults()
        self.camera.set_property(IMAGE_QUALITY, RAW_AND_JPEG)
        self.camera.fault("EdsGetDirectoryItemInfo hang")
        self.camera.fault("EdsDownload unplug percent=50")
        made, announced = len(self.camera.pictures()), self.camera.event_count(NEW_PICTURE)
        self.shoot()
        self.camera.wait_for_hang("EdsGetDirectoryItemInfo")
        self.camera.wait_for_pictures(made + 2)
        self.camera.wait_for_events(NEW_PICTURE, announced + 2)
        # Both files of the shot are announced: one will be broken off, the other never begun.
        self.camera.release_hangs()
        self.host.wait_for_failure()
        self.wait_for_announcements()
        # Without cable, the host notices nothing and goes on.
        self.tether.Shoot()
        self.change_setting()
        self.assertEqual(self.tether.Uninit(), 1)
        self.camera.plug()
        self.assertEqual(self.tether.Init("VIRTUAL eos", self.folder, self.host), 1)
        self.camera.settle()

    # What has come of it.

    def catch_up(self):
        """Waits until the pictures taken so far have been announced."""
        self.camera.settle()
        self.wait_for_announcements()

    def wait_for_announcements(self):
        """Waits until the host has been told of every file that the camera made for it."""
        expected = sum(picture["to_host"] for picture in self.camera.pictures())
        self.host.wait_for(lambda events: len(list(filter(is_about_a_picture, events))) >= expected)

    def check_pictures(self):
        """Camera, host and disk agree on the pictures."""
        announcements = list(filter(is_about_a_picture, self.host.events))
        taken = [
            (index, picture)
            for index, picture in enumerate(self.camera.pictures())
            if picture["to_host"]
        ]
        self.assertGreater(len(taken), SHOTS * 0.7)
        self.assertEqual(len(announcements), len(taken))
        self.assertEqual({picture["announced"] for _, picture in taken}, {1})

        # The worker works off its queue in order: the n-th announcement is the n-th file's.
        announced, broken = [], 0
        for (index, picture), event in zip(taken, announcements):
            if picture["downloaded"]:
                path = picture_path(event.text)
                announced.append(path)
                self.assertEqual(read(path), self.camera.picture_bytes(index), picture)
                self.assertEqual(os.path.splitext(path)[1], os.path.splitext(picture["name"])[1])
            else:
                broken += 1
                self.assertFalse(
                    event.text != WRITE_FAILURE and os.path.exists(picture_path(event.text)), event
                )
        self.assertEqual(broken, 2)
        others = set(self.host.of(Lumatie.TETHER_GENERAL)) - set(announcements)
        self.assertEqual({event.text for event in others}, {DEVICE_BUSY})
        self.assertEqual(len(set(announced)), len(announced))
        on_disk = [os.path.join(f, name) for f in self.folders for name in self.files(f)]
        self.assertEqual(sorted(on_disk), sorted(announced))

    def check_settings(self):
        """What the host was told last is what the camera has."""
        for kind, identifier in SETTINGS.items():
            last = self.host.of(kind)[-1].values[0] & 0xFFFFFFFF
            self.assertEqual(last, self.camera.property(identifier))


if __name__ == "__main__":
    unittest.main()
