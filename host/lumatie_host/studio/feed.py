"""What the studio tells those who listen, each with a bounded place of its own to wait in."""

import collections
import threading
import time
from typing import Any, Deque, Dict, List, Optional

LIMIT = 10_000  # records that wait for one listener

Record = Dict[str, Any]


class Feed:
    """Records for one listener. Any thread may call."""

    def __init__(self, owner: "Feeds") -> None:
        self._owner = owner
        self._changed = threading.Condition()
        self._waiting: Deque[Record] = collections.deque(maxlen=LIMIT)
        self._dropped = 0
        self._is_closed = False

    def put(self, record: Record) -> None:
        """Adds one; the oldest gives way when the listener is too slow."""
        with self._changed:
            self._dropped += len(self._waiting) == LIMIT
            self._waiting.append(record)
            self._changed.notify()

    def take(self, timeout: Optional[float] = None) -> Optional[Record]:
        """The next one; None when there is none in time, or none will come.

        After records were dropped it is `{"kind": "lagged", "count": ...}`.
        """
        end = None if timeout is None else time.monotonic() + timeout
        with self._changed:
            while not self._waiting and not self._is_closed:
                left = None if end is None else end - time.monotonic()
                if left is not None and left <= 0:
                    return None
                self._changed.wait(left)
            if self._dropped:
                lagged = {"kind": "lagged", "count": self._dropped}
                self._dropped = 0
                return lagged
            return self._waiting.popleft() if self._waiting else None

    def close(self) -> None:
        """Ends it: what waits can still be taken."""
        self._owner.remove(self)
        with self._changed:
            self._is_closed = True
            self._changed.notify_all()

    @property
    def is_over(self) -> bool:
        """Whether it is closed, and nothing waits."""
        with self._changed:
            return self._is_closed and not self._waiting


class Feeds:
    """All listeners. Any thread may call."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._feeds: List[Feed] = []

    def open(self) -> Feed:
        """A listener's, from now on until it is closed."""
        feed = Feed(self)
        with self._lock:
            self._feeds.append(feed)
        return feed

    def put(self, record: Record) -> None:
        """Tells all of them."""
        with self._lock:
            feeds = list(self._feeds)
        for feed in feeds:
            feed.put(record)

    def remove(self, feed: Feed) -> None:
        with self._lock:
            if feed in self._feeds:
                self._feeds.remove(feed)

    def close(self) -> None:
        """Ends all of them."""
        with self._lock:
            feeds = list(self._feeds)
        for feed in feeds:
            feed.close()
