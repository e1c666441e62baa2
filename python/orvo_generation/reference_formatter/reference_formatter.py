"""Defines a base class for reference formatters used in Gen AI applications."""
from orvo_core._abstract import require_override
from orvo_core._native import (
    DEFAULT_FORMAT_CHUNK_METADATA_MAP,
    BaseReferenceFormatter,
    format_chunk_as_string,
    format_references_as_string,
)

require_override(BaseReferenceFormatter, "_get_relevant_chunks")

__all__ = [
    "DEFAULT_FORMAT_CHUNK_METADATA_MAP",
    "BaseReferenceFormatter",
    "format_chunk_as_string",
    "format_references_as_string",
]
