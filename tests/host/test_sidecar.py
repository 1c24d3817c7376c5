"""XMP sidecars: our fields in, everybody else's kept, and nothing ever half written."""

import errno
import os
import pathlib
import tempfile
import threading
import unittest
import xml.etree.ElementTree as ET
from unittest import mock

from lumatie_host import errors, sidecar

OTHERS = """<?xpacket begin="\ufeff" id="W5M0MpCehiHzreSzNTczkc9d"?>
<!-- of another program -->
<x:xmpmeta xmlns:x="adobe:ns:meta/" x:xmptk="Some Kit &amp; &quot;more&quot;">
 <rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#">
  <rdf:Description rdf:about="" xmlns:xap="http://ns.adobe.com/xap/1.0/"
    xmlns:crs="urn:raw" crs:Exposure="+0.50" xap:Rating="2" xap:Label="Green">
   <crs:Curve><rdf:Seq><rdf:li>0, 0</rdf:li><rdf:li>255, 255</rdf:li></rdf:Seq></crs:Curve>
   <plain xmlns="urn:plain"><inner a="1&#10;2">t<b/>tail</inner><!-- inside --><?own this?></plain>
  </rdf:Description>
  <rdf:Description rdf:about="" xmlns:dc="http://purl.org/dc/elements/1.1/" xmlns:xmp="urn:odd"
    xmp:odd="yes">
   <dc:title><rdf:Alt>
    <rdf:li xml:lang="x-default">Before</rdf:li><rdf:li xml:lang="de">Vorher</rdf:li>
   </rdf:Alt></dc:title>
   <dc:subject><rdf:Seq><rdf:li>one</rdf:li><rdf:li>two</rdf:li></rdf:Seq></dc:subject>
   <dc:creator><rdf:Seq><rdf:li>Somebody</rdf:li></rdf:Seq></dc:creator>
  </rdf:Description>
 </rdf:RDF>
</x:xmpmeta>
<?xpacket end="w"?>
"""

WITH_ELEMENTS = """<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"
 xmlns:xmp="http://ns.adobe.com/xap/1.0/" xmlns:dc="http://purl.org/dc/elements/1.1/">
 <rdf:Description rdf:about="uuid:1">
  <xmp:Rating>4.0</xmp:Rating><xmp:Label>Blue</xmp:Label>
  <dc:title>plain title</dc:title>
  <dc:rights><rdf:Alt><rdf:li xml:lang="en">English only</rdf:li></rdf:Alt></dc:rights>
 </rdf:Description>
</rdf:RDF>"""

PACKET = """<x:xmpmeta xmlns:x="adobe:ns:meta/"><rdf:RDF
 xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"><rdf:Description rdf:about=""
 xmlns:xmp="http://ns.adobe.com/xap/1.0/" %s/></rdf:RDF></x:xmpmeta>"""


class SidecarCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.picture = str(self.folder / "IMG.CR3")
        pathlib.Path(self.picture).write_bytes(b"the original")
        self.stem = self.folder / "IMG.xmp"
        self.full = self.folder / "IMG.CR3.xmp"

    def given(self, text, path=None):
        path = path or self.stem
        path.write_bytes(text.encode("utf-8") if isinstance(text, str) else text)
        return path

    def names(self):
        return sorted(os.listdir(str(self.folder)))


