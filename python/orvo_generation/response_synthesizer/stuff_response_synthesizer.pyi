from orvo_generation.response_synthesizer.response_synthesizer import BaseResponseSynthesizer
from orvo_inference.request_processor import SupportsProcess, UsesLM

class StuffResponseSynthesizer(BaseResponseSynthesizer, UsesLM):
    """Synthesizes the response with one language-model request."""

    lm_request_processor: SupportsProcess
    def __init__(self, lm_request_processor: SupportsProcess, streamable: bool = True) -> None: ...
