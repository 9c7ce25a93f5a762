"""The same client and service for asyncio.

    async with kvxmom.aio.Client() as client:
        async for row in client.query("Links", "*"):
            print(row["name"], row["state"])

Nothing blocks the event loop, and no thread waits for an answer: the client's own thread tells the
loop. A task that is cancelled while it waits for rows ends the answer at the service.
"""

from __future__ import annotations

import asyncio
import inspect
from typing import (
    Any,
    AsyncIterator,
    Callable,
    Generic,
    Iterable,
    Iterator,
    Mapping,
    TypeVar,
)

from . import _kvxmom
from ._kvxmom import Message, Question
from .client import _AT_ONCE, ClientCalls, RowCalls, Seconds
from .errors import Ended, InvalidArgument, TimedOut
from .holding import H, Holder
from .service import Changes, ServiceCalls, work_name
from .values import (
    Change,
    Connection,
    Daemon,
    Delivery,
    Row,
    Sendable,
    Totals,
    Value,
    check,
    check_function,
    columns_of,
    seconds,
    seconds_or_none,
)

T = TypeVar("T")
R = TypeVar("R")
O = TypeVar("O", bound="_Opening[Any]")
WhenReady = Callable[[Callable[[], object]], bool]

#: Rows that a function which answers may be ahead of those that left.
_ROWS_AHEAD = 100


async def _until(is_ready: WhenReady) -> None:
    """Waits until `is_ready(tell)` is true; it has `tell` called, on any thread, when it may be."""
    loop = asyncio.get_running_loop()
    while True:
        woken = asyncio.Event()

        def tell(woken: asyncio.Event = woken) -> None:
            try:
                loop.call_soon_threadsafe(woken.set)
            except RuntimeError:  # the loop is closed: nobody waits
                pass

        if is_ready(tell):
            return
        await woken.wait()


async def _outcome(call: _kvxmom.Call[T]) -> T:
    try:
        await _until(call.is_done)
    except BaseException:
        call.drop()
        raise
    return call.result()


class Rows(RowCalls):
    """The rows of an answer as they come: an asynchronous iterator of dicts. One task at a time.

    A task that is cancelled while it waits ends the answer at the service, as `cancel` does.
    """

    def __aiter__(self) -> AsyncIterator[Row]:
        return self

    async def __anext__(self) -> Row:
        row = next(self._ready, None)
        if row is not None:
            return row
        try:
            await _until(self._stream.is_ready)
        except BaseException:
            self._stream.cancel()
            raise
        rows = self._stream.take(_AT_ONCE)
        if not rows:
            raise StopAsyncIteration
        self._ready = iter(rows)
        return next(self._ready)

    async def all(self) -> list[Row]:
        """All rows that are left."""
        return [row async for row in self]

    async def columns(self) -> dict[str, list[Value]]:
        """All rows that are left as columns. Where a row has no such field stands None."""
        return columns_of(await self.all())

    async def __aenter__(self) -> Rows:
        return self

    async def __aexit__(self, *_: object) -> None:
        self.cancel()


class Subscription(Generic[T]):
    """What is heard, until it is closed: an asynchronous iterator. Tasks that wait get in turn.

    To be awaited, or entered, before it hears. The iteration ends with `close`, and when the client
    is closed.
    """

    def __init__(self, call: Callable[[], _kvxmom.Call[_kvxmom.Listening]]) -> None:
        self._call = call
        self._listening: _kvxmom.Listening | None = None
        self._turn = asyncio.Lock()  # of the task that waits

    async def _open(self) -> Subscription[T]:
        if self._listening is None:
            self._listening = await _outcome(self._call())
        return self

    def _opened(self) -> _kvxmom.Listening:
        if self._listening is None:
            raise Ended("the subscription is not open: await it, or enter it")
        return self._listening

    def __await__(self) -> Any:
        return self._open().__await__()

    async def __aenter__(self) -> Subscription[T]:
        return await self._open()

    async def __aexit__(self, *_: object) -> None:
        self.close()

    def __aiter__(self) -> AsyncIterator[T]:
        return self

    async def __anext__(self) -> T:
        listening = self._opened()
        async with self._turn:
            await _until(listening.is_ready)
            event: T | None = listening.take(0)
        if event is None:
            raise StopAsyncIteration
        return event

    async def take(self, timeout: Seconds | None = None) -> T:
        """Waits for the next one. `TimedOut` when none comes in time, `Ended` when none will."""
        try:
            return await asyncio.wait_for(self.__anext__(), seconds_or_none("timeout", timeout))
        except asyncio.TimeoutError:
            raise TimedOut("nothing came", tried="take") from None
        except StopAsyncIteration:
            raise Ended("nothing more is heard", tried="take") from None

    @property
    def dropped(self) -> int:
        """How many were dropped because too many waited."""
        return self._opened().dropped()

    def close(self) -> None:
        """Nothing more is heard; what waits is still given."""
        if self._listening is not None:
            self._listening.end()


