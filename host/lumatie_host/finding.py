"""Looks for a camera without opening a session."""

import logging
import os
import tempfile
import time
from typing import Iterable, List, Optional, Union

from . import module_use
from .camera_thread import CameraThread
from .errors import CameraNotFound
from .opening import VIRTUAL_CANON, Plan
from .turns import Late, wait_for

_CLOSE_PATIENCE = 10.0  # seconds for a module that hangs

_log = logging.getLogger("lumatie_host")


def find(
    names: Union[str, Iterable[str]] = (),
    *,
    module: Optional[str] = None,
    canon_library: Optional[str] = None,
    virtual: Optional[str] = None,
    timeout: float = 15.0,
) -> Optional[str]:
    """The first camera of these names that is there, or None; its session is not kept.

    Any thread may call.

    Args:
        names: of Canon cameras, as they call themselves, or one of them; those that no camera can
            have are passed over. Without any the virtual camera is looked for.
        module, canon_library, virtual: as for `open`.
        timeout: seconds for all of them together.

    Raises:
        ValueError: there is no such virtual camera.
        LibraryMissing: the maker's library cannot be used.
        FolderShared: another camera is open in this program.
    """
    deadline = time.monotonic() + timeout
    plans = list(_plans(names, module, canon_library, virtual))
    folder = tempfile.mkdtemp(prefix="lumatie-")
    try:
        module_use.take(folder)
        try:
            return _first(plans, folder, deadline)
        finally:
            module_use.release()
    finally:
        _leave(folder)


def _plans(
    names: Union[str, Iterable[str]],
    module: Optional[str],
    canon_library: Optional[str],
    virtual: Optional[str],
) -> Iterable[Plan]:
    """Which cameras are meant, without those that cannot be."""
    candidates = [names] if isinstance(names, str) else list(names)
    if module is not None or virtual is not None:
        candidates = [""]
    for name in candidates or [VIRTUAL_CANON]:
        try:
            yield Plan(name, module, canon_library, virtual)
        except CameraNotFound as error:
            _log.debug("no camera can have the name: %s", error)


def _first(plans: List[Plan], folder: str, deadline: float) -> Optional[str]:
    thread = None
    try:
        for plan in plans:
            native = plan.load()
            if thread is None:
                thread = CameraThread(plan.maker == "nikon", lambda note: None, module=native)
            if wait_for(thread.init(plan.info, folder), deadline):
                return plan.camera
    except Late:
        pass
    finally:
        if thread is not None:
            thread.end(_CLOSE_PATIENCE)
    return None


def _leave(folder: str) -> None:
    """Removes the folder, unless pictures came into it, as from a Nikon camera's card."""
    try:
        os.rmdir(folder)
    except OSError as error:
        _log.warning("what came while a camera was looked for is kept in %s: %s", folder, error)
