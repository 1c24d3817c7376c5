"""Acts that take time: a few at once, each on a thread and to its end."""

import asyncio
from concurrent.futures import Executor, ThreadPoolExecutor
from typing import Callable, TypeVar

from .problems import Problem

MOST = 8  # under way

_Result = TypeVar("_Result")


class Acts:
    """The acts of one page. It belongs to the loop's thread.

    Args:
        busy: what is said when too many are under way.
    """

    def __init__(self, busy: str) -> None:
        self._busy = busy
        self._count = 0
        self._pool = ThreadPoolExecutor(MOST, "lumatie-act")

    async def do(self, function: Callable[[], _Result]) -> _Result:
        """Does one; raises Problem when too many are under way already."""
        if self._count >= MOST:
            raise Problem(429, self._busy, "Wait.", "too_many")
        self._count += 1
        try:
            return await on(self._pool, function)
        finally:
            self._count -= 1

    def close(self) -> None:
        """Takes no more; what is under way is not waited for."""
        self._pool.shutdown(wait=False)


async def on(pool: Executor, function: Callable[[], _Result]) -> _Result:
    """Does something on a thread."""
    # Who goes away does not take back what was asked for.
    return await asyncio.shield(asyncio.get_event_loop().run_in_executor(pool, function))
