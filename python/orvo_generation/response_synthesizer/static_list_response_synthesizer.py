"""Defines a response synthesizer that synthesizes a static list response."""
import orvo_generation.response_synthesizer.response_synthesizer  # noqa: F401 - abstract base
from orvo_core._native import (
    DEFAULT_FALLBACK_RESPONSE,
    DEFAULT_RESPONSE_PREFIX,
    StaticListResponseSynthesizer,
)

__all__ = ["DEFAULT_FALLBACK_RESPONSE", "DEFAULT_RESPONSE_PREFIX", "StaticListResponseSynthesizer"]
