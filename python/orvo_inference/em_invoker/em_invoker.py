"""The base type of embedding-model invokers, and the shape of any object that serves as one."""
from typing import Protocol, runtime_checkable

from orvo_core._native import BaseEMInvoker


@runtime_checkable
class SupportsInvoke(Protocol):
    """What components need of an `em_invoker`: a `BaseEMInvoker` or any object like this."""

    async def invoke(self, text_or_texts, /):
        """Embeds one text (a vector) or a list of texts (a list of vectors, or a 2-D buffer)."""


__all__ = ["BaseEMInvoker", "SupportsInvoke"]
