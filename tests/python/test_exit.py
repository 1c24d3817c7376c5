"""The interpreter's end with a live session: the process ends by itself, with the status it wants.

Each test runs small hosts in processes of their own, most of them many times. A host must end
before its deadline, with the exit status that the host asked for and with nothing on standard error
but what the host itself put there: no fatal error, no crash.
"""

import unittest

import exit_hosts as hosts
from exit_support import (
    INTERRUPTED,
    PATIENCE,
    SLOW_TAKING_DOWN,
    TELL_END,
    TERMINATED,
    ExitInCallableTests,
    ExitTestCase,
    ForkTests,
    OrphanTests,
    StuckTestCase,
)
from this_process import ON_WINDOWS


class QuickEnds(ExitTestCase):
    """States in which nothing keeps the session from ending at once."""

    def test_an_idle_session_is_closed_at_the_end(self):
        self.assert_closed(self.assert_ends("tether = start(); wait(called)"))

    def test_a_session_that_has_only_just_started_is_closed_at_the_end(self):
        self.assert_ends("tether = start()")

    def test_an_object_without_session_does_not_disturb_the_end(self):
        self.assert_ends("tether = Lumatie.Lumatie()")

    def test_a_start_that_failed_does_not_disturb_the_end(self):
        self.assert_ends("tether = Lumatie.Lumatie(); tether.Init('Nobody', folder, hear)")

    def test_a_download_under_way_is_finished(self):
        ends = self.assert_ends(
            """
configure(b"picture.size = 300000\\ntransfer.rate = 1")
tether = start()
wait(called)
tether.Shoot()
wait_for_call(b"EdsSetProgressCallback")
""",
            repeats=8,
        )
        self.assert_closed(ends)
        self.assertEqual([list(end.files.values()) for end in ends], [[300000]] * len(ends))

    def test_a_download_that_takes_longer_than_the_patience_gives_signs_of_life(self):
        size = int(1000000 * (PATIENCE + 3))
        ends = self.assert_ends(
            """
configure(b"picture.size = {}\\ntransfer.rate = 1")
tether = start()
wait(called)
tether.Shoot()
wait_for_call(b"EdsSetProgressCallback")
""".format(size),
            repeats=2,
            deadline=4 * PATIENCE,
        )
        self.assert_closed(ends)
        self.assertEqual([list(end.files.values()) for end in ends], [[size]] * len(ends))

    def test_pictures_that_are_still_in_the_queue_do_not_hold_the_end_up(self):
        self.assert_ends(
            """
tether = start()
wait(called)
for _ in range(500):
    tether.Shoot()
"""
        )

    def test_a_callable_that_runs_is_awaited(self):
        ends = self.assert_ends(
            """
def work(*arguments):
    called.set()
    end = time.monotonic() + 0.2
    while time.monotonic() < end:
        pass
    os.write(1, b"done")

tether = start(work)
wait(called)
"""
        )
        self.assertEqual({end.stdout for end in ends}, {"done"})

    def test_a_callable_that_sleeps_two_seconds_is_awaited(self):
        ends = self.assert_ends(
            hosts.SLEEP_TWO_SECONDS,
            repeats=6,
            at_once=6,
        )
        self.assertEqual({end.stdout for end in ends}, {"done"})

    def test_the_pause_before_a_retry_ends_with_the_process(self):
        ends = self.assert_ends(
            TELL_END
            + """
configure(b"fault = EdsOpenSession code=0x81 calls=0")
tether = start()
wait_for_call(b"EdsOpenSession")
""",
            repeats=8,
        )
        self.assertLess(min(end.ending for end in ends), 3)

    def test_a_camera_without_cable_does_not_hold_the_end_up(self):
        self.assert_ends(
            """
tether = start()
wait(called)
camera.VirtualCameraUnplug(0)
tether.Shoot()
"""
        )

    def test_two_objects_with_sessions_are_both_ended(self):
        self.assert_ends(
            """
configure(b"[camera 1]\\ncamera.name = Second")
first, second = start(), Lumatie.Lumatie()
assert second.Init("Second", folder, hear) == 1
wait(called)
"""
        )

    def test_two_sessions_of_one_object_are_both_ended(self):
        self.assert_ends(
            """
configure(b"[camera 1]\\ncamera.name = Second")
tether = start()
assert tether.Init("Second", folder, hear) == 1
wait(called)
"""
        )

    def test_a_session_that_was_ended_inside_the_callable_is_closed_before_the_end(self):
        ends = self.assert_ends(
            """
configure(b"fault = EdsCloseSession delay_ms=300")

def leave(*arguments):
    tether.Uninit()
    called.set()

tether = Lumatie.Lumatie()
start(leave, tether)
wait(called)
""",
            repeats=8,
        )
        self.assert_closed(ends)


