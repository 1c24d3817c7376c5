"""The word check as a process: what it says, where it writes, and how it is interrupted."""

import concurrent.futures
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from unittest import mock

from lumatie_host.check import children, whole
from lumatie_host.check.points import NO, UNSEEN, YES
from running import CANON, LONGEST, NIKON, check, command, environment
from support import NIKON_MODULE, ON_WINDOWS, wait_until
from virtual_cameras import CANON_LIBRARY

WITHOUT_HANDS = []  # the checks of the class of that name, with --ask and without
BESIDE = contextlib.ExitStack()  # what they run in


def setUpModule():
    """Begins what takes longest: it goes on beside the other tests."""
    folder = BESIDE.enter_context(tempfile.TemporaryDirectory())
    pool = BESIDE.enter_context(concurrent.futures.ThreadPoolExecutor(2))
    for arguments in (("--ask",), ()):
        base = tempfile.mkdtemp(dir=folder)
        WITHOUT_HANDS.append(pool.submit(check, base, *unsteered(base), *arguments))


def tearDownModule():
    BESIDE.close()


def unsteered(base):
    """What chooses a library that is no virtual camera's: its steering has other names."""
    library = pathlib.Path(base, CANON_LIBRARY.name)
    data = CANON_LIBRARY.read_bytes()
    library.write_bytes(data.replace(b"\0VirtualCameraPressShutter\0",
                                     b"\0VirtualCameraPressShuttex\0"))  # fmt: skip
    return ("--camera", "Virtual EOS", "--canon-library", str(library), "--shoot")


