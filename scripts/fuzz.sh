#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a bounded time, starting from its seed corpus in
# tests/data/fuzz/NAME. New inputs go to a temporary folder; a crash stops with its input saved
# under the build folder.
# Usage: scripts/fuzz.sh SECONDS [BUILD_DIR]   (build with -DVESKAN_FUZZ=ON and clang first)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:?usage: scripts/fuzz.sh SECONDS [BUILD_DIR]}"
build="${2:-build-fuzz}"

shopt -s nullglob
targets=("$build"/tests/fuzz/veskan_fuzz_*)
[ ${#targets[@]} -gt 0 ] || { echo "fuzz: no targets in $build/tests/fuzz" >&2; exit 1; }

for target in "${targets[@]}"; do
  name="${target##*/veskan_fuzz_}"
  corpus=$(mktemp -d)
  log=$(mktemp)
  trap 'rm -rf "$corpus" "$log"' EXIT
  echo "fuzz: $name for ${seconds}s"
  # The target's own exit status decides; its log is only summarised.
  status=0
  "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$build/fuzz-$name-" "$corpus" "tests/data/fuzz/$name" >"$log" 2>&1 ||
    status=$?
  grep -E '^(stat::number_of_executed_units|Done|==[0-9]+==ERROR|SUMMARY)' "$log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$log" >&2
    echo "fuzz: $name failed (exit $status)" >&2
    exit "$status"
  fi
  rm -rf "$corpus" "$log"
  trap - EXIT
done
