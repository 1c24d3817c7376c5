"""What a camera is set to and can be set to, the same for both makers.

A Canon camera tells keys of its own with their texts, a Nikon camera positions in its lists. Here
both are a `Setting`: a text, the key that the module takes for it, and the choices that the camera
allows now. Texts are the camera's own; `Settings.choose` finds them as photographers write them.
"""

import dataclasses
import fractions
import re
from typing import Dict, List, Optional, Sequence, Tuple

from . import protocol
from .errors import NotSettable, Refused

NAMES = ("mode", "shutter", "aperture", "iso", "white_balance", "color_temperature", "quality")

# What a camera must have told, value and list, before it is of use.
_NEEDED = ("shutter", "aperture", "iso", "white_balance")
_ONLY_ON_THE_CAMERA = ("mode", "quality")

# Nobody's advice to somebody whose dial stands on one of these is to turn it to M.
_MANUAL_MODES = ("M", "Manual")

UNKNOWN = "unknown"  # the text of a value that the camera does not tell

_PLAIN = str.maketrans("\u2033\u201d\u0192", '""f')
_DECIMAL = r"[0-9]{1,9}(?:[.,][0-9]{1,9})?"
_NUMBER = re.compile(_DECIMAL)
_SECONDS = re.compile(r"(%s)(?:/(%s))?(?:s|sec|secs|second|seconds|\")?" % (_DECIMAL, _DECIMAL))
_QUOTED_SECONDS = re.compile(r"([0-9]{1,9})\"([0-9]{1,9})")


@dataclasses.dataclass(frozen=True)
class Choice:
    """One of the values that a camera allows: what the module takes for it, and its text."""

    key: int
    text: str


@dataclasses.dataclass(frozen=True)
class Setting:
    """What a camera has told of one setting.

    `text` is empty before it has told anything. `key` is None where the setting has texts alone.
    `choices` are those that can be set now, in the camera's order: none while it cannot be set.
    """

    name: str
    text: str = ""
    key: Optional[int] = None
    choices: Tuple[Choice, ...] = ()
    settable: bool = False

    @property
    def allowed(self) -> Tuple[str, ...]:
        """The texts of the choices."""
        return tuple(choice.text for choice in self.choices)


@dataclasses.dataclass(frozen=True)
class Request:
    """What SetValue is called with, `code` and `value`, and what it is for."""

    code: int
    value: int
    name: str
    choice: Choice

    def is_met_by(self, setting: Setting) -> bool:
        """Whether the camera has told that the setting is what was asked for.

        Positions change with a Nikon camera's list, so a text that stands for one value alone
        counts under another key, too.
        """
        if (setting.name, setting.text) != (self.name, self.choice.text):
            return False
        return setting.key == self.choice.key or setting.allowed.count(setting.text) == 1


