"""The makers' libraries: which one the module gets, and what is said of one that cannot be used."""

import ctypes
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

from lumatie_host import libraries
from lumatie_host.errors import LibraryMissing, Reason
from support import BUILD, CANON_LIBRARY, NIKON_MODULE, ON_WINDOWS, PYTHON_DIR, REPOSITORY

FUNCTION = b"EdsDownloadComplete"
LOADED, DYNAMIC = 1, 2  # kinds of an ELF file's parts
SONAME, DEBUG = 14, 21  # tags of an ELF file's dynamic section; loaders pass over the second one

# Before a script: what it says of a library that it cannot use.
BEGIN = """\
import ctypes, os, sys, tempfile
from lumatie_host import libraries
from lumatie_host.errors import LibraryMissing

def told(path):
    try:
        libraries.load_canon(path)
    except LibraryMissing as error:
        return (error.path, error.bitness, error.system_text)

def is_used(path):
    # Both libraries have state of their own, so a name that only one knows tells them apart.
    library = ctypes.CDLL(path)
    library.VirtualCameraReset()
    assert library.VirtualCameraConfigure(b"camera.name = The one that is meant") == 0
    tether = libraries.load_module().Lumatie()
    started = tether.Init("The one that is meant", tempfile.gettempdir(), None)
    tether.Uninit()
    return bool(started)
"""


