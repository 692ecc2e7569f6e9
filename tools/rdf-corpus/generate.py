#!/usr/bin/env python3
"""Writes a quiz graph of a chosen size, for differential tests of the RDF layer against raptor
and rasqal (Debian's rapper and roqet).

Usage:
    tools/rdf-corpus/generate.py --triples N [--seed S] [--output FILE]
                                 [--format rdfxml|ntriples] [--shuffle K] [--no-doctype]
    tools/rdf-corpus/generate.py --hostile deep|bigliteral [--depth D] [--literal-mib M]
                                 [--output FILE]

The graph has exactly N triples (N >= 1) and is the same, byte for byte, for the same arguments:
the pseudo-random choices come from a small generator of our own rather than the `random`
module, whose algorithms are free to change between Python versions.

Relative references in the RDF/XML are meant to be resolved against BASE_URI, so parse with
    rapper -q -i rdfxml -o ntriples FILE http://www.calvorco.com/2008/veskan/baseUri/
The N-Triples form writes the same graph with every IRI already absolute (blank node labels
differ from raptor's, language tags keep the case they are written with, raptor lowercases
them). Tools that take the data's own location as its base, such as `roqet -D`, should read
the N-Triples form.

Shape of the graph (namespace veskan = http://www.calvorco.com/2008/veskan/):
  * veskan:Quiz resources <.../veskan/quiz/K>, with dc:title in en, de and fr and
    veskan:question links to their questions;
  * veskan:Question resources <.../quiz/K/question/J>, with veskan:text (language-tagged),
    veskan:points and veskan:position (xsd:integer), veskan:choice links and veskan:answer links
    to the answers given to them;
  * veskan:Choice nodes, blank or <.../question/J/choice/I>, with veskan:text (plain or
    language-tagged) and veskan:correct (xsd:boolean, exactly one true per question);
  * veskan:Answer nodes, blank or <.../veskan/answer/M>, with veskan:question, veskan:choice,
    veskan:participant (a plain literal, some names not ASCII) and veskan:answeredAt
    (xsd:dateTime, unique per answer).
Quiz 0 also carries the awkward cases a parser has to get right: a relative rdf:about with a dot
segment, a relative xml:base, rdf:ID, a title that needs XML escaping, text outside the BMP, an
empty literal, a literal of several KB with line breaks and tabs, an "en-GB" tag, and literals
inherited from xml:lang or reset by xml:lang="". When N is too small for the whole structure the
graph is cut short in a fixed order; the last few triples are rdfs:comment notes on the last quiz
so that the count comes out exact.

The RDF/XML varies its syntax on purpose (typed node elements, rdf:type properties, nested and
top-level descriptions, rdf:nodeID, rdf:parseType="Resource", property attributes, entity
references for the XSD namespace from the internal DTD subset) so that the parser under test
meets the forms real files use. --shuffle K writes the same graph with top-level descriptions and
their properties in another order; query results that are fully determined must not change.

--hostile writes a document for robustness tests instead of a quiz: `deep` nests property
elements D levels deep (default 100,000), `bigliteral` holds one literal of M MiB (default 100).
"""

import argparse
import datetime
import sys

VESKAN = "http://www.calvorco.com/2008/veskan/"
RDF = "http://www.w3.org/1999/02/22-rdf-syntax-ns#"
RDFS = "http://www.w3.org/2000/01/rdf-schema#"
XSD = "http://www.w3.org/2001/XMLSchema#"
DC = "http://purl.org/dc/elements/1.1/"
BASE_URI = VESKAN + "baseUri/"
START = datetime.datetime(2008, 9, 1, 8, 0, 0)

PREFIXES = [("rdf", RDF), ("rdfs", RDFS), ("xsd", XSD), ("dc", DC), ("veskan", VESKAN)]

TOPICS = [
    ("Arithmetic", "Arithmetik", "Arithmétique"),
    ("Fractions", "Brüche", "Fractions"),
    ("Geometry", "Geometrie", "Géométrie"),
    ("Mental maths", "Kopfrechnen", "Calcul mental"),
    ("Times tables", "Einmaleins", "Tables de multiplication"),
    ("Estimation", "Schätzen", "Estimation"),
]

