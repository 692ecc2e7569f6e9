// RDF: the process's one librdf world, kept alive while any RDF object lives.
#ifndef VESKAN_RDF_H
#define VESKAN_RDF_H

#include <veskan/Export.h>

#include <atomic>
#include <cstdint>
#include <mutex>

// librdf's world, as librdf.h declares it; callers that use it include librdf.h themselves.
typedef struct librdf_world_s librdf_world;

namespace Veskan {

// Counts the living RDF objects: the first one creates and opens the librdf world, the last one
// frees it. Every graph, node and query of the library lives in that world. Globals holds one, so
// a host normally never makes its own.
//
// Copying counts nothing (a copy's destruction still counts down): never copy these objects.
//
// Thread safety: any thread may construct and destroy one. The first construction and the last
// destruction are serialised, so no thread finds the world half created or half freed.
class VESKAN_API RDF {
 public:
  // The librdf world, or null while no RDF object lives or when librdf could not create one.
  static librdf_world* world;
  // Held by every operation that enters librdf, raptor or rasqal: they share the world's state,
  // so one call at a time runs in the process. Recursive, since one operation calls others. A
  // host that calls librdf itself (through the conversion operators) holds it too.
  static std::recursive_mutex worldMutex;

  // The graph classes (<veskan/RDFGraph.h>) and the query classes (<veskan/RDFQuery.h>).
  class Node;
  class Triple;
  class Predicate;
  class Graph;
  class Query;
  class Result;
  class Results;

  // Counts up; on the first count creates the world and, when that worked, opens it.
  RDF();
  // Copies nothing and does not count.
  RDF(const RDF& other);
  RDF& operator=(const RDF&) = default;
  // Counts down; on reaching zero frees the world and sets `world` to null.
  virtual ~RDF();

 protected:
  // The number of living RDF objects (constructions less destructions).
  static std::atomic<std::int32_t> initcount;
};

}  // namespace Veskan

#endif
