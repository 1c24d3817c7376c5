"""Finds and loads the makers' libraries, and says what is wrong with one before it matters.

The module is linked with Canon's library by name, and loads a Nikon driver module by its path.
What cannot be used is told with its path, its bitness and the system's own words, at once.

All functions may be called on any thread.
"""

import ctypes
import dataclasses
import importlib
import importlib.machinery
import importlib.util
import os
import struct
import sys
import tempfile
import threading
from types import ModuleType
from typing import Any, List, Optional

from .errors import LibraryMissing

CANON_NAME = "EDSDK.dll" if os.name == "nt" else "libEDSDK.so"
NIKON_NAME = "VirtualNikon.md3"
NIKON_ENTRY = "MAIDEntryPoint"

# What the module takes from Canon's library.
CANON_FUNCTIONS = (
    "EdsCloseSession",
    "EdsCreateEvfImageRef",
    "EdsCreateFileStream",
    "EdsCreateMemoryStream",
    "EdsDownload",
    "EdsDownloadComplete",
    "EdsDownloadEvfImage",
    "EdsGetCameraList",
    "EdsGetChildAtIndex",
    "EdsGetChildCount",
    "EdsGetDeviceInfo",
    "EdsGetDirectoryItemInfo",
    "EdsGetPropertyData",
    "EdsGetPropertyDesc",
    "EdsGetPropertySize",
    "EdsInitializeSDK",
    "EdsOpenSession",
    "EdsRelease",
    "EdsSendCommand",
    "EdsSendStatusCommand",
    "EdsSetCameraStateEventHandler",
    "EdsSetCapacity",
    "EdsSetObjectEventHandler",
    "EdsSetProgressCallback",
    "EdsSetPropertyData",
    "EdsSetPropertyEventHandler",
    "EdsTerminateSDK",
)

_MODULE = "_Lumatie"
_ELF_BITS = {1: 32, 2: 64}
_PE_BITS = {0x10B: 32, 0x20B: 64}
_MODULE_NOT_FOUND = 126  # Windows' number for a library, or one that it needs, that is not there
_TOO_LATE = "another library of this name is in use already: start the program anew"

_lock = threading.RLock()
_named_folders: List[Any] = []  # each is searched as long as this holds it


@dataclasses.dataclass(frozen=True)
class Virtual:
    """The virtual cameras that came along: complete paths."""

    canon_library: str
    nikon_module: str


def bitness(path: str) -> Optional[int]:
    """How many bits the programs have that a library is for: 32, 64, or None for no library."""
    try:
        if not os.path.isfile(path):  # a pipe would be waited for
            return None
        with open(path, "rb") as file:
            head = file.read(64)
            if head[:4] == b"\x7fELF" and len(head) > 4:
                return _ELF_BITS.get(head[4])
            if head[:2] != b"MZ" or len(head) < 64:
                return None
            file.seek(struct.unpack_from("<I", head, 60)[0])
            header = file.read(26)
    except (OSError, ValueError):
        return None
    if header[:4] != b"PE\0\0" or len(header) < 26:
        return None
    return _PE_BITS.get(struct.unpack_from("<H", header, 24)[0])


def load_canon(path: Optional[str] = None) -> None:
    """Makes the library at `path` the one that the module gets when it is imported afterwards.

    None leaves the choice to the system: the library beside the module, one in a folder that was
    named to the system, or the virtual camera's: in the folder `virtual` beside the module's, or
    in the package `lumatie_virtual`.

    On Linux the file may have any name; on Windows it is called EDSDK.dll.

    Raises:
        LibraryMissing: it is not there, does not fit or lacks a function, or the process uses
            another one already.
    """
    with _lock:
        if path is not None:
            _use_canon(os.path.abspath(path))
            _name_folder(os.path.dirname(os.path.abspath(path)))
        elif os.name == "nt":
            _name_virtual_folder()


def load_module() -> ModuleType:
    """Imports the module, `Lumatie`, and returns it; raises LibraryMissing when that fails."""
    with _lock:
        try:
            return importlib.import_module("Lumatie")
        except ImportError as error:
            # On Linux the text begins with the path of the file that the system stumbled over.
            text = str(error)
            path = text.partition(": ")[0]
            bits = bitness(path)
            if isinstance(error, ModuleNotFoundError):
                path = error.name or "Lumatie"
            elif bits is None or os.path.basename(path).startswith(_MODULE):
                path = CANON_NAME
            raise LibraryMissing(path, bits, text) from error


