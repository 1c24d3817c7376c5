"""What the tests of the page share: a server with a virtual camera, and ways to ask it."""

import contextlib
import socket

from answers import Asking
from camera_case import DEADLINE, CameraCase
from lumatie_host import Ledger
from lumatie_host.page.desk import Wanted
from lumatie_host.page.server import Server


class PageCase(Asking, CameraCase):
    """A fresh virtual camera, a fresh folder and a page; afterwards no thread may be left."""

    options = {}

    def setUp(self):
        super().setUp()
        self.server = None

    @property
    def page(self):
        return self.server

    def serve(self, wanted=None, **options):
        """Starts a page; the tests ask the one that was started last."""
        wanted = {"folder": self.folder, "virtual": self.maker, **(wanted or {})}
        self.server = Server(Wanted(**wanted), **{**self.options, **options})
        self.addCleanup(self.server.close)
        self.addCleanup(self.let_go)
        self.server.start()
        return self.server

    def serve_open(self, **options):
        """As `serve`, and waits until the camera is open."""
        server = self.serve(**options)
        self.wait_for_connection("open")
        return server

    # Asking.

    def shoot(self, **fields):
        """Takes a picture; its record."""
        answer = self.post("/api/shoot", fields)
        self.assertEqual(answer.status, 200, answer)
        picture = answer.json["pictures"][0]
        self.wait_for_n(picture["n"])
        return picture

    def raw(self, *lines, token=None, close=True):
        """A connection on which these lines of a head were sent, and the empty one behind them."""
        connection = self.connect()
        head = list(lines)
        if token is not None:
            head.append("Authorization: Bearer " + token)
        if close:
            head.append("Connection: close")
        connection.sendall(("\r\n".join(head) + "\r\n\r\n").encode("latin-1"))
        return connection

    def raw_status(self, *lines, **options):
        """The status that these lines are answered with; 0: with nothing."""
        with contextlib.closing(self.raw(*lines, **options)) as connection:
            answer = read_all(connection)
        return int(answer.split(b" ", 2)[1]) if answer.startswith(b"HTTP/") else 0

    def connect(self):
        connection = socket.create_connection(("127.0.0.1", self.server.port), DEADLINE)
        self.addCleanup(connection.close)
        return connection

    @property
    def host_line(self):
        return "Host: 127.0.0.1:%d" % self.server.port

    # Waiting.

    def wait_for_connection(self, *words):
        self.wait_for_state(lambda state: state["connection"] in words)

    def wait_for_n(self, n):
        """Waits until the page knows of a record."""
        self.wait_for_state(lambda state: state["n"] >= n)

    def record(self, kind, **fields):
        """Records something in the folder, as another program would; its number."""
        n = self.server.desk.ledger.append(kind, **fields).n
        self.server.desk._on_news()
        self.wait_for_n(n)
        return n

    def ledger(self, kind=None):
        return [one for one in Ledger(self.folder).read() if kind in (None, one["kind"])]


def read_all(connection, deadline=DEADLINE):
    """All bytes until the connection ends."""
    connection.settimeout(deadline)
    received = b""
    try:
        while True:
            block = connection.recv(65536)
            if not block:
                return received
            received += block
    except ConnectionError:
        return received
