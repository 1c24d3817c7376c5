"""Names of pictures: what templates give, what they may not ask for, and what values turn into."""

import datetime
import os
import tempfile
import unittest

from lumatie_host.errors import NameRejected, Reason
from lumatie_host.files import LONGEST
from lumatie_host.names import Template

TIME = datetime.datetime(2026, 11, 22, 5, 40, 48)


def name(text, n=1, total=7, original="Canon_1_2.JPG", tag="shoe", time=TIME, ext=".JPG", **fixed):
    return Template(text, **fixed).name(n, total, original, tag, time, ext)


class Templates(unittest.TestCase):
    def test_each_token_gives_its_value(self):
        fixed = {"camera": "Virtual EOS", "maker": "canon", "station": "left", "job": "spring"}
        for text, wanted in (
            ("{job}_{n:04}", "spring_0001.JPG"),
            ("{total:05}", "00007.JPG"),
            ("{date}_{time}", "2026-11-22_054048.JPG"),
            ("{date:%d.%m.%y} {time:%Hh%M}", "22.11.26 05h40.JPG"),
            ("{camera}-{maker}-{station}", "Virtual EOS-canon-left.JPG"),
            ("{tag:_^10}", "___shoe___.JPG"),
            ("{original}", "Canon_1_2.JPG"),
            ("{original}.{ext}", "Canon_1_2.JPG"),
            ("{n}.x.{ext}", "1.x.JPG"),
            ("{{{n}}}", "{1}.JPG"),
            ("写真 ü {n}", "写真 ü 1.JPG"),
        ):
            with self.subTest(text=text):
                self.assertEqual(name(text, **fixed), wanted)

    def test_a_slash_makes_a_subfolder(self):
        self.assertEqual(name("{date}/{tag}/{n:04}"), "2026-11-22/shoe/0001.JPG")

    def test_an_extension_is_given_with_or_without_its_dot_or_not_at_all(self):
        self.assertEqual(name("{n}", ext="CR2"), "1.CR2")
        self.assertEqual(name("{original}", original="file", ext=""), "file")

    def test_the_original_keeps_dots_that_are_not_its_extension(self):
        self.assertEqual(name("{original}", original="a.b.jpg", ext="JPG"), "a.b.JPG")

    def test_a_time_with_a_zone_becomes_local(self):
        time = datetime.datetime(2026, 11, 22, 5, 40, 48, tzinfo=datetime.timezone.utc)
        self.assertEqual(name("{time}", time=time), time.astimezone().strftime("%H%M%S.JPG"))

    def test_the_next_name_is_known_before_the_shot(self):
        self.assertEqual(Template("{n:04}_{tag}").next(12, 30, "shoe"), "0012_shoe.JPG")

    def test_tags_that_may_differ_in_case_alone_are_told(self):
        self.assertEqual(len(Template("{tag}").cautions), 1)
        self.assertEqual(len(Template("{tag}/{n}").cautions), 1)
        self.assertEqual(Template("{tag}_{n}").cautions, ())


