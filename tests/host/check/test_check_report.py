"""The parts of the check that need no camera: files of libraries, codes, what is sent away."""

import functools
import io
import itertools
import json
import os
import pathlib
import platform
import struct
import subprocess
import tempfile
import threading
import unittest
from unittest import mock

import canon_tables
from lumatie_host import protocol
from lumatie_host.check import (
    binary,
    children,
    ends,
    heard,
    known,
    pace,
    records,
    report,
    shooting,
    through,
)
from lumatie_host.check.points import NO, POINTS, UNSEEN, YES
from lumatie_host.check.teller import Crashed, No, Stopped, Teller, Unseen, answered
from lumatie_host.libraries import CANON_FUNCTIONS, NIKON_ENTRY
from lumatie_host.settings import Choice
from support import NIKON_MODULE, ON_WINDOWS
from virtual_cameras import CANON_LIBRARY


def pe_library(bits=64):
    """The smallest library of Windows that has what is read: an export, an import, a version."""
    head = bytearray(0x200)
    head[:2] = b"MZ"
    struct.pack_into("<I", head, 60, 0x40)
    head[0x40:0x44] = b"PE\0\0"
    machine, magic, tables = (0x8664, 0x20B, 112) if bits == 64 else (0x14C, 0x10B, 96)
    struct.pack_into("<HHIIIHH", head, 0x44, machine, 1, 0, 0, 0, tables + 128, 0x2000)
    struct.pack_into("<H", head, 0x58, magic)
    struct.pack_into("<I", head, 0x58 + tables - 4, 16)
    for index, (address, length) in enumerate(((0x1000, 40), (0x1100, 40), (0x1200, 0x100))):
        struct.pack_into("<II", head, 0x58 + tables + 8 * index, address, length)
    section = 0x58 + tables + 128
    struct.pack_into("<IIII", head, section + 8, 0x400, 0x1000, 0x400, 0x200)
    body = bytearray(0x400)
    struct.pack_into("<I", body, 24, 1)
    struct.pack_into("<I", body, 32, 0x1040)
    struct.pack_into("<I", body, 0x40, 0x1050)
    body[0x50:0x5F] = b"MAIDEntryPoint\0"
    struct.pack_into("<I", body, 0x100 + 12, 0x1180)
    body[0x180:0x18D] = b"missing.dll\0\0"
    for at, key, place in ((0x200, 16, 0x80000020), (0x220, 1, 0x80000040), (0x240, 9, 0x60)):
        struct.pack_into("<HHII", body, at + 12, 0, 1, key, place)
    version = b"\xbd\x04\xef\xfe" + struct.pack("<III", 0x10000, 0x30011, 0x5000A)
    texts = "FileVersion\0".encode("utf-16-le") + b"\0\0" + "3.17\0".encode("utf-16-le")
    struct.pack_into("<II", body, 0x260, 0x1280, len(version + texts))
    body[0x280 : 0x280 + len(version + texts)] = version + texts
    return bytes(head + body)


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name, "library")

    def _read(self, data):
        self.path.write_bytes(data)
        return binary.read(str(self.path))

    def test_what_the_virtual_libraries_are_and_have_is_read(self):
        for path, names in ((CANON_LIBRARY, CANON_FUNCTIONS), (NIKON_MODULE, (NIKON_ENTRY,))):
            with self.subTest(path=path):
                library = binary.read(str(path))
                self.assertEqual(library.kind, "PE" if ON_WINDOWS else "ELF")
                self.assertEqual((library.bits, library.machine), (64, "x86-64"))
                self.assertEqual(set(names) - set(library.exports), set())
                self.assertIn("msvcrt.dll" if ON_WINDOWS else "libc.so.6", library.needs)
                # On Linux a driver module of ours says nothing: only its bytes tell it apart.
                self.assertEqual(bool(library.versions), ON_WINDOWS or path == CANON_LIBRARY)

    def test_a_library_of_windows_tells_its_functions_needs_and_versions(self):
        for bits, machine in ((64, "x86-64"), (32, "i386")):
            with self.subTest(bits=bits):
                library = self._read(pe_library(bits))
                self.assertEqual((library.bits, library.machine), (bits, machine))
                self.assertEqual(library.exports, ("MAIDEntryPoint",))
                self.assertEqual(library.needs, ("missing.dll",))
                self.assertEqual(
                    library.versions, {"file version": "3.17.5.10", "FileVersion": "3.17"}
                )

    def test_a_library_that_is_cut_off_anywhere_or_damaged_is_refused_or_read_but_never_crashes(
        self,
    ):
        elf = CANON_LIBRARY.read_bytes()[:4096]
        refused = 0
        for data in (elf, pe_library()):
            for length in list(range(0, 0x300, 7)) + [len(data) - 1]:
                try:
                    self._read(data[:length])
                except binary.NoLibrary:
                    refused += 1
            # Under Wine it takes ten times as long to write a file and read it.
            for at in range(0, min(len(data), 0x400), 9 if ON_WINDOWS else 1):
                try:
                    self._read(data[:at] + b"\xff" + data[at + 1 :])
                except binary.NoLibrary:
                    refused += 1
        self.assertGreater(refused, 50)

    def test_what_is_no_library_is_refused_with_the_reason(self):
        for data, why in (
            (b"", "empty"),
            (b"hello", "no library"),
            (b"\x7fELF\x02\x01" + bytes(100), "no shared library"),
        ):
            with self.subTest(why=why), self.assertRaisesRegex(binary.NoLibrary, why):
                self._read(data)
        with self.assertRaisesRegex(binary.NoLibrary, "no file"):
            binary.read(os.path.dirname(str(self.path)))


