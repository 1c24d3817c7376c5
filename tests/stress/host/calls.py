"""The work for a picture stays: its calls of functions, which a busy machine hardly changes."""

import threading

from lasting import BATCH, CAMERA, NAME, Count, take_items, take_shots
from proof import shoot

COUNTS = {"long": 3000, "short": 300}

GROWTH = {"long": 0.02, "short": 0.1}  # few pictures: some batches wait more often than others
# Its thread takes several events at once, or one by one, as it happens to be woken.
UNEVEN = "subscribers.py"


def play(proof, maker, count):
    """One session whose threads, all but the camera library's, count what they call."""
    calls = Calls()
    threading.setprofile(calls)  # of threads that begin from now on
    try:
        with shoot(maker) as made:
            made.camera.configure(CAMERA)
            with made.open(name=NAME, job="proof", station="one", tag="shoe") as session:
                heard = Count(session)
                take = take_shots if maker == "canon" else take_items
                counted = []
                for done in range(0, count, BATCH):
                    before = calls.number
                    take(made, session, heard, done, min(BATCH, count - done))
                    counted.append((calls.number - before) / BATCH)
                    made.camera.reset()
                    made.camera.configure(CAMERA)
    finally:
        threading.setprofile(None)
    judge(proof, counted, GROWTH["long" if count >= COUNTS["long"] else "short"])


class Calls:
    """Counts the calls of Python's functions and of C's; what two threads count at once is lost."""

    def __init__(self):
        self.number = 0

    def __call__(self, frame, event, _):
        if event in ("call", "c_call") and not frame.f_code.co_filename.endswith(UNEVEN):
            self.number += 1


def judge(proof, counted, growth):
    """The first batch, which has the start in it, does not count."""
    third = max(1, (len(counted) - 1) // 3)
    first, last = counted[1 : 1 + third], counted[-third:]
    before, after = (sum(part) / len(part) for part in (first, last))
    proof.figure("calls a picture", "%.0f at first, %.0f at last", before, after)
    is_kept = before > 0 and after <= before * (1 + growth)
    proof.check(is_kept, "a picture's %.0f calls became %.0f", before, after)
