"""Measures the host package beside the module alone: host_sessions.py NAME RESULT

As sessions.py, which has the module's own roads. Road and floor are measured by turns, so that both
have the same neighbours.
"""

import asyncio
import contextlib
import datetime
import functools
import hashlib
import os
import pathlib
import queue
import sys
import tempfile
import threading
import time
import types

import sessions
from sessions import Lumatie, VirtualCanon, VirtualNikon, pause

sys.path.insert(0, str(sessions.REPOSITORY / "host"))

import lumatie_host as tether  # noqa: E402
from lumatie_host import reopen  # noqa: E402
from lumatie_host.aio import AsyncEvents  # noqa: E402
from lumatie_host.subscribers import Subscribers  # noqa: E402

PICTURE_SIZE = 20_000_000
PATIENCE = 30.0  # seconds


class Noting(Lumatie.Lumatie):
    """The module's object, which notes when it is asked for a value, and what it tells when."""

    newest = None  # that was started

    def __init__(self):
        super().__init__()
        self.asked = 0.0
        self.told = []

    def Init(self, info, folder, callback):
        def receive(*event):
            self.told.append((time.monotonic(), event))
            callback(*event)

        Noting.newest = self
        return super().Init(info, folder, receive)

    def SetValue(self, code, value):
        self.asked = time.monotonic()
        return super().SetValue(code, value)

    def time_of(self, is_wanted):
        """When it told what is wanted first; what was told until now is forgotten."""
        told, self.told = self.told, []
        return next(moment for moment, event in told if is_wanted(*event))


@contextlib.contextmanager
def host_session(maker, settings=""):
    """A session in a fresh folder in the current one, and the camera behind it."""
    camera = VirtualNikon() if maker == "nikon" else VirtualCanon()
    camera.reset()
    camera.configure(settings)
    with tempfile.TemporaryDirectory(prefix="session-", dir=".") as folder:
        with tether.open(virtual=maker, folder=folder) as session:
            yield session, camera
        misuse = camera.misuse()
        if misuse:
            raise SystemExit("the camera's interface was misused: {}".format(misuse))


def host_pictures(short):
    """From the module's event of a new file to the host's, and reading and hashing it once."""
    samples = []
    floor = []
    heard = queue.Queue()
    Lumatie.Lumatie = Noting
    settings = "picture.size = {}\npicture.keep = 1".format(PICTURE_SIZE)
    with host_session("canon", settings) as (session, camera):
        session.subscribe(lambda event: heard.put((time.monotonic(), event)))
        for number in range(5 if short else 60):
            pause(0.02, 0.05)
            camera.press_shutter()
            picture = None
            while not isinstance(picture, tether.Picture):
                moment, picture = heard.get(timeout=PATIENCE)
            samples.append(moment - Noting.newest.time_of(_tells_of_a_file))
            path = os.path.join(session.folder, picture.file)
            camera.wait_until_idle()
            begin = time.monotonic()
            digest = _digest_of(path)
            floor.append(time.monotonic() - begin)
            taken = hashlib.sha256(camera.picture_bytes(number)).hexdigest()
            if digest != taken or picture.sha256 != taken:
                raise SystemExit("not the picture that was taken: " + path)
            os.remove(path)
    return {"samples": samples, "floor": floor}


def _tells_of_a_file(code, *values):
    return code == Lumatie.TETHER_GENERAL and "GENERAL_NEWFILE" in values[-1]


def _digest_of(path):
    digest = hashlib.sha256()
    block = bytearray(1 << 20)
    view = memoryview(block)
    with open(path, "rb", buffering=0) as file:
        while True:
            length = file.readinto(block)
            if not length:
                return digest.hexdigest()
            digest.update(view[:length])


def host_set(short):
    """From set to the value that the camera confirmed, and the module's own share of it: from its
    SetValue to its event."""
    samples = []
    floor = []
    Lumatie.Lumatie = Noting
    with host_session("canon") as (session, _):
        for number in range(20 if short else 200):
            pause(0.02, 0.06)
            wanted = ("1/60", "1/250")[number % 2]
            begin = time.monotonic()
            if session.set("shutter", wanted) != wanted:
                raise SystemExit("the value was not set")
            samples.append(time.monotonic() - begin)
            told = Noting.newest.time_of(
                lambda code, *values: code == Lumatie.TETHER_SHUTTERSPEED and values[-1] == wanted
            )
            floor.append(told - Noting.newest.asked)
    return {"samples": samples, "floor": floor}


def host_events(short):
    """From an event that another thread tells to the task that iterates over events, and from an
    item that it gives to the loop to the task that waits for it."""
    return asyncio.run(_host_events(200 if short else 3000))


async def _host_events(count):
    loop = asyncio.get_running_loop()
    subscribers = Subscribers()
    events = AsyncEvents(types.SimpleNamespace(mailbox=subscribers.mailbox))
    jobs = queue.SimpleQueue()
    begun = [0.0]

    def work():
        for job, argument in iter(jobs.get, None):
            pause(0.0005, 0.001)  # until the loop sleeps
            begun[0] = time.monotonic()
            job(argument)

    threading.Thread(target=work, daemon=True).start()
    samples = []
    floor = []
    for number in range(1, count + 1):
        now = datetime.datetime.now(datetime.timezone.utc)
        event = tether.Alarm(number, now, "what", "advice")
        jobs.put((subscribers.publish, event))
        heard = await events.__anext__()  # as async for does
        samples.append(time.monotonic() - begun[0])
        future = loop.create_future()
        jobs.put((functools.partial(loop.call_soon_threadsafe, future.set_result), event))
        item = await future
        floor.append(time.monotonic() - begun[0])
        if heard is not event or item is not event:
            raise SystemExit("not the event that was told")
    jobs.put(None)
    return {"samples": samples, "floor": floor}


def _idle(maker, short):
    """The share of one core that the whole process takes while nothing happens: the module's
    session alone, and with the host package."""
    alone = []
    hosted = []
    with _devices():
        for _ in range(1 if short else 5):
            with sessions.canon() if maker == "canon" else sessions.nikon():
                alone.append(_share_of_a_core(short))
            with host_session(maker):
                hosted.append(_share_of_a_core(short))
    return {"samples": alone, "hosted": hosted}


@contextlib.contextmanager
def _devices():
    """Where the system has no USB a dozen made-up devices, which the host package looks at."""
    if os.path.isdir(reopen.USB_DEVICES):
        yield
        return
    with tempfile.TemporaryDirectory(prefix="devices-", dir=".") as folder:
        for number in range(12):
            device = pathlib.Path(folder, "1-{}".format(number))
            interface = pathlib.Path(folder, device.name + ":1.0")
            device.mkdir()
            interface.mkdir()
            (device / "idVendor").write_text("1d6b\n")
            (device / "devnum").write_text("{}\n".format(number))
            (interface / "bInterfaceClass").write_text("09\n")
        reopen.UsbCameras = functools.partial(reopen.UsbCameras, path=folder)
        yield


def _share_of_a_core(short):
    time.sleep(0.5)
    begin, used = time.monotonic(), time.process_time()
    time.sleep(1.5 if short else 5.0)
    used = time.process_time() - used
    return used / (time.monotonic() - begin)


def canon_idle(short):
    return _idle("canon", short)


def nikon_idle(short):
    return _idle("nikon", short)


if __name__ == "__main__":
    sessions.main((host_pictures, host_set, host_events, canon_idle, nikon_idle))
