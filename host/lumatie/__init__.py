"""The package `lumatie_host` under the name that is installed: `import lumatie`."""

from typing import TYPE_CHECKING

import lumatie_host

if TYPE_CHECKING:
    from lumatie_host import *  # noqa: F403


def __getattr__(name):  # type: ignore[no-untyped-def]
    """What the package has, when it is asked for: asyncio, too, is imported then only."""
    if name in __all__:
        return getattr(lumatie_host, name)
    raise AttributeError("module %r has no attribute %r" % (__name__, name))


__all__ = []
__all__ += lumatie_host.__all__
