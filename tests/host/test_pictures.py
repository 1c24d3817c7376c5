"""Pictures: whole or torn, named once, recorded once, whoever is killed and whenever."""

import contextlib
import datetime
import errno
import hashlib
import os
import pathlib
import pickle
import random
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from unittest import mock

import picture_files
from disks import no_links, no_links_and_no_system_call
from lumatie_host import formats, pictures
from lumatie_host.errors import Reason, WriteFailed
from lumatie_host.ledger import Ledger, verify
from lumatie_host.names import Template
from lumatie_host.pictures import Spool, Torn, await_whole, inspect, place, recover, settle

FIELDS = {"shot": 1, "origin": "host", "settings": {"iso": "100"}, "session": "s"}
TAKEN = datetime.datetime(2026, 11, 22, 5, 40, 48, 250000)


def judged(look):
    """What a look at a file tells, whole or torn."""
    try:
        found = look()
    except (formats.Malformed, Torn) as error:
        return getattr(error, "why", None) or str(error)
    return found.width, found.height, found.taken


class FolderTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def write(self, name, content):
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def files(self, below=""):
        """Names of the files, `/` between parts; without the inner folder unless asked for."""
        top = pathlib.Path(self.folder, below)
        found = (path.relative_to(top) for path in top.rglob("*") if path.is_file())
        return sorted(path.as_posix() for path in found if path.parts[0] != ".lumatie")


