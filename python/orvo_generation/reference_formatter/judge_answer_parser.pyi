from collections.abc import Sequence
from typing import Any

from orvo_core.schema import Chunk

def parse_judge_answer(
    lm_output: Any, batch_chunks: Sequence[Chunk], reference_metadata: Any
) -> list[int]:
    """Reads a judge's answer leniently: the positions of the batch's chunks it selects."""

def read_judge_answer(
    lm_output: Any, batch_chunks: Sequence[Chunk], reference_metadata: Any
) -> list[int]:
    """Reads a judge's answer strictly: a map whose entry lists the labels it selects."""
