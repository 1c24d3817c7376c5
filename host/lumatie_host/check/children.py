"""Runs a part of the check in a process of its own, and holds it to the times that were stated."""

import json
import os
import signal
import subprocess
import sys
import tempfile
import time
from typing import Any, Callable, Dict, Iterator, List, Mapping, Optional, Tuple

from .points import NO, POINTS, UNSEEN
from .report import Finding

STARTING = 20.0  # seconds until a process asks its first point
_ENDING = 15.0  # from one point to the next, and from the last to its end
_STOPPING = 8.0  # for an orderly end when it is interrupted
_GRACE = 2.0  # the same when it is late: the library may hang, or answer later than is waited for
_POLL = 0.02

Asking = Callable[[str, float], Optional[bool]]


# An interrupt from the terminal is for the command, which has its processes end in an orderly way.
if sys.platform == "win32":
    _APART: Dict[str, Any] = {"creationflags": subprocess.CREATE_NEW_PROCESS_GROUP}

    def _kill_all(process: "subprocess.Popen[bytes]") -> None:
        process.kill()

else:
    _APART: Dict[str, Any] = {"start_new_session": True}

    def _kill_all(process: "subprocess.Popen[bytes]") -> None:
        """With those that it has started, for one of them may be what hangs."""
        os.killpg(process.pid, signal.SIGKILL)


class Person:
    """Who answers what a process asks a person. Any thread.

    Args:
        say: tells the person something.
        ask: asks for something and says at once or later, None: not yet, whether it was done.
    """

    def __init__(self, say: Callable[[str], None], ask: Asking) -> None:
        self.say = say
        self.ask = ask


