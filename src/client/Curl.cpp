#include "client/Curl.h"

#include <mutex>
#include <stdexcept>

namespace Veskan {
namespace Detail {

void StartCurl() {
  static std::once_flag started;
  std::call_once(started, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
      throw std::runtime_error("libcurl could not be started");
  });
}

}  // namespace Detail
}  // namespace Veskan
