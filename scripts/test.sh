#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test. Arguments as for build.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build.sh "$@"
ctest --test-dir "${BUILD_DIR:-build}" --output-on-failure -j "$(nproc)" --timeout 600
