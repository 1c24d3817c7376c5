"""Stations that a generator plays, many of them in one program: their ledgers, their pictures.

Each has its own connection with the broker and its own name there, as a station has; one server
answers for all of them. Pictures are made up when somebody asks for them, so they take no room.
"""

import hashlib
import random
import threading
import time
from urllib.parse import urlsplit

from lumatie_host.studio import messages
from studio_support import DEADLINE, PictureServer, SimulatedStation

STUDIO = "pta"
TICK_EVERY = 0.5  # seconds, as stations do
_POOL = random.Random(1).getrandbits(8 << 23).to_bytes(8 << 20, "little")


def made_up(station, number, size):
    """A picture's bytes: another one for each station and number, and always the same."""
    head = ("%s %d %d " % (station, number, size)).encode()[:size]
    offset = hash((len(station), number)) % (len(_POOL) // 2)
    parts = [head]
    left = size - len(head)
    while left > 0:
        part = _POOL[offset : offset + left]
        parts.append(part)
        left -= len(part)
        offset = 0
    return b"".join(parts)


class Pictures:
    """What a station has pictures of; as a dictionary of number to bytes."""

    def __init__(self, name):
        self._name = name
        self._sizes = {}

    def __setitem__(self, number, data):
        self._sizes[number] = len(data)

    def get(self, number):
        size = self._sizes.get(number)
        return None if size is None else made_up(self._name, number, size)


class Place:
    """What one station's server is, of those that one server answers for."""

    def __init__(self, owner, name):
        self.url = "%s%s/" % (owner.url, name)
        self.tokens = set()

    def close(self):
        """The server is the fleet's."""


class Server(PictureServer):
    """Answers for all stations: the first part of a path is the station's name."""

    def __init__(self):
        self.stations = {}
        super().__init__(None)

    def answer(self, request):
        name = urlsplit(request.path).path.split("/")[1]
        station = self.stations.get(name)
        if station is None:
            return self._send(request, 404, b"{}")
        request.path = request.path[len(name) + 1 :]
        return _View(self, station).answer(request)


class _View(PictureServer):
    """The server as one station's."""

    def __init__(self, owner, station):
        self.station = station
        self.tokens = station.server.tokens
        self.requests = []
        self.files = {}
        self.cut_after = None
        self.pace = owner.pace


class Fleet:
    """Stations under these names, which publish when they are told to.

    Args:
        address_of: a station's way to the broker.
        way: given the server's port, the one that the stations tell; None: the same.
    """

    def __init__(self, address_of, names, way=None):
        self.server = Server()
        if way is not None:
            port = urlsplit(self.server.url).port
            self.server.url = "http://127.0.0.1:%d/" % way(port)
        self.stations = []
        for name in names:
            station = SimulatedStation(address_of(name), STUDIO, name,
                                       server=Place(self.server, name))  # fmt: skip
            station.pictures = Pictures(name)
            self.server.stations[name] = station
            self.stations.append(station)
        self._closing = threading.Event()
        self._held = []  # records that are told late
        self._ticker = threading.Thread(target=self._tick, daemon=True)

    def start(self):
        """Has all of them at the broker."""
        for station in self.stations:
            station.connection.start()
        for station in self.stations:
            assert station.is_up.wait(DEADLINE), "station %s is not at the broker" % station.name
        self._ticker.start()
        return self

    def play(self, count, size, rate, chance, is_over=None):
        """Frames, each a shot, a setting and a picture, as disorderly as a network can make it.

        Args:
            count: of frames, at least.
            size: of a picture in bytes.
            rate: frames a second.
            chance: a `random.Random`, which says what is lost, told twice, late, or out of order.
            is_over: an event until which it goes on in any case.
        """
        begun = time.monotonic()
        number = -1
        while number < count - 1 or not (is_over is None or is_over.is_set()):
            number += 1
            station = chance.choice(self.stations)
            records = [
                station.shot(publish=False),
                station.record(
                    "setting", publish=False, name="iso", text="100", allowed=["100"], settable=True
                ),  # fmt: skip
            ]
            data = made_up(station.name, len(station.ledger) + 1, size)
            records.append(station.picture(data, publish=False))
            self._tell(station, records, chance)
            pause = begun + (number + 1) / rate - time.monotonic()
            if pause > 0:
                self._closing.wait(pause)
        self.tell_late()

    def _tell(self, station, records, chance):
        if chance.random() < 0.1:
            chance.shuffle(records)
        for record in records:
            fate = chance.random()
            if fate < 0.05:
                continue  # lost: only the station's own ledger has it
            if fate < 0.1:
                self._held.append((station, record))
                continue
            station.publish(record)
            if fate < 0.2:
                station.publish(record)
        if len(self._held) > 50:
            self.tell_late()

    def tell_late(self):
        """Tells what was held back, the newest first."""
        while self._held:
            station, record = self._held.pop()
            station.publish(record)

    def expected(self):
        """All pictures: where they belong in the studio's folder, and their hash."""
        return {
            "%s/%s" % (station.name, record["file"]): record["sha256"]
            for station in self.stations
            for record in station.ledger
            if record["kind"] == "picture"
        }

    def _tick(self):
        """Each tells its clock and how long its ledger is, as stations do."""
        share = TICK_EVERY / len(self.stations)
        while True:
            for station in self.stations:
                if self._closing.wait(share):
                    return
                tick = {"kind": "tick", "instance": "a", "tick": time.monotonic()}
                message = messages.encode({**tick, "n": len(station.ledger)})
                station.connection.publish(station.branch.tick, message)

    def close(self):
        self._closing.set()
        self._ticker.join(DEADLINE)
        closers = [threading.Thread(target=station.close) for station in self.stations]
        for closer in closers:
            closer.start()
        for closer in closers:
            closer.join(DEADLINE)
        self.server.close()


def digest_of(path):
    """The SHA-256 of a file."""
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        for block in iter(lambda: file.read(1 << 20), b""):
            digest.update(block)
    return digest.hexdigest()
