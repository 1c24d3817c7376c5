"""The ledger: what is on the disk, whoever writes, and whatever is found there."""

import contextlib
import errno
import hashlib
import json
import math
import os
import pathlib
import pickle
import subprocess
import sys
import tempfile
import threading
import time
import tracemalloc
import unittest
from unittest import mock

from lumatie_host import ledger as ledgers
from lumatie_host.errors import FolderRejected, WriteFailed
from lumatie_host.ledger import Ledger, verify

PICTURE = {
    "file": "a.JPG",
    "size": 3,
    "sha256": "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",  # of "abc"
    "shot": 1,
    "origin": "host",
    "format": "JPEG",
}


def record(n, kind="closed", **fields):
    time_text = "2026-11-22T05:40:48.123Z"
    return json.dumps({"v": 1, "n": n, "time": time_text, "kind": kind, **fields}).encode() + b"\n"


@contextlib.contextmanager
def as_nobody():
    """Without the permission to write everywhere, which tests may have."""
    if os.geteuid() != 0:
        yield
        return
    os.seteuid(65534)
    try:
        yield
    finally:
        os.seteuid(0)


class LedgerTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.path = pathlib.Path(self.folder, ".lumatie", "ledger.jsonl")

    def write(self, content):
        self.path.parent.mkdir(exist_ok=True)
        self.path.write_bytes(content)

    def numbers(self, ledger, since=0):
        return [entry["n"] for entry in ledger.read(since)]

    def child(self, program, *arguments):
        """A process of its own that runs `program` with the package on its path."""
        return subprocess.Popen(
            [sys.executable, "-c", program, self.folder, *arguments],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            universal_newlines=True,
        )

    def holder(self):
        """A process that has the lock until its standard input ends."""
        child = self.child(
            "import sys; from lumatie_host.ledger import Ledger\n"
            "with Ledger(sys.argv[1]).exclusive(): print('held', flush=True); sys.stdin.read()\n"
        )
        self.addCleanup(child.communicate)
        self.assertEqual(child.stdout.readline(), "held\n")
        return child


class Appending(LedgerTest):
    def test_the_first_record_has_number_one_and_the_next_two(self):
        ledger = Ledger(self.folder)
        self.assertEqual(ledger.append("lost", evidence="cable").n, 1)
        self.assertEqual(ledger.append("closed").n, 2)
        lines = [json.loads(line) for line in self.path.read_text().splitlines()]
        self.assertEqual([line["kind"] for line in lines], ["lost", "closed"])
        self.assertEqual((lines[0]["v"], lines[0]["evidence"]), (1, "cable"))

    def test_the_event_that_is_returned_is_the_one_that_is_read_later(self):
        ledger = Ledger(self.folder)
        event = ledger.append("picture", settings={"iso": "100"}, **PICTURE)
        self.assertEqual(list(Ledger(self.folder).events()), [event])

    def test_a_record_is_on_the_disk_before_append_returns(self):
        ledger = Ledger(self.folder)
        ledger.prepare()
        with mock.patch.object(ledgers.os, "fsync", wraps=os.fsync) as fsync:
            ledger.append("closed")
        self.assertEqual(fsync.call_count, 1)

    def test_numbers_go_on_with_those_of_another_ledger_of_the_folder(self):
        first, second = Ledger(self.folder), Ledger(self.folder)
        given = [ledger.append("closed").n for ledger in (first, second, second, first)]
        self.assertEqual(given, [1, 2, 3, 4])

    def test_a_field_that_is_none_is_left_out(self):
        Ledger(self.folder).append("failed", reason="refused", advice="", shot=None)
        self.assertNotIn("shot", json.loads(self.path.read_text()))

    def test_half_a_letter_comes_back_as_it_was(self):
        ledger = Ledger(self.folder)
        ledger.append("lost", evidence="caf\udce9 写真")
        ledger.append("lost", evidence="ü")
        texts = [event.evidence for event in Ledger(self.folder).events()]
        self.assertEqual(texts, ["caf\udce9 写真", "ü"])

    def test_what_json_cannot_say_is_refused_and_not_written(self):
        ledger = Ledger(self.folder)
        ledger.prepare()
        for value in (math.nan, math.inf, object(), {1: "a"}, b"bytes"):
            with self.subTest(value=value), self.assertRaises((TypeError, ValueError)):
                ledger.append("lost", evidence="e", more=value)
        self.assertEqual(self.path.read_bytes(), b"")

    def test_a_record_without_a_field_of_its_kind_is_refused_and_not_written(self):
        ledger = Ledger(self.folder)
        ledger.prepare()
        for kind, fields in (("lost", {}), ("unheard", {}), ("closed", {"n": 7})):
            with self.subTest(kind=kind), self.assertRaises((TypeError, ValueError)):
                ledger.append(kind, **fields)
        self.assertEqual(self.path.read_bytes(), b"")

    def test_a_record_too_long_to_be_read_again_is_refused(self):
        ledger = Ledger(self.folder)
        with self.assertRaises(ValueError):
            ledger.append("lost", evidence="x" * ledgers.LONGEST_LINE)
        self.assertEqual(ledger.append("closed").n, 1)

    def test_a_clock_that_is_set_back_changes_nothing_about_the_order(self):
        ledger = Ledger(self.folder)
        ledger.append("lost", evidence="before")
        with mock.patch.object(ledgers, "time_text", return_value="1999-01-01T00:00:00.000Z"):
            ledger.append("lost", evidence="after")
        self.assertEqual([e.evidence for e in ledger.events()], ["before", "after"])

    def test_an_append_behind_ten_thousand_records_reads_none_of_them(self):
        self.write(b"".join(record(n) for n in range(1, 10001)))
        ledger = Ledger(self.folder)
        with mock.patch.object(ledgers, "_lines", side_effect=AssertionError("read again")):
            self.assertEqual(ledger.append("closed").n, 10001)

    def test_an_append_reads_only_what_others_have_added(self):
        self.write(b"".join(record(n) for n in range(1, 1001)))
        ledger, other = Ledger(self.folder), Ledger(self.folder)
        other.append("closed")
        with mock.patch.object(ledgers, "_record_of", wraps=ledgers._record_of) as reading:
            self.assertEqual(ledger.append("closed").n, 1002)
        self.assertEqual(reading.call_count, 1)

    def test_a_ledger_that_was_taken_away_goes_on_behind_the_highest_number(self):
        ledger = Ledger(self.folder)
        ledger.append("closed")
        ledger.append("closed")
        self.write(b"")
        with self.assertLogs("lumatie_host"):
            self.assertEqual(ledger.append("closed").n, 3)


