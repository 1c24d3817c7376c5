"""What a host's callable may do, and what comes of it.

The callable runs on the module's worker with the interpreter lock held. It may raise, block, call
every operation, end its own session and let go of the object that calls it.
"""

import contextlib
import io
import os
import sys
import threading
import time
import unittest
import weakref

from support import (
    CAMERA_NAME,
    DEADLINE,
    SHUTTER_SPEED,
    Host,
    Lumatie,
    TetherTestCase,
    name_in_library,
    picture_path,
    wait_until,
)
from timing import timed, within

SHUTTER_CODE = 0x60  # 1/30
OTHER_CAMERA = "Virtual EOS II"
STRESS_SECONDS = float(os.environ.get("LUMATIE_STRESS_SECONDS", "5"))


@contextlib.contextmanager
def printed():
    """Collects what the interpreter prints to its error stream, from whatever thread."""
    text = io.StringIO()
    with contextlib.redirect_stderr(text):
        yield text


def in_thread(work, *arguments):
    """Starts a thread that the process does not wait for, should it hang."""
    thread = threading.Thread(target=work, args=arguments, daemon=True)
    thread.start()
    return thread


class CallbackTestCase(TetherTestCase):
    """Tests that start sessions of a tether object of their own."""

    def wait_for_end(self, terminations=1):
        """Waits until the session's end, which goes on by itself, has terminated the library."""
        self.camera.wait_for_calls("EdsTerminateSDK", terminations)
        wait_until(lambda: not self.camera.session_open(), "the camera's session is closed")
        self.assertEqual(self.camera.references(), 0)

    def assert_joined(self, threads, what):
        """Fails when one of the threads does not end in time."""
        end = time.monotonic() + DEADLINE
        for thread in threads:
            thread.join(max(0, end - time.monotonic()))
            self.assertFalse(thread.is_alive(), what)


class OnceAction:
    """For `Host(on_event)`: acts on the first event only; keeps what came of it."""

    def __init__(self, action):
        self._action = action
        self.done = threading.Event()
        self.result = None

    def __call__(self, event):
        if self._action is None:
            return
        action, self._action = self._action, None
        try:
            self.result = action()
        finally:
            self.done.set()

    def wait(self):
        """Waits until the action is done, and returns its result."""
        if not self.done.wait(DEADLINE):
            raise AssertionError("the callable does not come back")
        return self.result


