// What the parts of the function library share: building results, reading converted arguments
// and walking text by code point.
#ifndef VESKAN_XML_XPATH_XPATHFUNCTIONSUPPORT_H
#define VESKAN_XML_XPATH_XPATHFUNCTIONSUPPORT_H

#include "xml/xpath/XPathEvaluator.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

using Arguments = std::vector<Sequence>;

// maxArguments of a function that takes any number of arguments from minArguments on.
constexpr int AnyNumber = -1;

inline Sequence One(Item item) {
  Sequence result;
  result.push_back(std::move(item));
  return result;
}
inline Sequence OneString(std::u16string text) {
  return One(Item::OfString(std::move(text)));
}
inline Sequence OneBoolean(bool value) {
  return One(Item::OfBoolean(value));
}
inline Sequence OneInteger(std::int64_t value) {
  return One(Item::OfInteger(value));
}
inline Sequence OneDouble(double value) {
  return One(Item::OfDouble(value));
}

// The string of an argument converted to xs:string? (or another string-like type): its one
// item's text, or "" for the empty sequence.
inline std::u16string StringOf(const Sequence& argument) {
  return argument.empty() ? std::u16string() : argument.front().string;
}

// Code points of UTF-16 text; a lone surrogate counts as one character of its own.
std::u32string CodePoints(std::u16string_view text);
void AppendCodePoint(char32_t c, std::u16string& out);
std::u16string FromCodePoints(const std::u32string& text);

// The string-value of the context item, for functions whose argument defaults to it.
std::u16string ContextString(FunctionContext& context);

// The codepoint collation's URI; FOCH0002 for any other collation argument.
constexpr std::u16string_view CodepointCollation =
    u"http://www.w3.org/2005/xpath-functions/collation/codepoint";
void CheckCollation(const Sequence& argument);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
