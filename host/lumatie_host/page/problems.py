"""What goes wrong, as an answer: a status and `{"v", "error", "advice", "reason"}`."""

import json
from typing import Any, Dict, Optional

from aiohttp import web

from ..errors import Reason, Refused, TetherError

VERSION = 1  # of everything that the page is told

STATUS_OF = {
    Reason.CAMERA_NOT_FOUND: 409,
    Reason.LIBRARY_MISSING: 409,
    Reason.LIBRARY_UNFIT: 409,
    Reason.FOLDER_REJECTED: 409,
    Reason.NAME_REJECTED: 409,
    Reason.REFUSED: 409,
    Reason.NOT_SETTABLE: 409,
    Reason.NO_ANSWER: 504,
    Reason.SESSION_LOST: 409,
    Reason.CLOSED: 409,
    Reason.PICTURE_LOST: 502,
    Reason.WRITE_FAILED: 507,
}


class Problem(Exception):
    """An answer that is no success; raised by whoever finds out, answered by the guard.

    Args:
        status: of HTTP.
        text: what is wrong.
        advice: one sentence that says what to do.
        reason: for programs.
        more: further fields of the answer.
    """

    def __init__(
        self,
        status: int,
        text: str,
        advice: str = "",
        reason: str = "bad_request",
        more: Optional[Dict[str, Any]] = None,
    ) -> None:
        super().__init__(text)
        self.status = status
        self.advice = advice
        self.reason = reason
        self.more = more or {}

    @property
    def response(self) -> web.Response:
        """The answer."""
        told = {"v": VERSION, "error": str(self), "advice": self.advice, "reason": self.reason}
        return answered({**told, **self.more}, self.status)


def bad(text: str, advice: str = "Look at the description of the page's interface.") -> Problem:
    """A request that says what cannot be meant."""
    return Problem(400, text, advice)


def missing(text: str, advice: str = "Look for it in the record of the shoot.") -> Problem:
    """Something that is not there."""
    return Problem(404, text, advice, "not_found")


def of_error(error: TetherError) -> Problem:
    """What an error of the session is as an answer."""
    more = {"allowed": list(error.allowed)} if isinstance(error, Refused) else {}
    status = STATUS_OF[error.reason]
    return Problem(status, str(error), error.advice, error.reason.value, more)


def told(error: TetherError) -> Dict[str, str]:
    """An error as a part of the state."""
    return {"reason": error.reason.value, "text": str(error), "advice": error.advice}


def dumped(value: Any) -> str:
    """JSON in as few bytes as it takes; a text with the half of a letter stays escaped."""
    try:
        text = json.dumps(value, ensure_ascii=False, separators=(",", ":"))
        text.encode()
    except UnicodeEncodeError:
        return json.dumps(value, separators=(",", ":"))
    return text


def answered(value: Any, status: int = 200) -> web.Response:
    """An answer of JSON."""
    return web.Response(
        body=dumped(value).encode(),
        status=status,
        content_type="application/json",
        charset="utf-8",
    )
