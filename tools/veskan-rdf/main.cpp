// veskan-rdf: reads RDF through the library, writes it in another format, and runs SPARQL on it,
// for looking into quiz graphs and for comparing the library with other RDF tools.
//
//   veskan-rdf convert FILE [rdfxml-abbrev|rdfxml|ntriples]   the graph in that format
//                                                             (N-Triples unless given)
//   veskan-rdf query FILE QUERY_FILE                          the query's answer: one JSON
//                                                             object per row, "true"/"false"
//                                                             for ASK, N-Triples for a graph
//
// FILE is RDF/XML, or N-Triples when its name ends in ".nt". Exit status 0 on success, 1 with a
// one-line reason otherwise, 2 for a wrong command line.
#include <veskan/RDFQuery.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

using namespace Veskan;

namespace {

int Fail(const std::string& reason) {
  std::cerr << "veskan-rdf: " << reason << '\n';
  return 1;
}

int Usage() {
  std::cerr << "usage: veskan-rdf convert FILE [rdfxml-abbrev|rdfxml|ntriples]\n"
               "       veskan-rdf query FILE QUERY_FILE\n";
  return 2;
}

std::shared_ptr<RDF::Graph> Read(const std::string& path) {
  const bool ntriples = path.size() > 3 && path.compare(path.size() - 3, 3, ".nt") == 0;
  return RDF::Graph::FromFile(UTF8to16(path.c_str()).getTerminatedBuffer(),
                              ntriples ? RDF::Graph::SerializationFormats::NTriples
                                       : RDF::Graph::SerializationFormats::RdfXml);
}

std::string Json(const StringBuffer& text) {
  std::string out = "\"";
  for (const char c : text.ToUTF8()) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

const char* KindName(RDF::Node::Types::Enumeration type) {
  switch (type) {
    case RDF::Node::Types::Uri:
      return "uri";
    case RDF::Node::Types::Blank:
      return "bnode";
    default:
      return "literal";
  }
}

int Convert(const std::string& path, const std::string& formatName) {
  int format = -1;
  for (int candidate = 0; RDF::Graph::SerializationFormats::ToName(candidate); ++candidate)
    if (formatName == RDF::Graph::SerializationFormats::ToName(candidate)) format = candidate;
  if (format < 0) return Usage();
  std::shared_ptr<RDF::Graph> graph = Read(path);
  if (!graph) return Fail(path + " cannot be read as RDF");
  std::cout << graph->Serialize(format).ToUTF8();
  return 0;
}

int Query(const std::string& path, const std::string& queryPath) {
  std::shared_ptr<RDF::Graph> graph = Read(path);
  if (!graph) return Fail(path + " cannot be read as RDF");
  const ByteBuffer text = BytesFromFile(UTF8to16(queryPath.c_str()).getTerminatedBuffer());
  RDF::Query query(UTF8to16(text).getTerminatedBuffer());
  if (!query.ErrorCode().isEmpty())
    return Fail(query.ErrorCode().ToUTF8() + " " + query.ErrorMessage().ToUTF8());
  std::shared_ptr<RDF::Results> results = query.Execute(graph);
  if (!results) return Fail("the query gave no results");
  if (std::shared_ptr<RDF::Graph> built = results->AsGraph()) {
    std::cout << built->Serialize(RDF::Graph::SerializationFormats::NTriples).ToUTF8();
  } else if (results->IsBoolean()) {
    std::cout << (results->Boolean() ? "true" : "false") << '\n';
  } else {
    for (int i = 0; i < results->length(); ++i) {
      std::string line;
      for (const auto& binding : (*results)[i]) {
        if (!binding.second) continue;
        line += (line.empty() ? "{" : ", ") + Json(binding.first) + ": {\"type\": \"" +
                KindName(binding.second->Type()) +
                "\", \"value\": " + Json(binding.second->Value()) + "}";
      }
      std::cout << (line.empty() ? "{}" : line + "}") << '\n';
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Globals globals;
  if (argc >= 3 && std::strcmp(argv[1], "convert") == 0 && argc <= 4)
    return Convert(argv[2], argc == 4 ? argv[3] : "ntriples");
  if (argc == 4 && std::strcmp(argv[1], "query") == 0) return Query(argv[2], argv[3]);
  return Usage();
}
