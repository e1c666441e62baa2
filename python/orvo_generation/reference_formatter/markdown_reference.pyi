from collections.abc import Callable, Mapping

from orvo_core.schema import Chunk

def escape_markdown_text(text: str, line_start: bool = False) -> str:
    """Escapes text so that Markdown shows it as it is."""

def encode_link_destination(url: str) -> str:
    """Encodes an address so that it stays one Markdown link destination."""

def format_chunk_as_markdown(
    metadata_map: Mapping[str, str] | None = None,
) -> Callable[[Chunk], str | None]:
    """Creates a function that formats a chunk as a Markdown-safe reference entry."""
