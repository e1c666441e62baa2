"""Chunks and the component base."""
from collections.abc import MutableMapping

from orvo_core._native import Chunk, Component, MetadataView, Object, PendingCall

MutableMapping.register(MetadataView)

__all__ = ["Chunk", "Component"]
