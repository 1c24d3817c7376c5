"""Window messages of Windows: the queue of a thread, and what it is told about devices.

On other systems there are none, and `open_pump` returns None.
"""

import logging
import sys
from typing import Callable, Optional

# Called with a device's name as the system tells it, "" when it tells none, and whether it came.
OnDevices = Callable[[str, bool], None]

_log = logging.getLogger("lumatie_host")

if sys.platform == "win32":
    import ctypes
    import itertools
    from ctypes import wintypes
    from typing import Any, Tuple

    _REMOVE = 1  # of PeekMessageW
    _ONLY_MESSAGES = -3  # the parent of windows that are never shown
    _DEVICE_CHANGE = 0x0219
    _ARRIVAL, _REMOVAL, _NODES_CHANGED = 0x8000, 0x8004, 0x0007
    _INTERFACES = 5  # the kind of device that is told of
    _ALL_CLASSES = 4
    _NAME_OFFSET = 28  # in what is told of an interface: three numbers and a GUID come before it
    _MOST_MESSAGES = 1000  # at a time, so that the thread's own work gets its turn

    _Result = ctypes.c_ssize_t
    _Procedure = ctypes.WINFUNCTYPE(
        _Result, wintypes.HWND, wintypes.UINT, wintypes.WPARAM, wintypes.LPARAM
    )

    class _WindowClass(ctypes.Structure):
        _fields_ = [
            ("style", wintypes.UINT),
            ("procedure", _Procedure),
            ("class_extra", ctypes.c_int),
            ("window_extra", ctypes.c_int),
            ("instance", wintypes.HINSTANCE),
            ("icon", wintypes.HANDLE),
            ("cursor", wintypes.HANDLE),
            ("background", wintypes.HANDLE),
            ("menu", wintypes.LPCWSTR),
            ("name", wintypes.LPCWSTR),
        ]

    class _Filter(ctypes.Structure):
        _fields_ = [
            ("size", wintypes.DWORD),
            ("kind", wintypes.DWORD),
            ("reserved", wintypes.DWORD),
            ("guid", ctypes.c_byte * 16),
            ("name", wintypes.WCHAR * 2),
        ]

    def _load() -> Tuple[Any, Any]:
        user, kernel = (ctypes.WinDLL(name, use_last_error=True) for name in ("user32", "kernel32"))
        kernel.GetModuleHandleW.restype = wintypes.HMODULE
        kernel.GetModuleHandleW.argtypes = [wintypes.LPCWSTR]
        user.DefWindowProcW.restype = _Result
        user.DefWindowProcW.argtypes = [
            *(wintypes.HWND, wintypes.UINT, wintypes.WPARAM, wintypes.LPARAM)
        ]
        user.CreateWindowExW.restype = wintypes.HWND
        user.CreateWindowExW.argtypes = [
            *(wintypes.DWORD, wintypes.LPCWSTR, wintypes.LPCWSTR, wintypes.DWORD),
            *(ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_int),
            *(wintypes.HWND, wintypes.HMENU, wintypes.HINSTANCE, wintypes.LPVOID),
        ]
        user.DestroyWindow.argtypes = [wintypes.HWND]
        user.UnregisterClassW.argtypes = [wintypes.LPCWSTR, wintypes.HINSTANCE]
        user.RegisterDeviceNotificationW.restype = wintypes.HANDLE
        user.RegisterDeviceNotificationW.argtypes = [
            *(wintypes.HANDLE, wintypes.LPVOID, wintypes.DWORD)
        ]
        user.UnregisterDeviceNotification.argtypes = [wintypes.HANDLE]
        return user, kernel

    _numbers = itertools.count(1)

    class Pump:
        """The message queue of the thread that makes it, with a window that hears of devices.

        Belongs to that thread.
        """

        def __init__(self, on_devices: Optional[OnDevices]) -> None:
            self._user, kernel = _load()
            self._on_devices = on_devices
            self._message = wintypes.MSG()
            self._name = "Lumatie devices %d" % next(_numbers)
            self._instance = kernel.GetModuleHandleW(None)
            self._procedure = _Procedure(self._receive)  # has to live as long as the window
            self.window: Optional[int] = None
            self._notification: Optional[int] = None
            self._open_window()

        def run(self) -> None:
            """Delivers what waits for this thread."""
            message = ctypes.byref(self._message)
            for _ in range(_MOST_MESSAGES):
                if not self._user.PeekMessageW(message, None, 0, 0, _REMOVE):
                    return
                self._user.TranslateMessage(message)
                self._user.DispatchMessageW(message)

        def close(self) -> None:
            """Ends the window; on its own thread."""
            if self._notification:
                self._user.UnregisterDeviceNotification(self._notification)
            if self.window:
                self._user.DestroyWindow(self.window)
                self.window = None
            self._user.UnregisterClassW(self._name, self._instance)

        def _open_window(self) -> None:
            described = _WindowClass(
                procedure=self._procedure, instance=self._instance, name=self._name
            )
            if self._user.RegisterClassW(ctypes.byref(described)):
                self.window = self._user.CreateWindowExW(
                    *(0, self._name, self._name, 0, 0, 0, 0, 0),
                    *(_ONLY_MESSAGES, None, self._instance, None),
                )
            if not self.window:
                _log.debug("no window for messages about devices: %d", ctypes.get_last_error())
                return
            wanted = _Filter(size=ctypes.sizeof(_Filter), kind=_INTERFACES)
            self._notification = self._user.RegisterDeviceNotificationW(
                self.window, ctypes.byref(wanted), _ALL_CLASSES
            )
            if not self._notification:
                _log.debug("no messages about devices: %d", ctypes.get_last_error())

        def _receive(self, window: int, message: int, what: int, data: int) -> int:
            if message != _DEVICE_CHANGE:
                return int(self._user.DefWindowProcW(window, message, what, data))
            if self._on_devices is not None and what in (_ARRIVAL, _REMOVAL, _NODES_CHANGED):
                try:
                    self._on_devices(_device_name(what, data), what != _REMOVAL)
                except Exception:
                    _log.exception("a message about a device was not taken")
            return 1

    def _device_name(what: int, data: int) -> str:
        if what == _NODES_CHANGED or not data:
            return ""
        size, kind = (wintypes.DWORD * 2).from_address(data)
        if kind != _INTERFACES or size <= _NAME_OFFSET:
            return ""
        most = (size - _NAME_OFFSET) // ctypes.sizeof(wintypes.WCHAR)
        return ctypes.wstring_at(data + _NAME_OFFSET, most).partition("\0")[0]

    def open_pump(on_devices: Optional[OnDevices]) -> Optional[Pump]:
        """The pump of the calling thread; None when there is nothing to pump."""
        return Pump(on_devices)

else:

    class Pump:
        """There are no messages on this system."""

        def run(self) -> None:
            """Delivers what waits for this thread."""

        def close(self) -> None:
            """Ends it."""

    def open_pump(on_devices: Optional[OnDevices]) -> Optional[Pump]:
        """The pump of the calling thread; None when there is nothing to pump."""
        del on_devices
        return None
