"""The language-model request processor and the `UsesLM` mixin."""
from orvo_core._native import (
    ExtractiveRequestProcessor,
    JsonOutputParser,
    LMRequestProcessor,
    OpenAILMInvoker,
    PromptTemplate,
    TextOutputParser,
    UsesLM,
)

__all__ = [
    "ExtractiveRequestProcessor",
    "JsonOutputParser",
    "LMRequestProcessor",
    "OpenAILMInvoker",
    "PromptTemplate",
    "TextOutputParser",
    "UsesLM",
]
