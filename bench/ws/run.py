#!/usr/bin/env python3
"""WebSocket benchmark: veskan-serve against peer WebSocket servers (websocketpp, Boost.Beast).

Builds the load client and the peers in bench/ws/ (CMake, Release, into build-bench-ws/ at the
repository root) and veskan-serve (into build-bench-ws/veskan/, unless --veskan names a binary),
then for each server: starts it pinned to CPU 0, runs the echo test and the broadcast tests with
the load client pinned to CPU 1, and stops it. Prints a Markdown report and writes it to
bench/ws/RESULTS.md.

Standard library only. See bench/ws/README.md.
"""

import argparse
import datetime
import json
import os
import platform
import re
import resource
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from benchlib import cpu_seconds, fmt, log, pinned, raise_file_limit, start_or_note  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(ROOT, "build-bench-ws")
VESKAN_BUILD = os.path.join(BUILD, "veskan")
CLIENT = os.path.join(BUILD, "ws_loadclient")

ALL_SERVERS = ["veskan-direct", "veskan-window", "websocketpp", "beast",
               "veskan-direct-before", "veskan-window-before"]
DEFAULT_SERVERS = ["veskan-direct", "websocketpp", "beast"]
PEERS = {
    "websocketpp": os.path.join(BUILD, "peers", "websocketpp_server"),
    "beast": os.path.join(BUILD, "peers", "beast_server"),
}
PEER_TARGETS = {"websocketpp": "websocketpp_server", "beast": "beast_server"}
JOBS = "2"  # the machine has two cores, shared with other work

SERVER_CPU = "0"
CLIENT_CPU = "1"
LISTENING = re.compile(r"listening on http://127\.0\.0\.1:(\d+)/")


def run_logged(command, **kwargs):
    log("run: " + " ".join(shlex.quote(word) for word in command))
    return subprocess.run(command, **kwargs)


# ---------------------------------------------------------------------------------------------
# Building


