"""What clients and services of both kinds share: a handle of the module, and how it is closed."""

from __future__ import annotations

from typing import Generic, TypeVar

from . import _kvxmom
from .errors import Ended

H = TypeVar("H", _kvxmom.ClientHandle, _kvxmom.ServiceHandle)
C = TypeVar("C", bound="Closing")


class Holder(Generic[H]):
    """Has a handle while it is open."""

    _kind: str
    _handle: H | None = None

    def _opened(self) -> H:
        if self._handle is None:
            raise Ended(f"the {self._kind} is not open")
        return self._handle

    def _closing(self) -> _kvxmom.Call[None] | None:
        handle, self._handle = self._handle, None
        return None if handle is None else handle.close()


class Closing:
    """Is closed when the block of a `with` is left."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self: C) -> C:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class ClosingHolder(Holder[H], Closing):
    def close(self) -> None:
        """Ends it: what waits gets `Ended`. Waits until no function given to it runs, unless called
        by one."""
        call = self._closing()
        if call is not None:
            call.wait()
