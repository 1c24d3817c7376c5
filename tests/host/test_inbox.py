"""The inbox: one after the other, whatever fails, and the rest looked after behind each flood."""

import queue
import threading
import time
import unittest
from unittest import mock

from lumatie_host import inbox
from lumatie_host.errors import Closed, NoAnswer
from lumatie_host.inbox import Inbox

DEADLINE = 20.0


def late():
    return NoAnswer(1.0, "answer")


class InboxTest(unittest.TestCase):
    def setUp(self):
        self.done = []
        self.inbox = Inbox(self.done.append, lambda: self.done.append("look"), lambda: None)

    def start(self):
        self.inbox.start()
        self.addCleanup(self.inbox.end, DEADLINE)

    def ask(self, function, seconds=DEADLINE):
        return self.inbox.ask(function, time.monotonic() + seconds, late)

    def test_a_flood_is_worked_off_in_its_order_before_the_look(self):
        for number in range(500):
            self.inbox.note(number)
            self.inbox.post(lambda number=number: self.done.append(-number))
        self.start()
        self.ask(lambda: None)
        flood = [each for number in range(500) for each in (number, -number)]
        self.assertEqual([each for each in self.done if each != "look"], flood)
        self.assertEqual(self.done[: len(flood)], flood)

    def test_a_wait_whose_time_is_over_is_none(self):
        # Before 3.11 a SimpleQueue may wait for ever then.
        waits = []

        class Noted(queue.SimpleQueue):
            def get(self, block=True, timeout=None):
                waits.append(timeout)
                return super().get(block, timeout)

        self.inbox._queue = Noted()
        self.inbox._pause = lambda: 0.0
        for number in range(3):
            self.inbox.post(lambda number=number: self.done.append(number))
        self.assertTrue(self.inbox._work_off())
        self.assertEqual((self.done, waits), ([0, 1, 2], []))
        self.inbox._pause = lambda: 0.01
        self.assertTrue(self.inbox._work_off())
        self.assertEqual(waits, [0.01])

    def test_a_flood_without_an_end_is_looked_after_too(self):
        for number in range(5000):
            self.inbox.note(number)
        self.start()
        self.ask(lambda: None)
        self.assertIn("look", self.done[:2000])
        self.assertEqual([each for each in self.done if each != "look"], list(range(5000)))

    def test_what_fails_is_told_and_ends_nothing(self):
        self.start()
        with self.assertLogs("lumatie_host", "ERROR") as logs:
            self.inbox.post(lambda: 1 / 0)
            self.assertEqual(self.ask(lambda: 7), 7)
        self.assertIn("ZeroDivisionError", logs.output[0])

    def test_who_asks_gets_the_error(self):
        self.start()
        with self.assertRaises(ZeroDivisionError):
            self.ask(lambda: 1 / 0)

    def test_what_was_not_done_in_time_is_not_done_later(self):
        self.start()
        goes_on = threading.Event()
        self.addCleanup(goes_on.set)
        self.inbox.post(lambda: goes_on.wait(DEADLINE))
        with self.assertRaises(NoAnswer):
            self.ask(lambda: self.done.append("late"), 0.05)
        goes_on.set()
        self.ask(lambda: None)
        self.assertNotIn("late", self.done)

    def test_what_is_being_done_and_does_not_end_is_late_too(self):
        self.start()
        goes_on = threading.Event()
        self.addCleanup(goes_on.set)
        with mock.patch.object(inbox, "BEGUN_PATIENCE", 0.1), self.assertRaises(NoAnswer):
            self.ask(lambda: goes_on.wait(DEADLINE), 0.5)

    def test_the_look_is_due_after_the_pause_though_nothing_came(self):
        looked = threading.Event()
        inbox = Inbox(self.done.append, looked.set, lambda: 0.01)
        inbox.start()
        self.assertTrue(looked.wait(DEADLINE))
        inbox.end(DEADLINE)

    def test_behind_the_end_nothing_is_done(self):
        self.start()
        self.inbox.post(lambda: self.done.append("last"))
        self.assertTrue(self.inbox.end(DEADLINE))
        self.assertFalse(self.inbox.post(lambda: self.done.append("late")))
        with self.assertRaises(Closed):
            self.ask(lambda: None)
        self.assertEqual([each for each in self.done if each != "look"], ["last"])


if __name__ == "__main__":
    unittest.main()
