"""The command lumatie, as a process with a virtual camera: what it prints, leaves and ends with."""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import lumatie_host as tether
from support import (
    DEADLINE,
    NIKON_MODULE,
    ON_WINDOWS,
    PYTHON_DIR,
    HostRun,
    decode_output,
    wait_until,
)
from timing import timed, within
from virtual_cameras import CANON_LIBRARY

HOST = pathlib.Path(tether.__file__).resolve().parents[1]
REAL = "LUMATIE_VIRTUAL_"

# Runs the command, and does what bytes from standard input say: "!" interrupts it as the console of
# Windows does, on a thread of its own; the others steer the virtual camera.
STEERED = """
import ctypes, os, runpy, signal, sys, threading

library = sys.argv.pop(1)
# A library that looks at the standard input while it is loaded would wait for the read.
bytes_in = os.dup(0)
os.dup2(os.open(os.devnull, os.O_RDONLY), 0)

def steer():
    camera = ctypes.CDLL(library) if library else None
    while True:
        byte = os.read(bytes_in, 1)
        if byte == b"!":
            signal.raise_signal(signal.SIGINT)
        elif byte == b"p":
            camera.VirtualCameraPressShutter(0)
        elif byte == b"i":
            camera.VirtualCameraPlug(0)
        elif byte == b"o":
            camera.VirtualCameraUnplug(0)
        elif not byte:
            return

threading.Thread(target=steer, daemon=True).start()
sys.argv[0] = "lumatie"
runpy.run_module("lumatie_host.cli", run_name="__main__", alter_sys=True)
"""

LIBRARIES = {"canon": str(CANON_LIBRARY), "nikon": str(NIKON_MODULE)}


class Command:
    """The command, running. `settings` are those of the virtual camera of `maker`."""

    def __init__(self, base, arguments, maker="canon", settings="", steered=False, **options):
        self.log_path = pathlib.Path(base, "camera.log")
        configuration = pathlib.Path(base, "camera.txt")
        configuration.write_text(settings)
        environment = dict(
            os.environ,
            PYTHONPATH=os.pathsep.join((str(HOST), str(PYTHON_DIR))),
            PYTHONIOENCODING="utf-8",
            PYTHONDONTWRITEBYTECODE="1",
            LUMATIE_VIRTUAL_LOG=str(self.log_path),
        )
        environment["LUMATIE_VIRTUAL_" + maker.upper()] = str(configuration)
        program = ["-m", "lumatie_host.cli"]
        if steered:
            program = ["-c", STEERED, LIBRARIES[maker] if steered == "camera" else ""]
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        pipes.update(options)
        self.process = subprocess.Popen(
            [sys.executable, *program, *arguments], env=environment, cwd=base, **pipes
        )

    def lines(self, pattern):
        """Reads standard output up to a line that the pattern is found in; returns the lines."""
        lines = []
        while not lines or not re.search(pattern, lines[-1]):
            line = self.process.stdout.readline().decode().replace(os.linesep, "\n")
            if not line:
                raise AssertionError("no line %r: %r, %r" % (pattern, lines, self.finish()))
            lines.append(line)
        return lines

    def steer(self, byte):
        self.process.stdin.write(byte)
        self.process.stdin.flush()

    def interrupt(self):
        if ON_WINDOWS:
            self.steer(b"!")
        else:
            self.process.send_signal(signal.SIGINT)

    def log(self):
        return self.log_path.read_text(encoding="utf-8") if self.log_path.exists() else ""

    def wait_for_log(self, fragment):
        wait_until(lambda: fragment in self.log(), fragment + " in the log")

    def finish(self, deadline=60.0):
        try:
            written = self.process.communicate(timeout=deadline)
        except subprocess.TimeoutExpired:
            self.process.kill()
            written = self.process.communicate()
            raise AssertionError("the command did not end: %r" % (written,)) from None
        return HostRun(self.process.returncode, *(decode_output(text or b"") for text in written))


class CommandTestCase(unittest.TestCase):
    maker = "canon"

    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-cli-")
        self.addCleanup(base.cleanup)
        self.base = os.path.realpath(base.name)
        self.folder = os.path.join(self.base, "shoot")
        os.mkdir(self.folder)

    def start(self, *arguments, base=None, **options):
        """Starts the command with the virtual camera and the folder."""
        arguments = (*arguments, "--virtual", self.maker, "--folder", self.folder)
        return self.start_bare(*arguments, base=base, **options)

    def start_bare(self, *arguments, base=None, **options):
        command = Command(base or self.base, arguments, self.maker, **options)
        self.addCleanup(self.end, command)
        return command

    @staticmethod
    def end(command):
        if command.process.poll() is None:
            command.process.kill()
        for stream in (command.process.stdin, command.process.stdout, command.process.stderr):
            if stream is not None and not stream.closed:
                stream.close()
        command.process.wait()

    def run_command(self, *arguments, **options):
        return self.start(*arguments, **options).finish()

    def run_bare(self, *arguments, **options):
        return self.start_bare(*arguments, **options).finish()

    def pictures(self, folder=None):
        names = os.listdir(folder or self.folder)
        return sorted(name for name in names if name != ".lumatie")

    def ledger(self):
        path = pathlib.Path(self.folder, ".lumatie", "ledger.jsonl")
        return [json.loads(line) for line in path.read_text(encoding="utf-8").splitlines()]

    def records(self, run):
        """What was printed with --json; each line has to be a record."""
        return [json.loads(line) for line in run.stdout.splitlines()]

    def assert_fails(self, run, status, text, advice):
        self.assertEqual((run.status, run.stderr), (status, "%s\n%s\n" % (text, advice)), run)


