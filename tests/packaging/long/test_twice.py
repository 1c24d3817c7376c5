"""The wheels for Windows, made in another folder: their bytes do not tell where that was."""

import hashlib
import os
import pathlib
import shutil
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from wheels_support import COMPILING, REPOSITORY, WHEELS, run  # noqa: E402


class TwiceTest(unittest.TestCase):
    def test_the_same_tree_makes_the_same_wheels_for_windows_in_another_folder(self):
        with tempfile.TemporaryDirectory(prefix="lumatie-another-folder-") as folder:
            copy = pathlib.Path(os.path.realpath(folder))
            copy_tree(copy)
            build = (copy / "scripts" / "build.sh", "windows", "wheel")
            run(*build, timeout=COMPILING, cwd=str(copy))
            run(sys.executable, copy / "scripts" / "wheels.py", "windows", cwd=str(copy))
            made = sorted((copy / "build" / "wheels").iterdir())
            self.assertEqual(len(made), 2, made)
            for path in made:
                with self.subTest(path.name):
                    self.assertEqual(digest(path), digest(WHEELS / path.name))


def copy_tree(target):
    """What the tree has of its own, with the tools that it is built with."""
    for name in run("git", "ls-files", cwd=str(REPOSITORY)).splitlines():
        (target / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(str(REPOSITORY / name), str(target / name))
    (target / "build").mkdir()
    os.symlink(str(REPOSITORY / "build" / "tools"), str(target / "build" / "tools"))


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


if __name__ == "__main__":
    unittest.main()