def _in_loop(function: Callable[..., R]) -> Callable[..., None]:
    """`function`, or the coroutine that it gives, called in the running loop from any thread."""
    loop = asyncio.get_running_loop()
    tasks: set[asyncio.Future[Any]] = set()

    def run(*arguments: Any) -> None:
        result: object = function(*arguments)
        if inspect.isawaitable(result):
            task = asyncio.ensure_future(result)
            tasks.add(task)
            task.add_done_callback(tasks.discard)

    def call(*arguments: Any) -> None:
        try:
            loop.call_soon_threadsafe(run, *arguments)
        except RuntimeError:  # the loop is closed
            pass

    return call


class _Opening(Holder[H]):
    """Is opened, and closed, by `async with`."""

    async def open(self: O) -> O:
        raise NotImplementedError

    async def close(self) -> None:
        """Ends it: what waits gets `Ended`."""
        call = self._closing()
        if call is not None:
            await _outcome(call)

    async def __aenter__(self: O) -> O:
        return await self.open()

    async def __aexit__(self, *_: object) -> None:
        await asyncio.shield(self.close())


class Client(ClientCalls, _Opening[_kvxmom.ClientHandle]):
    """A program's access to the bus, for asyncio. One at a time in a process, and none beside a
    service. It is opened by `async with`, or by `open`, and belongs to the loop that runs then.

    Its arguments are those of `kvxmom.Client`; the functions among them are called in the loop, and
    may be coroutine functions.
    """

    async def open(self) -> Client:
        """Connects. `NoDaemon` when nobody is there, `Busy` while another one is open."""
        told = self._on_connection and _in_loop(self._on_connection)
        self._handle = await _outcome(self._opening(told, _in_loop(self._on_warning)))
        return self

    def query(self, service: str, text: str, *, timeout: Seconds | None = None) -> Rows:
        """Asks a service; see `kvxmom.Client.query`."""
        return Rows(self._stream(service, text, timeout))

    async def request(
        self, subject: str, message: Sendable = (), *, timeout: Seconds | None = None
    ) -> Message:
        """Sends on exactly `subject` and waits for the first reply."""
        return await _outcome(self._requesting(subject, message, timeout))

    async def send(self, subject: str, message: Sendable) -> None:
        """Sends on exactly `subject`. Returns when it has been handed to the connection."""
        call = self._sending(subject, message)
        await _outcome(call)

    def listen(self, subject: str, *, most_waiting: int = 10_000) -> Subscription[Delivery]:
        """Hears every message on exactly `subject`; see `kvxmom.Client.listen`."""
        return Subscription(lambda: self._listening(subject, None, most_waiting))

    def snoop(self, service: str, *, most_waiting: int = 10_000) -> Subscription[Row]:
        """Hears every record that a service tells of."""
        return Subscription(lambda: self._snooping(service, None, most_waiting))

    def follow(
        self,
        service: str,
        text: str,
        *,
        most_waiting: int = 1_000_000,
        timeout: Seconds | None = None,
    ) -> Subscription[Change]:
        """The rows of the answer to `text`, and every change from then on; see
        `kvxmom.Client.follow`."""
        return Subscription(lambda: self._following(service, text, None, most_waiting, timeout))


async def _given(rows: object) -> AsyncIterator[Any]:
    """What a function gave that answers: rows, a coroutine of them, or what yields them."""
    if inspect.isawaitable(rows):
        rows = await rows
    if isinstance(rows, AsyncIterator):
        async for row in rows:
            yield row
    elif rows is not None:
        for row in rows:  # type: ignore[attr-defined]
            yield row


async def _some(rows: AsyncIterator[Any]) -> list[Any]:
    """The next rows; none at the end."""
    some: list[Any] = []
    async for row in rows:
        some.append(row)
        if len(some) == _ROWS_AHEAD:
            break
    return some