class BothMakers:
    ends_with = ""  # the call that ends the camera
    jpeg = ".JPG"

    def test_pictures_are_taken_and_each_event_is_a_line(self):
        run = self.run_command("shoot", "-n", "3", "--name", "{job}_{n:04}", "--job", "spring")
        self.assertEqual(run.status, 0, run)
        names = ["spring_000%d%s" % (number, self.jpeg) for number in (1, 2, 3)]
        self.assertEqual(self.pictures(), names)
        for number, name in enumerate(names, 1):
            self.assertRegex(run.stdout, r"(?m)^\d\d:\d\d:\d\d  shot %d$" % number)
            self.assertRegex(run.stdout, r"(?m)^\d\d:\d\d:\d\d  %s, JPEG, 640 x 480, " % name)
        self.assertRegex(run.stdout, r"\A\d\d:\d\d:\d\d  Virtual ?\w+ is open\n")
        self.assertRegex(run.stdout, r"\n\d\d:\d\d:\d\d  closed\n\Z")

    def test_with_json_the_ledgers_records_are_printed_and_nothing_else(self):
        run = self.run_command("shoot", "-n", "3", "--json")
        self.assertEqual(run.status, 0, run)
        records = self.records(run)
        self.assertEqual(records, self.ledger())
        kinds = [record["kind"] for record in records]
        self.assertEqual(kinds[0], "opened")
        self.assertEqual(kinds[-7:], ["shot", "picture"] * 3 + ["closed"])
        self.assertEqual(set(kinds[1:-7]), {"setting"})

    def test_a_setting_is_changed_and_the_confirmed_text_is_printed(self):
        run = self.run_command("set", "shutter=1/250", "iso=800", "--quiet", "--json")
        self.assertEqual((run.status, run.stderr), (0, ""), run)
        told = {r["name"]: r["text"] for r in self.records(run) if r["kind"] == "setting"}
        self.assertEqual((told["shutter"], told["iso"]), ("1/250", "800"))
        run = self.run_command("set", "shutter=1/60", "iso=200")
        self.assertEqual((run.status, run.stdout), (0, "shutter 1/60\niso 200\n"), run)

    def test_a_bracket_has_the_exposures_that_were_asked_for(self):
        values = ["1/500", "1/125", "1/30"]
        run = self.run_command("bracket", "shutter", "--json", *values)
        self.assertEqual(run.status, 0, run)
        pictures = [record for record in self.records(run) if record["kind"] == "picture"]
        self.assertEqual([picture["settings"]["shutter"] for picture in pictures], values)
        told = [r["text"] for r in self.records(run) if r.get("name") == "shutter"]
        self.assertEqual(told[0], told[-1])

    def test_a_bracket_without_values_goes_around_the_present_one(self):
        run = self.run_command("bracket", "--frames", "3", "--steps", "6", "--json")
        self.assertEqual(run.status, 0, run)
        pictures = [record for record in self.records(run) if record["kind"] == "picture"]
        texts = [picture["settings"]["shutter"] for picture in pictures]
        self.assertEqual(texts, ["1/30", "1/125", "1/500"])

    def test_pictures_released_at_the_body_are_taken_until_ctrl_c(self):
        command = self.start("watch", steered="camera")
        command.lines(" is open$")
        for _ in range(2):
            command.steer(b"p")
            (*_, line) = command.lines("JPEG, ")
            self.assertRegex(line, "released at the camera$")
        command.steer(b"!")
        run = command.finish()
        self.assertEqual(run.status, 130, run)
        self.assertRegex(run.stderr, r"Interrupted\.\n\Z")
        self.assertEqual(len(self.pictures()), 2)
        self.assertIn(self.ends_with, command.log())

    def test_raw_and_jpeg_of_the_last_picture_are_waited_for(self):
        for pair in ((), ("--pair",)):
            with self.subTest(pair=pair):
                settings = self.raw_and_jpeg + "transfer.rate = 1"
                run = self.run_command("shoot", "--json", *pair, settings=settings)
                self.assertEqual(run.status, 0, run)
                pictures = [r for r in self.records(run) if r["kind"] == "picture"]
                self.assertEqual({picture["format"] for picture in pictures}, {"RAW", "JPEG"})
                self.assertEqual({picture["shot"] for picture in pictures}, {1})

    def test_ctrl_c_in_a_shoot_closes_the_camera_and_says_what_is_left(self):
        settings = "picture.size = 3000000\ntransfer.rate = 1"
        command = self.start("shoot", "-n", "50", settings=settings, steered=ON_WINDOWS)
        command.lines(" shot 1$")
        command.wait_for_log(self.transfer_begins)
        begun = time.monotonic()
        command.interrupt()
        run = command.finish()
        self.assertLess(time.monotonic() - begun, DEADLINE)
        self.assertEqual(run.status, 130, run)
        # The camera library's own lines come behind it, when it ends with the program.
        self.assertIn("\nInterrupted.\n", run.stderr)
        if len(self.pictures()) == 0:  # else it came at the last moment
            self.assertIn(
                "0 of 50 pictures were taken.\n"
                "1 picture is not fetched: look at the camera's card.\n"
                "Interrupted.\n",
                run.stderr,
            )
        self.assertIn(self.ends_with, command.log())
        self.assertNotIn("MISUSE", command.log())
        self.assertEqual(self.ledger()[-1]["kind"], "closed")

    def test_ctrl_c_while_the_camera_is_opened_closes_it(self):
        command = self.start("shoot", settings=self.slow_start, steered=ON_WINDOWS)
        command.wait_for_log(self.start_begins)
        command.interrupt()
        run = command.finish()
        self.assertEqual((run.status, run.stdout), (130, ""), run)
        self.assertRegex(run.stderr, r"Interrupted\.\n")
        self.assertNotIn("Traceback", run.stderr)
        self.assertIn(self.ends_with, command.log())

    def test_two_sessions_share_a_folder(self):
        commands = []
        for name in ("a", "b"):
            base = os.path.join(self.base, name)
            os.mkdir(base)
            arguments = ("shoot", "-n", "5", "--json", "--name", "{total:03}")
            commands.append(self.start(*arguments, base=base))
        runs = [command.finish() for command in commands]
        self.assertEqual([run.status for run in runs], [0, 0], runs)
        self.assertEqual(self.pictures(), ["%03d%s" % (n, self.jpeg) for n in range(1, 11)])
        ledger = {record["n"]: record for record in self.ledger()}
        for run in runs:
            records = self.records(run)
            self.assertEqual([r["n"] for r in records], sorted({r["n"] for r in records}))
            self.assertEqual([ledger[r["n"]] for r in records], records)
            self.assertEqual(len([r for r in records if r["kind"] == "picture"]), 5)
            self.assertEqual(len({r["session"] for r in records if "session" in r}), 1)
        self.assertEqual(tether.verify(self.folder), [])

    def test_a_session_that_begins_while_another_one_shoots_does_not_wait_for_its_pictures(self):
        base = os.path.join(self.base, "other")
        os.mkdir(base)
        other = self.start("shoot", "-n", "1000", "--json", base=base, steered=ON_WINDOWS)
        other.lines('"kind":"picture"')
        reader = threading.Thread(target=other.process.stdout.read)
        reader.start()
        for _ in range(3):
            run = self.run_command("shoot", "--json")
            self.assertEqual(run.status, 0, run)
            kinds = [record["kind"] for record in self.records(run) if record["kind"] != "setting"]
            self.assertEqual(kinds, ["opened", "shot", "picture", "closed"])
        other.process.kill()
        reader.join(DEADLINE)

    def test_a_camera_that_is_not_there_is_no_camera(self):
        run = self.run_command("shoot", "--quiet", settings="camera.plugged = 0")
        self.assert_fails(
            run,
            3,
            'no camera "%s" was found' % self.camera_name,
            "Switch the camera on, check its cable, and close other programs that use it.",
        )

    def test_what_only_the_camera_can_set_cannot_be_set(self):
        run = self.run_command("set", "mode=M", "--quiet")
        advice = "Set it on the camera itself."
        self.assert_fails(run, 6, "the camera's mode cannot be set from here", advice)

    def test_a_camera_that_chooses_a_setting_itself_is_told(self):
        run = self.run_command("set", "shutter=1/60", "--quiet", settings="camera.mode = 0")
        text = "the camera chooses its shutter itself in mode " + self.mode
        self.assert_fails(run, 6, text, "Turn the camera's mode dial to M.")


