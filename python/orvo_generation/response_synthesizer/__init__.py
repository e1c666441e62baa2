"""Modules concerning the response synthesizers used in Gen AI applications."""
from orvo_generation.response_synthesizer.static_list_response_synthesizer import (
    StaticListResponseSynthesizer,
)
from orvo_generation.response_synthesizer.stuff_response_synthesizer import (
    StuffResponseSynthesizer,
)

__all__ = ["StaticListResponseSynthesizer", "StuffResponseSynthesizer"]
