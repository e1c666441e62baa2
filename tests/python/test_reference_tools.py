"""What the binding of the reference building blocks adds: Python answer parsers and token
counters called from C++, decisions handed back to C++, offsets in characters."""
import asyncio
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import (
    LMBasedReferenceFormatter,
    SimilarityBasedReferenceFormatter,
)
from orvo_generation.reference_formatter.citation_attributor import CitationAttributor
from orvo_generation.reference_formatter.lm_based_reference_formatter import BatchFailurePolicy
from orvo_inference.request_processor import ContextBudget
from support import RecordingEmitter, RecordingProcessor, TableInvoker


def chunk(content, name):
    return Chunk(content=content, metadata={"file_name": name})


class ReferenceTools(unittest.TestCase):
    def test_a_python_answer_parser_selects_and_its_failure_follows_the_policy(self):
        def parser(lm_output, batch_chunks, reference_metadata):
            if lm_output == "no idea":
                raise ValueError("unreadable")
            return [int(n) - 1 for n in lm_output.split() if n.isdigit()]

        judge = RecordingProcessor(lambda prompt: "entries 2 and 1" if "b.md" in prompt["context"] else "no idea")
        chunks = [chunk("a", "a.md"), chunk("b", "b.md"), chunk("c", "c.md")]
        formatter = LMBasedReferenceFormatter(judge, batch_size=2,
                                              stringify=False, answer_parser=parser,
                                              on_batch_failure=BatchFailurePolicy.KEEP)
        emitter = RecordingEmitter()
        kept = asyncio.run(formatter.format_reference("r", chunks, emitter))
        self.assertEqual([c.content for c in kept], ["a", "b", "c"])
        self.assertIn('"error": "ValueError: unreadable"}', emitter.events[0][0])

    def test_citations_reuse_the_decision_and_count_characters(self):
        invoker = TableInvoker({"Élan moon.": [1.0, 0.0], "Cats.": [0.0, 1.0], "moon": [1.0, 0.0]})
        formatter = SimilarityBasedReferenceFormatter(invoker)
        scored = asyncio.run(formatter.score_chunks("r", [chunk("moon", "m")]))
        attribution = asyncio.run(CitationAttributor(invoker).attribute("Élan moon. Cats.", scored))
        self.assertEqual(attribution.text, "Élan moon [1]. Cats.")
        self.assertEqual([s.begin for s in attribution.sentences], [0, 11])
        self.assertEqual(attribution.unsupported, [1])

    def test_a_python_token_counter_caps_the_context(self):
        budget = ContextBudget(2, count_tokens=lambda text: len(text.split()))
        text, report = budget.apply(["one two", "three"])
        self.assertEqual((text, report.dropped), ("one two", [1]))


if __name__ == "__main__":
    unittest.main()
