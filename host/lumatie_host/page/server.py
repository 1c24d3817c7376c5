"""The tether page's server, around the desk that owns the camera."""

import logging
import threading
from typing import Any, Callable, Dict, List, Optional

from ..ledger import Ledger
from .book import Book
from .desk import Desk, Wanted
from .feed import Feed, Records
from .live import Hub
from .previews import Previews
from .problems import VERSION
from .routes import Routes
from .sequence import Sequences
from .state import State
from .tokens import Tokens
from .web import END_PATIENCE, Route, Web

PORT = 8466
LOOK_EVERY = 0.25  # seconds between two looks at what no record tells
SOON = 0.01  # seconds after a hint
BRACKET_PATIENCE = 5.0  # for a bracket to set its setting back

_log = logging.getLogger("lumatie_host")


class Server(Web):
    """A page, and the camera behind it. Any thread may call.

    It answers before the camera is open, and stays when there is none.

    Args:
        wanted: what is opened.
        port: what to listen on; 0: whatever is free.
        is_open: listen on the network, and not for this machine alone.
        viewers_rate: whether those who look may rate.
        on_record: called with each record of the folder from the start on, on the feed's thread.
        tokens: those of the links; made anew where there are none.
    """

    def __init__(
        self,
        wanted: Wanted,
        port: int = 0,
        is_open: bool = False,
        viewers_rate: bool = False,
        on_record: Callable[[Dict[str, Any]], None] = lambda record: None,
        tokens: Optional[Tokens] = None,
    ) -> None:
        super().__init__(port, is_open, viewers_rate, "lumatie-page", tokens)
        self._on_record = on_record
        self._since = 0  # records up to this number were there before
        self._has_ledger = False
        self.desk = Desk(wanted, lambda: self._feed.wake())
        self._feed = Feed(self._take_ledger, self._take_records, self._take_free)
        self._previews = Previews(lambda n: self._on_loop(self._tell_preview, n))
        self._sequences = Sequences()
        self._state = State(self.desk, self._sequences, viewers_rate)
        self._looks_soon = False
        self._lock = threading.Lock()  # guards the next one
        self._is_closing = False

    @property
    def sequences(self) -> Sequences:
        """The sequence that runs, or that ran last."""
        return self._sequences

    def start(self) -> None:
        super().start()
        self._feed.start(self.desk)
        self.desk.start()

    def close(self) -> None:
        """Closes the camera, tells so, then closes the page. It takes up to 2 seconds, as the
        camera does, and longer with a bracket that has to set its setting back.
        """
        with self._lock:
            is_first = not self._is_closing
            self._is_closing = True
        if not is_first:
            self._is_over.wait(END_PATIENCE + BRACKET_PATIENCE)
            return
        self._sequences.close(BRACKET_PATIENCE)
        self.desk.close()
        self._feed.close()
        self._previews.close()
        self._stop()

    # The loop.

    async def _begin(self) -> List[Route]:
        self._hub = Hub(
            self._state.whole,
            lambda: self._state.book.last,
            lambda since, upto: self._routes.replay(since, upto),
            self._count_viewers,
        )
        self._routes = Routes(
            *(self.desk, self._state, self._sequences, self._hub, self._previews),
            *(self.links, self.cookie),
        )
        return self._routes.table()

    def _begun(self) -> None:
        self._look()

    async def _finish(self) -> None:
        self._tell_changes()
        await self._hub.close()
        self._routes.close()

    def _look(self) -> None:
        """Tells what has changed, every now and then: not all of it is told by records."""
        loop = self._loop
        if loop is not None:
            loop.call_later(LOOK_EVERY, self._look)
            self._tell_changes()

    def _look_soon(self) -> None:
        """The same after a hint; hints that come together are one."""
        loop = self._loop
        if loop is not None and not self._looks_soon:
            self._looks_soon = True
            loop.call_later(SOON, self._tell_changes)

    def _tell_changes(self) -> None:
        self._looks_soon = False
        if not self._state.is_loaded:
            return
        try:
            changes = self._state.changes()
        except Exception:
            _log.exception("the page could not be told how it stands")
            return
        if changes:
            self._hub.tell({"v": VERSION, "kind": "status", **changes})

    def _count_viewers(self) -> None:
        self._state.viewers = self._hub.count("viewer")
        self._look_soon()

    def _tell_preview(self, n: int) -> None:
        self._hub.tell({"v": VERSION, "kind": "preview", "n": n})

    # The feed.

    def _take_ledger(self, ledger: Optional[Ledger], last: int) -> None:
        self._since = last
        self._on_loop(self._begin_ledger, ledger, last)

    def _take_records(self, records: Records) -> None:
        self._on_loop(self._tell_records, records)
        for record in records:
            if record["n"] > self._since:
                self._on_record(record)

    def _take_free(self, free: Optional[int]) -> None:
        self._on_loop(self._set_free, free)

    def _begin_ledger(self, ledger: Optional[Ledger], last: int) -> None:
        self._state.begin(ledger, Book(last))
        if last == 0:
            self._hub.tell_state()

    def _set_free(self, free: Optional[int]) -> None:
        self._state.free = free
        self._look_soon()

    def _tell_records(self, records: Records) -> None:
        book = self._state.book
        is_new = records[-1]["n"] > book.since
        was_whole = book.is_whole
        entry = None
        for record in records:
            entry = book.take(record) or entry
            if record["n"] > book.since:
                self._hub.tell_record(record)
        if entry is not None and is_new:
            self._previews.announce(self._routes.source(entry))
        if book.is_whole and not was_whole:
            self._hub.tell_state()
        self._look_soon()
