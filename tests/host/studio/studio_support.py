"""What the tests of stations and studio stand on: a real broker, stations that a generator plays.

The broker is the system's mosquitto, a child of the test on a free port of this machine's own.
"""

import contextlib
import hashlib
import http.server
import json
import os
import pathlib
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import unittest
from urllib.parse import parse_qs, urlsplit

import lumatie_host
import paho.mqtt.client as mqtt
import programs
from lumatie_host.studio import clock, messages
from lumatie_host.studio.address import Address
from lumatie_host.studio.broker import Connection, Listener
from lumatie_host.studio.topics import Branch
from virtual_cameras import wait_until

HOST = pathlib.Path(lumatie_host.__file__).resolve().parents[1]
CONFIGURATION = HOST / "lumatie_host" / "studio" / "mosquitto"
DEADLINE = 30.0  # seconds; only a failing test ever waits for it
NAMES = ("studio", "viewer", "1", "2", "3", "7")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Broker:
    """A mosquitto with our configuration; `names` are its users, each with "pw-" and its name as
    password."""

    def __init__(self, base, is_open=False, has_persistence=True, changes=(), names=NAMES):
        self.port = free_port()
        self._base = pathlib.Path(base)
        self._process = None
        self.log = self._base / "mosquitto.log"
        passwords = self._base / "passwords"
        passwords.write_bytes("".join("%s:pw-%s\n" % (name, name) for name in names).encode())
        programs.run(self.log, "mosquitto_passwd", "-U", programs.path_of(passwords))
        shutil.copy(str(CONFIGURATION / "acl"), str(self._base / "acl"))
        base = programs.path_of(self._base)
        text = (CONFIGURATION / "mosquitto.conf").read_text()
        text = text.replace("listener 1883", "listener %d 127.0.0.1" % self.port)
        text = text.replace("/etc/mosquitto/passwords", base + "/passwords")
        text = text.replace("/etc/mosquitto/acl", base + "/acl")
        text = text.replace("/var/lib/mosquitto/", base + "/")
        if not has_persistence:
            text = text.replace("persistence true", "persistence false")
        if is_open:
            text = re.sub("(?m)^(password_file|acl_file).*$", "", text)
            text = text.replace("allow_anonymous false", "allow_anonymous true")
        for before, after in changes:
            assert before in text, before
            text = text.replace(before, after)
        text += "user root\n"  # no other one than whoever starts it
        self._configuration = self._base / "mosquitto.conf"
        self._configuration.write_bytes(text.encode())
        self.start()

    def start(self):
        configuration = programs.path_of(self._configuration)
        self._process = programs.start(self.log, "mosquitto", "-c", configuration)
        wait_until(self._answers, lambda: "the broker: " + self.log.read_text())

    def _answers(self):
        if self._process.poll() is not None:
            raise AssertionError("the broker has ended: " + self.log.read_text())
        try:
            socket.create_connection(("127.0.0.1", self.port), 1.0).close()
        except OSError:
            return False
        return True

    def stop(self):
        if self._process is not None:
            wait_until(self._has_ended, "the broker's end")
            self._process = None

    def forget(self):
        """What it has kept is gone."""
        (self._base / "mosquitto.db").unlink()

    def _has_ended(self):
        # It misses what it is told while it starts.
        self._process.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            self._process.wait(1.0)
        return self._process.poll() is not None

    def address(self, user=None, password=None, port=None):
        password = password or (user and "pw-" + user)
        return Address("127.0.0.1", port or self.port, user, password)

    def url(self, user=None):
        who = "" if user is None else "%s:pw-%s@" % (user, user)
        return "mqtt://%s127.0.0.1:%d" % (who, self.port)


