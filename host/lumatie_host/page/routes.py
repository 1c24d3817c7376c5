"""What can be asked for: each route with its method, its path, and who may use it."""

import asyncio
import functools
import os
import time
from concurrent.futures import ThreadPoolExecutor
from typing import AsyncIterator, List, Tuple

from aiohttp import web

from ..events import to_record
from ..ledger import LARGEST_NUMBER
from . import developing, files, previews, wishes
from .acts import Acts, on
from .book import Entry
from .desk import Desk
from .entrance import FOLDER, STATIC, Entrance
from .fields import Fields, number_of
from .guard import PUBLIC, RATER, ROLE
from .live import Client, Hub
from .problems import VERSION, Problem, answered, bad, dumped, missing
from .sequence import Sequences
from .state import State
from .tokens import OPERATOR, VIEWER
from .web import Links, Route

MOST_RECORDS = 100_000  # in an answer
MOST_SOCKETS = 400
PREVIEW_PATIENCE = 30.0  # seconds
TOLD_WITHIN = 2.0  # seconds in which the page knows what is recorded

_TYPES = {"JPEG": "image/jpeg", "RAW": "image/x-raw", "OTHER": "application/octet-stream"}
_BATCH = 200  # records that are made into texts at once


class Routes:
    """Answers requests. All of it belongs to the loop's thread; what takes time is done on others.

    Args:
        cookie: the name of the cookie that a browser keeps its token in.
        links: the page's addresses.
    """

    def __init__(
        self,
        desk: Desk,
        state: State,
        running: Sequences,
        hub: Hub,
        pictures: previews.Previews,
        links: Links,
        cookie: str,
    ) -> None:
        self._desk = desk
        self._state = state
        self._sequences = running
        self._hub = hub
        self._previews = pictures
        # A camera may hold its callers up; those who only read files do not wait for them.
        self._acts = Acts("the camera is asked for too much at once")
        self._file_pool = ThreadPoolExecutor(8, "lumatie-file")
        schema = os.path.join(FOLDER, "schema.json")
        self._entrance = Entrance(links, cookie, schema, self._file_pool)

    def table(self) -> List[Route]:
        """All routes; there are no others."""
        return [
            *self._entrance.table(),
            Route("GET", "/", PUBLIC, self._index),
            Route("GET", "/api/state", VIEWER, self._get_state),
            Route("GET", "/api/ledger", VIEWER, self._ledger),
            Route("GET", "/api/pictures/{n}", VIEWER, self._picture),
            Route("GET", "/api/pictures/{n}/preview", VIEWER, self._preview),
            Route("GET", "/api/live", VIEWER, self._live),
            Route("POST", "/api/set", OPERATOR, self._set),
            Route("POST", "/api/shoot", OPERATOR, self._shoot),
            Route("POST", "/api/rate", RATER, self._rate),
            Route("POST", "/api/tag", OPERATOR, self._tag),
            Route("POST", "/api/sequence", OPERATOR, self._sequence),
            Route("POST", "/api/open", OPERATOR, self._open),
        ]

    def close(self) -> None:
        """Takes no more work; what is under way is not waited for."""
        self._acts.close()
        self._file_pool.shutdown(wait=False)

    # The page's own files.

    async def _index(self, request: web.Request) -> web.StreamResponse:
        return await files.static(request, STATIC, "index.html", self._file_pool)

    # Who looks.

    async def _get_state(self, request: web.Request) -> web.StreamResponse:
        await self._loaded()
        return answered(self._state.whole(ROLE.get()))

    async def _ledger(self, request: web.Request) -> web.StreamResponse:
        since = number_of(request, "since", 0, LARGEST_NUMBER, 0)
        limit = number_of(request, "limit", 1, MOST_RECORDS, MOST_RECORDS)
        await self._loaded()
        upto = self._state.book.last
        text = await on(
            self._file_pool, lambda: "[%s]" % ",".join(self._texts(since, upto, limit)[0])
        )
        return web.Response(body=text.encode(), content_type="application/json", charset="utf-8")

    def _texts(self, since: int, upto: int, limit: int) -> Tuple[List[str], int]:
        """Records as texts, and the number of the last one."""
        texts: List[str] = []
        ledger = self._desk.ledger
        if ledger is not None:
            for record in ledger.read(since):
                if record["n"] > upto:
                    break
                texts.append(dumped(record))
                since = record["n"]
                if len(texts) == limit:
                    return texts, since
        return texts, upto

    async def replay(self, since: int, upto: int) -> AsyncIterator[List[str]]:
        """The texts of the records between two numbers, a few at a time."""
        while since < upto:
            texts, since = await on(
                self._file_pool, functools.partial(self._texts, since, upto, _BATCH)
            )
            yield texts

    async def _picture(self, request: web.Request) -> web.StreamResponse:
        entry = await self._entry(request)
        folder, kind = self._desk.wanted.folder, _TYPES[entry.format]
        return await files.original(request, folder, entry, kind, self._file_pool)

    async def _preview(self, request: web.Request) -> web.StreamResponse:
        entry = await self._entry(request)
        width = previews.size_for(number_of(request, "w", 1, 1 << 20, developing.LARGEST))
        known = files.not_modified(request, entry.sha256)
        if known is not None:
            return known
        data = self._previews.at_hand(entry.sha256, width)
        if data is None:
            folder = self._desk.wanted.folder
            kept = functools.partial(developing.kept, folder, entry.sha256, width)
            data = await on(self._file_pool, kept)
        if data is None:
            data = await self._made(entry, width)
        return web.Response(
            body=data, content_type="image/jpeg", headers=files.picture_headers(entry.sha256)
        )

    async def _made(self, entry: Entry, width: int) -> bytes:
        asked = self._previews.ask(self.source(entry), width)
        try:
            return await asyncio.wait_for(
                asyncio.shield(asyncio.wrap_future(asked)), PREVIEW_PATIENCE
            )
        except developing.NoPreview as error:
            if error.is_for_good:
                raise missing("there is no preview: %s" % error, "Fetch the file itself.") from None
            raise Problem(503, str(error), "Ask again.", "busy") from None
        except asyncio.TimeoutError:
            raise Problem(503, "the preview takes long", "Ask again.", "busy") from None

    def source(self, entry: Entry) -> developing.Source:
        """What the preview of a picture can be made of."""
        siblings = [one for one in self._state.book.siblings(entry) if one.n != entry.n]
        others = () if entry.format == "JPEG" else tuple(siblings)
        return developing.Source(
            self._desk.wanted.folder, entry, tuple(one for one in others if one.format == "JPEG")
        )

    async def _entry(self, request: web.Request) -> Entry:
        number = wishes.picture(request)
        await self._told_of(number)
        entry = self._state.book.entry(number)
        if entry is None:
            raise missing("there is no picture %d" % number)
        return entry

    async def _loaded(self) -> None:
        """Waits until what was in the folder before can be told: a page that comes back early would
        take less for another shoot.
        """
        end = time.monotonic() + TOLD_WITHIN
        while not self._state.is_loaded and time.monotonic() < end:
            await asyncio.sleep(0.005)

    async def _told_of(self, number: int) -> None:
        """Waits for a record that is written already: who took the picture may ask for it first."""
        await self._loaded()
        session = self._desk.session
        end = time.monotonic() + TOLD_WITHIN
        while session is not None and self._state.book.last < number <= session.ledger.last:
            if time.monotonic() > end:
                return
            await asyncio.sleep(0.002)

    async def _live(self, request: web.Request) -> web.StreamResponse:
        since = wishes.live(request, self._hub.count() >= MOST_SOCKETS)
        await self._loaded()
        return await Client(self._hub, ROLE.get()).run(request, since)

    # What acts.

    async def _set(self, request: web.Request) -> web.StreamResponse:
        name, text, key = wishes.setting(await Fields.of(request))
        camera = self._desk.camera()
        confirmed = await self._acts.do(lambda: camera.set(name, text, key=key))
        # Whoever sets it, also to what it is, has decided.
        self._state.book.offer.pop(name, None)
        return answered({"v": VERSION, "name": name, "text": confirmed})

    async def _shoot(self, request: web.Request) -> web.StreamResponse:
        pair, timeout = wishes.shot(await Fields.of(request))
        camera = self._desk.camera()
        shot = await self._acts.do(lambda: camera.shoot(timeout=timeout, pair=pair))
        await self._told_of(max((picture.n for picture in shot.pictures), default=0))
        return answered(
            {
                "v": VERSION,
                "shot": shot.number,
                "pictures": [to_record(picture) for picture in shot.pictures],
                "milliseconds": shot.milliseconds,
            }
        )

    async def _rate(self, request: web.Request) -> web.StreamResponse:
        wish = wishes.rating(await Fields.of(request))
        await self._told_of(wish.n or 0)
        book = self._state.book
        entry = book.of_file(wish.file) if wish.n is None else book.entry(wish.n)
        if entry is None:
            raise missing("there is no such picture")
        file, rating = entry.file, wish.rating
        camera = self._desk.camera()
        try:
            label = await on(self._file_pool, lambda: wishes.rate(camera, file, wish))
        except ValueError:
            raise missing("the picture is not in the folder") from None
        return answered({"v": VERSION, "file": file, "rating": rating, "label": label})

    async def _tag(self, request: web.Request) -> web.StreamResponse:
        tag = wishes.tag(await Fields.of(request))
        self._desk.wanted.tag = tag
        session = self._desk.session
        if session is not None:
            session.tag = tag
        return answered({"v": VERSION, "tag": tag, "next_name": self._state.next_name()})

    async def _sequence(self, request: web.Request) -> web.StreamResponse:
        begin = wishes.sequence(await Fields.of(request))
        if begin is None:
            self._sequences.stop()
        else:
            camera = self._desk.camera()
            try:
                await self._acts.do(functools.partial(begin, self._sequences, camera))
            except ValueError as error:
                raise bad(str(error)) from None
        return answered({"v": VERSION, "sequence": self._sequences.told()})

    async def _open(self, request: web.Request) -> web.StreamResponse:
        fields = await Fields.of(request)
        folder = fields.text("folder", most=4096) if fields.has("folder") else None
        fields.end()
        if folder == "":
            raise bad("the folder is empty")
        if not self._desk.open_again(folder):
            raise Problem(
                409,
                "the folder is not what is in the way",
                "Start the program again to work in another folder.",
                "refused",
            )
        await self._loaded()
        return answered(self._state.whole(ROLE.get()))
