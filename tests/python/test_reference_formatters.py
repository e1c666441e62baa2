"""The reference formatters driven from asyncio with Python collaborators: what crosses keeps its
identity and kind, and Python overrides are called."""
import asyncio
import json
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import (
    LMBasedReferenceFormatter,
    SimilarityBasedReferenceFormatter,
)
from orvo_generation.reference_formatter.reference_formatter import BaseReferenceFormatter
from support import DuckEmitter, RecordingEmitter, RecordingProcessor, TableInvoker


def chunk(name):
    return Chunk(content=name, metadata={"file_name": name})


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

        cases = [
            (TableInvoker({}), {}, ValueError, "`response` key of type `str`"),
            (TableInvoker({}), {"response": 3, "chunks": []}, ValueError, "`response` key"),
            (TableInvoker({}), {"response": "r", "chunks": (chunk("A"),)}, ValueError, "`chunks` key"),
            (TableInvoker({}), {"response": "r", "chunks": [chunk("A"), "B"]}, ValueError, "`chunks`"),
            (ShortBatch(), {"response": "r", "chunks": [chunk("A"), chunk("B")]}, ValueError, ""),
            (Failing(), {"response": "r", "chunks": [chunk("A")]}, KeyError, "invoker down"),
        ]
        for invoker, kwargs, kind, message in cases:
            with self.subTest(kwargs=kwargs):
                emitter = RecordingEmitter()
                with self.assertRaisesRegex(kind, message) as caught:
                    await SimilarityBasedReferenceFormatter(invoker)._run(event_emitter=emitter, **kwargs)
                self.assertEqual(emitter.events, [])
        self.assertIs(caught.exception, failure)
        with self.assertRaises(NotImplementedError):
            await BaseReferenceFormatter._get_relevant_chunks(SimilarityBasedReferenceFormatter(None), "r", [])

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

    async def test_answers_of_the_wrong_shape_and_bad_batch_sizes(self):
        cases = [({}, 5, TypeError), ({"file_name": None}, 5, TypeError),
                 ({"file_name": []}, 0, ValueError), ({"file_name": []}, "5", TypeError)]
        for answer, batch_size, error in cases:
            with self.subTest(answer=answer, batch_size=batch_size):
                formatter = LMBasedReferenceFormatter(RecordingProcessor(answer), batch_size)
                with self.assertRaises(error):
                    await formatter._run(response="r", chunks=[chunk("a.pdf")])


class PythonSubclassTest(unittest.IsolatedAsyncioTestCase):
    async def test_python_subclasses_supply_the_relevance_filter_and_hooks(self):
        class Incomplete(BaseReferenceFormatter):
            pass

        for abstract in (BaseReferenceFormatter, Incomplete):
            with self.assertRaises(TypeError):
                abstract()

        class FirstOnly(BaseReferenceFormatter):
            async def _get_relevant_chunks(self, response, chunks):
                await asyncio.sleep(0)
                return chunks[:1]

        self.assertEqual(await FirstOnly()._run(response="r", chunks=[chunk("A"), chunk("B")]),
                         "References:\n1. A")

        class Short(LMBasedReferenceFormatter):
            def _format_chunk_as_context(self, c):
                return "<" + c.content + ">"

        processor = RecordingProcessor({"file_name": []})
        await Short(processor)._run(response="r", chunks=[chunk("a"), chunk("b")])
        self.assertEqual(processor.calls[0][0]["context"], "<a>\n\n<b>")


if __name__ == "__main__":
    unittest.main()
