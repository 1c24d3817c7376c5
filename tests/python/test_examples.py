"""The examples of the documentation run as they stand."""

import contextlib
import dataclasses
import gc
import inspect
import io
import os
import pathlib
import re
import shutil
import tempfile
import textwrap
import threading
import unittest
import weakref

import lumatie_host as tether
from lumatie_host import errors as host_errors
from lumatie_host import events as host_events
from lumatie_host import names as host_names
from lumatie_host.cli import arguments as host_arguments
from lumatie_host.cli.arguments import USAGE
from lumatie_host.cli.camera import DONE, STATUS_OF
from lumatie_host.cli.control import INTERRUPTED
from nikon_support import MODULE, NikonTestCase
from support import (
    CAMERA_NAME,
    DEADLINE,
    ISO,
    NIKON_MODULE,
    REPOSITORY,
    Host,
    Lumatie,
    TetherTestCase,
    run_host,
    wait_until,
)

JPEG_START = b"\xff\xd8\xff"


def examples(page):
    """The Python programs of a page, in their order."""
    text = (REPOSITORY / page).read_text(encoding="utf-8")
    return re.findall(r"^```python\n(.*?)^```$", text, re.M | re.S)


def is_error(offered):
    return isinstance(offered, type) and issubclass(offered, host_errors.TetherError)


def words_of_the_command():
    """Those that its help lists."""
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed), contextlib.suppress(SystemExit):
        host_arguments.parse(["--help"])
    listed = printed.getvalue().partition("commands:\n")[2].partition("\n\n")[0]
    return set(re.findall(r"^  (\w+) ", listed, re.M))


class ProgramTestCase(unittest.TestCase):
    """Runs whole applications of the documentation."""

    def run_program(self, program, *arguments):
        """Runs the application; returns the picture that it has announced."""
        folder = tempfile.TemporaryDirectory(prefix="lumatie-readme-")
        self.addCleanup(folder.cleanup)
        run = run_host(
            program,
            python_dir=REPOSITORY / "host",
            environment={"TMPDIR": folder.name, "TEMP": folder.name},
            arguments=arguments,
        )
        # In development mode asyncio tells of each call that a busy machine makes slow.
        said = re.sub(r"^Executing <.* took [0-9.]+ seconds\n", "", run.stderr, flags=re.M)
        self.assertEqual((run.status, said), (0, ""))
        # A driver module's own lines may come between the words.
        self.assertIn("new picture:", run.stdout)
        (picture,) = pathlib.Path(folder.name).rglob("*.[Jj][Pp][Gg]")
        self.assertIn(picture.name, run.stdout)
        self.assertEqual(picture.read_bytes()[:3], JPEG_START)
        return run.stdout


class ReadmeTest(ProgramTestCase):
    def setUp(self):
        (self.example,) = examples("README.md")

    def test_the_application_fits_a_screen(self):
        self.assertLessEqual(len(self.example.splitlines()), 20)

    def test_the_application_takes_a_picture_with_a_canon_camera(self):
        self.assertIn("shutter: 1/60", self.run_program(self.example))

    def test_the_application_takes_a_picture_with_a_nikon_camera(self):
        self.assertIn("shutter: 1/60", self.run_program(self.example, NIKON_MODULE))


class ModulePageTest(ProgramTestCase):
    def setUp(self):
        (self.example,) = examples("docs/module.md")

    def test_the_bare_program_takes_a_picture_with_a_canon_camera(self):
        self.run_program(self.example)

    def test_the_bare_program_takes_a_picture_with_a_nikon_camera(self):
        self.run_program(self.example, NIKON_MODULE)


