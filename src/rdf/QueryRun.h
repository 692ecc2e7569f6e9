// One run of a compiled query: librdf's results, with what they read from kept alive.
#ifndef VESKAN_RDF_QUERYRUN_H
#define VESKAN_RDF_QUERYRUN_H

#include <veskan/RDFQuery.h>

#include "rdf/Redland.h"

#include <memory>
#include <string>

namespace Veskan {
namespace Detail {

// A query librdf has not parsed yet (it parses on the first run); freed under the world's lock.
// Null when librdf refuses the language.
std::shared_ptr<librdf_query> NewQuery(const char* language, const std::string& utf8);

}  // namespace Detail

class RDF::Results::Run {
 public:
  // `text` is the query's text when its parse cannot run a second time, else empty.
  Run(std::shared_ptr<librdf_query> compiled, std::shared_ptr<Graph> read,
      librdf_query_results* produced, std::string text)
      : query(std::move(compiled)),
        graph(std::move(read)),
        results(produced),
        onceOnly(std::move(text)) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  // Results go first: they read from their query and the graph's model.
  ~Run() {
    Detail::WorldLock lock = Detail::LockWorld();
    again.reset();
    againQuery.reset();
    results.reset();
    query.reset();
    graph.reset();
  }

  // Runs the query once more on the graph (librdf cannot rewind rows and truth values); the
  // results are `again`. Null when librdf gives none.
  librdf_query_results* RunAgain() {
    Detail::WorldLock lock = Detail::LockWorld();
    again.reset();
    againQuery =
        onceOnly.empty()
            ? query
            : Detail::NewQuery(Query::Languages::ToName(Query::Languages::SPARQL), onceOnly);
    if (againQuery) again.reset(librdf_query_execute(againQuery.get(), *graph));
    return again.get();
  }

  std::shared_ptr<librdf_query> query;
  std::shared_ptr<Graph> graph;
  Detail::ResultsPtr results;
  std::string onceOnly;
  std::shared_ptr<librdf_query> againQuery;
  Detail::ResultsPtr again;
};

}  // namespace Veskan

#endif
