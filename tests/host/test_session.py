"""Sessions with the virtual cameras of both makers, most of all what goes wrong with them."""

import contextlib
import functools
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import textwrap
import threading
import time
import unittest
from unittest import mock

import lumatie_host as tether
import picture_files
from camera_case import DEADLINE, CameraCase
from lumatie_host import finding, inbox, libraries, protocol, reopen
from lumatie_host.camera_thread import Note
from timing import timed, within
from virtual_cameras import wait_until

HOST = pathlib.Path(tether.__file__).resolve().parents[1]

RAW_AND_JPEG = 0x00640013
IMAGE_QUALITY = 0x100
ISO = 0x402


class Listener:
    """Keeps all events of a session, and waits for them."""

    def __init__(self, session):
        self.events = list(session.ledger.events(session.first))
        self._changed = threading.Condition()
        session.subscribe(self)

    def __call__(self, event):
        with self._changed:
            self.events.append(event)
            self._changed.notify_all()

    def of(self, kind):
        with self._changed:
            return [event for event in self.events if isinstance(event, kind)]

    def wait_for(self, kind, count=1, deadline=DEADLINE):
        with self._changed:
            self._changed.wait_for(
                lambda: sum(isinstance(event, kind) for event in self.events) >= count, deadline
            )
        found = self.of(kind)
        if len(found) < count:
            raise AssertionError("no %s; there came:\n%s" % (kind.__name__, self.story()))
        return found[count - 1]

    def story(self):
        with self._changed:
            return "\n".join(str(event)[:200] for event in self.events)


class SessionCase(CameraCase):
    def open(self, **options):
        options.setdefault("virtual", self.maker)
        session = tether.open(folder=self.folder, **options)
        self.addCleanup(session.close)
        self.addCleanup(self.let_go)
        return session

    def files(self):
        return sorted(name for name in os.listdir(self.folder) if name != ".lumatie")

    def ledger(self, kind=None):
        records = tether.Ledger(self.folder).read()
        return [record for record in records if kind in (None, record["kind"])]

    def wait_for_state(self, session, *states):
        wait_until(
            lambda: session.state in states,
            lambda: "the state is %s, not one of %s" % (session.state, states),
        )

    def assert_raises(self, kind, text, function, *arguments, **options):
        with self.assertRaises(kind) as caught:
            function(*arguments, **options)
        self.assertEqual(str(caught.exception), text)
        return caught.exception

    def assert_shutter_refused(self, session, timeout):
        self.assert_raises(
            tether.Refused,
            "the camera does not take 1/250 for its shutter",
            session.set,
            "shutter",
            "1/250",
            timeout=timeout,
        )


