"""The functions and records of Canon's library that are asked here, declared in our own words.

64-bit systems only. All of it belongs to the thread that starts the library.
"""

import ctypes
import sys
from typing import Any, Callable

MAX_NAME = 256
MAX_ELEMENTS = 128
DEVICE_INFO = 520  # bytes, with the field that newer libraries append
ITEM_INFO = 288
DESCRIPTION = 12 + 4 * MAX_ELEMENTS

ALL_EVENTS = {"Property": 0x100, "Object": 0x200, "CameraState": 0x300}
PROPERTY_CHANGED = 0x101
NEW_ITEM = 0x208

_Reference = ctypes.c_void_p
_Number = ctypes.c_uint32
_Address = ctypes.c_void_p
_Prototype: Any = ctypes.CFUNCTYPE
if sys.platform == "win32":
    _Prototype = ctypes.WINFUNCTYPE  # the same on 64-bit systems

PropertyHandler = _Prototype(_Number, _Number, _Number, _Number, _Address)
ObjectHandler = _Prototype(_Number, _Number, _Reference, _Address)
StateHandler = _Prototype(_Number, _Number, _Number, _Address)


class DeviceInfo(ctypes.Structure):
    """What a camera says of itself."""

    _fields_ = [
        ("port", ctypes.c_char * MAX_NAME),
        ("description", ctypes.c_char * MAX_NAME),
        ("sub_type", _Number),
        ("reserved", _Number),
    ]


class Capacity(ctypes.Structure):
    """Room that is offered for pictures."""

    _fields_ = [
        ("clusters", ctypes.c_int32),
        ("sector", ctypes.c_int32),
        ("reset", ctypes.c_int32),
    ]


_ARGUMENTS = {
    "EdsInitializeSDK": (),
    "EdsTerminateSDK": (),
    "EdsGetCameraList": (_Address,),
    "EdsGetChildCount": (_Reference, _Address),
    "EdsGetChildAtIndex": (_Reference, ctypes.c_int32, _Address),
    "EdsGetDeviceInfo": (_Reference, _Address),
    "EdsRelease": (_Reference,),
    "EdsSetPropertyEventHandler": (_Reference, _Number, PropertyHandler, _Address),
    "EdsSetObjectEventHandler": (_Reference, _Number, ObjectHandler, _Address),
    "EdsSetCameraStateEventHandler": (_Reference, _Number, StateHandler, _Address),
    "EdsOpenSession": (_Reference,),
    "EdsCloseSession": (_Reference,),
    "EdsGetPropertySize": (_Reference, _Number, ctypes.c_int32, _Address, _Address),
    "EdsGetPropertyData": (_Reference, _Number, ctypes.c_int32, _Number, _Address),
    "EdsGetPropertyDesc": (_Reference, _Number, _Address),
    "EdsSetPropertyData": (_Reference, _Number, ctypes.c_int32, _Number, _Address),
    "EdsSendCommand": (_Reference, _Number, ctypes.c_int32),
    "EdsSendStatusCommand": (_Reference, _Number, ctypes.c_int32),
    "EdsSetCapacity": (_Reference, Capacity),
    "EdsGetDirectoryItemInfo": (_Reference, _Address),
    "EdsCreateFileStream": (ctypes.c_char_p, _Number, _Number, _Address),
    "EdsDownload": (_Reference, ctypes.c_uint64, _Reference),
    "EdsDownloadComplete": (_Reference,),
}

OK = 0


class Library:
    """Canon's library, loaded: `call` calls a function by its name."""

    def __init__(self, path: str) -> None:
        self.native: Any = ctypes.CDLL(path)

    def call(self, name: str, *arguments: Any) -> int:
        """The result of a function, 0 for done."""
        function: Callable[..., int] = getattr(self.native, name)
        function.argtypes = _ARGUMENTS[name]  # type: ignore[attr-defined]
        function.restype = _Number  # type: ignore[attr-defined]
        return function(*arguments)
