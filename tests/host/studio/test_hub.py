"""What the studio makes of messages: each record once, gaps told, missing pictures told."""

import json
import random
import time
import unittest
from unittest import mock

from lumatie_host.studio import ages, clock, messages
from lumatie_host.studio import hub as hubs
from lumatie_host.studio.broker import Message
from lumatie_host.studio.hub import Hub, Mark, Watcher
from studio_support import wait_until

TIME = "2026-11-22T05:40:48.123Z"


def shot(number, which):
    return {"v": 1, "n": number, "time": TIME, "kind": "shot", "shot": which}


def picture(number, which, origin="host", **more):
    record = {"v": 1, "n": number, "time": TIME, "kind": "picture", "file": "%d.JPG" % number}
    about = {"size": 3, "sha256": "0" * 64, "shot": which, "origin": origin, "format": "JPEG"}
    return {**record, **about, **more}


def opened(number, session):
    record = {"v": 1, "n": number, "time": TIME, "kind": "opened", "session": session}
    return {**record, "camera": "Canon", "maker": "canon"}


def failed(number, which):
    record = {"v": 1, "n": number, "time": TIME, "kind": "failed", "shot": which}
    return {**record, "reason": "no_answer", "advice": "again", "text": "none"}


class HubTestCase(unittest.TestCase, Watcher):
    def setUp(self):
        self.records, self.gaps, self.told, self.refusals = [], [], [], []
        self.hub = Hub("pta", self, patience=30.0)
        self.announce()

    def record(self, station, ledger, record):
        self.records.append((station, ledger, record["n"]))

    def gap(self, station):
        self.gaps.append((station, self.hub.gap(station)))

    def missing(self, station, have, asked):
        self.told.append("station %s has %d of %d" % (station, have, asked))

    def refused(self, station, words):
        self.refusals.append(words)

    def hear(self, topic, message, ledger="", is_retained=False):
        payload = message if isinstance(message, bytes) else json.dumps(message).encode()
        self.hub.heard(Message(topic, payload, is_retained, None, None, None, ledger))

    def announce(self, station="7", n=0, **changes):
        state = {"studio": "pta", "station": station, "online": True, "instance": "a", "n": n}
        state.update({"ledger": "L", "url": "http://127.0.0.1:5/"}, **changes)
        self.hear("lumatie/1/pta/%s/state" % station, state, is_retained=True)

    def event(self, record, station="7", **changes):
        message = {**record, "studio": "pta", "station": station, **changes}
        self.hear("lumatie/1/pta/%s/event/%s" % (station, record["kind"]), message)

    def numbers(self):
        return [number for _, _, number in self.records]


class Once(HubTestCase):
    def test_a_record_that_comes_twice_is_taken_once(self):
        for _ in range(3):
            self.event(shot(1, 1))
        self.assertEqual(self.numbers(), [1])

    def test_records_in_any_order_and_number_are_each_taken_once(self):
        chance = random.Random(7)
        numbers = [number for number in range(1, 201) for _ in range(chance.randint(1, 3))]
        chance.shuffle(numbers)
        for number in numbers:
            self.event(picture(number, number))
        self.assertEqual(sorted(self.numbers()), list(range(1, 201)))
        self.assertIsNone(self.hub.gap("7"))

    def test_the_same_number_of_another_station_is_another_record(self):
        self.announce("8")
        self.event(shot(1, 1))
        self.event(shot(1, 1), "8")
        self.assertEqual(self.records, [("7", "L", 1), ("8", "L", 1)])

    def test_the_same_number_of_another_ledger_is_another_record(self):
        self.event(shot(1, 1))
        self.announce(ledger="M", instance="b")
        self.event(shot(1, 1))
        self.assertEqual(self.records, [("7", "L", 1), ("7", "M", 1)])

    def test_what_was_settled_before_a_restart_is_not_taken_again(self):
        hub = self.hub = Hub("pta", self, {("7", "L"): Mark(5, 2, 2)})
        self.announce()
        for number in range(1, 8):
            self.event(picture(number, number))
        self.assertEqual(self.numbers(), [6, 7])
        self.assertEqual(hub.marks()["7", "L"], Mark(5, 2, 2))
        hub.settle("7", "L", 7)
        self.assertEqual(hub.marks()["7", "L"].settled, 5)
        hub.settle("7", "L", 6)
        self.assertEqual(hub.marks()["7", "L"].settled, 7)


