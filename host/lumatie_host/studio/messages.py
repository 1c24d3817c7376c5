"""What is in the messages: records, states, commands and answers, each one JSON object."""

import json
from typing import Any, Dict, Mapping, Optional

from .. import strict_json
from ..errors import Reason, TetherError
from ..events import EVENTS, VERSION, from_record

LONGEST = 256 * 1024  # bytes; the studio refuses longer ones, and no station sends them
LONGEST_COMMAND = 64 * 1024
FIRING = ("shoot", "sequence")  # operations that take pictures: never done late


class Rubbish(Exception):
    """A message that is none; in words for people, without the message itself."""


def encode(message: Mapping[str, Any]) -> bytes:
    """A message as it goes to the broker."""
    return json.dumps(message, separators=(",", ":")).encode("ascii")


def decode(payload: bytes, longest: int = LONGEST) -> Dict[str, Any]:
    """What came from the broker, or over HTTP; raises Rubbish."""
    if len(payload) > longest:
        raise Rubbish("%d bytes, and %d are allowed" % (len(payload), longest))
    try:
        message = strict_json.decode(payload.decode())
    except (ValueError, RecursionError):
        raise Rubbish("no JSON") from None
    if not isinstance(message, dict):
        raise Rubbish("no JSON object")
    return message


def check_record(message: Mapping[str, Any], kind: Optional[str] = None) -> int:
    """The number of a ledger's record; raises Rubbish when it is none, or of another kind."""
    number = message.get("n")
    if type(number) is not int or number < 1:
        raise Rubbish("no record: it has no number")
    if kind is not None and message.get("kind") != kind:
        raise Rubbish("a record of another kind than its topic's")
    if message.get("v") != VERSION:
        raise Rubbish("a record of an unknown version")
    if message.get("kind") not in EVENTS:
        raise Rubbish("a record of an unknown kind")
    if from_record(message) is None:
        raise Rubbish("a record without a field that its kind needs, or with a wrong one")
    return number


def check_picture(record: Mapping[str, Any]) -> None:
    """Raises Rubbish when a picture's record has not what is needed to fetch it."""
    size, digest, file = record.get("size"), record.get("sha256"), record.get("file")
    if type(size) is not int or size < 0:
        raise Rubbish("a picture without a size")
    if not isinstance(digest, str) or len(digest) != 64 or set(digest) - set("0123456789abcdef"):
        raise Rubbish("a picture without a hash")
    if not isinstance(file, str) or not file:
        raise Rubbish("a picture without a name")
    if type(record.get("shot")) is not int or not isinstance(record.get("origin"), str):
        raise Rubbish("a picture of no shot")


def failure(error: TetherError) -> Dict[str, Any]:
    """The part of an answer that tells what went wrong."""
    answer: Dict[str, Any] = {"ok": False, "reason": error.reason.value, "error": str(error)}
    allowed = getattr(error, "allowed", None)
    if allowed is not None:
        answer["allowed"] = list(allowed)
    answer["advice"] = error.advice
    shot = getattr(error, "shot", None)
    if shot is not None:
        answer["shot"] = shot
    return answer


def reason_of(answer: Mapping[str, Any]) -> Reason:
    """The reason that an answer tells, as far as it is known here."""
    try:
        return Reason(answer.get("reason"))
    except ValueError:
        return Reason.REFUSED
