"""The example host: what it prints, what it leaves behind, and how it ends."""

import importlib.util
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent import futures

from support import (
    DEADLINE,
    NIKON_MODULE,
    PYTHON_DIR,
    REPOSITORY,
    HostRun,
    decode_output,
    folder_names,
    run_host,
    wait_until,
)
from this_process import ON_WINDOWS

DEMO = REPOSITORY / "host" / "tether_demo.py"
sys.path.insert(0, str(DEMO.parent))  # the package lies beside it

# Bounds for one end after Ctrl-C: a part of a picture may have to be waited for.
END_BOUND = 8.0

# Runs a program and plays the console of Windows, which presses Ctrl-C on a thread of its own: once
# for each byte that comes in. Whether there is a console depends on how the tests are started.
CONSOLE = """
import os, runpy, signal, sys, threading

# A library that looks at the standard input while it is loaded would wait for the read.
presses = os.dup(0)
os.dup2(os.open(os.devnull, os.O_RDONLY), 0)

def press():
    while os.read(presses, 1):
        signal.raise_signal(signal.SIGINT)

threading.Thread(target=press, daemon=True).start()
del sys.argv[0]
sys.path.insert(0, os.path.dirname(sys.argv[0]))
runpy.run_path(sys.argv[0], run_name="__main__")
"""

# Presses Ctrl-C as soon as somebody can read that the demo has begun.
PRESS_AT_THE_FIRST_LINE = """
import builtins, signal, sys

def print_and_press(*texts, **options):
    builtins.print(*texts, **options)
    if texts[0].startswith("Camera:"):
        signal.raise_signal(signal.SIGINT)

tether_demo.print = print_and_press
"""

JPEG_START = b"\xff\xd8\xff"
RAW_START = b"II*\0"


def load_demo():
    """The demo as a module, for its functions."""
    spec = importlib.util.spec_from_file_location("tether_demo", str(DEMO))
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


demo = load_demo()


def time_of(log, line):
    """When the virtual camera logged this line first, in seconds."""
    found = re.search(r"(?m)^\d+ (\d+\.\d+) \w+ " + line, log)
    if found is None:
        raise AssertionError("no line %r in %s" % (line, log))
    return float(found.group(1))


class DemoProcess:
    """One run of the demo with a virtual camera of the given settings.

    The environment variable `variable` tells the maker's virtual camera where the settings are.
    """

    def __init__(self, base, settings, arguments, variable="LUMATIE_VIRTUAL_CANON"):
        self.log_path = pathlib.Path(base, "camera.log")
        configuration = pathlib.Path(base, "camera.txt")
        configuration.write_text(settings)
        environment = dict(
            os.environ,
            PYTHONPATH=str(PYTHON_DIR),
            PYTHONIOENCODING="utf-8",
            PYTHONDONTWRITEBYTECODE="1",
            TMPDIR=str(base),
            LUMATIE_VIRTUAL_LOG=str(self.log_path),
        )
        environment[variable] = str(configuration)
        program = ["-c", CONSOLE, str(DEMO)] if ON_WINDOWS else [str(DEMO)]
        self._process = subprocess.Popen(
            [sys.executable] + program + list(arguments),
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=environment,
        )

    def read_until(self, start):
        """Reads the output up to the line that starts so."""
        line = None
        while line is None or not line.startswith(start):
            line = self._process.stdout.readline().decode()
            if not line:
                raise AssertionError("no line %r: %r" % (start, self.finish()))

    def interrupt(self):
        if ON_WINDOWS:
            self._process.stdin.write(b"!")
            self._process.stdin.flush()
        else:
            self._process.send_signal(signal.SIGINT)

    def log(self):
        """The virtual camera's log so far."""
        return self.log_path.read_text(encoding="utf-8") if self.log_path.exists() else ""

    def wait_for_log(self, fragment):
        wait_until(lambda: fragment in self.log(), fragment + " in the log")

    def finish(self, deadline=DEADLINE):
        """Waits for the end; the output that was read before is missing in the result."""
        try:
            written = self._process.communicate(timeout=deadline)
        except subprocess.TimeoutExpired:
            self._process.kill()
            written = self._process.communicate()
            raise AssertionError("the demo did not end: %r" % (written,)) from None
        return HostRun(self._process.returncode, *map(decode_output, written))


