// Helpers::PlatformSpecificCleanup: the only way to really tear the XML and RDF libraries down.
// (The other Helpers live with the host integration.)
#include "xml/PlatformCleanup.h"

#include <veskan/Globals.h>
#include <veskan/Helpers.h>

namespace Veskan {

namespace {

// Set only while PlatformSpecificCleanup destroys its object, and only for the thread that called
// it: a Globals that another thread happens to destroy at the same time (an operation's own, a
// document's) neither tears the libraries down under that thread's feet nor clears the flag that
// another clean-up is relying on.
thread_local bool platformCleanup = false;

}  // namespace

namespace Detail {

bool PlatformCleanupRequested() {
  return platformCleanup;
}

}  // namespace Detail

void Helpers::PlatformSpecificCleanup(void* object, bool cleanup) {
  Globals** slot = static_cast<Globals**>(object);
  platformCleanup = cleanup;
  if (slot) delete *slot;
  platformCleanup = false;
  if (slot) {
    *slot = nullptr;
    delete slot;
  }
}

}  // namespace Veskan
