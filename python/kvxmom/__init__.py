"""Services and clients on the bus.

    import kvxmom

    with kvxmom.Client() as client:
        for row in client.query("Links", "*"):
            print(row["name"], row["state"])

`Client` asks, sends and listens; `Service` answers, notifies and stands by. `kvxmom.aio` has both for
asyncio. Failures are `kvxmom.Error` with a code and a text.
"""

from __future__ import annotations

import atexit as _atexit
import os as _os

from . import _kvxmom
from ._kvxmom import Message, Question
from .client import Client, Rows, Subscription
from .errors import (
    Busy,
    Code,
    Ended,
    Error,
    InvalidArgument,
    Lost,
    MixedAnswers,
    NoDaemon,
    NoMemory,
    Partial,
    QueueFull,
    Refused,
    TimedOut,
)
from .service import Changes, Service
from .values import (
    Change,
    Connection,
    Daemon,
    Delivery,
    Field,
    FieldType,
    Row,
    Sendable,
    Stamp,
    Statistics,
    Totals,
    Value,
)

_atexit.register(_kvxmom.leave)
_os.register_at_fork(after_in_child=_kvxmom.after_fork)

__all__ = [
    "Busy",
    "Change",
    "Changes",
    "Client",
    "Code",
    "Connection",
    "Daemon",
    "Delivery",
    "Ended",
    "Error",
    "Field",
    "FieldType",
    "InvalidArgument",
    "Lost",
    "Message",
    "MixedAnswers",
    "NoDaemon",
    "NoMemory",
    "Partial",
    "Question",
    "QueueFull",
    "Refused",
    "Row",
    "Rows",
    "Sendable",
    "Service",
    "Stamp",
    "Statistics",
    "Subscription",
    "TimedOut",
    "Totals",
    "Value",
]
