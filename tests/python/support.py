"""Python collaborators for the binding tests: recording, duck-typed, some failing."""
from orvo_core.event import EventEmitter


class RecordingEmitter(EventEmitter):
    """A subclass of the bound emitter that records every event."""

    def __init__(self):
        super().__init__()
        self.events = []

    async def emit(self, value, level, type):  # noqa: A002 - the contract's own name
        self.events.append((value, level, type))


class DuckEmitter:
    """Any object with `async def emit` serves."""

    def __init__(self):
        self.events = []

    async def emit(self, value, level, type):  # noqa: A002
        self.events.append((value, level.name, type.name))


class TableInvoker:
    """Embeds the response as [1, 0]; a content as the vector its table gives."""

    def __init__(self, table, batch=None):
        self.table = table
        self.batch = batch
        self.calls = []

    async def invoke(self, text):
        self.calls.append(text)
        if isinstance(text, str):
            return [1.0, 0.0]
        if self.batch is not None:
            return self.batch
        return [self.table[t] for t in text]


class RecordingProcessor:
    """Answers with `answer` (a value, or a function of the prompt map) and records each call."""

    def __init__(self, answer="answer", error=None):
        self.answer = answer
        self.error = error
        self.calls = []

    async def process(self, prompt_kwargs, *args, **kwargs):
        self.calls.append((prompt_kwargs, dict(prompt_kwargs), args, kwargs))
        if self.error is not None:
            raise self.error
        return self.answer(prompt_kwargs) if callable(self.answer) else self.answer
