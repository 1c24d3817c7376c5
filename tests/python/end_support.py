"""Ends of sessions that meet each other: owners that go, ends on several threads, the exit.

The tests are the same for both makers; a maker's module mixes them into its own test cases. A host
runs with freed memory filled, so that what is used after it was freed does not go on working.
"""

from exit_hosts import SLEEPER
from exit_support import SLOW_TAKING_DOWN

# The object's only owner is what its callable refers to.
MAIN = """
class Application:
    def __init__(self):
        self.tether = Lumatie.Lumatie()
        start(self.hear, self.tether)

    def hear(self, *arguments):
        called.set()

def main():
    application = Application()
    wait(called)

main()
"""

CLOSURE = """
def main():
    tether = Lumatie.Lumatie()
    start(lambda *arguments: tether and called.set(), tether)
    wait(called)

main()
"""

# A picture is on its way, for a second.
DOWNLOAD = """
slow_pictures()
tether = start()
wait(called)
begin_download()
"""

# The exit has begun: this runs before the module's own function.
TELL_EXIT = """
exiting = threading.Event()
atexit.register(exiting.set)
"""

# A daemon thread drops the last reference while the exit waits for the download.
DROP_WHILE_THE_EXIT_WAITS = (
    DOWNLOAD
    + TELL_EXIT
    + """
box = [tether]
del tether

def drop():
    wait(exiting)
    time.sleep(0.2)  # the exit waits by then; nothing in Python tells of that
    box.clear()

threading.Thread(target=drop, daemon=True).start()
"""
)

# A daemon thread ends the session, in one of two ways, while the main thread ends.
END_ON_DAEMON_THREAD = (
    DOWNLOAD
    + """
box = [tether]
del tether
begun = threading.Event()

def end():
    begun.set()
    {}

sys.setswitchinterval(100)
threading.Thread(target=end, daemon=True).start()
wait(begun)
"""
)

# A daemon thread comes out of the object's destructor while the interpreter is taken down.
DESTROY_LATE = (
    SLOW_TAKING_DOWN
    + """
def work(*arguments):
    called.set()
    time.sleep(0.3)  # the main thread is past its exit functions by then

box = [start(work)]
wait(called)
begun = threading.Event()

def drop():
    begun.set()
    box.clear()

sys.setswitchinterval(100)
threading.Thread(target=drop, daemon=True).start()
wait(begun)
"""
)

# Threads that start and end the same object's sessions at once, and the exit comes in between. Few
# sessions live long enough for an event.
INIT_AGAINST_UNINIT = """
tether = Lumatie.Lumatie()
started = threading.Semaphore(0)

def start_again():
    while True:
        if tether.Init(info, folder, hear):
            started.release()

def end_again():
    while True:
        tether.Uninit()

for function in (start_again, end_again, end_again):
    threading.Thread(target=function, daemon=True).start()
for _ in range(10):
    if not started.acquire(timeout=20):
        os._exit(95)
time.sleep(random_seconds())  # the exit comes at any moment
"""

# A start on a daemon thread is under way when the exit begins.
START_AGAINST_EXIT = """
tether = Lumatie.Lumatie()
begun = threading.Event()

def go():
    begun.set()
    tether.Init(info, folder, hear)

threading.Thread(target=go, daemon=True).start()
wait(begun)
time.sleep(random_seconds() / 10)  # the exit comes at any moment
"""

# From here on no thread is to be had: stacks are too large for the address space, and Windows' own
# call returns STATUS_NO_MEMORY.
NO_THREADS = """
import _thread
if os.name == "nt":
    refusing = bytes.fromhex("b8 17 00 00 c0 c3")  # mov eax, 0xC0000017; ret
    call = ctypes.cast(ctypes.windll.ntdll.NtCreateThreadEx, ctypes.c_void_p)
    writable, before = 0x40, ctypes.c_ulong()
    assert ctypes.windll.kernel32.VirtualProtect(
        call, ctypes.c_size_t(len(refusing)), writable, ctypes.byref(before))
    ctypes.memmove(call, refusing, len(refusing))
else:
    attributes = (ctypes.c_char * 256)()
    libc = ctypes.CDLL(None)
    assert libc.pthread_getattr_default_np(attributes) == 0
    assert libc.pthread_attr_setstacksize(attributes, ctypes.c_size_t(1 << 46)) == 0
    assert libc.pthread_setattr_default_np(attributes) == 0
try:
    _thread.start_new_thread(int, ())
    os._exit(96)
except RuntimeError:
    pass
"""

