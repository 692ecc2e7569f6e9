// The library's version and product name.
#include <veskan/Version.h>

#include "VeskanBuildConfig.h"

namespace Veskan {

const char* LibraryVersion() {
  return VESKAN_VERSION_STRING;
}

const char16_t* ProductName() {
  return VESKAN_PRODUCT_NAME;
}

}  // namespace Veskan
