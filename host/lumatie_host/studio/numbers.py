"""Which numbers there are, for very many of them in little memory."""

from typing import Dict

_SHIFT = 10  # 1024 numbers stand in one block


class Numbers:
    """A set of whole numbers that lie close together: some 250 bytes for each 1024 in a row.

    Nothing is guarded: one thread at a time.
    """

    __slots__ = ("_blocks", "_count")

    def __init__(self) -> None:
        self._blocks: Dict[int, int] = {}  # a bit for each number
        self._count = 0

    def __len__(self) -> int:
        return self._count

    def __contains__(self, number: int) -> bool:
        return bool(self._blocks.get(number >> _SHIFT, 0) & _bit(number))

    def add(self, number: int) -> None:
        """Takes one in; does nothing when it is there."""
        if number not in self:
            block = number >> _SHIFT
            self._blocks[block] = self._blocks.get(block, 0) | _bit(number)
            self._count += 1


def _bit(number: int) -> int:
    return 1 << (number & ((1 << _SHIFT) - 1))
