"""Sequences on a scripted session: what is asked of it, in which order, and what becomes of it."""

import contextlib
import datetime
import logging
import pickle
import threading
import unittest
from unittest import mock

from lumatie_host import errors, sequences
from lumatie_host.events import Picture
from lumatie_host.settings import Choice, Setting

NOW = datetime.datetime(2026, 11, 22, tzinfo=datetime.timezone.utc)
TIMES = ("Bulb", "2", "1", "1/2", "1/4", "1/8", "1/15", "1/30", "1/60")


def setting(name, text, allowed, settable=True, key=None):
    choices = tuple(Choice(100 + position, choice) for position, choice in enumerate(allowed))
    return Setting(name, text, key, choices, settable)


def picture(**settings):
    return Picture(1, NOW, "a.JPG", 1, "0" * 64, 1, "host", "JPEG", settings)


class Shot:
    def __init__(self, number, pictures):
        self.number = number
        self.pictures = pictures


class Session:
    """Does what it is asked; `faults` are raised in place of the calls that they are keyed by."""

    def __init__(self, **settings):
        self.settings = {"mode": setting("mode", "M", (), False), **settings}
        self.calls = []
        self.faults = {}  # the call as text -> errors in turn
        self.tells = {}  # what pictures tell in place of what is set
        self.before_shoot = lambda: None
        self.now = 0.0  # of the clock

    def clock(self):
        return self.now

    def _call(self, text):
        self.calls.append(text)
        if self.faults.get(text):
            fault = self.faults[text].pop(0)
            if fault is not None:
                raise fault

    def set(self, name, text=None, *, key=None, timeout=5.0):
        assert 0 < timeout <= sequences.ANSWER_TIMEOUT
        self._call("set %s %s" % (name, text) + ("" if key is None else " by %d" % key))
        old = self.settings[name]
        self.settings[name] = Setting(name, text, key, old.choices, old.settable)
        return self.settings[name]

    def shoot(self, *, timeout=30.0, pair=False):
        self.before_shoot()
        self._call("shoot")
        number = self.calls.count("shoot")
        texts = {name: one.text for name, one in self.settings.items()}
        texts.update(self.tells.get(number, {}))
        shot = [picture(**{name: text for name, text in texts.items() if text is not None})]
        return Shot(number, shot * (2 if pair else 1))


class Stop(threading.Event):
    """Waits on a session's own clock, and writes down for how long."""

    def __init__(self, session):
        super().__init__()
        self.session = session
        self.waited = []

    def wait(self, timeout=None):
        self.waited.append(timeout)
        self.session.now += timeout
        return self.is_set()


class Quiet(unittest.TestCase):
    def setUp(self):
        logger = logging.getLogger("lumatie_host")
        logger.setLevel(logging.CRITICAL)
        self.addCleanup(logger.setLevel, logging.NOTSET)
        patch = mock.patch.object(sequences, "_PAUSE", 0.001)
        patch.start()
        self.addCleanup(patch.stop)


