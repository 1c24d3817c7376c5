"""Passes a station's own page interface on to those who look at it from the desk.

What is passed on is what the station's server would tell a viewer; what acts goes through the
broker. Only the address that the station has told is asked, no answer leads anywhere else, and
nothing is taken for what it says that it is. All of it belongs to the loop's thread.
"""

import asyncio
import contextlib
import json
import re
from typing import Any, AsyncIterator, Callable, Dict, List, Optional

import aiohttp
from aiohttp import WSCloseCode, WSMsgType, web

from ..page.live import HEARTBEAT, LONGEST_MESSAGE, since_of
from ..page.problems import Problem, dumped, missing
from .fetch import CONNECT_PATIENCE, READ_PATIENCE
from .studio import Door

LONGEST_ANSWER = 32 << 20  # bytes of JSON
LONGEST_TOLD = 8 << 20  # bytes of a message
MOST_SOCKETS = 200

_TYPES = ("image/jpeg", "image/x-raw")
_OTHER = "application/octet-stream"
_ETAG = re.compile('"[0-9a-f]{64}"')
_PASSED_ON = ("Content-Length", "Content-Range")
_ASKED_WITH = ("Range", "If-Range", "If-None-Match")

# How a message or a state becomes what somebody of this desk is told.
Change = Callable[[Dict[str, Any]], Dict[str, Any]]


class Relay:
    """Asks stations' servers.

    Args:
        door: where a station's server is, None while it is not there; raises Problem for a
            station that nobody knows.
        knock: has a station's server know the studio's token.
    """

    def __init__(self, door: Callable[[str], Optional[Door]], knock: Callable[[str], None]) -> None:
        self._door = door
        self._knock = knock
        self._sockets: List[web.WebSocketResponse] = []
        self._client = aiohttp.ClientSession(
            timeout=aiohttp.ClientTimeout(sock_connect=CONNECT_PATIENCE, sock_read=READ_PATIENCE),
            trust_env=False,
            auto_decompress=False,
            cookie_jar=aiohttp.DummyCookieJar(),
        )

    async def close(self) -> None:
        """Says goodbye to everybody."""
        closing = [
            one.close(code=WSCloseCode.GOING_AWAY, message=b"the page is closed")
            for one in list(self._sockets)
        ]
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(asyncio.gather(*closing, return_exceptions=True), 1.0)
        await self._client.close()

    @property
    def is_full(self) -> bool:
        """Whether there may be no more sockets."""
        return len(self._sockets) >= MOST_SOCKETS

    async def json(self, station: str, path: str) -> Any:
        """An answer of JSON."""
        body = b""
        async with self._asked(station, path) as answer:
            self._expect(station, answer, 200)
            try:
                async for block in answer.content.iter_chunked(1 << 18):
                    body += block
                    if len(body) > LONGEST_ANSWER:
                        break
            except (aiohttp.ClientError, asyncio.TimeoutError) as error:
                raise _silent(station, error) from None
        if len(body) > LONGEST_ANSWER:
            raise _silent(station, "its answer is too long")
        try:
            return await asyncio.get_event_loop().run_in_executor(None, json.loads, body)
        except (ValueError, RecursionError):
            raise _silent(station, "its answer cannot be read") from None

    async def picture(self, request: web.Request, station: str, path: str) -> web.StreamResponse:
        """A picture, or the part of it that is asked for."""
        headers = {name: request.headers[name] for name in _ASKED_WITH if name in request.headers}
        async with self._asked(station, path, headers) as answer:
            self._expect(station, answer, 200, 206, 304, 404, 416, 503)
            if answer.status == 404:
                raise missing("station %s has no such picture" % station)
            if answer.status == 503:
                raise Problem(503, "the preview takes long", "Ask again.", "busy")
            response = web.StreamResponse(status=answer.status, headers=_headers(answer))
            await response.prepare(request)
            if request.method != "HEAD" and answer.status in (200, 206):
                async for block in answer.content.iter_chunked(1 << 18):
                    await response.write(block)
            await response.write_eof()
            return response

    async def live(
        self, request: web.Request, station: str, since: Optional[int], change: Change
    ) -> web.StreamResponse:
        """A socket of the station's, as long as both ends are there."""
        query = "" if since is None else "?since=%d" % since
        told = await self._connected(station, "api/live" + query)
        socket = web.WebSocketResponse(
            heartbeat=HEARTBEAT, max_msg_size=LONGEST_MESSAGE, compress=False
        )
        self._sockets.append(socket)
        try:
            await socket.prepare(request)
            passing = [
                asyncio.ensure_future(_pass_down(told, socket, change)),
                asyncio.ensure_future(_pass_up(socket, told)),
            ]
            await asyncio.wait(passing, return_when=asyncio.FIRST_COMPLETED)
            for one in passing:
                one.cancel()
            await asyncio.gather(*passing, return_exceptions=True)
        finally:
            self._sockets.remove(socket)
            await told.close()
            if socket.prepared:
                await socket.close(code=WSCloseCode.GOING_AWAY)
        return socket

    async def _connected(self, station: str, path: str) -> "aiohttp.ClientWebSocketResponse[bool]":
        door = self._opened(station)
        try:
            return await asyncio.wait_for(self._dialled(door, path), READ_PATIENCE)
        except aiohttp.WSServerHandshakeError as error:
            if error.status in (401, 403):
                raise self._forbidden(station) from None
            raise _silent(station, "it answers %d" % error.status) from None
        except (aiohttp.ClientError, OSError, ValueError, asyncio.TimeoutError) as error:
            raise _silent(station, error) from None

    async def _dialled(self, door: Door, path: str) -> "aiohttp.ClientWebSocketResponse[bool]":
        return await self._client.ws_connect(
            door.url + path,
            headers={"Authorization": "Bearer " + door.token},
            heartbeat=HEARTBEAT,
            max_msg_size=LONGEST_TOLD,
        )

    @contextlib.asynccontextmanager
    async def _asked(
        self, station: str, path: str, headers: Optional[Dict[str, str]] = None
    ) -> AsyncIterator[aiohttp.ClientResponse]:
        door = self._opened(station)
        asked = {
            **(headers or {}),
            "Authorization": "Bearer " + door.token,
            "Accept-Encoding": "identity",
        }
        try:
            answer = await self._client.get(door.url + path, headers=asked, allow_redirects=False)
        except (aiohttp.ClientError, OSError, ValueError, asyncio.TimeoutError) as error:
            raise _silent(station, error) from None
        try:
            yield answer
        finally:
            answer.close()

    def _opened(self, station: str) -> Door:
        door = self._door(station)
        if door is None or not door.url.startswith("http://"):
            raise _silent(station, "it is not there")
        return door

    def _expect(self, station: str, answer: aiohttp.ClientResponse, *statuses: int) -> None:
        if answer.status in (401, 403):
            raise self._forbidden(station)
        if answer.status not in statuses:
            raise _silent(station, "it answers %d" % answer.status)

    def _forbidden(self, station: str) -> Problem:
        self._knock(station)
        return Problem(503, "station %s does not know the studio yet" % station, "Wait.", "busy")


