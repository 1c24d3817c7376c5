"""The topics: which there are, and what may be a name in them.

Every station has a branch of its own, `lumatie/1/<studio>/<station>/`. In it are

- `state`, retained: whether it is there, and where its pictures are to be had;
- `settings`, retained: those of its camera;
- `event/<kind>`: the records of its ledger;
- `cmd/<operation>`: what it is asked to do, never retained;
- `reply/<client>`: its answers to the studio;
- `claim`: who comes asks here whether the name is taken;
- `tick`: its clock, twice a second.
"""

import re
from typing import NamedTuple, Optional

from .problems import NotAName

ROOT = "lumatie/1/"

LONGEST_NAME = 60  # bytes

_SINGLE = ("state", "settings", "claim", "tick")
_NAMED = ("event", "cmd", "reply")
_RESERVED = re.compile(r"(?i)(con|prn|aux|nul|com[0-9]|lpt[0-9])(\..*)?\Z")


class Topic(NamedTuple):
    """The parts of a topic; `name` is the kind, operation or client where there is one."""

    studio: str
    station: str
    what: str
    name: str


def parse(topic: str) -> Optional[Topic]:
    """The parts of a topic of ours; None for any other one."""
    if not topic.startswith(ROOT):
        return None
    parts = topic[len(ROOT) :].split("/")
    if len(parts) == 3 and parts[2] in _SINGLE:
        return Topic(parts[0], parts[1], parts[2], "")
    if len(parts) == 4 and parts[2] in _NAMED and parts[3]:
        return Topic(*parts)
    return None


class Branch:
    """The topics of one station; with "+" for its name, of all of the studio."""

    def __init__(self, studio: str, station: str) -> None:
        self._base = "%s%s/%s/" % (ROOT, studio, station)
        self.state = self._base + "state"
        self.settings = self._base + "settings"
        self.claim = self._base + "claim"
        self.tick = self._base + "tick"

    def event(self, kind: str) -> str:
        return "%sevent/%s" % (self._base, kind)

    def command(self, operation: str) -> str:
        return "%scmd/%s" % (self._base, operation)

    def reply(self, client: str) -> str:
        return "%sreply/%s" % (self._base, client)


def may_answer_to(topic: str, own: Branch) -> bool:
    """Whether an answer may go to a response topic.

    A command must not make a station write what others take for records, states or commands.
    """
    if not topic or any(letter in topic for letter in "+#\0") or topic.startswith("$"):
        return False
    return parse(topic) is None or topic.startswith(own.reply(""))


def check_name(what: str, name: str) -> str:
    """Returns the name of a "studio" or "station" that can be one; raises NotAName.

    It is a part of topics, and of a folder's path on every system.
    """
    try:
        length = len(name.encode())
    except UnicodeEncodeError:
        raise NotAName(what, ascii(name), "it is no text") from None
    if not 0 < length <= LONGEST_NAME:
        raise NotAName(what, name[:LONGEST_NAME], "it has to have 1 to %d bytes" % LONGEST_NAME)
    for letter in name:
        if not (letter.isalnum() or letter in " ._-"):
            raise NotAName(what, name, "there is %r in it" % letter)
    if not name[0].isalnum() or name[-1] in " .":
        raise NotAName(what, name, "it has to begin with a letter or digit, and to end with none "
                       "of blank and dot")  # fmt: skip
    if _RESERVED.match(name):
        raise NotAName(what, name, "Windows keeps it for a device")
    return name
