"""The event emitter."""
from orvo_core._native import EventEmitter

__all__ = ["EventEmitter"]
