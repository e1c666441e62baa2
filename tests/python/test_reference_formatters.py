"""The reference formatters and their building blocks driven from asyncio with Python
collaborators: what crosses keeps its identity and kind, Python overrides, parsers and counters
are called, offsets count characters; and the README's example runs as shown."""
import asyncio
import contextlib
import io
import json
import pathlib
import re
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import LMBasedReferenceFormatter, SimilarityBasedReferenceFormatter
from orvo_generation.reference_formatter.citation_attributor import CitationAttributor
from orvo_generation.reference_formatter.lm_based_reference_formatter import BatchFailurePolicy
from orvo_generation.reference_formatter.reference_formatter import BaseReferenceFormatter
from orvo_inference.request_processor import ContextBudget
from support import DuckEmitter, RecordingEmitter, RecordingProcessor, TableInvoker


def chunk(name, content=None):
    return Chunk(content=content or name, metadata={"file_name": name})


class SimilarityTest(unittest.IsolatedAsyncioTestCase):
    async def test_list_result_holds_the_callers_own_chunks(self):
        class MyChunk(Chunk):
            pass

        mine = MyChunk(content="A", metadata={"file_name": "A"})
        formatter = SimilarityBasedReferenceFormatter(
            TableInvoker({"A": [1.0, 0.0], "B": [0.0, 1.0]}), stringify=False)
        emitter = DuckEmitter()
        result = await formatter._run(response="r", chunks=[chunk("B"), mine, mine], event_emitter=emitter)
        self.assertEqual([type(c) for c in result], [MyChunk, MyChunk])
        self.assertTrue(all(c is mine for c in result))
        self.assertEqual(json.loads(emitter.events[0][0])["data_value"], str(mine.model_dump()))
        self.assertEqual(emitter.events[0][1:], ("INFO", "DATA"))

    async def test_the_invoker_gets_the_strings_the_chunks_were_given(self):
        text = "".join(["tide ", "tables"])
        item = Chunk(content=text, metadata={"file_name": "A"})
        invoker = TableInvoker({"tide tables": [1.0, 0.0], "ebb": [1.0, 0.0]})
        formatter = SimilarityBasedReferenceFormatter(invoker)
        await formatter._run(response="r", chunks=[item])
        self.assertIs(invoker.calls[1][0], text)
        item.content = "ebb"
        self.assertEqual(await formatter._run(response="r", chunks=[item]), "References:\n1. A")
        self.assertEqual(invoker.calls[3], ["ebb"])
        with self.assertRaises(TypeError):
            item.content = 3

    async def test_errors_keep_their_kind_and_identity(self):
        failure = KeyError("invoker down")

        class Failing:
            async def invoke(self, text):
                raise failure

        class ShortBatch:
            async def invoke(self, text):
                return [1.0, 0.0] if isinstance(text, str) else [[1.0, 0.0]]

        similarity = SimilarityBasedReferenceFormatter(TableInvoker({}))
        judged = LMBasedReferenceFormatter(RecordingProcessor({"file_name": []}), "5")
        cases = [
            (similarity, {}, ValueError, "`response` key of type `str`"),
            (similarity, {"response": 3, "chunks": []}, ValueError, "`response` key"),
            (similarity, {"response": "r", "chunks": (chunk("A"),)}, ValueError, "`chunks` key"),
            (similarity, {"response": "r", "chunks": [chunk("A"), "B"]}, ValueError, "`chunks` key"),
            (judged, {"response": "r", "chunks": [chunk("A")]}, TypeError, ""),
            (SimilarityBasedReferenceFormatter(ShortBatch()), {"response": "r", "chunks": [chunk("A"), chunk("B")]},
             ValueError, ""),
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

    async def test_python_functions_replace_the_renderers(self):
        formatter = SimilarityBasedReferenceFormatter(
            TableInvoker({"A": [1.0, 0.0]}),
            format_references_func=lambda entries: " | ".join(entries),
            format_chunk_func=lambda c: c.metadata["file_name"].lower())
        self.assertEqual(await formatter._run(response="r", chunks=[chunk("A")]), "a")


class LMBasedTest(unittest.IsolatedAsyncioTestCase):
    async def test_batches_are_judged_one_after_another_with_one_positional_map(self):
        chunks = [chunk(f"{i}.pdf") for i in range(7)]
        processor = RecordingProcessor(lambda prompt: {"file_name": ["1.pdf", "6.pdf", "9.pdf"]})
        result = await LMBasedReferenceFormatter(processor, stringify=False)._run(response="r", chunks=chunks)
        self.assertEqual(result, [chunks[1], chunks[6]])
        self.assertEqual([(list(prompt), args, kwargs) for prompt, args, kwargs in processor.calls],
                         [(["response", "context"], (), {})] * 2)


class PythonSubclassTest(unittest.IsolatedAsyncioTestCase):
    async def test_python_subclasses_supply_the_relevance_filter_and_hooks(self):
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

        class Short(LMBasedReferenceFormatter):
            def _format_chunk_as_context(self, c):
                return "<" + c.content + ">"

        processor = RecordingProcessor({"file_name": []})
        await Short(processor)._run(response="r", chunks=[chunk("a"), chunk("b")])
        self.assertEqual(processor.calls[0][0]["context"], "<a>\n\n<b>")


class ReferenceToolsTest(unittest.IsolatedAsyncioTestCase):
    async def test_a_python_answer_parser_selects_and_its_failure_follows_the_policy(self):
        def parser(lm_output, batch_chunks, reference_metadata):
            if lm_output == "no idea":
                raise ValueError("unreadable")
            return [int(n) - 1 for n in lm_output.split() if n.isdigit()]

        judge = RecordingProcessor(lambda prompt: "entries 2 and 1" if "b.md" in prompt["context"] else "no idea")
        formatter = LMBasedReferenceFormatter(judge, batch_size=2, stringify=False, answer_parser=parser,
                                              on_batch_failure=BatchFailurePolicy.KEEP)
        emitter = RecordingEmitter()
        kept = await formatter.format_reference("r", [chunk("a.md"), chunk("b.md"), chunk("c.md")], emitter)
        self.assertEqual([c.content for c in kept], ["a.md", "b.md", "c.md"])
        self.assertIn('"error": "ValueError: unreadable"}', emitter.events[0][0])

    async def test_citations_reuse_the_decision_and_count_characters(self):
        invoker = TableInvoker({"Élan moon.": [1.0, 0.0], "Cats.": [0.0, 1.0], "moon": [1.0, 0.0]})
        scored = await SimilarityBasedReferenceFormatter(invoker).score_chunks("r", [chunk("m", "moon")])
        attribution = await CitationAttributor(invoker).attribute("Élan moon. Cats.", scored)
        self.assertEqual(attribution.text, "Élan moon [1]. Cats.")
        self.assertEqual([s.begin for s in attribution.sentences], [0, 11])
        self.assertEqual(attribution.unsupported, [1])

    def test_a_python_token_counter_caps_the_context(self):
        budget = ContextBudget(2, count_tokens=lambda text: len(text.split()))
        text, report = budget.apply(["one two", "three"])
        self.assertEqual((text, report.dropped), ("one two", [1]))


class ReadmeExample(unittest.TestCase):
    def test_the_python_example_prints_its_reference(self):
        readme = pathlib.Path(__file__).resolve().parents[2] / "README.md"
        blocks = re.findall(r"```python\n(.*?)```", readme.read_text(encoding="utf-8"), re.S)
        self.assertEqual(len(blocks), 1)
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            exec(compile(blocks[0], str(readme), "exec"), {"__name__": "readme"})
        self.assertEqual(output.getvalue(), "References:\n1. [Tides](tides.md)\n")
