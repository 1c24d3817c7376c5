"""What is in the wheels and in the source distribution, and what is not."""

import email
import hashlib
import os
import pathlib
import re
import subprocess
import sys
import tarfile
import tempfile
import unittest

from wheels_support import REPOSITORY, WHEELS, contents, run, wheels

MODULE_WHEELS = "lumatie-*.whl"
VIRTUAL_WHEELS = "lumatie_virtual-*.whl"
PACKAGES = REPOSITORY / "host"


def package_files():
    """The files of the packages in the tree, as a wheel names them."""
    command = ["git", "ls-files", "lumatie", "lumatie_host"]
    told = subprocess.run(command, cwd=str(PACKAGES), stdout=subprocess.PIPE, check=True).stdout
    return set(told.decode().split())


class ContentsTest(unittest.TestCase):
    def metadata(self, files):
        (name,) = [name for name in files if name.endswith(".dist-info/METADATA")]
        return email.message_from_string(files[name].decode())

    def libraries(self, files):
        return {name for name in files if re.search(r"\.(so|pyd|dll|md3)$", name)}

    def test_a_wheel_has_the_whole_package_and_one_module(self):
        for wheel in wheels(MODULE_WHEELS):
            files = contents(wheel)
            own = {name for name in files if name.startswith("lumatie") and "dist-info" not in name}
            with self.subTest(wheel.name):
                self.assertEqual(own, package_files())
                (module,) = self.libraries(files)
                self.assertRegex(module, r"^_Lumatie\.(pyd|cpython-\d+-x86_64-linux-gnu\.so)$")
                self.assertLessEqual(
                    {"Lumatie.py", "Lumatie-stubs/__init__.pyi", "_Lumatie-stubs/__init__.pyi"},
                    set(files),
                )
                self.assertIn("lumatie_host/py.typed", files)

    def test_the_virtual_cameras_are_in_their_own_wheel_only(self):
        names = {"manylinux": {"libEDSDK.so", "VirtualNikon.md3"}}
        names["win_amd64"] = {"EDSDK.dll", "VirtualNikon.md3"}
        for platform, libraries in names.items():
            (wheel,) = wheels("lumatie_virtual-*-py3-none-%s*.whl" % platform)
            found = self.libraries(contents(wheel))
            self.assertEqual(found, {"lumatie_virtual/" + name for name in libraries})

    def test_extras_have_lower_bounds_and_no_upper_ones(self):
        wanted = {"page": ["aiohttp", "Pillow", "segno"], "raw": ["rawpy", "ExifRead"]}
        wanted["studio"] = ["paho-mqtt"]
        for wheel in wheels(MODULE_WHEELS):
            metadata = self.metadata(contents(wheel))
            self.assertEqual(metadata["Requires-Python"], ">=3.8")
            found = {}
            for requirement in metadata.get_all("Requires-Dist"):
                self.assertNotRegex(requirement.partition(";")[0], "<|!=|~=|==")
                name, extra = re.match(r"([\w-]+).*extra == .(\w+).$", requirement).groups()
                found.setdefault(extra, []).append(name)
            self.assertEqual(found, wanted)

    def test_the_terms_of_what_is_linked_in_are_there(self):
        for wheel in wheels("*.whl"):
            files = contents(wheel)
            terms = " ".join(name for name in files if "/licenses/" in name)
            with self.subTest(wheel.name):
                if "win_amd64" in wheel.name:
                    self.assertRegex(terms, "mingw-w64-x86-64-dev.txt")
                    self.assertRegex(terms, r"g\+\+-mingw-w64-x86-64-posix.txt")
                self.assertEqual("libstb-dev.txt" in terms, "virtual" in wheel.name)
                self.assertIn("notices.md", terms)

    def test_nothing_of_the_machine_that_made_them_is_in_them(self):
        for wheel in wheels("*.whl"):
            for name, data in contents(wheel).items():
                with self.subTest(wheel=wheel.name, file=name):
                    self.assertNotIn(str(REPOSITORY).encode(), data)
                    self.assertNotIn(str(pathlib.Path.home()).encode() + b"/", data)

    def test_the_source_distributions_have_what_they_are_made_of_and_no_more(self):
        module = ("System", "interfaces", "cmake", "host/lumatie", "host/lumatie_host")
        cameras = ("interfaces", "cmake", "virtual", "host/lumatie_host/version.py")
        others = ("tests", "build", ".")
        for pattern, folders, unwanted in (
            ("lumatie-*.tar.gz", module, others),
            ("lumatie_virtual-*.tar.gz", cameras, ("System", *others)),
        ):
            (archive,) = WHEELS.glob(pattern)
            with tarfile.open(str(archive)) as opened:
                names = {name.partition("/")[2] for name in opened.getnames()}
            command = ["git", "ls-files", *folders]
            told = subprocess.run(command, cwd=str(REPOSITORY), stdout=subprocess.PIPE, check=True)
            wanted = set(told.stdout.decode().split()) - {"virtual/pyproject.toml"}
            with self.subTest(archive.name):
                self.assertEqual(wanted - names, set())
                self.assertLessEqual({"CMakeLists.txt", "docs/notices.md", "pyproject.toml"}, names)
                self.assertEqual([name for name in names if name.startswith(unwanted)], [])


class ReproducibleTest(unittest.TestCase):
    def test_the_same_files_make_the_same_wheels(self):
        for system in ("linux", "windows"):
            with tempfile.TemporaryDirectory(prefix="lumatie-wheels-") as folder:
                command = [sys.executable, "scripts/wheels.py", system, "--into", folder]
                run(*command, cwd=str(REPOSITORY), preexec_fn=lambda: os.umask(0o077))
                again = sorted(pathlib.Path(folder).iterdir())
                self.assertTrue(again)
                for path in again:
                    with self.subTest(path.name):
                        self.assertEqual(digest(path), digest(WHEELS / path.name))


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


if __name__ == "__main__":
    unittest.main()
