"""The project's own checks, of ./run lint and of what test runners say, find what they are for."""

import contextlib
import importlib.util
import io
import pathlib
import sys
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"


sys.path.insert(0, str(SCRIPTS))  # some use each other


def load(name):
    """A script of that folder, which is no package, as a module of its own."""
    spec = importlib.util.spec_from_file_location(name, str(SCRIPTS / (name + ".py")))
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


class Messages(unittest.TestCase):
    """What is said of a commit's message by scripts/commits.py."""

    def complaints(self, message, parents=1):
        return " ".join(load("commits").complaints(message, parents))

    def test_a_sentence_in_the_imperative_with_a_reason_below_is_accepted(self):
        self.assertEqual(self.complaints("Bring it back\n\nIt was missed: 3 of #notes.\n"), "")

    def test_each_rule_is_noticed_when_it_is_broken(self):
        broken = {  # a message, and a part of what is said of it
            "Added a thing": "imperative",
            "adding a thing": "imperative",
            "Add a thing.": "full stop",
            "Add " + 90 * "a": "94 letters",
            "Add a thing\nand more": "empty line",
            "Keep what /home/somebody/x had": "machine's folder",
            "Keep it\n\nIt was in C:\\Users.": "machine's folder",
            "Mend issue 12": "list's number",
            "Mend it\n\nCloses #3": "list's number",
            "fixup! Mend it": "unfinished",
        }
        for message, what in broken.items():
            with self.subTest(message):
                self.assertIn(what, self.complaints(message))

    def test_a_merge_is_noticed(self):
        self.assertIn("merges", self.complaints("Mend it", parents=2))


RULES = """
| room | files | may use |
|---|---|---|
| upper | `upper/*` | lower |
| lower | `lower/*` | the system |
"""


class Rooms(unittest.TestCase):
    """What is said of includes by scripts/architecture.py, in a tree that is made up."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name).resolve()
        self.check = load("architecture")
        self.check.ROOT, self.check.MODULE = self.root, self.root / "module"
        self.check.SEARCHED = (self.root / "module",)
        self.check.RULES = self.root / "coding.md"
        self.check.RULES.write_text(RULES)
        self.write("upper/Top.cpp", '#include "lower/Ground.h"\n#include <vector>\n')
        self.write("lower/Ground.h", "#include <windows.h>\n")

    def write(self, name, text):
        path = self.root / "module" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def complaints(self):
        rooms = self.check.read_rooms()
        return list(self.check.complaints(rooms, list(self.check.includes(rooms))))

    def test_what_the_table_allows_is_accepted(self):
        self.assertEqual(self.complaints(), [])

    def test_an_arrow_back_up_is_noticed(self):
        self.write("lower/Ground.h", '#include "upper/Top.cpp"\n')
        self.assertEqual(self.complaints(), ["module/lower/Ground.h:1: lower may not use upper"])

    def test_a_header_of_the_system_is_noticed_where_none_may_be(self):
        self.write("upper/Top.cpp", "#include <windows.h>\n")
        self.assertEqual(
            self.complaints(), ["module/upper/Top.cpp:1: upper may not use the system"]
        )

    def test_a_file_without_a_room_and_a_room_without_a_file_are_noticed(self):
        (self.root / "module" / "lower" / "Ground.h").unlink()
        self.write("upper/Top.cpp", "")
        self.write("attic/Old.cpp", "")
        self.assertEqual(
            self.complaints(),
            [
                "module/attic/Old.cpp: in no room of docs/coding.md",
                "docs/coding.md: nothing is in the room lower",
            ],
        )


class Types(unittest.TestCase):
    """scripts/checkers.py"""

    def setUp(self):
        self.check = load("checkers")

    def differences(self, *said):
        return list(self.check.differences(dict.fromkeys(said, "wrong"), [("mistakes.py", 7)]))

    def test_the_marked_line_and_no_other_is_accepted(self):
        self.assertEqual(self.differences(("mistakes.py", 7)), [])

    def test_a_marked_line_of_which_nothing_is_said_is_noticed(self):
        self.assertEqual(self.differences(), ["mistakes.py:7: nothing is said of this line"])

    def test_a_line_without_a_mark_that_is_reported_is_noticed(self):
        self.assertEqual(
            self.differences(("mistakes.py", 7), ("application.py", 7)), ["application.py:7: wrong"]
        )

    def test_the_mistakes_are_marked_and_the_application_has_none(self):
        self.assertEqual({file for file, _ in self.check.marked()}, {"mistakes.py"})

    def test_a_checker_that_breaks_down_is_noticed(self):
        program = "import sys; print('inside out'); sys.exit(2)"
        with self.assertRaisesRegex(RuntimeError, "inside out"):
            self.check.run(sys.executable, "-c", program)


UNITTEST = """
======================================================================
FAIL: test_it (test_x.Some) (delay=0.1)
----------------------------------------------------------------------
Traceback (most recent call last):
  File "test_x.py", line 1, in test_it