class Gaps(HubTestCase):
    def test_a_record_before_which_others_are_missing_tells_of_a_gap(self):
        self.event(shot(1, 1))
        self.assertEqual(self.gaps, [])
        self.event(picture(4, 1))
        self.assertEqual(self.gaps[-1], ("7", 1))

    def test_a_state_that_knows_more_tells_of_a_gap(self):
        self.announce(n=3)
        self.assertEqual(self.gaps[-1], ("7", 0))

    def test_a_gap_is_filled_from_the_ledger_and_what_came_before_is_not_taken_again(self):
        self.event(picture(2, 1))
        last = self.hub.fill("7", "L", [shot(1, 1), picture(2, 1), shot(3, 2)], True)
        self.assertEqual((last, sorted(self.numbers())), (3, [1, 2, 3]))
        self.assertIsNone(self.hub.gap("7"))

    def test_what_the_ledger_does_not_have_does_not_exist(self):
        self.event(shot(9, 2))
        self.hub.fill("7", "L", [shot(1, 1), {"n": 4, "kind": "dance", "v": 1}, shot(9, 2)], True)
        self.assertEqual(sorted(self.numbers()), [1, 9])
        self.assertIsNone(self.hub.gap("7"))

    def test_a_number_far_ahead_is_asked_for_and_not_believed(self):
        self.event(shot(10**15, 1))
        self.assertEqual(self.numbers(), [])
        self.hub.fill("7", "L", [shot(1, 1)], True)
        self.assertEqual(self.numbers(), [1])
        self.assertIsNone(self.hub.gap("7"))

    def test_a_ledger_with_a_million_numbers_left_out_costs_nothing_and_loses_nothing(self):
        self.event(shot(2, 1))
        self.event(picture(1_000_003, 1))
        records = [shot(2, 1), shot(1_000_002, 2), picture(1_000_003, 2), shot(1_000_004, 3)]
        self.hub.fill("7", "L", records, True)
        self.assertEqual(sorted(self.numbers()), [2, 1_000_002, 1_000_003, 1_000_004])
        stream = self.hub._stream("7", "L")
        self.assertLess(len(stream._entries), 20_000)
        self.hub.settle("7", "L", 1_000_003)
        counts = stream.settled, stream.taken, stream.asked, stream.have
        self.assertEqual(counts, (1, 1_000_004, 3, 1))


