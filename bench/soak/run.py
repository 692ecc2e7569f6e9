#!/usr/bin/env python3
"""Soak benchmark: veskan-serve under mixed well-behaved and hostile load for N minutes.

Builds veskan-serve and the load generator (bench/soak/soakload.cpp) into build-soak/ at the
repository root, starts the server pinned to CPU 0 on a port it chooses, with a folder holding a
1 MiB file as its root, and runs the load generator pinned to CPU 1 beside a probe client (this
script, also on CPU 1) that times GET /hello several times a second. Every second it samples the
server's RSS and descriptor count. At the end it checks the goals (memory flat after the warm-up,
descriptors back to the start, probe p99 under 50 ms in every minute, no probe errors), writes the
per-second samples as CSV and updates its section of bench/soak/RESULTS.md.

With --idle it runs the idle-connection test instead: 10,000 keep-alive connections, each served
once and then left idle (held by the load generator in its own process), a fresh client's time to
an answer beside them, and the server's memory per idle connection.

Standard library only. See bench/soak/README.md.
"""

import argparse
import datetime
import json
import math
import os
import platform
import re
import select
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from benchlib import cpu_seconds, fmt, log, pinned, raise_file_limit, resident_kib  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(ROOT, "build-soak")
SERVE = os.path.join(BUILD, "tools", "veskan-serve")
LOADER = os.path.join(BUILD, "bench", "soak", "veskan_soak_load")
RESULTS = os.path.join(HERE, "RESULTS.md")
JOBS = "2"  # the machine has two cores, shared with other work

SERVER_CPU = "0"
CLIENT_CPU = "1"
LISTENING = re.compile(r"listening on http://127\.0\.0\.1:(\d+)/")
HELLO = b"Hello, world!"
BIG_FILE = "big.bin"
BIG_SIZE = 1 << 20

# The load generator's settings (veskan_soak_load soak --NAME VALUE); --set NAME=VALUE changes one.
LOAD = {
    "keepalive": 16,  # keep-alive clients: GET /hello, GET /echo, POST /echo in turn
    "keepalive-pause-ms": 100,  # between a reply and the next request
    "keepalive-requests": 200,  # then a new connection
    "close": 4,  # Connection: close clients, one request per connection
    "close-pause-ms": 200,
    "websockets": 16,  # /ws clients, one text message in flight each
    "ws-pause-ms": 200,
    "ws-lifetime": 30,  # seconds, then a closing handshake and a new connection
    "broadcast-ms": 1000,  # POST /broadcast on a new connection
    "pipeliners": 2,  # GET of the 1 MiB file, pipelined, never read
    "pipeline-depth": 256,  # requests per pipelining connection (the backlog cap)
    "pipeline-lifetime": 30,  # seconds, then a reset and a new connection
    "trickle-head": 8,  # a request head, one byte at a time
    "trickle-body": 8,  # a declared body, one byte at a time
    "trickle-ms": 1000,  # mean pause between two bytes
    "trickle-limit": 60,  # seconds a trickler may stay connected before it counts as not cut off
    "abrupt": 4,  # resets in the middle of a request (half) or of the 1 MiB reply (half)
    "abrupt-pause-ms": 200,
    "malformed": 2,  # malformed and smuggling-shaped requests, one per connection
    "malformed-pause-ms": 250,
    "malformed-timeout": 5,  # seconds the server has to close such a connection
    "timeout": 10,  # seconds a well-behaved client waits for a reply
}

TCP_STATES = {"01": "ESTABLISHED", "02": "SYN_SENT", "03": "SYN_RECV", "04": "FIN_WAIT1",
              "05": "FIN_WAIT2", "06": "TIME_WAIT", "07": "CLOSE", "08": "CLOSE_WAIT", "09": "LAST_ACK",
              "0A": "LISTEN", "0B": "CLOSING"}

# Goals.
MEMORY_GROWTH = 0.10  # after the warm-up
PROBE_P99_MS = 50.0  # in every minute
IDLE_FRESH_MS = 100.0  # a fresh client beside the idle connections


# ---------------------------------------------------------------------------------------------
# Building


def run_logged(command, **kwargs):
    log("run: " + " ".join(shlex.quote(word) for word in command))
    return subprocess.run(command, **kwargs)


def build():
    """Configures build-soak/ when needed and builds veskan-serve and the load generator."""
    if not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        configured = run_logged(["cmake", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release",
                                 "-DVESKAN_BUILD_TESTS=OFF"])
        if configured.returncode != 0:
            sys.exit("configuring build-soak failed")
    built = run_logged(["cmake", "--build", BUILD, "-j", JOBS, "--target", "veskan-serve",
                        "veskan_soak_load"])
    if built.returncode != 0:
        sys.exit("building veskan-serve or veskan_soak_load failed")


# ---------------------------------------------------------------------------------------------
# The server


