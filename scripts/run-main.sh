#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs the main job on the embedded
# defaults.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target 01_format_references
build/release/examples/01_format_references "$@"