class BothMakers:
    """What is true of either maker's camera."""

    def test_a_session_opens_sets_shoots_tells_and_closes(self):
        with self.open(name="{job}_{n:04}", job="spring") as session:
            self.assertEqual(session.state, "open")
            self.assertEqual((session.maker, session.folder), (self.maker, self.folder))
            listener = Listener(session)
            events = session.events()
            self.assertEqual(session.set("shutter", "1/250"), "1/250")
            self.assertEqual(session.settings["shutter"].text, "1/250")
            self.assertEqual(session.next_name(), "spring_0001.JPG")
            shot = session.shoot()
            second = session.shoot()
        self.assertEqual((shot.number, second.number, shot.origin), (1, 2, "host"))
        (picture,) = shot.pictures
        self.assertEqual(picture.file.lower(), "spring_0001.jpg")
        self.assertEqual(picture.settings["shutter"], "1/250")
        self.assertEqual((picture.format, picture.width, picture.height), ("JPEG", 640, 480))
        self.assertEqual([name.lower() for name in self.files()][0], "spring_0001.jpg")
        self.assertEqual(
            self.camera.picture_bytes(0),
            pathlib.Path(self.folder, *picture.file.split("/")).read_bytes(),
        )
        listener.wait_for(tether.Closed)
        kinds = [record["kind"] for record in self.ledger()]
        self.assertEqual(kinds[0], "opened")
        self.assertEqual(kinds[-5:], ["shot", "picture", "shot", "picture", "closed"])
        self.assertEqual([event.n for event in listener.events], list(range(1, len(kinds) + 1)))
        self.assertEqual(session.state, "closed")
        heard = [event.kind for event in events]
        self.assertEqual(heard, ["setting", "shot", "picture", "shot", "picture", "closed"])
        self.assertEqual(os.listdir(os.path.join(self.folder, ".lumatie", "spool")), [])
        self.assertEqual(tether.verify(self.folder), [])

    def test_who_listens_from_the_beginning_hears_what_opening_tells(self):
        spool = os.path.join(self.folder, ".lumatie", "spool", "1-abcdef")
        os.makedirs(spool)
        pathlib.Path(spool, "Torn.JPG").write_bytes(b"\xff\xd8")
        pathlib.Path(spool, "Whole.JPG").write_bytes(picture_files.jpeg())
        heard, calls = [], []

        def begin(session):
            calls.append((session.state, self.camera.session_open()))
            session.subscribe(heard.append)

        session = self.open(begin=begin)
        session.close()
        self.assertEqual(calls, [("opening", False)])
        wait_until(lambda: len(heard) == session.ledger.last, "everything was heard")
        self.assertEqual([event.n for event in heard], list(range(1, len(heard) + 1)))
        kinds = [event.kind for event in heard]
        self.assertEqual(kinds[:4], ["alarm", "picture", "opened", "setting"])
        self.assertEqual(kinds[-1], "closed")

    def test_a_session_that_is_closed_at_its_beginning_does_not_look_for_the_camera(self):
        spool = os.path.join(self.folder, ".lumatie", "spool", "1-abcdef")
        os.makedirs(spool)
        pathlib.Path(spool, "Left.JPG").write_bytes(picture_files.jpeg())
        with self.assertRaises(tether.SessionClosed):
            self.open(begin=tether.Session.close)
        self.assertFalse(self.camera.session_open())
        self.assertEqual((self.ledger(), self.files()), ([], []))
        self.open().close()
        self.assertEqual([record["origin"] for record in self.ledger("picture")], ["recovered"])

    def test_what_comes_before_the_camera_is_looked_for_takes_nothing_of_its_time(self):
        def last_for_an_hour(session):
            session._intake.progress -= 3600.0

        self.open(begin=last_for_an_hour).close()

    def test_a_beginning_that_fails_leaves_no_session(self):
        with self.assertRaises(KeyError):
            self.open(begin=lambda session: {}["no such thing"])
        self.assertEqual(self.ledger(), [])
        self.open().close()

    def test_there_is_one_camera_at_a_time(self):
        session = self.open()
        other = os.path.join(self.base, "other")
        os.mkdir(other)
        text = (
            "pictures cannot go into %s: another camera is open in this program,"
            " and has the only folder"
        )
        error = self.assert_raises(
            tether.FolderShared, text % other, tether.open, folder=other, virtual=self.maker
        )
        self.assertIs(error.reason, tether.Reason.FOLDER_REJECTED)
        with self.assertRaises(tether.FolderShared):
            tether.find(virtual=self.maker)
        session.shoot()
        session.close()
        with self.assertRaises(tether.LibraryMissing):
            tether.find(module=os.path.join(other, "Driver.md3"))
        self.assertIsNotNone(tether.find(virtual=self.maker))
        with self.assertRaises(tether.LibraryMissing):
            tether.open(folder=other, module=os.path.join(other, "Driver.md3"))
        self.open().close()

    def test_a_path_that_is_announced_twice_is_one_picture(self):
        session = self.open(name="{n}")
        listener = Listener(session)
        shot = session.shoot()
        path = os.path.join(session._intake.spool, "Again.JPG")
        shutil.copy(os.path.join(self.folder, shot.pictures[0].file), path)
        for _ in range(2):
            text = "{'GENERAL_NEWFILE':r'%s'}" % path
            session._inbox.note(Note(1, time.monotonic(), 0, (text,)))
        listener.wait_for(tether.Picture, 2)
        session.shoot()
        self.assertEqual(len(self.ledger("picture")), 3)
        self.assertEqual(self.ledger("failed"), [])

    def test_events_since_a_number_begin_with_the_record(self):
        session = self.open()
        session.shoot()
        events = session.events(since=session.first)
        session.close()
        numbers = [event.n for event in events]
        self.assertEqual(numbers, list(range(1, len(self.ledger()) + 1)))

    def test_a_value_that_is_not_allowed_is_refused_before_the_camera_is_asked(self):
        session = self.open()
        error = self.assert_raises(
            tether.Refused,
            "the camera does not take 1/7 for its shutter",
            session.set,
            "shutter",
            "1/7",
        )
        self.assertEqual(error.allowed, session.settings["shutter"].allowed)
        self.assertIs(error.reason, tether.Reason.REFUSED)

    def test_what_only_the_camera_can_set_is_not_settable(self):
        session = self.open()
        for name in ("mode", "quality", "nonsense"):
            with self.subTest(name):
                self.assert_raises(
                    tether.NotSettable,
                    "the camera's %s cannot be set from here" % name,
                    session.set,
                    name,
                    "P",
                )

    def test_a_picture_from_the_body_is_a_shot_too(self):
        session = self.open(name="{n:03}")
        listener = Listener(session)
        self.camera.press_shutter()
        picture = listener.wait_for(tether.Picture)
        self.assertEqual((picture.origin, picture.shot), ("body", 1))
        self.assertEqual(session.shoot().number, 2)
        self.assertEqual([name[:3] for name in self.files()], ["001", "002"])

    def test_the_tag_is_that_of_the_moment(self):
        session = self.open(name="{tag}_{n}", tag="first")
        session.shoot()
        session.tag = "second"
        self.assertEqual(session.next_name(), "second_2.JPG")
        session.shoot()
        stems = [os.path.splitext(name)[0] for name in self.files()]
        self.assertEqual(stems, ["first_1", "second_2"])

    def test_two_threads_that_shoot_at_once_get_a_picture_each(self):
        session = self.open()
        shots = []
        threads = [threading.Thread(target=lambda: shots.append(session.shoot())) for _ in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(DEADLINE)
        self.assertEqual(sorted(shot.number for shot in shots), [1, 2, 3])
        self.assertEqual(len({shot.pictures[0].sha256 for shot in shots}), 3)

    def test_a_shot_that_is_not_wanted_any_more_when_its_turn_comes_leaves_no_record(self):
        session = self.open()
        error = self.assert_raises(
            tether.TooLate,
            "the camera could not be asked in time, and no picture was taken",
            session.shoot,
            is_wanted=lambda: False,
        )
        self.assertIsNone(error.shot)
        self.assertEqual(self.ledger("shot"), [])
        self.assertEqual(session.shoot(is_wanted=lambda: True).number, 1)
        self.assertEqual(len(self.camera.pictures()), 1)

    @timed
    def test_a_shot_that_is_not_wanted_at_the_last_moment_is_told_as_failed(self):
        session = self.open()
        answers = iter((True, False))
        with within(5.0), self.assertRaises(tether.TooLate) as caught:
            session.shoot(is_wanted=lambda: next(answers))
        self.assertEqual(caught.exception.shot, 1)
        (failed,) = self.ledger("failed")
        self.assertEqual((failed["reason"], failed["shot"]), ("no_answer", 1))
        self.assertEqual(session.shoot().number, 2)
        self.assertEqual(len(self.camera.pictures()), 1)

    def test_two_threads_that_set_at_once_are_confirmed_one_after_the_other(self):
        session = self.open()
        answers = []
        wanted = ["1/60", "1/250", "1/30"]

        def set_one(text):
            answers.append((session.set("shutter", text, timeout=DEADLINE), text))

        threads = [threading.Thread(target=set_one, args=(text,)) for text in wanted]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(DEADLINE)
        self.assertEqual(sorted(answers), sorted((text, text) for text in wanted))

    def test_closing_twice_from_two_threads_is_closing_once(self):
        session = self.open()
        threads = [threading.Thread(target=session.close) for _ in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(DEADLINE)
        session.close()
        self.assertEqual(len(self.ledger("closed")), 1)
        self.assertEqual(session.state, "closed")

    @timed
    def test_closing_takes_less_than_two_seconds(self):
        session = self.open()
        with within(2.0):
            session.close()

    def test_a_subscriber_may_close_the_session(self):
        session = self.open()
        session.subscribe(lambda event: isinstance(event, tether.Picture) and session.close())
        with contextlib.suppress(tether.SessionClosed):
            session.shoot()
        self.wait_for_state(session, "closed")
        wait_until(lambda: self.ledger("closed"), "the end is recorded")

    def test_a_closed_session_says_so(self):
        session = self.open()
        session.close()
        for ask in (session.shoot, lambda: session.set("iso", "800")):
            self.assert_raises(tether.SessionClosed, "the session is closed", ask)
        self.assertEqual(list(session.events()), [])

    def test_who_waits_for_a_picture_hears_of_the_close(self):
        self.camera.configure("shutter.until_told = 2")
        session = self.open()
        errors = []

        def shoot():
            try:
                session.shoot(timeout=DEADLINE)
            except tether.TetherError as error:
                errors.append(str(error))

        thread = threading.Thread(target=shoot)
        thread.start()
        self.camera.is_exposing(deadline=DEADLINE)
        threading.Timer(1.0, self.camera.end_exposure).start()  # a Nikon's end waits for it
        session.close()
        thread.join(DEADLINE)
        self.assertEqual(errors, ["the session is closed"])
        self.assertEqual([record["reason"] for record in self.ledger("failed")], ["closed"])

    @timed
    def test_a_picture_that_comes_too_late_is_taken_all_the_same(self):
        self.camera.configure("shutter.until_told = 2")
        session = self.open(name="{n}")
        listener = Listener(session)
        with within(5.0):
            error = self.assert_raises(
                tether.NoAnswer,
                "the camera did not take a picture within 2.516 seconds",
                session.shoot,
                timeout=2.5,
            )
        self.assertEqual(error.advice, "Wake the camera, wait until it is ready, and try again.")
        failed = listener.wait_for(tether.Failed)
        self.assertEqual((failed.reason, failed.shot), ("no_answer", 1))
        self.assertTrue(self.camera.is_exposing(deadline=DEADLINE))
        self.camera.end_exposure()
        picture = listener.wait_for(tether.Picture)
        self.assertEqual((picture.shot, picture.origin), (1, "host"))
        self.camera.configure("shutter.until_told = 0")
        self.assertEqual(session.shoot().number, 2)

    def test_the_exposure_comes_on_top_of_the_timeout(self):
        self.camera.configure("shutter.scale = 1")
        session = self.open()
        session.set("shutter", "2")
        self.assertEqual(session.shoot(timeout=1.5).number, 1)

    def test_raw_and_jpeg_are_one_shot(self):
        if self.maker == "nikon":
            self.camera.configure("value.0x8110 = %d" % self._raw_position())
        else:
            self.camera.configure("value.0x100 = 0x%X" % RAW_AND_JPEG)
        session = self.open(name="{n:03}")
        shot = session.shoot(pair=True)
        again = session.shoot(pair=True)
        self.assertEqual(sorted(picture.format for picture in shot.pictures), ["JPEG", "RAW"])
        self.assertEqual([picture.shot for picture in again.pictures], [2, 2])
        stems = sorted({os.path.splitext(name)[0] for name in self.files()})
        self.assertEqual((stems, len(self.files())), (["001", "002"], 4))
        listener = Listener(session)
        count = len(listener.of(tether.Picture))
        self.camera.press_shutter()
        first = listener.wait_for(tether.Picture, count + 1)
        second = listener.wait_for(tether.Picture, count + 2)
        self.assertEqual([(p.shot, p.origin) for p in (first, second)], [(3, "body")] * 2)

    def _raw_position(self):
        texts = self.camera.texts(0x8110)
        return next(index for index, text in enumerate(texts) if "+" in text)

    def test_a_second_copy_is_made_and_recorded(self):
        copy = os.path.join(self.base, "copy")
        session = self.open(name="{n}", copy=copy)
        listener = Listener(session)
        picture = session.shoot().pictures[0]
        copied = listener.wait_for(tether.Copied)
        self.assertEqual((copied.file, copied.sha256), (picture.file, picture.sha256))
        self.assertTrue(os.path.isfile(copied.to))
        self.assertEqual(os.path.dirname(copied.to), copy)

    def test_copies_that_an_earlier_session_did_not_get_to_are_made(self):
        copy = os.path.join(self.base, "copy")
        with self.open(name="{n}_{total}") as session:
            first = session.shoot().pictures[0]
        with self.open(name="{n}_{total}", copy=copy) as session:
            listener = Listener(session)
            self.assertEqual(listener.wait_for(tether.Copied).file, first.file)
        with self.open(name="{n}_{total}", copy=copy) as session:
            listener = Listener(session)
            second = session.shoot().pictures[0]
            self.assertEqual(listener.wait_for(tether.Copied).file, second.file)
        self.assertEqual(len(self.ledger("copied")), 2)
        self.assertEqual([os.path.splitext(name)[0] for name in self.files()], ["1_1", "1_2"])

    @unittest.skipIf(os.name == "nt", "there is no way to press Ctrl-C for one process alone")
    def test_an_interrupt_withdraws_nothing_but_the_waiting(self):
        self.camera.configure("shutter.until_told = 2")
        session = self.open(name="{n}")
        listener = Listener(session)
        interrupt = functools.partial(signal.pthread_kill, threading.get_ident(), signal.SIGINT)
        threading.Timer(1.5, interrupt).start()
        with self.assertRaises(KeyboardInterrupt):
            session.shoot(timeout=DEADLINE)
        self.assertIsNone(session._shots.pending)
        self.assertTrue(self.camera.is_exposing(deadline=DEADLINE))
        self.camera.end_exposure()
        self.camera.configure("shutter.until_told = 0")
        picture = listener.wait_for(tether.Picture)
        self.assertEqual((picture.shot, picture.origin), (1, "host"))
        self.assertEqual(session.shoot().number, 2)

    def test_a_rating_goes_to_the_sidecar_and_to_the_record(self):
        session = self.open(name="{n}")
        listener = Listener(session)
        picture = session.shoot().pictures[0]
        session.rate(picture.file, 4, "Red")
        rated = listener.wait_for(tether.Rated)
        self.assertEqual((rated.file, rated.rating, rated.label), (picture.file, 4, "Red"))
        self.assertIn("1.xmp", self.files())
        for file, rating in ((picture.file, 6), ("other.JPG", 1), ("../x", 1)):
            with self.assertRaises(ValueError):
                session.rate(file, rating)

    def test_what_a_killed_process_left_is_recovered(self):
        with self.open() as session:
            file = session.shoot().pictures[0].file
        spool = os.path.join(self.folder, ".lumatie", "spool", "1-abcdef")
        os.mkdir(spool)
        # Another picture, as far as bytes go: what follows the end of a JPEG would be torn.
        data = bytearray(pathlib.Path(self.folder, file).read_bytes())
        data[2:2] = b"\xff\xfe\x00\x04ab"
        pathlib.Path(spool, "Left.JPG").write_bytes(data)
        pathlib.Path(spool, "Torn.JPG").write_bytes(data[:1000])
        session = self.open(name="{job}_{n:04}", job="spring")
        events = session.events(since=session.first)
        session.shoot()
        session.close()
        events = list(events)
        pictures = [event for event in events if isinstance(event, tether.Picture)]
        self.assertEqual(
            [(p.file.upper(), p.origin, p.shot) for p in pictures],
            [("SPRING_0001.JPG", "recovered", 1), ("SPRING_0002.JPG", "host", 2)],
        )
        alarms = [event.what for event in events if isinstance(event, tether.Alarm)]
        self.assertEqual(len(alarms), 1)
        self.assertIn("Torn.JPG is torn", alarms[0])

    @unittest.skipIf(os.name == "nt", "Windows removes no folder that holds an open file")
    def test_a_spool_folder_that_vanished_is_made_anew(self):
        session = self.open(name="{n}")
        shutil.rmtree(os.path.join(self.folder, ".lumatie", "spool"))
        self.assertEqual(session.shoot().number, 1)
        self.assertEqual(len(self.files()), 1)

    @unittest.skipIf(os.name == "nt", "Windows removes no folder that holds an open file")
    def test_without_a_folder_no_picture_is_taken(self):
        session = self.open()
        shutil.rmtree(self.folder)
        error = self.assert_raises(
            tether.WriteFailed,
            "a picture could not be written: the folder %s is not there" % self.folder,
            session.shoot,
        )
        self.assertIs(error.reason, tether.Reason.WRITE_FAILED)
        self.assertEqual(self.camera.pictures(), [])
        session.close()

    def test_a_picture_that_cannot_be_recorded_is_recorded_later(self):
        session = self.open(name="{n}")
        listener = Listener(session)
        append = session.ledger.append
        is_full = threading.Event()
        is_full.set()

        def append_if_there_is_room(kind, **fields):
            if is_full.is_set() and kind in ("picture", "failed"):
                raise tether.WriteFailed("No space left on device")
            return append(kind, **fields)

        session.ledger.append = append_if_there_is_room
        with self.assertLogs("lumatie_host", "ERROR"):
            self.assert_raises(
                tether.WriteFailed,
                "a picture could not be written: No space left on device",
                session.shoot,
                timeout=DEADLINE,
            )
        alarm = listener.wait_for(tether.Alarm)
        self.assertEqual(alarm.what, "a picture could not be written: No space left on device")
        self.assertFalse(alarm.is_recorded)
        self.assertEqual((self.files(), listener.of(tether.Picture)), ([], []))
        is_full.clear()
        picture = listener.wait_for(tether.Picture)
        self.assertEqual((picture.shot, picture.origin), (1, "host"))
        self.assertEqual(self.files(), [picture.file])

    def hold_the_ledger(self, session):
        """Has records wait; returns a function that lets them go on."""
        is_held, goes_on = threading.Event(), threading.Event()

        def hold():
            with session.ledger.exclusive():
                is_held.set()
                goes_on.wait(2 * DEADLINE)

        thread = threading.Thread(target=hold)
        thread.start()
        self.addCleanup(thread.join, DEADLINE)
        self.addCleanup(goes_on.set)
        self.assertTrue(is_held.wait(DEADLINE))
        return goes_on.set

    @timed
    def test_a_copy_that_hangs_does_not_hold_up_the_close(self):
        session = self.open(copy=os.path.join(self.base, "copy"))
        is_copying, goes_on = threading.Event(), threading.Event()
        self.addCleanup(goes_on.set)

        def hang(*_):
            is_copying.set()
            goes_on.wait(2 * DEADLINE)

        listener = Listener(session)
        with mock.patch.object(session.copier, "_copy", hang):
            session.shoot()
            self.assertTrue(is_copying.wait(DEADLINE))
            with within(2.0):
                session.close()
        self.assertIn("1 pictures have no second copy yet", listener.wait_for(tether.Alarm).what)
        listener.wait_for(tether.Closed)

    @timed
    def test_a_record_that_hangs_does_not_hold_up_the_close(self):
        session = self.open()
        session.shoot()
        let_go = self.hold_the_ledger(session)
        with within(2.5), self.assertLogs("lumatie_host", "WARNING") as logs:
            session.close()
        self.assertIn("the last records wait for the disk", logs.output[-1])
        let_go()
        wait_until(lambda: self.ledger("closed"), "the end is recorded")

    def test_a_shot_whose_record_hangs_is_not_taken_later(self):
        session = self.open()
        let_go = self.hold_the_ledger(session)
        with mock.patch.object(inbox, "BEGUN_PATIENCE", 0.1), self.assertRaises(tether.NoAnswer):
            session.shoot(timeout=2.0)
        let_go()
        wait_until(lambda: self.ledger("failed"), "it is told that it was not taken")
        self.assertEqual([record["shot"] for record in self.ledger("failed")], [1])
        self.assertEqual(session.shoot().number, 2)
        self.assertEqual(len(self.camera.pictures()), 1)

    def test_who_waits_for_another_ones_record_is_told_that_it_hangs(self):
        session = self.open()
        file = session.shoot().pictures[0].file
        goes_on = threading.Event()
        append = session.ledger.append

        def append_later(kind, **fields):
            goes_on.wait(DEADLINE)
            return append(kind, **fields)

        session.ledger.append = append_later
        self.camera.press_shutter()
        announcer = session._announcer
        wait_until(announcer._lock.locked, "a record waits")
        events = session.events()
        with mock.patch("lumatie_host.announcer.PATIENCE", 0.1):
            session.rate(file, 3)
        self.assertIn("another record waits for the disk", next(events).what)
        goes_on.set()

    def test_a_session_that_is_closed_right_after_its_start_leaves_nothing(self):
        for _ in range(5):
            self.open().close()

    def test_sessions_one_after_the_other_do_not_grow(self):
        def open_files():
            return 0 if os.name == "nt" else len(os.listdir("/proc/self/fd"))

        for number in range(50 if self.maker == "canon" else 15):
            with self.open():
                pass
            if number == 4:
                before = threading.active_count(), open_files()
        self.assertLessEqual(threading.active_count(), before[0])
        self.assertLessEqual(open_files(), before[1] + 2)

    def test_the_program_ends_with_an_open_session(self):
        for last in ("", "sys.exit(3)", "1 / 0", "threading.Thread(target=camera.close).start()"):
            with self.subTest(last):
                script = """
                    import sys, threading
                    import lumatie_host as tether
                    camera = tether.open(folder={!r}, virtual={!r})
                    camera.subscribe(lambda event: None)
                    events = camera.events()
                    print(camera.state, flush=True)
                    {}
                """.format(self.folder, self.maker, last)
                start = time.monotonic()
                run = self.run_script(script)
                self.assertEqual(
                    run.returncode, {"sys.exit(3)": 3, "1 / 0": 1}.get(last, 0), run.stderr
                )
                self.assertIn("open", run.stdout)
                self.assertLess(time.monotonic() - start, DEADLINE)
        self.assertEqual(len(self.ledger("closed")), 4)

    def run_script(self, script):
        paths = [str(HOST), *(path for path in sys.path if "python" in path or "lumatie" in path)]
        return subprocess.run(
            [sys.executable, "-X", "dev", "-c", textwrap.dedent(script)],
            env=dict(os.environ, PYTHONPATH=os.pathsep.join(paths)),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            universal_newlines=True,
            timeout=60,
            check=False,
        )


class RejectedTest(SessionCase):
    """Whatever can be rejected is rejected before the module hears of it."""

    def setUp(self):
        super().setUp()
        self.addCleanup(lambda: self.assertEqual(self.camera.calls("EdsInitializeSDK"), 0))

    def rejected(self, folder, why, **options):
        self.assert_raises(
            tether.FolderRejected,
            "pictures cannot go into %s: %s" % (folder, why),
            tether.open,
            folder=folder,
            virtual="canon",
            **options,
        )

    def test_a_folder_that_is_not_there(self):
        missing = os.path.join(self.base, "missing")
        self.rejected(missing, "there is no such folder")
        self.assertFalse(os.path.exists(missing))

    def test_a_folder_without_a_name(self):
        for options in ({"folder": ""}, {"folder": self.folder, "copy": ""}):
            with self.subTest(**options):
                self.assert_raises(
                    tether.FolderRejected,
                    'pictures cannot go into "": no folder was named',
                    tether.open,
                    virtual="canon",
                    **options,
                )

    def test_a_folder_that_is_a_file(self):
        file = os.path.join(self.base, "file")
        pathlib.Path(file).write_text("x")
        self.rejected(file, "it is a file, not a folder")

    def test_a_folder_whose_path_leaves_no_room_for_names(self):
        room = 255 - 32 - 1 - len(".lumatie/spool/%d-123456" % os.getpid())
        part = os.path.join(self.base, "x" * 100)
        length = room - len(part) - 1
        for more in (1, 0):
            folder = os.path.join(part, "y" * (length + more))
            if os.name == "nt" and len(folder) > 200:
                self.skipTest("Windows makes no folder of that length")
            os.makedirs(folder)
            if more:
                self.rejected(folder, "its path is too long by 1 bytes")
        self.assertFalse(os.path.exists(os.path.join(part, "y" * (length + 1), ".lumatie")))

    @unittest.skipIf(
        os.name == "nt" or os.geteuid() == 0,
        "root, and on Windows the folder's owner, may write in spite of its mode",
    )
    def test_a_folder_that_cannot_be_written(self):
        os.chmod(self.folder, 0o500)
        self.rejected(self.folder, "Permission denied")

    def test_a_template_that_no_file_can_have(self):
        with self.assertRaises(tether.NameRejected):
            tether.open(folder=self.folder, virtual="canon", name="{nonsense}")

    def test_a_copy_that_would_go_into_the_pictures(self):
        inside = os.path.join(self.folder, "copy")
        with self.assertRaises(tether.FolderRejected):
            tether.open(folder=self.folder, virtual="canon", copy=inside)

    def test_a_camera_without_a_name(self):
        self.assert_raises(
            tether.CameraNotFound, "no camera was named", tether.open, folder=self.folder
        )

    def test_a_name_that_is_a_file_too(self):
        path = os.path.join(self.base, "Virtual EOS")
        pathlib.Path(path).write_text("x")
        before = os.getcwd()
        os.chdir(self.base)
        self.addCleanup(os.chdir, before)
        self.assert_raises(
            tether.CameraNotFound,
            '"Virtual EOS" is not only a camera\'s name: there is %s' % path,
            tether.open,
            "Virtual EOS",
            folder=self.folder,
        )

    def test_a_driver_module_that_is_none(self):
        path = os.path.join(self.base, "Driver.md3")
        with self.assertRaises(tether.LibraryMissing):
            tether.open(folder=self.folder, module=path)
        pathlib.Path(path).write_bytes(b"rubbish")
        with self.assertRaises(tether.LibraryMissing):
            tether.open(folder=self.folder, module=path)

    def test_no_such_virtual_camera(self):
        with self.assertRaises(ValueError):
            tether.open(folder=self.folder, virtual="leica")


class CanonTest(BothMakers, SessionCase):
    maker = "canon"

    def test_a_camera_that_is_not_there_is_not_found(self):
        self.assert_raises(
            tether.CameraNotFound,
            'no camera "Nobody EOS" was found',
            self.open,
            camera="Nobody EOS",
        )
        self.assertEqual(os.listdir(os.path.join(self.folder, ".lumatie", "spool")), [])

    def test_a_camera_is_found_by_one_of_its_names(self):
        library = libraries.virtual().canon_library
        found = tether.find(["Nobody EOS", "Virtual EOS"], canon_library=library)
        self.assertEqual(found, "Virtual EOS")
        self.assertIsNone(tether.find(["Nobody EOS"], canon_library=library))
        self.assertEqual(tether.find("Virtual EOS", canon_library=library), "Virtual EOS")
        self.assertEqual(tether.find(virtual="canon"), "Virtual EOS")

    def test_without_a_name_the_virtual_camera_is_looked_for(self):
        self.assertEqual(tether.find(timeout=DEADLINE), "Virtual EOS")
        self.camera.unplug()
        self.assertIsNone(tether.find(timeout=DEADLINE))

    def test_names_that_no_camera_can_have_are_passed_over(self):
        file = os.path.join(self.base, "file")
        pathlib.Path(file).touch()
        unfit = ["", "\0", "\ud800", file]
        self.assertEqual(tether.find([*unfit, "Virtual EOS"]), "Virtual EOS")
        self.assertIsNone(tether.find(unfit))

    def test_pictures_that_come_while_a_camera_is_looked_for_are_kept(self):
        folders = []

        def find_and_fetch(plans, folder, deadline):
            folders.append(folder)
            if len(folders) > 1:
                pathlib.Path(folder, "a.JPG").touch()
            return "Virtual EOS"

        with mock.patch.object(finding, "_first", find_and_fetch):
            tether.find()
            with self.assertLogs("lumatie_host", "WARNING") as logs:
                tether.find()
        self.assertFalse(os.path.exists(folders[0]))
        self.addCleanup(shutil.rmtree, folders[1])
        self.assertEqual(os.listdir(folders[1]), ["a.JPG"])
        self.assertIn(folders[1], logs.output[0])

    def test_a_camera_whose_session_does_not_open_gives_no_answer(self):
        self.camera.fault("EdsOpenSession code=0xC0 calls=0")
        self.assert_raises(
            tether.NoAnswer,
            "the camera did not tell its settings within 1 seconds",
            self.open,
            timeout=1.0,
        )
        self.assertEqual(self.ledger(), [])

    def test_an_opening_is_given_up_by_closing_the_session(self):
        self.camera.fault("EdsOpenSession code=0xC0 calls=0")
        begun = []

        def give_up():
            wait_until(lambda: self.camera.calls("EdsOpenSession"), "the camera is asked")
            begun[0].close()

        thread = threading.Thread(target=give_up)
        thread.start()
        start = time.monotonic()
        with self.assertRaises(tether.SessionClosed):
            self.open(begin=begun.append, timeout=600.0)
        self.assertLess(time.monotonic() - start, DEADLINE)
        thread.join()
        self.let_go()
        self.open().close()

    @unittest.skipIf(
        os.name == "nt", "Windows interrupts all processes of a console, the tests too"
    )
    def test_an_interrupt_ends_the_opening(self):
        self.camera.fault("EdsOpenSession code=0xC0 calls=0")
        interrupt = functools.partial(signal.pthread_kill, threading.get_ident(), signal.SIGINT)
        with self.assertRaises(KeyboardInterrupt):
            self.open(begin=lambda _: threading.Timer(0.5, interrupt).start(), timeout=600.0)
        self.let_go()
        self.open().close()

    def test_a_mode_that_chooses_a_setting_itself_is_named(self):
        self.camera.turn_dial(0)
        session = self.open()
        error = self.assert_raises(
            tether.NotSettable,
            "the camera chooses its shutter itself in mode P",
            session.set,
            "shutter",
            "1/250",
        )
        self.assertEqual(error.advice, "Turn the camera's mode dial to M.")

    def test_a_refusal_without_a_word_is_no_answer(self):
        session = self.open()
        self.camera.fault("EdsSetPropertyData code=0x60 property=0x406 calls=0")
        error = self.assert_raises(
            tether.NoAnswer,
            "the camera did not set shutter to 1/250 within 0.5 seconds",
            session.set,
            "shutter",
            "1/250",
            timeout=0.5,
        )
        self.assertEqual(error.after, 0.5)
        self.assertEqual(session.settings["shutter"].text, "1/125")

    def test_a_refusal_of_a_camera_that_tells_of_other_things_is_a_refusal(self):
        session = self.open()
        self.camera.fault("EdsSetPropertyData code=0x60 property=0x406 calls=0")
        threading.Timer(0.2, self.camera.set_property, (ISO, 0x50)).start()
        self.assert_shutter_refused(session, timeout=1.0)

    def test_a_busy_camera_sets_late(self):
        session = self.open()
        self.camera.fault("EdsSetPropertyData code=0x81 property=0x406 calls=3")
        self.assertEqual(session.set("shutter", "1/250"), "1/250")

    def test_the_color_temperature_can_be_set_when_it_counts(self):
        session = self.open()
        with self.assertRaises(tether.NotSettable):
            session.set("color_temperature", "5600")
        session.set("white_balance", key=9)
        self.assertEqual(session.set("color_temperature", "5600"), "5600")

    def test_a_picture_that_could_not_be_written(self):
        self.camera.configure("transfer.disk_full_after = 1000")
        session = self.open()
        listener = Listener(session)
        self.assert_raises(
            tether.WriteFailed,
            "a picture could not be written: the camera's picture did not reach %s" % self.folder,
            session.shoot,
        )
        failed = listener.wait_for(tether.Failed)
        self.assertEqual((failed.reason, failed.shot), ("write_failed", 1))
        self.camera.configure("transfer.disk_full_after = -1")
        self.assertEqual(session.shoot().number, 2)

    def test_a_picture_that_was_announced_and_is_not_there(self):
        session = self.open()
        listener = Listener(session)
        self.camera.fault("EdsCreateFileStream code=0x23 calls=1")
        with self.assertRaises(tether.PictureLost) as caught:
            session.shoot()
        failed = listener.wait_for(tether.Failed)
        self.assertEqual((failed.reason, failed.shot), ("picture_lost", 1))
        self.assertEqual(failed.text, str(caught.exception))
        self.assertEqual(failed.file, caught.exception.name)
        self.assertEqual(session.shoot().number, 2)

    def test_a_list_that_no_record_has_room_for_is_recorded_as_far_as_it_goes(self):
        # Each entry is 12 bytes for a letter, and the record has room for 1 MiB.
        texts = ["\ud800" + "\U0001f4f7" * 49 + str(number) for number in range(10000)]
        entries = "".join("%d:'%s'," % entry for entry in enumerate(texts, 1))
        session = self.open()
        listener = Listener(session)
        count = len(listener.of(tether.SettingChanged))
        session._inbox.note(Note(1, time.monotonic(), protocol.Code.ISO_LIST, ("{%s}" % entries,)))
        change = listener.wait_for(tether.SettingChanged, count + 1)
        self.assertGreater(len(change.allowed), 1000)
        self.assertEqual(change.allowed, tuple(texts[: len(change.allowed)]))
        self.assertEqual(session.settings["iso"].allowed, tuple(texts))

    def test_a_flood_of_changes_is_worked_off(self):
        session = self.open()
        values = self.camera.allowed(ISO)
        for number in range(1000):
            self.camera.set_property(ISO, values[number % len(values)])
        self.camera.settle(deadline=60.0)
        last = session.settings["iso"].choices[999 % len(values)]
        wait_until(lambda: session.settings["iso"].key == last.key, "the last value is told")
        session.shoot()
        self.assertEqual(self.ledger("setting")[-1]["text"], last.text)

    def test_two_missed_deadlines_are_a_loss_and_the_camera_comes_back(self):
        session = self.open()
        listener = Listener(session)
        self.camera.unplug()
        self.assert_raises(
            tether.NoAnswer,
            "the camera did not set iso to 800 within 0.5 seconds",
            session.set,
            "iso",
            "800",
            timeout=0.5,
        )
        self.assertEqual(session.state, "silent")
        self.assert_raises(
            tether.NoAnswer,
            "the camera did not take a picture within 0.516 seconds",
            session.shoot,
            timeout=0.5,
        )
        lost = listener.wait_for(tether.Lost)
        self.assertEqual(lost.evidence, "2 requests in a row were not answered")
        with self.assertRaises(tether.SessionLost) as caught:
            session.shoot()
        error = caught.exception
        self.assertRegex(
            str(error),
            "^the camera has been gone for [0-9]+ seconds: 2 requests in a row were not answered$",
        )
        self.assertEqual(error.reason, tether.Reason.SESSION_LOST)
        self.assertIn(session.state, ("lost", "reopening"))
        self.camera.set_property(ISO, 0x60)
        self.camera.plug()
        back = listener.wait_for(tether.Back)
        self.assertEqual(set(back.differences), {"iso"})
        self.assertEqual(back.differences["iso"][0], "400")
        self.assertEqual(session.state, "open")
        self.assertEqual(session.shoot(timeout=10.0).number, 2)

    def test_a_cable_pulled_while_a_picture_is_fetched(self):
        session = self.open()
        listener = Listener(session)
        self.camera.fault("EdsDownload unplug percent=50")
        with self.assertRaises(tether.WriteFailed):
            session.shoot()
        self.assertEqual(listener.wait_for(tether.Failed).reason, "write_failed")
        self.camera.plug()

    def test_a_camera_that_left_the_usb_is_lost_at_once(self):
        usb = os.path.join(self.base, "usb")
        for name, text in (("1-2/idVendor", "04a9"), ("1-2:1.0/bInterfaceClass", "06")):
            if os.name == "nt":
                self.skipTest("Windows tells of devices in another way")
            path = pathlib.Path(usb, name)
            path.parent.mkdir(parents=True)
            path.write_text(text + "\n")
        original = reopen.UsbCameras
        reopen.UsbCameras = lambda maker: original(maker, usb)
        self.addCleanup(setattr, reopen, "UsbCameras", original)
        session = self.open()
        listener = Listener(session)
        shutil.rmtree(usb)
        os.mkdir(usb)
        self.assertEqual(listener.wait_for(tether.Lost).evidence, "the camera left the USB")
        listener.wait_for(tether.Back)

    @timed
    def test_a_library_that_hangs_is_left_behind(self):
        session = self.open()
        self.camera.fault("EdsSendCommand hang")
        with self.assertRaises(tether.NoAnswer):
            session.shoot(timeout=0.5)
        self.camera.wait_for_hang("EdsSendCommand")
        with within(2.5), self.assertLogs("lumatie_host", "WARNING") as logs:
            session.close()
        self.assertIn("or its library hangs: it is left behind", logs.output[-1])
        self.assertEqual(session.state, "closed")
        self.camera.release_hangs()

    def test_a_camera_that_is_away_costs_next_to_nothing(self):
        session = self.open()
        self.camera.unplug()
        for _ in range(2):
            with self.assertRaises(tether.NoAnswer):
                session.set("iso", "800", timeout=0.2)
        self.wait_for_state(session, "lost")
        before, start = time.process_time(), time.monotonic()
        time.sleep(5.0)  # what is measured
        share = (time.process_time() - before) / (time.monotonic() - start)
        self.assertLess(share, 0.01)


class NikonTest(BothMakers, SessionCase):
    maker = "nikon"

    def test_a_module_without_a_camera_finds_none(self):
        self.camera.configure("camera.plugged = 0")
        self.assert_raises(tether.CameraNotFound, 'no camera "VirtualNikon" was found', self.open)

    def test_a_module_without_a_camera_is_told_by_find(self):
        self.assertEqual(tether.find(virtual="nikon"), "VirtualNikon")
        self.camera.configure("camera.plugged = 0")
        self.assertIsNone(tether.find(virtual="nikon"))

    @timed
    def test_a_value_that_the_camera_refuses_is_told_by_its_reports(self):
        session = self.open()
        self.camera.fault("CapSet capability=0x8112 code=-9 calls=0")
        with within(6.0):
            self.assert_shutter_refused(session, timeout=DEADLINE)

    @timed
    def test_a_camera_that_is_silent_is_lost_and_comes_back(self):
        session = self.open()
        listener = Listener(session)
        with within(8.0):
            self.camera.unplug()
            lost = listener.wait_for(tether.Lost)
        self.assertRegex(lost.evidence, "^no report came for [56] seconds$")
        with self.assertRaises(tether.SessionLost):
            session.set("iso", "800")
        position = self.camera.texts(0x8117).index("1600")
        self.camera.set_value(0x8117, position)
        self.camera.plug()
        back = listener.wait_for(tether.Back)
        self.assertEqual(back.differences, {"iso": ("400", "1600")})
        self.assertGreater(back.after, 0.2)
        self.assertEqual(session.shoot().number, 1)

    def test_who_waits_hears_of_the_loss(self):
        self.camera.configure("shutter.until_told = 2")
        session = self.open()
        errors = []

        def shoot():
            try:
                session.shoot(timeout=DEADLINE)
            except tether.TetherError as error:
                errors.append(error)

        thread = threading.Thread(target=shoot)
        thread.start()
        self.camera.is_exposing(deadline=DEADLINE)
        self.camera.unplug()
        thread.join(DEADLINE)
        self.assertIsInstance(errors[0], tether.SessionLost)
        self.assertEqual([record["shot"] for record in self.ledger("failed")], [1])
        self.camera.plug()
        self.wait_for_state(session, "open")

    def test_pictures_that_are_asked_for_in_vain_hide_no_loss(self):
        session = self.open()
        listener = Listener(session)
        session.shoot()
        self.camera.unplug()
        pulled = time.monotonic()
        while not listener.of(tether.Lost):
            self.assertLess(time.monotonic() - pulled, 9.0, listener.story())
            with self.assertRaises((tether.NoAnswer, tether.SessionLost)):
                session.shoot(timeout=0.5)

    def test_a_long_exposure_is_no_loss(self):
        self.camera.configure("shutter.scale = 1")
        session = self.open()
        listener = Listener(session)
        session.set("shutter", "8")
        self.assertEqual(session.shoot(timeout=5.0).number, 1)
        self.assertEqual(listener.of(tether.Lost), [])

    def test_a_slow_transfer_of_a_picture_that_was_asked_for_is_no_loss(self):
        # 9 seconds without a report.
        self.camera.configure("picture.size = 9000000\ntransfer.rate = 1")
        session = self.open()
        listener = Listener(session)
        self.assertEqual(session.shoot().number, 1)
        # The next one may take as long.
        self.camera.press_shutter()
        self.assertEqual(listener.wait_for(tether.Picture, 2, 40.0).origin, "body")
        self.assertEqual(listener.of(tether.Lost), [])

    def test_a_picture_whose_transfer_looks_like_a_loss_is_kept(self):
        self.camera.configure("picture.size = 9000000\ntransfer.rate = 1")
        session = self.open(name="{n}")
        listener = Listener(session)
        self.camera.press_shutter()
        picture = listener.wait_for(tether.Picture, deadline=40.0)
        self.assertEqual((picture.size, picture.origin), (9000000, "body"))
        listener.wait_for(tether.Back)
        self.assertEqual(self.files(), [picture.file])

    def test_a_slow_picture_that_stays_on_the_card_is_taken_for_a_loss_once(self):
        # 7 seconds without a report, in each session of the module's.
        self.camera.configure("items.remove = 0\npicture.size = 7000000\ntransfer.rate = 1")
        self.camera.press_shutter()
        session = self.open(name="{n}")
        listener = Listener(session)
        listener.wait_for(tether.Back, deadline=40.0)
        # Confirmed by the report behind the second time that it is fetched.
        self.assertEqual(session.set("iso", "800", timeout=40.0), "800")
        self.assertEqual(len(listener.of(tether.Lost)), 1)
        self.assertEqual(len(listener.of(tether.Picture)), 1)

    def test_pictures_that_the_card_still_holds_do_not_come_twice(self):
        self.camera.configure("items.remove = 0")
        with self.open(name="{n}") as session:
            session.shoot()
            session.shoot()
        files = self.files()
        for _ in range(2):
            with self.open(name="again_{n}") as session:
                listener = Listener(session)
        listener.wait_for(tether.Closed)
        self.assertEqual(listener.of(tether.Picture), [])
        self.assertEqual(self.files(), files)
        self.assertEqual(len(self.ledger("picture")), 2)
        self.assertEqual(os.listdir(os.path.join(self.folder, ".lumatie", "spool")), [])

    def test_pictures_taken_while_the_camera_was_away_are_fetched(self):
        session = self.open()
        listener = Listener(session)
        session.shoot()
        self.camera.unplug()
        listener.wait_for(tether.Lost)
        self.camera.add_item(self.camera.picture_bytes(0)[:-2] + b"\xff\xfe\x00\x02\xff\xd9")
        self.camera.plug()
        picture = listener.wait_for(tether.Picture, 2)
        self.assertEqual(picture.origin, "body")


if __name__ == "__main__":
    unittest.main()
