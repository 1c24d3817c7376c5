"""What the proofs of the host package share: figures, and a camera with its folder."""

import collections
import contextlib
import hashlib
import os
import tempfile
import threading
import time

import lumatie_host as tether
from virtual_cameras import VirtualCanon, VirtualNikon, wait_until

SEED = 20261122
DEADLINE = 60.0


class Proof:
    """Prints figures, and keeps what was not as promised."""

    def __init__(self, out, seed=SEED):
        self._out = out
        self.seed = seed
        self.problems = []

    def figure(self, what, form, *values):
        """One line of the result."""
        print("  {:<34} {}".format(what, form % values), file=self._out, flush=True)

    def check(self, is_kept, form, *values):
        """Notes a promise that is broken; says whether it is kept."""
        if not is_kept:
            self.problems.append(form % values)
            print("  BROKEN: " + self.problems[-1], file=self._out, flush=True)
        return is_kept


class Heard:
    """All events of a session, as a subscriber hears them."""

    def __init__(self, session):
        self._events = []
        self._moments = []
        self._changed = threading.Condition()
        session.subscribe(self)

    def __call__(self, event):
        with self._changed:
            self._events.append(event)
            self._moments.append(time.monotonic())
            self._changed.notify_all()

    def of(self, kind):
        """Those of a kind so far."""
        with self._changed:
            return [event for event in self._events if isinstance(event, kind)]

    def moment(self, event):
        """When one of them was heard, on the monotonic clock."""
        with self._changed:
            return self._moments[self._events.index(event)]

    def wait_for(self, kind, count=1, deadline=DEADLINE):
        """The event of this number, counted from 1, or None in time."""
        with self._changed:
            self._changed.wait_for(
                lambda: sum(isinstance(event, kind) for event in self._events) >= count, deadline
            )
        found = self.of(kind)
        return found[count - 1] if len(found) >= count else None


class Shoot:
    """A virtual camera as it comes from the factory, and an empty folder for its pictures.

    It counts what the camera has handed over whole, picture by picture, for a comparison with what
    the folder and its ledger have then.
    """

    def __init__(self, maker, base):
        self.maker = maker
        self.base = base
        self.folder = os.path.join(base, "shoot")
        os.mkdir(self.folder)
        self.camera = VirtualNikon() if maker == "nikon" else VirtualCanon()
        self.camera.reset()
        self.handed_over = collections.Counter()
        self._counted = set()

    def open(self, **options):
        """A session with the camera."""
        return tether.open(virtual=self.maker, folder=self.folder, **options)

    def count(self):
        """Counts what was handed over since the last time."""
        fields = ("delivered",) if self.maker == "nikon" else ("downloaded", "complete")
        for index, picture in enumerate(self.camera.pictures()):
            if all(picture[field] for field in fields) and index not in self._counted:
                self._counted.add(index)
                digest = hashlib.sha256(self.camera.picture_bytes(index)).hexdigest()
                self.handed_over[digest] += 1

    def forget(self, settings):
        """Counts, and has the camera forget its pictures, whose lists would grow."""
        self.count()
        self.camera.reset()
        self.camera.configure(settings)
        self._counted.clear()

    def compare(self, proof, heard=None, told_lost=0, is_quiet=False):
        """Each picture that was handed over is there once, whole, recorded and announced.

        So many may be missing because somebody was told that they are lost.
        """
        self.count()
        for finding in tether.verify(self.folder):
            proof.check(False, "verify: %s", finding.text)
        records = self.records()
        recorded = collections.Counter(record.sha256 for record in records)
        lost = self.handed_over - recorded
        form = "%d pictures were handed over, and are not there; %d are told as lost"
        proof.check(sum(lost.values()) <= told_lost, form, sum(lost.values()), told_lost)
        doubled = sum((recorded - (self.handed_over | collections.Counter(set(recorded)))).values())
        proof.check(not doubled, "%d pictures are recorded twice", doubled)
        names = sorted(record.file for record in records)
        proof.check(names == self.files(), "%d records, %d files", len(names), len(self.files()))
        if heard is not None:
            told = sorted(event.file for event in heard.of(tether.Picture))
            proof.check(told == names, "%d pictures were told, %d recorded", len(told), len(names))
        if not is_quiet:
            proof.figure(
                "pictures", "%d, %d handed over", len(records), sum(self.handed_over.values())
            )

    def records(self):
        """The pictures of the ledger."""
        events = tether.Ledger(self.folder).events()
        return [event for event in events if isinstance(event, tether.Picture)]

    def files(self):
        """All files but the package's own, relative to the folder."""
        found = []
        for parent, folders, files in os.walk(self.folder):
            if parent == self.folder and ".lumatie" in folders:
                folders.remove(".lumatie")
            for name in files:
                path = os.path.relpath(os.path.join(parent, name), self.folder)
                found.append(path.replace(os.sep, "/"))
        return sorted(found)


@contextlib.contextmanager
def shoot(maker):
    """A shoot in a folder of its own, which goes afterwards; nothing hangs then."""
    with tempfile.TemporaryDirectory(prefix="lumatie-") as base:
        made = Shoot(maker, os.path.realpath(base))
        try:
            yield made
        finally:
            made.camera.clear_faults()
            made.camera.end_exposure()
            made.camera.release_hangs()


def seconds_until(predicate, what, deadline=DEADLINE):
    """How long it took until something came true."""
    begun = time.monotonic()
    wait_until(predicate, what, deadline)
    return time.monotonic() - begun
