"""Tokens that outlive a start of the page."""

import json
import os
import stat
import tempfile
import unittest
from unittest import mock

from lumatie_host.page import tokens


def both(one):
    return one.operator, one.viewer


class Kept(unittest.TestCase):
    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-")
        self.addCleanup(base.cleanup)
        self.state = os.path.join(base.name, "state")
        self.folder = os.path.join(base.name, "shoot")
        os.mkdir(self.folder)
        names = {"XDG_STATE_HOME": self.state, "LOCALAPPDATA": self.state}
        patch = mock.patch.dict(os.environ, names)
        patch.start()
        self.addCleanup(patch.stop)

    @property
    def files(self):
        return [
            os.path.join(folder, name) for folder, _, names in os.walk(self.state) for name in names
        ]

    def test_the_next_start_has_the_same_and_another_folder_others(self):
        first = both(tokens.kept(self.folder))
        for one in first:
            self.assertRegex(one, "^[0-9a-f]{32}$")
        self.assertNotEqual(*first)
        self.assertEqual(both(tokens.kept(os.path.join(self.folder, ".", ""))), first)
        self.assertTrue(set(first).isdisjoint(both(tokens.kept(self.folder + "2"))))

    def test_new_ones_end_those_of_before(self):
        first = both(tokens.kept(self.folder))
        second = both(tokens.kept(self.folder, are_new=True))
        self.assertTrue(set(first).isdisjoint(second))
        self.assertEqual(both(tokens.kept(self.folder)), second)

    @unittest.skipIf(os.name == "nt", "there the folder's own rights keep others out")
    def test_their_file_is_for_the_user_alone_and_one_that_others_may_read_is_not_used(self):
        first = both(tokens.kept(self.folder))
        self.assertEqual(os.listdir(self.folder), [])
        (path,) = self.files
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.assertEqual(stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode), 0o700)
        os.chmod(path, 0o640)
        second = both(tokens.kept(self.folder))
        self.assertTrue(set(first).isdisjoint(second))
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.assertEqual(both(tokens.kept(self.folder)), second)

    def test_a_file_that_holds_something_else_is_replaced(self):
        first = both(tokens.kept(self.folder))
        (path,) = self.files
        same = json.dumps(dict.fromkeys(("operator", "viewer"), "a" * 32))
        for text in ("", "[]", "{}", "\0", same):
            with open(path, "w", encoding="ascii") as file:
                file.write(text)
            second = both(tokens.kept(self.folder))
            self.assertEqual(len({*first, *second}), 4, text)
            self.assertEqual(both(tokens.kept(self.folder)), second)

    def test_without_a_place_for_them_they_are_good_for_this_start(self):
        with open(self.state, "w"):
            pass  # a file where the folder should be
        with self.assertLogs("lumatie_host", "WARNING") as log:
            first = both(tokens.kept(self.folder))
            self.assertTrue(set(first).isdisjoint(both(tokens.kept(self.folder))))
        for one in first:
            self.assertNotIn(one, str(log.output))


if __name__ == "__main__":
    unittest.main()