class RaisingAndOddCallables(CallbackTestCase):
    """Callables that fail, and objects that are none."""

    def test_a_callable_that_raises_prints_the_traceback_and_gets_the_next_event(self):
        def fail(_event):
            raise RuntimeError("host at fault")

        with printed() as errors:
            _, host = self.start(Host(fail))
        self.assertGreater(len(host.events), 1)
        self.assertEqual(errors.getvalue().count("Traceback"), len(host.events))
        self.assertEqual(errors.getvalue().count("RuntimeError: host at fault"), len(host.events))

    def test_every_kind_of_exception_is_printed_and_the_session_goes_on(self):
        class OddError(BaseException):
            def __str__(self):
                raise ValueError("no text")

        raised = [KeyboardInterrupt(), GeneratorExit(), StopIteration(1), MemoryError(), OddError()]
        left = list(raised)

        def fail(_event):
            if left:
                raise left.pop()

        with printed() as errors:
            tether, host = self.start(Host(fail))
            tether.Shoot()
            host.wait_for_picture()
        self.assertEqual(errors.getvalue().count("Traceback"), len(raised))

    def print_with_hook(self, hook):
        """What is printed when the callable fails once, for this `sys.excepthook`."""
        self.addCleanup(setattr, sys, "excepthook", sys.excepthook)
        left = [RuntimeError("host at fault")]

        def fail(_event):
            if left:
                raise left.pop()

        with printed() as errors:
            sys.excepthook = hook
            if hook is None:
                del sys.excepthook
            tether, host = self.start(Host(fail))
            tether.Shoot()
            host.wait_for_picture()
        return errors.getvalue()

    def test_the_hosts_excepthook_gets_what_the_callable_raises_and_finds_it_in_sys(self):
        seen = []

        def hook(*error):
            seen.append(error)
            seen.append((sys.last_type, sys.last_value, sys.last_traceback))

        self.assertEqual(self.print_with_hook(hook), "")
        (error_type, error, trace), last = seen
        self.assertEqual((error_type, error, trace), last)
        self.assertEqual((error_type, error.__traceback__), (RuntimeError, trace))
        self.assertEqual(trace.tb_frame.f_code.co_name, "__call__")

    def test_an_excepthook_that_fails_is_printed_with_the_original_error(self):
        def hook(*_error):
            raise ValueError("hook at fault")

        self.assertRegex(
            self.print_with_hook(hook),
            r"(?s)\AError in sys\.excepthook:\nTraceback .*\nValueError: hook at fault\n"
            r"\nOriginal exception was:\nTraceback .*\nRuntimeError: host at fault\n\Z",
        )

    def test_without_an_excepthook_the_error_is_printed_all_the_same(self):
        self.assertRegex(
            self.print_with_hook(None),
            r"(?s)\Asys\.excepthook is missing\nTraceback .*\nRuntimeError: host at fault\n\Z",
        )

    def test_an_object_that_is_no_callable_is_printed_as_an_error_for_each_event(self):
        with printed() as errors:
            tether, _ = self.start(42)
            tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, SHUTTER_CODE)
            self.camera.settle()
        self.assertIn("'int' object is not callable", errors.getvalue())
        self.assertEqual(self.camera.property(SHUTTER_SPEED), SHUTTER_CODE)

    def test_without_a_callable_events_are_dropped_silently_and_pictures_arrive(self):
        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        with printed() as errors:
            self.assertEqual(tether.Init(CAMERA_NAME, self.folder, None), 1)
            tether.Shoot()
            self.camera.wait_for_calls("EdsDownloadComplete")
            self.camera.settle()
        self.assertEqual(errors.getvalue(), "")
        self.assertEqual(len(self.files()), 1)

    def test_a_text_that_is_no_utf8_makes_one_call_without_arguments_and_prints_the_error(self):
        tether, host = self.start()
        self.camera.set_picture_name(b"IMG.\xff\xfe")
        host.clear()
        with printed() as errors:
            tether.Shoot()
            host.wait_for(lambda events: events)
            self.camera.settle()
        self.assertEqual(host.calls(), [(None,)])
        self.assertEqual(errors.getvalue().count("UnicodeDecodeError"), 1)
        self.assertTrue(self.files()[0].endswith(name_in_library(b".\xff\xfe")))

    def test_the_error_of_a_text_that_is_no_utf8_is_printed_after_the_call(self):
        printed_by_then = []

        def look(event):
            if event.code is None:
                printed_by_then.append(errors.getvalue())

        with printed() as errors:
            tether, host = self.start(Host(look))
            self.camera.set_picture_name(b"IMG.\xff\xfe")
            tether.Shoot()
            host.wait_for(lambda _: printed_by_then)
            self.camera.settle()
        self.assertEqual(printed_by_then, [""])
        self.assertEqual(errors.getvalue().count("UnicodeDecodeError"), 1)

    def test_a_callable_of_the_wrong_signature_prints_a_type_error_and_the_session_goes_on(self):
        with printed() as errors:
            tether, _ = self.start(lambda: None)
            tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, SHUTTER_CODE)
            self.camera.settle()
        self.assertIn("TypeError", errors.getvalue())
        self.assertEqual(self.camera.property(SHUTTER_SPEED), SHUTTER_CODE)

    def test_what_the_callable_returns_is_released(self):
        class Result:
            pass

        results = []

        def answer(*_arguments):
            result = Result()
            results.append(weakref.ref(result))
            return result

        self.start(answer)
        wait_until(lambda: results and not any(r() for r in results[:-1]), "results are released")


