from collections.abc import Sequence
from typing import Protocol, overload, runtime_checkable

from orvo_core.schema import Object, PendingCall
from orvo_core.utils.similarity import _Vector, _Vectors

class BaseEMInvoker(Object):
    """The base type of embedding-model invokers."""

    @overload
    def invoke(self, text: str) -> PendingCall[list[float]]: ...
    @overload
    def invoke(self, text: Sequence[str]) -> PendingCall[list[list[float]]]: ...

@runtime_checkable
class SupportsInvoke(Protocol):
    """What components need of an `em_invoker`: a `BaseEMInvoker` or any object like this."""

    @overload
    async def invoke(self, text_or_texts: str, /) -> _Vector: ...
    @overload
    async def invoke(self, text_or_texts: list[str], /) -> _Vectors: ...
