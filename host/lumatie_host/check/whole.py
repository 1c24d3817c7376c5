"""The check as a whole: which parts there are, in which order, and what each is for."""

import contextlib
import dataclasses
import os
import tempfile
import threading
from typing import Any, Callable, Dict, Iterator, List, Optional, Tuple

from .children import STARTING, Part, Person
from .files import File
from .points import NO, POINTS, UNSEEN, YES, points_of
from .report import Finding

_AT_LAST = 12.0  # seconds for setting the camera back when the check was interrupted
_THROUGH = "session.answers"  # the first point that is asked through the module
_WITHOUT_SHOOT = "it was not asked for: --shoot takes pictures"


@dataclasses.dataclass(frozen=True)
class Job:
    """What is to be checked.

    Args:
        maker: "canon" or "nikon".
        info: what the module is started with: a camera's name, or the path of a driver module.
        library: the maker's library; None for the one that the system chooses (Canon).
        canon_library: the one that was named, if one was.
        shoot: whether pictures may be taken.
        ask: whether a person can be asked for something.
        folder: where pictures go and stay; None for a folder that is removed afterwards.
        limit: seconds that a point may take at most, where that is less than its own; those for
            pictures and for the interpreter's end keep their own.
    """

    maker: str
    info: str
    library: Optional[str]
    canon_library: Optional[str]
    shoot: bool = False
    ask: bool = False
    folder: Optional[str] = None
    limit: Optional[float] = None


class Check:
    """Asks all points, one after the other. Belongs to one thread."""

    def __init__(self, job: Job, person: Person, is_stopped: Callable[[], bool]) -> None:
        self._job = job
        self._person = person
        self._is_stopped = is_stopped
        self._library = job.library
        self._answers: Dict[str, Finding] = {}
        self._is_over = threading.Event()
        self._trouble = ""  # of a process that ended before its time, between two points

    def run(self) -> Iterator[Finding]:
        """What was found out, as it is, every point once, with the seconds that it might take."""
        try:
            for finding in self._all():
                point = finding.point.limited(self._job.limit)
                yield dataclasses.replace(finding, point=point)
        finally:
            self._is_over.set()

    def close(self) -> None:
        """Waits until what was stopped has ended, and the camera is set back. Any thread."""
        self._is_over.wait()

    def _all(self) -> Iterator[Finding]:
        waiting = [point.id for point in points_of(self._job.maker)]
        with self._folder() as folder:
            for finding in self._parts(folder):
                self._answers[finding.point.id] = finding
                place = waiting.index(finding.point.id)
                yield from self._skipped(waiting[:place])
                yield finding
                del waiting[: place + 1]
        yield from self._skipped(waiting)

    @contextlib.contextmanager
    def _folder(self) -> Iterator[str]:
        """For what the module fetches unasked: nothing, and then the folder is removed."""
        if self._job.folder is not None:
            yield self._job.folder
            return
        folder = tempfile.mkdtemp(prefix="lumatie-")
        try:
            yield folder
        finally:
            try:
                os.rmdir(folder)
            except OSError:
                self._person.say("Pictures that were fetched are in %s." % folder)

    def _skipped(self, ids: List[str]) -> Iterator[Finding]:
        """Points that were passed over: what stood in their way is known by now."""
        for point_id in ids:
            finding = Finding(POINTS[point_id], UNSEEN, self._why_not(point_id), 0.0)
            self._answers[point_id] = finding
            yield finding

    def _parts(self, folder: str) -> Iterator[Finding]:
        if self._library is None:
            yield from self._part("find", folder)
            found = self._answers.get("library.found")
            self._library = None if found is None else found.facts.get("path")
        else:
            yield File(self._library, self._job.maker).found()
        if self._library is None or not self._is("library.found"):
            return
        file = File(self._library, self._job.maker)
        yield from file.look()
        if file.library is not None and self._is("library.bits"):
            needs = {"needs": list(file.library.needs), "search": list(file.library.search)}
            yield from self._part("needs", folder, **needs)
        for name, first in _PARTS:
            if self._can_ask(first):
                yield from self._part(name, folder)
        if self._job.shoot and self._can_ask("shoot.event"):
            with tempfile.TemporaryDirectory(prefix="lumatie-") as own:
                yield from self._part("shooting", self._job.folder or own)
            if self._can_ask("records.item"):
                with tempfile.TemporaryDirectory(prefix="lumatie-") as own:
                    yield from self._part("item", own)

    def _part(self, name: str, folder: str, **more: Any) -> Iterator[Finding]:
        job = {
            "part": name,
            "maker": self._job.maker,
            "info": self._job.info,
            "library": self._library,
            "canon_library": self._job.canon_library,
            "folder": folder,
            "ask": self._job.ask,
            **more,
        }
        part = Part(job, self._person, self._is_stopped, self._job.limit)
        for finding in part.run():
            judged = self._judged(finding)
            self._answers[finding.point.id] = judged
            yield judged
        self._trouble = part.trouble or self._trouble
        if part.changed is not None:
            self._put_back(job, part.changed)

    def _judged(self, finding: Finding) -> Finding:
        """The finding, unless something before it explains it."""
        if finding.answer != NO:
            return finding
        reason = self._hindrance(finding.point.id) or self._blame(finding)
        if reason is None:
            return finding
        evidence = "%s (%s)" % (finding.evidence, reason)
        return dataclasses.replace(finding, answer=UNSEEN, evidence=evidence)

    def _put_back(self, job: Dict[str, Any], changed: Dict[str, Any]) -> None:
        """Sets the camera back to what it was, when the part could not do it any more."""
        starting = _AT_LAST if self._is_stopped() else STARTING
        job = {**job, "part": "put back", "changed": changed}
        part = Part(job, self._person, lambda: False, starting=starting)
        list(part.run())
        if part.status != 0:
            what = changed.get("name") or "property %#x" % changed.get("id", 0)
            self._person.say("Not set back: %s. It was %s." % (
                what, changed.get("key", changed.get("value"))))  # fmt: skip

    def _is(self, point_id: str) -> bool:
        found = self._answers.get(point_id)
        return found is not None and found.answer == YES

    def _can_ask(self, point_id: str) -> bool:
        return not self._is_stopped() and self._hindrance(point_id) is None

    def _hindrance(self, point_id: str) -> Optional[str]:
        """What has to be yes and is not, in words; None when there is nothing."""
        for need in self._needs(point_id):
            if not self._is(need):
                return "see %s" % self._cause(need)
        return self._card() if point_id == _THROUGH else None

    def _card(self) -> Optional[str]:
        """Why no session of the module may be opened: it fetches all that a Nikon's card holds.

        The camera may let go of what was fetched, and reports nothing meanwhile.
        """
        if self._job.maker != "nikon":
            return None
        pictures = self._answers["session.capabilities"].facts.get("pictures")
        if pictures is None:
            return "see session.capabilities"
        return "the card holds pictures, %d: empty it first" % pictures if pictures else None

    def _blame(self, finding: Finding) -> Optional[str]:
        """What else explains a no; None when nothing does."""
        for point_id in finding.point.blames:
            found = self._answers.get(point_id)
            if found is not None and found.answer == NO:
                return "see %s" % point_id
        return None

    def _needs(self, point_id: str) -> List[str]:
        """Those points that this one needs and that this maker's cameras are asked."""
        return [
            need for need in POINTS[point_id].needs if POINTS[need].maker in ("", self._job.maker)
        ]

    def _cause(self, point_id: str) -> str:
        """The point that is the reason for one that is not yes: the first one that is no."""
        found = self._answers.get(point_id)
        if found is None or found.answer != NO:
            for need in self._needs(point_id):
                if not self._is(need):
                    return self._cause(need)
        return point_id

    def _why_not(self, point_id: str) -> str:
        group = point_id.partition(".")[0]
        if self._is_stopped():
            return "interrupted"
        if not self._job.shoot and (group == "shoot" or point_id == "records.item"):
            return _WITHOUT_SHOOT
        return self._hindrance(point_id) or self._trouble or "its process did not ask it"


