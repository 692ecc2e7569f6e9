// Turning a fuzzer's bytes into the library's inputs.
#ifndef VESKAN_TESTS_FUZZINPUT_H
#define VESKAN_TESTS_FUZZINPUT_H

#include <veskan/StringBuffer.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace Veskan {
namespace Fuzzing {

// Pairs of bytes as UTF-16 units, so that every unit (unpaired surrogates and NUL included) can
// be reached; an odd last byte becomes a unit of its own.
inline StringBuffer Utf16(const std::uint8_t* data, std::size_t size) {
  std::vector<char16_t> units;
  units.reserve(size / 2 + 1);
  for (std::size_t i = 0; i < size; i += 2) {
    units.push_back(static_cast<char16_t>(data[i] | (i + 1 < size ? data[i + 1] << 8 : 0)));
  }
  return StringBuffer(units.data(), static_cast<int>(units.size()));
}

// The input split at every byte 0xFF into UTF-16 texts.
inline std::vector<StringBuffer> Texts(const std::uint8_t* data, std::size_t size) {
  std::vector<StringBuffer> texts;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == 0xFF) {
      texts.push_back(Utf16(data + start, i - start));
      start = i + 1;
    }
  }
  return texts;
}

// Stops the run when a property that must always hold does not.
inline void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace Fuzzing
}  // namespace Veskan

#endif
