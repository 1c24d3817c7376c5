"""What the parts stand on: a broker, real stations with virtual cameras, the studio's command."""

import collections
import contextlib
import json
import os
import pathlib
import re
import resource
import secrets
import subprocess
import sys
import tempfile
import threading
import time

import lumatie_host
from fleet import STUDIO, Fleet, digest_of
from studio_support import DEADLINE, HOST, Broker, Client, Proxy, wait_until
from test_stations import Command

# A picture's way over the cable was gone to its end, by the camera's log.
HANDED_OVER = {
    "canon": re.compile(r" EdsDownloadComplete\([^)]*\) = 0x0 "),
    "nikon": re.compile(r" completion CapStart\(data#\d+, 0x14\) = 0 "),
}
CAMERA = "picture.width = 64\npicture.height = 48\nshutter.lag_ms = 0\n"
ONE_IN = 10  # of so many connections one is dropped


class Scene:
    """A broker that lets them in, and what is started; all of it ends with the block.

    It is what the tests' `Command` wants of a test.

    Args:
        stations: name to maker of the real ones.
        simulated: how many the generator plays.
    """

    is_open = False

    def __init__(self, stations, simulated):
        self._stack = contextlib.ExitStack()
        self.addCleanup = self._stack.callback
        self.base = pathlib.Path(
            os.path.realpath(self._stack.enter_context(tempfile.TemporaryDirectory("-studio")))
        )
        self.folder = self.base / "studio"
        self.folder.mkdir()
        self.makers = dict(stations)
        self.simulated = ["s%d" % number for number in range(1, simulated + 1)]
        self.commands = {}
        self.ways = {}  # of the real stations to the broker
        self.all_ways = []

    def __enter__(self):
        (self.base / "broker").mkdir()
        names = ("studio", "viewer", *self.makers, *self.simulated)
        self.broker = Broker(str(self.base / "broker"), names=names)
        self.addCleanup(lambda: self.broker.stop())
        return self

    def __exit__(self, *_):
        self._stack.close()

    # What is started.

    def way(self, port, one_in=ONE_IN):
        """A network to a port that drops one connection in so many."""
        proxy = Proxy(port, one_in=one_in)
        self.all_ways.append(proxy)
        self.addCleanup(proxy.close)
        return proxy

    def start_fleet(self, is_bad=True):
        """The simulated stations: every other one, and all their pictures, over a bad network."""
        bad = self.way(self.broker.port)
        addresses = {
            name: self.broker.address(name, port=bad.port if is_bad and index % 2 else None)
            for index, name in enumerate(self.simulated)
        }
        way = (lambda port: self.way(port).port) if is_bad else None
        self.fleet = Fleet(addresses.__getitem__, self.simulated, way)
        self.addCleanup(self.fleet.close)
        return self.fleet.start()

    def start_station(self, name, folder=None):
        """A real one. In another folder of this name it is somebody else's with its name."""
        way = self.ways.setdefault(name, self.way(self.broker.port))
        url = self.broker.url(name).replace(str(self.broker.port), str(way.port))
        base, self.base = self.base, self.base / (folder or "stations")
        self.base.mkdir(exist_ok=True)
        try:
            is_ahead = list(self.makers).index(name) % 4 == 1
            command = Command(self, name, self.makers[name], url, is_ahead, CAMERA)
        finally:
            self.base = base
        if folder is None:
            self.commands[name] = command
            threading.Thread(target=_read, args=(command.process.stdout,), daemon=True).start()
        return command

    def start_studio(self):
        self.studio = StudioCommand(self)
        return self.studio

    def open_desk(self):
        """Somebody with the studio's rights, who asks for pictures."""
        self.desk = Desk(self.broker).connect()
        self.addCleanup(self.desk.close)
        return self.desk

    # What has come of it.

    def collected(self):
        """The files in the studio's folder, with their size."""
        found = {}
        for parent, folders, files in os.walk(str(self.folder)):
            folders[:] = [folder for folder in folders if folder != ".lumatie"]
            for file in files:
                path = os.path.join(parent, file)
                name = os.path.relpath(path, str(self.folder)).replace(os.sep, "/")
                found[name] = os.path.getsize(path)
        return found

    def expected(self):
        """What belongs there: name to hash, of the real stations and the simulated ones."""
        real = {
            "%s/%s" % (name, path.name): digest_of(str(path))
            for name, command in self.commands.items()
            for path in command.folder.iterdir()
            if path.is_file()
        }
        return {**real, **(self.fleet.expected() if self.simulated else {})}

    def compare(self, proof, patience):
        """Everything is in the studio's folder once, whole, under its name, and acknowledged."""
        expected = self.expected()
        begun = time.monotonic()
        with contextlib.suppress(AssertionError):
            wait_until(lambda: len(self.collected()) >= len(expected), "all", patience)
        caught_up = time.monotonic() - begun
        found = {name: digest_of(str(self.folder / name)) for name in self.collected()}
        lost = [name for name in expected if name not in found]
        strange = [name for name in found if name not in expected]
        other = [name for name in expected if found.get(name, expected[name]) != expected[name]]
        proof.check(not lost, "%d pictures are not there: %s", len(lost), lost[:3])
        proof.check(not strange, "%d files are nobody's: %s", len(strange), strange[:3])
        proof.check(not other, "%d pictures are others: %s", len(other), other[:3])
        megabytes = sum(self.collected().values()) / 1e6
        proof.figure("pictures collected", "%d, %.0f MB; the last %.1f s behind the end of it all",
                     len(found), megabytes, caught_up)  # fmt: skip
        # A file has its name a moment before it is acknowledged.
        with contextlib.suppress(AssertionError):
            wait_until(lambda: len(self.acknowledged()) >= len(found), "the last one", DEADLINE)
        told = self.acknowledged()
        proof.check(len(told) == len(set(told)), "a picture is acknowledged twice")
        proof.check(len(told) == len(found), "%d of %d are acknowledged", len(told), len(found))
        for folder in (self.folder, *(command.folder for command in self.commands.values())):
            for finding in lumatie_host.verify(str(folder)):
                proof.check(False, "verify: %s", finding.text)

    def acknowledged(self):
        records = lumatie_host.Ledger(str(self.folder)).read()
        return [(r["station"], r["ledger"], r["of"]) for r in records if "of" in r]