class CanonTest(BothMakers, CommandTestCase):
    ends_with = "EdsTerminateSDK() = 0x0"
    camera_name = "Virtual EOS"
    mode = "P"
    raw_and_jpeg = "value.0x100 = 0x00640013\n"
    transfer_begins = "EdsSetProgressCallback"
    slow_start = "fault = EdsOpenSession code=0x80 calls=0"
    start_begins = "EdsOpenSession"

    def test_a_value_that_the_camera_does_not_have_is_refused(self):
        run = self.run_command("set", "shutter=1/66", "--quiet")
        self.assert_fails(
            run,
            6,
            "the camera does not take 1/66 for its shutter",
            "Choose one of: 30, 25, 20, 15, ..., 1/4000, 1/5000, 1/6400, 1/8000.",
        )

    def test_a_choice_can_be_named_by_its_key(self):
        run = self.run_command("set", "white_balance=key:9", "color-temperature=5600")
        self.assertEqual(run.status, 0, run)
        self.assertEqual(
            run.stdout, "white balance Color temperature\ncolor temperature 5600\n", run
        )

    def test_a_picture_that_does_not_come_is_no_answer(self):
        settings = "event = 0x208 lose calls=0"
        run = self.run_command("shoot", "--quiet", "--timeout", "5", settings=settings)
        self.assert_fails(
            run,
            7,
            "the camera did not take a picture within 5.016 seconds",
            "Wake the camera, wait until it is ready, and try again.",
        )

    def test_the_failing_one_of_several_pictures_is_named(self):
        settings = "event = 0x208 lose skip=2 calls=0"
        arguments = ("shoot", "-n", "5", "--quiet", "--timeout", "5")
        run = self.run_command(*arguments, settings=settings)
        self.assert_fails(
            run,
            7,
            "frame 3 failed: the camera did not take a picture within 5.016 seconds",
            "Wake the camera, wait until it is ready, and try again.",
        )
        self.assertEqual(len(self.pictures()), 2)

    def test_a_camera_that_does_not_tell_its_settings_is_no_answer(self):
        run = self.run_command("shoot", "--quiet", "--timeout", "0.5", settings=self.slow_start)
        self.assert_fails(
            run,
            7,
            "the camera did not tell its settings within 0.5 seconds",
            "Wake the camera, wait until it is ready, and try again.",
        )

    def test_a_picture_that_cannot_be_written_is_lost(self):
        settings = "transfer.disk_full_after = 1000"
        run = self.run_command("shoot", "--quiet", settings=settings)
        self.assert_fails(
            run,
            9,
            "a picture could not be written: the camera's picture did not reach " + self.folder,
            "Make room on the disk, or choose another folder, before the next shot.",
        )

    def test_pictures_follow_each_other_at_the_interval(self):
        begun = time.monotonic()
        run = self.run_command("shoot", "-n", "3", "--every", "0.7", "--json")
        self.assertGreater(time.monotonic() - begun, 1.4)
        shots = [tether.events.time_of(r["time"]) for r in self.records(run) if r["kind"] == "shot"]
        for first, second in zip(shots, shots[1:]):
            self.assertAlmostEqual((second - first).total_seconds(), 0.7, delta=0.3)

    def test_a_camera_is_opened_by_its_name_with_a_library_that_is_named(self):
        run = self.run_bare(
            "shoot",
            "--camera",
            "Mine",
            "--canon-library",
            str(CANON_LIBRARY),
            "--folder",
            self.folder,
            settings="camera.name = Mine",
        )
        self.assertEqual((run.status, len(self.pictures())), (0, 1), run)

    def test_a_library_that_is_named_is_used_in_place_of_the_virtual_cameras_own(self):
        missing = os.path.join(self.base, "EDSDK.dll")
        run = self.run_command("shoot", "--canon-library", missing)
        self.assertEqual(run.status, 4, run)
        self.assertIn(missing, run.stderr)
        run = self.run_command("check", "--canon-library", missing)
        self.assertIn(missing, run.stdout)
        run = self.run_command("shoot", "--canon-library", str(CANON_LIBRARY))
        self.assertEqual((run.status, len(self.pictures())), (0, 1), run)

    def test_without_a_folder_one_of_todays_date_is_made_and_told(self):
        run = self.run_bare("shoot", "--virtual", "canon")
        self.assertEqual(run.status, 0, run)
        folder = re.search(r"(?m)^Pictures go into (.*)$", run.stderr).group(1)
        self.assertEqual(os.path.dirname(folder), self.base)
        self.assertRegex(os.path.basename(folder), r"^lumatie-\d{4}-\d\d-\d\d$")
        self.assertEqual(len(self.pictures(folder)), 1)

    def test_a_second_copy_is_waited_for(self):
        copies = os.path.join(self.base, "copies")
        run = self.run_command("shoot", "-n", "3", "--copy", copies, "--json")
        self.assertEqual(run.status, 0, run)
        kinds = [record["kind"] for record in self.records(run)]
        self.assertEqual(kinds.count("copied"), 3)
        self.assertEqual(self.pictures(copies), self.pictures())

    def test_what_is_not_copied_yet_is_said_after_ctrl_c(self):
        copies = os.path.join(self.base, "copies")
        command = self.start("watch", "--copy", copies, steered="camera")
        command.lines(" is open$")
        command.steer(b"p")
        command.lines(" is copied to ")
        shutil.rmtree(copies)
        pathlib.Path(copies).touch()
        command.steer(b"p")
        command.lines("ALARM: no second copy of ")
        command.steer(b"!")
        run = command.finish()
        self.assertEqual(run.status, 130, run)
        said = run.stderr.splitlines()
        self.assertEqual(
            said[-2:], ["1 picture has no second copy in %s." % copies, "Interrupted."]
        )

    def test_a_copy_that_cannot_be_made_is_a_loss(self):
        copies = os.path.join(self.base, "copies")
        settings = "picture.size = 2000000\ntransfer.rate = 2"
        arguments = ("shoot", "-n", "2", "--copy", copies, "--timeout", "3")
        command = self.start(*arguments, settings=settings)
        command.lines(" is copied to ")
        shutil.rmtree(copies)
        pathlib.Path(copies).touch()
        run = command.finish()
        self.assertEqual(run.status, 9, run)
        self.assertEqual(run.stderr, "1 picture has no second copy in %s.\n" % copies)

    def test_everything_the_camera_tells_is_printed_until_ctrl_c(self):
        command = self.start("events", "--json", steered="camera")
        command.lines('"kind":"opened"')
        command.steer(b"p")
        command.lines('"kind":"picture"')
        command.steer(b"!")
        run = command.finish()
        self.assertEqual(run.status, 130, run)
        self.assertEqual(json.loads(run.stdout.splitlines()[-1])["kind"], "closed")

    @unittest.skipIf(ON_WINDOWS, "Windows has no such signal for a process")
    def test_a_request_to_terminate_ends_it_as_ctrl_c_does(self):
        command = self.start("watch")
        command.lines(" is open$")
        command.process.terminate()
        run = command.finish()
        self.assertEqual(run.status, 130, run)
        self.assertIn(self.ends_with, command.log())

    @timed
    def test_a_second_ctrl_c_ends_it_at_once(self):
        settings = "fault = EdsTerminateSDK hang"
        command = self.start("watch", settings=settings, steered=True)
        command.lines(" is open$")
        command.steer(b"!")
        command.wait_for_log("EdsCloseSession")
        with within(2):
            command.steer(b"!")
            self.assertEqual(command.process.wait(DEADLINE), 130)

    def test_a_reader_that_goes_ends_it_quietly(self):
        command = self.start("shoot", "-n", "100", "--json")
        command.lines('"kind":"shot"')
        command.process.stdout.close()
        command.process.stdout = None
        _, told = command.process.communicate(timeout=DEADLINE)
        self.assertEqual((command.process.returncode, told), (130, b""))
        self.assertLess(len(self.pictures()), 100)
        self.assertIn(self.ends_with, command.log())

    def test_a_reader_that_stands_still_does_not_hold_up_ctrl_c(self):
        command = self.start("shoot", "-n", "1000", "--json", steered=ON_WINDOWS)
        # A pipe takes 64 kB.
        wait_until(lambda: len(self.pictures()) > 150, "pictures beyond what a pipe holds", 60)
        command.interrupt()
        self.assertEqual(command.process.wait(DEADLINE), 130)
        self.assertIn(self.ends_with, command.log())

    def test_a_slow_reader_gets_all_records(self):
        command = self.start("shoot", "-n", "200", "--json")
        wait_until(lambda: "EdsTerminateSDK" in command.log(), "the camera's end", 180)
        run = command.finish()
        self.assertEqual((run.status, self.records(run)), (0, self.ledger()))

    def test_options_stand_before_the_word_or_behind_it(self):
        common = ["--virtual", "canon", "--folder", self.folder, "--json", "--timeout=20"]
        own = ["-n", "2", "--pair"]
        for arguments in (
            [*common, "shoot", *own],
            ["shoot", *common, *own],
            ["shoot", *own, *common],
            [*own, *common, "shoot"],
            [*common[:2], "shoot", *own, *common[2:]],
        ):
            with self.subTest(arguments=arguments):
                run = self.run_bare(*arguments)
                self.assertEqual(run.status, 0, run)
                kinds = [record["kind"] for record in self.records(run)]
                self.assertEqual(kinds.count("picture"), 2)

    def test_a_camera_that_goes_without_a_word_gives_no_answer(self):
        settings = "fault = EdsSendCommand unplug skip=2"
        arguments = ("shoot", "-n", "4", "--timeout", "5", "--quiet")
        run = self.run_command(*arguments, settings=settings)
        self.assert_fails(
            run,
            7,
            "frame 2 failed: the camera did not take a picture within 5.016 seconds",
            "Wake the camera, wait until it is ready, and try again.",
        )


