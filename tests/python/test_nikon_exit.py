"""The interpreter's end with a live Nikon session: the process ends by itself, as the host wants.

Each test runs small hosts in processes of their own, most of them several times. A host must end
before its deadline, with the exit status that it asked for and with nothing on standard error but
what it itself put there: no fatal error, no crash. The driver module tells at its unload when the
session left objects open, so that a session which is closed leaves standard error empty, too.
"""

import unittest

import exit_hosts as hosts
from exit_support import (
    INTERRUPTED,
    NIKON,
    SLOW_TAKING_DOWN,
    TELL_END,
    ExitInCallableTests,
    ExitTestCase,
    ForkTests,
    OrphanTests,
    StuckTestCase,
)
from support import CAMERA_NAME
from this_process import ON_WINDOWS

# What the driver module writes when it is unloaded while a session has not been closed.
LEFT_OPEN = "virtual camera: unloaded with open objects: "

# A Canon session beside the Nikon one.
CANON_TOO = """
heard_canon = threading.Event()
canon = Lumatie.Lumatie()
assert canon.Init({!r}, folder, lambda *arguments: heard_canon.set()) == 1
wait(heard_canon)
""".format(CAMERA_NAME)


class NikonExitTestCase(ExitTestCase):
    """Hosts with a Nikon session."""

    maker = NIKON
    repeats = 5


class QuickEnds(NikonExitTestCase):
    """States in which nothing keeps the session from ending at once."""

    def test_an_idle_session_is_closed_at_the_end(self):
        ends = self.assert_ends(TELL_END + "tether = start(); wait(called)", repeats=12)
        self.assert_closed(ends)
        # The pause between two cycles is cut short.
        self.assertLess(min(end.ending for end in ends), 0.8)

    def test_a_session_that_has_only_just_started_is_closed_at_the_end(self):
        self.assert_closed(self.assert_ends("tether = start()", repeats=12))

    def test_a_start_that_failed_does_not_disturb_the_end(self):
        self.assert_ends(
            """
steer("Unplug", 0)
tether = Lumatie.Lumatie()
assert tether.Init(info, folder, hear) == 0
"""
        )

    def test_a_download_under_way_is_finished(self):
        ends = self.assert_ends(
            """
configure(b"picture.size = 300000\\ntransfer.rate = 1\\ntransfer.chunk = 10000")
tether = start()
wait(called)
steer("PressShutter", 0)
wait_for_call(b"CapStart")
"""
        )
        self.assert_closed(ends)
        self.assertEqual([list(end.files.values()) for end in ends], [[300000]] * len(ends))

    def test_pictures_that_wait_on_the_camera_do_not_hold_the_end_up(self):
        ends = self.assert_ends(
            """
configure(b"picture.size = 100000\\ntransfer.rate = 1\\npicture.width = 96\\npicture.height = 64")
for _ in range(100):
    steer("PressShutter", 0)
    steer("WaitUntilIdle", 20000)
tether = start()
wait_for_call(b"CapStart")
"""
        )
        self.assert_closed(ends)
        for end in ends:
            self.assertLess(len(end.files), 100)
            self.assertEqual(set(end.files.values()), {100000})

    def test_a_callable_that_sleeps_two_seconds_is_awaited(self):
        ends = self.assert_ends(
            hosts.SLEEP_TWO_SECONDS,
            at_once=5,
        )
        self.assert_closed(ends)
        for end in ends:
            self.assertIn("done", end.stdout)

    def test_a_callable_that_raises_does_not_change_the_end(self):
        self.assert_closed(
            self.assert_ends(
                """
def fail(*arguments):
    called.set()
    raise RuntimeError("host at fault")

tether = start(fail)
wait(called)
sys.exit(7)
""",
                7,
                "RuntimeError: host at fault",
            )
        )

    def test_commands_that_complete_late_do_not_hold_the_end_up(self):
        ends = self.assert_ends(
            TELL_END
            + """
configure(b"complete.ms = 30")
tether = start()
wait(called)
"""
        )
        self.assert_closed(ends)
        self.assertLess(min(end.ending for end in ends), 2)

    def test_commands_that_complete_on_another_thread_do_not_disturb_the_end(self):
        self.assert_closed(
            self.assert_ends(
                """
configure(b"complete.ms = 5\\ncomplete.thread = 1")
tether = start()
wait(called)
"""
            )
        )

    def test_a_camera_without_cable_does_not_hold_the_end_up(self):
        ends = self.assert_ends(
            TELL_END
            + """
tether = start()
wait(called)
steer("Unplug", 0)
tether.Shoot()
"""
        )
        self.assertLess(min(end.ending for end in ends), 0.8)

    def test_a_cable_that_is_pulled_during_a_download_leaves_no_file(self):
        ends = self.assert_ends(
            """
configure(b"picture.size = 300000\\ntransfer.rate = 0.1\\ntransfer.chunk = 10000")
tether = start()
wait(called)
steer("PressShutter", 0)
wait_for_call(b"CapStart")
steer("Unplug", 0)
"""
        )
        self.assertEqual([end.files for end in ends], [{}] * len(ends))

    def test_a_session_that_was_ended_inside_the_callable_is_closed_before_the_end(self):
        self.assert_closed(
            self.assert_ends(
                """
configure(b"fault = Close delay_ms=200 calls=2")

def leave(*arguments):
    tether.Uninit()
    called.set()

tether = Lumatie.Lumatie()
start(leave, tether)
wait(called)
"""
            )
        )

    def test_the_end_comes_while_the_callable_ends_the_session(self):
        self.assert_closed(
            self.assert_ends(
                """
configure(b"fault = Close delay_ms=200 calls=2")

def leave(*arguments):
    called.set()
    tether.Uninit()

tether = Lumatie.Lumatie()
start(leave, tether)
wait(called)
"""
            )
        )


