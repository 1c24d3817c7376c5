"""Picture files on their way: whole or torn, from the spool folder to their final name.

The order for a picture, all with the folder's lock held: it gets its final name as a second link,
which fails where the name exists; then it is recorded; then the name in the spool goes. Without
hard links it is recorded first, and then renamed in a way that replaces nothing. So a process may
be killed anywhere: `recover` finds what is missing, and does it. Nothing is deleted but a second
name or a second copy of what is there.
"""

import contextlib
import dataclasses
import datetime
import errno
import hashlib
import logging
import os
import secrets
import stat
import time
from typing import Any, BinaryIO, Callable, Iterator, List, Mapping, NamedTuple, Optional, Tuple

from . import formats, locks
from .errors import PictureLost, WriteFailed
from .events import Alarm, Picture
from .files import candidates, rename_new
from .ledger import INNER_FOLDER, Ledger, path_of

SPOOL = "spool"
TORN = "torn"
REST = 0.1  # seconds without a change, for files that do not show their end themselves

_HELD = "held"  # the file in a spool folder whose lock says that somebody uses it
_BLOCK = 1 << 20
_PAUSE = 0.02  # seconds between two looks at a file

_log = logging.getLogger("lumatie_host")


class Torn(PictureLost):
    """A file is not whole, or not there; `why` says what is missing."""

    @property
    def why(self) -> str:
        return self.evidence


@dataclasses.dataclass(frozen=True)
class Inspected:
    """A whole file: its size in bytes, its SHA-256 in hex, and what it says of itself."""

    size: int
    sha256: str
    format: str  # "JPEG", "RAW" or "OTHER"
    width: Optional[int] = None  # pixels
    height: Optional[int] = None
    taken: Optional[datetime.datetime] = None  # the camera's own clock, without a time zone


class Adoption(NamedTuple):
    """What becomes of a file that was left over: its name, and more fields of its record."""

    name: str
    fields: Mapping[str, Any]


@dataclasses.dataclass(frozen=True)
class Recovered:
    """What a start found: pictures that are announced now, and what somebody has to look after."""

    pictures: Tuple[Picture, ...]
    alarms: Tuple[Alarm, ...]


def inspect(path: str) -> Inspected:
    """Reads a file once, and says what it is; raises Torn when it is not whole.

    Any thread may call; the file is read in blocks, so memory does not grow with it.
    """
    name = os.path.basename(path)
    try:
        if not stat.S_ISREG(os.stat(path).st_mode):
            raise Torn(name, "it is no file")
        with open(path, "rb", buffering=0) as file:
            fillings = formats.Fillings()
            digest, size = _digest_of(file, fillings.see)
            facts = formats.judge(file, size, os.path.splitext(path)[1], fillings)
            if os.fstat(file.fileno()).st_size != size:
                raise Torn(name, "it is still being written")
    except formats.Malformed as error:
        raise Torn(name, str(error)) from error
    except (OSError, ValueError) as error:
        raise Torn(name, getattr(error, "strerror", None) or str(error)) from error
    return Inspected(size, digest, *facts)


def await_whole(path: str, seconds: float, sleep: Callable[[float], Any] = time.sleep) -> Inspected:
    """Waits until a file is whole, at most `seconds`; raises Torn when it is not by then."""
    deadline = time.monotonic() + seconds
    waited = at_rest = 0.0
    before, torn = _look(path), Torn(os.path.basename(path), "it is not there")
    must_rest = not formats.tells_its_end(os.path.splitext(path)[1])
    is_new = True
    while True:
        if is_new and not (must_rest and at_rest < REST):
            try:
                return inspect(path)
            except Torn as error:
                torn = error
                is_new = False
        if waited >= seconds or time.monotonic() >= deadline:
            raise torn if not is_new else Torn(torn.name, "it is still being written")
        sleep(_PAUSE)
        waited += _PAUSE
        now = _look(path)
        at_rest = at_rest + _PAUSE if now == before else 0.0
        # One that could not be opened may be open elsewhere, which no look shows.
        is_new = is_new or now != before or os.name == "nt"
        before = now


def place(source: str, folder: str, name: str) -> str:
    """Moves a file to a name in a folder of the same volume, and replaces nothing.

    `name` may have `/` between parts. Returns the name that it got, which is "a (2).JPG" where
    there was an "a.JPG". Raises OSError.
    """
    for candidate, target in _free_names(folder, name):
        with contextlib.suppress(FileExistsError):
            rename_new(source, target)
            return candidate
    raise AssertionError("unreachable")