class NikonTest(BothMakers, CommandTestCase):
    maker = "nikon"
    ends_with = "Close(module#0, 0x0) = 0"
    camera_name = "VirtualNikon"
    mode = "Program"
    jpeg = ".jpg"
    raw_and_jpeg = "value.0x8110 = 6\n"
    transfer_begins = "CapStart(data#1, 0x14)"
    slow_start = "fault = GetCapInfo delay_ms=500"
    start_begins = "GetCapCount(module#0"

    def test_a_driver_module_that_is_named_is_used_in_place_of_the_virtual_cameras_own(self):
        missing = os.path.join(self.base, "Other.md3")
        run = self.run_command("shoot", "--module", missing)
        self.assertEqual(run.status, 4, run)
        self.assertIn(missing, run.stderr)
        run = self.run_command("shoot", "--module", str(NIKON_MODULE))
        self.assertEqual((run.status, len(self.pictures())), (0, 1), run)

    def test_the_modules_own_lines_go_to_standard_error(self):
        run = self.run_command("shoot")
        self.assertEqual(run.status, 0, run)
        self.assertIn("Source object is opened.", run.stderr)
        self.assertRegex(run.stdout, r"\A(\d\d:\d\d:\d\d  .*\n)+\Z")

    def test_quiet_keeps_the_modules_lines_away(self):
        run = self.run_command("shoot", "--quiet")
        self.assertEqual(run, (0, "", ""))

    def test_a_camera_that_goes_and_does_not_come_back_in_time_is_lost(self):
        arguments = ("shoot", "-n", "3", "--every", "8", "--timeout", "3")
        command = self.start(*arguments, steered="camera")
        command.lines("JPEG, ")
        command.steer(b"o")
        run = command.finish()
        self.assertEqual((run.status, len(self.pictures())), (8, 1), run)
        text, advice = run.stderr.splitlines()[-2:]
        self.assertRegex(text, r"^the camera has been gone for \d+ seconds: .+")
        self.assertEqual(
            advice,
            "Check the cable, the battery and the power switch; the session goes on by itself.",
        )

    def test_a_camera_that_comes_back_goes_on_and_the_lost_frame_is_told(self):
        settings = "fault = CapStart capability=17 unplug skip=1"
        command = self.start("shoot", "-n", "4", settings=settings, steered="camera")
        command.lines(" the camera is gone: ")
        command.steer(b"i")
        run = command.finish()
        self.assertIn("the camera is back after", run.stdout)
        self.assertIn("Picture 2 was lost with the camera.\n", run.stderr)
        self.assertEqual((run.status, len(self.pictures())), (9, 3), run)

    def test_a_camera_that_watch_waits_for_in_vain_is_lost(self):
        command = self.start("watch", "--timeout", "3", steered="camera")
        command.lines(" is open$")
        command.steer(b"o")
        run = command.finish()
        self.assertEqual(run.status, 8, run)
        self.assertRegex(run.stderr, r"\nthe camera has been gone for \d+ seconds: .+\nCheck the ")


