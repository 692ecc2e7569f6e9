#!/usr/bin/env python3
"""HTTP benchmark: veskan-serve against peer "Hello, world!" servers.

Builds the peers in bench/http/peers/ (into build-bench-http/ at the repository root), starts
them all pinned to CPU 0 and drives them in turns with wrk pinned to CPU 1 on loopback, then runs
an idle-connection test on each. Prints a Markdown report and writes it to bench/http/RESULTS.md.

Standard library only. See bench/http/README.md.
"""

import argparse
import datetime
import errno
import os
import platform
import resource
import select
import selectors
import shlex
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from benchlib import cpu_seconds, fmt, log, pinned, raise_file_limit, start_or_note  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
PEERS = os.path.join(HERE, "peers")
BUILD = os.path.join(ROOT, "build-bench-http")

ALL_SERVERS = ["mhd", "beast", "poco", "nginx", "veskan-direct", "veskan-window",
               "veskan-direct-before", "veskan-window-before"]
DEFAULT_SERVERS = ALL_SERVERS[:6]  # the "-before" ones need --veskan-before
BODY = b"Hello, world!"
PATH = "/hello"

# (label, connections, new connection per request)
LOADS = [
    ("keep-alive, 1 conn", 1, False),
    ("keep-alive, 50 conns", 50, False),
    ("keep-alive, 500 conns", 500, False),
    ("new conn per request, 50 conns", 50, True),
]

CXX = os.environ.get("CXX", "g++")
CXXFLAGS = ["-std=c++17", "-O2", "-DNDEBUG"]
PEER_BUILDS = {
    "mhd": ("mhd_hello.cpp", "mhd_hello", ["-lmicrohttpd"]),
    "beast": ("beast_hello.cpp", "beast_hello", ["-pthread"]),
    "poco": ("poco_hello.cpp", "poco_hello", ["-lPocoNet", "-lPocoFoundation", "-pthread"]),
}

SERVER_CPU = "0"
CLIENT_CPU = "1"


# ---------------------------------------------------------------------------------------------
# Building the peers


def build_peers(names):
    os.makedirs(BUILD, exist_ok=True)
    jobs = []
    for name in names:
        if name not in PEER_BUILDS:
            continue
        source, binary, libs = PEER_BUILDS[name]
        src = os.path.join(PEERS, source)
        out = os.path.join(BUILD, binary)
        if os.path.exists(out) and os.path.getmtime(out) >= os.path.getmtime(src):
            continue
        command = [CXX] + CXXFLAGS + [src, "-o", out] + libs
        log("build: " + " ".join(shlex.quote(word) for word in command))
        jobs.append((name, subprocess.Popen(command)))
    failed = [name for name, job in jobs if job.wait() != 0]
    return failed


# ---------------------------------------------------------------------------------------------
# Processes


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def process_tree(pid):
    pids = [pid]
    index = 0
    while index < len(pids):
        current = pids[index]
        index += 1
        try:
            for task in os.listdir(f"/proc/{current}/task"):
                with open(f"/proc/{current}/task/{task}/children") as f:
                    pids.extend(int(child) for child in f.read().split())
        except OSError:
            pass
    return pids


def tree_cpu_seconds(pid):
    """CPU time of the process and all its descendants."""
    return sum(cpu_seconds(member) or 0.0 for member in process_tree(pid))


def rss_kib(pid):
    """VmRSS of the process and all its descendants (nginx has a master and a worker)."""
    total = 0
    for member in process_tree(pid):
        try:
            with open(f"/proc/{member}/status") as f:
                for line in f:
                    if line.startswith("VmRSS:"):
                        total += int(line.split()[1])
        except OSError:
            pass
    return total


