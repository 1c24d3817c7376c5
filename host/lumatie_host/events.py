"""What a host is told: one frozen dataclass for each kind of record in the ledger.

An event and its record say the same. Events are made on threads of the session's own and may be
read on any thread, for ever.
"""

import collections.abc
import dataclasses
import datetime
from typing import (
    Any,
    Callable,
    ClassVar,
    Dict,
    Iterator,
    Mapping,
    Optional,
    Tuple,
    Type,
    Union,
    get_args,
    get_origin,
)


@dataclasses.dataclass(frozen=True)
class Event:
    """The base of all events.

    `n` is the ledger's number, which counts up without gaps from 1; `time` is in UTC.
    """

    kind: ClassVar[str] = ""
    n: int
    time: datetime.datetime


@dataclasses.dataclass(frozen=True)
class Opened(Event):
    """The camera answers, and its settings are known."""

    kind: ClassVar[str] = "opened"
    camera: str = ""
    maker: str = ""  # "canon" or "nikon"
    session: str = ""  # tells the sessions that share a folder apart


@dataclasses.dataclass(frozen=True)
class Lost(Event):
    """The camera went away; `evidence` says what showed it."""

    kind: ClassVar[str] = "lost"
    evidence: str


@dataclasses.dataclass(frozen=True)
class Back(Event):
    """The camera is there again.

    `after` is the time without it in seconds. `differences` are settings whose texts are others
    than before, name to (before, now): offered to be set again, never forced.
    """

    kind: ClassVar[str] = "back"
    after: float
    differences: Mapping[str, Tuple[str, str]] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class Closed(Event):
    """The session has ended; nothing follows."""

    kind: ClassVar[str] = "closed"


@dataclasses.dataclass(frozen=True)
class SettingChanged(Event):
    """What the camera told of one setting: its text, what is allowed, whether it can be set now."""

    kind: ClassVar[str] = "setting"
    name: str
    text: str
    allowed: Tuple[str, ...] = ()
    settable: bool = False


@dataclasses.dataclass(frozen=True)
class ShotAsked(Event):
    """The shutter was asked for; `shot` counts up in a session."""

    kind: ClassVar[str] = "shot"
    shot: int


@dataclasses.dataclass(frozen=True)
class Picture(Event):
    """A whole picture file under its final name.

    `file` is relative to the folder, with `/` between its parts; `size` is in bytes, `sha256` in
    hex, `width` and `height` in pixels, None where they are not known; `settings` are those of the
    moment in which the picture came, name to text.
    """

    kind: ClassVar[str] = "picture"
    file: str
    size: int
    sha256: str
    shot: int
    origin: str  # "host", "body" or "recovered"
    format: str  # "JPEG", "RAW" or "OTHER"
    settings: Mapping[str, str] = dataclasses.field(default_factory=dict)
    width: Optional[int] = None
    height: Optional[int] = None
    original: Optional[str] = None  # the name that the module gave it
    session: Optional[str] = None  # whose shot it is: each session counts its own


@dataclasses.dataclass(frozen=True)
class Failed(Event):
    """A shot that brought no picture, or a picture that is lost."""

    kind: ClassVar[str] = "failed"
    reason: str  # a value of errors.Reason
    advice: str
    text: str = ""
    shot: Optional[int] = None
    file: Optional[str] = None


@dataclasses.dataclass(frozen=True)
class Copied(Event):
    """The second copy of a picture was written, read back and found equal."""

    kind: ClassVar[str] = "copied"
    file: str
    to: str = ""  # the complete path of the copy
    sha256: str = ""
    seconds: float = 0.0  # behind the picture itself


@dataclasses.dataclass(frozen=True)
class Rated(Event):
    """A picture was given a rating, 0 to 5, and maybe a label."""

    kind: ClassVar[str] = "rated"
    file: str
    rating: int
    label: str = ""


