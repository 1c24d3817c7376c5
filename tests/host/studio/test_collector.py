"""Originals on their way into the studio's folder: whole, each once, replacing nothing."""

import errno
import gc
import hashlib
import json
import os
import pathlib
import tempfile
import threading
import tracemalloc
import unittest
from unittest import mock

import lumatie_host
from lumatie_host.studio import collector as collectors
from lumatie_host.studio import fetch
from lumatie_host.studio.book import Book
from lumatie_host.studio.hub import Mark
from studio_support import DEADLINE, PictureServer, wait_until

DATA = bytes(range(256)) * 4000


class Station:
    """What a server shows."""

    def __init__(self):
        self.ledger = []
        self.pictures = {}


class CollectorTestCase(unittest.TestCase):
    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-collect-")
        self.addCleanup(base.cleanup)
        self.folder = pathlib.Path(os.path.realpath(base.name))
        for name, value in (("PAUSES", (0.02, 0.1)), ("AGAIN", 0.3)):
            shortened = mock.patch.object(collectors, name, value)
            shortened.start()
            self.addCleanup(shortened.stop)
        self.station = Station()
        self.server = PictureServer(self.station)
        self.addCleanup(self.server.close)
        self.server.tokens.add("t")
        self.alarms, self.forbidden, self.done = [], [], []
        self.is_there = True
        self.ledger = "L"  # the station's
        self.begin()

    def begin(self, transfers=4):
        self.book = Book(str(self.folder), "pta")
        self.collector = collectors.Collector(
            self.book,
            lambda name, ledger: (
                fetch.Site(self.server.url, "t")
                if self.is_there and ledger == self.ledger
                else None
            ),
            self.forbidden.append,
            lambda key, record: self.done.append(key),
            lambda what, advice, station: self.alarms.append(what),
            transfers,
        )
        self.addCleanup(self.collector.close)

    def add(self, number=1, data=DATA, file=None, station="7", ledger="L", **changes):
        self.station.pictures.setdefault(number, data)
        record = {
            "v": 1,
            "n": number,
            "kind": "picture",
            "file": file or "%d.JPG" % number,
            "size": len(data),
            "sha256": hashlib.sha256(data).hexdigest(),
            "shot": 1,
            "origin": "host",
            "format": "JPEG",
        }
        self.collector.add((station, ledger, number), {**record, **changes})

    def wait(self, count=1):
        wait_until(lambda: len(self.done) >= count, lambda: "%r %r" % (self.done, self.alarms))

    def path(self, *parts):
        return self.folder.joinpath(*parts)

    def recorded(self):
        ledger = lumatie_host.Ledger(str(self.folder))
        return [record for record in ledger.read() if record["kind"] == "picture"]


class Collected(CollectorTestCase):
    def test_a_picture_goes_into_its_stations_folder_and_is_acknowledged(self):
        self.add()
        self.wait()
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)
        (record,) = self.recorded()
        self.assertEqual((record["station"], record["ledger"], record["of"]), ("7", "L", 1))
        self.assertEqual(record["file"], "7/1.JPG")
        self.assertEqual(lumatie_host.verify(str(self.folder)), [])
        self.assertEqual(os.listdir(str(self.path(".lumatie", "parts"))), [])

    def test_a_picture_that_is_asked_for_twice_is_fetched_once(self):
        for _ in range(5):
            self.add()
        self.wait()
        self.add()
        self.wait(2)
        self.assertEqual(len([path for path, _ in self.server.requests if "pictures" in path]), 1)
        self.assertEqual(len(self.recorded()), 1)

    def test_nothing_is_replaced(self):
        self.path("7").mkdir()
        self.path("7", "1.JPG").write_bytes(b"mine")
        self.add(1)
        self.wait(1)
        self.add(2, DATA[::-1], file="1.JPG")
        self.wait(2)
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), b"mine")
        self.assertEqual(self.path("7", "1 (2).JPG").read_bytes(), DATA)
        self.assertEqual(self.path("7", "1 (3).JPG").read_bytes(), DATA[::-1])

    def test_a_picture_is_fetched_from_where_its_station_said(self):
        self.server.files["/files/a.jpg"] = 5
        self.station.pictures[5] = DATA
        self.add(1, url="http://127.0.0.1:9/files/a.jpg?v=1")  # the port of an earlier start
        self.wait()
        self.assertEqual([path for path, _ in self.server.requests], ["/files/a.jpg?v=1"])
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)

    def test_a_picture_whose_address_is_above_the_stations_is_not_asked_for_there(self):
        site = fetch.Site(self.server.url + "7/", "t")
        with self.assertRaises(fetch.Gone), site.picture(1, 0, self.server.url + "8/a.jpg"):
            pass
        self.assertEqual(self.server.requests, [])

    def test_two_equal_pictures_are_two_files(self):
        self.add(1, file="a.JPG")
        self.wait(1)
        self.add(2, file="a.JPG")
        self.wait(2)
        self.assertEqual(self.path("7", "a (2).JPG").read_bytes(), DATA)

    def test_a_file_that_got_its_name_before_a_kill_is_the_picture(self):
        self.path("7").mkdir()
        self.path("7", "1.JPG").write_bytes(DATA)
        self.add()
        self.wait()
        self.assertEqual(os.listdir(str(self.path("7"))), ["1.JPG"])
        self.assertEqual([record["file"] for record in self.recorded()], ["7/1.JPG"])

    def test_names_that_lead_out_of_the_folder_are_refused(self):
        for number, name in enumerate(("../x", "/x", "a/../../x", ".lumatie/x", "a//b", "a\0"), 1):
            self.add(number, file=name)
        wait_until(lambda: len(self.alarms) == 6, lambda: repr(self.alarms))
        self.assertEqual(os.listdir(str(self.folder)), [".lumatie"])
        self.assertIn("leads out of its folder", self.alarms[0])

    def test_subfolders_of_a_station_are_kept(self):
        self.add(file="2026/spring/1.JPG")
        self.wait()
        self.assertEqual(self.path("7", "2026", "spring", "1.JPG").read_bytes(), DATA)