# Plain literals without a language tag; several need more than one byte in UTF-8, one more than
# two, and two need escaping in an XML attribute.
PARTICIPANTS = [
    "Anna", "Zoë", "Łukasz", "山田", "Björn", "Chloé", "O'Brien", "Søren", "Ana María",
    "Jean-Luc", "Ömer", "Ntombi", "محمد", "Dvořák", "Ewa \"Ewka\" Nowak", "Ivan",
]

OPERATIONS = [("+", "plus", "plus"), ("-", "minus", "moins"), ("×", "mal", "fois")]

LONG_PARAGRAPH = (
    "Read the whole statement before choosing.\tSome questions look alike, but the numbers "
    "differ & the order of operations matters: 3 + 4 × 5 is not (3 + 4) × 5.\n"
)


class Rng:
    """xorshift64*: small, fast enough, and fixed forever, unlike the random module."""

    def __init__(self, seed):
        self.state = (seed * 0x9E3779B97F4A7C15 + 0x2545F4914F6CDD1D) & 0xFFFFFFFFFFFFFFFF
        if self.state == 0:
            self.state = 1
        for _ in range(4):
            self.next()

    def next(self):
        x = self.state
        x ^= x >> 12
        x ^= (x << 25) & 0xFFFFFFFFFFFFFFFF
        x ^= x >> 27
        self.state = x
        return (x * 0x2545F4914F6CDD1D) & 0xFFFFFFFFFFFFFFFF

    def below(self, n):
        return (self.next() >> 11) % n

    def between(self, lo, hi):
        return lo + self.below(hi - lo + 1)

    def chance(self, percent):
        return self.below(100) < percent

    def pick(self, items):
        return items[self.below(len(items))]

    def shuffle(self, items):
        for i in range(len(items) - 1, 0, -1):
            j = self.below(i + 1)
            items[i], items[j] = items[j], items[i]


# Terms: ("iri", absolute) | ("bnode", label) | ("literal", lexical, lang or None, datatype or None)
def iri(value):
    return ("iri", value)


def literal(lexical, lang=None, datatype=None):
    return ("literal", lexical, lang, datatype)


def integer(value):
    return literal(str(value), None, XSD + "integer")


def boolean(value):
    return literal("true" if value else "false", None, XSD + "boolean")


class Node:
    """A subject with its properties, and how the RDF/XML writer is to present it."""

    def __init__(self, term, rdf_type):
        self.term = term
        self.rdf_type = rdf_type
        self.props = []  # (predicate IRI, object term or Node)
        self.about = None  # relative reference written instead of the absolute IRI
        self.rdf_id = None  # written as rdf:ID (the IRI is then BASE_URI + "#" + rdf_id)
        self.xml_base = None
        self.xml_lang = None  # inherited by the plain literals that have this tag
        self.typed_element = True  # <veskan:Quiz ...> rather than rdf:Description + rdf:type
        self.attributes = False  # plain literals without a tag as property attributes
        self.nested = False  # written inside the property element that refers to it
        self.parse_type_resource = False  # nested as rdf:parseType="Resource" (blank only)
        self.show_label = False  # blank node written with rdf:nodeID

    def add(self, predicate, obj):
        self.props.append((predicate, obj))


class Budget:
    def __init__(self, total):
        self.total = total
        self.used = 0

    def left(self):
        return self.total - self.used

    def take(self, count):
        if self.used + count > self.total:
            return False
        self.used += count
        return True