class Server:
    """One running server process, started pinned to the server CPU."""

    def __init__(self, name, args):
        self.name = name
        self.args = args
        self.port = free_port()
        self.workdir = tempfile.mkdtemp(prefix=f"bench-http-{name}-")
        self.process = None
        self.log_path = os.path.join(self.workdir, "server.log")

    def command(self):
        if self.name in PEER_BUILDS:
            return [os.path.join(BUILD, PEER_BUILDS[self.name][1]), str(self.port)]
        if self.name == "nginx":
            return self.nginx_command()
        if self.name.startswith("veskan-"):
            binary = self.args.veskan_before if self.name.endswith("-before") else self.args.veskan
            mode = ["--direct"] if self.name.startswith("veskan-direct") else []
            return [binary, "--port", str(self.port)] + mode
        raise ValueError(self.name)

    def nginx_command(self):
        directory = self.workdir
        # The worker drops to an unprivileged user when nginx is started as root.
        os.chmod(directory, 0o755)
        os.makedirs(os.path.join(directory, "www"))
        os.makedirs(os.path.join(directory, "tmp"))
        with open(os.path.join(directory, "www", "hello"), "wb") as f:
            f.write(BODY)
        os.chmod(os.path.join(directory, "www", "hello"), 0o644)
        with open(os.path.join(PEERS, "nginx.conf.in")) as f:
            config = f.read().replace("@DIR@", directory).replace("@PORT@", str(self.port))
        config_path = os.path.join(directory, "nginx.conf")
        with open(config_path, "w") as f:
            f.write(config)
        nginx = shutil.which("nginx") or "/usr/sbin/nginx"
        return [nginx, "-p", directory, "-c", config_path, "-e", os.path.join(directory, "error.log")]

    def start(self, timeout=15.0):
        command = pinned(SERVER_CPU, self.command())
        with open(self.log_path, "wb") as output:
            self.process = subprocess.Popen(command, stdout=output, stderr=subprocess.STDOUT,
                                            stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError(f"{self.name} exited with {self.process.returncode} during start-up: "
                                   + self.tail_log())
            try:
                status, _, _, _ = http_get(self.port, timeout=1.0)
                if status is not None:
                    return
            except OSError:
                pass
            time.sleep(0.1)
        self.stop()
        raise RuntimeError(f"{self.name} did not answer on port {self.port} within {timeout:.0f} s")

    def tail_log(self):
        try:
            with open(self.log_path, "rb") as f:
                return f.read()[-400:].decode(errors="replace").strip()
        except OSError:
            return ""

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
# A tiny HTTP/1.1 client for checks, the idle test and the fresh-connection probe


def request_bytes(port, close=False):
    # Keep-alive is asked for explicitly, as browsers do: veskan-serve keeps a connection open
    # only for a "Connection" header other than "close".
    connection = "Connection: close\r\n" if close else "Connection: keep-alive\r\n"
    return f"GET {PATH} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n{connection}\r\n".encode()


def parse_response(buffer):
    """Returns (status, headers, body, consumed) for a complete response in buffer, else None."""
    end = buffer.find(b"\r\n\r\n")
    if end < 0:
        return None
    head = buffer[:end].decode("latin-1").split("\r\n")
    try:
        status = int(head[0].split()[1])
    except (IndexError, ValueError):
        raise ValueError("bad status line: " + head[0])
    headers = {}
    for line in head[1:]:
        key, _, value = line.partition(":")
        headers[key.strip().lower()] = value.strip()
    start = end + 4
    if "content-length" in headers:
        length = int(headers["content-length"])
        if len(buffer) < start + length:
            return None
        return status, headers, buffer[start:start + length], start + length
    if "chunked" in headers.get("transfer-encoding", "").lower():
        body, position = b"", start
        while True:
            line_end = buffer.find(b"\r\n", position)
            if line_end < 0:
                return None
            size = int(buffer[position:line_end].split(b";")[0], 16)
            if size == 0:
                trailer_end = buffer.find(b"\r\n\r\n", line_end)
                if trailer_end < 0:
                    if buffer[line_end:line_end + 4] == b"\r\n\r\n":
                        trailer_end = line_end
                    else:
                        return None
                return status, headers, body, trailer_end + 4
            if len(buffer) < line_end + 2 + size + 2:
                return None
            body += buffer[line_end + 2:line_end + 2 + size]
            position = line_end + 2 + size + 2
    return status, headers, buffer[start:], len(buffer)  # body up to EOF; caller must see EOF


def read_response(sock, deadline):
    buffer = b""
    while True:
        parsed = parse_response(buffer)
        if parsed is not None and ("content-length" in parsed[1]
                                   or "chunked" in parsed[1].get("transfer-encoding", "").lower()):
            return parsed
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise TimeoutError("no complete response")
        sock.settimeout(remaining)
        data = sock.recv(65536)
        if not data:
            if parsed is not None:
                return parsed
            raise ConnectionError("connection closed before a complete response")
        buffer += data


def http_get(port, timeout=5.0, requests=1):
    """Sends `requests` keep-alive GETs on one connection; returns the last (status, headers, body,
    elapsed seconds)."""
    deadline = time.monotonic() + timeout
    started = time.perf_counter()
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as sock:
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        result = None
        for _ in range(requests):
            sock.sendall(request_bytes(port))
            result = read_response(sock, deadline)
        elapsed = time.perf_counter() - started
    status, headers, body, _ = result
    return status, headers, body, elapsed


def check_server(port):
    """Returns a list of deviations from the expected reply (empty when all is well)."""
    problems = []
    try:
        status, headers, body, _ = http_get(port, timeout=5.0, requests=2)
    except (OSError, ValueError) as error:
        return [f"two keep-alive requests on one connection failed: {error}"]
    if status != 200:
        problems.append(f"status {status}")
    if not headers.get("content-type", "").startswith("text/plain"):
        problems.append(f"Content-Type {headers.get('content-type')!r}")
    if body != BODY:
        problems.append(f"body {body[:40]!r}")
    return problems


def fresh_request_ms(port, timeout=5.0):
    try:
        status, _, body, elapsed = http_get(port, timeout=timeout)
    except (OSError, ValueError):
        return None
    return elapsed * 1000.0 if status == 200 and body == BODY else None


def fresh_request_median(port, samples=5, timeout=5.0):
    results = []
    for _ in range(samples):
        value = fresh_request_ms(port, timeout)
        if value is None:
            return None  # a failure or time-out: do not wait for the rest
        results.append(value)
    return statistics.median(results)


# ---------------------------------------------------------------------------------------------
# The idle-connection test


class IdleConnection:
    __slots__ = ("sock", "phase", "buffer", "outgoing")

    def __init__(self, sock, outgoing):
        self.sock = sock
        self.phase = "connect"
        self.buffer = b""
        self.outgoing = outgoing


def open_idle_connections(port, count, in_flight=256, stall=5.0):
    """Opens `count` connections, each sending one keep-alive GET and reading the full reply.
    Returns (served sockets, number that failed, number still unanswered when it gave up)."""
    selector = selectors.DefaultSelector()
    served, failed = [], 0
    pending = {}
    started = 0
    last_progress = time.monotonic()
    request = request_bytes(port)

    def drop(connection):
        nonlocal failed
        failed += 1
        selector.unregister(connection.sock)
        pending.pop(connection.sock.fileno(), None)
        connection.sock.close()

    while started < count or pending:
        while started < count and len(pending) < in_flight:
            started += 1
            sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            sock.setblocking(False)
            code = sock.connect_ex(("127.0.0.1", port))
            if code not in (0, errno.EINPROGRESS):
                failed += 1
                sock.close()
                continue
            connection = IdleConnection(sock, request)
            pending[sock.fileno()] = connection
            selector.register(sock, selectors.EVENT_WRITE, connection)
        progress = False
        for key, _ in selector.select(timeout=0.5):
            connection = key.data
            sock = connection.sock
            try:
                if connection.phase == "connect":
                    code = sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
                    if code != 0:
                        drop(connection)
                        progress = True
                        continue
                    connection.phase = "send"
                if connection.phase == "send":
                    sent = sock.send(connection.outgoing)
                    connection.outgoing = connection.outgoing[sent:]
                    if not connection.outgoing:
                        connection.phase = "read"
                        selector.modify(sock, selectors.EVENT_READ, connection)
                    continue
                data = sock.recv(65536)
                if not data:
                    drop(connection)
                    progress = True
                    continue
                connection.buffer += data
                parsed = parse_response(connection.buffer)
                if parsed is None:
                    continue
                progress = True
                selector.unregister(sock)
                del pending[sock.fileno()]
                if parsed[0] == 200 and parsed[2] == BODY:
                    served.append(sock)
                else:
                    failed += 1
                    sock.close()
            except BlockingIOError:
                continue
            except (OSError, ValueError):
                drop(connection)
                progress = True
        now = time.monotonic()
        if progress:
            last_progress = now
        elif now - last_progress > stall:
            break
    unanswered = len(pending) + (count - started)
    for connection in list(pending.values()):
        selector.unregister(connection.sock)
        connection.sock.close()
    selector.close()
    return served, failed, unanswered


def count_still_open(sockets):
    """Counts sockets with no EOF, reset or pending error."""
    poller = select.epoll()
    by_fd = {}
    for sock in sockets:
        poller.register(sock.fileno(), select.EPOLLIN | select.EPOLLRDHUP)
        by_fd[sock.fileno()] = sock
    closed = 0
    for fd, _ in poller.poll(0, maxevents=max(1, len(sockets))):
        try:
            data = by_fd[fd].recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT)
            if not data:
                closed += 1
        except BlockingIOError:
            pass
        except OSError:
            closed += 1
    poller.close()
    return len(sockets) - closed