class Statuses(NikonExitTestCase):
    """Ways to end a process, each with its own exit status."""

    def test_sys_exit_in_the_main_thread_keeps_its_status(self):
        self.assert_closed(self.assert_ends("tether = start(); wait(called); sys.exit(7)", 7))

    def test_an_unhandled_exception_ends_with_status_one_and_its_traceback(self):
        script = "tether = start(); wait(called); raise RuntimeError('host at fault')"
        self.assert_closed(self.assert_ends(script, 1, "RuntimeError: host at fault"))

    def test_sys_exit_inside_the_callable_ends_the_process_with_its_status(self):
        self.assert_closed(
            self.assert_ends(
                "tether = start(lambda *arguments: sys.exit(5)); time.sleep(1000)", 5, repeats=12
            )
        )

    def test_sys_exit_inside_the_callable_while_uninit_waits_for_it(self):
        self.assert_ends(
            hosts.EXIT_WHILE_UNINIT_WAITS,
            5,
        )

    def test_sys_exit_inside_the_callable_after_uninit_inside_it(self):
        self.assert_closed(
            self.assert_ends(
                hosts.EXIT_AFTER_UNINIT,
                5,
            )
        )

    def test_os_exit_inside_the_callable_ends_at_once_with_its_status(self):
        # On Windows the driver module is unloaded all the same, and tells how it was left.
        said = ["", LEFT_OPEN + "module#0 source#1\n"] if ON_WINDOWS else [""]
        for end in self.run_often("tether = start(lambda *a: os._exit(9)); time.sleep(1000)"):
            self.assertEqual(end.status, 9, end.stderr)
            self.assertIn(end.stderr, said)

    def test_an_interrupt_from_the_keyboard_ends_with_its_signal(self):
        self.assert_closed(
            self.assert_ends(
                hosts.INTERRUPT,
                INTERRUPTED,
                "KeyboardInterrupt",
            )
        )

    def test_a_handler_of_a_termination_that_exits_keeps_its_status(self):
        self.assert_closed(
            self.assert_ends(
                hosts.EXIT_IN_HANDLER,
                3,
            )
        )


class ExitsInCallables(ExitInCallableTests, NikonExitTestCase):
    """The callable ends the program, or what is called when it fails."""

    def test_sys_exit_in_the_callables_of_two_makers_sessions_at_once(self):
        self.assert_ends_once(
            "infos = {!r}, info".format(CAMERA_NAME) + hosts.EXIT_IN_TWO_CALLABLES, 5
        )


