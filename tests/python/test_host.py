"""The asyncio host: what C++ holds stays alive, exit and closed loops are quiet, cancellation
reaches the collaborator, any buffer works or is a TypeError, the host's rules for values hold,
and memory stays flat."""
import array
import asyncio
import ctypes
import gc
import json
import resource
import subprocess
import sys
import textwrap
import time
import unittest
import weakref
from unittest import mock

from orvo_core.schema import Chunk
from orvo_core.utils.similarity import cosine
from orvo_generation.reference_formatter import SimilarityBasedReferenceFormatter
from orvo_generation.reference_formatter.reference_formatter import DEFAULT_FORMAT_CHUNK_METADATA_MAP
from orvo_generation.response_synthesizer import StaticListResponseSynthesizer, StuffResponseSynthesizer
from orvo_inference.em_invoker import OpenAIEMInvoker
from orvo_inference.schema import PromptRole
from support import DuckEmitter, RecordingEmitter, RecordingProcessor, TableInvoker, serve

try:
    import numpy
except ImportError:  # only Debian's python3 has it here
    numpy = None


class Sources(Chunk):
    pass


class LifetimeTest(unittest.IsolatedAsyncioTestCase):
    async def test_python_subclasses_passed_inline_keep_their_overrides(self):
        formatter = SimilarityBasedReferenceFormatter(TableInvoker({"x": [1.0, 0.0]}), stringify=False)
        cases = [
            (formatter.run, dict(response="r"), 3),
            (formatter._run, dict(response="r"), 1),
            (StaticListResponseSynthesizer()._run, dict(state_variables={"context_list": ["a"]}), 1),
            (StuffResponseSynthesizer(RecordingProcessor()).run, dict(query="q"), 2),
        ]
        for make, kwargs, events in cases:
            with self.subTest(make=make.__qualname__):
                sink = []
                result = await make(chunks=[Sources(content="x", metadata={"file_name": "A"})],
                                    event_emitter=RecordingEmitter(sink), **kwargs)
                gc.collect()
                self.assertEqual(len(sink), events)
                if isinstance(result, list):
                    self.assertIsInstance(result[0], Sources)

    async def test_every_object_is_a_present_emitter_and_only_emit_is_checked(self):
        chunks = [Chunk(content="x")]
        formatter = SimilarityBasedReferenceFormatter(TableInvoker({"x": [1.0, 0.0]}))
        for falsy in (0, "", []):
            self.assertEqual(await formatter._run(response="r", chunks=chunks, event_emitter=falsy),
                             "References:\n1. None")
        self.assertEqual(await formatter._run(response="r", chunks=[], event_emitter=5), "")
        with self.assertRaises(AttributeError):
            await formatter._run(response="r", chunks=chunks, event_emitter=5)


