// RDF: the librdf world's lifetime, counted over the living RDF objects.
#include <veskan/RDF.h>

#include <librdf.h>

namespace Veskan {

librdf_world* RDF::world = nullptr;
std::atomic<std::int32_t> RDF::initcount{0};

RDF::RDF() {
  if (initcount.fetch_add(1) + 1 == 1) {
    world = librdf_new_world();
    if (world) librdf_world_open(world);
  }
}

RDF::RDF(const RDF&) {}

RDF::~RDF() {
  if (initcount.fetch_sub(1) - 1 == 0 && world) {
    librdf_free_world(world);
    world = nullptr;
  }
}

}  // namespace Veskan
