from collections.abc import Awaitable, Sequence
from typing import Any

from orvo_core.event import SupportsEmit
from orvo_core.schema import Component, PendingCall

class BaseResponseSynthesizer(Component):
    """Defines a base class for response synthesizers. Subclasses override
    `synthesize_response`."""

    streamable: bool
    def __init__(self, streamable: bool = True) -> None: ...
    def _run(self, **kwargs: Any) -> PendingCall[Any]: ...
    def synthesize_response(
        self,
        query: str | None = None,
        state_variables: dict[str, Any] | None = None,
        history: Sequence[Any] | None = None,
        event_emitter: SupportsEmit | None = None,
        system_multimodal_contents: Any = None,
        user_multimodal_contents: Any = None,
    ) -> Awaitable[str]: ...
    def _format_input_event(self, input_dict: dict[str, Any]) -> str: ...
    def _format_output_event(self, output: Any) -> str: ...
