"""Chat roles."""
from enum import StrEnum


class PromptRole(StrEnum):
    """The role of a turn of a conversation, spelled as chat APIs spell it."""

    SYSTEM = "system"
    USER = "user"
    ASSISTANT = "assistant"


__all__ = ["PromptRole"]