def settle(
    ledger: Ledger,
    path: str,
    make_name: Callable[[], str],
    fields: Mapping[str, Any],
    inspected: Optional[Inspected] = None,
) -> Picture:
    """Gives a whole file of the spool its final name, and records it.

    Args:
        path: the file, on the volume of the ledger's folder.
        make_name: is called with the folder's lock held, so numbers that it takes from the ledger
            are its own; returns the wanted name in the folder, `/` between parts.
        fields: of the record: `shot`, `origin`, and what else is known.
        inspected: what is known of the file, when it was looked at already.

    Raises Torn when the file is not whole, and WriteFailed when it cannot be named or recorded; it
    is in the spool then.
    """
    found = inspected or inspect(path)
    about = {"original": os.path.basename(path), **fields, **_fields_of(found)}
    try:
        with ledger.exclusive():
            return _settle(ledger, path, make_name(), about)
    except OSError as error:
        raise WriteFailed(str(error)) from error


class Spool:
    """A folder that pictures are written into, and that nobody else takes for left over.

    It belongs to whoever made it, until `close`.
    """

    def __init__(self, path: str, descriptor: int) -> None:
        """Use `make` or `orphans`."""
        self.path = path
        self._descriptor = descriptor

    @staticmethod
    def make(folder: str) -> "Spool":
        """A new one in the inner folder of `folder`; raises OSError."""
        parent = os.path.join(folder, INNER_FOLDER, SPOOL)
        while True:
            os.makedirs(parent, exist_ok=True)
            path = os.path.join(parent, "%d-%s" % (os.getpid(), secrets.token_hex(3)))
            try:
                os.mkdir(path)
                spool = Spool._hold(path, create=True)
            except (FileExistsError, FileNotFoundError):
                continue  # somebody took it for left over before it was held
            if spool is not None:
                return spool

    @staticmethod
    def _hold(path: str, create: bool) -> Optional["Spool"]:
        """None when somebody has it, or it is gone."""
        file = os.path.join(path, _HELD)
        descriptor = locks.open_to_lock(file, create)
        try:
            if locks.try_lock(descriptor) and os.path.samestat(os.fstat(descriptor), os.stat(file)):
                return Spool(path, descriptor)
        except FileNotFoundError:
            pass
        except BaseException:
            os.close(descriptor)
            raise
        os.close(descriptor)
        return None

    def files(self) -> List[str]:
        """The paths of the pictures in it, oldest first."""
        found = []
        with os.scandir(self.path) as entries:
            for entry in entries:
                if entry.name != _HELD and entry.is_file(follow_symlinks=False):
                    with contextlib.suppress(FileNotFoundError):  # it went meanwhile
                        found.append((entry.stat().st_mtime_ns, entry.path))
        return [path for _, path in sorted(found)]

    def close(self) -> None:
        """Gives it back; what is left in it is found by the next `recover`."""
        if self._descriptor < 0:
            return
        descriptor, self._descriptor = self._descriptor, -1
        is_open = True
        try:
            if self._is_empty():
                if os.name == "nt":  # where an open file cannot be removed
                    is_open = False
                    os.close(descriptor)
                os.remove(os.path.join(self.path, _HELD))
                os.rmdir(self.path)
        except OSError as error:
            _log.debug("the spool folder stays: %s", error)
        finally:
            if is_open:
                os.close(descriptor)

    def _is_empty(self) -> bool:
        return os.listdir(self.path) == [_HELD]

    def __enter__(self) -> "Spool":
        return self

    def __exit__(self, *_: Any) -> None:
        self.close()


def orphans(folder: str) -> Iterator[Spool]:
    """The spool folders of processes that are gone, each held until the next one is asked for."""
    parent = os.path.join(folder, INNER_FOLDER, SPOOL)
    try:
        names = sorted(os.listdir(parent))
    except FileNotFoundError:
        return
    for name in names:
        path = os.path.join(parent, name)
        try:
            if not os.path.isdir(path) or _was_empty(path):
                continue
            spool = Spool._hold(path, create=True)
        except OSError:
            continue  # it went meanwhile
        if spool is not None:
            with spool:
                yield spool


