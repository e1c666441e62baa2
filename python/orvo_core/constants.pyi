from typing import ClassVar, Self

class _BoundEnum:
    __members__: ClassVar[dict[str, Self]]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    def __index__(self) -> int: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class EventLevel(_BoundEnum):
    """The level of an event."""

    TRACE: ClassVar[EventLevel]
    INFO: ClassVar[EventLevel]
    WARNING: ClassVar[EventLevel]
    ERROR: ClassVar[EventLevel]

class EventType(_BoundEnum):
    """The type of an event."""

    STATUS: ClassVar[EventType]
    RESPONSE: ClassVar[EventType]
    DATA: ClassVar[EventType]
