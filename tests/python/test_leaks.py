"""A hundred thousand invocations through the binding keep the process's memory flat."""
import asyncio
import gc
import resource
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import SimilarityBasedReferenceFormatter
from orvo_generation.response_synthesizer import StuffResponseSynthesizer
from support import DuckEmitter, RecordingProcessor, TableInvoker


def resident_kib():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * resource.getpagesize() // 1024


class LeakTest(unittest.TestCase):
    def test_memory_stays_flat_over_a_hundred_thousand_invocations(self):
        chunks = [Chunk(content=name, metadata={"file_name": name}) for name in "AB"]
        formatter = SimilarityBasedReferenceFormatter(
            TableInvoker({"A": [1.0, 0.0], "B": [0.0, 1.0]}), stringify=False)
        synthesizer = StuffResponseSynthesizer(RecordingProcessor())

        async def rounds(count):
            for _ in range(count // 200):
                emitter = DuckEmitter()
                state = {"context": "c"}
                await asyncio.gather(
                    *[formatter._run(response="r", chunks=chunks, event_emitter=emitter)
                      for _ in range(100)],
                    *[synthesizer._run(query="q", state_variables=state) for _ in range(100)])
                synthesizer.lm_request_processor.calls.clear()
                formatter.em_invoker.calls.clear()

        asyncio.run(rounds(20_000))  # warm-up: allocator pools and caches settle
        gc.collect()
        before = resident_kib()
        asyncio.run(rounds(100_000))
        gc.collect()
        grown = resident_kib() - before
        self.assertLess(grown, 4096, f"resident memory grew by {grown} KiB")


if __name__ == "__main__":
    unittest.main()