class Statuses(ExitTestCase):
    """Ways to end a process, each with its own exit status."""

    def test_sys_exit_in_the_main_thread_keeps_its_status(self):
        self.assert_closed(self.assert_ends("tether = start(); wait(called); sys.exit(7)", 7))

    def test_an_unhandled_exception_ends_with_status_one_and_its_traceback(self):
        script = "tether = start(); wait(called); raise RuntimeError('host at fault')"
        self.assert_closed(self.assert_ends(script, 1, "RuntimeError: host at fault"))

    def test_sys_exit_with_a_text_prints_it_and_ends_with_status_one(self):
        self.assert_ends("tether = start(); wait(called); sys.exit('a word')", 1, "a word")

    def test_sys_exit_inside_the_callable_ends_the_process_with_its_status(self):
        ends = self.assert_ends(
            """
tether = start(lambda *arguments: sys.exit(5))
time.sleep(1000)
""",
            5,
        )
        self.assert_closed(ends)

    def test_sys_exit_inside_the_callable_while_the_main_thread_works(self):
        self.assert_ends(
            """
tether = start(lambda *arguments: sys.exit(5))
while True:
    tether.UpdateExportFolder(folder)
""",
            5,
        )

    def test_sys_exit_inside_the_callable_while_uninit_waits_for_it(self):
        self.assert_ends(
            hosts.EXIT_WHILE_UNINIT_WAITS,
            5,
        )

    def test_sys_exit_inside_the_callable_after_uninit_inside_it(self):
        ends = self.assert_ends(
            hosts.EXIT_AFTER_UNINIT,
            5,
        )
        self.assertLess(min(end.seconds for end in ends), PATIENCE)

    def test_os_exit_ends_at_once_with_its_status(self):
        self.assert_ends("tether = start(); wait(called); os._exit(9)", 9)

    def test_os_exit_inside_the_callable_ends_at_once_with_its_status(self):
        self.assert_ends("tether = start(lambda *a: os._exit(9)); time.sleep(1000)", 9)

    def test_an_interrupt_from_the_keyboard_ends_with_its_signal(self):
        self.assert_closed(
            self.assert_ends(
                hosts.INTERRUPT,
                INTERRUPTED,
                "KeyboardInterrupt",
            )
        )

    def test_a_termination_ends_with_its_signal(self):
        self.assert_ends(
            """
signal.signal(signal.SIGTERM, signal.SIG_DFL)
tether = start()
wait(called)
signal.raise_signal(signal.SIGTERM)
time.sleep(1000)
""",
            TERMINATED,
        )

    def test_a_handler_of_a_termination_that_exits_keeps_its_status(self):
        self.assert_closed(
            self.assert_ends(
                hosts.EXIT_IN_HANDLER,
                3,
            )
        )


class ExitsInCallables(ExitInCallableTests, ExitTestCase):
    """The callable ends the program, or what is called when it fails."""

    def test_sys_exit_in_the_callables_of_two_sessions_at_once(self):
        self.assert_ends_once(
            """
configure(b"[camera 1]\\ncamera.name = Second")
infos = info, "Second"
"""
            + hosts.EXIT_IN_TWO_CALLABLES,
            5,
        )


