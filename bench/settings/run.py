#!/usr/bin/env python3
"""Settings reads and writes per second with several processes on one database at once.

Starts COPIES copies of veskan_settings_bench together for each case (the library and raw
sqlite3, reading and writing), each on the same database in a fresh folder, and sums their
rates. Every copy writes values of its own name, so writers contend for the database's lock and
nothing else; readers read the one value while the others read too.

Usage: bench/settings/run.py build/bench/veskan_settings_bench [--copies 4] [--seconds 2]"""
import argparse
import json
import os
import subprocess
import tempfile

CASES = ["Read_Veskan", "Read_SqliteRaw", "Write_Veskan", "Write_SqliteRaw"]


def rate(program, case, copies, seconds):
    """The summed items per second of `copies` processes running `case` at once."""
    with tempfile.TemporaryDirectory(prefix="veskan-settings-bench-") as folder:
        environment = dict(os.environ, VESKAN_SETTINGS_BENCH_DIR=folder)
        command = [program, f"--benchmark_filter=^{case}/", f"--benchmark_min_time={seconds}",
                   "--benchmark_format=json"]
        runs = [subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, text=True)
                for _ in range(copies)]
        total = 0.0
        for run in runs:
            output, _ = run.communicate(timeout=600)
            if run.returncode != 0:
                raise SystemExit(f"{case}: a copy failed with status {run.returncode}")
            for result in json.loads(output)["benchmarks"]:
                if "error_message" in result:
                    raise SystemExit(f"{case}: {result['error_message']}")
                total += result["items_per_second"]
        return total


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program")
    parser.add_argument("--copies", type=int, default=4)
    parser.add_argument("--seconds", type=float, default=2.0)
    options = parser.parse_args()
    rates = {case: rate(options.program, case, options.copies, options.seconds) for case in CASES}
    print(f"{options.copies} processes at once, operations per second in all:")
    print(f"{'case':<8} {'library':>10} {'raw':>10} {'raw/library':>12}")
    for operation in ("Read", "Write"):
        library = rates[f"{operation}_Veskan"]
        raw = rates[f"{operation}_SqliteRaw"]
        print(f"{operation:<8} {library:>10.0f} {raw:>10.0f} {raw / library:>12.2f}")


if __name__ == "__main__":
    main()
