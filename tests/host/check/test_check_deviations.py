"""What the report says of virtual cameras: everything is yes, and what deviates is named.

LUMATIE_CHECK_DEVIATIONS=all tries all deviations in place of a sample.
"""

import concurrent.futures
import os
import pathlib
import re
import tempfile
import unittest

from deviations import DEVIATIONS, FILES, LONG, OF_LINUX
from lumatie_host import __version__
from lumatie_host.check.points import NO, POINTS, UNSEEN, points_of
from lumatie_host.libraries import CANON_FUNCTIONS
from running import CANON, NIKON, check, check_deviation
from support import CANON_LIBRARY, ON_WINDOWS

PAGE = pathlib.Path(__file__).resolve().parents[3] / "docs" / "check.md"
ALL = os.environ.get("LUMATIE_CHECK_DEVIATIONS") == "all"
OVER_AN_OPEN_SESSION = "Open: the module is open already"  # what ends.again does
AT_ONCE = 3 if ON_WINDOWS else 6


def tried():
    """The deviations that are tried here.

    On Windows, where processes start slowly, those of the library's file, of which most take few,
    and the first one of a camera.
    """
    possible = [one for one in DEVIATIONS if not ON_WINDOWS or one.what not in OF_LINUX]
    if ALL:
        return possible
    sample = [one for one in possible if one.is_in_sample]
    return sample[: 1 + sum(one.what in FILES for one in sample)] if ON_WINDOWS else sample


def shown(what):
    """A deviation as the page has it."""
    return what.replace(LONG, "xxx...").encode("ascii", "backslashreplace").decode()


