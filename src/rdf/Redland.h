// What the graph and query classes share over librdf: the world's lock, one owner for every
// librdf object, UTF-8 conversions, and the count of errors librdf reports during an operation.
#ifndef VESKAN_RDF_REDLAND_H
#define VESKAN_RDF_REDLAND_H

#include <veskan/RDF.h>
#include <veskan/StringBuffer.h>

#include <librdf.h>

#include <memory>
#include <mutex>
#include <string>

namespace Veskan {
namespace Detail {

using WorldLock = std::unique_lock<std::recursive_mutex>;
inline WorldLock LockWorld() {
  return WorldLock(RDF::worldMutex);
}

// Owners of librdf objects: each frees its object with librdf's own function.
template <typename T, void (*Free)(T*)>
struct LibrdfDeleter {
  void operator()(T* object) const {
    if (object) Free(object);
  }
};
template <typename T, void (*Free)(T*)>
using LibrdfPtr = std::unique_ptr<T, LibrdfDeleter<T, Free>>;

using UriPtr = LibrdfPtr<librdf_uri, librdf_free_uri>;
using NodePtr = LibrdfPtr<librdf_node, librdf_free_node>;
using StatementPtr = LibrdfPtr<librdf_statement, librdf_free_statement>;
using StreamPtr = LibrdfPtr<librdf_stream, librdf_free_stream>;
using IteratorPtr = LibrdfPtr<librdf_iterator, librdf_free_iterator>;
using ParserPtr = LibrdfPtr<librdf_parser, librdf_free_parser>;
using SerializerPtr = LibrdfPtr<librdf_serializer, librdf_free_serializer>;
using QueryPtr = LibrdfPtr<librdf_query, librdf_free_query>;
using ResultsPtr = LibrdfPtr<librdf_query_results, librdf_free_query_results>;
void FreeLibrdfMemory(unsigned char* text);
using LibrdfText = LibrdfPtr<unsigned char, FreeLibrdfMemory>;

inline const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}
// librdf's UTF-8 as a StringBuffer (null: empty).
StringBuffer FromUtf8(const unsigned char* text);
StringBuffer FromUtf8(const unsigned char* text, std::size_t length);

// A model without statements, made on first use and kept until FreeEmptyModel, which the world's
// owner calls before freeing the world: running a query on it makes librdf parse the query.
// Hold the world's lock.
librdf_model* EmptyModel();
void FreeEmptyModel();

// A new URI in the world, null when librdf refuses the text.
UriPtr NewUri(const std::string& text);

// Counts the errors librdf, raptor and rasqal report on this thread while it lives; each is
// written to the log at Debug level. Hold the world's lock while one lives.
class LibrdfErrors {
 public:
  LibrdfErrors();
  LibrdfErrors(const LibrdfErrors&) = delete;
  LibrdfErrors& operator=(const LibrdfErrors&) = delete;
  ~LibrdfErrors();
  int Count() const { return count_; }
  // Counts an error in the thread's innermost counter, if any, and writes the message to the log.
  static void Report(bool error, const char* text);

 private:
  int count_ = 0;
  LibrdfErrors* outer_;
};

// Route the world's messages, and those of its rasqal world, to the counters above and the log:
// the first before the world is opened, the second after (rasqal's world is made then).
void InstallLibrdfLogger(librdf_world* world);
void InstallRasqalLogger(librdf_world* world);

}  // namespace Detail
}  // namespace Veskan

#endif