class DemoTestCase(unittest.TestCase):
    variable = "LUMATIE_VIRTUAL_CANON"
    camera = ()  # arguments that choose it
    settings = ""

    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-demo-")
        self.addCleanup(base.cleanup)
        self.base = os.path.realpath(base.name)
        self.folder = self.make_folder("pictures")

    def make_folder(self, name):
        folder = os.path.join(self.base, name)
        os.mkdir(folder)
        return folder

    def start(self, *arguments, settings=None, base=None, folder=None):
        settings = self.settings if settings is None else settings
        base = self.base if base is None else base
        folder = self.folder if folder is None else folder
        arguments = ("--folder", folder) + self.camera + arguments
        return DemoProcess(base, settings, arguments, self.variable)

    def run_demo(self, *arguments, **options):
        """Runs the demo to its end; returns what it wrote, and what the camera saw."""
        process = self.start(*arguments, **options)
        return process.finish(), process.log()

    def run_changed(self, change, settings=""):
        """Runs the demo after a program of Python has changed something in `tether_demo`."""
        configuration = pathlib.Path(self.base, "camera.txt")
        configuration.write_text(settings)
        script = """
            import sys
            sys.path.insert(0, {!r})
            import tether_demo
            exec({!r})
            sys.argv = {!r}
            sys.exit(tether_demo.main())
        """
        arguments = ["tether_demo.py", "--folder", self.folder] + list(self.camera)
        return run_host(
            script.format(str(DEMO.parent), change, arguments),
            environment={self.variable: configuration},
        )

    def run_impatiently(self, settings, patience, seconds=0.3):
        """Runs the demo with one of its patiences cut short."""
        return self.run_changed("tether_demo.{} = {}".format(patience, seconds), settings)

    def pictures(self, folder=None):
        folder = pathlib.Path(self.folder if folder is None else folder)
        return [path.read_bytes() for path in sorted(folder.iterdir()) if path.is_file()]

    def assert_session_ended(self, log):
        """The library was terminated, and the camera's session, if one was opened, closed."""
        self.assertIn("EdsTerminateSDK() = 0x0", log)
        self.assertNotIn("MISUSE", log)

    def assert_fails(self, run, message):
        self.assertEqual(run.status, 1, run)
        self.assertIn("error: " + message, run.stderr)
        self.assertNotIn("Traceback", run.stderr)
        # The second line says what to do. A driver module has no lines of its own there.
        self.assertRegex(run.stderr, r"\A.+\n[A-Z].+\.\n\Z")


