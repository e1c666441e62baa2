"""The reference formatters driven from asyncio, as a host drives them."""
import asyncio
import json
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import (
    LMBasedReferenceFormatter,
    SimilarityBasedReferenceFormatter,
)
from orvo_generation.reference_formatter.reference_formatter import (
    DEFAULT_FORMAT_CHUNK_METADATA_MAP,
    BaseReferenceFormatter,
    format_chunk_as_string,
    format_references_as_string,
)
from support import DuckEmitter, RecordingEmitter, RecordingProcessor, TableInvoker

RESPONSE_ERROR = (
    "The input kwargs for reference formatter must include a non-empty `response` key of type `str`."
)
CHUNKS_ERROR = "The input kwargs for reference formatter must include a `chunks` key of type `list[Chunk]`."


def chunk(name, url=None, content=None):
    metadata = {"file_name": name}
    if url is not None:
        metadata["file_url"] = url
    return Chunk(content=content or name, metadata=metadata)


class SimilarityTest(unittest.IsolatedAsyncioTestCase):
    async def test_list_result_holds_the_callers_own_chunks(self):
        class MyChunk(Chunk):
            pass

        mine = MyChunk(content="A", metadata={"file_name": "A"})
        other = chunk("B")
        formatter = SimilarityBasedReferenceFormatter(
            TableInvoker({"A": [1.0, 0.0], "B": [0.0, 1.0]}), stringify=False)
        emitter = DuckEmitter()
        result = await formatter._run(response="r", chunks=[other, mine, mine], event_emitter=emitter)
        self.assertEqual(len(result), 2)
        self.assertIs(result[0], mine)
        self.assertIs(result[1], mine)
        self.assertIsInstance(result[0], MyChunk)
        self.assertEqual(len(emitter.events), 2)
        self.assertEqual(json.loads(emitter.events[0][0])["data_value"], str(mine.model_dump()))

    async def test_the_invoker_gets_the_strings_the_chunks_were_given(self):
        text = "".join(["tide ", "tables"])
        item = Chunk(content=text, metadata={"file_name": "A"})
        invoker = TableInvoker({"tide tables": [1.0, 0.0], "ebb": [1.0, 0.0]})
        formatter = SimilarityBasedReferenceFormatter(invoker)
        await formatter._run(response="r", chunks=[item])
        self.assertIs(invoker.calls[1][0], text)
        self.assertIs(item.content, text)
        item.content = "ebb"
        self.assertEqual(await formatter._run(response="r", chunks=[item]), "References:\n1. A")
        self.assertEqual(invoker.calls[3], ["ebb"])
        with self.assertRaises(TypeError):
            item.content = 3

    async def test_errors_keep_their_kind_and_identity(self):
        formatter = SimilarityBasedReferenceFormatter(TableInvoker({}, batch=[[1.0, 0.0]]))
        with self.assertRaises(ValueError):
            await formatter._run(response="r", chunks=[chunk("A"), chunk("B")])

        failure = KeyError("invoker down")

        class Failing:
            async def invoke(self, text):
                raise failure

        formatter.em_invoker = Failing()
        with self.assertRaises(KeyError) as caught:
            await formatter._run(response="r", chunks=[chunk("A")])
        self.assertIs(caught.exception, failure)

    async def test_bad_inputs_raise_the_fixed_messages_before_any_call(self):
        invoker = TableInvoker({})
        emitter = RecordingEmitter()
        formatter = SimilarityBasedReferenceFormatter(invoker)
        cases = [
            ({}, RESPONSE_ERROR),
            ({"response": 3, "chunks": []}, RESPONSE_ERROR),
            ({"response": " \n", "chunks": []}, RESPONSE_ERROR),
            ({"response": "r"}, CHUNKS_ERROR),
            ({"response": "r", "chunks": (chunk("A"),)}, CHUNKS_ERROR),
            ({"response": "r", "chunks": [chunk("A"), chunk("B"), "C"]}, CHUNKS_ERROR),
        ]
        for kwargs, message in cases:
            with self.subTest(kwargs=kwargs):
                with self.assertRaises(ValueError) as caught:
                    await formatter._run(event_emitter=emitter, **kwargs)
                self.assertEqual(str(caught.exception), message)
        self.assertEqual(invoker.calls, [])
        self.assertEqual(emitter.events, [])

    async def test_metadata_map_changes_after_construction_take_effect(self):
        metadata_map = {"title": "file_name", "url": "file_url"}
        formatter = SimilarityBasedReferenceFormatter(
            TableInvoker({"A": [1.0, 0.0]}), format_chunk_metadata_map=metadata_map)
        item = Chunk(content="A", metadata={"file_name": "A", "file_url": "a", "name": "Alpha"})
        self.assertEqual(await formatter._run(response="r", chunks=[item]), "References:\n1. [A](a)")
        metadata_map["title"] = "name"
        self.assertEqual(await formatter._run(response="r", chunks=[item]), "References:\n1. [Alpha](a)")
        item.metadata["file_url"] = "b"
        self.assertEqual(await formatter._run(response="r", chunks=[item]), "References:\n1. [Alpha](b)")

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
        formatter = LMBasedReferenceFormatter(processor, stringify=False)
        result = await formatter._run(response="r", chunks=chunks)
        self.assertEqual(result, [chunks[1], chunks[6]])
        self.assertEqual([list(call[1]) for call in processor.calls], [["response", "context"]] * 2)
        self.assertEqual([(call[2], call[3]) for call in processor.calls], [((), {})] * 2)
        self.assertEqual(processor.calls[1][1]["context"],
                         "[CHUNK]\nfile_name: 5.pdf\nContent:\n5.pdf\n\n[CHUNK]\nfile_name: 6.pdf\nContent:\n6.pdf")

    async def test_answers_of_the_wrong_shape_and_bad_batch_sizes(self):
        cases = [({}, 5, TypeError), ({"file_name": None}, 5, TypeError),
                 ({"file_name": []}, 0, ValueError), ({"file_name": []}, "5", TypeError)]
        for answer, batch_size, error in cases:
            with self.subTest(answer=answer, batch_size=batch_size):
                formatter = LMBasedReferenceFormatter(RecordingProcessor(answer), batch_size)
                with self.assertRaises(error):
                    await formatter._run(response="r", chunks=[chunk("a.pdf")])

    async def test_context_hooks_can_be_overridden_in_python(self):
        class Short(LMBasedReferenceFormatter):
            def _format_chunk_as_context(self, c):
                return "<" + c.content + ">"

        processor = RecordingProcessor({"file_name": []})
        await Short(processor)._run(response="r", chunks=[chunk("a"), chunk("b")])
        self.assertEqual(processor.calls[0][1]["context"], "<a>\n\n<b>")


