"""Events in words, one line each, for people who look at a terminal."""

from typing import Callable, Dict, Mapping, Sequence, Type

from ..events import (
    Alarm,
    Back,
    Closed,
    Copied,
    Event,
    Failed,
    Lost,
    Opened,
    Picture,
    Rated,
    SettingChanged,
    ShotAsked,
)

_ORIGINS = {"body": ", released at the camera", "recovered": ", left by an earlier session"}
_PREFIXES = {"aperture": "f/", "iso": "ISO "}
_TOLD_OF_PICTURES = ("shutter", "aperture", "iso")


def line(event: Event, whose: str = "") -> str:
    """What happened, with the local time, and in front of it whose it is."""
    words = _WORDS.get(type(event))
    text = event.kind if words is None else words(event)
    time = event.time.astimezone().strftime("%H:%M:%S")
    return "%s  %s%s" % (time, whose, one_line(text))


def one_line(text: str) -> str:
    """A text without line ends: an operating system's own words may have some."""
    return " ".join(text.split())


def size(count: int) -> str:
    """A number of bytes, as people read it."""
    if count < 1_000_000:
        return "%.0f kB" % (count / 1e3)
    return "%.1f MB" % (count / 1e6)


def duration(seconds: float) -> str:
    """ "2:05", "1:02:05"."""
    minutes, rest = divmod(int(seconds + 0.5), 60)
    hours, minutes = divmod(minutes, 60)
    return "%d:%02d:%02d" % (hours, minutes, rest) if hours else "%d:%02d" % (minutes, rest)


def count(number: int, noun: str) -> str:
    """ "1 picture", "2 pictures"."""
    return "%d %s%s" % (number, noun, "" if number == 1 else "s")


def count_is(number: int, noun: str) -> str:
    """ "1 picture is", "2 pictures are"."""
    return "%s %s" % (count(number, noun), "is" if number == 1 else "are")


def count_have(number: int, noun: str) -> str:
    """ "1 picture has", "2 pictures have"."""
    return "%s %s" % (count(number, noun), "has" if number == 1 else "have")


def _opened(event: Opened) -> str:
    return "%s is open" % event.camera


def _closed(_: Closed) -> str:
    return "closed"


def _lost(event: Lost) -> str:
    return "the camera is gone: %s" % event.evidence


def _back(event: Back) -> str:
    text = "the camera is back after %.1f seconds" % event.after
    for name, (before, now) in event.differences.items():
        text += "; %s is %s now, and was %s" % (_spaced(name), now, before)
    return text


def _setting(event: SettingChanged) -> str:
    return "%s %s%s" % (_spaced(event.name), event.text, _allowed(event.allowed))


def _allowed(texts: Sequence[str]) -> str:
    if not texts:
        return ""
    if len(texts) < 5:
        return " of %s" % ", ".join(texts)
    return " of %d: %s, ..., %s" % (len(texts), ", ".join(texts[:3]), texts[-1])


def _shot(event: ShotAsked) -> str:
    return "shot %d" % event.shot


def _picture(event: Picture) -> str:
    parts = [event.file, event.format]
    if event.width and event.height:
        parts.append("%d x %d" % (event.width, event.height))
    parts.append(size(event.size))
    exposure = _exposure(event.settings)
    if exposure:
        parts.append(exposure)
    return ", ".join(parts) + _ORIGINS.get(event.origin, "")


def _exposure(settings: Mapping[str, str]) -> str:
    words = []
    for name in _TOLD_OF_PICTURES:
        text = settings.get(name, "")
        prefix = _PREFIXES.get(name, "")
        if text:
            words.append(text if text.lower().startswith(prefix.lower()) else prefix + text)
    return " ".join(words)


def _failed(event: Failed) -> str:
    text = event.text or event.reason.replace("_", " ")
    return "failed: %s. %s" % (text, event.advice)


def _copied(event: Copied) -> str:
    return "%s is copied to %s" % (event.file, event.to)


def _rated(event: Rated) -> str:
    return "%s is rated %d%s" % (event.file, event.rating, event.label and ", " + event.label)


def _alarm(event: Alarm) -> str:
    return "ALARM: %s. %s" % (event.what, event.advice)


def _spaced(name: str) -> str:
    return name.replace("_", " ")


_WORDS: Dict[Type[Event], Callable[..., str]] = {
    Alarm: _alarm,
    Back: _back,
    Closed: _closed,
    Copied: _copied,
    Failed: _failed,
    Lost: _lost,
    Opened: _opened,
    Picture: _picture,
    Rated: _rated,
    SettingChanged: _setting,
    ShotAsked: _shot,
}
