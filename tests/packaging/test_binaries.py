"""What the linker made of the libraries in the wheels: their exports, needs and protections."""

import io
import re
import unittest

import pefile
from elftools.elf.elffile import ELFFile
from wheels_support import contents, wheels

ELF = r"\.so$|\.md3$"
PE = r"\.pyd$|\.dll$|\.md3$"
NEEDED = {"edsdk.dll", "python38.dll", "kernel32.dll", "msvcrt.dll", "advapi32.dll", "ole32.dll"}
NEEDED = {"edsdk.dll", "python38.dll", "kernel32.dll", "msvcrt.dll", "advapi32.dll", "ole32.dll"}
ASLR_HIGH, ASLR, NO_CODE_IN_DATA = 0x20, 0x40, 0x100


def libraries(platform, pattern, opened):
    """The libraries in the wheels of a platform: their names, and what they are opened as."""
    for wheel in wheels("*%s*.whl" % platform):
        for name, data in contents(wheel).items():
            if re.search(pattern, name):
                yield "%s: %s" % (wheel.name, name), opened(data)


def linux_libraries(pattern=ELF):
    return libraries("linux", pattern, lambda data: ELFFile(io.BytesIO(data)))


def windows_libraries(pattern=PE):
    return libraries("win_amd64", pattern, lambda data: pefile.PE(data=data))


def dynamic(file):
    """The entries of a library's dynamic section, by their tags."""
    entries = {}
    for tag in file.get_section_by_name(".dynamic").iter_tags():
        value = getattr(tag, tag.entry.d_tag[3:].lower(), tag.entry.d_val)
        entries.setdefault(tag.entry.d_tag, []).append(value)
    return entries


def names(file, is_undefined):
    table = file.get_section_by_name(".dynsym")
    return {
        symbol.name
        for symbol in table.iter_symbols()
        if symbol.name and (symbol["st_shndx"] == "SHN_UNDEF") == is_undefined
    }


class LinuxTest(unittest.TestCase):
    def test_tables_are_read_only_before_anything_runs(self):
        for name, file in linux_libraries():
            with self.subTest(name):
                kinds = {segment["p_type"] for segment in file.iter_segments()}
                self.assertIn("PT_GNU_RELRO", kinds)
                entries = dynamic(file)
                self.assertTrue(entries.get("DT_FLAGS", [0])[0] & 8 or "DT_BIND_NOW" in entries)

    def test_the_stack_is_no_code(self):
        for name, file in linux_libraries():
            with self.subTest(name):
                flags = [
                    part["p_flags"]
                    for part in file.iter_segments()
                    if part["p_type"] == "PT_GNU_STACK"
                ]
                self.assertEqual(flags, [6])

    def test_stacks_are_protected_and_copies_checked(self):
        for name, file in linux_libraries():
            with self.subTest(name):
                needed = names(file, True)
                self.assertIn("__stack_chk_fail", needed)
                self.assertTrue([name for name in needed if name.endswith("_chk")], needed)

    def test_the_module_exports_its_entry_alone(self):
        for name, file in linux_libraries(r"_Lumatie.*\.so$"):
            with self.subTest(name):
                self.assertEqual(names(file, False), {"PyInit__Lumatie"})

    def test_the_virtual_cameras_export_what_the_makers_do_and_their_steering(self):
        for name, file in linux_libraries(r"lumatie_virtual/.*\.(so|md3)$"):
            with self.subTest(name):
                for one in names(file, False):
                    self.assertRegex(one, "^(Eds|VirtualCa|VirtualNi|MAIDEntryPoint$)")

    def test_libraries_are_looked_for_where_pip_puts_them_and_nowhere_else(self):
        for name, file in linux_libraries(r"_Lumatie.*\.so$"):
            with self.subTest(name):
                entries = dynamic(file)
                self.assertEqual(entries.get("DT_RUNPATH"), ["$ORIGIN:$ORIGIN/lumatie_virtual"])
                self.assertNotIn("DT_RPATH", entries)
                self.assertEqual(entries["DT_NEEDED"][0], "libEDSDK.so")
        for name, file in linux_libraries(r"lumatie_virtual/.*\.(so|md3)$"):
            with self.subTest(name):
                self.assertFalse({"DT_RUNPATH", "DT_RPATH"} & set(dynamic(file)))

    def test_no_symbols_are_left_for_a_debugger(self):
        for name, file in linux_libraries():
            with self.subTest(name):
                sections = {section.name for section in file.iter_sections()}
                self.assertEqual({".symtab", ".debug_info"} & sections, set())


class WindowsTest(unittest.TestCase):
    def test_addresses_are_random_and_data_is_no_code(self):
        wanted = ASLR_HIGH | ASLR | NO_CODE_IN_DATA
        for name, file in windows_libraries():
            with self.subTest(name):
                self.assertEqual(file.OPTIONAL_HEADER.DllCharacteristics & wanted, wanted)
                self.assertTrue(file.DIRECTORY_ENTRY_BASERELOC, "cannot be moved")

    def test_no_time_is_in_them(self):
        for name, file in windows_libraries():
            with self.subTest(name):
                self.assertEqual(file.FILE_HEADER.TimeDateStamp, 0)

    def test_the_module_exports_its_entry_and_needs_the_interpreter_and_canons_library(self):
        for name, file in windows_libraries(r"\.pyd$"):
            with self.subTest(name):
                exports = [one.name.decode() for one in file.DIRECTORY_ENTRY_EXPORT.symbols]
                self.assertEqual(exports, ["PyInit__Lumatie"])
                needed = {one.dll.decode().lower() for one in file.DIRECTORY_ENTRY_IMPORT}
                self.assertLessEqual(needed, NEEDED)


if __name__ == "__main__":
    unittest.main()
