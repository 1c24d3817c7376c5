"""Hosts that make processes and interpreters of their own, and that are interrupted."""

import multiprocessing
import os
import signal
import sys
import tempfile
import textwrap
import threading
import time
import unittest

from nikon_support import MODULE, NikonTestCase
from support import CAMERA_NAME, Host, Lumatie, TetherTestCase, VirtualCanon, run_host

FORKS = 20
CHILD_SECONDS = 20  # what a child gets before its alarm ends it

can_fork = unittest.skipUnless(hasattr(os, "fork"), "Windows splits off no process")


def in_child(work):
    """Runs `work` in a forked process; returns that process's status."""
    process = os.fork()
    if process == 0:
        status = 1
        try:
            signal.alarm(CHILD_SECONDS)
            work()
            status = 0
        finally:
            os._exit(status)
    return os.waitpid(process, 0)[1]


def shoot_once(folder, results):
    """A session in a process of its own, with a camera of its own: one picture."""
    camera, host, tether = VirtualCanon(), Host(), Lumatie.Lumatie()
    results.put(tether.Init(CAMERA_NAME, folder, host))
    camera.wait_for_calls("EdsSetCapacity")
    tether.Shoot()
    results.put(os.path.getsize(host.wait_for_picture()))
    tether.Uninit()
    results.put(camera.misuse())


class Forks(TetherTestCase):
    """A child has a copy of the object; the session is the parent's."""

    @can_fork
    def test_operations_on_the_childs_copy_return_and_leave_the_session_alone(self):
        tether, host = self.start()

        def use():
            assert tether.Shoot() == 1
            assert tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, 0x60) == 1
            assert tether.UpdateExportFolder("elsewhere") == 1
            assert tether.Uninit() == 1
            assert tether.Uninit() == 0

        calls = self.camera.calls()
        self.assertEqual({in_child(use) for _ in range(FORKS)}, {0})
        self.assertEqual(self.camera.calls(), calls)
        tether.Shoot()
        self.assertEqual(os.path.dirname(host.wait_for_picture()), self.folder)

    @can_fork
    def test_a_new_init_in_the_child_begins_with_a_clean_object(self):
        tether, host = self.start()

        def begin():
            assert tether.Init("Nobody's camera", self.folder, None) == 0
            assert tether.Shoot() == 1
            assert tether.Uninit() == 1

        self.assertEqual({in_child(begin) for _ in range(FORKS)}, {0})
        tether.Shoot()
        host.wait_for_picture()

    @can_fork
    def test_a_child_that_ends_like_a_program_leaves_the_session_alone(self):
        with tempfile.TemporaryDirectory() as folder:
            run = run_host(
                """
                import os, signal, sys
                from support import *
                camera, host, tether = VirtualCanon(), Host(), Lumatie.Lumatie()
                tether.Init(CAMERA_NAME, sys.argv[1], host)
                camera.wait_for_calls("EdsSetCapacity")
                child = os.fork()
                if child == 0:
                    signal.alarm(20)
                    sys.exit(7)
                print(os.WEXITSTATUS(os.waitpid(child, 0)[1]))
                tether.Shoot()
                print(os.path.getsize(host.wait_for_picture()) > 0)
                """,
                arguments=(folder,),
                # In its development mode, CPython 3.8 aborts when a forked process ends; from
                # 3.12 on each fork beside a thread is worth a warning.
                environment={"PYTHONMALLOC": "pymalloc", "PYTHONWARNINGS": "ignore"},
            )
        self.assertEqual((run.status, run.stdout, run.stderr), (0, "7\nTrue\n", ""))


class NikonForks(NikonTestCase):
    """The same with a Nikon camera, whose values are set on the caller's thread."""

    @can_fork
    def test_operations_on_the_childs_copy_return_and_leave_the_session_alone(self):
        tether, host = self.start(wait=True)

        def use():
            assert tether.Shoot() == 1
            assert tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, 2) == 1
            assert tether.Uninit() == 1
            assert tether.Init("Nobody's camera", self.folder, None) == 0

        self.assertEqual({in_child(use) for _ in range(FORKS)}, {0})
        self.shoot(tether)
        host.wait_for_picture()


