"""Cosine similarity of embeddings."""
from orvo_core._native import cosine

__all__ = ["cosine"]
