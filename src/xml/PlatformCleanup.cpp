// Helpers::PlatformSpecificCleanup: the only way to really tear the XML and RDF libraries down.
// (The other Helpers live with the host integration.)
#include "xml/PlatformCleanup.h"

#include <veskan/Globals.h>
#include <veskan/Helpers.h>

#include <atomic>

namespace Veskan {

namespace {

std::atomic<bool> platformCleanup{false};

}  // namespace

namespace Detail {

bool PlatformCleanupRequested() {
  return platformCleanup.load();
}

}  // namespace Detail

void Helpers::PlatformSpecificCleanup(void* object, bool cleanup) {
  Globals** slot = static_cast<Globals**>(object);
  platformCleanup.store(cleanup);
  if (slot) delete *slot;
  platformCleanup.store(false);
  if (slot) {
    *slot = nullptr;
    delete slot;
  }
}

}  // namespace Veskan
