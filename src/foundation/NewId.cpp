// Fresh identifiers for multipart boundaries, graph stores and documents.
#include <veskan/StringBuffer.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>

namespace Veskan {

StringBuffer NewId(const char16_t* prefix) {
  // One generator per thread: it holds the source of randomness, and is not thread-safe.
  thread_local boost::uuids::random_generator generator;
  const boost::uuids::uuid id = generator();

  // The 128 bits as a stream, most significant bit of each byte first, in groups of five: 25
  // digits of 0-9 and A-V; the 3 bits left over are dropped.
  static const char16_t Digits[] = u"0123456789ABCDEFGHIJKLMNOPQRSTUV";
  char16_t text[26];
  unsigned bits = 0;
  int bitCount = 0;
  int written = 0;
  for (const unsigned char byte : id) {
    bits = (bits << 8) | byte;
    bitCount += 8;
    while (bitCount >= 5) {
      bitCount -= 5;
      text[written++] = Digits[(bits >> bitCount) & 0x1F];
    }
  }
  text[written] = 0;
  StringBuffer result(prefix);
  result += text;
  return result;
}

}  // namespace Veskan
