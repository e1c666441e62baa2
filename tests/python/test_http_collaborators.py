"""The C++ HTTP collaborators used from asyncio against a scripted OpenAI-compatible server."""
import asyncio
import json
import threading
import unittest

from orvo_generation.response_synthesizer import StuffResponseSynthesizer
from orvo_inference.em_invoker import OpenAIEMInvoker
from orvo_inference.errors import HttpStatusError, InferenceError, MalformedReplyError
from orvo_inference.errors import TimeoutError as CallTimeoutError
from orvo_inference.errors import TruncatedReplyError
from orvo_inference.request_processor import LMRequestProcessor, OpenAILMInvoker, PromptTemplate
from orvo_inference.schema import PromptRole
from support import RecordingEmitter, serve


def chat_stream(text, done=True):
    """A streamed chat reply: one event a word, then [DONE]."""
    words = text.split(" ")
    deltas = [w if i == 0 else " " + w for i, w in enumerate(words)]
    events = ["data: %s\n\n" % json.dumps({"choices": [{"delta": {"content": d}}]}) for d in deltas]
    return 200, "text/event-stream", "".join(events) + ("data: [DONE]\n\n" if done else "")


def stuff_synthesizer(url):
    prompt = PromptTemplate(system_template="Answer from: {context}", user_template="{query}")
    invoker = OpenAILMInvoker(model="m", base_url=url, api_key="sk-test", max_retries=0)
    return StuffResponseSynthesizer(LMRequestProcessor(prompt=prompt, lm_invoker=invoker))


class OpenAILMInvokerTest(unittest.IsolatedAsyncioTestCase):
    async def test_concurrent_streams_reach_their_python_emitters_on_the_loop_thread(self):
        def reply(path, request):
            return chat_stream(request["messages"][-1]["content"] + " is answered here")

        server = serve(self, reply)
        synthesizer = stuff_synthesizer(server.url)
        emitters = [RecordingEmitter() for _ in range(20)]
        history = [(PromptRole.USER, "hi"), [PromptRole.ASSISTANT, "hello"],
                   {"role": "user", "content": "and tides?"}]
        answers = await asyncio.gather(*[
            synthesizer._run(query="q%d" % i, state_variables={"context": "moon"}, history=history,
                             event_emitter=emitters[i]) for i in range(20)])
        self.assertEqual(answers, ["q%d is answered here" % i for i in range(20)])
        for i, emitter in enumerate(emitters):
            self.assertEqual([value for value, _, _ in emitter.events], ["q%d" % i, " is", " answered", " here"])
            self.assertEqual(emitter.threads, {threading.get_ident()})
        request = server.requests[0][2]
        self.assertEqual([(m["role"], m["content"]) for m in request["messages"][:4]],
                         [("system", "Answer from: moon"), ("user", "hi"), ("assistant", "hello"),
                          ("user", "and tides?")])

    async def test_failures_are_their_own_exceptions_and_the_next_request_works(self):
        replies = [
            (500, "application/json", '{"error": "overloaded"}'),
            (200, "application/json", "{not json"),
            chat_stream("cut short", done=False),
            (200, "application/json", json.dumps({"choices": [{"message": {"content": "fine"}}]})),
        ]
        synthesizer = stuff_synthesizer(serve(self, lambda path, request: replies.pop(0)).url)
        for kind, emitter in [(HttpStatusError, None), (MalformedReplyError, None),
                              (TruncatedReplyError, RecordingEmitter())]:
            with self.assertRaises(kind) as caught:
                await synthesizer._run(query="q", state_variables={"context": ""}, event_emitter=emitter)
            self.assertIsInstance(caught.exception, InferenceError)
            self.assertEqual(getattr(caught.exception, "status", 500), 500)
        self.assertEqual(await synthesizer._run(query="q", state_variables={"context": ""}), "fine")

    async def test_client_settings_are_checked_and_a_total_timeout_ends_a_trickle(self):
        for bad in (dict(timeout=float("inf")), dict(min_tls_version="1.0")):
            with self.assertRaises((ValueError, TypeError)):
                OpenAIEMInvoker(model="e", base_url="http://127.0.0.1:1", **bad)

        url = serve(self, lambda path, request: (200, "application/json", [" "] * 20)).url
        invoker = OpenAIEMInvoker(model="e", base_url=url, total_timeout=0.5, max_retries=0)
        with self.assertRaises(CallTimeoutError):
            await invoker.invoke("x")