class ShootingTest(DemoTestCase):
    def test_five_pictures_are_taken_and_verified(self):
        run, log = self.run_demo()
        self.assertEqual((run.status, run.stderr), (0, ""))
        pictures = self.pictures()
        self.assertEqual([data[:3] for data in pictures], [JPEG_START] * 5)
        self.assertEqual(len(re.findall(r"^  picture \d .*\(JPEG, ", run.stdout, re.M)), 5)
        self.assertTrue(run.stdout.endswith("5 files are in %s\n" % self.folder), run.stdout)
        self.assert_session_ended(log)

    def test_five_settings_are_changed(self):
        run, log = self.run_demo("--shots", "1")
        self.assertEqual(run.status, 0, run)
        for changed in ("0x406", "0x405", "0x402", "0x106", "0x107"):
            self.assertRegex(log, r"EdsSetPropertyData\(camera#\d+, %s, .* = 0x0" % changed)
        before, after = run.stdout.split("Changing settings:")
        self.assertRegex(before, r"(?m)^  shutter +1/125$")
        self.assertRegex(before, r"(?m)^  shutter +55 choices: 30, 25, 20, ..., 1/8000$")
        self.assertRegex(after, r"(?m)^  shutter +1/250$")
        self.assertRegex(after, r"(?m)^  color temperature +5600$")

    def test_a_setting_that_is_as_wanted_is_left_alone(self):
        run, log = self.run_demo("--shots", "1", settings="value.0x406 = 0x78")
        self.assertEqual(run.status, 0, run)
        self.assertNotRegex(log, r"EdsSetPropertyData\(camera#\d+, 0x406")

    def test_a_wish_that_the_camera_lacks_is_replaced_by_the_middle_of_its_list(self):
        run, _ = self.run_demo("--shots", "1", settings="list.0x406 = 0x70 0x60 0x68")
        self.assertEqual(run.status, 0, run)
        self.assertRegex(run.stdout, r"Changing settings:\n  shutter +1/30\n")

    def test_without_a_folder_a_new_temporary_one_is_named(self):
        process = DemoProcess(self.base, "", ("--shots", "1"))
        run = process.finish()
        self.assertEqual(run.status, 0, run)
        folder = re.search(r"^Pictures: (.*)$", run.stdout, re.M).group(1)
        self.assertEqual(os.path.dirname(folder), self.base)
        self.assertEqual(len(self.pictures(folder)), 1)

    def test_another_camera_is_found_by_its_name(self):
        run, _ = self.run_demo("--camera", "other eos", settings="camera.name = Other EOS")
        self.assertEqual((run.status, len(self.pictures())), (0, 5), run)

    def test_raw_and_jpeg_make_two_files_a_picture(self):
        run, _ = self.run_demo("--shots", "2", settings="value.0x100 = 0x00640013")
        self.assertEqual(run.status, 0, run)
        starts = sorted(data[:3] for data in self.pictures())
        self.assertEqual(starts, [RAW_START[:3]] * 2 + [JPEG_START] * 2)

    def test_settings_that_the_camera_chooses_itself_are_left_alone(self):
        for mode in ("0", "9"):
            with self.subTest(mode=mode):
                run, log = self.run_demo("--shots", "1", settings="value.0x436 = " + mode)
                self.assertEqual(run.status, 0, run)
                self.assertIn("is the camera's own choice", run.stdout)
                self.assertNotRegex(log, r"EdsSetPropertyData\(camera#\d+, 0x40[56]")

    def test_an_exposure_takes_its_time_and_the_virtual_cameras_own_settings_count(self):
        settings = "picture.size = 12345"
        run, log = self.run_demo("--shots", "1", "--exposure", "0.6", settings=settings)
        self.assertEqual((run.status, run.stderr), (0, ""), run)
        self.assertRegex(run.stdout, r"Changing settings:\n  shutter +0.6\n")
        pressed = time_of(log, r"EdsSendCommand\(camera#\d+, 0x4, 0x3\) = 0x0")
        self.assertGreaterEqual(time_of(log, r"event 0x208 ") - pressed, 0.5)
        self.assertEqual([len(data) for data in self.pictures()], [12345])

    def test_an_exposure_is_left_to_a_camera_that_chooses_it_itself(self):
        arguments = ("--shots", "1", "--exposure", "30")
        run, _ = self.run_demo(*arguments, settings="value.0x436 = 0")
        self.assertEqual(run.status, 0, run)
        self.assertIn(
            "shutter              is the camera's own choice in this exposure mode", run.stdout
        )

    def test_a_busy_camera_is_waited_for(self):
        settings = "fault = EdsSetPropertyData code=0x81 property=0x406 calls=2"
        run, _ = self.run_demo("--shots", "1", settings=settings)
        self.assertEqual(run.status, 0, run)

    def test_a_camera_that_says_it_is_busy_with_something_else_is_waited_for(self):
        settings = "fault = EdsOpenSession code=0xC0"
        run, _ = self.run_demo("--shots", "1", settings=settings)
        self.assertEqual((run.status, run.stderr), (0, ""), run)

    def test_a_folder_with_quotes_or_a_separator_at_its_end_works(self):
        for name in folder_names("it's mine", "a' 'b", "'}", 'say "hi"', "ü 写真") + [
            "with" + os.sep
        ]:
            with self.subTest(name=name):
                folder = os.path.join(self.base, name)
                os.mkdir(folder)
                run, _ = self.run_demo("--shots", "1", folder=folder)
                self.assertEqual((run.status, run.stderr), (0, ""))
                self.assertEqual(len(self.pictures(folder)), 1)


