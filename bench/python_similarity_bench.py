"""The similarity-based reference formatter through the binding, against a plain numpy + asyncio
twin doing the same job on the same data: embed the response and the chunk contents, cosine,
keep the scores at or above the threshold, sort them descending and render the references.
Both get their embeddings from the same Python invoker, which returns numpy float32 arrays.
The twin takes row norms with `np.linalg.norm(rows, axis=1)`, as most code does; the tuned twin
with `einsum`, which makes no N x D temporary. Prints the median of 9 interleaved repetitions per
case, and each twin's time over the binding's.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_similarity_bench.py
"""
import asyncio
import dataclasses
import os
import statistics
import time

# The binding computes on one thread; so does numpy's BLAS here, which on a shared two-core
# machine is also its fastest setting.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")
import numpy as np  # noqa: E402 - after the thread setting

from orvo_core.schema import Chunk
from orvo_generation.reference_formatter import SimilarityBasedReferenceFormatter

SIZES = [(n, d) for d in (384, 1536) for n in (100, 1_000, 10_000)]
REPETITIONS = 9
MIN_SECONDS = 0.2


class ArrayInvoker:
    """Hands out precomputed embeddings, as an embedding client returns them: the response's as
    one vector, the contents' as one N x D array."""

    def __init__(self, query, rows):
        self.query = query
        self.rows = rows

    async def invoke(self, text_or_texts):
        return self.query if isinstance(text_or_texts, str) else self.rows


@dataclasses.dataclass
class PlainChunk:
    content: str
    metadata: dict


def row_norms(rows):
    return np.linalg.norm(rows, axis=1)


def row_norms_einsum(rows):
    return np.sqrt(np.einsum("ij,ij->i", rows, rows))


class NumpySimilarityFormatter:
    """The twin: the formatter's `_run` (stringify, no events) as plain numpy and asyncio."""

    def __init__(self, em_invoker, threshold=0.5, norms=row_norms):
        self.em_invoker = em_invoker
        self.threshold = threshold
        self.norms = norms

    async def _run(self, response, chunks):
        if not chunks:
            return ""
        query = np.asarray(await self.em_invoker.invoke(response), dtype=np.float32)
        rows = np.asarray(await self.em_invoker.invoke([c.content for c in chunks]),
                          dtype=np.float32)
        scores = rows @ query / (self.norms(rows) * np.linalg.norm(query))
        kept = np.flatnonzero(scores >= self.threshold)
        kept = kept[np.argsort(-scores[kept], kind="stable")]
        lines = (f"{i}. [{chunks[k].metadata['file_name']}]({chunks[k].metadata['file_url']})"
                 for i, k in enumerate(kept.tolist(), 1))
        return "\n".join(["References:", *lines]) if len(kept) else ""


def make_data(n, d, rng):
    """A random unit query; each row has cosine s with it by construction: one row in five
    (at random places) has s in [0.55, 0.95], the others in [-0.25, 0.45]."""
    query = rng.standard_normal(d)
    query /= np.linalg.norm(query)
    noise = rng.standard_normal((n, d))
    noise -= np.outer(noise @ query, query)
    noise /= np.linalg.norm(noise, axis=1, keepdims=True)
    s = rng.uniform(-0.25, 0.45, n)
    similar = rng.choice(n, n // 5, replace=False)
    s[similar] = rng.uniform(0.55, 0.95, n // 5)
    rows = s[:, None] * query + np.sqrt(1 - s * s)[:, None] * noise
    sentences = ["The tide turns twice a day.", "Spring tides follow the new and full moon.",
                 "Neap tides come at the quarters.", "The harbour gauge reads every minute."]
    texts = [" ".join(sentences[: 2 + i % 3]) for i in range(n)]
    metadata = [{"file_name": f"tidal-handbook-{i:05d}.pdf",
                 "file_url": f"https://docs.example.org/oceanography/tidal-handbook-{i:05d}.pdf"}
                for i in range(n)]
    return query.astype(np.float32), rows.astype(np.float32), texts, metadata, n // 5


async def per_call(call):
    """Microseconds per call, over as many calls as fill MIN_SECONDS."""
    count, elapsed = 1, 0.0
    while elapsed < MIN_SECONDS:
        count *= 2
        start = time.perf_counter()
        for _ in range(count):
            await call()
        elapsed = time.perf_counter() - start
    return elapsed / count * 1e6


async def main():
    rng = np.random.default_rng(14)
    cases = {}
    for n, d in SIZES:
        query, rows, texts, metadata, kept = make_data(n, d, rng)
        invoker = ArrayInvoker(query, rows)
        chunks = [Chunk(content=t, metadata=m) for t, m in zip(texts, metadata)]
        plain = [PlainChunk(t, m) for t, m in zip(texts, metadata)]
        binding = SimilarityBasedReferenceFormatter(invoker, streamable=False)
        twins = [NumpySimilarityFormatter(invoker, norms=norms)
                 for norms in (row_norms, row_norms_einsum)]
        texts = [await binding._run(response="r", chunks=chunks)]
        texts += [await twin._run("r", plain) for twin in twins]
        # The same references; near-equal scores may order differently in float32 and double.
        entries = [sorted(line.partition(" ")[2] for line in text.split("\n")[1:])
                   for text in texts]
        assert len(entries[0]) == kept and entries[0] == entries[1] == entries[2]
        cases[(n, d)] = [lambda b=binding, c=chunks: b._run(response="r", chunks=c)]
        cases[(n, d)] += [lambda t=twin, c=plain: t._run("r", c) for twin in twins]
    samples = {key: ([], [], []) for key in cases}
    for _ in range(REPETITIONS):
        for key, calls in cases.items():
            for sample, call in zip(samples[key], calls):
                sample.append(await per_call(call))
    print(f"{'N':>6} {'D':>5} {'binding us':>11} {'twin us':>9} {'tuned us':>9} "
          f"{'twin/binding':>13} {'tuned/binding':>14}")
    for (n, d), times in samples.items():
        ours, twin, tuned = (statistics.median(t) for t in times)
        print(f"{n:>6} {d:>5} {ours:>11.1f} {twin:>9.1f} {tuned:>9.1f} "
              f"{twin / ours:>12.2f}x {tuned / ours:>13.2f}x")


asyncio.run(main())
