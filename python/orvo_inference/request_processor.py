"""The language-model request processor and the `UsesLM` mixin, and the shape of any object that
serves as a request processor."""
from typing import Protocol, runtime_checkable

from orvo_core._native import (
    BaseLMInvoker,
    BudgetReport,
    ContextBudget,
    BaseOutputParser,
    ExtractiveRequestProcessor,
    JsonOutputParser,
    LMRequestProcessor,
    OpenAILMInvoker,
    PromptTemplate,
    TextOutputParser,
    UsesLM,
    estimate_tokens,
)


@runtime_checkable
class SupportsProcess(Protocol):
    """What components need of an `lm_request_processor`: an `LMRequestProcessor` or any object
    like this."""

    async def process(self, prompt_kwargs, history=None, *, event_emitter=None,
                      system_multimodal_contents=None, user_multimodal_contents=None):
        """Answers the prompt built from `prompt_kwargs` and the chat `history`."""


__all__ = [
    "BudgetReport",
    "ContextBudget",
    "ExtractiveRequestProcessor",
    "JsonOutputParser",
    "LMRequestProcessor",
    "OpenAILMInvoker",
    "PromptTemplate",
    "SupportsProcess",
    "TextOutputParser",
    "UsesLM",
    "estimate_tokens",
]

