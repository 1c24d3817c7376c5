"""A station's web server, as the studio asks it: records, and pictures in parts. Any thread.

Only the address that the station itself has told is asked, and no answer leads anywhere else.
"""

import contextlib
import http.client
import json
import urllib.parse
from typing import Any, Iterator, List, NamedTuple, Optional, Tuple

CONNECT_PATIENCE = 5.0  # seconds
READ_PATIENCE = 15.0  # seconds without a byte
RECORDS = 500  # in one answer
LONGEST_ANSWER = 64 << 20  # bytes of records
LARGEST_PREVIEW = 8 << 20  # bytes


class Unreachable(Exception):
    """The station does not answer, or not as it should; in words."""


class Forbidden(Unreachable):
    """The station does not know the studio's token yet."""


class Gone(Exception):
    """The station has no such picture; in words."""


class Part(NamedTuple):
    """A picture from some byte on."""

    offset: int
    size: int  # of all of it
    stream: http.client.HTTPResponse


class Site:
    """One station's server; raises ValueError for an address that is none."""

    def __init__(self, url: str, token: str) -> None:
        parts = urllib.parse.urlsplit(url)
        if parts.scheme != "http" or not parts.hostname or parts.username or parts.query:
            raise ValueError("no address of a station: %.100s" % url)
        self._host = parts.hostname
        self._port = parts.port or 80
        self._base = parts.path or "/"
        self._token = token

    def records(self, since: int) -> Tuple[List[Any], bool]:
        """Records behind a number, and whether these are all; raises Unreachable."""
        path = "%sapi/ledger?since=%d&limit=%d" % (self._base, since, RECORDS)
        with self._asked(path) as answer:
            _expect(answer, (200,))
            body = _whole(answer, LONGEST_ANSWER)
        try:
            records = json.loads(body.decode())
        except (ValueError, RecursionError):
            raise Unreachable("its record cannot be read") from None
        if not isinstance(records, list):
            raise Unreachable("its record is none")
        return records, len(records) < RECORDS

    def preview(self, number: int, width: int) -> bytes:
        """A picture as a JPEG that is no wider and no higher; raises Unreachable, Gone."""
        with self._asked("%sapi/pictures/%d/preview?w=%d" % (self._base, number, width)) as answer:
            _expect(answer, (200, 404, 410))
            if answer.status != 200:
                raise Gone("the station has no preview of it")
            data = _whole(answer, LARGEST_PREVIEW)
        # One that was cut off would be shown without its lower part.
        if not (data.startswith(b"\xff\xd8\xff") and data.endswith(b"\xff\xd9")):
            raise Unreachable("its preview is none")
        return data

    @contextlib.contextmanager
    def picture(self, number: int, offset: int, url: Optional[str] = None) -> Iterator[Part]:
        """A picture from a byte on, or from its beginning; raises Unreachable, Gone.

        `url` is where the station has told that it is, None: it has not. Only its path counts:
        the station may have been started again with another port.
        """
        path = "%sapi/pictures/%d" % (self._base, number) if url is None else self._path_of(url)
        wanted = "bytes=%d-" % offset if offset else None
        with self._asked(path, wanted) as answer:
            _expect(answer, (200, 206, 404, 410, 416))
            if answer.status in (404, 410):
                raise Gone("the station has no such picture any more")
            if answer.status == 416:
                raise Unreachable("its picture is shorter than what came before")
            first, size = _extent(answer)
            if answer.status == 206 and first != offset:
                raise Unreachable("it sends another part than was asked for")
            yield Part(first, size, answer)

    def _path_of(self, url: str) -> str:
        parts = urllib.parse.urlsplit(url)
        path = parts.path or "/"
        if not path.startswith(self._base):
            raise Gone("the station is elsewhere than its picture was")
        return "%s?%s" % (path, parts.query) if parts.query else path

    @contextlib.contextmanager
    def _asked(self, path: str, part: Optional[str] = None) -> Iterator[http.client.HTTPResponse]:
        connection = http.client.HTTPConnection(self._host, self._port, timeout=CONNECT_PATIENCE)
        headers = {"Authorization": "Bearer " + self._token, "Accept-Encoding": "identity"}
        if part is not None:
            headers["Range"] = part
        try:
            try:
                connection.connect()
                if connection.sock is not None:
                    connection.sock.settimeout(READ_PATIENCE)
                connection.request("GET", path, headers=headers)
                answer = connection.getresponse()
            except (OSError, http.client.HTTPException) as error:
                raise Unreachable(_words(error)) from error
            yield answer
        finally:
            connection.close()


def read(stream: http.client.HTTPResponse, count: int) -> bytes:
    """Some of a picture, as soon as something is there; empty at its end. Raises Unreachable."""
    try:
        return stream.read1(count)
    except (OSError, http.client.HTTPException) as error:
        raise Unreachable(_words(error)) from error


def _whole(stream: http.client.HTTPResponse, most: int) -> bytes:
    """All of an answer; raises Unreachable, also when it is longer than it may be."""
    try:
        data = stream.read(most + 1)
    except (OSError, http.client.HTTPException) as error:
        raise Unreachable(_words(error)) from error
    if len(data) > most:
        raise Unreachable("its answer is too long")
    return data


def _expect(answer: http.client.HTTPResponse, statuses: Tuple[int, ...]) -> None:
    if answer.status in (401, 403):
        raise Forbidden("it does not know the studio's token")
    if answer.status not in statuses:
        raise Unreachable("it answers %d" % answer.status)


def _extent(answer: http.client.HTTPResponse) -> Tuple[int, int]:
    """The first byte that comes, and the size of the whole."""
    if answer.status == 200:
        return 0, answer.length if answer.length is not None else -1
    text = answer.getheader("Content-Range", "")
    try:
        unit, _, rest = text.partition(" ")
        extent, _, size = rest.partition("/")
        first = extent.partition("-")[0]
        if unit != "bytes":
            raise ValueError(text)
        return int(first), int(size)
    except ValueError:
        raise Unreachable("it sends a part without its place") from None


def _words(error: Exception) -> str:
    return getattr(error, "strerror", None) or str(error) or type(error).__name__