def elf_head(bits):
    return b"\x7fELF" + bytes([bits // 32, 1, 1]) + b"\0" * 57


def pe_head(bits):
    dos = b"MZ".ljust(60, b"\0") + struct.pack("<I", 128)
    magic = {32: 0x10B, 64: 0x20B}[bits]
    return dos.ljust(128, b"\0") + b"PE\0\0" + b"\0" * 20 + struct.pack("<H", magic) + b"\0" * 64


def program_headers(data):
    """Kind, offset and size of an ELF library's parts."""
    (table,) = struct.unpack_from("<Q", data, 32)
    length, count = struct.unpack_from("<HH", data, 54)
    for head in range(table, table + length * count, length):
        kind, _, offset, _, _, size = struct.unpack_from("<IIQQQQ", data, head)
        yield kind, offset, size


def without_soname(data):
    """An ELF library's bytes, without the name that it gives itself."""
    data = bytearray(data)
    ((begin, size),) = [part for kind, *part in program_headers(data) if kind == DYNAMIC]
    for entry in range(begin, begin + size, 16):
        if struct.unpack_from("<Q", data, entry)[0] == SONAME:
            struct.pack_into("<Q", data, entry, DEBUG)
            return bytes(data)
    raise AssertionError("the library gives itself no name")


def without_name(data):
    return data if ON_WINDOWS else without_soname(data)


class FolderTestCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="lumatie-libraries-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(os.path.realpath(folder.name))

    def write(self, name, data):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
        return str(path)

    def write_library(self, name, change=bytes):
        return self.write(name, change(CANON_LIBRARY.read_bytes()))

    def write_without_function(self, name):
        data = CANON_LIBRARY.read_bytes()
        self.assertIn(b"\0" + FUNCTION + b"\0", data)
        other = FUNCTION[:-1] + b"f"  # in the same place of a sorted table
        return self.write(name, data.replace(b"\0" + FUNCTION + b"\0", b"\0" + other + b"\0"))

    def copy_module(self):
        """A copy of the module, with no library beside it."""
        others = shutil.ignore_patterns("lumatie", "lumatie_*", "lumatie-*")
        return shutil.copytree(str(PYTHON_DIR), str(self.folder / "python"), ignore=others)

    def run_script(self, script, *arguments, environment=None):
        """Runs a script behind BEGIN in a process of its own; returns what it printed.

        No folder is named to the system there, nor any library loaded.
        """
        variables = dict(
            os.environ,
            PYTHONPATH=os.pathsep.join((str(REPOSITORY / "host"), str(PYTHON_DIR))),
            PYTHONIOENCODING="utf-8",
            PYTHONDONTWRITEBYTECODE="1",
            **(environment or {}),
        )
        run = subprocess.run(
            [sys.executable, "-c", BEGIN + script, *map(str, arguments)],
            env=variables,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            encoding="utf-8",
            timeout=60,
            check=False,
        )
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        return run.stdout.strip()


class PathTest(FolderTestCase):
    def test_a_library_that_was_loaded_is_found_by_its_name_and_no_other_is(self):
        path = self.write_library(libraries.CANON_NAME)
        script = """
name = os.path.basename(sys.argv[1])
print(libraries.path_of(name))
ctypes.CDLL(sys.argv[1])
print(libraries.path_of(name))
"""
        before, after = self.run_script(script, path).splitlines()
        self.assertEqual(before, "None")
        self.assertTrue(os.path.samefile(after, path), after)


class BitnessTest(FolderTestCase):
    def test_the_headers_of_both_systems_are_read(self):
        for bits in (32, 64):
            self.assertEqual(libraries.bitness(self.write("elf", elf_head(bits))), bits)
            self.assertEqual(libraries.bitness(self.write("pe", pe_head(bits))), bits)

    def test_libraries_that_are_there_have_64(self):
        for path in (CANON_LIBRARY, NIKON_MODULE, sys.executable):
            self.assertEqual(libraries.bitness(str(path)), 64)

    def test_what_is_no_library_has_none(self):
        far = b"MZ".ljust(60, b"\0") + b"\xff\xff\xff\xff"
        for data in (b"", b"\x7fELF", b"\x7fELF\3", b"MZ", b"text" * 99, far, pe_head(64)[:140]):
            self.assertIsNone(libraries.bitness(self.write("file", data)), data[:8])
        for path in (str(self.folder), str(self.folder / "missing"), "", "a\0b"):
            self.assertIsNone(libraries.bitness(path))

    @unittest.skipIf(ON_WINDOWS, "Windows has no pipes among its files")
    def test_a_pipe_is_not_waited_for(self):
        os.mkfifo(str(self.folder / "pipe"))
        self.assertIsNone(libraries.bitness(str(self.folder / "pipe")))


class LoadCanonTest(FolderTestCase):
    def assert_used(self, path):
        used = self.run_script(
            "libraries.load_canon(sys.argv[1])\nprint(is_used(sys.argv[1]))", path
        )
        self.assertEqual(used, "True")

    def test_the_library_that_is_named_is_used(self):
        self.assert_used(self.write_library("a/" + CANON_LIBRARY.name))

    def test_another_one_is_used_when_none_is_named(self):
        # Which shows that the other tests can fail.
        path = self.write_library("a/" + CANON_LIBRARY.name, without_name)
        script = "libraries.load_canon(None)\nlibraries.load_module()\nprint(is_used(sys.argv[1]))"
        self.assertEqual(self.run_script(script, path), "False")

    def test_the_virtual_camera_is_used_when_none_is_named(self):
        script = "libraries.load_canon()\nlibraries.load_module()\nprint(is_used(sys.argv[1]))"
        self.assertEqual(self.run_script(script, CANON_LIBRARY), "True")

    def test_a_folder_may_have_letters_of_any_script(self):
        self.assert_used(self.write_library("f\u00fcr \u5199\u771f/" + CANON_LIBRARY.name))

    def test_a_relative_path_is_meant_in_the_current_folder(self):
        path = self.write_library("a/" + CANON_LIBRARY.name)
        script = (
            "os.chdir(sys.argv[1])\nlibraries.load_canon(sys.argv[2])\nprint(is_used(sys.argv[3]))"
        )
        found = self.run_script(script, self.folder, "a/" + CANON_LIBRARY.name, path)
        self.assertEqual(found, "True")

    def test_it_may_be_named_twice_and_after_the_import(self):
        path = self.write_library("a/" + CANON_LIBRARY.name)
        script = """
for _ in range(2):
    libraries.load_canon(sys.argv[1])
assert is_used(sys.argv[1])
print(told(sys.argv[1]))
"""
        self.assertEqual(self.run_script(script, path), "None")

    def test_another_one_after_the_import_is_too_late(self):
        path = self.write_library("a/" + CANON_LIBRARY.name)
        script = """
libraries.load_canon()
libraries.load_module()
print(told(sys.argv[1]) == (sys.argv[1], 64, libraries._TOO_LATE), is_used(sys.argv[2]))
"""
        self.assertEqual(self.run_script(script, path, CANON_LIBRARY), "True True")

    def test_a_second_one_before_the_import_is_too_late(self):
        paths = [self.write_library(name + CANON_LIBRARY.name) for name in ("a/", "b/")]
        script = """
libraries.load_canon(sys.argv[1])
print(told(sys.argv[2]) == (sys.argv[2], 64, libraries._TOO_LATE), is_used(sys.argv[1]))
"""
        self.assertEqual(self.run_script(script, *paths), "True True")

    def test_the_module_stays_where_it_is(self):
        path = self.write_library("a/" + CANON_LIBRARY.name, without_name)
        script = """
libraries.load_canon(sys.argv[1])
import _Lumatie
print(os.path.dirname(_Lumatie.__file__), libraries.virtual().canon_library, sep="\\n")
"""
        self.assertEqual(
            self.run_script(script, path).splitlines(), [str(PYTHON_DIR), str(CANON_LIBRARY)]
        )


@unittest.skipIf(ON_WINDOWS, "Windows knows a library by its file's name")
class NamelessTest(LoadCanonTest):
    """All of it with a library that does not say that its name is libEDSDK.so."""

    def write_library(self, name, change=without_soname):
        return super().write_library(name, change)

    def test_the_file_may_have_any_name(self):
        self.assert_used(self.write_library("canon.so.13"))

    def test_it_is_what_a_bare_import_gets_too(self):
        path = self.write_library("a/libEDSDK.so")
        script = "libraries.load_canon(sys.argv[1])\nimport Lumatie\nprint(is_used(sys.argv[1]))"
        self.assertEqual(self.run_script(script, path), "True")

    def test_nothing_is_left_of_it_in_the_temporary_folder(self):
        path = self.write_library("a/libEDSDK.so")
        (self.folder / "temporary").mkdir()
        script = "libraries.load_canon(sys.argv[1])\nprint(os.listdir(tempfile.gettempdir()))"
        environment = {"TMPDIR": str(self.folder / "temporary")}
        self.assertEqual(self.run_script(script, path, environment=environment), "[]")


class UnfitTest(FolderTestCase):
    def assert_told(self, path, bits, words):
        """What is wrong is said before the import; the right library can be named afterwards."""
        script = """
found = told(sys.argv[1])
assert "_Lumatie" not in sys.modules
print(repr(found[:2]), found[2], told(sys.argv[2]), is_used(sys.argv[2]), sep="\\n")
"""
        right = self.write_library("right/" + CANON_LIBRARY.name)
        *found, other, used = self.run_script(script, path, right).splitlines()
        self.assertEqual(found[0], repr((path, bits)))
        self.assertRegex("\n".join(found[1:]), words)
        self.assertEqual((other, used), ("None", "True"))

    def test_a_path_that_is_missing_is_told(self):
        path = str(self.folder / CANON_LIBRARY.name)
        self.assert_told(path, None, "(?i)no such file|not found")

    def test_a_folder_is_told(self):
        path = self.folder / CANON_LIBRARY.name
        path.mkdir()
        self.assert_told(str(path), None, "no file")

    def test_what_is_no_library_is_told(self):
        path = self.write("wrong/" + CANON_LIBRARY.name, b"no library" * 1000)
        self.assert_told(path, None, "(?i)invalid ELF header|not a valid|bad EXE")

    def test_a_library_of_32_bits_is_told(self):
        head = pe_head(32) if ON_WINDOWS else elf_head(32)
        path = self.write("wrong/" + CANON_LIBRARY.name, head + b"\0" * 4096)
        self.assert_told(path, 32, "(?i)wrong ELF class|not a valid|bad EXE")

    def test_a_library_without_a_function_that_is_needed_is_told(self):
        path = self.write_without_function("wrong/" + CANON_LIBRARY.name)
        self.assert_told(path, 64, FUNCTION.decode())

    def test_a_library_that_is_torn_is_told(self):
        data = CANON_LIBRARY.read_bytes()
        sizes = [4096]
        if not ON_WINDOWS:
            # What is behind the parts that are loaded is not needed.
            parts = [part for kind, *part in program_headers(data) if kind == LOADED]
            sizes += [40, 100, max(offset + size for offset, size in parts) - 1]
        for size in sizes:
            path = self.write("wrong/" + CANON_LIBRARY.name, data[:size])
            self.assert_told(path, 64, ".")

    @unittest.skipUnless(ON_WINDOWS, "only Windows wants the library to have its usual name")
    def test_another_name_is_told(self):
        self.assert_told(self.write_library("wrong/Canon.dll"), 64, "EDSDK.dll")


class LoadModuleTest(FolderTestCase):
    SCRIPT = """
try:
    libraries.load_module()
except LibraryMissing as error:
    print(repr(error.path), error.bitness, error.system_text)
"""

    def test_a_module_that_is_missing_is_told(self):
        script = "sys.path[:] = [p for p in sys.path if p != sys.argv[1]]\n" + self.SCRIPT
        self.assertEqual(
            self.run_script(script, PYTHON_DIR), "'Lumatie' None No module named 'Lumatie'"
        )

    def test_a_canon_library_that_is_missing_is_told(self):
        script = "sys.path.insert(0, sys.argv[1])\n" + self.SCRIPT
        found = self.run_script(script, self.copy_module())
        self.assertRegex(found, "^%r None .*(?:EDSDK|not found)" % CANON_LIBRARY.name)

    def test_every_function_that_the_module_takes_is_looked_for(self):
        names = set(libraries.CANON_FUNCTIONS)
        module = max(PYTHON_DIR.glob("_Lumatie*.pyd" if ON_WINDOWS else "_Lumatie*.so"))
        library = ctypes.CDLL(str(CANON_LIBRARY))
        # Types have such names, too.
        found = {
            name.decode()
            for name in re.findall(rb"Eds[A-Za-z]+(?=\0)", module.read_bytes())
            if hasattr(library, name.decode())
        }
        self.assertEqual(found, names)


class CheckModuleTest(FolderTestCase):
    def assert_unfit(self, path, bits, words):
        with self.assertRaises(LibraryMissing) as caught:
            libraries.check_module(path)
        self.assertEqual((caught.exception.path, caught.exception.bitness), (path, bits))
        self.assertRegex(caught.exception.system_text, words)
        return caught.exception

    def test_the_virtual_cameras_module_can_be_used(self):
        libraries.check_module(str(NIKON_MODULE))

    def test_it_is_not_kept_loaded(self):
        script = """
libraries.check_module(sys.argv[1])
with open("/proc/self/maps") as maps:
    print("VirtualNikon" in maps.read())
"""
        if not ON_WINDOWS:
            self.assertEqual(self.run_script(script, NIKON_MODULE), "False")

    def test_a_path_that_is_not_complete_is_refused(self):
        error = self.assert_unfit(os.path.relpath(str(NIKON_MODULE), str(BUILD)), None, "complete")
        self.assertEqual(error.reason, Reason.LIBRARY_MISSING)

    def test_what_is_no_driver_module_is_refused(self):
        self.assert_unfit(str(self.folder / "missing.md3"), None, "(?i)no such file|not found")
        self.assert_unfit(str(self.folder), None, "no file")
        self.assert_unfit(self.write("text.md3", b"text" * 2000), None, ".")
        head = (pe_head(32) if ON_WINDOWS else elf_head(32)) + b"\0" * 4096
        error = self.assert_unfit(self.write("old.md3", head), 32, ".")
        self.assertEqual(error.reason, Reason.LIBRARY_UNFIT)
        self.assert_unfit(str(CANON_LIBRARY), 64, "MAIDEntryPoint")


class VirtualTest(FolderTestCase):
    def test_they_lie_beside_the_modules_folder(self):
        found = libraries.virtual()
        self.assertEqual(found.canon_library, str(CANON_LIBRARY))
        self.assertEqual(found.nikon_module, str(NIKON_MODULE))

    SCRIPT = """
sys.path[:] = sys.argv[2:] + [path for path in sys.path if path != sys.argv[1]]
try:
    found = libraries.virtual()
    print(found.canon_library, found.nikon_module, sep="\\n")
except LibraryMissing as error:
    print(error.system_text)
"""

    def test_or_in_a_package(self):
        package = self.folder / "packages" / "lumatie_virtual"
        self.write("packages/lumatie_virtual/__init__.py", b"")
        for library in (CANON_LIBRARY, NIKON_MODULE):
            shutil.copy(str(library), str(package))
        found = self.run_script(self.SCRIPT, PYTHON_DIR, self.copy_module(), package.parent)
        self.assertEqual(
            found.splitlines(),
            [str(package / CANON_LIBRARY.name), str(package / NIKON_MODULE.name)],
        )

    def test_or_nowhere(self):
        found = self.run_script(self.SCRIPT, PYTHON_DIR, self.copy_module())
        self.assertEqual(found, "no virtual cameras came along")


if __name__ == "__main__":
    unittest.main()
