"""Disks that lack what renaming without replacing is made of."""

import contextlib
import errno
from unittest import mock

from lumatie_host import files


@contextlib.contextmanager
def no_links():
    """A file system that has no hard links."""
    with mock.patch.object(files.os, "link", side_effect=OSError(errno.EPERM, "no links")):
        yield


@contextlib.contextmanager
def no_links_and_no_system_call():
    """Nor has the system a call for it."""
    with no_links(), mock.patch.object(files, "_renameat2", return_value=None):
        yield
