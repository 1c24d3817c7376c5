"""A station at a real broker. Its session is a stand-in: what is asked here is when a name is its
own, and what of it the broker gets.
"""

import pathlib
import threading
import unittest
from unittest import mock

import lumatie_host
from lumatie_host.page.sequence import Sequences
from lumatie_host.studio import answers, claims, words
from lumatie_host.studio import station as stations
from lumatie_host.studio.problems import BrokerRefused, NameTaken
from lumatie_host.studio.station import Station
from studio_support import Proxy, StudioTestCase, wait_until

BRANCH = "lumatie/1/pta/7/"
OTHER = {"instance": "0", "online": True, "ledger": "gone", "camera": "X", "url": "http://h/"}


class StandIn:
    """A session that is open, and whose camera takes each setting as soon as it may."""

    maker, camera, state, id = "canon", "Stand-in", "open", "1"

    def __init__(self, folder):
        self.folder = str(folder)
        self.ledger = lumatie_host.Ledger(self.folder)
        self.ledger.prepare()
        self.tag = ""
        self.settings = {}
        self.set_to = []
        self.may_set = threading.Event()
        self.may_set.set()

    def subscribe(self, listener):
        return lambda: None

    def next_name(self):
        return "next.JPG"

    def set(self, name, text, key, timeout):
        self.set_to.append(text)
        assert self.may_set.wait(30)
        return text


class StationTestCase(StudioTestCase):
    def setUp(self):
        super().setUp()
        self.desk = self.client("studio", ["lumatie/1/pta/+/reply/+", "lumatie/1/pta/+/state"])

    def station(self, folder="shoot", address=None, say=None):
        """A station that has not begun."""
        path = pathlib.Path(self.base, folder)
        path.mkdir(exist_ok=True)
        station = Station(
            *(StandIn(path), "http://127.0.0.1:1/", Sequences(), lambda token: None),
            *(address or self.broker.address("7"), "pta", "7", say or self.say),
        )
        self.addCleanup(station.close)
        return station

    def ask(self, operation, request, data, expiry=None):
        self.desk.publish(
            BRANCH + "cmd/" + operation, request, False, expiry, BRANCH + "reply/desk", data
        )

    def state(self):
        return self.desk.messages(BRANCH + "state")[-1]

    def answers(self):
        return self.desk.messages(BRANCH + "reply/desk")


class Names(StationTestCase):
    def test_of_two_that_come_one_shortly_behind_the_other_one_gets_the_name(self):
        watcher = self.client("7", [BRANCH + "claim"])
        both = self.station("one"), self.station("two")
        first, second = sorted(both, key=lambda station: station.instance)
        with mock.patch.object(claims, "SETTLING", 2.0):
            thread = threading.Thread(target=first.start)
            thread.start()
            self.addCleanup(thread.join)
            wait_until(lambda: watcher.messages(BRANCH + "claim"), "the first one's claim")
            with self.assertRaises(NameTaken) as raised:
                second.start()
            self.assertIn("at this moment, too", str(raised.exception))
            thread.join()
        self.assertTrue(first._has_name)

    def test_of_two_that_both_have_the_name_the_greater_one_goes_and_says_so(self):
        station = self.station()
        station.start()
        self.client("7").publish(BRANCH + "state", OTHER)
        self.wait_for_words("there is a station 7 already")
        self.assertFalse(station._has_name)

    def test_of_two_that_both_have_the_name_the_lesser_one_tells_its_state_with_pauses(self):
        station = self.station()
        station.start()
        other = self.client("7")
        for _ in range(100):
            other.send(BRANCH + "state", {**OTHER, "instance": "z"})

        def told():
            return [one["instance"] for one in self.desk.messages(BRANCH + "state")]

        wait_until(lambda: told().count("z") == 100, "the other one's states")
        wait_until(lambda: told()[-1] == station.instance, "the station's state")
        self.assertLess(told().count(station.instance), 50)
        self.assertTrue(station._has_name)

    def test_a_name_whose_holder_went_with_the_broker_is_free_again(self):
        self.client("7").publish(BRANCH + "state", OTHER, True)
        station = self.station()
        with mock.patch.object(claims, "WILL_AFTER", 1.0):
            station.start()
        self.assertTrue(station._has_name)
        wait_until(lambda: self.state()["instance"] == station.instance, "its state")

    def test_a_station_that_may_not_read_its_own_branch_says_so(self):
        self.broker.stop()
        path = self.base / "broker" / "acl"
        text = path.read_text()
        changed = text.replace("readwrite lumatie/1/+/%u/claim", "write lumatie/1/+/%u/claim")
        self.assertNotEqual(changed, text)
        path.write_bytes(changed.encode())
        self.broker.start()
        station = self.station()
        patience = mock.patch.object(stations, "ECHO_PATIENCE", 1.0)
        with patience, self.assertRaises(BrokerRefused) as raised:
            station.start()
        self.assertIn("read what it writes as station 7", str(raised.exception))


