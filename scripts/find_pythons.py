"""Prints the interpreters that the module can be built for, one path a line.

Those are 64-bit CPythons from 3.8 on, with the interpreter lock and with their headers; the first
one found of each binary interface. LUMATIE_PYTHONS (paths, separated by semicolons) replaces the
search; an unusable entry there is an error. With --tested only those are printed that the whole
Python test suite runs under: CPython 3.8 and the system's, as far as they are there. With
--version those of one version, if any.
"""

import argparse
import glob
import json
import os
import shutil
import subprocess
import sys

SYSTEM = "/usr/bin/python3"

PROBE = """
import json, os, platform, sys, sysconfig
header = os.path.join(sysconfig.get_path("include"), "Python.h")
json.dump({
    "executable": sys.executable,
    "implementation": platform.python_implementation(),
    "version": list(sys.version_info[:2]),
    "abi": sysconfig.get_config_var("SOABI"),
    "wide": sys.maxsize > 2 ** 32,
    "free_threaded": bool(sysconfig.get_config_var("Py_GIL_DISABLED")),
    "has_headers": os.path.exists(header),
}, sys.stdout)
"""


def candidates():
    """Every place where an interpreter may be, the system's own first."""
    yield SYSTEM
    for name in ["python3"] + ["python3.%d" % minor for minor in range(8, 15)]:
        yield shutil.which(name)
    pyenv = os.environ.get("PYENV_ROOT") or os.path.expanduser("~/.pyenv")
    for folder in sorted(glob.glob(os.path.join(pyenv, "versions", "3.*")), reverse=True):
        yield os.path.join(folder, "bin", "python3")


def probe(path):
    """What the interpreter says of itself; None when it does not run (a shim of nothing, say)."""
    try:
        answer = subprocess.run(
            [path, "-I", "-c", PROBE],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            timeout=30,
            check=True,
        )
        return json.loads(answer.stdout)
    except (OSError, subprocess.SubprocessError, ValueError):
        return None


def objection(found):
    """Why the module cannot be built for this interpreter; an empty text when it can."""
    if found is None:
        return "does not run"
    if found["implementation"] != "CPython" or found["version"] < [3, 8]:
        return "is no CPython 3.8 or newer"
    if not found["wide"]:
        return "is not a 64-bit interpreter"
    if found["free_threaded"]:
        return "has no interpreter lock"
    if not found["has_headers"]:
        return "has no Python.h"
    return ""


def usable():
    """The interpreters to build for, as their own descriptions."""
    chosen = [path for path in os.environ.get("LUMATIE_PYTHONS", "").split(";") if path]
    by_abi = {}
    for path in chosen or filter(None, candidates()):
        found = probe(path)
        reason = objection(found)
        if not reason:
            by_abi.setdefault(found["abi"], found)
        elif chosen:
            sys.exit("error: LUMATIE_PYTHONS: %s %s" % (path, reason))
    return sorted(by_abi.values(), key=lambda found: (found["version"], found["abi"]))


def tested(found):
    """Those of the found interpreters that get the whole suite, never none."""
    chosen = [one for one in found if one["version"] == [3, 8] or one["executable"] == SYSTEM]
    return chosen or found[:1]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tested", action="store_true", help="those that get the whole suite")
    parser.add_argument("--version", help="only those of this version, such as 3.8")
    options = parser.parse_args()
    found = usable()
    for one in tested(found) if options.tested else found:
        if options.version in (None, "%d.%d" % tuple(one["version"])):
            print(one["executable"])


if __name__ == "__main__":
    main()