@dataclasses.dataclass(frozen=True)
class Alarm(Event):
    """Something that a person has to look after.

    `is_recorded` is False when nothing can be recorded, this neither; `n` is the record's before.
    """

    kind: ClassVar[str] = "alarm"
    what: str
    advice: str
    is_recorded: bool = dataclasses.field(
        default=True, compare=False, metadata={"in_record": False}
    )


@dataclasses.dataclass(frozen=True)
class Lagged:
    """Stands for the events `first` to `last`, which this subscriber was too slow for.

    They are in the ledger, under their numbers. Not recorded itself.
    """

    first: int
    last: int


EVENTS: Mapping[str, Type[Event]] = {
    event.kind: event
    for event in (
        Opened,
        Lost,
        Back,
        Closed,
        SettingChanged,
        ShotAsked,
        Picture,
        Failed,
        Copied,
        Rated,
        Alarm,
    )
}

VERSION = 1  # of the records


def time_text(time: datetime.datetime) -> str:
    """A moment as records tell it: UTC, milliseconds, "2026-11-22T05:40:48.123Z"."""
    text = time.astimezone(datetime.timezone.utc).isoformat(timespec="milliseconds")
    return text.replace("+00:00", "Z")


def time_of(text: str) -> datetime.datetime:
    """The moment that a record tells; raises ValueError when it tells none."""
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))


def to_record(event: Event) -> Dict[str, Any]:
    """The ledger's record of an event; fields that are None are left out."""
    record: Dict[str, Any] = {
        "v": VERSION,
        "n": event.n,
        "time": time_text(event.time),
        "kind": event.kind,
    }
    for field in _fields_of(type(event)):
        value = getattr(event, field.name)
        if field.name not in record and value is not None:
            record[field.name] = value
    return record


def from_record(record: Mapping[str, Any]) -> Optional[Event]:
    """The event that a record tells of.

    None for a kind or version that is not known here, and for a record without a field that its
    kind needs, or with one of another type: the ledger may have been written by a newer program.
    Fields that are not known are passed over.
    """
    kind = EVENTS.get(str(record.get("kind")))
    if kind is None or record.get("v") != VERSION:
        return None
    try:
        values: Dict[str, Any] = {"time": time_of(record["time"])}
        for name, is_fit in _FORMS[kind].items():
            if name in record and name != "time":
                values[name] = record[name]
                if not is_fit(record[name]):
                    return None
        if "allowed" in values:
            values["allowed"] = tuple(values["allowed"])
        if "differences" in values:
            values["differences"] = {
                name: tuple(texts) for name, texts in values["differences"].items()
            }
        return kind(**values)
    except (AttributeError, KeyError, TypeError, ValueError):
        return None


def _fields_of(kind: Type[Event]) -> "Iterator[dataclasses.Field[Any]]":
    """Those that a record has."""
    return (field for field in dataclasses.fields(kind) if field.metadata.get("in_record", True))


def _form(kind: Any) -> Callable[[Any], bool]:
    """Says whether a value of a record is one of a field's type: a list is a tuple's."""
    origin, parts = get_origin(kind), get_args(kind)
    forms = [_form(part) for part in parts if part is not Ellipsis]
    if origin is Union:
        return lambda value: any(form(value) for form in forms)
    if origin is tuple and Ellipsis in parts:
        return lambda value: isinstance(value, (list, tuple)) and all(map(forms[0], value))
    if origin is tuple:
        return lambda value: (
            isinstance(value, (list, tuple))
            and len(value) == len(forms)
            and all(form(part) for form, part in zip(forms, value))
        )
    if origin is collections.abc.Mapping:
        return lambda value: (
            isinstance(value, Mapping)
            and all(map(forms[0], value))
            and all(map(forms[1], value.values()))
        )
    if kind is bool:
        return lambda value: isinstance(value, bool)
    kinds = (int, float) if kind is float else (kind,)
    return lambda value: isinstance(value, kinds) and not isinstance(value, bool)


_FORMS: Mapping[Type[Event], Mapping[str, Callable[[Any], bool]]] = {
    kind: {field.name: _form(field.type) for field in _fields_of(kind)} for kind in EVENTS.values()
}
