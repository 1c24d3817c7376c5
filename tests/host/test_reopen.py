"""When a camera counts as lost, and when it is tried again, on a clock that the test turns."""

import logging
import os
import shutil
import tempfile
import unittest

from lumatie_host import reopen
from lumatie_host.reopen import Do, UsbCameras, Watch, is_camera_of


class Clock:
    def __init__(self):
        self.now = 1000.0

    def __call__(self):
        return self.now


class WatchCase(unittest.TestCase):
    maker = "nikon"

    def setUp(self):
        self.clock = Clock()
        self.chance = 0.5
        self.watch = Watch(self.maker, self.clock, lambda: self.chance)
        self.watch.opened()

    def go(self, seconds):
        self.clock.now += seconds
        return self.watch.poll()

    def lose(self):
        self.watch.departed("the camera was unplugged")
        self.assertIs(self.watch.poll(), Do.LOSE)

    def next_start(self):
        """Waits as long as the watch says; returns how long that was."""
        wait = self.watch.wait()
        self.assertIsNone(self.go(wait - 0.01))
        self.assertIs(self.go(0.01), Do.START)
        return round(wait, 6)


class NikonTest(WatchCase):
    def test_reports_keep_it_open(self):
        for _ in range(100):
            self.assertIsNone(self.go(1.0))
            self.watch.sign()
        self.assertEqual(self.watch.state, reopen.OPEN)

    def test_five_seconds_of_silence_are_a_loss(self):
        self.assertIsNone(self.go(4.9))
        self.assertIs(self.go(0.1), Do.LOSE)
        self.assertEqual(self.watch.state, reopen.LOST)
        self.assertEqual(self.watch.evidence, "no report came for 5 seconds")

    def test_half_of_that_is_said_to_be_silence_until_the_next_sign(self):
        self.assertIsNone(self.go(2.5))
        self.assertEqual(self.watch.state, reopen.SILENT)
        self.watch.sign()
        self.assertEqual(self.watch.state, reopen.OPEN)

    def test_an_exposure_explains_silence_for_twice_its_time(self):
        self.watch.expose(30.0)
        self.assertIsNone(self.go(64.9))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_an_exposure_of_unknown_length_explains_two_minutes(self):
        self.watch.expose(None)
        self.assertIsNone(self.go(124.9))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_a_picture_that_was_asked_for_explains_the_silence_of_its_transfer(self):
        self.watch.fetch()
        self.assertIsNone(self.go(14.9))
        self.assertEqual(self.watch.state, reopen.OPEN)
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_a_picture_that_has_come_explains_nothing_any_more(self):
        self.watch.fetch()
        self.go(0.5)
        self.watch.sign(is_picture=True)
        self.assertIsNone(self.go(4.9))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_a_transfer_that_took_long_is_expected_of_the_next_one_too(self):
        self.watch.fetch()
        self.go(10.0)
        self.watch.sign(is_picture=True)
        self.assertIsNone(self.go(14.9))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_a_loss_that_was_a_transfer_is_none_the_next_time(self):
        self.assertIs(self.go(5.0), Do.LOSE)
        self.clock.now += 4.0
        self.watch.fetched()
        self.watch.opened()
        self.assertIsNone(self.go(13.4))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_a_second_picture_explains_no_more_than_the_first_has_taken(self):
        self.watch.expect("JPEG Fine")
        self.watch.fetch()
        self.go(0.5)
        self.watch.sign(is_picture=True)
        self.watch.expect("JPEG Fine")
        self.watch.fetch()
        self.assertIsNone(self.go(4.9))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_a_picture_of_another_quality_may_take_longer(self):
        self.watch.expect("JPEG Fine")
        self.watch.fetch()
        self.go(0.5)
        self.watch.sign(is_picture=True)
        self.watch.expect("RAW + JPEG Fine")
        self.watch.fetch()
        self.assertIsNone(self.go(14.9))
        self.assertIs(self.go(0.1), Do.LOSE)

    def test_an_exposure_is_no_transfer(self):
        self.watch.expose(30.0)
        self.watch.fetch()
        self.go(60.0)
        self.watch.sign(is_picture=True)
        self.watch.expose(0.01)
        self.assertIsNone(self.go(4.9))
        self.assertIs(self.go(0.2), Do.LOSE)

    def test_missed_deadlines_are_no_loss_while_reports_come(self):
        for _ in range(5):
            self.watch.missed()
            self.assertIsNone(self.watch.poll())

    def test_it_says_when_to_look_again(self):
        self.assertAlmostEqual(self.watch.wait(), 2.5)
        self.go(2.5)
        self.assertAlmostEqual(self.watch.wait(), 2.5)


