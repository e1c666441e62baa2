from collections.abc import Callable, Mapping, Sequence

from orvo_core.schema import Chunk, PendingCall
from orvo_generation.reference_formatter.reference_formatter import BaseReferenceFormatter
from orvo_generation.reference_formatter.scored_chunks import ScoredChunks
from orvo_inference.em_invoker.em_invoker import SupportsInvoke

DEFAULT_THRESHOLD: float

class SimilarityBasedReferenceFormatter(BaseReferenceFormatter):
    """Keeps the chunks whose content embedding is similar enough to the response's."""

    threshold: float
    em_invoker: SupportsInvoke
    stream_scores: bool
    def __init__(
        self,
        em_invoker: SupportsInvoke,
        threshold: float = 0.5,
        stringify: bool = True,
        format_references_func: Callable[[list[str]], str] | None = None,
        format_chunk_func: Callable[[Chunk], str] | None = None,
        format_chunk_metadata_map: Mapping[str, str] | None = None,
        streamable: bool = True,
        *,
        stream_scores: bool = False,
    ) -> None: ...
    def _get_relevant_chunks(
        self, response: str, chunks: Sequence[Chunk]
    ) -> PendingCall[list[Chunk]]: ...
    def score_chunks(
        self, response: str, chunks: Sequence[Chunk]
    ) -> PendingCall[ScoredChunks]: ...
