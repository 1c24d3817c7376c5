"""An hour's events as fast as they go: what is no picture leaves nothing in the studio's memory.

Of a picture the studio has to know, as long as the shoot lasts, that it is here. That may take some
bytes, which are measured by themselves.
"""

import random
import statistics
from collections import namedtuple

from scene import Scene
from studio_support import DEADLINE, wait_until

EVENTS = {"long": 360_000, "short": 5_000}  # an hour of 100 a second
SIMULATED = 100
FRAME = 3  # events of one: a shot, a setting, a picture
FRAME_EVERY = 60  # events of the beginning; the others are settings that somebody turns
# The hour's batches: of all kinds, after which the program has its size; of settings; of pictures.
MIXED, PLAIN, PICTURES = 5, 14, 1
STEPS = 10  # of the pictures
GROWTH = 0.02  # in the course of the settings
MOST_KEPT = 200  # bytes of a picture
COMING = 3  # threads and connections that are there at one moment and not at the next
LEAST_GROWTH_KB = 1024  # in a short run, whose start is not over yet
BURST = 200  # events that are under way at most
MOST_WAITING = 20  # pictures; one that is still to be collected takes much more than one that is

Sample = namedtuple("Sample", "events pictures rss_kb threads handles")


def play(proof, form):
    """Measures the studio's command after each batch."""
    batch = EVENTS[form] // (MIXED + PLAIN + PICTURES)
    with Scene({}, SIMULATED) as scene:
        scene.start_studio()
        hour = Hour(scene, random.Random(proof.seed))
        for _ in range(MIXED):
            hour.tell(batch, FRAME_EVERY)
        settings = [hour.tell(batch) for _ in range(PLAIN)]
        pictures = [hour.tell(PICTURES * batch // STEPS, FRAME) for _ in range(STEPS)]
        judge(proof, settings, pictures, form == "long")
        scene.compare(proof, patience=DEADLINE)
        wanted = sum(len(station.ledger) for station in scene.fleet.stations)
        proof.check(hour.told == wanted, "%d of %d events were told", hour.told, wanted)


class Hour:
    """Has simulated stations tell of events, and waits until the studio has told all of them."""

    def __init__(self, scene, chance):
        self._scene = scene
        self._chance = chance
        self._fleet = scene.start_fleet(is_bad=False)
        self._wanted = 0  # events
        self._frames = 0

    @property
    def told(self):
        """How many records of the stations the studio has printed."""
        counts = self._scene.studio.counts
        return sum(counts[kind] for kind in ("shot", "setting", "picture"))

    @property
    def _collected(self):
        return self._scene.studio.counts["collected"]

    def tell(self, count, frame_every=0):
        """So many events, every so many of them a frame, 0: none; how the studio is after them."""
        until = self._wanted + count
        while self._wanted < until:
            left = min(frame_every or count, until - self._wanted)
            frames = 1 if frame_every and left >= FRAME else 0
            for _ in range(left - frames * FRAME):
                self._set()
            if frames:
                self._shoot()
        wait_until(
            lambda: self.told >= self._wanted and self._collected >= self._frames,
            lambda: "%d of %d, %d of %d" % (self.told, self._wanted, self._collected, self._frames),
        )
        studio = self._scene.studio
        return Sample(
            *(self._wanted, self._frames),
            *(studio.resident_kilobytes(), studio.threads(), studio.handles()),
        )

    def _set(self):
        station = self._chance.choice(self._fleet.stations)
        station.record("setting", name="iso", text="100", allowed=["100", "200"], settable=True)
        self._wanted += 1
        self._keep_pace()

    def _shoot(self):
        self._fleet.play(1, 2000, 1e6, self._chance)
        self._wanted += FRAME
        self._frames += 1
        self._keep_pace()

    def _keep_pace(self):
        def is_near():
            is_told = self._wanted - self.told <= BURST
            return is_told and self._frames - self._collected <= MOST_WAITING

        wait_until(is_near, lambda: "%d of %d" % (self.told, self._wanted))


def judge(proof, settings, pictures, is_long):
    """Compares beginning and end of what is no picture, and of what is."""
    for what in ("rss_kb", "threads", "handles"):
        before, after = ends(settings, what)
        proof.figure("studio's " + what, "%d after %d events, %d after %d",
                     before, settings[0].events, after, settings[-1].events)  # fmt: skip
        bound = GROWTH * before if what == "rss_kb" else COMING
        if what == "rss_kb" and not is_long:
            bound = max(bound, LEAST_GROWTH_KB)
        proof.check(after - before <= bound, "%s: %d became %d", what, before, after)
    for what in ("threads", "handles"):
        before, after = ends(pictures, what)
        is_kept = after - before <= COMING
        proof.check(is_kept, "%s: %d became %d with pictures", what, before, after)
    before, after = ends(pictures, "rss_kb")
    first, last = ends(pictures, "pictures")
    each = (after - before) * 1024 / (last - first)
    proof.figure("of each picture", "%.0f bytes; %d kB after %d, %d kB after %d",
                 each, before, first, after, last)  # fmt: skip
    is_little = each <= MOST_KEPT or (not is_long and after - before <= LEAST_GROWTH_KB)
    proof.check(is_little, "a picture takes %.0f bytes, and %d are allowed", each, MOST_KEPT)


def ends(samples, what):
    """A figure at the beginning and at the end."""
    middle = min if what in ("threads", "handles") else statistics.median
    return tuple(middle(getattr(one, what) for one in part) for part in (samples[:3], samples[-3:]))
