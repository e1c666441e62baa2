"""Embedding-model invokers."""
from orvo_core._native import LexicalEMInvoker, OpenAIEMInvoker
from orvo_inference.em_invoker.em_invoker import BaseEMInvoker, SupportsInvoke

__all__ = ["BaseEMInvoker", "LexicalEMInvoker", "OpenAIEMInvoker", "SupportsInvoke"]
