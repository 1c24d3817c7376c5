"""One picture's previews: decoded at a fraction of its size, made small, and kept on the disk."""

import io
import logging
import os
import secrets
from typing import Dict, NamedTuple, Optional, Tuple

from PIL import Image, UnidentifiedImageError

from ..ledger import INNER_FOLDER
from .book import Entry, path_in

SIZES = (256, 512, 1024, 2048)
LARGEST = SIZES[-1]
FOLDER = "previews"

MOST_PIXELS = 89_000_000  # of a picture that is decoded
MOST_PROGRESSIVE_PIXELS = 64_000_000  # such a picture is in memory as a whole
LARGEST_FILE = 400_000_000  # bytes
MOST_KEPT = 20_000  # files
MOST_BYTES = 2_000_000_000  # of them

_QUALITY = {256: 80, 512: 80, 1024: 85, 2048: 88}
_TURNS = {
    2: (Image.Transpose.FLIP_LEFT_RIGHT,),
    3: (Image.Transpose.ROTATE_180,),
    4: (Image.Transpose.FLIP_TOP_BOTTOM,),
    5: (Image.Transpose.TRANSPOSE,),
    6: (Image.Transpose.ROTATE_270,),
    7: (Image.Transpose.TRANSVERSE,),
    8: (Image.Transpose.ROTATE_90,),
}
_ORIENTATION = 0x0112
_END = 1024  # bytes of an embedded preview that are looked for in its file
_LARGEST_PROFILE = 60_000  # bytes that one segment of a JPEG holds

_log = logging.getLogger("lumatie_host")


class NoPreview(Exception):
    """There is none of this picture, or not now; the text says why.

    Args:
        is_for_good: whether asking again would be in vain.
    """

    def __init__(self, text: str, is_for_good: bool = True) -> None:
        super().__init__(text)
        self.is_for_good = is_for_good


class Source(NamedTuple):
    """Files that a picture's preview can be made of, the best first."""

    folder: str
    entry: Entry
    others: Tuple[Entry, ...] = ()


class Developing:
    """The previews of one picture, which is decoded once for several of them. One thread at a time.

    Args:
        source: what they are made of.
    """

    def __init__(self, source: Source) -> None:
        self._source = source
        self._image: Optional[Image.Image] = None
        self._width = 0  # that the image is good for
        self._size = (0, 0)  # of the picture
        self._new: Dict[int, bytes] = {}  # width to preview

    def decode(self, width: int, upto: int) -> None:
        """Does what takes longest, unless the preview of a width is kept; raises NoPreview.

        Args:
            width: one of `SIZES`.
            upto: the widest that is going to be asked for.
        """
        path = _path(self._source.folder, self._source.entry.sha256, width)
        if not self._is_decoded(width) and not os.path.exists(path):
            self._decode(max(width, upto))

    def preview(self, width: int) -> bytes:
        """The preview of a width as a JPEG; raises NoPreview."""
        data = kept(self._source.folder, self._source.entry.sha256, width)
        if data is None:
            if not self._is_decoded(width):
                self._decode(width)
            assert self._image is not None
            data = _encoded(_no_wider(self._image, self._size, width), width)
            self._new[width] = data
        return data

    def keep(self) -> None:
        """Writes the previews that were made since the last call beside the others."""
        while self._new:
            keep(self._source.folder, self._source.entry.sha256, *self._new.popitem())

    def _is_decoded(self, width: int) -> bool:
        return self._image is not None and width <= self._width

    def _decode(self, width: int) -> None:
        source = self._source
        large = kept(source.folder, source.entry.sha256, LARGEST) if width < LARGEST else None
        if large is None:
            self._image, self._size = _original(source, width)
        else:
            self._image, self._size = _decoded(io.BytesIO(large), width)
        self._width = width


def cache_of(folder: str) -> str:
    """Where the previews of a folder's pictures are kept."""
    return os.path.join(folder, INNER_FOLDER, FOLDER)


def prune(cache: str, most: int = MOST_KEPT, most_bytes: int = MOST_BYTES) -> int:
    """Removes the oldest previews that are too many; how many there were."""
    found = []
    try:
        with os.scandir(cache) as entries:
            for entry in entries:
                status = entry.stat(follow_symlinks=False)
                found.append((status.st_mtime, status.st_size, entry.path))
    except OSError:
        return 0
    found.sort(reverse=True)
    total = removed = 0
    for count, (_, size, path) in enumerate(found, 1):
        total += size
        if count > most or total > most_bytes:
            try:
                os.remove(path)
                removed += 1
            except OSError:
                pass
    return removed


def kept(folder: str, sha256: str, width: int) -> Optional[bytes]:
    """A preview that was made before, None when there is none or it is torn."""
    try:
        with open(_path(folder, sha256, width), "rb") as file:
            data = file.read()
    except OSError:
        return None
    return data if data.startswith(b"\xff\xd8\xff") and data.endswith(b"\xff\xd9") else None