class QuizGraph:
    def __init__(self, triples, seed):
        self.rng = Rng(seed)
        self.budget = Budget(triples)
        self.top = []  # top-level nodes in document order
        self.bnodes = 0
        self.answers = 0
        self.minute = 0

    def bnode(self, prefix):
        self.bnodes += 1
        return ("bnode", "%s%d" % (prefix, self.bnodes))

    def build(self):
        k = 0
        while self.budget.left() > 0:
            if not self.quiz(k):
                break
            k += 1
        self.fill()
        return self

    # Quiz: 4 triples (type, three titles) + optional extras + questions.
    def quiz(self, k):
        rng = self.rng
        topic = TOPICS[k % len(TOPICS)]
        node = Node(iri("%squiz/%d" % (VESKAN, k)), VESKAN + "Quiz")
        node.typed_element = rng.chance(75)
        if k == 0:
            node.about = "../quiz/0"
            titles = [
                'Numbers & "operators" <warm-up>',
                "Zahlen & Operatoren: „Aufwärmen“",
                "Nombres et opérateurs 🎓",
            ]
        else:
            titles = ["%s %d" % (topic[0], k), "%s %d" % (topic[1], k), "%s %d" % (topic[2], k)]
        header = [(RDF + "type", iri(VESKAN + "Quiz"))]
        langs = ["en", "de", "fr"]
        if rng.chance(30):
            node.xml_lang = rng.pick(langs)
        for title, lang in zip(titles, langs):
            header.append((DC + "title", literal(title, lang)))
        if not self.budget.take(len(header)):
            # Too small for a quiz's header: keep what fits, in order (the type comes first).
            left = self.budget.left()
            self.budget.take(left)
            if left:
                for p, o in header[1:left]:
                    node.add(p, o)
                self.top.append(node)
            return False
        for p, o in header[1:]:
            node.add(p, o)
        self.top.append(node)
        self.last_quiz = node
        if k == 0:
            if self.budget.take(1):
                node.add(DC + "description", literal(LONG_PARAGRAPH * 24, "en"))
            if self.budget.take(1):
                node.add(DC + "creator", literal("Veskan & Co. <quiz@calvorco.com>"))
        elif rng.chance(50) and self.budget.take(1):
            node.add(DC + "creator", literal(rng.pick(PARTICIPANTS)))
        questions = rng.between(4, 9)
        for j in range(questions):
            if not self.question(node, k, j):
                return False
        return True

    # Question: 6 triples (link, type, two texts, points, position) + optional fr text
    # + 4 per choice + 6 per answer.
    def question(self, quiz, k, j):
        rng = self.rng
        qiri = "%squiz/%d/question/%d" % (VESKAN, k, j)
        a, b = rng.between(2, 12), rng.between(2, 12)
        op = OPERATIONS[rng.below(len(OPERATIONS))]
        value = {"+": a + b, "-": a - b, "×": a * b}[op[0]]
        choices = rng.between(2, 5)
        french = rng.chance(40)
        cost = 6 + (1 if french else 0) + 4 * choices
        if not self.budget.take(cost):
            return False
        node = Node(iri(qiri), VESKAN + "Question")
        quiz.add(VESKAN + "question", node)
        node.typed_element = rng.chance(60)
        node.nested = rng.chance(30)
        if k == 0 and j == 0:
            node.xml_base = "../quiz/0/"
            node.about = "question/0"
            node.nested = False
        elif k == 0 and j == 1:
            node.nested = False
        text_en = "What is %d %s %d?" % (a, op[0], b)
        if k == 0 and j == 1:
            text_en = "  What is %d %s %d, if you count carefully?  " % (a, op[0], b)
        if rng.chance(30):
            node.xml_lang = "de"
        node.add(VESKAN + "text", literal(text_en, "en-GB" if (k == 0 and j == 2) else "en"))
        node.add(VESKAN + "text", literal("Was ist %d %s %d?" % (a, op[1], b), "de"))
        if french:
            node.add(VESKAN + "text", literal("Combien font %d %s %d ?" % (a, op[2], b), "fr"))
        node.add(VESKAN + "points", integer(rng.between(1, 10) if j else 10))
        node.add(VESKAN + "position", integer(j + 1))
        if not node.nested:
            self.top.append(node)

        values = [value]
        while len(values) < choices:
            candidate = value + rng.between(-6, 6)
            if candidate not in values:
                values.append(candidate)
        rng.shuffle(values)
        choice_nodes = []
        for i, v in enumerate(values):
            if rng.chance(35):
                cterm = iri("%s/choice/%d" % (qiri, i))
            else:
                cterm = self.bnode("c")
            c = Node(cterm, VESKAN + "Choice")
            c.typed_element = rng.chance(50)
            if k == 0 and j == 0 and i == 0:
                text = literal("")  # the empty literal
            elif k == 0 and j == 0 and i == 1:
                c.rdf_id = "first-choice"
                c.term = iri(BASE_URI + "#first-choice")
                text = literal("%d" % v)
            elif rng.chance(15):
                text = literal("%d (I think)" % v, "en")
            else:
                text = literal("%d" % v)
            c.add(VESKAN + "text", text)
            c.add(VESKAN + "correct", boolean(v == value))
            style = rng.below(4)
            if c.term[0] == "bnode":
                if style == 0:
                    c.nested = True
                    c.parse_type_resource = True
                elif style == 1:
                    c.nested = True
                else:
                    c.show_label = True
            else:
                c.nested = style < 2 and c.rdf_id is None
            c.attributes = rng.chance(30)
            node.add(VESKAN + "choice", c)
            if not c.nested:
                self.top.append(c)
            choice_nodes.append(c)

        if k == 0:
            answers = {0: 3, 3: 0}.get(j, rng.between(1, 10))  # one question nobody answered
        else:
            answers = rng.between(0, 10)
        for _ in range(answers):
            if not self.answer(node, choice_nodes):
                break
        return True

    # Answer: 6 triples (the question's link, type, question, choice, participant, time).
    def answer(self, question, choices):
        rng = self.rng
        if not self.budget.take(6):
            return False
        self.answers += 1
        m = self.answers
        if rng.chance(25):
            term = iri("%sanswer/%d" % (VESKAN, m))
        else:
            term = self.bnode("a")
        node = Node(term, VESKAN + "Answer")
        node.typed_element = rng.chance(70)
        node.attributes = rng.chance(40)
        node.nested = rng.chance(30)
        node.show_label = not node.nested
        node.parse_type_resource = node.nested and term[0] == "bnode" and rng.chance(50)
        # Unique, increasing times: ordering by time is a total order.
        self.minute += rng.between(1, 90)
        when = START + datetime.timedelta(minutes=self.minute, seconds=m % 60)
        stamp = when.strftime("%Y-%m-%dT%H:%M:%SZ")
        correct = [c for c in choices if c.props[1][1][1] == "true"]
        chosen = correct[0] if rng.chance(50) else rng.pick(choices)
        if chosen.term[0] == "bnode":
            # Referred to from elsewhere now, so it needs its label in the document.
            chosen.show_label = True
            chosen.parse_type_resource = False
        node.add(VESKAN + "question", question.term)
        node.add(VESKAN + "choice", chosen.term)
        node.add(VESKAN + "participant", literal(rng.pick(PARTICIPANTS)))
        node.add(VESKAN + "answeredAt", literal(stamp, None, XSD + "dateTime"))
        question.add(VESKAN + "answer", node)
        if not node.nested:
            self.top.append(node)
        return True

    def fill(self):
        """Spends what is left of the budget on notes, so the count is exact."""
        left = self.budget.left()
        if left <= 0 or not hasattr(self, "last_quiz"):
            return
        self.budget.take(left)
        for n in range(left):
            self.last_quiz.add(RDFS + "comment", literal("Note %d" % (n + 1)))