class ShutdownTest(unittest.TestCase):
    """Scripts run by this interpreter against an embeddings server in this process; under
    "/slow" it answers after 0.3 s."""

    def start_script(self, path, body):
        def reply(path, request):
            time.sleep(0.3 if path.startswith("/slow") else 0)
            return 200, "application/json", json.dumps({"data": [{"index": 0, "embedding": [1.0, 0.0]}]})

        if not hasattr(self, "server"):
            self.server = serve(self, reply)
        script = ("import asyncio, time\nfrom orvo_inference.em_invoker import OpenAIEMInvoker\n"
                  f"invoker = OpenAIEMInvoker(model='e', base_url='{self.server.url}{path}')\n")
        return subprocess.Popen([sys.executable, "-c", script + textwrap.dedent(body)],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def test_exit_after_network_calls_is_clean(self):
        runs = [self.start_script("", "print(asyncio.run(invoker.invoke('x')))") for _ in range(12)]
        for run in runs:
            out, err = run.communicate(timeout=60)
            self.assertEqual((run.returncode, out.strip(), err), (0, "[1.0, 0.0]", ""))

    def test_a_reply_to_a_closed_loop_is_dropped(self):
        run = self.start_script("/slow", """
            loop = asyncio.new_event_loop()
            task = loop.create_task(invoker.invoke("x"))
            loop.run_until_complete(asyncio.sleep(0.1))
            loop.close()
            time.sleep(0.6)
            print("done")
        """)
        out, err = run.communicate(timeout=60)
        self.assertEqual((run.returncode, out.strip()), (0, "done"), err)


class CancellationTest(unittest.IsolatedAsyncioTestCase):
    async def test_timed_out_calls_cancel_the_collaborators_task(self):
        cancelled = []

        class Slow:
            async def process(self, *args, **kwargs):
                try:
                    await asyncio.sleep(60)
                except asyncio.CancelledError:
                    cancelled.append(asyncio.current_task())
                    raise

        synthesizer = StuffResponseSynthesizer(Slow())
        for _ in range(500):
            with self.assertRaises(asyncio.TimeoutError):
                await asyncio.wait_for(synthesizer._run(query="q"), 0.001)
        for _ in range(3):
            await asyncio.sleep(0)
        self.assertEqual((len(cancelled), asyncio.all_tasks()), (500, {asyncio.current_task()}))

    async def test_a_call_cancelled_before_its_collaborator_starts_lets_go_of_everything(self):
        class Marker:
            pass

        class Cancelling:
            async def emit(self, value, level, type):  # noqa: A002
                outer.cancel()

        processor, marker = RecordingProcessor(), Marker()
        held = weakref.ref(marker)
        outer = asyncio.create_task(StuffResponseSynthesizer(processor).run(
            query="q", event_emitter=Cancelling(), marker=marker))
        del marker
        with self.assertRaises(asyncio.CancelledError):
            await outer
        for _ in range(3):
            await asyncio.sleep(0)
        gc.collect()
        self.assertEqual((processor.calls, held()), ([], None))

    async def test_a_cancelled_network_call_closes_its_connection(self):
        accepted, closed = asyncio.Event(), asyncio.Event()

        async def silent(reader, writer):
            accepted.set()
            await reader.read()  # b"" once the client goes away
            closed.set()
            writer.close()

        server = await asyncio.start_server(silent, "127.0.0.1", 0)
        url = "http://127.0.0.1:%d" % server.sockets[0].getsockname()[1]
        task = asyncio.create_task(OpenAIEMInvoker(model="e", base_url=url).invoke("x"))
        await asyncio.wait_for(accepted.wait(), 10)
        task.cancel()
        await asyncio.wait_for(closed.wait(), 1)
        with self.assertRaises(asyncio.CancelledError):
            await task
        server.close()


class BufferTest(unittest.TestCase):
    def test_buffers_work_or_raise_type_error(self):
        Row = ctypes.c_float * 2
        cases = [
            ("ctypes", Row(1.0, 0.0), (Row * 2)(Row(1.0, 0.0), Row(0.0, 2.0)), [1.0, 0.0]),
            ("array", array.array("d", [0.0, 1.0]), [[0.0, 5.0]], [1.0]),
            ("memoryview", memoryview(array.array("i", [1, 0])),
             memoryview(array.array("h", [1, 0, 0, 1])).cast("B").cast("h", (2, 2)), [1.0, 0.0]),
            ("scalar", memoryview(array.array("f", [1.0])).cast("B").cast("f", ()), [[1]], TypeError),
            ("2-D vector", memoryview(array.array("f", [1.0, 0.0])).cast("B").cast("f", (1, 2)),
             [[1, 0]], TypeError),
        ]
        if numpy is not None:
            batch = numpy.array([[1.0, 0.0], [0.0, 1.0], [1.0, 1.0]], dtype=numpy.float32)
            cases += [
                ("numpy F order", numpy.float32([1, 0]), numpy.asfortranarray(batch), [1, 0, 0.7071]),
                ("numpy strided", numpy.float64([1, 9, 0])[::2], batch[::2], [1.0, 0.7071]),
                ("numpy reversed", numpy.int64([0, 1])[::-1], batch[::-1, ::-1], [0.7071, 1, 0]),
                ("numpy float16", numpy.float16([1, 0]), batch, TypeError),
            ]
        for name, vector, vectors, expected in cases:
            with self.subTest(name):
                if isinstance(expected, list):
                    self.assertEqual([round(s, 4) for s in cosine(vector, vectors)], expected)
                else:
                    with self.assertRaises(expected):
                        cosine(vector, vectors)


class HostRulesTest(unittest.IsolatedAsyncioTestCase):
    async def test_metadata_maps_are_the_callers_dicts_read_at_every_call(self):
        invoker = TableInvoker({"x": [1.0, 0.0]})
        chunk = Chunk(content="x", metadata={"file_name": "A", "name": "B", "file_url": "a"})
        custom = {"title": "file_name", "url": "file_url"}
        for metadata_map, formatter in [
            (DEFAULT_FORMAT_CHUNK_METADATA_MAP, SimilarityBasedReferenceFormatter(invoker)),
            (custom, SimilarityBasedReferenceFormatter(invoker, format_chunk_metadata_map=custom)),
        ]:
            with mock.patch.dict(metadata_map, title="name"):
                self.assertEqual(formatter.format_chunk_func(chunk), "[B](a)")
        chunk.metadata["file_url"] = "b"
        self.assertEqual(await formatter._run(response="r", chunks=[chunk]), "References:\n1. [A](b)")

    async def test_callers_objects_pass_through_and_nothing_unread_is_converted(self):
        answer, odd = {"not": "a string"}, {"big": 10 ** 30, "keys": {1: 2}}
        processor, emitter = RecordingProcessor(answer), DuckEmitter()
        state, history = {"context": "c", "query": "old", **odd}, [(PromptRole.USER, "hi")]
        contents = ["https://example.org/a.png"]
        result = await StuffResponseSynthesizer(processor)._run(
            query="new", state_variables=state, history=history, event_emitter=emitter,
            user_multimodal_contents=contents, **odd)
        self.assertIs(result, answer)
        self.assertEqual(state, {"context": "c", "query": "new", **odd})
        prompt, args, kwargs = processor.calls[0]
        self.assertEqual([prompt is state, prompt["keys"] is odd["keys"], args[0] is history,
                          kwargs["user_multimodal_contents"] is contents], [True] * 4)
        self.assertEqual(kwargs, dict(event_emitter=emitter, system_multimodal_contents=None,
                                      user_multimodal_contents=contents))


class LeakTest(unittest.TestCase):
    def test_memory_stays_flat_over_a_hundred_thousand_invocations(self):
        chunks = [Chunk(content=name, metadata={"file_name": name}) for name in "AB"]
        invoker = TableInvoker({"A": [1.0, 0.0], "B": [0.0, 1.0]})
        formatter = SimilarityBasedReferenceFormatter(invoker, stringify=False)
        processor = RecordingProcessor()
        synthesizer = StuffResponseSynthesizer(processor)

        async def rounds(count):
            for _ in range(count // 200):
                emitter, state = DuckEmitter(), {"context": "c"}
                await asyncio.gather(
                    *[formatter._run(response="r", chunks=chunks, event_emitter=emitter) for _ in range(100)],
                    *[synthesizer._run(query="q", state_variables=state) for _ in range(100)])
                processor.calls.clear()

        def resident_kib():
            with open("/proc/self/statm") as statm:
                return int(statm.read().split()[1]) * resource.getpagesize() // 1024

        asyncio.run(rounds(20_000))  # warm-up: allocator pools and caches settle
        gc.collect()
        before = resident_kib()
        asyncio.run(rounds(100_000))
        gc.collect()
        self.assertLess(resident_kib() - before, 4096, "resident memory grew by more than 4 MiB")
