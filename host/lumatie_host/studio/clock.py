"""The clock for ages: it never goes back, and goes on while a computer sleeps."""

import sys
import time


def now() -> float:
    """Seconds since some moment of this computer's."""
    if sys.platform == "linux":
        return time.clock_gettime(time.CLOCK_BOOTTIME)
    # The other one moves in steps of 16 ms on Windows, and stations are told apart by less.
    return time.perf_counter()