class Service(ServiceCalls, _Opening[_kvxmom.ServiceHandle]):
    """A service of the bus, for asyncio; see `kvxmom.Service`, whose arguments it takes. Its
    functions are called in the loop and may be coroutine functions; those that answer may also be
    asynchronous generators. They are given before it is opened, by `async with`.
    """

    _least_threads = 1  # the loop that an answer waits for must not be the one that answers

    def _begin(self) -> None:
        self._given: list[Callable[[_kvxmom.ServiceHandle], _kvxmom.Call[None]]] = []
        self._running: asyncio.Future[None] | None = None

    def _give(self, give: Callable[[_kvxmom.ServiceHandle], _kvxmom.Call[None]]) -> None:
        if self._handle is not None:
            raise InvalidArgument("the service is open; what it does is given before")
        self._given.append(give)

    def on_query(self, answer: Callable[[Question], Any]) -> Callable[[Question], Any]:
        """Has every question answered by `answer`, a function, a coroutine function or a generator of
        either kind; see `kvxmom.Service.on_query`."""
        check_function("answer", answer)
        self._give(lambda handle: handle.on_query(self._answering(answer)))
        return answer

    @staticmethod
    def _answering(
        answer: Callable[[Question], Any]
    ) -> Callable[[Question], Iterable[Mapping[str, Any]]]:
        loop = asyncio.get_running_loop()

        async def begin(question: Question) -> AsyncIterator[Any]:
            return _given(answer(question))

        async def end(rows: AsyncIterator[Any]) -> None:
            await rows.aclose()  # type: ignore[attr-defined]

        # On a thread of the service, which waits for the loop without the interpreter's lock.
        def run(question: Question) -> Iterator[Mapping[str, Any]]:
            rows = asyncio.run_coroutine_threadsafe(begin(question), loop).result()
            try:
                while some := asyncio.run_coroutine_threadsafe(_some(rows), loop).result():
                    yield from some
            finally:
                asyncio.run_coroutine_threadsafe(end(rows), loop)

        return run

    def on_role(self, changed: Callable[[bool], T]) -> Callable[[bool], T]:
        """Has `changed` called at the start and when this member becomes active (True) or
        standby."""
        check_function("changed", changed)
        self._give(lambda handle: handle.on_role(_in_loop(changed)))
        return changed

    def on_message(self, subject: str) -> Callable[[Callable[[Message], T]], Callable[[Message], T]]:
        """Has the decorated function called for every message on `subject` in the service's
        domain."""
        check("subject", subject, str)

        def add(received: Callable[[Message], T]) -> Callable[[Message], T]:
            check_function("received", received)
            self._give(lambda handle: handle.on_message(subject, _in_loop(received)))
            return received

        return add

    def every(
        self, interval: Seconds, name: str | None = None
    ) -> Callable[[Callable[[], T]], Callable[[], T]]:
        """Has the decorated function called every `interval`, and never before it, or the coroutine
        that it gave, has ended; see `kvxmom.Service.every`."""
        wanted = seconds("interval", interval)

        def add(work: Callable[[], T]) -> Callable[[], T]:
            named = work_name(name, work)
            self._give(lambda handle: handle.every(wanted, named, self._awaited(work)))
            return work

        return add

    @staticmethod
    def _awaited(work: Callable[[], object]) -> Callable[[], None]:
        loop = asyncio.get_running_loop()

        async def turn() -> None:
            result = work()
            if inspect.isawaitable(result):
                await result

        # On a thread of the service, which waits for the loop without the interpreter's lock.
        return lambda: asyncio.run_coroutine_threadsafe(turn(), loop).result()

    @property
    def changes(self) -> Changes:
        """Its numbered changes; see `kvxmom.Changes`. `number_changes` has to be called before it is
        opened. What it is given is called at once."""
        if self._changes is None:
            self._changes = Changes(self._opened())
        return self._changes

    def number_changes(self, key: Iterable[str], *, table: str = "") -> None:
        """Makes it a service that numbers its changes; `key` has the fields by which rows of `table`
        are told apart."""
        if isinstance(key, str):
            raise TypeError("key: a sequence of str is needed, not str")
        fields = list(key)
        check("table", table, str)

        def number(handle: _kvxmom.ServiceHandle) -> _kvxmom.Call[None]:
            call = handle.numbers()
            handle.set_key(table, fields)
            return call

        self._give(number)

    async def open(self) -> Service:
        """Connects and begins to work."""
        self._handle = await _outcome(self._opening())
        try:
            for give in self._given:
                call = give(self._handle)
                await _outcome(call)
        except BaseException:
            await self.close()
            raise
        self._running = asyncio.ensure_future(_outcome(self._handle.run()))
        return self

    async def wait(self) -> None:
        """Waits until it has been stopped. `Lost` when not all could be heard or sent."""
        if self._running is None:
            raise Ended("the service is not open")
        await asyncio.shield(self._running)

    async def close(self) -> None:
        """Stops it: what is queued is sent, then the group is left."""
        running = self._running
        try:
            await super().close()
        finally:
            if running is not None and running.get_loop() is asyncio.get_running_loop():
                await asyncio.wait([running])
