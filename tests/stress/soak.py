"""Thousands of pictures in one session, each verified, while the process must not grow.

    soak.py canon|nikon [--pictures N] [--results FILE]

Pictures are taken by the host and with the button on the body, in turn and in bursts, while the
host changes settings and folders and somebody turns the dial. All of it follows from a fixed seed.
Pictures are looked at in batches: each is on disk once, byte for byte as the camera has it, and was
announced once; nothing else lies in the folders. Then it is deleted, the virtual camera forgets it,
and the process is measured.

The exit status is 1 when a picture was not as it should be, the camera's interface was misused or
something was left over, or when memory, threads or open handles grew: docs/testing.md says by
how much they may.
"""

import argparse
import array
import collections
import contextlib
import gc
import hashlib
import json
import os
import pathlib
import random
import re
import statistics
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))

import nikon_support  # noqa: E402  they lie in the folder of the Python tests
import support  # noqa: E402
import this_process  # noqa: E402
from support import Lumatie, SteeringError, wait_until  # noqa: E402

SEED = 20261122
DEADLINE = 60.0  # seconds for a batch's pictures to arrive
FOLDERS = 3

# What the measurements at the end are compared with, and how far apart they may be.
SETTLED = 500  # pictures; half of them in a run too short for that
GROWTH = 0.02
LEAST_GROWTH_KB = 1024  # in a short run, whose start is not over yet

CAMERA_SETTINGS = """
    picture.width = 64
    picture.height = 48
    picture.keep = 1000
    shutter.lag_ms = 0
    log.lines = 500
"""

Sample = collections.namedtuple("Sample", "pictures rss_kb threads handles")


def digest(data):
    """What stands for the bytes of a picture."""
    return hashlib.sha256(data).digest()


class Listener:
    """The host's callable: notes the pictures, counts the rest and keeps nothing for long."""

    def __init__(self, on_report):
        self._condition = threading.Condition()
        self._pictures = []
        self._on_report = on_report
        self.events = array.array("q", [0] * 15)
        self.failures = 0
        self.last_report = 0.0

    def __call__(self, code, *values):
        now = time.monotonic()
        self.events[code] += 1
        if code == Lumatie.TETHER_EXPOSUREMODE:
            self._on_report()
        elif code == Lumatie.TETHER_IMAGEQUALITY:
            self.last_report = now
        elif code == Lumatie.TETHER_GENERAL:
            self._note(now, values[-1])

    def _note(self, now, text):
        with self._condition:
            if text.startswith(support.NEW_FILE_START):
                self._pictures.append((now, self.last_report, support.picture_path(text)))
            else:
                self.failures += 1
            self._condition.notify_all()

    def wait_for(self, count):
        """Waits until so many pictures were announced since the last take()."""
        with self._condition:
            if not self._condition.wait_for(lambda: len(self._pictures) >= count, DEADLINE):
                message = "{} of {} pictures within {:g} s"
                raise AssertionError(message.format(len(self._pictures), count, DEADLINE))

    def take(self):
        """The announcements since the last time: when, the report's end before it, the path."""
        with self._condition:
            taken, self._pictures = self._pictures, []
        return taken


