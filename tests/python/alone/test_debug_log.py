"""The debug log as the machine's user sees it: one line for each event, and its switch.

Each test runs a host in a process of its own, with the build of the module that has settings of
its own.
"""

import ast
import os
import textwrap
import unittest

from log_support import (
    remove_settings,
    run_logged_host,
    switch,
    write_settings,
    write_value,
)
from support import CANON_LIBRARY, DEVICE_BUSY, TetherTestCase
from this_process import ON_WINDOWS

if ON_WINDOWS:
    import winreg

# A session that has settled; what the host was called with is printed when it has ended.
HOST = """
import sys
import log_support
from support import VirtualCanon, Host, Lumatie

def note(event):
    if "noted" in sys.argv:
        log_support.write_line("host %d" % event.code)

camera, host, tether = VirtualCanon(), Host(note), Lumatie.Lumatie()
tether.Init("Virtual EOS", sys.argv[1], host)
camera.wait_for_calls("EdsSetCapacity")
camera.settle()
"""
END = """
tether.Uninit()
print(host.calls())
"""

TEXT_FORMATS = {
    0: "CANON TETHER_GENERAL={}",
    1: "CANON TETHER_EXPOSUREMODE={}",
    3: "CANON TETHER_SHUTTERSPEED key={}, value={}",
    4: "CANON TETHER_SHUTTERSPEED_LIST={}",
    5: "CANON TETHER_APERTURE key={}, value={}",
    6: "CANON TETHER_APERTURE_LIST={}",
    7: "CANON TETHER_ISO key={}, value={}",
    8: "CANON TETHER_ISO_LIST={}",
    9: "CANON TETHER_WB key={}, value={}",
    10: "CANON TETHER_WB_LIST={}",
    11: "CANON TETHER_COLORTEMP value={}",
    12: "CANON TETHER_COLORTEMP_LIST={}",
    13: "CANON TETHER_IMAGEQUALITY={}",
}


def line_for(call):
    """The line that belongs to a call of the host."""
    return "[Lumatie]" + TEXT_FORMATS[call[0]].format(*call[1:])[:1023]


class DebugLogTestCase(TetherTestCase):
    """Has the settings to itself."""

    def setUp(self):
        super().setUp()
        remove_settings()
        self.addCleanup(remove_settings)

    def run_session(self, code="", *arguments):
        """Runs a Canon session; returns the host's calls and the lines of the log."""
        code = HOST + textwrap.dedent(code) + END
        run, lines = run_logged_host(code, (self.folder,) + arguments)
        self.assertEqual(run.status, 0, run.stderr)
        return ast.literal_eval(run.stdout), lines

    def is_on(self):
        """Whether the log is switched on: all lines of a session come, or none."""
        calls, lines = self.run_session()
        self.assertIn(lines, ([], [line_for(call) for call in calls]))
        return bool(lines)


