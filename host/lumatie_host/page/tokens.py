"""The two keys of a page: the operator's, who sets and shoots, and the one of those who look.

They are kept from one start to the next, so that the links, codes and open pages of a shoot outlive
the program's restart. They do not lie with the pictures, which are handed on.
"""

import contextlib
import hashlib
import hmac
import json
import logging
import os
import re
import secrets
import stat
import sys
from typing import Optional

OPERATOR = "operator"
VIEWER = "viewer"

_TOKEN = re.compile("[0-9a-f]{32}")
_LARGEST = 1000  # bytes of a file with both

_log = logging.getLogger("lumatie_host")


class Tokens:
    """Made anew unless they are given, 128 bits each. They stand in links, and never in a log."""

    def __init__(self, operator: str = "", viewer: str = "") -> None:
        self.operator = operator or secrets.token_hex(16)
        self.viewer = viewer or secrets.token_hex(16)

    def role_of(self, token: str) -> Optional[str]:
        """Whose token it is, None: nobody's. It takes as long for each."""
        told = token.encode("utf-8", "replace")
        is_operator = hmac.compare_digest(told, self.operator.encode())
        is_viewer = hmac.compare_digest(told, self.viewer.encode())
        if is_operator:
            return OPERATOR
        return VIEWER if is_viewer else None


def kept(folder: str, are_new: bool = False) -> Tokens:
    """The tokens of a folder's page: those of its last start, if they are there.

    Where the user has no place for them, or others may read it, they are made for this start alone.

    Args:
        folder: of the pictures.
        are_new: makes others, so that no link of before is good any more.
    """
    path = _path_of(folder)
    tokens = None if are_new else _read(path)
    if tokens is None:
        tokens = Tokens()
        try:
            _write(path, tokens)
        except OSError as error:
            _log.warning("the page's links are good until it ends: %s", error.strerror)
            # Those of before would be back at the next start.
            with contextlib.suppress(OSError):
                os.remove(path)
    return tokens


def _path_of(folder: str) -> str:
    if sys.platform == "win32":
        base = os.environ.get("LOCALAPPDATA") or os.path.expanduser("~")
    else:
        base = os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state")
    name = os.path.normcase(os.path.realpath(folder)).encode("utf-8", "surrogateescape")
    return os.path.join(base, "lumatie", "links", hashlib.sha256(name).hexdigest()[:32])


def _read(path: str) -> Optional[Tokens]:
    try:
        with open(path, "rb") as file:
            status = os.fstat(file.fileno())
            data = file.read(_LARGEST)
        told = json.loads(data)
        tokens = Tokens(told[OPERATOR], told[VIEWER])
        are_tokens = all(_TOKEN.fullmatch(one) for one in (tokens.operator, tokens.viewer))
    except (OSError, ValueError, LookupError, TypeError):
        return None
    # Windows keeps other users out of this folder by its own rules.
    is_private = sys.platform == "win32" or (
        status.st_uid == os.geteuid() and not stat.S_IMODE(status.st_mode) & 0o077
    )
    return tokens if are_tokens and is_private and tokens.operator != tokens.viewer else None


def _write(path: str, tokens: Tokens) -> None:
    os.makedirs(os.path.dirname(path), mode=0o700, exist_ok=True)
    temporary = "%s.%s" % (path, secrets.token_hex(4))
    text = json.dumps({OPERATOR: tokens.operator, VIEWER: tokens.viewer})
    try:
        file = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
        with open(file, "w", encoding="ascii") as stream:
            stream.write(text)
        os.replace(temporary, path)
    except OSError:
        with contextlib.suppress(OSError):
            os.remove(temporary)
        raise
