"""The service that waits: see `kvxmom.aio` for the one of asyncio."""

from __future__ import annotations

import contextlib
import signal
import threading
from typing import Any, Callable, Iterable, Iterator, Mapping, Sequence, TypeVar, overload

from . import _kvxmom
from ._kvxmom import Message, Question
from .client import Seconds
from .holding import ClosingHolder, Holder
from .values import Change, Daemon, Stamp, Statistics, check, check_function, count, daemon_of, seconds

T = TypeVar("T")
Answer = Callable[[Question], Iterable[Mapping[str, Any]] | None]


class Changes:
    """The numbered changes of a service, which its followers get every one, once and in order.

    The data change inside `commit` and are read for an answer inside `read`. The functions given to
    them are called here, on the calling thread; one commit at a time, and no read meanwhile, so they
    should be short and must call nothing of this object. Any thread.
    """

    def __init__(self, handle: _kvxmom.ServiceHandle) -> None:
        self._handle = handle

    def set_key(self, fields: Sequence[str], *, table: str = "") -> None:
        """By which fields rows of `table` ("": the only one) are told apart."""
        if isinstance(fields, str):
            raise TypeError("fields: a sequence of str is needed, not str")
        check("table", table, str)
        self._handle.set_key(table, fields)

    def commit(
        self, changes: Change | Iterable[Change], apply: Callable[[], object] | None = None
    ) -> None:
        """Calls `apply`, which changes the data, then tells the changes. When it raises, which must
        leave the data as they were, nothing is told. `InvalidArgument` while the member is not
        active, `QueueFull`, `Ended`: then `apply` is not called."""
        if apply is not None:
            check_function("apply", apply)
        self._handle.commit([changes] if isinstance(changes, Change) else changes, apply)

    def read(self, take: Callable[[], T]) -> tuple[Stamp, T]:
        """Calls `take`, and gives the stamp of the data that it saw and what it returned."""
        check_function("take", take)
        epoch, number, taken = self._handle.read(take)
        return Stamp(epoch, number), taken


class ServiceCalls(Holder[_kvxmom.ServiceHandle]):
    """The calls of a service before anybody waits for them: what both kinds of service share."""

    _kind = "service"
    _least_threads = 0

    def __init__(
        self,
        name: str,
        *,
        domain: str = "DEFAULT",
        daemon: str | Daemon = "",
        group: str = "",
        tier: int = 1,
        beats: bool = True,
        threads: int = 2,
        oldest_question: Seconds = 8.0,
        patience: Seconds = 8.0,
        send_rate: int = 100_000,
        most_waiting: int = 20_000,
    ) -> None:
        check("name", name, str)
        check("domain", domain, str)
        check("group", group, str)
        check("beats", beats, bool)
        address = daemon_of(daemon)
        self._arguments = (
            name,
            domain,
            address.service,
            address.network,
            address.daemon,
            group,
            count("tier", tier, 1),
            beats,
            count("threads", threads, self._least_threads),
            seconds("oldest_question", oldest_question),
            seconds("patience", patience),
            count("send_rate", send_rate, 1),
            count("most_waiting", most_waiting, 1),
        )
        self._changes: Changes | None = None
        self._begin()

    def _begin(self) -> None:
        pass

    def _opening(self) -> _kvxmom.Call[_kvxmom.ServiceHandle]:
        return _kvxmom.open_service(*self._arguments)

    def notify(self, rows: Mapping[str, Any] | Iterable[Mapping[str, Any]]) -> None:
        """Tells of changed rows. `QueueFull` when too much waits, `Ended` once it is ending. Any
        thread."""
        self._opened().notify([rows] if isinstance(rows, Mapping) else rows)

    def post(self, work: Callable[[], object]) -> None:
        """Has `work` called on the service's thread. `Ended` when it has ended. Any thread."""
        check_function("work", work)
        self._opened().post(work)

    def stop(self) -> None:
        """Ends `run`. Any thread."""
        if self._handle is not None:
            self._handle.stop()

    @property
    def is_active(self) -> bool:
        """Whether this member of the group is the one that answers."""
        return self._opened().is_active()

    @property
    def query_subject(self) -> str:
        """Where its questions come, domain included."""
        return self._opened().query_subject()

    def statistics(self) -> Statistics:
        """What has become of the questions since the start."""
        return Statistics(**self._opened().statistics())