class Writing(SidecarCase):
    def test_all_fields_of_a_new_sidecar_read_as_they_were_written(self):
        path = sidecar.write(
            self.picture,
            rating=3,
            label="Rot",
            title='Ä "title" & <more>\nof two lines',
            keywords=["one", "zwei, drei", "四"],
            copyright="© 2026 Somebody",
        )
        self.assertEqual(path, str(self.stem))
        self.assertEqual(
            sidecar.read(self.picture),
            sidecar.Sidecar(
                path=str(self.stem),
                rating=3,
                label="Rot",
                title='Ä "title" & <more>\nof two lines',
                keywords=("one", "zwei, drei", "四"),
                copyright="© 2026 Somebody",
            ),
        )

    def test_a_new_sidecar_has_the_structure_that_other_programs_look_for(self):
        sidecar.write(self.picture, rating=5, label="Red", title="T", keywords=["k"], copyright="C")
        spaces = {"x": sidecar.X, "rdf": sidecar.RDF, "xmp": sidecar.XMP, "dc": sidecar.DC}
        root = ET.parse(str(self.stem)).getroot()
        self.assertEqual(root.tag, "{adobe:ns:meta/}xmpmeta")
        [description] = root.findall("rdf:RDF/rdf:Description", spaces)
        self.assertEqual(
            description.attrib,
            {
                "{%s}about" % sidecar.RDF: "",
                "{%s}Rating" % sidecar.XMP: "5",
                "{%s}Label" % sidecar.XMP: "Red",
            },
        )
        for name, container, text in (
            ("title", "Alt", "T"),
            ("subject", "Bag", "k"),
            ("rights", "Alt", "C"),
        ):
            [item] = description.findall("dc:%s/rdf:%s/rdf:li" % (name, container), spaces)
            self.assertEqual(item.text, text)
            language = {"{%s}lang" % sidecar.XML: "x-default"} if container == "Alt" else {}
            self.assertEqual(item.attrib, language)

    def test_fields_that_are_not_given_stay(self):
        sidecar.write(self.picture, rating=3, title="T", keywords=["a", "b"])
        sidecar.write(self.picture, label="Red")
        sidecar.write(self.picture, rating=0)
        told = sidecar.read(self.picture)
        self.assertEqual((told.rating, told.label, told.title), (0, "Red", "T"))
        self.assertEqual(told.keywords, ("a", "b"))

    def test_an_empty_text_or_no_keywords_remove_a_field(self):
        sidecar.write(self.picture, label="L", title="T", keywords=["a"], copyright="C")
        sidecar.write(self.picture, label="", title="", keywords=[], copyright="")
        self.assertEqual(sidecar.read(self.picture), sidecar.Sidecar(path=str(self.stem)))
        self.assertNotIn(b"dc:title", self.stem.read_bytes())

    def test_what_others_wrote_stays_to_the_letter(self):
        self.given(OTHERS)
        sidecar.write(self.picture, rating=5, title="Now", keywords=["three"])
        text = self.stem.read_text(encoding="utf-8")
        for kept in (
            '<?xpacket begin="\ufeff" id="W5M0MpCehiHzreSzNTczkc9d"?>\n<!-- of another program -->',
            'x:xmptk="Some Kit &amp; &quot;more&quot;"',
            'xmlns:crs="urn:raw"',
            'crs:Exposure="+0.50" xap:Rating="5" xap:Label="Green"',
            "<crs:Curve><rdf:Seq><rdf:li>0, 0</rdf:li><rdf:li>255, 255</rdf:li></rdf:Seq>",
            'inner a="1&#10;2">t<',
            "/>tail</",
            "<!-- inside --><?own this?>",
            'xmlns:xmp="urn:odd"',
            'xmp:odd="yes"',
            '<rdf:li xml:lang="de">Vorher</rdf:li>',
            "<dc:creator><rdf:Seq><rdf:li>Somebody</rdf:li></rdf:Seq></dc:creator>",
            '</x:xmpmeta>\n<?xpacket end="w"?>',
        ):
            self.assertIn(kept, text)
        root = ET.fromstring(text)
        plain = root.find(".//{urn:plain}plain/{urn:plain}inner")
        self.assertEqual(plain.attrib, {"a": "1\n2"})
        told = sidecar.read(self.picture)
        self.assertEqual((told.rating, told.label, told.title), (5, "Green", "Now"))
        self.assertEqual(told.keywords, ("three",))
        self.assertEqual(text.count("Rating"), 1)

    def test_properties_that_are_elements_stay_elements(self):
        self.given(WITH_ELEMENTS)
        sidecar.write(self.picture, rating=1, title="new", copyright="all languages")
        text = self.stem.read_text(encoding="utf-8")
        self.assertIn("<xmp:Rating>1</xmp:Rating>", text)
        self.assertIn("<xmp:Label>Blue</xmp:Label>", text)
        self.assertIn('<rdf:li xml:lang="en">English only</rdf:li>', text)
        self.assertIn('rdf:about="uuid:1"', text)
        told = sidecar.read(self.picture)
        self.assertEqual((told.rating, told.label), (1, "Blue"))
        self.assertEqual((told.title, told.copyright), ("new", "all languages"))

    def test_a_second_write_of_the_same_changes_nothing(self):
        self.given(OTHERS)
        sidecar.write(self.picture, rating=5, title="Now")
        once = self.stem.read_bytes()
        sidecar.write(self.picture, rating=5, title="Now")
        self.assertEqual(self.stem.read_bytes(), once)

    def test_the_picture_itself_is_not_touched(self):
        before = os.stat(self.picture)
        sidecar.write(self.picture, rating=3)
        self.assertEqual(pathlib.Path(self.picture).read_bytes(), b"the original")
        self.assertEqual(os.stat(self.picture).st_mtime_ns, before.st_mtime_ns)

    def test_ratings_are_zero_to_five_and_rejected(self):
        for rating in (-1, 0, 1, 2, 3, 4, 5):
            sidecar.write(self.picture, rating=rating)
            self.assertEqual(sidecar.read(self.picture).rating, rating)
        for rating in (-2, 6, 100, True, 2.5, 3.0, "3"):
            with self.subTest(rating), self.assertRaises(ValueError):
                sidecar.write(self.picture, rating=rating)
        self.assertEqual(sidecar.read(self.picture).rating, 5)

    def test_characters_that_xml_cannot_hold_are_left_out(self):
        sidecar.write(self.picture, title="(01)\x1d42\x00\ud800\ufffe!", keywords=["\x07bell"])
        told = sidecar.read(self.picture)
        self.assertEqual((told.title, told.keywords), ("(01)42!", ("bell",)))

    def test_one_text_in_place_of_keywords_is_refused(self):
        with self.assertRaises(ValueError):
            sidecar.write(self.picture, keywords="wedding")

    def test_texts_too_long_for_a_sidecar_are_refused_and_nothing_changes(self):
        sidecar.write(self.picture, rating=3)
        before = self.stem.read_bytes()
        with self.assertRaises(ValueError):
            sidecar.write(self.picture, title="x" * sidecar.LARGEST)
        self.assertEqual(self.stem.read_bytes(), before)
        self.assertEqual(self.names(), ["IMG.CR3", "IMG.xmp"])

    def test_threads_do_not_lose_each_others_fields(self):
        barrier = threading.Barrier(4)

        def write(**field):
            barrier.wait()
            sidecar.write(self.picture, **field)

        for _ in range(20):
            threads = [
                threading.Thread(target=write, kwargs=field)
                for field in ({"rating": 4}, {"label": "L"}, {"title": "T"}, {"keywords": ["k"]})
            ]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            told = sidecar.read(self.picture)
            told = (told.rating, told.label, told.title, told.keywords)
            self.assertEqual(told, (4, "L", "T", ("k",)))
            self.stem.unlink()

    def test_what_another_program_writes_meanwhile_is_not_lost(self):
        self.given(PACKET % 'xmp:Label="old"')
        beside = sidecar._write_beside
        pending = [PACKET % 'xmp:Label="of the other"']

        def write(path, data):
            temporary = beside(path, data)
            if pending:
                self.given(pending.pop())
            return temporary

        with mock.patch.object(sidecar, "_write_beside", write):
            sidecar.write(self.picture, rating=2)
        told = sidecar.read(self.picture)
        self.assertEqual((told.rating, told.label), (2, "of the other"))
        self.assertEqual(self.names(), ["IMG.CR3", "IMG.xmp"])

    def test_a_property_that_stands_several_times_stands_once_afterwards(self):
        twice = WITH_ELEMENTS.replace('uuid:1"', 'uuid:1" xmp:Rating="2"')
        twice = twice.replace("<dc:title>plain title", "<dc:title>again</dc:title><dc:title>")
        twice = twice.replace("<xmp:Rating>", "<xmp:Rating>3</xmp:Rating><xmp:Rating>")
        self.given(twice)
        sidecar.write(self.picture, rating=5, title="T")
        text = self.stem.read_text(encoding="utf-8")
        self.assertEqual(text.count("Rating"), 1)
        self.assertEqual(text.count("<dc:title"), 1)
        self.assertEqual(sidecar.read(self.picture).rating, 5)


