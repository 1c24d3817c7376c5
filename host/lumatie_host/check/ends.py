"""How sessions end: each in a process of its own, because what fails here takes it with it."""

import os
import subprocess
import sys
import threading
import time

from .. import libraries
from . import pace
from .heard import Target
from .pace import milliseconds
from .teller import Evidence, No, Teller

_PATIENCE = 20.0
_GRACE = 4.0  # seconds for a program to end of which nothing is wanted any more

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


class _Tether:
    """A tether object of the module's, past the package, which ends a session before the next."""

    def __init__(self, target: Target) -> None:
        libraries.load_canon(target.canon_library)
        self._target = target
        self._tether = libraries.load_module().Lumatie()
        pace.prepare()

    def init(self) -> int:
        """Calls Init; its answer."""
        self._heard = heard = threading.Event()
        target = self._target
        return int(self._tether.Init(target.info, target.folder, lambda *event: heard.set()))

    def open(self) -> None:
        """Calls Init, and waits until the camera is heard of. Raises No when it is not."""
        if self.init() != 1:
            raise No("Init does not answer 1")
        self.hear()

    def hear(self) -> None:
        """Waits for what is told since Init was called; raises No when nothing is."""
        if pace.wait(self._heard.is_set, 10.0) is None:
            raise No("nothing was heard of the camera within 10 s")

    def uninit(self) -> str:
        """Calls Uninit; how long it took."""
        begun = time.monotonic()
        self._tether.Uninit()
        return milliseconds(time.monotonic() - begun)


def _twice(target: Target) -> Evidence:
    tether = _Tether(target)
    try:
        tether.open()
        first = tether.uninit()
    finally:
        second = tether.uninit()
    return "after %s and %s" % (first, second)


def _again(target: Target) -> Evidence:
    tether = _Tether(target)
    try:
        tether.open()
        answer = tether.init()  # the first session runs on, be it 1 or 0
        tether.hear()
        tether.uninit()
        begun = time.monotonic()
        tether.open()
        after = milliseconds(time.monotonic() - begun)
    finally:
        tether.uninit()
    told = (
        "over an open session Init answers %d, and the camera goes on; after one it tells within %s"
    )
    return told % (answer, after)


def _interpreter(target: Target) -> Evidence:
    arguments = [target.info, target.folder, target.canon_library or ""]
    begun = time.monotonic()
    process = subprocess.Popen(
        [sys.executable, "-c", _LEFT_OPEN, *arguments],
        stdin=subprocess.DEVNULL,
        env=dict(os.environ),
    )
    try:
        if pace.wait(lambda: process.poll() is not None, _PATIENCE) is None:
            raise No("the program did not end within %g s" % _PATIENCE)
    finally:
        _end(process)
    status = process.returncode
    if status == _NOT_OPEN:
        raise No("its session did not open")
    if status != 0:
        raise No("the program ended with %s" % described(status))
    return "after %s, with exit status 0" % milliseconds(time.monotonic() - begun)


def _end(process: "subprocess.Popen[bytes]") -> None:
    """Leaves no program behind; one that does not hang closes its session first."""
    try:
        process.wait(_GRACE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def described(status: int) -> str:
    """How a process ended, in words."""
    if status < 0:
        return "signal %d" % -status
    return "exit status %s" % (status if status < 256 else "%#x" % (status & 0xFFFFFFFF))