# The parts behind the file's own, each with the first point that it asks.
_PARTS: Tuple[Tuple[str, str], ...] = (
    ("load", "library.loads"),
    ("module", "library.module"),
    ("direct", "session.starts"),
    ("through", _THROUGH),
    ("twice", "ends.twice"),
    ("again", "ends.again"),
    ("interpreter", "ends.interpreter"),
)


def plan(job: Job) -> List[str]:
    """What is going to be done, for a person to read before it is."""
    lines = [
        "Checks %s with %s." % (
            "the camera %s" % job.info if job.maker == "canon" else "a Nikon camera",
            job.library or "the library that the system chooses",
        ),
        "Opens and closes the session some times; one setting is changed, and changed back.",
    ]  # fmt: skip
    if job.maker == "nikon":
        lines.append("The card has to be empty: each session fetches what it holds. Otherwise "
                     "less is checked.")  # fmt: skip
    if job.shoot:
        where = job.folder or "a folder that is removed afterwards"
        lines.append("Takes about a dozen pictures, into %s; the camera's card may keep them, too."
                     % (where if job.folder is None else os.path.abspath(where)))  # fmt: skip
        if job.ask:
            lines.append("Asks for the shutter button, the picture quality and the cable.")
    else:
        lines.append("Takes no picture: --shoot does.")
    lines.append("Takes a minute as a rule, and %d minutes at most." % -(-_longest(job) // 60))
    return lines


def _longest(job: Job) -> float:
    """How many seconds all points may take, with the processes that ask them."""
    parts = len(_PARTS) + 3  # finding a library and what it needs, setting the camera back
    parts += 2 if job.shoot else 0
    return parts * STARTING + sum(
        point.limited(job.limit).seconds
        for point in points_of(job.maker)
        if job.shoot or point.group != "shoot"
    )
