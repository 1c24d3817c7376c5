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
    """One tethered camera: events go to the callback, settings and the shutter come from here.

    Any thread may call, the callback's included. Nothing that goes wrong with a camera is raised:
    TypeError and OverflowError are for wrong arguments, MemoryError is for a lack of memory.
    """

    this: Any
    @property
    def thisown(self) -> bool:
        """Whether the tether object ends with this object; the wrapper generator's."""
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
        """Starts a session and returns 1, or 0 when it did not start.

        Args:
            szInfo: what a Canon camera calls itself, or the path of a Nikon driver module.
            szExportFolder: where pictures go. It has to be there, with a short path: None, or one
                of 256 bytes, ends the process.
            callback: is called with each event, on a thread of the session's own; None: nobody.
        """
    def UpdateExportFolder(self, szExportFolder: Optional[str]) -> int:
        """Writes pictures into `szExportFolder` from now on, with the rules of Init; returns 1."""
    def Uninit(self) -> int:
        """Ends the session; returns 0 when there was none, else 1.

        When it has returned the callback is not called any more. Inside the callback it does not
        wait for that.
        """
    def Shoot(self) -> int:
        """Releases the shutter; the picture arrives as an event, or nothing does. Returns 1."""
    def SetValue(self, nType: int, value: int) -> int:
        """Asks for a change of a setting, which arrives as an event, or nothing does. Returns 1.

        Args:
            nType: TETHER_SHUTTERSPEED, _APERTURE, _ISO, _WB or _COLORTEMP; others are ignored.
            value: a key of the setting's last list; of a colour temperature the number in kelvin.
        """
