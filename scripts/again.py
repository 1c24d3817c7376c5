"""Says which failed tests are worth running once more, alone: NAME ARGUMENT..., separated by tabs.

The folder that is named holds NAME.log of each runner; the arguments make that runner run only
what failed. A test that fails beside a hundred others may have met a machine that had no time for
it. What no machine does is never run again: a crash, a hang, a sanitizer's report, a file of tests
that cannot be loaded, more than a few failures.
"""

import pathlib
import re
import sys
from typing import Dict, List

import totals

MOST = 3  # failures of all runners together
REPORT = re.compile(r"Sanitizer|runtime error:|unittest\.loader\._FailedTest|Fatal Python error")


def unittest_pattern(name: str) -> str:
    """What chooses a test that is listed as "test_it (module.Class)": an end of its whole name."""
    test, where = re.match(r"(\w+) \(([\w.]+)\)", name).groups()
    if not test.startswith("test"):  # a set-up, of a class or a module
        return "*" + where + ".*"
    return "*" + (where if where.endswith("." + test) else where + "." + test)


def arguments(text: str) -> List[str]:
    """What makes the runner of this log run the tests that failed there."""
    names = sorted(set(totals.failures(text)))
    if totals.gtest_totals(text):
        return ["--gtest_filter=" + ":".join(names)]
    if totals.unittest_totals(text):
        return [part for name in names for part in ("-k", unittest_pattern(name))]
    return sorted(set(re.findall(r"^test at ([\w./-]+\.mjs):", text, re.MULTILINE)))


def worth_it(folder: pathlib.Path) -> Dict[str, List[str]]:
    """The arguments for each runner that is to run again; none where one may not."""
    found = {}
    failed = 0
    for log in sorted(folder.glob("*.log")):
        count = totals.totals_of(log).failed
        if not count:
            continue
        failed += count
        text = totals.read(log)
        if REPORT.search(text) or not totals.has_named_its_failures(text):
            return {}
        found[log.stem] = arguments(text)
    return found if failed <= MOST and all(found.values()) else {}


def main(folder: str) -> None:
    for name, how in worth_it(pathlib.Path(folder)).items():
        print("\t".join([name] + how))


if __name__ == "__main__":
    main(sys.argv[1])