class Server:
    """veskan-serve on a port of its choice, pinned to the server CPU, serving a temporary root
    that holds the 1 MiB file."""

    def __init__(self, binary, direct):
        self.binary = binary
        self.direct = direct
        self.workdir = tempfile.mkdtemp(prefix="bench-soak-")
        self.root = os.path.join(self.workdir, "www")
        os.makedirs(self.root)
        with open(os.path.join(self.root, BIG_FILE), "wb") as f:
            f.write(os.urandom(BIG_SIZE))
        self.output = os.path.join(self.workdir, "server.out")
        self.process = None
        self.port = None
        self.killed = None  # why this script killed it

    def start(self, timeout=20.0):
        command = [self.binary, "--port", "0", "--root", self.root] + (["--direct"] if self.direct else [])
        with open(self.output, "wb") as output:
            self.process = subprocess.Popen(pinned(SERVER_CPU, command), stdout=output,
                                            stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            match = LISTENING.search(self.tail(4096))
            if match:
                self.port = int(match.group(1))
                return
            if self.process.poll() is not None:
                raise RuntimeError(f"veskan-serve exited with {self.process.returncode}: {self.tail(400)}")
            time.sleep(0.05)
        self.stop()
        raise RuntimeError(f"veskan-serve printed no 'listening on' line within {timeout:.0f} s")

    def tail(self, size):
        try:
            with open(self.output, "rb") as f:
                f.seek(0, os.SEEK_END)
                f.seek(max(0, f.tell() - size))
                return f.read().decode(errors="replace")
        except OSError:
            return ""

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def rss_kib(self):
        return resident_kib(self.process.pid)

    def fd_count(self):
        try:
            return len(os.listdir(f"/proc/{self.process.pid}/fd"))
        except OSError:
            return None

    def fd_kinds(self):
        """The server's descriptors by kind: "socket STATE" (TCP state of the socket), the
        anon_inode kinds (eventfd, eventpoll, ...), "pipe" or "file"."""
        kinds, states = {}, None
        try:
            names = os.listdir(f"/proc/{self.process.pid}/fd")
        except OSError:
            return kinds
        for name in names:
            try:
                target = os.readlink(f"/proc/{self.process.pid}/fd/{name}")
            except OSError:
                continue
            if target.startswith("socket:["):
                if states is None:
                    states = tcp_states()
                kind = "socket " + states.get(target[8:-1], "(not TCP)")
            elif target.startswith("anon_inode:"):
                kind = target[len("anon_inode:"):]
            elif target.startswith("pipe:"):
                kind = "pipe"
            else:
                kind = "file"
            kinds[kind] = kinds.get(kind, 0) + 1
        return kinds

    def kill(self, reason):
        self.killed = reason
        if self.alive():
            self.process.kill()
            self.process.wait()

    def stop(self):
        """SIGTERM, then SIGKILL after 10 s; returns the exit status or a text saying what
        happened."""
        code = None
        if self.alive():
            self.process.send_signal(signal.SIGTERM)
            try:
                code = self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                code = "killed after 10 s"
        elif self.process:
            code = self.process.returncode
        return code

    def cleanup(self):
        for name in (os.path.join(self.root, BIG_FILE), self.output):
            try:
                os.remove(name)
            except OSError:
                pass
        for name in (self.root, self.workdir):
            try:
                os.rmdir(name)
            except OSError:
                pass


# ---------------------------------------------------------------------------------------------
# A small HTTP client: the probe and the fresh-connection timings


def tcp_states():
    """TCP state by socket inode, from /proc/net/tcp and tcp6."""
    states = {}
    for name in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(name) as f:
                next(f, None)
                for line in f:
                    fields = line.split()
                    if len(fields) > 9:
                        states[fields[9]] = TCP_STATES.get(fields[3], fields[3])
        except OSError:
            pass
    return states


def kinds_text(kinds):
    return ", ".join(f"{count} {kind}" for kind, count in sorted(kinds.items())) or "none"


def read_reply(sock, deadline):
    """Reads one reply with a Content-Length; returns (status, body)."""
    buffer = b""
    while True:
        end = buffer.find(b"\r\n\r\n")
        if end >= 0:
            head = buffer[:end].decode("latin-1").split("\r\n")
            status = int(head[0].split()[1])
            length = None
            for line in head[1:]:
                name, _, value = line.partition(":")
                if name.strip().lower() == "content-length":
                    length = int(value.strip())
            if length is None:
                raise ValueError("reply without Content-Length")
            if len(buffer) >= end + 4 + length:
                return status, buffer[end + 4:end + 4 + length]
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise TimeoutError("no complete reply in time")
        sock.settimeout(remaining)
        data = sock.recv(65536)
        if not data:
            raise ConnectionError("closed before a complete reply")
        buffer += data


def hello_request(port):
    return f"GET /hello HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nConnection: keep-alive\r\n\r\n".encode()


def fresh_request_ms(port, timeout=5.0):
    """Connect, GET /hello, the whole reply: milliseconds, or None on failure or time-out."""
    started = time.perf_counter()
    deadline = time.monotonic() + timeout
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=timeout) as sock:
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            sock.sendall(hello_request(port))
            status, body = read_reply(sock, deadline)
    except (OSError, ValueError, IndexError):
        return None
    if status != 200 or body != HELLO:
        return None
    return (time.perf_counter() - started) * 1000.0


class Probe(threading.Thread):
    """One well-behaved client: GET /hello on a keep-alive connection `rate` times a second, on
    a fresh connection every `fresh_every`-th time (and after any error). Records (monotonic
    start, milliseconds, fresh, error or None)."""

    def __init__(self, port, rate, fresh_every, timeout):
        super().__init__(daemon=True)
        self.port = port
        self.interval = 1.0 / rate
        self.fresh_every = fresh_every
        self.timeout = timeout
        self.records = []
        self.halt = threading.Event()
        self.sock = None

    def run(self):
        request = hello_request(self.port)
        count = 0
        next_at = time.monotonic()
        while not self.halt.is_set():
            fresh = self.sock is None or count % self.fresh_every == 0
            started_at = time.monotonic()
            started = time.perf_counter()
            error = None
            try:
                if fresh:
                    self.close()
                    self.sock = socket.create_connection(("127.0.0.1", self.port), timeout=self.timeout)
                    self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                self.sock.sendall(request)
                status, body = read_reply(self.sock, started_at + self.timeout)
                if status != 200 or body != HELLO:
                    error = f"status {status}, body {body[:20]!r}"
            except (OSError, ValueError, IndexError) as problem:
                error = f"{type(problem).__name__}: {problem}"
            elapsed = (time.perf_counter() - started) * 1000.0
            if error:
                self.close()
            self.records.append((started_at, elapsed, fresh, error))
            count += 1
            next_at += self.interval
            delay = next_at - time.monotonic()
            if delay < 0:
                next_at = time.monotonic()
                delay = 0
            self.halt.wait(delay)
        self.close()

    def close(self):
        if self.sock is not None:
            self.sock.close()
            self.sock = None


