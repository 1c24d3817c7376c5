"""What the tests of pages share: ways to ask one, and what it answers."""

import asyncio
import contextlib
import functools
import json
import time
from http.client import HTTPConnection

import aiohttp
from virtual_cameras import wait_until

DEADLINE = 30.0  # seconds for anything to happen


class Answer:
    """What came back: status, headers, body."""

    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    @property
    def json(self):
        return json.loads(self.body.decode())

    def __repr__(self):
        return "%d %r" % (self.status, self.body[:300])


class Asking:
    """What a test case of a page inherits; `page` is the one that is asked."""

    @property
    def operator(self):
        return self.page.tokens.operator

    @property
    def viewer(self):
        return self.page.tokens.viewer

    def ask(self, method, path, body=None, token="operator", headers=None, host=None):
        """One request on a connection of its own; `token` is a role, a token or None."""
        if token in ("operator", "viewer"):
            token = getattr(self, token)
        lines = {} if token is None else {"Authorization": "Bearer " + token}
        lines.update(headers or {})
        if body is not None and not isinstance(body, bytes):
            body = json.dumps(body).encode()
        connection = HTTPConnection(host or "127.0.0.1", self.page.port, timeout=DEADLINE)
        try:
            connection.request(method, path, body, lines)
            response = connection.getresponse()
            return Answer(response.status, response.headers, response.read())
        finally:
            connection.close()

    def get(self, path, **options):
        return self.ask("GET", path, **options)

    def post(self, path, body=None, **options):
        return self.ask("POST", path, {} if body is None else body, **options)

    def state(self, **options):
        return self.get("/api/state", **options).json

    def wait_for_state(self, predicate):
        told = {}

        def is_so():
            told.update(self.state())
            return predicate(told)

        wait_until(is_so, lambda: "the state is %s" % told)
        return told

    def run_async(self, function):
        """Runs a coroutine function with a client session; a deadline ends it."""

        async def run():
            self.pages = []
            async with aiohttp.ClientSession() as client:
                try:
                    return await asyncio.wait_for(function(client), 2 * DEADLINE)
                finally:
                    for page in self.pages:
                        with contextlib.suppress(asyncio.TimeoutError):
                            await asyncio.wait_for(page.socket.close(), 1.0)

        return asyncio.run(run())

    async def live(self, client, token="operator", since=None, path="/api/live", **options):
        """A socket of the page."""
        token = getattr(self, token, token)
        query = "" if since is None else "?since=%s" % since
        page = Live(
            await client.ws_connect(
                "http://127.0.0.1:%d%s%s" % (self.page.port, path, query),
                headers={"Authorization": "Bearer " + token, **options.pop("headers", {})},
                **options,
            )
        )
        self.pages.append(page)
        return page

    @staticmethod
    async def beside(function, *arguments, **options):
        """Does something that takes time on another thread."""
        call = functools.partial(function, *arguments, **options)
        return await asyncio.get_event_loop().run_in_executor(None, call)


class Live:
    """One socket of the page, and what came."""

    def __init__(self, socket):
        self.socket = socket
        self.seen = []
        self._code = None  # of the close that was received

    async def next(self, deadline=DEADLINE):
        """The next message; None at the end."""
        message = await asyncio.wait_for(self.socket.receive(), deadline)
        if message.type is aiohttp.WSMsgType.CLOSE:
            self._code = message.data
        if message.type is not aiohttp.WSMsgType.TEXT:
            return None
        told = json.loads(message.data)
        self.seen.append(told)
        return told

    async def until(self, predicate):
        """The first message of which something holds."""
        end = time.monotonic() + DEADLINE
        while True:
            told = await self.next(max(0.1, end - time.monotonic()))
            if told is None:
                raise AssertionError("the socket has ended; there came %s" % self.kinds())
            if _holds(predicate, told):
                return told

    async def has(self, predicate):
        """The first message of which something holds, those before included."""
        for told in self.seen:
            if _holds(predicate, told):
                return told
        return await self.until(predicate)

    async def kind(self, kind, **fields):
        """The first message of a kind, with these fields."""
        return await self.until(
            lambda told: told["kind"] == kind
            and all(told.get(name) == value for name, value in fields.items())
        )

    async def each(self, *predicates):
        """Waits until each of these holds of a message that comes from now on, in any order."""
        waiting = list(predicates)

        def was_last(told):
            waiting[:] = [predicate for predicate in waiting if not predicate(told)]
            return not waiting

        await self.until(was_last)

    async def end(self):
        """The code that the page closes the socket with."""
        while await self.next() is not None:
            pass
        # The library forgets the code when its own goodbye meets a connection that is gone.
        return self.socket.close_code if self._code is None else self._code

    def kinds(self):
        return [(told["kind"], told.get("n")) for told in self.seen]


def _holds(predicate, told):
    """Whether something holds of a message; not of one without what is looked at."""
    try:
        return predicate(told)
    except KeyError:
        return False