class Codes(unittest.TestCase):
    def test_the_codes_that_have_a_text_are_those_of_the_module(self):
        for name, table in (
            ("MODES", canon_tables.EXPOSURE_MODES),
            ("SHUTTER_SPEEDS", canon_tables.SHUTTER_SPEEDS),
            ("APERTURES", canon_tables.APERTURES),
            ("ISO", canon_tables.ISO_SPEEDS),
            ("WHITE_BALANCES", canon_tables.WHITE_BALANCES),
            ("QUALITIES", canon_tables.IMAGE_QUALITIES),
        ):
            with self.subTest(table=name):
                self.assertEqual(getattr(known, name), set(table) - {0xFFFFFFFF})


class Watching(unittest.TestCase):
    def test_bytes_behind_a_record_are_counted_whatever_they_are(self):
        for byte in (0x00, 0x5C, 0xC3, 0xFF):
            with self.subTest(byte=byte):
                overruns = records.Overruns()

                def fill(memory, byte=byte):
                    memory[10] = byte
                    return 0

                overruns.fill("a record", 8, fill)
                self.assertEqual(overruns.findings, ["a record: 3 bytes"])

    def test_a_record_that_is_filled_to_its_end_is_none_too_many(self):
        overruns = records.Overruns()

        def fill(memory):
            memory[7] = 1
            return 0

        _, data = overruns.fill("a record", 8, fill)
        self.assertEqual((overruns.findings, data[7]), ([], 1))