class Inspecting(FolderTest):
    def torn(self, name, content):
        with self.assertRaises(Torn) as caught:
            inspect(self.write(name, content))
        return caught.exception.why

    def test_a_jpeg_tells_its_size_and_its_time(self):
        content = picture_files.jpeg(6000, 4000)
        found = inspect(self.write("a.JPG", content))
        self.assertEqual((found.format, found.width, found.height), ("JPEG", 6000, 4000))
        self.assertEqual(found.taken, TAKEN)
        self.assertEqual(found.size, len(content))
        self.assertEqual(found.sha256, hashlib.sha256(content).hexdigest())

    def test_a_file_longer_than_a_block_has_its_own_hash(self):
        content = picture_files.jpeg(data=bytes(range(250)) * 10000)
        found = inspect(self.write("a.JPG", content))
        self.assertEqual(found.sha256, hashlib.sha256(content).hexdigest())

    def test_segments_that_say_nothing_are_not_looked_for_in_the_file(self):
        comments = picture_files.segment(0xFE, b"a comment" * 7000) * 300
        path = self.write("a.JPG", picture_files.jpeg(6000, 4000, more=comments))
        reads = []
        read = formats._Source.read

        def noted(source, offset, length):
            reads.append((offset, length))
            return read(source, offset, length)

        with mock.patch.object(formats._Source, "read", noted):
            found = inspect(path)
        self.assertEqual((found.width, found.height, found.taken), (6000, 4000, TAKEN))
        self.assertLess(len(reads), 40)

    def test_a_jpeg_is_judged_alike_in_whatever_blocks_it_is_read(self):
        chance = random.Random(7)
        segments = [
            picture_files.segment(code, bytes(length))
            for code, length in ((0xFE, 9), (0xDB, 67), (0xE0, 0), (0xFE, 200), (0xC4, 3))
        ]
        verdicts = set()
        for turn in range(400):
            chance.shuffle(segments)
            content = bytearray(picture_files.jpeg(more=b"".join(segments)))
            if turn % 4:
                content[chance.randrange(2, 500)] = chance.choice((0, 0xD9, 0xDA, 0xFE, 0xFF))
            if turn % 3 == 0:
                del content[chance.randrange(len(content)) :]
            path = self.write("a.JPG", content)
            with mock.patch.object(pictures, "_BLOCK", chance.randrange(1, 600)):
                found = judged(lambda: inspect(path))
            with open(path, "rb") as file:
                alone = judged(lambda: formats.judge(file, len(content), ".JPG"))
            self.assertEqual(found, alone, content.hex())
            verdicts.add(found)
        self.assertGreater(len(verdicts), 20)

    def test_raw_files_tell_their_size(self):
        for name, content in (
            ("a.CR2", picture_files.tiff(order="<")),
            ("a.nef", picture_files.tiff(order=">")),
            ("a.CR3", picture_files.cr3()),
        ):
            with self.subTest(name=name):
                found = inspect(self.write(name, content))
                self.assertEqual((found.format, found.width, found.height), ("RAW", 60, 40))

    def test_the_time_of_a_boxed_raw_is_read(self):
        self.assertEqual(inspect(self.write("a.CR3", picture_files.cr3())).taken, TAKEN)

    def test_other_files_are_whole_as_they_are(self):
        for name in ("a.raw", "a", "a.mov"):
            self.assertEqual(inspect(self.write(name, b"\xff\xd8\xff")).format, "OTHER")

    def test_every_part_of_a_file_alone_is_torn(self):
        for name, content in (
            ("a.JPG", picture_files.jpeg()),
            ("a.NEF", picture_files.tiff()),
            ("a.TIF", picture_files.tiff(order=">")),
            ("a.CR3", picture_files.cr3()),
        ):
            for length in range(len(content)):
                with self.subTest(name=name, length=length):
                    self.torn(name, content[:length])

    def test_a_jpeg_may_be_filled_up_with_zeros(self):
        for count in (1, 100, 70000):
            inspect(self.write("a.JPG", picture_files.jpeg() + b"\0" * count))

    def test_a_jpeg_that_was_given_its_length_first_is_torn_until_its_end_is_there(self):
        content = picture_files.jpeg()
        self.torn("a.JPG", content[:-60] + b"\0" * 60)

    def test_an_end_marker_in_front_of_the_scan_is_not_the_end(self):
        small = picture_files.segment(0xE5, b"\xff\xd8\xff\xd9")
        content = picture_files.jpeg(more=small)
        self.torn("a.JPG", content[:-2])
        cut = content.index(b"\xff\xd8\xff\xd9") + 4
        self.torn("a.JPG", content[:cut])
        inspect(self.write("a.JPG", content))

    def test_a_maker_may_put_more_behind_the_end_of_a_jpeg(self):
        inspect(self.write("a.JPG", picture_files.jpeg() + b"more of the maker's" * 100))

    def test_a_further_picture_that_is_told_of_has_to_be_whole(self):
        second = picture_files.jpeg(with_exif=False)
        whole = picture_files.jpeg_with_second(second)
        inspect(self.write("a.JPG", whole))
        self.assertEqual(inspect(self.write("a.JPG", whole + b"\0" * 9)).width, 60)
        for length in range(len(whole) - len(second), len(whole)):
            with self.subTest(length=length):
                self.torn("a.JPG", whole[:length])

    def test_a_loop_of_directories_ends(self):
        self.assertEqual(inspect(self.write("a.NEF", picture_files.tiff(following=8))).width, 60)

    def test_a_strip_beyond_the_end_is_torn(self):
        self.assertIn("ends before", self.torn("a.NEF", picture_files.tiff()[:-1]))

    def test_an_unreadable_time_is_none_and_no_reason_to_lose_a_picture(self):
        good = picture_files.jpeg()
        for old, new in (
            (b"2026:11:22", b"0000:00:00"),
            (b"2026:11:22", b"    :  :  "),
            (b"2026:11:22", b"2026:13:40"),
            (b"II*\0", b"XX*\0"),
            (b"\x69\x87\x04\0", b"\x69\x87\x09\0"),
        ):
            with self.subTest(new=new):
                self.assertIn(old, good)
                self.assertIsNone(inspect(self.write("a.JPG", good.replace(old, new, 1))).taken)

    def test_what_is_no_file_is_torn(self):
        for path in (self.folder, os.path.join(self.folder, "none.JPG"), "a\0b"):
            with self.assertRaises(Torn):
                inspect(path)
        self.assertEqual(self.torn("a.raw", b""), "it is empty")

    def test_torn_crosses_processes_and_tells_its_reason(self):
        torn = pickle.loads(pickle.dumps(Torn("a.JPG", "it is empty")))
        self.assertEqual(
            (torn.name, torn.why, torn.reason), ("a.JPG", "it is empty", Reason.PICTURE_LOST)
        )


