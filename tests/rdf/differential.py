#!/usr/bin/env python3
"""The library against Debian's raptor and rasqal tools, on generated quiz graphs.

  differential.py VESKAN_RDF [--sizes N,N,...]

VESKAN_RDF is the built tools/veskan-rdf, which reads and writes RDF and runs SPARQL through the
library. For every size, a graph from tools/rdf-corpus/generate.py:
  * the statements the library reads are those `rapper` reads (blank nodes compared by their
    place in the graph);
  * what the library writes in each of its formats, read back by `rapper`, is the same graph.
On the 1,000-triple graph, every query of tests/data/rdf/queries gives the library's rows the
answers `roqet` gives: the same rows (in order where the query has ORDER BY), each value of the
same kind with the same text (the library's rows keep a literal's text alone), the same truth
value for ASK and the same graph for CONSTRUCT and DESCRIBE.

Prints one line per failure and a summary; exit status 1 when anything failed.
"""

import glob
import json
import os
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tools", "rdf-corpus"))
import check  # noqa: E402  the corpus checker's readers of N-Triples and SPARQL results XML

FORMATS = ("ntriples", "rdfxml", "rdfxml-abbrev")


def veskan(tool, *args):
    result = subprocess.run([tool] + list(args), capture_output=True)
    if result.returncode != 0:
        raise RuntimeError("veskan-rdf %s: %s" % (" ".join(args), result.stderr.decode().strip()))
    return result.stdout.decode("utf-8")


def rapper_graph(path, syntax="rdfxml"):
    result = subprocess.run(["rapper", "-q", "-i", syntax, "-o", "ntriples", path, check.BASE_URI],
                            capture_output=True)
    if result.returncode != 0:
        raise RuntimeError("rapper %s: %s" % (path, result.stderr.decode().strip()[:300]))
    return check.canonical(check.parse_ntriples(result.stdout.decode("utf-8")))


def text_only(term):
    """A results term as the library's rows keep it: a literal's text without language or type."""
    return ("literal", term[1]) if term[0] == "literal" else term


def library_answers(tool, graph, query, form, ordered):
    out = veskan(tool, "query", graph, query)
    if form in ("CONSTRUCT", "DESCRIBE"):
        return ("graph", check.canonical(check.parse_ntriples(out)))
    if out.strip() in ("true", "false"):
        return ("boolean", out.strip())
    rows = []
    for line in out.splitlines():
        row = []
        for name, value in json.loads(line).items():
            kind = {"uri": "iri", "bnode": "bnode", "literal": "literal"}[value["type"]]
            row.append((name, (kind,) if kind == "bnode" else (kind, value["value"])))
        rows.append(tuple(sorted(row)))
    return ("rows", rows if ordered else sorted(rows, key=repr))


def roqet_answers(graph_nt, query, form, ordered):
    result = subprocess.run(check.roqet_command(query, graph_nt, form), capture_output=True)
    if result.returncode not in (0, 2):  # 2: a warning, as rasqal gives for every aggregate
        raise RuntimeError("roqet %s: exit %d" % (query, result.returncode))
    kind, value = check.answers(result.stdout, form, ordered)
    if kind == "rows":
        value = [tuple((name, text_only(term)) for name, term in row) for row in value]
        if not ordered:
            value = sorted(value, key=repr)
    return (kind, value)


def main(argv):
    if not argv:
        sys.exit(__doc__)
    tool = argv[0]
    sizes = [5, 50, 1000, 20000]
    if len(argv) == 3 and argv[1] == "--sizes":
        sizes = [int(n) for n in argv[2].split(",")]
    failures, passed = [], 0

    def expect(ok, what):
        nonlocal passed
        if ok:
            passed += 1
        else:
            failures.append(what)
            print("FAILED: " + what, flush=True)

    with tempfile.TemporaryDirectory(prefix="veskan-rdf-") as work:
        for size in sizes:
            source = os.path.join(work, "quiz-%d.rdf" % size)
            with open(source, "wb") as f:
                f.write(check.generate("--triples", size))
            expected = rapper_graph(source)
            for name in FORMATS:
                written = os.path.join(work, "quiz-%d.%s" % (size, name))
                with open(written, "w", encoding="utf-8") as f:
                    f.write(veskan(tool, "convert", source, name))
                back = rapper_graph(written, "ntriples" if name == "ntriples" else "rdfxml")
                expect(back == expected, "%d triples written as %s read back the same" % (size, name))

        graph = os.path.join(work, "quiz-1000.rdf")
        # roqet reads rapper's N-Triples: `roqet -D` would resolve relative references against
        # the file's own location rather than the base.
        graph_nt = os.path.join(work, "quiz-1000.nt")
        with open(graph_nt, "wb") as f:
            f.write(subprocess.run(["rapper", "-q", "-i", "rdfxml", "-o", "ntriples", graph,
                                    check.BASE_URI], capture_output=True, check=True).stdout)
        queries = sorted(glob.glob(os.path.join(ROOT, "tests", "data", "rdf", "queries", "*.rq")))
        expect(len(queries) >= 50, "at least 50 queries")
        for query in queries:
            with open(query, encoding="utf-8") as f:
                text = f.read()
            form = check.query_form(text)
            code = "\n".join(l for l in text.splitlines() if not l.lstrip().startswith("#"))
            ordered = re.search(r"(?i)\bORDER\s+BY\b", code) is not None
            mine = library_answers(tool, graph, query, form, ordered)
            theirs = roqet_answers(graph_nt, query, form, ordered)
            expect(mine == theirs, "%s: the library's %s answers are roqet's" %
                   (os.path.basename(query), form))

    print("%d passed, %d failed" % (passed, len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