class ManyWriters(LedgerTest):
    def test_threads_and_processes_write_each_number_once(self):
        program = (
            "import sys; from lumatie_host.ledger import Ledger\n"
            "ledger = Ledger(sys.argv[1])\n"
            "for i in range(100): ledger.append('lost', evidence=sys.argv[2] + str(i))\n"
        )
        children = [self.child(program, name) for name in "ab"]
        ledger = Ledger(self.folder)

        def append():
            for i in range(50):
                ledger.append("lost", evidence="c%d" % i)

        threads = [threading.Thread(target=append) for _ in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for child in children:
            child.communicate(timeout=60)
            self.assertEqual(child.returncode, 0)
        self.assertEqual(self.numbers(ledger), list(range(1, 301)))
        self.assertEqual(ledger.problems(), [])
        told = [event.evidence for event in ledger.events() if event.evidence[0] == "a"]
        self.assertEqual(told, ["a%d" % i for i in range(100)])

    def test_a_thread_that_has_the_lock_may_take_it_again_and_append(self):
        ledger, other = Ledger(self.folder), Ledger(self.folder)
        with ledger.exclusive(), ledger.exclusive(), other.exclusive():
            self.assertEqual(other.append("closed").n, 1)

    def test_another_thread_waits_for_the_lock(self):
        ledger = Ledger(self.folder)
        ledger.prepare()
        appended = threading.Event()

        def append():
            ledger.append("closed")
            appended.set()

        with ledger.exclusive():
            thread = threading.Thread(target=append)
            thread.start()
            self.assertFalse(appended.wait(0.2))
            self.assertEqual(self.path.read_bytes(), b"")
        self.assertTrue(appended.wait(10))
        thread.join()

    def test_a_process_that_is_killed_gives_the_lock_back(self):
        child = self.holder()
        child.kill()
        self.assertEqual(Ledger(self.folder).append("closed").n, 1)

    def test_a_lock_that_is_never_given_back_fails_with_words(self):
        ledger = Ledger(self.folder)
        self.holder()
        with mock.patch.object(ledgers, "PATIENCE", 0.1), self.assertRaises(WriteFailed) as caught:
            ledger.append("closed")
        self.assertIn("another program", caught.exception.evidence)

    def test_the_lock_is_free_after_an_error_inside(self):
        ledger = Ledger(self.folder)
        with contextlib.suppress(KeyError), ledger.exclusive():
            raise KeyError
        thread = threading.Thread(target=ledger.append, args=("closed",))
        thread.start()
        thread.join(10)
        self.assertEqual(ledger.last, 1)


class Failing(LedgerTest):
    """A full disk and its like."""

    def failing_write(self, count):
        def write(descriptor, data):
            nonlocal count
            if count == 0:
                raise OSError(errno.ENOSPC, "No space left on device")
            taken = os.write(descriptor, bytes(data)[:count])
            count -= taken
            return taken

        fake = mock.Mock(wraps=os)
        fake.write = write
        return mock.patch.object(ledgers, "os", fake)

    def failing(self, name):
        return mock.patch.object(ledgers.os, name, side_effect=OSError(errno.EIO, "I/O error"))

    def test_nothing_of_a_record_stays_when_the_disk_is_full(self):
        for count in (0, 1, 20):
            with self.subTest(count=count):
                ledger = Ledger(self.folder)
                ledger.append("closed")
                before = self.path.read_bytes()
                with self.failing_write(count), self.assertRaises(WriteFailed) as caught:
                    ledger.append("lost", evidence="never heard of")
                self.assertIn("No space left", caught.exception.evidence)
                self.assertEqual(self.path.read_bytes(), before)
                self.assertEqual(ledger.append("closed").n, len(before.splitlines()) + 1)

    def test_nothing_of_a_record_stays_when_the_flush_fails(self):
        ledger = Ledger(self.folder)
        ledger.prepare()
        with self.failing("fsync"), self.assertRaises(WriteFailed):
            ledger.append("closed")
        self.assertEqual(self.path.read_bytes(), b"")
        self.assertEqual(ledger.append("closed").n, 1)

    def test_a_record_that_cannot_be_taken_back_keeps_its_number(self):
        ledger = Ledger(self.folder)
        ledger.prepare()
        with self.failing("fsync"), self.failing("ftruncate"), self.assertRaises(WriteFailed):
            ledger.append("closed")
        self.assertEqual(ledger.append("closed").n, 2)

    def test_a_folder_that_is_gone_fails_and_works_again_when_it_is_back(self):
        ledger = Ledger(self.folder)
        ledger.append("closed")
        away = self.folder + ".away"
        os.rename(self.folder, away)
        with self.assertRaises(WriteFailed):
            ledger.append("closed")
        os.rename(away, self.folder)
        self.assertEqual(ledger.append("closed").n, 2)

    if os.name == "posix":

        def test_a_limit_of_the_system_in_the_middle_of_a_record_leaves_nothing_of_it(self):
            child = self.child(
                "import resource, sys; from lumatie_host.ledger import Ledger\n"
                "from lumatie_host.errors import WriteFailed\n"
                "ledger = Ledger(sys.argv[1]); ledger.append('closed')\n"
                "resource.setrlimit(resource.RLIMIT_FSIZE, (200, -1))\n"
                "try: ledger.append('lost', evidence='x' * 1000)\n"
                "except WriteFailed: pass\n"
                "resource.setrlimit(resource.RLIMIT_FSIZE, (-1, -1))\n"
                "print(ledger.append('closed').n)\n"
            )
            self.assertEqual(child.communicate(timeout=30)[0], "2\n")
            self.assertEqual(len(self.path.read_bytes().splitlines()), 2)


class BadLedgers(LedgerTest):
    def test_a_torn_last_line_stays_and_the_next_record_begins_a_line(self):
        self.write(record(1) + b'{"v":1,"n":2,"ti')
        ledger = Ledger(self.folder)
        self.assertEqual(self.numbers(ledger), [1])
        self.assertEqual(ledger.append("closed").n, 2)
        lines = self.path.read_bytes().splitlines()
        self.assertEqual(lines[1], b'{"v":1,"n":2,"ti')
        self.assertEqual(json.loads(lines[2])["n"], 2)
        self.assertEqual(self.numbers(ledger), [1, 2])
        self.assertEqual(ledger.problems(), ["line 2: no JSON"])

    def test_a_torn_last_line_is_told(self):
        ledger = Ledger(self.folder)
        ledger.append("closed")
        self.assertEqual(ledger.problems(), [])
        with open(self.path, "ab") as file:
            file.write(b'{"v":1,"n":2')
        self.assertEqual(ledger.problems(), ["the last line is torn"])
        self.assertEqual(Ledger(self.folder).problems(), ["the last line is torn"])

    def test_a_whole_record_without_its_newline_keeps_its_number(self):
        self.write(record(1) + record(2)[:-1])
        ledger = Ledger(self.folder)
        self.assertEqual(ledger.append("closed").n, 3)
        self.assertEqual(self.numbers(ledger), [1, 2, 3])

    def test_lines_that_hold_no_record_are_passed_over_and_told(self):
        rubbish = (
            b"\x00\xff\xfe rubbish",
            b"[1]",
            b"7",
            b'{"n":5}',
            b'{"v":1,"n":true,"kind":"closed"}',
            b'{"v":1,"n":-1,"kind":"closed"}',
            b'{"v":1,"n":1e999,"kind":"closed"}',
            b'{"v":1,"n":%d,"kind":"closed"}' % (1 << 53),
            b'{"v":1,"n":2,"kind":"closed","x":NaN}',
            b'{"v":1,"n":2,"kind":"closed","x":1e999}',
            b'{"v":1,"n":2,"kind":7}',
            b"9" * 5000,
            b"[" * 100000,
        )
        self.write(record(1) + b"\n".join(rubbish) + b"\n" + record(2))
        ledger = Ledger(self.folder)
        self.assertEqual(self.numbers(ledger), [1, 2])
        told = [problem.split(":")[0] for problem in ledger.problems()]
        self.assertEqual(told, ["line %d" % n for n in range(2, 2 + len(rubbish))])
        self.assertEqual(ledger.append("closed").n, 3)

    def test_a_line_of_ten_megabytes_is_passed_over_without_being_kept(self):
        before = record(1) + b"x" * 10_000_000 + b"\n" + record(2)
        self.write(before)
        ledger = Ledger(self.folder)
        self.assertEqual(self.numbers(ledger), [1, 2])
        self.assertEqual(ledger.problems(), ["line 2: longer than 1048576 bytes"])
        self.assertEqual(ledger.append("closed").n, 3)
        self.assertEqual(self.path.read_bytes()[: len(before)], before)

    def test_a_line_of_the_longest_length_is_read(self):
        line = record(1, "lost", evidence="")
        line = record(1, "lost", evidence="x" * (ledgers.LONGEST_LINE - len(line) + 1))
        self.assertEqual(len(line), ledgers.LONGEST_LINE + 1)
        self.write(line)
        self.assertEqual(self.numbers(Ledger(self.folder)), [1])

    def test_unknown_kinds_and_versions_are_read_and_count(self):
        self.write(
            record(1, "hologram", x=1) + b'{"v":2,"n":2,"kind":"picture","sha256":1}\n' + record(3)
        )
        ledger = Ledger(self.folder)
        self.assertEqual(self.numbers(ledger), [1, 2, 3])
        self.assertEqual([event.n for event in ledger.events()], [3])
        self.assertEqual(ledger.problems(), ["line 2: version 2 is not known here"])
        self.assertEqual(ledger.append("closed").n, 4)

    def test_numbers_that_go_back_are_passed_over_and_told(self):
        self.write(record(5) + record(3) + record(5) + record(9))
        ledger = Ledger(self.folder)
        self.assertEqual(self.numbers(ledger), [5, 9])
        self.assertEqual(
            ledger.problems(),
            ["line 2: number 3 comes behind 5", "line 3: number 5 comes behind 5"],
        )
        self.assertEqual(ledger.append("closed").n, 10)

    def test_the_last_of_all_numbers_is_not_gone_beyond(self):
        self.write(record((1 << 53) - 1))
        with self.assertRaises(WriteFailed):
            Ledger(self.folder).append("closed")

    def test_problems_without_number_do_not_fill_the_memory(self):
        self.write(b"x\n" * 5000)
        problems = Ledger(self.folder).problems()
        self.assertEqual((len(problems), problems[-1]), (1001, "4000 more"))


class Reading(LedgerTest):
    def test_since_gives_what_is_above_it_wherever_it_stands(self):
        self.write(b"".join(record(n) for n in range(1, 1001)))
        ledger = Ledger(self.folder)
        for since in (0, 1, 255, 256, 257, 511, 512, 513, 999, 1000, 5000):
            with self.subTest(since=since):
                self.assertEqual(self.numbers(ledger, since), list(range(since + 1, 1001)))

    def test_the_newest_records_are_read_without_the_oldest(self):
        self.write(b"".join(record(n) for n in range(1, 1001)))
        ledger = Ledger(self.folder)
        with mock.patch.object(ledgers, "_record_of", wraps=ledgers._record_of) as reading:
            self.assertEqual(self.numbers(ledger, 995), [996, 997, 998, 999, 1000])
        self.assertLessEqual(reading.call_count, 256)

    def test_what_another_process_appended_is_read(self):
        ledger = Ledger(self.folder)
        Ledger(self.folder).append("closed")
        self.assertEqual(self.numbers(ledger), [1])
        self.assertEqual(ledger.last, 1)

    def test_shots_of_a_session_are_counted_once_and_sessions_apart(self):
        ledger = Ledger(self.folder)
        for session, shot in (("a", 1), ("a", 1), ("b", 1), ("a", 2), ("", 0), ("", 0)):
            ledger.append("picture", **{**PICTURE, "shot": shot, "session": session})
        self.assertEqual(ledger.total, 5)
        self.assertEqual(ledger.number_of("b", 1), 2)
        self.assertEqual(ledger.number_of("c", 1), 6)
        self.assertEqual(Ledger(self.folder).total, 5)

    def test_thousands_of_pictures_take_hardly_any_memory(self):
        count = 5000
        digests = [hashlib.sha256(b"%d" % number).hexdigest() for number in range(count)]
        self.write(
            b"".join(
                record(n, "picture", **{**PICTURE, "sha256": digest, "shot": n})
                for n, digest in enumerate(digests, 1)
            )
        )
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        ledger = Ledger(self.folder)
        taken = tracemalloc.get_traced_memory()[0]
        # Numbers are kept for 400 shots, with about 250 bytes each.
        self.assertLess(taken, 150_000 + 60 * count)
        self.assertEqual(ledger.files_of(digests[4999]), ["a.JPG"])
        self.assertEqual(ledger.total, count)

    def test_a_picture_is_known_up_to_a_number(self):
        ledger = Ledger(self.folder)
        for name in ("a.JPG", "b.JPG"):
            ledger.append("picture", **{**PICTURE, "file": name})
        self.assertEqual(ledger.files_of(PICTURE["sha256"]), ["a.JPG", "b.JPG"])
        self.assertEqual(ledger.files_of(PICTURE["sha256"], 1), ["a.JPG"])
        self.assertEqual(ledger.files_of("0" * 64), [])

    def test_a_picture_is_known_by_its_hash(self):
        Ledger(self.folder).append("picture", **PICTURE)
        self.assertEqual(Ledger(self.folder).files_of(PICTURE["sha256"]), ["a.JPG"])


class OnlyReading(LedgerTest):
    """Who reads needs no permission to write, and leaves nothing behind."""

    def test_a_folder_without_a_record_stays_as_it_is(self):
        ledger = Ledger(self.folder)
        self.assertEqual(list(ledger.read()), [])
        self.assertEqual((ledger.last, ledger.total, ledger.problems()), (0, 0, []))
        self.assertEqual(os.listdir(self.folder), [])

    def test_a_folder_with_a_record_gets_no_lock(self):
        self.write(record(1) + record(2))
        self.assertEqual(self.numbers(Ledger(self.folder)), [1, 2])
        self.assertEqual(os.listdir(str(self.path.parent)), ["ledger.jsonl"])

    def test_a_record_that_begins_later_is_read(self):
        ledger = Ledger(self.folder)
        Ledger(self.folder).append("closed")
        self.assertEqual(self.numbers(ledger), [1])

    def test_a_reader_waits_for_a_record_that_is_being_written(self):
        ledger, reader = Ledger(self.folder), Ledger(self.folder)
        ledger.append("closed")
        child = self.holder()
        read = []
        thread = threading.Thread(target=lambda: read.extend(self.numbers(reader)))
        thread.start()
        thread.join(0.2)
        self.assertEqual(read, [])
        child.communicate()
        thread.join(30)
        self.assertEqual(read, [1])

    if os.name == "posix":

        def test_a_folder_that_may_not_be_written_to_is_read_and_compared(self):
            ledger = Ledger(self.folder)
            ledger.append("picture", **PICTURE)
            ledger.append("closed")
            pathlib.Path(self.folder, "a.JPG").write_bytes(b"abc")
            for path in (self.path, self.path.parent / "lock"):
                path.chmod(0o444)
            self.path.parent.chmod(0o555)
            os.chmod(self.folder, 0o555)
            with as_nobody():
                reader = Ledger(self.folder)
                self.assertEqual(self.numbers(reader), [1, 2])
                self.assertEqual((reader.total, reader.problems()), (1, []))
                self.assertEqual(verify(self.folder), [])
                with self.assertRaises(WriteFailed):
                    reader.append("closed")
            self.path.parent.chmod(0o755)
            os.chmod(self.folder, 0o755)


class Rejected(LedgerTest):
    def rejects(self, folder, words):
        with self.assertRaises(FolderRejected) as caught:
            Ledger(folder)
        self.assertIn(words, caught.exception.why)
        self.assertEqual(str(pickle.loads(pickle.dumps(caught.exception))), str(caught.exception))

    def test_a_folder_that_is_missing(self):
        self.rejects(os.path.join(self.folder, "none"), "no such folder")

    def test_a_folder_without_a_name(self):
        self.rejects("", "no folder was named")

    def test_a_folder_that_is_a_file(self):
        file = pathlib.Path(self.folder, "file")
        file.write_bytes(b"")
        self.rejects(str(file), "it is a file")

    def test_a_file_where_the_record_belongs(self):
        pathlib.Path(self.folder, ".lumatie").write_bytes(b"mine")
        self.rejects(self.folder, ".lumatie in it is a file")

    def test_a_folder_where_the_ledger_belongs(self):
        self.path.mkdir(parents=True)
        self.rejects(self.folder, "ledger.jsonl")

    if os.name == "posix":

        def test_a_folder_that_may_not_be_written_to_when_it_is_to_be(self):
            os.chmod(self.folder, 0o555)
            with as_nobody(), self.assertRaises(FolderRejected) as caught:
                Ledger(self.folder).prepare()
            self.assertIn("Permission denied", caught.exception.why)


class Verifying(LedgerTest):
    def findings(self):
        return [(finding.what, finding.file or finding.line) for finding in verify(self.folder)]

    def test_a_whole_folder_has_no_findings(self):
        pathlib.Path(self.folder, "a.JPG").write_bytes(b"abc")
        Ledger(self.folder).append("picture", **PICTURE)
        self.assertEqual(self.findings(), [])

    def test_missing_and_changed_pictures_are_found(self):
        ledger = Ledger(self.folder)
        ledger.append("picture", **PICTURE)
        ledger.append("picture", **{**PICTURE, "file": "sub/b.JPG"})
        pathlib.Path(self.folder, "a.JPG").write_bytes(b"other")
        self.assertEqual(self.findings(), [("changed", "a.JPG"), ("missing", "sub/b.JPG")])

    def test_damage_and_gaps_are_found(self):
        self.write(record(1) + b"rubbish\n" + record(4) + record(2) + b"torn")
        self.assertEqual(
            self.findings(), [("damaged", 2), ("gap", 3), ("damaged", 4), ("damaged", None)]
        )

    def test_a_picture_outside_of_the_folder_is_not_looked_for(self):
        for file in ("../a.JPG", "/etc/passwd", "a//b", "", "a/../b", "a\0b"):
            with self.subTest(file=file):
                self.write(record(1, "picture", **{**PICTURE, "file": file}))
                self.assertEqual(self.findings(), [("damaged", 1)])

    def test_a_folder_without_a_ledger_is_rejected(self):
        with self.assertRaises(FolderRejected):
            verify(self.folder)


class Speed(LedgerTest):
    def test_ten_thousand_records_are_opened_and_added_to_quickly(self):
        """Beside what reading their JSON alone takes, in the time of the processor."""
        lines = [
            record(n, "picture", **{**PICTURE, "shot": n, "original": "x" * 700})
            for n in range(1, 10001)
        ]
        self.write(b"".join(lines))
        alone, opened = [], []
        for _ in range(5):
            started = time.process_time()
            for line in lines:
                json.loads(line)
            alone.append(time.process_time() - started)
            started = time.process_time()
            ledger = Ledger(self.folder)
            opened.append(time.process_time() - started)
        started = time.process_time()
        for _ in range(20):
            ledger.append("closed")
        appended = (time.process_time() - started) / 20
        print(
            "\n10,000 records: read as JSON in %.0f ms, opened in %.0f ms"
            % (min(alone) * 1000, min(opened) * 1000),
            file=sys.stderr,
        )
        self.assertLess(min(opened), 3 * min(alone) + 0.02)
        self.assertLess(appended, 0.02)


if __name__ == "__main__":
    unittest.main()
