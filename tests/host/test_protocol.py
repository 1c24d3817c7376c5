"""What the module's callback delivers, read: also what a literal's evaluation cannot take."""

import ast
import time
import unittest

import canon_tables
from lumatie_host import protocol
from lumatie_host.protocol import (
    LONGEST_LIST,
    LONGEST_PATH,
    LONGEST_TEXT,
    MOST_ENTRIES,
    Allowed,
    Busy,
    Code,
    NewFile,
    Unreadable,
    Value,
    WriteFailed,
    read,
    read_list,
    read_status,
)
from support import Lumatie, run_host
from timing import timed, within


def nikon_text(texts, editable=1):
    """A list text as a Nikon camera's settings make it."""
    entries = ("%d:'%s'," % (position, text) for position, text in enumerate(texts, 1))
    return "{%s'NIKON_EDITABLE':%d,}" % ("".join(entries), editable)


class CanonListTest(unittest.TestCase):
    def test_keys_and_texts_come_in_the_cameras_order(self):
        self.assertEqual(
            read_list("{16:'30',112:'1/125',19:'25',}"),
            ([(16, "30"), (112, "1/125"), (19, "25")], None),
        )

    def test_a_list_without_entries_is_empty(self):
        self.assertEqual(read_list("{}"), ([], None))

    def test_colour_temperatures_are_numbers(self):
        self.assertEqual(read_list("{0:2500,1:-1,2:0,}"), ([(0, 2500), (1, -1), (2, 0)], None))

    def test_the_code_for_unknown_is_unsigned(self):
        self.assertEqual(read_list("{4294967295:'unknown',}").entries, [(4294967295, "unknown")])

    def test_all_texts_of_the_tables_are_read_as_they_are_evaluated(self):
        tables = (
            canon_tables.SHUTTER_SPEEDS,
            canon_tables.APERTURES,
            canon_tables.ISO_SPEEDS,
            canon_tables.WHITE_BALANCES,
        )
        for table in tables:
            text = "{%s}" % "".join("%d:'%s'," % entry for entry in table.items())
            self.assertEqual(dict(read_list(text).entries), ast.literal_eval(text))


class NikonListTest(unittest.TestCase):
    def assert_read(self, *texts):
        for editable in (0, 1):
            with self.subTest(texts=[text[:40] for text in texts], editable=editable):
                found = read_list(nikon_text(texts, editable))
                self.assertEqual(found.entries, list(enumerate(texts, 1)))
                self.assertIs(found.editable, bool(editable))

    def test_positions_and_texts_come_with_the_flag(self):
        self.assert_read("1/250", "1/500")

    def test_a_list_without_entries_has_the_flag_alone(self):
        self.assert_read()

    def test_texts_are_what_they_are(self):
        self.assert_read("it's", "5'6\"")
        self.assert_read("'", "''", "", "'''", "',")
        self.assert_read("\\", "a\\", "\\n", "\\x41", "\\N{BULLET}", "\\'")
        self.assert_read("a\nb", "\r", "\u2028", "\u00fc \u5199\u771f", "{}", "#")
        self.assert_read("'NIKON_EDITABLE':0,}", "x")
        self.assert_read("a','b", "1:'a", "',1:'", "2:'b',", "',3:'")
        self.assert_read("' + '", "'}", "'*9**9**9,2:'")

    def test_brackets_ten_thousand_deep_are_a_text(self):
        for bracket in "([{":
            self.assert_read("'" + bracket * 10_000, bracket * 10_000, "1/60")

    def test_a_literals_evaluation_takes_none_of_these_or_another_text(self):
        # The reason for the reader: should this fail some day, it may have become needless.
        for text in ("it's", "a\\", "a\nb"):
            with self.assertRaises((SyntaxError, ValueError)):
                ast.literal_eval(nikon_text([text]))
        self.assertEqual(ast.literal_eval(nikon_text(["\\x41"]))[1], "A")
        # In a process of its own: some versions of the interpreter say so on standard error.
        run = run_host(
            "import ast; ast.literal_eval({!r})".format(nikon_text(["'" + "(" * 10_000]))
        )
        self.assertNotEqual(run.status, 0)

    def test_a_text_that_looks_like_the_next_entry_is_divided_and_those_behind_are_right(self):
        self.assertEqual(
            read_list(nikon_text(["a',2:'b", "c", "d"])).entries,
            [(1, "a"), (2, "b',2:'c"), (3, "d")],
        )

    def test_as_many_entries_as_there_are_positions_are_read(self):
        texts = [str(number) for number in range(MOST_ENTRIES)]
        self.assertEqual(len(read_list(nikon_text(texts)).entries), MOST_ENTRIES)
        with self.assertRaisesRegex(ValueError, "more than 65535 entries"):
            read_list(nikon_text(texts + ["one more"]))


