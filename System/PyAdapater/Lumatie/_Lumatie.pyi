# The flat functions of the extension module; applications use the class in Lumatie.py.
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

# The read-only variables: TETHER_GENERAL_DEVICEBUSY, TETHER_GENERAL_NEWFILE,
# TETHER_GENERAL_WRITEFAIL and TETHER_NIKON_EDITABLE are str, TETHER_CANON_COLORTEMP,
# TETHER_CANON_AUTO and TETHER_CANON_BULB int. The object's type has no name that could be imported.
cvar: Any

def new_Lumatie() -> Any:
    """Makes the tether object of a `Lumatie`. Any thread may call."""

def delete_Lumatie(self: Any, /) -> None:
    """Ends the tether object's sessions, and the object. Any thread may call."""

def Lumatie_Init(
    self: Any,
    szInfo: Optional[str],
    szExportFolder: Optional[str],
    callback: Optional[Callable[..., object]],
    /,
) -> int:
    """See `Lumatie.Init`."""

def Lumatie_UpdateExportFolder(self: Any, szExportFolder: Optional[str], /) -> int:
    """See `Lumatie.UpdateExportFolder`."""

def Lumatie_Uninit(self: Any, /) -> int:
    """See `Lumatie.Uninit`."""

def Lumatie_Shoot(self: Any, /) -> int:
    """See `Lumatie.Shoot`."""

def Lumatie_SetValue(self: Any, nType: int, value: int, /) -> int:
    """See `Lumatie.SetValue`."""

def Lumatie_swigregister(proxy: type, /) -> None: ...
def Lumatie_swiginit(proxy: Any, this: Any, /) -> None: ...