class Interrupted(CollectorTestCase):
    def test_a_connection_that_ends_in_the_middle_is_gone_on_with(self):
        self.server.cut_after = 300_000
        self.add()
        self.wait()
        ranges = [extent for path, extent in self.server.requests if "pictures" in path]
        self.assertEqual(ranges[0], None)
        self.assertEqual(ranges[1], "bytes=300000-")
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)

    def test_connections_that_stop_early_bring_the_picture_bit_by_bit(self):
        held = threading.Event()
        self.addCleanup(held.set)
        blocks = []  # of 64 kB; each connection brings one, and nothing more

        def wait(seconds):
            blocks.append(None)
            if len(blocks) % 2 == 0:
                held.wait(seconds)

        self.server.pace = mock.Mock(wait=wait)
        with mock.patch.object(fetch, "READ_PATIENCE", 0.3):
            self.add(data=DATA[:300_000])
            self.wait()
        ranges = [extent for path, extent in self.server.requests if "pictures" in path]
        self.assertEqual(ranges[1], "bytes=65536-")
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA[:300_000])

    def test_a_station_that_is_slow_makes_room_for_others_and_goes_on_behind_them(self):
        self.collector.close()
        self.begin(transfers=1)
        begun, gate = threading.Event(), threading.Event()
        self.addCleanup(gate.set)

        def wait(seconds):
            begun.set()
            gate.wait(0.1)

        with mock.patch.object(collectors, "TURN", 0.3):
            self.server.pace = mock.Mock(wait=wait)
            self.add(1, DATA * 10)
            self.assertTrue(begun.wait(DEADLINE))
            self.add(2, station="8")
            self.server.pace = None  # for who comes from now on
            wait_until(lambda: self.done, "the other one")
            self.assertEqual(self.done, [("8", "L", 2)])
            gate.set()
            self.wait(2)
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA * 10)

    def test_a_studio_that_ends_in_the_middle_goes_on_at_its_next_start(self):
        blocks = threading.Semaphore(5)
        self.server.pace = mock.Mock(wait=lambda seconds: blocks.acquire(timeout=seconds))
        self.add()
        parts = self.path(".lumatie", "parts")
        wait_until(
            lambda: parts.is_dir() and sum(path.stat().st_size for path in parts.iterdir()) > 0,
            "the first bytes",
        )
        self.collector._is_closed = True  # as far as its threads are concerned, it is over
        for _ in range(1000):
            blocks.release()
        self.collector.close()
        self.assertEqual(self.done, [])
        had = sum(path.stat().st_size for path in parts.iterdir())
        self.assertGreater(had, 0)
        self.server.pace = None
        self.begin()
        self.add()
        self.wait()
        self.assertEqual(self.server.requests[-1][1], "bytes=%d-" % had)
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)

    def test_a_part_with_a_wrong_content_is_fetched_anew(self):
        self.collector.close()
        self.begin()
        job = collectors._Job(("7", "L", 1), {"sha256": hashlib.sha256(DATA).hexdigest()})
        part = pathlib.Path(self.collector._part_path(job))
        part.parent.mkdir(exist_ok=True)
        part.write_bytes(b"x" * 1000)
        self.add()
        self.wait()
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)

    def test_a_station_that_is_away_is_waited_for_and_holds_up_no_other(self):
        site_of = self.collector._site_of
        self.collector._site_of = lambda name, ledger: (
            None if name == "7" else site_of(name, ledger)
        )
        self.add(1)
        self.add(2, station="8")
        self.wait(1)
        self.assertEqual(self.done, [("8", "L", 2)])
        self.collector._site_of = site_of
        self.collector.wake("7")
        self.wait(2)

    def test_pictures_of_an_earlier_ledger_wait_for_it_and_hold_up_none_of_the_later_one(self):
        self.is_there = False
        for number in range(1, 21):
            self.add(number, b"first %d" % number, ledger="L")
        self.is_there, self.ledger = True, "M"  # works in another folder now
        self.station.pictures = {n: b"second %d" % n for n in range(11, 21)}
        self.collector.wake("7")
        for number in range(11, 21):
            self.add(number, b"second %d" % number, file="m%d.JPG" % number, ledger="M")
        self.wait(10)
        self.assertEqual({ledger for _, ledger, _ in self.done}, {"M"})
        self.assertEqual((self.collector.lag, self.alarms), (10 + 10, []))
        self.ledger = "L"
        self.station.pictures = {n: b"first %d" % n for n in range(1, 21)}
        self.collector.wake("7")
        self.wait(30)
        self.assertEqual(self.alarms, [])
        self.assertEqual(self.path("7", "11.JPG").read_bytes(), b"first 11")
        self.assertEqual(self.path("7", "m11.JPG").read_bytes(), b"second 11")

    def test_a_station_that_does_not_know_the_token_is_told_it(self):
        self.server.tokens.clear()
        self.add()
        wait_until(lambda: self.forbidden, "a word that the token is not known")
        self.server.tokens.add("t")
        self.wait()