class Soak:
    """One session with a virtual camera; subclasses know the maker."""

    name = None
    kinds = {}  # settings that the host can change, and their codes on the camera

    def __init__(self, camera, pictures, base):
        self.camera = camera
        self.wanted = pictures
        self.batch = 100 if pictures >= 2 * SETTLED else 50
        self.random = random.Random(SEED)
        self.folders = [os.path.join(base, "folder%d" % number) for number in range(FOLDERS)]
        self.listener = Listener(self.on_report)
        self.tether = None
        self.problems = []
        self.happened = collections.Counter()
        self.made = 0  # picture files in this batch
        self.taken = self.verified = self.lost = self.extra = 0
        # Made at once, so that they do not count as growth.
        self.begun = array.array("d", bytes(8 * 2 * self.batch))  # by number of the file
        self.seconds = array.array("d", bytes(8 * pictures))
        self.in_cycle = array.array("d", bytes(8 * pictures))
        self.samples = array.array("q", bytes(8 * 4 * (pictures // self.batch + 2)))
        self.sampled = 0

    # The run.

    def run(self):
        """Takes and verifies all pictures; one that does not come ends the run early."""
        for folder in self.folders:
            os.mkdir(folder)
        threads = this_process.native_threads()
        self.forget_pictures()
        try:
            self.connect()
            while self.taken < self.wanted and not self.problems:
                self.play_batch(min(self.batch, self.wanted - self.taken))
        except (AssertionError, SteeringError) as error:
            self.problems.append(str(error))
        self.finish(threads)

    def connect(self):
        """Starts the session."""
        self.tether = Lumatie.Lumatie()
        if self.tether.Init(self.connection(), self.folders[0], self.listener) != 1:
            raise AssertionError("Init failed")
        self.await_start()

    def play_batch(self, count):
        """Has so many pictures taken, verifies them, and measures."""
        self.forget_pictures()
        try:
            self.take_pictures(count)
            self.listener.wait_for(self.made)
            self.come_to_rest()
        finally:
            self.verify()
        self.measure()

    def finish(self, threads):
        """Ends the session and looks at what is left over."""
        if self.tether is not None and self.tether.Uninit() != 1:
            self.problems.append("Uninit failed")
        self.tether = None
        gc.collect()
        if self.open_objects():
            self.problems.append("%d objects of the camera's left open" % self.open_objects())
        self.problems += self.camera.misuse()
        try:
            wait_until(lambda: this_process.native_threads() <= threads, "all threads ended")
        except AssertionError as error:
            self.problems.append(str(error))
        if self.listener.take():
            self.problems.append("announcements of no picture")
        if self.listener.failures:
            self.problems.append("%d announced failures" % self.listener.failures)

    def forget_pictures(self):
        """The camera's own lists would grow; its settings and its session stay as they are."""
        self.camera.reset()
        self.camera.configure(CAMERA_SETTINGS)
        self.made = 0

    # What happens: it follows from the seed, but for the moment at which it meets the session.

    def on_report(self):
        """A report of the exposure mode has come; on the session's thread."""

    def happen(self, what, *arguments):
        """Does it, and counts it."""
        self.happened[what.__name__] += 1
        what(*arguments)

    def change_anything(self):
        """Between two shots: mostly nothing, else one of the things that a day brings."""
        chance = self.random.random()
        if chance < 0.15:
            self.happen(self.change_setting, self.random.choice(sorted(self.kinds)))
        elif chance < 0.17:
            self.happen(self.change_what_cannot_be)
        elif chance < 0.20:
            self.happen(self.move_folder)
        elif chance < 0.22:
            self.happen(self.turn_dial)

    def set_value(self, kind, value):
        """The host changes a setting."""
        if self.tether.SetValue(kind, value) != 1:
            raise AssertionError("SetValue failed")

    def change_what_cannot_be(self):
        """The host asks for types that nobody can set, and for a value that no camera has."""
        for kind in range(-1, 16):
            if kind not in self.kinds:
                self.set_value(kind, 1)
        self.set_value(Lumatie.TETHER_ISO, -1)

    def move_folder(self):
        """Pictures go into another folder from now on, also those under way."""
        if self.tether.UpdateExportFolder(self.random.choice(self.folders)) != 1:
            raise AssertionError("UpdateExportFolder failed")

    def turn_dial(self):
        """To one of four positions, two of which leave the host less to set."""
        self.camera.turn_dial(self.random.randrange(4))

    def press(self, files=1):
        """The button on the body, again and again while an exposure keeps it from working."""

        def is_pressed():
            begun[0] = time.monotonic()
            try:
                self.camera.press_shutter()
            except SteeringError:
                return False
            return True

        begun = [0.0]
        wait_until(is_pressed, "the button works")
        self.await_files(begun[0], files)

    def await_files(self, begun, files=1):
        """Waits until the camera has made the files of the shot that was begun then."""
        for _ in range(files):
            self.begun[self.made] = begun
            self.made += 1
        self.camera.wait_for_pictures(self.made)

    # What has come of it.

    def verify(self):
        """Camera, host and disk agree on the batch's pictures, which are deleted."""
        expected = collections.defaultdict(collections.deque)
        pictures = self.camera.pictures()
        for index, picture in enumerate(pictures):
            expected[digest(self.camera.picture_bytes(index))].append(index)
            if not self.is_as_expected(picture):
                self.problems.append("unexpected: {}".format(picture))
        for announcement in self.listener.take():
            self.check_picture(*announcement, expected)
        lost = sum(map(len, expected.values()))
        if lost:
            self.problems.append("%d pictures are not on disk as the camera has them" % lost)
        self.lost += lost
        self.check_folders()
        self.taken += len(pictures)
        self.problems += self.camera.misuse()

    def check_picture(self, when, report, path, expected):
        """One announced file is whole, and a picture that was not seen before."""
        try:
            with open(path, "rb") as file:
                found = expected[digest(file.read())]
            os.remove(path)
        except OSError as error:
            self.problems.append("announced, but: {}".format(error))
            return
        if not found or os.path.dirname(path) not in self.folders:
            self.problems.append("not a picture, not whole, twice or elsewhere: " + path)
            self.extra += 1
            return
        begun = self.begun[found.popleft()]
        self.seconds[self.verified] = when - begun
        self.in_cycle[self.verified] = when - max(begun, report)
        self.verified += 1

    def check_folders(self):
        """Nothing is left: neither a part of a picture, nor one that nobody was told of."""
        for folder in self.folders:
            for name in os.listdir(folder):
                self.problems.append("left in the folder: " + name)
                self.extra += 1
                os.remove(os.path.join(folder, name))

    def measure(self):
        """One sample, with nothing under way."""
        re.purge()
        gc.collect()
        sample = Sample(
            self.verified,
            this_process.resident_bytes() // 1024,
            this_process.native_threads(),
            this_process.open_handles(),
        )
        self.samples[self.sampled * 4 : self.sampled * 4 + 4] = array.array("q", sample)
        self.sampled += 1

    def all_samples(self):
        """The samples so far."""
        return [Sample(*self.samples[i * 4 : i * 4 + 4]) for i in range(self.sampled)]


class CanonSoak(Soak):
    """Shots one by one, of the host and of the body in turn, and bursts on the body."""

    name = "canon"
    kinds = {
        Lumatie.TETHER_SHUTTERSPEED: support.SHUTTER_SPEED,
        Lumatie.TETHER_APERTURE: support.APERTURE,
        Lumatie.TETHER_ISO: support.ISO,
        Lumatie.TETHER_WB: support.WHITE_BALANCE,
        Lumatie.TETHER_COLORTEMP: support.COLOR_TEMPERATURE,
    }
    color_temperature = 9  # the white balance with which it counts
    burst_shots = 5

    def __init__(self, *arguments):
        super().__init__(support.VirtualCanon(), *arguments)
        self.files = 1  # of each shot

    def connection(self):
        """What the session is started with."""
        return support.CAMERA_NAME

    def await_start(self):
        """Waits until the first news were delivered."""
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.settle()

    def come_to_rest(self):
        """Waits until the session has nothing more to do."""
        self.camera.settle()

    def open_objects(self):
        """How many references the session holds."""
        return self.camera.references()

    def is_as_expected(self, picture):
        """Fetched once, and the camera was told so."""
        return all(picture[field] == 1 for field in "to_host announced downloaded complete".split())

    def take_pictures(self, count):
        """Each is waited for before the next one is taken, but for bursts."""
        while self.made < count:
            self.change_anything()
            left = count - self.made
            if self.random.random() < 0.1 or left < self.files:
                self.happen(self.change_quality, left)
            chance = self.random.random()
            if chance < 0.45:
                self.happen(self.shoot)
            elif chance < 0.9:
                self.happen(self.press, self.files)
            else:
                self.happen(self.burst, min(self.burst_shots, left // self.files))
            self.listener.wait_for(self.made)

    def shoot(self):
        """The host asks for a picture; with an exposure under way it would not get one."""
        self.camera.wait_until_idle()
        begun = time.monotonic()
        if self.tether.Shoot() != 1:
            raise AssertionError("Shoot failed")
        self.await_files(begun, self.files)

    def burst(self, shots):
        """Shots on the body as fast as the camera makes them."""
        for _ in range(shots):
            self.press(self.files)

    def change_quality(self, left):
        """The photographer chooses what files the camera makes, so that not too many come."""
        qualities = [support.JPEG, support.RAW, support.RAW_AND_JPEG]
        quality = self.random.choice(qualities[: 2 if left < 2 else 3])
        self.camera.set_property(support.IMAGE_QUALITY, quality)
        self.files = 2 if quality == support.RAW_AND_JPEG else 1

    def change_setting(self, kind):
        """The host picks another value of a list, which may be empty now."""
        if kind == Lumatie.TETHER_COLORTEMP:
            self.set_value(Lumatie.TETHER_WB, self.color_temperature)
            self.set_value(kind, self.random.randrange(2500, 10001, 100))
        else:
            self.set_value(kind, self.random.choice(self.camera.allowed(self.kinds[kind]) or [0]))


class NikonSoak(Soak):
    """A batch of pictures for each cycle of the session, one of them the host's."""

    name = "nikon"
    kinds = {
        Lumatie.TETHER_SHUTTERSPEED: nikon_support.SHUTTER_SPEED,
        Lumatie.TETHER_APERTURE: nikon_support.APERTURE,
        Lumatie.TETHER_ISO: nikon_support.SENSITIVITY,
        Lumatie.TETHER_WB: nikon_support.WHITE_BALANCE,
    }
    image_quality = 0x8110
    items_put_there = 4

    def __init__(self, *arguments):
        super().__init__(nikon_support.VirtualNikon(), *arguments)
        self.wishes = False
        self.wished = 0.0

    def connection(self):
        """What the session is started with."""
        return nikon_support.MODULE

    def await_start(self):
        """Waits for the first report."""
        wait_until(lambda: self.listener.events[Lumatie.TETHER_IMAGEQUALITY], "a report")

    def come_to_rest(self):
        """Waits until the session has nothing more to do in this cycle."""
        self.camera.wait_until_idle()

    def open_objects(self):
        """How many objects the session has open."""
        return len(self.camera.open_objects())

    def is_as_expected(self, picture):
        """Fetched once, and not on the camera any more."""
        fetched = all(picture[field] == 1 for field in "opened started delivered".split())
        return fetched and picture["announced"] <= 1 and not picture["listed"]

    def on_report(self):
        """At a report's start a request is not lost: the capture follows it."""
        if self.wishes:
            self.wishes = False
            self.wished = time.monotonic()
            self.tether.Shoot()

    def take_pictures(self, count):
        """The session does not look at the camera for a second: meanwhile pictures gather."""
        files = self.change_quality(count)
        items = self.items_put_there if count > self.items_put_there + files else 0
        for _ in range((count - items) // files - 1):
            self.change_anything()
            self.happen(self.press, files)
        for _ in range(items):
            self.happen(self.put_item)
        self.happen(self.shoot, files)

    def shoot(self, files):
        """The host asks for a picture in the next cycle."""
        self.wishes = True
        wait_until(lambda: not self.wishes, "the next cycle has begun")
        self.await_files(self.wished, files)

    def put_item(self):
        """A picture appears that no shutter made; noise cannot be the same twice."""
        content = self.random.getrandbits(8 * 3000).to_bytes(3000, "little")
        begun = time.monotonic()
        self.camera.add_item(content)
        self.await_files(begun)

    def change_quality(self, count):
        """The photographer chooses what files the camera makes; answers how many of a shot."""
        texts = self.camera.texts(self.image_quality)
        if count % 2:
            texts = [text for text in texts if "+" not in text]
        position = self.random.randrange(len(texts))
        self.camera.set_value(self.image_quality, position)
        return 2 if "+" in texts[position] else 1

    def change_setting(self, kind):
        """The host picks another position of a list."""
        positions = len(self.camera.texts(self.kinds[kind]))
        self.set_value(kind, self.random.randint(1, positions))


def settled_at(pictures):
    """After how many pictures the process should have its size."""
    return SETTLED if pictures >= 2 * SETTLED else pictures // 2


def compare(samples, pictures):
    """What grew too much, as texts, and the two samples that say so."""
    first = next((sample for sample in samples if sample.pictures >= settled_at(pictures)), None)
    if first is None:
        return ["too few pictures for a verdict"], None, None
    last = samples[-1]
    bound = GROWTH * first.rss_kb
    if pictures < 2 * SETTLED:
        bound = max(bound, LEAST_GROWTH_KB)
    grown = []
    if last.rss_kb - first.rss_kb > bound:
        grown.append(
            "memory grew by {} kB, {:.0f} are allowed".format(last.rss_kb - first.rss_kb, bound)
        )
    for what in ("threads", "handles"):
        before = getattr(first, what)
        after = min(getattr(one, what) for one in samples[-3:])  # one may be on its way out
        if after - before > GROWTH * before:
            grown.append("{}: {} became {}".format(what, before, after))
    return grown, first, last


def quantiles(times):
    """Median, 99th percentile and maximum, in milliseconds."""
    ordered = sorted(times) or [0.0]
    found = (statistics.median(ordered), ordered[len(ordered) * 99 // 100], ordered[-1])
    return tuple(seconds * 1000 for seconds in found)


def show(result, first, last):
    """A short table."""
    print("{maker}: {pictures} pictures in {seconds:.0f} s".format(**result))
    print("  lost {lost}, extra {extra}".format(**result))
    form = "  {:<22} median {:8.1f}  p99 {:8.1f}  max {:8.1f} ms"
    print(form.format("shot to event", *quantiles(result["seconds_per_shot"])))
    if "seconds_in_cycle" in result:
        print(form.format("of that in its cycle", *quantiles(result["seconds_in_cycle"])))
    if first is not None:
        form = "  {:<22} after {}: {:>7}  at the end: {:>7}"
        print(form.format("memory, kB", first.pictures, first.rss_kb, last.rss_kb))
        print(form.format("threads", first.pictures, first.threads, last.threads))
        print(form.format("open handles", first.pictures, first.handles, last.handles))
    for problem in result["problems"]:
        print("  " + problem)
    print("  verdict: " + result["verdict"])


@contextlib.contextmanager
def dropped_output():
    """What a Nikon session writes to standard output is no use to anybody here."""
    sys.stdout.flush()
    kept = os.dup(1)
    with open(os.devnull, "wb") as nothing:
        os.dup2(nothing.fileno(), 1)
    try:
        yield
    finally:
        os.dup2(kept, 1)
        os.close(kept)


def play(maker, pictures):
    """A whole run; returns its result, and the samples that were compared."""
    begun = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="lumatie-soak-") as base, dropped_output():
        soak = maker(pictures, os.path.realpath(base))
        soak.run()
    seconds = time.monotonic() - begun
    grown, first, last = compare(soak.all_samples(), pictures)
    problems = soak.problems + grown
    if soak.verified != pictures:
        problems.append("{} of {} pictures".format(soak.verified, pictures))
    result = {
        "maker": maker.name,
        "pictures": soak.verified,
        "lost": soak.lost,
        "extra": soak.extra,
        "seconds": seconds,
        "seconds_per_shot": list(soak.seconds[: soak.verified]),
        "samples": [sample._asdict() for sample in soak.all_samples()],
        "settled_at": settled_at(pictures),
        "happened": dict(soak.happened),
        "events": list(soak.listener.events),
        "problems": problems,
        "verdict": "bad" if problems else "good",
    }
    if maker is NikonSoak:
        result["seconds_in_cycle"] = list(soak.in_cycle[: soak.verified])
    return result, first, last


def main():
    makers = {maker.name: maker for maker in (CanonSoak, NikonSoak)}
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("maker", choices=sorted(makers))
    parser.add_argument("--pictures", type=int, default=10000, metavar="N")
    parser.add_argument("--results", type=pathlib.Path, metavar="FILE")
    options = parser.parse_args()

    result, first, last = play(makers[options.maker], options.pictures)
    show(result, first, last)
    path = options.results
    if path is None:
        results = support.REPOSITORY / "build" / "results" / "stress"
        path = results / "soak-{}.json".format(options.maker)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(result), encoding="utf-8")
    return 1 if result["problems"] else 0


if __name__ == "__main__":
    sys.exit(main())
