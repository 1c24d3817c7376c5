"""The wheels in the Windows interpreter, under Wine, with that interpreter's own pip."""

import os
import pathlib
import unittest

from wheels_support import REPOSITORY, WHEELS, InstallTestCase, run

INTERPRETER = str(REPOSITORY / "scripts" / "windows_python.sh")
HOME = pathlib.Path(
    os.environ.get("LUMATIE_WINDOWS_PYTHON") or REPOSITORY / "build" / "tools" / "windows-python"
)


def windows(path):
    return "Z:" + str(path).replace("/", "\\")


class WindowsTest(InstallTestCase):
    def setUp(self):
        super().setUp()
        self.site = self.folder / "site"

    def python(self, *arguments, **variables):
        told = [windows(one) if os.path.isabs(str(one)) else one for one in arguments]
        return run(INTERPRETER, *told, variables=variables, cwd=str(self.folder))

    def install(self, *what):
        pip = sorted((HOME / "Lib" / "ensurepip" / "_bundled").glob("pip-*.whl"))[-1]
        offline = ("--no-index", "--find-links", WHEELS, "--target", self.site)
        self.python(pip / "pip", "install", *offline, *what)

    def lumatie(self, *arguments):
        """The installed command, by its module."""
        path = windows(self.site)
        return self.python("-m", "lumatie_host.cli", *arguments, PYTHONPATH=path)

    def test_a_shoot_needs_the_two_wheels_and_nothing_else(self):
        self.install("lumatie", "lumatie-virtual")
        told = self.lumatie("info")
        self.assertIn(windows(self.site).lower() + "\\_lumatie.pyd", told.lower())
        for chosen in (
            ("--virtual", "canon"),
            ("--virtual", "nikon"),
            ("--camera", "Virtual EOS"),  # found because the package is installed
        ):
            with self.subTest(chosen):
                pictures = self.folder / chosen[1]
                pictures.mkdir()
                self.lumatie("shoot", "-n", "1", *chosen, "--folder", pictures)
                (picture,) = (one for one in pictures.iterdir() if one.name != ".lumatie")
                self.assertTrue(picture.read_bytes().startswith(b"\xff\xd8"))

    def test_the_command_is_a_program(self):
        self.install("lumatie")
        program = self.site / "bin" / "lumatie.exe"
        path = windows(self.site)
        command = (str(REPOSITORY / "scripts" / "wine.sh"), str(program), "--help")
        told = run(*command, variables={"PYTHONPATH": path}, cwd=str(self.folder))
        self.assertIn("usage: lumatie", told)

    def test_without_the_virtual_cameras_it_is_said_what_is_missing(self):
        self.install("lumatie")
        self.assertIn("_Lumatie", self.lumatie("info"))
        with self.assertRaisesRegex(AssertionError, "no virtual cameras came along"):
            self.lumatie("shoot", "-n", "1", "--virtual", "canon", "--folder", self.folder)


if __name__ == "__main__":
    unittest.main()