class Owners(NikonExitTestCase):
    """Where the object lives, and who uses it, when the interpreter ends."""

    def test_an_object_in_a_reference_cycle(self):
        self.assert_closed(self.assert_ends(hosts.REFERENCE_CYCLE))

    def test_an_object_that_is_deleted_in_the_callable(self):
        self.assert_closed(self.assert_ends(hosts.DELETE_IN_CALLABLE))

    def test_an_object_that_is_used_by_its_destructor_at_the_end(self):
        self.assert_closed(self.assert_ends(hosts.USE_IN_DESTRUCTOR))

    def test_a_daemon_thread_that_goes_on_shooting(self):
        self.assert_closed(self.assert_ends(hosts.GO_ON_SHOOTING))

    def test_a_daemon_thread_that_goes_on_starting_and_ending_sessions(self):
        self.assert_ends(hosts.GO_ON_STARTING)

    def test_a_daemon_thread_that_waits_in_uninit(self):
        self.assert_ends(hosts.WAIT_IN_UNINIT)

    def test_a_daemon_thread_that_comes_out_of_uninit_while_the_interpreter_is_taken_down(self):
        self.assert_ends(
            SLOW_TAKING_DOWN + hosts.LEAVE_UNINIT_LATE,
            at_once=5,
        )

    def test_a_daemon_thread_that_comes_out_of_init_while_the_interpreter_is_taken_down(self):
        self.assert_ends(
            SLOW_TAKING_DOWN
            + """
configure(b"fault = GetCapInfo delay_ms=300")
tether = Lumatie.Lumatie()
threading.Thread(target=tether.Init, args=(info, folder, hear), daemon=True).start()
wait_for_call(b"GetCapCount")
""",
            at_once=5,
        )

    def test_a_thread_that_finishes_its_work_after_the_main_thread(self):
        ends = self.assert_ends(
            """
tether = start()
wait(called)

def finish():
    for position in range(1, 6):
        tether.Shoot()
        tether.SetValue(3, position)
    tether.Uninit()
    os.write(1, b"finished")

threading.Thread(target=finish).start()
"""
        )
        self.assert_closed(ends)
        for end in ends:
            self.assertIn("finished", end.stdout)

    def test_an_atexit_function_registered_before_the_import_starts_no_session(self):
        ends = self.assert_ends(
            "tether = Lumatie.Lumatie()",
            before_import="""
def late():
    os._exit(10 + tether.Init(info, folder, hear))

atexit.register(late)
""",
            status=10,
        )
        self.assertEqual({end.log.count("Open(") for end in ends}, {0})


class BothMakers(NikonExitTestCase):
    """A Canon session lives, too."""

    def assert_both_closed(self, ends):
        """Both sessions were closed, in each run."""
        self.assert_closed(ends)
        for end in ends:
            self.assertEqual(end.log.count(" EdsCloseSession("), 1, end.log)
            self.assertEqual(end.log.count(" EdsTerminateSDK("), 1, end.log)

    def test_both_sessions_are_closed_at_the_end(self):
        self.assert_both_closed(
            self.assert_ends(CANON_TOO + "tether = start(); wait(called); sys.exit(7)", 7)
        )

    def test_sessions_of_both_makers_with_one_object_are_closed_at_the_end(self):
        self.assert_both_closed(
            self.assert_ends(CANON_TOO + "tether = start(tether=canon); wait(called)")
        )

    def test_sys_exit_inside_the_callable_closes_both(self):
        self.assert_both_closed(
            self.assert_ends(
                CANON_TOO + "tether = start(lambda *arguments: sys.exit(5)); time.sleep(1000)", 5
            )
        )


# Hosts whose sessions give no sign of life any more: name -> (script, status). Those in whose
# module a command hangs, or whose callable never comes back, leave the objects open.
STUCK = {
    "callable": (hosts.SLEEPER + "tether = start(sleep); wait(called); sys.exit(7)", 7),
    "callable that turns in circles": (
        hosts.TURN_IN_CIRCLES,
        0,
    ),
    "callable that wakes up later": (
        SLOW_TAKING_DOWN + hosts.WAKE_UP_LATE,
        0,
    ),
    "callables of both makers": (
        hosts.SLEEPER
        + """
canon_called = threading.Event()
canon = Lumatie.Lumatie()
assert canon.Init(
    "Virtual EOS", folder, lambda *event: (canon_called.set(), time.sleep(1000))
) == 1
wait(canon_called)
tether = start(sleep)
wait(called)
""",
        0,
    ),
    "uninit on a daemon thread": (
        hosts.SLEEPER + "tether = start(sleep); wait(called); uninit_on_daemon_thread(tether)",
        0,
    ),
    "never completes": (
        """
tether = start()
wait(called)
configure(b"fault = CapGet never calls=0")
while not camera.VirtualNikonPending():
    time.sleep(0.01)
sys.exit(7)
""",
        7,
    ),
    "nothing completes": (
        """
tether = start()
wait(called)
configure(b"fault = Command never calls=0")
while not camera.VirtualNikonPending():
    time.sleep(0.01)
""",
        0,
    ),
    "acquisition never completes": (
        """
configure(b"fault = CapStart never capability=20")
tether = start()
wait(called)
steer("PressShutter", 0)
assert camera.VirtualNikonWaitForDelivered(1, 20000)
""",
        0,
    ),
    "read": (
        """
tether = start()
wait(called)
configure(b"fault = CapGet hang")
wait_for_hang(b"CapGet")
sys.exit(7)
""",
        7,
    ),
    "capture": (
        """
configure(b"fault = CapStart hang capability=17")

def ask(code, *values):
    # A request that comes with a report's start is never lost.
    if code == Lumatie.TETHER_EXPOSUREMODE:
        tether.Shoot()

tether = Lumatie.Lumatie()
start(ask, tether)
wait_for_hang(b"CapStart")
""",
        0,
    ),
    "acquisition": (
        """
configure(b"fault = CapStart hang capability=20")
tether = start()
wait(called)
steer("PressShutter", 0)
wait_for_hang(b"CapStart")
""",
        0,
    ),
    "open of a picture": (
        """
tether = start()
wait(called)
configure(b"fault = Open hang")
steer("PressShutter", 0)
wait_for_hang(b"Open")
""",
        0,
    ),
    "open inside init": (
        """
configure(b"fault = Open hang")
threading.Thread(target=start, daemon=True).start()
wait_for_hang(b"Open")
""",
        0,
    ),
    "close": ("configure(b'fault = Close hang'); tether = start(); wait(called); sys.exit(7)", 7),
    "canon callable beside a session that goes on": (
        """
canon = Lumatie.Lumatie()
assert canon.Init("Virtual EOS", folder, lambda *event: (called.set(), time.sleep(1000))) == 1
wait(called)
configure(b"fault = Open delay_ms=300")
tether = start()
wait_for_call(b"CapGet", 2)
""",
        0,
    ),
    "close inside uninit": (
        """
configure(b"fault = Close hang")
tether = start()
wait(called)
uninit_on_daemon_thread(tether)
wait_for_hang(b"Close")
""",
        0,
    ),
}


