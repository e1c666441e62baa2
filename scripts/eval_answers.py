#!/usr/bin/env python3
"""Scores `orvo ask` on the question set in eval/questions.jsonl.

For each question it runs the built tool offline (`orvo ask --json --docs CORPUS QUESTION`) and
checks the last JSON line: an answerable question is answered right when the answer holds every
key phrase (one of the alternatives split by " | ", compared without case, backticks or emphasis),
an unanswerable one when the tool declines. Citation precision is the share of cited files (the
reference URLs without their #anchor) that are among the question's expected files, over all
answered questions. With --oracle the corpus is only the question's expected files (for an
unanswerable question, the nearby files it lists), which judges the answerer on the right context
whatever retrieval does.
"""
import argparse
import gzip
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
NODE_DOCS = Path("/usr/share/doc/nodejs/api")
DECLINES = ("I couldn't find an answer in the documents.",
            "I could not find an answer to that in the documents.")  # The second: older builds.


def unzip_node_docs(into: Path) -> Path:
    files = sorted(NODE_DOCS.glob("*.md.gz"))
    if not files:
        sys.exit(f"eval: no {NODE_DOCS}/*.md.gz (install nodejs-doc: scripts/install-deps.sh)")
    into.mkdir(parents=True, exist_ok=True)
    for file in files:
        (into / file.name[:-3]).write_bytes(gzip.decompress(file.read_bytes()))
    return into


def normalise(text: str) -> str:
    text = re.sub(r"[`*]", "", text).lower()
    return re.sub(r"\s+", " ", text)


def holds(answer: str, phrases) -> bool:
    text = normalise(answer)
    return all(any(normalise(alt.strip()) in text for alt in phrase.split(" | "))
               for phrase in phrases)


def cited_files(references) -> list:
    if isinstance(references, list):
        urls = [r.get("url", "") for r in references if isinstance(r, dict)]
    else:
        urls = re.findall(r"\]\(([^)]*)\)", references or "")
    files = []
    for url in urls:
        name = os.path.basename(url.split("#", 1)[0])
        if name and name not in files:
            files.append(name)
    return files


def ask(binary: str, docs: Path, question: str, extra: list) -> dict:
    run = subprocess.run([binary, "ask", "--json", "--docs", str(docs), *extra, question],
                         capture_output=True, text=True)
    result = None
    for line in run.stdout.splitlines():
        try:
            obj = json.loads(line)
        except ValueError:
            continue
        if isinstance(obj, dict) and obj.get("type") == "RESULT":
            result = obj
    if run.returncode not in (0, 3) or result is None:
        return {"error": f"exit {run.returncode}: {run.stderr.strip()[-300:]}"}
    answer = result.get("answer")
    answer = answer if isinstance(answer, str) else json.dumps(answer)
    answered = result.get("answered")
    if answered is None:
        answered = run.returncode == 0 and answer.strip() not in DECLINES
    return {"answer": answer, "answered": bool(answered),
            "files": cited_files(result.get("references")) if answered else []}


def oracle_docs(corpus: Path, names: list, into: Path) -> Path:
    if into.exists():
        shutil.rmtree(into)
    into.mkdir(parents=True)
    for name in names:
        shutil.copy(corpus / name, into / name)
    return into


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0],
                                     epilog="Options after -- go to orvo ask.")
    parser.add_argument("binary", nargs="?", default=str(ROOT / "build/release/apps/orvo"))
    parser.add_argument("--questions", default=str(ROOT / "eval/questions.jsonl"))
    parser.add_argument("--corpus", choices=["all", "nodejs", "sample"], default="all")
    parser.add_argument("--oracle", action="store_true",
                        help="give each question only its expected (or nearby) files")
    parser.add_argument("-v", "--verbose", action="store_true", help="print every answer")
    argv = sys.argv[1:]
    cut = argv.index("--") if "--" in argv else len(argv)
    args = parser.parse_args(argv[:cut])
    extra = argv[cut + 1:]  # More options for orvo ask.
    questions = [json.loads(line) for line in open(args.questions, encoding="utf-8")
                 if line.strip()]
    if args.corpus != "all":
        questions = [q for q in questions if q["corpus"] == args.corpus]

    totals = {}
    with tempfile.TemporaryDirectory(prefix="orvo-eval-") as temp:
        temp = Path(temp)
        corpora = {"sample": ROOT / "examples/docs"}
        if any(q["corpus"] == "nodejs" for q in questions):
            corpora["nodejs"] = unzip_node_docs(temp / "nodejs")
        for q in questions:
            corpus = corpora[q["corpus"]]
            docs = corpus
            if args.oracle:
                docs = oracle_docs(corpus, q.get("files") or q.get("near") or [], temp / "oracle")
            got = ask(args.binary, docs, q["question"], extra)
            t = totals.setdefault(q["corpus"], dict.fromkeys(
                ("answerable", "right_answers", "unanswerable", "right_declines", "cited",
                 "cited_right"), 0))
            expected_files = set(q.get("files", [])) if q["answerable"] else set()
            if "error" in got:
                verdict, right = "ERROR " + got["error"], False
            elif q["answerable"]:
                right = got["answered"] and holds(got["answer"], q["expect"])
                verdict = "right" if right else ("declined" if not got["answered"] else "wrong")
            else:
                right = not got["answered"]
                verdict = "right decline" if right else "answered"
            t["answerable" if q["answerable"] else "unanswerable"] += 1
            if right:
                t["right_answers" if q["answerable"] else "right_declines"] += 1
            files = got.get("files", [])
            t["cited"] += len(files)
            t["cited_right"] += sum(1 for f in files if f in expected_files)
            mark = "ok " if right else "BAD"
            print(f"{mark} [{q['corpus']}] {q['question']} -> {verdict}"
                  + (f"; cites {', '.join(files)}" if files else ""))
            if args.verbose or (not right and "answer" in got):
                print("      " + got.get("answer", "").replace("\n", " ")[:400])

    print()
    grand = {}
    for corpus, t in totals.items():
        for key, value in t.items():
            grand[key] = grand.get(key, 0) + value
    for name, t in list(totals.items()) + [("total", grand)]:
        precision = f"{t['cited_right']}/{t['cited']}" + (
            f" = {t['cited_right'] / t['cited']:.2f}" if t["cited"] else "")
        print(f"{name:7} right answers {t['right_answers']}/{t['answerable']}, "
              f"right declines {t['right_declines']}/{t['unanswerable']}, "
              f"citation precision {precision}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
