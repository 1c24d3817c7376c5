"""The word `serve`: the tether page, and the camera behind it, until Ctrl-C."""

from typing import TYPE_CHECKING, Mapping

from .arguments import USAGE, Options
from .camera import chosen_folder
from .console import Console, OutputGone
from .control import Control
from .records import Records

if TYPE_CHECKING:
    from ..page.desk import Wanted

DONE = 0
NO_LIBRARY = 4
PORT = 8466

OPEN_TO_ALL = """The page can be reached from the network, by this machine's addresses and name:
whoever has the operator's link works the camera, whoever has the viewer's sees all pictures,
and what is sent can be read on the way: use it in networks that you trust."""


def run(options: Options, console: Console, control: Control) -> int:
    """Serves until it is stopped; the exit status."""
    try:
        from ..page.server import Server
        from ..page.tokens import kept
    except ImportError as error:
        return lacks(console, error, "the page", "extra: pip install lumatie[page]")
    wanted = wanted_of(options, console, options.name)
    records = Records(console, control, {})
    port = PORT if options.port is None else options.port
    try:
        server = Server(
            *(wanted, port, options.lan, options.viewers_rate, records.put),
            kept(wanted.folder, options.new_links),
        )
    except OSError as error:
        return refuse_port(console, error, port)
    try:
        control.adopt(server)
        server.start()
        if options.lan:
            console.say(OPEN_TO_ALL)
        if tell_links(console, control, "Operator:", server.links._asdict()):
            records.begin()
        while not (server.wait(0.2) or control.is_stopped):
            pass
    finally:
        server.close()
        control.is_output_stuck = not records.finish()
    return DONE


def wanted_of(options: Options, console: Console, name: str, station: str = "") -> "Wanted":
    """What is opened behind a page; raises TetherError."""
    from ..page.desk import OPEN_PATIENCE, Wanted

    return Wanted(
        folder=chosen_folder(options, console),
        camera=options.camera,
        name=name,
        job=options.job,
        station=station,
        copy=options.copy,
        module=options.module,
        canon_library=options.canon_library,
        virtual=options.virtual,
        timeout=options.timeout or OPEN_PATIENCE,
    )


def lacks(console: Console, error: ImportError, who: str, install: str) -> int:
    """Says that a library is not installed; the exit status."""
    console.complain("%s needs libraries that are not installed: %s" % (who, error))
    console.complain("Install the package with its %s" % install)
    return NO_LIBRARY


def refuse_port(console: Console, error: OSError, port: int) -> int:
    """Says that the page cannot be at a port; the exit status."""
    console.complain("the page cannot have port %d: %s" % (port, error.strerror or error))
    console.complain("Choose another one with --port; 0 takes any that is free.")
    return USAGE


def tell_links(console: Console, control: Control, who: str, links: Mapping[str, str]) -> bool:
    """Prints where a page is; False when nobody reads it, which ends the work.

    `who` is what the page's operator is called.
    """
    try:
        if console.as_json:
            console.record({"kind": "serving", **links})
        else:
            console.line("%-9s %s" % (who, links["operator"]))
            console.line("Viewers:  %s" % links["viewer"])
    except OutputGone:
        control.stop()
        return False
    return True
