// Fuzzes printing header blocks into growing and fixed-size buffers.
#include <veskan/Header.h>

#include "FuzzInput.h"

#include <cstring>

using namespace Veskan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const int offset = data[0] % 16;
  const int fixedSize = data[1];
  const std::vector<StringBuffer> texts = Fuzzing::Texts(data + 2, size - 2);
  Header::Collection headers;
  for (std::size_t i = 0; i + 1 < texts.size(); i += 2)
    headers.Add(Header(texts[i], texts[i + 1]));

  ByteBuffer grown(offset);
  const int total = headers.Write(grown, offset, true);
  Fuzzing::Require(total >= 2 && grown.Size() == offset + total);
  Fuzzing::Require(std::memcmp(grown.Data() + grown.Size() - 2, "\r\n", 2) == 0);
  Fuzzing::Require(grown[grown.Size()] == 0);

  // Without growing, what fits is written and it is a prefix of the grown block, unless a line
  // was cut short (then later lines move up).
  ByteBuffer fixed(fixedSize);
  const int written = headers.Write(fixed, offset, false);
  Fuzzing::Require(fixed.Size() == fixedSize);
  Fuzzing::Require(written >= 0 && written <= total && written <= std::max(0, fixedSize - offset));
  if (fixedSize >= offset + total) {
    Fuzzing::Require(written == total);
    Fuzzing::Require(std::memcmp(fixed.Data() + offset, grown.Data() + offset,
                                 static_cast<std::size_t>(total)) == 0);
  }
  return 0;
}