class NoListTest(unittest.TestCase):
    def assert_refused(self, text):
        with self.subTest(text=text[:60]), self.assertRaises(ValueError):
            read_list(text)

    def test_other_texts_are_refused(self):
        for text in (
            "",
            "{",
            "}",
            "{}{}",
            "{} ",
            "[]",
            "None",
            "{1:'a'}",
            "{1:'a',",
            "{1:'a',2}",
            "{1:'a' ,}",
            "{ 1:'a',}",
            "{'a':1,}",
            "{01:'a',}",
            "{-:'a',}",
            "{\u0661:'a',}",
            "{12345678901:'a',}",
            "{1:'it's',}",
            "{1:x,}",
            "{1:1.5,}",
            "{1:__import__('os'),}",
            "{(((1:'a',}",
        ):
            self.assert_refused(text)

    def test_other_endings_are_refused(self):
        for ending in ("2", "-1", "01", "", "True", "'1'", "1,1"):
            self.assert_refused("{1:'a','NIKON_EDITABLE':%s,}" % ending)
        self.assert_refused("{1:'a','NIKON_EDITABLE':1}")
        self.assert_refused("{1:'a','NIKON_READABLE':1,}")
        self.assert_refused("{1:'a','NIKON_EDITABLE':1,'NIKON_EDITABLE':1,}")

    def test_a_list_that_is_not_numbered_from_1_is_no_nikon_cameras(self):
        for entries in ("0:'a',", "2:'a',", "1:'a", "1:'", "1:'a'", "1:2500,", "x", "1:'a',x"):
            self.assert_refused("{%s'NIKON_EDITABLE':1,}" % entries)

    @timed
    def test_64_megabytes_are_refused_at_once(self):
        for part in ("[", "1:'", "'", "1:'a',", "',2:'"):
            text = "{1:'%s','NIKON_EDITABLE':1,}" % (part * (64_000_000 // len(part)))
            with within(1.0):
                self.assert_refused(text)

    def test_the_longest_list_takes_no_longer_than_its_length_demands(self):
        for part in ("[", "'", "1:'", "',", "',2:'", "'NIKON_EDITABLE':1,}", "1:'a',", "1:1,"):
            for text in ("{%s}", "{1:'%s','NIKON_EDITABLE':1,}", "{1:'%s',}", "{1:%s,}"):
                body = part * ((LONGEST_LIST - 40) // len(part))
                begin = time.monotonic()
                try:
                    read_list(text % body)
                except ValueError:
                    pass
                self.assertLess(time.monotonic() - begin, 10.0)


class StatusTest(unittest.TestCase):
    def test_a_path_is_taken_as_it_stands(self):
        for path in (
            "/a/Canon_1_2.JPG",
            "C:\\new\\Canon_1_2.JPG",
            "/it's/x.JPG",
            "/a' 'b/x.JPG",
            "/'}/x.JPG",
            "/a\nb/x",
            "'}",
            "",
            "/" + "(" * 10_000,
        ):
            with self.subTest(path=path[:20]):
                text = "{'GENERAL_NEWFILE':r'" + path + "'}"
                self.assertEqual(read_status(text), ("GENERAL_NEWFILE", path))

    def test_the_other_texts_carry_a_1(self):
        for word in ("GENERAL_WRITEFAIL", "GENERAL_DEVICEBUSY"):
            self.assertEqual(read_status("{'%s':1}" % word), (word, 1))

    def test_other_texts_are_refused(self):
        for text in (
            "",
            "{}",
            "{'GENERAL_NEWFILE':'/x'}",
            "{'GENERAL_NEWFILE':r'/x'} ",
            "{'GENERAL_NEWFILE':r'/x}",
            "{'GENERAL_WRITEFAIL':}",
            "{'GENERAL_WRITEFAIL':one}",
            "{'':1}",
            "{'GENERAL_WRITEFAIL':1,}",
        ):
            with self.subTest(text=text), self.assertRaises(ValueError):
                read_status(text)


class CodeTest(unittest.TestCase):
    def test_the_codes_are_the_modules(self):
        for code in Code:
            self.assertEqual(getattr(Lumatie, "TETHER_" + code.name), code)
        of_the_module = [
            name
            for name, value in vars(Lumatie).items()
            if name.startswith("TETHER_") and "CANON" not in name and isinstance(value, int)
        ]
        self.assertEqual(len(of_the_module), len(Code))

    def test_the_keys_that_mean_something_are_the_modules(self):
        self.assertEqual(protocol.CANON_AUTO, Lumatie.TETHER_CANON_AUTO)
        self.assertEqual(protocol.CANON_BULB, Lumatie.TETHER_CANON_BULB)
        self.assertEqual(protocol.CANON_COLORTEMP, Lumatie.TETHER_CANON_COLORTEMP)

    def test_the_code_of_a_list_comes_behind_its_settings(self):
        for code in protocol.CODES.values():
            self.assertEqual(Code(code + 1).name, code.name + "_LIST")


class ReadTest(unittest.TestCase):
    def test_a_canon_cameras_value_has_a_key_and_a_text(self):
        self.assertEqual(read(3, 112, "1/125"), Value("shutter", 112, "1/125"))
        self.assertEqual(read(3, -1, "unknown"), Value("shutter", -1, "unknown"))
        self.assertEqual(read(5, 48, "5.6"), Value("aperture", 48, "5.6"))
        self.assertEqual(read(7, 88, "400"), Value("iso", 88, "400"))
        self.assertEqual(read(9, 0, "Auto"), Value("white_balance", 0, "Auto"))

    def test_a_nikon_cameras_value_has_a_position_alone(self):
        self.assertEqual(read(3, 38), Value("shutter", 38, None))
        self.assertEqual(read(7, 0), Value("iso", 0, None))

    def test_mode_and_quality_have_a_text_alone(self):
        self.assertEqual(read(1, "M"), Value("mode", None, "M"))
        self.assertEqual(read(13, "RAW + JPEG Fine"), Value("quality", None, "RAW + JPEG Fine"))

    def test_the_key_of_a_color_temperature_is_its_number(self):
        self.assertEqual(read(11, 5200), Value("color_temperature", 5200, "5200"))
        self.assertEqual(
            read(12, "{0:2500,1:2600,}"),
            Allowed("color_temperature", ((2500, "2500"), (2600, "2600")), None),
        )

    def test_lists_have_keys_and_texts_in_the_cameras_order(self):
        self.assertEqual(
            read(4, "{19:'25',16:'30',}"), Allowed("shutter", ((19, "25"), (16, "30")), None)
        )
        self.assertEqual(read(8, "{}"), Allowed("iso", (), None))
        self.assertEqual(
            read(10, nikon_text(["it's"], 0)), Allowed("white_balance", ((1, "it's"),), False)
        )

    def test_the_key_for_unknown_is_the_same_in_a_list_as_in_a_value(self):
        self.assertEqual(
            read(6, "{4294967295:'unknown',}"), Allowed("aperture", ((-1, "unknown"),), None)
        )

    def test_status_texts_are_messages(self):
        self.assertEqual(read(0, "{'GENERAL_NEWFILE':r'/it's/x.JPG'}"), NewFile("/it's/x.JPG"))
        self.assertEqual(read(0, "{'GENERAL_WRITEFAIL':1}"), WriteFailed())
        self.assertEqual(read(0, "{'GENERAL_DEVICEBUSY':1}"), Busy())

    def test_a_constant_of_the_module_is_a_code_like_its_number(self):
        self.assertEqual(read(Code.ISO, 88, "400"), read(7, 88, "400"))


class Perverse:
    """Raises at whatever it is asked."""

    def __repr__(self):
        raise RuntimeError("asked for a text")

    __str__ = __eq__ = __hash__ = __bool__ = __len__ = __index__ = __int__ = __repr__


class UnreadableTest(unittest.TestCase):
    def assert_unreadable(self, code, *values):
        with self.subTest(code=type(code), values=[type(value) for value in values]):
            found = read(code, *values)
            self.assertIsInstance(found, Unreadable)
            self.assertLess(len(found.what), 2000)
            return found

    def test_other_codes_are_unreadable(self):
        for code in (-1, 15, 2**70, True, None, "3", 3.0, [], Perverse()):
            self.assert_unreadable(code, 112, "1/125")
            self.assert_unreadable(code, "{}")
        self.assertEqual(self.assert_unreadable(15).code, 15)
        self.assertEqual(self.assert_unreadable("3").code, -1)
        # Some versions of the interpreter cannot write such a number down.
        self.assertEqual(self.assert_unreadable(10**5000).code, -1)

    def test_wrong_types_and_numbers_of_values_are_unreadable(self):
        wrong = (None, 1.5, b"text", [], {}, True, Perverse())
        for code in Code:
            self.assert_unreadable(code)
            self.assert_unreadable(code, 1, "a", 2)
            self.assert_unreadable(code, *range(100_000))
            for value in wrong:
                self.assert_unreadable(code, value)
                self.assert_unreadable(code, value, "a")
                self.assert_unreadable(code, 1, value)

    def test_values_of_another_setting_are_unreadable(self):
        self.assert_unreadable(1, 3)
        self.assert_unreadable(3, "1/125")
        self.assert_unreadable(11, "5200")
        self.assert_unreadable(11, 5200, "5200")
        self.assert_unreadable(0, 1)
        self.assert_unreadable(4, "{0:2500,}")
        self.assert_unreadable(12, "{0:'2500',}")

    def test_keys_of_more_than_32_bits_are_unreadable(self):
        for key in (2**32, -(2**31) - 1, 10**5000):
            self.assert_unreadable(3, key)
            self.assert_unreadable(3, key, "1/125")
            self.assert_unreadable(11, key)
        self.assert_unreadable(4, "{4294967296:'1',}")
        self.assert_unreadable(12, "{0:4294967296,}")
        self.assertEqual(read(3, 2**32 - 1), Value("shutter", -1, None))

    def test_ten_megabytes_are_unreadable_at_once(self):
        begin = time.monotonic()
        for part in ("x", "'", "[", "{1:'a',", "{'GENERAL_NEWFILE':r'"):
            text = part * (10_000_000 // len(part))
            for code in Code:
                self.assert_unreadable(code, text)
                self.assert_unreadable(code, 1, text)
                self.assert_unreadable(code, "{'GENERAL_NEWFILE':r'%s'}" % text)
        self.assertLess(time.monotonic() - begin, 10.0)

    def test_texts_have_a_limit(self):
        self.assertEqual(read(1, "x" * LONGEST_TEXT), Value("mode", None, "x" * LONGEST_TEXT))
        self.assert_unreadable(1, "x" * (LONGEST_TEXT + 1))
        self.assert_unreadable(3, 1, "x" * (LONGEST_TEXT + 1))
        listed = read(4, "{1:'%s',}" % ("x" * LONGEST_LIST)[:-9])
        self.assertEqual(listed.choices, ((1, "x" * LONGEST_TEXT),))
        self.assert_unreadable(0, "{'GENERAL_NEWFILE':r'/%s'}" % ("x" * LONGEST_PATH))

    def test_a_path_that_no_system_opens_is_unreadable(self):
        for path in ("", "/a\0b", "/\ud800"):
            self.assert_unreadable(0, "{'GENERAL_NEWFILE':r'%s'}" % path)

    def test_other_statuses_are_unreadable(self):
        for text in (
            "{'GENERAL_NEWFILE':1}",
            "{'GENERAL_WRITEFAIL':r'/x'}",
            "{'GENERAL_DEVICEBUSY':r''}",
            "{'GENERAL_OTHER':1}",
            "",
        ):
            self.assert_unreadable(0, text)

    def test_nothing_is_evaluated(self):
        for text in ("{1:__import__('os').abort(),}", "__import__('os').abort()"):
            for code in Code:
                read(code, text)
                read(code, 1, text)


if __name__ == "__main__":
    unittest.main()
