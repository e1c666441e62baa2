"""The similarity formatter's decision with the scores behind it."""
from orvo_core._native import ScoredChunk, ScoredChunks

__all__ = ["ScoredChunk", "ScoredChunks"]
