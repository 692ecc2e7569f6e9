#!/usr/bin/env python3
"""RDF graphs and SPARQL: the library beside raw librdf calls and beside Debian's roqet and rapper.

Builds veskan_rdf_bench into build-bench-rdf/ at the repository root, writes a 100,000-triple quiz
graph with tools/rdf-corpus/generate.py (and rapper's N-Triples of it), and in one run:
- bench/ratios.py over veskan_rdf_bench: parsing the graph, the five queries of
  bench/rdf/queries with their rows, and writing the graph in the three formats, each through the
  library and through raw librdf calls (fastest of nine interleaved repetitions);
- roqet on the same graph and queries, and rapper parsing and writing the same graph: the best of
  three runs of each command (one when it takes over ten seconds), reading the graph included
  (roqet cannot do otherwise).
Prints the tables and appends them to bench/rdf/RESULTS.md. Standard library only.
"""

import argparse
import datetime
import os
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from benchlib import append_results, log  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(ROOT, "build-bench-rdf")
BENCH = os.path.join(BUILD, "bench", "veskan_rdf_bench")
QUERIES = os.path.join(HERE, "queries")
RESULTS = os.path.join(HERE, "RESULTS.md")
BASE = "http://www.calvorco.com/2008/veskan/baseUri/"


def build():
    if not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release",
                        "-DVESKAN_BUILD_TESTS=OFF"], stdout=sys.stderr, check=True)
    subprocess.run(["cmake", "--build", BUILD, "-j", "2", "--target", "veskan_rdf_bench"],
                   stdout=sys.stderr, check=True)


def best_of(command, runs=3, **kwargs):
    """The shortest wall time of `runs` runs of `command`, in milliseconds; a run that takes more
    than ten seconds is not repeated."""
    times = []
    for _ in range(runs):
        start = time.monotonic()
        subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True,
                       **kwargs)
        times.append((time.monotonic() - start) * 1000)
        if times[-1] > 10000:
            break
    return min(times)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--triples", type=int, default=100000)
    parser.add_argument("--no-results", action="store_true", help="leave RESULTS.md alone")
    args = parser.parse_args()
    build()
    queries = sorted(f for f in os.listdir(QUERIES) if f.endswith(".rq"))
    with tempfile.TemporaryDirectory(prefix="bench-rdf-") as work:
        graph = os.path.join(work, "quiz.rdf")
        subprocess.run([sys.executable, os.path.join(ROOT, "tools", "rdf-corpus", "generate.py"),
                        "--triples", str(args.triples), "--output", graph], check=True)
        graph_nt = os.path.join(work, "quiz.nt")
        with open(graph_nt, "wb") as f:
            subprocess.run(["rapper", "-q", "-i", "rdfxml", "-o", "ntriples", graph, BASE],
                           stdout=f, check=True)

        log("veskan_rdf_bench through bench/ratios.py ...")
        env = dict(os.environ, VESKAN_RDF_BENCH_GRAPH=graph, VESKAN_RDF_BENCH_QUERIES=QUERIES)
        ratios = subprocess.run([sys.executable, os.path.join(ROOT, "bench", "ratios.py"), BENCH,
                                 "--benchmark_min_time=0.3"], env=env, capture_output=True,
                                text=True, check=True).stdout

        log("roqet and rapper ...")
        tools = []
        for name in queries:
            tools.append(("roqet " + name, best_of(
                ["roqet", "-q", "-r", "xml", "-F", "ntriples", "-D", graph_nt,
                 os.path.join(QUERIES, name)])))
        tools.append(("roqet, reading the graph alone (an ASK on nothing)", best_of(
            ["roqet", "-q", "-r", "xml", "-F", "ntriples", "-D", graph_nt, "-e",
             "ASK { <urn:x> <urn:y> <urn:z> }"])))
        for output in ("ntriples", "rdfxml", "rdfxml-abbrev"):
            tools.append(("rapper RDF/XML to " + output, best_of(
                ["rapper", "-q", "-i", "rdfxml", "-o", output, graph, BASE])))

    lines = [f"## {datetime.date.today().isoformat()}: {args.triples:,}-triple quiz graph", "",
             "Library beside raw librdf (fastest of nine interleaved repetitions; cases: "
             "Parse/0, Query/N for bench/rdf/queries in name order from 0, Serialize/F for "
             "rdfxml-abbrev, rdfxml, ntriples):", "", "```", ratios.rstrip(), "```", "",
             "Debian's tools on the same files (best of three, reading the graph included):", "",
             "| Command | ms |", "|---|---|"]
    lines += [f"| {label} | {ms:,.0f} |" for label, ms in tools]
    print("\n".join(lines))
    if not args.no_results:
        append_results(RESULTS, "RDF benchmark results", "bench/rdf/run.py", lines)

if __name__ == "__main__":
    main()