def idle_test(server, count, hold):
    result = {"target": count}
    pid = server.process.pid
    time.sleep(0.5)
    result["rss_before"] = rss_kib(pid)
    result["fresh_before"] = fresh_request_median(server.port)
    started = time.monotonic()
    served, failed, unanswered = open_idle_connections(server.port, count)
    result["open_seconds"] = time.monotonic() - started
    result["served"] = len(served)
    result["failed"] = failed
    result["unanswered"] = unanswered
    try:
        time.sleep(hold)
        result["held"] = count_still_open(served)
        result["fresh_after"] = fresh_request_median(server.port)
        result["rss_after"] = rss_kib(pid)
    finally:
        for sock in served:
            sock.close()
    return result


# ---------------------------------------------------------------------------------------------
# wrk


def parse_time_ms(text):
    for unit, factor in (("us", 0.001), ("ms", 1.0), ("s", 1000.0), ("m", 60000.0), ("h", 3600000.0)):
        if text.endswith(unit):
            return float(text[:-len(unit)]) * factor
    return float(text)


def parse_wrk(output):
    result = {"rps": None, "p99": None, "errors": 0}
    in_distribution = False
    for line in output.splitlines():
        words = line.split()
        if not words:
            continue
        if line.strip().startswith("Latency Distribution"):
            in_distribution = True
            continue
        if in_distribution and words[0] == "99%":
            result["p99"] = parse_time_ms(words[1])
            in_distribution = False
        elif words[0] == "Requests/sec:":
            result["rps"] = float(words[1])
        elif len(words) > 3 and words[1:3] == ["requests", "in"]:
            # 2000000 requests in 8.00s, 194.55MB read
            result["requests"] = int(words[0])
        elif line.strip().startswith("Socket errors:"):
            # Socket errors: connect 0, read 0, write 0, timeout 0
            numbers = [int(word.strip(",")) for word in words if word.strip(",").isdigit()]
            result["errors"] += sum(numbers)
        elif line.strip().startswith("Non-2xx or 3xx responses:"):
            result["errors"] += int(words[-1])
    return result


