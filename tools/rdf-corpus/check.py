#!/usr/bin/env python3
"""Checks the quiz graphs from generate.py and the queries in tests/data/rdf/queries against
raptor and rasqal (Debian's rapper and roqet), before a differential test relies on them.

Usage:
    tools/rdf-corpus/check.py [--big] [--sizes N,N,...] [--seed S] [--workdir DIR]
                              [--queries DIR] [--verbose]

Graphs, for every size (default 5, 50, 1000; --big adds 100000, parsed once):
  * rapper parses the RDF/XML with the base http://www.calvorco.com/2008/veskan/baseUri/ and
    counts exactly the requested number of triples;
  * the graph rapper reads is the one generate.py writes as N-Triples, up to blank node labels
    (and the case of language tags, which raptor lowercases), so relative references, xml:base,
    rdf:ID, xml:lang inheritance and the entities resolve as intended;
  * for the small sizes, generating twice gives the same bytes, and the graph written in another
    order (--shuffle) or without the internal DTD subset (--no-doctype) is the same graph.

Queries, on the 1,000-triple graph (as N-Triples from rapper, since `roqet -D` takes the file's
own location as the base for relative references):
  * roqet runs every query with exit status 0 and nothing on standard error (SELECT and ASK
    with `-r xml`, CONSTRUCT and DESCRIBE in its default format, N-Triples for graphs). roqet
    exits with 2 after a warning even under -q, e.g. for a variable or a `[]` that occurs only
    once and is not selected, so the queries are written to draw none. The exceptions are the
    queries named "-sparql11" (aggregates), where rasqal 0.9.33 always warns that the variables
    inside COUNT() are unused and that its internal $$agg$$ variables are unbound: for them
    exit status 2 is accepted when those are the only messages;
  * a SELECT or CONSTRUCT returns something unless its name ends in "-empty"; an ASK named
    "...-yes" answers true and one named "...-no" false;
  * a query with LIMIT or OFFSET has an ORDER BY;
  * the answers are the same on the shuffled graph: in order where the query has ORDER BY, as a
    multiset otherwise, blank nodes compared by position only.
The last line is "N passed, N failed"; the exit status is 1 if anything failed.
"""

import argparse
import glob
import hashlib
import os
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
GENERATE = os.path.join(HERE, "generate.py")
QUERIES = os.path.join(ROOT, "tests", "data", "rdf", "queries")
BASE_URI = "http://www.calvorco.com/2008/veskan/baseUri/"
QUERY_GRAPH_TRIPLES = 1000
SRX = "{http://www.w3.org/2005/sparql-results#}"
AGGREGATE_WARNINGS = re.compile(
    r"\A(roqet: Warning - .* - Variable \S+ was (bound but is unused|used but is not bound)"
    r" in the query\n?)+\Z")

NT_LINE = re.compile(
    r'^(<[^>]*>|_:\S+)\s+(<[^>]*>)\s+(<[^>]*>|_:\S+|"(?:[^"\\]|\\.)*"(?:@[A-Za-z0-9-]+|\^\^<[^>]*>)?)'
    r"\s*\.\s*$")
ESCAPE = re.compile(r'\\(u[0-9A-Fa-f]{4}|U[0-9A-Fa-f]{8}|[tnr"\\])')


def unescape(text):
    def one(m):
        e = m.group(1)
        if e[0] in "uU":
            return chr(int(e[1:], 16))
        return {"t": "\t", "n": "\n", "r": "\r", '"': '"', "\\": "\\"}[e]

    return ESCAPE.sub(one, text)


def nt_term(text):
    """An N-Triples term as ("iri", v) | ("bnode", label) | ("literal", lexical, lang, dt)."""
    if text.startswith("<"):
        return ("iri", text[1:-1])
    if text.startswith("_:"):
        return ("bnode", text[2:])
    end = text.rindex('"')
    lexical = unescape(text[1:end])
    rest = text[end + 1:]
    if rest.startswith("@"):
        return ("literal", lexical, rest[1:].lower(), None)
    if rest.startswith("^^"):
        return ("literal", lexical, None, rest[3:-1])
    return ("literal", lexical, None, None)


def parse_ntriples(text):
    out = []
    for number, line in enumerate(text.splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        m = NT_LINE.match(line)
        if not m:
            raise ValueError("N-Triples line %d not understood: %r" % (number, line[:200]))
        out.append(tuple(nt_term(g) for g in m.groups()))
    return out


def canonical(triples):
    """The triples with blank nodes named by colour refinement, sorted: equal for isomorphic
    graphs, and in practice only for them (ours have no automorphisms)."""
    bnodes = {t[0][1] for t in triples if t[0][0] == "bnode"}
    bnodes |= {t[2][1] for t in triples if t[2][0] == "bnode"}
    colour = {b: "b" for b in bnodes}

    def show(term):
        return "_:" + colour[term[1]] if term[0] == "bnode" else repr(term)

    distinct = 1
    for _ in range(len(bnodes) + 1):
        edges = {b: [] for b in bnodes}
        for s, p, o in triples:
            if s[0] == "bnode":
                edges[s[1]].append("+" + p[1] + " " + show(o))
            if o[0] == "bnode":
                edges[o[1]].append("-" + p[1] + " " + show(s))
        colour = {b: hashlib.sha1((colour[b] + "|" + "|".join(sorted(e))).encode()).hexdigest()
                  for b, e in edges.items()}
        now = len(set(colour.values()))
        if now == distinct:
            break
        distinct = now
    return sorted((show(s), show(p), show(o)) for s, p, o in triples)


def run(argv, **kwargs):
    return subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **kwargs)


