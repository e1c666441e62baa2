#!/usr/bin/env bash
# Installs what is missing, builds the benchmark binary of the release preset and runs it pinned
# to one CPU, with repetitions so that the summary can quote medians. Arguments go to the binary
# after the defaults, so they win, e.g.
#   scripts/run-bench.sh --benchmark_filter='Cosine|ReadBound' --benchmark_repetitions=3
# ORVO_BENCH_CPU picks the CPU (default: the last one); ORVO_CMAKE_ARGS adds configure arguments.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# shellcheck disable=SC2086  # the extra configure arguments are meant to be split
cmake --preset release ${ORVO_CMAKE_ARGS:-} >/dev/null
cmake --build --preset release --target orvo_bench

pin=()
if command -v taskset >/dev/null 2>&1; then
  pin=(taskset -c "${ORVO_BENCH_CPU:-$(($(nproc --all) - 1))}")
fi
# Interleaved repetitions spread slow drifts (another build starting, say) over every benchmark
# instead of one; every repetition is kept in results.json.
exec "${pin[@]}" build/release/bench/orvo_bench \
  --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
  --benchmark_min_time=0.25 --benchmark_display_aggregates_only=true \
  --benchmark_out=build/release/bench/results.json --benchmark_out_format=json "$@"
