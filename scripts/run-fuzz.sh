#!/usr/bin/env bash
# Builds the fuzz preset and runs each fuzz target for a while over a scratch copy of its seed
# corpus (so nothing is written into the repository). Fails when any target crashes or breaks
# one of its properties; the failing inputs are kept in build/fuzz/artifacts/.
#
#   scripts/run-fuzz.sh [seconds per target] [target...]
#
# The time defaults to $ORVO_FUZZ_SECONDS, or 20.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-${ORVO_FUZZ_SECONDS:-20}}"
[ $# -gt 0 ] && shift
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in fuzz/*.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi

scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
artifacts="$PWD/build/fuzz/artifacts"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
failed=()
for target in "${targets[@]}"; do
  cp -r "fuzz/corpus/$target" "$work/$target"
  mkdir -p "$artifacts/$target"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2560 -print_final_stats=1
           -artifact_prefix="$artifacts/$target/")
  if [ -f "fuzz/$target.dict" ]; then options+=(-dict="fuzz/$target.dict"); fi
  echo "run-fuzz: $target for ${seconds}s" >&2
  if ! "build/fuzz/fuzz/$target" "${options[@]}" "$work/$target" >"$work/$target.log" 2>&1; then
    grep -v -E '^#[0-9]+' "$work/$target.log" | tail -n 60 >&2
    failed+=("$target")
  fi
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$work/$target.log" | sed "s/^/  $target /" >&2 || true
done
if [ ${#failed[@]} -ne 0 ]; then
  echo "run-fuzz: failed: ${failed[*]} (inputs in $artifacts)" >&2
  exit 1
fi
