from collections.abc import Callable, Mapping, Sequence
from typing import Any, ClassVar

from orvo_core.schema import Chunk, PendingCall
from orvo_generation.reference_formatter.reference_formatter import BaseReferenceFormatter
from orvo_inference.em_invoker.em_invoker import SupportsInvoke
from orvo_inference.request_processor import SupportsProcess, UsesLM

DEFAULT_BATCH_SIZE: int
DEFAULT_REFERENCE_METADATA: str

# Reads one batch's answer: (lm_output, batch_chunks, reference_metadata) -> selected positions.
_AnswerParser = Callable[[Any, list[Chunk], Any], Sequence[int]]

class BatchFailurePolicy:
    """What a batch whose judging failed keeps."""

    RAISE: ClassVar[BatchFailurePolicy]
    DROP: ClassVar[BatchFailurePolicy]
    KEEP: ClassVar[BatchFailurePolicy]
    SIMILARITY: ClassVar[BatchFailurePolicy]
    @property
    def name(self) -> str: ...

class LMBasedReferenceFormatter(BaseReferenceFormatter, UsesLM):
    """Lets a language model judge which chunks are relevant, a batch at a time."""

    lm_request_processor: SupportsProcess
    batch_size: Any
    reference_metadata: Any
    max_concurrency: int
    on_batch_failure: BatchFailurePolicy
    answer_parser: _AnswerParser | None
    fallback_em_invoker: SupportsInvoke | None
    fallback_threshold: float
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
        *,
        max_concurrency: int = 1,
        on_batch_failure: BatchFailurePolicy = ...,
        answer_parser: _AnswerParser | None = None,
        fallback_em_invoker: SupportsInvoke | None = None,
        fallback_threshold: float = 0.5,
    ) -> None: ...
    def _get_relevant_chunks(
        self, response: str, chunks: Sequence[Chunk]
    ) -> PendingCall[list[Chunk]]: ...
    def _format_batch_context(self, chunks: Sequence[Chunk]) -> str: ...
    def _format_chunk_as_context(self, chunk: Chunk) -> str: ...
