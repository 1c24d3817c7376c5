"""Repeats the closing lines of test runners and adds their totals up: N passed, N failed.

Each folder that is named holds NAME.log and NAME.status (the exit status) of each runner that ran
there, and NAME.again.log of one whose failed tests were run once more, alone. Those that passed
then are named and count as passed. Ends with 1 when a runner failed, did not finish or ran nothing,
or when there was none.
"""

import pathlib
import re
import sys
from typing import List, NamedTuple

AGAIN = ".again"


class Totals(NamedTuple):
    closing: List[str]
    passed: int
    failed: int
    skipped: int


def last(pattern, text):
    """The last match of a pattern that is anchored to whole lines, or None."""
    matches = list(re.finditer(pattern, text, re.MULTILINE))
    return matches[-1] if matches else None


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


def node_totals(text):
    counts = {
        word: last(r"^(?:#|ℹ) %s (\d+)$" % word, text)
        for word in ("tests", "pass", "fail", "cancelled", "skipped", "todo")
    }
    if not all(counts.values()):
        return None
    closing = [counts[word].group() for word in ("tests", "pass", "fail")]
    number = {word: int(match.group(1)) for word, match in counts.items()}
    failed, skipped = number["fail"] + number["cancelled"], number["skipped"] + number["todo"]
    return Totals(closing, number["pass"], failed, skipped)


def unfinished(text):
    """The C++ test in which its program crashed or was stopped, if it was in one."""
    _, begun, rest = text.rpartition("[ RUN      ] ")
    name = rest.partition("\n")[0]
    if not begun or re.search(r"\] %s[ ,]" % re.escape(name), rest):
        return []
    return [name + ", which did not finish"]


def failures(text):
    """The names of failed tests, as each of the runners lists them."""
    gtest = r"^\[  FAILED  \] ([\w./]+)$"
    unittest = r"^(?:FAIL|ERROR): (.+)$"
    node = r"^\s*✖ (.+) \([\d.]+ms\)$"
    found = re.findall(gtest, text, re.MULTILINE) + unfinished(text)
    found += re.findall(unittest, text, re.MULTILINE)
    return found + re.findall(node, text.partition("\n✖ failing tests:\n")[2], re.MULTILINE)


def read(log):
    return log.read_text(encoding="utf-8", errors="replace")


def counted(text):
    """What a runner's closing lines say, or None where there are none."""
    return gtest_totals(text) or unittest_totals(text) or node_totals(text)


def has_named_its_failures(text):
    """Whether the runner came to its end, and all that is wrong is tests that it names."""
    found = counted(text)
    return bool(found and found.failed and failures(text)) and not unfinished(text)


def reasons(text):
    """What failed tests of Python and C++ say of themselves: a line or two of each."""
    raised = re.compile(r"^\w[\w.]*(?::.*)?$", re.MULTILINE)
    for header in re.finditer(r"^(?:FAIL|ERROR): .+\n-+$", text, re.MULTILINE):
        found = raised.search(text, header.end())
        if found:
            yield found.group()
    yield from re.findall(r"^\S+: (?:Failure|error: .*)\n.*$", text, re.MULTILINE)


def totals_of(log):
    """One runner's totals; one that failed without failing a test counts as one failure."""
    text = read(log)
    status = log.with_suffix(".status")
    ended_well = status.exists() and status.read_text().strip() == "0"
    found = counted(text)
    if found is None:
        return Totals(["did not finish"], 0, 1, 0)
    if not ended_well and not found.failed:
        return found._replace(closing=found.closing + ["failed as a whole"], failed=1)
    if not found.passed and not found.failed:
        return found._replace(closing=found.closing + ["no test was executed"], failed=1)
    return found


def passed_alone(log):
    """Whether the tests that failed in this log were run again, and all of them passed."""
    again = log.with_name(log.stem + AGAIN + log.suffix)
    if not again.exists():
        return False
    second = totals_of(again)
    return bool(second.passed) and not second.failed


def report(log):
    """Prints what came of one runner; returns its totals."""
    found, text = totals_of(log), read(log)
    outcome = "failed"
    if found.failed and passed_alone(log):
        outcome = "failed beside the others, passed alone"
        found = found._replace(passed=found.passed + found.failed, failed=0)
    print("%s, %s:" % (log.parent.name, log.stem))
    for line in found.closing:
        print(line)
    for name in failures(text):
        print("%s: %s" % (outcome, name))
    for reason in reasons(text):
        print(reason)
    return found


def main(folders):
    logs = [log for folder in folders for log in sorted(pathlib.Path(folder).glob("*.log"))]
    found = [report(log) for log in logs if not log.stem.endswith(AGAIN)]
    passed, failed, skipped = (sum(part) for part in list(zip(*found))[1:]) if found else (0, 0, 0)
    print("%d passed, %d failed" % (passed, failed) + (", %d skipped" % skipped if skipped else ""))
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