def check_module(path: str) -> None:
    """Raises LibraryMissing when a Nikon driver module cannot be used.

    Runs nothing of it but what runs when it is loaded. Its path comes from the application's own
    settings: with it the application runs whatever stands there.
    """
    if not os.path.isabs(path):
        raise LibraryMissing(path, None, "its path is not complete")
    with _lock:
        library = _loaded(path)
        is_driver = hasattr(library, NIKON_ENTRY)
        _unload(library)
    if not is_driver:
        raise LibraryMissing(path, bitness(path), "it has no function %s" % NIKON_ENTRY)


def virtual() -> Virtual:
    """The virtual cameras that came along; raises LibraryMissing when there are none."""
    for folder in _virtual_folders():
        canon = os.path.join(folder, CANON_NAME)
        nikon = os.path.join(folder, NIKON_NAME)
        if os.path.isfile(canon) and os.path.isfile(nikon):
            return Virtual(canon, nikon)
    raise LibraryMissing("virtual", None, "no virtual cameras came along")


def path_of(name: str) -> Optional[str]:
    """Where a library is that this process has loaded under this name; None: there is none."""
    if sys.platform == "win32":
        buffer = ctypes.create_unicode_buffer(32768)
        kernel = ctypes.WinDLL("kernel32")
        kernel.GetModuleHandleW.restype = ctypes.c_void_p
        handle = kernel.GetModuleHandleW(name)
        if not handle:  # which would stand for the program itself
            return None
        has_path = kernel.GetModuleFileNameW(ctypes.c_void_p(handle), buffer, len(buffer))
        return buffer.value if has_path else None
    with open("/proc/self/maps", encoding="utf-8", errors="surrogateescape") as file:
        for line in file:
            path = line.rstrip("\n").partition("/")[2]
            if os.path.basename(path) == name:
                return "/" + path
    return None


def _virtual_folders() -> List[str]:
    """Where they are in a build tree, and where the package of their own is installed."""
    folders = []
    module = _module_path()
    if module is not None:
        folders.append(os.path.join(os.path.dirname(os.path.abspath(module)), os.pardir, "virtual"))
    package = importlib.util.find_spec("lumatie_virtual")
    if package is not None:
        folders.extend(package.submodule_search_locations or ())
    return [os.path.abspath(folder) for folder in folders]


def _use_canon(path: str) -> None:
    if os.name == "nt" and os.path.basename(path).lower() != CANON_NAME.lower():
        raise LibraryMissing(path, bitness(path), "its name is not %s" % CANON_NAME)
    library = _loaded(path)
    try:
        missing = [name for name in CANON_FUNCTIONS if not hasattr(library, name)]
        if missing:
            raise LibraryMissing(path, bitness(path), "it has no function %s" % missing[0])
        by_name = _loaded_by_name()
        in_use = _used_by_module() or by_name
        if in_use is not None and _place(in_use) != _place(library):
            raise LibraryMissing(path, bitness(path), _TOO_LATE)
        if by_name is None and _MODULE not in sys.modules:
            _import_beside(path)
    except LibraryMissing:
        _unload(library)
        raise


def _loaded(path: str) -> ctypes.CDLL:
    """The library at a complete path, loaded; raises LibraryMissing with the system's words."""
    if os.path.exists(path) and not os.path.isfile(path):
        raise LibraryMissing(path, None, "it is no file")
    if _is_torn(path):
        raise LibraryMissing(path, bitness(path), "its end is missing")
    try:
        return ctypes.CDLL(path)
    except (OSError, ValueError) as error:
        raise LibraryMissing(path, bitness(path), _system_text(error)) from error


def _place(library: ctypes.CDLL) -> Optional[int]:
    """Where a function of Canon's library is in memory: tells two libraries apart."""
    return ctypes.cast(library.EdsInitializeSDK, ctypes.c_void_p).value


def _module_path() -> Optional[str]:
    """Where the extension module is, imported or not; None when it is nowhere."""
    try:
        module = importlib.util.find_spec(_MODULE)
    except (ImportError, ValueError):
        return None
    return None if module is None else module.origin