class BlockingCallable(CallbackTestCase):
    """A callable that does not come back for a while."""

    def setUp(self):
        super().setUp()
        self.gate = threading.Event()
        self.inside = threading.Event()
        self.addCleanup(self.gate.set)

    def block(self, _event):
        """Holds the worker until the gate is open."""
        self.inside.set()
        self.gate.wait()

    @timed
    def test_a_blocked_callable_does_not_hold_the_host_and_loses_nothing(self):
        tether, host = self.start(Host(self.block), wait=False)
        self.assertTrue(self.inside.wait(DEADLINE))
        with within(1):
            tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, SHUTTER_CODE)
            tether.Shoot()
            tether.UpdateExportFolder(self.folder)
        self.gate.set()
        self.assertTrue(os.path.exists(host.wait_for_picture()))
        self.assertEqual(self.camera.property(SHUTTER_SPEED), SHUTTER_CODE)

    def test_uninit_waits_for_the_blocked_callable_and_lets_other_threads_run(self):
        tether, host = self.start(Host(self.block), wait=False)
        self.assertTrue(self.inside.wait(DEADLINE))
        results, begun = [], threading.Event()

        def end():
            begun.set()
            results.append(tether.Uninit())

        # Nobody takes the interpreter lock from the thread before Uninit has begun and gives it up.
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(100)
        ending = in_thread(end)
        self.assertTrue(begun.wait(DEADLINE))
        self.assertEqual((results, tether.Uninit()), ([], 0))
        before = len(host.events)
        self.gate.set()
        self.assert_joined([ending], "Uninit does not return")
        self.assertEqual((results, len(host.events)), ([1], before))
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 1)