def run_wrk(server, connections, close, duration):
    """One wrk run against `server`. Besides wrk's figures: the server's CPU time per request
    ("server_us") and the share of its CPU that wrk used ("wrk_cpu"). When wrk uses all of its
    CPU, it is what limits the rate, and the server's CPU time per request tells servers apart."""
    command = ["wrk", "-t1", f"-c{connections}", f"-d{duration}s", "--latency", "--timeout", "5s"]
    command += ["-H", "Connection: close" if close else "Connection: keep-alive"]
    command.append(f"http://127.0.0.1:{server.port}{PATH}")
    server_before = tree_cpu_seconds(server.process.pid)
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    completed = subprocess.run(pinned(CLIENT_CPU, command), capture_output=True, text=True,
                               timeout=duration + 60)
    server_cpu = tree_cpu_seconds(server.process.pid) - server_before
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    wrk_cpu = (after.ru_utime + after.ru_stime) - (children.ru_utime + children.ru_stime)
    parsed = parse_wrk(completed.stdout)
    if parsed["rps"] is None:
        parsed["note"] = (completed.stdout + completed.stderr).strip()[-300:]
    if parsed.get("requests"):
        parsed["server_us"] = server_cpu * 1e6 / parsed["requests"]
        parsed["wrk_cpu"] = wrk_cpu / duration
    return parsed