SEED = 1


def generate(*args):
    args = ("--seed", SEED) + args
    result = run([sys.executable, GENERATE] + [str(a) for a in args])
    if result.returncode != 0:
        raise RuntimeError("generate.py %s: %s" % (args, result.stderr.decode()))
    return result.stdout


def rapper(path):
    """rapper's N-Triples for an RDF/XML file, parsed against BASE_URI."""
    result = run(["rapper", "-q", "-i", "rdfxml", "-o", "ntriples", path, BASE_URI])
    return result.returncode, result.stdout.decode("utf-8"), result.stderr.decode("utf-8")


class Checks:
    def __init__(self):
        self.passed = 0
        self.failed = 0

    def expect(self, ok, what, detail=""):
        if ok:
            self.passed += 1
        else:
            self.failed += 1
            print("FAIL %s%s" % (what, (": " + detail) if detail else ""))
        return ok


def check_size(checks, workdir, n, small):
    rdfxml = os.path.join(workdir, "quiz-%d.rdf" % n)
    data = generate("--triples", n)
    with open(rdfxml, "wb") as f:
        f.write(data)
    rc, nt, err = rapper(rdfxml)
    if not checks.expect(rc == 0 and not err, "rapper parses %d triples" % n, err.strip()):
        return
    parsed = parse_ntriples(nt)
    checks.expect(len(parsed) == n, "rapper counts %d triples" % n, "got %d" % len(parsed))
    ours = parse_ntriples(generate("--triples", n, "--format", "ntriples").decode("utf-8"))
    checks.expect(len(ours) == n, "generate.py writes %d N-Triples" % n, "got %d" % len(ours))
    checks.expect(canonical(parsed) == canonical(ours),
                  "rapper's graph is generate.py's N-Triples graph (%d)" % n,
                  first_difference(canonical(parsed), canonical(ours)))
    if small:
        checks.expect(generate("--triples", n) == data, "same bytes twice (%d)" % n)
        for variant in (["--shuffle", 7], ["--no-doctype"]):
            path = os.path.join(workdir, "quiz-%d%s.rdf" % (n, variant[0]))
            with open(path, "wb") as f:
                f.write(generate("--triples", n, *variant))
            rc, nt2, err = rapper(path)
            checks.expect(rc == 0 and canonical(parse_ntriples(nt2)) == canonical(parsed),
                          "RDF/XML written with %s is the same graph (%d)" % (variant[0], n),
                          err.strip())


def first_difference(a, b):
    sa, sb = set(a), set(b)
    only_a = sorted(sa - sb)[:2]
    only_b = sorted(sb - sa)[:2]
    return "only in rapper's %s; only in ours %s" % (only_a, only_b) if only_a or only_b else ""


def query_form(text):
    body = "\n".join(line for line in text.splitlines() if not line.lstrip().startswith("#"))
    body = re.sub(r"(?is)\b(PREFIX\s+\S*:\s*<[^>]*>|BASE\s*<[^>]*>)", " ", body)
    m = re.search(r"(?i)\b(SELECT|ASK|CONSTRUCT|DESCRIBE)\b", body)
    return m.group(1).upper() if m else None


def roqet_command(query, graph, form, quiet=True):
    """roqet's command line; graph results come as N-Triples from its default "simple" format
    (it rejects both `-r xml` and, despite its help text, `-r ntriples` for them)."""
    argv = ["roqet"] + (["-q"] if quiet else ["-W", "100"])
    if form not in ("CONSTRUCT", "DESCRIBE"):
        argv += ["-r", "xml"]
    return argv + ["-F", "ntriples", "-D", graph, query]


def term_of(element):
    """A SPARQL XML results term; blank node labels are dropped: they are only positions."""
    kind = element.tag[len(SRX):]
    if kind == "uri":
        return ("iri", element.text or "")
    if kind == "bnode":
        return ("bnode",)
    return ("literal", element.text or "",
            (element.get("{http://www.w3.org/XML/1998/namespace}lang") or "").lower() or None,
            element.get("datatype"))


def parse_results(xml_bytes):
    root = ET.fromstring(xml_bytes)
    boolean = root.find(SRX + "boolean")
    if boolean is not None:
        return ("boolean", boolean.text.strip())
    rows = []
    for result in root.iter(SRX + "result"):
        row = []
        for binding in result.findall(SRX + "binding"):
            value = list(binding)[0]
            if value.tag != SRX + "unbound":  # roqet writes <unbound/> where others write nothing
                row.append((binding.get("name"), term_of(value)))
        rows.append(tuple(sorted(row)))
    return ("rows", rows)


