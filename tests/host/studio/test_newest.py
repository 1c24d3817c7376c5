"""Previews of the stations' newest pictures: before originals, each once, again where needed."""

import functools
import os
import tempfile
import threading
import unittest
from unittest import mock

from lumatie_host.page import developing
from lumatie_host.page.developing import kept
from lumatie_host.studio import fetch, newest
from studio_support import DEADLINE, PictureServer, jpeg_of, wait_until
from test_studio import WithStudio


def previews_of(server):
    return [path for path, _ in list(server.requests) if path.endswith("/preview?w=512")]


def originals_of(server):
    return [path for path, _ in list(server.requests) if path.split("/")[-1].isdigit()]


class PreviewsFirst(WithStudio):
    def test_previews_of_all_stations_come_before_anybodys_originals(self):
        self.start_studio(transfers=2)
        stations = [self.simulated(name) for name in ("1", "2", "3", "7")]
        for station in stations:
            station.tell_state()
            wait_until(lambda station=station: station.server.tokens, "a station that knows us")
        pace = threading.Event()
        self.addCleanup(pace.set)
        for station in stations:
            station.server.preview_pace = pace
            station.shot()
            station.picture(os.urandom(3000))
        for station in stations:
            wait_until(lambda: previews_of(station.server), "the request for a preview")
        self.assertEqual([originals_of(one.server) for one in stations], [[], [], [], []])
        pace.set()
        self.assert_complete(*stations)
        for station in stations:
            self.assertEqual(set(previews_of(station.server)), {"/api/pictures/2/preview?w=512"})
            digest = station.ledger[-1]["sha256"]
            data = kept(str(self.folder), digest, 512)
            self.assertEqual(data, jpeg_of("2 512"))

    def test_a_preview_that_does_not_come_holds_originals_back_for_a_while_only(self):
        with mock.patch.object(newest, "HOLD", 0.3):
            self.start_studio()
            slow, other = self.simulated("1"), self.simulated("2")
            slow.server.preview_pace = pace = threading.Event()
            self.addCleanup(pace.set)
            for station in (slow, other):
                station.shot()
                station.picture(os.urandom(3000))
            self.assert_complete(slow, other)
            self.assertIsNone(kept(str(self.folder), slow.ledger[-1]["sha256"], 512))

    def test_pictures_that_come_late_are_not_taken_for_the_newest(self):
        studio = self.start_studio()
        station = self.simulated("7")
        for _ in range(3):
            station.shot(publish=False)
            station.picture(os.urandom(1000), publish=False)
        station.publish(station.ledger[-1])
        wait_until(lambda: previews_of(station.server), "the newest one's preview")
        self.assert_complete(station)
        self.assertEqual(set(previews_of(station.server)), {"/api/pictures/6/preview?w=512"})
        self.assertEqual(studio.view()["stations"][0]["picture"]["n"], 6)

    def test_a_preview_is_told_of_when_it_is_there(self):
        studio = self.start_studio()
        told = []
        studio.on_preview = lambda station, number: told.append((station, number))
        station = self.simulated("7")
        station.picture(os.urandom(1000))
        wait_until(lambda: told == [("7", 1)], lambda: "what was told: %s" % told)


