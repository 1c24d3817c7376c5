"""The roads of the page, and the program that measures them in Chromium: page.mjs."""

import json
import pathlib
import subprocess

import roads

HERE = pathlib.Path(__file__).resolve().parent

ROADS = [
    roads.road(
        "page_painted",
        "JPEG of 45 megapixels, whole on the disk to painted in Chromium",
        "the file decoded once to its preview",
        [("ratio", 1.5), ("p50", 0.3), ("p99", 0.6)],
        pairs=True,
    ),
    roads.road("page_recorded", "of that, whole on the disk to its record in the ledger"),
    roads.road("page_ten_viewers", "the same to the last of ten viewers", limits=[("median", 1)]),
    roads.road("page_histogram", "painted to histogram and clipping", limits=[("median", 0.15)]),
    roads.road(
        "page_start",
        "the command to a page that answers",
        "an interpreter that loads the web server",
        [("median", 2)],
    ),
    roads.road(
        "page_idle_viewers", "50 idle viewers, share of a core", "", [("median", 0.05)], "share"
    ),
    roads.road(
        "page_first_load", "first load of the page", "", [("median", 1e5)], "bytes", noise=1
    ),
    roads.road(
        "page_shots",
        "shot with ten viewers, of a camera that needs 0.25 s for one, as the quickest do",
        "without viewers",
        [("ratio", 1.05)],
        noise=1.5,
    ),
    roads.road("page_quick_shots", "the same of one that needs 5 ms", "without viewers"),
]


def measure(bench):
    """Measures all of them for a `bench.Bench`."""
    output = bench.folder / "page.json"
    command = ["node", str(HERE / "page.mjs"), str(output)] + ["--short"] * bench.short
    subprocess.run(command, check=True, timeout=1200)
    for key, result in json.loads(output.read_text()).items():
        bench.add(key, result["samples"], result["floor"])