def recover(
    folder: str,
    ledger: Ledger,
    adopt: Optional[Callable[[str, Inspected], Adoption]] = None,
    fields: Optional[Mapping[str, Any]] = None,
) -> Recovered:
    """Finishes what processes that are gone have left in their spool folders.

    Whole files are named by `adopt(original, inspected)`, which is called with the folder's lock
    held, else as they are called, and recorded with the origin "recovered" and `fields`; one that
    has its final name already keeps it, and is of shot 0, as all are without `adopt`.
    Torn ones go to `.lumatie/torn/`, with an alarm. Raises WriteFailed when one cannot be recorded.
    """
    pictures: List[Picture] = []
    alarms: List[Alarm] = []
    about = {"shot": 0, "origin": "recovered", "settings": {}, **(fields or {})}
    for spool in orphans(folder):
        for path in spool.files():
            try:
                found = inspect(path)
            except Torn as torn:
                alarm = _put_aside(folder, ledger, path, torn) if os.path.lexists(path) else None
                if alarm is not None:
                    alarms.append(alarm)
                continue
            picture = None
            try:
                with ledger.exclusive():
                    if os.path.lexists(path):  # nobody has taken it meanwhile
                        picture = _recover(ledger, path, found, adopt, about)
            except OSError as error:
                raise WriteFailed(str(error)) from error
            if picture is not None:
                pictures.append(picture)
    return Recovered(tuple(pictures), tuple(alarms))


def _digest_of(file: BinaryIO, see: Callable[[memoryview, int], object]) -> Tuple[str, int]:
    """SHA-256 and size; `see` is called with each part, and where it begins."""
    digest, size = hashlib.sha256(), 0
    block = bytearray(min(_BLOCK, os.fstat(file.fileno()).st_size + 1))
    view = memoryview(block)
    while True:
        length = file.readinto(block)  # type: ignore[attr-defined]  # of an unbuffered file
        if not length:
            return digest.hexdigest(), size
        digest.update(view[:length])
        see(view[:length], size)
        size += length


def _look(path: str) -> Optional[Tuple[int, int]]:
    """What changes while a file is written; None: it is not there."""
    try:
        status = os.stat(path)
    except (OSError, ValueError):
        return None
    return status.st_size, status.st_mtime_ns


def _free_names(folder: str, name: str) -> Iterator[Tuple[str, str]]:
    """The name, then numbered ones, each with its path; folders on the way are made."""
    path = path_of(folder, name)
    if path is None:
        raise OSError(errno.EINVAL, "no name inside the folder", name)
    parent = os.path.dirname(path)
    if not os.path.isdir(parent):
        os.makedirs(parent, exist_ok=True)
    for candidate in candidates(name):
        yield candidate, os.path.join(parent, os.path.basename(candidate))


def _fields_of(found: Inspected) -> Mapping[str, Any]:
    return {
        "size": found.size,
        "sha256": found.sha256,
        "format": found.format,
        "width": found.width,
        "height": found.height,
    }


def _record(ledger: Ledger, file: str, about: Mapping[str, Any]) -> Picture:
    event = ledger.append("picture", **{**about, "file": file})
    assert isinstance(event, Picture)
    return event


def _settle(ledger: Ledger, path: str, name: str, about: Mapping[str, Any]) -> Picture:
    """With the lock held."""
    for candidate, target in _free_names(ledger.folder, name):
        try:
            os.link(path, target)
        except FileExistsError:
            continue
        except OSError as error:
            if not os.path.exists(path):
                raise
            _log.debug("no hard links here: %s", error)
            return _settle_without_links(ledger, path, name, about)
        try:
            event = _record(ledger, candidate, about)
        except BaseException:
            os.remove(target)
            raise
        _remove(path)
        return event
    raise AssertionError("unreachable")


def _settle_without_links(
    ledger: Ledger, path: str, name: str, about: Mapping[str, Any]
) -> Picture:
    begun = _begun(ledger, path, about)
    if begun is not None:
        return begun
    for candidate, target in _free_names(ledger.folder, name):
        if os.path.lexists(target):
            continue
        event = _record(ledger, candidate, about)
        try:
            rename_new(path, target)
        except FileExistsError:
            # Nobody who knows of the lock did that. The record is right for another file.
            ledger.append(
                "alarm",
                what="another program took the name %s at the same moment" % candidate,
                advice="Look for the picture under the next name.",
            )
            continue
        return event
    raise AssertionError("unreachable")