def work_name(name: str | None, work: Callable[[], object]) -> str:
    """The name of what is done every so often."""
    check_function("work", work)
    named = name if name is not None else getattr(work, "__name__", "work")
    check("name", named, str)
    return str(named)


@contextlib.contextmanager
def _stopped_by_sigterm(stop: Callable[[], None]) -> Iterator[None]:
    """SIGTERM stops the service while it runs on the main thread, unless the program handles it."""
    isolated = threading.current_thread() is not threading.main_thread()
    if isolated or signal.getsignal(signal.SIGTERM) is not signal.SIG_DFL:
        yield
        return
    signal.signal(signal.SIGTERM, lambda *_: stop())
    try:
        yield
    finally:
        signal.signal(signal.SIGTERM, signal.SIG_DFL)


class Service(ServiceCalls, ClosingHolder[_kvxmom.ServiceHandle]):
    """A service of the bus: it answers questions, tells of changes, and is one of several members of
    which one is active. One at a time in a process, and none beside a `Client`.

    Its functions are given before `run`, as decorators or by calls. They are called on threads of
    its own, those that answer several at once. What a function raises that answers refuses the
    question, and unless it is a `Refused` also goes to `sys.unraisablehook`; so does what others
    raise. They must not wait for the service. Durations are seconds or `timedelta`.

    group:           members of one group, domain and tier stand by for one another; "" is none
    beats:           announced every 10 s, for `kvx services`
    threads:         that work on answers at once; 0: the service's thread answers
    oldest_question: a question that is older when its turn comes is dropped
    patience:        an answer of which nothing is taken for so long is ended
    send_rate:       messages a second at most
    most_waiting:    messages that may wait to be sent

    Connects. `NoDaemon` when nobody is there, `Busy` while another one is open.
    """

    def _begin(self) -> None:
        self._handle = self._opening().wait()

    def on_query(self, answer: Answer) -> Answer:
        """Has every question answered by `answer`: it gives the rows, as an iterable or by yielding
        them, or raises `Refused`. They leave a hundred at a time; a generator that is not read to
        its end is closed."""
        check_function("answer", answer)
        call = self._opened().on_query(answer)
        call.wait()
        return answer

    def on_role(self, changed: Callable[[bool], T]) -> Callable[[bool], T]:
        """Has `changed` called at the start and when this member becomes active (True) or
        standby."""
        check_function("changed", changed)
        call = self._opened().on_role(changed)
        call.wait()
        return changed

    @overload
    def on_message(
        self, subject: str
    ) -> Callable[[Callable[[Message], T]], Callable[[Message], T]]: ...
    @overload
    def on_message(
        self, subject: str, received: Callable[[Message], T]
    ) -> Callable[[Message], T]: ...
    def on_message(self, subject: str, received: Callable[[Message], T] | None = None) -> Any:
        """Has `received` called for every message on `subject` in the service's domain."""
        check("subject", subject, str)
        if received is None:
            return lambda given: self.on_message(subject, given)
        check_function("received", received)
        call = self._opened().on_message(subject, received)
        call.wait()
        return received

    def every(
        self, interval: Seconds, name: str | None = None
    ) -> Callable[[Callable[[], T]], Callable[[], T]]:
        """Has the decorated function called every `interval`, rounded up to 100 ms, while the
        service runs, and never while it is still running. `name` is that of the function, if none is
        given; each needs its own."""
        wanted = seconds("interval", interval)

        def add(work: Callable[[], T]) -> Callable[[], T]:
            call = self._opened().every(wanted, work_name(name, work), work)
            call.wait()
            return work

        return add

    @property
    def changes(self) -> Changes:
        """Its numbered changes. The first use makes it a service that numbers, before `run`."""
        if self._changes is None:
            call = self._opened().numbers()
            call.wait()
            self._changes = Changes(self._opened())
        return self._changes

    def run(self) -> None:
        """Works until `stop`, SIGTERM or Ctrl-C; then sends what is queued, leaves the group and is
        closed. Ctrl-C raises KeyboardInterrupt after that. `Lost` when not all could be sent."""
        handle = self._opened()
        try:
            with _stopped_by_sigterm(self.stop):
                call = handle.run()
                call.wait()
        finally:
            self.close()
