"""The version, which stands in one place and is told in many."""

import pathlib
import re
import subprocess
import sys
import unittest

import lumatie
import lumatie_host
from virtual_cameras import BUILD

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]


class VersionTest(unittest.TestCase):
    def test_the_newest_heading_of_the_changelog_is_it(self):
        changes = (REPOSITORY / "CHANGELOG.md").read_text(encoding="utf-8")
        newest = re.search("^## (.+)$", changes, re.MULTILINE)
        self.assertEqual(newest.group(1), lumatie_host.__version__)

    def test_the_module_and_the_virtual_cameras_were_built_with_it(self):
        cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
        built = re.search("^CMAKE_PROJECT_VERSION:STATIC=(.+)$", cache, re.MULTILINE)
        self.assertEqual(built.group(1), lumatie_host.__version__)

    def test_the_command_tells_it(self):
        command = [sys.executable, "-m", "lumatie_host.cli", "info"]
        told = subprocess.run(command, stdout=subprocess.PIPE, timeout=60, check=True).stdout
        self.assertIn("version " + lumatie_host.__version__, told.decode("utf-8", "replace"))


class ShortNameTest(unittest.TestCase):
    def test_it_has_what_the_package_has(self):
        self.assertEqual(sorted(lumatie.__all__), sorted(lumatie_host.__all__))
        for name in lumatie_host.__all__:
            self.assertIs(getattr(lumatie, name), getattr(lumatie_host, name))

    def test_it_has_nothing_else(self):
        with self.assertRaisesRegex(AttributeError, "'lumatie' has no attribute 'session'"):
            lumatie.session  # noqa: B018

    def test_asyncio_is_imported_when_it_is_asked_for(self):
        program = "import sys, lumatie; print('asyncio' in sys.modules); lumatie.AsyncSession"
        command = [sys.executable, "-c", program + "; print('asyncio' in sys.modules)"]
        told = subprocess.run(command, stdout=subprocess.PIPE, timeout=60, check=True).stdout
        self.assertEqual(told.decode().split(), ["False", "True"])


if __name__ == "__main__":
    unittest.main()
