"""The base type of embedding-model invokers."""
from orvo_core._native import BaseEMInvoker

__all__ = ["BaseEMInvoker"]
