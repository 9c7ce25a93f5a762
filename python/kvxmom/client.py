"""The client that waits: see `kvxmom.aio` for the one of asyncio."""

from __future__ import annotations

import datetime
import logging
from typing import Callable, Generic, Iterator, TypeVar

from . import _kvxmom
from ._kvxmom import Message
from .errors import Ended, TimedOut
from .holding import Closing, ClosingHolder, Holder
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


class RowCalls:
    """The rows of an answer before anybody waits for them: what both kinds of `Rows` share."""

    def __init__(self, stream: _kvxmom.Stream) -> None:
        self._stream = stream
        self._ready: Iterator[Row] = iter(())

    def cancel(self) -> None:
        """Ends the answer: who waits for a row gets `Ended`. Any thread."""
        self._ready = iter(())
        self._stream.cancel()

    def totals(self) -> Totals:
        """What came of the answer so far. Any thread."""
        return Totals(**self._stream.totals())


class Rows(RowCalls, Closing):
    """The rows of an answer as they come: an iterator of dicts. One thread at a time.

    A service that takes part in the conversation sends no faster than they are taken. What is not
    iterated to its end, also because of Ctrl-C, ends the answer at the service when it is dropped.
    """

    def __iter__(self) -> Iterator[Row]:
        return self

    def __next__(self) -> Row:
        row = next(self._ready, None)
        if row is not None:
            return row
        try:
            rows = self._stream.take(_AT_ONCE)
        except BaseException:
            self._stream.cancel()
            raise
        if not rows:
            raise StopIteration
        self._ready = iter(rows)
        return next(self._ready)

    def all(self) -> list[Row]:
        """All rows that are left."""
        return list(self)

    def columns(self) -> dict[str, list[Value]]:
        """All rows that are left as columns. Where a row has no such field stands None."""
        return columns_of(self)

    def close(self) -> None:
        self.cancel()


class Subscription(Generic[T], Closing):
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


def _connected(told: Callable[[Connection], object]) -> Callable[[bool, str, str], object]:
    return lambda is_there, address, why: told(Connection(is_there, address, why))


class ClientCalls(Holder[_kvxmom.ClientHandle]):
    """The calls of a client before anybody waits for them: what both kinds of client share."""

    _kind = "client"

    def __init__(
        self,
        *,
        domain: str = "DEFAULT",
        daemon: str | Daemon = "",
        timeout: Seconds = 8.0,
        on_connection: Callable[[Connection], object] | None = None,
        on_warning: Callable[[str], object] | None = None,
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
        self._begin()

    def _begin(self) -> None:
        pass

    def _opening(
        self,
        on_connection: Callable[[bool, str, str], object] | None,
        on_warning: Callable[[str], object],
    ) -> _kvxmom.Call[_kvxmom.ClientHandle]:
        return _kvxmom.open_client(
            self._domain,
            self._daemon.service,
            self._daemon.network,
            self._daemon.daemon,
            self._timeout,
            on_connection,
            on_warning,
        )

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


class Client(ClientCalls, ClosingHolder[_kvxmom.ClientHandle]):
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

    def _begin(self) -> None:
        self._handle = self._opening(self._on_connection, self._on_warning).wait()

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


__all__ = ["Client", "Rows", "Subscription", "TimedOut"]
