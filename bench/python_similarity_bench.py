"""The similarity-based reference formatter through the binding, against a plain numpy + asyncio
twin doing the same job on the same data: embed the response and the chunk contents, cosine,
keep the scores at or above the threshold, sort them descending and render the references.
Both get their embeddings from the same Python invoker, which returns numpy float32 arrays.
The twin takes row norms with `np.linalg.norm(rows, axis=1)`, as most code does; the tuned twin
with `einsum`, which makes no N x D temporary.

In the same run, two floors that no implementation of `_run` with a task per collaborator
call goes below: the read bound (numpy reading the N x D array once, the faster of a max and a
matrix-vector product) and the asyncio floor (two collaborator calls in tasks of their own and
a future around them, in plain Python, with no work). Prints the median of 9 interleaved
repetitions per case, in CPU time of the thread, and the ratios.

    PYTHONPATH=build/release/python taskset -c 1 /usr/bin/python3 bench/python_similarity_bench.py
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
    """Microseconds of CPU time (and of wall time) per call, over as many calls as fill
    MIN_SECONDS of CPU time. CPU time leaves out the time the thread waited for the CPU on a
    shared machine; all the work, the invoker's included, runs on this thread."""
    count, elapsed = 1, 0.0
    while elapsed < MIN_SECONDS:
        count *= 2
        start, wall = time.thread_time(), time.perf_counter()
        for _ in range(count):
            result = call()
            if asyncio.iscoroutine(result):
                await result
        elapsed = time.thread_time() - start
        wall = time.perf_counter() - wall
    return elapsed / count * 1e6, wall / count * 1e6


async def run_in_task(awaitable, then):
    then(await awaitable)


async def asyncio_floor(invoker, texts):
    """What the binding does around its work, in plain Python: each invoker call in a task of
    its own whose last step hands the result on, and a future that the caller awaits."""
    loop = asyncio.get_running_loop()
    done = loop.create_future()

    def after_response(_):
        loop.create_task(run_in_task(invoker.invoke(texts), done.set_result))

    loop.create_task(run_in_task(invoker.invoke("r"), after_response))
    await done


COLUMNS = ["binding", "twin", "tuned", "floor", "max", "gemv"]


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
        results = [await binding._run(response="r", chunks=chunks)]
        results += [await twin._run("r", plain) for twin in twins]
        # The same references; near-equal scores may order differently in float32 and double.
        entries = [sorted(line.partition(" ")[2] for line in text.split("\n")[1:])
                   for text in results]
        assert len(entries[0]) == kept and entries[0] == entries[1] == entries[2]
        cases[(n, d)] = [lambda b=binding, c=chunks: b._run(response="r", chunks=c)]
        cases[(n, d)] += [lambda t=twin, c=plain: t._run("r", c) for twin in twins]
        cases[(n, d)] += [lambda i=invoker, t=texts: asyncio_floor(i, t),
                          lambda r=rows: r.max(), lambda r=rows, q=query: r @ q]
    samples = {key: [[] for _ in COLUMNS] for key in cases}
    for _ in range(REPETITIONS):
        for key, calls in cases.items():
            for sample, call in zip(samples[key], calls):
                sample.append(await per_call(call))
    print("Medians of CPU time per call (us); read = the faster of max and gemv.")
    print(f"{'N':>6} {'D':>5} {'binding':>9} {'twin':>9} {'tuned':>9} {'floor':>7} {'read':>8} "
          f"{'twin/bind':>9} {'tuned/bind':>10} {'twin/read':>9} {'twin/(floor+read)':>17} "
          f"{'twin/bind wall':>14}")
    for (n, d), columns in samples.items():
        ours, twin, tuned, floor, by_max, by_gemv = (
            statistics.median(cpu for cpu, _ in column) for column in columns)
        read = min(by_max, by_gemv)
        wall = (statistics.median(w for _, w in columns[1])
                / statistics.median(w for _, w in columns[0]))
        print(f"{n:>6} {d:>5} {ours:>9.1f} {twin:>9.1f} {tuned:>9.1f} {floor:>7.1f} {read:>8.1f} "
              f"{twin / ours:>8.2f}x {tuned / ours:>9.2f}x {twin / read:>8.1f}x "
              f"{twin / (floor + read):>16.1f}x {wall:>13.2f}x")


asyncio.run(main())
