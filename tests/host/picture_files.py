"""Small picture files, made by hand."""

import struct


def exif(time=b"2026:11:22 05:40:48\0", fraction=b"25\0", order="<"):
    """The TIFF in an EXIF segment, with the time in a directory of its own."""
    head = (b"II" if order == "<" else b"MM") + struct.pack(order + "HI", 42, 8)
    first = struct.pack(order + "HHHIII", 1, 0x8769, 4, 1, 26, 0)
    texts = 26 + 2 + 2 * 12 + 4
    padded = (fraction + b"\0\0\0\0")[:4]
    inner = (
        struct.pack(order + "HHHII", 2, 0x9003, 2, len(time), texts)
        + struct.pack(order + "HHI", 0x9291, 2, len(fraction))
        + padded
        + struct.pack(order + "I", 0)
    )
    return head + first + inner + time


def segment(code, body):
    return b"\xff" + bytes([code]) + struct.pack(">H", len(body) + 2) + body


def jpeg(width=60, height=40, data=b"\x12\x34" * 50, with_exif=True, more=b""):
    """A JPEG as far as its structure goes; `more` are further segments."""
    return (
        b"\xff\xd8"
        + (segment(0xE1, b"Exif\0\0" + exif()) if with_exif else b"")
        + more
        + segment(0xC0, struct.pack(">BHHB", 8, height, width, 1) + b"\1\x11\0")
        + segment(0xDA, b"\1\1\0\0\x3f\0")
        + data
        + b"\xff\xd9"
    )


def tiff(width=60, height=40, strip=b"\7" * 500, following=0, order="<"):
    """A raw file: one directory, one strip behind it."""
    at = 8 + 2 + 4 * 12 + 4
    entry = order + "HHII"
    return (
        (b"II" if order == "<" else b"MM")
        + struct.pack(order + "HI", 42, 8)
        + struct.pack(order + "H", 4)
        + struct.pack(entry, 0x0100, 4, 1, width)
        + struct.pack(entry, 0x0101, 4, 1, height)
        + struct.pack(entry, 0x0111, 4, 1, at)
        + struct.pack(entry, 0x0117, 4, 1, len(strip))
        + struct.pack(order + "I", following)
        + strip
    )


def box(kind, body):
    return struct.pack(">I4s", len(body) + 8, kind) + body


def cr3(data=b"\7" * 500):
    inner = bytes.fromhex("85c0b687820f11e08111f4ce462b6a48")
    time = exif()
    # The second one begins with the directory that holds the time.
    second = time[:4] + struct.pack("<I", 26) + time[8:]
    parts = box(b"CMT1", tiff(strip=b"")) + box(b"CMT2", second)
    return (
        box(b"ftyp", b"crx \0\0\0\1crx isom")
        + box(b"moov", box(b"uuid", inner + parts))
        + box(b"mdat", data)
    )


def jpeg_with_second(second):
    """A JPEG with another picture behind it, which a directory in front tells of."""

    def first(length):
        entries = struct.pack("<IIIHH", 0x030000, length, 0, 0, 0) + struct.pack(
            "<IIIHH", 0, len(second), length - base if length else 1, 0, 0
        )
        index = (
            b"II*\0"
            + struct.pack("<I", 8)
            + struct.pack("<HHHIII", 1, 0xB002, 7, len(entries), 26, 0)
            + entries
        )
        return jpeg(more=segment(0xE2, b"MPF\0" + index))

    base = 0
    base = first(0).index(b"MPF\0") + 4
    return first(len(first(0))) + second