def _begun(ledger: Ledger, path: str, about: Mapping[str, Any]) -> Optional[Picture]:
    """The event of a picture that was recorded by an earlier try, whose rename is done now."""
    if not ledger.files_of(about["sha256"]):
        return None
    for event in ledger.events():
        if not isinstance(event, Picture) or event.sha256 != about["sha256"]:
            continue
        if (event.original, event.session) != (about["original"], about.get("session")):
            continue
        target = path_of(ledger.folder, event.file)
        if target is not None and _finish(path, target):
            return event
    return None


def _recover(
    ledger: Ledger,
    path: str,
    found: Inspected,
    adopt: Optional[Callable[[str, Inspected], Adoption]],
    about: Mapping[str, Any],
) -> Optional[Picture]:
    """Finishes a whole file, with the lock held; None when it was announced already."""
    recorded = ledger.files_of(found.sha256)
    original = os.path.basename(path)
    linked = _other_name(ledger.folder, path)
    if linked is not None:
        event = None
        if linked not in recorded:
            event = _record(ledger, linked, {"original": original, **about, **_fields_of(found)})
        _remove(path)
        return event
    for file in recorded:
        target = path_of(ledger.folder, file)
        if target is not None and _finish(path, target):
            return None
    for file in recorded:
        target = path_of(ledger.folder, file)
        if target is not None and _is_whole_copy(target, found):
            _remove(path)
            return None
    name, more = adopt(original, found) if adopt else (original, {})
    return settle(ledger, path, lambda: name, {**about, **more}, found)


def _finish(path: str, target: str) -> bool:
    """Does the rename that a record told of; False when the name is somebody's."""
    try:
        if os.path.lexists(target):
            if not stat.S_ISREG(os.lstat(target).st_mode) or os.path.getsize(target):
                return False
            os.replace(path, target)  # it was taken for this file, and is empty yet
        else:
            os.makedirs(os.path.dirname(target), exist_ok=True)
            rename_new(path, target)
    except FileExistsError:
        return False
    return True


def _is_whole_copy(path: str, found: Inspected) -> bool:
    try:
        return inspect(path).sha256 == found.sha256
    except Torn:
        return False


def _other_name(folder: str, path: str) -> Optional[str]:
    """The name in the folder that is a second link to a file, `/` between parts."""
    status = os.stat(path)
    if status.st_nlink < 2:
        return None
    for parent, folders, files in os.walk(folder):
        if parent == folder and INNER_FOLDER in folders:
            folders.remove(INNER_FOLDER)
        for file in files:
            candidate = os.path.join(parent, file)
            try:
                is_same = os.path.samestat(os.lstat(candidate), status)
            except OSError:
                continue
            if is_same:
                return os.path.relpath(candidate, folder).replace(os.sep, "/")
    return None


def _put_aside(folder: str, ledger: Ledger, path: str, torn: Torn) -> Optional[Alarm]:
    """Moves a torn file to those of its kind; None when that was told and half done already.

    It is told first: a file that nobody was told of would look like one that was lost.
    """
    inner = os.path.join(folder, INNER_FOLDER)
    if os.path.exists(path) and _other_name(os.path.join(inner, TORN), path):
        _remove(path)
        return None
    event = ledger.append(
        "alarm",
        what="the picture %s is torn: %s" % (torn.name, torn.why),
        advice="It is kept in %s/%s; look for the picture on the camera's card, and take it again."
        % (INNER_FOLDER, TORN),
    )
    assert isinstance(event, Alarm)
    try:
        place(path, inner, "%s/%s" % (TORN, os.path.basename(path)))
    except OSError as error:
        raise WriteFailed(str(error)) from error
    return event


def _was_empty(path: str) -> bool:
    """Removes a spool folder that was made and never held, or that was given back halfway."""
    if os.listdir(path):
        return False
    os.rmdir(path)
    return True


def _remove(path: str) -> None:
    """Removes a second name; when it stays, the next start finds it."""
    for pause in (0.0, 0.05, 0.2):
        try:
            if pause:
                time.sleep(pause)
            os.remove(path)
            return
        except PermissionError:  # on Windows, while a virus scanner has it open
            continue
        except OSError as error:
            _log.debug("%s stays: %s", path, error)
            return
