// RDF::Node, RDF::Triple, RDF::Predicate and RDF::Graph on librdf: terms and their printed form,
// reading RDF/XML (and refusing what must be refused), matching, describing, removing answers
// and writing the graph back out.
#include <veskan/RDFGraph.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using Types = RDF::Node::Types;

const char* const kQuiz = R"(<?xml version="1.0"?>
<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"
         xmlns:veskan="http://www.calvorco.com/2008/veskan/">
  <veskan:Question rdf:about="q1">
    <veskan:text xml:lang="en">Capital of France?</veskan:text>
    <veskan:points rdf:datatype="http://www.w3.org/2001/XMLSchema#integer">2</veskan:points>
    <veskan:choice><veskan:Choice><veskan:text>Paris</veskan:text></veskan:Choice></veskan:choice>
    <veskan:answer>
      <veskan:Answer rdf:about="http://example.org/a1">
        <veskan:participant>Zo&#235;</veskan:participant>
      </veskan:Answer>
    </veskan:answer>
    <veskan:answer rdf:nodeID="a2"/>
  </veskan:Question>
  <veskan:Answer rdf:nodeID="a2"><veskan:participant>Ann</veskan:participant></veskan:Answer>
</rdf:RDF>)";

const std::u16string kVeskan = u"http://www.calvorco.com/2008/veskan/";
const std::u16string kQ1 = kVeskan + u"baseUri/q1";

ByteBuffer Bytes(const std::string& text) {
  return UTF16to8(UTF8to16(text.c_str()));
}

std::shared_ptr<RDF::Graph> Quiz() {
  auto graph = std::make_shared<RDF::Graph>();
  EXPECT_EQ(graph->Add(Bytes(kQuiz)), 1);
  return graph;
}

TEST(RdfNodeTest, PrintsEachKindAndResolvesPrefixedNames) {
  RDF::Node tagged(u"Paris", Types::Literal);
  tagged.SetLanguage(u"fr");
  tagged.SetDatatype(u"xs:string");
  EXPECT_EQ(tagged.FormattedString(), StringBuffer(u"\"Paris\"@fr")) << "the language wins";
  RDF::Node typed(u"1", u"xs:integer");
  EXPECT_EQ(typed.Datatype(), StringBuffer(u"http://www.w3.org/2001/XMLSchema#integer"));
  EXPECT_EQ(typed.FormattedString(), StringBuffer(u"\"1\"^^<>"));
  EXPECT_EQ(RDF::Node(u"it's", Types::Literal).FormattedString(), StringBuffer(u"\"it's\""));
  EXPECT_EQ(RDF::Node(u"http://x/y", Types::Uri).FormattedString(), StringBuffer(u"<http://x/y>"));
  EXPECT_EQ(RDF::Node(u"b1", Types::Blank).FormattedString(), StringBuffer(u"_:b1"));
  EXPECT_EQ(RDF::Node(u"who", Types::Variable).FormattedString(), StringBuffer(u"?who"));
  EXPECT_EQ(RDF::Node(u"who", Types::Variable).MakeNode(), nullptr);

  // A node made in librdf reads back the same; a fresh blank node takes librdf's identifier.
  RDF::Node adopted(librdf_new_node_from_node(typed.MakeNode()), true);
  EXPECT_EQ(adopted.Type(), Types::Literal);
  EXPECT_TRUE(adopted == u"1");
  EXPECT_EQ(adopted.Datatype(), typed.Datatype());
  RDF::Node fresh(nullptr, Types::Blank);
  ASSERT_NE(fresh.MakeNode(), nullptr);
  EXPECT_FALSE(fresh.Value().isEmpty());

  EXPECT_EQ(StringBuffer(RDF::Predicate(u"rdf:type")),
            StringBuffer(u"http://www.w3.org/1999/02/22-rdf-syntax-ns#type"));
  EXPECT_EQ(StringBuffer(RDF::Predicate(u"http://x/p")), StringBuffer(u"http://x/p"));
  // The last text of a triple: a datatype when it holds a colon, a language otherwise.
  RDF::Triple points(u"http://x/q", u"http://x/points", u"2", Types::Literal, u"xs:integer");
  RDF::Triple text(u"http://x/q", u"http://x/text", u"Hallo", Types::Literal, u"de");
  EXPECT_EQ(points.FormattedString(), StringBuffer(u"<http://x/q> <http://x/points> \"2\"^^<> ."));
  EXPECT_EQ(text.Object().Language(), StringBuffer(u"de"));
  EXPECT_NE(points.MakeStatement(), nullptr);
}