class Wrong(CollectorTestCase):
    def test_a_content_that_is_not_the_records_is_never_in_the_folder(self):
        self.station.pictures[1] = DATA[:-1] + b"x"
        self.add()
        wait_until(lambda: self.alarms, "an alarm")
        self.assertIn("is not what it has told of", self.alarms[0])
        self.assertFalse(self.path("7").exists())
        self.station.pictures[1] = DATA
        self.wait()
        self.assertEqual(len(self.alarms), 1)
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)

    def test_a_picture_with_a_wrong_content_holds_up_none_of_its_station(self):
        self.station.pictures[1] = DATA[:-1] + b"x"
        with mock.patch.object(collectors, "AGAIN", 600.0):
            self.add()
            wait_until(lambda: self.alarms, "an alarm")
            with mock.patch.object(collectors, "PAUSES", (600.0, 600.0)):
                self.station.pictures[2] = DATA[:-1] + b"x"
                for number in range(2, 12):
                    self.add(number)
                self.wait(9)
        self.assertEqual(sorted(n for _, _, n in self.done), list(range(3, 12)))
        self.assertEqual((self.collector.lag, len(self.alarms)), (2, 1))
        self.station.pictures.update({1: DATA, 2: DATA})
        self.collector.wake("7")
        self.wait(11)
        self.assertEqual(self.collector.lag, 0)

    def test_a_size_that_is_not_the_records_is_an_alarm(self):
        self.station.pictures[1] = DATA + b"more"
        self.add()
        wait_until(lambda: self.alarms, "an alarm")
        self.assertIn("and told of %d" % len(DATA), self.alarms[0])

    def test_a_picture_that_the_station_does_not_have_is_an_alarm(self):
        self.station.pictures[1] = None
        self.add()
        wait_until(lambda: self.alarms, "an alarm")
        self.assertIn("the station has no such picture any more", self.alarms[0])

    def test_pictures_of_a_folder_that_is_away_for_a_while_are_collected_when_it_is_back(self):
        for number in (1, 2, 3):
            self.station.pictures[number] = None
            self.add(number)
        wait_until(lambda: len(self.alarms) == 3, lambda: repr(self.alarms))
        self.assertEqual(self.collector.lag, 3)
        before = len(self.server.requests)
        wait_until(lambda: len(self.server.requests) > before + 6, "more tries")
        self.station.pictures = {1: DATA, 2: DATA, 3: DATA}
        self.wait(3)
        self.assertEqual((self.collector.lag, len(self.alarms)), (0, 3))

    def test_a_picture_that_was_not_there_is_asked_for_when_its_station_comes_back(self):
        self.station.pictures[1] = None
        with mock.patch.object(collectors, "AGAIN", 600.0):
            self.add()
            wait_until(lambda: self.alarms, "an alarm")
            wait_until(lambda: self.collector._aside, "that it waits by itself")
        self.station.pictures[1] = DATA
        self.collector.wake("7")
        self.wait()

    def test_a_full_disk_is_an_alarm_and_is_tried_again(self):
        full = OSError(errno.ENOSPC, "No space left on device")
        real = os.fsync
        is_full = threading.Event()
        is_full.set()

        def fsync(descriptor):
            parts = self.path(".lumatie", "parts").glob("*")
            is_part = any(os.path.samestat(os.fstat(descriptor), os.stat(p)) for p in parts)
            if is_full.is_set() and is_part:
                raise full
            real(descriptor)

        with mock.patch("lumatie_host.studio.collector.os.fsync", fsync):
            self.add(1)
            self.add(2, DATA[::-1])
            wait_until(lambda: self.alarms, "an alarm")
            self.assertIn("No space left on device", self.alarms[0])
            self.assertEqual(self.done, [])
            is_full.clear()
            self.wait(2)
        self.assertEqual(len(self.alarms), 1)
        self.assertEqual(self.path("7", "1.JPG").read_bytes(), DATA)

    def test_a_redirection_is_not_followed(self):
        with mock.patch.object(self.server, "answer", self.redirect):
            self.add()
            wait_until(lambda: len(self.server.requests) > 2, "some tries")
        self.assertEqual(self.done, [])

    def redirect(self, request):
        self.server.requests.append((request.path, None))
        request.send_response(302)
        request.send_header("Location", self.server.url + "elsewhere")
        request.send_header("Content-Length", "0")
        request.end_headers()


