"""One session in a fresh interpreter: start.py canon|nikon BUILD RESULT

Writes a JSON object with the seconds of the import, from Init to the first event, and of Uninit,
and beside the latter two the camera's own share of them.
"""

import ctypes
import json
import os
import sys
import tempfile
import time


def log_of(library):
    function = library.VirtualCameraLog
    buffer = ctypes.create_string_buffer(function(None, 0) + 10000)
    function(buffer, len(buffer))
    return buffer.value.decode("utf-8", "replace").splitlines()


def main():
    maker, build, result = sys.argv[1:]
    sys.path.insert(0, os.path.join(build, "python"))
    begin = time.monotonic()
    import Lumatie

    imported = time.monotonic() - begin

    import threading

    from calls import clock_offset, parse, time_inside

    if maker == "nikon":
        path = name = os.path.join(build, "virtual", "VirtualNikon.md3")
    else:
        path = os.path.join(build, "virtual", "libEDSDK.so")
        name = "Virtual EOS"
    camera = ctypes.CDLL(path)
    clock = camera.VirtualCameraClock
    clock.restype = ctypes.c_int64
    first = []
    came = threading.Event()

    def callback(*arguments):
        if not first:
            first.append(time.monotonic())
            came.set()

    tether = Lumatie.Lumatie()
    with tempfile.TemporaryDirectory(prefix="start-", dir=".") as folder:
        begin = time.monotonic()
        if tether.Init(name, folder, callback) != 1 or not came.wait(20):
            raise SystemExit("no session, or no event")
        time.sleep(0.2)
        ending = time.monotonic()
        tether.Uninit()
        ended = time.monotonic()
    calls = parse(log_of(camera), clock_offset(lambda: clock() / 1e6))
    with open(result, "w", encoding="ascii") as file:
        json.dump(
            {
                "import": imported,
                "init": first[0] - begin,
                "init_inside": time_inside(calls, begin, first[0]),
                "uninit": ended - ending,
                "uninit_inside": time_inside(calls, ending, ended),
            },
            file,
        )


if __name__ == "__main__":
    main()
