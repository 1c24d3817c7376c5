"""The long proofs of a studio with many stations, over a real broker.

    python tests/stress/studio [--short] [PART...] [--seed N]

Parts:
  day     eight stations with cameras and 92 simulated ones, and all that goes wrong at once
  hours   the events of an hour as fast as they go, while nothing may grow
  soak    10,000 pictures of eight stations with cameras

The exit status is 1 when a promise was broken.
"""

import argparse
import importlib
import pathlib
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
TESTS = HERE.parents[1]
sys.path[:0] = [
    str(folder)
    for folder in (
        HERE.parent / "host",
        TESTS / "host" / "studio",
        TESTS / "python",
        TESTS.parent / "host",
    )
]

from proof import SEED, Proof  # noqa: E402  it needs the path

PARTS = ("day", "hours", "soak")
SHORT_PARTS = PARTS[:2]  # that are played in the short form when none is named


def main():
    """Runs what the arguments say."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("parts", nargs="*", metavar="PART", help=", ".join(PARTS))
    parser.add_argument("--short", action="store_true", help="seconds instead of minutes")
    parser.add_argument("--seed", type=int, default=SEED, metavar="N")
    options = parser.parse_args()
    for part in options.parts:
        if part not in PARTS:
            parser.error("no part: %s" % part)
    form = "short" if options.short else "long"
    failed = []
    for part in options.parts or (SHORT_PARTS if options.short else PARTS):
        print("%s, seed %d" % (part, options.seed), flush=True)
        proof = Proof(sys.stdout, options.seed)
        begun = time.monotonic()
        importlib.import_module(part).play(proof, form)
        print("  %.0f s" % (time.monotonic() - begun), flush=True)
        failed += [part] if proof.problems else []
    for part in failed:
        print("broken: " + part)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
