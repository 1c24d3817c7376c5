"""The roads of events, and the programs that measure them: studio_events.py, page_events.py."""

import json
import os
import pathlib
import subprocess

import roads

HERE = pathlib.Path(__file__).resolve().parent

ROADS = [
    roads.road(
        "page_events",
        "page: 100 events a second, to the last of ten viewers",
        "written to the ledger",
        [("p99", 0.1)],
        pairs=True,
    ),
    roads.road(
        "studio_events",
        "studio: 100 events a second of 100 stations, published to Studio.feed",
        "published to a subscriber at the broker",
        [("p99", 0.1)],
        pairs=True,
    ),
]


def measure(bench):
    """Measures all of them for a `bench.Bench`."""
    # The environment that has the libraries of page and studio.
    python = os.environ.get("LUMATIE_PAGE_PYTHON", "python3")
    environment = dict(bench.environment, PYTHONPATH=str(bench.build / "python"))
    for road in ROADS:
        output = bench.folder / (road.key + ".json")
        command = [python, str(HERE / (road.key + ".py")), str(output)] + ["--short"] * bench.short
        subprocess.run(command, check=True, timeout=300, env=environment, stdout=subprocess.DEVNULL)
        result = json.loads(output.read_text())
        bench.add(road.key, result["samples"], result["floor"])
