"""The client that waits: see `kvxmom.aio` for the one of asyncio."""

from __future__ import annotations

import datetime
import logging
from types import TracebackType
from typing import Callable, Generic, Iterator, TypeVar

from . import _kvxmom
from ._kvxmom import Message
from .errors import Ended, TimedOut
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
    count,
    daemon_of,
    seconds,
    seconds_or_none,
)

Seconds = float | datetime.timedelta
T = TypeVar("T")

#: Rows that are taken from an answer at once.
_AT_ONCE = 500

_log = logging.getLogger("kvxmom")


class Rows:
    """The rows of an answer as they come: an iterator of dicts. One thread at a time.

    A service that takes part in the conversation sends no faster than they are taken. Leaving the
    iteration before the end, also by Ctrl-C, ends the answer at the service, as `cancel` does.
    """

    def __init__(self, stream: _kvxmom.Stream) -> None:
        self._stream = stream
        self._iterator = self._each()

    def __iter__(self) -> Iterator[Row]:
        return self

    def __next__(self) -> Row:
        return next(self._iterator)

    def _each(self) -> Iterator[Row]:
        try:
            while rows := self._stream.take(_AT_ONCE):
                yield from rows
        finally:
            self._stream.cancel()

    def all(self) -> list[Row]:
        """All rows that are left."""
        return list(self)

    def columns(self) -> dict[str, list[Value]]:
        """All rows that are left as columns. Where a row has no such field stands None."""
        return columns_of(self)

    def cancel(self) -> None:
        """Ends the answer; a thread that waits for a row gets `Ended`. Any thread."""
        self._stream.cancel()

    def totals(self) -> Totals:
        """What came of the answer so far. Any thread."""
        return Totals(**self._stream.totals())

    def __enter__(self) -> Rows:
        return self

    def __exit__(self, *_: object) -> None:
        self.cancel()


class Subscription(Generic[T]):
    """What is heard, until it is closed. Without a function it is an iterator, which waits.

    It goes on by itself when the daemon was away. The iteration ends with `close`, and when the
    client is closed.
    """

    def __init__(self, listening: _kvxmom.Listening) -> None:
        self._listening = listening

    def __iter__(self) -> Iterator[T]:
        return self

    def __next__(self) -> T:
        event: T | None = self._listening.take(None)
        if event is None:
            raise StopIteration
        return event

    def take(self, timeout: Seconds | None = None) -> T:
        """Waits for the next one. `TimedOut` when none comes in time, `Ended` when none will."""
        event: T | None = self._listening.take(seconds_or_none("timeout", timeout))
        if event is None:
            raise Ended("nothing more is heard", tried="take")
        return event

    @property
    def dropped(self) -> int:
        """How many were dropped because too many waited."""
        return self._listening.dropped()

    def close(self) -> None:
        """Nothing more is heard; what waits is still given."""
        self._listening.end()

    def __enter__(self) -> Subscription[T]:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _connected(told: Callable[[Connection], object]) -> Callable[[bool, str, str], object]:
    return lambda is_there, address, why: told(Connection(is_there, address, why))


class ClientCalls:
    """The calls of a client before anybody waits for them: what both kinds of client share."""

    def __init__(
        self,
        domain: str,
        daemon: str | Daemon,
        timeout: Seconds,
        on_connection: Callable[[Connection], object] | None,
        on_warning: Callable[[str], object] | None,
    ) -> None:
        check("domain", domain, str)
        if on_connection is not None:
            check_function("on_connection", on_connection)
        if on_warning is not None:
            check_function("on_warning", on_warning)
        self._domain = domain
        self._daemon = daemon_of(daemon)
        self._timeout = seconds("timeout", timeout)
        self._on_connection = None if on_connection is None else _connected(on_connection)
        self._on_warning = on_warning or _log.warning
        self._handle: _kvxmom.ClientHandle | None = None

    def _opening(self) -> _kvxmom.Call[_kvxmom.ClientHandle]:
        return _kvxmom.open_client(
            self._domain,
            self._daemon.service,
            self._daemon.network,
            self._daemon.daemon,
            self._timeout,
            self._on_connection,
            self._on_warning,
        )

    def _opened(self) -> _kvxmom.ClientHandle:
        if self._handle is None:
            raise Ended("the client is not open")
        return self._handle

    def _stream(self, service: str, text: str, timeout: Seconds | None) -> _kvxmom.Stream:
        check("service", service, str)
        check("text", text, str)
        return self._opened().stream(service, text, seconds_or_none("timeout", timeout))

    def _requesting(
        self, subject: str, message: Sendable, timeout: Seconds | None
    ) -> _kvxmom.Call[Message]:
        check("subject", subject, str)
        return self._opened().request(subject, message, seconds_or_none("timeout", timeout))

    def _sending(self, subject: str, message: Sendable) -> _kvxmom.Call[None]:
        check("subject", subject, str)
        return self._opened().publish(subject, message)

    def _listening(
        self, subject: str, function: Callable[[Delivery], object] | None, most: int
    ) -> _kvxmom.Call[_kvxmom.Listening]:
        check("subject", subject, str)
        if function is not None:
            check_function("function", function)
        return self._opened().listen(subject, function, count("most_waiting", most, 1))

    def _snooping(
        self, service: str, function: Callable[[Row], object] | None, most: int
    ) -> _kvxmom.Call[_kvxmom.Listening]:
        check("service", service, str)
        if function is not None:
            check_function("function", function)
        return self._opened().snoop(service, function, count("most_waiting", most, 1))

    def _following(
        self,
        service: str,
        text: str,
        function: Callable[[Change], object] | None,
        most: int,
        timeout: Seconds | None,
    ) -> _kvxmom.Call[_kvxmom.Listening]:
        check("service", service, str)
        check("text", text, str)
        if function is not None:
            check_function("function", function)
        most = count("most_waiting", most, 1)
        return self._opened().follow(
            service, text, function, most, seconds_or_none("timeout", timeout)
        )

    def in_domain(self, subject: str) -> str:
        """`subject` in the client's domain: "NEWS" is "NEWS.DEFAULT"."""
        check("subject", subject, str)
        return self._opened().in_domain(subject)

    @property
    def connection(self) -> Connection:
        """Whether the daemon is there."""
        return Connection(*self._opened().connection())


