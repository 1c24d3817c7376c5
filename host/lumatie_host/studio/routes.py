"""What the studio's page can be asked for: each route with its method, its path, and who may."""

import asyncio
import os
from concurrent.futures import ThreadPoolExecutor
from typing import Any, AsyncIterator, Callable, Dict, List, Mapping, Optional

from aiohttp import web

from ..ledger import LARGEST_NUMBER
from ..page import developing, entrance, files, previews, wishes
from ..page.acts import Acts
from ..page.book import Entry
from ..page.fields import Fields, number_of
from ..page.guard import PUBLIC, ROLE
from ..page.live import Client, Hub
from ..page.problems import STATUS_OF, VERSION, Problem, answered, bad, missing
from ..page.routes import MOST_SOCKETS
from ..page.tokens import OPERATOR, VIEWER
from ..page.web import Links, Route
from . import messages, newest
from .hub import MOST_STATIONS
from .overview import STATION_ACTS, Overview
from .relay import Relay
from .spread import Release, Spread
from .studio import Door, Studio

FOLDER = os.path.dirname(os.path.abspath(__file__))
STATIC = os.path.join(FOLDER, "static")

MOST_RECORDS = 5000  # of a station, in an answer

# Of what a station's page tells: whose rights these are, and an offer that only it can settle.
_NOT_PASSED_ON = ("role", "may", "offer")


