// RDF graphs and SPARQL through the library beside the same work through raw librdf calls, on
// one generated quiz graph (bench/rdf/run.py writes it and names it in VESKAN_RDF_BENCH_GRAPH):
// reading it, five representative queries with their rows, and writing it in the three formats.
// Pairs are named Case_Veskan and Case_LibrdfRaw for bench/ratios.py.
#include <veskan/RDFQuery.h>

#include <benchmark/benchmark.h>

#include <librdf.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

using namespace Veskan;

namespace {

const char* const kBase = "http://www.calvorco.com/2008/veskan/baseUri/";

// The five queries of bench/rdf/queries, in the order of their names (VESKAN_RDF_BENCH_QUERIES
// names the folder): a lookup by type, a FILTER on a language, an ORDER BY over typed numbers
// with a LIMIT, a join over the recorded answers, and an ASK.
const std::vector<std::string>& Queries() {
  static const std::vector<std::string> queries = [] {
    std::vector<std::string> texts;
    const char* folder = std::getenv("VESKAN_RDF_BENCH_QUERIES");
    for (const char* name :
         {"1-questions", "2-german-texts", "3-top-points", "4-correct-answers", "5-has-answered"}) {
      const ByteBuffer bytes = BytesFromFile(
          UTF8to16(
              (std::string(folder ? folder : "bench/rdf/queries") + "/" + name + ".rq").c_str())
              .getTerminatedBuffer());
      texts.emplace_back(static_cast<const char*>(bytes), static_cast<std::size_t>(bytes.Size()));
    }
    return texts;
  }();
  return queries;
}

const ByteBuffer& GraphBytes() {
  static const ByteBuffer bytes = [] {
    const char* path = std::getenv("VESKAN_RDF_BENCH_GRAPH");
    return path ? BytesFromFile(UTF8to16(path).getTerminatedBuffer()) : ByteBuffer();
  }();
  return bytes;
}

bool HaveGraph(benchmark::State& state) {
  if (GraphBytes().Size() > 0 && !Queries()[4].empty()) return true;
  state.SkipWithError(
      "set VESKAN_RDF_BENCH_GRAPH to an RDF/XML file and VESKAN_RDF_BENCH_QUERIES to "
      "bench/rdf/queries (bench/rdf/run.py does)");
  return false;
}

std::shared_ptr<RDF::Graph> LoadedGraph() {
  static std::shared_ptr<RDF::Graph> graph = [] {
    auto loaded = std::make_shared<RDF::Graph>();
    loaded->Add(GraphBytes());
    return loaded;
  }();
  return graph;
}

// The raw side: what a careful librdf user writes, with no lock, no log routing and no checks
// beyond librdf's own results.
struct RawGraph {
  librdf_storage* storage;
  librdf_model* model;
  RawGraph() {
    storage = librdf_new_storage(RDF::world, "trees", "raw", nullptr);
    model = librdf_new_model(RDF::world, storage, nullptr);
  }
  ~RawGraph() {
    librdf_free_model(model);
    librdf_free_storage(storage);
  }
  bool Parse(const ByteBuffer& bytes) {
    librdf_parser* parser = librdf_new_parser(RDF::world, nullptr, nullptr, nullptr);
    librdf_uri* base = librdf_new_uri(RDF::world, reinterpret_cast<const unsigned char*>(kBase));
    librdf_stream* stream = librdf_parser_parse_counted_string_as_stream(
        parser, static_cast<const unsigned char*>(bytes), static_cast<size_t>(bytes.Size()), base);
    const bool ok = stream && librdf_model_add_statements(model, stream) == 0;
    if (stream) librdf_free_stream(stream);
    librdf_free_uri(base);
    librdf_free_parser(parser);
    return ok;
  }
};

RawGraph& LoadedRawGraph() {
  static RawGraph* graph = [] {
    auto* loaded = new RawGraph;
    loaded->Parse(GraphBytes());
    return loaded;
  }();
  return *graph;
}

void Parse_Veskan(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  for (auto _ : state) {
    RDF::Graph graph;
    benchmark::DoNotOptimize(graph.Add(GraphBytes()));
  }
}

void Parse_LibrdfRaw(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  for (auto _ : state) {
    RawGraph graph;
    benchmark::DoNotOptimize(graph.Parse(GraphBytes()));
  }
}

void Query_Veskan(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  std::shared_ptr<RDF::Graph> graph = LoadedGraph();
  const StringBuffer text = UTF8to16(Queries()[static_cast<std::size_t>(state.range(0))].c_str());
  for (auto _ : state) {
    RDF::Query query(text.getBuffer());
    std::shared_ptr<RDF::Results> results = query.Execute(graph);
    benchmark::DoNotOptimize(results->length() + results->Boolean());
  }
}

// The same rows built by a librdf user: per row, each bound variable's name and its value's text
// (as UTF-8 strings, where the library's rows hold UTF-16 nodes).
void Query_LibrdfRaw(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  RawGraph& graph = LoadedRawGraph();
  const auto* text = reinterpret_cast<const unsigned char*>(
      Queries()[static_cast<std::size_t>(state.range(0))].c_str());
  for (auto _ : state) {
    librdf_query* query = librdf_new_query(RDF::world, "sparql", nullptr, text, nullptr);
    librdf_query_results* results = librdf_query_execute(query, graph.model);
    std::vector<std::map<std::string, std::string>> rows;
    bool answer = false;
    if (librdf_query_results_is_boolean(results)) {
      answer = librdf_query_results_get_boolean(results) > 0;
    } else {
      const int count = librdf_query_results_get_bindings_count(results);
      for (; !librdf_query_results_finished(results); librdf_query_results_next(results)) {
        std::map<std::string, std::string>& row = rows.emplace_back();
        for (int i = 0; i < count; ++i) {
          librdf_node* value = librdf_query_results_get_binding_value(results, i);
          if (!value) continue;
          const unsigned char* written =
              librdf_node_is_resource(value) ? librdf_uri_as_string(librdf_node_get_uri(value))
              : librdf_node_is_blank(value)  ? librdf_node_get_blank_identifier(value)
                                             : librdf_node_get_literal_value(value);
          row[librdf_query_results_get_binding_name(results, i)] =
              reinterpret_cast<const char*>(written);
          librdf_free_node(value);
        }
      }
    }
    benchmark::DoNotOptimize(rows.size() + answer);
    librdf_free_query_results(results);
    librdf_free_query(query);
  }
}

// The ASK once compiled and run again and again, as a host keeps a query it runs often: the
// text is parsed once on either side.
void Ask_Veskan(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  std::shared_ptr<RDF::Graph> graph = LoadedGraph();
  RDF::Query query(UTF8to16(Queries()[4].c_str()).getBuffer());
  for (auto _ : state)
    benchmark::DoNotOptimize(query.Execute(graph)->Boolean());
}

// rasqal remembers every run of a query and looks through them all when one ends, so a run
// costs more the more runs came before it: a librdf user who keeps a query must renew it now and
// then, as the library does every 256 runs.
void Ask_LibrdfRaw(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  RawGraph& graph = LoadedRawGraph();
  const auto* text = reinterpret_cast<const unsigned char*>(Queries()[4].c_str());
  librdf_query* query = nullptr;
  int runs = 0;
  for (auto _ : state) {
    if (runs++ % 256 == 0) {
      if (query) librdf_free_query(query);
      query = librdf_new_query(RDF::world, "sparql", nullptr, text, nullptr);
    }
    librdf_query_results* results = librdf_query_execute(query, graph.model);
    benchmark::DoNotOptimize(librdf_query_results_get_boolean(results));
    librdf_free_query_results(results);
  }
  librdf_free_query(query);
}

void Serialize_Veskan(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  std::shared_ptr<RDF::Graph> graph = LoadedGraph();
  for (auto _ : state)
    benchmark::DoNotOptimize(graph->Serialize(static_cast<int>(state.range(0))).length());
}

void Serialize_LibrdfRaw(benchmark::State& state) {
  if (!HaveGraph(state)) return;
  RawGraph& graph = LoadedRawGraph();
  const char* name = RDF::Graph::SerializationFormats::ToName(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    librdf_serializer* serializer = librdf_new_serializer(RDF::world, name, nullptr, nullptr);
    size_t length = 0;
    unsigned char* text = librdf_serializer_serialize_model_to_counted_string(serializer, nullptr,
                                                                              graph.model, &length);
    benchmark::DoNotOptimize(length);
    librdf_free_memory(text);
    librdf_free_serializer(serializer);
  }
}

// Keeps the libraries up for the whole run.
Globals globals;

}  // namespace

BENCHMARK(Parse_Veskan)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(Parse_LibrdfRaw)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(Query_Veskan)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
BENCHMARK(Query_LibrdfRaw)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
BENCHMARK(Ask_Veskan)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(Ask_LibrdfRaw)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(Serialize_Veskan)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(Serialize_LibrdfRaw)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
