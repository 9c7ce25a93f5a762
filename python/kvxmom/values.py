"""What is sent and heard: rows, messages, fields with a type, changes."""

from __future__ import annotations

import datetime
import math
from typing import Any, Dict, Iterable, Literal, Mapping, NamedTuple, Optional, Tuple, Union

from ._kvxmom import Message

#: A value of a row or message as it is received. A row has no datetime and no message, a float of
#: it comes as text and a bool as 0 or 1.
Value = Union[None, bool, int, float, str, bytes, datetime.datetime, Message]

#: A row: values by name, in order.
Row = Dict[str, Value]

#: The exact types of a message's fields.
FieldType = Literal[
    "str", "i8", "i16", "i32", "i64", "u8", "u16", "u32", "u64", "f32", "f64", "bool", "ip", "port",
    "subject", "datetime", "bytes", "message",
]  # fmt: skip


class Field(NamedTuple):
    """A field of a message with its exact type; without one, that which suits the value."""

    name: str
    value: Any
    type: Optional[str] = None


#: What can be sent: a message, a mapping, fields or pairs of a name and a value.
Sendable = Union[
    Message, Mapping[str, Any], Iterable[Union[Field, Tuple[str, Any], Tuple[str, Any, str]]]
]


class Delivery(NamedTuple):
    """A message that was heard."""

    subject: str
    reply_subject: str  #: empty when no answer is asked for
    message: Message


class Change(NamedTuple):
    """A row that is followed, or a change of one.

    kind:           "row" is a row of the first answer; of a deleted row the fields are those that it
                    had
    table:          empty when the change names none
    resynchronised: part of the difference that replaces changes which could not be had one by one
    """

    kind: Literal["row", "inserted", "changed", "deleted"]
    row: Mapping[str, Any]
    table: str = ""
    resynchronised: bool = False


class Connection(NamedTuple):
    """Whether a client has its daemon."""

    is_there: bool
    address: str  #: of the daemon, as it was tried
    why: str  #: it is not there; empty when it is


class Daemon(NamedTuple):
    """The address of the bus. What is empty comes from the daemon configuration file."""

    daemon: str = ""  #: "tcp:7500", "tcp:host:7500" or "unix:/path"
    service: str = ""
    network: str = ""


class Stamp(NamedTuple):
    """A point in the changes of a service."""

    epoch: int
    number: int


class Totals(NamedTuple):
    """What came of an answer so far. Bytes are those of its records."""

    packets: int
    plain_bytes: int  #: uncompressed
    sent_bytes: int  #: as received
    ignored: int  #: packets of others that answered too
    is_complete: bool
    unreadable: int  #: records
    remark: str  #: of the service


class Statistics(NamedTuple):
    """What has become of the questions to a service."""

    answered: int
    held: int
    refused: int
    dropped: int
    abandoned: int
    waiting: int


# --- Checks of arguments: a wrong type is a TypeError that names the argument -------------------


def check(name: str, value: object, *types: type) -> None:
    if isinstance(value, types) and not (isinstance(value, bool) and bool not in types):
        return
    expected = " or ".join("None" if one is type(None) else one.__name__ for one in types)
    raise TypeError(f"{name}: {expected} is needed, not {type(value).__name__}")


def check_function(name: str, value: object) -> None:
    if not callable(value):
        raise TypeError(f"{name}: a function is needed, not {type(value).__name__}")


def seconds(name: str, value: float | datetime.timedelta) -> float:
    """A duration above 0 as seconds."""
    check(name, value, int, float, datetime.timedelta)
    number = value.total_seconds() if isinstance(value, datetime.timedelta) else float(value)
    if math.isnan(number) or number <= 0:
        raise ValueError(f"{name}: {number} is not above 0")
    return number


def seconds_or_none(name: str, value: float | datetime.timedelta | None) -> float | None:
    return None if value is None else seconds(name, value)


def count(name: str, value: int, least: int) -> int:
    check(name, value, int)
    if not least <= value < 2**31:
        raise ValueError(f"{name}: {value} is not {least} to {2**31 - 1}")
    return value


def daemon_of(value: str | Daemon) -> Daemon:
    if isinstance(value, str):
        return Daemon(value)
    check("daemon", value, str, Daemon)
    return value


def columns_of(rows: Iterable[Row]) -> dict[str, list[Value]]:
    """Rows as columns. Where a row has no such field stands None."""
    columns: dict[str, list[Value]] = {}
    number = 0
    for number, row in enumerate(rows, 1):
        for name, value in row.items():
            column = columns.setdefault(name, [])
            column.extend([None] * (number - 1 - len(column)))
            column.append(value)
    for column in columns.values():
        column.extend([None] * (number - len(column)))
    return columns
