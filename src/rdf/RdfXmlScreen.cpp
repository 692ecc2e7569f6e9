#include "rdf/RdfXmlScreen.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>
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

// Finds start tags that give raptor one RDF term twice. raptor takes a term from an attribute
// without a prefix, with a prefix it does not know, and with one bound to the RDF namespace; a
// binding whose value may spell that namespace (an entity or character reference) counts as
// one. A false alarm refuses an odd document; a miss leaks.
class RepeatedRdfAttributes {
 public:
  // The term that the start tag `tag` (from its name to its '>', or to the end of an unfinished
  // text) gives twice, or empty. libxml2 hands raptor what it could read of a malformed tag, so
  // a malformed attribute is stepped over, not taken as the tag's end. The tag's bindings hold
  // until the matching Close, or only for the tag itself when `empty` (it ends with "/>").
  std::string_view Open(std::string_view tag, bool empty) {
    marks_.push_back(bound_.size());
    attributes_.clear();
    std::size_t at = SkipToken(tag, 0);  // the element's name
    while (at < tag.size()) {
      at = SkipSpace(tag, at);
      const std::size_t nameStart = at;
      while (at < tag.size() && !IsSpace(tag[at]) && tag[at] != '=' && tag[at] != '/')
        ++at;
      const std::string_view name = tag.substr(nameStart, at - nameStart);
      at = SkipSpace(tag, at);
      if (name.empty() || at >= tag.size() || tag[at] != '=') {
        at = SkipToken(tag, at + 1);
        continue;
      }
      at = SkipSpace(tag, at + 1);
      std::string_view value;
      if (at < tag.size() && (tag[at] == '"' || tag[at] == '\'')) {
        const std::size_t valueEnd = std::min(tag.find(tag[at], at + 1), tag.size());
        value = tag.substr(at + 1, valueEnd - at - 1);
        at = valueEnd + 1;
      } else {
        const std::size_t valueStart = at;
        at = SkipToken(tag, at);
        value = tag.substr(valueStart, at - valueStart);
      }
      attributes_.push_back(name);
      if (name.substr(0, 6) == "xmlns:") {
        bound_.push_back(name.substr(6));
        bindings_[bound_.back()].push_back(value.find("rdf-syntax-ns") != std::string_view::npos ||
                                           value.find('&') != std::string_view::npos);
      }
    }
    const std::string_view term = FindRepeatedTerm();
    if (empty) Close();
    return term;
  }

  // Ends the scope of the innermost open tag's bindings.
  void Close() {
    if (marks_.empty()) return;
    for (; bound_.size() > marks_.back(); bound_.pop_back()) {
      std::vector<bool>& values = bindings_[bound_.back()];
      values.pop_back();
      if (values.empty()) bindings_.erase(bound_.back());
    }
    marks_.pop_back();
  }

 private:
  std::string_view FindRepeatedTerm() {
    terms_.clear();
    for (std::string_view name : attributes_) {
      if (name.substr(0, 3) == "xml") continue;  // raptor takes these out first
      const std::size_t colon = name.find(':');
      const std::string_view term = colon == std::string_view::npos ? name : name.substr(colon + 1);
      if (!IsRdfAttributeTerm(term)) continue;
      if (colon != std::string_view::npos) {
        const auto binding = bindings_.find(name.substr(0, colon));
        if (binding != bindings_.end() && !binding->second.back()) continue;
      }
      if (std::find(terms_.begin(), terms_.end(), term) != terms_.end()) return term;
      terms_.push_back(term);
    }
    return {};
  }

  static std::size_t SkipSpace(std::string_view tag, std::size_t at) {
    while (at < tag.size() && IsSpace(tag[at]))
      ++at;
    return at;
  }
  static std::size_t SkipToken(std::string_view tag, std::size_t at) {
    while (at < tag.size() && !IsSpace(tag[at]))
      ++at;
    return at;
  }

  std::vector<std::string_view> attributes_;  // the current tag's names
  std::vector<std::string_view> terms_;       // at most one of each RDF term
  // Each prefix's bindings in scope, innermost last (true: may be the RDF namespace); the
  // prefixes bound by the open tags, in order; where each open tag's bindings begin in those.
  std::unordered_map<std::string_view, std::vector<bool>> bindings_;
  std::vector<std::string_view> bound_;
  std::vector<std::size_t> marks_;
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
      repeated.Close();
      at = scan.Past(at + 2, ">");
    } else {
      const std::size_t end = scan.TagEnd(at + 1);
      const bool empty = end < length && text[end - 1] == '/';
      const std::string_view term =
          repeated.Open(std::string_view(text + at + 1, end - at - 1), empty);
      if (!term.empty()) {
        reason = "an element gives the RDF attribute '" + std::string(term) + "' twice";
        return false;
      }
      if (end >= length) break;
      if (!empty && ++depth > kMaxRdfXmlDepth) {
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
