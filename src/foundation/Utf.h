// UTF-8 helpers shared by the foundation sources.
#ifndef VESKAN_FOUNDATION_UTF_H
#define VESKAN_FOUNDATION_UTF_H

#include <unicode/unistr.h>

#include <cstdint>
#include <string>

namespace Veskan {
namespace Detail {

// `length` UTF-8 bytes of `source` decoded into `target` in a single pass. Returns false, leaving
// `target` empty, for ill-formed UTF-8 or when memory runs out.
bool DecodeUtf8(const char* source, std::int32_t length, icu::UnicodeString& target);

// The UTF-8 form of `length` code units of `source`, or an empty string when they are not
// well-formed UTF-16.
std::string EncodeUtf8(const char16_t* source, std::int32_t length);
std::string EncodeUtf8(const icu::UnicodeString& source);

// A file-system path as the system takes it (UTF-8); null gives "".
std::string PathToNative(const char16_t* path);

}  // namespace Detail
}  // namespace Veskan

#endif
