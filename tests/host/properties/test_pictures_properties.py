"""Files of any content are whole or torn, and nothing else happens."""

import os
import pathlib
import sys
import tempfile
import unittest

from hypothesis import given
from hypothesis import strategies as st

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

import picture_files  # noqa: E402  lies one folder up
from lumatie_host.pictures import Torn, inspect  # noqa: E402
from repeatable import settings

GOOD = (
    picture_files.jpeg(),
    picture_files.jpeg_with_second(picture_files.jpeg(with_exif=False)),
    picture_files.tiff(),
    picture_files.tiff(order=">"),
    picture_files.cr3(),
)
CHANGES = st.lists(
    st.tuples(
        st.floats(0, 1, exclude_max=True),
        st.sampled_from([b"\0", b"\xff", b"\x7f\xff\xff\xff", b"\xff\xff\xff\xff", b"\0\0\0\0"])
        | st.binary(max_size=8),
    ),
    max_size=6,
)


@st.composite
def damaged(draw):
    content = bytearray(draw(st.sampled_from(GOOD)))
    for place, change in draw(CHANGES):
        at = int(place * len(content))
        content[at : at + len(change)] = change
    return bytes(content[: draw(st.integers(0, len(content)))]) if draw(st.booleans()) else content


CONTENTS = (
    st.binary(max_size=300)
    | damaged()
    | st.binary(max_size=300).map(lambda rest: b"\xff\xd8\xff" + rest + b"\xff\xd9")
    | st.binary(max_size=300).map(lambda rest: b"II*\0\x08\0\0\0" + rest)
    | st.binary(max_size=300).map(lambda rest: picture_files.box(b"ftyp", b"crx ") + rest)
)


class AnyFile(unittest.TestCase):
    @settings(max_examples=5000)
    @given(CONTENTS, st.sampled_from([".JPG", ".NEF", ".tif", ".CR3", ".raw"]))
    def test_a_file_is_whole_or_torn(self, content, extension):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "a" + extension)
            path.write_bytes(content)
            try:
                found = inspect(str(path))
            except Torn as torn:
                self.assertTrue(torn.why)
                return
            self.assertEqual(found.size, len(content))
            self.assertGreater(found.size, 0)
            if extension == ".JPG":
                self.assertEqual(bytes(content[:3]), b"\xff\xd8\xff")
                self.assertIn(b"\xff\xd9", content[2:])
            if extension == ".NEF":
                self.assertIn(bytes(content[:2]), (b"II", b"MM"))


if __name__ == "__main__":
    unittest.main()
