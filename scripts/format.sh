#!/usr/bin/env bash
# Formats every C++ file of the repository with the checked-in .clang-format, or, with --check,
# lists the files that differ from it and fails when there is one.
# Usage: scripts/format.sh [--check]
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
  clang-format --dry-run --Werror "${files[@]}"
  echo "format: ${#files[@]} files match .clang-format"
else
  clang-format -i "${files[@]}"
fi