class Part:
    """One process at work. Belongs to one thread.

    It has `starting` seconds until it asks its first point, or ends without one.
    `changed` is what it left different at the camera, `status` how it ended, and `trouble` what is
    to be said of an end that was none.
    """

    def __init__(
        self,
        job: Mapping[str, Any],
        person: Person,
        is_stopped: Callable[[], bool],
        limit: Optional[float] = None,
        starting: float = STARTING,
    ) -> None:
        self._job = job
        self._person = person
        self._is_stopped = is_stopped
        self._limit = limit
        self._starting = starting
        self.changed: Optional[Dict[str, Any]] = None
        self.status: Optional[int] = None
        self.trouble = ""
        self._point: Optional[str] = None
        self._begun = 0.0
        self._question: Optional[Tuple[str, float]] = None
        self._due = 0.0
        self._is_late = False
        self._stopped = 0.0

    def run(self) -> Iterator[Finding]:
        """What the process finds out, as it does."""
        with tempfile.TemporaryDirectory(prefix="lumatie-check-") as folder:
            told, log = (os.path.join(folder, name) for name in ("told", "log"))
            open(told, "w").close()
            with open(log, "wb") as output, open(told, encoding="utf-8") as lines:
                process = subprocess.Popen(
                    [sys.executable, "-m", __package__ + ".child", told],
                    stdin=subprocess.PIPE,
                    stdout=output,
                    stderr=output,
                    env=_environment(),
                    **_APART,
                )
                try:
                    yield from self._follow(process, lines)
                finally:
                    _kill(process)
                yield from self._rest(lines)
            self.status = process.returncode
            if self._point is not None:
                self.trouble = "see %s" % self._point
                yield self._ended(process.returncode, _tail(log))
            elif self._is_late:
                self.trouble = "it did not go on in time; its process was ended"
            elif self.status != 0:
                self.trouble = _trouble(process.returncode, _tail(log))

    @property
    def _patience(self) -> float:
        assert self._point is not None
        return POINTS[self._point].limited(self._limit).seconds

    def _follow(self, process: "subprocess.Popen[bytes]", lines: Any) -> Iterator[Finding]:
        self._due = time.monotonic() + self._starting
        self._send(process, json.dumps(dict(self._job)))
        while process.poll() is None:
            yield from self._rest(lines)
            if self._question is not None:
                self._answer(process)
            if time.monotonic() > self._due:
                self._is_late = True  # what is told until its process is ended is heard still
                self._stopped = time.monotonic()
                _end(process, _GRACE)
                return
            if self._is_stopped():
                _end(process, _STOPPING)
                return
            time.sleep(_POLL)

    def _rest(self, lines: Any) -> Iterator[Finding]:
        """Takes in what was told since."""
        while True:
            at = lines.tell()
            line = lines.readline()
            if not line.endswith("\n"):
                lines.seek(at)
                return
            told = json.loads(line)
            now = time.monotonic()
            if "begin" in told:
                if self._is_late:
                    continue
                self._point, self._begun = told["begin"], now
                self._due = now + self._patience
            elif "point" in told:
                if told["point"] != self._point:
                    continue
                yield self._finding(
                    told["answer"], told["evidence"], told["facts"], told["seconds"]
                )
                self._due = now + _ENDING
            elif "changed" in told:
                self.changed = told["changed"]
            elif "say" in told:
                self._person.say(told["say"])
            elif "ask" in told:
                self._question = (told["ask"], now + told["seconds"])

    def _answer(self, process: "subprocess.Popen[bytes]") -> None:
        assert self._question is not None
        text, until = self._question
        done = self._person.ask(text, until)
        if done is None and time.monotonic() < until:
            return
        self._question = None
        self._send(process, "done" if done else "not done")

    def _finding(
        self,
        answer: str,
        evidence: str,
        facts: Optional[Dict[str, Any]] = None,
        seconds: Optional[float] = None,
    ) -> Finding:
        assert self._point is not None
        point, self._point = POINTS[self._point], None
        if seconds is None:
            seconds = time.monotonic() - self._begun
        return Finding(point, answer, evidence, seconds, facts or {})

    def _ended(self, status: int, log: str) -> Finding:
        """What is said of the point that a process was about when it ended."""
        if self._is_stopped():
            return self._finding(UNSEEN, "interrupted")
        if self._is_late:
            return self._finding(
                NO,
                "no answer within %g s; its process was ended" % self._patience,
                seconds=self._stopped - self._begun,
            )
        return self._finding(NO, _trouble(status, log))

    def _send(self, process: "subprocess.Popen[bytes]", text: str) -> None:
        assert process.stdin is not None
        try:
            process.stdin.write(text.encode("utf-8") + b"\n")
            process.stdin.flush()
        except OSError:  # it has ended
            pass


def _environment() -> Dict[str, str]:
    """That of this process, so that the other one finds the same modules."""
    paths: List[str] = [os.path.abspath(path) for path in sys.path]
    return dict(os.environ, PYTHONPATH=os.pathsep.join(paths), PYTHONIOENCODING="utf-8")


def _end(process: "subprocess.Popen[bytes]", seconds: float) -> None:
    """Has a process give the camera back and end, as long as that takes no longer."""
    assert process.stdin is not None
    try:
        process.stdin.close()
        process.wait(seconds)
    except (OSError, subprocess.TimeoutExpired):
        pass


def _kill(process: "subprocess.Popen[bytes]") -> None:
    if process.poll() is None:
        _kill_all(process)
    process.wait()
    if process.stdin is not None:
        try:
            process.stdin.close()
        except OSError:
            pass


def _trouble(status: int, log: str) -> str:
    text = "its process ended with %s" % _described(status)
    return "%s; it printed: %s" % (text, log) if log else text


def _described(status: int) -> str:
    if status < 0:
        return "signal %d" % -status
    return "exit status %s" % (status if status < 256 else "%#x" % (status & 0xFFFFFFFF))


def _tail(path: str) -> str:
    """The last that a process printed, in one line."""
    with open(path, "rb") as file:
        text = file.read()[-2000:].decode("utf-8", "backslashreplace")
    return " / ".join(line.strip() for line in text.splitlines()[-3:] if line.strip())