class Telling(unittest.TestCase):
    def _lines(self, *questions):
        file = io.StringIO()
        tell = Teller(file)
        for question in questions:
            tell.ask("session.opens", question)
        return [json.loads(line) for line in file.getvalue().splitlines()]

    def test_a_question_is_told_of_before_it_is_asked_and_its_answer_after_it(self):
        def refuse():
            raise No("why", code=7)

        def skip():
            raise Unseen("why not")

        lines = self._lines(lambda: "fine", refuse, skip, lambda: 1 // 0)
        self.assertEqual([line.get("begin") for line in lines[::2]], ["session.opens"] * 4)
        told = [(line["answer"], line["evidence"]) for line in lines[1::2]]
        self.assertEqual(told[:3], [(YES, "fine"), (NO, "why"), (UNSEEN, "why not")])
        self.assertEqual(told[3][0], UNSEEN)
        self.assertIn("ZeroDivisionError", told[3][1])
        self.assertEqual(lines[3]["facts"], {"code": 7})

    def test_a_process_that_does_not_begin_is_ended_and_told(self):
        person = children.Person(print, lambda text, until: None)
        part = children.Part({}, person, lambda: False, starting=0.0)
        self.assertEqual(list(part.run()), [])
        self.assertEqual(part.trouble, "it did not go on in time; its process was ended")

    def test_a_crash_that_windows_made_an_error_is_none_of_the_errors_that_leave_a_point_open(self):
        class OfWindows(OSError):
            """One that has the system's status."""

            def __init__(self, status):
                super().__init__("Windows Error %#x" % (status & 0xFFFFFFFF))
                self.winerror = status

        def raising(error):
            def question():
                raise error

            return question

        for crash in (OSError("exception: access violation"), OfWindows(0xC000001D - 2**32)):
            with self.subTest(crash=crash), self.assertRaises(Crashed):
                answered(raising(crash))
        for error in (OSError("no such file"), OfWindows(2), ValueError("exception: none")):
            with self.subTest(error=error):
                self.assertEqual(answered(raising(error))[0], UNSEEN)

    def test_who_waits_for_a_person_hears_what_was_done(self):
        for line, expected in (("done\n", True), ("not done\n", False)):
            read, write = os.pipe()
            with open(read) as answers, open(write, "w") as person:
                file = io.StringIO()
                tell = Teller(file)
                tell.listen(answers)
                threading.Timer(0.05, lambda: (person.write(line), person.flush())).start()  # noqa: B023
                self.assertEqual(tell.wait_for_person("Pull.", 20), expected)
                self.assertEqual(json.loads(file.getvalue())["ask"], "Pull.")
                person.close()

    def test_nobody_is_waited_for_longer_than_was_said(self):
        tell = Teller(io.StringIO())
        self.assertFalse(tell.wait_for_person("Pull.", 0.05))

    def test_nothing_more_is_asked_when_who_started_it_is_gone(self):
        tell = Teller(io.StringIO())
        tell.listen(io.StringIO(""))
        tell.wait_for_person("Pull.", 20)  # ends with the end of the lines
        with self.assertRaises(Stopped):
            tell.ask("session.opens", lambda: "fine")


class Ending(unittest.TestCase):
    def setUp(self):
        # Other tests have ended the questions of this process.
        for module in (pace, heard):
            self._set(module, go_on=lambda: None)
        self._set(ends.libraries, load_canon=mock.DEFAULT, load_module=mock.DEFAULT)
        self.file = io.StringIO()

    def _set(self, what, **values):
        patch = mock.patch.multiple(what, **values)
        patch.start()
        self.addCleanup(patch.stop)

    def _answer(self, question, module=None):
        """What is told of a point when the module is a stand-in."""
        ends.libraries.load_module.return_value = module
        question(Teller(self.file), heard.Target("canon", "Virtual EOS", None, ""))
        return json.loads(self.file.getvalue().splitlines()[1])

    def test_what_a_camera_told_before_init_returned_is_heard(self):
        self.assertEqual(self._answer(ends.again, Module([]))["answer"], YES)

    def test_init_is_called_over_an_open_session_and_after_one(self):
        calls = []
        self._answer(ends.again, Module(calls))
        self.assertEqual(calls, ["Init", "Init", "Uninit", "Init", "Uninit"])

    def test_an_init_over_an_open_session_may_be_refused_when_the_camera_is_heard_still(self):
        found = self._answer(ends.again, Module([], (1, 0, 1)))
        self.assertEqual(found["answer"], YES)
        self.assertIn("answers 0", found["evidence"])

    def test_a_session_is_ended_when_another_one_does_not_begin(self):
        for answers in ((0,), (1, 1, 0)):
            calls = []
            found = self._answer(ends.again, Module(calls, answers))
            with self.subTest(answers=answers):
                self.assertEqual(found["answer"], NO)
                self.assertEqual(calls[-1], "Uninit")

    def test_a_program_with_an_open_session_that_hangs_is_ended_when_the_check_is(self):
        programs, popen = [], subprocess.Popen

        def begin(arguments, **named):
            programs.append(popen(arguments, **named))
            return programs[0]

        def stop():
            raise Stopped

        self._set(ends, _LEFT_OPEN="import time; time.sleep(600)", _GRACE=0.0)
        self._set(subprocess, Popen=begin)
        self._set(pace, go_on=stop)
        with self.assertRaises(Stopped):
            self._answer(ends.interpreter)
        self.assertIsNotNone(programs[0].returncode)


class Module:
    """Stands in for the module: tells of a camera within Init, and notes in `calls` what is called.

    `answers` are those of Init, one after the other; 1 for ever without.
    """

    def __init__(self, calls, answers=None):
        self._calls = calls
        self._answers = itertools.repeat(1) if answers is None else iter(answers)

    def Lumatie(self):
        return self

    def Init(self, info, folder, receive):
        self._calls.append("Init")
        receive(0, 0, 0)
        return next(self._answers)

    def Uninit(self):
        self._calls.append("Uninit")
        return 1


class Refusing(unittest.TestCase):
    def test_an_impossible_value_that_is_taken_at_once_is_a_no(self):
        """Some clocks do not advance between a request and what was noted before it returned."""
        told = [Choice(1, "100"), Choice(2, "200")]
        settings = mock.Mock(get=lambda name: mock.Mock(text="?", choices=told))
        camera = mock.Mock(settings=settings, wait=lambda is_there, seconds: 0.0)
        session = through.Through(Teller(io.StringIO()), heard.Target("nikon", "", None, ""))
        session._camera, session._change = camera, through._Change("iso", *told)
        with self.assertRaisesRegex(No, "went to . when it was asked for key 3"):
            session._refuse()


class NikonWithCard:
    """Stands in for the module: fetches a picture after each of the first reports."""

    class Lumatie:
        def __init__(self):
            self._is_asked = False
            self._end = threading.Event()

        def Init(self, info, folder, receive):
            self._thread = threading.Thread(target=self._report, args=(receive,), daemon=True)
            self._thread.start()
            return 1

        def _report(self, receive):
            for number in itertools.count():
                receive(protocol.Code.EXPOSUREMODE, "Manual")
                for code in (protocol.Code.SHUTTERSPEED, protocol.Code.APERTURE,
                             protocol.Code.ISO, protocol.Code.WB):  # fmt: skip
                    receive(int(code), 1)
                    receive(code + 1, "{1:'100',2:'200','NIKON_EDITABLE':1,}")
                receive(protocol.Code.IMAGEQUALITY, "JPEG Fine")
                if self._end.wait(0.3):
                    return
                if number < 3 or self._is_asked:
                    name = "new" if self._is_asked else "old"
                    receive(protocol.Code.GENERAL, "{'GENERAL_NEWFILE':r'%s'}" % name)
                self._is_asked = False

        def Shoot(self):
            self._is_asked = True
            return 1

        def Uninit(self):
            self._end.set()
            self._thread.join()
            return 1


class Shots(unittest.TestCase):
    def setUp(self):
        libraries = mock.patch.multiple(
            heard,
            libraries=mock.DEFAULT,
            CameraThread=functools.partial(heard.CameraThread, module=NikonWithCard),
            go_on=lambda: None,  # other tests have ended the questions of this process
        )
        libraries.start()
        self.addCleanup(libraries.stop)
        target = heard.Target("nikon", "", None, "")
        self.shooting = shooting.Shooting(Teller(io.StringIO()), target, "", False)
        self.shooting._hands = None
        self.camera = self.shooting._camera = heard.Camera(target)
        self.addCleanup(self.camera.close)

    def test_a_pair_is_not_asked_for_when_the_session_did_not_open_again(self):
        self.shooting._open()
        self.camera.stop()
        with mock.patch.object(NikonWithCard.Lumatie, "Init", lambda *arguments: 0):
            with self.assertRaises(No):
                self.shooting._open()
            with self.assertRaisesRegex(Unseen, "^see shoot.cable$"):
                self.shooting._pair()

    def test_a_picture_that_was_on_the_card_is_not_taken_for_the_one_that_is_taken(self):
        reports = []
        shoot = self.camera.thread.shoot

        def asked():
            reports.append(self.camera.reports)
            return shoot()

        with mock.patch.object(self.camera.thread, "shoot", asked):
            self.shooting._one()
        self.assertGreater(reports[0], 1)  # the first one is told before the card is fetched
        self.assertEqual([picture.path for picture in self.shooting._pictures], ["new"])


class Sending(unittest.TestCase):
    def _finding(self, evidence, answer=YES, point="session.camera", **facts):
        return report.Finding(POINTS[point], answer, evidence, 0.5, facts)

    def test_the_first_no_decides_the_exit_status(self):
        findings = [
            self._finding("", UNSEEN, "library.found"),
            self._finding("", NO, "setting.refused"),
            self._finding("", NO, "shoot.file"),
        ]
        self.assertEqual(report.status_of(findings), 6)
        self.assertEqual(report.status_of(findings[:1]), 0)
        self.assertEqual(report.summary(findings)["no"], ["setting.refused", "shoot.file"])

    def test_names_and_serial_numbers_are_left_out_of_the_file_that_is_sent(self):
        home = os.path.expanduser("~")
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "report.json")
            evidence = (
                "%s/library on %s, body 0123456789012, lens F2Z8842017, 1/8000 0x0064ff0f, "
                "serial 2034567, 41287733 and 203456, iso 102400, 6000x4000, 12345678 bytes"
                % (
                    home,
                    platform.node(),
                )
            )
            hashed = "ab" * 32
            finding = self._finding(evidence, cameras=["EOS 80D no 41287733612"], sha256=hashed)
            report.write(path, [finding], {})
            with self.assertRaises(FileExistsError):
                report.write(path, [finding], {})
            text = pathlib.Path(path).read_text(encoding="utf-8")
        for word in ("0123456789012", "F2Z8842017", "41287733", "2034567", "203456,"):
            self.assertNotIn(word, text)
        self.assertNotIn(home + "/", text)
        if len(platform.node()) > 1:
            self.assertNotIn(" %s," % platform.node(), text)
        harmless = ("iso 102400", "6000x4000", "12345678 bytes")
        for word in ("1/8000", "0x0064ff0f", "EOS 80D", hashed, *harmless):
            self.assertIn(word, text)

    def test_a_name_that_is_a_word_of_the_report_is_left_out_of_what_was_seen_alone(self):
        finding = self._finding(
            "camera of Camera, see session.camera", NO, found={"camera": "a camera"}
        )
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "report.json")
            with mock.patch.object(report, "private_words", lambda: [("camera", "USER")]):
                report.write(path, [finding], {"maker": "camera"})
            told = json.loads(pathlib.Path(path).read_text(encoding="utf-8"))
        expected = finding.record()
        expected["evidence"] = "USER of USER, see session.camera"
        expected["facts"] = {"found": {"camera": "a USER"}}
        self.assertEqual(told["points"], [expected])
        self.assertEqual((told["no"], told["system"]["maker"]), (["session.camera"], "camera"))


if __name__ == "__main__":
    unittest.main()
