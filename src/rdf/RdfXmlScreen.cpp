#include "rdf/RdfXmlScreen.h"

#include <cstring>
#include <string_view>
#include <vector>

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

// The RDF terms raptor takes from an element's attributes, prefixed or not, keeping one value
// per term: a second attribute for the same term overwrites the first, whose copy it never frees.
constexpr std::string_view kRdfAttributeTerms[] = {
    "RDF",  "Description", "li",         "about",        "aboutEach", "aboutEachPrefix",
    "ID",   "bagID",       "resource",   "parseType",    "nodeID",    "datatype",
    "type", "value",       "subject",    "predicate",    "object",    "first",
    "rest", "Seq",         "Bag",        "Alt",          "Statement", "Property",
    "List", "nil",         "XMLLiteral", "PlainLiteral", "HTML",      "langString"};

bool IsRdfAttributeTerm(std::string_view name) {
  for (std::string_view term : kRdfAttributeTerms)
    if (name == term) return true;
  return false;
}

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Finds start tags that give raptor one RDF term twice. Prefixes are gathered from every
// declaration seen so far, unscoped, and a declaration whose value may spell the RDF namespace
// (an entity or character reference) counts: a false alarm refuses an odd document, a miss leaks.
class RepeatedRdfAttributes {
 public:
  // The term that the start tag `tag` (between '<' and '>') gives twice, or empty. Malformed
  // attributes end the look; the parser reports them.
  std::string_view Find(std::string_view tag) {
    attributes_.clear();
    std::size_t at = 0;
    while (at < tag.size() && !IsSpace(tag[at]))
      ++at;  // the element's name
    for (;;) {
      while (at < tag.size() && IsSpace(tag[at]))
        ++at;
      const std::size_t nameStart = at;
      while (at < tag.size() && !IsSpace(tag[at]) && tag[at] != '=' && tag[at] != '/')
        ++at;
      const std::string_view name = tag.substr(nameStart, at - nameStart);
      while (at < tag.size() && IsSpace(tag[at]))
        ++at;
      if (name.empty() || at + 1 >= tag.size() || tag[at] != '=') break;
      ++at;
      while (at < tag.size() && IsSpace(tag[at]))
        ++at;
      if (at >= tag.size() || (tag[at] != '"' && tag[at] != '\'')) break;
      const std::size_t valueEnd = tag.find(tag[at], at + 1);
      if (valueEnd == std::string_view::npos) break;
      const std::string_view value = tag.substr(at + 1, valueEnd - at - 1);
      at = valueEnd + 1;
      attributes_.push_back(name);
      if (name.substr(0, 6) == "xmlns:" && (value.find("rdf-syntax-ns") != std::string_view::npos ||
                                            value.find('&') != std::string_view::npos))
        rdfPrefixes_.push_back(name.substr(6));
    }
    terms_.clear();
    for (std::string_view name : attributes_) {
      if (name.substr(0, 3) == "xml") continue;  // raptor takes these out first
      const std::size_t colon = name.find(':');
      const std::string_view term = colon == std::string_view::npos ? name : name.substr(colon + 1);
      if (!IsRdfAttributeTerm(term) ||
          (colon != std::string_view::npos && !IsRdfPrefix(name.substr(0, colon))))
        continue;
      for (std::string_view seen : terms_)
        if (seen == term) return term;
      terms_.push_back(term);
    }
    return {};
  }

 private:
  bool IsRdfPrefix(std::string_view prefix) const {
    for (std::string_view known : rdfPrefixes_)
      if (known == prefix) return true;
    return false;
  }

  std::vector<std::string_view> attributes_;
  std::vector<std::string_view> terms_;
  std::vector<std::string_view> rdfPrefixes_;
};

}  // namespace

bool ScreenRdfXml(const char* text, std::size_t length, std::string& reason) {
  const Scanner scan(text, length);
  RepeatedRdfAttributes repeated;
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
      const std::string_view term = repeated.Find(std::string_view(text + at + 1, end - at - 1));
      if (!term.empty()) {
        reason = "an element gives the RDF attribute '" + std::string(term) + "' twice";
        return false;
      }
      at = end + 1;
    }
  }
  return true;
}

}  // namespace Detail
}  // namespace Veskan
