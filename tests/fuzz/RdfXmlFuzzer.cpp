// Fuzzes reading RDF/XML into graphs: the screen before raptor, raptor itself, and the promise
// that a text with any error adds nothing.
#include <veskan/RDFGraph.h>

#include "FuzzInput.h"

using namespace Veskan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Globals globals;
  static const ByteBuffer seed = UTF16to8(
      u"<rdf:RDF xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#' xmlns:v='http://x/'>"
      u"<rdf:Description rdf:about='http://x/s'><v:p>o</v:p></rdf:Description></rdf:RDF>");
  RDF::Graph graph;
  Fuzzing::Require(graph.Add(seed) == 1 && graph.Size() == 1);
  const ByteBuffer text(data, 0, static_cast<int>(size));
  const int before = graph.Size();
  if (graph.Add(text) == 0) Fuzzing::Require(graph.Size() == before);
  // Whatever was read can be written and copied whole.
  const StringBuffer written = graph.Serialize(RDF::Graph::SerializationFormats::NTriples);
  RDF::Graph copy(graph);
  Fuzzing::Require(copy.Size() == graph.Size() && !written.isEmpty());
  return 0;
}
