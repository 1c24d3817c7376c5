# The tether object as applications see it.
from typing import Any, Callable, Optional

VENDOR_NONE: int
VENDOR_NIKON: int
VENDOR_CANON: int
TETHER_GENERAL: int
TETHER_EXPOSUREMODE: int
TETHER_EXPOSUREMODE_LIST: int
TETHER_SHUTTERSPEED: int
TETHER_SHUTTERSPEED_LIST: int
TETHER_APERTURE: int
TETHER_APERTURE_LIST: int
TETHER_ISO: int
TETHER_ISO_LIST: int
TETHER_WB: int
TETHER_WB_LIST: int
TETHER_COLORTEMP: int
TETHER_COLORTEMP_LIST: int
TETHER_IMAGEQUALITY: int
TETHER_IMAGEQUALITY_LIST: int

TETHER_GENERAL_DEVICEBUSY: str
TETHER_GENERAL_NEWFILE: str
TETHER_GENERAL_WRITEFAIL: str
TETHER_NIKON_EDITABLE: str
TETHER_CANON_COLORTEMP: int
TETHER_CANON_AUTO: int
TETHER_CANON_BULB: int

cvar: Any

class Lumatie:
    """One tethered camera: events go to the callback, settings and the shutter come from here."""

    this: Any
    @property
    def thisown(self) -> bool: ...
    @thisown.setter
    def thisown(self, v: bool) -> None: ...
    @staticmethod
    def __swig_destroy__(self: Any, /) -> None: ...
    def __init__(self) -> None: ...
    def Init(
        self,
        szInfo: Optional[str],
        szExportFolder: Optional[str],
        callback: Optional[Callable[..., object]],
    ) -> int:
        """Starts a session and returns 1, or 0 when there is no such camera."""
    def UpdateExportFolder(self, szExportFolder: Optional[str]) -> int:
        """Writes pictures into another folder from now on; returns 1."""
    def Uninit(self) -> int:
        """Ends the session; returns 0 when there was none, else 1."""
    def Shoot(self) -> int:
        """Releases the shutter; the picture arrives as an event. Returns 1."""
    def SetValue(self, nType: int, value: int) -> int:
        """Changes the setting of a TETHER_* type to a key of that type's list; returns 1."""
