"""The names of pictures: templates, and what every file system takes.

What stands in a template, and the names of job and station, are the photographer's own, and are
rejected at the start when some system could not take them. What comes from a camera, a scanner or a
clock is made to fit, because a picture is never lost for its name.
"""

import datetime
import os
import re
import string
from typing import Dict, List, Mapping, NamedTuple, Optional, Tuple

from .errors import NameRejected
from .files import LONGEST, cut, length_of
from .ledger import INNER_FOLDER

TOKENS = (
    "n",
    "total",
    "date",
    "time",
    "camera",
    "maker",
    "station",
    "job",
    "tag",
    "original",
    "ext",
)
LONGEST_TEMPLATE = 1000  # characters

_TIMES = {"date": "%Y-%m-%d", "time": "%H%M%S"}
_CUT = ("tag", "original", "job", "station", "camera", "maker")  # in this order, where too long
_OWN = ("job", "station")  # given before the first shot by whoever wrote the template
_SUFFIX = "suffix"  # the extension with its dot, where the template does not say where it goes
_ROOM = len(" (9999)")  # for the number of a second picture of the name
_LONGEST_WINDOWS_PATH = 259

# Letters that some file system refuses, control characters, and halves of letters.
_REFUSED = re.compile('[<>:"/\\\\|?*\\x00-\\x1f\\x7f-\\x9f\ud800-\udfff]')
_REFUSED_IN_TEMPLATE = re.compile('[<>:"\\\\|?*\\x00-\\x1f\\x7f-\\x9f\ud800-\udfff]')
_UNSEEN = re.compile("[\\x00-\\x1f\\x7f-\\x9f\ud800-\udfff]")
_DEVICES = re.compile(
    r"(CON|PRN|AUX|NUL|CONIN\$|CONOUT\$|CLOCK\$|(COM|LPT)[0-9\u00b9\u00b2\u00b3])[ ]*(\..*)?",
    re.IGNORECASE | re.DOTALL,
)


class _Piece(NamedTuple):
    text: str  # that stands in the template, or the format of a token
    token: Optional[str] = None


