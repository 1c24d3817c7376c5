"""Where something stands in a file, for very many things in little memory."""

import array
import bisect
from typing import List


class Places:
    """Offsets by text: 16 bytes and some reserve for each, however long the texts are.

    Texts are told apart by their hash, so that a place may be another text's: who looks there sees
    which one it is. Nothing is guarded: one thread at a time.
    """

    def __init__(self) -> None:
        self.clear()

    def __len__(self) -> int:
        return len(self._offsets)

    def clear(self) -> None:
        """Forgets all of them."""
        self._hashes = array.array("q")  # in their order
        self._offsets = array.array("q")

    def add(self, text: str, offset: int) -> None:
        """One more place of a text."""
        code = hash(text)
        index = bisect.bisect_right(self._hashes, code)
        self._hashes.insert(index, code)
        self._offsets.insert(index, offset)

    def of(self, text: str) -> List[int]:
        """The places of a text, and maybe of others, in the order in which they were added."""
        code = hash(text)
        first = bisect.bisect_left(self._hashes, code)
        return list(self._offsets[first : bisect.bisect_right(self._hashes, code)])
