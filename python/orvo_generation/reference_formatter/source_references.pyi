from collections.abc import Callable, Mapping, Sequence
from typing import Any

from orvo_core.schema import Chunk

class SourceReference:
    """One entry of merged references."""

    @property
    def title(self) -> Any: ...
    @property
    def url(self) -> Any: ...
    @property
    def sections(self) -> list[str]: ...
    @property
    def positions(self) -> list[int]: ...

def format_chunk_as_source(
    metadata_map: Mapping[str, str] | None = None, section_key: str | None = None
) -> Callable[[Chunk], dict[str, Any]]:
    """Creates a function that gives a chunk's title, address and section."""

def format_references_by_source(formatted_chunks: Sequence[Any] | None) -> str:
    """Formats references with one numbered entry per source."""

def group_by_source(
    chunks: Sequence[Chunk],
    metadata_map: Mapping[str, str] | None = None,
    section_key: str | None = None,
) -> list[SourceReference]:
    """Merges chunks of the same source, in order of first appearance."""

def source_numbers(sources: Sequence[SourceReference], count: int) -> list[int]:
    """The reference number of each chunk."""