class Naming(SidecarCase):
    def test_a_new_sidecar_is_named_as_asked(self):
        self.assertEqual(sidecar.write(self.picture, rating=1), str(self.stem))
        self.stem.unlink()
        self.assertEqual(sidecar.write(self.picture, rating=1, naming="full"), str(self.full))
        self.assertEqual(sidecar.read(self.picture).path, str(self.full))

    def test_an_existing_sidecar_is_used_whichever_naming_is_asked_for(self):
        for there in (self.stem, self.full, self.folder / "IMG.XMP"):
            for naming in ("stem", "full"):
                with self.subTest(there=there.name, naming=naming):
                    self.given(PACKET % 'xmp:Rating="1"', there)
                    path = sidecar.write(self.picture, rating=2, naming=naming)
                    self.assertEqual(os.path.normcase(path), os.path.normcase(str(there)))
                    self.assertEqual(sidecar.read(self.picture).rating, 2)
                    self.assertEqual(self.names(), sorted(["IMG.CR3", there.name]))
                    there.unlink()

    def test_of_two_the_one_with_the_whole_name_is_read_and_written(self):
        self.given(PACKET % 'xmp:Rating="1"', self.stem)
        self.given(PACKET % 'xmp:Rating="2"', self.full)
        self.assertEqual(sidecar.read(self.picture).rating, 2)
        sidecar.write(self.picture, rating=3)
        self.assertEqual(sidecar.read(self.picture).rating, 3)
        self.assertIn(b'Rating="1"', self.stem.read_bytes())

    def test_raw_and_jpeg_of_a_shot_share_the_stem(self):
        sidecar.write(self.picture, rating=4)
        self.assertEqual(sidecar.read(str(self.folder / "IMG.JPG")).rating, 4)

    def test_a_picture_without_a_sidecar_says_nothing(self):
        self.assertEqual(sidecar.read(self.picture), sidecar.Sidecar())

    def test_another_naming_and_a_sidecar_in_place_of_a_picture_are_refused(self):
        with self.assertRaises(ValueError):
            sidecar.write(self.picture, rating=1, naming="both")
        with self.assertRaises(ValueError):
            sidecar.write(str(self.stem), rating=1)
        self.assertEqual(self.names(), ["IMG.CR3"])


