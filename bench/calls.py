"""Reads a virtual camera's call log: what was called or delivered when, and for how long."""

import collections
import re
import time

# Times are those of time.monotonic; `seconds` is how long the call took.
Call = collections.namedtuple("Call", "start seconds thread text")

_LINE = re.compile(r"\d+ (\d+\.\d+) (\S+) (.*) (\d+\.\d+) ms$")


def clock_offset(clock):
    """What is to be added to the log's times; `clock` says the log's time now."""
    best = None
    for _ in range(20):
        before = time.monotonic()
        shown = clock()
        after = time.monotonic()
        if best is None or after - before < best[0]:
            best = (after - before, (before + after) / 2 - shown)
    return best[1]


def parse(lines, offset):
    """The calls and events of a log, in the order of its lines."""
    calls = []
    for line in lines:
        found = _LINE.match(line)
        if found:
            start, thread, text, took = found.groups()
            calls.append(Call(float(start) + offset, float(took) / 1000, thread, text))
    return calls


def time_inside(calls, begin, end):
    """Seconds that one thread's calls took between two times; a call inside another counts once."""
    total = 0.0
    reached = begin
    for call in sorted(calls):
        start = max(call.start, reached)
        stop = min(call.start + call.seconds, end)
        if stop > start:
            total += stop - start
            reached = stop
    return total