def median_or_none(values):
    values = [value for value in values if value is not None]
    return statistics.median(values) if values else None


def paired_ratio(rounds, top, bottom, label, key):
    """Top's figure ÷ bottom's within each round of a load: (median, lowest, highest), or None."""
    pairs = zip(rounds.get(top, {}).get(label, []), rounds.get(bottom, {}).get(label, []))
    ratios = [a[key] / b[key] for a, b in pairs if a.get(key) and b.get(key)]
    if not ratios:
        return None
    return statistics.median(ratios), min(ratios), max(ratios)


# ---------------------------------------------------------------------------------------------
# The throughput test


def start_servers(names, args, notes, running):
    """Starts every server, checks its reply and warms it up; adds the running ones to `running`
    by name as they start, so that the caller can stop them whatever happens."""
    for name in names:
        server = Server(name, args)
        if not start_or_note(server, name, notes):
            continue
        running[name] = server
        problems = check_server(server.port)
        if problems:
            notes.append(f"{name}: unexpected reply: {'; '.join(problems)}")
            log(notes[-1])
        run_wrk(server, 50, False, 1)  # warm-up


def measure_throughput(names, args, notes):
    """Runs every load on every server. The servers run side by side, idle but for the one under
    load, and take turns within each round of a load: a ratio then compares runs made seconds
    apart, where runs made minutes apart would carry the drift of a shared machine's speed. The
    first server of a round changes from round to round.

    Returns (results, rounds): results[name][label] the medians and ranges over the rounds,
    rounds[name][label] the runs in round order."""
    running, rounds = {}, {}
    try:
        start_servers(names, args, notes, running)
        rounds = {name: {} for name in running}
        for label, connections, close in LOADS:
            order = list(running)
            for number in range(args.runs):
                turn = number % len(order) if order else 0
                for name in order[turn:] + order[:turn]:
                    run = run_wrk(running[name], connections, close, args.duration)
                    if "note" in run:
                        notes.append(f"{name}, {label}: wrk gave no result: {run['note']}")
                    rounds[name].setdefault(label, []).append(run)
            for name in order:
                row = summarize(rounds[name][label])
                log(f"{name:20} {label:32} {fmt(row['rps']):>10} req/s  p99 {fmt(row['p99'], 2):>8} ms  "
                    f"errors {fmt(row['errors'])}")
    finally:
        for name, server in running.items():
            code = server.stop()
            if code not in (0, None):
                notes.append(f"{name}: exit status {code} after SIGTERM")
    results = {name: {label: summarize(runs) for label, runs in loads.items()}
               for name, loads in rounds.items()}
    return results, rounds


def summarize(runs):
    rates = [run["rps"] for run in runs if run["rps"] is not None]
    return {
        "rps": median_or_none(rates),
        "rps_min": min(rates) if rates else None,
        "rps_max": max(rates) if rates else None,
        "p99": median_or_none([run["p99"] for run in runs]),
        "errors": median_or_none([run["errors"] for run in runs]),
        "server_us": median_or_none([run.get("server_us") for run in runs]),
        "wrk_cpu": median_or_none([run.get("wrk_cpu") for run in runs]),
    }


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
    load = " ".join(f"{value:.2f}" for value in os.getloadavg())
    return nproc, model, load


def package_versions():
    names = ["wrk", "libmicrohttpd-dev", "libboost-dev", "libpoco-dev", "nginx"]
    completed = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\\n"] + names,
                               capture_output=True, text=True)
    return ", ".join(line for line in completed.stdout.splitlines() if line.strip())


