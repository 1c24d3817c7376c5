"""The wheels in environments that have nothing else, for each interpreter there is a wheel for."""

import unittest

from wheels_support import (
    PAGE_PATIENCE,
    REPOSITORY,
    InstallTestCase,
    interpreters,
    run,
    wheels,
)

PAGE = REPOSITORY / "build" / "tools" / "page"
VIRTUAL = "import Lumatie; print(Lumatie.Lumatie().Init('Virtual EOS', '.', None))"


class InstallingTest(InstallTestCase):
    def test_there_is_a_wheel_for_each_interpreter(self):
        for tag in interpreters():
            wheels("lumatie-*-%s-%s-manylinux_*_x86_64.whl" % (tag, tag))

    def test_a_shoot_needs_the_two_wheels_and_nothing_else(self):
        for tag, python in interpreters().items():
            with self.subTest(tag):
                programs = self.bare(python)
                before = self.installed()
                self.install(programs, "lumatie", "lumatie-virtual")
                told = run(programs / "lumatie", "info")
                self.assertIn(str(programs.parent), told)
                self.assertIn("version " + version(), told)
                self.assert_shoots([programs / "lumatie"], "--virtual", "canon")
                self.assert_shoots([programs / "lumatie"], "--virtual", "nikon")
                ready = run(programs / "python", "-c", VIRTUAL, cwd=str(self.folder))
                self.assertEqual(ready.strip(), "1")
                run(programs / "pip", "uninstall", "--yes", "lumatie", "lumatie-virtual")
                self.assertEqual(self.installed(), before)
                self.assertEqual(list(programs.parent.glob("**/[lL_]umatie*")), [])

    def test_without_the_virtual_cameras_it_is_said_what_is_missing(self):
        programs = self.bare(list(interpreters().values())[0])
        self.install(programs, "lumatie")
        names = "import lumatie, lumatie_host, lumatie_host.cli.program; print(lumatie.__version__)"
        self.assertEqual(run(programs / "python", "-c", names).strip(), version())
        self.assertIn("libEDSDK.so", run(programs / "lumatie", "info"))
        with self.assertRaisesRegex(AssertionError, "no virtual cameras came along"):
            self.assert_shoots([programs / "lumatie"], "--virtual", "canon")

    def test_the_page_is_there_ten_seconds_after_the_command_at_most(self):
        """With the libraries that its tests have, for the extra's are in a package index."""
        programs = self.bare(PAGE / "bin" / "python")
        (packages,) = PAGE.glob("lib/python3.*/site-packages")
        (own,) = programs.parent.glob("lib/python3.*/site-packages")
        (own / "page.pth").write_text(str(packages), encoding="utf-8")
        self.install(programs, "lumatie[page]", "lumatie-virtual")
        self.assertLess(self.served(programs), PAGE_PATIENCE)

    def test_checkers_find_the_types_of_what_is_installed(self):
        programs = self.bare(list(interpreters().values())[0])
        self.install(programs, "lumatie")
        program = self.folder / "program.py"
        checker = REPOSITORY / "build" / "tools" / "stubtest" / "bin" / "mypy"
        for text, verdict in (
            ("Lumatie.Lumatie().Shoot()", "Success"),
            ("Lumatie.Lumatie().Shoot(1)", "Too many arguments"),
            ("_Lumatie.new_Lumatie(1)", "Too many arguments"),
            ("lumatie.open(folder=1)", "incompatible type"),
            ("lumatie_host.open(folder=1)", "incompatible type"),
        ):
            program.write_text("import %s\n%s\n" % (text.partition(".")[0], text), encoding="utf-8")
            command = (checker, "--python-executable", programs / "python", "--strict", program)
            try:
                told = run(*command, cwd=str(self.folder))
            except AssertionError as error:
                told = str(error)
            with self.subTest(text):
                self.assertIn(verdict, told)


def version():
    code = "import runpy; print(runpy.run_path('host/lumatie_host/version.py')['__version__'])"
    return run("/usr/bin/python3", "-c", code, cwd=str(REPOSITORY)).strip()


if __name__ == "__main__":
    unittest.main()
