// Error numbers and texts on POSIX: errno and the C library's descriptions.
#include "sys/SystemError.h"

#include "VeskanBuildConfig.h"

#include <cerrno>
#include <cstring>

namespace Veskan {
namespace Sys {

namespace {

constexpr const char* UnknownErrorText = "An unknown error occured.";

#if VESKAN_HAVE_STRERRORDESC_NP
// glibc tells known errors from unknown ones directly.
std::string DescribeError(int code) {
  const char* text = strerrordesc_np(code);
  return text ? std::string(text) : std::string(UnknownErrorText);
}
#else
// The GNU strerror_r returns its text; the XSI one fills the buffer and returns a status.
const char* StrerrorResult(const char* returned, const char*) {
  return returned;
}
const char* StrerrorResult(int, const char* buffer) {
  return buffer;
}

// Elsewhere an unknown number comes back as "Unknown error N".
std::string DescribeError(int code) {
  char buffer[256] = {};
  const char* text = StrerrorResult(strerror_r(code, buffer, sizeof buffer), buffer);
  if (!text || !*text || std::strncmp(text, "Unknown error", 13) == 0) return UnknownErrorText;
  return text;
}
#endif

}  // namespace

int LastError() {
  return errno;
}

std::string ErrorText(int code) {
  return DescribeError(code);
}

int InvalidArgumentError() {
  return EINVAL;
}

int AccessDeniedError() {
  return EACCES;
}

}  // namespace Sys
}  // namespace Veskan