# The engine's goals, as ratios within this one run: (label, numerator, denominator, what, test).
GOALS = [
    ("keep-alive, 50 conns", "veskan-direct", "mhd", "rps", lambda r: r >= 1.0,
     "direct mode requests/s ÷ libmicrohttpd's ≥ 1.0"),
    ("keep-alive, 500 conns", "veskan-direct", "mhd", "rps", lambda r: r >= 1.0,
     "direct mode requests/s ÷ libmicrohttpd's ≥ 1.0"),
    ("keep-alive, 50 conns", "veskan-window", "veskan-direct", "rps", lambda r: r >= 0.85,
     "window mode requests/s ÷ direct mode's ≥ 0.85"),
    ("keep-alive, 500 conns", "veskan-window", "veskan-direct", "rps", lambda r: r >= 0.85,
     "window mode requests/s ÷ direct mode's ≥ 0.85"),
    ("keep-alive, 500 conns", "veskan-direct", "mhd", "p99", lambda r: r <= 1.5,
     "direct mode p99 ÷ libmicrohttpd's ≤ 1.5"),
    ("keep-alive, 500 conns", "veskan-window", "mhd", "p99", lambda r: r <= 1.5,
     "window mode p99 ÷ libmicrohttpd's ≤ 1.5"),
    # Not goals: what the rates are made of when wrk is the limit.
    ("keep-alive, 50 conns", "veskan-direct", "mhd", "server_us", None,
     "direct mode server CPU per request ÷ libmicrohttpd's (lower is better)"),
    ("keep-alive, 500 conns", "veskan-direct", "mhd", "server_us", None,
     "direct mode server CPU per request ÷ libmicrohttpd's (lower is better)"),
]


def render_goals(rounds):
    """The goal ratios, for this build and, when it ran, the earlier one."""
    lines = []
    for suffix, title in (("", "this build"), ("-before", "the earlier build (--veskan-before)")):
        rows = []
        for label, top, bottom, key, test, what in GOALS:
            bottom_name = bottom + suffix if bottom.startswith("veskan") else bottom
            ratio = paired_ratio(rounds, top + suffix, bottom_name, label, key)
            if ratio is None:
                continue
            median, lowest, highest = ratio
            verdict = "" if test is None else "met" if test(median) else "not met"
            rows.append(f"| {label} | {what} | {median:.2f} | {lowest:.2f}–{highest:.2f} | {verdict} |")
        if rows:
            lines += ["", f"## Goals, {title}", "", "| load | goal | ratio | range over rounds | |",
                      "| --- | --- | ---: | ---: | --- |"] + rows
    if lines:
        lines += ["", "A ratio is the median over the rounds of the two servers' figures in the same round."]
    return lines


