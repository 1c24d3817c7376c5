"""The second copy: verified, never replacing, tried again, and out of everybody's way."""

import contextlib
import errno
import hashlib
import logging
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading
import time
import tracemalloc
import unittest
from unittest import mock

from disks import no_links
from lumatie_host import copies, errors, files
from virtual_cameras import wait_until

HOST = pathlib.Path(copies.__file__).resolve().parents[1]
PATIENCE = 20  # seconds for anything to happen
SOON = (0.01, 0.05)  # pauses between tries

WRITER = """
import sys
from lumatie_host import copies
path, stream = copies._new_temporary(sys.argv[1])
stream.write(b"half of a pict")
print(path, flush=True)
sys.stdin.read()
"""


def sha256(data):
    return hashlib.sha256(data).hexdigest()


class CopierCase(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext_(tempfile.TemporaryDirectory())
        self.root = pathlib.Path(folder).resolve()
        self.source = self.root / "shoot"
        self.target = self.root / "second"
        self.source.mkdir()
        self.target.mkdir()
        self.copied = []
        self.failed = []
        self.told = threading.Condition()
        logging.getLogger("lumatie_host").setLevel(logging.CRITICAL)
        self.addCleanup(logging.getLogger("lumatie_host").setLevel, logging.NOTSET)

    def enterContext_(self, manager):  # unittest has it from 3.11 on
        value = manager.__enter__()
        self.addCleanup(manager.__exit__, None, None, None)
        return value

    def on_copied(self, *values):
        with self.told:
            self.copied.append(values)
            self.told.notify_all()

    def on_failed(self, *values):
        with self.told:
            self.failed.append(values)
            self.told.notify_all()

    def until(self, condition):
        wait_until(condition, "what the test waits for", PATIENCE)

    def copier(self, **options):
        options.setdefault("retry", SOON)
        copier = copies.Copier(
            str(self.target), self.on_copied, self.on_failed, source=str(self.source), **options
        )
        self.addCleanup(copier.close, 0)
        return copier

    def picture(self, name, data=b"\xff\xd8 a picture \xff\xd9"):
        path = self.source / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(data)
        return str(path), name, sha256(data)

    def names(self):
        return sorted(os.listdir(str(self.target)))


class Copying(CopierCase):
    def test_a_picture_is_copied_and_told_with_its_hash_and_delay(self):
        copier = self.copier()
        picture = self.picture("a.JPG")
        copier.add(*picture)
        self.assertTrue(copier.wait(PATIENCE))
        [(name, to, digest, seconds)] = self.copied
        self.assertEqual((name, to), ("a.JPG", str(self.target / "a.JPG")))
        self.assertEqual(digest, picture[2])
        self.assertTrue(0 <= seconds < PATIENCE)
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"\xff\xd8 a picture \xff\xd9")
        self.assertEqual(self.names(), ["a.JPG"])
        self.assertEqual(self.failed, [])

    def test_a_picture_larger_than_a_block_is_copied_whole(self):
        data = os.urandom(2 * copies.BLOCK + 17)
        copier = self.copier()
        copier.add(*self.picture("a.JPG", data))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual((self.target / "a.JPG").read_bytes(), data)

    def test_an_empty_file_is_copied(self):
        copier = self.copier()
        copier.add(*self.picture("a.JPG", b""))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"")

    def test_a_name_with_folders_makes_them_in_the_target(self):
        copier = self.copier()
        copier.add(*self.picture("day1/a.JPG"))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertTrue((self.target / "day1" / "a.JPG").is_file())

    def test_a_name_that_leads_out_of_the_target_is_refused(self):
        copier = self.copier()
        for name in ("../a.JPG", "/a.JPG", "day1/../../a.JPG", "", "a\0.JPG", "."):
            with self.subTest(name), self.assertRaises(ValueError):
                copier.add(str(self.source / "a.JPG"), name, "0" * 64)

    def test_nothing_stands_under_the_final_name_before_it_was_read_back(self):
        seen = []
        verify = copies.Copier._verify

        def look(copier, job, stream):
            seen.append(self.names())
            verify(copier, job, stream)

        with mock.patch.object(copies.Copier, "_verify", look):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(copier.wait(PATIENCE))
        [[name]] = seen
        self.assertTrue(name.startswith(".lumatie-copy-"))

    def test_a_copy_that_reads_otherwise_than_written_is_no_copy(self):
        fill = copies.Copier._fill
        bad = [True]

        def damage(copier, job, stream):
            fill(copier, job, stream)
            if bad.pop() if bad else False:
                stream.seek(3)
                stream.write(b"X")

        with mock.patch.object(copies.Copier, "_fill", damage):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(copier.wait(PATIENCE))
        [(name, text)] = self.failed
        self.assertEqual(name, "a.JPG")
        self.assertEqual(text, "what was written to %s reads otherwise" % self.target)
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"\xff\xd8 a picture \xff\xd9")
        self.assertEqual(self.names(), ["a.JPG"])

    def test_a_picture_that_has_changed_is_not_copied(self):
        copier = self.copier()
        path, name, digest = self.picture("a.JPG")
        pathlib.Path(path).write_bytes(b"something else")
        copier.add(path, name, digest)
        self.until(lambda: self.failed)
        self.assertEqual(self.failed, [("a.JPG", path + " is not what it was when it came")])
        self.assertEqual(copier.close(PATIENCE), ["a.JPG"])
        self.assertEqual(self.names(), [])

    def test_the_hash_may_be_given_in_capitals(self):
        copier = self.copier()
        path, name, digest = self.picture("a.JPG")
        copier.add(path, name, digest.upper())
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.failed, [])


