"""Defines a response synthesizer that stuffs every input into one language-model request."""
import orvo_generation.response_synthesizer.response_synthesizer  # noqa: F401 - abstract base
from orvo_core._native import StuffResponseSynthesizer

__all__ = ["StuffResponseSynthesizer"]
