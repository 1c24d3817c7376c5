"""What is peculiar to Windows: file attributes, other alphabets, forms of paths, open files.

Where a system does not let a test make its situation, as Wine does with some, the test is skipped.
"""

import ctypes
import os
import re
import shutil
import time
import unittest
from ctypes import wintypes

from lumatie_host import __version__
from nikon_support import MODULE, NikonTestCase
from support import (
    CANON_LIBRARY,
    PYTHON_DIR,
    Host,
    Lumatie,
    TetherTestCase,
    run_host,
)
from this_process import ON_WINDOWS

READ_ONLY, HIDDEN, SYSTEM, ARCHIVE, NORMAL = 0x1, 0x2, 0x4, 0x20, 0x80
DRIVER_ATTRIBUTES = READ_ONLY | ARCHIVE | NORMAL  # any of these makes a file a driver module

# The first is in the ANSI code page of western systems, the second is not.
WESTERN, FOREIGN = "Grüße", "写真"

GENERIC_READ, OPEN_EXISTING = 0x80000000, 3
SHARE_READ_AND_WRITE = 3

# The first picture of a process has a name of this length.
FIRST_NAME = len("Canon_1700000000_41.JPG")


def kernel32():
    library = ctypes.WinDLL("kernel32", use_last_error=True)
    library.CreateFileW.restype = wintypes.HANDLE
    library.CreateFileW.argtypes = [
        wintypes.LPCWSTR,
        wintypes.DWORD,
        wintypes.DWORD,
        wintypes.LPVOID,
        wintypes.DWORD,
        wintypes.DWORD,
        wintypes.HANDLE,
    ]
    library.CloseHandle.argtypes = [wintypes.HANDLE]
    library.GetFileAttributesW.restype = wintypes.DWORD
    return library


def is_in_code_page(name):
    """Whether a maker's library can be told this name."""
    try:
        name.encode("mbcs")
    except UnicodeEncodeError:
        return False
    return True


def read(path):
    with open(path, "rb") as file:
        return file.read()


class WindowsTestCase(TetherTestCase):
    """Has folders and files of its own beside the export folder."""

    def make_folder(self, name):
        folder = os.path.join(self.base, name)
        os.makedirs(folder)
        return folder

    def copy_module(self, *names):
        """A copy of the virtual Nikon camera's driver module, in a folder of its own."""
        path = os.path.join(self.make_folder(os.path.join(*names[:-1])), names[-1])
        shutil.copy(MODULE, path)
        return path

    def shoot(self, tether, host):
        """Takes a Canon picture; returns the path that the host was told."""
        count = len([e for e in host.of(Lumatie.TETHER_GENERAL) if "NEWFILE" in e.text])
        tether.Shoot()
        return host.wait_for_picture(count + 1)

    def assert_arrives(self, folder, index=0):
        """The next Canon picture arrives in this folder, by the path that the host is told."""
        tether, host = self.start(folder=folder)
        path = self.shoot(tether, host)
        self.assertEqual(path[: path.rindex("\\")], folder)
        self.assertTrue(read(path) == self.camera.picture_bytes(index), path)
        tether.Uninit()
        return path


@unittest.skipUnless(ON_WINDOWS, "files have attributes on Windows only")
class Attributes(WindowsTestCase):
    """Which attributes of a file make it a driver module."""

    def init(self, attributes):
        """Starts with a file that is no library and has these attributes; it is refused."""
        path = os.path.join(self.base, "Type0001.md3")
        with open(path, "w", encoding="ascii") as file:
            file.write("no module")
        kernel = kernel32()
        self.assertTrue(kernel.SetFileAttributesW(path, attributes))
        self.addCleanup(kernel.SetFileAttributesW, path, NORMAL)
        found = kernel.GetFileAttributesW(path)
        if bool(found & DRIVER_ATTRIBUTES) != bool(attributes & DRIVER_ATTRIBUTES):
            self.skipTest("this disk keeps others than were set, {:#x}".format(found))
        tether = Lumatie.Lumatie()
        self.assertEqual(tether.Init(path, self.folder, None), 0)
        tether.Uninit()

    def test_archive_read_only_and_normal_take_the_nikon_road(self):
        for attributes in (ARCHIVE, READ_ONLY, NORMAL, ARCHIVE | HIDDEN | SYSTEM):
            with self.subTest(attributes):
                self.init(attributes)
                self.assertEqual(self.camera.calls(), 0)

    def test_hidden_and_system_alone_take_the_canon_road(self):
        for count, attributes in enumerate((HIDDEN, SYSTEM, HIDDEN | SYSTEM), 1):
            with self.subTest(attributes):
                self.init(attributes)
                self.assertEqual(self.camera.calls("EdsGetCameraList"), count)

    def test_a_device_is_a_file_and_no_driver_module(self):
        tether = Lumatie.Lumatie()
        for name in ("NUL", "nul", "CON", os.path.join(self.base, "NUL")):
            with self.subTest(name):
                self.assertEqual(tether.Init(name, self.folder, None), 0)
                self.assertEqual(tether.Uninit(), 1)
                self.assertEqual(self.camera.calls(), 0)


