"""The session for asyncio: the same names as coroutines, and an asynchronous iterator of events.

There is no logic in here. What waits does so on a thread of its own, and events wake the loop with
`call_soon_threadsafe`. A session belongs to the loop that opened it; several loops may have
sessions at the same time, each in its own thread.

Cancelling a coroutine ends the waiting, not what was asked for: a shutter that was released stays
released, and its picture is recorded and announced. A camera that is being opened is given back.
"""

import asyncio
import contextlib
import functools
import threading
from types import TracebackType
from typing import (
    Any,
    AsyncIterator,
    Callable,
    Dict,
    Generator,
    Iterable,
    List,
    Optional,
    Type,
    TypeVar,
    Union,
)

from . import finding, session
from .camera_thread import IsWanted
from .ledger import Ledger
from .session import Session
from .settings import Setting
from .shots import Shot
from .subscribers import EventIterator, Heard, Mailbox

_Result = TypeVar("_Result")


class AsyncSession:
    """A session, for one loop; see `Session` for what each name does and raises.

    Attributes:
        session: the session itself, for what there is no name of here.
    """

    def __init__(self, inner: Session) -> None:
        """Use `open_async`."""
        self.session = inner

    @property
    def state(self) -> str:
        """See `Session.state`."""
        return self.session.state

    @property
    def maker(self) -> str:
        """See `Session.maker`."""
        return self.session.maker

    @property
    def camera(self) -> str:
        """See `Session.camera`."""
        return self.session.camera

    @property
    def folder(self) -> str:
        """See `Session.folder`."""
        return self.session.folder

    @property
    def ledger(self) -> Ledger:
        """See `Session.ledger`."""
        return self.session.ledger

    @property
    def first(self) -> int:
        """See `Session.first`."""
        return self.session.first

    @property
    def settings(self) -> Dict[str, Setting]:
        """See `Session.settings`."""
        return self.session.settings

    @property
    def tag(self) -> str:
        """See `Session.tag`."""
        return self.session.tag

    @tag.setter
    def tag(self, text: str) -> None:
        self.session.tag = text

    def next_name(self) -> str:
        """See `Session.next_name`."""
        return self.session.next_name()

    async def set(
        self,
        name: str,
        text: Optional[str] = None,
        *,
        key: Optional[int] = None,
        timeout: float = 5.0,
    ) -> str:
        """See `Session.set`."""
        return await _apart(
            functools.partial(self.session.set, name, text, key=key, timeout=timeout)
        )

    async def shoot(
        self,
        timeout: float = 30.0,
        pair: bool = False,
        *,
        is_wanted: Optional[IsWanted] = None,
    ) -> Shot:
        """See `Session.shoot`; `is_wanted` is not called on the loop."""
        shoot = functools.partial(self.session.shoot, timeout, pair, is_wanted=is_wanted)
        return await _apart(shoot)

    async def rate(self, file: str, rating: int, label: str = "") -> None:
        """See `Session.rate`."""
        await _apart(functools.partial(self.session.rate, file, rating, label))

    def events(self, since: Optional[int] = None) -> "AsyncEvents":
        """An asynchronous iterator of events, from now on or behind the ledger's number `since`."""
        return AsyncEvents(self.session, since)

    def subscribe(self, listener: Callable[[Heard], object]) -> Callable[[], None]:
        """Calls the listener on the loop with each event; returns a function that ends it."""
        events = self.events()
        task = asyncio.ensure_future(_listen(events, listener))

        def unsubscribe() -> None:
            events.close()
            task.cancel()

        return unsubscribe

    async def close(self) -> None:
        """See `Session.close`; it is carried out also when the waiting is cancelled."""
        await _apart(self.session.close)

    async def __aenter__(self) -> "AsyncSession":
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        await self.close()


class AsyncEvents(AsyncIterator[Heard]):
    """Events as they come, for one loop; ends when the session is closed. One task may use it."""

    def __init__(self, inner: Session, since: Optional[int] = None) -> None:
        """For `AsyncSession.events`."""
        self._loop = asyncio.get_running_loop()
        self._is_ready = asyncio.Event()
        self._mailbox: Mailbox = inner.mailbox(self._wake)
        self._events = EventIterator(
            self._mailbox, () if since is None else inner.ledger.events(since)
        )

    def __aiter__(self) -> "AsyncEvents":
        return self

    async def __anext__(self) -> Heard:
        while True:
            self._is_ready.clear()
            event = self._events.next(0.0)
            if event is not None:
                return event
            if self._mailbox.is_over:
                raise StopAsyncIteration
            await self._is_ready.wait()

    def close(self) -> None:
        """Ends the iteration; may be called on any thread."""
        self._events.close()

    def _wake(self) -> None:
        # A loop that is closed has nobody who waits.
        with contextlib.suppress(RuntimeError):
            self._loop.call_soon_threadsafe(self._is_ready.set)