class Owners(ExitTestCase):
    """Where the object lives, and who uses it, when the interpreter ends."""

    def test_an_object_in_a_reference_cycle(self):
        self.assert_closed(self.assert_ends(hosts.REFERENCE_CYCLE))

    def test_an_object_in_the_globals_of_another_module(self):
        self.assert_closed(
            self.assert_ends("sys.tether = start(); os.tether = sys.tether; wait(called)")
        )

    def test_an_object_in_thread_local_storage(self):
        self.assert_ends(
            """
store = threading.local()
store.tether = start()
wait(called)
"""
        )

    def test_an_object_that_is_deleted_in_the_callable(self):
        self.assert_ends(hosts.DELETE_IN_CALLABLE)

    def test_an_object_that_is_deleted_by_atexit(self):
        self.assert_ends("box = [start()]; wait(called); atexit.register(box.clear)")

    def test_an_object_that_is_used_by_its_destructor_at_the_end(self):
        self.assert_ends(hosts.USE_IN_DESTRUCTOR)

    def test_a_daemon_thread_that_goes_on_shooting(self):
        self.assert_ends(hosts.GO_ON_SHOOTING)

    def test_a_daemon_thread_that_goes_on_starting_and_ending_sessions(self):
        self.assert_ends(hosts.GO_ON_STARTING)

    def test_a_daemon_thread_that_waits_in_uninit(self):
        self.assert_ends(hosts.WAIT_IN_UNINIT)

    def test_a_daemon_thread_that_comes_out_of_uninit_while_the_interpreter_is_taken_down(self):
        self.assert_ends(
            SLOW_TAKING_DOWN + hosts.LEAVE_UNINIT_LATE,
            repeats=8,
            at_once=8,
        )

    def test_a_daemon_thread_that_comes_out_of_init_while_the_interpreter_is_taken_down(self):
        self.assert_ends(
            SLOW_TAKING_DOWN
            + """
configure(b"fault = EdsGetCameraList delay_ms=300")
tether = Lumatie.Lumatie()
threading.Thread(target=start, args=(hear, tether), daemon=True).start()
wait_for_call(b"EdsInitializeSDK")
""",
            repeats=8,
            at_once=8,
        )

    def test_a_thread_that_finishes_its_work_after_the_main_thread(self):
        ends = self.assert_ends(
            """
tether = start()
wait(called)

def finish():
    for _ in range(5):
        tether.Shoot()
        tether.SetValue(3, shutter_speed)
    tether.Uninit()
    os.write(1, b"finished")

threading.Thread(target=finish).start()
"""
        )
        self.assert_closed(ends)
        self.assertEqual({end.stdout for end in ends}, {"finished"})

    def test_many_objects_with_failed_starts_and_live_sessions(self):
        self.assert_ends(
            """
configure(b"misuse.one_thread = 0")
tethers = [Lumatie.Lumatie() for _ in range(20)]
for number, tether in enumerate(tethers):
    tether.Init("Virtual EOS" if number % 10 == 0 else "Nobody", folder, hear)
wait(called)
""",
            repeats=8,
        )


