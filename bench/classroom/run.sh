#!/usr/bin/env bash
# Loads veskan-classroom with a class of 30, 500 and 5,000 students (bench/classroom/load.py),
# a fresh classroom for each size, on loopback. Usage: bench/classroom/run.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/../.."
build="${1:-build}"
work=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT
ulimit -n "$(ulimit -Hn)"  # 5,000 students are 5,000 sockets on each side
export VESKAN_USER_REGISTRY="$work/user.db" VESKAN_MACHINE_REGISTRY="$work/machine.db"
export VESKAN_NAMESPACE="classroom-bench-$$"
for students in 30 500 5000; do
  "$build/tools/veskan-classroom" --port 0 --listen 127.0.0.1 --password bench \
    --results "$work/results" >"$work/classroom.log" 2>&1 &
  pid=$!
  base=""
  for _ in $(seq 100); do
    base=$(sed -n 's|^students: \(http://[^ ]*\)$|\1|p' "$work/classroom.log")
    [ -n "$base" ] && break
    sleep 0.1
  done
  [ -n "$base" ] || { cat "$work/classroom.log"; exit 1; }
  python3 bench/classroom/load.py "$base" bench "$students" "$pid"
  kill "$pid"
  wait "$pid" || true
  pid=""
done