class FailureTest(DemoTestCase):
    def test_an_unknown_camera_is_named(self):
        run, log = self.run_demo("--camera", "Nobody's Camera")
        self.assert_fails(run, 'no camera "Nobody\'s Camera" was found')
        self.assert_session_ended(log)

    def test_a_file_that_is_no_driver_module_is_named(self):
        run, _ = self.run_demo("--camera", str(DEMO))
        self.assert_fails(run, "the camera library %s cannot be loaded: " % DEMO)

    def test_a_folder_that_is_none_is_refused_before_the_start(self):
        file = os.path.join(self.base, "file")
        pathlib.Path(file).touch()
        for folder, why in (
            (os.path.join(self.base, "missing"), "there is no such folder"),
            (file, "it is a file, not a folder"),
        ):
            with self.subTest(folder=folder):
                run, log = self.run_demo(folder=folder)
                self.assert_fails(run, "pictures cannot go into %s: %s" % (folder, why))
                self.assertEqual(log, "")

    def test_a_longer_folder_than_the_module_takes_is_refused(self):
        folder = self.make_folder("x" * (250 - len(self.base)))
        run, log = self.run_demo(folder=folder)
        self.assert_fails(run, "pictures cannot go into %s: its path is too long by " % folder)
        self.assertNotIn("The camera reports", run.stdout)
        self.assertEqual(log, "")

    def test_a_folder_that_vanishes_is_noticed_by_the_missing_picture(self):
        process = self.start(settings="shutter.lag_ms = 300")
        process.read_until("Shooting:")
        # The session still writes its record there.
        wait_until(
            lambda: shutil.rmtree(self.folder, True) or not os.path.exists(self.folder),
            "the folder's end",
        )
        run = process.finish()
        # Which of the two depends on whether the camera had announced the picture by then.
        self.assertRegex(
            run.stderr,
            r"\Aerror: (a picture could not be written|the picture \S+ is lost): .+\n[A-Z].+\.\n\Z",
        )
        self.assertEqual(run.status, 1, run)
        self.assert_session_ended(process.log())

    def test_a_write_failure_is_reported(self):
        for settings in (
            "transfer.disk_full_after = 1000",
            "fault = EdsDownload unplug percent=50",
        ):
            with self.subTest(settings=settings):
                run, log = self.run_demo(settings=settings)
                self.assert_fails(
                    run, "a picture could not be written: the camera's picture did not reach "
                )
                self.assertEqual(self.pictures(), [])
                self.assert_session_ended(log)

    def test_a_picture_that_does_not_arrive_is_reported(self):
        run = self.run_impatiently("event = 0x208 lose", "PICTURE_PATIENCE")
        self.assert_fails(run, "the camera did not take a picture within 0.3")

    def test_a_session_that_does_not_open_is_reported(self):
        run = self.run_impatiently("fault = EdsOpenSession code=0x80 calls=0", "START_PATIENCE")
        self.assert_fails(run, "the camera did not tell its settings within 0.3 seconds")

    def test_a_setting_that_is_refused_is_reported(self):
        rule = "fault = EdsSetPropertyData code=0x60 property=0x405 calls=0"
        run = self.run_impatiently(rule, "CHANGE_PATIENCE")
        self.assert_fails(run, "the camera did not set aperture to 8 within 0.3 seconds")

    def test_arguments_that_make_no_sense_are_a_usage_error(self):
        for arguments in (
            ("--exposure", "0"),
            ("--exposure", "nan"),
            ("--shots", "0"),
            ("--shots", "x"),
            ("--camera", "\udcff"),
            ("--camera", ""),
            ("--folder", ""),
        ):
            with self.subTest(arguments=arguments):
                run, _ = self.run_demo(*arguments)
                self.assertEqual(run.status, 2, run)
                self.assertNotIn("Traceback", run.stderr)


