"""Event levels and types."""
from orvo_core._native import EventLevel, EventType

__all__ = ["EventLevel", "EventType"]