class WrongUseTest(CommandTestCase):
    def assert_wrong(self, usage, complaint, *arguments):
        run = self.run_bare(*arguments)
        lines = run.stderr.splitlines()
        self.assertEqual((run.status, run.stdout), (2, ""), run)
        self.assertTrue(lines[0].startswith("usage: lumatie " + usage), run)
        self.assertIn(complaint, lines[-1], run)
        self.assertFalse(os.path.exists(os.path.join(self.base, "camera.log")), run)

    def test_values_that_make_no_sense_are_told_with_the_usage(self):
        camera = ("--virtual", "canon")
        for word, complaint, arguments in (
            ("shoot", "argument -n: 0 is not from 1 to 100000", ("-n", "0")),
            ("shoot", "argument -n: invalid", ("-n", "x")),
            ("shoot", "argument --every: -1 is no time in seconds", ("--every", "-1")),
            ("shoot", "argument --every: nan is no time in seconds", ("--every", "nan")),
            ("shoot", "argument --timeout: 0 is no time in seconds", ("--timeout", "0")),
            ("shoot", "--folder is empty", ("--folder", "")),
            ("shoot", "unrecognized arguments: --evry 3", ("--evry", "3")),
            ("shoot", "invalid choice: 'sony'", ("--virtual", "sony")),
            ("shoot", "--module is a Nikon camera", ("--module", "x.md3")),
            ("shoot", "--module is a Nikon camera", ("--module", "x.md3", "--camera", "EOS")),
            ("set", "argument SETTING=VALUE: foo is not like shutter=1/250", ("foo",)),
            ("set", "there is no setting foo; there are mode, shutter,", ("foo=1",)),
            ("set", "shutter=key:x is not like shutter=key:120", ("shutter=key:x",)),
            ("set", "arguments are required", ()),
            ("bracket", "argument --frames: 4 is no odd number", ("--frames", "4")),
            ("bracket", "for a bracket without values", ("iso", "100", "--frames", "3")),
            ("ledger", "invalid choice: 'burn'", ("burn",)),
            ("ledger", "the folder is named twice", ("show", "a", "--folder", "b")),
        ):
            with self.subTest(word=word, arguments=arguments):
                self.assert_wrong(word, complaint, word, *camera, *arguments)

    def test_a_missing_or_unknown_word_is_told_with_those_there_are(self):
        words = (
            "list, info, check, shoot, bracket, watch, set, events, serve, station, studio, ledger"
        )
        self.assert_wrong("COMMAND", "a command is missing: " + words)
        self.assert_wrong("COMMAND", "there is no command fly; there are " + words, "fly")

    def test_without_a_camera_it_is_said_how_one_is_chosen(self):
        for word in ("shoot", "bracket", "watch", "events"):
            with self.subTest(word=word):
                run = self.run_bare(word)
                self.assert_fails(
                    run,
                    2,
                    "no camera was chosen",
                    "Add --camera NAME for a Canon camera, --module PATH for a Nikon camera, "
                    "or --virtual canon or nikon.",
                )

    def test_help_has_examples_and_exit_statuses(self):
        for arguments in (("--help",), ("shoot", "--help"), ("--json", "set", "-h")):
            with self.subTest(arguments=arguments):
                run = self.run_bare(*arguments)
                self.assertEqual((run.status, run.stderr), (0, ""))
                self.assertIn("examples:\n  lumatie ", run.stdout)
                self.assertIn("130 interrupted", run.stdout)