class Collisions(CopierCase):
    def test_an_equal_file_that_is_there_counts_as_copied(self):
        (self.target / "a.JPG").write_bytes(b"\xff\xd8 a picture \xff\xd9")
        before = (self.target / "a.JPG").stat()
        copier = self.copier()
        copier.add(*self.picture("a.JPG"))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.copied[0][1], str(self.target / "a.JPG"))
        self.assertEqual((self.target / "a.JPG").stat(), before)
        self.assertEqual(self.names(), ["a.JPG"])

    def test_an_equal_file_counts_without_anything_being_written(self):
        (self.target / "a.JPG").write_bytes(b"\xff\xd8 a picture \xff\xd9")
        full = OSError(errno.ENOSPC, "No space left on device")
        copier = self.copier()
        with mock.patch.object(copies, "_write_all", side_effect=full):
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.failed, [])

    def test_another_file_stays_and_the_copy_is_numbered(self):
        (self.target / "a.JPG").write_bytes(b"\xff\xd8 A PICTURE \xff\xd9")  # of the same size
        (self.target / "a (2).JPG").mkdir()
        copier = self.copier()
        copier.add(*self.picture("a.JPG"))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.copied[0][1], str(self.target / "a (3).JPG"))
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"\xff\xd8 A PICTURE \xff\xd9")
        self.assertEqual(self.names(), ["a (2).JPG", "a (3).JPG", "a.JPG"])

    @unittest.skipIf(os.name == "nt", "Windows' paths are shorter than such a name")
    def test_a_numbered_copy_of_the_longest_name_is_cut(self):
        name = "x" * (files.LONGEST - 4) + ".JPG"
        (self.target / name).write_bytes(b"another file")
        copier = self.copier()
        copier.add(*self.picture(name))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.names(), sorted([name, "x" * (files.LONGEST - 8) + " (2).JPG"]))

    def test_an_equal_file_under_a_numbered_name_counts_as_copied(self):
        (self.target / "a.JPG").write_bytes(b"another")
        (self.target / "a (2).JPG").write_bytes(b"\xff\xd8 a picture \xff\xd9")
        copier = self.copier()
        copier.add(*self.picture("a.JPG"))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.copied[0][1], str(self.target / "a (2).JPG"))
        self.assertEqual(self.names(), ["a (2).JPG", "a.JPG"])

    def test_a_name_that_is_taken_while_the_copy_is_written_is_not_replaced(self):
        fill = copies.Copier._fill

        def take(copier, job, stream):
            fill(copier, job, stream)
            (self.target / "a.JPG").write_bytes(b"came in between")

        with mock.patch.object(copies.Copier, "_fill", take):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"came in between")
        self.assertEqual(self.copied[0][1], str(self.target / "a (2).JPG"))

    def test_the_picture_itself_by_another_name_is_no_copy(self):
        path, name, digest = self.picture("a.JPG")
        os.link(path, str(self.target / "a.JPG"))
        copier = self.copier()
        copier.add(path, name, digest)
        self.until(lambda: self.failed)
        where = str(self.target / "a.JPG")
        self.assertEqual(self.failed, [("a.JPG", where + " is the picture itself, not a copy")])
        self.assertEqual(self.copied, [])

    def test_a_drive_without_hard_links_gets_names_that_replace_nothing(self):
        with no_links():
            self.name_twice()

    def test_a_drive_with_neither_links_nor_such_a_rename_gets_them_too(self):
        with no_links(), self.without_the_rename():
            self.name_twice()

    @unittest.skipIf(os.name == "nt", "Windows renames without replacing, so no name is reserved")
    def test_a_name_that_was_reserved_in_vain_is_given_back(self):
        replace = os.replace
        fails = [OSError(errno.EIO, "Input/output error")]

        def fail_once(*paths):
            if fails:
                raise fails.pop()
            replace(*paths)

        with no_links(), self.without_the_rename(), mock.patch.object(os, "replace", fail_once):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(copier.wait(PATIENCE))
        text = "the copy a.JPG cannot be made: Input/output error"
        self.assertEqual(self.failed, [("a.JPG", text)])
        self.assertEqual(self.names(), ["a.JPG"])

    @contextlib.contextmanager
    def without_the_rename(self):
        if os.name == "nt":  # whose rename never replaces
            yield
            return
        with mock.patch.object(files, "_rename_with_flag", return_value=False):
            yield

    def name_twice(self):
        (self.target / "a.JPG").write_bytes(b"another")
        copier = self.copier()
        copier.add(*self.picture("a.JPG"))
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.failed, [])
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"another")
        copied = (self.target / "a (2).JPG").read_bytes()
        self.assertEqual(copied, b"\xff\xd8 a picture \xff\xd9")
        self.assertEqual(self.names(), ["a (2).JPG", "a.JPG"])