class Refused(HubTestCase):
    def assert_refused(self, words):
        self.assertRegex(" ".join(self.refusals), words)
        self.event(shot(1, 1))
        self.assertEqual(self.numbers(), [1], "the station is disturbed")

    def test_rubbish(self):
        for payload in (b"x", b"[]", b"\xff\xfe", b"{}", b"{" * 50000):
            self.hear("lumatie/1/pta/7/event/shot", payload)
        self.assertEqual(len(self.refusals), 5)
        self.assert_refused("no JSON")

    def test_a_record_of_ten_megabytes(self):
        self.event(shot(1, 1), more="x" * 10_000_000)
        self.assert_refused("100001.. bytes, and 262144 are allowed")

    def test_an_unknown_kind(self):
        self.event({**shot(1, 1), "kind": "dance"})
        self.assert_refused("unknown kind on event/dance")

    def test_a_record_of_another_station_than_its_topics(self):
        self.hear("lumatie/1/pta/7/event/shot", {**shot(1, 1), "studio": "pta", "station": "8"})
        self.assert_refused("tells of another station")

    def test_a_retained_record(self):
        message = {**shot(1, 1), "studio": "pta", "station": "7"}
        self.hear("lumatie/1/pta/7/event/shot", message, is_retained=True)
        self.assert_refused("a retained record")

    def test_a_picture_that_is_said_to_be_elsewhere(self):
        for url in ("http://10.0.0.1/api/pictures/1", "http://127.0.0.1:55/x", "file:///etc/passwd",
                    "http://127.0.0.1:5@evil/x", 5, "http://127.0.0.1:5",
                    "http://127.0.0.1:5/a/../b", "http://127.0.0.1:5/%2e%2E/b",
                    "http://127.0.0.1:5/a b", "http://127.0.0.1:5/\xe9",
                    "http://127.0.0.1:5/a\r\nHost: evil"):  # fmt: skip
            self.event(picture(1, 1), url=url)
        self.assertEqual(len(self.refusals), 11)
        self.assert_refused("said to be at http://10.0.0.1")

    def test_an_address_that_only_begins_like_the_stations(self):
        self.announce(url="http://127.0.0.1:5")
        for url in ("http://127.0.0.1:55/x", "http://127.0.0.1:5@evil/x"):
            self.event(picture(1, 1), url=url)
        self.assertEqual(len(self.refusals), 2)
        self.assert_refused("said to be at http://127.0.0.1:55")

    def test_a_name_that_cannot_be_one(self):
        self.hear("lumatie/1/pta/../event/shot", shot(1, 1))
        self.assertEqual(self.hub.names(), ["7"])
        self.assert_refused("cannot be the name of a station")

    def test_states_ticks_and_settings_that_are_none(self):
        names = {"studio": "pta", "station": "7"}
        self.hear("lumatie/1/pta/7/state", {**names, "online": "yes"})
        self.hear("lumatie/1/pta/7/state", {**names, "online": True, "n": -1})
        self.hear("lumatie/1/pta/7/settings", {**names, "settings": 5})
        self.hear("lumatie/1/pta/7/tick", {"tick": "now", "n": 5})
        self.assertEqual(len(self.refusals), 4)
        self.assert_refused("a state that is none")

    def test_a_station_that_sends_nothing_else_is_not_told_of_for_ever(self):
        for _ in range(1000):
            self.hear("lumatie/1/pta/7/event/shot", b"x")
        self.assertEqual(len(self.refusals), 100)
        self.assertEqual(self.hub.view()[0]["refused"], 1000)

    def test_names_that_are_no_stations_are_not_told_of_for_ever(self):
        for number in range(1000):
            self.hear("lumatie/1/pta/x%d/event/shot" % number, b"x")
        self.assertEqual((len(self.refusals), self.hub.names()), (100, ["7"]))
        self.hear("lumatie/1/pta/7/event/shot", b"x")
        self.assertEqual(len(self.refusals), 101)