@unittest.skipUnless(ON_WINDOWS, "only Windows has paths of these forms")
class Folders(WindowsTestCase):
    """Export folders of every form."""

    def path_in_library(self):
        """The path that the camera's library was told last, as the log has it."""
        found = re.findall(r'EdsCreateFileStream\("(.*)", 1, 2\)', "\n".join(self.camera.log()))
        return found[-1].encode("utf-8", "surrogateescape").decode("mbcs")

    def test_a_name_of_the_code_page_reaches_the_library_as_it_is(self):
        if not is_in_code_page(WESTERN):
            self.skipTest("this system's code page lacks letters of the name")
        path = self.assert_arrives(self.make_folder(WESTERN))
        self.assertEqual(self.path_in_library(), path)

    def test_a_name_of_another_alphabet_reaches_the_library_as_its_short_name(self):
        if is_in_code_page(FOREIGN):
            self.skipTest("this system's code page has every letter of the name")
        path = self.assert_arrives(self.make_folder(os.path.join("a b", WESTERN, FOREIGN)))
        told = self.path_in_library()
        self.assertNotEqual(told, path)
        self.assertTrue(told.isascii(), told)
        self.assertTrue(os.path.samefile(told, path), told)

    def test_a_complete_path_with_its_prefix(self):
        self.assert_arrives("\\\\?\\" + self.folder)
        self.assert_arrives("\\\\.\\" + self.folder, 1)

    def test_the_root_of_a_drive(self):
        drive = os.path.splitdrive(self.base)[0]
        for index, folder in enumerate((drive, drive + "\\")):
            with self.subTest(folder):
                tether, host = self.start(folder=folder)
                path = self.shoot(tether, host)
                tether.Uninit()
                if not os.path.exists(path):
                    self.skipTest("this process may not write into the root folder")
                name = os.path.basename(path)
                self.assertEqual(path, folder + "\\" + name)
                self.assertIn(name, os.listdir(drive + "\\"))
                written = read(path)
                os.remove(path)
                self.assertTrue(written == self.camera.picture_bytes(index), path)

    def test_a_share_of_a_computer(self):
        drive, rest = os.path.splitdrive(self.folder)
        share = "\\\\localhost\\{}${}".format(drive[0], rest)
        if not os.path.isdir(share):
            self.skipTest("this system does not share its drive with itself")
        self.assert_arrives(share)

    def test_slashes_for_backslashes(self):
        self.assert_arrives(self.folder.replace("\\", "/"))

    def test_a_dot_at_the_end_of_the_folder_is_passed_over_by_the_system(self):
        path = self.assert_arrives(self.folder + ".")
        self.assertEqual(self.files(), [os.path.basename(path)])

    def assert_missing(self, folder):
        """The picture is announced there but not written; the next one is written."""
        tether, host = self.start(folder=folder)
        path = self.shoot(tether, host)
        self.assertTrue(path.startswith(folder + "\\Canon_"), path)
        self.assertFalse(os.path.exists(path), path)
        tether.UpdateExportFolder(self.folder)
        self.assertTrue(os.path.exists(self.shoot(tether, host)))
        self.assertEqual(len(self.files()), 1)

    def test_a_blank_at_the_end_of_the_folder_names_another_one(self):
        self.assert_missing(self.folder + " ")

    def test_a_folder_that_is_a_device_takes_no_picture(self):
        for name in ("NUL", "CON"):
            with self.subTest(name):
                self.assert_missing(os.path.join(self.base, name))
                for file in self.files():
                    os.remove(os.path.join(self.folder, file))

    def test_a_read_only_folder_takes_what_the_system_lets_it_take(self):
        kernel = kernel32()
        self.assertTrue(kernel.SetFileAttributesW(self.folder, READ_ONLY))
        self.addCleanup(kernel.SetFileAttributesW, self.folder, NORMAL)
        try:
            with open(os.path.join(self.folder, "probe"), "w", encoding="ascii"):
                is_writable = True
        except OSError:
            is_writable = False
        tether, host = self.start()
        self.assertEqual(os.path.exists(self.shoot(tether, host)), is_writable)

    def run_in_folder(self, length, info):
        """The first picture of a process, in a folder whose path has so many characters."""
        folder = os.path.join(self.base, "x" * (length - len(self.base) - 1))
        os.mkdir("\\\\?\\" + folder)
        self.addCleanup(shutil.rmtree, "\\\\?\\" + folder)
        run = run_host(
            """
            import sys
            from nikon_support import MODULE, VirtualNikon
            from support import VirtualCanon, Host, Lumatie
            camera, nikon = VirtualCanon(), VirtualNikon()
            nikon.press_shutter()
            host, tether = Host(), Lumatie.Lumatie()
            assert tether.Init(sys.argv[2], sys.argv[1], host) == 1
            if sys.argv[2] != MODULE:
                tether.Shoot()
            host.wait_for_picture()
            tether.Uninit()
            """,
            arguments=[folder, info],
        )
        return run, [len(folder) + 1 + len(name) for name in os.listdir("\\\\?\\" + folder)]

    def assert_longest(self, info, limit):
        run, lengths = self.run_in_folder(limit - FIRST_NAME - 1, info)
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertEqual(lengths[:1], [limit])
        for length in (limit - FIRST_NAME, 247, 255):
            run, lengths = self.run_in_folder(length, info)
            self.assertEqual((run.status, lengths), (3, []), length)
            said = r"Lumatie: the path of a picture is longer than \d+ bytes; the process ends\.\n$"
            self.assertRegex(run.stderr, said)

    def test_a_canon_picture_has_a_path_of_255_bytes_at_most(self):
        self.assert_longest("Virtual EOS", 255)

    def test_a_nikon_picture_has_a_path_of_259_bytes_at_most(self):
        self.assert_longest(MODULE, 259)


