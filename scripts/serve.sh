#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the example program.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build}"

scripts/setup.sh
cmake -S . -B "$build" "$@"
cmake --build "$build" -j "$(nproc)"
exec "$build/tools/veskan-version"
