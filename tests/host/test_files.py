"""Names of files: nothing is replaced, on no kind of disk, and second ones are numbered."""

import contextlib
import errno
import itertools
import os
import pathlib
import tempfile
import unittest
from unittest import mock

from disks import no_links, no_links_and_no_system_call
from lumatie_host import files
from lumatie_host.files import LONGEST, candidates, is_inside, numbered, rename_new


@contextlib.contextmanager
def no_links_and_a_disk_that_refuses_the_call():
    def refuse(*_):
        files.ctypes.set_errno(errno.EINVAL)
        return -1

    with no_links(), mock.patch.object(files, "_renameat2", return_value=refuse):
        yield


DISKS = (
    contextlib.suppress,
    no_links,
    no_links_and_no_system_call,
    no_links_and_a_disk_that_refuses_the_call,
)


class Renaming(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.source = pathlib.Path(folder.name, "source")
        self.target = pathlib.Path(folder.name, "target")

    def on_each_disk(self):
        for disk in DISKS:
            with self.subTest(disk=disk.__name__), disk():
                self.source.write_bytes(b"new")
                with contextlib.suppress(FileNotFoundError):
                    self.target.unlink()
                yield

    def test_a_file_gets_a_name_that_is_free(self):
        for _ in self.on_each_disk():
            rename_new(str(self.source), str(self.target))
            self.assertEqual(self.target.read_bytes(), b"new")
            self.assertFalse(self.source.exists())

    def test_a_file_of_that_name_is_not_replaced(self):
        for _ in self.on_each_disk():
            self.target.write_bytes(b"old")
            with self.assertRaises(FileExistsError):
                rename_new(str(self.source), str(self.target))
            self.assertEqual(self.target.read_bytes(), b"old")
            self.assertEqual(self.source.read_bytes(), b"new")

    def test_a_rename_that_fails_leaves_no_name(self):
        for _ in self.on_each_disk():
            self.source.unlink()
            with self.assertRaises(FileNotFoundError):
                rename_new(str(self.source), str(self.target))
            self.assertFalse(self.target.exists())


class Numbered(unittest.TestCase):
    def test_the_number_stands_in_front_of_the_extension(self):
        self.assertEqual(numbered("a.JPG", 2), "a (2).JPG")
        self.assertEqual(numbered("x.y/a.b.JPG", 3), "x.y/a.b (3).JPG")
        self.assertEqual(numbered("a", 2), "a (2)")

    def test_a_name_of_the_longest_length_is_cut(self):
        made = numbered("ü" * 125 + "a.JPG", 12345)
        self.assertLessEqual(len(made.encode()), LONGEST)
        self.assertTrue(made.endswith("ü (12345).JPG"))

    def test_the_names_that_are_tried_have_no_end(self):
        tried = list(itertools.islice(candidates("a/b.JPG"), 3))
        self.assertEqual(tried, ["a/b.JPG", "a/b (2).JPG", "a/b (3).JPG"])

    def test_a_name_that_leads_out_of_a_folder_is_known(self):
        for name in ("../a", "/a", "a//b", "", "a/../b", "a\0b", "."):
            self.assertFalse(is_inside(name), name)
        for name in ("a\\b", "c:a"):
            self.assertEqual(is_inside(name), os.name != "nt", name)
        self.assertTrue(is_inside("a/b.JPG"))


if __name__ == "__main__":
    unittest.main()
