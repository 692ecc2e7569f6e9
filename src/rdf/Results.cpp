// RDF::Results and RDF::Result: the rows of a run, built from its SPARQL results XML.
#include <veskan/RDFQuery.h>

#include "rdf/QueryRun.h"
#include "rdf/Redland.h"

#include <xercesc/dom/DOM.hpp>

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
  librdf_query_results* results = run_ ? run_->results.get() : nullptr;
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

int RDF::Results::length() {
  if (built_) return static_cast<int>(rows_.size());
  built_ = true;
  const std::string& xml = ResultsXml();
  if (xml.empty()) return 0;
  std::shared_ptr<XmlDocument> document = XmlSchema::NewDoc(
      ByteBuffer(reinterpret_cast<const unsigned char*>(xml.data()), 0, static_cast<int>(xml.size())));
  if (!document) return 0;
  for (xercesc::DOMElement* result : XmlSchema::GetElementsByTagName(
           document->DocumentNode(), u"sparql:result", Namespaces::Defaults)) {
    Result row;
    for (xercesc::DOMElement* binding :
         XmlSchema::GetElementsByTagName(result, u"sparql:binding", Namespaces::Defaults)) {
      xercesc::DOMElement* value = XmlSchema::FirstChildElement(binding);
      if (!value) continue;
      const StringBuffer kind = QName(value).LocalName;
      if (kind == u"unbound") continue;  // a variable of an OPTIONAL that did not match
      const Node::Types::Enumeration type = kind == u"uri"     ? Node::Types::Uri
                                            : kind == u"bnode" ? Node::Types::Blank
                                                               : Node::Types::Literal;
      StringBuffer name = XmlSchema::GetAttribute(binding, u"name");
      StringBuffer text = XmlSchema::GetTextContent(value);
      row[name.getTerminatedBuffer()] = std::make_shared<Node>(text.getTerminatedBuffer(), type);
    }
    rows_.push_back(std::move(row));
  }
  return static_cast<int>(rows_.size());
}

RDF::Result& RDF::Results::operator[](int index) {
  static Result empty;
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
