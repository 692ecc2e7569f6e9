// Helpers: process-level services for the library's host programs.
#ifndef VESKAN_HELPERS_H
#define VESKAN_HELPERS_H

#include <veskan/Export.h>

namespace Veskan {

class VESKAN_API Helpers {
 public:
  // Destroys the host's last Globals with the platform clean-up flag set to `cleanup` for the
  // duration, so that with `cleanup` true Xerces, the XPath engine, librdf and ICU are really
  // torn down.
  //
  // `object` is the address of heap storage (made with `new Globals*`) that holds a pointer to a
  // Globals made with `new` (or to an object of a class derived from it). The Globals is deleted
  // through its virtual destructor, the flag is cleared, the stored pointer is set to null and the
  // storage is deleted. A null `object` or a null stored pointer deletes nothing more.
  //
  // Thread safety: the flag holds for the calling thread only, so a Globals that another thread
  // destroys meanwhile never tears the libraries down because of it.
  static void PlatformSpecificCleanup(void* object, bool cleanup);
};

}  // namespace Veskan

#endif
