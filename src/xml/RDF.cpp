// RDF: the librdf world's lifetime, counted over the living RDF objects.
#include <veskan/RDF.h>

#include "rdf/Redland.h"
#include "xml/LifeCount.h"

#include <librdf.h>

#include <mutex>

namespace Veskan {

librdf_world* RDF::world = nullptr;
std::atomic<std::int32_t> RDF::initcount{0};
std::recursive_mutex RDF::worldMutex;

namespace {

// Serialises the count's changes between 0 and 1 with the creation and freeing of the world.
// Taken inside Globals' own lifecycle mutex when Globals starts or stops. Never destroyed.
std::mutex& Lifecycle() {
  static std::mutex* const lifecycle = new std::mutex;
  return *lifecycle;
}

}  // namespace

RDF::RDF() {
  if (Detail::CountUpWhileHeld(initcount)) return;
  std::lock_guard<std::mutex> lock(Lifecycle());
  if (initcount.load() == 0) {
    // Created before counted: a thread that counts up without the lock finds the world ready.
    world = librdf_new_world();
    if (world) {
      // Before opening: messages of the world's start go to the log, not to stderr.
      Detail::InstallLibrdfLogger(world);
      librdf_world_open(world);
      Detail::InstallRasqalLogger(world);
    }
  }
  initcount.fetch_add(1);
}

RDF::RDF(const RDF&) {}

RDF::~RDF() {
  if (Detail::CountDownWhileOthersHold(initcount)) return;
  std::lock_guard<std::mutex> lock(Lifecycle());
  if (Detail::CountDownLocked(initcount, false) && world) {
    Detail::FreeEmptyModel();
    librdf_free_world(world);
    world = nullptr;
  }
}

}  // namespace Veskan
