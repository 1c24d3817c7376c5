"""Listeners get what happens, in order, and delay nobody."""

import dataclasses
import datetime
import gc
import threading
import time
import unittest
import weakref

from lumatie_host.events import Alarm, Lagged, Picture, SettingChanged
from lumatie_host.subscribers import EventIterator, Mailbox, Subscribers
from timing import timed, within
from virtual_cameras import wait_until

DEADLINE = 20.0
NOW = datetime.datetime(2026, 11, 22, tzinfo=datetime.timezone.utc)


def alarm(n):
    return Alarm(n, NOW, "what %d" % n, "advice")


def picture(n):
    return Picture(n, NOW, "%d.JPG" % n, 1, "00", n, "host", "JPEG")


def setting(n, name, text):
    return SettingChanged(n, NOW, name, text)


UNRECORDED = Alarm(1, NOW, "the disk is full", "Make room.", is_recorded=False)


def numbers(mailbox):
    taken = []
    while True:
        event = mailbox.take(0)
        if event is None:
            return taken
        taken.append((event.first, event.last) if isinstance(event, Lagged) else event.n)


class MailboxTest(unittest.TestCase):
    def test_events_are_taken_in_the_order_in_which_they_came(self):
        mailbox = Mailbox()
        for n in range(1, 6):
            mailbox.put(alarm(n))
        self.assertEqual(numbers(mailbox), [1, 2, 3, 4, 5])

    def test_of_the_events_about_a_setting_the_newest_wins(self):
        mailbox = Mailbox()
        mailbox.put(setting(1, "iso", "100"))
        mailbox.put(setting(2, "shutter", "1/60"))
        mailbox.put(picture(3))
        mailbox.put(setting(4, "iso", "200"))
        mailbox.put(setting(5, "iso", "400"))
        self.assertEqual(numbers(mailbox), [2, 3, 5])

    def test_a_setting_that_changes_for_ever_takes_one_place(self):
        mailbox = Mailbox(limit=10)
        mailbox.put(picture(1))
        for n in range(2, 5000):
            mailbox.put(setting(n, "iso", str(n)))
        self.assertEqual(numbers(mailbox), [1, 4999])

    def test_a_mailbox_that_overflows_tells_the_numbers_that_are_in_the_ledger(self):
        mailbox = Mailbox(limit=4)
        for n in range(1, 6):
            mailbox.put(picture(n))
        self.assertEqual(numbers(mailbox), [(1, 2), 3, 4, 5])

    def test_a_mailbox_that_overflows_again_and_again_leaves_no_number_out(self):
        mailbox = Mailbox(limit=6)
        for n in range(1, 1001):
            mailbox.put(picture(n))
        taken = numbers(mailbox)
        self.assertLessEqual(len(taken), 7)
        expected = 1
        for entry in taken:
            first, last = entry if isinstance(entry, tuple) else (entry, entry)
            self.assertEqual(first, expected)
            expected = last + 1
        self.assertEqual(expected, 1001)

    def test_an_alarm_that_is_in_no_ledger_is_not_given_up(self):
        mailbox = Mailbox(limit=4)
        mailbox.put(picture(1))
        mailbox.put(UNRECORDED)
        for n in range(2, 20):
            mailbox.put(picture(n))
        taken = numbers(mailbox)
        self.assertEqual(taken, [(1, 16), 1, 17, 18, 19])

    def test_of_the_alarms_that_are_in_no_ledger_the_newest_is_kept(self):
        mailbox = Mailbox(limit=2)
        for n in range(100):
            mailbox.put(dataclasses.replace(UNRECORDED, n=n))
        self.assertLessEqual(len(mailbox._waiting), 4)
        self.assertEqual(numbers(mailbox)[-1], 99)

    def test_who_waits_without_an_event_gets_none_at_the_deadline(self):
        start = time.monotonic()
        self.assertIsNone(Mailbox().take(0.05))
        self.assertGreaterEqual(time.monotonic() - start, 0.04)

    def test_what_waits_in_a_closed_mailbox_can_still_be_taken(self):
        mailbox = Mailbox()
        mailbox.put(alarm(1))
        mailbox.close()
        mailbox.put(alarm(2))
        self.assertFalse(mailbox.is_over)
        self.assertEqual(numbers(mailbox), [1])
        self.assertTrue(mailbox.is_over)
        self.assertIsNone(mailbox.take())

    def test_the_first_event_and_the_end_are_told_and_nothing_between(self):
        told = []
        mailbox = Mailbox(on_ready=lambda: told.append(mailbox.is_over))
        mailbox.put(alarm(1))
        mailbox.put(alarm(2))
        self.assertEqual(told, [False])
        numbers(mailbox)
        mailbox.put(alarm(3))
        numbers(mailbox)
        mailbox.close()
        mailbox.close()
        self.assertEqual(told, [False, False, True])

    def test_a_listener_that_cannot_be_woken_is_logged(self):
        mailbox = Mailbox(on_ready=lambda: 1 / 0)
        with self.assertLogs("lumatie_host", "ERROR"):
            mailbox.put(alarm(1))
        self.assertEqual(numbers(mailbox), [1])


