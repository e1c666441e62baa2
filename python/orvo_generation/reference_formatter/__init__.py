"""Modules concerning the reference formatters used in Gen AI applications."""
from orvo_generation.reference_formatter.lm_based_reference_formatter import (
    LMBasedReferenceFormatter,
)
from orvo_generation.reference_formatter.similarity_based_reference_formatter import (
    SimilarityBasedReferenceFormatter,
)

__all__ = ["LMBasedReferenceFormatter", "SimilarityBasedReferenceFormatter"]
