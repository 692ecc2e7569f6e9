// One run of a compiled query: librdf's results, with what they read from kept alive.
#ifndef VESKAN_RDF_QUERYRUN_H
#define VESKAN_RDF_QUERYRUN_H

#include <veskan/RDFQuery.h>

#include "rdf/Redland.h"

#include <memory>

namespace Veskan {

class RDF::Results::Run {
 public:
  Run(std::shared_ptr<librdf_query> compiled, std::shared_ptr<Graph> read,
      librdf_query_results* produced)
      : query(std::move(compiled)), graph(std::move(read)), results(produced) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  // The results go first: they read from the query and the graph's model.
  ~Run() {
    Detail::WorldLock lock = Detail::LockWorld();
    again.reset();
    results.reset();
    query.reset();
    graph.reset();
  }

  std::shared_ptr<librdf_query> query;
  std::shared_ptr<Graph> graph;
  Detail::ResultsPtr results;
  Detail::ResultsPtr again;  // a second run, when the first one's results have been read
};

}  // namespace Veskan

#endif