class CanonTest(WatchCase):
    maker = "canon"

    def test_it_may_be_silent_for_ever(self):
        self.assertIsNone(self.watch.wait())
        self.assertIsNone(self.go(100000.0))
        self.assertEqual(self.watch.state, reopen.OPEN)

    def test_two_missed_deadlines_in_a_row_are_a_loss(self):
        self.watch.missed()
        self.assertIsNone(self.watch.poll())
        self.assertEqual(self.watch.state, reopen.SILENT)
        self.watch.missed()
        self.assertIs(self.watch.poll(), Do.LOSE)
        self.assertEqual(self.watch.evidence, "2 requests in a row were not answered")

    def test_an_event_between_two_missed_deadlines_tells_that_it_lives(self):
        self.watch.missed()
        self.watch.sign()
        self.assertEqual(self.watch.state, reopen.OPEN)
        self.watch.missed()
        self.assertIsNone(self.watch.poll())

    def test_a_departure_is_a_loss_at_once(self):
        self.watch.departed("the camera was unplugged")
        self.assertEqual(self.watch.wait(), 0.0)
        self.assertIs(self.watch.poll(), Do.LOSE)
        self.assertEqual(self.watch.evidence, "the camera was unplugged")

    def test_an_arrival_does_not_hide_that_the_camera_has_left(self):
        self.watch.departed("the camera was unplugged")
        self.watch.arrived()
        self.assertIs(self.watch.poll(), Do.LOSE)
        self.assertEqual(self.next_start(), 0.3)

    def test_an_arrival_during_an_attempt_has_the_next_one_follow_soon(self):
        self.lose()
        for _ in range(6):
            self.next_start()
            self.watch.failed("no camera was found")
        self.next_start()
        self.watch.arrived()
        self.watch.failed("no camera was found")
        self.assertEqual(self.next_start(), 0.3)

    def test_a_camera_that_came_back_at_once_is_still_a_new_one(self):
        self.lose()
        self.watch.arrived()
        self.assertIs(self.watch.poll(), Do.START)

    def test_it_tells_how_long_the_last_sign_was_ago(self):
        self.go(12.0)
        self.assertEqual(self.watch.since, 12.0)


class AttemptsTest(WatchCase):
    maker = "canon"

    def test_pauses_grow_from_a_third_of_a_second_to_three_and_after_a_minute_to_ten(self):
        self.lose()
        pauses = []
        for _ in range(27):
            pauses.append(self.next_start())
            self.watch.failed("no camera was found")
        self.assertEqual(pauses[:6], [0.3, 0.6, 1.2, 2.4, 3.0, 3.0])
        self.assertEqual(set(pauses[6:23]), {3.0})
        self.assertEqual(pauses[-3:], [10.0, 10.0, 10.0])

    def test_pauses_stay_between_their_limits_whatever_chance_does(self):
        for self.chance in (0.0, 1.0):
            self.watch.opened()
            self.lose()
            pauses = []
            for _ in range(8):
                pauses.append(self.next_start())
                self.watch.failed("no camera was found")
            self.assertGreaterEqual(min(pauses), 0.3)
            self.assertLessEqual(max(pauses), 10.0)
            self.assertEqual(pauses[2], 0.9 if self.chance == 0.0 else 1.5)

    def test_an_arrival_wakes_it_at_once_and_starts_the_pauses_anew(self):
        self.lose()
        for _ in range(6):
            self.next_start()
            self.watch.failed("no camera was found")
        self.watch.arrived()
        self.assertEqual(self.watch.wait(), 0.0)
        self.assertIs(self.watch.poll(), Do.START)
        self.watch.failed("no camera was found")
        self.assertEqual(self.next_start(), 0.6)

    def test_an_attempt_is_awaited_however_long_it_takes(self):
        self.lose()
        self.next_start()
        self.assertEqual(self.watch.state, reopen.REOPENING)
        self.assertIsNone(self.watch.wait())
        self.assertIsNone(self.go(1000.0))

    def test_a_camera_that_is_back_is_open_again(self):
        self.lose()
        self.next_start()
        self.go(7.0)
        self.assertAlmostEqual(self.watch.away, 7.3)
        self.watch.opened()
        self.assertEqual(self.watch.state, reopen.OPEN)
        self.assertEqual(self.watch.away, 0.0)
        self.assertIsNone(self.watch.poll())

    def test_the_first_failure_is_a_warning_and_the_rest_is_not(self):
        self.lose()
        with self.assertLogs("lumatie_host", logging.DEBUG) as logs:
            for _ in range(3):
                self.next_start()
                self.watch.failed("no camera was found")
        self.assertEqual([record.levelname for record in logs.records], ["WARNING"] + ["DEBUG"] * 2)
        self.assertEqual(
            logs.records[0].getMessage(), "the camera is not back yet: no camera was found"
        )

    def test_what_is_hopeless_is_not_tried_again(self):
        self.lose()
        self.next_start()
        with self.assertLogs("lumatie_host", logging.ERROR):
            self.watch.give_up("the driver module is gone")
        self.watch.arrived()
        self.assertEqual(self.watch.state, reopen.LOST)
        self.assertIsNone(self.watch.wait())
        self.assertIsNone(self.go(1000.0))

    def test_nothing_happens_after_the_close(self):
        self.lose()
        self.watch.close()
        self.watch.opened()
        self.watch.arrived()
        self.assertIsNone(self.go(1000.0))
        self.assertEqual(self.watch.state, reopen.CLOSED)


class UsbCamerasTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = folder.name

    def plug(self, name, vendor="04a9", number="5", kind="06"):
        for entry, files in (
            (name, {"idVendor": vendor, "devnum": number}),
            (name + "-1.0", {"bInterfaceClass": kind}),
        ):
            # A colon is no part of a name on Windows.
            folder = os.path.join(self.path, entry.replace(name + "-", name + ":"))
            os.mkdir(folder)
            for file, text in files.items():
                with open(os.path.join(folder, file), "w", encoding="ascii") as stream:
                    stream.write(text + "\n")

    def unplug(self, name):
        for entry in os.listdir(self.path):
            if entry.split(":")[0] == name:
                shutil.rmtree(os.path.join(self.path, entry))

    def setup_usb(self):
        if os.name == "nt":
            self.skipTest("Windows tells of devices in another way")
        return UsbCameras("canon", self.path)

    def test_a_camera_that_comes_and_goes_is_told(self):
        usb = self.setup_usb()
        self.assertIsNone(usb.change())
        self.plug("1-2")
        self.assertEqual(usb.change(), (True, False))
        self.assertIsNone(usb.change())
        self.unplug("1-2")
        self.assertEqual(usb.change(), (False, True))

    def test_one_of_two_that_goes_is_not_all(self):
        usb = self.setup_usb()
        self.plug("1-2")
        self.plug("1-3", number="6")
        usb.change()
        self.unplug("1-2")
        self.assertEqual(usb.change(), (False, False))

    def test_a_camera_that_was_plugged_in_anew_has_left_and_came(self):
        self.plug("1-2")
        usb = self.setup_usb()
        self.unplug("1-2")
        self.plug("1-2", number="9")
        self.assertEqual(usb.change(), (True, True))

    def test_a_second_camera_that_was_plugged_in_anew_leaves_the_first(self):
        self.plug("1-2")
        self.plug("1-3", number="6")
        usb = self.setup_usb()
        self.unplug("1-3")
        self.plug("1-3", number="9")
        self.assertEqual(usb.change(), (True, False))

    def test_other_vendors_and_printers_are_no_cameras(self):
        usb = self.setup_usb()
        self.plug("1-2", vendor="04b0")
        self.plug("1-3", kind="07")
        self.assertIsNone(usb.change())

    def test_where_nothing_can_be_read_there_is_no_change(self):
        self.assertIsNone(UsbCameras("nikon", os.path.join(self.path, "missing")).change())

    def test_a_windows_name_tells_the_maker_and_that_it_is_a_camera(self):
        name = r"\\?\USB#VID_04A9&PID_3294#6&1#{6AC27878-A6FA-4155-BA85-F98F491D4F33}"
        self.assertTrue(is_camera_of("canon", name))
        self.assertFalse(is_camera_of("nikon", name))
        self.assertFalse(
            is_camera_of("canon", name[:-38] + "{28d78fad-5a12-11d1-ae5b-0000f803a8c2}")
        )
        self.assertFalse(is_camera_of("canon", ""))


del WatchCase


if __name__ == "__main__":
    unittest.main()
