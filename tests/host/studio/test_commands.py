"""What a station does with commands: once, answered, never late. The session is a stand-in that
counts: how late a camera is asked cannot be told from a virtual one.
"""

import json
import os
import pathlib
import tempfile
import threading
import time
import types
import unittest
from unittest import mock

from lumatie_host.errors import Refused, TooLate
from lumatie_host.page.problems import Problem
from lumatie_host.page.sequence import Sequences
from lumatie_host.settings import Choice, Setting
from lumatie_host.studio import ages, clock, commands
from lumatie_host.studio.broker import Message
from lumatie_host.studio.claims import Claim, Reply, Verdict
from lumatie_host.studio.memory import Memory
from lumatie_host.studio.topics import Branch
from studio_support import wait_until


class StandIn:
    """A session whose camera only counts."""

    def __init__(self, folder):
        self.folder = folder
        self.state = "open"
        self.tag = ""
        self.asked = 0
        self.fired = []
        self.held = 0.0  # seconds since the camera was told to release, when a shot is over
        self.set_to = []
        self.may_set = threading.Event()
        self.may_set.set()
        self.may_begin = threading.Event()
        self.may_begin.set()
        self.recorded = None  # the number of a shot that has got a record when it is too late
        self.may_end = threading.Event()
        self.may_end.set()
        self.rated = []
        self.ledger = self

    def read(self, since):
        records = [{"n": 1, "kind": "shot"}, {"n": 2, "kind": "picture", "file": "a.JPG"}]
        return iter(records[since:])

    def rate(self, file, rating, label):
        if file not in ("a.JPG", "b.JPG"):
            raise ValueError("%s is not in the folder" % file)
        self.rated.append((file, rating, label))

    def subscribe(self, listener):
        return lambda: None

    def shoot(self, timeout, pair, is_wanted=None):
        self.asked += 1
        assert self.may_begin.wait(20)
        if is_wanted is not None and not is_wanted():
            raise TooLate(self.recorded)
        self.fired.append(clock.now())
        assert self.may_end.wait(20)
        released = time.monotonic() - self.held
        return types.SimpleNamespace(
            number=len(self.fired), pictures=(), milliseconds=1.0, released=released
        )

    def set(self, name, text, key, timeout):
        if text == "no":
            raise Refused(name, text, ["a", "b"])
        self.set_to.append((name, text, key))
        assert self.may_set.wait(20)
        return text

    def next_name(self):
        return "next.JPG"


class Running:
    """Sequences that only begin."""

    def __init__(self):
        self.begun = []
        self.is_running = False

    def start_interval(self, camera, count, every):
        if self.is_running:
            raise Problem(409, "a sequence is running", "Stop it, or wait for its end.", "running")
        self.is_running = True
        self.begun.append((count, every))

    def start_bracket(self, camera, of, **wanted):
        raise ValueError("there are no values so far away")

    def stop(self):
        self.is_running = False

    def told(self):
        return {"running": self.is_running}


class CommandsTestCase(unittest.TestCase):
    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-commands-")
        self.addCleanup(base.cleanup)
        self.folder = os.path.realpath(base.name)
        pathlib.Path(self.folder, ".lumatie").mkdir()
        self.session = StandIn(self.folder)
        self.running = Running()
        self.branch = Branch("pta", "7")
        self.answers, self.tokens, self.said = [], [], []
        self.begin()

    def begin(self, instance="a"):
        self.instance = instance
        self.ticks = ages.Ticks(instance)
        self.commands = commands.Commands(
            self.session,
            self.running,
            self.branch,
            Memory(self.folder, "pta", "7"),
            self.ticks,
            lambda topic, data, answer: self.answers.append((topic, data, answer)),
            self.tokens.append,
            self.said.append,
        )
        self.addCleanup(self.commands.close)
        self.tick()

    def tick(self, before=0.0):
        self.ticks.forget()
        self.ticks.hear({"instance": self.instance, "tick": clock.now() - before})

    def send(
        self,
        operation,
        request=None,
        data=b"1",
        expiry=2,
        is_retained=False,
        response=None,
        after=None,
    ):
        payload = b"" if request is None else json.dumps(request).encode()
        response = response or self.branch.reply("x")
        topic = self.branch.command(operation)
        message = Message(topic, payload, is_retained, response, data, expiry, "", after)
        self.commands.take(operation, message)

    def answer(self, count=1):
        wait_until(lambda: len(self.answers) >= count, "answer %d" % count)
        return self.answers[count - 1][2]

    def assert_refused(self, words):
        answer = self.answer()
        self.assertEqual((answer["ok"], answer["reason"]), (False, "refused"), answer)
        self.assertRegex(answer["error"], words)
        self.assertEqual((self.session.fired, self.running.begun), ([], []))


