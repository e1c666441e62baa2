#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs the main job: `orvo ask` on the
# sample corpus, offline. Arguments, if any, replace the default question and options.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target orvo
if [ $# -eq 0 ]; then
  set -- ask --docs examples/docs "What causes spring tides?"
fi
exec build/release/apps/orvo "$@"
