"""Ledgers of any content: read as far as it goes, never overwritten, numbers never twice."""

import json
import os
import pathlib
import tempfile
import unittest

from hypothesis import given
from hypothesis import strategies as st
from lumatie_host.ledger import Ledger, verify
from repeatable import settings

TEXTS = st.text(st.characters())  # halves of letters, too
VALUES = st.recursive(
    st.none() | st.booleans() | st.integers() | st.floats(allow_nan=False) | TEXTS,
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(TEXTS, inner, max_size=3),
    max_leaves=10,
)
RECORDS = st.fixed_dictionaries(
    {
        "v": st.sampled_from([1, 2, "1", None]),
        "n": st.integers(-3, 50) | VALUES,
        "time": st.just("2026-11-22T05:40:48.123Z") | VALUES,
        "kind": st.sampled_from(["closed", "picture", "lost", "new"]) | VALUES,
        "file": VALUES,
        "sha256": VALUES,
        "shot": VALUES,
    }
)
LINES = st.binary(max_size=50) | RECORDS.map(lambda record: json.dumps(record).encode())
CONTENTS = st.lists(LINES, max_size=12).map(b"\n".join)


class Ledgers(unittest.TestCase):
    @settings(max_examples=400)
    @given(CONTENTS)
    def test_whatever_stands_there_stays_and_numbers_go_on(self, before):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, ".lumatie", "ledger.jsonl")
            path.parent.mkdir()
            path.write_bytes(before)
            ledger = Ledger(folder)
            first = ledger.append("lost", evidence="a")
            second = Ledger(folder).append("lost", evidence="b")
            self.assertEqual(second.n, first.n + 1)
            content = path.read_bytes()
            self.assertEqual(content[: len(before)], before)
            for line in content[len(before) :].splitlines():
                self.assertTrue(not line or json.loads(line))
            numbers = [record["n"] for record in ledger.read()]
            self.assertEqual(numbers[-2:], [first.n, second.n])
            self.assertEqual(numbers, sorted(set(numbers)))
            self.assertEqual(list(ledger.events())[-2:], [first, second])
            for since in (0, first.n - 1, first.n):
                wanted = [number for number in numbers if number > since]
                self.assertEqual([record["n"] for record in ledger.read(since)], wanted)
            verify(folder)
            self.assertEqual(Ledger(folder).problems(), ledger.problems())

    @settings(max_examples=300)
    @given(TEXTS, VALUES)
    def test_what_is_written_is_what_is_read(self, text, value):
        with tempfile.TemporaryDirectory() as folder:
            ledger = Ledger(folder)
            try:
                event = ledger.append("lost", evidence=text, more=value)
            except ValueError:
                self.assertIn("inf", json.dumps(value).lower())
                return
            (again,) = Ledger(folder).read()
            # Two halves of a letter in a row are the whole one to JSON.
            self.assertEqual(again["evidence"], json.loads(json.dumps(text)))
            self.assertEqual(again.get("more"), json.loads(json.dumps(value)))
            self.assertEqual(event.n, again["n"])
            with open(os.path.join(folder, ".lumatie", "ledger.jsonl"), encoding="utf-8") as file:
                self.assertEqual(len(file.read().split("\n")), 2)


if __name__ == "__main__":
    unittest.main()
