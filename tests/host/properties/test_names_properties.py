"""Names that come out of any template and any values: every file system takes them."""

import datetime
import re
import string
import unittest

from hypothesis import assume, given
from hypothesis import strategies as st
from lumatie_host.errors import NameRejected
from lumatie_host.files import numbered
from lumatie_host.names import TOKENS, Template
from repeatable import settings

DEVICES = {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$", "CLOCK$"} | {
    kind + number for kind in ("COM", "LPT") for number in "0123456789\u00b9\u00b2\u00b3"
}
NASTY = st.sampled_from(
    [
        "CON",
        "nul",
        "com1",
        "aux.txt",
        "..",
        ".",
        " ",
        "",
        ".lumatie",
        "a/b",
        "a\\b",
        "a:b",
        "\0",
        "é",
    ]
)
VALUES = NASTY | st.text(st.characters(), max_size=400) | st.text(string.printable, max_size=30)
PIECES = (
    st.sampled_from(["{%s}" % token for token in TOKENS])
    | st.sampled_from(
        ["{n:04}", "{tag:>20}", "{tag:/^9}", "{date:%A}", "{time:%H%M}", "/", "_", "."]
    )
    | st.text(string.printable, max_size=5)
)
TEMPLATES = st.lists(PIECES, max_size=8).map("".join)
MOMENTS = st.datetimes(
    min_value=datetime.datetime(1971, 1, 1), max_value=datetime.datetime(2999, 1, 1)
)


def is_fit(part):
    """Whether Windows and Linux take a name, in the words of their manuals."""
    return (
        part
        and not re.search(r'[<>:"/\\|?*\x00-\x1f]', part)
        and part[-1] not in ". "
        and part.split(".")[0].rstrip(" ").upper() not in DEVICES
        and len(part.encode()) <= 255
        and len(part.encode("utf-16-le")) <= 510
    )


class Names(unittest.TestCase):
    @settings(max_examples=3000)
    @given(
        TEMPLATES,
        st.tuples(VALUES, VALUES, VALUES),
        st.tuples(st.integers(0, 10**9), st.integers(0, 10**9)),
        st.tuples(VALUES, VALUES),
        MOMENTS,
        st.sampled_from([".JPG", "CR2", "", ".jpeg"]),
    )
    def test_a_template_is_rejected_or_makes_names_that_fit(
        self, text, fixed, numbers, texts, time, ext
    ):
        camera, station, job = (value[:60] for value in fixed)
        try:
            template = Template(text, camera=camera, maker="canon", station=station, job=job)
        except NameRejected:
            return
        name = template.name(*numbers, *texts, time, ext)
        parts = name.split("/")
        self.assertTrue(all(is_fit(part) for part in parts), name)
        self.assertNotEqual(parts[0].lower(), ".lumatie")
        self.assertEqual(len(parts), text.count("/") - text.count("{tag:/") + 1)
        self.assertEqual(name, template.name(*numbers, *texts, time, ext))
        second = numbered(name, 2)
        self.assertTrue(is_fit(second.rpartition("/")[2]), second)
        self.assertNotEqual(second, name)

    @settings(max_examples=1000)
    @given(VALUES, VALUES, MOMENTS)
    def test_the_usual_templates_take_every_value(self, tag, original, time):
        for text in ("{original}", "{tag}", "{tag}/{n}", "{date}_{tag}_{original}.{ext}"):
            name = Template(text).name(1, 1, original, tag, time, "JPG")
            self.assertTrue(all(is_fit(part) for part in name.split("/")), name)
            self.assertTrue(name.endswith("JPG") or "{n}" in text, name)

    @settings(max_examples=1000)
    @given(st.text(string.printable + "{}!:[].", max_size=30))
    def test_any_text_is_a_template_or_rejected(self, text):
        try:
            Template(text)
        except NameRejected as error:
            self.assertTrue(str(error))

    @settings(max_examples=500)
    @given(st.text(st.characters(blacklist_categories=["Cs"]), min_size=1, max_size=300))
    def test_a_number_is_put_into_any_name(self, name):
        assume("/" not in name and len(name.encode()) <= 255)
        assume("." not in name[1:] or len(name.rpartition(".")[2].encode()) < 100)
        self.assertLessEqual(len(numbered(name, 9999).encode()), 255)


if __name__ == "__main__":
    unittest.main()
