from collections.abc import Sequence

from orvo_core.schema import Chunk, PendingCall
from orvo_generation.reference_formatter.scored_chunks import ScoredChunks
from orvo_inference.em_invoker.em_invoker import SupportsInvoke

class SentenceAttribution:
    """A sentence and the references that support it."""

    @property
    def sentence(self) -> str: ...
    @property
    def begin(self) -> int: ...
    @property
    def references(self) -> list[int]: ...
    @property
    def best_score(self) -> float: ...

class Attribution:
    """A response with inline citations."""

    @property
    def text(self) -> str: ...
    @property
    def sentences(self) -> list[SentenceAttribution]: ...
    @property
    def unsupported(self) -> list[int]: ...

class CitationAttributor:
    """Marks each sentence with the references that support it."""

    em_invoker: SupportsInvoke
    threshold: float
    max_markers: int
    def __init__(
        self, em_invoker: SupportsInvoke, threshold: float = 0.5, max_markers: int = 3
    ) -> None: ...
    def attribute(
        self,
        response: str,
        chunks: ScoredChunks | Sequence[Chunk],
        reference_numbers: Sequence[int] | None = None,
    ) -> PendingCall[Attribution]: ...
