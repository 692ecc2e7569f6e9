// RDF::Query, RDF::Results and RDF::Result on librdf: compilation errors, rows of every kind of
// value, truth values and graphs, and the bound on rows.
#include <veskan/RDFQuery.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

std::shared_ptr<RDF::Graph> Quiz() {
  auto graph = std::make_shared<RDF::Graph>();
  const char* quiz = R"(<?xml version="1.0"?>
<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#" xmlns:v="http://x/">
  <v:Question rdf:about="http://x/q1">
    <v:text xml:lang="en">Capital?</v:text>
    <v:points rdf:datatype="http://www.w3.org/2001/XMLSchema#integer">2</v:points>
    <v:choice><v:Choice><v:text>Paris</v:text></v:Choice></v:choice>
  </v:Question>
  <v:Question rdf:about="http://x/q2"><v:points rdf:datatype="http://www.w3.org/2001/XMLSchema#integer">5</v:points></v:Question>
</rdf:RDF>)";
  EXPECT_EQ(graph->Add(UTF16to8(UTF8to16(quiz))), 1);
  return graph;
}

TEST(RdfQueryTest, ATextThatDoesNotParseLeavesTheTwoErrorTexts) {
  RDF::Query query(u"SELECT ?x WHERE { ?x");
  EXPECT_EQ(query.ErrorCode(), StringBuffer(u"##parse error ##"));
  EXPECT_EQ(query.ErrorMessage(), StringBuffer(u"The query text could not be parsed."));
  EXPECT_EQ(query.Execute(Quiz()), nullptr);
  EXPECT_EQ(static_cast<librdf_query*>(query), nullptr);
}

TEST(RdfQueryTest, RowsHoldUrisBlankNodesAndLiteralTexts) {
  RDF::Query query(
      u"PREFIX v: <http://x/> SELECT ?q ?text ?choice ?points WHERE { ?q v:points ?points . "
      u"OPTIONAL { ?q v:text ?text } OPTIONAL { ?q v:choice ?choice } } ORDER BY ?points");
  EXPECT_EQ(query.ErrorCode(), StringBuffer());
  std::shared_ptr<RDF::Results> results = query.Execute(Quiz());
  ASSERT_TRUE(results);
  ASSERT_EQ(results->length(), 2);
  EXPECT_EQ(results->length(), 2) << "built once";
  RDF::Result& first = (*results)[0];
  EXPECT_EQ(first[u"q"]->Type(), RDF::Node::Types::Uri);
  EXPECT_TRUE(*first[u"q"] == u"http://x/q1");
  // A literal keeps its text alone, its language and datatype left out.
  EXPECT_TRUE(*first[u"text"] == u"Capital?");
  EXPECT_EQ(first[u"text"]->Language(), StringBuffer());
  EXPECT_EQ(first[u"points"]->FormattedString(), StringBuffer(u"\"2\""));
  EXPECT_EQ(first[u"choice"]->Type(), RDF::Node::Types::Blank);
  EXPECT_EQ(first(0), StringBuffer(first[u"choice"]->Value())) << "names in order";
  RDF::Result& second = (*results)[1];
  EXPECT_FALSE(second.Contains(u"text")) << "unbound in the OPTIONAL";
  EXPECT_EQ(second(0), StringBuffer(u"5")) << "points before q";

  EXPECT_EQ((*results)[-1].Count(), 0);
  EXPECT_EQ((*results)[2].Count(), 0);
  EXPECT_EQ(results->Add(second), 2);
  results->RemoveAt(0);
  results->RemoveAt(7);
  EXPECT_EQ(results->length(), 2);
  EXPECT_TRUE(*(*results)[0][u"q"] == u"http://x/q2");

  const StringBuffer xml = results->Serialize(RDF::Graph::SerializationFormats::RdfXmlAbbrev);
  EXPECT_NE(xml.indexOf(u"<uri>http://x/q1</uri>"), -1) << xml;
  EXPECT_EQ(results->Serialize(RDF::Graph::SerializationFormats::NTriples), StringBuffer());
}