class Damage(SidecarCase):
    def test_a_damaged_sidecar_is_neither_read_nor_replaced(self):
        bomb = '<!DOCTYPE a [<!ENTITY b "bbbb"><!ENTITY c "&b;&b;">]><a>&c;</a>'
        why = {
            "": "no element found: line 1, column 0",
            "no XML": "syntax error: line 1, column 0",
            OTHERS[:500]: None,
            "<html/>": "it is no XMP",
            bomb: "it has a document type, which may hide anything",
            "<!DOCTYPE x SYSTEM 'file:///etc/passwd'>" + PACKET % "": (
                "it has a document type, which may hide anything"
            ),
            "<a>" * 100_000: "its elements are nested too deeply",
            PACKET % "" + " " * sidecar.LARGEST: "it is larger than a sidecar can be",
            '<?xml version="1.0" encoding="nope"?><a/>': None,
        }
        for text, words in why.items():
            with self.subTest(text[:60]):
                self.given(text)
                for act in (
                    lambda: sidecar.read(self.picture),
                    lambda: sidecar.write(self.picture, rating=1),
                ):
                    with self.assertRaises(errors.WriteFailed) as raised:
                        act()
                    self.assertIsInstance(raised.exception, errors.SidecarDamaged)
                    self.assertEqual(raised.exception.path, str(self.stem))
                    if words:
                        self.assertEqual(raised.exception.why, words)
                self.assertEqual(self.stem.read_bytes(), text.encode("utf-8"))
                self.assertEqual(self.names(), ["IMG.CR3", "IMG.xmp"])

    def test_a_document_type_in_another_encoding_is_refused_too(self):
        bomb = '<?xml version="1.0" encoding="utf-16"?><!DOCTYPE a [<!ENTITY b "c">]><a>&b;</a>'
        self.given(bomb.encode("utf-16"))
        with self.assertRaises(errors.SidecarDamaged) as raised:
            sidecar.read(self.picture)
        self.assertIn("document type", raised.exception.why)

    def test_a_folder_in_place_of_a_sidecar_is_told(self):
        self.stem.mkdir()
        with self.assertRaises(errors.SidecarDamaged):
            sidecar.write(self.picture, rating=1)

    def test_ratings_that_are_none_read_as_none(self):
        for text in ("", "six", "99", "-7", "1e3", "3.5"):
            with self.subTest(text):
                self.given(PACKET % ('xmp:Rating="%s"' % text))
                self.assertIsNone(sidecar.read(self.picture).rating)

    def test_a_full_disk_is_a_write_failure_and_the_old_sidecar_stays(self):
        sidecar.write(self.picture, rating=3)
        before = self.stem.read_bytes()
        for function in ("fsync", "replace"):
            with self.subTest(function):
                full = OSError(errno.ENOSPC, "No space left on device")
                failing = mock.patch.object(os, function, side_effect=full)
                with failing, self.assertRaises(errors.WriteFailed) as raised:
                    sidecar.write(self.picture, rating=4)
                self.assertEqual(raised.exception.evidence, "%s: %s" % (self.stem, full.strerror))
                self.assertEqual(self.stem.read_bytes(), before)
                self.assertEqual(self.names(), ["IMG.CR3", "IMG.xmp"])

    def test_a_folder_that_is_missing_is_a_write_failure(self):
        with self.assertRaises(errors.WriteFailed):
            sidecar.write(str(self.folder / "gone" / "IMG.CR3"), rating=4)

    @unittest.skipIf(os.name == "nt", "Windows lets only the privileged make symbolic links")
    def test_a_link_stays_a_link_and_one_to_the_picture_does_no_harm(self):
        real = self.given(PACKET % 'xmp:Rating="1"', self.folder / "elsewhere")
        self.stem.symlink_to(real)
        sidecar.write(self.picture, rating=2)
        self.assertTrue(self.stem.is_symlink())
        self.assertIn(b'Rating="2"', real.read_bytes())
        self.stem.unlink()
        self.stem.symlink_to(self.picture)
        with self.assertRaises(errors.SidecarDamaged):
            sidecar.write(self.picture, rating=2)
        self.assertEqual(pathlib.Path(self.picture).read_bytes(), b"the original")


if __name__ == "__main__":
    unittest.main()
