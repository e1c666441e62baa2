"""Costs of the Python binding, all measured in one run: the binding's fixed cost of an awaited
`_run`, one awaited Python collaborator call made from C++, and whole `_run`s next to a plain
Python component that does the same work. Prints the median of 9 repetitions of 5,000 awaits.

    PYTHONPATH=build/release/python python3 bench/python_bench.py
"""
import asyncio
import statistics
import time

from orvo_core.event import EventEmitter
from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import SimilarityBasedReferenceFormatter
from orvo_generation.response_synthesizer import (
    StaticListResponseSynthesizer,
    StuffResponseSynthesizer,
)


class Processor:
    async def process(self, prompt_kwargs, history=None, **kwargs):
        return "answer"


class Emitter(EventEmitter):
    async def emit(self, value, level, type):  # noqa: A002
        pass


class Invoker:
    async def invoke(self, text):
        return [1.0, 0.0] if isinstance(text, str) else [[1.0, 0.0]] * len(text)


class PlainStuff:
    """The stuff synthesizer's `_run` without events, written in Python: the floor for a
    component whose work is one awaited collaborator call."""

    def __init__(self, processor):
        self.processor = processor

    async def _run(self, **kwargs):
        state = kwargs.get("state_variables") or kwargs.get("variables") or {}
        if kwargs.get("query"):
            state["query"] = kwargs["query"]
        return await self.processor.process(state, kwargs.get("history"),
                                            event_emitter=None,
                                            system_multimodal_contents=None,
                                            user_multimodal_contents=None)


async def measure(make, count):
    start = time.perf_counter()
    for _ in range(count):
        await make()
    return (time.perf_counter() - start) / count * 1e6


async def main():
    processor = Processor()
    quiet = StuffResponseSynthesizer(processor, streamable=False)
    streaming = StuffResponseSynthesizer(processor)
    static_list = StaticListResponseSynthesizer()
    plain = PlainStuff(processor)
    formatter = SimilarityBasedReferenceFormatter(Invoker(), streamable=False)
    emitter = Emitter()
    chunks = [Chunk(content="x", metadata={"file_name": "a", "file_url": "u"}) for _ in range(10)]
    state = {"context": "c"}
    listing = {"context_list": ["a", "b"]}
    cases = {
        "plain": ("Python: await processor.process(...)", lambda: processor.process(state)),
        "plain_run": ("Python: PlainStuff._run (one process call)",
                      lambda: plain._run(query="q", state_variables=state)),
        "static": ("StaticListResponseSynthesizer._run, no collaborator",
                   lambda: static_list._run(state_variables=listing)),
        "stuff": ("StuffResponseSynthesizer._run, one Python process call",
                  lambda: quiet._run(query="q", state_variables=state)),
        "stuff_run": ("StuffResponseSynthesizer.run, no emitter",
                      lambda: streaming.run(query="q", state_variables=state)),
        "stuff_run_events": ("StuffResponseSynthesizer.run, start and finish to a Python emitter",
                             lambda: streaming.run(query="q", state_variables=state,
                                                   event_emitter=emitter)),
        "similarity": ("SimilarityBasedReferenceFormatter._run, 10 chunks, two invoke calls",
                       lambda: formatter._run(response="r", chunks=chunks)),
    }
    samples = {key: [] for key in cases}
    for _ in range(9):
        for key, (_, make) in cases.items():
            samples[key].append(await measure(make, 5000))
    median = {key: statistics.median(values) for key, values in samples.items()}
    for key, (name, _) in cases.items():
        print(f"{median[key]:8.2f} us  {name}")
    per_call = (median["stuff_run_events"] - median["stuff_run"]) / 2
    print(f"{per_call:8.2f} us  one awaited Python collaborator call from C++ (an emit: the difference / 2)")
    print(f"{median['stuff'] / median['plain_run']:8.2f} x   stuff _run through the binding / "
          "PlainStuff._run")


asyncio.run(main())
