// A look at RDF/XML before raptor reads it, for what raptor would let through.
#ifndef VESKAN_RDF_RDFXMLSCREEN_H
#define VESKAN_RDF_RDFXMLSCREEN_H

#include <cstddef>
#include <string>

namespace Veskan {
namespace Detail {

// Elements nested deeper than this are refused: raptor lifts libxml2's own limit, and its time
// grows with the square of the depth (a minute for 100,000 levels, the world's lock held).
constexpr std::size_t kMaxRdfXmlDepth = 512;

// False, with the reason, for a text whose document type names anything outside it (a SYSTEM or
// PUBLIC identifier: libxml2 under raptor loads external parameter entities whatever raptor's
// options say), whose elements nest deeper than kMaxRdfXmlDepth, or with an element that gives
// one RDF attribute twice (through two prefixes, or with and without one, an undeclared prefix
// counting as none: raptor keeps the last value and leaks the first). Internal entities pass:
// many RDF/XML files name their namespaces with them, and libxml2 refuses expansion bombs
// itself. Anything malformed is left for the parser to report.
bool ScreenRdfXml(const char* text, std::size_t length, std::string& reason);

}  // namespace Detail
}  // namespace Veskan

#endif
