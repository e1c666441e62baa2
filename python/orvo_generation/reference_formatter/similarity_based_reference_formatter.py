"""Defines a reference formatter that keeps the chunks similar to the response."""
import orvo_generation.reference_formatter.reference_formatter  # noqa: F401 - abstract base
from orvo_core._native import DEFAULT_THRESHOLD, SimilarityBasedReferenceFormatter

__all__ = ["DEFAULT_THRESHOLD", "SimilarityBasedReferenceFormatter"]