class Opening:
    """What `open_async` returns: to be awaited, or entered with `async with`."""

    def __init__(self, arguments: Callable[..., Session]) -> None:
        """For `open_async`."""
        self._arguments = arguments
        self._opened: Optional[AsyncSession] = None

    def __await__(self) -> Generator[Any, None, AsyncSession]:
        return self._open().__await__()

    async def __aenter__(self) -> AsyncSession:
        self._opened = await self._open()
        return self._opened

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        if self._opened is not None:
            await self._opened.close()

    async def _open(self) -> AsyncSession:
        begun = _Begun()
        opening = functools.partial(self._arguments, begin=begun.begin)
        try:
            # A session that a loop has not taken to its end is closed as soon as it is there.
            return AsyncSession(await _apart(opening, unwanted=Session.close))
        except asyncio.CancelledError:
            begun.give_up()
            raise


class _Begun:
    """The session that is being opened, until nobody waits for it any more. Any thread may call."""

    def __init__(self) -> None:
        self._session: Optional[Session] = None
        self._is_unwanted = False

    def begin(self, inner: Session) -> None:
        """It has begun."""
        self._session = inner
        if self._is_unwanted:
            inner.close()

    def give_up(self) -> None:
        """Ends the opening, now or as soon as it begins; waits for nothing."""
        self._is_unwanted = True
        if self._session is not None:
            threading.Thread(
                target=self._session.close, name="lumatie-unwanted", daemon=True
            ).start()


def open_async(
    camera: str = "",
    *,
    folder: str,
    name: str = "{original}",
    job: str = "",
    station: str = "",
    tag: str = "",
    copy: Optional[str] = None,
    module: Optional[str] = None,
    canon_library: Optional[str] = None,
    virtual: Optional[str] = None,
    timeout: float = 15.0,
) -> Opening:
    """Opens a camera as `open` does: `async with open_async(...)`, or `await open_async(...)`."""
    return Opening(
        functools.partial(
            session.open,
            camera,
            folder=folder,
            name=name,
            job=job,
            station=station,
            tag=tag,
            copy=copy,
            module=module,
            canon_library=canon_library,
            virtual=virtual,
            timeout=timeout,
        )
    )


async def find_async(
    names: Union[str, Iterable[str]] = (),
    *,
    module: Optional[str] = None,
    canon_library: Optional[str] = None,
    virtual: Optional[str] = None,
    timeout: float = 15.0,
) -> Optional[str]:
    """See `find`."""
    find = functools.partial(
        finding.find, names, module=module, canon_library=canon_library, virtual=virtual
    )
    return await _apart(functools.partial(find, timeout=timeout))


async def _listen(events: AsyncEvents, listener: Callable[[Heard], object]) -> None:
    async for event in events:
        try:
            listener(event)
        except Exception as error:
            asyncio.get_running_loop().call_exception_handler(
                {"message": "a subscriber failed at %r" % (event,), "exception": error}
            )


async def _apart(
    function: Callable[[], _Result],
    unwanted: Optional[Callable[[_Result], object]] = None,
) -> _Result:
    """What a function returns that waits, run on a daemon thread of its own.

    An executor's threads are few, and a program waits for them at its end.

    Args:
        unwanted: is called with the result, on that thread, when nobody waits for it any more.
    """
    loop = asyncio.get_running_loop()
    future: "asyncio.Future[_Result]" = loop.create_future()
    is_taken, is_unwanted = threading.Event(), threading.Event()

    def deliver(result: List[_Result], error: Optional[BaseException]) -> None:
        if future.cancelled():
            return
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(result[0])

    def run() -> None:
        result: List[_Result] = []
        error: Optional[BaseException] = None
        try:
            result.append(function())
        except BaseException as caught:
            error = caught
        try:
            loop.call_soon_threadsafe(deliver, result, error)
        except RuntimeError:  # the loop is closed
            is_unwanted.set()
            is_taken.set()
        if unwanted is None or not result:
            return
        while not is_taken.wait(0.5):
            if loop.is_closed():
                is_unwanted.set()
                break
        if is_unwanted.is_set():
            unwanted(result[0])

    threading.Thread(target=run, name="lumatie-waiting", daemon=True).start()
    try:
        return await future
    except asyncio.CancelledError:
        is_unwanted.set()  # also when it is cancelled with the result on its way
        is_taken.set()
        raise
    finally:
        if future.done() and not future.cancelled():
            is_taken.set()
