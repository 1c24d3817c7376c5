"""The camera thread carries out what it is asked for, in order, and lets nobody wait for ever."""

import os
import threading
import time
import unittest

from lumatie_host.camera_thread import CameraThread
from lumatie_host.errors import Closed, TooLate
from lumatie_host.protocol import Code
from timing import timed, within

DEADLINE = 20.0


class Tether:
    """Stands in for the module's object: notes its calls and the threads that they come on."""

    def __init__(self):
        self.calls = []
        self.threads = set()
        self.callback = None
        self.answer = 1
        self.hang = None  # waited for in Uninit
        self.hanging = threading.Event()

    def Lumatie(self):
        return self

    def _note(self, *call):
        self.calls.append(call)
        self.threads.add(threading.get_ident())
        return 1

    def Init(self, camera, folder, callback):
        self._note("Init", camera, folder)
        self.callback = callback
        return self.answer

    def SetValue(self, code, value):
        if self.hang is not None:
            self.hanging.set()
            self.hang.wait(DEADLINE)
        return self._note("SetValue", code, value)

    def Shoot(self):
        return self._note("Shoot")

    def UpdateExportFolder(self, folder):
        return self._note("UpdateExportFolder", folder)

    def Uninit(self):
        return self._note("Uninit")

    def names(self):
        return [call[0] for call in self.calls]