class DebugLogTest(DebugLogTestCase):
    """The lines of a Canon session, and the switch."""

    def test_the_start_of_a_session_writes_its_lines(self):
        switch(1)
        calls, lines = self.run_session()
        self.assertEqual(
            lines[:7],
            [
                "[Lumatie]CANON TETHER_IMAGEQUALITY=Large Fine Jpeg",
                "[Lumatie]CANON TETHER_WB key=0, value=Auto",
                "[Lumatie]CANON TETHER_COLORTEMP value=5200",
                "[Lumatie]CANON TETHER_ISO key=88, value=400",
                "[Lumatie]CANON TETHER_APERTURE key=48, value=5.6",
                "[Lumatie]CANON TETHER_SHUTTERSPEED key=112, value=1/125",
                "[Lumatie]CANON TETHER_EXPOSUREMODE=M",
            ],
        )
        self.assertIn("[Lumatie]CANON TETHER_COLORTEMP_LIST={}", lines)
        self.assertEqual(lines, [line_for(call) for call in calls])

    def test_status_texts_and_the_invalid_code_have_their_lines(self):
        switch(1)
        calls, lines = self.run_session(
            """
            host.clear()
            tether.Shoot()
            host.wait_for_picture()
            camera.fail_next("EdsDownload", 2)
            tether.Shoot()
            host.wait_for_failure()
            camera.fail_next("EdsSetPropertyData", 0xC0)
            tether.SetValue(7, 0)
            host.wait_for_text("BUSY")
            camera.set_property(0x406, 0xFFFFFFFF)
            camera.settle()
            camera.set_allowed(0x406, [16, 19, 96])
            camera.set_allowed(0x107, [2500, -1])
            camera.settle()
            """
        )
        lines = lines[-len(calls) :]
        self.assertEqual(lines, [line_for(call) for call in calls])
        new_file = "[Lumatie]CANON TETHER_GENERAL={'GENERAL_NEWFILE':r'" + self.folder + os.sep
        self.assertTrue(lines[0].startswith(new_file), lines[0])
        self.assertEqual(
            lines[1:],
            [
                "[Lumatie]CANON TETHER_GENERAL={'GENERAL_WRITEFAIL':1}",
                "[Lumatie]CANON TETHER_GENERAL=" + DEVICE_BUSY,
                "[Lumatie]CANON TETHER_SHUTTERSPEED key=-1, value=unknown",
                "[Lumatie]CANON TETHER_SHUTTERSPEED_LIST={16:'30',19:'25',96:'1/30',}",
                "[Lumatie]CANON TETHER_COLORTEMP_LIST={0:2500,1:-1,}",
            ],
        )

    def test_every_event_comes_after_its_line(self):
        switch(1)
        _, lines = self.run_session("", "noted")
        self.assertEqual(len(lines), 24)
        for line, event in zip(lines[::2], lines[1::2]):
            code = int(event.replace("host ", ""))
            self.assertTrue(line.startswith("[Lumatie]" + TEXT_FORMATS[code].split("{")[0]), line)

    def test_a_long_line_is_cut_to_its_first_1023_characters(self):
        switch(1)
        calls, lines = self.run_session(
            "host.clear()\ncamera.set_allowed(0x406, [96] * 128)\ncamera.settle()"
        )
        whole = "CANON TETHER_SHUTTERSPEED_LIST=" + calls[-1][1]
        self.assertEqual((len(calls), len(calls[-1][1])), (1, 2 + 128 * len("96:'1/30',")))
        self.assertEqual(lines[-1], "[Lumatie]" + whole[:1023])

    def test_a_host_without_a_callable_has_its_lines_all_the_same(self):
        switch(1)
        _, lines = self.run_session(
            """
            tether.Uninit()
            tether.Init("Virtual EOS", sys.argv[1], None)
            camera.wait_for_calls("EdsSetCapacity", 2)
            camera.settle()
            """
        )
        self.assertEqual(len(lines), 24)
        self.assertEqual(lines[:12], lines[12:])

    def test_any_number_but_0_switches_the_log_on(self):
        for number in (1, 256, 0xFFFFFFFF):
            switch(number)
            self.assertTrue(self.is_on(), number)

    def test_0_leaves_the_log_off(self):
        switch(0)
        self.assertFalse(self.is_on())

    def test_without_settings_the_log_stays_off(self):
        self.assertFalse(self.is_on())

    def test_the_switch_is_read_for_every_new_object(self):
        switch(1)
        _, lines = self.run_session(
            """
            def set_iso(value):
                camera.set_property(0x402, value)
                camera.settle()
            set_iso(0x48)
            log_support.switch(0)
            set_iso(0x50)
            second = Lumatie.Lumatie()
            set_iso(0x58)
            log_support.switch(1)
            third = Lumatie.Lumatie()
            set_iso(0x60)
            log_support.remove_settings()
            fourth = Lumatie.Lumatie()
            set_iso(0x68)
            """
        )
        iso = [line.rsplit("=", 1)[1] for line in lines if "TETHER_ISO key" in line]
        self.assertEqual(iso, ["400", "100", "200", "800", "1600"])


@unittest.skipIf(ON_WINDOWS, "on Windows the switch is in the registry")
class SettingsFileTest(DebugLogTestCase):
    """What the settings file may hold."""

    def is_on_with(self, text):
        write_settings(text)
        return self.is_on()

    def test_any_number_but_0_switches_the_log_on(self):
        for number in ("2", "01"):
            self.assertTrue(self.is_on_with("DumpMsg={}\n".format(number)), number)

    def test_what_is_no_number_of_32_bits_leaves_the_log_off(self):
        for number in ("", "on", "-1", "0x1", "4294967296", "1.0"):
            self.assertFalse(self.is_on_with("DumpMsg={}\n".format(number)), number)

    def test_other_lines_of_the_file_do_not_matter(self):
        self.assertTrue(self.is_on_with("Other=0\n\nDumpMsg=1\r\nMore=0\n"))
        self.assertFalse(self.is_on_with("XDumpMsg=1\ndumpmsg=1\nDumpMsg =1\n"))