class Client:
    """Anybody at the broker, with the library alone."""

    def __init__(self, broker, user=None, topics=(), password=None):
        self.heard = []
        self.acknowledged = {}
        self.code = None
        self._client = mqtt.Client(
            mqtt.CallbackAPIVersion.VERSION2, protocol=mqtt.MQTTv5, reconnect_on_failure=False
        )
        if user is not None:
            self._client.username_pw_set(user, password or "pw-" + user)
        self._is_subscribed = threading.Event()
        self._topics = list(topics)
        self._client.on_connect = self._connected
        self._client.on_subscribe = lambda *_: self._is_subscribed.set()
        self._client.on_message = lambda _, __, message: self.heard.append(message)
        self._client.on_publish = self._published
        self._client.connect("127.0.0.1", broker.port)
        self._client.loop_start()
        wait_until(lambda: self.code is not None, "an answer of the broker's")
        if topics and not self.code.is_failure:
            assert self._is_subscribed.wait(DEADLINE)

    def _connected(self, client, _, flags, code, properties):
        self.code = code
        if self._topics and not code.is_failure:
            client.subscribe([(topic, 1) for topic in self._topics])

    def _published(self, client, _, number, code, properties):
        self.acknowledged[number] = code

    def publish(self, *message, **properties):
        """Sends, and returns the broker's answer to it."""
        number = self.send(*message, **properties)
        return wait_until(lambda: self.acknowledged.get(number), "the broker's answer")

    def send(self, topic, payload=b"", retain=False, expiry=None, response=None, data=None):
        """Sends a message, whether the broker is there or not; its number."""
        properties = mqtt.Properties(mqtt.PacketTypes.PUBLISH)
        if expiry is not None:
            properties.MessageExpiryInterval = expiry
        if response is not None:
            properties.ResponseTopic = response
        if data is not None:
            properties.CorrelationData = data
        if isinstance(payload, dict):
            payload = json.dumps(payload).encode()
        return self._client.publish(topic, payload, 1, retain, properties).mid

    def messages(self, topic):
        """What has come on a topic, as JSON."""
        return [json.loads(m.payload) for m in list(self.heard) if m.topic == topic and m.payload]

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()


def jpeg_of(text):
    """What begins and ends as a JPEG does."""
    return b"\xff\xd8\xff" + text.encode() + b"\xff\xd9"


class PictureServer:
    """What a station's web server answers, with a ledger and pictures that are made up."""

    def __init__(self, station):
        self.station = station
        self.tokens = set()
        self.requests = []
        self.files = {}  # path to the number of a picture that is there, too
        self.cut_after = None  # bytes of a picture after which the connection is dropped
        self.pace = None  # an event that each block of a picture waits for
        self.preview_pace = None  # an event that each preview waits for
        owner = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                owner.answer(self)

            def log_message(self, *_):
                pass

        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self._server.handle_error = lambda *_: None  # who goes in the middle is no error here
        self.url = "http://127.0.0.1:%d/" % self._server.server_address[1]
        threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True).start()

    def answer(self, request):
        parts = urlsplit(request.path)
        self.requests.append((request.path, request.headers.get("Range")))
        token = request.headers.get("Authorization", "").partition(" ")[2]
        if token not in self.tokens:
            return self._send(request, 401, b"{}")
        if parts.path == "/api/ledger":
            query = parse_qs(parts.query)
            since, limit = int(query["since"][0]), int(query.get("limit", ["100000"])[0])
            records = [r for r in self.station.ledger if r["n"] > since][:limit]
            return self._send(request, 200, json.dumps(records).encode())
        number = self.files.get(parts.path) or int(parts.path.split("/")[3])
        if parts.path.endswith("/preview"):
            return self._send_preview(request, number, parse_qs(parts.query)["w"][0])
        data = self.station.pictures.get(number)
        if data is None:
            return self._send(request, 404, b"{}")
        first = re.match(r"bytes=(\d+)-", request.headers.get("Range") or "")
        if first is None:
            return self._send(request, 200, data)
        offset = int(first.group(1))
        extent = "bytes %d-%d/%d" % (offset, len(data) - 1, len(data))
        return self._send(request, 206, data[offset:], {"Content-Range": extent})

    def _send_preview(self, request, number, width):
        if self.preview_pace is not None:
            self.preview_pace.wait(DEADLINE)
        if number not in self.station.pictures:
            return self._send(request, 404, b"{}")
        return self._send(request, 200, jpeg_of("%d %s" % (number, width)))

    def _send(self, request, status, body, headers=()):
        request.send_response(status)
        request.send_header("Content-Length", str(len(body)))
        for name, value in dict(headers).items():
            request.send_header(name, value)
        request.end_headers()
        is_picture = status in (200, 206) and "/pictures/" in request.path
        if is_picture and self.cut_after is not None:
            body, self.cut_after = body[: self.cut_after], None
            request.close_connection = True
        pace = self.pace if is_picture else None
        for start in range(0, len(body), 65536):
            if pace is not None:
                pace.wait(DEADLINE)
            try:
                request.wfile.write(body[start : start + 65536])
            except OSError:
                return

    def close(self):
        self._server.shutdown()
        self._server.server_close()


