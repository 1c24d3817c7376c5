"""What goes wrong around a session: the clock, the disk, the folder, the drive of the second copy.

Each from end to end: every picture that was announced is there, whole, with its record, and what is
lost is told in words.
"""

import contextlib
import datetime
import filecmp
import os
import subprocess
import time

import lumatie_host as tether
from proof import DEADLINE, Heard, shoot
from virtual_cameras import wait_until

try:
    import resource
except ImportError:  # where disks are full in other ways
    resource = None

COUNTS = {"long": 50, "short": 3}  # pictures before, during and after each mishap
SHORT_NIKON = 2

CAMERA = """
    picture.width = 64
    picture.height = 48
    picture.keep = 1000
    picture.size = 600000
    log.lines = 500
"""
ROOM = 4096  # bytes: less than a picture, more than a record


def play(proof, maker, count):
    """One after the other."""
    if maker == "nikon":
        count = SHORT_NIKON if count == COUNTS["short"] else max(1, count // 5)
    for mishap in (clock, full_disk, folder_away, drive_away):
        with shoot(maker) as made:
            made.camera.configure(CAMERA)
            proof.figure(mishap.__doc__.rstrip("."), "")
            mishap(proof, made, count)


def clock(proof, made, count):
    """The clock is set back an hour."""
    with made.open(name="{date}_{time:%H%M}_{n:04}") as session:
        heard = Heard(session)
        take(session, count)
        with clock_set_back():
            take(session, count)
        take(session, count)
        numbers = [picture.n for picture in heard.of(tether.Picture)]
        proof.check(numbers == sorted(numbers), "the numbers of the record go back")
        proof.check(session.state == "open", "the state is %s", session.state)
    proof.check(not heard.of(tether.Failed), "a shot has failed")
    times = [picture.time for picture in made.records()]
    proof.check(times != sorted(times), "the clock was not set back")
    made.compare(proof, heard)
    proof.check(len(made.records()) == 3 * count, "%d pictures", len(made.records()))


def full_disk(proof, made, count):
    """A disk is full, and has room again."""
    if resource is None:
        return
    with made.open(name="{n:04}") as session:
        heard = Heard(session)
        take(session, count)
        failures = 0
        with limited(0):  # not even a record
            for _ in range(count):
                failures += fails(proof, session, tether.WriteFailed, DEADLINE)
            made.camera.press_shutter()
            wait_until(lambda: heard.of(tether.Alarm), "an alarm", DEADLINE)
        proof.check(failures == count, "%d of %d shots failed", failures, count)
        settle(made, heard)
        before = len(heard.of(tether.Failed))
        size = os.path.getsize(os.path.join(made.folder, ".lumatie", "ledger.jsonl"))
        with limited(size + ROOM):
            fails(proof, session, tether.WriteFailed, DEADLINE)
        wait_until(lambda: len(heard.of(tether.Failed)) > before, "words for it", DEADLINE)
        settle(made, heard)
        take(session, count)
        told(proof, heard, tether.Alarm, tether.Failed)
    # A Nikon camera lets go of a picture that it has delivered, though nobody could write it.
    made.compare(proof, heard, len(heard.of(tether.Alarm)) + len(heard.of(tether.Failed)))
    proof.check(len(made.records()) >= 2 * count, "%d pictures", len(made.records()))


def folder_away(proof, made, count):
    """The folder vanishes, and comes back."""
    away = made.folder + "-away"
    with made.open(name="{n:04}") as session:
        heard = Heard(session)
        take(session, count)
        os.rename(made.folder, away)
        for _ in range(count):
            fails(proof, session, tether.WriteFailed, DEADLINE)
        made.camera.press_shutter()
        if made.maker == "canon":  # a Nikon camera keeps the picture until there is a folder
            wait_until(lambda: heard.of(tether.Alarm), "an alarm", DEADLINE)
        os.rename(away, made.folder)
        settle(made, heard)
        take(session, count)
        made.camera.configure("transfer.rate = 1\npicture.size = 700000")
        made.camera.press_shutter()
        pictures = len(made.camera.pictures())
        wait_until(lambda: len(made.camera.pictures()) > pictures, "a picture is made", DEADLINE)
        os.rename(made.folder, away)  # in the middle of its transfer
        time.sleep(1.0)
        os.rename(away, made.folder)
        made.camera.configure("transfer.rate = 0\npicture.size = 600000")
        settle(made, heard)
        take(session, count)
        told(proof, heard, tether.Alarm, tether.Failed)
    with made.open(name="{n:04}"):  # takes in what was handed over meanwhile
        pass
    made.compare(proof)
    told_files = {event.file for event in heard.of(tether.Picture)}
    proof.check(told_files <= set(made.files()), "what was told of is not there")
    proof.check(len(made.records()) >= 3 * count, "%d pictures", len(made.records()))


def drive_away(proof, made, count):
    """The drive of the second copy is pulled, and comes back."""
    store, target = os.path.join(made.base, "store"), os.path.join(made.base, "drive")
    os.mkdir(store)
    os.mkdir(target)
    with Drive(store, target) as drive, made.open(name="{n:04}", copy=target) as session:
        heard = Heard(session)
        proof.figure("the drive", "%s", "mounted" if drive.is_mounted else "renamed")
        take(session, count)
        drive.pull()
        take(session, count)
        wait_until(lambda: heard.of(tether.Alarm), "an alarm", DEADLINE)
        if drive.is_mounted:
            proof.check(os.listdir(target) == [], "copies went to the empty mount point")
        drive.put_back()
        take(session, count)
        wait_until(lambda: session.copier.lag[0] == 0, "all is copied", DEADLINE)
        wait_until(lambda: len(heard.of(tether.Copied)) == 3 * count, "all is told", DEADLINE)
        told(proof, heard, tether.Alarm)
        made.count()
        copies = sorted(os.listdir(target))
        proof.check(copies == made.files(), "%d copies of %d", len(copies), len(made.files()))
        for name in copies:
            paths = os.path.join(target, name), os.path.join(made.folder, name)
            is_equal = filecmp.cmp(*paths, shallow=False)
            proof.check(is_equal, "%s differs from its copy", name)
    made.compare(proof, heard)


def take(session, count):
    """So many shots, which have to work."""
    for _ in range(count):
        session.shoot(timeout=DEADLINE)


def fails(proof, session, kind, timeout):
    """A shot that must fail with an error of a kind, in words."""
    try:
        session.shoot(timeout=timeout)
    except kind as error:
        return proof.check(bool(str(error) and error.advice), "an error without words")
    except tether.TetherError as error:
        return proof.check(False, "not %s, but %r", kind.__name__, error)
    return proof.check(False, "a shot has worked")


def settle(made, heard):
    """What the camera still has to hand over is there, or told as lost."""
    made.camera.wait_until_idle(DEADLINE)
    if made.maker == "nikon":
        wait_until(lambda: made.camera.listed() == 0, "the card is empty", DEADLINE)


def told(proof, heard, *kinds):
    """The words for what is lost, as somebody in front of the screen got them."""
    for kind in kinds:
        events = heard.of(kind)
        words = [getattr(event, "what", None) or getattr(event, "text", "") for event in events]
        proof.check(all(words) and all(event.advice for event in events), "no words")
        if words:
            proof.figure("  told as " + kind.__name__.lower(), "%d, like: %s", len(words), words[0])


@contextlib.contextmanager
def clock_set_back():
    """An hour, for all of Python in this process; the monotonic clock goes on."""
    hour = datetime.timedelta(hours=1)
    real, real_time = datetime.datetime, time.time

    class Earlier(real):
        @classmethod
        def now(cls, tz=None):
            return real.now(tz) - hour

    datetime.datetime = Earlier
    time.time = lambda: real_time() - hour.total_seconds()
    try:
        yield
    finally:
        datetime.datetime, time.time = real, real_time


@contextlib.contextmanager
def limited(size):
    """No file of this process grows above a size, as on a disk that is full."""
    before = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (size, before[1]))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, before)


class Drive:
    """A drive that is pulled: unmounted where that is allowed, else its folder is renamed."""

    def __init__(self, store, target):
        self._store = store
        self._target = target
        self.is_mounted = False

    def __enter__(self):
        self.is_mounted = self._mount("-t", "tmpfs", "none", self._store)
        if self.is_mounted:
            self.put_back()
        return self

    def __exit__(self, *_):
        if self.is_mounted:
            self.pull()
            self._unmount(self._store)

    def pull(self):
        """It is gone at once, whatever is open on it."""
        if self.is_mounted:
            self._unmount(self._target)
        else:
            os.rename(self._target, self._target + "-away")

    def put_back(self):
        """It is there again, with what was on it."""
        if self.is_mounted:
            self._mount("--bind", self._store, self._target)
        else:
            os.rename(self._target + "-away", self._target)

    def _mount(self, *arguments):
        command = ["mount", *arguments]
        return subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode == 0

    def _unmount(self, folder):
        subprocess.run(["umount", "--lazy", folder], stderr=subprocess.DEVNULL, check=False)
