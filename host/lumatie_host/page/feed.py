"""Reads the ledger as it grows, on a thread of its own, and passes the records on.

The session tells when there is something; what it was is read from the file, so that nothing is
missed, and what other programs record in the folder is there as well.
"""

import logging
import shutil
import threading
from typing import Any, Callable, Dict, List, Optional

from ..errors import TetherError
from ..ledger import Ledger
from .desk import Desk

LOOK_EVERY = 0.5  # seconds between two looks without a hint
DISK_EVERY = 5.0
MOST_AT_ONCE = 500  # records

Records = List[Dict[str, Any]]

_log = logging.getLogger("lumatie_host")


class Feed:
    """Follows the ledger of a desk.

    Args:
        on_ledger: called with a ledger and the number that it ends with, before its first records;
            with None and 0 when there is none any more.
        on_records: called with records, in their order.
        on_free: called with the bytes that are free on the folder's disk, None: not known.
            All three are called on the feed's thread.
    """

    def __init__(
        self,
        on_ledger: Callable[[Optional[Ledger], int], None],
        on_records: Callable[[Records], None],
        on_free: Callable[[Optional[int]], None],
    ) -> None:
        self._on_ledger = on_ledger
        self._on_records = on_records
        self._on_free = on_free
        self._news = threading.Event()
        self._is_over = False
        self._desk: Optional[Desk] = None
        self._ledger: Optional[Ledger] = None
        self._last = 0
        self._thread = threading.Thread(target=self._run, name="lumatie-feed", daemon=True)

    def start(self, desk: Desk) -> None:
        """Begins to follow."""
        self._desk = desk
        self._thread.start()

    def wake(self) -> None:
        """Something was recorded. Any thread."""
        self._news.set()

    def close(self) -> None:
        """Reads what there still is, and ends."""
        self._is_over = True
        self._news.set()
        if self._thread.is_alive():
            self._thread.join(2.0)

    def _run(self) -> None:
        looks, trouble = 0, ""
        while True:
            is_last = self._is_over
            try:
                self._look()
                if looks % int(DISK_EVERY / LOOK_EVERY) == 0:
                    self._look_at_disk()
                trouble = ""
            except (OSError, TetherError) as error:
                if str(error) != trouble:
                    _log.warning("the record of the shoot cannot be read: %s", error)
                trouble = str(error)
            except Exception:
                _log.exception("the feed met an error of its own")
            if is_last:
                return
            if not self._news.wait(LOOK_EVERY):
                looks += 1
            self._news.clear()

    def _look(self) -> None:
        desk = self._desk
        if desk is None:
            return
        desk.drain()
        ledger = desk.ledger
        if ledger is not None:
            with ledger.exclusive():
                pass  # looks whether there is more
        if ledger is not self._ledger:
            self._ledger, self._last = ledger, 0
            self._on_ledger(ledger, 0 if ledger is None else ledger.last)
        if ledger is None:
            return
        if ledger.last <= self._last:
            return
        batch: Records = []
        for record in ledger.read(self._last):
            batch.append(record)
            self._last = record["n"]
            if len(batch) == MOST_AT_ONCE:
                self._on_records(batch)
                batch = []
        if batch:
            self._on_records(batch)

    def _look_at_disk(self) -> None:
        if self._desk is None or self._ledger is None:
            return
        try:
            self._on_free(shutil.disk_usage(self._ledger.folder).free)
        except OSError:
            self._on_free(None)