# ---------------------------------------------------------------------------------------------
# The load generator


class Loader:
    """veskan_soak_load soak, pinned to the client CPU; a thread keeps its latest counters."""

    def __init__(self, binary, port, seconds, settings, log_path):
        # Counters five times a second, so that the per-second samples are at most 0.2 s old.
        command = [binary, "soak", "--port", str(port), "--duration", f"{seconds:g}",
                   "--file", "/files/" + BIG_FILE, "--report-ms", "200"]
        for name, value in settings.items():
            command += [f"--{name}", f"{value:g}"]
        self.command = command
        self.log = open(log_path, "wb")
        self.process = subprocess.Popen(pinned(CLIENT_CPU, command), stdout=subprocess.PIPE,
                                        stderr=self.log, stdin=subprocess.DEVNULL)
        self.latest = {}
        self.final = None
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            try:
                counters = json.loads(line)
            except ValueError:
                continue
            self.latest = counters
            if counters.get("final"):
                self.final = counters

    def stop(self, grace):
        """Waits up to `grace` seconds for the end of its run, then stops it."""
        try:
            self.process.wait(timeout=grace)
        except subprocess.TimeoutExpired:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(timeout=5)
        self.log.close()
        return self.process.returncode


# ---------------------------------------------------------------------------------------------
# Statistics


def percentile(values, percent):
    """Nearest-rank percentile; None for no values."""
    if not values:
        return None
    ordered = sorted(values)
    rank = max(1, min(len(ordered), math.ceil(percent / 100.0 * len(ordered))))
    return ordered[rank - 1]


def mib(kib):
    return None if kib is None else kib / 1024.0


def verdict(passed):
    return "PASS" if passed else "FAIL"


# ---------------------------------------------------------------------------------------------
# The soak run


def soak(args, direct):
    mode = "direct" if direct else "window"
    seconds = int(round(args.minutes * 60))
    result = {"mode": mode, "seconds": seconds, "notes": [], "load": dict(LOAD)}
    server = Server(args.veskan, direct)
    server.start()
    log(f"soak, {mode} mode: veskan-serve on port {server.port}, {seconds} s")
    try:
        time.sleep(1.0)
        if fresh_request_ms(server.port) is None:
            raise RuntimeError("veskan-serve does not answer GET /hello")
        time.sleep(0.5)
        result["fds_start"] = server.fd_count()
        result["fd_kinds_start"] = server.fd_kinds()
        result["rss_start"] = server.rss_kib()

        loader = Loader(args.loader, server.port, seconds, LOAD, os.path.join(server.workdir, "load.log"))
        result["load_command"] = loader.command
        probe = Probe(server.port, args.probe_rate, args.fresh_every, args.probe_timeout)
        result["server_cpu_start"] = cpu_seconds(server.process.pid)
        result["loader_cpu_start"] = 0.0
        start = time.monotonic()
        probe.start()
        samples = []  # (second, rss KiB, descriptors, loader counters, server CPU s, loader CPU s)
        next_sample = start + 1.0
        end = start + seconds
        limit = args.rss_limit_mb * 1024
        while True:
            now = time.monotonic()
            if now >= end:
                break
            rss = server.rss_kib()
            if rss is not None and rss > limit:
                # The clients stop first, so that the kill does not count as their errors.
                samples.append((int(now - start), rss, None, dict(loader.latest), None, None))
                loader.process.send_signal(signal.SIGTERM)
                probe.halt.set()
                loader.stop(grace=5)
                server.kill(f"RSS {rss / 1024:,.0f} MiB passed the limit of {args.rss_limit_mb:,} MiB "
                            f"after {now - start:.0f} s: killed")
                log(server.killed)
                break
            if not server.alive():
                result["notes"].append(f"veskan-serve ended by itself after {now - start:.0f} s "
                                       f"(exit status {server.process.returncode}): {server.tail(300)}")
                log(result["notes"][-1])
                break
            if loader.process.poll() is not None:
                if now >= end - 2.0:
                    break  # its own end of the run, a moment before ours
                result["notes"].append(f"the load generator ended early (exit status "
                                       f"{loader.process.returncode}) after {now - start:.0f} s")
                log(result["notes"][-1])
                break
            if now >= next_sample:
                second = int(round(next_sample - start)) - 1
                samples.append((second, rss, server.fd_count(), dict(loader.latest),
                                cpu_seconds(server.process.pid), cpu_seconds(loader.process.pid)))
                if second % 10 == 9:
                    log(f"  {second + 1:4d} s  RSS {rss / 1024:8.1f} MiB  descriptors {samples[-1][2]}")
                next_sample += 1.0
                if next_sample < now:
                    next_sample = now + 1.0
            time.sleep(max(0.0, min(0.25, next_sample - time.monotonic())))
        result["ran_seconds"] = time.monotonic() - start

        loader_code = loader.stop(grace=15)
        if loader_code not in (0, None, -signal.SIGTERM):
            result["notes"].append(f"load generator exit status {loader_code}; see its log")
        probe.halt.set()
        probe.join(timeout=args.probe_timeout + 2)
        result["final"] = loader.final or loader.latest
        result["rss_peak_load"] = max((s[1] for s in samples if s[1] is not None), default=None)
        result["fds_peak_load"] = max((s[2] for s in samples if s[2] is not None), default=None)

        if server.alive():
            # The attackers are gone: the server gets a bounded time to close what they left.
            reap_start = time.monotonic()
            while True:
                fds = server.fd_count()
                waited = time.monotonic() - reap_start
                if fds is None or fds <= result["fds_start"] or waited >= args.reap:
                    break
                time.sleep(0.25)
            result["fds_after"] = fds
            result["fd_kinds_after"] = server.fd_kinds()
            result["reap_seconds"] = waited
            result["rss_after"] = server.rss_kib()
            result["answers_after"] = fresh_request_ms(server.port)
        result["samples"] = samples
        # The probes of the run (not those the probe may have begun while the load stopped).
        result["probes"] = [(t - start, ms, fresh, error) for t, ms, fresh, error in probe.records
                            if t - start < result["ran_seconds"]]
    finally:
        result["killed"] = server.killed
        result["exit"] = server.stop() if not server.killed else None
        if result["exit"] not in (0, None):
            result["notes"].append(f"veskan-serve exit status after SIGTERM: {result['exit']}")
        server.cleanup()
    analyse(result, args)
    return result