class Client(ClientCalls):
    """A program's access to the bus: questions to services, messages, listening.

    One at a time in a process, and none beside a `Service`. Any thread may call; each call that
    waits does so without the interpreter's lock, and Ctrl-C ends the wait. Functions given to it are
    called on a thread of its own and must not wait for it; what they raise goes to
    `sys.unraisablehook`. Durations are seconds or `timedelta`.

    domain:        the domain of the services
    daemon:        the address of the bus, as text or `Daemon`; by default as configured
    timeout:       for how long an answer, or its next packet, is awaited
    on_connection: called when the connection comes and goes
    on_warning:    called with what should be known although nothing failed; else it is logged

    Connects. `NoDaemon` when nobody is there, `Busy` while another one is open.
    """

    def __init__(
        self,
        *,
        domain: str = "DEFAULT",
        daemon: str | Daemon = "",
        timeout: Seconds = 8.0,
        on_connection: Callable[[Connection], object] | None = None,
        on_warning: Callable[[str], object] | None = None,
    ) -> None:
        super().__init__(domain, daemon, timeout, on_connection, on_warning)
        self._handle = self._opening().wait()

    def query(self, service: str, text: str, *, timeout: Seconds | None = None) -> Rows:
        """Asks a service. The rows are to be iterated, which raises what goes wrong: `TimedOut`,
        `Refused`, `Partial`, `Lost`, `MixedAnswers`."""
        return Rows(self._stream(service, text, timeout))

    def request(
        self, subject: str, message: Sendable = (), *, timeout: Seconds | None = None
    ) -> Message:
        """Sends on exactly `subject` and waits for the first reply."""
        return self._requesting(subject, message, timeout).wait()

    def send(self, subject: str, message: Sendable) -> None:
        """Sends on exactly `subject`. Returns when it has been handed to the connection."""
        call = self._sending(subject, message)
        call.wait()

    def listen(
        self,
        subject: str,
        function: Callable[[Delivery], object] | None = None,
        *,
        most_waiting: int = 10_000,
    ) -> Subscription[Delivery]:
        """Hears every message on exactly `subject`, which may have wildcards. At most
        `most_waiting` wait to be taken; beyond that the oldest is dropped and counted."""
        return Subscription(self._listening(subject, function, most_waiting).wait())

    def snoop(
        self,
        service: str,
        function: Callable[[Row], object] | None = None,
        *,
        most_waiting: int = 10_000,
    ) -> Subscription[Row]:
        """Hears every record that a service tells of."""
        return Subscription(self._snooping(service, function, most_waiting).wait())

    def follow(
        self,
        service: str,
        text: str,
        function: Callable[[Change], object] | None = None,
        *,
        most_waiting: int = 1_000_000,
        timeout: Seconds | None = None,
    ) -> Subscription[Change]:
        """The rows of the answer to `text`, and from then on every change that the service commits,
        none missing and none twice, over loss, a take-over and restarts. For services that number
        their changes. `QueueFull` ends it when more wait to be taken than may."""
        return Subscription(
            self._following(service, text, function, most_waiting, timeout).wait()
        )

    def close(self) -> None:
        """Ends the client; what waits gets `Ended`. Waits until no function given to it runs,
        unless called by one."""
        handle, self._handle = self._handle, None
        if handle is None:
            return
        call = handle.close()
        call.wait()

    def __enter__(self) -> Client:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()


__all__ = ["Client", "Rows", "Subscription", "TimedOut"]
