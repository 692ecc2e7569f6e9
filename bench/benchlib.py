"""Helpers the benchmark scripts (bench/http, bench/ws, bench/soak, bench/classroom) share. Standard library only."""

import os
import resource
import shutil
import sys


def resident_kib(pid):
    """VmRSS of process `pid` in KiB, or None when it cannot be read (the process is gone)."""
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def cpu_seconds(pid):
    """User plus system CPU time of a process (all its threads), or None when it is gone."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except (OSError, IndexError, ValueError):
        return None


def log(message):
    print(message, file=sys.stderr, flush=True)


def start_or_note(server, name, notes):
    """Starts `server` (an object with start() and stop()); when it cannot, says why in `notes`
    and on stderr, stops what started, and returns False."""
    try:
        server.start()
        return True
    except (OSError, RuntimeError) as error:
        notes.append(f"{name}: could not start: {error}")
        log(notes[-1])
        server.stop()
        return False


def pinned(cpu, command):
    """`command` run on CPU `cpu` when taskset is there and the machine has two CPUs or more."""
    if shutil.which("taskset") and os.cpu_count() and os.cpu_count() >= 2:
        return ["taskset", "-c", cpu] + command
    return command


def fmt(value, digits=0):
    if value is None:
        return "—"
    return f"{value:,.{digits}f}"


def raise_file_limit(needed):
    """Raises the soft limit on open files as far as allowed; returns the limit then."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    target = hard if hard != resource.RLIM_INFINITY else max(soft, needed)
    if soft < target:
        resource.setrlimit(resource.RLIMIT_NOFILE, (target, hard))
    return resource.getrlimit(resource.RLIMIT_NOFILE)[0]


def append_results(path, title, script, lines):
    """Appends a run's section (`lines`) to a results file, which starts with `title` and the
    script that writes it."""
    fresh = not os.path.exists(path)
    with open(path, "a") as f:
        if fresh:
            f.write(f"# {title}\n\nWritten by {script}, newest last.\n\n")
        f.write("\n".join(lines).rstrip("\n") + "\n\n")
