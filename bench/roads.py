"""What is measured: each road with its floor and what it has to reach, and how it is judged."""

import collections
import statistics

# `limits` are pairs of a statistic ("ratio", "above", "median", "p50", "p99") and the most that it
# may be; "above" is how far the median is above the floor's. `noise` is the factor by which a short
# run on a busy machine may miss a limit; 1 for what no noise changes. `unit` is for showing.
# `pairs`: each sample has its floor's beside it, measured at the same moment; ratio and "above" are
# the medians of theirs then.
Road = collections.namedtuple("Road", "key name floor limits unit noise pairs")


def road(key, name, floor="", limits=(), unit="time", noise=3, pairs=False):
    return Road(key, name, floor, tuple(limits), unit, noise, pairs)


BY_HAND = "the same C-API calls by hand"
BYTES_ONCE = "the same bytes written once"
LATE = (("p99", 0.015),)

ROADS = [
    road("call_is", 'event into Python, "is"', BY_HAND, [("ratio", 1.05)], pairs=True),
    road("call_ii", 'event into Python, "ii"', BY_HAND, [("ratio", 1.05)], pairs=True),
    road("call_iis", 'event into Python, "iis"', BY_HAND, [("ratio", 1.05)], pairs=True),
    road("list_canon", "list text of 128 entries, Canon", BYTES_ONCE, [("ratio", 3)]),
    road("list_nikon", "list text of 128 entries, Nikon", BYTES_ONCE, [("ratio", 3)]),
    road("report_canon", "the Canon one from the camera's codes", BYTES_ONCE),
    road(
        "picture_nikon",
        "Nikon picture of 60 MB, first part to event",
        "one copy, one file written",
        [("ratio", 1.10)],
    ),
    road(
        "canon_pictures",
        "Canon picture of 60 MB, object event to host, less the library's time",
        "",
        [("p50", 0.015), ("p99", 0.030)],
    ),
    road("canon_set_value", "SetValue, Canon", limits=LATE),
    road("nikon_set_value", "SetValue, Nikon", limits=LATE),
    road("canon_set_value_call", "SetValue to the library's call, Canon"),
    road("canon_shoot", "Shoot to the library's call, Canon", limits=[("p99", 0.030)]),
    road("nikon_shoot", "Shoot to the module's capture, Nikon (cycle of 1 s)"),
    road(
        "cycle_virtual",
        "report cycle, Nikon, virtual camera",
        "its entry-point calls alone",
        [("ratio", 1.5), ("median", 0.003)],
    ),
    road(
        "cycle_prompt",
        "report cycle, Nikon, entry point that only answers",
        "its entry-point calls alone",
        [("median", 0.003)],
    ),
    road("import", "import Lumatie", "interpreter start"),
    road("canon_init", "Init to first event, Canon", "the camera's own time"),
    road("nikon_init", "Init to first event, Nikon", "the camera's own time"),
    road("canon_uninit", "Uninit, Canon", "the camera's own time"),
    road("nikon_uninit", "Uninit, Nikon", "the camera's own time"),
    road("canon_idle", "idle session, share of a core, Canon", "", [("median", 0.005)], "share"),
    road("nikon_idle", "idle session, share of a core, Nikon", "", [("median", 0.005)], "share"),
    road(
        "nikon_memory",
        "peak memory for a Nikon picture of 60 MB",
        "the picture once",
        [("ratio", 1.05)],
        "bytes",
        noise=1,
    ),
    road(
        "host_pictures",
        "host package: JPEG of 20 MB, the module's event to its own",
        "reading and hashing it once",
        [("ratio", 1.3)],
        pairs=True,
    ),
    road(
        "host_set",
        "host package: set to the confirmed value, Canon",
        "SetValue to its event",
        [("above", 0.005)],
        pairs=True,
    ),
    road(
        "host_events",
        "host package: an event to async for",
        "call_soon_threadsafe of one item",
        [("ratio", 1.5)],
        pairs=True,
    ),
    road("host_import", "import lumatie_host", "interpreter start"),
    road(
        "canon_idle_hosted",
        "host package: idle session, Canon",
        "the module's",
        [("above", 0.003)],
        "share",
    ),
    road(
        "nikon_idle_hosted",
        "host package: idle session, Nikon",
        "the module's",
        [("above", 0.003)],
        "share",
    ),
]


def percentile(samples, percent):
    """The smallest sample that at least this share of them does not exceed."""
    ordered = sorted(samples)
    rank = -(-len(ordered) * percent // 100)
    return ordered[max(int(rank), 1) - 1]


def evaluate(what, samples, floor=()):
    """The statistics of one road, and of its floor where it has one."""
    found = {
        "key": what.key,
        "count": len(samples),
        "median": statistics.median(samples),
        "p5": percentile(samples, 5),
        "p95": percentile(samples, 95),
        "p50": percentile(samples, 50),
        "p99": percentile(samples, 99),
    }
    if floor:
        found["floor"] = statistics.median(floor)
        pairs = zip(samples, floor) if what.pairs else [(found["median"], found["floor"])]
        ratios, above = zip(*((one / other, one - other) for one, other in pairs))
        found["ratio"] = statistics.median(ratios)
        found["above"] = statistics.median(above)
    missed = [name for name, most in what.limits if found[name] > most]
    found["verdict"] = "" if not what.limits else "MISSED" if missed else "met"
    # Few samples have no percentiles worth judging: what usually happens is judged instead.
    found["broken"] = any(
        found[name if name in ("ratio", "above") else "median"] > most * what.noise
        for name, most in what.limits
    )
    return found


def show(value, unit):
    """A value as people read it."""
    if unit == "share":
        return "{:.2f} %".format(value * 100)
    if unit == "bytes":
        return "{:.2f} MB".format(value / 1e6)
    for factor, name in ((1, "s"), (1e3, "ms"), (1e6, "µs")):
        if value * factor >= 1:
            return "{:.3g} {}".format(value * factor, name)
    return "{:.3g} ns".format(value * 1e9)


def target(what):
    """What a road has to reach, in words."""
    words = {"ratio": "ratio ≤ ", "above": "≤ floor + ", "median": "≤ "}
    limits = (
        words.get(name, name + " ≤ ")
        + ("{:g}".format(most) if name == "ratio" else show(most, what.unit))
        for name, most in what.limits
    )
    return ", ".join(limits) or "reported"


HEADINGS = ("road", "median", "p5 to p95", "p99", "floor", "median", "ratio", "to reach", "")


def row(found):
    """The cells of a road's row."""
    what = next(one for one in ROADS if one.key == found["key"])

    def shown(name):
        return show(found[name], what.unit) if name in found else ""

    several = found["count"] > 1
    return (
        what.name,
        shown("median"),
        "{} to {}".format(shown("p5"), shown("p95")) if several else "",
        shown("p99") if found["count"] >= 100 else "",
        what.floor,
        shown("floor"),
        "{:.{}f}".format(found["ratio"], 3 if found["ratio"] < 10 else 1)
        if "ratio" in found
        else "",
        target(what),
        found["verdict"],
    )
