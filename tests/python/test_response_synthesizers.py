"""The response synthesizers driven from asyncio, with Python collaborators."""
import asyncio
import unittest

from orvo_core.constants import EventLevel, EventType
from orvo_generation.response_synthesizer import (
    StaticListResponseSynthesizer,
    StuffResponseSynthesizer,
)
from orvo_generation.response_synthesizer.response_synthesizer import BaseResponseSynthesizer
from orvo_generation.response_synthesizer.static_list_response_synthesizer import (
    DEFAULT_FALLBACK_RESPONSE,
    DEFAULT_RESPONSE_PREFIX,
)
from orvo_inference.request_processor import ExtractiveRequestProcessor
from orvo_inference.schema import PromptRole
from support import DuckEmitter, RecordingEmitter, RecordingProcessor

CONTEXT_LIST_ERROR = (
    "The input state variables for response synthesizer must include a `context_list` key of type `list[str]`."
)


class StuffTest(unittest.IsolatedAsyncioTestCase):
    async def test_the_query_lands_in_the_callers_own_map(self):
        processor = RecordingProcessor()
        synthesizer = StuffResponseSynthesizer(processor)
        state = {"context": "c", "query": "old"}
        history = [(PromptRole.USER, "hi")]
        emitter = DuckEmitter()
        contents = ["https://example.org/a.png"]
        answer = await synthesizer._run(query="new", state_variables=state, history=history,
                                        event_emitter=emitter, user_multimodal_contents=contents)
        self.assertEqual(answer, "answer")
        self.assertEqual(state, {"context": "c", "query": "new"})
        prompt, snapshot, args, kwargs = processor.calls[0]
        self.assertIs(prompt, state)
        self.assertIs(args[0], history)
        self.assertIs(kwargs["event_emitter"], emitter)
        self.assertIs(kwargs["user_multimodal_contents"], contents)
        self.assertIsNone(kwargs["system_multimodal_contents"])

    async def test_the_query_stays_when_the_processor_fails_and_the_error_is_the_same_object(self):
        failure = RuntimeError("model down")
        synthesizer = StuffResponseSynthesizer(RecordingProcessor(error=failure))
        state = {"context": "c"}
        with self.assertRaises(RuntimeError) as caught:
            await synthesizer._run(query="q", state_variables=state)
        self.assertIs(caught.exception, failure)
        self.assertEqual(state["query"], "q")

    async def test_a_native_processor_writes_the_query_back_too(self):
        synthesizer = StuffResponseSynthesizer(ExtractiveRequestProcessor("answer"))
        state = {"context": "Tides rise twice a day. The moon pulls the sea."}
        answer = await synthesizer._run(query="Why do tides rise?", state_variables=state)
        self.assertIn("Tides rise twice a day.", answer)
        self.assertEqual(state["query"], "Why do tides rise?")

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
            values = [value for value, _, _ in emitter.events]
            self.assertEqual(values, [f"[Start 'StuffResponseSynthesizer'] Processing query: '{i}'",
                                      f"{i}a", f"{i}b", f"{i}c",
                                      f"[Finished 'StuffResponseSynthesizer'] Successfully synthesized response:\n'{i}'"])


class StaticListTest(unittest.IsolatedAsyncioTestCase):
    async def test_numbered_list_fallback_and_one_event(self):
        synthesizer = StaticListResponseSynthesizer()
        emitter = RecordingEmitter()
        text = await synthesizer._run(state_variables={"context_list": ["a"]}, event_emitter=emitter)
        self.assertEqual(text, DEFAULT_RESPONSE_PREFIX + "1. a")
        self.assertEqual(await synthesizer._run(state_variables={"context_list": []}),
                         DEFAULT_FALLBACK_RESPONSE)
        self.assertEqual(emitter.events, [(text, EventLevel.INFO, EventType.RESPONSE)])
        custom = StaticListResponseSynthesizer("Results: ", delimiter="; ", streamable=False)
        self.assertEqual(custom.preceding_line, "Results: ")
        self.assertFalse(hasattr(custom, "response_prefix"))
        self.assertEqual(await custom._run(state_variables={"context_list": ["a", "b"]},
                                           event_emitter=emitter), "Results: 1. a; 2. b")
        self.assertEqual(len(emitter.events), 1)

    async def test_bad_context_lists_raise_the_fixed_message(self):
        synthesizer = StaticListResponseSynthesizer()
        for state in [None, {}, {"other": 1}, {"context_list": "abc"}, {"context_list": ("a",)},
                      {"context_list": ["a", "b", 3]}, {"context_list": ["a", None]}]:
            with self.subTest(state=state):
                with self.assertRaises(ValueError) as caught:
                    await synthesizer._run(state_variables=state)
                self.assertEqual(str(caught.exception), CONTEXT_LIST_ERROR)


class BaseTest(unittest.IsolatedAsyncioTestCase):
    async def test_python_subclasses_implement_synthesize_response_and_hooks(self):
        with self.assertRaises(TypeError):
            BaseResponseSynthesizer()

        class Echo(BaseResponseSynthesizer):
            async def synthesize_response(self, query=None, state_variables=None, history=None,
                                          event_emitter=None, system_multimodal_contents=None,
                                          user_multimodal_contents=None):
                return f"{query}|{state_variables}|{event_emitter is not None}"

        echo = Echo(streamable=False)
        self.assertEqual(await echo._run(query="q", variables={"a": 1}, event_emitter=DuckEmitter()),
                         "q|{'a': 1}|False")
        self.assertEqual(echo._format_input_event({"query": "It's \"x\""}),
                         "[Start 'Echo'] Processing query: 'It\\'s \"x\"'")
        with self.assertRaises(NotImplementedError):
            await BaseResponseSynthesizer.synthesize_response(echo)


if __name__ == "__main__":
    unittest.main()
