"""What every page has: its own files, the way in, its links."""

import io
import os
from concurrent.futures import Executor
from typing import List

import segno
from aiohttp import web

from . import files
from .fields import Fields
from .guard import PUBLIC, ROLE
from .problems import VERSION, answered, bad
from .tokens import OPERATOR, VIEWER
from .web import Links, Route

FOLDER = os.path.dirname(os.path.abspath(__file__))
STATIC = os.path.join(FOLDER, "static")


class Entrance:
    """Answers for one page. It belongs to the loop's thread.

    Args:
        links: the page's addresses.
        cookie: the name of the cookie that a browser keeps its token in.
        schema: the file that describes the page's interface.
        pool: whose threads read files.
    """

    def __init__(self, links: Links, cookie: str, schema: str, pool: Executor) -> None:
        self._links = links
        self._cookie = cookie
        self._schema = schema
        self._pool = pool

    def table(self) -> List[Route]:
        """Its routes; the page adds its own, `/` among them."""
        return [
            Route("GET", "/static/{name:.*}", PUBLIC, self._static),
            Route("POST", "/api/enter", VIEWER, self._enter),
            Route("GET", "/api/schema", VIEWER, self._get_schema),
            Route("GET", "/api/links", OPERATOR, self._get_links),
            Route("GET", "/api/qr.svg", OPERATOR, self._qr),
        ]

    async def _static(self, request: web.Request) -> web.StreamResponse:
        return await files.static(request, STATIC, request.match_info["name"], self._pool)

    async def _enter(self, request: web.Request) -> web.StreamResponse:
        (await Fields.of(request)).end()
        token = request.headers.get("Authorization", "").partition(" ")[2].strip()
        if not token:
            raise bad("the token of the link is missing", "Send it as Authorization: Bearer.")
        response = answered({"v": VERSION, "role": ROLE.get()})
        response.set_cookie(self._cookie, token, path="/", httponly=True, samesite="Strict")
        return response

    async def _get_schema(self, request: web.Request) -> web.StreamResponse:
        data = await files.read(self._schema, self._pool)
        return web.Response(body=data, content_type="application/schema+json", charset="utf-8")

    async def _get_links(self, request: web.Request) -> web.StreamResponse:
        links = self._links
        return answered({"v": VERSION, "operator": links.operator, "viewer": links.viewer})

    async def _qr(self, request: web.Request) -> web.StreamResponse:
        buffer = io.BytesIO()
        code = segno.make(self._links.viewer, error="m", micro=False)
        code.save(buffer, kind="svg", scale=8, border=4, light="#ffffff", svgclass=None)
        return web.Response(body=buffer.getvalue(), content_type="image/svg+xml")
