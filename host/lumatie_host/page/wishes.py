"""What requests wish for, the same for a camera's own page and for one of several stations.

All functions raise Problem for what cannot be meant. Those that take fields take all of them.
"""

from typing import Any, Callable, Dict, NamedTuple, Optional

from aiohttp import web

from .. import sequences, sidecar
from ..ledger import LARGEST_NUMBER, path_of
from ..session import Session
from ..settings import NAMES
from .fields import Fields, number_of
from .problems import Problem, bad, missing
from .sequence import Sequences

LONGEST_TAG = 200
LONGEST_LABEL = 64
LONGEST_TIMEOUT = 3600.0

# Begins a sequence; raises Problem when one is running, ValueError for what cannot be.
Begin = Callable[[Sequences, sequences.Camera], None]


class Setting(NamedTuple):
    """A value for a setting, by its text or by its key."""

    name: str
    text: Optional[str]
    key: Optional[int]


class Shot(NamedTuple):
    pair: bool
    timeout: float


class Rating(NamedTuple):
    """A rating of the picture of a number, or of a file."""

    n: Optional[int]
    file: str
    rating: int
    label: Optional[str]  # None: whatever it is


def picture(request: web.Request) -> int:
    """The number of a picture in the path."""
    text = request.match_info["n"]
    if text.isascii() and text.isdigit() and len(text) <= 16:
        return int(text)
    raise missing("there is no picture %s" % text[:40])


def live(request: web.Request, is_full: bool) -> Optional[int]:
    """The number behind which a socket wants the records, None: none of before."""
    since = None
    if "since" in request.query:
        since = number_of(request, "since", 0, LARGEST_NUMBER, 0)
    if not web.WebSocketResponse().can_prepare(request):
        raise bad("this is for a WebSocket")
    if is_full:
        raise Problem(429, "too many pages are open", "Close some of them.", "too_many")
    return since


def setting(fields: Fields) -> Setting:
    name = fields.text("name", most=40)
    if fields.has("text") == fields.has("key"):
        raise bad("either text or key says what is wanted")
    text = fields.text("text") if fields.has("text") else None
    key = None if text is not None else fields.whole("key", -(1 << 31), (1 << 32) - 1)
    fields.end()
    return Setting(_known(name), text, key)


def shot(fields: Fields) -> Shot:
    wish = Shot(fields.flag("pair"), fields.seconds("timeout", LONGEST_TIMEOUT, 30.0))
    fields.end()
    return wish


def tag(fields: Fields) -> str:
    text = fields.text("tag", most=LONGEST_TAG)
    fields.end()
    return text


def rating(fields: Fields) -> Rating:
    if fields.has("n") == fields.has("file"):
        raise bad("either n or file says which picture is meant")
    n = fields.whole("n", 1, LARGEST_NUMBER) if fields.has("n") else None
    file = "" if n is not None else fields.text("file")
    stars = fields.whole("rating", 0, 5)
    label = fields.text("label", most=LONGEST_LABEL) if fields.has("label") else None
    fields.end()
    return Rating(n, file, stars, label)


def rate(session: Session, file: str, wish: Rating) -> str:
    """Rates a picture; the label that it has then. Raises as `Session.rate` does."""
    label = wish.label
    if label is None:
        path = path_of(session.folder, file)
        label = "" if path is None else sidecar.read(path).label or ""
    session.rate(file, wish.rating, label)
    return label


def sequence(fields: Fields) -> Optional[Begin]:
    """How the sequence begins; None: the one that runs is to stop."""
    kind = fields.text("kind", most=20)
    if kind not in ("interval", "bracket", "stop"):
        raise bad("a sequence is an interval, a bracket or a stop")
    begin = None
    if kind != "stop":
        begin = _interval(fields) if kind == "interval" else _bracket(fields)
    fields.end()
    return begin


def _interval(fields: Fields) -> Begin:
    count = fields.whole("count", 1, sequences.MOST_FRAMES)
    every = fields.seconds("every", 1e6)
    return lambda running, camera: running.start_interval(camera, count, every)


def _bracket(fields: Fields) -> Begin:
    wanted: Dict[str, Any] = {"setting": _known(fields.text("setting", "shutter", 40))}
    if fields.has("values"):
        wanted["values"] = fields.texts("values", 99)
        of = len(wanted["values"])
    else:
        of = wanted["frames"] = fields.whole("frames", 3, 99, 3)
        wanted["steps"] = fields.whole("steps", 1, 1000, 3)
    return lambda running, camera: running.start_bracket(camera, of, **wanted)


def _known(name: str) -> str:
    if name not in NAMES:
        raise bad("there is no setting %s" % name)
    return name