class HostPageTest(ProgramTestCase):
    def setUp(self):
        self.session, self.events, self.asyncio = examples("docs/host.md")
        self.text = (REPOSITORY / "docs" / "host.md").read_text(encoding="utf-8")

    def rows(self, head):
        """The words in backticks of each cell of the table whose first row begins so."""
        table = re.search(r"^ *\| %s.*\n((?: *\|.*\n)*)" % re.escape(head), self.text, re.M)
        lines = [line.strip(" |").split(" | ") for line in table.group(1).splitlines()[1:]]
        return [[re.findall(r"`([^`]+)`", cell) for cell in line] for line in lines]

    def test_a_session_sets_and_shoots_with_either_maker(self):
        for maker in ("canon", "nikon"):
            with self.subTest(maker=maker):
                told = self.run_program(self.session, maker)
                self.assertIn("confirmed: 1/250", told)
                self.assertRegex(told, r"spring_0001\.(JPG|jpg) 1/250")

    def test_events_are_iterated_over(self):
        self.run_program(self.events)

    def test_a_session_of_asyncio_shoots(self):
        self.run_program(self.asyncio)

    def test_the_table_of_arguments_names_all_that_open_takes(self):
        rows = self.rows("argument |")
        named = [name.rstrip("=") for names, *_ in rows for name in names]
        self.assertEqual(sorted(named), sorted(inspect.signature(tether.open).parameters))

    def test_the_settings_are_named_in_their_order(self):
        sentence = re.search(r"Settings are (.*?);", self.text, re.S).group(1)
        self.assertEqual(tuple(re.findall(r"`(\w+)`", sentence)), tether.NAMES)

    def test_the_table_of_events_names_every_kind_class_and_field(self):
        rows = {kind: (name, told) for (kind,), (name,), told in self.rows("`kind` | event")}
        self.assertEqual(rows.keys(), host_events.EVENTS.keys())
        for kind, event in host_events.EVENTS.items():
            name, told = rows[kind]
            own = {field.name for field in dataclasses.fields(event)} - {"n", "time"}
            with self.subTest(kind=kind):
                self.assertEqual(name, event.__name__)
                self.assertEqual(own - set(told), set())

    def test_the_table_of_errors_names_all_that_the_package_offers(self):
        named = {name for names, *_ in self.rows("error |") for name in names}
        offered = {name for name in tether.__all__ if is_error(getattr(tether, name))}
        self.assertEqual(offered - named, {"TetherError"})

    def test_the_table_of_tokens_names_all_of_them(self):
        named = [name.strip("{}") for names, *_ in self.rows("token |") for name in names]
        self.assertEqual(sorted(named), sorted(host_names.TOKENS))

    def test_the_words_of_the_command_are_named(self):
        sentence = re.search(r"Its words are(.*?)With `--json`", self.text, re.S).group(1)
        named = {words.split()[0] for words in re.findall(r"`([^`]+)`", sentence)}
        self.assertEqual(named, words_of_the_command())

    def test_the_table_of_statuses_has_those_that_errors_lead_to(self):
        told = {int(status) for status in re.findall(r"^\| (\d+) \|", self.text, re.M)}
        statuses = set(STATUS_OF.values()) | {DONE, USAGE, INTERRUPTED}
        self.assertEqual(told, statuses)

    def test_the_table_of_errors_has_their_own_texts(self):
        text = self.text
        for error in (
            host_errors.CameraNotFound("EOS"),
            host_errors.LibraryMissing("EDSDK.dll", 32, ""),
            host_errors.FolderRejected("X", "there is no such folder"),
            host_errors.FolderShared("X"),
            host_errors.NameRejected("X", "why"),
            host_errors.NotSettable("shutter", "P"),
            host_errors.NoAnswer(30, "take a picture"),
            host_errors.SessionLost(6, "why"),
            host_errors.PictureLost("X", "why"),
            host_errors.WriteFailed("why"),
            host_errors.Closed(),
        ):
            with self.subTest(error=error):
                self.assertIn("| %s. *%s*" % (error, error.advice), text)


class EventTableTest(unittest.TestCase):
    def test_the_table_of_events_names_every_code(self):
        text = (REPOSITORY / "docs" / "module.md").read_text(encoding="utf-8")
        found = re.findall(r"^\| (\d+) \| `(TETHER_\w+)`", text, re.M)
        rows = {name: int(code) for code, name in found}
        codes = {
            name: value
            for name, value in vars(Lumatie).items()
            if name.startswith("TETHER_") and isinstance(value, int) and "CANON" not in name
        }
        self.assertEqual(rows, codes)


