// Fuzzes printing header blocks into growing and fixed-size buffers. Whatever the names and
// values hold, the block is one "token: value" line per header that can be written, and nothing
// else before its empty line: no stored text adds a line or ends the block.
#include <veskan/Header.h>

#include "FuzzInput.h"

#include <cstring>
#include <string>

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

  int writable = 0;
  for (const Header& header : headers) {
    const StringBuffer& name = header.Name;
    bool token = !name.isEmpty();
    for (int i = 0; i < name.length(); ++i) {
      const char16_t c = name.charAt(i);
      token = token && c < 0x80 && c > 0x20 && std::strchr("\"(),/:;<=>?@[\\]{}", c) == nullptr &&
              c != 0x7F;
    }
    // No control but HTAB, and every surrogate in a pair (else there is no UTF-8 form).
    bool clean = true;
    for (int i = 0; i < header.Value.length(); ++i) {
      const char16_t c = header.Value.charAt(i);
      clean = clean && (c == u'\t' || (c >= 0x20 && c != 0x7F));
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < header.Value.length() &&
          header.Value.charAt(i + 1) >= 0xDC00 && header.Value.charAt(i + 1) <= 0xDFFF) {
        ++i;
      } else {
        clean = clean && (c < 0xD800 || c > 0xDFFF);
      }
    }
    writable += token && clean ? 1 : 0;
  }
  // Lines of the block: each ends in CR LF, holds no other CR or LF, and has a token before ": ".
  const std::string block(reinterpret_cast<const char*>(grown.Data()) + offset,
                          static_cast<std::size_t>(total));
  int lines = 0;
  for (std::size_t start = 0; start + 2 < block.size(); ++lines) {
    const std::size_t end = block.find("\r\n", start);
    Fuzzing::Require(end != std::string::npos);
    const std::string line = block.substr(start, end - start);
    Fuzzing::Require(line.find_first_of("\r\n") == std::string::npos);
    const std::size_t colon = line.find(": ");
    Fuzzing::Require(colon != std::string::npos && colon > 0 &&
                     line.find_first_of(" \t:", 0) == colon);
    start = end + 2;
  }
  Fuzzing::Require(lines == writable);

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
