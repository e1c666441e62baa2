"""The stuff synthesizer driven from asyncio, with a Python processor."""
import unittest

from orvo_generation.response_synthesizer import StuffResponseSynthesizer
from orvo_inference.schema import PromptRole
from support import DuckEmitter, RecordingProcessor


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