def render(args, results, rounds, idle, notes, elapsed, facts):
    nproc, model, load = facts
    lines = ["# HTTP benchmark results", ""]
    lines.append(f"- Date: {datetime.datetime.now().astimezone().strftime('%Y-%m-%d %H:%M %Z')}")
    lines.append(f"- Machine: {nproc} CPUs (nproc), {model}, Linux {platform.release()}; "
                 f"load average at start {load} (the machine may be shared: compare within one report)")
    script = os.path.relpath(os.path.abspath(sys.argv[0]), ROOT)
    lines.append(f"- Command: `python3 {' '.join(shlex.quote(word) for word in [script] + sys.argv[1:])}`")
    lines.append(f"- Packages: {package_versions()}")
    lines.append(f"- Load: wrk -t1 -d{args.duration}s --latency, {args.runs} round(s) per load, in each round "
                 f"every server in turn (all running, idle but for the one under load), medians shown; "
                 f"servers pinned to CPU {SERVER_CPU}, wrk to CPU {CLIENT_CPU}; GET {PATH} on 127.0.0.1")
    lines.append(f"- Total run time: {elapsed / 60:.1f} min")
    lines.append("")
    lines.append("## Throughput and latency")
    lines.append("")
    have_direct = "veskan-direct" in results
    header = "| load | server | requests/s | range over runs | p99 ms | errors | server CPU µs/request | wrk CPU |"
    rule = "| --- | --- | ---: | ---: | ---: | ---: | ---: | ---: |"
    if have_direct:
        header += " veskan-direct ÷ server (req/s, median of rounds) |"
        rule += " ---: |"
    lines += [header, rule]
    for label, _, _ in LOADS:
        for name in args.servers:
            if name not in results:
                continue
            row = results[name].get(label)
            if row is None:
                continue
            spread = f"{fmt(row['rps_min'])}–{fmt(row['rps_max'])}" if args.runs > 1 and row["rps"] else ""
            wrk_cpu = f"{row['wrk_cpu'] * 100:.0f} %" if row.get("wrk_cpu") is not None else "—"
            line = (f"| {label} | {name} | {fmt(row['rps'])} | {spread} | {fmt(row['p99'], 2)} | "
                    f"{fmt(row['errors'])} | {fmt(row.get('server_us'), 2)} | {wrk_cpu} |")
            if have_direct:
                ratio = paired_ratio(rounds, "veskan-direct", name, label, "rps")
                line += f" {fmt(ratio[0] if ratio else None, 2)} |"
            lines.append(line)
    lines.append("")
    lines.append("Errors: median per run of wrk's socket errors (connect, read, write, timeout) "
                 "plus non-2xx replies. Server CPU: the CPU time of the server's processes per request "
                 "served. wrk CPU: the share of its CPU that wrk used; near 100 % wrk limits the rate, "
                 "and servers that reach that limit are told apart by their CPU per request.")
    if idle:
        lines.append("")
        lines.append(f"## Idle connections ({args.idle_connections:,} keep-alive connections, "
                     f"each served one request, then idle)")
        lines.append("")
        lines.append("| server | served | still open after "
                     f"{args.hold:g} s | all held | time to open s | fresh request ms, before | "
                     "fresh request ms, with idle | RSS MiB, before | RSS MiB, with idle | KiB per idle conn |")
        lines.append("| --- | ---: | ---: | :---: | ---: | ---: | ---: | ---: | ---: | ---: |")
        for name in args.servers:
            row = idle.get(name)
            if row is None:
                continue
            if "error" in row:
                lines.append(f"| {name} | {row['error']} | | | | | | | | |")
                continue
            per_connection = None
            if row.get("rss_after") is not None and row.get("held"):
                per_connection = (row["rss_after"] - row["rss_before"]) / row["held"]
            all_held = "yes" if row.get("held") == row["target"] else "no"
            fresh_after = fmt(row.get("fresh_after"), 2) if row.get("fresh_after") is not None else "failed/>5 s"
            lines.append(
                f"| {name} | {row['served']:,} | {row.get('held', 0):,} | {all_held} | {row['open_seconds']:.1f} | "
                f"{fmt(row['fresh_before'], 2)} | {fresh_after} | {row['rss_before'] / 1024:.1f} | "
                f"{row['rss_after'] / 1024:.1f} | {fmt(per_connection, 1)} |")
        lines.append("")
        lines.append("Fresh request: connect, one GET, full reply, on a new connection (median of 5). "
                     "RSS: VmRSS of the server process and its children.")
    lines += render_goals(rounds)
    if notes:
        lines.append("")
        lines.append("## Notes")
        lines.append("")
        lines += [f"- {note}" for note in notes]
    lines.append("")
    return "\n".join(lines)