class InterruptTestCase(DemoTestCase):
    """Presses Ctrl-C."""

    slow = ""  # settings with which Ctrl-C always comes before the end of a long shoot
    latest = 1.5  # seconds in which everything that the demo does is done once

    def assert_interrupted(self, process, sent):
        run = process.finish()
        took = time.monotonic() - sent
        self.assertEqual((run.status, run.stderr), (130, "Interrupted.\n"), run)
        self.assertIn("The session has ended.\n", run.stdout)
        self.assertLess(took, END_BOUND)
        log = process.log()
        if log:  # else it came before the camera's library was called at all
            self.assert_session_ended(log)

    def interrupt_after(self, delay):
        base = tempfile.mkdtemp(dir=self.base)
        process = self.start("--shots", "100", settings=self.slow, base=base)
        process.read_until("Camera:")
        time.sleep(delay)
        process.interrupt()
        self.assert_interrupted(process, time.monotonic())

    def interrupt_at_any_moment(self):
        delays = [random.uniform(0, self.latest) for _ in range(12)]
        with futures.ThreadPoolExecutor(4) as pool:
            for delay, end in [
                (delay, pool.submit(self.interrupt_after, delay)) for delay in delays
            ]:
                with self.subTest(delay=delay):
                    end.result()

    def interrupt_at(self, fragment, settings):
        process = self.start(settings=settings)
        process.wait_for_log(fragment)
        process.interrupt()
        self.assert_interrupted(process, time.monotonic())

    def interrupt_twice(self, first, second, settings):
        process = self.start("--shots", "1", settings=settings)
        process.wait_for_log(first)
        process.interrupt()
        process.wait_for_log(second)
        process.interrupt()
        self.assert_interrupted(process, time.monotonic())


class InterruptTest(InterruptTestCase):
    slow = """
        shutter.lag_ms = 150
        picture.size = 1000000
        transfer.rate = 4
        fault = EdsSetPropertyData delay_ms=30 calls=0
    """

    def test_ctrl_c_at_any_moment_ends_the_session(self):
        self.interrupt_at_any_moment()

    def test_ctrl_c_at_the_first_line_ends_the_session(self):
        run = self.run_changed(PRESS_AT_THE_FIRST_LINE)
        self.assertEqual((run.status, run.stderr), (130, "Interrupted.\n"), run)
        self.assertTrue(run.stdout.endswith("\nThe session has ended.\n"), run.stdout)

    def test_ctrl_c_inside_the_start_ends_the_session(self):
        self.interrupt_at("EdsGetCameraList", "fault = EdsGetChildCount delay_ms=500")

    def test_ctrl_c_while_the_session_does_not_open_ends_the_session(self):
        self.interrupt_at("EdsOpenSession", "fault = EdsOpenSession code=0x80 calls=0")

    def test_ctrl_c_inside_a_download_ends_the_session(self):
        settings = "picture.size = 1000000\ntransfer.rate = 2"
        self.interrupt_at("EdsSetProgressCallback", settings)

    def test_ctrl_c_inside_the_end_ends_the_session(self):
        process = self.start("--shots", "1", settings="fault = EdsTerminateSDK delay_ms=500")
        process.wait_for_log("EdsCloseSession")
        process.interrupt()
        self.assert_interrupted(process, time.monotonic())

    def test_a_second_ctrl_c_changes_nothing(self):
        settings = "fault = EdsTerminateSDK delay_ms=500"
        self.interrupt_twice("EdsOpenSession", "EdsCloseSession", settings)


