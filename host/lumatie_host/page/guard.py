"""What every request passes before it is answered: where it comes from, who it is, how often.

An answer's headers are set here, too, and every error becomes an answer of JSON.
"""

import asyncio
import collections
import contextvars
import ipaddress
import logging
import socket
import time
from typing import Dict, FrozenSet, Mapping, Optional, Tuple

from aiohttp import web
from aiohttp.typedefs import Handler, Middleware

from ..errors import TetherError
from .gate import Gates
from .problems import Problem, of_error
from .tokens import OPERATOR, VIEWER, Tokens

PUBLIC = "public"  # no token
RATER = "rater"  # the operator, and those who look when they may rate

LARGEST_BODY = 64 * 1024  # bytes
# Who asks: set for each request, in the task that answers it.
ROLE: "contextvars.ContextVar[str]" = contextvars.ContextVar("lumatie-role")

HEADERS = {
    "Content-Security-Policy": "default-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'; object-src 'none'",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
    "Cross-Origin-Resource-Policy": "same-origin",
}

# How often one may ask in a row, and then a second: to act, and at all. Nobody guesses 128 bits, so
# who has no token is as free as those who look.
_ACTS = (400, 100.0)
_LOOKS = (2000, 400.0)
_MOST_COUNTED = 2000

_log = logging.getLogger("lumatie_host")


class Guard:
    """Decides about each request. It belongs to the loop's thread.

    Args:
        tokens: the keys.
        roles: who may use a route, by its method and path.
        gates: the connections.
        port: what the server listens on.
        is_open: whether it listens on the network, and not for this machine alone.
        viewers_rate: whether those who look may rate.
    """

    def __init__(
        self,
        tokens: Tokens,
        roles: Mapping[Tuple[str, str], str],
        gates: Gates,
        port: int,
        is_open: bool,
        viewers_rate: bool,
    ) -> None:
        self._tokens = tokens
        self._roles = roles
        self._gates = gates
        self._port = port
        self._is_open = is_open
        self._viewers_rate = viewers_rate
        self._names = _own_names() if is_open else frozenset()
        self._budgets: "collections.OrderedDict[Tuple[str, str], _Budget]"
        self._budgets = collections.OrderedDict()
        self.cookie = "lumatie-%d" % port

    async def set_headers(self, request: web.Request, response: web.StreamResponse) -> None:
        """Called for each answer, before its head is sent."""
        response.headers.update(HEADERS)
        response.headers["Server"] = "Lumatie"
        if request.path.startswith("/api"):
            response.headers.setdefault("Cache-Control", "no-store")

    def middleware(self) -> Middleware:
        """For the application."""

        @web.middleware
        async def guarded(request: web.Request, handler: Handler) -> web.StreamResponse:
            gate = self._gates.of(request.transport)
            if gate is not None:
                gate.request_began()
            try:
                return await self._answered(request, handler)
            finally:
                if gate is not None:
                    gate.request_ended()

        return guarded

    async def _answered(self, request: web.Request, handler: Handler) -> web.StreamResponse:
        begun = time.monotonic()
        response: web.StreamResponse
        try:
            self._check(request)
            response = await handler(request)
        except Problem as problem:
            response = problem.response
        except TetherError as error:
            response = of_error(error).response
        except web.HTTPException as error:
            response = _worded(error)
        except (asyncio.CancelledError, ConnectionError):
            raise
        except Exception:
            _log.exception("%s %s could not be answered", request.method, request.path)
            response = Problem(500, "the server met an error", "Try again.", "internal").response
        _log.debug(
            "%s %r: %d after %.0f ms",
            *(request.method, request.path[:200], response.status),
            (time.monotonic() - begun) * 1e3,
        )
        return response

    def _check(self, request: web.Request) -> None:
        host = self._checked_host(request)
        is_api = request.path == "/api" or request.path.startswith("/api/")
        self._check_origin(request, host, is_api)
        if not is_api:
            self._spend(request, "static", _LOOKS)
            return
        role = self._role(request)
        ROLE.set(role)
        self._spend(request, role, _LOOKS)
        self._check_right(request, role)
        is_there = request.match_info.http_exception is None
        if is_there and request.method not in ("GET", "HEAD"):
            self._spend(request, role + " acts", _ACTS)
        length = request.content_length
        if length is not None and length > LARGEST_BODY:
            raise Problem(413, "the request is longer than %d bytes" % LARGEST_BODY, "Send less.")

    def _checked_host(self, request: web.Request) -> str:
        hosts = request.headers.getall("Host", [])
        if len(hosts) == 1 and self._is_own(hosts[0].lower(), request):
            return hosts[0].lower()
        raise Problem(
            400,
            "this is not the host that was asked for",
            "Use the link as it was given.",
            "unknown_host",
        )

    def _is_own(self, host: str, request: web.Request) -> bool:
        port = ":%d" % self._port
        if host.endswith(port):
            name = host[: -len(port)]
        elif self._port == 80:  # which browsers leave out
            name = host
        else:
            return False
        if name in ("127.0.0.1", "localhost", "[::1]"):
            return True
        if not self._is_open:
            return False
        # The address that the connection came in at is one of this machine's.
        own = request.transport and request.transport.get_extra_info("sockname")
        return name in self._names or bool(own and name == own[0])

    def _check_origin(self, request: web.Request, host: str, is_api: bool) -> None:
        """Pages of others have nothing to ask here, whatever the browser would send along."""
        origins = request.headers.getall("Origin", [])
        is_foreign = any(origin.lower() != "http://" + host for origin in origins)
        site = request.headers.get("Sec-Fetch-Site", "same-origin")
        if is_foreign or (is_api and site not in ("same-origin", "none")):
            raise Problem(
                403, "the request comes from another page", "Use the page itself.", "origin"
            )

    def _role(self, request: web.Request) -> str:
        role = None
        token = self._token(request)
        if token is not None:
            role = self._tokens.role_of(token)
        gate = self._gates.of(request.transport)
        if role is None:
            self._spend(request, "stranger", _LOOKS)
            text = "no token was given" if token is None else "the token is none of this page's"
            raise Problem(401, text, "Use the link that the program has printed.", "unauthorized")
        if gate is not None and not self._gates.know(gate):
            raise Problem(429, "too many connections are open", "Close some pages.", "too_many")
        return role

    def _token(self, request: web.Request) -> Optional[str]:
        """The token that a request carries; a header that is there counts, and no cookie then."""
        lines = request.headers.getall("Authorization", [])
        if lines:
            scheme, _, token = lines[0].partition(" ")
            is_one = len(lines) == 1 and scheme.lower() == "bearer"
            return token.strip() if is_one else ""
        try:
            token = request.cookies.get(self.cookie, "")
        except Exception:  # whatever a hostile header makes of it
            return ""
        if not token:
            return None
        # A form of another page could send what it likes, but not call it this.
        is_act = request.method not in ("GET", "HEAD")
        if is_act and request.content_type != "application/json":
            raise Problem(
                400, "the request is not said to be JSON", "Send Content-Type application/json."
            )
        return token

    def _check_right(self, request: web.Request, role: str) -> None:
        route = request.match_info.route
        path = "" if route.resource is None else route.resource.canonical
        method = "GET" if request.method == "HEAD" else request.method
        needed = self._roles.get((method, path), VIEWER)
        if role == OPERATOR or needed in (VIEWER, PUBLIC):
            return
        if needed == RATER and self._viewers_rate:
            return
        raise Problem(
            403, "this link is for looking", "Ask for the operator's link to act.", "forbidden"
        )

    def _spend(self, request: web.Request, what: str, rate: Tuple[int, float]) -> None:
        """Raises Problem when somebody asks too often."""
        key = (what, request.remote or "")
        budget = self._budgets.get(key)
        if budget is None:
            budget = self._budgets[key] = _Budget(*rate)
            if len(self._budgets) > _MOST_COUNTED:
                self._budgets.popitem(last=False)
        if not budget.spend():
            raise Problem(429, "too many requests", "Wait for a moment.", "too_many")