def build_bench(servers):
    """Builds the load client and the chosen peers; returns {peer: reason} for peers not built."""
    if not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        configured = run_logged(["cmake", "-S", HERE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release"])
        if configured.returncode != 0:
            sys.exit("configuring the benchmark failed (cmake -S bench/ws -B build-bench-ws)")
    built = run_logged(["cmake", "--build", BUILD, "-j", JOBS, "--target", "ws_loadclient"])
    if built.returncode != 0:
        sys.exit("building the load client failed")
    skipped = {}
    for name in servers:
        if name not in PEERS:
            continue
        completed = run_logged(["cmake", "--build", BUILD, "-j", JOBS, "--target", PEER_TARGETS[name]])
        if completed.returncode != 0 or not os.access(PEERS[name], os.X_OK):
            skipped[name] = "build failed (is its Debian package installed? run scripts/setup.sh)"
    return skipped


def build_veskan():
    """Builds veskan-serve (Release) into build-bench-ws/veskan; returns its path or None."""
    if not os.path.exists(os.path.join(VESKAN_BUILD, "CMakeCache.txt")):
        configured = run_logged(["cmake", "-S", ROOT, "-B", VESKAN_BUILD, "-DCMAKE_BUILD_TYPE=Release",
                                 "-DVESKAN_BUILD_TESTS=OFF", "-DVESKAN_BUILD_BENCHMARKS=OFF"])
        if configured.returncode != 0:
            return None
    built = run_logged(["cmake", "--build", VESKAN_BUILD, "-j", JOBS, "--target", "veskan-serve"])
    binary = os.path.join(VESKAN_BUILD, "tools", "veskan-serve")
    return binary if built.returncode == 0 and os.access(binary, os.X_OK) else None


# ---------------------------------------------------------------------------------------------
# Processes


def machine_busy_seconds():
    """CPU seconds all CPUs spent busy since boot (from /proc/stat)."""
    with open("/proc/stat") as f:
        fields = [int(value) for value in f.readline().split()[1:9]]
    user, nice, system, idle, iowait, irq, softirq, steal = fields
    return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")


def own_cpu_seconds():
    """CPU seconds of this script and its waited-for children (the servers and load clients)."""
    own = resource.getrusage(resource.RUSAGE_SELF)
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    return own.ru_utime + own.ru_stime + children.ru_utime + children.ru_stime


def wait_until_quiet(limit, threshold=0.1, sample=3.0):
    """Waits up to `limit` seconds until other processes use less than `threshold` CPUs over
    `sample` seconds; returns the last reading."""
    deadline = time.monotonic() + limit
    while True:
        busy, own, started = machine_busy_seconds(), own_cpu_seconds(), time.monotonic()
        time.sleep(sample)
        other = ((machine_busy_seconds() - busy) - (own_cpu_seconds() - own)) / (time.monotonic() - started)
        if other < threshold or time.monotonic() >= deadline:
            return other
        log(f"waiting for a quieter machine: other processes use {other:.2f} CPUs")


class Server:
    """One running server, started pinned to the server CPU on a port it chooses itself."""

    def __init__(self, name, veskan):
        self.name = name
        self.veskan = veskan
        self.port = None
        self.process = None
        self.workdir = tempfile.mkdtemp(prefix=f"bench-ws-{name}-")
        self.log_path = os.path.join(self.workdir, "server.log")

    def command(self):
        if self.name in PEERS:
            return [PEERS[self.name], "0"]
        if self.name.startswith("veskan-"):
            mode = ["--direct"] if self.name.startswith("veskan-direct") else []
            return [self.veskan] + mode + ["--port", "0"]
        raise ValueError(self.name)

    def start(self, timeout=15.0):
        with open(self.log_path, "wb") as output:
            self.process = subprocess.Popen(pinned(SERVER_CPU, self.command()), stdout=output,
                                            stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                            cwd=self.workdir)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            match = LISTENING.search(self.read_log())
            if match:
                self.port = int(match.group(1))
                return
            if self.process.poll() is not None:
                raise RuntimeError(f"exited with {self.process.returncode} during start-up: "
                                   + self.tail_log())
            time.sleep(0.05)
        raise RuntimeError(f"printed no 'listening on' line within {timeout:.0f} s: " + self.tail_log())

    def read_log(self):
        try:
            with open(self.log_path, "rb") as f:
                return f.read(65536).decode(errors="replace")
        except OSError:
            return ""

    def tail_log(self):
        try:
            with open(self.log_path, "rb") as f:
                return f.read()[-400:].decode(errors="replace").strip()
        except OSError:
            return ""

    def cpu(self):
        return cpu_seconds(self.process.pid) if self.process else None

    def stop(self):
        code = None
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                code = self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                code = "killed after 10 s"
        elif self.process:
            code = self.process.returncode
        shutil.rmtree(self.workdir, ignore_errors=True)
        return code


# ---------------------------------------------------------------------------------------------
# The load client


def run_client(server, mode, options, time_limit):
    """Runs the load client against a server; returns its JSON result (a dict with "ok"), with
    the server's CPU use over the run added as "server_cpu_percent"."""
    command = pinned(CLIENT_CPU, [CLIENT, mode, "--port", str(server.port)] + options)
    cpu_before, started = server.cpu(), time.monotonic()
    try:
        completed = subprocess.run(command, capture_output=True, text=True, timeout=time_limit)
    except subprocess.TimeoutExpired:
        return {"ok": False, "error": f"the load client did not finish within {time_limit:.0f} s"}
    wall, cpu_after = time.monotonic() - started, server.cpu()
    result = None
    for line in reversed(completed.stdout.splitlines()):
        if line.startswith("{"):
            try:
                result = json.loads(line)
                break
            except ValueError:
                pass
    if result is None:
        result = {"ok": False, "error": f"no result from the load client (exit {completed.returncode}): "
                                        + (completed.stderr.strip()[-300:] or "no output")}
    if cpu_before is not None and cpu_after is not None and wall > 0:
        result["server_cpu_percent"] = 100.0 * (cpu_after - cpu_before) / wall
    return result


def echo_options(args):
    return ["--connections", str(args.connections), "--size", str(args.size), "--warmup", str(args.warmup),
            "--duration", str(args.duration), "--max-messages", str(args.max_messages),
            "--timeout", str(args.timeout)]


def broadcast_options(args, clients):
    return ["--connections", str(clients), "--size", str(args.size), "--rounds", str(args.rounds),
            "--warmup-rounds", "1", "--pause-ms", str(args.pause_ms), "--timeout", str(args.timeout)]


def median_of(runs, key):
    values = [run[key] for run in runs if run.get(key) is not None]
    return statistics.median(values) if values else None


def bench_server(name, args, veskan, notes):
    """Runs every test against one server; returns its row of results (or None)."""
    if args.wait_quiet > 0:
        wait_until_quiet(args.wait_quiet)
    server = Server(name, args.veskan_before if name.endswith("-before") else veskan)
    row = {"load": os.getloadavg()[0]}
    busy, own, started = machine_busy_seconds(), own_cpu_seconds(), time.monotonic()
    if not start_or_note(server, name, notes):
        return None
    try:
        echo_limit = args.warmup + args.duration + args.timeout + 60
        runs = []
        for index in range(args.runs):
            result = run_client(server, "echo", echo_options(args), echo_limit)
            if not result["ok"]:
                notes.append(f"{name}, echo run {index + 1}: {result['error']}")
                log(notes[-1])
                if result.get("exit") == 3:  # the upgrade was refused: the server has no /ws
                    row["refused"] = True
                    return row
                continue
            runs.append(result)
            log(f"{name:14} echo {args.connections} conns: {result['round_trips_per_s']:>10,.0f} rt/s  "
                f"p50 {result['p50_ms']:.3f} ms  p99 {result['p99_ms']:.3f} ms  client CPU "
                f"{result['client_cpu_percent']:.0f} %  server CPU {result.get('server_cpu_percent', 0):.0f} %")
        if runs:
            rates = [run["round_trips_per_s"] for run in runs]
            row["echo"] = {
                "rate": statistics.median(rates), "min": min(rates), "max": max(rates),
                "p50": median_of(runs, "p50_ms"), "p99": median_of(runs, "p99_ms"),
                "client_cpu": median_of(runs, "client_cpu_percent"),
                "server_cpu": median_of(runs, "server_cpu_percent"), "runs": len(runs),
            }
            client_cpu, server_cpu = row["echo"]["client_cpu"], row["echo"]["server_cpu"]
            if client_cpu is not None and client_cpu >= 85 and (server_cpu is None or server_cpu < 90):
                notes.append(f"{name}: in the echo test the load client used {client_cpu:.0f} % of its CPU and "
                             f"the server {fmt(server_cpu)} % of its own: the client came close to its limit, so "
                             "the rate shown is a lower bound for this server")
                log(notes[-1])
        for clients in args.broadcast:
            limit = 60 + clients / 50 + (args.rounds + 1) * (args.timeout + args.pause_ms / 1000.0)
            result = run_client(server, "broadcast", broadcast_options(args, clients), limit)
            if not result["ok"]:
                notes.append(f"{name}, broadcast to {clients:,}: {result['error']}")
                log(notes[-1])
                continue
            row[f"broadcast{clients}"] = result
            log(f"{name:14} broadcast {clients:>5} conns: p50 {result['p50_ms']:.2f} ms  p99 "
                f"{result['p99_ms']:.2f} ms  (set-up {result['setup_s']:.1f} s, client CPU "
                f"{result['client_cpu_percent']:.0f} % while timed)")
    finally:
        code = server.stop()  # reaped: its CPU time now counts among the children's
        if code not in (0, None):
            notes.append(f"{name}: exit status {code} after SIGTERM")
        elapsed = time.monotonic() - started
        other = (machine_busy_seconds() - busy) - (own_cpu_seconds() - own)
        row["other_cpus"] = max(0.0, other / elapsed) if elapsed > 0 else None
    return row


# ---------------------------------------------------------------------------------------------
# Report


def machine_facts():
    model = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    nproc = subprocess.run(["nproc"], capture_output=True, text=True).stdout.strip() or str(os.cpu_count())
    return nproc, model


def load_text():
    return " ".join(f"{value:.2f}" for value in os.getloadavg())


def package_versions():
    names = ["libwebsocketpp-dev", "libboost-dev", "g++", "cmake"]
    completed = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\\n"] + names,
                               capture_output=True, text=True)
    return ", ".join(line for line in completed.stdout.splitlines() if line.strip())


def ratio(numerator, denominator):
    return numerator / denominator if numerator and denominator else None


def render(args, results, notes, elapsed, facts, load_start, load_end):
    nproc, model = facts
    lines = ["# WebSocket benchmark results", ""]
    lines.append(f"- Date: {datetime.datetime.now().astimezone().strftime('%Y-%m-%d %H:%M %Z')}")
    lines.append(f"- Machine: {nproc} CPUs (nproc), {model}, Linux {platform.release()}; load average "
                 f"{load_start} at the start, {load_end} at the end (the machine may be shared: "
                 "compare within one report)")
    script = os.path.relpath(os.path.abspath(sys.argv[0]), ROOT)
    lines.append(f"- Command: `python3 {' '.join(shlex.quote(word) for word in [script] + sys.argv[1:])}`")
    lines.append(f"- Packages: {package_versions()}")
    lines.append(f"- Echo: {args.connections} connections, one {args.size}-byte text message in flight on each, "
                 f"{args.warmup:g} s warm-up then {args.duration:g} s measured, {args.runs} run(s), medians shown")
    lines.append(f"- Broadcast: {args.rounds} timed POST /broadcast of {args.size} bytes (after 1 untimed), "
                 f"{args.pause_ms} ms apart; time from sending the POST until every client has the message")
    lines.append(f"- Server pinned to CPU {SERVER_CPU}, load client to CPU {CLIENT_CPU}; 127.0.0.1")
    lines.append(f"- Total run time: {elapsed / 60:.1f} min")
    lines.append("")
    lines.append("## Results")
    lines.append("")
    header = "| server | echo round trips/s | range over runs | echo p50 ms | echo p99 ms |"
    rule = "| --- | ---: | ---: | ---: | ---: |"
    for clients in args.broadcast:
        header += f" broadcast {clients:,} p50 ms | broadcast {clients:,} p99 ms |"
        rule += " ---: | ---: |"
    header += " client CPU % (echo) | server CPU % (echo) | other processes, CPUs | load at start |"
    rule += " ---: | ---: | ---: | ---: |"
    lines += [header, rule]
    for name in args.servers:
        row = results.get(name)
        if row is None:
            continue
        echo = row.get("echo", {})
        spread = f"{fmt(echo.get('min'))}–{fmt(echo.get('max'))}" if echo.get("runs", 0) > 1 else ""
        line = (f"| {name} | {fmt(echo.get('rate'))} | {spread} | {fmt(echo.get('p50'), 3)} | "
                f"{fmt(echo.get('p99'), 3)} |")
        for clients in args.broadcast:
            cast = row.get(f"broadcast{clients}", {})
            line += f" {fmt(cast.get('p50_ms'), 2)} | {fmt(cast.get('p99_ms'), 2)} |"
        line += (f" {fmt(echo.get('client_cpu'))} | {fmt(echo.get('server_cpu'))} | "
                 f"{fmt(row.get('other_cpus'), 2)} | {row['load']:.2f} |")
        lines.append(line)
    lines.append("")
    lines.append(f"Percentiles are nearest-rank: with {args.rounds} broadcasts the p99 is the slowest one. "
                 "Client CPU: the load client's CPU time over the measured echo window; server CPU: the "
                 "server's over the whole client run (connect and warm-up included). A client near 100 % "
                 "would mean the client, not the server, limits the rate. Other processes: CPUs used by the rest "
                 "of the machine while this server was tested (all busy time less the server's, the "
                 "clients' and this script's; roughly): above 0.1 the row is disturbed.")

    peers = [name for name in args.servers if name in PEERS and name in results]
    mine = [name for name in args.servers if name.startswith("veskan") and results.get(name, {}).get("echo")]
    if mine and peers:
        lines.append("")
        lines.append("## veskan-serve against the peers")
        lines.append("")
        header = "| veskan | peer | echo rate, veskan ÷ peer (higher is better) | echo p99, veskan ÷ peer |"
        rule = "| --- | --- | ---: | ---: |"
        for clients in args.broadcast:
            header += f" broadcast {clients:,} p99, veskan ÷ peer (lower is better) |"
            rule += " ---: |"
        lines += [header, rule]
        for own in mine:
            for peer in peers:
                a, b = results[own], results[peer]
                line = (f"| {own} | {peer} | {fmt(ratio(a['echo']['rate'], b.get('echo', {}).get('rate')), 2)} | "
                        f"{fmt(ratio(a['echo']['p99'], b.get('echo', {}).get('p99')), 2)} |")
                for clients in args.broadcast:
                    key = f"broadcast{clients}"
                    line += f" {fmt(ratio(a.get(key, {}).get('p99_ms'), b.get(key, {}).get('p99_ms')), 2)} |"
                lines.append(line)
        lines.append("")
        lines.append("Goals: echo throughput at least websocketpp's; broadcast to 1,000 clients with a p99 no "
                     "worse than the peers'; broadcast to 5,000 clients with a p99 under 50 ms.")
        lines.append("")
        for own in mine:
            lines.append(f"- {own}: " + "; ".join(goal_checks(results, own, peers)))
        for suffix in ("", "-before"):
            direct = results.get("veskan-direct" + suffix, {}).get("echo", {}).get("rate")
            window = results.get("veskan-window" + suffix, {}).get("echo", {}).get("rate")
            if direct and window:
                met = "met" if window / direct >= 0.85 else "not met"
                lines.append(f"- veskan-window{suffix} echo ÷ veskan-direct{suffix} echo: "
                             f"{window / direct:.2f} (goal ≥ 0.85: {met})")
    if notes:
        lines.append("")
        lines.append("## Notes")
        lines.append("")
        lines += [f"- {note}" for note in notes]
    lines.append("")
    return "\n".join(lines)


def goal_checks(results, own, peers):
    row = results[own]
    checks = []
    if "websocketpp" in peers and results["websocketpp"].get("echo"):
        met = row["echo"]["rate"] >= results["websocketpp"]["echo"]["rate"]
        checks.append(f"echo ≥ websocketpp: {'met' if met else 'not met'}")
    own_1000 = row.get("broadcast1000", {}).get("p99_ms")
    peer_1000 = [results[peer].get("broadcast1000", {}).get("p99_ms") for peer in peers]
    peer_1000 = [value for value in peer_1000 if value is not None]
    if own_1000 is not None and peer_1000:
        checks.append(f"broadcast 1,000 p99 ≤ the peers' ({min(peer_1000):.2f} ms): "
                      f"{'met' if own_1000 <= min(peer_1000) else 'not met'}")
    own_5000 = row.get("broadcast5000", {}).get("p99_ms")
    if own_5000 is not None:
        checks.append(f"broadcast 5,000 p99 < 50 ms: {'met' if own_5000 < 50 else 'not met'}")
    return checks or ["no goal could be checked"]


# ---------------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--servers", default=",".join(DEFAULT_SERVERS),
                        help=f"comma-separated list out of {','.join(ALL_SERVERS)} "
                             f"(default: {','.join(DEFAULT_SERVERS)})")
    parser.add_argument("--runs", type=int, default=3, help="echo runs per server; medians are shown (3)")
    parser.add_argument("--duration", type=float, default=10.0, help="measured seconds per echo run (10)")
    parser.add_argument("--warmup", type=float, default=2.0, help="warm-up seconds before each echo run (2)")
    parser.add_argument("--connections", type=int, default=50, help="echo connections (50)")
    parser.add_argument("--size", type=int, default=32, help="message size in bytes (32)")
    parser.add_argument("--max-messages", type=int, default=20_000_000,
                        help="cap on measured echo round trips per run (20,000,000)")
    parser.add_argument("--broadcast", default="1000,5000", help="broadcast client counts (1000,5000)")
    parser.add_argument("--rounds", type=int, default=20, help="timed broadcasts per client count (20)")
    parser.add_argument("--pause-ms", type=int, default=200, help="pause between broadcasts (200)")
    parser.add_argument("--timeout", type=float, default=10.0,
                        help="seconds without an answer before the client gives up (10)")
    parser.add_argument("--quick", action="store_true",
                        help="smoke test: 1 echo run of 3 s after 1 s, 5 broadcasts per count")
    parser.add_argument("--wait-quiet", type=float, default=0.0,
                        help="before each server, wait up to this many seconds until other processes "
                             "use under 0.1 CPUs (default 0: do not wait)")
    parser.add_argument("--veskan", default=None,
                        help="path to a veskan-serve binary (default: build it into build-bench-ws/veskan)")
    parser.add_argument("--veskan-before", default=None,
                        help="another veskan-serve binary (an earlier build), run as "
                             "veskan-direct-before and veskan-window-before")
    parser.add_argument("--output", default=os.path.join(HERE, "RESULTS.md"), help="report file")
    args = parser.parse_args()
    if args.quick:
        args.runs, args.duration, args.warmup, args.rounds = 1, 3.0, 1.0, 5
    args.servers = [name.strip() for name in args.servers.split(",") if name.strip()]
    unknown = [name for name in args.servers if name not in ALL_SERVERS]
    if unknown:
        parser.error(f"unknown server(s): {', '.join(unknown)}")
    if args.veskan_before:
        args.veskan_before = os.path.abspath(args.veskan_before)
        args.servers += [name for name in ("veskan-direct-before", "veskan-window-before")
                         if name not in args.servers]
    try:
        args.broadcast = [int(value) for value in args.broadcast.split(",") if value.strip()]
    except ValueError:
        parser.error("--broadcast takes a comma-separated list of client counts")
    if args.runs < 1 or args.connections < 1 or args.rounds < 1 or any(n < 1 for n in args.broadcast):
        parser.error("--runs, --connections, --rounds and the broadcast counts must be at least 1")
    if not shutil.which("cmake"):
        sys.exit("cmake is missing: run scripts/setup.sh")

    facts = machine_facts()  # before narrowing this process's CPU affinity, which nproc reports
    load_start = load_text()
    notes = []
    # Every server and the client inherit the raised limit; each side holds one descriptor per
    # connection.
    needed = max([args.connections] + args.broadcast) + 200
    limit = raise_file_limit(needed)
    if limit < needed:
        kept = [n for n in args.broadcast if n + 200 <= limit]
        notes.append(f"RLIMIT_NOFILE is {limit}: broadcast counts above {limit - 200} skipped")
        args.broadcast = kept

    started = time.monotonic()
    servers = list(args.servers)
    skipped = build_bench(servers)
    veskan = None
    if any(name.startswith("veskan") for name in servers):
        if args.veskan:
            veskan = os.path.abspath(args.veskan)
            if not os.access(veskan, os.X_OK):
                veskan = None
                reason = f"{args.veskan} is not an executable"
        else:
            veskan = build_veskan()
            reason = "building veskan-serve failed"
        if veskan is None:
            for name in servers:
                if name.startswith("veskan"):
                    skipped[name] = reason
    for name, reason in skipped.items():
        notes.append(f"{name} skipped: {reason}")
        log(notes[-1])
        servers.remove(name)
    if os.cpu_count() and os.cpu_count() >= 2:
        os.sched_setaffinity(0, {int(CLIENT_CPU)})  # keep this script off the server's CPU

    per_server = args.runs * (args.warmup + args.duration + 1) + sum(
        3 + n / 1000 + (args.rounds + 1) * (args.pause_ms / 1000 + 0.05) for n in args.broadcast)
    log(f"servers: {', '.join(servers)}; about {len(servers) * per_server / 60:.1f} min")

    results = {}
    for name in servers:
        row = bench_server(name, args, veskan, notes)
        if row is not None:
            results[name] = row

    report = render(args, results, notes, time.monotonic() - started, facts, load_start, load_text())
    print(report)
    with open(args.output, "w") as f:
        f.write(report)
    log(f"written to {os.path.relpath(args.output, os.getcwd())}")


if __name__ == "__main__":
    main()