class Failures(CopierCase):
    def test_a_drive_that_comes_back_gets_everything_and_one_alarm_is_raised(self):
        copier = self.copier()
        away = self.root / "away"
        self.target.rename(away)
        for number in range(10):
            copier.add(*self.picture("%d.JPG" % number, b"picture %d" % number))
        self.until(lambda: self.failed)
        tries = []
        real = copies.Copier._check_target_is_there
        with mock.patch.object(
            copies.Copier,
            "_check_target_is_there",
            lambda copier: (tries.append(1), real(copier)),
        ):
            self.until(lambda: len(tries) >= 3)
        self.assertEqual(copier.lag, (10, 90))
        self.assertFalse(self.target.exists(), "the folder was made anew")
        away.rename(self.target)
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.failed, [("0.JPG", "the folder %s is not there" % self.target)])
        self.assertEqual(self.names(), ["%d.JPG" % number for number in range(10)])
        self.assertEqual(copier.lag, (0, 0))

    def test_a_drive_pulled_in_the_middle_of_a_copy_gets_it_when_it_is_back(self):
        away = self.root / "away"
        write = copies._write_all
        pulled = []

        def pull(stream, data):
            if not pulled:
                pulled.append(self.target.rename(away))
                raise OSError(errno.EIO, "Input/output error")
            write(stream, data)

        if os.name == "nt":  # renames no folder with an open file in it
            pull = self.fails_once(errno.EIO)
        with mock.patch.object(copies, "_write_all", pull):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.until(lambda: self.failed)
            if away.exists():
                self.assertEqual(self.copied, [])
                away.rename(self.target)
            self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(len(self.failed), 1)
        self.assertEqual((self.target / "a.JPG").read_bytes(), b"\xff\xd8 a picture \xff\xd9")

    @unittest.skipIf(os.name == "nt", "Windows renames no folder with an open file in it")
    def test_a_drive_that_comes_back_keeps_nothing_unfinished(self):
        away = self.root / "away"
        verify = copies.Copier._verify
        pulled = []

        def pull(copier, job, stream):
            if not pulled:
                pulled.append(self.target.rename(away))
            verify(copier, job, stream)

        with mock.patch.object(copies.Copier, "_verify", pull):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.until(lambda: self.failed)
        self.assertEqual([name[:14] for name in os.listdir(str(away))], [".lumatie-copy-"])
        away.rename(self.target)
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.names(), ["a.JPG"])

    def fails_once(self, number):
        write = copies._write_all
        errors_left = [OSError(number, os.strerror(number))]

        def fail(stream, data):
            if errors_left:
                raise errors_left.pop()
            write(stream, data)

        return fail

    def test_an_empty_mount_point_in_place_of_the_drive_gets_nothing(self):
        mounted = [True]
        ismount = os.path.ismount
        target = os.path.realpath(str(self.target))
        with mock.patch.object(
            os.path, "ismount", lambda path: mounted[0] if path == target else ismount(path)
        ):
            copier = self.copier()
            mounted[0] = False
            copier.add(*self.picture("a.JPG"))
            self.until(lambda: self.failed)
            self.assertEqual(self.failed, [("a.JPG", "the drive of %s is not there" % self.target)])
            self.assertEqual(self.names(), [])
            mounted[0] = True
            self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual(self.names(), ["a.JPG"])

    def test_a_full_disk_is_told_once_and_leaves_nothing_behind(self):
        for number in (errno.ENOSPC, errno.EROFS):
            with self.subTest(errno.errorcode[number]):
                self.failed.clear()
                full = [True]
                write = copies._write_all
                tries = []

                def fail(stream, data):
                    tries.append(1)
                    if full[0]:
                        write(stream, data[:5])
                        raise OSError(number, os.strerror(number))
                    write(stream, data)

                name = "%d.JPG" % number
                with mock.patch.object(copies, "_write_all", fail):
                    copier = self.copier()
                    copier.add(*self.picture(name))
                    self.until(lambda: len(tries) >= 4)
                    self.assertEqual(self.copied, [])
                    full[0] = False
                    self.assertTrue(copier.wait(PATIENCE))
                text = "the copy cannot be written to %s: %s"
                text %= (self.target, os.strerror(number))
                self.assertEqual(self.failed, [(name, text)])
                self.assertEqual(self.names(), [name])
                (self.target / name).unlink()
                self.copied.clear()

    def test_a_picture_that_vanished_holds_up_no_other_and_is_copied_when_it_is_back(self):
        copier = self.copier()
        gone = self.picture("gone.JPG")
        os.rename(gone[0], gone[0] + ".away")
        copier.add(*gone)
        copier.add(*self.picture("b.JPG", b"b"))
        copier.add(*self.picture("c.JPG", b"c"))
        self.until(lambda: len(self.copied) == 2)
        self.assertEqual(copier.lag[0], 1)
        os.rename(gone[0] + ".away", gone[0])
        self.assertTrue(copier.wait(PATIENCE))
        self.assertEqual([name for name, _ in self.failed], ["gone.JPG"])
        self.assertIn("cannot be read", self.failed[0][1])
        self.assertEqual(self.names(), ["b.JPG", "c.JPG", "gone.JPG"])

    def test_the_pauses_grow_to_the_longest_and_no_further(self):
        pauses = []
        now = [0.0]

        class Condition(threading.Condition().__class__):
            """Lets the time that is waited for pass at once, on the copier's own clock."""

            def wait(self, timeout=None):
                if timeout is None or threading.current_thread().name != "lumatie-copies":
                    return super().wait(timeout)
                if len(pauses) == 5:
                    return super().wait(None)
                pauses.append(round(timeout, 6))
                now[0] += timeout
                return False

        with mock.patch.object(threading, "Condition", Condition):
            copier = self.copier(retry=(1.0, 5.0), clock=lambda: now[0])
        os.rmdir(str(self.target))
        copier.add(*self.picture("a.JPG"))
        self.until(lambda: len(pauses) == 5)
        self.assertEqual(pauses, [1.0, 2.0, 4.0, 5.0, 5.0])

    def test_a_callback_that_raises_ends_nothing(self):
        told = []

        def fail(*values):
            told.append(values[0])
            raise RuntimeError("an application's own error")

        copier = copies.Copier(str(self.target), fail, fail, retry=SOON)
        self.addCleanup(copier.close, 0)
        copier.add(str(self.source / "missing.JPG"), "missing.JPG", "0" * 64)
        copier.add(*self.picture("a.JPG"))
        copier.add(*self.picture("b.JPG"))
        self.until(lambda: len(told) == 3)
        self.assertEqual(told, ["missing.JPG", "a.JPG", "b.JPG"])
        self.assertEqual(copier.close(PATIENCE), ["missing.JPG"])

    def test_a_target_that_hangs_holds_up_neither_add_nor_lag_nor_close(self):
        release = threading.Event()
        self.addCleanup(release.set)
        hangs = threading.Event()
        write = copies._write_all

        def hang(stream, data):
            hangs.set()
            release.wait(PATIENCE)
            write(stream, data)

        with mock.patch.object(copies, "_write_all", hang):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(hangs.wait(PATIENCE))
            picture = self.picture("b.JPG")
            began = time.monotonic()
            for _ in range(1000):
                copier.add(*picture)
            self.assertEqual(copier.lag[0], 1001)
            left = copier.close(0.05)
            self.assertLess(time.monotonic() - began, PATIENCE / 4)
            self.assertEqual(left[:2], ["a.JPG", "b.JPG"])
            self.assertEqual(len(left), 1001)
            release.set()
            self.until(lambda: not copier._thread.is_alive())
        self.assertEqual(self.names(), [])
        self.assertEqual(self.copied, [])

    def test_a_thousand_waiting_pictures_take_hardly_any_memory(self):
        data = b"x" * 100_000
        picture = self.picture("a.JPG", data)
        os.rmdir(str(self.target))
        self.target.mkdir()
        copier = self.copier()
        os.rmdir(str(self.target))
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        for number in range(1000):
            copier.add(picture[0], "%04d.JPG" % number, picture[2])
        self.assertLess(tracemalloc.get_traced_memory()[1], 3_000_000)
        self.target.mkdir()
        self.assertTrue(copier.wait(6 * PATIENCE))
        self.assertLess(tracemalloc.get_traced_memory()[1], 3_000_000 + 3 * copies.BLOCK)
        self.assertEqual(len(self.names()), 1000)
        self.assertEqual(len(self.copied), 1000)


