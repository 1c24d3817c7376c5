"""The keys of a station's web server: its page's own two, and the studio's."""

import hmac
import threading
from typing import Optional

from ..page.tokens import VIEWER, Tokens

MOST = 16  # studios, or their starts, that are known


class StationTokens(Tokens):
    """Tokens of a page to which more can be added, for those who fetch pictures. Any thread."""

    def __init__(self, tokens: Tokens) -> None:
        self.operator = tokens.operator
        self.viewer = tokens.viewer
        self._lock = threading.Lock()
        self._admitted = ""  # of MOST at most, the newest last, with blanks between

    def admit(self, token: str) -> None:
        """Has the server show everything to whoever has the token; they set and shoot nothing."""
        with self._lock:
            known = [one for one in self._admitted.split() if one != token]
            self._admitted = " ".join([*known, token][-MOST:])

    def role_of(self, token: str) -> Optional[str]:
        role = super().role_of(token)
        told = token.encode("utf-8", "replace")
        for one in self._admitted.split():
            if hmac.compare_digest(told, one.encode()):
                role = role or VIEWER
        return role
