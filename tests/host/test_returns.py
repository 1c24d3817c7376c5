"""Sessions whose camera goes and comes back, or that are closed while it is busy."""

import os
import pathlib
import threading
import unittest
from unittest import mock

import lumatie_host as tether
from lumatie_host import pictures, reopen
from lumatie_host import session as session_module
from test_session import DEADLINE, Listener, SessionCase
from timing import timed, within
from virtual_cameras import wait_until

CLOSED_WITHIN = 2.5  # seconds; half a second of that is the machine's


class Returning(SessionCase):
    @unittest.skipIf(os.name == "nt", "Windows tells of devices in another way")
    def test_a_camera_that_was_gone_between_two_looks_is_opened_again(self):
        usb = pathlib.Path(self.base, "usb")
        original = reopen.UsbCameras
        reopen.UsbCameras = lambda maker: original(maker, str(usb))
        self.addCleanup(setattr, reopen, "UsbCameras", original)
        self.plug(usb, "1")
        session = self.open()
        listener = Listener(session)
        self.camera.unplug()
        new = pathlib.Path(self.base, "new")
        self.plug(new, "2")
        os.rename(str(usb), str(usb) + "-before")
        os.rename(str(new), str(usb))
        self.camera.plug()
        self.assertEqual(listener.wait_for(tether.Lost).evidence, "the camera left the USB")
        self.assertLess(listener.wait_for(tether.Back).after, 5.0)
        self.assertEqual(session.shoot().number, 1)

    def plug(self, usb, number):
        for name, text in (
            ("1-2/idVendor", "04a9"),
            ("1-2/devnum", number),
            ("1-2:1.0/bInterfaceClass", "06"),
        ):
            path = usb / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text + "\n")

    def test_settings_stay_what_they_were_until_the_camera_is_back(self):
        session = self.open()
        before = session.settings
        self.camera.unplug()
        for text in ("800", "1600"):
            with self.assertRaises(tether.NoAnswer):
                session.set("iso", text, timeout=0.2)
        self.wait_for_state(session, "lost")
        self.camera.fault("EdsGetPropertyDesc delay_ms=50 calls=0")
        self.camera.plug()
        self.wait_for_state(session, "reopening")
        seen = []

        def is_open():
            now = session.settings
            if session.state == "reopening":
                seen.append(now)
            return session.state == "open"

        wait_until(is_open, "the camera is back")
        self.assertGreater(len(seen), 10)
        self.assertEqual([settings for settings in seen if settings != before], [])
        self.assertEqual(session.set("iso", "800"), "800")


class Remembering(SessionCase):
    def test_of_the_pictures_that_were_announced_only_the_last_are_remembered(self):
        intake = self.open()._intake
        waiting = os.path.join(self.folder, "waiting.JPG")  # for its final name
        pathlib.Path(waiting).touch()
        intake._is_first(waiting)
        for number in range(5000):
            intake._is_first("%d.JPG" % number)
        self.assertLessEqual(len(intake._announced), 400)
        self.assertIn(waiting, intake._announced)
        self.assertIn("4999.JPG", intake._announced)
        self.assertIn("4900.JPG", intake._announced)


class Closing:
    """What is true of either maker's camera."""

    def close_soon(self, session):
        with within(CLOSED_WITHIN), self.assertLogs("lumatie_host", "WARNING") as logs:
            session.close()
        self.assertIn("it is left behind", logs.output[-1])
        self.assertEqual(session.state, "closed")

    def shoot_beside(self, session):
        def shoot():
            try:
                session.shoot()
            except tether.TetherError as error:
                errors.append(error)

        errors = []
        thread = threading.Thread(target=shoot)
        thread.start()
        self.addCleanup(lambda: self.assertEqual(type(errors[0]), tether.SessionClosed))
        self.addCleanup(thread.join, DEADLINE)

    def close_in_a_transfer(self):
        self.camera.configure("picture.size = 4000000\ntransfer.rate = 1")
        session = self.open()
        self.shoot_beside(session)
        wait_until(self.is_fetching, "the picture is fetched")
        self.close_soon(session)

    @timed
    def test_a_transfer_ends_behind_the_close_and_the_next_session_has_the_picture(self):
        self.close_in_a_transfer()
        self.camera.configure("transfer.rate = 0")
        with self.open():  # waits for it
            pass
        self.assert_recovered()

    @timed
    def test_the_end_of_a_program_waits_for_a_transfer_that_was_left_behind(self):
        self.close_in_a_transfer()
        session_module._close_all()
        names = [thread.name for thread in threading.enumerate()]
        self.assertNotIn("lumatie-ending", names)
        self.assertNotIn("lumatie-camera", names)
        with self.open():
            pass
        self.assert_recovered()

    @timed
    def test_a_picture_that_is_looked_at_behind_the_close_keeps_its_spool(self):
        goes_on = threading.Event()
        self.addCleanup(goes_on.set)
        await_whole = pictures.await_whole

        def await_and_stay(*arguments):
            found = await_whole(*arguments)
            goes_on.wait(DEADLINE)
            return found

        with mock.patch.object(pictures, "await_whole", await_and_stay):
            session = self.open()
            self.shoot_beside(session)
            wait_until(lambda: session._shots.pending, "it was asked for")
            wait_until(lambda: session._intake._announced, "the picture is looked at")
            with within(CLOSED_WITHIN):
                session.close()
            spool = session._intake.spool
            self.assertEqual(list(pictures.orphans(self.folder)), [])
            goes_on.set()
            with self.open():  # waits for it
                self.assertFalse(os.path.exists(spool))
        (picture,) = self.ledger("picture")
        self.assertEqual(picture["origin"], "host")
        self.assertEqual(tether.verify(self.folder), [])

    def assert_recovered(self):
        (picture,) = self.ledger("picture")
        self.assertEqual((picture["size"], picture["origin"]), (4000000, "recovered"))
        self.assertEqual(tether.verify(self.folder), [])

    @timed
    def test_a_long_exposure_ends_behind_the_close(self):
        self.camera.configure("shutter.until_told = 2")
        session = self.open()
        self.shoot_beside(session)
        wait_until(self.camera.is_exposing, "it exposes")
        with within(CLOSED_WITHIN):
            session.close()
        self.camera.end_exposure()
        with self.open(name="{n}") as following:
            self.assertEqual(following.state, "open")


class CanonClosing(Closing, SessionCase):
    maker = "canon"

    def is_fetching(self):
        spool = pathlib.Path(self.folder, ".lumatie", "spool")
        return [path for path in spool.glob("*/*.*") if path.stat().st_size]


class NikonClosing(Closing, SessionCase):
    maker = "nikon"

    def is_fetching(self):
        return [picture for picture in self.camera.pictures() if picture["started"]]


del SessionCase


if __name__ == "__main__":
    unittest.main()
