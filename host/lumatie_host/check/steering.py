"""What a person does at a camera, done at a virtual one by its steering functions."""

import ctypes
from typing import Any, Optional

_PAIR = {
    "canon": b"value.0x100 = 0x00640013",  # RAW with a large JPEG
    "nikon": b"value.0x8110 = 6",  # the last of the qualities
}


class Hands:
    """Hands at a virtual camera, the first of its library."""

    def __init__(self, native: Any, maker: str) -> None:
        self._native = native
        self._maker = maker

    def press(self) -> bool:
        """Presses the shutter button on the body."""
        return bool(self._native.VirtualCameraPressShutter(0))

    def unplug(self) -> bool:
        return bool(self._native.VirtualCameraUnplug(0))

    def plug(self) -> bool:
        return bool(self._native.VirtualCameraPlug(0))

    def choose_pair(self) -> bool:
        """Sets the quality to RAW and JPEG."""
        return bool(self._native.VirtualCameraConfigure(_PAIR[self._maker]) == 0)


def hands_at(path: str, maker: str) -> Optional[Hands]:
    """Hands at the camera of this library, when it is a virtual one."""
    native = ctypes.CDLL(path)
    return Hands(native, maker) if hasattr(native, "VirtualCameraPressShutter") else None
