// RDF::Results and RDF::Result: the rows of a run read from librdf's bindings, its truth value
// or graph, and the results written as SPARQL results XML.
#include <veskan/RDFQuery.h>

#include "rdf/QueryRun.h"
#include "rdf/Redland.h"

namespace Veskan {

using Detail::LockWorld;
using Detail::WorldLock;

std::shared_ptr<RDF::Node>& RDF::Result::operator[](const char16_t* name) {
  return bindings_[StringBuffer(name ? name : u"")];
}

StringBuffer RDF::Result::operator()(int index) const {
  if (index < 0 || index >= Count()) return StringBuffer();
  auto entry = bindings_.begin();
  std::advance(entry, index);
  return entry->second ? entry->second->Value() : StringBuffer();
}

bool RDF::Result::Contains(const char16_t* name) const {
  return bindings_.count(StringBuffer(name ? name : u"")) > 0;
}

RDF::Results::Results(std::shared_ptr<Run> run) : run_(std::move(run)) {}

RDF::Results::~Results() {
  WorldLock lock = LockWorld();
  run_.reset();
  graph_.reset();
}

const std::string& RDF::Results::ResultsXml() {
  if (written_) return xml_;
  written_ = true;
  WorldLock lock = LockWorld();
  librdf_query_results* results = Unread();
  if (!results ||
      (!librdf_query_results_is_bindings(results) && !librdf_query_results_is_boolean(results)))
    return xml_;
  Detail::UriPtr format = Detail::NewUri("http://www.w3.org/2005/sparql-results#");
  if (!format) return xml_;
  Detail::LibrdfErrors errors;
  Detail::LibrdfText text(
      librdf_query_results_to_string2(results, nullptr, nullptr, format.get(), nullptr));
  if (text && errors.Count() == 0) xml_ = reinterpret_cast<const char*>(text.get());
  return xml_;
}

librdf_query_results* RDF::Results::Unread() {
  if (!run_ || !run_->results) return nullptr;
  librdf_query_results* results = run_->results.get();
  // librdf cannot rewind rows and truth values, so the query runs again.
  if (read_ && !librdf_query_results_is_graph(results)) return run_->RunAgain();
  read_ = true;
  return results;
}

namespace {

// A value as the results XML gives it: a URI, a blank node's identifier, or a literal's text
// alone.
std::shared_ptr<RDF::Node> ValueNode(librdf_node* value) {
  if (librdf_node_is_resource(value))
    return std::make_shared<RDF::Node>(
        Detail::FromUtf8(librdf_uri_as_string(librdf_node_get_uri(value))), RDF::Node::Types::Uri);
  if (librdf_node_is_blank(value))
    return std::make_shared<RDF::Node>(Detail::FromUtf8(librdf_node_get_blank_identifier(value)),
                                       RDF::Node::Types::Blank);
  size_t length = 0;
  const unsigned char* text = librdf_node_get_literal_value_as_counted_string(value, &length);
  return std::make_shared<RDF::Node>(Detail::FromUtf8(text, length), RDF::Node::Types::Literal);
}

}  // namespace

// The rows are read from librdf's bindings directly. They are what the SPARQL results XML
// holds (one row per result, a node per bound variable of the kind its element names, its text
// alone), without writing and parsing that XML, which cost fifty times the query itself.
int RDF::Results::length() {
  if (built_) return static_cast<int>(rows_.size());
  built_ = true;
  WorldLock lock = LockWorld();
  librdf_query_results* results = Unread();
  if (!results || !librdf_query_results_is_bindings(results)) return 0;
  const int count = librdf_query_results_get_bindings_count(results);
  std::vector<StringBuffer> names;
  for (int i = 0; i < count; ++i)
    names.push_back(Detail::FromUtf8(
        reinterpret_cast<const unsigned char*>(librdf_query_results_get_binding_name(results, i))));
  for (; !librdf_query_results_finished(results); librdf_query_results_next(results)) {
    Result row;
    for (int i = 0; i < count; ++i) {
      // Null for a variable of an OPTIONAL that did not match: absent from the row.
      Detail::NodePtr value(librdf_query_results_get_binding_value(results, i));
      if (value) row.bindings_.emplace(names[static_cast<std::size_t>(i)], ValueNode(value.get()));
    }
    rows_.push_back(std::move(row));
  }
  return static_cast<int>(rows_.size());
}

RDF::Result& RDF::Results::operator[](int index) {
  // One per thread: results on different threads must not share what a caller may write into.
  thread_local Result empty;
  if (index < 0 || index >= length()) {
    empty = Result();  // whatever a caller wrote into it is gone
    return empty;
  }
  return rows_[static_cast<std::size_t>(index)];
}

int RDF::Results::Add(const Result& row) {
  const int before = length();
  rows_.push_back(row);
  return before;
}

void RDF::Results::RemoveAt(int index) {
  if (index >= 0 && index < length()) rows_.erase(rows_.begin() + index);
}

void RDF::Results::Clear() {
  built_ = true;
  rows_.clear();
}

bool RDF::Results::IsBoolean() {
  WorldLock lock = LockWorld();
  return run_ && run_->results && librdf_query_results_is_boolean(run_->results.get());
}

bool RDF::Results::Boolean() {
  WorldLock lock = LockWorld();
  librdf_query_results* results = run_ ? run_->results.get() : nullptr;
  return results && librdf_query_results_is_boolean(results) &&
         librdf_query_results_get_boolean(results) > 0;
}

std::shared_ptr<RDF::Graph> RDF::Results::AsGraph() {
  if (graph_) return graph_;
  WorldLock lock = LockWorld();
  librdf_query_results* results = run_ ? run_->results.get() : nullptr;
  if (!results || !librdf_query_results_is_graph(results)) return nullptr;
  auto graph = std::make_shared<Graph>();
  Detail::StreamPtr stream(librdf_query_results_as_stream(results));
  librdf_model* model = *graph;
  if (!stream || !model || librdf_model_add_statements(model, stream.get()) != 0) return nullptr;
  graph_ = graph;
  return graph_;
}

StringBuffer RDF::Results::Serialize(int format) {
  if (format != Graph::SerializationFormats::RdfXmlAbbrev) return StringBuffer();
  if (std::shared_ptr<Graph> graph = AsGraph())
    return graph->Serialize(Graph::SerializationFormats::RdfXmlAbbrev, Namespaces::Defaults);
  const std::string& xml = ResultsXml();
  return UTF8to16(xml.c_str(), 0, static_cast<int>(xml.size()));
}

}  // namespace Veskan
