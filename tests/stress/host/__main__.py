"""The long proofs of the host package, with the virtual cameras of both makers.

    python tests/stress/host [--short] [PART...] [--maker canon|nikon] [--count N] [--seed N]

Parts:
  returns   cables pulled and cameras switched off and on, at any moment
  closes    sessions closed in every state, by several threads
  brackets  brackets on a camera that is busy three calls out of ten
  naming    names with every token, two programs in one folder, texts that are no names
  mishaps   the clock set back, a full disk, a folder and a drive that vanish and come back
  lasting   thousands of pictures in one session, while nothing may grow
  calls     the calls of functions that each of many pictures takes

Each part runs in a program of its own for each maker; those of the short form run side by side,
those of the long one only with --beside. The exit status is 1 when a promise was broken.
"""

import argparse
import concurrent.futures
import importlib
import os
import pathlib
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parents[2]
sys.path[:0] = [str(REPOSITORY / "tests" / "python"), str(REPOSITORY / "host")]

from proof import SEED, Proof  # noqa: E402  it needs the path

PARTS = ("returns", "closes", "brackets", "naming", "mishaps", "lasting", "calls")
MAKERS = ("canon", "nikon")


def main():
    """Runs what the arguments say."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("parts", nargs="*", metavar="PART", help=", ".join(PARTS))
    parser.add_argument("--short", action="store_true", help="seconds instead of minutes")
    parser.add_argument("--maker", choices=MAKERS)
    parser.add_argument("--count", type=int, metavar="N", help="how often, in place of the form's")
    parser.add_argument("--seed", type=int, default=SEED, metavar="N")
    parser.add_argument("--beside", type=int, metavar="N", help="programs at the same time")
    parser.add_argument("--alone", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    for part in options.parts:
        if part not in PARTS:
            parser.error("no part: %s" % part)
    if options.alone:
        return play(options.parts[0], options.maker, options.count, options.seed)
    runs = [
        (part, maker)
        for part in options.parts or PARTS
        for maker in ([options.maker] if options.maker else MAKERS)
    ]
    beside = options.beside or (len(runs) if options.short else 1)
    with concurrent.futures.ThreadPoolExecutor(beside) as pool:
        results = pool.map(lambda run: played(*run, options), runs)
        failed = [what for what in (shown(*result) for result in results) if what]
    for what in failed:
        print("broken: " + what)
    return 1 if failed else 0


def played(part, maker, options):
    """Runs one part in a program of its own."""
    form = "short" if options.short else "long"
    count = options.count or importlib.import_module(part).COUNTS[form]
    command = [sys.executable, str(HERE), part, "--alone", "--maker", maker]
    command += ["--count", str(count), "--seed", str(options.seed)]
    begun = time.monotonic()
    run = subprocess.run(
        command,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        check=False,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
    )
    return part, maker, run, time.monotonic() - begun


def shown(part, maker, run, seconds):
    """Prints a part's figures; its name when it has failed."""
    what = "%s, %s" % (part, maker)
    print("%s: %.0f s" % (what, seconds))
    print(run.stdout.decode(errors="replace").rstrip(), flush=True)
    return what if run.returncode else ""


def play(part, maker, count, seed):
    """One part, in this process; what a Nikon session writes to standard output is dropped."""
    with os.fdopen(os.dup(1), "w") as out:
        nothing = os.open(os.devnull, os.O_WRONLY)
        os.dup2(nothing, 1)
        os.close(nothing)
        proof = Proof(out, seed)
        importlib.import_module(part).play(proof, maker, count)
    return 1 if proof.problems else 0


if __name__ == "__main__":
    sys.exit(main())
