"""Errors of the HTTP collaborators."""
from orvo_core._native import (
    ConnectError,
    ConnectionClosedError,
    HttpStatusError,
    InferenceError,
    MalformedReplyError,
    OutputParserError,
    TimeoutError,  # noqa: A004 - the library's own, derived from InferenceError
    TruncatedReplyError,
)

__all__ = [
    "ConnectError",
    "ConnectionClosedError",
    "HttpStatusError",
    "InferenceError",
    "MalformedReplyError",
    "OutputParserError",
    "TimeoutError",
    "TruncatedReplyError",
]