class Newest(unittest.TestCase):
    def setUp(self):
        self.pictures = {1: b"", 2: b"", 3: b""}
        self.server = PictureServer(self)
        self.addCleanup(self.server.close)
        self.server.tokens.add("t")
        self.is_there, self.made, self.forbidden = True, [], []
        base = tempfile.TemporaryDirectory(prefix="lumatie-newest-")
        self.addCleanup(base.cleanup)
        self.folder = base.name
        self.newest = newest.Newest(
            base.name,
            lambda station, ledger: (
                fetch.Site(self.server.url, "t") if self.is_there and ledger == "L" else None
            ),
            self.forbidden.append,
            lambda station, number: self.made.append(number),
            lambda: None,
        )
        self.addCleanup(self.newest.close)

    def record(self, number):
        return {"n": number, "sha256": "%064x" % number, "ledger": "L"}

    def wait_for(self, *numbers):
        wait_until(lambda: self.made == list(numbers), lambda: "previews: %s" % self.made)

    def test_of_very_many_previews_the_oldest_are_removed(self):
        self.pictures = dict.fromkeys(range(1, 8), b"")
        few = functools.partial(developing.prune, most=2)
        with mock.patch.object(newest, "PRUNE_EVERY", 3), mock.patch.object(newest, "prune", few):
            for number in range(1, 8):
                self.newest.ask("7", self.record(number), 512).result(DEADLINE)
        there = [n for n in range(1, 8) if kept(self.folder, self.record(n)["sha256"], 512)]
        self.assertEqual(there, [6, 7])

    def test_what_could_not_be_had_is_fetched_when_the_station_is_there_again(self):
        self.is_there = False
        self.newest.add("7", self.record(1))
        with self.assertRaises(newest.NoPreview):
            self.newest.ask("7", self.record(1), 512).result(DEADLINE)
        self.is_there = True
        wait_until(lambda: not self.newest.is_ahead, "nothing to be under way")
        self.newest.wake("7")
        self.wait_for(1)
        self.newest.wake("7")
        self.assertEqual(len(previews_of(self.server)), 1)

    def test_a_station_that_does_not_know_the_token_is_told_and_then_asked_again(self):
        self.server.tokens.clear()
        self.newest.add("7", self.record(1))
        wait_until(lambda: self.forbidden == ["7"], "a station that does not know us")
        self.server.tokens.add("t")
        self.newest.wake("7")
        self.wait_for(1)

    def test_one_that_a_busy_station_did_not_make_is_asked_for_again_and_holds_nothing_back(self):
        def be_busy(request, *_):
            self.server._send(request, 503, b"{}")

        with mock.patch.object(self.server, "_send_preview", be_busy):
            self.newest.add("7", self.record(1))
            wait_until(lambda: not self.newest.is_ahead, "an answer")
            self.assertEqual(self.made, [])
        self.server.preview_pace = pace = threading.Event()
        self.addCleanup(pace.set)
        self.newest.look()
        wait_until(lambda: len(self.server.requests) == 2, "another request")
        self.assertFalse(self.newest.is_ahead)
        pace.set()
        self.wait_for(1)
        self.newest.look()
        self.assertEqual(len(self.server.requests), 2)

    def test_of_pictures_that_wait_only_the_newest_is_fetched_unasked(self):
        self.server.preview_pace = pace = threading.Event()
        self.addCleanup(pace.set)
        for name in ("1", "2", "3", "4"):  # keep all workers busy
            self.newest.add(name, self.record(100 + int(name)))
        wait_until(lambda: len(self.server.requests) == newest.WORKERS, "busy workers")
        asked = self.newest.ask("7", self.record(1), 512)
        for number in (2, 3):
            self.newest.add("7", self.record(number))
        pace.set()
        self.assertEqual(asked.result(DEADLINE), jpeg_of("1 512"))
        wait_until(lambda: set(self.made) == {1, 3}, lambda: "previews: %s" % self.made)
        self.assertNotIn("/api/pictures/2/preview?w=512", previews_of(self.server))

    def test_a_picture_of_an_earlier_ledger_is_not_asked_for_by_its_number(self):
        asked = self.newest.ask("7", {**self.record(1), "ledger": "K"}, 512)
        with self.assertRaises(newest.NoPreview):
            asked.result(DEADLINE)
        self.assertEqual(self.server.requests, [])

    def test_a_station_that_cannot_be_reached_holds_back_nobody_until_it_has_answered(self):
        pace = threading.Event()
        self.addCleanup(pace.set)

        def be_blocked(request, *_):
            pace.wait(DEADLINE)
            request.close_connection = True

        with mock.patch.object(self.server, "_send_preview", be_blocked):
            self.newest.add("7", self.record(1))
            wait_until(lambda: self.server.requests, "a request")
            self.assertTrue(self.newest.is_ahead)
            self.newest.add("7", self.record(2))
            pace.set()
            wait_until(lambda: not self.newest._jobs, "that both have failed")
            pace.clear()
            self.newest.add("7", self.record(3))
            self.newest.wake("7")
            self.assertFalse(self.newest.is_ahead)
            pace.set()
            wait_until(lambda: not self.newest._jobs, "that it has failed, too")
        self.newest.wake("7")
        self.wait_for(3)
        self.server.preview_pace = pace = threading.Event()
        self.addCleanup(pace.set)
        self.newest.add("7", self.record(1))
        self.assertTrue(self.newest.is_ahead)

    def test_a_station_that_does_not_answer_keeps_two_workers_at_most_from_the_others(self):
        self.pictures = dict.fromkeys(range(1, 11), b"")
        self.server.preview_pace = pace = threading.Event()
        self.addCleanup(pace.set)
        asked = [self.newest.ask("7", self.record(number), 512) for number in range(1, 10)]
        wait_until(lambda: len(self.server.requests) == 2, "the first requests")
        self.newest.ask("8", self.record(10), 512)
        wait_until(lambda: len(self.server.requests) == 3, "the other station's")
        self.assertIn("/api/pictures/10/preview?w=512", previews_of(self.server))
        pace.set()
        for one in asked:
            one.result(DEADLINE)

    def test_one_that_several_ask_for_is_fetched_once_and_kept(self):
        self.server.preview_pace = pace = threading.Event()
        self.addCleanup(pace.set)
        asked = [self.newest.ask("7", self.record(1), 1024) for _ in range(5)]
        pace.set()
        self.assertEqual({one.result(DEADLINE) for one in asked}, {jpeg_of("1 1024")})
        self.is_there = False
        wait_until(lambda: self.made == [1], "it has come")
        again = self.newest.ask("7", self.record(1), 1024).result(DEADLINE)
        self.assertEqual(again, jpeg_of("1 1024"))
        self.assertEqual(len(self.server.requests), 1)

    def answering(self, data):
        """Has the station answer with this when it is asked for a preview."""
        return mock.patch.object(
            self.server,
            "_send_preview",
            lambda request, *_: self.server._send(request, 200, data),
        )

    def test_one_that_comes_in_many_pieces_is_whole(self):
        large = jpeg_of("7" * 300000)
        with self.answering(large):
            self.assertEqual(self.newest.ask("7", self.record(1), 512).result(DEADLINE), large)

    def test_what_is_no_picture_and_what_is_half_of_one_is_not_kept(self):
        for number, data in enumerate((b"<b>", jpeg_of("7" * 300000)[:100000]), 1):
            with self.answering(data), self.assertRaises(newest.NoPreview):
                self.newest.ask("7", self.record(number), 512).result(DEADLINE)
        self.assertEqual(self.made, [])


if __name__ == "__main__":
    unittest.main()