class Process(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.base = folder.name

    def _run(self, *arguments, settings=""):
        return subprocess.run(
            command(*arguments),
            env=environment(self.base, settings),
            cwd=self.base,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=LONGEST,
            check=False,
        )

    def test_a_process_that_takes_too_long_closes_its_session_where_the_library_answers(self):
        refused = "fault = EdsGetPropertySize code=0x50 calls=0"
        checked = check(self.base, *CANON, "--timeout", "5", settings=refused)
        self.assertIn("session.answers", checked.answers(NO))
        self.assertIn("its process was ended", checked.evidence("session.answers"))
        opened, closed = (
            len(re.findall(call + r"\(.*\) = 0x0 ", checked.log))
            for call in ("EdsOpenSession", "EdsCloseSession")
        )
        self.assertGreater(opened, 0)
        self.assertEqual(opened, closed, checked.log[-3000:])

    def test_a_person_reads_what_is_going_to_be_done_then_a_line_for_each_point(self):
        done = self._run(*CANON, "--report", "sent.json", settings="camera.plugged = 0")
        said, told = (text.decode("utf-8") for text in (done.stderr, done.stdout))
        self.assertIn("Takes no picture: --shoot does.", said)
        self.assertRegex(told, r"(?m)^NO +session\.camera +the camera is there: the library lists")
        self.assertRegex(told, r"(?m)^\? +session\.opens .*: see session\.camera")
        self.assertRegex(told, r"1 no, \d+ could not be seen\.\s*$")
        self.assertEqual(done.returncode, 3)
        sent = pathlib.Path(self.base, "sent.json").read_text(encoding="utf-8")
        self.assertEqual(json.loads(sent)["no"], ["session.camera"])
        again = self._run(*CANON, "--report", "sent.json")
        self.assertEqual(again.returncode, 5)

    def test_without_a_camera_it_is_wrong_use(self):
        self.assertEqual(self._run().returncode, 2)

    def test_a_setting_that_a_hanging_library_left_changed_is_set_back(self):
        settings = "fault = EdsSetPropertyData property=0x405 hang skip=1"
        done = check(self.base, *CANON, "--timeout", "4", settings=settings)
        self.assertEqual(done.answers(NO), ["messages.events"])
        values = re.findall(r"EdsSetPropertyData\(.*, 0x405, 0, 4, (0x\w+)\) = 0x0 ", done.log)
        self.assertEqual(values, ["0x2D", "0x30"])

    def test_pictures_on_a_card_stay_there_and_keep_the_module_from_being_asked(self):
        # Read by each Python at its start: the module has a picture before anybody uses it.
        place = pathlib.Path(self.base, "first")
        place.mkdir()
        (place / "sitecustomize.py").write_text(
            "import ctypes\nctypes.CDLL(%r).VirtualCameraPressShutter(0)" % str(NIKON_MODULE)
        )
        done = check(self.base, *NIKON, "--shoot", settings="picture.width = 64", maker="nikon")
        self.assertEqual(done.answers(NO), [])
        self.assertEqual(done.answers(UNSEEN)[0], "session.answers")
        self.assertEqual(done.evidence("session.capabilities")[-24:], "; 1 pictures on the card")
        told = done.evidence("session.answers")
        self.assertEqual(told, "the card holds pictures, 1: empty it first")
        self.assertEqual(done.evidence("shoot.event"), "see session.answers")
        self.assertIn("The card has to be empty", done.errors)
        self.assertNotIn("Open(source", done.log)

    def test_the_minutes_that_are_stated_are_fewer_where_a_point_may_take_less(self):
        stated = []
        for limit in (None, 5.0):
            job = whole.Job("canon", "Virtual EOS", None, None, limit=limit)
            stated.append(int(re.findall(r"(\d+) minutes at most", whole.plan(job)[-1])[0]))
        self.assertLess(stated[1], stated[0])

    def test_a_folder_into_which_pictures_were_fetched_is_kept(self):
        said = []
        job = whole.Job("canon", "Virtual EOS", str(CANON_LIBRARY), None)

        def fetch(self, folder):
            pathlib.Path(folder, "A.JPG").write_text("a picture")
            return iter(())

        with mock.patch.object(whole.Check, "_parts", fetch):
            list(whole.Check(job, children.Person(said.append, None), lambda: False).run())
        (text,) = said
        (folder,) = re.findall(r"^Pictures that were fetched are in (.*)\.$", text)
        self.addCleanup(shutil.rmtree, folder)
        self.assertEqual(os.listdir(folder), ["A.JPG"])

    def test_what_a_library_gave_before_it_refused_something_is_given_back(self):
        for refused in ("EdsGetChildCount", "EdsGetChildAtIndex", "EdsGetDeviceInfo"):
            with self.subTest(refused=refused), tempfile.TemporaryDirectory() as base:
                done = check(base, *CANON, settings="fault = %s code=0x80 calls=0" % refused)
                self.assertEqual(done.answers(NO), ["session.camera"])
                self.assertNotIn("MISUSE", done.log)

    def _part(self, name, maker, settings, limit=None):
        """What one of its processes finds out, as (point, answer), and what is said of its end."""
        library = NIKON_MODULE if maker == "nikon" else CANON_LIBRARY
        job = {"part": name, "maker": maker, "info": "Virtual EOS", "library": str(library)}
        job["folder"] = self.base
        part = children.Part(job, children.Person(print, None), lambda: False, limit)
        with mock.patch.dict(os.environ, environment(self.base, settings, maker)):
            found = [(finding.point.id, finding.answer) for finding in part.run()]
        return found, part.trouble

    def _log(self):
        return pathlib.Path(self.base, "camera.log").read_text("utf-8", "replace")

    def test_a_picture_that_could_not_be_fetched_is_given_back_and_leaves_no_file(self):
        found, _ = self._part("item", "canon", "fault = EdsDownloadComplete code=0x8D07")
        self.assertEqual(found, [("records.item", NO)])
        self.assertNotIn("MISUSE", self._log())
        self.assertEqual(sorted(os.listdir(self.base)), ["camera.log", "camera.txt"])

    def test_a_list_that_became_shorter_while_it_was_read_is_not_read_beyond_its_end(self):
        found, _ = self._part("direct", "nikon", "fault = CapGetArray level=module unplug")
        self.assertEqual(found, [("session.starts", YES), ("session.camera", NO)])
        self.assertNotIn("MISUSE", self._log())

    def test_an_answer_is_heard_while_its_process_is_ended_for_being_late_and_nothing_behind_it(
        self,
    ):
        answer = {"answer": YES, "evidence": "", "facts": {}, "seconds": 4}
        lines = ({"point": "session.opens", **answer}, {"begin": "session.prepared"})

        def answer_at_last(process):
            with open(process.args[-1], "a") as told:
                told.writelines(json.dumps(line) + "\n" for line in lines)
            kill(process)

        kill = children._kill
        with mock.patch.object(children, "_kill", answer_at_last):
            found, trouble = self._part("direct", "canon", "fault = EdsOpenSession hang", 4.0)
        self.assertEqual(found[-1], ("session.opens", YES))
        self.assertEqual(trouble, "it did not go on in time; its process was ended")

    def test_what_was_not_asked_because_a_point_before_it_hung_names_that_point(self):
        settings = "fault = EdsGetPropertyDesc hang"
        done = check(self.base, *CANON, "--timeout", "4", settings=settings)
        self.assertEqual(done.answers(NO)[0], "records.behind")
        limits = {point["point"]: point["limit"] for point in done.points}
        told = [limits[name] for name in ("session.opens", "ends.interpreter", "shoot.event")]
        self.assertEqual(told, [4, 40, 130])
        for name in ("records.sizes", "messages.events", "session.closes"):
            self.assertEqual(done.evidence(name), "see records.behind")

    def test_what_a_process_said_that_could_not_even_begin_is_told(self):
        pathlib.Path(self.base, "ctypes.py").write_text("raise ImportError('there is none')")
        steps = [
            "import json, pathlib, sys",
            "from lumatie_host.check.children import Person",
            "from lumatie_host.check.whole import Check, Job",
            "sys.path.insert(0, %r)" % self.base,
            "job = Job('canon', 'Virtual EOS', %r, None)" % str(CANON_LIBRARY),
            "check = Check(job, Person(print, None), lambda: False)",
            "print(json.dumps([finding.record() for finding in check.run()]))",
        ]
        done = subprocess.run(
            [sys.executable, "-c", "\n".join(steps)],
            env=environment(self.base),
            stdout=subprocess.PIPE,
            timeout=LONGEST,
            check=True,
        )
        found = {point["point"]: point for point in json.loads(done.stdout.decode())}
        self.assertEqual(found["library.functions"]["answer"], "yes")
        self.assertEqual(found["library.needs"]["answer"], UNSEEN)
        self.assertIn("there is none", found["library.needs"]["evidence"])

    def _begin(self, *arguments, settings, until):
        """Begins a check, and waits until the log of its camera has something."""
        log = pathlib.Path(self.base, "camera.log")
        process = subprocess.Popen(
            command(*CANON, *arguments),
            env=environment(self.base, settings),
            cwd=self.base,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        wait_until(lambda: log.exists() and re.search(until, self._log()), until, LONGEST)
        return process

    @unittest.skipIf(ON_WINDOWS, "Windows interrupts all processes of a console, the tests too")
    def test_an_interrupt_ends_it_with_the_session_closed_and_no_process_left(self):
        settings = "shutter.exposure_ms = 1000"
        process = self._begin("--shoot", settings=settings, until="EdsSendCommand")
        begun = time.monotonic()
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=LONGEST)
        self.assertEqual(process.returncode, 130, output)
        self.assertLess(time.monotonic() - begun, 30)
        calls = self._log()
        self.assertEqual(
            len(re.findall(r"EdsOpenSession\(.*\) = 0x0 ", calls)),
            len(re.findall(r"EdsCloseSession\(.*\) = 0x0 ", calls)),
        )
        self.assertEqual(self._children_left(), [])

    @unittest.skipIf(ON_WINDOWS, "Windows interrupts all processes of a console, the tests too")
    def test_an_interrupt_while_a_library_hangs_leaves_no_process_and_sets_the_camera_back(self):
        process = self._begin(
            settings="fault = EdsSetPropertyData property=0x405 hang skip=1",
            until=r"EdsSetPropertyData\(.*0x2D\) = 0x0(?s:.*)event 0x101 property 0x405",
        )
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=LONGEST)
        self.assertEqual(process.returncode, 130, output)
        self.assertEqual(self._children_left(), [])
        values = re.findall(r"EdsSetPropertyData\(.*, 0x405, 0, 4, (0x\w+)\) = 0x0 ", self._log())
        self.assertEqual(values, ["0x2D", "0x30"])

    @unittest.skipIf(ON_WINDOWS, "there is no list of processes to read")
    def test_a_process_in_a_library_that_hangs_does_not_outlive_a_check_that_was_killed(self):
        process = self._begin(
            settings="fault = EdsOpenSession hang", until="EdsSetCameraStateEventHandler"
        )
        self.assertNotEqual(self._children_left(), [])
        process.kill()
        process.communicate(timeout=LONGEST)
        wait_until(lambda: not self._children_left(), "the process has ended", 90)

    def _children_left(self):
        """The processes of the check that have this test's folder as their own."""
        left = []
        for place in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if os.readlink(str(place / "cwd")) == self.base:
                    left.append((place / "cmdline").read_bytes())
            except OSError:
                continue
        return left


class WithoutHands(unittest.TestCase):
    """With a library that nobody takes for a virtual camera's; both checks were begun before."""

    def test_what_a_person_has_to_do_is_asked_for_and_not_waited_for_when_nobody_can_answer(self):
        done = WITHOUT_HANDS[0].result()
        self.assertEqual(done.answers(UNSEEN), ["shoot.body", "shoot.cable", "shoot.pair"])
        self.assertIn("nobody did it", done.evidence("shoot.cable"))
        for text in ("Press the shutter button", "Pull the cable", "Set the picture quality"):
            self.assertIn(text, done.errors)
        self.assertEqual(done.status, 0)

    def test_what_a_person_has_to_do_is_not_asked_for_without_a_terminal(self):
        done = WITHOUT_HANDS[1].result()
        self.assertNotIn("Pull the cable", done.errors)
        self.assertEqual(done.answers(UNSEEN), ["shoot.body", "shoot.cable", "shoot.pair"])
        self.assertIn("--ask", done.evidence("shoot.body"))
        self.assertEqual(done.status, 0)


if __name__ == "__main__":
    unittest.main()
