// Small text helpers of the HTTP reader and writer.
#ifndef VESKAN_NET_HTTPTEXT_H
#define VESKAN_NET_HTTPTEXT_H

#include <veskan/StringBuffer.h>

namespace Veskan {
namespace Detail {

// Compares without regard to ASCII case, as HTTP compares field names and tokens such as "close"
// (RFC 7230 sections 3.2 and 6.1); other characters must match exactly.
inline bool EqualsIgnoringAsciiCase(const StringBuffer& text, const char16_t* other) {
  const char16_t* units = text.getBuffer();
  int length = text.length();
  auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c + 32) : c; };
  for (int i = 0; i < length; ++i) {
    if (other[i] == 0 || lower(units[i]) != lower(other[i])) return false;
  }
  return other[length] == 0;
}

}  // namespace Detail
}  // namespace Veskan

#endif