class Multiprocessing(TetherTestCase):
    """Python's own way to more processes, beside a session."""

    def test_a_spawned_process_shoots_with_a_camera_of_its_own(self):
        tether, host = self.start()
        context = multiprocessing.get_context("spawn")
        with tempfile.TemporaryDirectory() as folder:
            results = context.Queue()
            process = context.Process(target=shoot_once, args=(folder, results))
            process.start()
            self.assertEqual(results.get(timeout=60), 1)
            self.assertGreater(results.get(timeout=60), 0)
            self.assertEqual(results.get(timeout=60), [])
            process.join(60)
            self.assertEqual(process.exitcode, 0)
            results.close()
            results.join_thread()
        tether.Shoot()
        host.wait_for_picture()

    @can_fork
    def test_a_pool_of_forked_processes_works_beside_a_session(self):
        tether, host = self.start()
        with multiprocessing.get_context("fork").Pool(2) as pool:
            self.assertEqual(pool.map(abs, range(-50, 0)), list(range(50, 0, -1)))
            pool.close()
            pool.join()
        tether.Shoot()
        host.wait_for_picture()


SUB_INTERPRETERS = """
try:
    import _xxsubinterpreters as interpreters
except ImportError:
    import _interpreters as interpreters
import sys, textwrap

def run_inside(code):
    inner = interpreters.create()
    path = "import sys; sys.path[:] = {!r}\\n".format(sys.path)
    interpreters.run_string(inner, path + textwrap.dedent(code))
    interpreters.destroy(inner)

"""

ONLY_MAIN = "Lumatie works in the main interpreter only"


@unittest.skipIf(sys.version_info >= (3, 12), "from Python 3.12 on they import no such module")
class SubInterpreters(unittest.TestCase):
    """Interpreters beside the main one have no use of the module, and are told so."""

    def assert_runs(self, script, printed):
        with tempfile.TemporaryDirectory() as folder:
            run = run_host(SUB_INTERPRETERS + textwrap.dedent(script), arguments=(folder,))
        self.assertEqual((run.status, run.stdout, run.stderr), (0, printed, ""))

    def test_a_tether_object_is_refused_and_the_main_ones_session_goes_on(self):
        self.assert_runs(
            """
            from support import *
            camera, host, tether = VirtualCanon(), Host(), Lumatie.Lumatie()
            tether.Init(CAMERA_NAME, sys.argv[1], host)
            camera.wait_for_calls("EdsSetCapacity")
            run_inside('''
                import Lumatie
                try:
                    Lumatie.Lumatie()
                except RuntimeError as error:
                    print(error, flush=True)
            ''')
            tether.Shoot()
            print(os.path.getsize(host.wait_for_picture()) > 0)
            """,
            ONLY_MAIN + "\nTrue\n",
        )

    def test_an_import_there_is_refused_and_the_main_one_can_import_afterwards(self):
        self.assert_runs(
            """
            run_inside('''
                try:
                    import Lumatie
                except ImportError as error:
                    print(error, flush=True)
            ''')
            from support import *
            camera, host, tether = VirtualCanon(), Host(), Lumatie.Lumatie()
            print(tether.Init(CAMERA_NAME, sys.argv[1], host))
            camera.wait_for_calls("EdsSetCapacity")
            """,
            ONLY_MAIN + "\n1\n",
        )


class Interrupts(TetherTestCase):
    """Ctrl-C."""

    def test_an_interrupt_while_uninit_waits_is_raised_when_the_session_has_ended(self):
        self._end_interrupted(CAMERA_NAME)
        self.assertFalse(self.camera.session_open())

    def test_an_interrupt_while_a_nikon_uninit_waits_is_raised_when_the_session_has_ended(self):
        self._end_interrupted(MODULE)

    def _end_interrupted(self, info):
        called, begun, ending = threading.Event(), threading.Event(), threading.Event()

        def work(*_event):
            called.set()
            ending.wait(20)

        def interrupt():
            begun.wait(20)
            signal.raise_signal(signal.SIGINT)
            time.sleep(0.3)
            ending.set()

        handler = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, handler)
        tether, _ = self.start(Host(work), name=info, wait=False)
        self.assertTrue(called.wait(20))
        interrupter = threading.Thread(target=interrupt)
        interrupter.start()
        # Nobody takes the interpreter lock from this thread before Uninit gives it up.
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(100)
        with self.assertRaises(KeyboardInterrupt):
            begun.set()
            tether.Uninit()
        self.assertTrue(ending.is_set())
        interrupter.join()
        self.assertEqual(tether.Uninit(), 0)


if __name__ == "__main__":
    unittest.main()