class Settings:
    """All settings of one camera, from what it tells. Belongs to one thread.

    Args:
        maker: "canon" or "nikon".
    """

    def __init__(self, maker: str) -> None:
        if maker not in ("canon", "nikon"):
            raise ValueError("no maker: %r" % maker)
        self._is_nikon = maker == "nikon"
        self.forget()

    def forget(self) -> None:
        """A new session begins: what the camera has told does not count any more."""
        self._values: Dict[str, Choice] = {}
        self._texts: Dict[str, str] = {}  # of settings without keys
        self._positions: Dict[str, int] = {}  # of a Nikon camera, until the list tells the text
        self._choices: Dict[str, Tuple[Choice, ...]] = {}
        self._told: Dict[str, Setting] = {}

    def apply(self, message: protocol.Message) -> Optional[Setting]:
        """Takes in what the camera told; returns the setting when it has become different.

        What another setting has become by it is in `changes` alone.
        """
        name = getattr(message, "setting", "")
        return next((change for change in self.changes(message) if change.name == name), None)

    def changes(self, message: protocol.Message) -> Tuple[Setting, ...]:
        """As `apply`, with all that have become different.

        White balance decides whether the color temperature can be set, and so makes two different.
        """
        if isinstance(message, protocol.Value):
            is_told = self._take_value(message)
        elif isinstance(message, protocol.Allowed):
            is_told = self._take_list(message)
        else:
            return ()
        if not is_told:
            return ()
        names = [message.setting]
        if message.setting == "white_balance" and "color_temperature" in self._told:
            names.append("color_temperature")
        changed: List[Setting] = []
        for name in names:
            setting = self.get(name)
            if self._told.get(name) != setting:
                self._told[name] = setting
                changed.append(setting)
        return tuple(changed)

    def get(self, name: str) -> Setting:
        """What is known of a setting; raises KeyError for a name that is none of NAMES."""
        if name not in NAMES:
            raise KeyError(name)
        choices = self._choices.get(name, ())
        if name in _ONLY_ON_THE_CAMERA or not self._counts(name):
            choices = ()
        value = self._values.get(name)
        text = self._texts.get(name, "") if value is None else value.text
        return Setting(name, text, None if value is None else value.key, choices, bool(choices))

    def all(self) -> Tuple[Setting, ...]:
        """The settings that the camera has told of, in the order of NAMES."""
        return tuple(self.get(name) for name in NAMES if name in self._told)

    def texts(self) -> Dict[str, str]:
        """What the camera is set to, name to text; without those that it has not told."""
        return {setting.name: setting.text for setting in self.all() if setting.text}

    @property
    def is_complete(self) -> bool:
        """Whether the camera has told all that a user of it needs, a Nikon camera its report."""
        if self._is_nikon and "quality" not in self._texts:
            return False
        return all(name in self._values and name in self._choices for name in _NEEDED)

    def choose(self, name: str, wanted: Optional[str] = None, key: Optional[int] = None) -> Request:
        """Finds the choice that is meant; one that is set already is asked for all the same.

        Args:
            name: one of NAMES.
            wanted: its text, as the camera has it or as photographers write it: "f5.6", "1/250s".
            key: what the module takes for it, where a text stands for more than one value.

        Raises:
            NotSettable: the setting cannot be changed now, or never, or there is none of that name.
            Refused: it is none of the choices, or more than one of them.
        """
        if wanted is None and key is None:
            raise ValueError("neither a text nor a key")
        setting = self._settable(name)
        found: Sequence[Choice] = setting.choices
        if key is not None:
            found = [choice for choice in found if choice.key == key]
        if wanted is not None:
            found = _matches(name, str(wanted), found)
        if len(found) != 1:
            asked = "key %s" % key if wanted is None else str(wanted)
            raise Refused(name, asked, setting.allowed, [choice.key for choice in found])
        (choice,) = found
        return Request(int(protocol.CODES[name]), choice.key, name, choice)

    def _take_value(self, value: protocol.Value) -> bool:
        """Notes a value; returns whether it is known what it means."""
        if value.key is None:
            self._texts[value.setting] = value.text or ""
        elif value.text is not None:
            self._values[value.setting] = Choice(value.key, value.text)
        else:
            # The list comes behind it, and may have become another one.
            self._positions[value.setting] = value.key
            return False
        return True

    def _take_list(self, allowed: protocol.Allowed) -> bool:
        name = allowed.setting
        choices = tuple(
            Choice(key, text) for key, text in allowed.choices if key != protocol.UNKNOWN_KEY
        )
        self._choices[name] = () if allowed.editable is False else choices
        if self._is_nikon and name in self._positions:
            position = self._positions[name]
            self._values[name] = Choice(position, dict(allowed.choices).get(position, UNKNOWN))
        return True

    def _counts(self, name: str) -> bool:
        """Whether the camera goes by what the setting is; of most it always does."""
        if name != "color_temperature":
            return True
        white_balance = self._values.get("white_balance")
        return white_balance is not None and white_balance.key == protocol.CANON_COLORTEMP

    def _settable(self, name: str) -> Setting:
        """The setting, when it can be set now; raises NotSettable when it cannot."""
        is_missing = self._is_nikon and name == "color_temperature"
        if name not in NAMES or name in _ONLY_ON_THE_CAMERA or is_missing:
            raise NotSettable(name)
        setting = self.get(name)
        if setting.settable:
            return setting
        if not self._counts(name):
            raise NotSettable(
                name, None, "Set the white balance to %s first." % self._kelvin_text()
            )
        mode: Optional[str] = self._texts.get("mode")
        raise NotSettable(name, None if mode in _MANUAL_MODES else mode)

    def _kelvin_text(self) -> str:
        """What the camera calls the white balance that makes the color temperature count."""
        texts = {choice.key: choice.text for choice in self._choices.get("white_balance", ())}
        return texts.get(protocol.CANON_COLORTEMP, "Color temperature")


def seconds_of(text: str) -> Optional[float]:
    """The exposure time that a text names, in seconds: of "1/250", "30", '0"5'.

    None for "Bulb" and whatever else is no time.
    """
    seconds = _seconds(_squeezed(text))
    return None if seconds is None else float(seconds)


def _matches(name: str, wanted: str, choices: Sequence[Choice]) -> List[Choice]:
    """The choices that a text means: those with this very text, or else those that are alike."""
    exact = [choice for choice in choices if choice.text == wanted]
    if exact:
        return exact
    words = _squeezed(wanted)
    number = _number(name, words)
    return [
        choice
        for choice in choices
        if _squeezed(choice.text) == words
        or (number is not None and _number(name, _squeezed(choice.text)) == number)
    ]


def _squeezed(text: str) -> str:
    """The text without blanks, in small letters, its signs for seconds and f-numbers plain."""
    return "".join(text.split()).casefold().translate(_PLAIN)


def _number(name: str, words: str) -> Optional[fractions.Fraction]:
    """The number that squeezed words stand for, in the setting's own unit; None if for none."""
    if name == "shutter":
        return _seconds(words)
    if name == "aperture":
        words = words[1:] if words.startswith("f") else words
        words = words[1:] if words.startswith("/") else words
    elif name == "iso":
        words = words[3:] if words.startswith("iso") else words
    elif name == "color_temperature":
        words = words[:-1] if words.endswith("k") else words
    else:
        return None
    return _fraction(words) if _NUMBER.fullmatch(words) else None


def _seconds(words: str) -> Optional[fractions.Fraction]:
    quoted = _QUOTED_SECONDS.fullmatch(words)
    if quoted:
        return _fraction("%s.%s" % quoted.groups()) or None
    found = _SECONDS.fullmatch(words)
    if not found:
        return None
    divisor = _fraction(found.group(2) or "1")
    return _fraction(found.group(1)) / divisor or None if divisor else None


def _fraction(digits: str) -> fractions.Fraction:
    return fractions.Fraction(digits.replace(",", "."))
