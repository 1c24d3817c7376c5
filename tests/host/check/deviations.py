"""Cameras and libraries that deviate, each in one way, and the point that names it."""

import ctypes
import pathlib
from typing import NamedTuple, Tuple

from virtual_cameras import CANON_LIBRARY


class Deviation(NamedTuple):
    """One way of being different.

    `what` is as the page has it: a line of settings of the virtual camera, or words for what is
    done to the library's file, with the function of FILES that does it.
    """

    maker: str
    what: str
    point: str
    arguments: Tuple[str, ...] = ()
    is_in_sample: bool = False


OF_LINUX = ("a library that it needs is too old",)
SHOOT = ("--shoot",)
LONG = "x" * 1500  # as the page has it: x, 1500 times
SOON = ("--timeout", "4")  # for what hangs


def _changed(folder, old=None, new=None, cut=None):
    path = pathlib.Path(folder, CANON_LIBRARY.name)
    data = CANON_LIBRARY.read_bytes()
    if old is not None:
        assert old in data
        data = data.replace(old, new)
    path.write_bytes(data if cut is None else data[:cut])
    return path


def _without_needed(folder):
    if CANON_LIBRARY.suffix == ".dll":
        return _changed(folder, b"msvcrt.dll\0", b"msvcrX.dll\0")
    return _changed(folder, b"\0libm.so.6\0", b"\0libX.so.6\0")


def _for_32_bits(folder):
    data = CANON_LIBRARY.read_bytes()
    path = pathlib.Path(folder, CANON_LIBRARY.name)
    at = int.from_bytes(data[60:64], "little") + 24 if data[:2] == b"MZ" else 4
    changed = b"\x0b\x01" if data[:2] == b"MZ" else b"\x01"
    path.write_bytes(data[:at] + changed + data[at + len(changed) :])
    return path


def _crashing(folder):
    """With an instruction that no processor knows at the beginning of a function."""
    function = ctypes.CDLL(str(CANON_LIBRARY)).EdsInitializeSDK
    begin = ctypes.string_at(ctypes.cast(function, ctypes.c_void_p).value, 64)
    assert CANON_LIBRARY.read_bytes().count(begin) == 1
    return _changed(folder, begin, b"\x0f\x0b" + begin[2:])


FILES = {
    "no file": lambda folder: pathlib.Path(folder, "nowhere", CANON_LIBRARY.name),
    "a text file": lambda folder: _changed(folder, cut=0),
    "the file's second half is missing": lambda folder: _changed(folder, cut=100_000),
    "a file for 32 bits": _for_32_bits,
    "no function EdsDownloadEvfImage": lambda folder: _changed(
        folder, b"\0EdsDownloadEvfImage\0", b"\0EdsDownloadEvfImagX\0"
    ),
    "a library that it needs is missing": _without_needed,
    "a library that it needs is too old": lambda folder: _changed(
        folder, b"\0GLIBCXX_3.4.22\0", b"\0GLIBCXX_3.9.22\0"
    ),
    "EdsInitializeSDK crashes": _crashing,
}


def _rows():
    for what, point in (
        ("no file", "library.found"),
        ("a text file", "library.whole"),
        ("the file's second half is missing", "library.whole"),
        ("a file for 32 bits", "library.bits"),
        ("no function EdsDownloadEvfImage", "library.functions"),
        ("a library that it needs is missing", "library.needs"),
        ("a library that it needs is too old", "library.loads"),
        ("EdsInitializeSDK crashes", "session.starts"),
    ):
        yield Deviation("canon", what, point, is_in_sample=True)
    for what, point, arguments in CANON:
        yield Deviation("canon", what, point, arguments, what in _SAMPLE)
    for what, point, arguments in NIKON:
        yield Deviation("nikon", what, point, arguments, what in _SAMPLE)