TEST(RdfQueryTest, AskGivesATruthValueAndConstructAGraph) {
  std::shared_ptr<RDF::Graph> graph = Quiz();
  EXPECT_TRUE(RDF::Query(u"ASK { <http://x/q2> ?p ?o }").Execute(graph)->Boolean());
  std::shared_ptr<RDF::Results> no = RDF::Query(u"ASK { <http://x/q3> ?p ?o }").Execute(graph);
  EXPECT_FALSE(no->Boolean());
  EXPECT_EQ(no->length(), 0);
  EXPECT_NE(no->Serialize(0).indexOf(u"<boolean>false</boolean>"), -1);
  // Written first, read as rows afterwards: the results are read twice.
  std::shared_ptr<RDF::Results> points =
      RDF::Query(u"SELECT ?p WHERE { ?q <http://x/points> ?p }").Execute(graph);
  EXPECT_NE(points->Serialize(0).indexOf(u"<literal datatype="), -1);
  EXPECT_EQ(points->length(), 2);

  std::shared_ptr<RDF::Results> built =
      RDF::Query(u"CONSTRUCT { ?q <http://x/worth> ?p } WHERE { ?q <http://x/points> ?p }")
          .Execute(graph);
  ASSERT_TRUE(built && built->AsGraph());
  EXPECT_EQ(built->AsGraph()->Size(), 2);
  EXPECT_NE(built->Serialize(0).indexOf(u"worth"), -1);
}

// A query's parse serves many runs and is renewed now and then, but rasqal rewrites a query that
// computes values while it runs: every run must still give the same answer, rows read and then
// written too.
TEST(RdfQueryTest, AQueryRunsAgainAndAgainWithTheSameAnswers) {
  std::shared_ptr<RDF::Graph> graph = Quiz();
  RDF::Query plain(u"SELECT ?p WHERE { ?q <http://x/points> ?p } ORDER BY ?p");
  RDF::Query counted(u"SELECT (COUNT(?p) AS ?n) WHERE { ?q <http://x/points> ?p }");
  for (int run = 0; run < 300; ++run) {
    std::shared_ptr<RDF::Results> rows = plain.Execute(graph);
    ASSERT_EQ(rows->length(), 2);
    EXPECT_TRUE(*(*rows)[1][u"p"] == u"5");
    std::shared_ptr<RDF::Results> count = counted.Execute(graph);
    ASSERT_EQ(count->length(), 1) << "run " << run;
    EXPECT_TRUE(*(*count)[0][u"n"] == u"2") << "run " << run;
    EXPECT_NE(count->Serialize(0).indexOf(u">2</literal>"), -1) << "run " << run;
  }
}

TEST(RdfQueryTest, RowsAreBoundedEvenWhenAGraphIsJoinedWithItself) {
  std::shared_ptr<RDF::Graph> graph = Quiz();
  RDF::Query join(u"SELECT * WHERE { ?a ?b ?c . ?d ?e ?f . ?g ?h ?i }");
  join.SetMaxRows(50);
  std::shared_ptr<RDF::Results> results = join.Execute(graph);
  ASSERT_TRUE(results);
  join.SetMaxRows(0);
  std::shared_ptr<RDF::Results> unbounded = join.Execute(graph);
  join.SetMaxRows(9);
  EXPECT_EQ(join.Execute(graph)->length(), 9);
  EXPECT_EQ(results->length(), 50) << "runs alive at once keep rows of their own";
  EXPECT_EQ(unbounded->length(), graph->Size() * graph->Size() * graph->Size());
  // The text's own smaller LIMIT still holds.
  RDF::Query limited(u"SELECT * WHERE { ?a ?b ?c . ?d ?e ?f } LIMIT 7");
  limited.SetMaxRows(50);
  EXPECT_EQ(limited.Execute(graph)->length(), 7);
}

// Every operation takes the world's lock, so threads that each work on graphs of their own get
// the same answers as one thread would.
TEST(RdfQueryTest, EightThreadsParseQueryAndSerializeGraphsOfTheirOwn) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([thread, &wrong] {
      for (int round = 0; round < 10; ++round) {
        const int questions = 5 + thread + round;
        std::string xml = R"(<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#" )"
                          R"(xmlns:v="http://x/">)";
        for (int q = 0; q < questions; ++q)
          xml += "<v:Question rdf:about=\"http://x/t" + std::to_string(thread) + "q" +
                 std::to_string(q) + "\"><v:points>" + std::to_string(q) +
                 "</v:points></v:Question>";
        xml += "</rdf:RDF>";
        auto graph = std::make_shared<RDF::Graph>();
        if (graph->Add(UTF16to8(UTF8to16(xml.c_str()))) != 1) ++wrong;
        RDF::Query query(u"SELECT ?q WHERE { ?q <http://x/points> ?p }");
        std::shared_ptr<RDF::Results> rows = query.Execute(graph);
        if (!rows || rows->length() != questions) ++wrong;
        RDF::Graph copy;
        const StringBuffer written = graph->Serialize(RDF::Graph::SerializationFormats::RdfXml);
        if (copy.Add(UTF16to8(written)) != 1 || copy.Size() != 2 * questions) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace Veskan
