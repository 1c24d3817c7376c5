"""What the system makes of a library, in a process of its own: it is found, and loaded."""

import ctypes
import os
import sys
import time
from typing import List, Optional

from .. import libraries
from ..errors import LibraryMissing
from .pace import milliseconds
from .teller import Evidence, No, Teller


def find(tell: Teller) -> None:
    """Asks where the library is that the module gets when nobody names one."""
    tell.ask("library.found", _find)


def need(tell: Teller, path: str, names: List[str], search: List[str]) -> None:
    """Asks whether the libraries that a library needs are there; those are loaded by it."""
    tell.ask("library.needs", lambda: _need(path, names, search))


def load(tell: Teller, path: str) -> None:
    """Asks whether the system loads a library."""
    tell.ask("library.loads", lambda: _load(path))


def load_module(tell: Teller, path: str, canon_library: Optional[str], is_nikon: bool) -> None:
    """Asks whether the module loads, and uses this library."""
    tell.ask("library.module", lambda: _load_module(path, canon_library, is_nikon))


def _find() -> Evidence:
    try:
        libraries.load_canon()
        libraries.load_module()
    except LibraryMissing as error:
        raise No("%s. %s" % (error, error.advice)) from None
    path = libraries.path_of(libraries.CANON_NAME)
    if path is None:
        raise No("the module has loaded no library %s" % libraries.CANON_NAME)
    return "%s, which the system chose" % path, {"path": path}


def _need(path: str, names: List[str], search: List[str]) -> Evidence:
    folder = os.path.dirname(path)
    own = [place.replace("${ORIGIN}", folder).replace("$ORIGIN", folder) for place in search]
    if sys.platform == "win32":
        own.append(folder)  # where Windows looks first
        os.add_dll_directory(folder)
    missing = []
    for name in names:
        if any(os.path.isfile(os.path.join(place, name)) for place in own):
            continue
        try:
            ctypes.CDLL(name)
        except OSError:
            missing.append(name)
    if missing:
        raise No("missing: %s" % ", ".join(missing), missing=missing)
    return ", ".join(names) or "none"


def _load(path: str) -> Evidence:
    begun = time.monotonic()
    try:
        ctypes.CDLL(path)
    except OSError as error:
        raise No(str(error)) from None
    return "in %s" % milliseconds(time.monotonic() - begun)


def _load_module(path: str, canon_library: Optional[str], is_nikon: bool) -> Evidence:
    try:
        libraries.load_canon(canon_library)
        module = libraries.load_module()
        if is_nikon:
            libraries.check_module(path)
    except LibraryMissing as error:
        raise No("%s. %s" % (error, error.advice)) from None
    native = sys.modules.get("_Lumatie", module)
    used = None if is_nikon else libraries.path_of(libraries.CANON_NAME)
    if used is not None and not os.path.samefile(used, path):
        raise No("the module uses %s" % used)
    return str(getattr(native, "__file__", module))