class LockTableTest(unittest.TestCase):
    """docs/threads.md says of every lock what it guards."""

    OWNER = re.compile(r"^(?:class|struct) (\w+)|^\w[\w:<>&* ]*?(\w+)\(", re.M)
    LOCK = re.compile(r"^.*\b(?:std::mutex|platform::Mutex|Synchronized)\b(?: (\w+))?;", re.M)

    def locks(self):
        """Each lock of the module's sources: its class, or its function or file."""
        for path in sorted((REPOSITORY / "System").rglob("*.[ch]*")):
            text = path.read_text(encoding="utf-8")
            for lock in self.LOCK.finditer(text):
                owners = [
                    owner for owner in self.OWNER.finditer(text) if owner.end() < lock.start()
                ]
                if lock.group(0).startswith("std::mutex") or not owners:
                    yield path.stem
                else:
                    yield owners[-1].group(1) or owners[-1].group(2)

    def test_the_table_of_locks_names_each_lock_of_the_sources(self):
        text = (REPOSITORY / "docs" / "threads.md").read_text(encoding="utf-8")
        rows = re.search(r"^\| lock \| guards \|\n(.*?)(?:\n\n|\Z)", text, re.M | re.S).group(1)
        named = set(re.findall(r"\w+", "".join(re.findall(r"^\| (.*?) \|", rows, re.M))))
        locks = set(self.locks())
        self.assertGreater(len(locks), 15)
        self.assertEqual(locks - named, set())


class RaisingCallbackTest(TetherTestCase):
    """What the interpreter keeps of a callback that raised, and the hook that lets go of it."""

    SCRIPT = """
        import gc, sys, threading, weakref
        from support import CAMERA_NAME, Lumatie

        class Tether(Lumatie.Lumatie):
            pass

        tether, raised = Tether(), threading.Event()
        gone = weakref.ref(tether)

        def receive(*event):
            owner = gone()
            raised.set()
            raise ValueError("of the callback")

        assert tether.Init(CAMERA_NAME, sys.argv[1], receive) == 1
        assert raised.wait(20)
        tether.Uninit()
        del tether
        gc.collect()
        print(gone() is None)
    """

    def is_let_go(self, hook):
        run = run_host(hook + textwrap.dedent(self.SCRIPT), arguments=[self.folder])
        self.assertEqual(run.status, 0, run.stderr)
        self.assertIn("ValueError: of the callback", run.stderr)
        return run.stdout.strip()

    def test_the_interpreter_keeps_the_tether_object_alive(self):
        self.assertEqual(self.is_let_go(""), "False")

    def test_the_hook_prints_the_exception_and_keeps_nothing(self):
        _, hook = examples("docs/errors.md")
        self.assertEqual(self.is_let_go(hook), "True")