class OperationsInsideTheCallable(CallbackTestCase):
    """The callable calls into the object that calls it."""

    def act_inside(self, action):
        """Starts a session whose first event runs `action`; returns object, host and result."""
        once = OnceAction(action)
        host = Host(once)
        tether = self.tether
        self.assertEqual(tether.Init(CAMERA_NAME, self.folder, host), 1)
        return host, once.wait()

    def setUp(self):
        super().setUp()
        self.tether = Lumatie.Lumatie()
        self.end_with_test(self.tether)

    def test_shoot_inside_the_callable_takes_a_picture(self):
        host, result = self.act_inside(lambda: self.tether.Shoot())
        self.assertEqual(result, 1)
        self.assertTrue(os.path.exists(host.wait_for_picture()))

    def test_set_value_inside_the_callable_reaches_the_camera(self):
        host, result = self.act_inside(
            lambda: self.tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, SHUTTER_CODE)
        )
        self.assertEqual(result, 1)
        host.wait_for_call(Lumatie.TETHER_SHUTTERSPEED, SHUTTER_CODE, "1/30")

    def test_update_export_folder_inside_the_callable_moves_the_pictures(self):
        other = os.path.join(self.base, "other")
        os.mkdir(other)
        host, result = self.act_inside(lambda: self.tether.UpdateExportFolder(other))
        self.assertEqual(result, 1)
        self.tether.Shoot()
        self.assertEqual(os.path.dirname(host.wait_for_picture()), other)

    def test_uninit_inside_the_callable_returns_one_and_ends_the_session_soon(self):
        host, result = self.act_inside(self.tether.Uninit)
        self.assertEqual(result, 1)
        self.wait_for_end()
        self.assertEqual(len(host.events), 1)
        self.assertEqual(self.tether.Uninit(), 0)

    def test_operations_after_uninit_inside_the_callable_do_nothing(self):
        def end_and_go_on():
            tether = self.tether
            return [tether.Uninit(), tether.Uninit(), tether.Shoot(), tether.SetValue(3, 0x60)]

        _, result = self.act_inside(end_and_go_on)
        self.assertEqual(result, [1, 0, 1, 1])
        self.wait_for_end()
        self.assertEqual(self.camera.calls("EdsSendCommand"), 0)

    def test_uninit_inside_the_callable_and_at_once_outside_ends_the_session_once(self):
        _, result = self.act_inside(self.tether.Uninit)
        self.assertEqual((result, self.tether.Uninit()), (1, 0))
        self.wait_for_end()
        self.assertEqual(self.camera.calls("EdsCloseSession"), 1)

    def test_dropping_the_last_reference_inside_the_callable_ends_the_session(self):
        box = [Lumatie.Lumatie()]
        gone = weakref.ref(box[0])
        once = OnceAction(box.clear)
        host = Host(once)
        box[0].Init(CAMERA_NAME, self.folder, host)
        once.wait()
        self.wait_for_end()
        self.assertIsNone(gone())
        self.assertEqual(len(host.events), 1)

    def test_deleting_the_object_explicitly_inside_the_callable_ends_the_session(self):
        tether = Lumatie.Lumatie()
        once = OnceAction(lambda: Lumatie._Lumatie.delete_Lumatie(tether))
        tether.Init(CAMERA_NAME, self.folder, Host(once))
        self.assertIsNone(once.wait())
        self.wait_for_end()

    def test_a_callable_that_lets_go_of_itself_and_the_object_is_freed(self):
        box = [Lumatie.Lumatie()]
        host = Host(OnceAction(box.clear))
        gone = weakref.ref(host)
        box[0].Init(CAMERA_NAME, self.folder, host)
        del host
        self.wait_for_end()
        wait_until(lambda: gone() is None, "the callable is freed")

    def assert_goes_with_its_method(self, receive):
        """An owner whose method is the callable and lets its session go goes when that returns."""
        owners = []

        class Owner:
            def __init__(self):
                self.tether = Lumatie.Lumatie()

            def receive(self, *event):
                if owners:
                    owners.clear()
                    receive(self.tether)

        owners.append(Owner())
        gone = weakref.ref(owners[0].tether)
        owners[0].tether.Init(CAMERA_NAME, self.folder, owners[0].receive)
        self.wait_for_end()
        wait_until(lambda: gone() is None, "the tether object is freed")

    def test_an_owner_whose_method_ends_the_session_goes_when_the_method_returns(self):
        self.assert_goes_with_its_method(lambda tether: tether.Uninit())

    def test_an_owner_whose_method_is_replaced_while_it_runs_goes_when_the_method_returns(self):
        # The second start finds no camera, but has replaced the callable.
        self.assert_goes_with_its_method(lambda tether: tether.Init("none", self.folder, None))

    def test_uninit_and_init_inside_the_callable_start_a_session_that_works(self):
        second = Host()

        def start_anew():
            return [self.tether.Uninit(), self.tether.Init(CAMERA_NAME, self.folder, second)]

        first, result = self.act_inside(start_anew)
        self.assertEqual(result, [1, 1])
        self.camera.wait_for_calls("EdsOpenSession", 2)
        self.tether.Shoot()
        self.assertTrue(os.path.exists(second.wait_for_picture()))
        self.assertEqual(len(first.events), 1)
        self.assertEqual(self.tether.Uninit(), 1)
        self.wait_for_end()

    def test_twenty_new_starts_inside_one_callable_leave_the_last_session_working(self):
        last = Host()

        def start_often():
            for _ in range(20):
                self.tether.Uninit()
                self.tether.Init(CAMERA_NAME, self.folder, last)

        self.act_inside(start_often)
        self.tether.Shoot()
        self.assertTrue(os.path.exists(last.wait_for_picture()))

    def test_each_event_may_start_the_session_anew(self):
        starts = []

        def start_anew(event):
            if len(starts) < 10:
                self.tether.Uninit()
                starts.append(self.tether.Init(CAMERA_NAME, self.folder, host))

        host = Host(start_anew)
        self.tether.Init(CAMERA_NAME, self.folder, host)
        wait_until(lambda: len(starts) == 10, "ten sessions were started")
        self.tether.Shoot()
        self.assertTrue(os.path.exists(host.wait_for_picture()))
        self.assertEqual(starts, [1] * 10)

    def test_init_inside_the_callable_starts_a_second_session_on_the_same_object(self):
        self.camera.add(OTHER_CAMERA)
        second = Host()
        _, result = self.act_inside(lambda: self.tether.Init(OTHER_CAMERA, self.folder, second))
        self.assertEqual(result, 1)
        wait_until(lambda: self.camera.session_open(1), "the second session is open")
        self.assertTrue(self.camera.session_open(0))
        self.assertEqual(self.tether.Uninit(), 1)
        self.assertEqual([self.camera.session_open(n) for n in (0, 1)], [False, False])

    def test_init_of_another_object_inside_the_callable_starts_its_session(self):
        self.camera.add(OTHER_CAMERA)
        other, second = Lumatie.Lumatie(), Host()
        self.end_with_test(other)
        _, result = self.act_inside(lambda: other.Init(OTHER_CAMERA, self.folder, second))
        self.assertEqual(result, 1)
        self.camera.settle(1)
        other.Shoot()
        self.assertTrue(os.path.exists(second.wait_for_picture()))
        # The end of one object's session leaves the other one's alone.
        self.tether.Uninit()
        other.UpdateExportFolder(self.folder)
        other.Shoot()
        self.assertTrue(os.path.exists(second.wait_for_picture(2)))

    def test_the_callable_of_one_object_may_end_the_other_objects_session(self):
        self.camera.add(OTHER_CAMERA)
        other, _ = self.start(name=OTHER_CAMERA, wait=False)
        self.camera.settle(1)
        _, result = self.act_inside(other.Uninit)
        self.assertEqual(result, 1)
        self.assertFalse(self.camera.session_open(1))
        self.camera.settle()
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 0)


