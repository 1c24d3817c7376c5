"""Hosts that have no memory left, or that ask for more than a camera can take."""

import unittest

from support import run_host
from this_process import ON_WINDOWS

# `limit` lets the process have so much more memory than it has now, and `fill` takes all of it,
# down to the last bytes, for as long as what it returns is kept.
SCARCE = """
import resource, sys, time
from support import CAMERA_NAME, DEADLINE, Lumatie, VirtualCanon
from this_process import resident_bytes

MEBIBYTE = 1024 * 1024

def reserved():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[0]) * resource.getpagesize()

def limit(more=None):
    most = resource.RLIM_INFINITY if more is None else reserved() + more * MEBIBYTE
    resource.setrlimit(resource.RLIMIT_AS, (most, resource.RLIM_INFINITY))

def fill():
    hoard, size = None, 8 * MEBIBYTE
    while size:
        try:
            hoard = (hoard, bytes(size))
        except MemoryError:
            size //= 2
    return hoard

def attempt(operation, *arguments):
    try:
        return operation(*arguments)
    except MemoryError:
        return "no memory"

folder = sys.argv[1]
camera = VirtualCanon()
"""

# All threads share one heap, and Python has none of its own, so that what one thread takes is what
# another one does not find.
ONE_HEAP = {"MALLOC_ARENA_MAX": "1", "PYTHONMALLOC": "malloc"}

COUNTER = """
class Counter:
    calls = 0
    hoard = None  # () and it takes all memory that is left, at each call

    def __call__(self, *arguments):
        self.calls += 1
        if self.hoard is not None:
            self.hoard = (self.hoard, fill())

    def wait_for(self, calls):
        end = time.monotonic() + DEADLINE
        while self.calls < calls:
            assert time.monotonic() < end, self.calls
            time.sleep(0.01)
"""