class Routes:
    """Answers requests. All of it belongs to the loop's thread; what takes time is done on others.

    Args:
        links: the page's addresses.
        cookie: the name of the cookie that a browser keeps its token in.
        on_change: called when something is asked for, or done.
    """

    def __init__(
        self,
        studio: Studio,
        overview: Overview,
        hub: Hub,
        links: Links,
        cookie: str,
        on_change: Callable[[], None],
    ) -> None:
        self._studio = studio
        self._overview = overview
        self._hub = hub
        self._on_change = on_change
        self._acts = Acts("too much is asked for at once")
        self._file_pool = ThreadPoolExecutor(8, "lumatie-file")
        self._previews = previews.Previews(workers=1)
        self._relay = Relay(self._door, studio.knock)
        schema = os.path.join(FOLDER, "schema.json")
        self._entrance = entrance.Entrance(links, cookie, schema, self._file_pool)

    def table(self) -> List[Route]:
        """All routes; there are no others."""
        one = "/api/stations/{station}/"
        return [
            *self._entrance.table(),
            Route("GET", "/", PUBLIC, self._index),
            Route("GET", "/wall/{name:.*}", PUBLIC, self._own_file),
            Route("GET", "/stations/{station}/", PUBLIC, self._station_page),
            Route("GET", "/api/state", VIEWER, self._get_state),
            Route("GET", "/api/live", VIEWER, self._live),
            Route("POST", "/api/shoot", OPERATOR, self._shoot),
            Route("POST", "/api/tag", OPERATOR, self._tag),
            Route("GET", one + "state", VIEWER, self._station_state),
            Route("GET", one + "ledger", VIEWER, self._station_ledger),
            Route("GET", one + "pictures/{n}", VIEWER, self._station_picture),
            Route("GET", one + "pictures/{n}/preview", VIEWER, self._station_preview),
            Route("GET", one + "live", VIEWER, self._station_live),
            Route("POST", one + "set", OPERATOR, self._station_set),
            Route("POST", one + "shoot", OPERATOR, self._station_shoot),
            Route("POST", one + "tag", OPERATOR, self._station_tag),
            Route("POST", one + "rate", OPERATOR, self._station_rate),
            Route("POST", one + "sequence", OPERATOR, self._station_sequence),
        ]

    async def close(self) -> None:
        """Takes no more work; what is under way is not waited for."""
        await self._relay.close()
        self._previews.close()
        self._acts.close()
        self._file_pool.shutdown(wait=False)

    # The page's own files. A station is shown by the tether page, which finds out by its address.

    async def _index(self, request: web.Request) -> web.StreamResponse:
        return await files.static(request, STATIC, "index.html", self._file_pool)

    async def _own_file(self, request: web.Request) -> web.StreamResponse:
        return await files.static(request, STATIC, request.match_info["name"], self._file_pool)

    async def _station_page(self, request: web.Request) -> web.StreamResponse:
        return await files.static(request, entrance.STATIC, "index.html", self._file_pool)

    # The studio.

    async def _get_state(self, request: web.Request) -> web.StreamResponse:
        return answered(self._overview.whole(ROLE.get()))

    async def _live(self, request: web.Request) -> web.StreamResponse:
        wishes.live(request, self._hub.count() >= MOST_SOCKETS)
        return await Client(self._hub, ROLE.get()).run(request, None)

    async def replay(self, since: int, upto: int) -> AsyncIterator[List[str]]:
        """Nothing: whoever comes gets the whole state."""
        for _ in range(0):
            yield []

    async def _shoot(self, request: web.Request) -> web.StreamResponse:
        fields = await Fields.of(request)
        names = self._names(fields)
        pair, timeout = wishes.shot(fields)
        told = _told(await self._fired(names, timeout, pair))
        self._overview.release = told
        self._on_change()
        return answered({"v": VERSION, "release": told})

    async def _fired(self, names: Optional[List[str]], timeout: float, pair: bool) -> Spread:
        self._overview.shooting += 1
        self._on_change()
        try:
            return await self._acts.do(lambda: self._studio.shoot(names, timeout, pair))
        finally:
            self._overview.shooting -= 1
            self._on_change()

    async def _tag(self, request: web.Request) -> web.StreamResponse:
        fields = await Fields.of(request)
        names = self._names(fields)
        tag = wishes.tag(fields)
        done = await self._acts.do(lambda: self._studio.tag(tag, names))
        if names is None:
            self._overview.tag = tag
        self._on_change()
        return answered({"v": VERSION, "tag": tag, "stations": done})

    def _names(self, fields: Fields) -> Optional[List[str]]:
        """The stations that are meant, None: all that are there."""
        if not fields.has("stations"):
            return None
        names = fields.texts("stations", MOST_STATIONS)
        for name in names:
            self._check(name, 400)
        if len(set(names)) < len(names):
            raise bad("a station is named twice")
        return names

    # One station.

    async def _station_state(self, request: web.Request) -> web.StreamResponse:
        station = self._station(request)
        told = await self._relay.json(station, "api/state")
        if not isinstance(told, dict):
            raise Problem(504, "station %s tells no state" % station, "Look at it.", "no_answer")
        return answered(_as(ROLE.get())(told))

    async def _station_ledger(self, request: web.Request) -> web.StreamResponse:
        since = number_of(request, "since", 0, LARGEST_NUMBER, 0)
        limit = number_of(request, "limit", 1, MOST_RECORDS, MOST_RECORDS)
        path = "api/ledger?since=%d&limit=%d" % (since, limit)
        return answered(await self._relay.json(self._station(request), path))

    async def _station_picture(self, request: web.Request) -> web.StreamResponse:
        path = "api/pictures/%d" % wishes.picture(request)
        return await self._relay.picture(request, self._station(request), path)

    async def _station_preview(self, request: web.Request) -> web.StreamResponse:
        station, number = self._station(request), wishes.picture(request)
        width = previews.size_for(number_of(request, "w", 1, 1 << 20, developing.LARGEST))
        record = self._newest(station, number)
        if record is None:
            path = "api/pictures/%d/preview?w=%d" % (number, width)
            return await self._relay.picture(request, station, path)
        data = await self._preview_of(station, record, width)
        headers = {"ETag": '"%s"' % record["sha256"], "Cache-Control": "private, no-cache"}
        if files.is_known(request, record["sha256"]):
            return web.Response(status=304, headers=headers)
        return web.Response(body=data, content_type="image/jpeg", headers=headers)

    async def _preview_of(self, station: str, record: Dict[str, Any], width: int) -> bytes:
        """The newest picture's: from the station, or else of the original that is here."""
        asked = self._studio.newest.ask(station, record, width)
        try:
            return await asyncio.shield(asyncio.wrap_future(asked))
        except newest.NoPreview as error:
            why = error
        entry = self._collected(station, record)
        if entry is not None:
            made = self._previews.ask(developing.Source(self._studio.book.folder, entry), width)
            try:
                return await asyncio.shield(asyncio.wrap_future(made))
            except developing.NoPreview:
                pass
        raise missing("there is no preview of it: %s" % why, "Look for the picture itself.")

    async def _station_live(self, request: web.Request) -> web.StreamResponse:
        since = wishes.live(request, self._relay.is_full)
        station = self._station(request)
        return await self._relay.live(request, station, since, _as(ROLE.get()))

    async def _station_set(self, request: web.Request) -> web.StreamResponse:
        station = self._station(request)
        name, text, key = wishes.setting(await Fields.of(request))
        confirmed = await self._acts.do(lambda: self._studio.set(station, name, text, key))
        return answered({"v": VERSION, "name": name, "text": confirmed})

    async def _station_shoot(self, request: web.Request) -> web.StreamResponse:
        station = self._station(request)
        pair, timeout = wishes.shot(await Fields.of(request))
        release = (await self._fired([station], timeout, pair)).releases[0]
        if not release.is_done:
            raise _refusal(release)
        names = ("shot", "pictures", "milliseconds")
        return answered({"v": VERSION, **{name: release.answer.get(name) for name in names}})

    async def _station_tag(self, request: web.Request) -> web.StreamResponse:
        station = self._station(request)
        tag = wishes.tag(await Fields.of(request))
        done = await self._acts.do(lambda: self._studio.tag(tag, [station]))
        why = done[station]
        if why is not None:
            raise Problem(409, why, "Look at the station.", "refused")
        return answered({"v": VERSION, "tag": tag, "next_name": ""})

    async def _station_rate(self, request: web.Request) -> web.StreamResponse:
        station = self._station(request)
        wish = wishes.rating(await Fields.of(request))
        wanted: Dict[str, Any] = {"rating": wish.rating}
        wanted["n" if wish.n else "file"] = wish.n or wish.file
        if wish.label is not None:
            wanted["label"] = wish.label
        answer = await self._acts.do(lambda: self._studio.do(station, "rate", wanted))
        file, label = (str(answer.get(name, "")) for name in ("file", "label"))
        return answered({"v": VERSION, "file": file, "rating": wish.rating, "label": label})

    async def _station_sequence(self, request: web.Request) -> web.StreamResponse:
        station = self._station(request)
        fields = await Fields.of(request)
        wanted = fields.copy()
        operation = "stop" if wishes.sequence(fields) is None else "sequence"
        sent = {} if operation == "stop" else wanted
        answer = await self._acts.do(lambda: self._studio.do(station, operation, sent))
        return answered({"v": VERSION, "sequence": answer.get("sequence")})

    # Within.

    def _station(self, request: web.Request) -> str:
        return self._check(request.match_info["station"], 404)

    def _check(self, name: str, status: int) -> str:
        if not self._studio.known([name]):
            text = "there is no station %s" % name[:60]
            advice = "Look at the names of those that are there."
            raise Problem(status, text, advice, "bad_request" if status == 400 else "not_found")
        return name

    def _door(self, station: str) -> Optional[Door]:
        return self._studio.door(station)

    def _newest(self, station: str, number: int) -> Optional[Dict[str, Any]]:
        """A picture's record when it is its station's newest; its number is the station's."""
        for view in self._studio.known([station]):
            told: Optional[Dict[str, Any]] = view["picture"]
            if told is None:
                kept = self._studio.book.newest(station)
                told = None if kept is None else {**kept, "n": kept["of"]}
            if told is not None and told["n"] == number:
                return told
        return None

    def _collected(self, station: str, record: Mapping[str, Any]) -> Optional[Entry]:
        """The picture as it is in the studio's folder."""
        kept = self._studio.book.newest(station)
        if kept is None or kept["sha256"] != record["sha256"]:
            return None
        about = kept["file"], kept["size"], kept["sha256"], kept["format"], kept["shot"]
        return Entry(record["n"], *about, session="")


