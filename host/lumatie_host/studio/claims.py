"""Who has a station's name: the one who was there first.

Whoever comes asks on `claim` whether the name is taken. A station that has it tells its state
again, and the one that came goes. A state that the broker kept of a station that is gone is
followed by that station's will, at the latest when the broker has missed its signs of life. Of two
that come at one moment the one with the lesser instance stays.

Used by one thread.
"""

import enum
from typing import Any, Mapping

from .broker import KEEP_ALIVE
from .clock import now

SETTLING = 0.3  # seconds for others to object
WILL_AFTER = 1.5 * KEEP_ALIVE + 2.0  # seconds in which the broker tells a will


class Verdict(enum.Enum):
    WAIT = "wait"
    OURS = "ours"
    TAKEN = "taken"


class Claim:
    """One claim of a name, from the moment in which the connection was made.

    Args:
        instance: tells this start of the station from others.
        ledger: the identity of the ledger; a state of the same one is an earlier start's.
    """

    def __init__(self, instance: str, ledger: str) -> None:
        self._instance = instance
        self._ledger = ledger
        self._settled_at = float("inf")  # our own claim has come back, and what was kept before it
        self._holder = ""  # a state that was kept tells of this instance
        self._holder_until = 0.0
        self.verdict = Verdict.WAIT
        self.by = ""  # who has the name, in words

    def hear_claim(self, claim: Mapping[str, Any]) -> bool:
        """A claim on the name; returns whether our state has to be told again."""
        other = claim.get("instance")
        if other == self._instance:
            self._settled_at = min(self._settled_at, now() + SETTLING)
            return False
        if self.verdict is Verdict.OURS:
            return True
        if isinstance(other, str) and other < self._instance:
            self._lose("it is started at this moment, too")
        return False

    def hear_state(self, state: Mapping[str, Any], is_retained: bool) -> bool:
        """A state under the name; returns whether our state has to be told again."""
        other = state.get("instance")
        is_online = state.get("online") is True
        if other == self._instance:
            # The will of a connection that was given up, told behind our state.
            return not is_online and self.verdict is Verdict.OURS
        if not is_online:
            if other == self._holder:
                self._holder = ""
            return self.verdict is Verdict.OURS
        if self.verdict is Verdict.OURS:
            return True
        if not is_retained:
            self._lose(_described(state))
        elif state.get("ledger") != self._ledger:
            self._holder = str(other)
            self._holder_until = now() + WILL_AFTER
            self.by = _described(state)
        return False

    def poll(self) -> Verdict:
        """How it stands now."""
        moment = now()
        if self.verdict is Verdict.WAIT and moment > self._settled_at:
            if not self._holder:
                self.verdict = Verdict.OURS
            elif moment > self._holder_until:
                self._lose(self.by)
        return self.verdict

    def _lose(self, by: str) -> None:
        if self.verdict is not Verdict.OURS:
            self.verdict, self.by = Verdict.TAKEN, by


def _described(state: Mapping[str, Any]) -> str:
    camera, url = state.get("camera"), state.get("url")
    return "it has the camera %.60s, and its pictures are at %.80s" % (camera, url)