class Awaiting(FolderTest):
    def test_a_whole_file_is_not_waited_for(self):
        path = self.write("a.JPG", picture_files.jpeg())
        await_whole(path, 5, sleep=lambda _: self.fail("it waited"))

    def test_a_file_that_is_being_written_is_waited_for(self):
        content = picture_files.jpeg()
        parts = [content[:50], content[:120], content]
        path = os.path.join(self.folder, "a.JPG")

        def write_more(_):
            if parts:
                self.write("a.JPG", parts.pop(0))

        self.assertEqual(await_whole(path, 5, sleep=write_more).size, len(content))

    def test_a_file_that_does_not_tell_its_end_has_to_be_at_rest(self):
        sizes = [10, 20, 30]
        path = self.write("a.raw", b"x" * 5)
        slept = []

        def write_more(pause):
            slept.append(pause)
            if sizes:
                self.write("a.raw", b"x" * sizes.pop(0))

        self.assertEqual(await_whole(path, 5, sleep=write_more).size, 30)
        self.assertGreaterEqual(sum(slept[3:]), pictures.REST - 1e-9)

    def test_what_stays_torn_is_told_with_its_reason(self):
        path = self.write("a.JPG", picture_files.jpeg()[:-1])
        with self.assertRaises(Torn) as caught:
            await_whole(path, 0.1)
        self.assertIn("does not end", caught.exception.why)
        with self.assertRaises(Torn):
            await_whole(os.path.join(self.folder, "none.JPG"), 0.1)

    def test_a_torn_file_is_read_again_only_when_it_changed(self):
        path = self.write("a.JPG", picture_files.jpeg()[:-1])
        patched = mock.patch.object(pictures, "inspect", wraps=inspect)
        with patched as reading, contextlib.suppress(Torn):
            await_whole(path, 0.2, sleep=lambda _: None)
        if os.name == "posix":
            self.assertEqual(reading.call_count, 1)


def full(ledger):
    """A disk that has no room for a record."""
    return mock.patch.object(ledger, "append", side_effect=WriteFailed("no room"))


VARIANTS = (contextlib.suppress, no_links, no_links_and_no_system_call)


class Placing(FolderTest):
    def test_nothing_is_replaced(self):
        for variant in VARIANTS:
            with self.subTest(variant=variant.__name__), variant():
                self.write("in/b.JPG", b"old")
                source = self.write("source.JPG", b"new")
                second = self.write("second.JPG", b"newer")
                self.assertEqual(place(source, self.folder, "in/b.JPG"), "in/b (2).JPG")
                self.assertEqual(place(second, self.folder, "in/b.JPG"), "in/b (3).JPG")
                self.assertEqual(self.files(), ["in/b (2).JPG", "in/b (3).JPG", "in/b.JPG"])
                self.assertEqual(pathlib.Path(self.folder, "in/b.JPG").read_bytes(), b"old")
                for name in self.files():
                    os.remove(os.path.join(self.folder, name))

    def test_a_name_outside_of_the_folder_is_refused(self):
        source = self.write("a.JPG", b"new")
        for name in ("../b.JPG", "/b.JPG", "", "a/../../b"):
            with self.subTest(name=name), self.assertRaises(OSError):
                place(source, self.folder, name)

    if os.name == "nt":

        def test_names_that_differ_in_case_alone_are_one(self):
            self.write("b.JPG", b"old")
            self.assertEqual(place(self.write("x.JPG", b"new"), self.folder, "B.jpg"), "B (2).jpg")