INTERVAL = {"kind": "interval", "count": 5, "every": 0.5}
BRACKET = {"kind": "bracket", "setting": "iso", "values": ["100", "400"]}


class Done(CommandsTestCase):
    def test_a_shot_is_taken_and_answered(self):
        self.send("shoot", {"pair": False})
        answer = self.answer()
        self.assertEqual((answer["ok"], answer["shot"], answer["pictures"]), (True, 1, []))
        self.assertEqual(self.answers[0][:2], (self.branch.reply("x"), b"1"))

    def test_an_answer_tells_when_the_camera_was_told_to_release_not_when_it_was_asked_for(
        self,
    ):
        self.session.held = -0.7  # a camera that waits for its next report
        before = clock.now()
        self.send("shoot")
        fired = self.answer()["clock"]["fired"]
        step = 0.02  # of the clock that a release is told by on Windows
        self.assertGreater(fired, before + 0.7 - step)
        self.assertLess(fired, clock.now() + 0.7 + step)

    def test_a_setting_is_set_and_answered(self):
        self.send("set", {"name": "iso", "text": "800"}, expiry=None)
        answer = self.answer()
        self.assertEqual((answer["name"], answer["text"]), ("iso", "800"))

    def test_what_the_camera_refuses_is_answered_with_what_it_allows(self):
        self.send("set", {"name": "iso", "text": "no"})
        answer = self.answer()
        self.assertEqual((answer["reason"], answer["allowed"]), ("refused", ["a", "b"]))

    def test_a_tag_is_taken(self):
        self.send("tag", {"tag": "class 4b"})
        self.assertEqual(self.answer()["next_name"], "next.JPG")
        self.assertEqual(self.session.tag, "class 4b")

    def test_a_picture_is_rated_by_its_number_or_its_file(self):
        self.send("rate", {"n": 2, "rating": 4})
        self.assertEqual((self.answer()["file"], self.answer()["rating"]), ("a.JPG", 4))
        self.send("rate", {"file": "b.JPG", "rating": 0, "label": "Red"}, b"2")
        self.assertTrue(self.answer(2)["ok"])
        self.assertEqual(self.session.rated, [("a.JPG", 4, ""), ("b.JPG", 0, "Red")])

    def test_a_sequence_begins_and_is_stopped_while_a_picture_is_waited_for(self):
        self.send("sequence", INTERVAL)
        self.assertEqual(self.answer()["sequence"], {"running": True})
        self.assertEqual(self.running.begun, [(5, 0.5)])
        self.session.may_end.clear()
        self.send("shoot", data=b"2")
        self.send("stop", data=b"3", expiry=None)
        self.assertEqual(self.answer(2)["sequence"], {"running": False})
        self.session.may_end.set()

    def test_a_token_opens_the_server(self):
        self.send("enter", {"token": "0" * 32})
        self.assertTrue(self.answer()["ok"])
        self.assertEqual(self.tokens, ["0" * 32])

    def test_a_setting_does_not_wait_for_a_picture(self):
        self.session.may_end.clear()
        self.send("shoot")
        self.send("set", {"name": "iso", "text": "800"}, b"2")
        self.assertEqual(self.answer()["operation"], "set")
        self.session.may_end.set()
        self.assertEqual(self.answer(2)["operation"], "shoot")


