"""How a process that asks points tells of them, while it does and before it may come to an end.

Each line goes to a file at once, so that whoever started the process knows what it was about when
it hangs or crashes, and nothing that a library prints comes between.
"""

import json
import os
import threading
import time
from typing import Any, Callable, Dict, List, Optional, TextIO, Tuple, Union

from .points import NO, UNSEEN, YES

# What a question returns: its evidence, and numbers and lists for programs with it.
Evidence = Union[str, Tuple[str, Dict[str, Any]]]


class Answer(Exception):
    """Ends a question; the argument is the evidence."""

    answer = UNSEEN

    def __init__(self, evidence: str, **facts: Any) -> None:
        super().__init__(evidence)
        self.evidence = evidence
        self.facts = facts


class No(Answer):
    """It is not as it has to be."""

    answer = NO


class Unseen(Answer):
    """It could not be seen."""


class Crashed(Exception):
    """The library crashed in a call, and Windows let ctypes go on; the argument says how."""


class Stopped(Exception):
    """Whoever started this process wants it to end."""


_LOWEST_CRASH = 0xC0000000  # of Windows' statuses
_AFTER_CRASH = 3  # the process's exit status, as that of a program that aborts

_stopping = threading.Event()


def go_on() -> None:
    """Raises Stopped when this process is to end: for everything that waits."""
    if _stopping.is_set():
        raise Stopped


def answered(question: Callable[[], Evidence]) -> Tuple[str, str, Dict[str, Any]]:
    """The answer to a question, its evidence, and numbers and lists with it.

    Raises Stopped as the question does, and Crashed. Whatever else it raises that is no Answer is
    an error of ours, or of the system's, and means that the point could not be seen.
    """
    try:
        found = question()
    except Answer as ended:
        return ended.answer, ended.evidence, ended.facts
    except Stopped:
        raise
    except Exception as error:
        if _is_crash(error):
            raise Crashed(str(error)) from None
        return UNSEEN, "%s: %s" % (type(error).__name__, error), {}
    return (YES, found, {}) if isinstance(found, str) else (YES, *found)


def _is_crash(error: Exception) -> bool:
    """Whether ctypes made this error of what would have ended the process: it has words of its own
    for some crashes, and the system's status for others."""
    status = getattr(error, "winerror", None) or 0
    return isinstance(error, OSError) and (
        str(error).startswith("exception: ") or status & 0xFFFFFFFF >= _LOWEST_CRASH
    )


class Teller:
    """The telling end. Belongs to the process's main thread."""

    def __init__(self, file: TextIO) -> None:
        self._file = file
        self._answers: List[str] = []
        self._changed = threading.Condition()
        self._is_stopped = False

    def listen(self, lines: TextIO, at_last: Callable[[], None] = lambda: None) -> None:
        """Reads what a person answered, until whoever started this process is gone.

        Then the questions end, and `at_last` is called, on a thread of its own.
        """
        threading.Thread(target=self._listen, args=(lines, at_last), daemon=True).start()

    def ask(self, point_id: str, question: Callable[[], Evidence]) -> bool:
        """Asks a point and tells what came out; whether it is yes.

        Raises Stopped instead when the process is to end.
        """
        if self._is_stopped:
            raise Stopped
        self._tell({"begin": point_id})
        begun = time.monotonic()
        try:
            answer, evidence, facts = answered(question)
        except Crashed as crash:
            self._found(point_id, begun, NO, "the library crashed: %s" % crash, {})
            os._exit(_AFTER_CRASH)  # nothing of it may be called any more
        self._found(point_id, begun, answer, evidence, facts)
        return answer == YES

    def changed(self, what: Optional[Dict[str, Any]]) -> None:
        """Tells what of the camera is other than before, for the case that this process ends now.

        None: nothing is any more.
        """
        self._tell({"changed": what})

    def say(self, text: str) -> None:
        """Tells a person something."""
        self._tell({"say": text})

    def wait_for_person(self, text: str, seconds: float) -> bool:
        """Asks a person for something, and waits until it is done; whether it was."""
        with self._changed:
            self._answers.clear()
            self._tell({"ask": text, "seconds": seconds})
            self._changed.wait_for(lambda: self._answers or self._is_stopped, seconds)
            return bool(self._answers) and self._answers[0] == "done"

    def _found(
        self, point_id: str, begun: float, answer: str, evidence: str, facts: Dict[str, Any]
    ) -> None:
        seconds = time.monotonic() - begun
        self._tell({"point": point_id, "answer": answer, "evidence": evidence, "facts": facts,
                    "seconds": seconds})  # fmt: skip

    def _tell(self, line: Dict[str, Any]) -> None:
        self._file.write(json.dumps(line) + "\n")
        self._file.flush()

    def _listen(self, lines: TextIO, at_last: Callable[[], None]) -> None:
        try:
            for line in lines:
                with self._changed:
                    self._answers.append(line.strip())
                    self._changed.notify_all()
        except (OSError, ValueError):
            pass
        with self._changed:
            self._is_stopped = True
            _stopping.set()
            self._changed.notify_all()
        at_last()
