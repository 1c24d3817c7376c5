"""JSON as its standard has it: no NaN, no infinity, and no number that becomes one."""

import json
import math
from typing import Any, Dict, List, NoReturn, Tuple


def decode(text: str) -> Any:
    """What a text says; raises ValueError or RecursionError when it is no JSON."""
    return _DECODER.decode(text)


def decode_request(text: str) -> Any:
    """The same of what somebody asks for, in which no name may stand twice in an object."""
    return _OF_REQUESTS.decode(text)


def _refuse(text: str) -> NoReturn:
    raise ValueError("%s is no JSON" % text)


def _finite(text: str) -> float:
    number = float(text)
    if not math.isfinite(number):
        raise ValueError("%s is too large" % text)
    return number


def _once(pairs: List[Tuple[str, Any]]) -> Dict[str, Any]:
    value = dict(pairs)
    if len(value) < len(pairs):
        raise ValueError("a name stands twice in an object")
    return value


# Made once: making it takes as long as reading a record.
_DECODER = json.JSONDecoder(parse_constant=_refuse, parse_float=_finite)
_OF_REQUESTS = json.JSONDecoder(
    parse_constant=_refuse, parse_float=_finite, object_pairs_hook=_once
)
