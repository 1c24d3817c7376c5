"""The debug log as the machine's user sees it: one line on standard error for each event.

Each test runs a host in a process of its own, with the build of the module whose settings file lies
in the build tree.
"""

import ast
import os
import textwrap
import unittest

from support import (
    DEVICE_BUSY,
    TEST_CONFIG_DIR,
    TEST_PYTHON_DIR,
    VIRTUAL_DIR,
    TetherTestCase,
    run_host,
)

SETTINGS = TEST_CONFIG_DIR / "Imagrelle.conf"

# A session that has settled; what the host was called with is printed when it has ended.
HOST = """
import os, sys
from support import TEST_CONFIG_DIR, VirtualCamera, Host, Lumatie

def note(event):
    if "noted" in sys.argv:
        os.write(2, b"host %d\\n" % event.code)

camera, host, tether = VirtualCamera(), Host(note), Lumatie.Lumatie()
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
    """Has the settings file to itself."""

    def setUp(self):
        super().setUp()
        self.addCleanup(self._remove_settings)

    def _remove_settings(self):
        if SETTINGS.exists():
            SETTINGS.unlink()

    def switch(self, text):
        """Writes the settings file; None takes it away."""
        self._remove_settings()
        if text is not None:
            os.makedirs(str(TEST_CONFIG_DIR), exist_ok=True)
            SETTINGS.write_text(text)


class DebugLogTest(DebugLogTestCase):
    """The lines of a Canon session, and the switch."""

    def run_session(self, code="", *arguments):
        """Runs a session; returns the host's calls and the lines of the log."""
        run = run_host(
            HOST + textwrap.dedent(code) + END,
            python_dir=TEST_PYTHON_DIR,
            arguments=(self.folder,) + arguments,
        )
        self.assertEqual(run.status, 0, run.stderr)
        return ast.literal_eval(run.stdout), run.stderr.splitlines()

    def is_on(self, settings):
        """Whether these settings switch the log on: all lines of a session come, or none."""
        self.switch(settings)
        calls, lines = self.run_session()
        self.assertIn(lines, ([], [line_for(call) for call in calls]))
        return bool(lines)

    def test_the_start_of_a_session_writes_its_lines(self):
        self.switch("DumpMsg=1\n")
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
        self.switch("DumpMsg=1\n")
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
        self.assertTrue(lines[0].startswith("[Lumatie]CANON TETHER_GENERAL={'GENERAL_NEWFILE':r'/"))
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
        self.switch("DumpMsg=1\n")
        _, lines = self.run_session("", "noted")
        self.assertEqual(len(lines), 24)
        for line, event in zip(lines[::2], lines[1::2]):
            code = int(event.replace("host ", ""))
            self.assertTrue(line.startswith("[Lumatie]" + TEXT_FORMATS[code].split("{")[0]), line)

    def test_a_long_line_is_cut_to_its_first_1023_characters(self):
        self.switch("DumpMsg=1\n")
        calls, lines = self.run_session(
            "host.clear()\ncamera.set_allowed(0x406, [96] * 128)\ncamera.settle()"
        )
        whole = "CANON TETHER_SHUTTERSPEED_LIST=" + calls[-1][1]
        self.assertEqual((len(calls), len(calls[-1][1])), (1, 2 + 128 * len("96:'1/30',")))
        self.assertEqual(lines[-1], "[Lumatie]" + whole[:1023])

    def test_a_host_without_a_callable_has_its_lines_all_the_same(self):
        self.switch("DumpMsg=1\n")
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
        for number in ("1", "2", "4294967295", "256", "01"):
            self.assertTrue(self.is_on("DumpMsg={}\n".format(number)), number)

    def test_0_and_what_is_no_number_of_32_bits_leave_the_log_off(self):
        for number in ("0", "", "on", "-1", "0x1", "4294967296", "1.0"):
            self.assertFalse(self.is_on("DumpMsg={}\n".format(number)), number)

    def test_other_lines_of_the_file_do_not_matter(self):
        self.assertTrue(self.is_on("Other=0\n\nDumpMsg=1\r\nMore=0\n"))
        self.assertFalse(self.is_on("XDumpMsg=1\ndumpmsg=1\nDumpMsg =1\n"))

    def test_without_the_file_the_log_stays_off(self):
        self.assertFalse(self.is_on(None))

    def test_the_switch_is_read_for_every_new_object(self):
        self.switch("DumpMsg=1\n")
        _, lines = self.run_session(
            """
            def set_iso(value):
                camera.set_property(0x402, value)
                camera.settle()
            file = TEST_CONFIG_DIR / "Imagrelle.conf"
            set_iso(0x48)
            file.write_text("DumpMsg=0")
            set_iso(0x50)
            second = Lumatie.Lumatie()
            set_iso(0x58)
            file.write_text("DumpMsg=1")
            third = Lumatie.Lumatie()
            set_iso(0x60)
            file.unlink()
            fourth = Lumatie.Lumatie()
            set_iso(0x68)
            """
        )
        iso = [line.rsplit("=", 1)[1] for line in lines if "TETHER_ISO key" in line]
        self.assertEqual(iso, ["400", "100", "200", "800", "1600"])


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
        self.switch("DumpMsg=1\n")
        run = run_host(
            self.HOST + textwrap.dedent(code),
            python_dir=TEST_PYTHON_DIR,
            arguments=(self.folder,),
        )
        self.assertEqual(run.status, 0, run.stderr)
        calls = [line for line in run.stdout.splitlines() if line.startswith("[(")]
        return ast.literal_eval(calls[-1]) if calls else [], run.stderr.splitlines()

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
            (str(VIRTUAL_DIR / "libEDSDK.so"), "NIKON driver module has no MAIDEntryPoint: "),
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
