"""Public homes of the bound classes and functions: help(), reprs and editors show the module a
user imports them from, not the extension. Set once, when the extension is first imported."""
from orvo_core import _native

_HOMES = {
    "orvo_core.constants": ["EventLevel", "EventType"],
    "orvo_core.event": ["EventEmitter"],
    "orvo_core.schema": ["Chunk", "Component", "MetadataView", "Object", "PendingCall"],
    "orvo_core.utils.similarity": ["cosine"],
    "orvo_inference.em_invoker": ["LexicalEMInvoker", "OpenAIEMInvoker"],
    "orvo_inference.em_invoker.em_invoker": ["BaseEMInvoker"],
    "orvo_inference.request_processor": [
        "BaseLMInvoker",
        "BaseOutputParser",
        "ExtractiveRequestProcessor",
        "JsonOutputParser",
        "LMRequestProcessor",
        "OpenAILMInvoker",
        "PromptTemplate",
        "TextOutputParser",
        "UsesLM",
    ],
    "orvo_generation.reference_formatter.reference_formatter": [
        "BaseReferenceFormatter",
        "format_chunk_as_string",
        "format_references_as_string",
    ],
    "orvo_generation.reference_formatter.lm_based_reference_formatter": [
        "LMBasedReferenceFormatter"
    ],
    "orvo_generation.reference_formatter.similarity_based_reference_formatter": [
        "SimilarityBasedReferenceFormatter"
    ],
    "orvo_generation.response_synthesizer.response_synthesizer": ["BaseResponseSynthesizer"],
    "orvo_generation.response_synthesizer.static_list_response_synthesizer": [
        "StaticListResponseSynthesizer"
    ],
    "orvo_generation.response_synthesizer.stuff_response_synthesizer": [
        "StuffResponseSynthesizer"
    ],
}

for _module, _names in _HOMES.items():
    for _name in _names:
        getattr(_native, _name).__module__ = _module
# Every exception of the extension is an error of the HTTP collaborators.
for _value in vars(_native).values():
    if isinstance(_value, type) and issubclass(_value, Exception):
        _value.__module__ = "orvo_inference.errors"