class Closing(CopierCase):
    def test_close_lets_what_waits_finish_and_returns_nothing(self):
        copier = self.copier()
        for number in range(20):
            copier.add(*self.picture("%02d.JPG" % number))
        self.assertEqual(copier.close(PATIENCE), [])
        self.assertEqual(len(self.names()), 20)
        self.assertEqual(len(self.copied), 20)

    def test_close_returns_at_once_when_nothing_can_work_and_tells_what_is_left(self):
        copier = self.copier(retry=(1000.0, 1000.0))
        self.target.rename(self.root / "away")
        copier.add(*self.picture("a.JPG"))
        copier.add(*self.picture("b.JPG"))
        self.until(lambda: self.failed)
        began = time.monotonic()
        self.assertEqual(sorted(copier.close(PATIENCE)), ["a.JPG", "b.JPG"])
        self.assertLess(time.monotonic() - began, PATIENCE / 2)

    def test_what_had_failed_gets_one_more_try_on_closing(self):
        copier = self.copier(retry=(1000.0, 1000.0))
        self.target.rename(self.root / "away")
        copier.add(*self.picture("a.JPG"))
        self.until(lambda: self.failed)
        (self.root / "away").rename(self.target)
        self.assertEqual(copier.close(PATIENCE), [])
        self.assertEqual(self.names(), ["a.JPG"])

    def test_a_copy_cut_off_by_close_leaves_no_file(self):
        began = threading.Event()
        write = copies._write_all

        def slow(stream, data):
            write(stream, data)
            began.set()
            self.until(lambda: copier._stopped)

        with mock.patch.object(copies, "_write_all", slow):
            copier = self.copier()
            copier.add(*self.picture("a.JPG", bytes(100 * copies.BLOCK)))
            self.assertTrue(began.wait(PATIENCE))
            self.assertEqual(copier.close(0), ["a.JPG"])
        self.until(lambda: not copier._thread.is_alive())
        self.assertEqual(self.names(), [])
        self.assertEqual(copier.close(0), ["a.JPG"])

    def test_what_close_has_given_up_is_not_told_as_copied_later(self):
        hangs, release = threading.Event(), threading.Event()
        self.addCleanup(release.set)
        rename = copies.rename_new

        def hang(path, new):
            hangs.set()
            release.wait(PATIENCE)
            rename(path, new)

        with mock.patch.object(copies, "rename_new", hang):
            copier = self.copier()
            copier.add(*self.picture("a.JPG"))
            self.assertTrue(hangs.wait(PATIENCE))
            self.assertEqual(copier.close(0), ["a.JPG"])
            release.set()
            self.until(lambda: not copier._thread.is_alive())
        self.assertEqual(self.copied, [])

    def test_nothing_is_taken_after_close(self):
        copier = self.copier()
        self.assertEqual(copier.close(PATIENCE), [])
        with self.assertRaises(errors.Closed):
            copier.add(*self.picture("a.JPG"))

    def test_a_callback_may_close(self):
        left = []
        closed = threading.Event()

        def close(*_):
            left.extend(copier.close(0))
            closed.set()

        copier = copies.Copier(str(self.target), close, self.on_failed, retry=SOON)
        copier.add(*self.picture("a.JPG"))
        self.assertTrue(closed.wait(PATIENCE))
        self.assertEqual(left, [])