class Cap(CollectorTestCase):
    def test_no_more_than_the_cap_are_under_way_and_the_stations_take_turns(self):
        gate = threading.Event()
        self.server.pace = gate
        for number in range(1, 21):
            self.add(number, DATA, station="7")
        for number in range(21, 26):
            self.add(number, DATA, station="8")

        def asked():
            return [path for path, _ in list(self.server.requests) if "pictures" in path]

        wait_until(lambda: len(asked()) == 4, lambda: repr(asked()))
        with self.collector._changed:
            self.assertEqual(self.collector._active, {"7": 2, "8": 2})
        gate.set()
        self.wait(25)
        self.assertEqual(self.collector.lag, 0)


class Kept(CollectorTestCase):
    def test_marks_and_the_secret_of_the_tokens_outlive_a_restart(self):
        marks = {("7", "L"): Mark(5, 2, 1)}
        self.book.keep(marks)
        token = self.book.token("7", "a")
        again = Book(str(self.folder), "pta")
        self.assertEqual((again.marks, again.token("7", "a")), (marks, token))
        self.assertNotEqual(again.token("7", "b"), token)
        self.assertNotEqual(again.token("8", "a"), token)

    def test_little_is_remembered_of_each_picture(self):
        count = 5000
        with open(str(self.path(".lumatie", "ledger.jsonl")), "a") as file:
            for number in range(1, count + 1):
                record = {"v": 1, "n": number, "kind": "picture", "file": "7/%05d.JPG" % number}
                digest = hashlib.sha256(b"%d" % number).hexdigest()
                record.update(time="2026-11-22T05:40:48.123Z", size=1, sha256=digest, shot=number)
                record.update(
                    origin="host", format="JPEG", station="7a", ledger="0" * 32, of=number
                )
                file.write(json.dumps(record) + "\n")
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        book = Book(str(self.folder), "pta")
        gc.collect()
        # The ledger has some 250 bytes for each of the newest 400 shots.
        self.assertLess(tracemalloc.get_traced_memory()[0], 150_000 + 30 * count)
        self.assertEqual(book.count, count)
        self.assertTrue(book.is_collected(("7a", "0" * 32, count)))
        self.assertFalse(book.is_collected(("7", "M", 1)))
        self.assertTrue(book.owns("7/00001.JPG", hashlib.sha256(b"1").hexdigest()))
        self.assertFalse(book.owns("7/00001.JPG", hashlib.sha256(b"2").hexdigest()))

    def test_pictures_that_wait_take_a_kilobyte_each_with_all_that_is_told_of_them(self):
        self.is_there = False
        count = 3000
        told = {"mode": "M", "shutter": "1/250", "aperture": "5.6", "iso": "100", "quality": "L"}
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        for number in range(1, count + 1):
            digest = hashlib.sha256(b"%d" % number).hexdigest()
            file = "2026-11-22 05.40.48 %06d.JPG" % number
            settings = {name: "%s " % text for name, text in told.items()}
            about = {"time": "2026-11-22T05:40:48.%06dZ" % number, "settings": settings}
            about.update(url="http://127.0.0.1:5/api/pictures/%d" % number, width=6000, height=4000)
            self.add(number, b"x", file, sha256=digest, size=10_000_000 + number, **about)
        self.station.pictures.clear()
        gc.collect()
        self.assertLess(tracemalloc.get_traced_memory()[0] / count, 1100)
        self.assertEqual(self.collector.lag, count)

    def test_a_damaged_note_is_begun_anew(self):
        path = self.path(".lumatie", "studio.pta.json")
        for text in ("", "{", "[]", '{"marks":[5],"secret":5}'):
            path.write_text(text)
            self.assertEqual(Book(str(self.folder), "pta").marks, {})


if __name__ == "__main__":
    unittest.main()