def analyse(result, args):
    samples = result.get("samples", [])
    probes = result.get("probes", [])
    seconds = result["seconds"]

    # Per second: the probes that started in that second.
    by_second = {}
    for t, ms, fresh, error in probes:
        by_second.setdefault(int(t), []).append((ms, error))
    result["by_second"] = by_second

    # Per minute; failed probes count with the time they took.
    minutes = []
    for minute in range(max(1, math.ceil(seconds / 60))):
        chosen = [(ms, error) for t, ms, _, error in probes if minute * 60 <= t < (minute + 1) * 60]
        times = [ms for ms, _ in chosen]
        minutes.append({"minute": minute + 1, "count": len(chosen),
                        "errors": sum(1 for _, error in chosen if error),
                        "p50": percentile(times, 50), "p99": percentile(times, 99),
                        "max": max(times) if times else None})
    result["minutes"] = minutes
    every = [ms for _, ms, _, _ in probes]
    result["overall"] = {"count": len(probes), "errors": sum(1 for p in probes if p[3]),
                         "p50": percentile(every, 50), "p99": percentile(every, 99),
                         "max": max(every) if every else None,
                         "fresh_max": max((ms for _, ms, fresh, _ in probes if fresh), default=None)}
    kinds = {}
    for _, _, _, error in probes:
        if error:
            kinds[error] = kinds.get(error, 0) + 1
    result["probe_errors"] = kinds

    # Memory: the warm-up is the first 10 % of the run.
    warm = max(1, int(round(seconds * args.warmup)))
    result["warmup_seconds"] = warm
    warm_rss = [sample[1] for sample in samples if sample[0] < warm and sample[1] is not None]
    later_rss = [sample[1] for sample in samples if sample[0] >= warm and sample[1] is not None]
    result["rss_warmup_end"] = warm_rss[-1] if warm_rss else None
    result["rss_warmup_peak"] = max(warm_rss) if warm_rss else None
    result["rss_after_warmup_max"] = max(later_rss) if later_rss else None
    result["rss_end"] = later_rss[-1] if later_rss else None
    timed = [sample for sample in samples if sample[4] is not None and sample[5] is not None]
    if timed and result.get("server_cpu_start") is not None:
        span = timed[-1][0] + 1
        result["server_cpu_share"] = (timed[-1][4] - result["server_cpu_start"]) / span
        result["loader_cpu_share"] = timed[-1][5] / span

    goals = []
    base = result["rss_warmup_peak"]
    top = result["rss_after_warmup_max"]
    if result["killed"]:
        goals.append(("memory flat after the warm-up (≤ +10 %)", result["killed"], False))
    elif base and top is not None:
        growth = top / base - 1.0
        goals.append(("memory flat after the warm-up (≤ +10 %)",
                      f"warm-up peak {mib(base):,.1f} MiB; after it: max {mib(top):,.1f} MiB "
                      f"({growth:+.0%}), end {mib(result['rss_end']):,.1f} MiB",
                      growth <= MEMORY_GROWTH))
    else:
        goals.append(("memory flat after the warm-up (≤ +10 %)", "no samples after the warm-up", False))

    if result.get("fds_after") is not None:
        start_kinds, after_kinds = result["fd_kinds_start"], result["fd_kinds_after"]
        extra = {kind: count - start_kinds.get(kind, 0) for kind, count in after_kinds.items()
                 if count > start_kinds.get(kind, 0)}
        goals.append(("descriptors back to the start",
                      f"start {result['fds_start']}, peak {result['fds_peak_load']}, after the load "
                      f"{result['fds_after']} (waited {result['reap_seconds']:.1f} s of at most "
                      f"{args.reap:g} s)"
                      + (f"; more than at the start: {kinds_text(extra)}" if extra else ""),
                      result["fds_after"] <= result["fds_start"]))
    else:
        goals.append(("descriptors back to the start", "server not running after the load", False))

    measured = [m for m in minutes if m["count"]]
    worst = max(measured, key=lambda m: m["p99"]) if measured else None
    complete = len(measured) == len(minutes) and not result["killed"]
    goals.append((f"probe p99 under {PROBE_P99_MS:g} ms in every minute",
                  (f"worst minute: {worst['minute']}, p99 {worst['p99']:,.2f} ms" if worst else "no probes")
                  + ("" if complete else "; the run ended early"),
                  complete and worst is not None and worst["p99"] < PROBE_P99_MS))
    overall = result["overall"]
    goals.append(("no probe errors", f"{overall['errors']:,} of {overall['count']:,} probes failed",
                  overall["count"] > 0 and overall["errors"] == 0))
    result["goals"] = goals

    final = result.get("final") or {}
    checks = []
    peak, before = result.get("rss_peak_load"), result.get("rss_start")
    if peak is not None and before is not None:
        checks.append((f"memory bounded under the attack (peak ≤ before the load + "
                       f"{args.rss_budget_mb:,} MiB)",
                       f"before {mib(before):,.1f} MiB, peak {mib(peak):,.1f} MiB",
                       peak <= before + args.rss_budget_mb * 1024 and not result["killed"]))
    survived = not result["killed"] and result.get("answers_after") is not None and result["exit"] == 0
    what = result["killed"] or (f"answers after the load: {fmt(result.get('answers_after'), 2)} ms; "
                                f"exit status after SIGTERM: {result['exit']}")
    checks.append(("server alive, under the RSS limit, answering after the load", what, survived))
    errors = {name: final.get(name + "_errors", 0) for name in ("keepalive", "close", "ws", "broadcast")}
    checks.append(("well-behaved load without errors",
                   ", ".join(f"{name} {final.get(ok, 0):,} ok / {errors[name]:,} errors" for name, ok in
                             (("keepalive", "keepalive_ok"), ("close", "close_ok"), ("ws", "ws_echoes"),
                              ("broadcast", "broadcast_ok"))),
                   bool(final) and sum(errors.values()) == 0))
    cut = final.get("trickle_cut_after", {})
    survivors = final.get("trickle_head_survived", 0) + final.get("trickle_body_survived", 0)
    limit = final.get("trickle_limit_s", LOAD["trickle-limit"])
    checks.append((f"trickling clients cut off within {limit:g} s",
                   f"head: {trickle_text(final, cut, 'head')}; body: {trickle_text(final, cut, 'body')}",
                   bool(final) and survivors == 0
                   and final.get("trickle_head_cut", 0) + final.get("trickle_body_cut", 0) > 0))
    malformed = final.get("malformed", {})
    open_kinds = [name for name, row in malformed.items()
                  if row["open_after_reply"] + row["open_without_reply"]]
    checks.append(("malformed requests: connection closed",
                   f"{final.get('malformed_closed', 0):,} closed, {final.get('malformed_left_open', 0):,} "
                   f"left open after {LOAD['malformed-timeout']:g} s"
                   + (f" ({', '.join(open_kinds)})" if open_kinds else ""),
                   bool(malformed) and not open_kinds))
    result["checks"] = checks


