#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs the tests in a preset (default: dev).
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
