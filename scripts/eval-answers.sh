#!/usr/bin/env bash
# Scores the offline answers of a built orvo on eval/questions.jsonl (the Node.js API reference of
# the nodejs-doc package and the sample corpus). Usage: scripts/eval-answers.sh [BINARY]
# [--corpus nodejs|sample] [--oracle] [-v] [-- ORVO-ASK-OPTIONS]; BINARY defaults to
# build/release/apps/orvo.
set -euo pipefail
exec python3 "$(dirname "$0")/eval_answers.py" "$@"