class StudioCommand:
    """The command `lumatie studio`, running."""

    def __init__(self, scene):
        self.alarms = []
        self.counts = collections.Counter()  # of the records that were printed, by kind
        self.words = scene.base / "studio.words"
        arguments = ["--broker", scene.broker.url("studio"), "--studio", STUDIO, "--json"]
        with open(str(self.words), "ab") as words:
            self.process = subprocess.Popen(
                [sys.executable, "-m", "lumatie_host.cli", "studio", *arguments]
                + ["--folder", str(scene.folder)],
                env=dict(os.environ, PYTHONPATH=str(HOST)),
                stdout=subprocess.PIPE,
                stderr=words,
            )
        threading.Thread(target=self._read, daemon=True).start()
        scene.addCleanup(self.end)

    def _read(self):
        with contextlib.suppress(OSError, ValueError):  # killed in the middle of a line
            for line in self.process.stdout:
                record = json.loads(line)
                self.counts[record["kind"]] += 1
                if record["kind"] == "alarm":
                    self.alarms.append(record)

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(DEADLINE)

    def limit_files(self, size):
        """No file may grow beyond this, as on a disk that is full; None: without limit."""
        size = resource.RLIM_INFINITY if size is None else size
        resource.prlimit(self.process.pid, resource.RLIMIT_FSIZE, (size, resource.RLIM_INFINITY))

    def resident_kilobytes(self):
        with open("/proc/%d/statm" % self.process.pid, encoding="ascii") as file:
            return int(file.read().split()[1]) * resource.getpagesize() // 1024

    def threads(self):
        return len(os.listdir("/proc/%d/task" % self.process.pid))

    def handles(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))


class Desk:
    """Asks stations for pictures, each request with a number of its own, and keeps the answers."""

    def __init__(self, broker):
        self._broker = broker
        self._me = "desk-" + secrets.token_hex(4)
        self._lock = threading.Lock()  # guards all that follows
        self._client = None
        self._read = 0  # of what the client has heard
        self._answers = {}
        self._states = {}

    def connect(self):
        """Or again: a broker that was stopped knows nobody."""
        base = "lumatie/1/%s/+/" % STUDIO
        client = Client(self._broker, "studio", [base + "reply/" + self._me, base + "state"])
        with self._lock:
            self._learn()
            old, self._client, self._read = self._client, client, 0
        if old is not None:
            old.close()
        return self

    def ask(self, station, data):
        """Asks for a picture, twice, as a network may."""
        base = "lumatie/1/%s/%s/" % (STUDIO, station)
        properties = {"expiry": 2, "response": base + "reply/" + self._me, "data": data}
        with self._lock:
            for _ in range(2):
                self._client.send(base + "cmd/shoot", b"{}", **properties)

    def answer(self, station, data):
        """What a station has answered to a request, None: nothing yet."""
        with self._lock:
            self._learn()
            return self._answers.get((station, data))

    def is_online(self, station):
        with self._lock:
            self._learn()
            return self._states.get(station) is True

    def _learn(self):
        heard = [] if self._client is None else self._client.heard
        for message in heard[self._read :]:
            self._read += 1
            station, what = message.topic.split("/")[3:5]
            if what == "state" and message.payload:
                self._states[station] = json.loads(message.payload)["online"]
            elif what == "reply":
                key = station, message.properties.CorrelationData
                self._answers.setdefault(key, json.loads(message.payload))

    def close(self):
        self._client.close()


def _read(stream):
    """A pipe that nobody reads would hold up who writes into it."""
    with contextlib.suppress(OSError, ValueError):
        while stream.read(65536):
            pass


def handed_over(command):
    """How many pictures left a station's camera whole, by its own log."""
    text = command.log.read_text(errors="replace") if command.log.exists() else ""
    return len(HANDED_OVER[command.maker].findall(text))


def kill(command):
    """Without a word; what it has printed is somebody else's to read."""
    command.process.kill()
    command.process.wait(DEADLINE)
