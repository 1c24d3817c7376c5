"""The page from a bare environment, with what its extra brings from the package index."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from wheels_support import PAGE_PATIENCE, WHEELS, InstallTestCase, interpreters, run  # noqa: E402


class PageTest(InstallTestCase):
    def test_it_is_served_ten_seconds_after_the_command_at_most(self):
        for tag, python in interpreters().items():
            with self.subTest(tag):
                programs = self.bare(python)
                what = ("lumatie[page]", "lumatie-virtual")
                run(programs / "pip", "install", "--quiet", "--find-links", WHEELS, *what)
                took = self.served(programs)
                print("%s: a page after %.1f s" % (tag, took))
                self.assertLess(took, PAGE_PATIENCE)


if __name__ == "__main__":
    unittest.main()