TEST(RdfGraphTest, ReadsRelativeReferencesAgainstTheBaseAndWritesEveryFormat) {
  std::shared_ptr<RDF::Graph> graph = Quiz();
  EXPECT_EQ(graph->Size(), 12);
  std::shared_ptr<RDF::Triple> points =
      graph->FindOneTriple(kQ1.c_str(), (kVeskan + u"points").c_str());
  ASSERT_TRUE(points);
  EXPECT_EQ(points->Object().FormattedString(), StringBuffer(u"\"2\"^^<>"));
  EXPECT_EQ(points->Object().Datatype(), StringBuffer(u"http://www.w3.org/2001/XMLSchema#integer"));

  const StringBuffer lines = graph->Serialize(RDF::Graph::SerializationFormats::NTriples);
  EXPECT_NE(
      lines.indexOf(StringBuffer(u"<") + kQ1.c_str() +
                    u"> <http://www.calvorco.com/2008/veskan/text> \"Capital of France?\"@en ."),
      -1)
      << lines;
  // Each RDF/XML form reads back into the same statements (blank nodes aside).
  for (int format : {0, 1}) {
    const StringBuffer xml = graph->Serialize(format);
    EXPECT_NE(xml.indexOf(u"xmlns:veskan="), -1) << xml;
    RDF::Graph back;
    EXPECT_EQ(back.Add(UTF16to8(xml)), 1);
    EXPECT_EQ(back.Size(), graph->Size());
    EXPECT_TRUE(graph->ifContains(UTF16to8(xml)));
  }
  EXPECT_EQ(graph->Serialize(7), StringBuffer());
  std::shared_ptr<RDF::Graph> fromDocument =
      RDF::Graph::FromXmlDocument(XmlSchema::NewDoc(UTF8to16(kQuiz).getTerminatedBuffer()));
  ASSERT_TRUE(fromDocument);
  EXPECT_EQ(fromDocument->Size(), 12);

  RDF::Graph copy(*graph);
  EXPECT_NE(static_cast<librdf_storage*>(copy), static_cast<librdf_storage*>(*graph));
  EXPECT_EQ(copy.Remove(kQ1.c_str()), 6);
  EXPECT_EQ(graph->Size(), 12) << "a copy has statements of its own";
}

