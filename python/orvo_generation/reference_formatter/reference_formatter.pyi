from collections.abc import Awaitable, Callable, Mapping, Sequence
from typing import Any

from orvo_core.event import SupportsEmit
from orvo_core.schema import Chunk, Component, PendingCall

# A format_chunk_metadata_map: the placeholder of the reference text ("title", "url") to the
# metadata key whose value fills it.
DEFAULT_FORMAT_CHUNK_METADATA_MAP: dict[str, str]

def format_references_as_string(formatted_chunks: Sequence[str] | None) -> str:
    """Formats a list of formatted chunks as a string of references."""

def format_chunk_as_string(metadata_map: Mapping[str, str] | None) -> Callable[[Chunk], str]:
    """Creates a function that formats a chunk as a string of reference."""

class BaseReferenceFormatter(Component):
    """Defines a base class for reference formatters. Subclasses override
    `_get_relevant_chunks`."""

    stringify: bool
    streamable: bool
    format_references_func: Callable[[list[str]], str]
    format_chunk_func: Callable[[Chunk], str]
    def __init__(
        self,
        stringify: bool = True,
        format_references_func: Callable[[list[str]], str] | None = None,
        format_chunk_func: Callable[[Chunk], str] | None = None,
        format_chunk_metadata_map: Mapping[str, str] | None = None,
        streamable: bool = True,
    ) -> None: ...
    def _run(self, **kwargs: Any) -> PendingCall[Any]: ...
    def format_reference(
        self, response: str, chunks: Sequence[Chunk], event_emitter: SupportsEmit | None = None
    ) -> Awaitable[str | list[Chunk]]: ...
    def _get_relevant_chunks(
        self, response: str, chunks: Sequence[Chunk]
    ) -> Awaitable[list[Chunk]]: ...
    def _format_as_string(self, chunks: Sequence[Chunk]) -> str: ...
    def _format_input_event(self, input_dict: dict[str, Any]) -> str: ...
    def _format_output_event(self, output: Any) -> str: ...