class Answered(StationTestCase):
    def test_an_answer_that_could_not_be_sent_is_sent_when_the_broker_is_there_again(self):
        proxy = Proxy(self.broker.port)
        self.addCleanup(proxy.close)
        station = self.station(address=self.broker.address("7", port=proxy.port))
        station.start()
        station._session.may_set.clear()
        self.ask("set", {"name": "iso", "text": "800"}, b"1")
        wait_until(lambda: station._session.set_to, "the command")
        proxy.refuse()
        wait_until(lambda: not station._connection.is_up, "the loss")
        station._session.may_set.set()
        wait_until(lambda: is_answered(station), "the end of the command")
        proxy.accept()
        wait_until(self.answers, "the answer")
        self.assertEqual([one["text"] for one in self.answers()], ["800"])
        self.assertEqual(station._session.set_to, ["800"])

    def test_words_that_nobody_reads_hold_up_no_command(self):
        may_say = threading.Event()
        self.addCleanup(may_say.set)
        station = self.station(say=lambda text: may_say.wait(60))
        station.start()
        for number in range(3):
            self.ask("dance", {}, b"%d" % number)
        self.ask("tag", {"tag": "4b"}, b"tag")
        wait_until(lambda: len(self.answers()) == 4, "the answers")


def is_answered(station):
    """Whether all commands have an answer, which may not have been sent."""
    return all(answer for _, answer in list(station._commands._known.values()))


class Kept(unittest.TestCase):
    """What is kept of answers."""

    def setUp(self):
        self.sent = []
        self.is_up = True
        self.moment = 100.0
        patched = mock.patch.object(answers, "now", lambda: self.moment)
        patched.start()
        self.addCleanup(patched.stop)
        self.answers = answers.Answers(self.send)

    def send(self, topic, correlation, payload):
        if not self.is_up:
            return None
        self.sent.append((topic, correlation, payload))
        return len(self.sent)

    def put(self, *payloads):
        for payload in payloads:
            self.answers.put("x", b"1", payload)
        self.answers.pump()

    def payloads(self):
        return [payload for _, _, payload in self.sent]

    def test_what_was_acknowledged_is_not_sent_again_and_the_rest_is(self):
        self.put(b"a", b"b", b"c")
        self.answers.acknowledge(2)
        self.answers.pump()
        self.assertEqual(self.payloads(), [b"a", b"b", b"c"])
        self.answers.begin_anew()
        self.answers.pump()
        self.assertEqual(self.payloads(), [b"a", b"b", b"c", b"a", b"c"])
        for number in (4, 5):
            self.answers.acknowledge(number)
        self.assertEqual(self.answers.left, 0)

    def test_what_cannot_be_sent_waits_for_a_minute(self):
        self.is_up = False
        self.put(b"a")
        self.moment += 50.0
        self.put(b"b")
        self.moment += 11.0
        self.is_up = True
        self.answers.pump()
        self.assertEqual(self.sent, [("x", b"1", b"b")])


class Said(unittest.TestCase):
    def test_words_are_said_in_their_order_and_too_many_are_dropped(self):
        said, reads, is_read = [], threading.Event(), threading.Event()

        def say(text):
            is_read.set()
            reads.wait(30)
            said.append(text)

        told = words.Words(say)
        told.start()
        told.put("0")
        self.assertTrue(is_read.wait(30))
        for number in range(1, 500):
            told.put(str(number))
        told.close()  # nobody reads: it waits for nothing
        self.assertEqual(said, [])
        reads.set()
        wait_until(lambda: len(said) > words.MOST_WAITING, "the words")
        told.close()
        self.assertEqual(said, [str(number) for number in range(words.MOST_WAITING + 1)])


if __name__ == "__main__":
    unittest.main()
