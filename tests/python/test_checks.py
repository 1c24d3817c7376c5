"""The checks of ./run lint that are the project's own find what they are for."""

import importlib.util
import pathlib
import sys
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"


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


if __name__ == "__main__":
    unittest.main()