class Missing(HubTestCase):
    def test_a_shot_that_brings_nothing_until_its_deadline_is_told_once(self):
        self.hub = Hub("pta", self, patience=0.0)
        self.announce()
        for number in range(1, 42):
            self.event(shot(2 * number - 1, number))
            self.event(picture(2 * number, number))
        self.event(shot(83, 42))
        self.hub.look()
        self.hub.look()
        self.assertEqual(self.told, ["station 7 has 41 of 42"])

    def test_before_its_deadline_nothing_is_told(self):
        self.event(shot(1, 1))
        self.hub.look()
        self.assertEqual(self.told, [])

    def test_an_exposure_lengthens_the_deadline(self):
        self.hub = Hub("pta", self, patience=-1.0)
        self.announce()
        settings = {"shutter": {"text": "30"}}
        message = {"studio": "pta", "station": "7", "settings": settings}
        self.hear("lumatie/1/pta/7/settings", message)
        self.event(shot(1, 1))
        self.hub.look()
        self.assertEqual(self.told, [])

    def test_a_shot_that_the_station_says_has_failed_is_told_at_once(self):
        self.event(shot(1, 1))
        self.event(failed(2, 1))
        self.assertEqual(self.told, ["station 7 has 0 of 1"])
        self.hub.look()
        self.assertEqual(len(self.told), 1)

    def test_a_picture_that_comes_after_all_counts(self):
        self.event(shot(1, 1))
        self.event(failed(2, 1))
        self.event(picture(3, 1))
        self.assertEqual((self.hub.view()[0]["have"], self.hub.view()[0]["asked"]), (1, 1))

    def test_a_picture_that_comes_before_its_shot_is_not_missing(self):
        self.hub = Hub("pta", self, patience=0.0)
        self.announce()
        self.event(picture(2, 1))
        self.event(picture(3, 1))
        self.event(shot(1, 1))
        self.hub.look()
        self.assertEqual(self.told, [])
        self.assertEqual((self.hub.view()[0]["have"], self.hub.view()[0]["asked"]), (1, 1))

    def test_a_failure_that_comes_before_its_shot_is_told_once(self):
        self.hub = Hub("pta", self, patience=0.0)
        self.announce()
        self.event(failed(2, 1))
        self.event(shot(1, 1))
        self.hub.look()
        self.assertEqual((self.hub.view()[0]["have"], self.hub.view()[0]["missing"]), (0, 1))
        self.assertEqual(len(self.told), 1)
        self.event(picture(3, 1))
        self.assertEqual(self.hub.view()[0]["have"], 1)

    def test_a_picture_that_comes_first_is_not_taken_for_another_sessions_shot(self):
        self.hub = Hub("pta", self, patience=0.0)
        self.announce()
        self.event(shot(3, 1))
        self.event(picture(4, 1))
        self.event(picture(5, 1))  # the second file of the same shot
        self.event(shot(1, 1))
        self.event({"v": 1, "n": 2, "time": TIME, "kind": "closed"})
        self.hub.look()
        self.assertEqual(self.told, ["station 7 has 1 of 2"])

    def test_records_in_any_order_give_the_same_counts(self):
        for seed in range(20):
            self.setUp()
            records = []
            for which in range(1, 41):
                records.append(shot(len(records) + 1, which))
                ends = (failed,) if which % 8 == 0 else (picture, picture)
                records += [end(len(records) + 1 + i, which) for i, end in enumerate(ends)]
            wanted = list(records)
            random.Random(seed).shuffle(records)
            for record in records:
                self.event(record)
            for record in wanted:
                self.hub.settle("7", "L", record["n"])
            with self.subTest(seed=seed):
                stream = self.hub._stream("7", "L")
                counts = stream.asked, stream.have, stream.missing, stream.settled
                self.assertEqual(counts, (40, 35, 5, len(wanted)))
                self.assertEqual((stream._entries, stream._early), ({}, {}))

    def counts(self):
        (view,) = self.hub.view()
        return view["asked"], view["have"], view["missing"]

    def test_a_picture_of_a_later_session_is_not_taken_for_a_missing_one_of_an_earlier(self):
        for record in (opened(1, "a"), shot(2, 1), failed(3, 1), opened(4, "b")):
            self.event(record)
        self.event(picture(5, 1, "body", session="b"))  # by a trigger box: without a request
        self.assertEqual(self.counts(), (1, 0, 1))
        self.event(picture(6, 1, session="a"))
        self.assertEqual(self.counts(), (1, 1, 0))

    def test_the_second_file_of_a_later_sessions_shot_is_not_taken_for_an_earlier_one(self):
        for record in (opened(1, "a"), shot(2, 1), opened(3, "b"), shot(4, 1)):
            self.event(record)
        for number in (5, 6):
            self.event(picture(number, 1, session="b"))
        self.assertEqual(self.counts(), (2, 1, 0))
        self.event(failed(7, 1))
        self.assertEqual(self.counts(), (2, 1, 1))

    def test_one_that_was_settled_as_missing_is_had_by_a_picture_of_its_own_session_alone(self):
        for record in (opened(1, "a"), shot(2, 1), failed(3, 1), opened(4, "b"), shot(5, 1)):
            self.event(record)
        for number in (6, 7):
            self.event(picture(number, 1, session="b"))
            self.hub.settle("7", "L", number)
        self.assertEqual(self.hub.marks()["7", "L"], Mark(7, 2, 1))
        self.event(picture(8, 1, session="a"))
        self.assertEqual(self.counts(), (2, 2, 0))

    def test_sessions_that_share_a_folder_have_their_own_pictures(self):
        for record in (opened(1, "a"), shot(2, 7), opened(3, "b"), picture(4, 7, session="a")):
            self.event(record)
        self.assertEqual(self.counts(), (1, 1, 0))

    def test_a_session_that_began_before_this_run_has_its_pictures(self):
        self.hub = Hub("pta", self, {("7", "L"): Mark(5, 2, 2)}, patience=0.0)
        self.announce()
        for record in (shot(7, 3), picture(8, 3, session="a"), shot(9, 4)):
            self.event(record)
        self.event(picture(11, 4, session="a"))
        self.hub.look()
        self.assertEqual(self.counts(), (4, 3, 1), "something is missing before the last one")
        self.hub.fill("7", "L", [shot(7, 3), picture(8, 3), shot(9, 4), picture(11, 4)], True)
        self.assertEqual(self.counts(), (4, 4, 0))

    def test_sessions_in_any_order_give_the_same_counts(self):
        wanted = []
        for session in "abc":
            wanted.append(opened(len(wanted) + 1, session))
            for which in (1, 2, 3):
                n = len(wanted)
                wanted.append(shot(n + 1, which))
                if which == 2:
                    wanted.append(failed(n + 2, which))
                else:
                    wanted += [picture(n + i, which, session=session) for i in (2, 3)]
            wanted.append(picture(len(wanted) + 1, 5, "body", session=session))
        for seed in range(200):
            self.hub = Hub("pta", self, patience=0.0)
            self.announce()
            records = list(wanted)
            random.Random(seed).shuffle(records)
            for record in records:
                self.event(record)
            self.hub.look()
            for record in wanted:
                self.hub.settle("7", "L", record["n"])
            with self.subTest(seed=seed):
                self.assertEqual(self.counts(), (9, 6, 3))
                stream = self.hub._stream("7", "L")
                self.assertEqual((stream._entries, stream._early), ({}, {}))

    def test_of_very_many_sessions_the_beginnings_of_some_are_known(self):
        for number in range(1, 1001):
            self.event(opened(number, "session %d" % number))
        stream = self.hub._stream("7", "L")
        self.assertEqual(len(stream._beginnings), 100)
        self.assertIn("session 1000", stream._beginnings)

    def test_a_request_that_brought_no_shot_counts_as_one(self):
        self.hub.unanswered("7")
        self.assertEqual(self.told, ["station 7 has 0 of 1"])

    def tick(self, tick, number):
        message = {"kind": "tick", "instance": "a", "tick": tick, "n": number}
        self.hear("lumatie/1/pta/7/tick", message)

    def test_a_shot_whose_answer_is_lost_is_one_shot(self):
        self.tick(100.0, 0)
        request = self.hub.asked("7")
        self.event(shot(1, 1))
        self.hub.unanswered("7", request)
        self.assertEqual((self.told, self.counts()), ([], (1, 0, 0)))
        self.event(picture(2, 1))
        self.assertEqual(self.counts(), (1, 1, 0))

    def test_a_shot_whose_record_comes_after_the_time_for_its_answer_is_one_shot(self):
        self.tick(100.0, 0)
        request = self.hub.asked("7")
        self.hub.unanswered("7", request)
        self.assertEqual(self.told, ["station 7 has 0 of 1"])
        self.tick(140.0, 2)
        self.event(shot(1, 1))
        self.assertEqual(self.counts(), (1, 0, 0))
        self.event(picture(2, 1))
        self.event(shot(3, 2))
        self.assertEqual(self.counts(), (2, 1, 0))

    def test_a_later_shot_does_not_take_back_a_request_that_never_came(self):
        self.tick(100.0, 0)
        request = self.hub.asked("7")
        self.tick(101.0, 0)
        self.tick(140.0, 0)
        self.hub.unanswered("7", request)
        other = self.hub.asked("7")
        self.event(shot(1, 1))
        self.event(picture(2, 1))
        self.hub.answered("7", other)
        self.assertEqual(self.counts(), (2, 1, 1))

    def test_a_shot_of_another_ledger_does_not_take_back_a_request(self):
        self.tick(100.0, 0)
        request = self.hub.asked("7")
        self.hub.unanswered("7", request)
        self.announce(ledger="M", instance="b")
        self.event(shot(1, 1))
        self.assertEqual(self.counts(), (2, 0, 1))

    def test_counts_go_on_after_a_restart(self):
        for number in range(1, 11):
            self.event(shot(2 * number - 1, number))
            self.event(picture(2 * number, number))
            self.hub.settle("7", "L", 2 * number)
        marks = self.hub.marks()
        self.assertEqual(marks["7", "L"], Mark(20, 10, 10))
        self.hub = Hub("pta", self, marks, patience=0.0)
        self.announce()
        self.event(shot(21, 11))
        self.hub.look()
        self.assertEqual(self.told, ["station 7 has 10 of 11"])

    def test_a_picture_that_a_killed_station_finds_again_is_not_missing(self):
        self.event(shot(1, 5))
        self.event(picture(2, 0, "recovered"))
        self.assertEqual(self.hub.view()[0]["have"], 1)

    def test_a_long_record_that_waits_to_be_collected_costs_no_more_for_each_picture(self):
        records = []
        for which in range(1, 6001):
            records.append(shot(len(records) + 1, which))
            records.append(picture(len(records) + 1, which))
            records.append(picture(len(records) + 1, 10_000 + which, "body"))
        begun = time.thread_time()
        self.hub.fill("7", "L", records, True)
        self.assertLess(time.thread_time() - begun, 3.0)
        stream = self.hub._stream("7", "L")
        self.assertEqual((stream.have, stream.asked, stream.taken), (6000, 6000, 18_000))

    def test_what_is_kept_in_memory_does_not_grow_with_what_is_settled(self):
        for number in range(1, 5001):
            self.event(shot(2 * number - 1, number))
            self.event(picture(2 * number, number))
            self.hub.settle("7", "L", 2 * number)
        stream = self.hub._stream("7", "L")
        self.assertEqual((len(stream._entries), len(stream._open)), (0, 0))
        self.assertEqual((stream.have, stream.asked), (5000, 5000))

    def test_a_picture_that_never_comes_keeps_only_the_shots_behind_it(self):
        self.event(shot(1, 1))
        self.event(picture(2, 1))
        number = 2
        for which in range(2, 102):
            for _ in range(20):
                number += 1
                record = {"v": 1, "n": number, "time": TIME, "kind": "setting", "name": "iso"}
                self.event({**record, "text": "100", "allowed": [], "settable": True})
            number += 2
            self.event(shot(number - 1, which))
            self.event(picture(number, which))
            self.hub.settle("7", "L", number)
        stream = self.hub._stream("7", "L")
        self.assertEqual(len(stream._entries), 101)
        self.assertEqual((stream.settled, stream.have, stream.asked), (1, 101, 101))
        self.assertEqual(self.hub.marks()["7", "L"], Mark(1, 1, 1))
        self.hub.settle("7", "L", 2)
        self.assertEqual(self.hub.marks()["7", "L"], Mark(number, 101, 101))
        self.assertEqual(stream._entries, {})