class _Budget:
    """So many at once, then so many a second."""

    def __init__(self, most: int, rate: float) -> None:
        self._most = most
        self._rate = rate
        self._left = float(most)
        self._moment = time.monotonic()

    def spend(self) -> bool:
        now = time.monotonic()
        self._left = min(self._most, self._left + (now - self._moment) * self._rate)
        self._moment = now
        if self._left < 1:
            return False
        self._left -= 1
        return True


def _worded(error: web.HTTPException) -> web.StreamResponse:
    """An error of the web library as an answer of ours."""
    texts: Dict[int, Tuple[str, str]] = {
        404: ("there is nothing here", "not_found"),
        405: ("this cannot be done here", "method"),
        413: ("the request is longer than %d bytes" % LARGEST_BODY, "too_large"),
    }
    text, reason = texts.get(error.status, (error.reason or "no", "bad_request"))
    advice = "Look at the description of the page's interface."
    response = Problem(error.status, text, advice, reason).response
    if "Allow" in error.headers:
        response.headers["Allow"] = error.headers["Allow"]
    return response


def _own_names() -> FrozenSet[str]:
    """What this machine is called in the network."""
    names = set()
    for name in (socket.gethostname(), socket.getfqdn()):
        names.update([name.lower(), name.lower() + ".local"])
    try:
        for entry in socket.getaddrinfo(socket.gethostname(), None):
            address = str(entry[4][0]).partition("%")[0]
            is_six = ipaddress.ip_address(address).version == 6
            names.add("[%s]" % address if is_six else address)
    except (OSError, ValueError):
        pass
    return frozenset(names)