AssertionError: 9 not less than 8

----------------------------------------------------------------------
Ran 5 tests in 1.0s

FAILED (failures=1, skipped=1)
"""
GTEST = """
[ RUN      ] Some.Test
a.cpp:1: Failure
Expected: it
[  FAILED  ] Some.Test (1 ms)
[==========] 4 tests from 2 test suites ran. (5 ms total)
[  PASSED  ] 3 tests.
[  FAILED  ] 1 test, listed below:
[  FAILED  ] Some.Test
"""
NODE = """
✖ it goes on (12.5ms)
ℹ tests 3
ℹ pass 2
ℹ fail 1
ℹ cancelled 0
ℹ skipped 0
ℹ todo 0

✖ failing tests:

test at tests/page/live.test.mjs:27:1
✖ it goes on (12.5ms)
"""


class OnceMore(unittest.TestCase):
    """What scripts/again.py has run again, and what scripts/totals.py makes of that."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, text, status=1):
        (self.folder / (name + ".log")).write_text(text, encoding="utf-8")
        (self.folder / (name + ".status")).write_text(str(status))

    def again(self):
        return load("again").worth_it(self.folder)

    def totals(self):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            status = load("totals").main([str(self.folder)])
        return status, printed.getvalue()

    def test_each_runner_is_asked_for_its_failed_tests_alone(self):
        self.write("a", UNITTEST)
        self.write("b", GTEST)
        self.write("c", NODE)
        self.write("d", UNITTEST.replace("FAILED (failures=1", "OK (").partition("FAIL:")[2], 0)
        self.assertEqual(
            self.again(),
            {
                "a": ["-k", "*test_x.Some.test_it"],
                "b": ["--gtest_filter=Some.Test"],
                "c": ["tests/page/live.test.mjs"],
            },
        )

    def test_names_as_newer_interpreters_list_them_and_set_ups_are_found(self):
        pattern = load("again").unittest_pattern
        self.assertEqual(pattern("test_it (test_x.Some.test_it)"), "*test_x.Some.test_it")
        self.assertEqual(pattern("setUpClass (test_x.Some)"), "*test_x.Some.*")

    def test_what_no_busy_machine_does_is_not_run_again(self):
        crash = GTEST.partition("[==")[0] + "[ RUN      ] Some.Other\n"
        for why, text in {
            "a crash": crash,
            "a crash behind a failure": GTEST + crash,
            "a report": "WARNING: ThreadSanitizer: data race\n" + GTEST,
            "a file that cannot be loaded": UNITTEST.replace(
                "test_it (test_x.Some) (delay=0.1)", "test_x (unittest.loader._FailedTest)"
            ),
            "a program that failed as a whole": GTEST.partition("[  FAILED")[0]
            + "[==========] 4 tests from 2 test suites ran.\n[  PASSED  ] 4 tests.\n",
            "more than a few": UNITTEST.replace("failures=1", "failures=4"),
        }.items():
            with self.subTest(why):
                self.write("a", text)
                self.write("b", GTEST)
                self.assertEqual(self.again(), {})

    def test_what_passes_alone_is_named_and_counts_as_passed(self):
        self.write("a", UNITTEST)
        self.write("a.again", "Ran 1 test in 0.1s\n\nOK\n", 0)
        status, printed = self.totals()
        self.assertEqual(status, 0, printed)
        self.assertIn("failed beside the others, passed alone: test_it (test_x.Some)", printed)
        self.assertIn("AssertionError: 9 not less than 8\n", printed)
        self.assertTrue(printed.endswith("\n4 passed, 0 failed, 1 skipped\n"), printed)

    def test_what_fails_alone_too_or_was_not_found_there_fails(self):
        for why, text, ended in (
            ("it failed", UNITTEST, 1),
            ("nothing ran", "Ran 0 tests in 0.0s\n\nOK\n", 0),
            ("it hung", "", 124),
        ):
            with self.subTest(why):
                self.write("a", UNITTEST)
                self.write("a.again", text, ended)
                status, printed = self.totals()
                self.assertEqual(status, 1, printed)
                self.assertIn("failed: test_it (test_x.Some)", printed)
                self.assertTrue(printed.endswith("\n3 passed, 1 failed, 1 skipped\n"), printed)


if __name__ == "__main__":
    unittest.main()