def _path(folder: str, sha256: str, width: int) -> str:
    return os.path.join(cache_of(folder), "%s-%d.jpg" % (sha256, width))


def keep(folder: str, sha256: str, width: int, data: bytes) -> None:
    """Writes a preview beside the others; a disk that is full costs the time to make it again."""
    path = _path(folder, sha256, width)
    temporary = "%s.%s" % (path, secrets.token_hex(4))
    try:
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(temporary, "xb") as file:
            file.write(data)
        os.replace(temporary, path)
    except OSError as error:
        _log.debug("a preview is not kept: %s", error)
        try:
            os.remove(temporary)
        except OSError:
            pass


def _original(source: Source, width: int) -> Tuple[Image.Image, Tuple[int, int]]:
    """As `_decoded`, from the first of the files that gives something."""
    failure = NoPreview("no preview can be made of this kind of file")
    for entry in (source.entry, *source.others):
        path = path_in(source.folder, entry.file)
        if path is None:
            continue
        try:
            if entry.format == "JPEG":
                if os.path.getsize(path) > LARGEST_FILE:
                    raise NoPreview("it is too large to look into")
                with open(path, "rb") as file:
                    return _decoded(file, width)
            if entry.format == "RAW":
                embedded = _embedded(path)
                if embedded is not None:
                    return _decoded(io.BytesIO(embedded), width)
        except OSError as error:
            failure = NoPreview(error.strerror or "it is no picture")
        except NoPreview as error:
            failure = error
    raise failure


def _embedded(path: str) -> Optional[bytes]:
    """The JPEG that a RAW carries; None without the library that finds it, or without one."""
    try:
        import rawpy  # type: ignore[import-not-found,unused-ignore]
    except ImportError:
        return None
    try:
        with rawpy.imread(path) as raw:
            thumb = raw.extract_thumb()
    except Exception as error:  # the library has a class for each
        _log.debug("no embedded preview: %s", error)
        return None
    if thumb.format != rawpy.ThumbFormat.JPEG:
        return None
    embedded = bytes(thumb.data)
    with open(path, "rb") as file:
        # Of a file that is cut the library makes up the end, from what its memory held before.
        return embedded if embedded[-_END:] in file.read() else None


def _decoded(
    file: "io.BufferedReader | io.BytesIO", width: int
) -> Tuple[Image.Image, Tuple[int, int]]:
    """A JPEG at the fraction of its size that is just large enough, and the size that it has."""
    image: Image.Image
    try:
        image = Image.open(file, formats=["JPEG", "MPO"])
        _check(image)
        size = image.size
        image.draft(None, _within(size, width))
        image.load()
    except NoPreview:
        raise
    except (UnidentifiedImageError, Image.DecompressionBombError) as error:
        raise NoPreview("it is no picture that can be shown") from error
    except (OSError, SyntaxError, ValueError, MemoryError) as error:
        raise NoPreview("it cannot be decoded: %s" % type(error).__name__) from error
    if image.mode not in ("L", "RGB"):
        image = image.convert("RGB")
    return image, size


def _within(size: Tuple[int, int], width: int) -> Tuple[int, int]:
    """A picture's size when it is no wider and no higher than this, and no larger than it is."""
    share = min(1.0, width / max(size))
    return max(1, round(size[0] * share)), max(1, round(size[1] * share))


def _no_wider(image: Image.Image, size: Tuple[int, int], width: int) -> Image.Image:
    """A picture of a size at a width, of the image that was decoded of it."""
    wanted = _within(size, width)
    if image.size == wanted:
        return image
    # For pictures that become smaller this filter does as well as a cubic one, and takes 2/3 of it.
    smaller = image.resize(wanted, Image.Resampling.HAMMING, reducing_gap=1.0)
    smaller.info = image.info
    return smaller


def _check(image: Image.Image) -> None:
    """Raises NoPreview for what would take too much memory or time; only the head was read."""
    pixels = image.size[0] * image.size[1]
    is_progressive = bool(image.info.get("progressive") or image.info.get("progression"))
    if pixels > (MOST_PROGRESSIVE_PIXELS if is_progressive else MOST_PIXELS):
        raise NoPreview("it has too many pixels: %d x %d" % image.size)


def _encoded(image: Image.Image, width: int) -> bytes:
    """The JPEG that is sent: upright, with its colour profile and nothing else."""
    profile = image.info.get("icc_profile") or b""
    try:
        turn = _TURNS.get(image.getexif().get(_ORIENTATION, 1), ())
    except Exception:  # whatever a hostile head makes of it
        turn = ()
    for method in turn:
        image = image.transpose(method)
    buffer = io.BytesIO()
    options = {"icc_profile": profile} if 0 < len(profile) <= _LARGEST_PROFILE else {}
    image.save(buffer, "JPEG", quality=_QUALITY[width], exif=b"", comment=b"", **options)
    return buffer.getvalue()