def trickle_text(final, cut, kind):
    count = final.get(f"trickle_{kind}_cut", 0)
    text = f"{count} cut off"
    if count:
        text += f" (after {cut[kind]['mean_s']:.1f} s on average, {cut[kind]['longest_s']:.1f} s at most)"
    return text + f", {final.get(f'trickle_{kind}_survived', 0)} still connected at the limit"


def csv_text(result):
    samples = result.get("samples", [])
    counters = []
    for latest in (sample[3] for sample in samples):
        for name in latest:
            if name not in counters and name not in ("t", "final") and isinstance(latest[name], int):
                counters.append(name)
    header = ["second", "rss_kib", "descriptors", "server_cpu_percent", "loader_cpu_percent", "probes",
              "probe_errors", "probe_p50_ms", "probe_p99_ms", "probe_max_ms"] + counters
    lines = [",".join(header)]
    previous = {}
    previous_cpu = (result.get("server_cpu_start"), result.get("loader_cpu_start"))
    for second, rss, fds, latest, server_cpu, loader_cpu in samples:
        chosen = result["by_second"].get(second, [])
        times = [ms for ms, _ in chosen]
        row = [second + 1, rss if rss is not None else "", fds if fds is not None else ""]
        for now, before in zip((server_cpu, loader_cpu), previous_cpu):
            row.append(f"{100 * (now - before):.0f}" if now is not None and before is not None else "")
        previous_cpu = (server_cpu, loader_cpu)
        row += [len(chosen), sum(1 for _, error in chosen if error)]
        row += [f"{value:.3f}" if value is not None else "" for value in
                (percentile(times, 50), percentile(times, 99), max(times) if times else None)]
        for name in counters:
            value = latest.get(name, 0)
            # Counters per second; the open_* gauges as they are.
            row.append(value if name.startswith("open_") else value - previous.get(name, 0))
        previous = latest
        lines.append(",".join(str(value) for value in row))
    return "\n".join(lines) + "\n"


# ---------------------------------------------------------------------------------------------
# The idle-connection test


def read_json_line(stream, timeout):
    ready, _, _ = select.select([stream], [], [], timeout)
    if not ready:
        raise TimeoutError(f"no answer from the idle holder within {timeout:g} s")
    line = stream.readline()
    if not line:
        raise RuntimeError("the idle holder ended")
    return json.loads(line)


def idle(args, direct):
    mode = "direct" if direct else "window"
    result = {"mode": mode, "target": args.idle_connections, "notes": []}
    server = Server(args.veskan, direct)
    server.start()
    log(f"idle, {mode} mode: veskan-serve on port {server.port}, {args.idle_connections:,} connections")
    holder = None
    try:
        time.sleep(1.0)
        result["fresh_before"] = [fresh_request_ms(server.port) for _ in range(5)]
        time.sleep(0.5)
        result["rss_before"] = server.rss_kib()
        result["fds_before"] = server.fd_count()
        log_file = open(os.path.join(server.workdir, "idle.log"), "wb")
        command = [args.loader, "idle", "--port", str(server.port), "--connections",
                   str(args.idle_connections)]
        holder = subprocess.Popen(pinned(CLIENT_CPU, command), stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=log_file, text=True)
        ready = read_json_line(holder.stdout, 300)
        result.update({key: ready[key] for key in ("served", "failed", "unanswered", "seconds")})
        time.sleep(args.hold)
        holder.stdin.write("check\n")
        holder.stdin.flush()
        result["held"] = read_json_line(holder.stdout, 60)["open"]
        result["fresh_with"] = [fresh_request_ms(server.port) for _ in range(5)]
        result["rss_with"] = server.rss_kib()
        result["fds_with"] = server.fd_count()
        holder.stdin.write("quit\n")
        holder.stdin.flush()
        holder.wait(timeout=30)
        log_file.close()
        reap_start = time.monotonic()
        while True:
            fds = server.fd_count()
            if fds is None or fds <= result["fds_before"] or time.monotonic() - reap_start >= args.reap:
                break
            time.sleep(0.25)
        result["fds_after"] = fds
        result["rss_after"] = server.rss_kib()
    except (OSError, RuntimeError, ValueError) as error:
        result["error"] = str(error)
        log(f"idle test failed: {error}")
    finally:
        if holder and holder.poll() is None:
            holder.kill()
            holder.wait()
        result["exit"] = server.stop()
        server.cleanup()
    fresh = [ms for ms in result.get("fresh_with", []) if ms is not None]
    result["fresh_with_median"] = percentile(fresh, 50) if len(fresh) == 5 else None
    result["fresh_with_max"] = max(fresh) if len(fresh) == 5 else None
    held = result.get("held")
    if held and result.get("rss_with") is not None:
        result["kib_per_connection"] = (result["rss_with"] - result["rss_before"]) / held
    result["passed"] = (held == args.idle_connections and result["fresh_with_median"] is not None
                        and result["fresh_with_median"] <= IDLE_FRESH_MS)
    log(f"idle, {mode}: held {held}, fresh {fmt(result['fresh_with_median'], 2)} ms, "
        f"{fmt(result.get('kib_per_connection'), 1)} KiB per connection")
    return result


