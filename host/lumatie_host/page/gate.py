"""Connections before there is a request: how many there are, and how long they may dawdle.

The web library counts neither. A gate stands between a connection and the library's own protocol,
passes everything on, and ends what would hold a place for nothing.
"""

import asyncio
import weakref
from typing import Callable, Dict, MutableMapping, Optional, Set, cast

HEAD_PATIENCE = 15.0  # seconds from the connection, or the last answer, to a whole request
KEEP_PATIENCE = 75.0  # the same for those who have shown a token
WRITE_PATIENCE = 60.0  # seconds for a client to take what is sent
MOST = 600  # connections
MOST_KNOWN = 500  # of those that have shown a token


class Gate(asyncio.Protocol):
    """One connection; `inner` is the web library's protocol."""

    def __init__(self, gates: "Gates", inner: asyncio.Protocol) -> None:
        self._gates = gates
        self._inner = inner
        self._transport: Optional[asyncio.Transport] = None
        self._timer: Optional[asyncio.TimerHandle] = None
        self._stuck: Optional[asyncio.TimerHandle] = None
        self.is_busy = False

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        """As asyncio calls it, like those that follow."""
        self._transport = cast(asyncio.Transport, transport)
        self._inner.connection_made(transport)
        self._gates.opened(self, self._transport)
        self._wait_for_head()

    def connection_lost(self, error: Optional[Exception]) -> None:
        self._stop_timer()
        self.resume_writing(is_told=False)
        if self._transport is not None:
            self._gates.closed(self, self._transport)
        self._inner.connection_lost(error)

    def data_received(self, data: bytes) -> None:
        self._inner.data_received(data)

    def eof_received(self) -> Optional[bool]:
        return self._inner.eof_received()

    def pause_writing(self) -> None:
        self._stuck = asyncio.get_event_loop().call_later(WRITE_PATIENCE, self.abort)
        self._inner.pause_writing()

    def resume_writing(self, is_told: bool = True) -> None:
        if self._stuck is not None:
            self._stuck.cancel()
            self._stuck = None
        if is_told:
            self._inner.resume_writing()

    def request_began(self) -> None:
        """A request's head is there."""
        self.is_busy = True
        self._stop_timer()

    def request_ended(self) -> None:
        """Its answer is there; the next one may come."""
        self.is_busy = False
        self._wait_for_head()

    def abort(self) -> None:
        """Ends the connection at once."""
        if self._transport is not None:
            self._transport.abort()

    def _wait_for_head(self) -> None:
        self._stop_timer()
        patience = KEEP_PATIENCE if self._gates.knows(self) else HEAD_PATIENCE
        self._timer = asyncio.get_event_loop().call_later(patience, self.abort)

    def _stop_timer(self) -> None:
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None


class Gates:
    """All connections of a server. They belong to the loop's thread.

    When there are too many, one that has shown no token makes room for the new one; so strangers
    never keep those out who have one.
    """

    def __init__(self, factory: Callable[[], asyncio.Protocol]) -> None:
        self._factory = factory
        # In the order in which they came.
        self._open: Dict[Gate, None] = {}
        self._by_transport: MutableMapping[asyncio.Transport, Gate] = weakref.WeakKeyDictionary()
        self._known: Set[Gate] = set()

    def __call__(self) -> Gate:
        return Gate(self, self._factory())

    def __len__(self) -> int:
        return len(self._open)

    def of(self, transport: Optional[asyncio.BaseTransport]) -> Optional[Gate]:
        """The gate of a request's transport."""
        if transport is None:
            return None
        return self._by_transport.get(cast(asyncio.Transport, transport))

    def opened(self, gate: Gate, transport: asyncio.Transport) -> None:
        """A connection was made."""
        self._open[gate] = None
        self._by_transport[transport] = gate
        if len(self._open) > MOST:
            leaving = self._stranger() or gate
            self._open.pop(leaving, None)  # its end is told a moment later
            leaving.abort()

    def closed(self, gate: Gate, transport: asyncio.Transport) -> None:
        """A connection has ended."""
        self._open.pop(gate, None)
        self._known.discard(gate)
        self._by_transport.pop(transport, None)

    def know(self, gate: Gate) -> bool:
        """Whoever has this connection has shown a token; False when there are too many of them."""
        if gate in self._known:
            return True
        if len(self._known) >= MOST_KNOWN:
            return False
        self._known.add(gate)
        return True

    def knows(self, gate: Gate) -> bool:
        """Whether a token was shown on a connection."""
        return gate in self._known

    def _stranger(self) -> Optional[Gate]:
        """The oldest connection of nobody known, best one that has no request."""
        strangers = [gate for gate in self._open if gate not in self._known]
        idle = next((gate for gate in strangers if not gate.is_busy), None)
        return idle or next(iter(strangers), None)
