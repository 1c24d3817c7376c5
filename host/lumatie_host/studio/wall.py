"""The studio's page: a wall of stations, served by a thread of its own."""

import logging
import threading
from typing import Any, Dict, List, Set

from ..page.live import Hub
from ..page.problems import VERSION
from ..page.web import Route, Web
from .overview import Overview
from .routes import Routes
from .studio import Studio

PORT = 8467
LOOK_EVERY = 0.25  # seconds between two looks at what no record tells
SOON = 0.02  # seconds after a hint
DISK_EVERY = 5.0

_log = logging.getLogger("lumatie_host")


class Wall(Web):
    """The page of a studio, which stays the caller's. Any thread may call.

    Args:
        port: what to listen on; 0: whatever is free.
        is_open: listen on the network, and not for this machine alone.

    Raises:
        OSError: the port cannot be had.
    """

    def __init__(self, studio: Studio, port: int = 0, is_open: bool = False) -> None:
        super().__init__(port, is_open, False, "lumatie-wall")
        self._studio = studio
        self._overview = Overview(studio)
        self._feed = studio.feed()
        self._hinted: Set[str] = set()  # stations that something was told of
        self._looks_soon = False
        self._is_closing = threading.Event()
        self._threads = [
            threading.Thread(target=self._follow, name="lumatie-wall-feed", daemon=True),
            threading.Thread(target=self._watch_disk, name="lumatie-wall-disk", daemon=True),
        ]

    def start(self) -> None:
        super().start()
        self._studio.on_preview = self._previewed
        for thread in self._threads:
            thread.start()

    def close(self) -> None:
        """Closes the page. Does nothing the second time."""
        if self._is_closing.is_set():
            return
        self._is_closing.set()
        self._feed.close()
        for thread in self._threads:
            if thread.is_alive():
                thread.join(2.0)
        self._stop()

    # What the studio tells, on threads.

    def _follow(self) -> None:
        while not self._feed.is_over:
            record = self._feed.take(1.0)
            if record is not None:
                self._on_loop(self._take, record)

    def _previewed(self, station: str, number: int) -> None:
        self._on_loop(self._tell_preview, station, number)

    def _watch_disk(self) -> None:
        while not self._is_closing.is_set():
            self._overview.look_at_disk()
            self._is_closing.wait(DISK_EVERY)

    # The loop.

    async def _begin(self) -> List[Route]:
        self._hub = Hub(
            self._overview.whole,
            lambda: self._studio.book.ledger.last,
            lambda since, upto: self._routes.replay(since, upto),
            self._count_viewers,
        )
        self._routes = Routes(
            *(self._studio, self._overview, self._hub, self.links, self.cookie),
            self._look_soon,
        )
        return self._routes.table()

    def _begun(self) -> None:
        self._look()

    async def _finish(self) -> None:
        await self._hub.close()
        await self._routes.close()

    def _take(self, record: Dict[str, Any]) -> None:
        station = record.get("station")
        if isinstance(station, str) and station:
            self._hinted.add(station)
        if self._overview.take(record):
            self._tell({"kind": "alarms", "alarms": self._overview.alarms})
        self._look_soon()

    def _look(self) -> None:
        """Tells what has changed, every now and then: not all of it is told by records."""
        loop = self._loop
        if loop is not None:
            loop.call_later(LOOK_EVERY, self._look)
            self._tell_changes(everything=True)

    def _look_soon(self) -> None:
        """Tells it after a hint; hints that come together are one."""
        loop = self._loop
        if loop is not None and not self._looks_soon:
            self._looks_soon = True
            loop.call_later(SOON, self._tell_changes)

    def _tell_changes(self, everything: bool = False) -> None:
        if not everything:
            self._looks_soon = False
        hinted, self._hinted = self._hinted, set()
        try:
            for tile in self._overview.look(None if everything else hinted):
                self._tell({"kind": "station", "station": tile})
            if self._overview.forget():
                self._tell({"kind": "alarms", "alarms": self._overview.alarms})
            changes = self._overview.changes()
        except Exception:
            _log.exception("the page could not be told how it stands")
            return
        if changes:
            self._tell({"kind": "status", **changes})

    def _count_viewers(self) -> None:
        self._overview.viewers = self._hub.count("viewer")
        self._look_soon()

    def _tell_preview(self, station: str, number: int) -> None:
        self._tell({"kind": "preview", "station": station, "of": number})

    def _tell(self, message: Dict[str, Any]) -> None:
        self._hub.tell({"v": VERSION, **message})
