#!/usr/bin/env python3
"""The HTTP client beside plain libcurl and the curl command, against veskan-serve's /hello.

Builds veskan-serve and veskan_client_bench (bench/client/ClientBench.cpp) into build-bench-client/
at the repository root, starts the server pinned to CPU 0 in direct mode, and runs every client
pinned to CPU 1, interleaving the cases run after run so that the machine's drift touches them
alike:

- sequential: COUNT GETs one after the other through one HttpClient (Send(message, false)),
  beside one reused libcurl easy handle asking for the same kept connection;
- parallel: COUNT GETs with IN_FLIGHT in flight through one HttpClient (Send(message, true)),
  beside `curl --parallel --parallel-max IN_FLIGHT` fetching the same URL COUNT times.

The machine is shared, so one case can run at half speed for a while: each run's two cases of a
kind are compared with each other, and the ratio given is the median of those per-run ratios.
Prints the medians and the ratios, and writes them to bench/client/RESULTS.md. Every client must
get COUNT good replies, or the run fails. Standard library only.
"""

import argparse
import datetime
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from benchlib import append_results, fmt, log, pinned  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(ROOT, "build-bench-client")
SERVE = os.path.join(BUILD, "tools", "veskan-serve")
BENCH = os.path.join(BUILD, "bench", "client", "veskan_client_bench")
RESULTS = os.path.join(HERE, "RESULTS.md")
SERVER_CPU = "0"
CLIENT_CPU = "1"
LISTENING = re.compile(r"listening on http://127\.0\.0\.1:(\d+)/")


def build():
    if not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        if subprocess.run(["cmake", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release",
                           "-DVESKAN_BUILD_TESTS=OFF"], stdout=sys.stderr).returncode != 0:
            sys.exit("configuring build-bench-client failed")
    if subprocess.run(["cmake", "--build", BUILD, "-j", "2", "--target", "veskan-serve",
                       "veskan_client_bench"], stdout=sys.stderr).returncode != 0:
        sys.exit("building veskan-serve or veskan_client_bench failed")


def start_server(output):
    process = subprocess.Popen(pinned(SERVER_CPU, [SERVE, "--port", "0", "--direct"]),
                               stdout=output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        output.seek(0)
        match = LISTENING.search(output.read().decode(errors="replace"))
        if match:
            return process, int(match.group(1))
        if process.poll() is not None:
            break
        time.sleep(0.05)
    process.kill()
    sys.exit("veskan-serve did not start")


def bench_program(mode, url, count, in_flight=None):
    """Seconds the benchmark program measured for one case."""
    command = [BENCH, mode, url, str(count)] + ([str(in_flight)] if in_flight else [])
    done = subprocess.run(pinned(CLIENT_CPU, command), capture_output=True, text=True, timeout=600)
    fields = done.stdout.split()
    if done.returncode != 0 or len(fields) != 4 or fields[3] != str(count):
        sys.exit(f"{mode} failed: {done.stdout.strip()} {done.stderr.strip()[-400:]}")
    return float(fields[2])


def curl_parallel(config, count, in_flight):
    """Seconds `curl --parallel` takes for the COUNT transfers of `config`, process start included."""
    command = ["curl", "--no-progress-meter", "--parallel", "--parallel-max", str(in_flight),
               "-H", "Connection: Keep-Alive", "-w", "%{http_code}\n", "-K", config]
    start = time.monotonic()
    done = subprocess.run(pinned(CLIENT_CPU, command), capture_output=True, text=True, timeout=600)
    seconds = time.monotonic() - start
    good = done.stdout.split().count("200")
    if done.returncode != 0 or good != count:
        sys.exit(f"curl --parallel failed: {good} of {count} replies were 200, exit {done.returncode}")
    return seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--count", type=int, default=10000, help="requests per case (10,000)")
    parser.add_argument("--in-flight", type=int, default=50, help="parallel transfers (50)")
    parser.add_argument("--runs", type=int, default=7, help="runs of every case (7)")
    parser.add_argument("--no-results", action="store_true", help="leave RESULTS.md alone")
    args = parser.parse_args()

    build()
    load_before = os.getloadavg()
    times = {"client-sequential": [], "curl-sequential": [], "client-parallel": [],
             "curl-parallel": []}
    with tempfile.TemporaryDirectory(prefix="bench-client-") as folder:
        output = open(os.path.join(folder, "server.out"), "w+b")
        server, port = start_server(output)
        url = f"http://127.0.0.1:{port}/hello"
        config = os.path.join(folder, "urls.curl")
        with open(config, "w") as f:
            f.write(f'url = "{url}"\noutput = "/dev/null"\n' * args.count)
        try:
            for run in range(args.runs):
                # Alternate which side goes first.
                sequential = ["client-sequential", "curl-sequential"]
                for mode in sequential if run % 2 == 0 else reversed(sequential):
                    times[mode].append(bench_program(mode, url, args.count))
                parallel = [("client-parallel",
                             lambda: bench_program("client-parallel", url, args.count, args.in_flight)),
                            ("curl-parallel", lambda: curl_parallel(config, args.count, args.in_flight))]
                for mode, measure in parallel if run % 2 == 0 else reversed(parallel):
                    times[mode].append(measure())
                log(f"run {run + 1}: " + ", ".join(f"{m} {t[-1]:.3f} s" for m, t in times.items()))
        finally:
            server.terminate()
            server.wait(timeout=30)

    median = {mode: statistics.median(values) for mode, values in times.items()}
    rate = {mode: args.count / seconds for mode, seconds in median.items()}
    # Time over time for the sequential case, rate over rate (time inverted) for the parallel one.
    sequential_ratio = statistics.median(
        client / curl for client, curl in zip(times["client-sequential"], times["curl-sequential"]))
    parallel_ratio = statistics.median(
        curl / client for client, curl in zip(times["client-parallel"], times["curl-parallel"]))
    spread = {mode: (min(values), max(values)) for mode, values in times.items()}
    rows = [
        ("HttpClient, Send(message, false)", "client-sequential"),
        ("libcurl easy handle, reused", "curl-sequential"),
        (f"HttpClient, Send(message, true), {args.in_flight} in flight", "client-parallel"),
        (f"curl --parallel --parallel-max {args.in_flight}", "curl-parallel"),
    ]
    load_after = os.getloadavg()
    lines = [
        f"## {datetime.date.today().isoformat()}: {args.count:,} GETs of /hello, medians of "
        f"{args.runs} runs",
        "",
        f"{os.cpu_count()} CPUs, veskan-serve (direct mode) on CPU {SERVER_CPU}, the clients on CPU "
        f"{CLIENT_CPU}; load average {load_before[0]:.2f} before, {load_after[0]:.2f} after.",
        "",
        "| Client | Time (s) | Range (s) | Requests/s |",
        "|---|---|---|---|",
    ]
    for label, mode in rows:
        low, high = spread[mode]
        lines.append(f"| {label} | {median[mode]:.3f} | {low:.3f}–{high:.3f} | {fmt(rate[mode])} |")
    lines += [
        "",
        f"Sequential: HttpClient takes {sequential_ratio:.2f} times libcurl's time. "
        f"Parallel: HttpClient reaches {parallel_ratio:.2f} times curl's rate "
        "(medians of the runs' ratios).",
        "",
    ]
    print("\n".join(lines))
    if not args.no_results:
        append_results(RESULTS, "HTTP client benchmark results", "bench/client/run.py", lines)

if __name__ == "__main__":
    main()
