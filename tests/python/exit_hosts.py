"""Hosts that end while a session lives, whichever maker's: scripts that run after the PRELUDE of
exit_support.

Whatever a host needs of its maker comes in by the prelude's `info` and `shutter_speed`.
"""

# The start of a host whose callable never comes back.
SLEEPER = """
def sleep(*arguments):
    called.set()
    time.sleep(1000)  # for ever, as far as the host can tell

"""

# The callable never comes back, but lets others work.
TURN_IN_CIRCLES = """
def turn(*arguments):
    called.set()
    while True:
        time.sleep(0.001)

tether = start(turn)
wait(called)
"""

# The callable is at work when the main thread ends.
SLEEP_TWO_SECONDS = """
def work(*arguments):
    called.set()
    time.sleep(2)
    os.write(1, b"done")

tether = start(work)
wait(called)
"""

# The callable exits while the main thread waits for it in Uninit.
EXIT_WHILE_UNINIT_WAITS = """
ending = threading.Event()

def leave(*arguments):
    called.set()
    ending.wait()
    sys.exit(5)

tether = start(leave)
wait(called)
ending.set()
tether.Uninit()
time.sleep(1000)
"""

# The callable ends the session, and then the process.
EXIT_AFTER_UNINIT = """
def leave(*arguments):
    tether.Uninit()
    sys.exit(5)

tether = Lumatie.Lumatie()
start(leave, tether)
time.sleep(1000)
"""

# Tells each time that the exit functions run, and takes its time for that.
TELL_EXIT_FUNCTIONS = """
exiting = threading.Event()

def tell():
    os.write(1, b"exit functions\\n")
    exiting.set()
    time.sleep(0.5)

atexit.register(tell)
"""

# The callable fails, and the host's hook for that ends the program.
EXIT_IN_HOOK = (
    TELL_EXIT_FUNCTIONS
    + """
sys.excepthook = lambda *error: sys.exit(5)

def fail(*arguments):
    called.set()
    raise RuntimeError("host at fault")

"""
)

EXIT_IN_HOOK_WHILE_MAIN_SLEEPS = EXIT_IN_HOOK + "tether = start(fail); time.sleep(1000)"

EXIT_IN_HOOK_WHILE_MAIN_WORKS = (
    EXIT_IN_HOOK
    + """
tether = start(fail)
while True:
    tether.UpdateExportFolder(folder)
"""
)

EXIT_IN_HOOK_WHILE_UNINIT_WAITS = (
    EXIT_IN_HOOK
    + """
ending = threading.Event()

def fail_later(*arguments):
    called.set()
    ending.wait()
    raise RuntimeError("host at fault")

tether = start(fail_later)
wait(called)
ending.set()
tether.Uninit()
time.sleep(1000)
"""
)

# Two sessions, of whichever makers, whose callables exit at the same time.
EXIT_IN_TWO_CALLABLES = (
    TELL_EXIT_FUNCTIONS
    + """
both = threading.Barrier(2)
met = set()

def leave(*arguments):
    if threading.get_ident() not in met:
        met.add(threading.get_ident())
        both.wait()
    sys.exit(5)

tethers = [Lumatie.Lumatie(), Lumatie.Lumatie()]
for tether, own_info in zip(tethers, infos):
    assert tether.Init(own_info, folder, leave) == 1
time.sleep(1000)
"""
)

# The callable exits, and the main thread when the exit functions run.
EXIT_IN_MAIN_BEHIND_THE_CALLABLE = (
    TELL_EXIT_FUNCTIONS
    + """
tether = start(lambda *arguments: sys.exit(5))
wait(exiting)
sys.exit(7)
"""
)

# The main thread exits, and the callable when the exit functions run.
EXIT_IN_CALLABLE_BEHIND_MAIN = (
    TELL_EXIT_FUNCTIONS
    + """
def leave(*arguments):
    called.set()
    wait(exiting)
    sys.exit(5)

tether = start(leave)
wait(called)
sys.exit(7)
"""
)

# The main thread has come to its end, but another thread is at work when the callable exits.
EXIT_BESIDE_A_THREAD = (
    TELL_EXIT_FUNCTIONS
    + """
def leave(*arguments):
    threading.main_thread().join()
    sys.exit(5)

threading.Thread(target=time.sleep, args=(1000,)).start()
tether = start(leave)
"""
)

# The callable drops the last reference to the object.
DELETE_IN_CALLABLE = """
box = [Lumatie.Lumatie()]

def hear_once(*arguments):
    box.clear()
    called.set()

box[0].Init(info, folder, hear_once)
wait(called)
"""

# The object is used when the interpreter takes its owner down.
USE_IN_DESTRUCTOR = """
class Window:
    def __init__(self):
        self.tether = start()

    def __del__(self):
        self.tether.Shoot()
        self.tether.SetValue(3, shutter_speed)
        self.tether.UpdateExportFolder(folder)
        self.tether.Init(info, folder, hear)
        self.tether.Uninit()

window = Window()
wait(called)
"""