def answers(stdout, form, ordered):
    if form in ("CONSTRUCT", "DESCRIBE"):
        return ("graph", canonical(parse_ntriples(stdout.decode("utf-8"))))
    kind, value = parse_results(stdout)
    if kind == "rows" and not ordered:
        value = sorted(value, key=repr)
    return (kind, value)


def check_queries(checks, workdir, queries, verbose):
    graphs = []
    for name, extra in (("query-graph", []), ("query-graph-shuffled", ["--shuffle", 11])):
        rdfxml = os.path.join(workdir, name + ".rdf")
        with open(rdfxml, "wb") as f:
            f.write(generate("--triples", QUERY_GRAPH_TRIPLES, *extra))
        rc, nt, err = rapper(rdfxml)
        if not checks.expect(rc == 0 and not err, "rapper parses " + rdfxml, err.strip()):
            return
        path = os.path.join(workdir, name + ".nt")
        with open(path, "w", encoding="utf-8") as f:
            f.write(nt)
        graphs.append(path)

    files = sorted(glob.glob(os.path.join(queries, "*.rq")))
    checks.expect(len(files) >= 55, "at least 55 queries", "found %d" % len(files))
    for query in files:
        name = os.path.basename(query)
        with open(query, encoding="utf-8") as f:
            text = f.read()
        checks.expect(text.startswith("# ") and "\n" in text, name + " starts with a comment")
        form = query_form(text)
        if not checks.expect(form is not None, name + " has a query form"):
            continue
        code = "\n".join(l for l in text.splitlines() if not l.lstrip().startswith("#"))
        ordered = re.search(r"(?i)\bORDER\s+BY\b", code) is not None
        if re.search(r"(?i)\b(LIMIT|OFFSET)\b", code):
            checks.expect(ordered, name + " has ORDER BY for its LIMIT/OFFSET")
        outcomes = []
        for graph in graphs:
            result = run(roqet_command(query, graph, form))
            err = result.stderr.decode("utf-8", "replace").strip()
            if result.returncode != 0 and not err:
                # -q hides warnings but not their exit status 2: ask again to see them.
                loud = run(roqet_command(query, graph, form, quiet=False))
                err = "\n".join(l for l in loud.stderr.decode("utf-8", "replace").splitlines()
                                if "Warning" in l or "Error" in l or "failed" in l)
            status = result.returncode
            if "-sparql11" in name and status == 2 and AGGREGATE_WARNINGS.match(err):
                status, err = 0, ""  # rasqal does not see the variables used in aggregates
            if not checks.expect(status == 0 and not err,
                                 "roqet runs %s on %s" % (name, os.path.basename(graph)),
                                 "exit %d: %s" % (result.returncode, err[:300])):
                break
            outcomes.append(answers(result.stdout, form, ordered))
        if len(outcomes) != 2:
            continue
        kind, value = outcomes[0]
        if verbose:
            print("%-45s %-9s %s" % (name, form, value if kind == "boolean" else len(value)))
        stem = name[:-3]
        if kind == "boolean":
            if stem.endswith("-yes") or stem.endswith("-no"):
                want = "true" if stem.endswith("-yes") else "false"
                checks.expect(value == want, name + " answers " + want, "got " + value)
        elif stem.endswith("-empty"):
            checks.expect(len(value) == 0, name + " returns nothing", "got %d" % len(value))
        elif form != "DESCRIBE":
            checks.expect(len(value) > 0, name + " returns something")
        checks.expect(outcomes[0] == outcomes[1], name + " is the same on the shuffled graph")


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--big", action="store_true", help="also check 100,000 triples once")
    parser.add_argument("--sizes", default="5,50,1000", help="sizes to check (default 5,50,1000)")
    parser.add_argument("--workdir", help="keep the generated files here")
    parser.add_argument("--seed", type=int, default=1, help="generator seed (default 1)")
    parser.add_argument("--queries", default=QUERIES, help="query folder (default: %(default)s)")
    parser.add_argument("--verbose", action="store_true",
                        help="print each query's form and number of results")
    args = parser.parse_args(argv)
    global SEED
    SEED = args.seed
    workdir = args.workdir or tempfile.mkdtemp(prefix="rdf-corpus-")
    os.makedirs(workdir, exist_ok=True)
    checks = Checks()
    for n in [int(s) for s in args.sizes.split(",") if s]:
        check_size(checks, workdir, n, small=n <= 1000)
    if args.big:
        check_size(checks, workdir, 100000, small=False)
    check_queries(checks, workdir, args.queries, args.verbose)
    if not args.workdir:
        for path in glob.glob(os.path.join(workdir, "*")):
            os.remove(path)
        os.rmdir(workdir)
    print("%d passed, %d failed" % (checks.passed, checks.failed))
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