@unittest.skipUnless(ON_WINDOWS, "a file is kept from others by an open handle on Windows only")
class OpenFiles(WindowsTestCase):
    """A download fails while another program, like a virus scanner, looks at the file."""

    def start_failing_download(self):
        """Returns the host, the file's path and what closes the other program's handle of it."""
        self.tether, host = self.start()  # one that is dropped would wait for the download
        self.camera.fault("EdsDownload hang code=0x02")
        self.tether.Shoot()
        self.camera.wait_for_hang("EdsDownload")
        path = os.path.join(self.folder, self.files()[0])
        kernel = kernel32()
        handle = kernel.CreateFileW(
            path, GENERIC_READ, SHARE_READ_AND_WRITE, None, OPEN_EXISTING, 0, None
        )
        self.assertNotEqual(handle, wintypes.HANDLE(-1).value, ctypes.get_last_error())
        return host, path, lambda: kernel.CloseHandle(handle)

    def test_a_file_that_is_let_go_soon_is_deleted(self):
        host, path, let_go = self.start_failing_download()
        self.camera.release_hangs()
        self.camera.wait_for_calls("EdsRelease")
        time.sleep(0.05)  # a virus scanner's look
        self.assertTrue(os.path.exists(path))
        let_go()
        host.wait_for_failure()
        self.assertEqual(self.files(), [])

    def test_a_file_that_is_kept_stays_and_the_failure_is_announced_all_the_same(self):
        host, path, let_go = self.start_failing_download()
        self.addCleanup(let_go)
        self.camera.release_hangs()
        host.wait_for_failure()
        self.assertEqual(self.files(), [os.path.basename(path)])


