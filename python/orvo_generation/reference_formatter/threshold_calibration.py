"""A similarity threshold suggested by labelled scores."""
from orvo_core._native import ThresholdSuggestion, suggest_threshold

__all__ = ["ThresholdSuggestion", "suggest_threshold"]
