from collections.abc import Awaitable
from typing import Protocol, runtime_checkable

from orvo_core.constants import EventLevel, EventType
from orvo_core.schema import Object, PendingCall

class EventEmitter(Object):
    """The sink of the events of a component invocation. Subclasses override `emit`."""

    def __init__(self) -> None: ...
    def emit(self, value: str, level: EventLevel, type: EventType) -> Awaitable[None]: ...

@runtime_checkable
class SupportsEmit(Protocol):
    """What components need of an `event_emitter`: an `EventEmitter` or any object like this."""

    async def emit(self, value: str, level: EventLevel, type: EventType, /) -> None: ...