class BaseTest(unittest.IsolatedAsyncioTestCase):
    def test_the_base_is_abstract(self):
        with self.assertRaises(TypeError):
            BaseReferenceFormatter()

        class Incomplete(BaseReferenceFormatter):
            pass

        with self.assertRaises(TypeError):
            Incomplete()

    async def test_a_python_subclass_supplies_the_relevance_filter_and_hooks(self):
        class FirstOnly(BaseReferenceFormatter):
            async def _get_relevant_chunks(self, response, chunks):
                await asyncio.sleep(0)
                return chunks[:1]

        formatter = FirstOnly()
        a = chunk("A", "a")
        self.assertEqual(await formatter._run(response="r", chunks=[a, chunk("B")]), "References:\n1. [A](a)")
        self.assertEqual(formatter._format_input_event({"chunks": [a, a]}),
                         "[Start 'FirstOnly'] Formatting references using 2 candidate chunks.")
        self.assertEqual(formatter._format_output_event("References:\n1. [A](a)"),
                         "[Finished 'FirstOnly'] Successfully formatted references:\n'References:\\n1. [A](a)'")
        with self.assertRaises(NotImplementedError):
            await BaseReferenceFormatter._get_relevant_chunks(formatter, "r", [a])

    def test_module_functions_and_constants(self):
        self.assertEqual(DEFAULT_FORMAT_CHUNK_METADATA_MAP, {"title": "file_name", "url": "file_url"})
        self.assertEqual(format_references_as_string([]), "")
        self.assertEqual(format_references_as_string(["A", None]), "References:\n1. A\n2. None")
        metadata_map = {"title": "file_name", "url": "file_url"}
        render = format_chunk_as_string(metadata_map)
        self.assertEqual(render(chunk("A", "a")), "[A](a)")
        self.assertIsNone(render(Chunk(content="x")))
        del metadata_map["url"]
        self.assertEqual(render(chunk("A", "a")), "A")


if __name__ == "__main__":
    unittest.main()
