"""The module's events, read: codes and texts in, messages out, and nothing is ever evaluated.

The texts of events look like Python literals but are put together without quoting anything, so the
texts of a camera and the names of folders decide what an evaluation would make of them: an error,
another value, or the end of the interpreter's memory. This reads them as what they are.

Needs neither the module nor anything else of this package. Its functions may be called on any
thread, in a callback too.
"""

import dataclasses
import enum
import re
from typing import Any, Dict, List, NamedTuple, Optional, Tuple, Union


class Code(enum.IntEnum):
    """What an event is about, and what SetValue sets: the module's constants `TETHER_...`."""

    GENERAL = 0
    EXPOSUREMODE = 1
    EXPOSUREMODE_LIST = 2
    SHUTTERSPEED = 3
    SHUTTERSPEED_LIST = 4
    APERTURE = 5
    APERTURE_LIST = 6
    ISO = 7
    ISO_LIST = 8
    WB = 9
    WB_LIST = 10
    COLORTEMP = 11
    COLORTEMP_LIST = 12
    IMAGEQUALITY = 13
    IMAGEQUALITY_LIST = 14


# The names that photographers use. The code of a setting's list comes behind the setting's.
CODES: Dict[str, Code] = {
    "mode": Code.EXPOSUREMODE,
    "shutter": Code.SHUTTERSPEED,
    "aperture": Code.APERTURE,
    "iso": Code.ISO,
    "white_balance": Code.WB,
    "color_temperature": Code.COLORTEMP,
    "quality": Code.IMAGEQUALITY,
}
_SETTINGS: Dict[int, str] = {code: name for name, code in CODES.items()}
_LISTS: Dict[int, str] = {code + 1: name for name, code in CODES.items()}

# Keys of a Canon camera that mean something besides their text.
CANON_AUTO = 0
CANON_BULB = 12  # a shutter speed
CANON_COLORTEMP = 9  # the white balance that makes the color temperature count
UNKNOWN_KEY = -1

# More than any camera has; whoever sends more is not believed.
LONGEST_LIST = 4_000_000  # characters
MOST_ENTRIES = 65_535
LONGEST_TEXT = 1_000  # characters of a setting's text
LONGEST_PATH = 32_767  # characters; no system opens a longer one

_NUMBER = r"(?:0|-?[1-9][0-9]{0,9})"
_TEXTS = re.compile(r"(%s):'([^']*)'," % _NUMBER)
_NUMBERS = re.compile(r"(%s):(%s)," % (_NUMBER, _NUMBER))
_EDITABLE = re.compile(r"'NIKON_EDITABLE':([01]),\}")
_FILE = re.compile(r"\{'([A-Z_]{1,40})':r'(.*)'\}", re.DOTALL)
_FLAG = re.compile(r"\{'([A-Z_]{1,40})':(%s)\}" % _NUMBER)


@dataclasses.dataclass(frozen=True)
class Value:
    """What a setting is.

    `key` is what SetValue takes for it, of a Nikon camera the position in its list (0: not known);
    None for a setting that has texts alone. `text` is None where only the list tells it.
    """

    setting: str
    key: Optional[int]
    text: Optional[str]


@dataclasses.dataclass(frozen=True)
class Allowed:
    """What a setting can be, in the camera's order: what SetValue takes, and its text.

    `editable` says whether it can be changed now; None: the camera does not say.
    """

    setting: str
    choices: Tuple[Tuple[int, str], ...]
    editable: Optional[bool]


@dataclasses.dataclass(frozen=True)
class NewFile:
    """A picture was announced at this path; whether it is there is another question."""

    path: str


@dataclasses.dataclass(frozen=True)
class WriteFailed:
    """A picture could not be written."""


@dataclasses.dataclass(frozen=True)
class Busy:
    """The camera is busy with something else."""


@dataclasses.dataclass(frozen=True)
class Unreadable:
    """An event that says nothing that is known here; `what` describes it for a log.

    `code` is -1 when the event had none.
    """

    code: int
    what: str


Message = Union[Value, Allowed, NewFile, WriteFailed, Busy, Unreadable]


class ListText(NamedTuple):
    """What a list text says, in the camera's order."""

    entries: List[Tuple[int, Union[str, int]]]  # key and text; of colour temperatures the number
    editable: Optional[bool]  # whether the setting can be changed now; None: the text says nothing


def read(code: Any, *values: Any) -> Message:
    """Reads what the module's callback was called with, `code` and `values`; never raises.

    Whatever is not as the module's documentation says, wrong types and numbers of arguments
    included, is an `Unreadable`.
    """
    if not _is_number(code):
        return Unreadable(-1, "a code of type %s" % type(code).__name__)
    if not 0 <= code < len(Code):
        return Unreadable(code if -(2**31) <= code < 2**31 else -1, "an unknown code")
    try:
        if code == Code.GENERAL:
            return _status(*_checked(values, str))
        if code in _LISTS:
            return _allowed(_LISTS[code], *_checked(values, str))
        return _value(_SETTINGS[code], values)
    except ValueError as error:
        return Unreadable(int(code), str(error))


