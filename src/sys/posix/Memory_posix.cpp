// The heap: glibc's malloc_trim, which also returns free pages inside its arenas.
#include "sys/Memory.h"

#include <malloc.h>

namespace Veskan {
namespace Sys {

#if defined(__GLIBC__)
void ReleaseFreeMemory() {
  ::malloc_trim(0);
}
#else
void ReleaseFreeMemory() {}
#endif

}  // namespace Sys
}  // namespace Veskan