class Settling(FolderTest):
    def setUp(self):
        super().setUp()
        self.ledger = Ledger(self.folder)
        self.spool = Spool.make(self.folder)
        self.addCleanup(self.spool.close)

    def spooled(self, name="Canon_1_2.JPG", **changes):
        path = os.path.join(self.spool.path, name)
        pathlib.Path(path).write_bytes(picture_files.jpeg(**changes))
        return path

    def test_a_picture_is_named_and_recorded_and_gone_from_the_spool(self):
        for variant in VARIANTS:
            with self.subTest(variant=variant.__name__), variant():
                path = self.spooled(width=10 + VARIANTS.index(variant))
                event = settle(self.ledger, path, lambda: "day/a.JPG", FIELDS)
                number = "" if variant is VARIANTS[0] else " (%d)" % (VARIANTS.index(variant) + 1)
                self.assertEqual(event.file, "day/a%s.JPG" % number)
                self.assertEqual((event.shot, event.original), (1, "Canon_1_2.JPG"))
                self.assertEqual(event.settings, {"iso": "100"})
                self.assertEqual(self.spool.files(), [])
                self.assertEqual(list(self.ledger.events())[-1], event)
        self.assertEqual(verify(self.folder), [])

    def test_a_folder_that_is_there_is_not_made_and_nothing_is_waited_for(self):
        settle(self.ledger, self.spooled(), lambda: "day/a.JPG", FIELDS)
        path = self.spooled(width=11)
        with mock.patch("os.mkdir") as made, mock.patch("time.sleep") as slept:
            settle(self.ledger, path, lambda: "day/b.JPG", FIELDS)
        made.assert_not_called()
        slept.assert_not_called()
        self.assertEqual(self.files(), ["day/a.JPG", "day/b.JPG"])

    def test_the_name_is_made_with_the_lock_held(self):
        seen = []

        def make_name():
            other = threading.Thread(
                target=lambda: seen.append(self.ledger._lock._threads.acquire(blocking=False))
            )
            other.start()
            other.join()
            return "%d.JPG" % self.ledger.number_of("s", 1)

        self.assertEqual(settle(self.ledger, self.spooled(), make_name, FIELDS).file, "1.JPG")
        self.assertEqual(seen, [False])

    def test_a_full_disk_leaves_the_picture_in_the_spool_and_no_name(self):
        for variant in VARIANTS:
            with self.subTest(variant=variant.__name__), variant():
                path = self.spooled()
                with full(self.ledger), self.assertRaises(WriteFailed):
                    settle(self.ledger, path, lambda: "a.JPG", FIELDS)
                self.assertEqual(self.spool.files(), [path])
                self.assertEqual(self.files(), [])

    def test_a_torn_file_is_neither_named_nor_recorded(self):
        path = self.spooled()
        pathlib.Path(path).write_bytes(picture_files.jpeg()[:-1])
        with self.assertRaises(Torn):
            settle(self.ledger, path, lambda: "a.JPG", FIELDS)
        self.assertEqual((self.files(), self.ledger.last), ([], 0))

    def test_a_rename_that_failed_behind_the_record_is_done_by_the_next_try(self):
        path = self.spooled()
        broken = mock.patch.object(pictures, "rename_new", side_effect=OSError(errno.EIO, "broken"))
        with no_links(), broken, self.assertRaises(WriteFailed):
            settle(self.ledger, path, lambda: "a.JPG", FIELDS)
        with no_links():
            event = settle(self.ledger, path, lambda: "a.JPG", FIELDS)
        self.assertEqual(list(self.ledger.events()), [event])
        self.assertEqual((self.files(), verify(self.folder)), (["a.JPG"], []))

    def test_a_name_that_another_program_takes_at_the_same_moment_is_not_replaced(self):
        rename = pictures.rename_new

        def late(source, target):
            if not os.path.exists(target) and target.endswith("a.JPG"):
                self.write("a.JPG", b"of another program")
            rename(source, target)

        with no_links(), mock.patch.object(pictures, "rename_new", late):
            event = settle(self.ledger, self.spooled(), lambda: "a.JPG", FIELDS)
        self.assertEqual(event.file, "a (2).JPG")
        self.assertEqual(pathlib.Path(self.folder, "a.JPG").read_bytes(), b"of another program")
        self.assertEqual([e.kind for e in self.ledger.events()], ["picture", "alarm", "picture"])