@unittest.skipIf(ON_WINDOWS, "Windows splits off no process")
class Orphans(OrphanTests, NikonExitTestCase):
    """A session whose process was split off from one that ends."""


@unittest.skipIf(ON_WINDOWS, "Windows splits off no process")
class Forks(ForkTests, NikonExitTestCase):
    """Processes that are made beside the session, and inside its callable."""


class StuckSessions(StuckTestCase):
    """Sessions that never end by themselves are given up after a while."""

    maker = NIKON
    hosts = STUCK
    repeats = 2
    at_least = 4.0

    def assert_left_behind(self, name, objects="module#0 source#1"):
        """The hosts end as they wanted, while the driver module still has these objects open."""
        self.assert_given_up(name, stderr=LEFT_OPEN + objects + "\n")

    def test_a_callable_that_sleeps_is_given_up(self):
        self.assert_left_behind("callable")

    def test_a_callable_that_turns_in_circles_is_given_up(self):
        self.assert_left_behind("callable that turns in circles")

    def test_a_callable_that_comes_back_after_it_was_given_up_does_no_harm(self):
        self.assert_left_behind("callable that wakes up later")

    def test_callables_of_both_makers_are_given_up_together(self):
        self.assert_left_behind("callables of both makers")

    def test_a_canon_callable_is_given_up_although_a_nikon_session_goes_on(self):
        # That one is closed.
        self.assert_given_up("canon callable beside a session that goes on")

    def test_an_uninit_that_waits_for_the_callable_is_given_up(self):
        self.assert_left_behind("uninit on a daemon thread")

    def test_a_command_that_never_completes_is_given_up_and_the_session_closed(self):
        self.assert_given_up("never completes")

    def test_a_module_that_completes_nothing_any_more_is_given_up(self):
        self.assert_left_behind("nothing completes")

    def test_an_acquisition_that_never_completes_is_given_up_and_the_session_closed(self):
        self.assert_given_up("acquisition never completes")

    def test_a_read_that_hangs_is_given_up(self):
        self.assert_left_behind("read")

    def test_a_capture_that_hangs_is_given_up(self):
        self.assert_left_behind("capture")

    def test_an_acquisition_that_hangs_is_given_up(self):
        self.assert_left_behind("acquisition", "module#0 source#1 item#1 data#1")

    def test_an_open_of_a_picture_that_hangs_is_given_up(self):
        self.assert_left_behind("open of a picture")

    def test_an_open_that_hangs_inside_init_is_given_up(self):
        # The module object never came to be open.
        self.assert_given_up("open inside init")

    def test_a_close_that_hangs_is_given_up(self):
        self.assert_left_behind("close")

    def test_a_close_that_hangs_inside_uninit_is_given_up(self):
        self.assert_left_behind("close inside uninit")


if __name__ == "__main__":
    unittest.main()
