"""Which shot a picture belongs to."""

import datetime
import time
import unittest
from concurrent.futures import Future

from lumatie_host.errors import PictureLost
from lumatie_host.events import Picture
from lumatie_host.shots import Shots

NOON = datetime.datetime(2026, 11, 22, 12, 0, 0)


def released(at):
    future = Future()
    future.set_result(at)
    return future


def picture(exposure, file):
    now = datetime.datetime.now(datetime.timezone.utc)
    return Picture(1, now, file, 1, "00", exposure.number, exposure.origin, "JPEG", {"iso": "100"})


class ShotsTest(unittest.TestCase):
    def setUp(self):
        self.shots = Shots()
        self.now = time.monotonic()

    def ask(self, files=1, wants_pair=False, at=0.0):
        exposure = self.shots.ask(files, wants_pair)
        exposure.released = released(self.now + at)
        return exposure

    def take(self, kind="JPEG", at=1.0, files=1, taken=None):
        return self.shots.take(kind, taken, self.now + at, files)

    def test_a_shot_tells_when_the_camera_was_told_to_release(self):
        asked = self.ask(at=0.7)
        taken = self.take()
        self.shots.settled(taken, picture(taken, "a.JPG"))
        self.assertEqual(asked.result.result(0).released, self.now + 0.7)

    def test_a_picture_belongs_to_the_shot_that_was_asked_for(self):
        asked = self.ask()
        taken = self.take()
        self.assertIs(taken, asked)
        self.shots.settled(taken, picture(taken, "a.JPG"))
        shot = asked.result.result(0)
        self.assertEqual((shot.number, shot.origin, shot.settings), (1, "host", {"iso": "100"}))
        self.assertEqual([p.file for p in shot.pictures], ["a.JPG"])

    def test_the_next_picture_is_one_from_the_body(self):
        self.ask()
        self.take()
        self.assertEqual((self.take(at=2.0).number, self.take(at=3.0).origin), (2, "body"))

    def test_a_picture_from_before_the_release_is_not_the_one_that_was_asked_for(self):
        asked = self.ask(at=5.0)
        self.assertEqual(self.take(at=4.0).origin, "body")
        self.assertIs(self.take(at=6.0), asked)

    def test_a_shot_that_waits_for_its_release_has_no_picture_yet(self):
        asked = self.shots.ask(1, False)
        asked.released = Future()
        self.assertEqual(self.take().origin, "body")
        asked.released.set_running_or_notify_cancel()  # it is being released
        self.assertIs(self.take(), asked)

    def test_the_second_file_of_a_pair_belongs_to_the_first(self):
        asked = self.ask(2, wants_pair=True)
        self.shots.settled(self.take("RAW", files=2), picture(asked, "a.CR3"))
        self.assertFalse(asked.result.done())
        self.shots.settled(self.take("JPEG", files=2), picture(asked, "a.JPG"))
        self.assertEqual([p.file for p in asked.result.result(0).pictures], ["a.CR3", "a.JPG"])

    def test_without_waiting_for_the_pair_the_first_file_is_enough(self):
        asked = self.ask(2)
        self.shots.settled(self.take("RAW", files=2), picture(asked, "a.CR3"))
        self.assertTrue(asked.result.done())
        self.assertIs(self.take("JPEG", files=2), asked)

    def test_halves_of_a_burst_find_each_other(self):
        numbers = [
            self.take(kind, at, 2).number
            for kind, at in (("RAW", 1), ("RAW", 2), ("JPEG", 3), ("JPEG", 4))
        ]
        self.assertEqual(numbers, [1, 2, 1, 2])

    def test_halves_with_other_times_do_not_belong_together(self):
        self.take("RAW", 1.0, 2, NOON)
        later = NOON + datetime.timedelta(seconds=10)
        self.assertEqual(self.take("JPEG", 11.0, 2, later).number, 2)
        self.assertEqual(self.take("RAW", 12.0, 2, later).number, 2)

    def test_a_half_that_comes_a_minute_later_is_none(self):
        self.take("RAW", 0.0, 2)
        self.assertEqual(self.take("JPEG", 61.0, 2).number, 2)

    def test_the_half_of_the_last_shot_is_not_the_one_asked_for_now(self):
        first = self.ask(2)
        self.take("RAW", files=2)
        second = self.ask(2)
        self.assertIs(self.take("JPEG", files=2), first)
        self.assertIs(self.take("RAW", files=2), second)

    def test_a_picture_that_comes_late_belongs_to_the_only_one_that_was_given_up(self):
        asked = self.ask()
        self.assertTrue(self.shots.give_up(asked))
        self.assertIs(self.take(at=100.0), asked)
        self.assertEqual(self.take(at=101.0).origin, "body")

    def test_a_picture_that_comes_much_too_late_is_nobodys(self):
        self.shots.give_up(self.ask())
        self.assertEqual(self.take(at=400.0).origin, "body")

    def test_of_two_that_were_given_up_nobody_knows_whose_it_is(self):
        for _ in range(2):
            self.shots.give_up(self.ask())
        self.assertEqual((self.take().number, self.take().origin), (3, "body"))

    def test_what_is_asked_for_now_goes_before_what_was_given_up(self):
        late = self.ask()
        self.shots.give_up(late)
        asked = self.ask()
        self.assertIs(self.take(), asked)
        self.assertIs(self.take(), late)

    def test_one_that_was_withdrawn_before_its_release_gets_nothing(self):
        asked = self.shots.ask(1, False)
        asked.released = Future()
        asked.released.cancel()
        self.shots.give_up(asked)
        self.assertEqual(self.take().origin, "body")

    def test_a_failure_is_that_of_the_shot_that_was_asked_for(self):
        asked = self.ask()
        error = PictureLost("a.JPG", "it is not there")
        self.assertIs(self.shots.blame(self.now + 1.0), asked)
        self.assertTrue(self.shots.give_up(asked, error))
        self.assertIs(asked.result.exception(0), error)
        self.assertFalse(self.shots.give_up(asked, error))

    def test_a_failure_of_the_second_half_is_that_of_its_shot(self):
        asked = self.ask(2, wants_pair=True)
        self.take("RAW", files=2)
        self.assertIs(self.shots.blame(self.now + 2.0), asked)
        self.assertEqual(self.take("JPEG", 3.0, 2).number, 2)

    def test_a_failure_without_a_shot_is_nobodys(self):
        self.assertIsNone(self.shots.blame(self.now))

    def test_many_shots_are_not_all_remembered(self):
        for number in range(1, 1001):
            self.assertEqual(self.take(at=number).number, number)
        self.assertEqual(self.shots.next_number, 1001)
        self.assertLessEqual(len(self.shots._recent), 50)


if __name__ == "__main__":
    unittest.main()
