"""The words `station` and `studio`: a camera that is one of several, and the desk of all."""

import time
from typing import TYPE_CHECKING, Optional

from ..errors import NoAnswer
from ..session import Session
from .arguments import Options
from .camera import SHOT_PATIENCE, chosen_folder
from .console import Console
from .control import Control
from .records import Records
from .serve import DONE, OPEN_TO_ALL, lacks, refuse_port, tell_links, wanted_of

if TYPE_CHECKING:
    from ..page.server import Server
    from ..studio.feed import Feed
    from ..studio.keys import StationTokens
    from ..studio.station import Station
    from ..studio.studio import Studio
    from ..studio.wall import Wall

_EXTRAS = "extras: pip install lumatie[page,studio]"
_LOOPBACK = ("127.0.0.1", "localhost", "::1")


def run_station(options: Options, console: Console, control: Control) -> int:
    """A station until it is stopped; the exit status. Raises TetherError."""
    try:
        from ..page.server import Server
        from ..studio.keys import StationTokens
    except ImportError as error:
        return lacks(console, error, "a station", _EXTRAS)
    from ..studio.topics import check_name

    check_name("studio", options.studio)
    station = check_name("station", options.name)
    wanted = wanted_of(options, console, options.template or "{original}", station)
    records = Records(console, control, {"studio": options.studio, "station": options.name})
    # With a broker on this machine the studio is taken to be here, too.
    is_open = options.broker.host not in _LOOPBACK
    port = options.port or 0
    try:
        server = Server(wanted, port, is_open, on_record=records.put)
    except OSError as error:
        return refuse_port(console, error, port)
    records.begin()
    tokens = StationTokens(server.tokens)
    server.tokens = tokens
    work = _StationWork(server)
    try:
        control.adopt(work)
        server.start()
        session = _session(server, control, wanted.timeout)
        if session is not None:
            work.begin(options, console, session, tokens)
            while not (server.wait(0.2) or control.is_stopped):
                pass
    finally:
        work.close()
        control.is_output_stuck = not records.finish()
    return DONE


def _session(server: "Server", control: Control, patience: float) -> Optional[Session]:
    """The session as soon as it is open; None when the work is to end. Raises TetherError."""
    deadline = time.monotonic() + 2 * patience
    while not control.is_stopped:
        session, error = server.desk.session, server.desk.error
        if session is not None:
            return session
        if error is not None:
            raise error
        if time.monotonic() > deadline:
            raise NoAnswer(2 * patience, "open")
        server.wait(0.05)
    return None


class _StationWork:
    """What is closed when a station is to end: the camera, then its name, then its pictures."""

    def __init__(self, server: "Server") -> None:
        self._server = server
        self._station: Optional["Station"] = None

    def begin(
        self, options: Options, console: Console, session: Session, tokens: "StationTokens"
    ) -> None:
        """Joins the studio; raises TetherError."""
        from ..studio.station import Station

        console.say("This station's page: %s" % self._server.links.operator)
        station = Station(
            session,
            self._server.links.url,
            self._server.sequences,
            tokens.admit,
            options.broker,
            options.studio,
            options.name,
            console.complain,
        )
        self._station = station
        station.start()

    def close(self) -> None:
        """Does nothing the second time."""
        self._server.desk.close()
        station, self._station = self._station, None
        if station is not None:
            station.close()
        self._server.close()


class _StudioWork:
    """What is closed when a studio is to end: first what it does, then its page."""

    def __init__(self, studio: "Studio", wall: "Wall") -> None:
        self._studio = studio
        self._wall = wall

    def close(self) -> None:
        """Does nothing the second time."""
        self._studio.close()
        self._wall.close()


def run_studio(options: Options, console: Console, control: Control) -> int:
    """The studio's desk until it is stopped; the exit status. Raises TetherError."""
    try:
        from ..studio.studio import Studio
        from ..studio.wall import PORT, Wall
    except ImportError as error:
        return lacks(console, error, "a studio", _EXTRAS)
    folder = chosen_folder(options, console)
    patience = options.timeout or SHOT_PATIENCE
    studio = Studio(options.broker, options.studio, folder, console.complain, patience)
    port = PORT if options.port is None else options.port
    try:
        try:
            wall = Wall(studio, port, options.lan)
        except OSError:
            if options.port is not None:
                raise
            wall = Wall(studio, 0, options.lan)  # another studio of this machine has the usual one
    except OSError as error:
        studio.close()
        return refuse_port(console, error, port)
    records = Records(console, control, {})
    work = _StudioWork(studio, wall)
    try:
        control.adopt(work)
        feed = studio.feed()
        wall.start()
        studio.start()
        if options.lan:
            console.say(OPEN_TO_ALL)
        if tell_links(console, control, "Desk:", wall.links._asdict()):
            records.begin()
        _pass_on(feed, records, control)
    finally:
        work.close()
        control.is_output_stuck = not records.finish()
    return DONE


def _pass_on(feed: "Feed", records: Records, control: Control) -> None:
    """Prints what the studio tells; what nobody reads waits in the feed, which has a limit."""
    while not (feed.is_over or control.is_stopped):
        if records.is_behind:
            control.stopped.wait(0.1)
            continue
        record = feed.take(0.2)
        if record is not None:
            records.put(record)