# ---------------------------------------------------------------------------------------------
# Report


def machine_line():
    model = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    load = " ".join(f"{value:.2f}" for value in os.getloadavg())
    return (f"{os.cpu_count()} CPUs, {model}, Linux {platform.release()}; load average at start "
            f"{load} (the machine may be shared)")


def commit_line():
    completed = subprocess.run(["git", "-C", ROOT, "log", "-1", "--format=%h %s"], capture_output=True,
                               text=True)
    line = completed.stdout.strip()
    line = (line[:90] + "…") if len(line) > 90 else line
    changed = subprocess.run(["git", "-C", ROOT, "status", "--porcelain", "--untracked-files=no", "--",
                              "src", "include", "tools", "CMakeLists.txt", "cmake"],
                             capture_output=True, text=True).stdout.split("\n")
    changed = [entry for entry in changed if entry.strip()]
    if changed:
        line += f" (built with uncommitted changes to {len(changed)} files of the library)"
    return line


def header_lines(args, machine):
    script = os.path.relpath(os.path.abspath(sys.argv[0]), ROOT)
    return [f"- Date: {datetime.datetime.now().astimezone().strftime('%Y-%m-%d %H:%M %Z')}",
            f"- Machine: {machine}",
            f"- Server: {args.describe or 'veskan-serve of commit ' + commit_line()}",
            f"- Command: `python3 {' '.join(shlex.quote(word) for word in [script] + sys.argv[1:])}`"]


def load_description(load):
    return (f"{load['keepalive']} keep-alive clients (GET /hello, GET /echo, POST /echo in turn, "
            f"{load['keepalive-pause-ms']} ms between a reply and the next request), "
            f"{load['close']} Connection: close clients, {load['websockets']} WebSocket clients on /ws "
            f"(a message every {load['ws-pause-ms']} ms, reconnecting every {load['ws-lifetime']} s), "
            f"POST /broadcast every {load['broadcast-ms'] / 1000:g} s; attackers: {load['pipeliners']} "
            f"pipeliners ({load['pipeline-depth']} × GET of the 1 MiB file, never read, reset after "
            f"{load['pipeline-lifetime']} s), {load['trickle-head']} head and {load['trickle-body']} body "
            f"tricklers (one byte every {load['trickle-ms'] / 1000:g} s on average), {load['abrupt']} "
            f"clients resetting mid-request or mid-reply, {load['malformed']} sending malformed "
            f"requests; a probe GET /hello {LOAD_PROBE['rate']:g} times a second (a fresh connection "
            f"every {LOAD_PROBE['fresh_every']}th). Server on CPU {SERVER_CPU}; load generator and "
            f"probe on CPU {CLIENT_CPU}.")


LOAD_PROBE = {"rate": 5.0, "fresh_every": 10}


