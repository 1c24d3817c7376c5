"""How sessions end: each in a process of its own, because what fails here takes it with it."""

import os
import subprocess
import sys
import threading
import time

from .. import libraries
from . import pace
from .heard import Camera, Target
from .pace import milliseconds
from .teller import Evidence, No, Teller

_PATIENCE = 20.0

# Ends with its session open, when it has heard of the camera; says so on standard output.
_LEFT_OPEN = """
import sys, threading
from lumatie_host import libraries
from lumatie_host.check import pace
libraries.load_canon(sys.argv[3] or None)
module = libraries.load_module()
heard = threading.Event()
pace.prepare()
tether = module.Lumatie()
answer = tether.Init(sys.argv[1], sys.argv[2], lambda *event: heard.set())
sys.exit(0 if answer == 1 and pace.wait(heard.is_set, 10) is not None else 90)
"""
_NOT_OPEN = 90


def twice(tell: Teller, target: Target) -> None:
    """Asks whether Uninit may be called twice."""
    tell.ask("ends.twice", lambda: _twice(target))


def again(tell: Teller, target: Target) -> None:
    """Asks whether Init may be called again, with a session open and after one."""
    tell.ask("ends.again", lambda: _again(target))


def interpreter(tell: Teller, target: Target) -> None:
    """Asks whether a program may end with its session open."""
    tell.ask("ends.interpreter", lambda: _interpreter(target))


def _twice(target: Target) -> Evidence:
    libraries.load_canon(target.canon_library)
    tether = libraries.load_module().Lumatie()
    pace.prepare()
    heard = threading.Event()
    if tether.Init(target.info, target.folder, lambda *event: heard.set()) != 1:
        raise No("Init does not answer 1")
    is_heard = pace.wait(heard.is_set, 10.0) is not None
    times = []
    for _ in range(2):
        begun = time.monotonic()
        tether.Uninit()
        times.append(milliseconds(time.monotonic() - begun))
    if not is_heard:
        raise No("nothing was heard of the camera within 10 s")
    return "after %s and %s" % (*times,)


def _again(target: Target) -> Evidence:
    camera = Camera(target)
    try:
        camera.start()
        _hear(camera)
        over = camera.start()  # the thread ends the one before
        _hear(camera)
        camera.stop()
        after = camera.start()
        _hear(camera)
        camera.stop()
        return "%s over an open session, %s after one" % (
            milliseconds(over),
            milliseconds(after),
        )
    finally:
        camera.close()


def _interpreter(target: Target) -> Evidence:
    arguments = [target.info, target.folder, target.canon_library or ""]
    begun = time.monotonic()
    process = subprocess.Popen(
        [sys.executable, "-c", _LEFT_OPEN, *arguments],
        stdin=subprocess.DEVNULL,
        env=dict(os.environ),
    )
    try:
        status = process.wait(_PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        raise No("the program did not end within %g s" % _PATIENCE) from None
    if status == _NOT_OPEN:
        raise No("its session did not open")
    if status != 0:
        raise No("the program ended with %s" % described(status))
    return "after %s, with exit status 0" % milliseconds(time.monotonic() - begun)


def _hear(camera: Camera) -> None:
    if camera.wait(lambda: camera.is_heard, 10.0) is None:
        raise No("nothing was heard of the camera within 10 s")


def described(status: int) -> str:
    """How a process ended, in words."""
    if status < 0:
        return "signal %d" % -status
    return "exit status %s" % (status if status < 256 else "%#x" % (status & 0xFFFFFFFF))
