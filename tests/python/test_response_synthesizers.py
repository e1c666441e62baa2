"""The response synthesizers driven from asyncio, with Python collaborators."""
import asyncio
import unittest

from orvo_core.constants import EventLevel, EventType
from orvo_generation.response_synthesizer import StaticListResponseSynthesizer, StuffResponseSynthesizer
from orvo_generation.response_synthesizer.response_synthesizer import BaseResponseSynthesizer
from orvo_inference.request_processor import ExtractiveRequestProcessor
from orvo_inference.schema import PromptRole
from support import DuckEmitter, RecordingEmitter, RecordingProcessor


class StuffTest(unittest.IsolatedAsyncioTestCase):
    async def test_the_query_lands_in_the_callers_own_map(self):
        answer = {"not": "a string"}
        processor = RecordingProcessor(answer)
        state = {"context": "c", "query": "old"}
        history = [(PromptRole.USER, "hi")]
        emitter = DuckEmitter()
        contents = ["https://example.org/a.png"]
        result = await StuffResponseSynthesizer(processor)._run(
            query="new", state_variables=state, history=history, event_emitter=emitter,
            user_multimodal_contents=contents)
        self.assertIs(result, answer)
        self.assertEqual(state, {"context": "c", "query": "new"})
        prompt, args, kwargs = processor.calls[0]
        self.assertEqual([prompt is state, args[0] is history, kwargs["user_multimodal_contents"] is contents],
                         [True] * 3)
        self.assertEqual(kwargs, dict(event_emitter=emitter, system_multimodal_contents=None,
                                      user_multimodal_contents=contents))

        state = {"context": "Tides rise twice a day. The moon pulls the sea."}
        native = StuffResponseSynthesizer(ExtractiveRequestProcessor("answer"))
        self.assertIn("Tides rise", await native._run(query="Why do tides rise?", state_variables=state))
        self.assertEqual(state["query"], "Why do tides rise?")

    async def test_the_query_stays_when_the_processor_fails_and_the_error_is_the_same_object(self):
        failure = RuntimeError("model down")
        state = {"context": "c"}
        with self.assertRaises(RuntimeError) as caught:
            await StuffResponseSynthesizer(RecordingProcessor(error=failure))._run(query="q", state_variables=state)
        self.assertIs(caught.exception, failure)
        self.assertEqual(state["query"], "q")

    async def test_a_hundred_concurrent_invocations_keep_their_events_apart(self):
        class SlowEmittingProcessor:
            async def process(self, prompt_kwargs, history=None, event_emitter=None, **kwargs):
                for piece in ("a", "b", "c"):
                    await asyncio.sleep(0)
                    await event_emitter.emit(prompt_kwargs["query"] + piece, EventLevel.INFO,
                                             EventType.RESPONSE)
                return prompt_kwargs["query"]

        synthesizer = StuffResponseSynthesizer(SlowEmittingProcessor())
        emitters = [RecordingEmitter() for _ in range(100)]
        answers = await asyncio.gather(*[
            synthesizer.run(query=str(i), event_emitter=emitters[i]) for i in range(100)])
        self.assertEqual(answers, [str(i) for i in range(100)])
        for i, emitter in enumerate(emitters):
            values = emitter.values()
            self.assertEqual([len(values)] + values[1:4], [5, f"{i}a", f"{i}b", f"{i}c"])
            self.assertIn(f"'{i}'", values[0])


class StaticListTest(unittest.IsolatedAsyncioTestCase):
    async def test_a_list_of_python_strings_and_one_event(self):
        emitter = RecordingEmitter()
        custom = StaticListResponseSynthesizer("Results: ", delimiter="; ")
        text = await custom._run(state_variables={"context_list": ["a", "b"]}, event_emitter=emitter)
        self.assertEqual(text, "Results: 1. a; 2. b")
        self.assertEqual(emitter.events, [(text, EventLevel.INFO, EventType.RESPONSE)])
        for state in [None, {"context_list": "abc"}, {"context_list": ("a",)},
                      {"context_list": ["a", 3]}, {"context_list": ["a", None]}]:
            with self.subTest(state=state):
                with self.assertRaisesRegex(ValueError, "must include a `context_list` key"):
                    await custom._run(state_variables=state)


class BaseTest(unittest.IsolatedAsyncioTestCase):
    async def test_python_subclasses_implement_synthesize_response(self):
        with self.assertRaises(TypeError):
            BaseResponseSynthesizer()

        class Echo(BaseResponseSynthesizer):
            async def synthesize_response(self, query=None, state_variables=None, **kwargs):
                return f"{query}|{state_variables}"

        echo = Echo()
        self.assertEqual(await echo._run(query="q", state_variables={"a": 1}), "q|{'a': 1}")
        with self.assertRaises(NotImplementedError):
            await BaseResponseSynthesizer.synthesize_response(echo)