class Once(CommandsTestCase):
    def test_a_command_that_comes_twice_fires_once_and_is_answered_from_memory(self):
        self.send("shoot")
        first = self.answer()
        for _ in range(3):
            self.send("shoot")
        self.assertEqual(self.answer(4), first)
        self.assertEqual(len(self.session.fired), 1)

    def test_one_that_comes_again_while_it_is_under_way_is_answered_once(self):
        self.session.may_end.clear()
        for _ in range(5):
            self.send("shoot")
        wait_until(lambda: self.session.fired, "a shot")
        self.session.may_end.set()
        self.send("shoot", data=b"2")
        self.answer(2)
        self.assertEqual([data for _, data, _ in self.answers], [b"1", b"2"])
        self.assertEqual(len(self.session.fired), 2)

    def test_one_that_was_fired_before_the_station_was_killed_does_not_fire_again(self):
        self.send("shoot")
        self.answer()
        self.begin("b")
        self.send("shoot")
        self.assertIn("before the station was started anew", self.answer(2)["error"])
        self.assertEqual(len(self.session.fired), 1)

    def test_a_sequence_that_comes_twice_begins_once_also_behind_a_new_start(self):
        for _ in range(2):
            self.send("sequence", INTERVAL)
        self.answer()
        self.begin("b")
        self.running.is_running = False
        self.send("sequence", INTERVAL)
        wait_until(lambda: not self.answers[-1][2]["ok"], "a refusal")
        self.assertIn("before the station was started anew", self.answers[-1][2]["error"])
        self.assertEqual(self.running.begun, [(5, 0.5)])

    def test_a_disk_that_cannot_note_the_request_lets_nothing_fire(self):
        full = OSError(28, "No space left on device")
        with mock.patch("lumatie_host.studio.memory.os.fsync", side_effect=full):
            self.send("shoot")
            self.assert_refused("No space left")

    def test_a_torn_note_is_passed_over(self):
        self.send("shoot")
        self.answer()
        (path,) = pathlib.Path(self.folder, ".lumatie").glob("*.fired")
        with open(str(path), "a") as file:
            file.write('["shoot 32')
        self.begin("b")
        self.send("shoot", data=b"2")
        self.assertTrue(self.answer(2)["ok"])
        self.assertEqual(len(path.read_text().splitlines()), 3)

    def test_requests_of_more_than_ten_minutes_ago_take_no_room(self):
        now = [1000.0]
        with mock.patch("lumatie_host.studio.memory.time.time", lambda: now[0]), mock.patch(
            "lumatie_host.studio.memory.os.fsync"
        ):
            memory = Memory(self.folder, "pta", "7")
            for number in range(7000):
                now[0] += 1.0
                memory.fire("shoot %d" % number)
            again = Memory(self.folder, "pta", "7")
            for one in (memory, again):
                self.assertTrue(one.was_fired("shoot 6401"))
                self.assertFalse(one.was_fired("shoot 2000"))
        (path,) = pathlib.Path(self.folder, ".lumatie").glob("*.fired")
        self.assertLess(len(path.read_text().splitlines()), 2700)
        self.assertLess(len(memory._fired), 2700)


