"""What the tests of the wheels stand on: the wheels, and environments with nothing in them.

The wheels are those of `./run wheels`, in build/wheels.
"""

import json
import os
import pathlib
import subprocess
import tempfile
import time
import unittest
import urllib.request
import zipfile

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
WHEELS = REPOSITORY / "build" / "wheels"
DEADLINE = 300  # seconds, for a program on a loaded machine; only a failing test waits for it
COMPILING = 800  # the same, for all of the virtual cameras
PAGE_PATIENCE = 10  # seconds from the command to its page


def wheels(pattern):
    """The wheels of a pattern; fails where there is none."""
    found = sorted(WHEELS.glob(pattern))
    if not found:
        raise AssertionError("no %s in %s: ./run wheels" % (pattern, WHEELS))
    return found


def contents(wheel):
    """The files in a wheel: names, and bytes."""
    with zipfile.ZipFile(str(wheel)) as archive:
        return {name: archive.read(name) for name in archive.namelist() if not name.endswith("/")}


def interpreters():
    """The interpreters that there are wheels for, as scripts/wheels.sh found them: tag and path."""
    found = {}
    command = ["/usr/bin/python3", str(REPOSITORY / "scripts" / "find_pythons.py")]
    for path in run(*command).split():
        tag = run(path, "-c", "import sys; print('cp%d%d' % sys.version_info[:2])").strip()
        found[tag] = path
    return found


def environment():
    """The variables of a program that has nothing but what is installed."""
    unwanted = ("PYTHONPATH", "PYTHONHOME", "LD_LIBRARY_PATH", "PIP_CONSTRAINT")
    kept = {name: value for name, value in os.environ.items() if name not in unwanted}
    return dict(kept, PYTHONNOUSERSITE="1", PIP_DISABLE_PIP_VERSION_CHECK="1")


def run(*command, **options):
    """Runs a program, and returns what it printed; fails with all of that when it does."""
    done = subprocess.run(
        [str(part) for part in command],
        env=dict(environment(), **options.pop("variables", {})),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=options.pop("timeout", DEADLINE),
        check=False,
        **options,
    )
    text = done.stdout.decode("utf-8", "replace")
    if done.returncode:
        raise AssertionError("%s ended with %d:\n%s" % (command, done.returncode, text))
    return text


class InstallTestCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="lumatie-wheels-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(os.path.realpath(folder.name))

    def bare(self, python):
        """The folder of the programs of a new environment of an interpreter."""
        home = self.folder / "bare"
        run(python, "-m", "venv", "--clear", home)
        return home / "bin"

    def installed(self):
        """Every file of the environment, but what an interpreter compiled for itself."""
        home = self.folder / "bare"
        files = (path for path in home.glob("**/*") if not path.is_dir())
        return {str(path.relative_to(home)) for path in files if path.suffix != ".pyc"}

    def install(self, programs, *what):
        """Installs wheels with nothing from a network."""
        offline = ("--quiet", "--no-index", "--find-links", WHEELS)
        run(programs / "pip", "install", *offline, *what)

    def assert_shoots(self, command, *maker):
        """One picture is taken and recorded, with what is installed."""
        pictures = self.folder / "pictures"
        pictures.mkdir(exist_ok=True)
        before = set(os.listdir(str(pictures)))
        run(*command, "shoot", "-n", "1", *maker, "--folder", pictures, cwd=str(self.folder))
        new = set(os.listdir(str(pictures))) - before - {".lumatie"}
        self.assertEqual(len(new), 1, new)
        self.assertTrue((pictures / new.pop()).read_bytes().startswith(b"\xff\xd8"))

    def served(self, programs):
        """Seconds from the command to the page's first bytes."""
        options = ("--virtual", "canon", "--folder", str(self.folder), "--port", "0", "--json")
        begin = time.monotonic()
        server = subprocess.Popen(
            [str(programs / "lumatie"), "serve", *options],
            env=environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
        )
        self.addCleanup(server.stdout.close)
        try:
            for line in server.stdout:
                told = json.loads(line.decode())
                if told["kind"] == "serving":
                    with urllib.request.urlopen(told["url"], timeout=PAGE_PATIENCE) as page:
                        self.assertIn(b"<html", page.read())
                    return time.monotonic() - begin
        finally:
            server.terminate()
            server.wait(timeout=60)
        raise AssertionError("no page: %s" % server.returncode)
