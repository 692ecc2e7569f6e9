#!/usr/bin/env bash
# Sets up the machine and builds everything. Extra arguments go to CMake; BUILD_DIR chooses the
# build folder (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build}"

scripts/setup.sh
cmake -S . -B "$build" "$@"
cmake --build "$build" -j "$(nproc)"