class CameraNameTest(unittest.TestCase):
    """What a file with a camera's name does, and the functions that keep it from doing so."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="lumatie-names-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def run_in_folder(self, start):
        """Runs one start with the folder as the current one; returns what it came to."""
        functions, _ = examples("docs/errors.md")
        script = """
            import Lumatie, sys, tempfile
            tether = Lumatie.Lumatie()
            try:
                result = {}
            except ValueError as error:
                result = error
            tether.Uninit()
            print()
            print("came to", result)
        """
        script = functions + textwrap.dedent(script).format(start)
        run = run_host(script, cwd=self.folder, arguments=(NIKON_MODULE,))
        self.assertEqual((run.status, run.stderr), (0, ""))
        return re.search("^came to (.*)$", run.stdout, re.M).group(1), run.stdout

    def test_a_library_with_the_cameras_name_is_run_instead(self):
        shutil.copy(str(NIKON_MODULE), os.path.join(self.folder, CAMERA_NAME))
        start = "tether.Init('Virtual EOS', tempfile.gettempdir(), None)"
        result, printed = self.run_in_folder(start)
        self.assertEqual(result, "1")
        self.assertIn("Source object is opened.", printed)

    def test_any_other_file_with_the_cameras_name_hides_the_camera(self):
        pathlib.Path(self.folder, CAMERA_NAME).touch()
        start = "tether.Init('Virtual EOS', tempfile.gettempdir(), None)"
        self.assertEqual(self.run_in_folder(start)[0], "0")

    def test_the_function_for_canon_starts_the_camera_and_refuses_a_file(self):
        start = "start_canon(tether, 'Virtual EOS', tempfile.gettempdir(), None)"
        self.assertEqual(self.run_in_folder(start)[0], "1")
        pathlib.Path(self.folder, CAMERA_NAME).touch()
        self.assertRegex(self.run_in_folder(start)[0], "not only a camera's name: .*Virtual EOS")

    def test_the_function_for_nikon_starts_a_module_by_its_complete_path_only(self):
        start = "start_nikon(tether, {}, tempfile.gettempdir(), None)"
        self.assertEqual(self.run_in_folder(start.format("sys.argv[1]"))[0], "1")
        shutil.copy(str(NIKON_MODULE), self.folder)
        for path in ("'VirtualNikon.md3'", "sys.argv[1] + 'x'"):
            result, _ = self.run_in_folder(start.format(path))
            self.assertRegex(result, "no complete path of a driver module")


class OwnerTest(TetherTestCase):
    """Owners of a tether object whose own method is the callback."""

    def setUp(self):
        super().setUp()
        # What is collected, and when, is the tests' choice.
        gc.disable()
        self.addCleanup(gc.enable)
        self.told = []
        names = {}
        (example,) = examples("docs/threads.md")
        exec(example, names)
        self.camera_class = names["Camera"]

    def listening(self, base):
        """A class whose objects note in `told` what their method is told."""
        told = self.told

        class Listening(base):
            def receive(self, *event):
                told.append(event)

        return Listening

    def own(self, base):
        """An owner with a session that has told its first news."""
        owner = self.listening(base)(CAMERA_NAME, self.folder)
        self.end_with_test(owner.tether)
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.settle()
        wait_until(lambda: self.told, "the first event")
        return owner

    def assert_reports(self):
        """The session runs: a change on the body is told."""
        count = len(self.told)
        self.camera.set_property(ISO, 0x48 if self.camera.property(ISO) != 0x48 else 0x50)
        wait_until(lambda: len(self.told) > count, "a report of the change")

    def wait_for_end(self, owner):
        wait_until(lambda: self.camera.calls("EdsTerminateSDK") == 1, "the session's end")
        wait_until(lambda: owner() is None, "the owner's end")
        self.assertEqual(self.camera.references(), 0)

    def test_an_owner_whose_method_is_held_is_not_collected_and_its_session_runs_on(self):
        class Holding:
            def __init__(self, name, folder):
                self.tether = Lumatie.Lumatie()
                self.tether.Init(name, folder, self.receive)

        owner = weakref.ref(self.own(Holding))
        gc.collect()
        self.assertIsNotNone(owner())
        self.assert_reports()
        self.assertEqual(owner().tether.Uninit(), 1)
        self.wait_for_end(owner)

    def test_an_owner_whose_method_is_held_weakly_ends_its_session_when_it_is_dropped(self):
        kept = self.own(self.camera_class)
        self.assertTrue(kept.is_there)
        self.assert_reports()
        owner = weakref.ref(kept)
        del kept
        self.wait_for_end(owner)

    def test_an_owner_whose_method_is_held_weakly_is_collected_in_another_circle(self):
        kept = self.own(self.camera_class)
        kept.itself = kept
        owner = weakref.ref(kept)
        del kept
        self.assert_reports()
        gc.collect()
        self.wait_for_end(owner)

    def test_an_owner_that_is_dropped_while_its_method_runs_goes_with_the_methods_return(self):
        inside, gate = threading.Event(), threading.Event()
        self.addCleanup(gate.set)

        class Waiting(self.camera_class):
            def receive(self, *_):
                inside.set()
                gate.wait()

        kept = Waiting(CAMERA_NAME, self.folder)
        owner = weakref.ref(kept)
        self.assertTrue(inside.wait(DEADLINE))
        del kept
        self.assertIsNotNone(owner())
        gate.set()
        self.wait_for_end(owner)


class NikonRequestTest(NikonTestCase):
    def test_a_picture_that_is_asked_for_when_a_report_begins_is_taken_in_that_cycle(self):
        taken = []

        def ask(event):
            if event.code == Lumatie.TETHER_EXPOSUREMODE:
                taken.append(len(self.nikon.pictures()))
                tether.Shoot()

        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        self.assertEqual(tether.Init(MODULE, self.folder, Host(ask)), 1)
        wait_until(lambda: len(taken) > 5, "six reports")
        self.assertEqual(taken[:6], [0, 1, 2, 3, 4, 5])


if __name__ == "__main__":
    unittest.main()