class Targets(CopierCase):
    def refused(self, target):
        with self.assertRaises(errors.FolderRejected) as raised:
            copies.Copier(str(target), self.on_copied, self.on_failed, source=str(self.source))
        return raised.exception.why

    def test_the_folder_of_the_pictures_is_refused(self):
        why = "the second copy has to lie outside the folder of the pictures"
        self.assertEqual(self.refused(self.source), why)
        self.assertEqual(self.refused(self.source / "copies"), why)
        self.assertEqual(self.refused(self.source / "a" / ".." / "b"), why)
        self.assertFalse((self.source / "copies").exists())

    @unittest.skipIf(os.name == "nt", "Windows lets only the privileged make symbolic links")
    def test_a_link_into_the_folder_of_the_pictures_is_refused(self):
        (self.source / "inner").mkdir()
        (self.root / "link").symlink_to(self.source / "inner")
        self.assertIn("outside", self.refused(self.root / "link"))
        self.assertIn("outside", self.refused(self.root / "link" / "new"))

    def test_a_folder_beside_with_a_longer_name_is_taken(self):
        target = self.root / "shoot copies"
        copier = copies.Copier(
            str(target), self.on_copied, self.on_failed, source=str(self.source), retry=SOON
        )
        copier.add(*self.picture("a.JPG"))
        self.assertEqual(copier.close(PATIENCE), [])
        self.assertTrue((target / "a.JPG").is_file())

    def test_a_folder_whose_parent_is_missing_is_refused(self):
        self.refused(self.root / "no" / "such")
        self.assertFalse((self.root / "no").exists())

    def test_a_file_is_refused(self):
        (self.root / "file").write_bytes(b"")
        self.refused(self.root / "file")
        self.assertEqual((self.root / "file").read_bytes(), b"")

    def test_a_folder_that_cannot_be_written_is_refused(self):
        with mock.patch.object(
            copies, "_new_temporary", side_effect=OSError(errno.EROFS, "Read-only file system")
        ):
            self.assertEqual(self.refused(self.target), "Read-only file system")