# The callable blocks for longer than anybody waits, and the object's owner goes meanwhile.
BLOCK_AND_DROP = (
    SLEEPER
    + """
box = [start(sleep)]
wait(called)
threading.Thread(target=box.clear, daemon=True).start()
"""
)

BLOCK_AND_END = (
    SLEEPER
    + """
tether = start(sleep)
wait(called)
uninit_on_daemon_thread(tether)
"""
)

# Sessions with the two cameras that `infos` names. Both callables wait for each other, and then end
# both sessions.
END_EACH_OTHER = """
barrier = threading.Barrier(2)
tethers = [Lumatie.Lumatie(), Lumatie.Lumatie()]
done = threading.Semaphore(0)

class Once:
    def __init__(self):
        self.times = 0

    def __call__(self, *arguments):
        self.times += 1
        if self.times == 1:
            barrier.wait(20)
            for tether in tethers:
                tether.Uninit()
            done.release()

for tether, name in zip(tethers, infos):
    assert tether.Init(name, folder, Once()) == 1
for _ in tethers:
    assert done.acquire(timeout=20)
"""

RANDOM = """
import random
def random_seconds():
    return random.random() / 5

"""


class EndTests:
    """Mixed into an ExitTestCase with `maker`; `slow` defines slow_pictures and begin_download."""

    slow = ""
    size = 300000  # bytes of the picture that is on its way

    def assert_picture_whole(self, ends):
        self.assertEqual(
            [list(end.files.values()) for end in ends], [[self.size]] * len(ends), ends[0].log
        )

    def test_an_object_that_only_its_callback_owns_is_ended_at_the_exit(self):
        self.assert_closed(self.assert_ends(MAIN))

    def test_an_object_that_only_a_closure_owns_is_ended_at_the_exit(self):
        self.assert_closed(self.assert_ends(CLOSURE))

    def test_a_daemon_thread_that_drops_the_object_while_the_exit_waits_for_its_download(self):
        ends = self.assert_ends(self.slow + DROP_WHILE_THE_EXIT_WAITS)
        self.assert_closed(ends)
        self.assert_picture_whole(ends)

    def test_an_uninit_on_a_daemon_thread_is_awaited_by_the_exit(self):
        ends = self.assert_ends(self.slow + END_ON_DAEMON_THREAD.format("box[0].Uninit()"))
        self.assert_closed(ends)
        self.assert_picture_whole(ends)

    def test_a_destructor_on_a_daemon_thread_is_awaited_by_the_exit(self):
        ends = self.assert_ends(self.slow + END_ON_DAEMON_THREAD.format("box.clear()"))
        self.assert_closed(ends)
        self.assert_picture_whole(ends)

    def test_a_daemon_thread_that_destroys_the_object_while_the_interpreter_is_taken_down(self):
        self.assert_closed(self.assert_ends(DESTROY_LATE, repeats=8, at_once=8))

    def test_starts_and_ends_of_one_object_on_several_threads_leave_no_session(self):
        for end in self.assert_ends(RANDOM + INIT_AGAINST_UNINIT):
            self.assertEqual(end.log.count(self.opens), end.log.count(self.maker.closes[0]))

    def test_a_start_on_a_daemon_thread_against_the_exit_leaves_no_session(self):
        for end in self.assert_ends(RANDOM + START_AGAINST_EXIT, repeats=20):
            self.assertEqual(end.log.count(self.opens), end.log.count(self.maker.closes[0]))

    def test_a_session_is_ended_where_no_thread_is_to_be_had(self):
        self.assert_closed(self.assert_ends("tether = start(); wait(called)" + NO_THREADS))

    def test_the_exit_needs_no_thread_without_a_session(self):
        self.assert_ends(NO_THREADS)
        self.assert_ends("tethers = [Lumatie.Lumatie() for _ in range(5000)]" + NO_THREADS)
