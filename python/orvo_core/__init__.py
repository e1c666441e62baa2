"""Core types of the orvo libraries: chunks, components, events and similarity."""
