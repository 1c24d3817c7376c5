"""Hosts that end while a session lives, whichever maker's: scripts that run after the PRELUDE of
exit_support.

Whatever a host needs of its maker comes in by the prelude's `info` and `shutter_speed`.
"""

# The start of a host whose callable never comes back.
SLEEPER = """
def sleep(*arguments):
    called.set()
    time.sleep(1000)

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
