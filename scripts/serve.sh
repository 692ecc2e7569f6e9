#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the example program. Arguments as for build.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build.sh "$@"
exec "${BUILD_DIR:-build}/tools/veskan-version"
