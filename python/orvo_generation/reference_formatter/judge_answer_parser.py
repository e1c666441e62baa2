"""Readers of a language model's judgement of one batch of chunks."""
from orvo_core._native import parse_judge_answer, read_judge_answer

__all__ = ["parse_judge_answer", "read_judge_answer"]
