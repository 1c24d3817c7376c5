"""The sockets of the page: each has a queue with a limit, and none of them waits for another.

All of it belongs to the loop's thread. A message is made into a text once, for all who get it.
"""

import asyncio
import collections
import contextlib
import json
from typing import Any, AsyncIterator, Callable, Deque, List, Optional, Set, Union

from aiohttp import WSCloseCode, WSMsgType, web

from .problems import dumped

HEARTBEAT = 20.0  # seconds
LIMIT = 500  # messages that wait for one client
LONGEST_MESSAGE = 1024  # bytes that a client may send
CLOSE_PATIENCE = 0.5  # seconds for a client to say goodbye
_REPLAYS = 20  # that a client may ask for within...
_REPLAYS_IN = 10.0  # seconds

Records = AsyncIterator[List[str]]


class _Message:
    """A text, and the number of the record that it is; 0: it is none."""

    __slots__ = ("n", "text")

    def __init__(self, text: str, n: int = 0) -> None:
        self.text = text
        self.n = n


class _Replay:
    """The records from `since` on, up to `upto`, are to be sent at this place."""

    __slots__ = ("since", "upto")

    def __init__(self, since: int, upto: int) -> None:
        self.since = since
        self.upto = upto


class Client:
    """One socket.

    Args:
        hub: whose it is.
        role: who is behind it.
    """

    def __init__(self, hub: "Hub", role: str) -> None:
        self.role = role
        self._hub = hub
        self._queue: Deque[Union[_Message, _Replay]] = collections.deque()
        self._has_some = asyncio.Event()
        self.socket = web.WebSocketResponse(
            heartbeat=HEARTBEAT,
            max_msg_size=LONGEST_MESSAGE,
            compress=False,
            timeout=CLOSE_PATIENCE,
        )
        self._transport: Optional[asyncio.Transport] = None
        self._asked: Deque[float] = collections.deque(maxlen=_REPLAYS)

    def put(self, message: Union[_Message, _Replay]) -> None:
        """Adds something to be sent; one who is too slow loses what waits, and is told so."""
        self._queue.append(message)
        if len(self._queue) > LIMIT:
            self._give_up()
        self._has_some.set()

    def _give_up(self) -> None:
        numbers = [item.n for item in self._queue if isinstance(item, _Message) and item.n]
        for item in self._queue:
            if isinstance(item, _Replay) and item.upto > item.since:
                numbers += [item.since + 1, item.upto]
        self._queue.clear()
        if numbers:
            lagged = {"kind": "lagged", "first": min(numbers), "last": max(numbers)}
            self._queue.append(_Message(self._hub.text(lagged)))
        # What has changed meanwhile was lost with the rest.
        self._queue.append(_Message(self._hub.state_text(self.role)))

    async def run(self, request: web.Request, since: Optional[int]) -> web.WebSocketResponse:
        """Serves the socket to its end."""
        self._transport = request.transport
        await self.socket.prepare(request)
        self.put(_Message(self._hub.state_text(self.role)))
        if since is not None:
            self.put(_Replay(since, self._hub.last()))
        self._hub.add(self)
        writer = asyncio.ensure_future(self._write())
        try:
            await self._read()
        finally:
            self._hub.remove(self)
            writer.cancel()
            with contextlib.suppress(asyncio.CancelledError, ConnectionError):
                await writer
        return self.socket

    async def _read(self) -> None:
        async for message in self.socket:
            since = since_of(message.data) if message.type is WSMsgType.TEXT else None
            if since is None or self._asks_too_often():
                await self.socket.close(code=WSCloseCode.POLICY_VIOLATION)
                return
            self.put(_Replay(since, self._hub.last()))

    def _asks_too_often(self) -> bool:
        now = asyncio.get_event_loop().time()
        is_full = len(self._asked) == _REPLAYS and now - self._asked[0] < _REPLAYS_IN
        self._asked.append(now)
        return is_full

    async def _write(self) -> None:
        try:
            while True:
                while not self._queue:
                    self._has_some.clear()
                    await self._has_some.wait()
                item = self._queue.popleft()
                if isinstance(item, _Message):
                    await self.socket.send_str(item.text)
                    continue
                async for texts in self._hub.replay(item.since, item.upto):
                    for text in texts:
                        await self.socket.send_str(text)
        except (ConnectionError, RuntimeError):
            # Nobody takes it any more. One that says goodbye at this moment may do so.
            if not self.socket.closed:
                self.abort()

    @property
    def is_idle(self) -> bool:
        """Whether nothing waits to be sent."""
        return not self._queue

    def abort(self) -> None:
        """Ends the connection at once."""
        if self._transport is not None:
            self._transport.abort()


class Hub:
    """All sockets of a page.

    Args:
        state: the whole state, for a role.
        last: the number of the ledger's last record.
        replay: the texts of records, from a number on up to another.
        on_change: called when somebody comes or goes.
    """

    def __init__(
        self,
        state: Callable[[str], Any],
        last: Callable[[], int],
        replay: Callable[[int, int], Records],
        on_change: Callable[[], None],
    ) -> None:
        self._state = state
        self.last = last
        self.replay = replay
        self._on_change = on_change
        self._clients: Set[Client] = set()

    def count(self, role: Optional[str] = None) -> int:
        """How many sockets there are, of a role or at all."""
        return sum(role in (None, client.role) for client in self._clients)

    def add(self, client: Client) -> None:
        """A client gets what is told from now on."""
        self._clients.add(client)
        self._on_change()

    def remove(self, client: Client) -> None:
        """A client has gone."""
        self._clients.discard(client)
        self._on_change()

    def text(self, message: Any) -> str:
        """A message that is no record, with the number that the ledger is at."""
        return dumped({"n": self.last(), **message})

    def state_text(self, role: str) -> str:
        """The whole state."""
        return dumped(self._state(role))

    def tell(self, message: Any) -> None:
        """Tells everybody something that is no record."""
        self._put(_Message(self.text(message)))

    def tell_record(self, record: Any) -> None:
        """Tells everybody a record."""
        self._put(_Message(dumped(record), record["n"]))

    def tell_state(self) -> None:
        """Tells everybody the whole state."""
        for client in self._clients:
            client.put(_Message(self.state_text(client.role)))

    async def close(self) -> None:
        """Sends what waits to those who take it, and says goodbye to everybody."""
        for _ in range(20):
            if all(client.is_idle for client in self._clients):
                break
            await asyncio.sleep(0.01)
        closing = [
            client.socket.close(code=WSCloseCode.GOING_AWAY, message=b"the page is closed")
            for client in list(self._clients)
        ]
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(
                asyncio.gather(*closing, return_exceptions=True), 2 * CLOSE_PATIENCE
            )

    def _put(self, message: _Message) -> None:
        for client in self._clients:
            client.put(message)


def since_of(text: str) -> Optional[int]:
    """The number of `{"since": N}`; None for everything else."""
    try:
        told = json.loads(text)
    except (ValueError, RecursionError):
        return None
    if not isinstance(told, dict) or set(told) != {"since"}:
        return None
    since = told["since"]
    return since if type(since) is int and 0 <= since < 2**53 else None
