"""Names of files: a move that replaces nothing, numbers for second ones, folders on the disk."""

import ctypes
import errno
import functools
import itertools
import os
import sys
from typing import Callable, Iterator, Optional

LONGEST = 255  # bytes of UTF-8, and units of UTF-16, of each part of a name

_CWD = -100  # AT_FDCWD
_KEEP = 1  # RENAME_NOREPLACE

# What the system says when a file system has no rename that does not replace.
_NOT_THERE = (errno.EPERM, errno.ENOSYS, errno.EINVAL, errno.ENOTSUP, errno.EOPNOTSUPP)


def rename_new(source: str, target: str) -> None:
    """Renames a file on one volume; raises FileExistsError instead of replacing one.

    Many drives of photographers are formatted without hard links: the system's own rename that
    does not replace comes next, and a name that is taken first, with an empty file, at last.
    """
    if os.name == "nt":
        os.rename(source, target)
        return
    try:
        os.link(source, target)
    except FileExistsError:
        raise
    except OSError:
        if not _rename_with_flag(source, target):
            _rename_to_taken(source, target)
    else:
        os.unlink(source)


def candidates(name: str) -> Iterator[str]:
    """The name, then numbered ones, without an end."""
    yield name
    for number in itertools.count(2):
        yield numbered(name, number)


def numbered(name: str, number: int) -> str:
    """A name for a further file of that name: "a (2).JPG". `/` divides folders."""
    folder, slash, last = name.rpartition("/")
    stem, extension = os.path.splitext(last)
    mark = " (%d)" % number
    stem = cut(stem, LONGEST - length_of(mark + extension))
    return folder + slash + stem + mark + extension


def is_inside(name: str) -> bool:
    """Whether a name, with `/` between its parts, stays in the folder that it is joined to."""
    parts = name.split("/")
    if any(part in ("", ".", "..") or "\0" in part for part in parts):
        return False
    return os.name != "nt" or not any(":" in part or "\\" in part for part in parts)


def cut(text: str, length: int) -> str:
    """The beginning of a text, at most `length` bytes or units, without half a letter."""
    if length_of(text) <= length:
        return text
    return text.encode("utf-8", "replace")[: max(length, 0)].decode("utf-8", "ignore")


def length_of(text: str) -> int:
    """In bytes of UTF-8, which are never fewer than the units of UTF-16."""
    return len(text.encode("utf-8", "replace"))


def flush_folder(folder: str) -> None:
    """Brings a folder's own list of files to the disk, where the system does so on request."""
    if os.name != "nt":
        descriptor = os.open(folder, os.O_RDONLY)
        try:
            os.fsync(descriptor)
        finally:
            os.close(descriptor)


def _rename_with_flag(source: str, target: str) -> bool:
    """False: this system or drive cannot."""
    rename = _renameat2()
    if rename is None:
        return False
    if rename(_CWD, os.fsencode(source), _CWD, os.fsencode(target), _KEEP) == 0:
        return True
    code = ctypes.get_errno()
    if code in _NOT_THERE:
        return False
    raise OSError(code, os.strerror(code), source, None, target)


def _rename_to_taken(source: str, target: str) -> None:
    """Takes the name with an empty file, which is the only one that is replaced."""
    os.close(os.open(target, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o666))
    try:
        os.replace(source, target)
    except OSError:
        os.unlink(target)
        raise


@functools.lru_cache(maxsize=None)
def _renameat2() -> Optional[Callable[..., int]]:
    """The system's function; None where there is none."""
    if not sys.platform.startswith("linux"):
        return None
    try:
        function: Callable[..., int] = ctypes.CDLL(None, use_errno=True).renameat2
    except (OSError, AttributeError):
        return None
    return function
