"""A maker's library, asked directly: the questions of one session, whichever maker's it is.

Runs in a process of its own, for a library that crashes or hangs takes its process with it.
"""

import abc
import contextlib
from typing import Callable, Iterator, List, Tuple

from . import pace
from .records import Overruns
from .teller import Evidence, No, Teller

EVENT_PATIENCE = 2.0
LATE = 0.5  # seconds after which an event is too late for a person who waits for it


class Direct(abc.ABC):
    """A session with a camera, past the module `Lumatie`.

    A question returns its evidence or raises an Answer; `run` has their order.
    """

    def __init__(self, tell: Teller, path: str) -> None:
        self._tell = tell
        self._path = path
        self._overruns = Overruns()
        self._events: List[Tuple[float, int, int]] = []  # time, event, what it is about

    def run(self) -> None:
        """Asks all points; leaves no session open, whatever comes."""
        ask = self._tell.ask
        with self._library_loaded():
            if (
                ask("session.starts", self._start)
                and ask("session.camera", self._find)
                and ask("messages.handlers", self._take_handlers)
                and ask("session.opens", self._open)
            ):
                if ask("session.prepared", self._make_ready):
                    self._measure()
                ask("session.closes", self._close)

    def put_back(self, what: int, value: int) -> None:
        """Sets a value to what it was, as a point, for a process that could not any more."""
        with self._library_loaded():
            self._start()
            self._find()
            self._open()
            self._set_back(what, value)
            self._close()

    def _ask_ready(self, point_id: str, question: Callable[[], Evidence]) -> None:
        """Asks nothing but this, of a camera that is made ready; leaves no session open."""
        with self._library_loaded():
            self._start()
            self._find()
            self._take_handlers()
            self._open()
            self._make_ready()
            self._tell.ask(point_id, question)
            self._close()

    @contextlib.contextmanager
    def _library_loaded(self) -> Iterator[None]:
        pace.prepare()
        self._load()
        try:
            yield
        finally:
            self._give_back()

    def _measure(self) -> None:
        ask = self._tell.ask
        ask("records.behind", self._look_behind)
        ask("records.sizes", self._look_at_sizes)
        ask("records.counts", self._look_at_counts)
        ask("records.texts", self._look_at_texts)
        ask("session.texts", self._look_at_bytes)
        ask("session.codes", self._look_at_codes)
        if ask("messages.events", self._look_at_events):
            ask("messages.pace", self._look_at_pace)

    def _look_behind(self) -> Evidence:
        self._read_all()
        self._check_overruns()
        filled = sorted(set(self._overruns.filled))
        return "%d records filled" % len(filled), {"records": filled}

    def _check_overruns(self) -> None:
        """Raises No when something was written behind a record."""
        if self._overruns.findings:
            raise No("written behind %s" % "; ".join(self._overruns.findings))

    # The session.

    @abc.abstractmethod
    def _load(self) -> None:
        """Loads the library."""

    @abc.abstractmethod
    def _start(self) -> Evidence: ...

    @abc.abstractmethod
    def _find(self) -> Evidence: ...

    @abc.abstractmethod
    def _take_handlers(self) -> Evidence: ...

    @abc.abstractmethod
    def _open(self) -> Evidence: ...

    @abc.abstractmethod
    def _make_ready(self) -> Evidence: ...

    @abc.abstractmethod
    def _close(self) -> Evidence: ...

    @abc.abstractmethod
    def _give_back(self) -> None:
        """Closes what is open still, after something went wrong."""

    @abc.abstractmethod
    def _set_back(self, what: int, value: int) -> None:
        """Sets a value of the open camera."""

    # What records hold.

    @abc.abstractmethod
    def _read_all(self) -> None:
        """Has every record filled that the next questions look at."""

    @abc.abstractmethod
    def _look_at_sizes(self) -> Evidence: ...

    @abc.abstractmethod
    def _look_at_counts(self) -> Evidence: ...

    @abc.abstractmethod
    def _look_at_texts(self) -> Evidence: ...

    @abc.abstractmethod
    def _look_at_bytes(self) -> Evidence: ...

    @abc.abstractmethod
    def _look_at_codes(self) -> Evidence: ...

    # Events.

    @abc.abstractmethod
    def _look_at_events(self) -> Evidence: ...

    @abc.abstractmethod
    def _look_at_pace(self) -> Evidence: ...
