"""Draws the page's chart: chart.py RESULTS SOAK_FOLDER OUTPUT

RESULTS is the file that bench.py wrote. SOAK_FOLDER may hold soak-canon.json and soak-nikon.json,
the times of the shots of a long session; what is not there is not drawn.
"""

import json
import pathlib
import statistics
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams.update({"svg.hashsalt": "speed", "font.size": 9})

from matplotlib import pyplot  # noqa: E402

MAKERS = (("canon", "Canon", "tab:red"), ("nikon", "Nikon", "tab:blue"))
LATENCIES = (
    ("canon_set_value", "SetValue, Canon"),
    ("nikon_set_value", "SetValue, Nikon"),
    ("canon_shoot", "Shoot to the library's call, Canon"),
    ("canon_pictures", "60 MB picture to its event, Canon,\nless the library's time"),
)
MOST_POINTS = 200


def draw_latencies(axes, samples):
    """For each latency, the share of the samples that were not slower."""
    for key, name in LATENCIES:
        ordered = sorted(1000 * one for one in samples[key]["samples"])
        shares = [100 * (rank + 1) / len(ordered) for rank in range(len(ordered))]
        axes.step(ordered, shares, where="post", label="{} ({})".format(name, len(ordered)))
    axes.set_xscale("log")
    axes.xaxis.set_major_formatter("{x:g}")
    axes.set_xlabel("milliseconds")
    axes.set_ylabel("% not slower")
    axes.set_title("Latencies (samples)")
    axes.grid(alpha=0.3)
    axes.legend(fontsize=7)


def draw_soak(axes, soaks):
    for maker, name, colour in MAKERS:
        if maker not in soaks:
            continue
        shots = soaks[maker]["seconds_per_shot"]
        size = -(-len(shots) // MOST_POINTS)
        groups = [shots[at : at + size] for at in range(0, len(shots), size)]
        numbers = range(1, len(shots) + 1, size)
        label = "{}, {} shots, median of {}".format(name, len(shots), size)
        axes.plot(numbers, list(map(statistics.median, groups)), color=colour, lw=0.8, label=label)
        axes.plot(numbers, list(map(max, groups)), ".", color=colour, ms=2, label="the slowest")
    axes.set_yscale("log")
    axes.yaxis.set_major_formatter("{x:g}")
    axes.set_xlabel("shot")
    axes.set_ylabel("seconds per shot")
    axes.set_title("A long session")
    axes.grid(alpha=0.3)
    axes.legend(fontsize=7)


def main():
    results, folder, output = map(pathlib.Path, sys.argv[1:])
    samples = json.loads(results.read_text())["samples"]
    soaks = {}
    for maker, _, _ in MAKERS:
        path = folder / "soak-{}.json".format(maker)
        if path.exists():
            soaks[maker] = json.loads(path.read_text())
    columns = 2 if soaks else 1
    figure, axes = pyplot.subplots(1, columns, figsize=(5.5 * columns, 3.8), squeeze=False)
    draw_latencies(axes[0][0], samples)
    if soaks:
        draw_soak(axes[0][1], soaks)
    figure.tight_layout()
    figure.savefig(str(output), metadata={"Date": None})


if __name__ == "__main__":
    main()
