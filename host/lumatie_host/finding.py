"""Looks for a camera without opening a session."""

import shutil
import tempfile
import time
from typing import Iterable, List, Optional

from . import module_use
from .camera_thread import CameraThread
from .opening import Plan
from .turns import Late, wait_for

_CLOSE_PATIENCE = 10.0  # seconds for a module that hangs


def find(
    names: Iterable[str] = (),
    *,
    module: Optional[str] = None,
    canon_library: Optional[str] = None,
    virtual: Optional[str] = None,
    timeout: float = 15.0,
) -> Optional[str]:
    """The first camera of these names that is there, or None; its session is not kept.

    Any thread may call.

    Args:
        names: of Canon cameras, as they call themselves; for a virtual one they are not needed.
        module, canon_library, virtual: as for `open`.
        timeout: seconds for all of them together.

    Raises:
        ValueError: there is no such virtual camera.
        LibraryMissing: the maker's library cannot be used.
        CameraNotFound: without a name no Canon camera can be looked for.
        FolderShared: another camera is open in this program.
    """
    deadline = time.monotonic() + timeout
    candidates = list(names) if module is None and virtual is None else [""]
    plans = [Plan(name, module, canon_library, virtual) for name in candidates or [""]]
    folder = tempfile.mkdtemp(prefix="lumatie-")
    try:
        module_use.take(folder)
        try:
            return _first(plans, folder, deadline)
        finally:
            module_use.release()
    finally:
        shutil.rmtree(folder, ignore_errors=True)


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
