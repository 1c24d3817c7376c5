"""Whatever is written reads back, whatever is found survives or is refused."""

import os
import tempfile
import unittest
import xml.etree.ElementTree as ET

import repeatable  # noqa: F401  the same examples each time
from hypothesis import given
from hypothesis import strategies as st
from lumatie_host import errors, sidecar

TEXTS = st.text(st.characters(blacklist_categories=()), max_size=40)
NAMES = st.text("abcdefghij", min_size=1, max_size=5)
OURS = {
    "{%s}%s" % (space, name)
    for space, name in (
        (sidecar.XMP, "Rating"),
        (sidecar.XMP, "Label"),
        (sidecar.DC, "title"),
        (sidecar.DC, "subject"),
        (sidecar.DC, "rights"),
    )
}


def cleaned(text):
    return sidecar._clean(text)


@st.composite
def foreign(draw, depth=3):
    """An element of somebody else's, in a namespace of his own or in none."""
    space = draw(st.sampled_from(("urn:a", "urn:b", "urn:c d&<", "")))
    element = ET.Element("{%s}%s" % (space, draw(NAMES)) if space else draw(NAMES))
    for name in draw(st.lists(NAMES, max_size=3)):
        element.set(draw(st.sampled_from(("", "{urn:a}", "{urn:b}"))) + name, cleaned(draw(TEXTS)))
    element.text = cleaned(draw(TEXTS))
    element.tail = cleaned(draw(TEXTS))
    if depth:
        element.extend(draw(st.lists(foreign(depth - 1), max_size=3)))
    return element


def shape(element):
    """All that an element says, without our own fields."""
    return (
        element.tag,
        sorted((name, value) for name, value in element.attrib.items() if name not in OURS),
        (element.text or ""),
        [shape(child) for child in element if child.tag not in OURS],
    )


class Sidecars(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.picture = os.path.join(folder.name, "IMG.JPG")
        self.path = os.path.join(folder.name, "IMG.xmp")

    def put(self, data):
        with open(self.path, "wb") as stream:
            stream.write(data)

    def content(self):
        with open(self.path, "rb") as stream:
            return stream.read()

    @given(st.integers(-1, 5), TEXTS, TEXTS, st.lists(TEXTS, max_size=5), TEXTS)
    def test_what_was_written_reads_back(self, rating, label, title, keywords, rights):
        if os.path.exists(self.path):
            os.unlink(self.path)
        fields = {
            "rating": rating,
            "label": label,
            "title": title,
            "keywords": keywords,
            "copyright": rights,
        }
        sidecar.write(self.picture, **fields)
        told = sidecar.read(self.picture)
        self.assertEqual(told.rating, rating)
        self.assertEqual(told.label or "", cleaned(label))
        self.assertEqual(told.title or "", cleaned(title))
        self.assertEqual(told.keywords, tuple(map(cleaned, keywords)))
        self.assertEqual(told.copyright or "", cleaned(rights))
        once = self.content()
        sidecar.write(self.picture, **fields)
        self.assertEqual(self.content(), once)

    @given(st.lists(foreign(), max_size=4), TEXTS, st.integers(-1, 5))
    def test_what_others_wrote_survives(self, elements, title, rating):
        root = ET.fromstring(sidecar._EMPTY)
        description = root.find(".//{%s}Description" % sidecar.RDF)
        description.extend(elements)
        self.put(ET.tostring(root, encoding="utf-8"))
        before = shape(ET.fromstring(self.content()))
        sidecar.write(self.picture, rating=rating, title=title, label="x")
        after = ET.fromstring(self.content())
        self.assertEqual(shape(after), before)
        self.assertEqual(sidecar.read(self.picture).rating, rating)

    @given(st.binary(max_size=300) | TEXTS.map(lambda text: cleaned(text).encode("utf-8")))
    def test_rubbish_is_refused_and_stays(self, data):
        self.put(data)
        for act in (sidecar.read, lambda picture: sidecar.write(picture, rating=1)):
            with self.assertRaises(errors.SidecarDamaged):
                act(self.picture)
        self.assertEqual(self.content(), data)

    @given(st.data())
    def test_a_sidecar_with_a_byte_changed_is_read_or_refused_and_never_lost(self, data):
        whole = (sidecar._EMPTY.replace('rdf:about=""', 'rdf:about="" xmp:Rating="3"')).encode()
        at = data.draw(st.integers(0, len(whole) - 1))
        changed = whole[:at] + data.draw(st.binary(max_size=3)) + whole[at + 1 :]
        self.put(changed)
        try:
            sidecar.write(self.picture, label="L")
        except errors.SidecarDamaged:
            self.assertEqual(self.content(), changed)
        else:
            self.assertEqual(sidecar.read(self.picture).label, "L")


if __name__ == "__main__":
    unittest.main()