class Intervals(Quiet):
    def setUp(self):
        super().setUp()
        self.session = Session()
        self.stop = Stop(self.session)

    def interval(self, count, every, **options):
        return sequences.interval(
            self.session, count, every, stop=self.stop, clock=self.session.clock, **options
        )

    def takes(self, *seconds):
        """How long each shot takes; when each was asked for is written down."""
        self.began = []
        durations = iter(seconds)

        def pass_time():
            self.began.append(self.session.now)
            self.session.now += next(durations)

        self.session.before_shoot = pass_time

    def test_frames_are_shot_at_the_times_of_the_grid(self):
        self.session.now = 100.0
        self.takes(0.5, 0.25, 1.0, 0.5)
        frames = list(self.interval(4, 2.0))
        self.assertEqual(self.began, [100.0, 102.0, 104.0, 106.0])
        self.assertEqual([frame.late for frame in frames], [0.0] * 4)
        told = [(frame.number, frame.of, frame.shot.number, frame.wanted) for frame in frames]
        self.assertEqual(told, [(n, 4, n, None) for n in (1, 2, 3, 4)])

    def test_a_late_frame_is_shot_at_once_and_those_after_it_keep_the_grid(self):
        self.takes(0.5, 5.0, 0.5, 0.25, 0.5)
        frames = list(self.interval(5, 2.0))
        self.assertEqual(self.began, [0.0, 2.0, 7.0, 7.5, 8.0])
        self.assertEqual([frame.late for frame in frames], [0.0, 0.0, 3.0, 1.5, 0.0])

    def test_a_slow_reader_makes_late_frames_and_no_others(self):
        self.takes(*[0.0] * 3)
        frames = self.interval(3, 1.0)
        next(frames)
        self.session.now += 1.5
        self.assertEqual([frame.late for frame in frames], [0.5, 0.0])
        self.assertEqual(self.began, [0.0, 1.5, 2.0])

    def test_an_early_awakening_makes_no_early_frame(self):
        self.takes(0.0, 0.0)
        self.stop.wait = lambda timeout: setattr(
            self.session, "now", self.session.now + timeout / 2 + 0.01
        )
        list(self.interval(2, 1.0))
        self.assertGreaterEqual(self.began[1], 1.0)

    def test_stop_ends_between_frames(self):
        frames = self.interval(10, 1.0)
        self.assertEqual(next(frames).number, 1)
        self.assertEqual(next(frames).number, 2)
        self.stop.set()
        self.assertEqual(list(frames), [])
        self.assertEqual(self.session.calls, ["shoot", "shoot"])

    def test_stop_ends_the_waiting_too(self):
        stop = threading.Event()
        frames = sequences.interval(self.session, 2, 3600.0, stop=stop)
        next(frames)
        timer = threading.Timer(0.05, stop.set)
        timer.start()
        self.addCleanup(timer.join)
        self.assertEqual(list(frames), [])

    def test_a_frame_that_fails_is_named_and_never_shot_again(self):
        cause = errors.NoAnswer(30, "take a picture")
        self.session.faults["shoot"] = [None, cause]
        frames = self.interval(5, 1.0)
        next(frames)
        with self.assertRaises(errors.FrameFailed) as raised:
            next(frames)
        failure = raised.exception
        self.assertEqual((failure.frame, failure.cause), (2, cause))
        self.assertIs(failure.__cause__, cause)
        text = "frame 2 failed: the camera did not take a picture within 30 seconds"
        self.assertEqual(str(failure), text)
        self.assertEqual(failure.reason, errors.Reason.NO_ANSWER)
        self.assertEqual(failure.advice, cause.advice)
        self.assertEqual(list(frames), [])
        self.assertEqual(self.session.calls, ["shoot", "shoot"])

    def test_a_pair_is_asked_for_as_such(self):
        [frame] = self.interval(1, 0, pair=True)
        self.assertEqual(len(frame.shot.pictures), 2)

    def test_wrong_numbers_are_refused_before_the_first_frame_is_asked_for(self):
        for count, every in (
            (0, 1),
            (-1, 1),
            (10**9, 1),
            (1, -1),
            (1, float("nan")),
            (1, float("inf")),
        ):
            with self.subTest(count=count, every=every), self.assertRaises(ValueError):
                self.interval(count, every)
        self.assertEqual(self.session.calls, [])


