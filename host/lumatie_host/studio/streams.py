"""The records of one station's ledger, as the studio has them: each once, whatever comes how often.

A number is *taken* when its record has come, and *settled* when nothing has to be done for it any
more: a picture is collected, a shot has brought one or is known to be missing. What is kept over a
restart is the number up to which all are settled, with the counts up to there; what lies behind it
is asked for again then.

Used with the hub's lock held.
"""

import collections
import sys
from typing import Any, Deque, Dict, List, Mapping, Optional, Tuple

FARTHEST = 10_000  # numbers ahead of what is known; what is farther waits to be asked for
_MOST_SESSIONS = 100  # whose beginnings are known


class _Entry:
    __slots__ = ("deadline", "ends", "is_settled", "session", "shot")

    def __init__(self) -> None:
        self.is_settled = False
        self.shot: Optional[int] = None  # it was asked for
        self.deadline = 0.0
        self.ends: Optional[int] = None  # a shot whose end it tells, and that had not come before
        self.session: Optional[str] = None  # that shot's, where it is told


class Stream:
    """One ledger of one station; `settled`, `asked` and `have` are those of an earlier run."""

    def __init__(self, settled: int = 0, asked: int = 0, have: int = 0) -> None:
        self.settled = settled
        self.taken = settled  # all numbers up to this one
        self.highest = settled  # that anybody told of
        self._settled_asked = asked
        self._settled_have = have
        self._entries: Dict[int, _Entry] = {}  # up to `taken`: of shots, and of what is not settled
        self._absent: Dict[int, int] = {}  # first to last of many numbers that do not exist
        # Of the entries, so that nobody has to go through all of them: what waits may be much.
        self._shots = 0
        self._open: Dict[int, _Entry] = {}  # shots that have brought nothing: number to entry
        self._missing: Dict[int, _Entry] = {}  # those of which nothing is to be expected any more
        # Those that are settled: number and shot.
        self._given_up: Deque[Tuple[int, int]] = collections.deque(maxlen=100)
        # Each session counts its shots anew, from the record of its opening on: its number.
        self._beginnings: Dict[str, int] = {}
        # Of shots whose own record is still to come: number to whether it is a failure.
        self._early: Dict[int, Dict[int, bool]] = {}

    @property
    def asked(self) -> int:
        """How many shots were asked for."""
        return self._settled_asked + self._shots

    @property
    def have(self) -> int:
        """How many of them have brought a picture."""
        return self._settled_have + self._shots - len(self._open) - len(self._missing)

    @property
    def missing(self) -> int:
        """How many are known to have brought nothing."""
        return self.asked - self.have - len(self._open)

    @property
    def has_gap(self) -> bool:
        """Whether records are known to be missing."""
        return self.taken < self.highest

    def tell_of(self, number: int) -> None:
        """Somebody says that the ledger goes up to this number."""
        self.highest = max(self.highest, number)

    def is_new(self, number: int) -> bool:
        """Whether a record with this number is to be taken."""
        self.tell_of(number)
        return (
            number > self.taken and number not in self._entries and number <= self.taken + FARTHEST
        )

    def take(self, number: int, record: Mapping[str, Any], deadline: float) -> None:
        """Notes a record that is new. One of a picture waits for `settle`."""
        entry = self._entries[number] = _Entry()
        kind = record["kind"]
        if kind == "shot":
            entry.shot, entry.deadline = record["shot"], deadline
            self._open[number] = entry
            self._shots += 1
            self._answer_early(number, record["shot"])
        elif kind == "picture":
            session = record.get("session")
            entry.session = sys.intern(session) if isinstance(session, str) else None
            self._answer(number, record["shot"], record.get("origin") == "recovered", False)
        else:
            entry.is_settled = True
            if kind == "opened":
                self._begin_session(str(record.get("session", "")), number)
            if kind == "failed" and record.get("shot") is not None:
                self._answer(number, record["shot"], False, True)
        self._take_up_to(self.taken)
        self._advance()

    def pass_over(self, number: int) -> None:
        """What has not come up to this number does not exist."""
        self._take_up_to(min(number, self.taken + FARTHEST))
        if self.taken < number:  # nothing that is so far ahead was taken
            self._absent[self.taken + 1] = number
            self.taken = number
        self.tell_of(number)
        self._advance()

    def limit(self, number: int) -> None:
        """The ledger goes up to this number, and not farther, whatever was told."""
        self.highest = max(self.taken, number)

    def settle(self, number: int) -> None:
        """Nothing has to be done any more for the picture of this number."""
        entry = self._entries.get(number)
        if entry is not None:
            entry.is_settled = True
            self._let_go(number)
            self._advance()

    def late(self, now: float) -> List[int]:
        """Shots whose deadline has passed without a picture; each is told once."""
        late = [number for number, entry in self._open.items() if entry.deadline < now]
        shots = []
        for number in late:
            entry = self._missing[number] = self._open.pop(number)
            entry.is_settled = True
            shots.append(entry.shot or 0)
        self._advance()
        return shots

    def _begin_session(self, session: str, number: int) -> None:
        self._beginnings[session] = number
        if len(self._beginnings) > _MOST_SESSIONS:
            del self._beginnings[min(self._beginnings, key=self._beginnings.__getitem__)]

    def _beginning(self, number: int, is_failure: bool) -> int:
        """The number behind which the shot of a picture or a failure was asked for."""
        session = self._entries[number].session
        if session in self._beginnings:
            return self._beginnings[session]
        latest = max((n for n in self._beginnings.values() if n < number), default=0)
        if session is None and not is_failure:
            return latest
        # It began long ago, or among records that are still missing.
        hole = 0
        if number > self.taken + 1:
            numbers = range(number - 1, self.taken, -1)
            hole = next((n for n in numbers if n not in self._entries), 0)
        return hole if session is not None else max(hole, latest)

    def _answer(self, number: int, shot: int, is_any: bool, is_failure: bool) -> None:
        """A picture or a failure of a shot: of the last one before it with that number."""
        first = self._beginning(number, is_failure)
        found = _last(self._open, shot, first, number)
        if found is None and is_failure and number <= self.taken + 1:
            found = _last(self._open, shot, 0, number)  # of a session beside the last one
        if found is None and is_any:
            found = next(iter(self._open), None)
        if found is not None:
            entry = self._open.pop(found)
            entry.is_settled = True
            if is_failure:
                self._missing[found] = entry
        elif is_failure or not self._is_had_after_all(shot, first, number):
            if number > self.taken + 1:
                self._entries[number].ends = shot
                self._early.setdefault(shot, {})[number] = is_failure

    def _is_had_after_all(self, shot: int, first: int, end: int) -> bool:
        """Takes a picture of a shot that was given up; False: there is no such shot."""
        found = _last(self._missing, shot, first, end)
        if found is not None:
            del self._missing[found]
            return True
        for one in self._given_up:
            if one[1] == shot and first < one[0] < end:
                self._given_up.remove(one)
                self._settled_have += 1
                return True
        return False

    def _answer_early(self, number: int, shot: int) -> None:
        """A shot has come: what came before it, and stands behind it in the ledger, answers it."""
        early = self._early.get(shot, {})
        # Each session counts its shots anew: what stands behind another one is that one's.
        others = (n for n, entry in self._entries.items() if n > number and entry.shot == shot)
        end = min(others, default=None) if early else None
        for one in sorted(early):
            if one > number and (end is None or one < end):
                is_failure = self._forget_early(one)
                self._answer(one, shot, False, is_failure)

    def _forget_early(self, number: int) -> bool:
        """Whether it was a failure."""
        entry = self._entries[number]
        shot, entry.ends = entry.ends or 0, None
        early = self._early[shot]
        is_failure = early.pop(number)
        if not early:
            del self._early[shot]
        return is_failure

    def _take_up_to(self, number: int) -> None:
        """All up to a number has come or does not exist, and what has come right behind it."""
        while self.taken < number or self.taken + 1 in self._entries:
            self.taken += 1
            entry = self._entries.get(self.taken)
            if entry is not None and entry.ends is not None:
                shot, is_failure = entry.ends, self._forget_early(self.taken)
                if is_failure or entry.session is not None:
                    # When its session began is known by now.
                    self._answer(self.taken, shot, False, is_failure)
            self._let_go(self.taken)

    def _let_go(self, number: int) -> None:
        """Forgets what is settled: a picture that never comes would keep all behind it.

        Shots stay until all before them is settled, too: they are counted up to there.
        """
        entry = self._entries.get(number)
        if entry is not None and entry.is_settled and entry.shot is None and number <= self.taken:
            del self._entries[number]

    def _advance(self) -> None:
        while self.settled < self.taken:
            if self.settled + 1 in self._absent:
                self.settled = self._absent.pop(self.settled + 1)
                continue
            entry = self._entries.get(self.settled + 1)
            if entry is not None and not entry.is_settled:
                break
            self.settled += 1
            if entry is not None and entry.shot is not None:
                del self._entries[self.settled]
                self._count(self.settled, entry.shot)

    def _count(self, number: int, shot: int) -> None:
        """A shot is settled, and all before it."""
        self._shots -= 1
        self._settled_asked += 1
        if self._missing.pop(number, None) is None:
            self._settled_have += 1
        else:
            self._given_up.append((number, shot))


def _last(entries: Mapping[int, _Entry], shot: int, first: int, end: int) -> Optional[int]:
    """The last of some shots with a number, between two numbers of the ledger."""
    found = (n for n, entry in entries.items() if entry.shot == shot and first < n < end)
    return max(found, default=None)