def rows(page, width):
    """The cells of all rows with that many of them, without the ticks around code."""
    found = []
    for line in page.splitlines():
        cells = [cell.strip().replace("`", "") for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
        if len(cells) == width:
            found.append(tuple(cell.replace("\\|", "|") for cell in cells))
    return found


class Page(unittest.TestCase):
    def test_the_page_has_the_table_of_deviations(self):
        page = PAGE.read_text(encoding="utf-8")
        known = [(one.maker, shown(one.what), one.point) for one in DEVIATIONS]
        self.assertEqual(
            [row for row in rows(page, 3) if row[0] in ("canon", "nikon")],
            known,
        )

    def test_the_page_has_the_points_and_their_times(self):
        page = PAGE.read_text(encoding="utf-8")
        told = [row[:3] for row in rows(page, 4) if row[0] in POINTS]
        known = [(one.id, one.title, "%d" % one.seconds) for one in POINTS.values()]
        self.assertEqual(told, known)

    def test_every_point_has_a_deviation_or_is_said_to_have_none(self):
        named = {deviation.point for deviation in DEVIATIONS}
        text = PAGE.read_text(encoding="utf-8").partition("No deviation")[2]
        without = set(re.findall(r"^- `([a-z]+\.[a-z]+)`", text, re.MULTILINE))
        self.assertEqual(named | without, set(POINTS))
        self.assertFalse(named & without)


def check_into_folder(base, *arguments):
    """Runs it with a folder that has a file of a person's."""
    folder = pathlib.Path(base, "pictures")
    folder.mkdir()
    (folder / "item").write_text("mine")
    return check(base, *arguments, "--folder", str(folder))


class Reports(unittest.TestCase):
    """All checks of this class are begun at the same time, for they wait more than they work."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.pool = concurrent.futures.ThreadPoolExecutor(AT_ONCE)
        cls.canon = cls._begin(check_into_folder, *CANON, "--shoot")
        cls.nikon = cls._begin(check, *NIKON, "--shoot", maker="nikon")
        cls.plain = cls._begin(check, *CANON)
        unplugged = "camera.plugged = 0"
        cls.chosen = cls._begin(check, "--camera", "Virtual EOS", settings=unplugged)
        cls.deviating = [(one, cls._begin(check_deviation, one)) for one in tried()]

    @classmethod
    def tearDownClass(cls):
        cls.pool.shutdown()
        cls.folder.cleanup()

    @classmethod
    def _begin(cls, run, *arguments, **named):
        base = tempfile.mkdtemp(dir=cls.folder.name)
        return cls.pool.submit(lambda: (base, run(base, *arguments, **named)))

    def test_the_report_names_the_point_at_which_a_camera_deviates_and_no_other(self):
        for deviation, future in self.deviating:
            with self.subTest(maker=deviation.maker, what=shown(deviation.what)):
                _, done = future.result()
                found = {name: done.evidence(name) for name in done.answers(NO)}
                self.assertEqual(list(found), [deviation.point], found)
                self.assertEqual(done.summary["no"], [deviation.point])
                self.assertEqual(done.status, POINTS[deviation.point].status)
                self.assertEqual(
                    [point["point"] for point in done.points],
                    [point.id for point in points_of(deviation.maker)],
                )

    def _assert_all_yes(self, maker, future):
        _, done = future.result()
        found = {point["point"]: point["evidence"] for point in done.points
                 if point["answer"] != "yes"}  # fmt: skip
        self.assertEqual(found, {})
        self.assertEqual([point["point"] for point in done.points],
                         [point.id for point in points_of(maker)])  # fmt: skip
        self.assertEqual(done.status, 0)
        return done.log

    def test_everything_is_yes_with_the_virtual_canon_camera_and_each_session_is_closed(self):
        log = self._assert_all_yes("canon", self.canon)
        opened = len(re.findall(r"EdsOpenSession\(.*\) = 0x0 ", log))
        closed = len(re.findall(r"EdsCloseSession\(.*\) = 0x0 ", log))
        self.assertGreater(opened, 5)
        self.assertEqual(closed, opened - 1)  # one was taken by the pulled cable
        self.assertNotIn("misuse", log.lower())

    def test_pictures_go_into_the_folder_that_was_named_beside_what_is_there(self):
        base, _ = self.canon.result()
        folder = pathlib.Path(base, "pictures")
        self.assertEqual((folder / "item").read_text(), "mine")
        self.assertGreater(len(list(folder.glob("*.JPG"))), 5)

    def test_everything_is_yes_with_the_virtual_nikon_camera(self):
        log = self._assert_all_yes("nikon", self.nikon)
        self.assertEqual(re.findall(" MISUSE ([^0-9]*)", log), [OVER_AN_OPEN_SESSION + " "])

    def test_without_being_asked_it_takes_no_picture_and_leaves_the_settings_as_they_were(self):
        base, done = self.plain.result()
        self.assertEqual(done.status, 0)
        self.assertEqual(
            done.answers(UNSEEN),
            [name for name in POINTS if name.startswith("shoot.") or name == "records.item"],
        )
        self.assertNotIn("EdsSendCommand", done.log)
        values = {}
        pattern = r"EdsSetPropertyData\(.*, (0x\w+), 0, 4, (0x\w+)\) = 0x0 "
        for prop, value in re.findall(pattern, done.log):
            values.setdefault(prop, []).append(value)
        self.assertGreater(len(values["0x402"]), 1)
        self.assertEqual(values["0x402"][-1], "0x58")
        self.assertEqual(values["0x405"][-1], "0x30")
        self.assertEqual(sorted(os.listdir(base)), ["camera.log", "camera.txt"])

    def test_a_library_is_told_with_its_bits_its_version_its_functions_and_what_it_needs(self):
        _, done = self.plain.result()
        self.assertEqual(done.evidence("library.bits"), "64")
        version = "file version %s.0" % __version__ if ON_WINDOWS else "soname libEDSDK.so"
        self.assertIn(version, done.evidence("library.version"))
        self.assertRegex(done.evidence("library.functions"), "^%d of " % len(CANON_FUNCTIONS))
        needed = "msvcrt.dll" if ON_WINDOWS else "libc.so.6"
        self.assertIn(needed, done.evidence("library.needs"))

    def test_a_library_that_nobody_named_is_told_with_the_place_where_the_system_found_it(self):
        _, done = self.chosen.result()
        self.assertEqual(done.answers(NO), ["session.camera"])
        path, _, chosen = done.evidence("library.found").partition(", ")
        self.assertEqual(chosen, "which the system chose")
        self.assertTrue(os.path.samefile(path, str(CANON_LIBRARY)), path)

    def test_what_is_missing_of_a_library_is_told_by_its_name(self):
        told = {one.what: future.result()[1].evidence(one.point) for one, future in self.deviating}
        missing = told["no function EdsDownloadEvfImage"]
        self.assertEqual(missing, "missing: EdsDownloadEvfImage")
        missing = "missing: %s" % ("msvcrX.dll" if ON_WINDOWS else "libX.so.6")
        self.assertEqual(told["a library that it needs is missing"], missing)
        self.assertRegex(told["EdsInitializeSDK crashes"], "crashed: |signal 4")


if __name__ == "__main__":
    unittest.main()