class NikonTestCase(DemoTestCase):
    variable = "LUMATIE_VIRTUAL_NIKON"
    camera = ("--camera", str(NIKON_MODULE))
    # What the demo wants already: each change would take a second.
    settings = """
        value.0x8112 = 40
        value.0x8113 = 9
        value.0x8117 = 9
        value.0x8118 = 3
    """

    def assert_session_ended(self, log):
        """The module was closed, and nothing was done wrong with it."""
        self.assertIn("Close(module#0, 0x0) = 0", log)
        self.assertNotIn("MISUSE", log)


class NikonTest(NikonTestCase):
    """The same shoot with a Nikon camera."""

    def test_five_pictures_are_taken_and_verified(self):
        run, log = self.run_demo()
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertEqual([data[:3] for data in self.pictures()], [JPEG_START] * 5)
        self.assertEqual(len(re.findall(r"^  picture \d .*\(JPEG, ", run.stdout, re.M)), 5)
        self.assertTrue(run.stdout.endswith("5 files are in %s\n" % self.folder), run.stdout)
        self.assertEqual(len(re.findall(r"T\d+ CapStart\(source#1, 0x11\)", log)), 5)
        self.assert_session_ended(log)

    def test_an_exposure_takes_its_time(self):
        run, log = self.run_demo("--shots", "1", "--exposure", "0.6")
        self.assertEqual((run.status, run.stderr), (0, ""), run)
        self.assertRegex(run.stdout, r"(?m)^  shutter +1/1.6$")
        pressed = time_of(log, r"CapStart\(source#1, 0x11\) = 1")
        completed = time_of(log, r"completion CapStart\(source#1, 0x11\) = 0")
        self.assertGreaterEqual(completed - pressed, 0.6)
        self.assertEqual(len(self.pictures()), 1)
        self.assert_session_ended(log)

    def test_four_settings_are_changed(self):
        run, log = self.run_demo("--shots", "1", settings="")
        self.assertEqual(run.status, 0, run)
        for changed in ("0x8112", "0x8113", "0x8117", "0x8118"):
            self.assertEqual(log.count("CapSet(source#1, %s) = 0" % changed), 1, changed)
        before, after = run.stdout.split("Changing settings:")
        self.assertRegex(before, r"(?m)^  mode +Manual$")
        self.assertRegex(before, r"(?m)^  shutter +1/125$")
        self.assertRegex(before, r"(?m)^  shutter +56 choices: Bulb, 30, 25, ..., 1/8000$")
        self.assertRegex(before, r"(?m)^  quality +JPEG Fine$")
        for line in ("shutter +1/250", "aperture +f/8", "iso +800", "white balance +Direct"):
            self.assertRegex(after, "(?m)^  " + line)
        self.assertNotIn("color temperature", run.stdout)

    def test_settings_that_are_as_wanted_are_left_alone_and_reported_once(self):
        run, log = self.run_demo("--shots", "3")
        self.assertEqual(run.status, 0, run)
        self.assertNotRegex(log, r"CapSet\(source#1, 0x811")
        self.assertEqual(len(re.findall(r"(?m)^  shutter .*choices", run.stdout)), 1)
        self.assertEqual(run.stdout.count("stays as it is"), 4)

    def test_a_wish_that_the_camera_lacks_is_replaced_by_the_middle_of_its_list(self):
        settings = self.settings + "list.0x8112 = 1/60 | 1/30 | 1/15"
        run, _ = self.run_demo("--shots", "1", settings=settings)
        self.assertEqual(run.status, 0, run)
        self.assertRegex(run.stdout.split("Changing settings:")[1], r"(?m)^  shutter +1/30$")

    def test_settings_that_the_camera_chooses_itself_are_left_alone(self):
        run, log = self.run_demo("--shots", "1", settings=self.settings + "camera.mode = 5")
        self.assertEqual(run.status, 0, run)
        self.assertEqual(run.stdout.count("is the camera's own choice"), 4)
        self.assertNotRegex(log, r"CapSet\(source#1, 0x811")

    def test_raw_and_jpeg_make_two_files_a_picture(self):
        run, _ = self.run_demo("--shots", "2", settings=self.settings + "value.0x8110 = 6")
        self.assertEqual(run.status, 0, run)
        starts = sorted(data[:3] for data in self.pictures())
        self.assertEqual(starts, [RAW_START[:3]] * 2 + [JPEG_START] * 2)

    def test_a_picture_that_is_announced_again_is_not_taken_for_the_next_one(self):
        settings = self.settings + "fault = CapStart capability=20 code=-124 skip=1 calls=1"
        run, _ = self.run_demo("--shots", "2", settings=settings)
        self.assertEqual(run.status, 0, run)
        self.assertEqual(len(set(re.findall(r"Nikon_\d+_\d+\.jpg", run.stdout))), 2)

    def test_a_folder_with_quotes_works(self):
        for name in ("it's mine", "'}", "ü 写真"):
            with self.subTest(name=name):
                folder = self.make_folder(name)
                run, _ = self.run_demo("--shots", "1", folder=folder)
                self.assertEqual((run.status, run.stderr), (0, ""))
                self.assertEqual(len(self.pictures(folder)), 1)

    def test_a_module_without_a_camera_is_named(self):
        run, log = self.run_demo(settings="camera.plugged = 0")
        self.assert_fails(run, 'no camera "%s" was found' % NIKON_MODULE.stem)
        self.assert_session_ended(log)

    def test_a_camera_that_goes_away_is_noticed(self):
        settings = self.settings + "fault = CapStart capability=17 unplug"
        run = self.run_impatiently(settings, "PICTURE_PATIENCE", 3)
        self.assert_fails(run, "the camera did not take a picture within 3")

    def test_a_setting_that_is_refused_is_reported(self):
        settings = "fault = CapSet code=-5 capability=0x8112 calls=0"
        run = self.run_impatiently(settings, "CHANGE_PATIENCE", 3)
        self.assert_fails(run, "the camera does not take 1/250 for its shutter")


