"""That the files of the package use each other in one direction, and little else."""

import ast
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
from typing import Dict, Iterator, Tuple

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
PACKAGE = REPOSITORY / "host" / "lumatie_host"

# What is in the standard library on one system only is asked for where it is there.
ELSEWHERE = {"fcntl", "msvcrt", "winreg"}

# What some of the outer parts use where it is installed, and nothing else does.
EXTRAS = ("aiohttp", "PIL", "segno", "rawpy", "exifread", "paho")

# Which of them a folder may use.
EXTRAS_OF = {"page": {"aiohttp", "PIL", "segno", "rawpy"}, "studio": {"aiohttp"}}


def layers() -> Dict[str, int]:
    """The layer of each file, as the page on coding has them."""
    page = (REPOSITORY / "docs" / "coding.md").read_text(encoding="utf-8")
    rows = re.findall(r"^\| (\d+): [^|]+ \| (`[^|]+`) \|", page, re.MULTILINE)
    return {name: int(row) for row, names in rows for name in re.findall(r"`(\w+)/?`", names)}


def imports(path: pathlib.Path) -> Iterator[Tuple[int, str]]:
    """The level and the first part of each name that a file imports, wherever in it."""
    for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            for alias in node.names:
                yield 0, alias.name.partition(".")[0]
        elif isinstance(node, ast.ImportFrom) and node.module:
            yield node.level, node.module.partition(".")[0]
        elif isinstance(node, ast.ImportFrom):
            for alias in node.names:
                yield node.level, alias.name


class Layers(unittest.TestCase):
    def test_each_file_has_a_layer_and_uses_lower_ones_only(self):
        known = layers()
        files = {path.stem for path in PACKAGE.glob("*.py")} - {"__init__"}
        folders = {path.parent.name for path in PACKAGE.glob("*/__init__.py")}
        self.assertEqual(set(known), files | folders)
        for path in PACKAGE.glob("*.py"):
            if path.stem == "__init__":
                continue
            for level, name in imports(path):
                if level:
                    with self.subTest(file=path.stem, uses=name):
                        self.assertLess(known[name], known[path.stem])

    @unittest.skipUnless(
        hasattr(sys, "stdlib_module_names"), "Python lists its own modules from 3.10 on"
    )
    def test_the_standard_library_is_all_that_is_used(self):
        for path in PACKAGE.glob("**/*.py"):
            allowed = ELSEWHERE | EXTRAS_OF.get(path.parent.name, set())
            for level, name in imports(path):
                if not level and name not in allowed:
                    with self.subTest(file=path.name, uses=name):
                        self.assertIn(name, sys.stdlib_module_names)

    def test_the_package_is_imported_without_asyncio_the_network_the_module_and_any_extra(self):
        unwanted = ["asyncio", "ssl", "http", "email", "Lumatie", "_Lumatie", *EXTRAS]
        program = "import sys, lumatie_host; print(sys.modules.keys() & set(sys.argv[1:]))"
        with tempfile.TemporaryDirectory(prefix="lumatie-") as folder:
            for name in EXTRAS:  # so that they are there to be imported
                pathlib.Path(folder, name + ".py").touch()
            path = os.pathsep.join((str(REPOSITORY / "host"), folder))
            done = subprocess.run(
                [sys.executable, "-c", program, *unwanted],
                env=dict(os.environ, PYTHONPATH=path),
                stdout=subprocess.PIPE,
                universal_newlines=True,
                timeout=60,
                check=True,
            )
        self.assertEqual(done.stdout.strip(), "set()")


if __name__ == "__main__":
    unittest.main()