@unittest.skipIf(ON_WINDOWS, "Windows has no limit of a process's memory to run into")
class MemoryTest(unittest.TestCase):
    def run_scarce(self, script, environment=None):
        """Runs the script to its end; returns what it has printed."""
        run = run_host(SCARCE + script, environment=environment, arguments=["/tmp"])
        self.assertEqual(run.status, 0, run.stderr)
        return run

    def test_a_name_of_half_a_gibibyte_is_no_cameras_or_raises_and_leaves_nothing(self):
        run = self.run_scarce(
            """
tether, name = Lumatie.Lumatie(), "x" * (512 * MEBIBYTE)
limit(64)
print([attempt(tether.Init, name, folder, None) for _ in range(2)])
# Enough for the text in UTF-8, and for no other copy of it.
limit(600)
print([attempt(tether.Init, name, folder, None) for _ in range(2)])
limit()
tether.Uninit()
before = resident_bytes()
print([attempt(tether.Init, name, folder, None) for _ in range(2)])
assert resident_bytes() < before + 64 * MEBIBYTE
print(tether.Uninit(), tether.Init(CAMERA_NAME, folder, None), tether.Uninit())
print(camera.references(), camera.misuse())
"""
        )
        self.assertEqual(
            run.stdout.splitlines(),
            ["['no memory', 'no memory']", "[0, 0]", "[0, 0]", "1 1 1", "0 []"],
        )
        self.assertEqual(run.stderr, "")

    def test_a_folder_of_half_a_gibibyte_raises_and_leaves_the_session_as_it_was(self):
        run = self.run_scarce(
            COUNTER
            + """
tether, host, name = Lumatie.Lumatie(), Counter(), "x" * (512 * MEBIBYTE)
assert tether.Init(CAMERA_NAME, folder, host) == 1
camera.wait_for_calls("EdsSetCapacity")
limit(64)
for _ in range(2):
    print(attempt(tether.UpdateExportFolder, name), attempt(tether.Init, name, name, None))
limit()
del name
calls = host.calls
camera.send_property_event(0x101, 0x406)
host.wait_for(calls + 1)
print(tether.UpdateExportFolder(folder), tether.Uninit(), camera.references())
"""
        )
        self.assertEqual(run.stdout.splitlines(), 2 * ["no memory no memory"] + ["1 1 0"])
        self.assertEqual(run.stderr, "")

    def test_a_host_that_fills_its_memory_while_canon_events_come_hears_later_ones(self):
        run = self.run_scarce(
            COUNTER
            + """
tether, host = Lumatie.Lumatie(), Counter()
assert tether.Init(CAMERA_NAME, folder, host) == 1
camera.wait_for_calls("EdsSetCapacity")
camera.settle()

def announce(times):
    for _ in range(times):
        camera.send_property_event(0x101, 0xFFFF)
        camera.send_property_event(0x102, 0xFFFF)

calls = host.calls
announce(1)
camera.settle()
of_one = host.calls - calls
# The worker is held up in a read, with more of them behind it, until there is no memory.
camera.fault("EdsGetPropertyData hang calls=1")
calls, events = host.calls, camera.event_count(0x102)
announce(100)
camera.wait_for_hang("EdsGetPropertyData")
camera.wait_for_events(0x102, events + 100)
limit(16)
host.hoard = ()
spare = bytes(10000)  # for what follows; the first event's call takes the rest of it
filled = fill()
spare = None
camera.release_hangs()
time.sleep(3)
limit()
host.hoard = filled = None
camera.settle()
lost = calls + 100 * of_one - host.calls
calls = host.calls
camera.send_property_event(0x101, 0x406)
host.wait_for(calls + 1)
print(lost > 0, tether.Uninit(), camera.references())
""",
            ONE_HEAP,
        )
        self.assertEqual(run.stdout, "True 1 0\n", run.stderr)

    def test_a_host_that_fills_its_memory_while_nikon_reports_goes_on_and_can_start_again(self):
        # A module that has no memory itself fails to answer for its camera, and ends the reports.
        run = self.run_scarce(
            COUNTER
            + """
from nikon_support import MODULE, VirtualNikon
nikon, tether, host = VirtualNikon(), Lumatie.Lumatie(), Counter()
assert tether.Init(MODULE, folder, host) == 1
host.wait_for(20)
limit(16)
host.hoard = ()
filled = fill()
time.sleep(2.5)
limit()
host.hoard = filled = None
print(tether.Uninit(), nikon.open_objects())
calls = host.calls
assert tether.Init(MODULE, folder, host) == 1
host.wait_for(calls + 20)
print(tether.Uninit(), nikon.open_objects())
""",
            ONE_HEAP,
        )
        lines = [line for line in run.stdout.splitlines() if line.startswith("1 ")]
        self.assertEqual(lines, ["1 []", "1 []"])

    def test_two_hundred_thousand_values_for_a_slow_camera_take_no_more_memory_than_a_few(self):
        run = self.run_scarce(
            COUNTER
            + """
tether, host = Lumatie.Lumatie(), Counter()
assert tether.Init(CAMERA_NAME, folder, host) == 1
camera.wait_for_calls("EdsSetCapacity")
camera.settle()
camera.event_rule("* lose calls=0")
camera.fault("EdsSetPropertyData hang calls=1")
sets = camera.calls("EdsSetPropertyData")
tether.SetValue(Lumatie.TETHER_COLORTEMP, 2500)
camera.wait_for_hang("EdsSetPropertyData")

def post(values):
    for value in values:
        tether.SetValue(Lumatie.TETHER_COLORTEMP, value)

post(range(12000))
before = resident_bytes()
post(range(200000))
grown = resident_bytes() - before
assert grown < 4 * MEBIBYTE, grown
tether.Shoot()
post(range(7000, 7010))
camera.release_hangs()
# What hung, 12000 of them, and those behind the picture.
camera.wait_for_calls("EdsSetPropertyData", sets + 1 + 12000 + 1, deadline=60)
print(tether.Uninit(), camera.calls("EdsSetPropertyData") - sets)
for line in camera.log():
    if "EdsSetPropertyData" in line or "EdsSendCommand" in line:
        print(line.split("0x", 1)[1].split(")")[0])
"""
        )
        lines = run.stdout.splitlines()
        self.assertEqual(lines[0], "1 {}".format(1 + 12000 + 1))
        # The last value before the picture, the picture, and the last value behind it.
        values = ["107, 0, 4, 0x{:X}".format(value) for value in (199999, 7009)]
        self.assertEqual(lines[-4:], [values[0], "4, 0x3", "4, 0x0", values[1]])


if __name__ == "__main__":
    unittest.main()
