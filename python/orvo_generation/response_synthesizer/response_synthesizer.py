"""Defines a base class for response synthesizers used in Gen AI applications."""
from orvo_core._abstract import require_override
from orvo_core._native import BaseResponseSynthesizer

require_override(BaseResponseSynthesizer, "synthesize_response")

__all__ = ["BaseResponseSynthesizer"]