class Silent(HubTestCase):
    """Stations that go without a word, and a broker that has kept that they are there."""

    def setUp(self):
        self.moment, self.states = 1000.0, []
        clock = mock.patch.object(hubs, "now", lambda: self.moment)
        clock.start()
        self.addCleanup(clock.stop)
        super().setUp()
        self.states.clear()

    def state(self, station, was_online, is_new_start):
        self.states.append((station, was_online, self.hub.online()))

    def tick(self):
        message = {"kind": "tick", "instance": "a", "tick": self.moment, "n": 0}
        self.hear("lumatie/1/pta/7/tick", message)

    def go_on(self, seconds):
        for _ in range(seconds):
            self.moment += 1.0
            self.hub.look()

    def test_a_station_without_ticks_is_gone_and_is_back_with_the_next_one(self):
        self.hub.connected(True)
        self.tick()
        self.go_on(20)
        self.assertEqual(self.states, [])
        self.go_on(20)
        self.assertEqual(self.states, [("7", True, [])])
        self.assertEqual(self.hub.place("7"), ("", "", ""))
        self.announce()  # the broker has kept it
        self.assertEqual(self.hub.online(), [])
        self.tick()
        self.assertEqual(self.states[1:], [("7", False, ["7"])])

    def test_a_station_that_tells_no_ticks_at_all_is_there_until_it_says_otherwise(self):
        self.hub.connected(True)
        self.go_on(100)
        self.assertEqual((self.states, self.hub.online()), ([], ["7"]))

    def test_a_station_that_is_gone_already_is_not_gone_again_with_its_will(self):
        self.hub.connected(True)
        self.tick()
        self.go_on(40)
        self.announce(online=False)
        self.assertEqual([was for _, was, _ in self.states], [True, False])
        self.announce(instance="b")
        self.assertEqual(self.hub.online(), ["7"])
        self.assertEqual(self.states[2:], [("7", False, ["7"])])

    def test_a_station_that_tells_ticks_stays(self):
        self.hub.connected(True)
        for _ in range(100):
            self.tick()
            self.go_on(10)
        self.assertEqual(self.states, [])

    def test_while_the_broker_is_not_there_and_for_a_while_after_nobody_is_gone(self):
        self.hub.connected(True)
        self.tick()
        self.hub.connected(False)
        self.go_on(200)
        self.hub.connected(True)
        self.go_on(20)
        self.assertEqual(self.states, [])
        self.go_on(20)
        self.assertEqual(len(self.states), 1)

    def test_a_studio_that_stood_still_hears_first_who_is_there(self):
        self.hub.connected(True)
        self.tick()
        self.go_on(5)
        self.moment += 3600.0
        self.go_on(20)
        self.assertEqual(self.states, [])
        self.go_on(20)
        self.assertEqual(len(self.states), 1)


