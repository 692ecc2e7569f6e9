// The library's version and product name.
#ifndef VESKAN_VERSION_H
#define VESKAN_VERSION_H

#include <veskan/Export.h>

namespace Veskan {

// The version of the linked library as "MAJOR.MINOR.PATCH".
VESKAN_API const char* LibraryVersion();

// The product name compiled into the library ("Veskan"), used where programs name themselves
// (event sources, window titles, the settings store).
VESKAN_API const char16_t* ProductName();

}  // namespace Veskan

#endif
