"""Defines a reference formatter that lets a language model judge the chunks."""
import orvo_generation.reference_formatter.reference_formatter  # noqa: F401 - abstract base
from orvo_core._native import (
    DEFAULT_BATCH_SIZE,
    DEFAULT_REFERENCE_METADATA,
    BatchFailurePolicy,
    LMBasedReferenceFormatter,
)

__all__ = [
    "DEFAULT_BATCH_SIZE",
    "DEFAULT_REFERENCE_METADATA",
    "BatchFailurePolicy",
    "LMBasedReferenceFormatter",
]
