"""The points of the report: their names, what each asks, and how long it may take.

The names are a contract for programs. Any thread may use what is here.
"""

import dataclasses
from typing import Dict, Optional, Tuple

YES, NO, UNSEEN = "yes", "no", "could not be seen"

# Exit statuses of the command, for a point that is answered with no.
NO_CAMERA, NO_LIBRARY, REFUSED, NO_ANSWER, LOST, NO_PICTURE = 3, 4, 6, 7, 8, 9


_UNLIMITED = ("ends.interpreter", "shoot.")  # what takes its time by itself


@dataclasses.dataclass(frozen=True)
class Point:
    """One question.

    Args:
        id: its group and its name.
        title: the statement that is answered.
        seconds: how long it takes at most.
        status: the command's exit status when it is the first that is answered with no.
        needs: the points without which it cannot be asked.
        blames: those that explain a no here, where they are answered with no themselves.
        maker: the one whose cameras are asked; "" for both.
    """

    id: str
    title: str
    seconds: float
    status: int
    needs: Tuple[str, ...] = ()
    blames: Tuple[str, ...] = ()
    maker: str = ""

    @property
    def group(self) -> str:
        return self.id.partition(".")[0]

    def limited(self, seconds: Optional[float]) -> "Point":
        """The same where points may take so many seconds at most; None: what they take."""
        if seconds is None or self.id.startswith(_UNLIMITED):
            return self
        return dataclasses.replace(self, seconds=min(self.seconds, seconds))


_FILE = ("library.whole",)
_READY = ("session.prepared",)
_BOTH = ("library.functions", "library.needs")
_ANSWERS = ("session.answers",)
_RECORDS = (
    *("session.capabilities", "session.texts", "session.codes", "messages.events"),
    *("records.sizes", "records.counts", "records.texts"),
)
_READ = (*_RECORDS, "session.readable")
_SHOTS = ("shoot.five",)
_ENDED = ("session.ends",)

_ALL = (
    Point("library.found", "there is a library", 15, NO_LIBRARY),
    Point("library.whole", "its file is whole", 5, NO_LIBRARY, ("library.found",)),
    Point("library.bits", "it has the bits of this program", 5, NO_LIBRARY, _FILE),
    Point("library.version", "it can be told from others", 5, NO_LIBRARY, _FILE),
    Point("library.functions", "it has what is imported", 5, NO_LIBRARY, ("library.bits",)),
    Point("library.needs", "what it needs itself is there", 15, NO_LIBRARY, ("library.bits",)),
    Point("library.loads", "the system loads it", 15, NO_LIBRARY, _BOTH),
    Point("library.module", "the module uses it", 15, NO_LIBRARY, ("library.loads",)),
    Point("session.starts", "the library starts", 15, NO_LIBRARY, ("library.module",)),
    Point("session.camera", "the camera is there", 10, NO_CAMERA, ("session.starts",)),
    Point(
        "messages.handlers", "it takes procedures for events", 10, NO_LIBRARY, ("session.camera",)
    ),
    Point("session.opens", "a session opens", 20, NO_ANSWER, ("messages.handlers",)),
    Point(
        "session.prepared", "it is made ready as the module does", 10, NO_ANSWER, ("session.opens",)
    ),
    Point(
        "session.capabilities",
        "it has what the module asks for",
        10,
        NO_LIBRARY,
        _READY,
        (),
        "nikon",
    ),
    Point("records.behind", "nothing is written behind a record", 20, NO_LIBRARY, _READY),
    Point("records.sizes", "types and sizes are those relied on", 10, NO_LIBRARY, _READY),
    Point("records.counts", "lists have a plausible length", 10, NO_LIBRARY, _READY),
    Point("records.texts", "texts have their end", 10, NO_LIBRARY, _READY),
    Point("session.texts", "texts are UTF-8", 10, NO_LIBRARY, _READY),
    Point("session.codes", "every code has a text", 10, NO_LIBRARY, _READY),
    Point("messages.events", "a change is announced", 10, NO_ANSWER, _READY),
    Point(
        "messages.pace", "a pump every 10 ms is fast enough", 10, NO_ANSWER, ("messages.events",)
    ),
    Point("session.closes", "the session closes", 15, NO_ANSWER, ("session.opens",)),
    Point(
        "session.answers",
        "the module opens it, and hears of it",
        25,
        NO_ANSWER,
        (*_READY, "session.closes"),
        _RECORDS,
    ),
    Point("session.readable", "every event can be read", 15, NO_LIBRARY, _ANSWERS, _RECORDS),
    Point("session.settings", "every setting is told", 5, NO_ANSWER, _ANSWERS, _READ),
    Point(
        "session.lists", "every list is told", 5, NO_ANSWER, _ANSWERS, (*_READ, "session.settings")
    ),
    Point(
        "setting.confirmed", "a value is changed, and confirmed", 10, REFUSED, _ANSWERS, _RECORDS
    ),
    Point("setting.restored", "it is changed back", 10, REFUSED, ("setting.confirmed",), _RECORDS),
    Point(
        "setting.refused",
        "an impossible value does nothing",
        20,
        REFUSED,
        ("setting.restored",),
        _RECORDS,
    ),
    Point("session.ends", "the module gives the camera back", 15, NO_ANSWER, _ANSWERS),
    Point("ends.twice", "Uninit may be called twice", 40, NO_ANSWER, _ENDED),
    Point("ends.again", "Init may be called again", 60, NO_ANSWER, ("ends.twice",)),
    Point("ends.interpreter", "a program may end with a session open", 40, NO_ANSWER, _ENDED),
    Point("shoot.event", "a picture is taken, and announced", 130, NO_PICTURE, _ENDED),
    Point("shoot.file", "its file is there, and whole", 30, NO_PICTURE, ("shoot.event",)),
    Point("shoot.five", "five pictures in a row", 150, NO_PICTURE, ("shoot.file",)),
    Point("shoot.body", "a picture released at the camera", 150, NO_PICTURE, _SHOTS),
    Point("shoot.long", "a long exposure", 90, NO_PICTURE, _SHOTS),
    Point("shoot.cable", "the cable is pulled, and put back", 400, LOST, ("ends.again", *_SHOTS)),
    Point("shoot.pair", "RAW and JPEG of one picture", 240, NO_PICTURE, _SHOTS),
    Point("records.item", "what is told of a picture is so", 60, NO_LIBRARY, ("shoot.file",)),
)

# In the order in which they are asked.
POINTS: Dict[str, Point] = {point.id: point for point in _ALL}


def points_of(maker: str) -> Tuple[Point, ...]:
    """The points that a maker's camera is asked, in their order."""
    return tuple(point for point in _ALL if point.maker in ("", maker))