class NikonInterruptTest(NikonTestCase, InterruptTestCase):
    slow = """
        value.0x8113 = 9
        value.0x8117 = 9
        value.0x8118 = 3
        shutter.lag_ms = 150
        picture.size = 1000000
        transfer.rate = 4
        transfer.chunk = 10000
        fault = CapSet delay_ms=30 calls=0
    """
    latest = 4

    def test_ctrl_c_at_any_moment_ends_the_session(self):
        self.interrupt_at_any_moment()

    def test_ctrl_c_inside_the_start_ends_the_session(self):
        self.interrupt_at("GetCapCount(module#0", "fault = GetCapInfo delay_ms=500")

    def test_ctrl_c_inside_a_download_ends_the_session(self):
        settings = self.settings + "picture.size = 1000000\ntransfer.rate = 2"
        self.interrupt_at("CapStart(data#1, 0x14)", settings)

    def test_ctrl_c_inside_the_end_ends_the_session(self):
        process = self.start("--shots", "1", settings=self.settings + "fault = Close delay_ms=500")
        process.wait_for_log("CapStart(data#1, 0x14)")
        process.wait_for_log("CapSet(source#1, 0x3)")
        process.interrupt()
        self.assert_interrupted(process, time.monotonic())

    def test_a_second_ctrl_c_changes_nothing(self):
        settings = self.settings + "fault = Close delay_ms=500 calls=0"
        self.interrupt_twice("Open(module#0", "Close(source#1", settings)


class ExposureTest(unittest.TestCase):
    def test_the_nearest_shutter_speed_is_chosen(self):
        speeds = ("Bulb", "30", "1.6", "1/2", "1/250")
        for seconds, text in ((1000, "30"), (4, "1.6"), (0.7, "1/2"), (0.001, "1/250")):
            with self.subTest(seconds=seconds):
                self.assertEqual(demo.nearest_speed(seconds)(speeds), text)

    def test_there_is_none_where_none_is_listed(self):
        self.assertIsNone(demo.nearest_speed(1)(("Bulb",)))


if __name__ == "__main__":
    unittest.main()
