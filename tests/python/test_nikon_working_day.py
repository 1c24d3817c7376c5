"""A photographer's day with a Nikon camera: 200 shots, settings, trouble and a pulled cable.

What happens when is drawn at random with a fixed seed, which is printed. A cycle of the session
lasts a second, so each brings several pictures. In the evening every picture that the camera took
is on disk once, byte for byte, and was announced, or its failure was.
"""

import collections
import contextlib
import hashlib
import os
import random
import time
import unittest

from nikon_support import (
    APERTURE,
    JPEG,
    MODULE,
    NEF,
    ROWS,
    SENSITIVITY,
    SHUTTER_SPEED,
    TIFF,
    WHITE_BALANCE,
    NikonTestCase,
)
from support import (
    NEW_FILE_START,
    WRITE_FAILURE,
    Lumatie,
    SteeringError,
    picture_path,
    wait_until,
)
from this_process import ON_WINDOWS

if not ON_WINDOWS:
    import resource

SEED = int(os.environ.get("LUMATIE_SEED", "20261121"))
SHOTS = 200
CABLE_PULL = 110  # the shot in whose transfer it happens
LONGEST = 120.0  # seconds; a machine without other work needs 35

IMAGE_QUALITY = 0x8110
FROM_HOST = 0  # origin of a picture

SETTINGS = {
    Lumatie.TETHER_SHUTTERSPEED: SHUTTER_SPEED,
    Lumatie.TETHER_APERTURE: APERTURE,
    Lumatie.TETHER_ISO: SENSITIVITY,
    Lumatie.TETHER_WB: WHITE_BALANCE,
}
EXTENSIONS = {JPEG: ".jpg", TIFF: ".tif", NEF: ".nef", ROWS: ".raw"}

# Trouble that costs time at most: no command of it is lost, or what is lost comes again.
SLOWNESS = (
    "Command complete_ms=20 calls=20",
    "Command complete_calls=3 calls=20",
    "Command complete_ms=20 complete_thread calls=20",
    "CapGet complete_ms=300 late_data calls=2",
    "CapStart capability=20 complete_ms=300",
    "CapGetArray late_data complete_calls=4 calls=5",
    "Command twice calls=20",
)
BUSYNESS = (
    "GetCapCount code=-124 calls=3",
    "GetCapInfo code=-124 calls=3",
    "Open code=-124 level=source calls=2",
    "Open code=-124 level=item calls=2",
    "CapGet code=-124 capability=7",
    "CapGet code=-124 capability=12 calls=2",
    "CapGetArray code=-124 level=source calls=2",
    "CapSet code=-124 capability=4",
    "CapStart code=-124 capability=20 calls=2",
    "CapGet code=-124 capability=0x8112",
    "EnumChildren code=-1 calls=2",
)
EVENT_TROUBLE = ("0 lose", "0 double", "0 delay_ms=200", "1 lose", "6 lose calls=3", "4 lose")


def digest(data):
    """What stands for a picture's bytes in a message."""
    return hashlib.sha256(data).hexdigest()[:16]


def read(path):
    """The bytes of a file."""
    with open(path, "rb") as file:
        return file.read()


