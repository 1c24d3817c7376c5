"""A page's web server: a thread with a loop of its own, and what stands in front of each route."""

import asyncio
import contextlib
import logging
import os
import socket
import sys
import threading
from typing import Any, Awaitable, Callable, List, NamedTuple, Optional

from aiohttp import web

from .gate import Gates
from .guard import LARGEST_BODY, Guard
from .tokens import Tokens

START_PATIENCE = 10.0
END_PATIENCE = 2.0
LINGER = 1.0  # seconds for the rest of a request that was refused
MOST_PENDING = 128  # connections that the system keeps waiting

LOOPBACK = "127.0.0.1"
ANYWHERE = "0.0.0.0"

_log = logging.getLogger("lumatie_host")

# The web library would log lines of requests that it cannot read, whatever stands in them.
_SILENT = logging.Logger("lumatie-web")
_SILENT.disabled = True

Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]


class Route(NamedTuple):
    """One of an interface's routes."""

    method: str
    path: str
    role: str
    handler: Handler


class Links(NamedTuple):
    """The addresses of a page: without a token, and with each of the two."""

    url: str
    operator: str
    viewer: str


class Web:
    """What every page's server is. Any thread may call, but for what begins with `_`.

    A page says what it answers in `_begin`, and what is to be done at the end in `_finish`.

    Args:
        port: what to listen on; 0: whatever is free.
        is_open: listen on the network, and not for this machine alone.
        viewers_rate: whether those who look may rate.
        thread: what the thread is called.
        tokens: those of the links; made anew where there are none.

    Raises:
        OSError: the port cannot be had.
    """

    def __init__(
        self,
        port: int,
        is_open: bool,
        viewers_rate: bool,
        thread: str,
        tokens: Optional[Tokens] = None,
    ) -> None:
        self._is_open = is_open
        self._viewers_rate = viewers_rate
        self.tokens = tokens or Tokens()
        self.socket = _listening(ANYWHERE if is_open else LOOPBACK, port)
        self.port = int(self.socket.getsockname()[1])
        self.cookie = "lumatie-%d" % self.port
        url = "http://%s:%d/" % (_own_address() if is_open else LOOPBACK, self.port)
        self.links = Links(
            url, "%s#%s" % (url, self.tokens.operator), "%s#%s" % (url, self.tokens.viewer)
        )
        self.routes: List[Route] = []
        self._loop: Optional[asyncio.AbstractEventLoop] = None
        self._ending: Optional[asyncio.Event] = None
        self._is_ready = threading.Event()
        self._is_over = threading.Event()
        self._thread = threading.Thread(target=self._run, name=thread, daemon=True)

    def start(self) -> None:
        """Returns when the page answers; raises RuntimeError when it does not."""
        self._thread.start()
        self._is_ready.wait(START_PATIENCE)
        if self._loop is None or self._is_over.is_set():
            raise RuntimeError("the page's server did not start")

    def wait(self, seconds: Optional[float] = None) -> bool:
        """Waits until it is closed; whether it is."""
        return self._is_over.wait(seconds)

    # What a page adds. All of it is called on the loop's thread.

    async def _begin(self) -> List[Route]:
        """All routes of the page; there are no others."""
        raise NotImplementedError

    def _begun(self) -> None:
        """The page answers from now on."""

    async def _finish(self) -> None:
        """Says goodbye to those who look; nothing new is answered any more."""

    # The loop.

    def _stop(self) -> None:
        """Ends the server, once the page has nothing more to tell. Any thread but the loop's."""
        self._on_loop(self._end)
        if self._thread.is_alive():
            self._thread.join(2 * END_PATIENCE)
        else:
            self.socket.close()
        self._is_over.set()

    def _on_loop(self, function: Callable[..., object], *arguments: Any) -> None:
        """Has something done on the loop, as long as there is one. Any thread."""
        loop = self._loop
        if loop is not None:
            with contextlib.suppress(RuntimeError):
                loop.call_soon_threadsafe(function, *arguments)

    def _run(self) -> None:
        try:
            asyncio.run(self._serve())
        except Exception:
            _log.exception("the page's server has ended by itself")
        finally:
            self._is_over.set()
            self._is_ready.set()

    async def _serve(self) -> None:
        loop = asyncio.get_event_loop()
        self._ending = asyncio.Event()
        self.routes = await self._begin()
        inner: List[web.Server] = []
        self.gates = gates = Gates(lambda: inner[0]())
        self.app = self._application(gates)
        runner = web.AppRunner(
            self.app,
            access_log=None,
            logger=_SILENT,
            handle_signals=False,
            lingering_time=LINGER,
            shutdown_timeout=0.2,
        )
        await runner.setup()
        if runner.server is not None:
            inner.append(runner.server)
        listener = await loop.create_server(gates, sock=self.socket, backlog=MOST_PENDING)
        self._loop = loop
        self._begun()
        self._is_ready.set()
        try:
            await self._ending.wait()
        finally:
            self._loop = None
            listener.close()
            await self._finish()
            await runner.cleanup()

    def _application(self, gates: Gates) -> web.Application:
        self.guard = guard = Guard(
            self.tokens,
            {(route.method, route.path): route.role for route in self.routes},
            *(gates, self.port, self._is_open, self._viewers_rate),
        )
        app = web.Application(middlewares=[guard.middleware()], client_max_size=LARGEST_BODY)
        app.on_response_prepare.append(guard.set_headers)
        for route in self.routes:
            app.router.add_route(route.method, route.path, route.handler)
            if route.method == "GET" and not route.path.endswith("/live"):
                app.router.add_route("HEAD", route.path, route.handler)
        return app

    def _end(self) -> None:
        if self._ending is not None:
            self._ending.set()


def _listening(host: str, port: int) -> socket.socket:
    """A socket that is bound; raises OSError."""
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        if sys.platform == "win32":
            # Without it another program could take the port over.
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_EXCLUSIVEADDRUSE, 1)
        elif os.name == "posix":
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((host, port))
        listener.listen(MOST_PENDING)
    except BaseException:
        listener.close()
        raise
    return listener


def _own_address() -> str:
    """The address at which others in the network find this machine."""
    probe = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        # Nothing is sent: the system only chooses the address that it would send from.
        probe.connect(("192.0.2.1", 9))
        return str(probe.getsockname()[0])
    except OSError:
        with contextlib.suppress(OSError):
            return socket.gethostbyname(socket.gethostname())
        return LOOPBACK
    finally:
        probe.close()
