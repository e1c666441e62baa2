"""Core types of the orvo libraries: chunks, components, events and similarity."""
from orvo_core import _public  # noqa: F401 - names the public homes of the bound classes