class LeftOvers(CopierCase):
    def writer(self):
        """A process in the middle of a copy, and its temporary file."""
        process = subprocess.Popen(
            [sys.executable, "-c", WRITER, str(self.target)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            universal_newlines=True,
            env=dict(os.environ, PYTHONPATH=str(HOST)),
        )
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stdin.close)
        return process, process.stdout.readline().rstrip("\n")

    def test_what_a_killed_process_left_is_removed_at_the_next_start(self):
        process, path = self.writer()
        self.assertTrue(os.path.isfile(path))
        process.send_signal(signal.SIGTERM if os.name == "nt" else signal.SIGKILL)
        process.wait()
        self.copier()
        self.assertEqual(self.names(), [])

    def test_what_a_living_process_writes_stays(self):
        _, path = self.writer()
        self.copier()
        self.assertEqual(self.names(), [os.path.basename(path)])

    def test_what_another_copier_of_this_process_writes_stays(self):
        path, stream = copies._new_temporary(str(self.target))
        with stream:
            self.copier()
            self.assertEqual(self.names(), [os.path.basename(path)])

    def test_nothing_else_is_removed(self):
        machine = copies._machine()
        kept = [
            ".lumatie-copy-00000000-1-0123456789abcdef",  # of another machine
            ".lumatie-copy-%s-999999999-0123456789abcdef.JPG" % machine,
            ".lumatie-copy-",
            ".lumatie-copy-notes.txt",
            "a.JPG",
            "x.lumatie-copy-%s-999999999-0123456789abcdef" % machine,
        ]
        for name in kept:
            (self.target / name).write_bytes(b"somebody's")
        folder = self.target / (".lumatie-copy-%s-999999999-0123456789abcdef" % machine)
        folder.mkdir()
        self.assertEqual(copies.remove_left_overs(str(self.target)), [])
        self.assertEqual(self.names(), sorted([*kept, folder.name]))
        folder.rmdir()
        folder.write_bytes(b"half")
        self.assertEqual(copies.remove_left_overs(str(self.target)), [folder.name])
        self.assertEqual(self.names(), sorted(kept))


if __name__ == "__main__":
    unittest.main()