class CameraThreadTest(unittest.TestCase):
    def setUp(self):
        self.tether = Tether()
        self.notes = []

    def start(self, is_nikon=False):
        camera = CameraThread(is_nikon, self.notes.append, module=self.tether)
        self.addCleanup(camera.end, DEADLINE)
        return camera

    def test_everything_is_done_on_one_thread_in_the_order_of_asking(self):
        camera = self.start()
        camera.init("Virtual EOS", "/spool")
        camera.set_value(3, 112)
        camera.shoot()
        camera.update_folder("/other")
        self.assertTrue(camera.end(DEADLINE))
        self.assertEqual(
            self.tether.calls,
            [
                ("Init", "Virtual EOS", "/spool"),
                ("SetValue", 3, 112),
                ("Shoot",),
                ("UpdateExportFolder", "/other"),
                ("Uninit",),
            ],
        )
        self.assertEqual(len(self.tether.threads), 1)
        self.assertNotIn(threading.get_ident(), self.tether.threads)

    def test_a_start_that_fails_is_ended(self):
        self.tether.answer = 0
        camera = self.start()
        self.assertEqual(camera.init("nobody", "/spool").result(DEADLINE), 0)
        self.assertEqual(self.tether.names(), ["Init", "Uninit"])
        camera.end(DEADLINE)
        self.assertEqual(self.tether.names(), ["Init", "Uninit"])

    def test_events_tell_which_start_they_belong_to(self):
        camera = self.start()
        camera.init("Virtual EOS", "/spool").result(DEADLINE)
        first = self.tether.callback
        camera.init("Virtual EOS", "/spool").result(DEADLINE)
        self.tether.callback(1, "M")
        first(3, 112, "1/125")
        self.assertEqual(
            [(note.start, note.code, note.values) for note in self.notes],
            [(2, 1, ("M",)), (1, 3, (112, "1/125"))],
        )
        self.assertEqual(self.tether.names(), ["Init", "Uninit", "Init"])

    def test_a_callback_without_arguments_is_noted_as_such(self):
        camera = self.start(is_nikon=True)
        camera.init("module", "/spool").result(DEADLINE)
        self.tether.callback()
        self.assertEqual(self.notes[0][2:], (None, ()))

    def test_a_nikon_is_asked_for_a_picture_when_its_report_begins(self):
        camera = self.start(is_nikon=True)
        camera.init("module", "/spool").result(DEADLINE)
        asked = camera.shoot()
        self.tether.callback(Code.IMAGEQUALITY, "RAW")
        self.assertNotIn("Shoot", self.tether.names())
        self.assertFalse(asked.done())
        self.tether.callback(Code.EXPOSUREMODE, "M")
        self.assertEqual(self.tether.names().count("Shoot"), 1)
        self.assertEqual(asked.result(0), self.notes[-1].time)
        self.tether.callback(Code.EXPOSUREMODE, "M")
        self.assertEqual(self.tether.names().count("Shoot"), 1)

    def test_each_request_of_a_nikon_gets_a_report_of_its_own(self):
        camera = self.start(is_nikon=True)
        camera.init("module", "/spool").result(DEADLINE)
        asked = [camera.shoot() for _ in range(3)]
        asked[1].cancel()
        shots = []
        for _ in range(4):
            self.tether.callback(Code.EXPOSUREMODE, "M")
            shots.append(self.tether.names().count("Shoot"))
        self.assertEqual(shots, [1, 2, 2, 2])
        self.assertLessEqual(asked[0].result(0), asked[2].result(0))

    def test_a_request_that_was_withdrawn_releases_no_shutter(self):
        camera = self.start(is_nikon=True)
        camera.init("module", "/spool").result(DEADLINE)
        self.assertTrue(camera.shoot().cancel())
        self.tether.callback(Code.EXPOSUREMODE, "M")
        self.assertNotIn("Shoot", self.tether.names())

    def test_what_is_not_wanted_any_more_when_the_camera_can_be_asked_releases_no_shutter(self):
        camera = self.start()
        camera.init("Virtual EOS", "/spool").result(DEADLINE)
        self.tether.hang = threading.Event()
        camera.set_value(3, 1)
        self.assertTrue(self.tether.hanging.wait(DEADLINE))
        wanted = {1: True, 2: True}
        first, second = (camera.shoot(lambda one=one: wanted[one]) for one in wanted)
        wanted[1] = False
        self.tether.hang.set()
        with self.assertRaises(TooLate):
            first.result(DEADLINE)
        second.result(DEADLINE)
        self.assertEqual(self.tether.names(), ["Init", "SetValue", "Shoot"])

    def test_what_is_not_wanted_any_more_at_a_report_leaves_it_to_the_next_request(self):
        camera = self.start(is_nikon=True)
        camera.init("module", "/spool").result(DEADLINE)
        late = [camera.shoot(lambda: False), camera.shoot(lambda: 1 // 0)]
        wanted = camera.shoot(lambda: True)
        self.tether.callback(Code.EXPOSUREMODE, "M")
        self.assertEqual(self.tether.names().count("Shoot"), 1)
        self.assertEqual(wanted.result(0), self.notes[-1].time)
        self.assertIsInstance(late[0].exception(0), TooLate)
        self.assertIsInstance(late[1].exception(0), ZeroDivisionError)

    def test_a_request_that_waits_for_a_report_goes_with_its_session(self):
        camera = self.start(is_nikon=True)
        camera.init("module", "/spool").result(DEADLINE)
        asked = camera.shoot()
        camera.init("module", "/spool").result(DEADLINE)
        self.assertTrue(asked.cancelled())
        self.tether.callback(Code.EXPOSUREMODE, "M")
        self.assertNotIn("Shoot", self.tether.names())

    def test_without_a_session_nothing_is_asked_for(self):
        camera = self.start()
        with self.assertRaises(Closed):
            camera.shoot().result(DEADLINE)
        self.assertEqual(camera.uninit().result(DEADLINE), 0)
        self.assertEqual(camera.update_folder("/other").result(DEADLINE), 0)
        self.assertEqual(self.tether.calls, [])

    def test_what_the_module_raises_reaches_who_asked_and_the_thread_goes_on(self):
        camera = self.start()
        camera.init("Virtual EOS", "/spool").result(DEADLINE)
        self.tether.SetValue = lambda code, value: 1 // 0
        with self.assertRaises(ZeroDivisionError):
            camera.set_value(3, 1).result(DEADLINE)
        camera.shoot().result(DEADLINE)

    def test_after_the_end_everything_is_refused(self):
        camera = self.start(is_nikon=True)
        self.assertTrue(camera.end(DEADLINE))
        self.assertTrue(camera.end(DEADLINE))
        self.assertFalse(camera.is_alive)
        for asked in (camera.init("a", "b"), camera.set_value(3, 1), camera.shoot()):
            with self.assertRaises(Closed):
                asked.result(0)

    @timed
    def test_a_module_that_hangs_holds_the_end_up_no_longer_than_it_may(self):
        camera = self.start()
        camera.init("Virtual EOS", "/spool").result(DEADLINE)
        self.tether.hang = threading.Event()
        self.addCleanup(self.tether.hang.set)
        camera.set_value(3, 1)
        self.assertTrue(self.tether.hanging.wait(DEADLINE))
        with within(5.0):
            self.assertFalse(camera.end(2.5))
        # The module is told to give up, from elsewhere.
        self.assertIn("Uninit", self.tether.names())
        self.tether.hang.set()
        self.assertTrue(camera.end(DEADLINE))

    def test_two_threads_may_end_it_at_once(self):
        camera = self.start()
        camera.init("Virtual EOS", "/spool")
        ended = []
        threads = [
            threading.Thread(target=lambda: ended.append(camera.end(DEADLINE))) for _ in range(2)
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(DEADLINE)
        self.assertEqual(ended, [True, True])
        self.assertEqual(self.tether.names(), ["Init", "Uninit"])

    def test_an_idle_thread_costs_next_to_nothing(self):
        self.start()
        before = time.process_time()
        time.sleep(1.0)  # what is measured
        self.assertLess(time.process_time() - before, 0.1)


@unittest.skipUnless(os.name == "nt", "only Windows has window messages")
class MessagesTest(unittest.TestCase):
    """The thread's messages, seen from a thread that posts them."""

    def setUp(self):
        import ctypes

        from lumatie_host import messages

        self.user = ctypes.WinDLL("user32")
        self.told = []
        self.heard = threading.Event()
        self.pumps = []
        original = messages.open_pump

        def open_pump(on_devices):
            self.pumps.append(original(on_devices))
            return self.pumps[0]

        messages.open_pump = open_pump
        self.addCleanup(setattr, messages, "open_pump", original)

    def _hear(self, name, came):
        self.told.append((name, came))
        self.heard.set()

    def _start(self):
        tether = Tether()
        camera = CameraThread(False, lambda note: None, self._hear, module=tether)
        self.addCleanup(camera.end, DEADLINE)
        camera.init("Virtual EOS", "spool").result(DEADLINE)
        return camera

    def test_a_message_that_is_posted_to_the_thread_is_handled(self):
        self._start()
        self.assertTrue(self.pumps[0].window)
        self.user.PostMessageW(self.pumps[0].window, 0x0219, 0x0007, 0)
        self.assertTrue(self.heard.wait(DEADLINE))
        self.assertEqual(self.told, [("", True)])

    def test_a_device_is_told_by_its_name(self):
        import ctypes

        self._start()
        name = "\\\\?\\USB#VID_04A9&PID_3294#1\0".encode("utf-16-le")
        told = (28 + len(name)).to_bytes(4, "little") + (5).to_bytes(4, "little") + bytes(20) + name
        data = ctypes.create_string_buffer(told)
        self.user.SendMessageW.argtypes = [ctypes.c_void_p] * 4
        self.user.SendMessageW(self.pumps[0].window, 0x0219, 0x8004, ctypes.addressof(data))
        self.assertEqual(self.told, [("\\\\?\\USB#VID_04A9&PID_3294#1", False)])

    def test_the_window_goes_with_the_thread(self):
        camera = self._start()
        window = self.pumps[0].window
        self.assertTrue(camera.end(DEADLINE))
        self.assertFalse(self.user.IsWindow(window))


if __name__ == "__main__":
    unittest.main()
