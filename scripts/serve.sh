#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the example server veskan-serve on the software
# service's port (23456), serving this folder under /files/. Arguments go to build.sh (CMake
# options); VESKAN_SERVE_ARGS holds options for veskan-serve (for example "--port 0 --direct").
# Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build.sh "$@"
# shellcheck disable=SC2086
exec "${BUILD_DIR:-build}/tools/veskan-serve" ${VESKAN_SERVE_ARGS:-}
