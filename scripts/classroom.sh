#!/usr/bin/env bash
# Sets up the machine, builds everything and starts veskan-classroom on the bundled sample quiz.
# It prints the students' and the teacher's addresses (with the teacher's password). Arguments
# go to build.sh (CMake options); VESKAN_CLASSROOM_ARGS holds options for veskan-classroom (for
# example "--port 0 --password chalk"). Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build.sh "$@"
# shellcheck disable=SC2086
exec "${BUILD_DIR:-build}/tools/veskan-classroom" ${VESKAN_CLASSROOM_ARGS:-}
