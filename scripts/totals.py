"""Repeats the closing lines of test runners and adds their totals up: N passed, N failed.

Each folder that is named holds NAME.log and NAME.status (the exit status) of each runner that ran
there. Ends with 1 when a runner failed, did not finish or ran nothing, or when there was none.
"""

import pathlib
import re
import sys
from typing import List, NamedTuple


class Totals(NamedTuple):
    closing: List[str]
    passed: int
    failed: int
    skipped: int


def last(pattern, text):
    """The last match of a pattern that is anchored to whole lines, or None."""
    matches = list(re.finditer(pattern, text, re.MULTILINE))
    return matches[-1] if matches else None


def ctest_totals(text):
    match = last(r"^\d+% tests passed, (\d+) tests failed out of (\d+)$", text)
    if not match:
        return None
    failed, total = map(int, match.groups())
    skipped = len(re.findall(r"^\s+\d+ - .* \(Skipped\)$", text, re.MULTILINE))
    return Totals([match.group()], total - failed - skipped, failed, skipped)


def gtest_totals(text):
    ran = last(r"^\[=+\] (\d+) tests? from \d+ test suites? ran\..*$", text)
    if not ran:
        return None
    total, closing = int(ran.group(1)), [ran.group()]
    counts = dict.fromkeys(("PASSED", "SKIPPED"), 0)
    for word in counts:
        match = last(r"^\[  %s *\] (\d+) tests?\b.*$" % word, text)
        if match:
            counts[word] = int(match.group(1))
            closing.append(match.group())
    failed = total - counts["PASSED"] - counts["SKIPPED"]
    return Totals(closing, counts["PASSED"], failed, counts["SKIPPED"])


def unittest_totals(text):
    ran = last(r"^Ran (\d+) tests? in .*$", text)
    end = last(r"^(?:OK|FAILED|NO TESTS RAN)(?: \(.*\))?$", text)
    if not (ran and end):
        return None
    counts = {name: int(count) for name, count in re.findall(r"([a-z][a-z ]*)=(\d+)", end.group())}
    failed = sum(counts.get(name, 0) for name in ("failures", "errors", "unexpected successes"))
    skipped = counts.get("skipped", 0)
    passed = max(int(ran.group(1)) - failed - skipped, 0)
    return Totals([ran.group(), end.group()], passed, failed, skipped)


def totals_of(log):
    """One runner's totals; one that failed without failing a test counts as one failure."""
    text = log.read_text(errors="replace")
    status = log.with_suffix(".status")
    ended_well = status.exists() and status.read_text().strip() == "0"
    found = ctest_totals(text) or gtest_totals(text) or unittest_totals(text)
    if found is None:
        return Totals(["did not finish"], 0, 1, 0)
    if not ended_well and not found.failed:
        return found._replace(closing=found.closing + ["failed as a whole"], failed=1)
    if not found.passed and not found.failed:
        return found._replace(closing=found.closing + ["no test was executed"], failed=1)
    return found


def main(folders):
    logs = [log for folder in folders for log in sorted(pathlib.Path(folder).glob("*.log"))]
    passed = failed = skipped = 0
    for log in logs:
        found = totals_of(log)
        print("%s, %s:" % (log.parent.name, log.stem))
        for line in found.closing:
            print(line)
        passed += found.passed
        failed += found.failed
        skipped += found.skipped
    print("%d passed, %d failed" % (passed, failed) + (", %d skipped" % skipped if skipped else ""))
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
