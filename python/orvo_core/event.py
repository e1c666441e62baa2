"""The event emitter, and the shape of any object that serves as one."""
from typing import Protocol, runtime_checkable

from orvo_core._native import EventEmitter


@runtime_checkable
class SupportsEmit(Protocol):
    """What components need of an `event_emitter`: an `EventEmitter` or any object like this."""

    async def emit(self, value, level, type, /):  # noqa: A002 - the contract's own name
        """Takes one event: its text, an `EventLevel` and an `EventType`."""


__all__ = ["EventEmitter", "SupportsEmit"]