class Late(CommandsTestCase):
    """With a clock that goes on when a test says so: others use the machine, too."""

    def setUp(self):
        self.moment = 1000.0
        for module in (clock, ages, commands):
            patched = mock.patch.object(module, "now", lambda: self.moment)
            patched.start()
            self.addCleanup(patched.stop)
        super().setUp()

    def test_a_request_older_than_two_seconds_does_not_fire(self):
        self.tick(before=2.01)
        self.send("shoot")
        self.assert_refused("2.0 seconds old, and 2 are allowed")

    def test_a_request_that_tells_its_own_age_does_not_fire_late(self):
        # It left the broker just now, but was long on its way there.
        since = {"instance": "a", "tick": clock.now() - 5.0, "after": 2.9}
        self.send("shoot", {"since": since})
        self.assert_refused("2.1 seconds old")

    def test_a_request_that_tells_its_own_age_fires_in_time(self):
        since = {"instance": "a", "tick": clock.now() - 5.0, "after": 4.0}
        self.send("shoot", {"since": since})
        self.assertTrue(self.answer()["ok"])

    def test_a_request_that_waits_behind_another_shot_gets_too_old(self):
        self.session.may_end.clear()
        self.tick(before=1.8)
        self.send("shoot")
        self.send("shoot", data=b"2")
        wait_until(lambda: self.session.fired, "the first shot")
        self.moment += 0.3
        self.session.may_end.set()
        self.assertRegex(self.answer(2)["error"], "seconds old")
        self.assertEqual(len(self.session.fired), 1)

    def test_a_request_that_waits_within_the_session_gets_too_old(self):
        self.session.may_begin.clear()
        self.tick(before=1.8)
        self.send("shoot")
        wait_until(lambda: self.session.asked, "the session is asked")
        self.moment += 0.3
        self.session.may_begin.set()
        self.assert_refused("2.1 seconds old, and 2 are allowed")
        self.assertNotIn("shot", self.answer())

    def test_a_request_that_got_too_old_behind_its_record_tells_the_shots_number(self):
        self.session.may_begin.clear()
        self.session.recorded = 5
        self.tick(before=1.9)
        self.send("shoot")
        wait_until(lambda: self.session.asked, "the session is asked")
        self.moment += 0.2
        self.session.may_begin.set()
        self.assert_refused("seconds old")
        self.assertEqual(self.answer()["shot"], 5)

    def test_a_sequence_older_than_two_seconds_does_not_begin(self):
        self.tick(before=2.01)
        self.send("sequence", INTERVAL)
        self.assert_refused("2.0 seconds old, and 2 are allowed")

    def test_a_sequence_that_waits_for_the_disk_gets_too_old(self):
        def wait(memory, key):
            self.moment += 0.3

        self.tick(before=1.8)
        with mock.patch.object(Memory, "fire", wait):
            self.send("sequence", INTERVAL)
            self.assert_refused("2.1 seconds old, and 2 are allowed")

    def begin_sequence(self, request):
        """One that does not only begin."""
        self.running = Sequences()
        self.addCleanup(self.running.close, 20)
        choices = (Choice(1, "100"), Choice(2, "200"), Choice(3, "400"))
        self.session.settings = {"iso": Setting("iso", "200", 2, choices, True)}
        self.begin()
        self.send("sequence", request)
        self.assertTrue(self.answer()["ok"])

    def end_of_sequence(self):
        wait_until(lambda: not self.running.told()["running"], "its end")
        return self.running.told()["error"]

    def assert_not_behind_another(self, request):
        self.session.may_begin.clear()
        self.begin_sequence(request)
        wait_until(lambda: self.session.asked, "the session is asked")
        self.moment += 2.1
        self.session.may_begin.set()
        self.assertIn("could not be asked in time", str(self.end_of_sequence()))
        self.assertEqual((self.session.asked, self.session.fired), (1, []))

    def test_an_interval_whose_first_frame_waits_for_anothers_shot_gets_too_old(self):
        self.assert_not_behind_another({**INTERVAL, "every": 0.001})

    def test_a_bracket_whose_first_frame_waits_for_anothers_shot_gets_too_old(self):
        self.assert_not_behind_another(BRACKET)
        self.assertEqual(self.session.set_to[-1], ("iso", "200", None))

    def test_the_second_frame_of_a_sequence_has_its_time(self):
        self.session.may_end.clear()
        self.begin_sequence({**INTERVAL, "count": 2, "every": 0.001})
        wait_until(lambda: self.session.fired, "the first frame")
        self.moment += 2.1
        self.session.may_end.set()
        self.assertIsNone(self.end_of_sequence())
        self.assertEqual(len(self.session.fired), 2)

    def test_a_bracket_has_its_time_to_set_its_first_value(self):
        self.session.may_set.clear()
        self.begin_sequence(BRACKET)
        wait_until(lambda: self.session.set_to, "the setting")
        self.moment += 3.0
        self.session.may_set.set()
        wait_until(lambda: self.session.fired, "the first frame")
        self.end_of_sequence()

    def test_a_request_whose_age_cannot_be_told_does_not_fire(self):
        self.ticks.forget()
        self.send("shoot")
        self.assert_refused("it cannot be told how old it is")

    def test_a_request_before_the_first_tick_is_as_old_as_the_connection_at_most(self):
        self.ticks.forget()
        self.send("shoot", after=clock.now() - 2.5)
        self.assertRegex(self.answer()["error"], "seconds old")
        self.send("shoot", data=b"2", after=clock.now())
        self.assertTrue(self.answer(2)["ok"])
        self.assertEqual(len(self.session.fired), 1)

    def test_a_request_of_an_earlier_start_does_not_fire(self):
        self.send("shoot", {"since": {"instance": "z", "tick": 1.0, "after": 0.0}})
        self.assert_refused("made for an earlier start")

    def test_a_request_without_expiry_does_not_fire(self):
        self.send("shoot", expiry=None)
        self.assert_refused("no message expiry")

    def test_a_setting_may_be_old(self):
        self.tick(before=60)
        self.send("set", {"name": "iso", "text": "800"}, expiry=None)
        self.assertTrue(self.answer()["ok"])

    def test_what_expires_while_it_waits_for_another_setting_is_not_done(self):
        self.session.may_set.clear()
        self.send("set", {"name": "iso", "text": "800"}, expiry=2)
        self.send("set", {"name": "iso", "text": "100"}, b"2", expiry=2)
        self.send("tag", {"tag": "4b"}, b"3", expiry=2)
        self.send("rate", {"n": 2, "rating": 1}, b"4", expiry=2)
        self.send("tag", {"tag": "4c"}, b"5", expiry=3)
        wait_until(lambda: self.session.set_to, "the first")
        self.moment += 2.1
        self.session.may_set.set()
        told = [self.answer(number).get("error") for number in range(1, 6)]
        self.assertEqual(told, [None, *["it has expired"] * 3, None])
        self.assertEqual((self.session.set_to, self.session.tag), ([("iso", "800", None)], "4c"))
        self.assertEqual(self.session.rated, [])

    def test_what_expired_on_its_way_from_the_broker_is_not_done(self):
        self.tick(before=2.1)
        self.send("tag", {"tag": "4b"}, expiry=2)
        self.assert_refused("it has expired")
        self.assertEqual(self.session.tag, "")

    def test_a_stop_is_never_too_late(self):
        self.send("sequence", INTERVAL)
        self.answer()
        self.tick(before=2.1)
        self.send("stop", data=b"2", expiry=2)
        self.assertEqual(self.answer(2)["sequence"], {"running": False})


