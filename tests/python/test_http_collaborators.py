"""The C++ HTTP collaborators used from asyncio against a scripted OpenAI-compatible server."""
import asyncio
import json
import threading
import unittest

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import SimilarityBasedReferenceFormatter
from orvo_generation.response_synthesizer import StuffResponseSynthesizer
from orvo_inference.em_invoker import OpenAIEMInvoker
from orvo_inference.errors import (
    ConnectError,
    HttpStatusError,
    InferenceError,
    MalformedReplyError,
)
from orvo_inference.errors import TimeoutError as CallTimeoutError
from orvo_inference.request_processor import LMRequestProcessor, OpenAILMInvoker, PromptTemplate
from orvo_inference.schema import PromptRole
from support import RecordingEmitter


class ScriptedServer:
    """HTTP/1.1 on 127.0.0.1 in the test's own event loop; `reply(path, body)` gives
    (status, content type, body pieces), each piece sent as its own chunk after a yield."""

    def __init__(self, reply):
        self.reply = reply
        self.requests = []
        self.connections = 0

    async def __aenter__(self):
        self.server = await asyncio.start_server(self._serve, "127.0.0.1", 0)
        self.url = "http://127.0.0.1:%d" % self.server.sockets[0].getsockname()[1]
        return self

    async def __aexit__(self, *exc):
        self.server.close()
        await self.server.wait_closed()

    async def _serve(self, reader, writer):
        self.connections += 1
        try:
            while True:
                head = await reader.readuntil(b"\r\n\r\n")
                lines = head.decode().split("\r\n")
                method, path, _ = lines[0].split(" ")
                headers = {k.lower(): v.strip() for k, v in
                           (line.split(":", 1) for line in lines[1:] if line)}
                body = json.loads(await reader.readexactly(int(headers["content-length"])))
                self.requests.append((method, path, headers, body))
                status, content_type, pieces = self.reply(path, body)
                writer.write(("HTTP/1.1 %d X\r\nContent-Type: %s\r\n"
                              "Transfer-Encoding: chunked\r\n\r\n" % (status, content_type)).encode())
                for piece in pieces:
                    data = piece.encode()
                    writer.write(b"%x\r\n%s\r\n" % (len(data), data))
                    await writer.drain()
                    await asyncio.sleep(0)
                writer.write(b"0\r\n\r\n")
                await writer.drain()
        except (asyncio.IncompleteReadError, ConnectionError):
            pass
        finally:
            writer.close()


def chat_stream(text):
    """A streamed chat reply: one event a word, then [DONE]."""
    words = text.split(" ")
    deltas = [w if i == 0 else " " + w for i, w in enumerate(words)]
    events = ["data: " + json.dumps({"choices": [{"delta": {"content": d}}]}) + "\n\n"
              for d in deltas]
    return events + ["data: [DONE]\n\n"]


def embeddings(vectors):
    data = [{"index": i, "embedding": v} for i, v in enumerate(vectors)]
    return json.dumps({"data": data})


class ThreadRecordingEmitter(RecordingEmitter):
    def __init__(self):
        super().__init__()
        self.threads = set()

    async def emit(self, value, level, type):  # noqa: A002
        self.threads.add(threading.get_ident())
        await super().emit(value, level, type)


def stuff_synthesizer(url):
    prompt = PromptTemplate(system_template="Answer from: {context}", user_template="{query}")
    invoker = OpenAILMInvoker(model="m", base_url=url, api_key="sk-test", max_retries=0)
    return StuffResponseSynthesizer(LMRequestProcessor(prompt=prompt, lm_invoker=invoker))