class Rate:
    """The pace of a network: about 20 MB/s."""

    def wait(self, _):
        threading.Event().wait(0.003)


class SimulatedStation(Listener):
    """A station that a generator plays: its ledger and its pictures are made up.

    Args:
        server: answers for it, `url` is where; None: one of its own.
    """

    def __init__(
        self, address, studio, name, instance="a", ledger="made-up", is_silent=False, server=None
    ):
        self.name = name
        self.ledger = []
        self.pictures = {}
        self.commands = []
        self.is_silent = is_silent
        self.branch = Branch(studio, name)
        self._names = {"studio": studio, "station": name}
        self._instance = instance
        self._identity = ledger
        self.server = server or PictureServer(self)
        self._shot = 0
        self._told = 0  # number of a record
        self._is_ticking = threading.Event()
        self.is_up = threading.Event()
        will = messages.encode(self.state(False))
        self.connection = Connection(
            address,
            "simulated-%s-%s" % (name, instance),
            self,
            [self.branch.command("+")],
            (),
            (self.branch.state, will),
        )

    def start(self):
        self.connection.start()
        assert self.is_up.wait(DEADLINE), "the station is not at the broker"
        return self

    def state(self, is_online=True):
        return {
            "v": 1,
            "kind": "state",
            **self._names,
            "online": is_online,
            "instance": self._instance,
            "ledger": self._identity,
            "n": len(self.ledger),
            "camera": "Simulated",
            "maker": "canon",
            "connection": "open" if is_online else "gone",
            "url": self.server.url,
        }

    def up(self):
        self.tell_state()
        self.is_up.set()

    def begin_ticks(self, every=0.5):
        """Tells its clock as stations do; until `end_ticks`."""
        self._is_ticking.set()

        def run():
            while self._is_ticking.is_set():
                self.tick()
                threading.Event().wait(every)

        threading.Thread(target=run, daemon=True).start()

    def end_ticks(self):
        self._is_ticking.clear()

    def tick(self):
        """Tells its clock: without that it is not there, and nobody can ask it for a picture."""
        about = {"instance": self._instance, "tick": clock.now(), "n": self._told}
        message = messages.encode({"kind": "tick", **about})
        self.connection.publish(self.branch.tick, message)

    def tell_state(self):
        self._told = len(self.ledger)
        self.connection.publish(self.branch.state, messages.encode(self.state()), retain=True)

    def heard(self, message):
        self.commands.append(message)
        request = json.loads(message.payload)
        if message.topic == self.branch.command("enter") and not self.is_silent:
            self.server.tokens.add(request["token"])
            answer = {"v": 1, "kind": "answer", **self._names, "ok": True}
            self.connection.publish(
                message.response, messages.encode(answer), correlation=message.correlation
            )

    def record(self, kind, publish=True, **fields):
        """Adds a record to the ledger, and publishes it unless it is to be lost."""
        record = {
            "v": 1,
            "n": len(self.ledger) + 1,
            "time": "2026-11-22T05:40:48.123Z",
            "kind": kind,
            **fields,
        }
        self.ledger.append(record)
        if publish:
            self.publish(record)
        return record

    def publish(self, record, **changes):
        message = {**record, **self._names}
        self._told = max(self._told, record["n"])
        if record["kind"] == "picture":
            message["url"] = "%sapi/pictures/%d" % (self.server.url, record["n"])
        message.update(changes)
        return self.connection.publish(
            self.branch.event(record["kind"]), messages.encode(message), ledger=self._identity
        )

    def shot(self, publish=True):
        self._shot += 1
        return self.record("shot", publish, shot=self._shot)

    def picture(self, data, publish=True, file=None, **changes):
        number = len(self.ledger) + 1
        self.pictures[number] = data
        return self.record(
            "picture",
            publish,
            file=file or "%s-%04d.JPG" % (self.name, number),
            size=len(data),
            sha256=hashlib.sha256(data).hexdigest(),
            shot=self._shot,
            origin="host" if self._shot else "body",
            format="JPEG",
            settings={"iso": "100"},
            **changes,
        )

    def close(self):
        self.end_ticks()
        state = {**self.state(False), "connection": "closed"}
        self.connection.close([(self.branch.state, messages.encode(state))])
        self.server.close()

    def kill(self):
        """Goes without a word, as a program does that is killed: the broker tells the will."""
        self.end_ticks()
        client = self.connection._client
        self.connection._closing.set()
        if client is not None:
            client.socket().shutdown(socket.SHUT_RDWR)
        self.server.close()


