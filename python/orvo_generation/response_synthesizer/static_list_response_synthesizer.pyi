from orvo_generation.response_synthesizer.response_synthesizer import BaseResponseSynthesizer

DEFAULT_RESPONSE_PREFIX: str
DEFAULT_FALLBACK_RESPONSE: str

class StaticListResponseSynthesizer(BaseResponseSynthesizer):
    """Synthesizes the response as the prefix and the state's `context_list`, one item a line;
    the fallback response when the list is empty."""

    preceding_line: str
    fallback_response: str
    delimiter: str
    def __init__(
        self,
        response_prefix: str = ...,
        fallback_response: str = ...,
        delimiter: str = "\n",
        streamable: bool = True,
    ) -> None: ...