@unittest.skipUnless(ON_WINDOWS, "there is a registry on Windows only")
class RegistryTest(DebugLogTestCase):
    """What the registry's value may be: four bytes or fewer count, whatever their type is."""

    def is_on_with(self, value, kind):
        write_value(value, kind)
        return self.is_on()

    def test_a_text_counts_by_its_bytes(self):
        self.assertTrue(self.is_on_with("0", winreg.REG_SZ))
        self.assertFalse(self.is_on_with("", winreg.REG_SZ))

    def test_up_to_four_bytes_count(self):
        self.assertTrue(self.is_on_with(b"\x01", winreg.REG_BINARY))
        self.assertTrue(self.is_on_with(b"\0\0\0\x80", winreg.REG_BINARY))
        for zero in (b"", b"\0", b"\0\0\0\0"):
            self.assertFalse(self.is_on_with(zero, winreg.REG_BINARY), zero)

    def test_more_than_four_bytes_leave_the_log_off(self):
        self.assertFalse(self.is_on_with(1, winreg.REG_QWORD))
        self.assertFalse(self.is_on_with(b"\x01" * 8, winreg.REG_BINARY))
        self.assertFalse(self.is_on_with("1111", winreg.REG_SZ))

    def test_a_key_without_the_value_leaves_the_log_off(self):
        write_value(1, winreg.REG_DWORD, name="Other")
        self.assertFalse(self.is_on())


class NikonLogTest(DebugLogTestCase):
    """The lines of a Nikon session."""

    HOST = """
import sys
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
"""
    TEXTS = {
        0: "NIKON TETHER_GENERAL={}",
        1: "NIKON TETHER_EXPOSUREMODE={}",
        3: "NIKON TETHER_SHUTTERSPEED={}",
        4: "NIKON TETHER_SHUTTERSPEED_LIST={}",
        5: "NIKON TETHER_APERTURE={}",
        6: "NIKON TETHER_APERTURE_LIST={}",
        7: "NIKON TETHER_ISO={}",
        8: "NIKON TETHER_ISO_LIST={}",
        9: "NIKON TETHER_WB={}",
        10: "NIKON TETHER_WB_LIST={}",
        13: "NIKON TETHER_IMAGEQUALITY={}",
    }

    def lines_of(self, code):
        """Runs a host; returns its calls and the log's lines."""
        switch(1)
        run, lines = run_logged_host(self.HOST + textwrap.dedent(code), (self.folder,))
        self.assertEqual(run.status, 0, run.stderr)
        calls = [line for line in run.stdout.splitlines() if line.startswith("[(")]
        return ast.literal_eval(calls[-1]) if calls else [], lines

    def test_every_event_has_its_line(self):
        calls, lines = self.lines_of(
            """
            nikon.configure("picture.size = 5000")
            nikon.press_shutter()
            assert tether.Init(MODULE, sys.argv[1], host) == 1
            host.wait_for_picture()
            host.wait_for_event(13, 2)
            tether.Uninit()
            print(host.calls())
            """
        )
        self.assertEqual(set(self.TEXTS), {call[0] for call in calls})
        expected = ["[Lumatie]" + self.TEXTS[c].format(value) for c, value in calls]
        self.assertEqual(lines, [line[: len("[Lumatie]") + 1023] for line in expected])

    def test_a_file_that_is_no_driver_module_says_why(self):
        no_library = os.path.join(self.base, "file")
        with open(no_library, "w", encoding="ascii") as file:
            file.write("no library")
        for path, reason in (
            (no_library, "NIKON driver module cannot be loaded: "),
            (str(CANON_LIBRARY), "NIKON driver module has no MAIDEntryPoint: "),
        ):
            _, lines = self.lines_of(
                """
                assert tether.Init({!r}, sys.argv[1], host) == 0
                assert tether.Uninit() == 1
                """.format(path)
            )
            self.assertEqual(len(lines), 1)
            self.assertTrue(lines[0].startswith("[Lumatie]" + reason), lines)


if __name__ == "__main__":
    unittest.main()
