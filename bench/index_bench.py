"""The tool's index at scale: build time and peak memory of `orvo index` on 1, 10 and 100 MB of
Markdown, `orvo ask` latency on the indexed corpus (offline), and the re-index after one file
changed. The corpora are made from the sample corpus by repetition with variations: paragraphs
shuffled, numbered variants of words and one rare term per copy, so that no two files are the
same and the vocabulary grows with the size.

    python3 bench/index_bench.py [build/release/apps/orvo] [--sizes 1,10,100] [--runs 11]

Prints one Markdown table; wall times are medians of --runs runs, peak memory is the maximum
resident set of the process (wait4).
"""
import argparse
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
QUESTIONS = ["What causes spring tides?", "Why are there two high tides a day?",
             "How does a tide-predicting machine work?", "What is an amphidromic point?"]


def sample_documents():
    docs = []
    for path in sorted((ROOT / "examples" / "docs").rglob("*")):
        if path.suffix in (".md", ".txt"):
            docs.append((path.stem, path.read_text(encoding="utf-8")))
    return docs


def make_corpus(folder, megabytes, rng):
    """Writes files of about 30 KB, each a dozen varied sample documents, until `megabytes`
    are written (documentation pages run from a few to a hundred KB)."""
    docs = sample_documents()
    target = megabytes * 1_000_000
    written, copy = 0, 0
    words = re.compile(r"\b([a-z]{6,})\b")
    while written < target:
        copy += 1
        sub = folder / f"part-{copy // 100:04d}"
        sub.mkdir(parents=True, exist_ok=True)
        parts = []
        for stem, text in rng.sample(docs, 12):
            paragraphs = text.split("\n\n")
            head, body = paragraphs[:1], paragraphs[1:]
            rng.shuffle(body)
            parts.append(words.sub(
                lambda m: m.group(1) + (f"{copy % 7}" if rng.random() < 0.05 else ""),
                "\n\n".join(["#" + h for h in head] + body)))
        page = "\n\n".join(parts) + f"\n\nCatalogue entry {copy}: term zq{copy:06d}.\n"
        (sub / f"page-{copy:05d}.md").write_text(page, encoding="utf-8")
        written += len(page.encode())
    return written


def run(args):
    """Wall seconds, peak resident MB and CPU seconds (user + system) of one run of the tool;
    the CPU time holds when other work shares the machine."""
    start = time.perf_counter()
    child = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(child.pid, 0)
    elapsed = time.perf_counter() - start
    stderr = child.stderr.read().decode(errors="replace")
    child.stderr.close()
    code = os.waitstatus_to_exitcode(status)
    if code not in (0, 3):
        sys.exit(f"{' '.join(args)} failed ({code}): {stderr}")
    return elapsed, usage.ru_maxrss / 1024, usage.ru_utime + usage.ru_stime


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("binary", nargs="?", default=str(ROOT / "build/release/apps/orvo"))
    parser.add_argument("--sizes", default="1,10,100")
    parser.add_argument("--runs", type=int, default=11)
    options = parser.parse_args()
    rng = random.Random(16)
    work = Path(tempfile.mkdtemp(prefix="orvo-index-bench-"))
    print("| corpus | files | build (s) | build peak (MB) | ask (ms) | ask CPU (ms) "
          "| ask peak (MB) | one file changed (ms) |")
    print("|---:|---:|---:|---:|---:|---:|---:|---:|")
    try:
        for size in (int(s) for s in options.sizes.split(",")):
            corpus, db = work / f"corpus-{size}", work / f"index-{size}.sqlite"
            written = make_corpus(corpus, size, rng)
            files = sum(1 for _ in corpus.rglob("*.md"))
            index = [options.binary, "index", "--docs", str(corpus), "--db", str(db)]
            build, build_peak, _ = run(index)
            asks = [run([options.binary, "ask", "--docs", str(corpus), "--db", str(db),
                         QUESTIONS[i % len(QUESTIONS)]]) for i in range(options.runs)]
            changed = []
            victim = next(corpus.rglob("*.md"))
            for i in range(max(3, options.runs // 2)):
                with victim.open("a", encoding="utf-8") as f:
                    f.write(f"\nA late note, number {i}, on the tides of this place.\n")
                changed.append(run(index)[0])
            print(f"| {written / 1e6:.0f} MB | {files} | {build:.2f} | {build_peak:.0f} "
                  f"| {statistics.median(a[0] for a in asks) * 1e3:.0f} "
                  f"| {statistics.median(a[2] for a in asks) * 1e3:.0f} "
                  f"| {max(a[1] for a in asks):.0f} | {statistics.median(changed) * 1e3:.0f} |",
                  flush=True)
            shutil.rmtree(corpus)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
