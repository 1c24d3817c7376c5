"""Thousands of pictures in one session: memory, threads and the time for a picture stay."""

import gc
import re
import statistics
import struct
import time
from collections import namedtuple

import lumatie_host as tether
import this_process
from proof import DEADLINE, shoot
from virtual_cameras import wait_until

COUNTS = {"long": 10000, "short": 600}

BATCH = 100
SETTLED = 500  # pictures, after which nothing grows any more; half of all in a short run
GROWTH = 0.02
MOST_TIME = 1.1  # of the processor, at the end; a busy machine makes it differ by some percent
LEAST_GROWTH_KB = 1024  # in a short run, whose start is not over yet

NAME = "{job}/{date}_{time}_{camera}_{maker}_{station}_{tag}_{total:06}_{n:05}_{original}.{ext}"
CAMERA = "picture.width = 64\npicture.height = 48\nshutter.lag_ms = 0\nlog.lines = 500\n"

Sample = namedtuple("Sample", "pictures rss_kb threads handles milliseconds cpu_milliseconds")


def play(proof, maker, count):
    """One session; a Canon camera is asked for each picture, a Nikon camera has them in batches."""
    with shoot(maker) as made:
        made.camera.configure(CAMERA)
        options = {"job": "proof", "station": "one", "tag": "shoe"}
        with made.open(name=NAME, **options) as session:
            heard = Count(session)
            take = take_shots if maker == "canon" else take_items
            samples = []
            for done in range(0, count, BATCH):
                begun = time.perf_counter(), time.process_time()
                take(made, session, heard, done, min(BATCH, count - done))
                samples.append(measured(heard.pictures, begun))
                made.camera.reset()
                made.camera.configure(CAMERA)
        judge(proof, samples, count)
        records = made.records()
        proof.check(len(records) == count, "%d of %d pictures", len(records), count)
        proof.check(len({record.file for record in records}) == count, "a name was given twice")
        proof.check(tether.verify(made.folder) == [], "the folder is not as its ledger says")


class Count:
    """Counts the pictures that are told; keeps none."""

    def __init__(self, session):
        self.pictures = 0
        session.subscribe(self)

    def __call__(self, event):
        if isinstance(event, tether.Picture):
            self.pictures += 1


def take_shots(made, session, heard, done, count):
    """Each is asked for when the one before is there."""
    for _ in range(count):
        session.shoot(timeout=DEADLINE)
    wait_until(lambda: heard.pictures >= done + count, "all are told", DEADLINE)


def take_items(made, session, heard, done, count):
    """They appear on the camera's card, and are fetched in one go."""
    for number in range(count):
        made.camera.add_item(jpeg(done + number))
    wait_until(lambda: heard.pictures >= done + count, "all are told", DEADLINE)


def jpeg(number):
    """A small picture, another one for each number."""
    comment = b"\xff\xfe" + struct.pack(">HI", 6, number)
    frame = b"\xff\xc0" + struct.pack(">HBHHB", 11, 8, 48, 64, 1) + b"\1\x11\0"
    scan = b"\xff\xda" + struct.pack(">H", 8) + b"\1\1\0\0\x3f\0" + b"\x12\x34" * 1000
    return b"\xff\xd8" + comment + frame + scan + b"\xff\xd9"


def measured(pictures, begun):
    """The process now, and the time for a picture of the last batch."""
    seconds = time.perf_counter() - begun[0]
    processor = time.process_time() - begun[1]
    re.purge()
    gc.collect()
    return Sample(
        pictures,
        this_process.resident_bytes() // 1024,
        this_process.native_threads(),
        this_process.open_handles(),
        seconds / BATCH * 1000,
        processor / BATCH * 1000,
    )


def judge(proof, samples, count):
    """Compares the end with the moment at which the process should have its size."""
    is_long = count >= 2 * SETTLED
    settled = SETTLED if is_long else count // 2
    first = [sample for sample in samples if sample.pictures >= settled][:5]
    last = samples[-len(first) :]
    form = "%d after %d pictures, %d after %d"
    for what in ("rss_kb", "threads", "handles"):
        # A thread of the camera library's may be there at one moment and not at the next.
        middle = statistics.median if what == "rss_kb" else min
        before, after = (middle(getattr(one, what) for one in part) for part in (first, last))
        proof.figure(what, form, before, first[0].pictures, after, last[-1].pictures)
        bound = GROWTH * before
        if what == "rss_kb" and not is_long:
            bound = max(bound, LEAST_GROWTH_KB)
        proof.check(after - before <= bound, "%s: %d became %d", what, before, after)
    judge_times(proof, samples, settled)


def judge_times(proof, samples, settled):
    """The batches quarter by quarter; others' work makes some of them slower, and none quicker."""
    late = [sample for sample in samples if sample.pictures > settled]
    bounds = [len(late) * number // 4 for number in range(5)]
    quarters = [late[begin:end] for begin, end in zip(bounds, bounds[1:]) if begin < end]
    for what in ("milliseconds", "cpu_milliseconds"):
        for word, of in (("median", statistics.median), ("least", min)):
            times = [of(getattr(one, what) for one in part) for part in quarters]
            form = ", ".join(["%.2f"] * len(times))
            proof.figure("%s a picture, %s" % (what, word), form, *times)
    proof.check(not grows(times), "a picture's milliseconds of a core grow, as the last line says")


def grows(times):
    """Whether the least times of four quarters grow: all the way, as others' work does not."""
    is_rising = all(before < after for before, after in zip(times, times[1:]))
    return len(times) == 4 and is_rising and times[-1] > times[0] * MOST_TIME
