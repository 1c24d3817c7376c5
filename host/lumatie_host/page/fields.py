"""What a request's body says: one JSON object, whose fields are known and of their types."""

import asyncio
import math
from typing import Any, Dict, List, Optional, Tuple, Type, TypeVar, Union

from aiohttp import web

from .. import strict_json
from .problems import Problem, bad

BODY_PATIENCE = 10.0  # seconds for a client to send it
LONGEST_TEXT = 1000

_Value = TypeVar("_Value")


class Fields:
    """The fields of one object; each is taken once, and none may be left.

    All functions raise Problem for what cannot be meant.
    """

    def __init__(self, told: Dict[str, Any]) -> None:
        self._told = told

    @classmethod
    async def of(cls, request: web.Request) -> "Fields":
        """Those of a request; no body is an object without fields."""
        try:
            body = await asyncio.wait_for(request.read(), BODY_PATIENCE)
        except asyncio.TimeoutError:
            raise Problem(408, "the request did not come to its end", "Send it again.") from None
        try:
            told = strict_json.decode_request(body.decode() or "{}")
        except (ValueError, RecursionError):
            raise bad("the request is no JSON") from None
        if not isinstance(told, dict):
            raise bad("the request is no JSON object")
        return cls(told)

    def copy(self) -> Dict[str, Any]:
        """Those that have not been taken."""
        return dict(self._told)

    def has(self, name: str) -> bool:
        """Whether a field is there."""
        return name in self._told

    def end(self) -> None:
        """No further field may be there."""
        if self._told:
            raise bad("there is no field %s here" % ", ".join(sorted(self._told))[:200])

    def text(self, name: str, default: Optional[str] = None, most: int = LONGEST_TEXT) -> str:
        """A text of at most `most` characters that can be written down."""
        value = self._take(name, default, (str,), "a text")
        if len(value) > most:
            raise bad("%s has more than %d characters" % (name, most))
        try:
            value.encode()
        except UnicodeEncodeError:
            raise bad("%s is no text" % name) from None
        if "\0" in value:
            raise bad("%s is no text" % name)
        return str(value)

    def whole(self, name: str, low: int, high: int, default: Optional[int] = None) -> int:
        """A whole number in a range."""
        value = self._take(name, default, (int,), "a whole number")
        if not low <= value <= high:
            raise bad("%s is not from %d to %d" % (name, low, high))
        return int(value)

    def seconds(self, name: str, high: float, default: Optional[float] = None) -> float:
        """A time in seconds."""
        value = self._take(name, default, (int, float), "a time in seconds")
        if not (math.isfinite(value) and 0 <= value <= high):
            raise bad("%s is not from 0 to %g seconds" % (name, high))
        return float(value)

    def flag(self, name: str, default: bool = False) -> bool:
        """true or false."""
        return bool(self._take(name, default, (bool,), "true or false"))

    def texts(self, name: str, most: int) -> List[str]:
        """A list of 1 to `most` texts."""
        values = self._take(name, None, (list,), "a list of texts")
        if not 1 <= len(values) <= most or not all(isinstance(value, str) for value in values):
            raise bad("%s is no list of 1 to %d texts" % (name, most))
        return [str(value)[:LONGEST_TEXT] for value in values]

    def _take(self, name: str, default: Any, types: Tuple[Type[Any], ...], what: str) -> Any:
        value: Union[Any, None] = self._told.pop(name, default)
        if value is None:
            raise bad("%s is missing" % name)
        # true is no number here.
        if not isinstance(value, types) or (isinstance(value, bool) and bool not in types):
            raise bad("%s is not %s" % (name, what))
        return value


def number_of(request: web.Request, name: str, low: int, high: int, default: int) -> int:
    """A whole number of the query; raises Problem."""
    text = request.query.get(name)
    if text is None:
        return default
    if not (text.isascii() and text.isdigit()) or len(text) > 16 or not low <= int(text) <= high:
        raise bad("%s is not from %d to %d" % (name, low, high))
    return int(text)