def render_soak(result, args, machine):
    mode = result["mode"]
    lines = [f"## Soak, {mode} mode", ""]
    lines += header_lines(args, machine)
    lines.append(f"- Run: {result['seconds'] / 60:g} min planned, "
                 f"{result.get('ran_seconds', 0) / 60:.1f} min "
                 f"ran; warm-up: the first {result['warmup_seconds']} s")
    lines.append(f"- Load: {load_description(result['load'])}")
    lines.append(f"- Per-second samples: `bench/soak/{os.path.basename(result['csv'])}`")
    if result.get("server_cpu_share") is not None:
        lines.append(f"- CPU use over the run: server {result['server_cpu_share']:.0%} of a CPU, load "
                     f"generator {result['loader_cpu_share']:.0%}")
    lines.append("")
    lines.append("| goal | measured | result |")
    lines.append("| --- | --- | :---: |")
    for name, measured, passed in result["goals"]:
        lines.append(f"| {name} | {measured} | **{verdict(passed)}** |")
    for name, measured, passed in result["checks"]:
        lines.append(f"| {name} | {measured} | {verdict(passed)} |")
    lines.append("")
    lines.append("Probe latency (ms; failed probes count with the time they took):")
    lines.append("")
    lines.append("| minute | probes | errors | p50 | p99 | max |")
    lines.append("| ---: | ---: | ---: | ---: | ---: | ---: |")
    for row in result["minutes"] + [dict(result["overall"], minute="all")]:
        lines.append(f"| {row['minute']} | {row['count']:,} | {row['errors']:,} | {fmt(row['p50'], 2)} | "
                     f"{fmt(row['p99'], 2)} | {fmt(row['max'], 2)} |")
    lines.append("")
    lines.append("| server | RSS MiB | descriptors |")
    lines.append("| --- | ---: | ---: |")
    lines.append(f"| before the load | {fmt(mib(result.get('rss_start')), 1)} | "
                 f"{fmt(result.get('fds_start'))} |")
    lines.append(f"| warm-up end / warm-up peak | {fmt(mib(result.get('rss_warmup_end')), 1)} / "
                 f"{fmt(mib(result.get('rss_warmup_peak')), 1)} | |")
    lines.append(f"| max after the warm-up | {fmt(mib(result.get('rss_after_warmup_max')), 1)} | "
                 f"{fmt(result.get('fds_peak_load'))} (max in the run) |")
    lines.append(f"| end of the load | {fmt(mib(result.get('rss_end')), 1)} | |")
    lines.append(f"| after the load (attackers gone) | {fmt(mib(result.get('rss_after')), 1)} | "
                 f"{fmt(result.get('fds_after'))} |")
    if result.get("fd_kinds_after") is not None:
        lines.append("")
        lines.append(f"Descriptors before the load: {kinds_text(result['fd_kinds_start'])}; after it: "
                     f"{kinds_text(result['fd_kinds_after'])}.")
    final = result.get("final") or {}
    if final:
        lines.append("")
        lines.append("| client | outcome |")
        lines.append("| --- | --- |")
        rows = [
            ("keep-alive", f"{final['keepalive_ok']:,} replies, {final['keepalive_errors']:,} errors"),
            ("Connection: close", f"{final['close_ok']:,} replies, {final['close_errors']:,} errors"),
            ("WebSocket", f"{final['ws_opened']:,} connections, {final['ws_echoes']:,} echoes, "
                          f"{final['ws_broadcasts']:,} broadcast messages received, "
                          f"{final['ws_errors']:,} errors"),
            ("POST /broadcast", f"{final['broadcast_ok']:,} replies reaching "
                                f"{final['broadcast_reached']:,} clients in all, "
                                f"{final['broadcast_errors']:,} errors"),
            ("pipeliner", f"{final['pipeline_connections']:,} connections, {final['pipeline_requests']:,} "
                          f"requests sent, {final['pipeline_cut']:,} closed by the server"),
            ("head trickler", f"{final['trickle_head_started']:,} started, "
                              f"{final['trickle_head_cut']:,} cut off, "
                              f"{final['trickle_head_survived']:,} still connected at the limit"),
            ("body trickler", f"{final['trickle_body_started']:,} started, "
                              f"{final['trickle_body_cut']:,} cut off, "
                              f"{final['trickle_body_survived']:,} still connected at the limit"),
            ("reset mid-request / mid-reply", f"{final['abrupt_requests']:,} / "
                                              f"{final['abrupt_replies']:,}, "
                                              f"{final['abrupt_errors']:,} errors"),
            ("malformed", f"{final['malformed_sent']:,} sent, {final['malformed_closed']:,} closed, "
                          f"{final['malformed_left_open']:,} left open"),
        ]
        lines += [f"| {name} | {text} |" for name, text in rows]
        if final.get("error_kinds"):
            lines.append("")
            lines.append("Errors seen by the load generator: " + "; ".join(
                f"{kind} ({count:,})" for kind, count in sorted(final["error_kinds"].items())) + ".")
        malformed = final.get("malformed", {})
        if malformed:
            lines.append("")
            lines.append("| malformed request | sent | closed, no reply | closed after a reply | "
                         "left open after a reply | left open, no reply | statuses |")
            lines.append("| --- | ---: | ---: | ---: | ---: | ---: | --- |")
            for name, row in malformed.items():
                statuses = ", ".join(f"{status} × {count}" for status, count in row["statuses"].items())
                lines.append(f"| {name} | {row['sent']} | {row['closed_without_reply']} | "
                             f"{row['closed_after_reply']} | {row['open_after_reply']} | "
                             f"{row['open_without_reply']} | {statuses} |")
    if result["probe_errors"]:
        lines.append("")
        lines.append("Probe errors: " + "; ".join(f"{error} ({count})" for error, count in
                                                  sorted(result["probe_errors"].items())[:8]) + ".")
    if result["notes"]:
        lines.append("")
        lines += [f"- {note}" for note in result["notes"]]
    return lines


def render_idle(results, args, machine):
    lines = ["## Idle connections", ""]
    lines += header_lines(args, machine)
    lines.append(f"- {args.idle_connections:,} keep-alive connections, each served one GET /hello, then "
                 f"idle, held by the load generator in its own process on CPU {CLIENT_CPU}; checked "
                 f"after {args.hold:g} s. Fresh request: connect, GET /hello, the whole reply "
                 "(5 in a row).")
    lines.append("")
    lines.append("| mode | served | time to open s | still open | fresh ms before (median) | "
                 "fresh ms with idle (median / max) | RSS MiB before | RSS MiB with idle | "
                 "KiB per idle connection | descriptors before / with "
                 "/ after | result |")
    lines.append("| --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | --- | :---: |")
    for row in results:
        if "error" in row and row.get("held") is None:
            lines.append(f"| {row['mode']} | failed: {row['error']} | | | | | | | | | **FAIL** |")
            continue
        before = [ms for ms in row.get("fresh_before", []) if ms is not None]
        with_idle = (f"{fmt(row['fresh_with_median'], 2)} / {fmt(row['fresh_with_max'], 2)}"
                     if row["fresh_with_median"] is not None else "failed or > 5 s")
        lines.append(f"| {row['mode']} | {row.get('served', 0):,} | {fmt(row.get('seconds'), 1)} | "
                     f"{row.get('held', 0):,} | "
                     f"{fmt(percentile(before, 50), 2)} | {with_idle} | "
                     f"{fmt(mib(row.get('rss_before')), 1)} | "
                     f"{fmt(mib(row.get('rss_with')), 1)} | {fmt(row.get('kib_per_connection'), 1)} | "
                     f"{fmt(row.get('fds_before'))} / {fmt(row.get('fds_with'))} / "
                     f"{fmt(row.get('fds_after'))} | "
                     f"**{verdict(row['passed'])}** |")
    lines.append("")
    lines.append(f"Goal: all {args.idle_connections:,} held and a fresh client answered within "
                 f"{IDLE_FRESH_MS:g} ms (median of 5). KiB per idle connection: (RSS with them − RSS "
                 "before) ÷ connections still open.")
    for row in results:
        if row.get("failed") or row.get("unanswered"):
            lines.append(f"- {row['mode']}: {row['failed']:,} connections failed, {row['unanswered']:,} "
                         "unanswered when the holder gave up (10 s without progress)")
        lines += [f"- {row['mode']}: {note}" for note in row["notes"]]
    return lines


