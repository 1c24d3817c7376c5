"""A RAW file in the open format DNG, with a preview in it, as cameras and converters write them."""

import struct

_BYTE, _ASCII, _SHORT, _LONG, _SRATIONAL = 1, 2, 3, 4, 10
_FORMS = {_BYTE: "B", _ASCII: "B", _SHORT: "H", _LONG: "I", _SRATIONAL: "i"}
_SIDE = 64  # sensor's pixels along each side
_MATRIX = (1, 1, 0, 1, 0, 1, 0, 1, 1, 1, 0, 1, 0, 1, 0, 1, 1, 1)  # nine fractions


def negative(preview, width, height, orientation=1):
    """The file's bytes; `preview` is a JPEG of this size, all of it as the camera was held."""
    values = b"\x00\x10" * (_SIDE * _SIDE)

    def pictures(sensor_at, preview_at, values_at):
        return (
            _directory(
                8,
                [
                    (254, _LONG, [1]),  # a smaller version of another one
                    *_about(width, height, [8, 8, 8], 7, 6, preview_at, len(preview)),
                    (271, _ASCII, b"Lumatie\0"),
                    (272, _ASCII, b"Chart\0"),
                    (274, _SHORT, [orientation]),
                    (330, _LONG, [sensor_at]),
                    (50706, _BYTE, [1, 4, 0, 0]),  # the format's version
                    (50708, _ASCII, b"Lumatie Chart\0"),
                    (50721, _SRATIONAL, _MATRIX),
                ],
            ),
            _directory(
                sensor_at,
                [
                    (254, _LONG, [0]),
                    *_about(_SIDE, _SIDE, [16], 1, 32803, values_at, len(values)),
                    (33421, _SHORT, [2, 2]),
                    (33422, _BYTE, [0, 1, 1, 2]),  # red, green; green, blue
                ],
            ),
        )

    sensor_at = 8 + len(pictures(0, 0, 0)[0])
    preview_at = sensor_at + len(pictures(sensor_at, 0, 0)[1])
    values_at = preview_at + len(preview) + len(preview) % 2
    main, sensor = pictures(sensor_at, preview_at, values_at)
    data = struct.pack("<2sHI", b"II", 42, 8) + main + sensor + preview
    return data.ljust(values_at, b"\0") + values


def _about(width, height, bits, compression, colours, at, length):
    return [
        (256, _LONG, [width]),
        (257, _LONG, [height]),
        (258, _SHORT, bits),
        (259, _SHORT, [compression]),
        (262, _SHORT, [colours]),
        (273, _LONG, [at]),
        (277, _SHORT, [len(bits)]),
        (278, _LONG, [height]),
        (279, _LONG, [length]),
    ]


def _directory(at, entries):
    """A list of tags that lies at an offset in the file, and its longer values behind it."""
    values_at = at + 2 + 12 * len(entries) + 4
    tags, behind = b"", b""
    for tag, kind, values in sorted(entries):
        data = struct.pack("<%d%s" % (len(values), _FORMS[kind]), *values)
        count = len(values) // 2 if kind == _SRATIONAL else len(values)
        head = struct.pack("<HHI", tag, kind, count)
        if len(data) <= 4:
            tags += head + data.ljust(4, b"\0")
        else:
            tags += head + struct.pack("<I", values_at + len(behind))
            behind += data + b"\0" * (len(data) % 2)
    return struct.pack("<H", len(entries)) + tags + b"\0\0\0\0" + behind