class Rejected(unittest.TestCase):
    def rejects(self, *texts, **fixed):
        for text in texts:
            with self.subTest(text=text), self.assertRaises(NameRejected) as caught:
                Template(text, **fixed)
            if caught.exception.reason is not Reason.NAME_REJECTED:
                self.fail(text)

    def test_unknown_tokens(self):
        self.rejects("{}", "{0}", "{name}", "{N}", "{suffix}", "{n ", "n}", "{ n}")

    def test_attributes_items_and_conversions(self):
        self.rejects(
            "{n.__class__}", "{n[0]}", "{tag.__class__.__mro__}", "{n!r}", "{tag!s}", "{n:{total}}"
        )

    def test_formats_that_do_not_fit_their_token(self):
        self.rejects("{tag:d}", "{n:s}", "{n:.3}", "{original:04d}", "{n:c}")

    def test_formats_that_fill_the_memory(self):
        self.rejects("{n:099999999999}", "{n:.999999f}", "{tag:300}", "{date:%999999Y}", "{n:256}")

    def test_characters_that_a_file_system_refuses(self):
        self.rejects(*("a%sb_{n}" % letter for letter in '<>:"|?*\\\0\n\x1f\x7f\x85\ud800'))
        self.rejects("{date:%d/%m}", "{time:%H:%M}")

    def test_names_of_devices(self):
        self.rejects("CON", "nul", "a/Aux/{n}", "com1.{ext}", "LPT9.x{n}", "CON .{n}", "conout$")

    def test_dots_and_blanks_at_an_end(self):
        self.rejects("{n}.", "{n} ", "a./{n}", "a /{n}", "{n}_{ext}.")

    def test_ways_out_of_the_folder(self):
        self.rejects("../{n}", "a/../{n}", "./{n}", "/{n}", "a//{n}", "{n}/", "..", "C:/{n}", "")

    def test_the_folder_of_the_ledger(self):
        self.rejects(".lumatie/{n}", ".Lumatie/{n}")

    def test_names_that_get_too_long(self):
        self.rejects("x" * 240 + "{n:09}", "ü" * 120 + "{n}", "x" * 2000, "{date:%A}" * 120)
        self.rejects("{job}", job="j" * 300)

    def test_a_job_or_a_station_that_no_file_can_have(self):
        for token in ("job", "station"):
            whole, end, begin = ("{%s}/{n}", "{tag}_{%s}/{n}", "{%s}_{n}")
            for texts, templates in (
                (("a/b", "a:b", "a\\b", "\0", "a?", "\ud800"), (whole, end, begin)),
                (("..", "x.", "x "), (whole, end)),
                (("CON", "nul.a", "Lpt1"), (whole, "{%s}.{ext}", "{%s}")),
            ):
                for text in texts:
                    self.rejects(*(template % token for template in templates), **{token: text})
                    Template("{tag}_{n}", **{token: text})
        for text in ("", "Müller & Söhne", "a.b", "con_1", "写真"):
            Template("{job}/{station}/{tag}_{job}/{n}", job=text, station=text)
        Template("{job}_{n}", job="Con")
        Template("{job}_{n}", job="Mr. X.")

    def test_what_of_a_job_is_wrong_is_told(self):
        for job, why in (
            ("a/b", "some systems refuse / in the job a/b"),
            ("x.", "the job x. ends with a dot or a blank"),
            ("CON", "Windows has a device of the name CON"),
        ):
            with self.subTest(job=job), self.assertRaises(NameRejected) as caught:
                Template("{job}/{n}", job=job)
            self.assertEqual(caught.exception.why, why)

    def test_a_device_or_a_folder_as_the_beginning_of_a_name_is_none(self):
        for text in ("con_{n}", "console", "com10", "com{n}x", ".lumatie2/{n}", "a/.lumatie/{n}"):
            with self.subTest(text=text):
                Template(text)


class Values(unittest.TestCase):
    def test_refused_characters_become_underscores(self):
        self.assertEqual(name("{tag}", tag='A/B: "x"\\|?*<>\n\ud800ü'), "A_B_ _x_________ü.JPG")
        self.assertEqual(name("{camera}_{n}", camera='A/B: "x"'), "A_B_ _x__1.JPG")

    def test_devices_are_made_safe(self):
        for tag in ("con", "NUL", "com1", "LPT³", "nul.txt", "aux  "):
            with self.subTest(tag=tag):
                self.assertTrue(name("{tag}", tag=tag).startswith("_"))
        self.assertEqual(name("com{n}"), "_com1.JPG")
        self.assertEqual(name("{tag}/{n}", tag="prn"), "_prn/1.JPG")

    def test_values_do_not_lead_out_of_the_folder(self):
        for tag, wanted in (
            ("..", "___/1.JPG"),
            (".", "__/1.JPG"),
            ("", "_/1.JPG"),
            (" ", "_/1.JPG"),
            ("../..", "_..___/1.JPG"),
            (".lumatie", "_.lumatie/1.JPG"),
            ("a. .", "a___/1.JPG"),
        ):
            with self.subTest(tag=tag):
                self.assertEqual(name("{tag}/{n}", tag=tag), wanted)

    def test_a_value_does_not_complete_the_folder_of_the_ledger(self):
        self.assertEqual(name(".{tag}/{n}", tag="Lumatie"), "_.Lumatie/1.JPG")

    def test_an_empty_value_still_makes_a_name(self):
        self.assertEqual(name("{tag}", tag=""), "_.JPG")

    def test_long_values_are_cut_between_letters(self):
        for tag in ("x" * 1000, "ü" * 1000, "写" * 1000, "\U0001f4f7" * 1000):
            with self.subTest(tag=tag[0]):
                made = name("{tag}_{n:04}", tag=tag)
                self.assertTrue(made.endswith("_0001.JPG"))
                self.assertLessEqual(len(made.encode()), LONGEST)
                self.assertGreater(len(made.encode()), LONGEST - 12)
                self.assertEqual(set(made[: -len("_0001.JPG")]), {tag[0]})

    def test_the_tag_is_cut_before_the_original(self):
        made = name("{original}_{tag}", tag="x" * 300, original="o" * 100)
        self.assertTrue(made.startswith("o" * 100 + "_xxx"))

    def test_a_made_name_can_be_created(self):
        with tempfile.TemporaryDirectory() as folder:
            for tag in ("\U0001f4f7" * 200, "a:b", "con", "x. ", "\0"):
                with open(os.path.join(folder, name("{tag}", tag=tag)), "xb"):
                    pass


if __name__ == "__main__":
    unittest.main()