class Ages(unittest.TestCase):
    def test_a_request_is_as_old_as_the_tick_that_it_names_and_what_was_waited_since(self):
        ticks, heard = ages.Ticks("a"), ages.Heard()
        begun = clock.now()
        heard.hear("a", begun)
        since = heard.since()
        self.assertGreaterEqual(since["after"], 0)
        self.assertAlmostEqual(ticks.asked_after({"since": since}), begun + since["after"], 5)
        self.assertLessEqual(ticks.asked_after({"since": since}), clock.now())

    def test_clocks_an_hour_apart_change_nothing(self):
        heard = ages.Heard()
        station = clock.now() - 3600.0  # what the other computer's clock shows
        heard.hear("a", station)
        since = heard.since()
        # On its own clock the station places the request now, and not an hour ago.
        self.assertAlmostEqual(since["tick"] + since["after"], clock.now() - 3600.0, delta=0.5)

    def test_a_tick_that_was_long_on_its_way_is_not_kept_in_place_of_a_better_one(self):
        heard = ages.Heard()
        heard.hear("a", clock.now())
        best = heard.since()["tick"]
        heard.hear("a", best - 5.0)
        self.assertEqual(heard.since()["tick"], best)

    def test_a_request_that_tells_a_wrong_clock_is_refused(self):
        ticks = ages.Ticks("a")
        for told in ({"instance": "b", "tick": 1.0, "after": 0.0}, 5, {}, {"instance": "a"},
                     {"instance": "a", "tick": clock.now() + 60, "after": 0.0},
                     {"instance": "a", "tick": 1.0, "after": -1.0}):  # fmt: skip
            with self.subTest(told=told), self.assertRaises(ValueError):
                ticks.asked_after({"since": told})

    def test_what_comes_behind_a_tick_has_left_the_broker_behind_it(self):
        ticks = ages.Ticks("a")
        self.assertIsNone(ticks.sent_after())
        ticks.hear({"instance": "b", "tick": 9.0})
        self.assertIsNone(ticks.sent_after())
        ticks.hear({"instance": "a", "tick": 7.0})
        ticks.hear({"instance": "a", "tick": 6.0})
        self.assertEqual(ticks.sent_after(), 7.0)
        ticks.forget()
        self.assertIsNone(ticks.sent_after())


class Both(unittest.TestCase):
    def test_the_tools_of_these_tests_wait_and_say_for_what(self):
        with self.assertRaisesRegex(AssertionError, "not within 0.01 s: nothing"):
            wait_until(lambda: False, "nothing", 0.01)
        self.assertEqual(messages.decode(messages.encode({"a": 1})), {"a": 1})


if __name__ == "__main__":
    unittest.main()