# ----------------------------------------------------------------------------------------------
# N-Triples


def nt_escape(text):
    out = []
    for ch in text:
        cp = ord(ch)
        if ch == "\\":
            out.append("\\\\")
        elif ch == '"':
            out.append('\\"')
        elif ch == "\n":
            out.append("\\n")
        elif ch == "\r":
            out.append("\\r")
        elif ch == "\t":
            out.append("\\t")
        elif 0x20 <= cp < 0x7F:
            out.append(ch)
        elif cp <= 0xFFFF:
            out.append("\\u%04X" % cp)
        else:
            out.append("\\U%08X" % cp)
    return "".join(out)


def nt_term(term):
    if isinstance(term, Node):
        term = term.term
    if term[0] == "iri":
        return "<%s>" % term[1]
    if term[0] == "bnode":
        return "_:%s" % term[1]
    s = '"%s"' % nt_escape(term[1])
    if term[2]:
        s += "@" + term[2]
    elif term[3]:
        s += "^^<%s>" % term[3]
    return s


def triples(graph):
    """All triples, depth first from the top-level nodes in document order."""
    out = []

    def walk(node):
        subject = nt_term(node.term)
        if node.rdf_type:
            out.append((subject, "<%s>" % (RDF + "type"), "<%s>" % node.rdf_type))
        for p, o in node.props:
            out.append((subject, "<%s>" % p, nt_term(o)))
            if isinstance(o, Node) and o.nested:
                walk(o)

    for node in graph.top:
        walk(node)
    return out


def write_ntriples(graph, out, shuffle_seed):
    lines = ["%s %s %s .\n" % t for t in triples(graph)]
    if shuffle_seed is not None:
        Rng(shuffle_seed).shuffle(lines)
    out.write("".join(lines))


# ----------------------------------------------------------------------------------------------
# RDF/XML