class NotTaken(CommandsTestCase):
    def test_a_retained_command(self):
        self.send("shoot", is_retained=True)
        self.assert_refused("retained, which no command may be")
        self.assertIn("retained", self.said[0])

    def test_a_command_without_correlation_data(self):
        self.send("shoot", data=None)
        self.assert_refused("no correlation data")

    def test_an_unknown_operation(self):
        self.send("format_card")
        self.assert_refused("there is no operation 'format_card'")

    def test_a_camera_that_is_away(self):
        self.session.state = "lost"
        self.send("shoot")
        self.assert_refused("the camera is lost")

    def test_requests_that_are_wrong(self):
        wrong = [
            ("shoot", {"pair": "yes"}), ("shoot", {"timeout": 0}), ("shoot", {"timeout": True}),
            ("shoot", {"count": 5}), ("shoot", [1]), ("set", {"name": "iso"}),
            ("set", {"name": "iso", "text": "1", "key": 2}), ("set", {"name": 5, "text": "1"}),
            ("set", {"name": "iso", "key": "2"}), ("tag", {}), ("tag", {"tag": 5}),
            ("tag", {"tag": "x" * 201}), ("enter", {"token": "short"}),
            ("rate", {"rating": 1}), ("rate", {"n": 1, "rating": 1}),
            ("rate", {"n": 3, "rating": 1}), ("rate", {"n": 2, "rating": 6}),
            ("rate", {"file": "../c.JPG", "rating": 1}),
            ("sequence", {}), ("sequence", {"kind": "stop"}), ("stop", {"kind": "stop"}),
            ("sequence", {"kind": "interval", "count": 0, "every": 1}),
            ("sequence", {"kind": "interval", "count": 5}), ("sequence", {"kind": "bracket"}),
        ]  # fmt: skip
        for number, (operation, request) in enumerate(wrong, 1):
            with self.subTest(operation=operation, request=request):
                self.send(operation, request, b"%d" % number)
                self.assertFalse(self.answer(number)["ok"])
        self.assertEqual((self.session.fired, self.session.set_to, self.tokens), ([], [], []))
        self.assertEqual((self.session.rated, self.running.begun), ([], []))

    def test_a_second_sequence_while_one_runs(self):
        self.send("sequence", INTERVAL)
        self.send("sequence", INTERVAL, b"2")
        self.assertEqual(self.answer(2)["error"], "a sequence is running")
        self.assertEqual(len(self.running.begun), 1)

    def test_an_answer_is_sent_to_no_topic_that_means_something_else(self):
        for topic in ("lumatie/1/pta/8/cmd/shoot", "lumatie/1/pta/7/event/picture"):
            self.send("shoot", data=topic.encode(), response=topic)
        wait_until(lambda: len(self.said) == 2, "two refusals")
        self.assertEqual((self.answers, self.session.fired), ([], []))

    def test_of_very_many_refusals_a_hundred_are_told_until_a_command_is_carried_out(self):
        for number in range(300):
            self.send("dance", data=b"%d" % number)
        self.assertEqual((len(self.answers), len(self.said)), (300, 101))
        self.send("tag", {"tag": "4b"}, b"good", expiry=None)
        self.assertTrue(self.answer(301)["ok"])
        self.send("dance", data=b"again")
        self.assertIn("there is no operation 'dance'", self.said[-1])

    def test_too_many_at_a_time(self):
        self.session.may_end.clear()
        for number in range(100):
            self.send("shoot", data=b"%d" % number)
        wait_until(lambda: self.session.fired, "the first")
        self.assertIn("too many commands wait", self.answer()["error"])
        self.commands.close()
        self.session.may_end.set()


