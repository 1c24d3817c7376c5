"""Whatever a callback delivers is a message, and what was put into a text comes out of it."""

import math
import pickle
import unittest

from hypothesis import given
from hypothesis import strategies as st
from lumatie_host import protocol
from lumatie_host.protocol import Allowed, Code, NewFile, Unreadable, Value, read
from lumatie_host.settings import Settings, seconds_of
from repeatable import settings

NUMBERS = st.integers(-(2**31), 2**31 - 1)
ANYTHING = st.one_of(
    st.none(),
    st.booleans(),
    st.integers(),
    st.floats(),
    st.text(),
    st.binary(),
    st.lists(st.integers()),
    st.dictionaries(st.text(), st.integers()),
)
CODES = st.one_of(st.integers(-2, 17), ANYTHING)

# Made of the pieces that texts of events are made of.
PIECES = st.lists(
    st.sampled_from(
        ["{", "}", "'", "r'", ":", ",", "1", "2", "0", "-", "4294967295", "\\", "(", "a", "\n"]
        + ["'NIKON_EDITABLE':1,}", "'GENERAL_NEWFILE':", "'GENERAL_WRITEFAIL':1", "',2:'"]
    ),
    max_size=30,
).map("".join)
MESSAGES = st.one_of(
    st.builds(lambda code, text: read(code, text), st.sampled_from(Code), PIECES),
    st.builds(
        lambda code, key, text: read(code, key, text), st.sampled_from(Code), NUMBERS, PIECES
    ),
    st.builds(lambda code, key: read(code, key), st.sampled_from(Code), st.integers(-1, 4)),
    st.builds(
        lambda code, texts, flag: read(code, nikon_text(texts, flag)),
        st.sampled_from([4, 6, 8, 10]),
        st.lists(st.text(max_size=5), max_size=4),
        st.integers(0, 1),
    ),
)


def nikon_text(texts, editable):
    entries = ("%d:'%s'," % (position, text) for position, text in enumerate(texts, 1))
    return "{%s'NIKON_EDITABLE':%d,}" % ("".join(entries), editable)


class ReadTest(unittest.TestCase):
    @given(CODES, st.lists(st.one_of(ANYTHING, PIECES), max_size=4))
    @settings(max_examples=500)
    def test_anything_at_all_is_a_message(self, code, values):
        message = read(code, *values)
        self.assertIsInstance(message, tuple(protocol.Message.__args__))
        self.assertEqual(pickle.loads(pickle.dumps(message)), message)
        if isinstance(message, Unreadable):
            self.assertLess(len(message.what), 2000)

    @given(st.sampled_from(Code), PIECES)
    @settings(max_examples=500)
    def test_keys_fit_into_32_bits(self, code, text):
        message = read(code, text)
        if isinstance(message, Allowed):
            for key, shown in message.choices:
                self.assertTrue(-(2**31) <= key < 2**31)
                self.assertIsInstance(shown, str)

    @given(
        st.lists(
            st.tuples(st.integers(0, 2**32 - 1), st.text().filter(lambda text: "'" not in text))
        )
    )
    def test_a_canon_list_says_what_was_put_into_it(self, entries):
        message = read(4, "{%s}" % "".join("%d:'%s'," % entry for entry in entries))
        self.assertEqual([text for _, text in message.choices], [text for _, text in entries])
        self.assertEqual([key % 2**32 for key, _ in message.choices], [key for key, _ in entries])

    @given(st.lists(st.text(alphabet="'ab,:(\\\n{}")), st.booleans())
    def test_a_nikon_list_says_what_was_put_into_it(self, texts, editable):
        # Without digits no text can look like the beginning of the next entry.
        message = read(6, nikon_text(texts, editable))
        self.assertEqual(message, Allowed("aperture", tuple(enumerate(texts, 1)), editable))

    @given(
        st.text(st.characters(blacklist_categories=["Cs"], blacklist_characters="\0"), min_size=1)
    )
    def test_a_path_comes_out_as_it_was_put_in(self, path):
        self.assertEqual(read(0, "{'GENERAL_NEWFILE':r'%s'}" % path), NewFile(path))

    @given(NUMBERS, st.text(max_size=1000))
    def test_a_value_is_what_was_delivered(self, key, text):
        self.assertEqual(read(3, key, text), Value("shutter", key, text))


class SettingsTest(unittest.TestCase):
    @given(st.sampled_from(["canon", "nikon"]), st.lists(MESSAGES, max_size=20))
    @settings(max_examples=200)
    def test_what_is_told_is_what_is_known_afterwards(self, maker, messages):
        camera = Settings(maker)
        told = {}
        for message in messages:
            for change in camera.changes(message):
                self.assertNotEqual(told.get(change.name), change)
                told[change.name] = change
            for setting in camera.all():
                self.assertEqual(told[setting.name], setting)
                self.assertEqual(setting.settable, bool(setting.choices))

    @given(st.sampled_from(["canon", "nikon"]), st.lists(MESSAGES, max_size=20))
    @settings(max_examples=200)
    def test_a_choice_can_be_had_by_its_text_and_key(self, maker, messages):
        camera = Settings(maker)
        for message in messages:
            camera.apply(message)
        for setting in camera.all():
            for choice in setting.choices:
                if setting.choices.count(choice) == 1:
                    request = camera.choose(setting.name, choice.text, choice.key)
                    self.assertEqual((request.choice, request.value), (choice, choice.key))

    @given(st.text(alphabet='0123456789/.,"s -+e', max_size=12))
    @settings(max_examples=500)
    def test_seconds_are_finite_and_positive_or_none(self, text):
        seconds = seconds_of(text)
        self.assertTrue(seconds is None or (seconds > 0 and math.isfinite(seconds)))


if __name__ == "__main__":
    unittest.main()