class UnfitTest(CommandTestCase):
    """Errors that need no camera."""

    def run_with(self, *arguments):
        return self.run_bare("shoot", "--quiet", "--folder", self.folder, *arguments)

    def test_a_driver_module_that_is_not_there_is_told(self):
        path = os.path.join(self.base, "Camera.md3")
        run = self.run_with("--module", path)
        self.assertEqual(run.status, 4, run)
        text, advice = run.stderr.splitlines()
        self.assertTrue(text.startswith("the camera library %s cannot be loaded: " % path), run)
        self.assertEqual(advice, "Install the maker's library, or name its place.")

    def test_a_library_for_32_bit_programs_is_told(self):
        name = "EDSDK.dll" if ON_WINDOWS else "libEDSDK.so"
        path = os.path.join(self.base, name)
        if ON_WINDOWS:
            head = b"MZ".ljust(60, b"\0") + (128).to_bytes(4, "little")
            data = head.ljust(128, b"\0") + b"PE\0\0" + b"\0" * 20 + b"\x0b\x01" + b"\0" * 64
        else:
            data = b"\x7fELF\x01\x01\x01" + b"\0" * 57
        pathlib.Path(path).write_bytes(data)
        run = self.run_with("--camera", "EOS", "--canon-library", path)
        self.assert_fails(
            run,
            4,
            "the camera library %s is for 32-bit programs, and this one has 64 bits" % path,
            "Install the maker's 64-bit library.",
        )

    def test_a_folder_that_is_not_there_is_rejected(self):
        missing = os.path.join(self.base, "missing")
        run = self.run_bare("shoot", "--quiet", "--virtual", "canon", "--folder", missing)
        self.assert_fails(
            run,
            5,
            "pictures cannot go into %s: there is no such folder" % missing,
            "Choose a folder on this computer that you may write to, with a short path.",
        )

    def test_a_name_that_no_file_can_have_is_rejected(self):
        run = self.run_with("--virtual", "canon", "--name", "{nonsense}")
        self.assertEqual(run.status, 5, run)
        text, advice = run.stderr.splitlines()
        self.assertRegex(text, "^the file name {nonsense} cannot be used: ")
        self.assertEqual(advice, "Change the template of the names.")

    def test_what_can_be_opened_is_listed(self):
        run = self.run_bare("list")
        self.assertEqual(run.status, 0, run)
        self.assertRegex(run.stdout, r"(?m)^Virtual EOS +--virtual canon +.* \(64 bits\)$")
        self.assertRegex(run.stdout, r"(?m)^VirtualNikon +--virtual nikon +.* \(64 bits\)$")
        records = self.records(self.run_bare("list", "--json"))
        self.assertEqual(
            [record["option"] for record in records[:2]], ["--virtual canon", "--virtual nikon"]
        )

    def test_versions_libraries_and_folders_are_told(self):
        run = self.run_bare("info", "--folder", self.folder, "--module", str(NIKON_MODULE))
        self.assertEqual((run.status, run.stderr), (0, ""), run)
        for name in ("package", "module", "python", "system", "canon library", "nikon module"):
            self.assertRegex(run.stdout, "(?m)^%s +.+$" % name)
        self.assertIn(self.folder + ", can be written", run.stdout)
        self.assertIn("LUMATIE_HOST_LOG", run.stdout)