SECTION = re.compile(r"<!-- section: ([\w-]+) -->\n(.*?)<!-- end: \1 -->\n", re.S)
ORDER = ["soak-window", "soak-direct", "idle"]


def update_results(path, sections):
    """Replaces the given sections of the results file, keeping the others."""
    kept = {}
    try:
        with open(path) as f:
            for match in SECTION.finditer(f.read()):
                kept[match.group(1)] = match.group(2)
    except OSError:
        pass
    kept.update(sections)
    text = ["# Soak benchmark results", "",
            "Written by `bench/soak/run.py`; each section comes from the last run of its kind. "
            "Goals in bold; the other rows are checks on the attackers and the well-behaved load.", ""]
    for name in ORDER + sorted(set(kept) - set(ORDER)):
        if name in kept:
            text.append(f"<!-- section: {name} -->\n{kept[name]}<!-- end: {name} -->\n")
    with open(path, "w") as f:
        f.write("\n".join(text))


# ---------------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=10.0, help="length of the soak (default 10)")
    parser.add_argument("--direct", action="store_true", help="direct mode (default: window mode)")
    parser.add_argument("--both", action="store_true", help="window mode, then direct mode")
    parser.add_argument("--idle", action="store_true", help="the idle-connection test instead of the soak")
    parser.add_argument("--idle-connections", type=int, default=10000, help="for --idle (default 10000)")
    parser.add_argument("--hold", type=float, default=3.0,
                        help="seconds the idle connections are held before the checks (default 3)")
    parser.add_argument("--rss-limit-mb", type=int, default=2048,
                        help="the server is killed above this RSS, a FAIL (default 2048)")
    parser.add_argument("--rss-budget-mb", type=int, default=128,
                        help="MiB the server may add under the load before the check fails (default 128)")
    parser.add_argument("--warmup", type=float, default=0.10, help="warm-up share of the run (default 0.1)")
    parser.add_argument("--reap", type=float, default=10.0,
                        help="seconds the server has after the load to close its connections (default 10)")
    parser.add_argument("--probe-rate", type=float, default=LOAD_PROBE["rate"],
                        help="probe requests a second (default 5)")
    parser.add_argument("--fresh-every", type=int, default=LOAD_PROBE["fresh_every"],
                        help="every n-th probe on a fresh connection (default 10)")
    parser.add_argument("--probe-timeout", type=float, default=2.0, help="seconds (default 2)")
    parser.add_argument("--set", action="append", default=[], metavar="NAME=VALUE",
                        help="change one load setting (see LOAD in this script), e.g. pipeline-depth=64")
    parser.add_argument("--no-build", action="store_true",
                        help="use the binaries in build-soak/ as they are")
    parser.add_argument("--veskan", default=SERVE, help="veskan-serve binary (default: build-soak's)")
    parser.add_argument("--loader", default=LOADER, help="veskan_soak_load binary (default: build-soak's)")
    parser.add_argument("--describe", default="",
                        help="the veskan-serve build, for the report (default: the repository's commit)")
    parser.add_argument("--output", default=RESULTS, help="results file (default bench/soak/RESULTS.md)")
    args = parser.parse_args()
    if not 0 < args.minutes <= 24 * 60:
        parser.error("--minutes must be above 0 and at most 1440")
    if not 0 < args.warmup < 1:
        parser.error("--warmup must be between 0 and 1")
    for item in args.set:
        name, _, value = item.partition("=")
        if name not in LOAD:
            parser.error(f"--set: unknown load setting {name!r}; known: {', '.join(LOAD)}")
        LOAD[name] = float(value) if "." in value else int(value)
    LOAD_PROBE.update(rate=args.probe_rate, fresh_every=max(1, args.fresh_every))

    if not (args.no_build or args.veskan != SERVE or args.loader != LOADER):
        build()
    for binary in (args.veskan, args.loader):
        if not os.access(binary, os.X_OK):
            sys.exit(f"{binary} is missing: build it or drop --no-build")
    args.veskan, args.loader = os.path.abspath(args.veskan), os.path.abspath(args.loader)
    machine = machine_line()  # before narrowing this process's CPU affinity
    if os.cpu_count() and os.cpu_count() >= 2:
        os.sched_setaffinity(0, {int(CLIENT_CPU)})  # the probe runs beside the load generator
    raise_file_limit(args.idle_connections + 1000)

    modes = [False, True] if args.both else [args.direct]
    sections = {}
    failed = False
    if args.idle:
        results = [idle(args, direct) for direct in modes]
        failed = not all(row["passed"] for row in results)
        sections["idle"] = "\n".join(render_idle(results, args, machine)) + "\n"
    else:
        for direct in modes:
            result = soak(args, direct)
            result["csv"] = os.path.join(HERE, f"soak-{result['mode']}.csv")
            with open(result["csv"], "w") as f:
                f.write(csv_text(result))
            for name, measured, passed in result["goals"] + result["checks"]:
                log(f"{verdict(passed)}  {name}: {measured}")
            failed = failed or not all(passed for _, _, passed in result["goals"] + result["checks"])
            sections[f"soak-{result['mode']}"] = "\n".join(render_soak(result, args, machine)) + "\n"
    for text in sections.values():
        print(text)
    update_results(args.output, sections)
    log(f"written to {os.path.relpath(args.output, os.getcwd())}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
