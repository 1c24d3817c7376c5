"""The type stubs say what the built module has: mypy's stubtest compares the two.

The environment variable LUMATIE_STUBTEST names the stubtest command; it brings its own
interpreter, for which the module has to be built as well.
"""

import os
import pathlib
import shlex
import shutil
import subprocess
import tempfile
import unittest

from support import BUILD, PYTHON_DIR
from this_process import ON_WINDOWS

COMMAND = shlex.split(os.environ.get("LUMATIE_STUBTEST", ""))


@unittest.skipIf(ON_WINDOWS, "stubtest runs on Linux, and the stubs are the same")
class StubsTest(unittest.TestCase):
    def setUp(self):
        if not COMMAND and os.environ.get("CI") == "true":
            self.fail("LUMATIE_STUBTEST names no stubtest command, so the stubs are not checked")
        if not COMMAND:
            self.skipTest("LUMATIE_STUBTEST names no stubtest command")
        folder = tempfile.TemporaryDirectory(prefix="lumatie-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def stubtest(self, *modules):
        """Compares copies of the stubs with the modules; returns the exit status and the text."""
        # A wheel has the module for one interpreter, which need not be the tool's.
        modules_in = os.pathsep.join((str(PYTHON_DIR), str(BUILD / "python")))
        variables = dict(os.environ, PYTHONPATH=modules_in, MYPYPATH=str(self.folder))
        done = subprocess.run(
            COMMAND + list(modules),
            cwd=str(self.folder),
            env=variables,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            universal_newlines=True,
            timeout=300,
            check=False,
        )
        return done.returncode, done.stdout

    def copy(self, name):
        stub = PYTHON_DIR / name
        if not stub.exists():  # a wheel has a package of each
            stub = PYTHON_DIR / name.replace(".pyi", "-stubs") / "__init__.pyi"
        return pathlib.Path(shutil.copy(str(stub), str(self.folder / name)))

    def test_the_stubs_agree_with_the_modules(self):
        self.copy("_Lumatie.pyi")
        self.copy("Lumatie.pyi")
        status, text = self.stubtest("_Lumatie", "Lumatie")
        self.assertEqual((status, "no issues found in 2 modules" in text), (0, True), text)

    def test_a_stub_that_lacks_a_function_is_found(self):
        stub = self.copy("_Lumatie.pyi")
        stub.write_text(stub.read_text().replace("def Lumatie_Shoot", "def Lumatie_Shot"))
        status, text = self.stubtest("_Lumatie")
        self.assertEqual(status, 1, text)
        self.assertIn("_Lumatie.Lumatie_Shoot is not present in stub", text)


if __name__ == "__main__":
    unittest.main()