class SubscribersTest(unittest.TestCase):
    def setUp(self):
        self.subscribers = Subscribers()
        self.addCleanup(self.subscribers.close)

    def test_each_subscriber_is_called_on_a_thread_of_its_own(self):
        threads, done = [], threading.Semaphore(0)

        def note(event):
            threads.append(threading.get_ident())
            done.release()

        for _ in range(3):
            self.subscribers.subscribe(note)
        self.subscribers.publish(alarm(1))
        for _ in range(3):
            self.assertTrue(done.acquire(timeout=DEADLINE))
        self.assertEqual(len(set(threads)), 3)
        self.assertNotIn(threading.get_ident(), threads)

    def test_a_subscriber_that_raises_is_logged_and_goes_on(self):
        for error in (ValueError("no"), SystemExit(3)):
            with self.subTest(error=error):
                heard, done = [], threading.Event()

                def listen(event):
                    heard.append(event.n)
                    if len(heard) == 2:
                        done.set()
                    raise error

                with self.assertLogs("lumatie_host", "ERROR") as logs:
                    unsubscribe = self.subscribers.subscribe(listen)
                    self.subscribers.publish(alarm(1))
                    self.subscribers.publish(alarm(2))
                    self.assertTrue(done.wait(DEADLINE))
                self.assertIn("a subscriber failed at Alarm", logs.output[0])
                unsubscribe()

    @timed
    def test_a_subscriber_that_blocks_delays_nobody(self):
        blocked, heard = threading.Event(), threading.Event()
        self.addCleanup(blocked.set)
        self.subscribers.subscribe(lambda event: blocked.wait(DEADLINE))
        self.subscribers.subscribe(lambda event: event.n == 5000 and heard.set())
        with within(5.0):
            for n in range(1, 5001):
                self.subscribers.publish(picture(n))
        self.assertTrue(heard.wait(DEADLINE))

    def test_no_call_begins_after_unsubscribing(self):
        inside, go_on, heard = threading.Event(), threading.Event(), []

        def listen(event):
            heard.append(event.n)
            inside.set()
            go_on.wait(DEADLINE)

        unsubscribe = self.subscribers.subscribe(listen)
        threads = threading.active_count()
        self.subscribers.publish(alarm(1))
        self.subscribers.publish(alarm(2))
        self.assertTrue(inside.wait(DEADLINE))
        unsubscribe()
        unsubscribe()
        go_on.set()
        wait_until(lambda: threading.active_count() < threads, "its thread has ended")
        self.assertEqual(heard, [1])

    def test_a_subscriber_may_unsubscribe_itself(self):
        heard, done = [], threading.Event()
        handle = []

        def listen(event):
            heard.append(event.n)
            handle[0]()
            done.set()

        handle.append(self.subscribers.subscribe(listen))
        self.subscribers.publish(alarm(1))
        self.subscribers.publish(alarm(2))
        self.assertTrue(done.wait(DEADLINE))
        self.subscribers.publish(alarm(3))
        self.assertEqual(heard, [1])

    def test_a_subscriber_gets_what_came_before_the_end(self):
        heard, go_on, done = [], threading.Event(), threading.Event()

        def listen(event):
            go_on.wait(DEADLINE)
            heard.append(event.n)
            if event.n == 3:
                done.set()

        self.subscribers.subscribe(listen)
        for n in (1, 2, 3):
            self.subscribers.publish(alarm(n))
        self.subscribers.close()
        go_on.set()
        self.assertTrue(done.wait(DEADLINE))
        self.assertEqual(heard, [1, 2, 3])

    def test_a_mailbox_that_comes_after_the_end_is_over(self):
        self.subscribers.close()
        self.assertTrue(self.subscribers.mailbox().is_over)

    def test_a_mailbox_that_nobody_keeps_is_forgotten(self):
        forgotten = weakref.ref(self.subscribers.mailbox())
        gc.collect()
        self.assertIsNone(forgotten())
        kept = self.subscribers.mailbox()
        self.assertEqual([one() for one in self.subscribers._mailboxes], [kept])


class EventIteratorTest(unittest.TestCase):
    def test_earlier_events_come_first_and_none_comes_twice(self):
        mailbox = Mailbox()
        for n in (3, 4, 5):
            mailbox.put(alarm(n))
        mailbox.close()
        events = EventIterator(mailbox, iter([alarm(2), alarm(3), alarm(4)]))
        self.assertEqual([event.n for event in events], [2, 3, 4, 5])

    def test_an_alarm_that_is_in_no_ledger_comes_whatever_was_read(self):
        mailbox = Mailbox()
        mailbox.put(alarm(1))
        mailbox.put(UNRECORDED)
        mailbox.close()
        events = EventIterator(mailbox, iter([alarm(1)]))
        self.assertEqual(list(events), [alarm(1), UNRECORDED])

    def test_a_lag_that_reaches_beyond_what_was_read_is_told(self):
        mailbox = Mailbox(limit=4)
        for n in range(3, 10):
            mailbox.put(picture(n))
        mailbox.close()
        events = EventIterator(mailbox, iter([picture(2), picture(3)]))
        self.assertEqual([event.n for event in (next(events), next(events))], [2, 3])
        self.assertIsInstance(next(events), Lagged)

    def test_an_iterator_waits_for_the_next_event_and_ends_with_the_session(self):
        subscribers = Subscribers()
        events = EventIterator(subscribers.mailbox())
        heard = []
        thread = threading.Thread(target=lambda: heard.extend(event.n for event in events))
        thread.start()
        subscribers.publish(alarm(1))
        subscribers.publish(alarm(2))
        subscribers.close()
        thread.join(DEADLINE)
        self.assertFalse(thread.is_alive())
        self.assertEqual(heard, [1, 2])

    def test_an_iterator_can_be_ended_from_another_thread(self):
        events = EventIterator(Mailbox())
        thread = threading.Thread(target=lambda: list(events))
        thread.start()
        events.close()
        thread.join(DEADLINE)
        self.assertFalse(thread.is_alive())


if __name__ == "__main__":
    unittest.main()