def read_list(text: str) -> ListText:
    """Reads the text of a list event; raises ValueError when it is no list.

    The entries of a Nikon camera are numbered from 1, and each text goes up to the next number. A
    text that holds the next entry's beginning is divided there; the entries behind are right.
    """
    if len(text) > LONGEST_LIST:
        raise ValueError("a list of %d characters" % len(text))
    if not text.startswith("{") or not text.endswith("}"):
        raise ValueError("no list: %r" % text[:100])
    # The flag is looked for at the end only: a text may hold the same words.
    flag = _EDITABLE.fullmatch(text, max(1, len(text) - len("'NIKON_EDITABLE':0,}")))
    if flag:
        return ListText(_numbered_entries(text, flag.start()), flag.group(1) == "1")
    return ListText(_plain_entries(text, len(text) - 1), None)


def read_status(text: str) -> Tuple[str, Union[str, int]]:
    """Reads the text of a TETHER_GENERAL event: its word, and the path or number behind it.

    Raises ValueError when it is no status text. A path is taken as it stands, quotes included.
    """
    file = _FILE.fullmatch(text)
    if file:
        return file.group(1), file.group(2)
    flag = _FLAG.fullmatch(text)
    if flag:
        return flag.group(1), int(flag.group(2))
    raise ValueError("no status text: %r" % text[:100])


def _numbered_entries(text: str, end: int) -> List[Tuple[int, Union[str, int]]]:
    """The entries between the opening brace and `end`, whose keys are 1, 2, 3, ..."""
    entries: List[Tuple[int, Union[str, int]]] = []
    position = 1
    while position < end:
        key = len(entries) + 1
        if key > MOST_ENTRIES:
            raise ValueError("a list of more than %d entries" % MOST_ENTRIES)
        head = "%d:'" % key
        if not text.startswith(head, position):
            raise ValueError("no entry: %r" % text[position : position + 100])
        start = position + len(head)
        following = text.find("',%d:'" % (key + 1), start, end)
        stop = following if following >= 0 else end - len("',")
        if stop < start or not text.startswith("',", stop):
            raise ValueError("no end of an entry: %r" % text[position : position + 100])
        entries.append((key, text[start:stop]))
        position = stop + len("',")
    return entries


def _plain_entries(text: str, end: int) -> List[Tuple[int, Union[str, int]]]:
    """The entries between the opening brace and `end`: texts without quotes, or numbers."""
    entries: List[Tuple[int, Union[str, int]]] = []
    position = 1
    while position < end:
        if len(entries) == MOST_ENTRIES:
            raise ValueError("a list of more than %d entries" % MOST_ENTRIES)
        words = _TEXTS.match(text, position, end)
        numbers = _NUMBERS.match(text, position, end)
        if words:
            entries.append((int(words.group(1)), words.group(2)))
        elif numbers:
            entries.append((int(numbers.group(1)), int(numbers.group(2))))
        found = words or numbers
        if found is None:
            raise ValueError("no entry: %r" % text[position : position + 100])
        position = found.end()
    return entries


def _is_number(value: Any) -> bool:
    return isinstance(value, int) and not isinstance(value, bool)


def _checked(values: Tuple[Any, ...], *types: type) -> Tuple[Any, ...]:
    """The values when they are of these types; raises ValueError when they are not."""
    if len(values) == len(types) and all(
        _is_number(value) if kind is int else isinstance(value, kind)
        for value, kind in zip(values, types)
    ):
        return values
    found = ", ".join(type(value).__name__ for value in values[:10])
    raise ValueError("%d values of the types (%s)" % (len(values), found))


def _key(number: int) -> int:
    """A key as a signed number, as SetValue takes it: lists hold unsigned ones."""
    if not -(2**31) <= number < 2**32:
        raise ValueError("a key of more than 32 bits")
    return number - 2**32 if number >= 2**31 else number


def _status(text: str) -> Message:
    if len(text) > LONGEST_PATH:
        raise ValueError("a status text of %d characters" % len(text))
    word, value = read_status(text)
    if word == "GENERAL_NEWFILE" and isinstance(value, str):
        value.encode("utf-8", "surrogateescape")  # a UnicodeEncodeError is a ValueError, too
        if not value or "\0" in value:
            raise ValueError("no path: %r" % value[:100])
        return NewFile(value)
    if word == "GENERAL_WRITEFAIL" and isinstance(value, int):
        return WriteFailed()
    if word == "GENERAL_DEVICEBUSY" and isinstance(value, int):
        return Busy()
    raise ValueError("an unknown status: %r" % text[:100])


def _allowed(setting: str, text: str) -> Message:
    listed = read_list(text)
    is_number_list = setting == "color_temperature"
    choices: List[Tuple[int, str]] = []
    for key, shown in listed.entries:
        if isinstance(shown, int) != is_number_list:
            raise ValueError("an entry of another kind: %r" % text[:100])
        # The keys of color temperatures are positions; what is set is the number itself.
        choices.append((_key(shown if isinstance(shown, int) else key), str(shown)[:LONGEST_TEXT]))
    return Allowed(setting, tuple(choices), listed.editable)


def _value(setting: str, values: Tuple[Any, ...]) -> Message:
    """A text, a number, or both: what a setting comes with depends on the camera's maker."""
    key: Optional[int] = None
    text: Optional[str] = None
    if setting in ("mode", "quality"):
        (text,) = _checked(values, str)
    elif setting == "color_temperature":
        (kelvin,) = _checked(values, int)
        key, text = kelvin, "%d" % _key(kelvin)
    elif len(values) == 1:
        (key,) = _checked(values, int)
    else:
        key, text = _checked(values, int, str)
    if text is not None and len(text) > LONGEST_TEXT:
        raise ValueError("a text of %d characters" % len(text))
    return Value(setting, None if key is None else _key(key), text)