class Names(unittest.TestCase):
    """Who has a name."""

    def setUp(self):
        self.moment = 100.0
        patched = mock.patch("lumatie_host.studio.claims.now", lambda: self.moment)
        patched.start()
        self.addCleanup(patched.stop)
        self.claim = Claim("b", "L")

    def settle(self):
        self.claim.hear_claim({"instance": "b"})
        self.moment += 0.4

    def online(self, instance="a", ledger="M", is_online=True):
        state = {"instance": instance, "ledger": ledger, "online": is_online, "camera": "X"}
        return {**state, "url": "http://h/"}

    def test_a_name_that_nobody_has_is_ours(self):
        self.assertIs(self.claim.poll(), Verdict.WAIT)
        self.settle()
        self.assertIs(self.claim.poll(), Verdict.OURS)

    def test_whoever_has_it_says_so_and_keeps_it(self):
        self.claim.hear_state(self.online(), True)
        self.settle()
        self.assertIs(self.claim.poll(), Verdict.WAIT)
        self.claim.hear_state(self.online(), False)
        self.assertIs(self.claim.poll(), Verdict.TAKEN)
        self.assertIn("it has the camera X", self.claim.by)

    def test_a_state_that_was_kept_waits_for_the_will(self):
        self.claim.hear_state(self.online(), True)
        self.settle()
        self.claim.hear_state(self.online(is_online=False), False)
        self.assertIs(self.claim.poll(), Verdict.OURS)

    def test_a_state_that_was_kept_without_a_will_and_an_answer_is_of_nobody_any_more(self):
        self.claim.hear_state(self.online(), True)
        self.settle()
        self.moment += 16.0
        self.assertIs(self.claim.poll(), Verdict.WAIT)
        self.moment += 1.1
        self.assertIs(self.claim.poll(), Verdict.OURS)

    def test_an_earlier_start_with_the_same_ledger_is_not_waited_for(self):
        self.claim.hear_state(self.online(ledger="L"), True)
        self.settle()
        self.assertIs(self.claim.poll(), Verdict.OURS)

    def test_of_two_at_one_moment_one_stays(self):
        other = Claim("a", "M")
        for claim in (self.claim, other):
            for instance in ("a", "b"):
                claim.hear_claim({"instance": instance})
        self.moment += 0.4
        self.assertEqual((other.poll(), self.claim.poll()), (Verdict.OURS, Verdict.TAKEN))

    def test_of_two_of_which_one_came_behind_the_others_claim_one_stays(self):
        other = Claim("c", "M")
        self.claim.hear_claim({"instance": "b"})
        self.assertIs(self.claim.hear_claim({"instance": "c"}), Reply.CLAIM)
        for instance in ("c", "b"):
            other.hear_claim({"instance": instance})
        self.moment += 0.4
        self.assertEqual((self.claim.poll(), other.poll()), (Verdict.OURS, Verdict.TAKEN))

    def test_a_holder_that_is_back_before_its_time_is_over_keeps_the_name(self):
        self.claim.hear_state(self.online("c"), True)
        self.settle()
        self.assertIs(self.claim.hear_claim({"instance": "c"}), Reply.NOTHING)
        self.claim.hear_state(self.online("c"), False)
        self.assertIs(self.claim.poll(), Verdict.TAKEN)

    def test_ours_is_told_again_to_whoever_claims_it(self):
        self.settle()
        self.claim.poll()
        self.assertIs(self.claim.hear_claim({"instance": "a"}), Reply.STATE)
        state = self.online("a", is_online=False)
        self.assertIs(self.claim.hear_state(state, False), Reply.STATE)
        self.assertIs(self.claim.hear_state(self.online("b"), False), Reply.NOTHING)
        self.assertIs(self.claim.poll(), Verdict.OURS)

    def test_of_two_that_both_have_it_the_lesser_one_tells_its_state_and_the_other_one_goes(self):
        self.settle()
        self.claim.poll()
        self.assertIs(self.claim.hear_state(self.online("c"), False), Reply.STATE)
        self.assertIs(self.claim.poll(), Verdict.OURS)
        self.assertIs(self.claim.hear_state(self.online("a"), False), Reply.NOTHING)
        self.assertIs(self.claim.poll(), Verdict.TAKEN)
        self.assertIn("it has the camera X", self.claim.by)


if __name__ == "__main__":
    unittest.main()