class Replacing(CallbackTestCase):
    """A callable that makes way for another one."""

    def test_a_new_init_releases_the_old_callable(self):
        self.camera.add(OTHER_CAMERA)
        old, new = Host(), Host()
        gone = weakref.ref(old)
        tether, _ = self.start(old)
        del old, _
        self.assertIsNotNone(gone())
        self.assertEqual(tether.Init(OTHER_CAMERA, self.folder, new), 1)
        wait_until(lambda: gone() is None, "the old callable is freed")
        new.wait_for_event(Lumatie.TETHER_SHUTTERSPEED_LIST)

    def test_uninit_releases_the_callable(self):
        host = Host()
        gone = weakref.ref(host)
        tether, _ = self.start(host)
        del host, _
        tether.Uninit()
        wait_until(lambda: gone() is None, "the callable is freed")

    def test_a_failed_init_keeps_the_callable_until_uninit(self):
        host = Host()
        gone = weakref.ref(host)
        tether = Lumatie.Lumatie()
        self.assertEqual(tether.Init("Nobody", self.folder, host), 0)
        del host
        self.assertIsNotNone(gone())
        self.assertEqual(tether.Uninit(), 1)
        self.assertIsNone(gone())

    def test_a_callable_that_replaces_itself_is_heard_no_more(self):
        self.camera.add(OTHER_CAMERA)
        new = Host()
        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        once = OnceAction(lambda: tether.Init(OTHER_CAMERA, self.folder, new))
        old = Host(once)
        tether.Init(CAMERA_NAME, self.folder, old)
        self.assertEqual(once.wait(), 1)
        new.wait_for_event(Lumatie.TETHER_SHUTTERSPEED_LIST)
        self.camera.settle(1)
        self.assertEqual(len(old.events), 1)


class CallableWithFinalizer:
    """A callable whose end calls `farewell`."""

    def __init__(self, farewell):
        self._farewell = farewell

    def __call__(self, *_arguments):
        pass

    def __del__(self):
        self._farewell()