class NikonWorkingDay(NikonTestCase):
    """One test that plays the day; its methods are what may happen in it."""

    def setUp(self):
        super().setUp()
        self.random = random.Random(SEED)
        self.folders = [self.folder, os.path.join(self.base, "afternoon")]
        os.mkdir(self.folders[1])
        self.nikon.configure(
            """
            picture.width = 96
            picture.height = 64
            picture.keep = 1000
            shutter.lag_ms = 2
            log.lines = 500
            """
        )
        self.happened = collections.Counter()
        self.wishes = self.granted = self.refused = self.failures = 0
        self.host = self.new_host(self.grant_wish)
        self.tether, _ = self.start(self.host, wait=True)

    def test_every_picture_of_a_working_day_is_on_disk_once_and_announced(self):
        begun = time.monotonic()
        incidents = []
        while self.shots() < SHOTS:
            incidents = incidents or self.some_incidents()
            self.happen(incidents.pop())
            for _ in range(self.random.randint(9, 11)):
                self.happen(self.press_on_body)
            self.happen(self.shoot)
            if self.shots() >= CABLE_PULL and not self.happened["pull_the_cable"]:
                self.happen(self.pull_the_cable)
        self.nikon.clear_faults()
        self.catch_up()
        self.check_settings()
        self.assertEqual(self.tether.Uninit(), 1)

        seconds = time.monotonic() - begun
        print("\nseed {}: {:.1f} s, {}".format(SEED, seconds, dict(self.happened)))
        self.check_pictures()
        self.check_requests()
        self.assertLess(seconds, LONGEST)

    def some_incidents(self):
        """What happens in the next cycles, each in one: a day is long enough for all of it."""
        incidents = (
            [self.change_setting, self.refuse_setting, self.lose_setting, self.turn_dial]
            + [self.change_quality, self.change_form, self.change_folder]
            + [self.slow_down, self.be_busy, self.lose_events, self.lose_shot, self.transfer_slowly]
            + [self.leave_on_card, self.miss_folder, self.fill_disk]
        )
        self.random.shuffle(incidents)
        return incidents

    # What happens.

    def happen(self, what):
        """Does it, and counts it."""
        self.happened[what.__name__] += 1
        what()

    def grant_wish(self, event):
        """On the session's thread: a request that comes with a report's start is never lost."""
        if event.code == Lumatie.TETHER_EXPOSUREMODE and self.granted < self.wishes:
            self.granted += 1
            self.tether.Shoot()

    def shoot(self):
        """The host asks for a picture."""
        made = len(self.nikon.pictures())
        self.wishes += 1
        self.nikon.wait_for_pictures(made + 1)

    def lose_shot(self):
        """The camera is busy when the host asks for a picture."""
        self.nikon.fault("CapStart code=-124 capability=17")
        self.wishes += 1
        self.refused += 1
        wait_until(lambda: self.granted == self.wishes, "the host has asked")
        self.pass_cycle()

    def press_on_body(self):
        """The photographer presses the button; a camera that is busy does nothing."""
        made = len(self.nikon.pictures())
        with contextlib.suppress(SteeringError):
            self.nikon.press_shutter()
            self.nikon.wait_for_pictures(made + 1)

    def change_setting(self):
        """The host picks another position of each list."""
        for kind, capability in SETTINGS.items():
            position = self.random.randint(1, len(self.nikon.texts(capability)))
            self.assertEqual(self.tether.SetValue(kind, position), 1)

    def refuse_setting(self):
        """The host asks for positions that the camera does not have."""
        for position in (0, -1, 65535):
            self.tether.SetValue(Lumatie.TETHER_ISO, position)

    def lose_setting(self):
        """The camera is busy when a setting is to be changed."""
        self.nikon.fault("CapSet code=-124 level=source calls=2")
        self.change_setting()

    def turn_dial(self):
        """The photographer chooses another exposure mode."""
        self.nikon.turn_dial(self.random.randrange(4))
        self.change_setting()

    def change_quality(self):
        """The photographer chooses what files the camera makes."""
        self.nikon.configure("picture.file_type = 0")
        count = len(self.nikon.texts(IMAGE_QUALITY))
        self.nikon.set_value(IMAGE_QUALITY, self.random.randrange(count))

    def change_form(self):
        """The camera gives its pictures out in another form."""
        form = self.random.choice([JPEG, TIFF, NEF, ROWS])
        self.nikon.configure(
            "picture.file_type = {}\ntransfer.chunk = {}\nitems.remove = {}".format(
                form, self.random.choice([1000, 4096, 262144]), self.random.choice([1, 2])
            )
        )

    def slow_down(self):
        """Commands complete late, in one way or the other."""
        for rule in self.random.sample(SLOWNESS, 2):
            self.nikon.fault(rule)

    def be_busy(self):
        """Commands are refused for a while."""
        for rule in self.random.sample(BUSYNESS, 4):
            self.nikon.fault(rule)

    def lose_events(self):
        """The camera does not tell in time what it should."""
        self.nikon.event_rule(self.random.choice(EVENT_TROUBLE))

    def transfer_slowly(self):
        """The next pictures take their time; others are taken meanwhile."""
        self.nikon.configure("picture.size = 20000\ntransfer.rate = 0.1\ntransfer.chunk = 1000")
        started = self.transfers()
        self.press_on_body()
        wait_until(lambda: self.transfers() > started, "a transfer has begun")
        self.press_on_body()
        self.press_on_body()
        self.change_setting()
        self.catch_up()
        self.nikon.configure("picture.size = 0\ntransfer.rate = 0\ntransfer.chunk = 262144")

    def change_folder(self):
        """The host moves on to the other folder, whatever is under way."""
        self.folder = self.random.choice(self.folders)
        self.assertEqual(self.tether.UpdateExportFolder(self.folder), 1)

    def miss_folder(self):
        """The host names a folder that does not exist: pictures wait for another one."""
        self.catch_up()
        self.tether.UpdateExportFolder(os.path.join(self.base, "missing"))
        self.press_on_body()
        self.pass_cycle()
        self.assertGreater(self.nikon.listed(), 0)
        self.tether.UpdateExportFolder(self.folder)

    @contextlib.contextmanager
    def full_disk(self):
        """Lets no file of this process grow beyond a few bytes.

        On Windows, where a process has no such limit, the host takes the folder away instead, and
        no picture is lost.
        """
        if ON_WINDOWS:
            self.tether.UpdateExportFolder("")
            yield
            self.tether.UpdateExportFolder(self.folder)
            return
        limits = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (500, limits[1]))
        try:
            yield
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)

    def fill_disk(self):
        """No picture can be written for a while."""
        self.catch_up()
        self.nikon.clear_faults()
        # Of image data in rows nobody asks whether they were written.
        self.nikon.configure("picture.file_type = {}".format(self.random.choice([JPEG, NEF])))
        # What is so small that it is written with the close alone stays on the camera.
        self.nikon.configure("picture.size = 20000\npicture.raw_size = 20000")
        made, announced = len(self.nikon.pictures()), len(self.failure_events())
        with self.full_disk():
            self.press_on_body()
            self.press_on_body()
            self.nikon.configure("picture.size = 0\npicture.raw_size = 0")
            if ON_WINDOWS:
                self.host.wait_for_failure(announced + 1)
                return
            self.wait_for_delivery()
            made = len(self.nikon.pictures()) - made
            self.host.wait_for_failure(announced + made)
        self.failures += made

    def leave_on_card(self):
        """Pictures stay on the camera after they were fetched; then the card is emptied."""
        self.catch_up()
        self.nikon.configure("items.remove = 0")
        self.press_on_body()
        self.press_on_body()
        self.catch_up()
        self.pass_cycle()
        staying = [i for i, picture in enumerate(self.nikon.pictures()) if picture["listed"]]
        self.assertGreaterEqual(len(staying), 2)
        for picture in staying:
            self.nikon.remove_item(picture)
        self.nikon.configure("items.remove = 1")

    def pull_the_cable(self):
        """In the middle of a transfer; then the host starts anew."""
        self.catch_up()
        self.nikon.clear_faults()
        self.nikon.configure("picture.file_type = 1\npicture.size = 20000\ntransfer.chunk = 1000")
        self.nikon.configure("transfer.rate = 0.02")
        started = self.transfers()
        self.press_on_body()
        self.press_on_body()
        wait_until(lambda: self.transfers() > started, "a transfer has begun")
        self.nikon.unplug()
        # Without cable, the host notices nothing and goes on.
        self.tether.Shoot()
        self.tether.SetValue(Lumatie.TETHER_ISO, 2)
        self.assertEqual(self.tether.Uninit(), 1)
        self.assertEqual(self.nikon.open_objects(), [])
        self.nikon.configure("picture.size = 0\ntransfer.rate = 0\ntransfer.chunk = 262144")
        self.nikon.plug()
        waiting = [p for p in self.nikon.pictures() if p["listed"] and not p["delivered"]]
        self.assertGreaterEqual(len(waiting), 2)
        self.assertEqual(self.tether.Init(MODULE, self.folder, self.host), 1)
        self.catch_up()

    # What has come of it.

    def shots(self):
        """How often the shutter was released so far."""
        return max([picture["shot"] for picture in self.nikon.pictures()], default=0)

    def transfers(self):
        """How many transfers were begun so far."""
        return sum(picture["started"] for picture in self.nikon.pictures())

    def pass_cycle(self):
        """Waits until a whole report has come from now on, and what went before it is done."""
        reports = len(self.host.of(Lumatie.TETHER_IMAGEQUALITY))
        self.host.wait_for_event(Lumatie.TETHER_IMAGEQUALITY, reports + 2)

    def wait_for_delivery(self):
        """Waits until the session has taken over every picture."""
        wait_until(
            lambda: all(picture["delivered"] for picture in self.nikon.pictures()),
            lambda: "all pictures are fetched\n" + self.nikon.story(),
        )

    def catch_up(self):
        """Waits until the pictures taken so far have been fetched and announced."""
        self.wait_for_delivery()
        taken = len(self.nikon.pictures())
        self.host.wait_for(lambda _: len(self.announced()) + self.failures >= taken)

    def announced(self):
        """The paths that were announced."""
        return {
            picture_path(event.text)
            for event in self.host.of(Lumatie.TETHER_GENERAL)
            if event.text.startswith(NEW_FILE_START)
        }

    def failure_events(self):
        """The announced failures."""
        return [e for e in self.host.of(Lumatie.TETHER_GENERAL) if e.text == WRITE_FAILURE]

    def check_pictures(self):
        """Camera, host and disk agree on the pictures."""
        pictures = self.nikon.pictures()
        taken = collections.Counter(
            (EXTENSIONS[picture["type"]], digest(self.nikon.picture_bytes(index)))
            for index, picture in enumerate(pictures)
        )
        paths = [os.path.join(f, name) for f in self.folders for name in self.files(f)]
        written = collections.Counter(
            (os.path.splitext(path)[1], digest(read(path))) for path in paths
        )
        lost = taken - written
        self.assertEqual(written - taken, collections.Counter(), "written twice or not whole")
        self.assertEqual(sum(lost.values()), self.failures)
        self.assertEqual(set(paths), self.announced())
        self.assertEqual({picture["delivered"] for picture in pictures}, {1})

        self.assertGreater(len(self.failure_events()), 0)
        # An acquisition that brings nothing repeats the last announcement.
        self.assertGreaterEqual(len(self.failure_events()), self.failures)
        self.assertFalse(os.path.exists(os.path.join(self.base, "missing")))

    def check_requests(self):
        """Each request that came in time released the shutter once, if the camera was ready."""
        shots = {p["shot"] for p in self.nikon.pictures() if p["origin"] == FROM_HOST}
        self.assertEqual(len(shots), self.wishes - self.refused)

    def check_settings(self):
        """What the host was told last is what the camera has."""
        self.pass_cycle()
        for kind, capability in SETTINGS.items():
            self.assertEqual(self.host.of(kind)[-1].values[0], self.nikon.value(capability) + 1)


if __name__ == "__main__":
    unittest.main()