# ---------------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--servers", default=",".join(DEFAULT_SERVERS),
                        help=f"comma-separated list out of {','.join(ALL_SERVERS)} (default: all)")
    parser.add_argument("--duration", type=int, default=8, help="seconds per wrk run (default 8)")
    parser.add_argument("--runs", type=int, default=3, help="rounds per load, each running every server once; medians are shown (default 3)")
    parser.add_argument("--quick", action="store_true", help="smoke test: 1 run of 3 s per load")
    parser.add_argument("--veskan", default=os.path.join(ROOT, "build", "tools", "veskan-serve"),
                        help="path to the veskan-serve binary (default: build/tools/veskan-serve)")
    parser.add_argument("--veskan-before", default=None,
                        help="another veskan-serve binary (an earlier build), run as "
                             "veskan-direct-before and veskan-window-before")
    parser.add_argument("--idle-connections", type=int, default=5000,
                        help="idle keep-alive connections to open (default 5000; 0 skips the idle test)")
    parser.add_argument("--hold", type=float, default=2.0,
                        help="seconds to keep the idle connections before checking them (default 2)")
    parser.add_argument("--output", default=os.path.join(HERE, "RESULTS.md"), help="report file")
    args = parser.parse_args()
    if args.quick:
        args.runs, args.duration = 1, 3
    args.servers = [name.strip() for name in args.servers.split(",") if name.strip()]
    unknown = [name for name in args.servers if name not in ALL_SERVERS]
    if unknown:
        parser.error(f"unknown server(s): {', '.join(unknown)}")
    args.veskan = os.path.abspath(args.veskan)
    if args.veskan_before:
        args.veskan_before = os.path.abspath(args.veskan_before)
        args.servers += [name for name in ("veskan-direct-before", "veskan-window-before")
                         if name not in args.servers]

    for tool in ("wrk",):
        if not shutil.which(tool):
            sys.exit(f"{tool} is missing: run scripts/setup.sh")
    facts = machine_facts()  # before narrowing this process's CPU affinity, which nproc reports
    if os.cpu_count() and os.cpu_count() >= 2:
        os.sched_setaffinity(0, {int(CLIENT_CPU)})  # the idle-test client runs beside wrk
    limit = raise_file_limit(args.idle_connections + 1000)
    notes = []
    if limit < args.idle_connections + 100:
        notes.append(f"RLIMIT_NOFILE is {limit}: idle test reduced to {limit - 100} connections")
        args.idle_connections = max(0, limit - 100)

    started = time.monotonic()
    servers = []
    for name in args.servers:
        binary = args.veskan_before if name.endswith("-before") else args.veskan
        if name.startswith("veskan") and not (binary and os.access(binary, os.X_OK)):
            message = f"{name} skipped: {binary} not found (build tools/veskan-serve first)"
            log(message)
            notes.append(message)
            continue
        if name == "nginx" and not (shutil.which("nginx") or os.path.exists("/usr/sbin/nginx")):
            message = "nginx skipped: not installed (run scripts/setup.sh)"
            log(message)
            notes.append(message)
            continue
        servers.append(name)
    failed_builds = build_peers(servers)
    for name in failed_builds:
        notes.append(f"{name} skipped: build failed")
        servers.remove(name)

    per_server = len(LOADS) * args.runs * (args.duration + 0.5) + 1 + (15 if args.idle_connections else 0)
    log(f"servers: {', '.join(servers)}; about {len(servers) * per_server / 60:.1f} min")

    results, rounds = measure_throughput(servers, args, notes)
    idle = {}
    for name in servers if args.idle_connections else []:
        # A fresh process, so "before" is the memory of a server at rest.
        server = Server(name, args)
        try:
            server.start()
            idle[name] = idle_test(server, args.idle_connections, args.hold)
            row = idle[name]
            log(f"{name:14} idle: served {row['served']}, open after {args.hold:g} s {row.get('held')}, "
                f"RSS {row['rss_before'] / 1024:.1f} -> {row.get('rss_after', 0) / 1024:.1f} MiB, fresh "
                f"{fmt(row['fresh_before'], 2)} -> {fmt(row.get('fresh_after'), 2)} ms")
            if row["failed"] or row["unanswered"]:
                notes.append(f"{name}: idle test: {row['failed']} connections failed, {row['unanswered']} "
                             "got no reply before the opener gave up (5 s without progress)")
        except (OSError, RuntimeError) as error:
            idle[name] = {"error": f"failed: {error}"}
            notes.append(f"{name}: idle test failed: {error}")
        finally:
            code = server.stop()
            if code not in (0, None):
                notes.append(f"{name}: exit status {code} after SIGTERM (idle test)")

    report = render(args, results, rounds, idle, notes, time.monotonic() - started, facts)
    print(report)
    with open(args.output, "w") as f:
        f.write(report)
    log(f"written to {os.path.relpath(args.output, os.getcwd())}")


if __name__ == "__main__":
    main()
