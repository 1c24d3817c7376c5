"""What is looked at before a camera is opened: which one is meant, and where its pictures go.

Whatever can be rejected is rejected here, before the module hears of it. Any thread may call.
"""

import os
from typing import Any, Optional

from . import libraries, pictures
from .errors import CameraNotFound, FolderRejected
from .ledger import INNER_FOLDER

VIRTUAL_CANON = "Virtual EOS"

LONGEST_PATH = 255  # bytes; the module ends the process at a picture whose path is longer
LONGEST_NAME = 32  # bytes of it that the module adds to the folder


class Plan:
    """Which camera is meant, and with which library; raises what is wrong with it."""

    def __init__(
        self,
        camera: str,
        module: Optional[str],
        canon_library: Optional[str],
        virtual: Optional[str],
    ) -> None:
        if virtual not in (None, "canon", "nikon"):
            raise ValueError("no virtual camera: %r" % virtual)
        if virtual is not None:
            came_along = libraries.virtual()
            if virtual == "nikon":
                module = module or came_along.nikon_module
            else:
                camera = camera or VIRTUAL_CANON
                canon_library = canon_library or came_along.canon_library
        self.canon_library = canon_library
        self.module: Optional[str] = None if module is None else os.path.abspath(module)
        self.maker = "canon" if module is None else "nikon"
        self.camera: str = camera
        self.info: str = camera
        if self.module is not None:
            self.camera = camera or os.path.splitext(os.path.basename(self.module))[0]
            self.info = self.module
        else:
            check_camera_name(camera)

    def load(self) -> Any:
        """Loads the maker's library, and the module; raises LibraryMissing."""
        if self.module is not None:
            libraries.check_module(self.module)
        libraries.load_canon(self.canon_library)
        return libraries.load_module()


def check_camera_name(camera: str) -> None:
    """Raises CameraNotFound when a name cannot be a Canon camera's.

    The module takes the path of a file for a Nikon driver module, and would run what stands there.
    """
    try:
        camera.encode("utf-8")
    except UnicodeEncodeError:
        raise CameraNotFound(ascii(camera)) from None
    if not camera or "\0" in camera:
        raise CameraNotFound(camera)
    if os.path.lexists(camera):
        raise CameraNotFound(camera, os.path.abspath(camera))


def checked_folder(folder: str) -> str:
    """The folder's complete path; raises FolderRejected when its form is wrong already."""
    if not folder:  # which is not taken for the current one
        raise FolderRejected(folder, "no folder was named")
    try:
        path = os.path.abspath(os.fspath(folder))
        length = len(path.encode("utf-8"))
    except UnicodeEncodeError:
        raise FolderRejected(ascii(folder), "its name is not valid UTF-8") from None
    except ValueError as error:
        raise FolderRejected(folder, str(error)) from None
    if not os.path.isdir(path):
        why = "it is a file, not a folder" if os.path.exists(path) else "there is no such folder"
        raise FolderRejected(folder, why)
    inner = os.path.join("", INNER_FOLDER, pictures.SPOOL, "%d-123456" % os.getpid())
    too_long = length + 1 + len(inner) + LONGEST_NAME - LONGEST_PATH
    if too_long > 0:
        raise FolderRejected(folder, "its path is too long by %d bytes" % too_long)
    return path


def made_spool(folder: str) -> pictures.Spool:
    """A spool folder for a session; raises FolderRejected when there can be none."""
    try:
        return pictures.Spool.make(folder)
    except OSError as error:
        raise FolderRejected(folder, error.strerror or str(error)) from error
