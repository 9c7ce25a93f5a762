"""Failures of the bus, each with a code and a text."""

from __future__ import annotations

import enum
from typing import Any, Sequence


class Code(enum.IntEnum):
    """Why a call failed."""

    INVALID_ARGUMENT = 1
    NO_DAEMON = 2
    LOST = 3
    TIMED_OUT = 4
    PARTIAL = 5
    MIXED_ANSWERS = 6
    REFUSED = 7
    QUEUE_FULL = 8
    NO_MEMORY = 9
    ENDED = 10
    BUSY = 11


class Error(Exception):
    """A call of this package failed. Each code has a subclass of its own.

    code:  why, as a value
    text:  the particulars; may be empty
    tried: what was being done: "query Links"
    rows:  what came of an answer that is not whole, and what a refusal says more
    """

    code: Code = Code.INVALID_ARGUMENT

    def __init__(self, text: str = "", *, tried: str = "", rows: Sequence[dict[str, Any]] = ()):
        super().__init__(text)
        self.text = text
        self.tried = tried
        self.rows = list(rows)

    def __str__(self) -> str:
        words = self.code.name.lower().replace("_", " ")
        return ": ".join(str(part) for part in (self.tried, words, self.text) if part)


class InvalidArgument(Error, ValueError):
    """Nothing was done; the text says why."""

    code = Code.INVALID_ARGUMENT


class NoDaemon(Error, ConnectionError):
    """The bus could not be reached."""

    code = Code.NO_DAEMON


class Lost(Error, ConnectionError):
    """The connection to the bus was lost meanwhile."""

    code = Code.LOST


class TimedOut(Error, TimeoutError):
    """Nobody answered in time."""

    code = Code.TIMED_OUT


class Partial(Error):
    """An answer stopped before its end; `rows` came before."""

    code = Code.PARTIAL


class MixedAnswers(Error):
    """The packets of an answer are not 1 to N, each once."""

    code = Code.MIXED_ANSWERS


class Refused(Error):
    """The service answered with an error. A function that answers questions raises it to refuse one.

    position: the place in the text of the question, from 1; 0 is none. Set by who refuses.
    """

    code = Code.REFUSED

    def __init__(
        self,
        text: str = "",
        *,
        position: int = 0,
        tried: str = "",
        rows: Sequence[dict[str, Any]] = (),
    ):
        super().__init__(text, tried=tried, rows=rows)
        self.position = position


class QueueFull(Error):
    """As much waits to be sent, or taken, as may wait."""

    code = Code.QUEUE_FULL


class NoMemory(Error, MemoryError):
    """There is no memory."""

    code = Code.NO_MEMORY


class Ended(Error):
    """The client or service has ended."""

    code = Code.ENDED


class Busy(Error):
    """Another client or service of this process is open."""

    code = Code.BUSY


_ALL: tuple[type[Error], ...] = (
    InvalidArgument, NoDaemon, Lost, TimedOut, Partial, MixedAnswers, Refused, QueueFull, NoMemory,
    Ended, Busy,
)  # fmt: skip
_CLASSES = {int(one.code): one for one in _ALL}


def _made(code: int, text: str, tried: str, rows: list[dict[str, Any]]) -> Error:
    return _CLASSES.get(code, Error)(text, tried=tried, rows=rows)