class StartsAtTheEnd(ExitTestCase):
    """Sessions that are started when the interpreter has begun to end."""

    def test_an_atexit_function_registered_before_the_import_starts_no_session(self):
        ends = self.assert_ends(
            "tether = Lumatie.Lumatie()",
            before_import="""
def late():
    os.write(1, str(tether.Init(info, folder, hear)).encode())

atexit.register(late)
""",
        )
        self.assertEqual({end.stdout for end in ends}, {"0"})
        self.assertEqual({end.log.count("EdsOpenSession") for end in ends}, {0})

    def test_an_atexit_function_registered_after_the_import_starts_one_that_is_ended(self):
        ends = self.assert_ends(
            """
def late():
    os.write(1, str(tether.Init(info, folder, hear)).encode())
    wait(called)

tether = Lumatie.Lumatie()
atexit.register(late)
"""
        )
        self.assertEqual({end.stdout for end in ends}, {"1"})
        self.assert_closed(ends)

    def test_the_operations_still_answer_after_the_sessions_were_ended(self):
        ends = self.assert_ends(
            "tether = start(); wait(called)",
            before_import="""
def late():
    results = [tether.Uninit(), tether.Shoot(), tether.SetValue(3, 1)]
    results.append(tether.UpdateExportFolder(folder))
    os.write(1, repr(results).encode())

atexit.register(late)
""",
        )
        self.assertEqual({end.stdout for end in ends}, {"[0, 1, 1, 1]"})

    def test_a_callable_that_starts_sessions_while_the_interpreter_ends(self):
        self.assert_ends(
            """
def restart(*arguments):
    called.set()
    tether.Uninit()
    tether.Init(info, folder, restart)

tether = Lumatie.Lumatie()
start(restart, tether)
wait(called)
"""
        )

    def test_a_finalizer_of_the_callable_that_starts_a_session_at_the_end(self):
        ends = self.assert_ends(
            """
class Callable:
    def __call__(self, *arguments):
        called.set()

    def __del__(self):
        os.write(1, str(tether.Init(info, folder, None)).encode())

tether = start(Callable())
wait(called)
"""
        )
        self.assertEqual({end.stdout for end in ends}, {"0"})

    def test_a_finalizer_of_the_callable_that_deletes_other_objects_at_the_end(self):
        self.assert_ends(
            """
tether = Lumatie.Lumatie()
# Their turn to be ended comes after that of the object with the callable.
others = [Lumatie.Lumatie() for _ in range(10)]

class Callable:
    def __call__(self, *arguments):
        called.set()

    def __del__(self):
        others.clear()
        others.append(Lumatie.Lumatie())

start(Callable(), tether)
wait(called)
"""
        )


# Hosts whose sessions give no sign of life any more: name -> (script, status).
STUCK = {
    "callable": (
        hosts.SLEEPER
        + """
tether = start(sleep)
wait(called)
""",
        0,
    ),
    "callable with status": (
        """
def sleep(*arguments):
    called.set()
    threading.Event().wait()

tether = start(sleep)
wait(called)
sys.exit(7)
""",
        7,
    ),
    "callable that turns in circles": (
        hosts.TURN_IN_CIRCLES,
        0,
    ),
    "callable that wakes up later": (
        SLOW_TAKING_DOWN + hosts.WAKE_UP_LATE,
        0,
    ),
    "two objects": (
        hosts.SLEEPER
        + """
configure(b"[camera 1]\\ncamera.name = Second")
first, second = start(sleep), Lumatie.Lumatie()
second.Init("Second", folder, sleep)
wait(called)
""",
        0,
    ),
    "uninit on a daemon thread": (
        hosts.SLEEPER
        + """
tether = start(sleep)
wait(called)
uninit_on_daemon_thread(tether)
sys.exit(7)
""",
        7,
    ),
    "open session": (
        """
configure(b"fault = EdsOpenSession hang")
tether = start()
wait_for_hang(b"EdsOpenSession")
""",
        0,
    ),
    "download": (
        """
configure(b"fault = EdsDownload hang")
tether = start()
wait(called)
tether.Shoot()
wait_for_hang(b"EdsDownload")
""",
        0,
    ),
    "download that comes back later": (
        """
configure(b"fault = EdsDownload hang")
tether = start()
wait(called)
tether.Shoot()
wait_for_hang(b"EdsDownload")
atexit._run_exitfuncs()
del tether
gc.collect()
camera.VirtualCameraReleaseHangs()
wait_for_call(b"EdsTerminateSDK")
""",
        0,
    ),
    "property read": (
        """
configure(b"fault = EdsGetPropertyData hang")
tether = start()
wait_for_hang(b"EdsGetPropertyData")
""",
        0,
    ),
    "close session": ("configure(b'fault = EdsCloseSession hang'); tether = start()", 0),
    "release": (
        """
tether = start()
wait(called)
camera.VirtualCameraWaitUntilIdle(20000)
configure(b"fault = EdsRelease hang calls=0")
""",
        0,
    ),
    "terminate": ("configure(b'fault = EdsTerminateSDK hang'); tether = start()", 0),
    "terminate with status": (
        "configure(b'fault = EdsTerminateSDK hang'); tether = start(); sys.exit(7)",
        7,
    ),
}