@unittest.skipUnless(ON_WINDOWS, "only Windows finds libraries by names of these forms")
class Libraries(NikonTestCase, WindowsTestCase):
    """Driver modules and the module itself in folders of any name."""

    def assert_starts(self, path):
        host, tether = Host(), Lumatie.Lumatie()
        self.assertEqual(tether.Init(path, self.folder, host), 1)
        host.wait_for_event(Lumatie.TETHER_IMAGEQUALITY)
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(self.camera.calls(), 0)

    def test_a_driver_module_with_blanks_and_other_alphabets_in_its_path(self):
        path = self.copy_module("ein Ordner " + WESTERN, FOREIGN, "Type 0001 " + FOREIGN + ".md3")
        self.assert_starts(path)
        self.assert_starts(path.replace("\\", "/"))
        os.remove(path)  # nobody holds it any more

    def test_a_driver_module_without_an_extension(self):
        self.assert_starts(self.copy_module("modules", "Type0001"))

    def test_a_driver_module_in_the_working_directory(self):
        path = self.copy_module("modules", "Type0001.md3")
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(os.path.dirname(path))
        self.assert_starts("Type0001.md3")
        os.chdir(self.base)
        self.assert_starts("modules\\Type0001.md3")

    def test_a_driver_module_that_is_read_only_and_hidden(self):
        path = self.copy_module("modules", "Type0001.md3")
        kernel = kernel32()
        kernel.SetFileAttributesW(path, READ_ONLY | HIDDEN)
        self.addCleanup(kernel.SetFileAttributesW, path, NORMAL)
        self.assert_starts(path)

    def test_nikon_pictures_in_folders_of_other_alphabets(self):
        for name in (WESTERN, FOREIGN, "a b"):
            with self.subTest(name):
                self.nikon.reset()
                folder = self.make_folder(name)
                tether, host = self.start(folder=folder)
                self.nikon.press_shutter()
                path = host.wait_for_picture()
                self.assertEqual(os.path.dirname(path), folder)
                self.assertEqual(read(path), self.nikon.picture_bytes(0))
                tether.Uninit()

    def run_copy(self, *names):
        """Runs a shoot with a copy of the module, and of the camera's library, in this folder."""
        folder = os.path.join(self.base, *names)
        shutil.copytree(str(PYTHON_DIR), folder)
        shutil.copy(str(CANON_LIBRARY), folder)
        run = run_host(
            """
            import ctypes, queue, sys
            import _Lumatie, Lumatie
            print(_Lumatie.__file__)
            kernel = ctypes.WinDLL("kernel32")
            kernel.GetModuleHandleW.restype = ctypes.c_void_p
            path = ctypes.create_unicode_buffer(1000)
            library = ctypes.c_void_p(kernel.GetModuleHandleW("EDSDK.dll"))
            kernel.GetModuleFileNameW(library, path, 1000)
            print(path.value)
            events = queue.SimpleQueue()
            tether = Lumatie.Lumatie()
            assert tether.Init("Virtual EOS", sys.argv[1], lambda *event: events.put(event)) == 1
            while events.get(timeout=20)[0] != Lumatie.TETHER_IMAGEQUALITY:
                pass
            tether.Shoot()
            while events.get(timeout=20)[0] != Lumatie.TETHER_GENERAL:
                pass
            tether.Uninit()
            """,
            python_dir=folder,
            arguments=[self.folder],
        )
        self.assertEqual((run.status, run.stderr), (0, ""))
        loaded = [os.path.dirname(path) for path in run.stdout.splitlines()]
        self.assertTrue(all(os.path.samefile(path, folder) for path in loaded), loaded)
        self.assertEqual(len(self.files()), 1)

    def test_the_module_in_a_folder_with_blanks_and_other_alphabets(self):
        self.run_copy("Programme " + WESTERN, FOREIGN + " 1")


@unittest.skipUnless(ON_WINDOWS, "only libraries of Windows tell their version")
class Versions(unittest.TestCase):
    """What the Explorer shows of each DLL."""

    def version_text(self, path, name):
        library = ctypes.WinDLL("version")
        size = library.GetFileVersionInfoSizeW(path, None)
        information = ctypes.create_string_buffer(size)
        self.assertTrue(library.GetFileVersionInfoW(path, 0, size, information), path)
        value, length = ctypes.c_wchar_p(), wintypes.UINT()
        where = "\\StringFileInfo\\040904B0\\" + name
        found = library.VerQueryValueW(
            information, where, ctypes.byref(value), ctypes.byref(length)
        )
        self.assertTrue(found, name)
        return value.value

    def test_each_dll_tells_its_name_and_its_version(self):
        for path, what in (
            (str(PYTHON_DIR / "_Lumatie.pyd"), "Tethered shooting for Python"),
            (str(CANON_LIBRARY), "Virtual Canon camera"),
            (MODULE, "Virtual Nikon camera"),
        ):
            with self.subTest(path):
                self.assertEqual(self.version_text(path, "FileDescription"), what)
                self.assertEqual(self.version_text(path, "ProductName"), "Lumatie")
                self.assertEqual(self.version_text(path, "FileVersion"), __version__)
                self.assertEqual(self.version_text(path, "ProductVersion"), __version__)


if __name__ == "__main__":
    unittest.main()
