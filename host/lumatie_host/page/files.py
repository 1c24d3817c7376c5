"""Answers that are files: the page's own, and pictures with their hash and in parts."""

import asyncio
import functools
import hashlib
import os
import re
from concurrent.futures import Executor
from typing import BinaryIO, Dict, Optional, Tuple
from urllib.parse import quote

from aiohttp import web

from .book import Entry, path_in
from .problems import missing

BLOCK = 512 * 1024  # bytes that are read at once

# Not the system's own table: what a registry says of .js is not always that.
TYPES = {
    ".css": "text/css",
    ".html": "text/html",
    ".ico": "image/x-icon",
    ".js": "text/javascript",
    ".json": "application/json",
    ".png": "image/png",
    ".svg": "image/svg+xml",
    ".webmanifest": "application/manifest+json",
}
_TEXTS = (".css", ".html", ".js", ".json", ".svg", ".webmanifest")
_NAME = re.compile(r"[A-Za-z0-9_-]+(?:/[A-Za-z0-9_-]+)*(\.[a-z]+)", re.ASCII)
_RANGE = re.compile(r"bytes=([0-9]{0,18})-([0-9]{0,18})", re.ASCII)

_FOR_EVER = "private, max-age=31536000, immutable"


async def static(request: web.Request, folder: str, name: str, executor: Executor) -> web.Response:
    """One of the page's own files, from a folder of them; raises Problem when it is none."""
    match = _NAME.fullmatch(name)
    kind = None if match is None else TYPES.get(match.group(1))
    if kind is None:
        raise missing("there is no such file")
    path = os.path.join(folder, *name.split("/"))
    loop = asyncio.get_event_loop()
    try:
        data, etag = await loop.run_in_executor(executor, _read_static, path)
    except OSError:
        raise missing("there is no such file") from None
    headers = {"ETag": '"%s"' % etag, "Cache-Control": "no-cache"}
    if is_known(request, etag):
        return web.Response(status=304, headers=headers)
    if not name.endswith(_TEXTS):
        return web.Response(body=data, content_type=kind, headers=headers)
    headers["Vary"] = "Accept-Encoding"
    response = web.Response(body=data, content_type=kind, charset="utf-8", headers=headers)
    response.enable_compression()
    return response


async def read(path: str, executor: Executor) -> bytes:
    """All of a file of ours."""
    return await asyncio.get_event_loop().run_in_executor(executor, _bytes_of, path)


def _bytes_of(path: str) -> bytes:
    with open(path, "rb") as file:
        return file.read()


def _read_static(path: str) -> Tuple[bytes, str]:
    data = _bytes_of(path)
    return data, hashlib.sha256(data).hexdigest()[:32]


def picture_headers(etag: str) -> Dict[str, str]:
    """Of a picture: it is what its hash says, for ever."""
    return {"ETag": '"%s"' % etag, "Cache-Control": _FOR_EVER}


def not_modified(request: web.Request, etag: str) -> Optional[web.Response]:
    """The answer for one who has it already, or None."""
    if is_known(request, etag):
        return web.Response(status=304, headers=picture_headers(etag))
    return None


async def original(
    request: web.Request, folder: str, entry: Entry, kind: str, executor: Executor
) -> web.StreamResponse:
    """A picture's own bytes, or the part of them that is asked for."""
    size, etag = entry.size, entry.sha256
    known = not_modified(request, etag)
    if known is not None:
        return known
    loop = asyncio.get_event_loop()
    try:
        file = await loop.run_in_executor(executor, _open, folder, entry)
    except OSError:
        raise missing("the picture is not in the folder, or not what it was") from None
    try:
        return await _sent(request, file, size, etag, kind, executor)
    finally:
        await asyncio.shield(loop.run_in_executor(executor, file.close))


async def _sent(
    request: web.Request, file: BinaryIO, size: int, etag: str, kind: str, executor: Executor
) -> web.StreamResponse:
    headers = {**picture_headers(etag), "Accept-Ranges": "bytes", "Content-Type": kind}
    if "download" in request.query:
        headers["Content-Disposition"] = _attachment(os.path.basename(file.name))
    part = _part(request, size, etag)
    if part == (0, 0):
        headers = {"Content-Range": "bytes */%d" % size, "Accept-Ranges": "bytes"}
        return web.Response(status=416, headers=headers)
    begin, end = part or (0, size)
    if part is not None:
        headers["Content-Range"] = "bytes %d-%d/%d" % (begin, end - 1, size)
    response = web.StreamResponse(status=200 if part is None else 206, headers=headers)
    response.content_length = end - begin
    await response.prepare(request)
    if request.method != "HEAD":
        loop = asyncio.get_event_loop()
        while begin < end:
            read = functools.partial(_read, file, begin, min(BLOCK, end - begin))
            block = await loop.run_in_executor(executor, read)
            if not block:
                raise ConnectionResetError("the picture has become shorter")
            await response.write(block)
            begin += len(block)
        await response.write_eof()
    return response


def _open(folder: str, entry: Entry) -> BinaryIO:
    path = path_in(folder, entry.file)
    if path is None:
        raise OSError("no file of the folder")
    file = open(path, "rb")  # noqa: SIM115  closed by the caller
    if os.fstat(file.fileno()).st_size != entry.size:
        file.close()
        raise OSError("another size")
    return file


def _read(file: BinaryIO, begin: int, count: int) -> bytes:
    file.seek(begin)
    return file.read(count)


def _attachment(name: str) -> str:
    plain = re.sub(r"[^A-Za-z0-9._ ()-]", "_", name)
    return "attachment; filename=\"%s\"; filename*=UTF-8''%s" % (
        plain,
        quote(name, safe="", errors="replace"),
    )


def is_known(request: web.Request, etag: str) -> bool:
    """Whether a client has what has this tag."""
    told = request.headers.get("If-None-Match", "")
    tags = [tag.strip() for tag in told.split(",")]
    return "*" in tags or any(tag in ('"%s"' % etag, 'W/"%s"' % etag) for tag in tags)


def _part(request: web.Request, size: int, etag: str) -> Optional[Tuple[int, int]]:
    """Begin and end of the one part that is asked for; None: all of it; (0, 0): there is none."""
    match = _RANGE.fullmatch(request.headers.get("Range", "").strip())
    if match is None or request.headers.get("If-Range", '"%s"' % etag) != '"%s"' % etag:
        return None
    first, last = match.groups()
    if first:
        begin, end = int(first), min(int(last) + 1 if last else size, size)
        if last and int(last) < int(first):
            return None  # no range at all
    elif last:
        begin, end = max(0, size - int(last)), size
    else:
        return None
    return (begin, end) if begin < end else (0, 0)
