#include "rdf/RdfXmlScreen.h"

#include <cstring>

namespace Veskan {
namespace Detail {

namespace {

class Scanner {
 public:
  Scanner(const char* text, std::size_t length) : text_(text), length_(length) {}

  bool At(std::size_t position, const char* literal) const {
    const std::size_t size = std::strlen(literal);
    return position + size <= length_ && std::memcmp(text_ + position, literal, size) == 0;
  }
  // The position just past the next `end` from `position`, or the length when there is none.
  std::size_t Past(std::size_t position, const char* end) const {
    const std::size_t size = std::strlen(end);
    for (; position + size <= length_; ++position)
      if (std::memcmp(text_ + position, end, size) == 0) return position + size;
    return length_;
  }
  // The position of the '>' ending the markup that starts at `position`, quoted values skipped.
  std::size_t TagEnd(std::size_t position) const {
    char quote = 0;
    for (; position < length_; ++position) {
      const char c = text_[position];
      if (quote) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '>') {
        break;
      }
    }
    return position;
  }
  bool IsNameChar(std::size_t position) const {
    if (position >= length_) return false;
    const char c = text_[position];
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.' || c == ':' || static_cast<unsigned char>(c) >= 0x80;
  }
  // Whether the document type starting at `position` names an external identifier; `end` is set
  // past it.
  bool DoctypeIsExternal(std::size_t position, std::size_t& end) const {
    int brackets = 0;
    char quote = 0;
    for (position += 9; position < length_; ++position) {  // past "<!DOCTYPE"
      const char c = text_[position];
      if (quote) {
        if (c == quote) quote = 0;
      } else if (At(position, "<!--")) {
        position = Past(position + 4, "-->") - 1;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '[') {
        ++brackets;
      } else if (c == ']') {
        --brackets;
      } else if (c == '>' && brackets <= 0) {
        end = position + 1;
        return false;
      } else if ((At(position, "SYSTEM") || At(position, "PUBLIC")) && !IsNameChar(position - 1) &&
                 !IsNameChar(position + 6)) {
        return true;
      }
    }
    end = length_;
    return false;
  }

 private:
  const char* text_;
  std::size_t length_;
};

}  // namespace

bool ScreenRdfXml(const char* text, std::size_t length, std::string& reason) {
  const Scanner scan(text, length);
  std::size_t depth = 0;
  std::size_t at = 0;
  while (at < length) {
    const void* open = std::memchr(text + at, '<', length - at);
    if (!open) break;
    at = static_cast<std::size_t>(static_cast<const char*>(open) - text);
    if (scan.At(at, "<!--")) {
      at = scan.Past(at + 4, "-->");
    } else if (scan.At(at, "<![CDATA[")) {
      at = scan.Past(at + 9, "]]>");
    } else if (scan.At(at, "<?")) {
      at = scan.Past(at + 2, "?>");
    } else if (scan.At(at, "<!DOCTYPE")) {
      if (scan.DoctypeIsExternal(at, at)) {
        reason = "its document type names an external entity or DTD";
        return false;
      }
    } else if (scan.At(at, "</")) {
      if (depth > 0) --depth;
      at = scan.Past(at + 2, ">");
    } else {
      const std::size_t end = scan.TagEnd(at + 1);
      if (end >= length) break;
      if (text[end - 1] != '/' && ++depth > kMaxRdfXmlDepth) {
        reason = "its elements nest deeper than " + std::to_string(kMaxRdfXmlDepth);
        return false;
      }
      at = end + 1;
    }
  }
  return true;
}

}  // namespace Detail
}  // namespace Veskan