class Proxy:
    """Between a client and the broker: passes bytes on, until it is told to drop connections.

    Args:
        drops: a connection is dropped after so many blocks that the clients send; 0: never.
        one_in: of so many connections one is dropped in its middle; 0: none.
    """

    def __init__(self, port, drops=0, one_in=0):
        self._target = port
        self._drops = drops
        self._one_in = one_in
        self._blocks = 0
        self._connections = 0
        self.is_holding = threading.Event()  # bytes of the broker's wait while it is not set
        self.is_holding.set()
        self.is_refusing = False
        self._sockets = set()
        self._lock = threading.Lock()  # guards the sockets
        self.dropped = 0
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            try:
                if self.is_refusing:
                    raise OSError
                server = socket.create_connection(("127.0.0.1", self._target))
            except OSError:  # it is not there now
                client.close()
                continue
            with self._lock:
                self._sockets |= {client, server}
            self._connections += 1
            is_bad = self._one_in and self._connections % self._one_in == 0
            left = random.randrange(200, 200_000) if is_bad else None
            for one, other, counts in ((client, server, True), (server, client, False)):
                threading.Thread(
                    target=self._pass, args=(one, other, counts, left), daemon=True
                ).start()

    def _pass(self, one, other, counts, left):
        try:
            while True:
                data = one.recv(65536)
                if not data:
                    break
                if left is not None:
                    other.sendall(data[:left])
                    left -= len(data)
                    if left <= 0:
                        self.dropped += 1
                        break
                    continue
                if counts:
                    self._blocks += 1
                    if self._drops and self._blocks % self._drops == 0:
                        self.dropped += 1
                        break
                else:
                    self.is_holding.wait(DEADLINE)
                other.sendall(data)
        except OSError:
            pass
        for end in (one, other):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
        # Each way has closed what it reads from; both have ended then.
        with self._lock:
            self._sockets.discard(one)
        one.close()

    def close(self):
        self._listener.close()
        self._drop()

    def refuse(self):
        """Drops all connections, and those to come."""
        self.is_refusing = True
        self._drop()

    def accept(self):
        self.is_refusing = False

    def _drop(self):
        with self._lock:
            sockets = list(self._sockets)
        for one in sockets:
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)


class StudioTestCase(unittest.TestCase):
    """A test with a folder and a broker of its own."""

    is_open = False  # the broker lets everybody do everything
    has_persistence = True

    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-studio-")
        self.addCleanup(base.cleanup)
        self.base = pathlib.Path(os.path.realpath(base.name))
        (self.base / "broker").mkdir()
        self.folder = self.base / "studio"
        self.folder.mkdir()
        self.broker = Broker(str(self.base / "broker"), self.is_open, self.has_persistence)
        self.addCleanup(self.broker.stop)
        self.said = []

    def say(self, text):
        self.said.append(text)

    def wait_for_words(self, fragment):
        return wait_until(
            lambda: next((text for text in list(self.said) if fragment in text), None),
            lambda: "%r in %r" % (fragment, self.said),
        )

    def client(self, user=None, topics=(), password=None):
        client = Client(self.broker, user, topics, password)
        self.addCleanup(client.close)
        return client

    def simulated(self, name, **options):
        port = options.pop("port", None)
        user = None if self.is_open else name
        address = self.broker.address(user, port=port)
        station = SimulatedStation(address, "pta", name, **options).start()
        station.begin_ticks()
        self.addCleanup(station.close)
        return station

    def collected(self):
        """The files in the studio's folder, with their content."""
        return {
            str(path.relative_to(self.folder)).replace(os.sep, "/"): path.read_bytes()
            for path in self.folder.rglob("*")
            if path.is_file() and ".lumatie" not in path.parts
        }


def run_python(program, *arguments, **options):
    """Starts a Python program with the package, as a process of its own."""
    return subprocess.Popen([sys.executable, "-c", program, *arguments], **options)
