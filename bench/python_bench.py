"""Costs of the Python binding: one awaited Python collaborator call, one `_run` through the
binding, and the same `_run` from a plain Python implementation's point of view (a coroutine
that awaits the same collaborator), all in one run. Prints medians of 9 repetitions.

    PYTHONPATH=build/release/python python3 bench/python_bench.py
"""
import asyncio
import statistics
import time

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import SimilarityBasedReferenceFormatter
from orvo_generation.response_synthesizer import StuffResponseSynthesizer


class Processor:
    async def process(self, prompt_kwargs, history=None, **kwargs):
        return "answer"


class Invoker:
    async def invoke(self, text):
        return [1.0, 0.0] if isinstance(text, str) else [[1.0, 0.0]] * len(text)


async def measure(make, count):
    start = time.perf_counter()
    for _ in range(count):
        await make()
    return (time.perf_counter() - start) / count * 1e6


async def main():
    processor = Processor()
    synthesizer = StuffResponseSynthesizer(processor)
    formatter = SimilarityBasedReferenceFormatter(Invoker())
    chunks = [Chunk(content="x", metadata={"file_name": "a", "file_url": "u"}) for _ in range(10)]
    state = {"context": "c"}
    cases = {
        "Python coroutine awaiting process() (baseline)": lambda: processor.process(state),
        "StuffResponseSynthesizer._run (one Python process call)":
            lambda: synthesizer._run(query="q", state_variables=state),
        "SimilarityBasedReferenceFormatter._run, 10 chunks (two Python invoke calls)":
            lambda: formatter._run(response="r", chunks=chunks),
    }
    results = {name: [] for name in cases}
    for _ in range(9):
        for name, make in cases.items():
            results[name].append(await measure(make, 5000))
    for name, samples in results.items():
        print(f"{statistics.median(samples):8.2f} us  {name}")


asyncio.run(main())