class Brackets(Quiet):
    def setUp(self):
        super().setUp()
        self.session = Session(
            shutter=setting("shutter", "1/4", TIMES),
            aperture=setting("aperture", "8", ("4", "5.6", "8", "11", "16")),
        )

    def run_all(self, *arguments, **options):
        return list(sequences.bracket(self.session, *arguments, **options))

    def fails(self, *arguments, **options):
        with self.assertRaises(errors.FrameFailed) as raised:
            self.run_all(*arguments, **options)
        return raised.exception

    def test_each_value_is_confirmed_before_its_frame_and_the_one_before_comes_back(self):
        frames = self.run_all("shutter", ["1", "1/8"])
        self.assertEqual(
            self.session.calls,
            ["set shutter 1", "shoot", "set shutter 1/8", "shoot", "set shutter 1/4"],
        )
        self.assertEqual([frame.wanted for frame in frames], ["1", "1/8"])
        self.assertEqual([(frame.number, frame.of) for frame in frames], [(1, 2), (2, 2)])
        self.assertEqual([frame.shot.number for frame in frames], [1, 2])

    def test_values_are_computed_around_the_present_one(self):
        for options, wanted in (
            ({"steps": 1}, ["1/2", "1/4", "1/8"]),
            ({}, ["2", "1/4", "1/30"]),
            ({"steps": 1, "frames": 5}, ["1", "1/2", "1/4", "1/8", "1/15"]),
        ):
            with self.subTest(options):
                self.assertEqual([frame.wanted for frame in self.run_all(**options)], wanted)

    def test_any_setting_can_be_bracketed(self):
        frames = self.run_all("aperture", steps=2)
        self.assertEqual([frame.wanted for frame in frames], ["4", "8", "16"])
        self.assertEqual(self.session.calls[-1], "set aperture 8")

    def test_a_list_without_room_is_refused_at_once_and_bulb_is_no_room(self):
        with self.assertRaises(errors.Refused) as raised:
            sequences.bracket(self.session, steps=4)
        self.assertEqual(raised.exception.wanted, "3 values, 4 apart, around 1/4")
        self.assertEqual(raised.exception.allowed, TIMES[1:])
        self.session.settings["shutter"] = setting("shutter", "Bulb", TIMES)
        with self.assertRaises(errors.Refused):
            sequences.bracket(self.session, steps=1)
        self.assertEqual(self.session.calls, [])

    def test_a_value_that_is_not_allowed_is_refused_before_anything_is_set(self):
        with self.assertRaises(errors.Refused) as raised:
            sequences.bracket(self.session, "shutter", ["1", "1/4000"])
        self.assertEqual(raised.exception.wanted, "1/4000")
        self.assertEqual(self.session.calls, [])

    def test_a_setting_that_cannot_be_set_or_is_not_there_is_told_at_once(self):
        self.session.settings["shutter"] = setting("shutter", "1/4", TIMES, settable=False)
        self.session.settings["mode"] = setting("mode", "P", (), False)
        with self.assertRaises(errors.NotSettable) as raised:
            sequences.bracket(self.session)
        self.assertEqual(raised.exception.mode, "P")
        self.session.settings["mode"] = setting("mode", "M", (), False)
        with self.assertRaises(errors.NotSettable) as raised:
            sequences.bracket(self.session)
        self.assertIsNone(raised.exception.mode)
        with self.assertRaises(errors.NotSettable):
            sequences.bracket(self.session, "focus")

    def test_wrong_numbers_are_refused_at_once(self):
        for options in (
            {"frames": 1},
            {"frames": 4},
            {"steps": 0},
            {"values": []},
            {"values": "1/4"},
        ):
            with self.subTest(options), self.assertRaises(ValueError):
                sequences.bracket(self.session, **options)

    def test_exposure_times_are_compared_by_seconds(self):
        self.session.tells = {1: {"shutter": "0.5"}}
        frames = self.run_all("shutter", ['0"5', "1/8"])
        self.assertEqual([frame.wanted for frame in frames], ["1/2", "1/8"])

    def test_a_text_that_stands_twice_is_set_by_its_key(self):
        lists = ("4", "5.6", "8", "8", "11")
        self.session.settings["aperture"] = setting("aperture", "8", lists, key=103)
        self.run_all("aperture", steps=1)
        self.assertEqual(
            [call for call in self.session.calls if call != "shoot"],
            [
                "set aperture 8 by 102",
                "set aperture 8 by 103",
                "set aperture 11",
                "set aperture 8 by 103",
            ],
        )

    def test_a_picture_taken_with_another_value_is_a_failure_of_its_frame(self):
        self.session.tells = {2: {"shutter": "1/60"}}
        failure = self.fails("shutter", ["1", "1/8", "1/15"])
        self.assertEqual(failure.frame, 2)
        self.assertIsInstance(failure.cause, errors.TakenOtherwise)
        self.assertEqual((failure.cause.wanted, failure.cause.text), ("1/8", "1/60"))
        self.assertIsNone(failure.not_restored)
        self.assertEqual(self.session.calls[-2:], ["shoot", "set shutter 1/4"])

    def test_a_picture_that_tells_nothing_of_the_setting_is_one_too(self):
        self.session.tells = {1: {"shutter": None}}
        failure = self.fails("shutter", ["1"])
        self.assertIsNone(failure.cause.text)

    def test_a_busy_camera_is_asked_again_and_the_frame_is_shot_once(self):
        self.session.faults["set shutter 1"] = [errors.NoAnswer(5), errors.NoAnswer(5)]
        self.run_all("shutter", ["1"])
        self.assertEqual(self.session.calls, ["set shutter 1"] * 3 + ["shoot", "set shutter 1/4"])

    def test_a_camera_that_stays_busy_is_a_failure_when_the_time_is_over(self):
        self.session.faults["set shutter 1"] = [errors.NoAnswer(5)] * 100_000
        failure = self.fails("shutter", ["1"], set_timeout=0.05)
        self.assertEqual((failure.frame, failure.reason), (1, errors.Reason.NO_ANSWER))
        self.assertNotIn("shoot", self.session.calls)
        self.assertGreater(self.session.calls.count("set shutter 1"), 1)
        self.assertEqual(self.session.calls[-1], "set shutter 1/4")

    def test_what_the_camera_refuses_is_not_asked_again(self):
        self.session.faults["set shutter 1"] = [errors.Refused("shutter", "1", TIMES)]
        self.assertEqual(self.fails("shutter", ["1"]).reason, errors.Reason.REFUSED)
        self.assertEqual(self.session.calls, ["set shutter 1", "set shutter 1/4"])

    def test_no_frame_that_may_have_fired_is_shot_again(self):
        self.session.faults["shoot"] = [errors.NoAnswer(30)]
        self.assertEqual(self.fails("shutter", ["1", "2"]).frame, 1)
        self.assertEqual(self.session.calls, ["set shutter 1", "shoot", "set shutter 1/4"])

    def test_a_failure_says_when_the_value_before_is_not_back_either(self):
        lost = errors.SessionLost(7, "the cable is out")
        self.session.faults["shoot"] = [lost]
        self.session.faults["set shutter 1/4"] = [lost]
        failure = self.fails("shutter", ["1"])
        self.assertEqual(
            str(failure),
            "frame 1 failed: the camera has been gone for 7 seconds: the cable is out; "
            "and the shutter could not be set back to 1/4: "
            "the camera has been gone for 7 seconds: the cable is out",
        )
        self.assertEqual(failure.not_restored.text, "1/4")
        copy = pickle.loads(pickle.dumps(failure))
        self.assertEqual((str(copy), copy.frame), (str(failure), 1))
        self.assertEqual(copy.not_restored.text, "1/4")

    def test_a_value_that_is_not_back_after_all_frames_is_told_too(self):
        self.session.faults["set shutter 1/4"] = [errors.Refused("shutter", "1/4", ())]
        seen = []
        with self.assertRaises(errors.NotRestored) as raised:
            for frame in sequences.bracket(self.session, "shutter", ["1"]):
                seen.append(frame.number)
        self.assertEqual(seen, [1])
        self.assertEqual((raised.exception.setting, raised.exception.text), ("shutter", "1/4"))

    def test_a_busy_camera_is_asked_again_for_the_value_before(self):
        self.session.faults["set shutter 1/4"] = [errors.NoAnswer(5)]
        self.run_all("shutter", ["1"])
        self.assertEqual(self.session.settings["shutter"].text, "1/4")

    def test_stop_ends_between_frames_and_the_value_before_comes_back(self):
        stop = threading.Event()
        frames = sequences.bracket(self.session, "shutter", ["1", "1/8"], stop=stop)
        next(frames)
        stop.set()
        self.assertEqual(list(frames), [])
        self.assertEqual(self.session.calls, ["set shutter 1", "shoot", "set shutter 1/4"])

    def test_a_sequence_stopped_before_its_first_frame_sets_nothing(self):
        stop = threading.Event()
        stop.set()
        self.assertEqual(self.run_all(stop=stop), [])
        self.assertEqual(self.session.calls, [])

    def test_who_leaves_early_gets_the_value_before_back(self):
        with contextlib.closing(sequences.bracket(self.session, "shutter", ["1", "1/8"])) as frames:
            for _ in frames:
                break
        self.assertEqual(self.session.calls, ["set shutter 1", "shoot", "set shutter 1/4"])

    def test_an_interruption_brings_the_value_before_back(self):
        self.session.faults["shoot"] = [KeyboardInterrupt()]
        with self.assertRaises(KeyboardInterrupt):
            self.run_all("shutter", ["1"])
        self.assertEqual(self.session.calls[-1], "set shutter 1/4")


if __name__ == "__main__":
    unittest.main()
