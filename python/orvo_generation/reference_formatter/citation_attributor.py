"""Inline citations: each sentence of a response marked with the references that support it."""
from orvo_core._native import Attribution, CitationAttributor, SentenceAttribution

__all__ = ["Attribution", "CitationAttributor", "SentenceAttribution"]
