"""Shooting tethered, for applications: sessions, settings, pictures and a record of all of it."""

from typing import TYPE_CHECKING

from . import log
from .errors import (
    CameraNotFound,
    FolderRejected,
    FolderShared,
    LibraryMissing,
    NameRejected,
    NoAnswer,
    NotSettable,
    PictureLost,
    Reason,
    Refused,
    SessionLost,
    TetherError,
    TooLate,
    WriteFailed,
)
from .errors import Closed as SessionClosed
from .events import (
    Alarm,
    Back,
    Closed,
    Copied,
    Event,
    Failed,
    Lagged,
    Lost,
    Opened,
    Picture,
    Rated,
    SettingChanged,
    ShotAsked,
)
from .finding import find
from .ledger import Ledger, verify
from .libraries import virtual
from .session import Session, open  # noqa: A004
from .settings import NAMES, Choice, Setting
from .shots import Shot
from .version import __version__

if TYPE_CHECKING:
    from .aio import AsyncSession, open_async
else:

    def __getattr__(name):
        """Imports asyncio for those who use it, and for nobody else."""
        if name in ("AsyncSession", "open_async"):
            from . import aio

            return getattr(aio, name)
        raise AttributeError("module %r has no attribute %r" % (__name__, name))


__all__ = [
    "NAMES",
    "Alarm",
    "AsyncSession",
    "Back",
    "CameraNotFound",
    "Choice",
    "Closed",
    "Copied",
    "Event",
    "Failed",
    "FolderRejected",
    "FolderShared",
    "Lagged",
    "Ledger",
    "LibraryMissing",
    "Lost",
    "NameRejected",
    "NoAnswer",
    "NotSettable",
    "Opened",
    "Picture",
    "PictureLost",
    "Rated",
    "Reason",
    "Refused",
    "Session",
    "SessionClosed",
    "SessionLost",
    "Setting",
    "SettingChanged",
    "Shot",
    "ShotAsked",
    "TetherError",
    "TooLate",
    "WriteFailed",
    "__version__",
    "find",
    "open",
    "open_async",
    "verify",
    "virtual",
]

log.set_up()