@unittest.skipIf(ON_WINDOWS, "Windows splits off no process")
class Orphans(OrphanTests, ExitTestCase):
    """A session whose process was split off from one that ends."""


# The callable has ended its session, which goes on until it returns.
PUT_OFF = """
going = threading.Event()

def work(*arguments):
    tether.Uninit()
    called.set()
    wait(going)

tether = Lumatie.Lumatie()
start(work, tether)
wait(called)
"""


@unittest.skipIf(ON_WINDOWS, "Windows splits off no process")
class Forks(ForkTests, ExitTestCase):
    """Processes that are made beside the session, and inside its callable."""

    def test_a_process_that_drops_an_object_whose_end_is_put_off_does_not_wait_for_that(self):
        self.assert_child(
            PUT_OFF
            + """
import multiprocessing

def drop():
    global tether
    signal.alarm(8)
    tether = None
    sys.exit(7)

process = multiprocessing.get_context("fork").Process(target=drop)
process.start()
process.join()
os.write(1, b"child: %d\\n" % process.exitcode)
going.set()
""",
            ["child: 7"],
        )

    def test_a_child_with_a_session_of_its_own_does_not_wait_for_an_end_of_the_parents(self):
        # The library is still the parent's, too: the child does not terminate it.
        self.run_parents(
            hosts.FORK
            + PUT_OFF
            + """
child = os.fork()
if child == 0:
    signal.alarm(8)
    own = start()
    wait_for_call(b"EdsOpenSession", 2)
    own.Uninit()
    os._exit(40 + steer("CallCount", b"EdsTerminateSDK"))
wait_for_child(child)
going.set()
""",
            ["child: 40, signal 0"],
        )


class StuckSessions(StuckTestCase):
    """Sessions that never end by themselves are given up after a while."""

    hosts = STUCK
    repeats = 3
    at_least = PATIENCE

    def test_a_callable_that_sleeps_is_given_up(self):
        self.assert_given_up("callable")

    def test_a_callable_that_waits_for_ever_does_not_change_the_status(self):
        self.assert_given_up("callable with status")

    def test_a_callable_that_turns_in_circles_is_given_up(self):
        self.assert_given_up("callable that turns in circles")

    def test_a_callable_that_comes_back_after_it_was_given_up_does_no_harm(self):
        self.assert_given_up("callable that wakes up later")

    def test_two_objects_whose_callables_sleep_are_given_up_together(self):
        self.assert_given_up("two objects")

    def test_an_uninit_that_waits_on_a_daemon_thread_is_given_up(self):
        # Its session is not the exit's any more: nothing is left to wait for.
        self.assert_given_up("uninit on a daemon thread", at_least=0)

    def test_an_open_session_that_hangs_is_given_up(self):
        self.assert_given_up("open session")

    def test_a_download_that_hangs_is_given_up(self):
        self.assert_given_up("download")

    def test_a_download_that_comes_back_after_it_was_given_up_does_no_harm(self):
        self.assert_given_up("download that comes back later")

    def test_a_property_read_that_hangs_is_given_up(self):
        self.assert_given_up("property read")

    def test_a_close_session_that_hangs_is_given_up(self):
        self.assert_given_up("close session")

    def test_a_release_that_hangs_is_given_up(self):
        self.assert_given_up("release")

    def test_a_terminate_that_hangs_is_given_up(self):
        self.assert_given_up("terminate")

    def test_a_terminate_that_hangs_does_not_change_the_status(self):
        self.assert_given_up("terminate with status")


if __name__ == "__main__":
    unittest.main()