if sys.platform == "win32":

    def _system_text(error: Exception) -> str:
        """What Windows says; the interpreter has words of its own for one of its errors."""
        number = getattr(error, "winerror", None) or _MODULE_NOT_FOUND
        return ctypes.FormatError(number).strip()

    def _is_torn(path: str) -> bool:
        return False  # Windows looks itself

    def _unload(library: ctypes.CDLL) -> None:
        free = ctypes.WinDLL("kernel32").FreeLibrary
        free.argtypes = [ctypes.c_void_p]
        free(library._handle)

    def _loaded_by_name() -> Optional[ctypes.CDLL]:
        """The library that an import of this name gets: the first that was loaded under it."""
        get_handle = ctypes.WinDLL("kernel32").GetModuleHandleW
        get_handle.argtypes = [ctypes.c_wchar_p]
        get_handle.restype = ctypes.c_void_p
        handle = get_handle(CANON_NAME)
        return None if not handle else ctypes.CDLL(CANON_NAME, handle=handle)

    def _used_by_module() -> Optional[ctypes.CDLL]:
        return None  # the one that has the name

    def _import_beside(path: str) -> None:
        raise LibraryMissing(path, bitness(path), "it was not loaded as %s" % CANON_NAME)

    def _name_folder(folder: str) -> None:
        _named_folders.append(os.add_dll_directory(folder))

    def _name_virtual_folder() -> None:
        """Has the virtual camera found where nothing else is, as the module does on Linux."""
        module = _module_path()
        if _MODULE in sys.modules or module is None:
            return
        folder = os.path.dirname(os.path.abspath(module))
        if os.path.isfile(os.path.join(folder, CANON_NAME)):
            return
        try:
            ctypes.CDLL(CANON_NAME)
        except OSError:
            for folder in _virtual_folders():
                if os.path.isfile(os.path.join(folder, CANON_NAME)):
                    _name_folder(folder)
                    break

else:

    def _system_text(error: Exception) -> str:
        return str(error)

    def _is_torn(path: str) -> bool:
        """Whether a library lacks its end: Linux would load it, and end the process at once."""
        if bitness(path) != 64:
            return False
        with open(path, "rb") as file:
            head = file.read(64)
            size = os.fstat(file.fileno()).st_size
            if head[:4] != b"\x7fELF" or len(head) < 64:
                return len(head) < 64
            (table,) = struct.unpack_from("<Q", head, 32)
            length, count = struct.unpack_from("<HH", head, 54)
            if length < 56 or table + length * count > size:
                return True
            file.seek(table)
            parts = file.read(length * count)
        for at in range(0, length * count, length):
            kind, _, offset, _, _, in_file = struct.unpack_from("<IIQQQQ", parts, at)
            if kind == 1 and offset + in_file > size:  # a part that is loaded
                return True
        return False

    def _unload(library: ctypes.CDLL) -> None:
        close = ctypes.CDLL(None).dlclose
        close.argtypes = [ctypes.c_void_p]
        close(library._handle)

    def _loaded_by_name() -> Optional[ctypes.CDLL]:
        """The library that the module's wish for the name is met with, if one is loaded."""
        try:
            return ctypes.CDLL(CANON_NAME, mode=os.RTLD_NOLOAD)
        except OSError:
            return None

    def _used_by_module() -> Optional[ctypes.CDLL]:
        """The module itself, in which the functions are found that it uses; None: not imported."""
        path = getattr(sys.modules.get(_MODULE), "__file__", None)
        return None if path is None else ctypes.CDLL(path, mode=os.RTLD_NOLOAD)

    def _import_beside(path: str) -> None:
        """Imports the extension module so that it finds a library that does not say its name.

        The system looks beside the module first, and takes the folder that it is opened in: here
        one that has links to both. The library itself was loaded under its own path, so those that
        it needs were looked for there.
        """
        real = _module_path()
        if real is None:
            raise LibraryMissing(_MODULE, None, "there is no module %s" % _MODULE)
        try:
            with tempfile.TemporaryDirectory(prefix="lumatie-") as folder:
                link = os.path.join(folder, os.path.basename(real))
                os.symlink(os.path.abspath(real), link)
                os.symlink(path, os.path.join(folder, CANON_NAME))
                loader = importlib.machinery.ExtensionFileLoader(_MODULE, link)
                spec = importlib.util.spec_from_file_location(_MODULE, link, loader=loader)
                assert spec is not None
                module = importlib.util.module_from_spec(spec)
                loader.exec_module(module)
        except (ImportError, OSError) as error:
            raise LibraryMissing(path, bitness(path), str(error)) from error
        spec.origin = module.__file__ = real
        sys.modules[_MODULE] = module

    def _name_folder(folder: str) -> None:
        """Nothing to do: a library says itself where those are that it needs."""

    def _name_virtual_folder() -> None:
        """Nothing to do: the module knows the folder."""
