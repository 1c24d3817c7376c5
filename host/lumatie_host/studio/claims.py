"""Who has a station's name: the one who was there first.

Whoever comes asks on `claim` whether the name is taken. A station that has it tells its state
again, and the one that came goes. A state that the broker kept of a station that is gone is
followed by that station's will, at the latest when the broker has missed its signs of life; when
the broker was away itself there is no will, and the name is free all the same behind that time. Of
two that come at one moment the one with the lesser instance stays: it claims the name again, for
the other one may have come behind its claim. Should both have it, because the network held all of
that up, the other one goes when it hears of this one.

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


class Reply(enum.Enum):
    """What is to be told to what was heard."""

    NOTHING = "nothing"
    STATE = "state"
    CLAIM = "claim"


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

    @property
    def is_heard(self) -> bool:
        """Whether our own claim has come back."""
        return self._settled_at < float("inf")

    def hear_claim(self, claim: Mapping[str, Any]) -> Reply:
        """A claim on the name."""
        other = claim.get("instance")
        if other == self._instance:
            self._settled_at = min(self._settled_at, now() + SETTLING)
        elif self.verdict is Verdict.OURS:
            return Reply.STATE
        elif isinstance(other, str) and other < self._instance:
            self._lose("it is started at this moment, too")
        elif self.verdict is Verdict.WAIT and other != self._holder:
            return Reply.CLAIM  # it may not have heard ours; a holder that is back was there first
        return Reply.NOTHING

    def hear_state(self, state: Mapping[str, Any], is_retained: bool) -> Reply:
        """A state under the name."""
        other = state.get("instance")
        is_online = state.get("online") is True
        is_ours = self.verdict is Verdict.OURS
        if other == self._instance:
            # The will of a connection that was given up, told behind our state.
            return Reply.STATE if is_ours and not is_online else Reply.NOTHING
        if not is_online:
            if other == self._holder:
                self._holder = ""
        elif is_ours:
            if not is_retained and isinstance(other, str) and other < self._instance:
                self._lose(_described(state))
        elif not is_retained:
            self._lose(_described(state))
        elif state.get("ledger") != self._ledger:
            self._holder = str(other)
            self._holder_until = now() + WILL_AFTER
        return Reply.STATE if self.verdict is Verdict.OURS else Reply.NOTHING

    def poll(self) -> Verdict:
        """How it stands now."""
        # A holder that is there answers our claim in its time, or comes back with one of its own.
        free_at = max(self._settled_at, self._holder_until if self._holder else 0.0)
        if self.verdict is Verdict.WAIT and now() > free_at:
            self.verdict = Verdict.OURS
        return self.verdict

    def _lose(self, by: str) -> None:
        self.verdict, self.by = Verdict.TAKEN, by


def _described(state: Mapping[str, Any]) -> str:
    camera, url = state.get("camera"), state.get("url")
    return "it has the camera %.60s, and its pictures are at %.80s" % (camera, url)