class OpenAILMInvokerTest(unittest.IsolatedAsyncioTestCase):
    async def test_a_streamed_reply_reaches_a_python_emitter_on_the_loop_thread(self):
        def reply(path, body):
            return 200, "text/event-stream", chat_stream("Tides follow the moon.")

        async with ScriptedServer(reply) as server:
            synthesizer = stuff_synthesizer(server.url)
            emitter = ThreadRecordingEmitter()
            history = [(PromptRole.USER, "hi"), [PromptRole.ASSISTANT, "hello"],
                       {"role": "user", "content": "and tides?"}]
            answer = await synthesizer._run(query="Why?", state_variables={"context": "moon"},
                                            history=history, event_emitter=emitter)
        self.assertEqual(answer, "Tides follow the moon.")
        values = [value for value, _, _ in emitter.events]
        self.assertEqual(values, ["Tides", " follow", " the", " moon."])
        self.assertEqual(emitter.threads, {threading.get_ident()})
        method, path, headers, body = server.requests[0]
        self.assertEqual((method, path), ("POST", "/chat/completions"))
        self.assertEqual(headers["authorization"], "Bearer sk-test")
        self.assertEqual(body["model"], "m")
        self.assertTrue(body["stream"])
        self.assertEqual([(m["role"], m["content"]) for m in body["messages"]],
                         [("system", "Answer from: moon"), ("user", "hi"),
                          ("assistant", "hello"), ("user", "and tides?"), ("user", "Why?")])

    async def test_concurrent_streams_keep_their_events_apart(self):
        def reply(path, body):
            question = body["messages"][-1]["content"]
            return 200, "text/event-stream", chat_stream(question + " is answered here")

        async with ScriptedServer(reply) as server:
            synthesizer = stuff_synthesizer(server.url)
            emitters = [RecordingEmitter() for _ in range(20)]
            answers = await asyncio.gather(*[
                synthesizer._run(query="q%d" % i, state_variables={"context": ""},
                                 event_emitter=emitters[i]) for i in range(20)])
        self.assertEqual(answers, ["q%d is answered here" % i for i in range(20)])
        for i, emitter in enumerate(emitters):
            values = [value for value, _, _ in emitter.events]
            self.assertEqual(values, ["q%d" % i, " is", " answered", " here"])

    async def test_failures_are_their_own_exceptions_and_the_next_request_works(self):
        replies = [
            (500, "application/json", ['{"error": "overloaded"}']),
            (200, "application/json", ["{not json"]),
            (200, "application/json",
             [json.dumps({"choices": [{"message": {"content": "fine"}}]})]),
        ]

        async with ScriptedServer(lambda path, body: replies.pop(0)) as server:
            synthesizer = stuff_synthesizer(server.url)
            for kind in (HttpStatusError, MalformedReplyError):
                with self.assertRaises(kind) as caught:
                    await synthesizer._run(query="q", state_variables={"context": ""})
                self.assertIsInstance(caught.exception, InferenceError)
                self.assertNotIn("sk-test", str(caught.exception))
                self.assertEqual(getattr(caught.exception, "status", 500), 500)
            answer = await synthesizer._run(query="q", state_variables={"context": ""})
        self.assertEqual(answer, "fine")
        self.assertFalse(server.requests[0][3]["stream"])

    async def test_client_settings_are_checked_and_a_total_timeout_ends_a_trickle(self):
        for bad in (dict(timeout=float("inf")), dict(total_timeout=-1), dict(timeout="abc"),
                    dict(min_tls_version="1.0")):
            with self.assertRaises((ValueError, TypeError)):
                OpenAIEMInvoker(model="e", base_url="http://127.0.0.1:1", **bad)

        async def trickle(reader, writer):
            await reader.readuntil(b"\r\n\r\n")
            writer.write(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n")
            for _ in range(20):
                writer.write(b" ")
                await writer.drain()
                await asyncio.sleep(0.1)

        server = await asyncio.start_server(trickle, "127.0.0.1", 0)
        url = "http://127.0.0.1:%d" % server.sockets[0].getsockname()[1]
        invoker = OpenAIEMInvoker(model="e", base_url=url, total_timeout=0.5, max_retries=0)
        with self.assertRaises(CallTimeoutError):
            await invoker.invoke("x")
        server.close()

    async def test_a_refused_connection_is_a_connect_error(self):
        server = await asyncio.start_server(lambda r, w: None, "127.0.0.1", 0)
        port = server.sockets[0].getsockname()[1]
        server.close()
        await server.wait_closed()
        synthesizer = stuff_synthesizer("http://127.0.0.1:%d" % port)
        with self.assertRaises(ConnectError):
            await synthesizer._run(query="q", state_variables={"context": ""})


class OpenAIEMInvokerTest(unittest.IsolatedAsyncioTestCase):
    async def test_remote_embeddings_drive_the_similarity_formatter(self):
        table = {"answer": [1.0, 0.0], "near": [0.9, 0.1], "far": [0.0, 1.0]}

        def reply(path, body):
            texts = body["input"] if isinstance(body["input"], list) else [body["input"]]
            return 200, "application/json", [embeddings([table[t] for t in texts])]

        async with ScriptedServer(reply) as server:
            invoker = OpenAIEMInvoker(model="e", base_url=server.url)
            formatter = SimilarityBasedReferenceFormatter(invoker, stringify=False)
            near = Chunk(content="near", metadata={"source": "n"})
            far = Chunk(content="far", metadata={"source": "f"})
            result = await formatter._run(response="answer", chunks=[far, near])
        self.assertEqual(len(result), 1)
        self.assertIs(result[0], near)
        self.assertEqual({r[1] for r in server.requests}, {"/embeddings"})
        self.assertEqual(server.requests[0][3]["model"], "e")


if __name__ == "__main__":
    unittest.main()
