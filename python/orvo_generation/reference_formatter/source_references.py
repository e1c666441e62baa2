"""References with one numbered entry per source."""
from orvo_core._native import (
    SourceReference,
    format_chunk_as_source,
    format_references_by_source,
    group_by_source,
    source_numbers,
)

__all__ = [
    "SourceReference",
    "format_chunk_as_source",
    "format_references_by_source",
    "group_by_source",
    "source_numbers",
]