class Spools(FolderTest):
    def test_a_spool_in_use_is_no_orphan(self):
        with Spool.make(self.folder) as spool:
            self.assertTrue(os.path.isdir(spool.path))
            self.assertEqual(list(pictures.orphans(self.folder)), [])

    def test_an_empty_spool_goes_when_it_is_closed(self):
        spool = Spool.make(self.folder)
        spool.close()
        spool.close()
        self.assertFalse(os.path.exists(spool.path))

    def test_a_spool_of_a_killed_process_is_an_orphan(self):
        child = subprocess.Popen(
            [
                sys.executable,
                "-c",
                "import sys; from lumatie_host.pictures import Spool\n"
                "spool = Spool.make(sys.argv[1]); print(spool.path, flush=True); sys.stdin.read()",
                self.folder,
            ],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            universal_newlines=True,
        )
        self.addCleanup(child.communicate)
        path = child.stdout.readline().strip()
        self.assertEqual(list(pictures.orphans(self.folder)), [])
        child.kill()
        child.wait()
        self.assertEqual([spool.path for spool in pictures.orphans(self.folder)], [path])
        self.assertFalse(os.path.exists(path))

    def test_a_spool_that_was_never_held_goes(self):
        path = pathlib.Path(self.folder, ".lumatie", "spool", "1-abc")
        path.mkdir(parents=True)
        self.assertEqual(list(pictures.orphans(self.folder)), [])
        self.assertFalse(path.exists())

    def test_making_and_looking_for_orphans_at_the_same_time_lose_no_spool(self):
        stop = threading.Event()

        def look():
            while not stop.is_set():
                list(pictures.orphans(self.folder))

        thread = threading.Thread(target=look)
        thread.start()
        try:
            for _ in range(200):
                with Spool.make(self.folder) as spool:
                    pathlib.Path(spool.path, "x.JPG").write_bytes(b"x")
                    os.remove(os.path.join(spool.path, "x.JPG"))
        finally:
            stop.set()
            thread.join()


