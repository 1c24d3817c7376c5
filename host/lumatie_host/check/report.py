"""What was found out: for a person, for a program, and for a report of an error.

Any thread may use what is here.
"""

import dataclasses
import getpass
import json
import os
import platform
import re
import struct
import sys
import tempfile
from typing import Any, Dict, List, Sequence, Tuple

from .points import NO, POINTS, UNSEEN, YES, Point

# Numbers of a length that serial numbers have, too: codes, sizes, times, the highest sensitivities.
_HARMLESS = "|".join((
    "0x[0-9A-Fa-f]{1,8}",
    "[0-9]+x[0-9]+",
    "[0-9]+(?:ms|s|MB)",
    "[0-9]+ (?:bytes|rows|values|capabilities|events|ms|s)",
    *(str(iso << stops) for iso in (51200, 64000, 80000) for stops in range(1, 7)),
))  # fmt: skip
_SERIAL = re.compile(
    r"(?<!SHA-256 )(?<![0-9A-Za-z])(?!(?:%s)(?![0-9A-Za-z]))"
    r"(?=[0-9A-Za-z]*[0-9]{4})[0-9A-Za-z]{6,31}(?![0-9A-Za-z])" % _HARMLESS
)
_OWN = r"\b(%s)\b" % "|".join(map(re.escape, POINTS))


@dataclasses.dataclass(frozen=True)
class Finding:
    """What came out for a point. `seconds` is what it took, `facts` is for programs."""

    point: Point
    answer: str
    evidence: str
    seconds: float
    facts: Dict[str, Any] = dataclasses.field(default_factory=dict)

    def record(self) -> Dict[str, Any]:
        """As a line of JSON has it."""
        return {
            "kind": "point",
            "point": self.point.id,
            "group": self.point.group,
            "title": self.point.title,
            "answer": self.answer,
            "evidence": self.evidence,
            "seconds": round(self.seconds, 3),
            "limit": self.point.seconds,
            "facts": self.facts,
        }

    def line(self) -> str:
        """As a person reads it."""
        answer = {YES: "yes", NO: "NO", UNSEEN: "?"}[self.answer]
        evidence = " ".join(self.evidence.split())  # a system's own words may have line ends
        return "%-4s %-21s %s: %s" % (answer, self.point.id, self.point.title, evidence)


def summary(findings: Sequence[Finding]) -> Dict[str, Any]:
    """All of them in one record, with the exit status that goes with it."""
    of = {answer: [found.point.id for found in findings if found.answer == answer]
          for answer in (YES, NO, UNSEEN)}  # fmt: skip
    return {
        "kind": "checked",
        "yes": len(of[YES]),
        "no": of[NO],
        "could_not_be_seen": of[UNSEEN],
        "status": status_of(findings),
    }


def status_of(findings: Sequence[Finding]) -> int:
    """0, or the status of the first point that was answered with no."""
    return next((found.point.status for found in findings if found.answer == NO), 0)


def write(path: str, findings: Sequence[Finding], facts: Dict[str, Any]) -> None:
    """Writes the file to send: everything, with names and serial numbers removed.

    `facts` are told as they are. Raises OSError; FileExistsError when there is one already.
    """
    words = private_words()
    content = {
        **summary(findings),
        "system": {
            "python": "%s, %d bits" % (sys.version.split()[0], struct.calcsize("P") * 8),
            "system": without_names(platform.platform(), words),
            **facts,
        },
        "points": [_to_send(found, words) for found in findings],
    }
    with open(path, "x", encoding="utf-8") as file:
        json.dump(content, file, indent=1)
        file.write("\n")


def _to_send(found: Finding, words: Sequence[Tuple[str, str]]) -> Dict[str, Any]:
    """Its record, with nothing private in what is not the report's own words."""
    record = found.record()
    for key in ("evidence", "facts"):
        record[key] = without_names(record[key], words)
    return record


def private_words() -> List[Tuple[str, str]]:
    """What must not leave this machine, with what stands for it; the longest first."""
    words = {
        os.path.expanduser("~"): "HOME",
        tempfile.gettempdir(): "TEMP",
        os.getcwd(): "HERE",
        platform.node(): "HOST",
        platform.node().partition(".")[0]: "HOST",
    }
    try:
        words[getpass.getuser()] = "USER"
    except (KeyError, OSError, ImportError):  # there is none
        pass
    known = [(word, name) for word, name in words.items() if len(word) > 1]
    return sorted(known, key=lambda pair: -len(pair[0]))


def without_names(value: Any, words: Sequence[Tuple[str, str]]) -> Any:
    """The same without words of this machine and its people, and without serial numbers.

    What is left out of texts: `words`, and what looks like a number that only one device has.
    Hashes of files stay, for they are of what many people have, and so do the names of points and
    the keys of dictionaries, which are the report's own.
    """
    if isinstance(value, dict):
        return {
            key: part if key in ("sha256", "build")
            else without_names(part, words)
            for key, part in value.items()
        }  # fmt: skip
    if isinstance(value, (list, tuple)):
        return [without_names(part, words) for part in value]
    if not isinstance(value, str):
        return value
    for word, name in words:
        value = _without(value, word, name)
    return _SERIAL.sub("SERIAL", value)


def _without(text: str, word: str, name: str) -> str:
    bounds = (r"(?<![0-9A-Za-z])", r"(?![0-9A-Za-z])") if word.isalnum() else ("", "")
    pattern = "%s|%s%s%s" % (_OWN, bounds[0], re.escape(word), bounds[1])
    return re.sub(pattern, lambda found: found.group(1) or name, text, flags=re.IGNORECASE)