class Template:
    """How pictures are named, "{job}_{n:04}". Immutable; any thread may use it.

    Tokens are those of TOKENS, with Python's formats; {date} and {time} take those
    of strftime, and are local. `/` divides subfolders. Without {ext} the extension is put behind.

    Attributes:
        text: the template, as it was given.
    """

    def __init__(
        self,
        text: str,
        *,
        camera: str = "",
        maker: str = "",
        station: str = "",
        job: str = "",
        folder: str = "",
    ) -> None:
        """Checks the template.

        Args:
            text: the template.
            camera, maker, station, job: what its tokens of these names stand for.
            folder: where the pictures go: with it the length of whole paths is looked at, too.

        Raises:
            NameRejected: names could come out that no file can have.
        """
        self.text = text
        self._fixed = {"camera": camera, "maker": maker, "station": station, "job": job}
        self._parts = self._parsed()
        if not any(piece.token == "ext" for piece in self._parts[-1]):
            self._parts[-1].append(_Piece("", _SUFFIX))
        self._check_values(folder)

    @property
    def cautions(self) -> Tuple[str, ...]:
        """What is allowed and may surprise, in words."""
        for part in self._parts:
            tokens = {piece.token for piece in part}
            if "tag" in tokens and not tokens & {"n", "total"}:
                return (
                    "Two tags that differ in case alone make one name on many disks:"
                    " the second picture gets a number.",
                )
        return ()

    def name(
        self, n: int, total: int, original: str, tag: str, time: datetime.datetime, ext: str
    ) -> str:
        """The name of a picture, relative to the folder, `/` between parts. Raises nothing.

        Args:
            n: the number of the shot in its session.
            total: its number in the folder.
            original: the module's name of the file, with or without its extension.
            tag: the text that was typed last; whatever it holds is made to fit.
            time: of the picture; one without a time zone is local.
            ext: ".JPG" or "JPG".
        """
        ext = ext.lstrip(".")
        if ext and original.lower().endswith("." + ext.lower()):
            original = original[: -len(ext) - 1]
        values = {
            **self._fixed,
            "n": n,
            "total": total,
            "date": _local(time),
            "time": _local(time),
            "tag": tag,
            "original": original,
            "ext": ext,
            _SUFFIX: ext and "." + ext,
        }
        return "/".join(_made_fit(self._filled(part, values)) for part in self._parts)

    def next(
        self,
        n: int,
        total: int,
        tag: str = "",
        time: Optional[datetime.datetime] = None,
        ext: str = "JPG",
        original: str = "original",
    ) -> str:
        """What the next picture will be called, as far as it can be known before the shot.

        Args:
            n, total, tag, ext, original: as for `name`.
            time: of the picture; None: now.
        """
        return self.name(n, total, original, tag, time or datetime.datetime.now(), ext)

    def _parsed(self) -> List[List[_Piece]]:
        """The pieces of each part; raises NameRejected."""
        if len(self.text) > LONGEST_TEMPLATE:
            raise self._rejected("it has more than %d characters" % LONGEST_TEMPLATE)
        if _UNSEEN.search(self.text):
            raise self._rejected("it holds a character that cannot be seen")
        parts: List[List[_Piece]] = [[]]
        try:
            pieces = list(string.Formatter().parse(self.text))
        except ValueError as error:
            raise self._rejected(str(error)) from error
        for text, token, spec, conversion in pieces:
            first, *others = text.split("/")
            parts[-1].append(_Piece(self._checked(first)))
            parts.extend([_Piece(self._checked(other))] for other in others)
            if token is not None:
                self._check_token(token, spec or "", conversion)
                parts[-1].append(_Piece(spec or "", token))
        for part in parts:
            part[:] = [piece for piece in part if piece.text or piece.token]
            self._check_part(part, is_first=part is parts[0])
        return parts

    def _checked(self, text: str) -> str:
        refused = _REFUSED_IN_TEMPLATE.search(text)
        if refused:
            raise self._rejected("some systems refuse %s in a name" % refused.group())
        return text

    def _check_token(self, token: str, spec: str, conversion: Optional[str]) -> None:
        if token not in TOKENS:
            known = ", ".join("{%s}" % known for known in TOKENS)
            raise self._rejected("there is no {%s}; there are %s" % (token, known))
        if conversion or "{" in spec or "}" in spec:
            raise self._rejected("{%s} takes a plain format only" % token)
        if any(len(digits) > 3 or int(digits) > LONGEST for digits in _digits(spec)):
            raise self._rejected("the format of {%s} asks for more than %d" % (token, LONGEST))

    def _check_part(self, part: List[_Piece], is_first: bool) -> None:
        if not part:
            raise self._rejected("a part of it is empty")
        if part[-1].token is None and part[-1].text[-1] in ". ":
            raise self._rejected("a part of it ends with a dot or a blank")
        begin = part[0].text if part[0].token is None else ""
        whole = begin if len(part) == 1 else begin + "?"
        if _DEVICES.fullmatch(whole if "." not in begin else begin):
            raise self._rejected("Windows has a device of the name %s" % begin.split(".")[0])
        if is_first and whole.lower() == INNER_FOLDER:
            raise self._rejected("the folder %s is not for pictures" % INNER_FOLDER)

    def _check_values(self, folder: str) -> None:
        """Tries values as long as usual ones get; raises NameRejected."""
        time = datetime.datetime(2026, 11, 22, 23, 59, 59, 999999)
        values = {
            **self._fixed,
            "n": 10**9,
            "total": 10**9,
            "date": time,
            "time": time,
            "tag": "m" * 40,
            "original": "Canon_1700000000_2147483647",
            "ext": "JPEG",
            _SUFFIX: ".JPEG",
        }
        longest = 0
        for part in self._parts:
            try:
                texts = [_formatted(piece, values) for piece in part]
            except (ValueError, TypeError, OverflowError) as error:
                raise self._rejected(str(error)) from error
            for piece, text in zip(part, texts):
                if piece.token in _TIMES and _REFUSED.search(text):
                    raise self._rejected("some systems refuse %s in a name" % text)
            self._check_own(part, "".join(texts))
            length = length_of("".join(_safe(text) for text in texts))
            if length > LONGEST - _ROOM:
                raise self._rejected("its names have up to %d letters" % length)
            longest += 1 + length
        if os.name == "nt" and folder:
            whole = len(os.path.abspath(folder)) + longest + _ROOM
            if whole > _LONGEST_WINDOWS_PATH:
                raise self._rejected("its paths have up to %d letters" % whole)

    def _check_own(self, part: List[_Piece], text: str) -> None:
        """Raises NameRejected when the job or the station makes a part that no file can have."""
        for token in _OWN:
            value = self._fixed[token]
            if not value or not any(piece.token == token for piece in part):
                continue
            if _UNSEEN.search(value):
                raise self._rejected("the %s holds a character that cannot be seen" % token)
            refused = _REFUSED.search(value)
            if refused:
                raise self._rejected(
                    "some systems refuse %s in the %s %s" % (refused.group(), token, value)
                )
            if part[-1].token == token and value[-1] in ". ":
                raise self._rejected("the %s %s ends with a dot or a blank" % (token, value))
            if _DEVICES.fullmatch(text):
                raise self._rejected("Windows has a device of the name %s" % text.split(".")[0])

    def _filled(self, part: List[_Piece], values: Mapping[str, object]) -> str:
        texts: Dict[int, str] = {}
        for index, piece in enumerate(part):
            text = _formatted(piece, values)
            texts[index] = text if piece.token is None else _safe(text)
        for token in _CUT:
            for index, piece in enumerate(part):
                over = length_of("".join(texts.values())) - (LONGEST - _ROOM)
                if piece.token == token and over > 0:
                    texts[index] = cut(texts[index], length_of(texts[index]) - over)
        name = "".join(texts.values())
        # Only the template may hide a file, or leave nothing but an extension.
        return "_" + name if name.startswith(".") and part[0].token else name

    def _rejected(self, why: str) -> NameRejected:
        return NameRejected(self.text, why)


def _formatted(piece: _Piece, values: Mapping[str, object]) -> str:
    if piece.token is None:
        return piece.text
    value = values[piece.token]
    return format(value, piece.text or _TIMES.get(piece.token, ""))


def _safe(text: str) -> str:
    return _REFUSED.sub("_", text)


def _made_fit(part: str) -> str:
    """A part of a name as every file system takes it."""
    part = cut(part, LONGEST)
    kept = part.rstrip(". ")
    part = kept + "_" * (len(part) - len(kept)) or "_"
    if _DEVICES.fullmatch(part) or part.lower() == INNER_FOLDER:
        part = cut("_" + part, LONGEST)
    return part


def _digits(text: str) -> List[str]:
    return re.findall(r"[0-9]+", text)


def _local(time: datetime.datetime) -> datetime.datetime:
    return time.astimezone() if time.tzinfo is not None else time