class Recovering(FolderTest):
    def setUp(self):
        super().setUp()
        self.ledger = Ledger(self.folder)

    def left(self, name, content):
        """A file in the spool of a process that is gone."""
        return self.write(".lumatie/spool/1-abc/" + name, content)

    def test_a_whole_file_is_adopted(self):
        self.left("a.JPG", picture_files.jpeg())
        found = recover(self.folder, self.ledger)
        self.assertEqual([(p.file, p.origin) for p in found.pictures], [("a.JPG", "recovered")])
        self.assertEqual(self.files(), ["a.JPG"])
        self.assertEqual(os.listdir(os.path.join(self.folder, ".lumatie/spool")), [])
        self.assertEqual(verify(self.folder), [])

    def test_its_record_has_settings_which_nobody_knows_any_more(self):
        self.left("a.JPG", picture_files.jpeg())
        os.link(self.left("b.JPG", picture_files.jpeg(6000)), os.path.join(self.folder, "c.JPG"))
        recover(self.folder, self.ledger)
        self.assertEqual([record["settings"] for record in self.ledger.read()], [{}, {}])

    def test_the_session_gives_it_a_name(self):
        self.left("a.JPG", picture_files.jpeg())
        template = Template("{date}_{total:03}")

        def adopt(original, found):
            total = self.ledger.number_of("s", 7)
            ext = os.path.splitext(original)[1]
            name = template.name(7, total, original, "", found.taken, ext)
            return pictures.Adoption(name, {"shot": 7})

        found = recover(self.folder, self.ledger, adopt, {"session": "s"})
        self.assertEqual(found.pictures[0].file, "2026-11-22_001.JPG")
        self.assertEqual(found.pictures[0].shot, 7)

    def test_a_torn_file_is_kept_aside_and_told(self):
        content = picture_files.jpeg()[:-1]
        self.left("a.JPG", content)
        self.left("b.JPG", b"")
        found = recover(self.folder, self.ledger)
        self.assertEqual(found.pictures, ())
        self.assertEqual(len(found.alarms), 2)
        self.assertIn("a.JPG", found.alarms[0].what + found.alarms[1].what)
        self.assertEqual(self.files(".lumatie/torn"), ["a.JPG", "b.JPG"])
        kept = pathlib.Path(self.folder, ".lumatie/torn/a.JPG").read_bytes()
        self.assertEqual(kept, content)
        self.assertEqual(list(self.ledger.events()), list(found.alarms))

    def test_a_file_that_goes_meanwhile_is_passed_over(self):
        # Whose spool it is has not ended yet, and takes its picture in at the same time.
        self.left("a.JPG", picture_files.jpeg())
        self.left("b.JPG", picture_files.jpeg(6000))
        look = pictures.inspect

        def look_and_lose(path):
            if path.endswith("a.JPG"):
                os.remove(path)
                return look(path)
            found = look(path)
            os.remove(path)
            return found

        with mock.patch.object(pictures, "inspect", look_and_lose):
            found = recover(self.folder, self.ledger)
        self.assertEqual((found, self.ledger.last), (pictures.Recovered((), ()), 0))

    def test_a_second_torn_file_of_a_name_does_not_replace_the_first(self):
        for content in (b"1", b"2"):
            self.left("a.JPG", content)
            recover(self.folder, self.ledger)
        self.assertEqual(self.files(".lumatie/torn"), ["a (2).JPG", "a.JPG"])

    def test_a_picture_that_was_named_and_not_recorded_is_recorded(self):
        path = self.left("a.JPG", picture_files.jpeg())
        os.makedirs(os.path.join(self.folder, "day"))
        os.link(path, os.path.join(self.folder, "day", "b.JPG"))
        found = recover(self.folder, self.ledger)
        self.assertEqual([p.file for p in found.pictures], ["day/b.JPG"])
        self.assertEqual((self.files(), verify(self.folder)), (["day/b.JPG"], []))
        self.assertFalse(os.path.exists(path))

    def recorded(self, file):
        found = inspect(self.left("a.JPG", picture_files.jpeg()))
        return self.ledger.append(
            "picture", file=file, size=found.size, sha256=found.sha256, format="JPEG", **FIELDS
        )

    def test_a_picture_that_was_named_and_recorded_is_finished_in_silence(self):
        self.recorded("b.JPG")
        path = self.left("a.JPG", picture_files.jpeg())
        os.link(path, os.path.join(self.folder, "b.JPG"))
        self.assertEqual(recover(self.folder, self.ledger), pictures.Recovered((), ()))
        self.assertEqual((self.files(), verify(self.folder)), (["b.JPG"], []))

    def test_a_picture_that_was_recorded_and_not_named_gets_its_name(self):
        self.recorded("day/b.JPG")
        self.assertEqual(recover(self.folder, self.ledger), pictures.Recovered((), ()))
        self.assertEqual((self.files(), verify(self.folder)), (["day/b.JPG"], []))

    def test_a_picture_whose_name_was_taken_and_empty_yet_gets_it(self):
        self.recorded("b.JPG")
        self.write("b.JPG", b"")
        self.assertEqual(recover(self.folder, self.ledger), pictures.Recovered((), ()))
        self.assertEqual((self.files(), verify(self.folder)), (["b.JPG"], []))

    def test_a_picture_that_comes_twice_is_kept_once(self):
        self.left("a.JPG", picture_files.jpeg())
        recover(self.folder, self.ledger)
        self.left("b.JPG", picture_files.jpeg())
        self.assertEqual(recover(self.folder, self.ledger), pictures.Recovered((), ()))
        self.assertEqual(self.files(), ["a.JPG"])

    def test_a_picture_that_was_changed_since_does_not_cost_the_one_in_the_spool(self):
        self.left("a.JPG", picture_files.jpeg())
        recover(self.folder, self.ledger)
        self.write("a.JPG", b"edited")
        self.left("b.JPG", picture_files.jpeg())
        self.assertEqual(recover(self.folder, self.ledger).pictures[0].file, "b.JPG")

    def test_a_full_disk_leaves_everything_where_it_is(self):
        path = self.left("a.JPG", picture_files.jpeg())
        with full(self.ledger), self.assertRaises(WriteFailed):
            recover(self.folder, self.ledger)
        self.assertTrue(os.path.exists(path))
        self.assertEqual(len(recover(self.folder, self.ledger).pictures), 1)


def killed_at(step, work):
    """Runs `work` in a child process that is killed before its line number `step` of this package.

    Returns whether it was killed: False when the work has fewer lines.
    """
    package = os.path.dirname(pictures.__file__)
    child = os.fork()
    if child == 0:
        count = 0

        def count_lines(frame, event, _):
            nonlocal count
            if not frame.f_code.co_filename.startswith(package):
                return None
            if event == "line":
                count += 1
                if count == step:
                    os.kill(os.getpid(), 9)
            return count_lines

        try:
            sys.settrace(count_lines)
            work()
        except BaseException:
            os._exit(3)
        os._exit(0)
    _, status = os.waitpid(child, 0)
    if os.WIFSIGNALED(status):
        return True
    if os.WEXITSTATUS(status) != 0:
        raise AssertionError("the work failed")
    return False


