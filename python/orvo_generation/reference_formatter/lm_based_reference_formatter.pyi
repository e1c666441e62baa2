from collections.abc import Callable, Mapping, Sequence
from typing import Any

from orvo_core.schema import Chunk, PendingCall
from orvo_generation.reference_formatter.reference_formatter import BaseReferenceFormatter
from orvo_inference.request_processor import SupportsProcess, UsesLM

DEFAULT_BATCH_SIZE: int
DEFAULT_REFERENCE_METADATA: str

class LMBasedReferenceFormatter(BaseReferenceFormatter, UsesLM):
    """Lets a language model judge which chunks are relevant, a batch at a time."""

    lm_request_processor: SupportsProcess
    batch_size: Any
    reference_metadata: Any
    def __init__(
        self,
        lm_request_processor: SupportsProcess,
        batch_size: int = 5,
        reference_metadata: str = "file_name",
        stringify: bool = True,
        format_references_func: Callable[[list[str]], str] | None = None,
        format_chunk_func: Callable[[Chunk], str] | None = None,
        format_chunk_metadata_map: Mapping[str, str] | None = None,
        streamable: bool = True,
    ) -> None: ...
    def _get_relevant_chunks(
        self, response: str, chunks: Sequence[Chunk]
    ) -> PendingCall[list[Chunk]]: ...
    def _format_batch_context(self, chunks: Sequence[Chunk]) -> str: ...
    def _format_chunk_as_context(self, chunk: Chunk) -> str: ...