CANON = (
    ("camera.name = Canon EOS 80D", "session.camera", ()),
    ("camera.plugged = 0", "session.camera", ()),
    ("fault = EdsGetDeviceInfo code=0x80 calls=0", "session.camera", ()),
    ("fault = EdsSetObjectEventHandler code=0x60 calls=0", "messages.handlers", ()),
    ("fault = EdsOpenSession code=0x81 calls=0", "session.opens", ()),
    ("fault = EdsOpenSession hang calls=0", "session.opens", SOON),
    ("fault = EdsSetCapacity code=0x60 calls=0", "session.prepared", ()),
    ("fault = EdsSendStatusCommand code=0x60 calls=0", "session.prepared", ()),
    ("records.extra = 8", "records.behind", ()),
    ("corrupt.0x402.size = 8", "records.sizes", ()),
    ("corrupt.0x406.type = 3", "records.sizes", ()),
    ("corrupt.0x406.count = 200", "records.counts", ()),
    ("corrupt.2.unterminated = 1", "records.texts", ()),
    ("value.2 = type 2 bytes FF FE 41 00", "session.texts", ()),
    ("list.0x406 = 0x10 0x13 0x70 0x99", "session.codes", ()),
    ("event = 0x101 lose calls=0", "messages.events", ()),
    ("event = 0x101 delay_ms=800 calls=0", "messages.pace", ()),
    ("fault = EdsCloseSession code=0x5 calls=0", "session.closes", ()),
    ("fault = EdsTerminateSDK hang calls=0", "session.closes", SOON),
    ("value.0x406 = none", "session.settings", ()),
    ("fault = EdsGetPropertyDesc property=0x405 code=0x50 calls=0", "session.lists", ()),
    ("fault = EdsSetPropertyData property=0x402 code=0x60 calls=0", "setting.confirmed", ()),
    ("fault = EdsSetPropertyData property=0x402 code=0x60 skip=1", "setting.restored", ()),
    ("fault = EdsSetPropertyData property=0x402 code=0x81 skip=2 calls=0", "setting.refused", ()),
    ("fault = EdsTerminateSDK hang skip=1", "ends.again", SOON),
    ("fault = EdsInitializeSDK code=0x2 calls=0", "ends.again", ()),
    ("fault = EdsSendCommand code=0x8D01 command=4 calls=0", "shoot.event", SHOOT),
    ("event = 0x208 lose calls=0", "shoot.event", SHOOT),
    ("fault = EdsDownload code=0x2A calls=0", "shoot.file", SHOOT),
    ("fault = EdsCreateFileStream code=0x29 calls=0", "shoot.file", SHOOT),
    ("event = 0x208 lose skip=3", "shoot.five", SHOOT),
    ("event = 0x208 lose skip=6", "shoot.body", SHOOT),
    ("event = 0x208 lose skip=7", "shoot.long", SHOOT),
    ("event = 0x208 lose skip=8", "shoot.cable", SHOOT),
    ("event = 0x208 lose skip=10", "shoot.pair", SHOOT),
    ("picture.name = IMG", "records.item", SHOOT),
)

NIKON = (
    ("fault = Open code=-12 calls=0", "session.starts", ()),
    ("fault = GetCapCount never calls=0", "session.starts", ()),
    ("camera.plugged = 0", "session.camera", ()),
    ("fault = CapSet capability=3 code=-3 calls=0", "messages.handlers", ()),
    ("fault = Open code=-12 skip=1 calls=0", "session.opens", ()),
    ("fault = Open hang skip=1 calls=0", "session.opens", SOON),
    ("fault = CapSet capability=0x8305 code=-5 calls=0", "session.prepared", ()),
    ("corrupt.source.0x8118.description = Lichtfarbe", "session.capabilities", ()),
    ("corrupt.source.0x81D7.absent = 1", "session.capabilities", ()),
    ("corrupt.source.0x8117.element_size = 2", "records.sizes", ()),
    ("corrupt.source.0x8112.count = 1000000", "records.counts", ()),
    ("corrupt.source.0x8113.open_texts = 1", "records.texts", ()),
    ("list.0x8118 = Sun | \udcff\udcfe", "session.texts", ()),
    ("camera.mode = 4", "session.codes", ()),
    ("event = 6 lose calls=0", "messages.events", ()),
    ("event = 6 delay_ms=900 calls=0", "messages.pace", ()),
    ("fault = CapGet capability=0x8112 complete_ms=700 calls=0", "messages.pace", ()),
    ("fault = Close code=-5 calls=0", "session.closes", ()),
    ("fault = CapSet capability=0x8117 code=-5 calls=0", "setting.confirmed", ()),
    ("fault = CapStart capability=17 code=-9 calls=0", "shoot.event", SHOOT),
    ("data.missing = 1", "shoot.event", SHOOT),
    ("data.file_type = 2", "shoot.file", SHOOT),
    ("data.file_type = 3", "records.item", SHOOT),
    ("list.0x8110 = %s | RAW" % LONG, "session.readable", ()),
)

_SAMPLE = frozenset((
    "fault = EdsOpenSession code=0x81 calls=0",
    "records.extra = 8",
    "event = 0x101 lose calls=0",
    "fault = EdsSetPropertyData property=0x402 code=0x60 skip=1",
    "event = 0x208 lose skip=3",
    "corrupt.source.0x8118.description = Lichtfarbe",
    "corrupt.source.0x8113.open_texts = 1",
))  # fmt: skip

DEVIATIONS = tuple(_rows())
