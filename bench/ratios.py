#!/usr/bin/env python3
"""Runs a Veskan benchmark program and prints, for every Name_Veskan/SIZE case that has a
Name_*Raw/SIZE partner, the ratio of the wrapper's time to the raw call's.

Repetitions are interleaved and the fastest of each case is kept: on a shared machine, noise
only ever adds time, so the minimum is the steadiest estimate of a case's own cost.

Usage: bench/ratios.py build/bench/veskan_foundation_bench [benchmark options]"""
import json
import subprocess
import sys


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    command = [sys.argv[1], "--benchmark_format=json", "--benchmark_repetitions=9",
               "--benchmark_enable_random_interleaving=true"] + sys.argv[2:]
    report = json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    fastest = {}
    for run in report["benchmarks"]:
        if run.get("run_type") == "iteration":
            name = run["run_name"]
            time = run["real_time"] * scale[run.get("time_unit", "ns")]  # in nanoseconds
            fastest[name] = min(fastest.get(name, float("inf")), time)
    print(f"{'case':<36} {'wrapper':>13} {'raw':>13} {'ratio':>6}")
    for name, time in sorted(fastest.items()):
        base, _, size = name.partition("/")
        if not base.endswith("_Veskan"):
            continue
        prefix = base[: -len("_Veskan")]
        raws = [n for n in fastest if n.startswith(prefix + "_") and n.endswith("Raw/" + size)]
        label = f"{prefix}/{size}"
        if raws:
            raw = fastest[raws[0]]
            print(f"{label:<36} {time:>11.0f}ns {raw:>11.0f}ns {time / raw:>6.2f}")
        else:
            print(f"{label:<36} {time:>11.0f}ns {'-':>13} {'-':>6}")


if __name__ == "__main__":
    main()