class Killed(FolderTest):
    """A process that is killed between any two lines on a picture's way."""

    if hasattr(os, "fork"):

        def setUp(self):
            super().setUp()
            # The system stays, so what it was given is there without being flushed.
            for module in ("ledger.os.fsync", "ledger.flush_folder"):
                patch = mock.patch("lumatie_host." + module)
                patch.start()
                self.addCleanup(patch.stop)

        def shoot(self, ledger):
            """What a session does with two pictures."""
            spool = Spool.make(self.folder)
            for shot, width in ((1, 11), (2, 22)):
                path = os.path.join(spool.path, "Canon_%d.JPG" % width)
                pathlib.Path(path).write_bytes(picture_files.jpeg(width))
                settle(ledger, path, lambda: "shoot.JPG", {**FIELDS, "shot": shot})
            spool.close()

        def check(self, whole):
            """Every picture that was whole is there once and was recorded once."""
            ledger = Ledger(self.folder)
            ledger.prepare()
            events = [event for event in ledger.events() if event.kind == "picture"]
            self.assertEqual(sorted(event.file for event in events), self.files())
            digests = [event.sha256 for event in events]
            self.assertEqual(len(digests), len(set(digests)))
            known = [hashlib.sha256(picture_files.jpeg(width)).hexdigest() for width in (11, 22)]
            self.assertEqual(set(digests) - set(known), set())
            self.assertGreaterEqual(len(digests), whole)
            self.assertEqual([n["n"] for n in ledger.read()], list(range(1, ledger.last + 1)))
            damaged = {finding.what for finding in verify(self.folder)} - {"damaged"}
            self.assertEqual(damaged, set())
            self.assertEqual(self.files(".lumatie/spool"), [])

        def clear(self):
            for below in (".lumatie/torn", ".lumatie/spool", ""):
                for name in self.files(below):
                    os.remove(os.path.join(self.folder, below, name))
            with contextlib.suppress(FileNotFoundError):
                os.remove(os.path.join(self.folder, ".lumatie/ledger.jsonl"))

        def whole_files(self):
            """How many pictures are whole anywhere in the folder."""
            digests = set()
            for path in pathlib.Path(self.folder).rglob("*.JPG"):
                with contextlib.suppress(Torn):
                    digests.add(inspect(str(path)).sha256)
            return len(digests)

        def every_step(self, variant, stride):
            step, kills = 1, 0
            with variant():
                while True:
                    self.clear()
                    if not killed_at(step, lambda: self.shoot(Ledger(self.folder))):
                        break
                    with self.subTest(step=step):
                        whole = self.whole_files()
                        recover(self.folder, Ledger(self.folder))
                        self.check(whole)
                    kills += 1
                    step += stride
            return kills

        def test_before_any_line_of_naming_and_recording(self):
            self.assertGreater(self.every_step(VARIANTS[0], 5), 100)

        def test_before_any_line_without_hard_links(self):
            self.assertGreater(self.every_step(VARIANTS[1], 5), 100)

        def test_before_any_line_without_hard_links_and_without_renaming_that_keeps(self):
            self.assertGreater(self.every_step(VARIANTS[2], 7), 60)

        def torn_files(self):
            """What was kept aside; a name that was taken for it and not used is none."""
            folder = pathlib.Path(self.folder, ".lumatie", "torn")
            contents = [path.read_bytes() for path in folder.iterdir()]
            return [content for content in contents if content]

        def left_over(self, variant):
            """Two pictures, one of them as far as it got when the power went, and a torn one."""
            stop = {"side_effect": KeyboardInterrupt}

            def shoot():
                with contextlib.suppress(KeyboardInterrupt):
                    self.shoot(Ledger(self.folder))

            remove = mock.patch.object(pictures, "_remove", **stop)
            with variant(), remove, mock.patch.object(pictures, "rename_new", **stop):
                killed_at(0, shoot)
            self.assertEqual(len(list(Ledger(self.folder).events())), 1)
            spool = os.path.join(self.folder, ".lumatie", "spool", "1-abc")
            os.makedirs(spool, exist_ok=True)
            pathlib.Path(spool, "x.JPG").write_bytes(picture_files.jpeg(22))
            pathlib.Path(spool, "y.JPG").write_bytes(picture_files.jpeg(22)[:-1])

        def test_before_any_line_of_a_recovery(self):
            for variant in VARIANTS:
                step, goes_on = 1, True
                while goes_on:
                    self.clear()
                    self.left_over(variant)
                    with self.subTest(variant=variant.__name__, step=step), variant():
                        goes_on = killed_at(step, lambda: recover(self.folder, Ledger(self.folder)))
                        recover(self.folder, Ledger(self.folder))
                        self.check(2)
                        self.assertEqual(self.torn_files(), [picture_files.jpeg(22)[:-1]])
                    step += 13
                self.assertGreater(step, 200)