def xml_text(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def xml_attr(text):
    return (xml_text(text).replace('"', "&quot;").replace("'", "&apos;")
            .replace("\n", "&#xA;").replace("\t", "&#x9;").replace("\r", "&#xD;"))


def qname(uri):
    for prefix, ns in PREFIXES:
        if uri.startswith(ns) and uri[len(ns):].replace("-", "").isalnum():
            return "%s:%s" % (prefix, uri[len(ns):])
    raise ValueError("no prefix for " + uri)


class XmlWriter:
    def __init__(self, out, doctype, shuffle_seed):
        self.out = out
        self.doctype = doctype
        self.shuffle = Rng(shuffle_seed) if shuffle_seed is not None else None

    def datatype_ref(self, uri):
        if self.doctype and uri.startswith(XSD):
            return "&xsd;" + uri[len(XSD):]
        return xml_attr(uri)

    def subject_attrs(self, node):
        if node.rdf_id is not None:
            return ' rdf:ID="%s"' % xml_attr(node.rdf_id)
        if node.term[0] == "iri":
            return ' rdf:about="%s"' % xml_attr(node.about or node.term[1])
        if node.show_label:
            return ' rdf:nodeID="%s"' % node.term[1]
        return ""

    def write_node(self, node, indent, lang_in_scope):
        element = qname(node.rdf_type) if node.typed_element else "rdf:Description"
        attrs = self.subject_attrs(node)
        lang = lang_in_scope
        if node.xml_base:
            attrs += ' xml:base="%s"' % xml_attr(node.xml_base)
        if node.xml_lang:
            attrs += ' xml:lang="%s"' % node.xml_lang
            lang = node.xml_lang
        props = list(node.props)
        if element == "rdf:Description" and node.rdf_type:
            props.insert(0, (RDF + "type", iri(node.rdf_type)))
        if node.attributes and not lang:
            # Property attributes take the xml:lang in scope, but raptor 2.0.15 drops it; only
            # untagged literals with no xml:lang in scope go there, so the graph does not hang
            # on that. Each predicate at most once.
            kept, seen = [], set()
            for p, o in props:
                if (not isinstance(o, Node) and o[0] == "literal" and o[3] is None
                        and o[2] is None and p not in seen and p != RDF + "type"):
                    attrs += ' %s="%s"' % (qname(p), xml_attr(o[1]))
                    seen.add(p)
                else:
                    kept.append((p, o))
            props = kept
        if self.shuffle is not None:
            self.shuffle.shuffle(props)
        pad = " " * indent
        if not props:
            self.out.write("%s<%s%s/>\n" % (pad, element, attrs))
            return
        self.out.write("%s<%s%s>\n" % (pad, element, attrs))
        for p, o in props:
            self.write_property(p, o, indent + 2, lang)
        self.out.write("%s</%s>\n" % (pad, element))

    def write_property(self, p, o, indent, lang):
        pad = " " * indent
        name = qname(p)
        if isinstance(o, Node):
            if not o.nested:
                self.write_property(p, o.term, indent, lang)
                return
            if o.parse_type_resource:
                inner = list(o.props)
                if o.rdf_type:
                    inner.insert(0, (RDF + "type", iri(o.rdf_type)))
                if self.shuffle is not None:
                    self.shuffle.shuffle(inner)
                self.out.write('%s<%s rdf:parseType="Resource">\n' % (pad, name))
                for ip, io in inner:
                    self.write_property(ip, io, indent + 2, lang)
                self.out.write("%s</%s>\n" % (pad, name))
                return
            self.out.write("%s<%s>\n" % (pad, name))
            self.write_node(o, indent + 2, lang)
            self.out.write("%s</%s>\n" % (pad, name))
            return
        kind = o[0]
        if kind == "iri":
            self.out.write('%s<%s rdf:resource="%s"/>\n' % (pad, name, xml_attr(o[1])))
        elif kind == "bnode":
            self.out.write('%s<%s rdf:nodeID="%s"/>\n' % (pad, name, o[1]))
        else:
            lexical, tag, datatype = o[1], o[2], o[3]
            attrs = ""
            if datatype:
                attrs = ' rdf:datatype="%s"' % self.datatype_ref(datatype)
            elif (tag or "") != (lang or ""):
                attrs = ' xml:lang="%s"' % (tag or "")
            if lexical == "" and not datatype:
                self.out.write("%s<%s%s/>\n" % (pad, name, attrs))
            else:
                self.out.write("%s<%s%s>%s</%s>\n" % (pad, name, attrs, xml_text(lexical), name))

    def write(self, graph):
        out = self.out
        out.write('<?xml version="1.0" encoding="UTF-8"?>\n')
        if self.doctype:
            out.write('<!DOCTYPE rdf:RDF [\n  <!ENTITY xsd "%s">\n]>\n' % XSD)
        out.write("<rdf:RDF")
        for prefix, ns in PREFIXES:
            out.write('\n    xmlns:%s="%s"' % (prefix, ns))
        out.write(">\n")
        nodes = list(graph.top)
        if self.shuffle is not None:
            self.shuffle.shuffle(nodes)
        for node in nodes:
            self.write_node(node, 2, None)
        out.write("</rdf:RDF>\n")


# ----------------------------------------------------------------------------------------------
# Hostile documents


def write_deep(out, depth):
    """One triple per level: rdf:parseType="Resource" makes each property element a node too."""
    out.write('<?xml version="1.0" encoding="UTF-8"?>\n')
    out.write('<rdf:RDF xmlns:rdf="%s" xmlns:veskan="%s">\n' % (RDF, VESKAN))
    out.write('<rdf:Description rdf:about="%squiz/deep">' % VESKAN)
    chunk = 1000
    opened = 0
    while opened < depth:
        n = min(chunk, depth - opened)
        out.write('<veskan:next rdf:parseType="Resource">' * n)
        opened += n
    out.write("<veskan:text>bottom</veskan:text>")
    closed = 0
    while closed < depth:
        n = min(chunk, depth - closed)
        out.write("</veskan:next>" * n)
        closed += n
    out.write("</rdf:Description>\n</rdf:RDF>\n")


def write_big_literal(out, mib):
    """One literal of exactly `mib` MiB of ASCII text, in lines of 1 KiB."""
    line = ("All work and no play makes a quiz a dull quiz. " * 22)[:1023] + "\n"
    block = line * 1024
    out.write('<?xml version="1.0" encoding="UTF-8"?>\n')
    out.write('<rdf:RDF xmlns:rdf="%s" xmlns:veskan="%s">\n' % (RDF, VESKAN))
    out.write('<veskan:Quiz rdf:about="%squiz/big"><veskan:text>' % VESKAN)
    for _ in range(mib):
        out.write(block)
    out.write("</veskan:text></veskan:Quiz>\n</rdf:RDF>\n")


# ----------------------------------------------------------------------------------------------


def main(argv):
    parser = argparse.ArgumentParser(
        description="Writes a deterministic quiz graph (or a hostile document) as RDF.")
    parser.add_argument("--triples", type=int, help="number of triples (exact)")
    parser.add_argument("--seed", type=int, default=1, help="pseudo-random seed (default 1)")
    parser.add_argument("--output", help="file to write (default: standard output)")
    parser.add_argument("--format", choices=["rdfxml", "ntriples"], default="rdfxml")
    parser.add_argument("--shuffle", type=int, metavar="K",
                        help="write the same graph in another order, chosen by K")
    parser.add_argument("--no-doctype", action="store_true",
                        help="no internal DTD subset: datatypes spelt out instead of &xsd;")
    parser.add_argument("--hostile", choices=["deep", "bigliteral"])
    parser.add_argument("--depth", type=int, default=100000, help="levels for --hostile deep")
    parser.add_argument("--literal-mib", type=int, default=100,
                        help="literal size in MiB for --hostile bigliteral")
    args = parser.parse_args(argv)
    if args.hostile is None and (args.triples is None or args.triples < 1):
        parser.error("--triples N (N >= 1) or --hostile is required")

    if args.output:
        out = open(args.output, "w", encoding="utf-8", newline="\n")
    else:
        out = open(sys.stdout.fileno(), "w", encoding="utf-8", newline="\n", closefd=False)
    with out:
        if args.hostile == "deep":
            write_deep(out, args.depth)
        elif args.hostile == "bigliteral":
            write_big_literal(out, args.literal_mib)
        else:
            graph = QuizGraph(args.triples, args.seed).build()
            if args.format == "ntriples":
                write_ntriples(graph, out, args.shuffle)
            else:
                XmlWriter(out, not args.no_doctype, args.shuffle).write(graph)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