async def _pass_down(
    told: "aiohttp.ClientWebSocketResponse[bool]", socket: web.WebSocketResponse, change: Change
) -> None:
    async for message in told:
        if message.type is not WSMsgType.TEXT:
            return
        try:
            record = json.loads(message.data)
        except (ValueError, RecursionError):
            return
        if not isinstance(record, dict):
            return
        await socket.send_str(dumped(change(record)))


async def _pass_up(
    socket: web.WebSocketResponse, told: "aiohttp.ClientWebSocketResponse[bool]"
) -> None:
    async for message in socket:
        since = since_of(message.data) if message.type is WSMsgType.TEXT else None
        if since is None:
            await socket.close(code=WSCloseCode.POLICY_VIOLATION)
            return
        await told.send_str(dumped({"since": since}))


def _headers(answer: aiohttp.ClientResponse) -> Dict[str, str]:
    """Those of a picture; the number may be another picture's when the station works elsewhere."""
    kind = answer.content_type
    headers = {
        "Content-Type": kind if kind in _TYPES else _OTHER,
        "Cache-Control": "private, no-cache",
        "Accept-Ranges": "bytes",
    }
    etag = answer.headers.get("ETag", "")
    if _ETAG.fullmatch(etag):
        headers["ETag"] = etag
    for name in _PASSED_ON:
        if name in answer.headers:
            headers[name] = answer.headers[name]
    return headers


def _silent(station: str, why: object) -> Problem:
    words = str(why) or type(why).__name__
    return Problem(
        504,
        "station %s does not answer: %s" % (station, words[:200]),
        "Look after the station and its network.",
        "no_answer",
    )