class FinalizerOfTheCallable(CallbackTestCase):
    """`__del__` of the callable runs while the object lets go of it."""

    def test_it_may_call_every_operation_while_uninit_lets_go(self):
        tether, results = Lumatie.Lumatie(), []

        def farewell():
            results.extend(
                [tether.Shoot(), tether.SetValue(3, 0x60), tether.UpdateExportFolder(self.folder)]
            )
            results.append(tether.Uninit())

        tether.Init(CAMERA_NAME, self.folder, CallableWithFinalizer(farewell))
        self.camera.settle()
        self.assertEqual(tether.Uninit(), 1)
        wait_until(lambda: results == [1, 1, 1, 0], "the finalizer has run")
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 1)

    def test_it_may_start_a_session_while_uninit_lets_go(self):
        tether, results = Lumatie.Lumatie(), []
        self.end_with_test(tether)

        def farewell():
            results.append(tether.Init(CAMERA_NAME, self.folder, None))

        self.camera.configure("misuse.one_thread = 0")
        tether.Init(CAMERA_NAME, self.folder, CallableWithFinalizer(farewell))
        self.camera.settle()
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(results, [1])
        tether.Uninit()
        self.assertFalse(self.camera.session_open())
        self.assertEqual(self.camera.references(), 0)

    def test_ending_the_old_session_from_it_leaves_the_new_init_its_callable(self):
        tether, results = Lumatie.Lumatie(), []
        self.end_with_test(tether)
        old = CallableWithFinalizer(lambda: results.append(tether.Uninit()))
        tether.Init(CAMERA_NAME, self.folder, old)
        del old
        self.camera.settle()
        new = Host()
        self.assertEqual(tether.Init(CAMERA_NAME, self.folder, new), 1)
        self.assertEqual(results, [1])
        new.wait_for_event(Lumatie.TETHER_SHUTTERSPEED_LIST)
        tether.Shoot()
        self.assertEqual(os.path.dirname(new.wait_for_picture()), self.folder)


class ManyThreads(CallbackTestCase):
    """The object is used by several threads at once."""

    def test_of_two_uninits_at_once_one_returns_one(self):
        for _ in range(30):
            tether, _ = self.start(wait=False)
            barrier, results = threading.Barrier(2), []

            def end(tether=tether, barrier=barrier, results=results):
                barrier.wait()
                results.append(tether.Uninit())

            threads = [in_thread(end) for _ in range(2)]
            self.assert_joined(threads, "Uninit does not return")
            self.assertEqual(sorted(results), [0, 1])

    def test_init_uninit_shoot_and_set_value_from_four_threads_at_once(self):
        # A second session on a camera in use is never opened, but its worker uses the camera.
        self.camera.configure("misuse.one_thread = 0")
        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        end = time.monotonic() + STRESS_SECONDS
        counts, wrong = {}, []

        def repeat(name, allowed, operation):
            counts[name] = 0
            while time.monotonic() < end:
                result = operation()
                time.sleep(0.001)  # the pace of a host in a hurry; the queue has no bound
                counts[name] += 1
                if result not in allowed:
                    wrong.append((name, result))

        host = Host()
        threads = [
            in_thread(repeat, "Init", (0, 1), lambda: tether.Init(CAMERA_NAME, self.folder, host)),
            in_thread(repeat, "Uninit", (0, 1), tether.Uninit),
            in_thread(repeat, "Shoot", (1,), tether.Shoot),
            in_thread(repeat, "SetValue", (1,), lambda: tether.SetValue(3, SHUTTER_CODE)),
        ]
        self.assert_joined(threads, "an operation does not return")
        self.assertEqual(wrong, [])
        self.assertGreaterEqual(min(counts.values()), 3, counts)
        tether.Uninit()
        self.camera.wait_until_idle()

    def test_two_objects_with_two_cameras_announce_their_own_pictures(self):
        shots = 100
        self.camera.add(OTHER_CAMERA)
        self.camera.configure("picture.keep = 1000\npicture.width = 64\npicture.height = 48")
        sessions = [self.start(), self.start(name=OTHER_CAMERA, wait=False)]
        self.camera.settle(1)

        def shoot(tether, host):
            for number in range(shots):
                tether.Shoot()
                host.wait_for_picture(number + 1)

        threads = [in_thread(shoot, *session) for session in sessions]
        self.assert_joined(threads, "not all pictures came")
        pictures = self.camera.pictures()
        for camera, (_, host) in enumerate(sessions):
            announced = [picture_path(e.text) for e in host.of(Lumatie.TETHER_GENERAL)]
            contents = [read(path) for path in announced]
            taken = [
                self.camera.picture_bytes(i)
                for i, picture in enumerate(pictures)
                if picture["camera"] == camera
            ]
            self.assertEqual(len(set(announced)), shots)
            self.assertEqual(contents, taken)


def read(path):
    """The bytes of a file."""
    with open(path, "rb") as file:
        return file.read()


if __name__ == "__main__":
    unittest.main()