class TwoProcesses(FolderTest):
    def test_they_replace_no_file_of_each_other_and_give_no_number_twice(self):
        program = (
            "import os, sys, picture_files\n"
            "from lumatie_host.ledger import Ledger\n"
            "from lumatie_host.names import Template\n"
            "from lumatie_host.pictures import Spool, settle\n"
            "folder, session, first = sys.argv[1], sys.argv[2], int(sys.argv[3])\n"
            "ledger, spool = Ledger(folder), Spool.make(folder)\n"
            "template = Template('x_{total:05}')\n"
            "import datetime\n"
            "now = datetime.datetime.now()\n"
            "for shot in range(1, int(sys.argv[4]) + 1):\n"
            "    path = os.path.join(spool.path, 'a.JPG')\n"
            "    open(path, 'wb').write(picture_files.jpeg(first + shot))\n"
            "    name = lambda: template.name(\n"
            "        shot, ledger.number_of(session, shot), 'a.JPG', '', now, 'JPG')\n"
            "    settle(ledger, path, name, {'shot': shot, 'origin': 'host', 'session': session})\n"
            "spool.close()\n"
        )
        count = 500 if os.name == "posix" else 50
        environment = {
            **os.environ,
            "PYTHONPATH": os.pathsep.join(
                [os.path.dirname(__file__), os.environ.get("PYTHONPATH", "")]
            ),
        }
        children = [
            subprocess.Popen(
                [sys.executable, "-c", program, self.folder, name, first, str(count)],
                env=environment,
            )
            for name, first in (("a", "0"), ("b", "10000"))
        ]
        for child in children:
            self.assertEqual(child.wait(timeout=300), 0)
        files = self.files()
        self.assertEqual(files, ["x_%05d.JPG" % n for n in range(1, 2 * count + 1)])
        digests = {
            hashlib.sha256(pathlib.Path(self.folder, name).read_bytes()).hexdigest()
            for name in files
        }
        self.assertEqual(len(digests), 2 * count)
        self.assertEqual(verify(self.folder), [])
        self.assertEqual(Ledger(self.folder).last, 2 * count)


class Speed(FolderTest):
    def test_a_large_picture_takes_little_longer_than_its_hash(self):
        """Reading and hashing alone is the yardstick, measured on the same file in turns."""
        ledger = Ledger(self.folder)
        content = picture_files.jpeg(data=os.urandom(20_000_000).replace(b"\xff", b"\xfe"))
        with Spool.make(self.folder) as spool:
            alone, settled = [], []
            for turn in range(10):
                path = os.path.join(spool.path, "%d.JPG" % turn)
                pathlib.Path(path).write_bytes(content)
                inspect(path)  # the cache is warm
                started = time.perf_counter()
                with open(path, "rb", buffering=0) as file:
                    digest = hashlib.sha256()
                    for block in iter(lambda: file.read(1 << 20), b""):
                        digest.update(block)
                alone.append(time.perf_counter() - started)
                started = time.perf_counter()
                settle(ledger, path, lambda: "{}.JPG".format(turn), FIELDS, await_whole(path, 5))
                settled.append(time.perf_counter() - started)
        print(
            "\n20 MB: read and hashed in %.1f ms, settled in %.1f ms"
            % (min(alone) * 1000, min(settled) * 1000),
            file=sys.stderr,
        )
        self.assertLess(min(settled), 1.3 * min(alone) + 0.02)


if __name__ == "__main__":
    unittest.main()