class LedgerTest(CommandTestCase):
    def setUp(self):
        super().setUp()
        self.assertEqual(self.run_command("shoot", "-n", "2", "--name", "{n}").status, 0)

    def test_the_record_is_shown_as_words_and_as_it_is(self):
        run = self.run_bare("ledger", "show", self.folder)
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertRegex(run.stdout, r"(?m)^ +\d+  \d\d:\d\d:\d\d  1\.JPG, JPEG, 640 x 480, ")
        run = self.run_bare("ledger", "--folder", self.folder, "show", "--json")
        self.assertEqual(self.records(run), self.ledger())

    def test_records_that_say_nothing_and_a_torn_end_are_shown(self):
        fields = '"sha256":"00","shot":1,"origin":"host","format":"JPEG"'
        head = '{"v":1,"n":%d,"time":"2026-11-22T05:40:48.123Z","kind":"picture",'
        path = pathlib.Path(self.folder, ".lumatie", "ledger.jsonl")
        with path.open("a") as file:
            file.write(head % 100 + '"file":"a.JPG","size":"x",%s}\n' % fields)
            file.write(head % 101 + '"file":["a.JPG"],"size":1,%s}\n' % fields)
            file.write(head % 102)
        run = self.run_bare("ledger", "show", self.folder)
        self.assertEqual(run.status, 0, run)
        line = "2026-11-22T05:40:48.123Z  picture"
        self.assertEqual(run.stdout.splitlines()[-2:], [line, line])
        self.assertEqual(run.stderr, "the last line is torn\n")
        run = self.run_command("shoot", "--name", "{n}", "--copy", self.folder + "-2")
        self.assertEqual((run.status, len(self.pictures(self.folder + "-2"))), (0, 3), run)

    def test_a_folder_that_is_only_read_is_not_written_to(self):
        inner = pathlib.Path(self.folder, ".lumatie")
        (inner / "lock").unlink()
        before = sorted(os.listdir(str(inner)))
        for action in ("show", "verify"):
            self.assertEqual(self.run_bare("ledger", action, self.folder).status, 0)
        self.assertEqual(sorted(os.listdir(str(inner))), before)

    def test_a_folder_that_is_as_recorded_is_verified(self):
        run = self.run_bare("ledger", "verify", self.folder)
        self.assertEqual((run.status, run.stdout), (0, ""), run)

    def test_a_changed_and_a_missing_picture_are_found(self):
        os.remove(os.path.join(self.folder, "1.JPG"))
        with open(os.path.join(self.folder, "2.JPG"), "ab") as file:
            file.write(b"x")
        run = self.run_bare("ledger", "verify", self.folder, "--json")
        self.assertEqual(run.status, 9, run)
        found = {record["file"]: record["what"] for record in self.records(run)}
        self.assertEqual(found, {"1.JPG": "missing", "2.JPG": "changed"})

    def test_a_folder_without_a_record_is_rejected(self):
        run = self.run_bare("ledger", "show", self.base)
        self.assertEqual(run.status, 5, run)
        self.assertIn("there is no record of a shoot in it", run.stderr)
        self.assertFalse(os.path.exists(os.path.join(self.base, ".lumatie")))

    def test_a_reader_that_takes_one_line_ends_it_quietly(self):
        command = self.start_bare("ledger", "show", self.folder, "--json")
        command.process.stdout.close()
        command.process.stdout = None
        _, told = command.process.communicate(timeout=DEADLINE)
        self.assertEqual(told, b"")


@unittest.skipIf(ON_WINDOWS, "Windows has no terminals for a program to make")
class ProgressTest(CommandTestCase):
    def test_a_terminal_gets_a_progress_line_and_a_file_none(self):
        import pty

        terminal, other = pty.openpty()
        command = self.start("shoot", "-n", "3", "--json", stderr=other)
        os.close(other)
        shown = []
        reader = threading.Thread(target=self.read_all, args=(terminal, shown))
        reader.start()
        run = command.finish()
        reader.join(DEADLINE)
        os.close(terminal)
        self.assertEqual((run.status, self.records(run)), (0, self.ledger()))
        self.assertRegex(b"".join(shown), rb"2 of 3, \d+ a minute, 0:0\d left")
        self.assertNotIn(" of 3", self.run_command("shoot", "-n", "3").stderr)

    @staticmethod
    def read_all(terminal, shown):
        while True:
            try:
                part = os.read(terminal, 1000)
            except OSError:  # the other end is closed
                return
            if not part:
                return
            shown.append(part)


if __name__ == "__main__":
    unittest.main()