# A daemon thread does not care that the main thread has ended.
GO_ON_SHOOTING = """
tether = start()
wait(called)

def go_on():
    while True:
        tether.Shoot()
        tether.SetValue(3, shutter_speed)
        tether.UpdateExportFolder(folder)

threading.Thread(target=go_on, daemon=True).start()
"""

# The same with sessions that it starts and ends.
GO_ON_STARTING = """
tether = Lumatie.Lumatie()

def go_on():
    while True:
        tether.Init(info, folder, hear)
        called.set()
        tether.Uninit()

threading.Thread(target=go_on, daemon=True).start()
wait(called)
"""

# A daemon thread waits for the callable when the main thread ends.
WAIT_IN_UNINIT = """
def work(*arguments):
    called.set()
    time.sleep(0.2)

tether = start(work)
wait(called)
uninit_on_daemon_thread(tether)
"""

# The same, so long that the interpreter is being taken down by then.
LEAVE_UNINIT_LATE = """
def work(*arguments):
    called.set()
    time.sleep(0.3)

tether = start(work)
wait(called)
uninit_on_daemon_thread(tether)
"""

# The callable comes back after it was given up.
WAKE_UP_LATE = """
def sleep(*arguments):
    called.set()
    time.sleep(10.5)

tether = start(sleep)
wait(called)
"""

# Ctrl-C.
INTERRUPT = """
signal.signal(signal.SIGINT, signal.default_int_handler)
tether = start()
wait(called)
signal.raise_signal(signal.SIGINT)
time.sleep(1000)
"""

# A signal's handler exits.
EXIT_IN_HANDLER = """
signal.signal(signal.SIGTERM, lambda *arguments: sys.exit(3))
tether = start()
wait(called)
signal.raise_signal(signal.SIGTERM)
time.sleep(1000)
"""

# Nobody but itself refers to the object's owner.
REFERENCE_CYCLE = """
class Window:
    def __init__(self):
        self.tether = start(self.hear)

    def hear(self, *arguments):
        called.set()

window = Window()
window.itself = window
del window
wait(called)
"""

# A process that has started a session outlives the one that it was split off from.
LOSE_PARENT = """
ready, tell = os.pipe()
parent = os.getpid()
if os.fork():
    os.read(ready, 1)
    os._exit(0)
tether = start()
wait(called)
os.write(tell, b"x")
while os.getppid() == parent:
    time.sleep(0.01)
atexit._run_exitfuncs()
os._exit(0)
"""

# The start of hosts that make processes, each of which has ten seconds.
FORK = """
def wait_for_child(child):
    status = os.waitpid(child, 0)[1]
    os.write(1, b"child: %d, signal %d\\n" % (status >> 8, status & 127))

own = os.getpid()
atexit.register(lambda: os.write(1, b"%s exits\\n" % (b"host" if os.getpid() == own else b"child")))

"""

# The callable makes a process, which leaves the callable in the host's own way.
FORK_IN_CALLABLE = (
    FORK
    + """
forked = threading.Event()

def split(*arguments):
    if not called.is_set():
        called.set()
        child = os.fork()
        if child == 0:
            signal.alarm(10)
            return leave()
        wait_for_child(child)
        forked.set()

tether = start(split)
wait(forked)
"""
)

# The same when the session's end waits for the callable.
FORK_IN_CALLABLE_THAT_UNINIT_WAITS_FOR = (
    FORK
    + """
ending = threading.Event()

def split(*arguments):
    called.set()
    wait(ending)
    time.sleep(0.2)
    child = os.fork()
    if child == 0:
        signal.alarm(10)
        return leave()
    wait_for_child(child)

tether = start(split)
wait(called)
ending.set()
tether.Uninit()
"""
)

# Another process is made and ends while a daemon thread ends the session.
FORK_WHILE_UNINIT_WAITS = (
    FORK
    + """
going = threading.Event()

def work(*arguments):
    called.set()
    wait(going)

tether = start(work)
wait(called)
uninit_on_daemon_thread(tether)
child = os.fork()
if child == 0:
    signal.alarm(8)
    sys.exit(7)
wait_for_child(child)
going.set()
"""
)

# The callable starts a process of multiprocessing's.
START_PROCESS_IN_CALLABLE = """
import multiprocessing

forked = threading.Event()

def split(*arguments):
    if not called.is_set():
        called.set()
        process = multiprocessing.get_context("fork").Process(target=sys.exit, args=(5,))
        process.start()
        process.join()
        os.write(1, b"child: %d\\n" % process.exitcode)
        forked.set()

tether = start(split)
wait(forked)
"""
