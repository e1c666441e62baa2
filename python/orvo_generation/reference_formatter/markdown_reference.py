"""Reference entries that are valid Markdown whatever their titles and addresses hold."""
from orvo_core._native import (
    encode_link_destination,
    escape_markdown_text,
    format_chunk_as_markdown,
)

__all__ = ["encode_link_destination", "escape_markdown_text", "format_chunk_as_markdown"]