def _as(role: str) -> Callable[[Dict[str, Any]], Dict[str, Any]]:
    """What a station tells a viewer, as it is told to somebody of this role here."""

    def change(told: Dict[str, Any]) -> Dict[str, Any]:
        if told.get("kind") == "state":
            may = list(STATION_ACTS) if role == OPERATOR else []
            return {**told, "role": role, "may": may, "offer": None}
        if told.get("kind") == "status":
            return {name: value for name, value in told.items() if name not in _NOT_PASSED_ON}
        return told

    return change


def _refusal(release: Release) -> Problem:
    answer = release.answer
    text, advice = str(answer.get("error", "it was refused")), str(answer.get("advice", ""))
    if "reason" not in answer:
        return Problem(504, text, advice or "Look after the station.", "no_answer")
    reason = messages.reason_of(answer)
    return Problem(STATUS_OF[reason], text, advice, reason.value)


def _told(spread: Spread) -> Dict[str, Any]:
    """What came of a request, station by station, and how far apart they were."""
    moments = [one.at for one in spread.releases if one.at is not None]
    first = min(moments, default=0.0)
    stations = {}
    for one in spread.releases:
        about: Dict[str, Any] = {"ok": one.is_done, "after": None, "error": "", "advice": ""}
        if one.at is not None:
            about["after"] = round(one.at - first, 6)
        if not one.is_done:
            about["error"] = str(one.answer.get("error", "it was refused"))[:1000]
            about["advice"] = str(one.answer.get("advice", ""))[:1000]
        stations[one.station] = about
    return {
        "asked": len(spread.releases),
        "done": sum(one.is_done for one in spread.releases),
        "seconds": None if spread.seconds is None else round(spread.seconds, 6),
        "uncertainty": round(spread.uncertainty, 6),
        "words": str(spread),
        "stations": stations,
    }
