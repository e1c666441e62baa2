"""The reference formatters and their building blocks driven from asyncio with Python
collaborators: errors keep their kind and identity, Python overrides and counters are called,
offsets count characters; and the README's example runs as shown."""
import asyncio
import contextlib
import io
import pathlib
import re
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import LMBasedReferenceFormatter, SimilarityBasedReferenceFormatter
from orvo_generation.reference_formatter.citation_attributor import CitationAttributor
from orvo_generation.reference_formatter.reference_formatter import BaseReferenceFormatter
from orvo_inference.request_processor import ContextBudget
from support import RecordingEmitter, RecordingProcessor, TableInvoker


def chunk(name, content=None):
    return Chunk(content=content or name, metadata={"file_name": name})


class SimilarityTest(unittest.IsolatedAsyncioTestCase):
    async def test_errors_keep_their_kind_and_identity(self):
        failure = KeyError("invoker down")

        class Failing:
            async def invoke(self, text):
                raise failure

        similarity = SimilarityBasedReferenceFormatter(TableInvoker({}))
        judged = LMBasedReferenceFormatter(RecordingProcessor({"file_name": []}), "5")
        cases = [
            (similarity, {"response": "r", "chunks": (chunk("A"),)}, ValueError, "`chunks` key"),
            (judged, {"response": "r", "chunks": [chunk("A")]}, TypeError, ""),
            (SimilarityBasedReferenceFormatter(Failing()), {"response": "r", "chunks": [chunk("A")]},
             KeyError, "invoker down"),
        ]
        for formatter, kwargs, kind, message in cases:
            with self.subTest(kwargs=kwargs):
                emitter = RecordingEmitter()
                with self.assertRaisesRegex(kind, message) as caught:
                    await formatter._run(event_emitter=emitter, **kwargs)
                self.assertEqual(emitter.events, [])
        self.assertIs(caught.exception, failure)
        with self.assertRaises(NotImplementedError):
            await BaseReferenceFormatter._get_relevant_chunks(similarity, "r", [])


class PythonSubclassTest(unittest.IsolatedAsyncioTestCase):
    async def test_python_subclasses_supply_the_relevance_filter(self):
        class Incomplete(BaseReferenceFormatter):
            pass

        for abstract in (BaseReferenceFormatter, Incomplete):
            with self.assertRaises(TypeError):
                abstract()

        kept = []

        class FirstOnly(BaseReferenceFormatter):
            async def _get_relevant_chunks(self, response, chunks):
                await asyncio.sleep(0)
                kept[:] = chunks[:1]
                return kept

        self.assertIs(await FirstOnly(stringify=False)._run(response="r", chunks=[chunk("A"), chunk("B")]), kept)
        self.assertEqual(kept[0].content, "A")


class ReferenceToolsTest(unittest.IsolatedAsyncioTestCase):
    async def test_citations_reuse_the_decision_and_count_characters(self):
        invoker = TableInvoker({"Élan moon.": [1.0, 0.0], "Cats.": [0.0, 1.0], "moon": [1.0, 0.0]})
        scored = await SimilarityBasedReferenceFormatter(invoker).score_chunks("r", [chunk("m", "moon")])
        attribution = await CitationAttributor(invoker).attribute("Élan moon. Cats.", scored)
        self.assertEqual((attribution.text, [s.begin for s in attribution.sentences], attribution.unsupported),
                         ("Élan moon [1]. Cats.", [0, 11], [1]))

    def test_a_python_token_counter_caps_the_context(self):
        budget = ContextBudget(2, count_tokens=lambda text: len(text.split()))
        text, report = budget.apply(["one two", "three"])
        self.assertEqual((text, report.dropped), ("one two", [1]))


class ReadmeExample(unittest.TestCase):
    def test_the_python_example_prints_its_reference(self):
        readme = pathlib.Path(__file__).resolve().parents[2] / "README.md"
        (example,) = re.findall(r"```python\n(.*?)```", readme.read_text(encoding="utf-8"), re.S)
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            exec(compile(example, str(readme), "exec"), {"__name__": "readme"})
        self.assertEqual(output.getvalue(), "References:\n1. [Tides](tides.md)\n")