// Raptor reads through libxml2, which would load external parameter entities and spends time
// in the square of the nesting depth, and leaks an RDF attribute given twice: all are refused
// before it reads. The hostile files of tests/data/rdf/bad (malformed, entity bombs, external
// entities and DTDs, a repeated attribute) read as nothing.
TEST(RdfGraphTest, BadTextAddsNothing) {
  std::shared_ptr<RDF::Graph> graph = Quiz();
  RDF::Graph empty;
  auto nested = [](int depth) {
    std::string open, close;
    for (int i = 0; i < depth; ++i) {
      open += "<v:p><rdf:Description>";
      close = "</rdf:Description></v:p>" + close;
    }
    return R"(<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#" xmlns:v="http://x/">)"
           R"(<rdf:Description rdf:about="http://x/s">)" +
           open + close + "</rdf:Description></rdf:RDF>";
  };
  std::vector<ByteBuffer> bad{Bytes(""), Bytes("not rdf at all"),
                              Bytes(std::string(kQuiz).substr(0, 300)), Bytes(nested(300))};
  for (const char* name : {"bad-rdf-syntax", "billion-laughs", "external-dtd", "external-entity",
                           "external-parameter-entity", "invalid-utf8", "not-well-formed",
                           "parameter-entity-from-file", "repeated-rdf-attribute", "truncated"}) {
    bad.push_back(
        BytesFromFile(UTF8to16((std::string(VESKAN_RDF_DATA "/bad/") + name + ".rdf").c_str())
                          .getTerminatedBuffer()));
    EXPECT_GT(bad.back().Size(), 0) << name;
  }
  // raptor takes an attribute with an undeclared prefix as one without (a leak that only the
  // sanitizer builds see: the text has an error either way).
  bad.push_back(
      Bytes(R"(<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#">)"
            R"(<rdf:Description rdf:about="http://x/a" u:about="http://x/b"/></rdf:RDF>)"));
  for (const ByteBuffer& text : bad) {
    EXPECT_EQ(graph->Add(text), 0) << UTF8to16(text).ToUTF8().substr(0, 80);
    EXPECT_EQ(graph->Size(), 12);
    EXPECT_EQ(empty.Add(text), 0);
    EXPECT_EQ(empty.Size(), 0);
  }
  // Internal entities, as files name their namespaces with, are read ("SYSTEM" in a value names
  // nothing); so is deep but sane nesting.
  EXPECT_EQ(empty.Add(Bytes(R"(<!DOCTYPE rdf:RDF [<!ENTITY e "SYSTEM">]>)"
                            R"(<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#" )"
                            R"(xmlns:v="http://x/"><rdf:Description rdf:about="http://x/s">)"
                            R"(<v:t>&e;</v:t></rdf:Description></rdf:RDF>)")),
            1);
  EXPECT_TRUE(empty.FindOneTriple(u"http://x/s", u"http://x/t")->Object() == u"SYSTEM");
  EXPECT_EQ(empty.Add(Bytes(nested(200))), 1);
  // The same local name in another namespace is a property, not the RDF attribute again.
  EXPECT_EQ(empty.Add(Bytes(R"(<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#" )"
                            R"(xmlns:v="http://x/"><rdf:Description rdf:about="http://x/s" )"
                            R"(v:about="topic"/></rdf:RDF>)")),
            1);
  EXPECT_TRUE(empty.FindOneTriple(u"http://x/s", u"http://x/about")->Object() == u"topic");
  EXPECT_EQ(RDF::Graph::FromFile(u"/nonexistent/quiz.rdf"), nullptr);
}

TEST(RdfGraphTest, MatchesDescribesAndRemovesAnswers) {
  std::shared_ptr<RDF::Graph> graph = Quiz();
  EXPECT_EQ(graph->FindOneTriple(u"", u"http://x"), nullptr);
  EXPECT_EQ(graph->FindOneTriple(kQ1.c_str(), u""), nullptr);

  std::vector<std::shared_ptr<RDF::Triple>> found;
  // A literal matches by value, whatever its language.
  EXPECT_EQ(graph->FindTriples(found, nullptr, Types::Uri, (kVeskan + u"text").c_str(),
                               u"Capital of France?", Types::Literal),
            1);
  EXPECT_EQ(graph->FindTriples(found, kQ1.c_str(), Types::Uri, nullptr, nullptr, Types::Uri), 6);
  std::shared_ptr<RDF::Triple> paris = graph->FindOneTripleViaIntermediateBlankNode(
      kQ1.c_str(), (kVeskan + u"choice").c_str(), (kVeskan + u"text").c_str());
  ASSERT_TRUE(paris);
  EXPECT_TRUE(paris->Object() == u"Paris");

  // The question with the blank nodes it reaches (its choice, the second answer); the first
  // answer has a URI of its own and is only linked.
  std::shared_ptr<RDF::Graph> described = graph->Describe(kQ1.c_str());
  EXPECT_EQ(described->Size(), 6 + 2 + 2);

  // Each answer's two statements and the link to it; the question and its choice stay.
  EXPECT_EQ(graph->RemoveAnswers(), 2 * (2 + 1));
  EXPECT_EQ(graph->Size(), 6);
  EXPECT_EQ(graph->FindOneTriple(kQ1.c_str(), (kVeskan + u"answer").c_str()), nullptr);
  EXPECT_TRUE(graph->FindOneTriple(kQ1.c_str(), (kVeskan + u"points").c_str()));
}

}  // namespace
}  // namespace Veskan
