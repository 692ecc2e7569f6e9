// The function library of the XPath engine: the XPath 1.0 core functions and the XPath 2.0
// string, sequence and number functions, run in XPath 1.0 compatibility mode (numbers are
// doubles; a string or number parameter takes the first item of its argument).
#include "xml/xpath/XPathEvaluator.h"

#include "xml/xpath/XPathNodes.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <system_error>
#include <unordered_set>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

using xercesc::DOMNode;
using Arguments = std::vector<Sequence>;

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

// ---- Small helpers

Sequence One(Item item) {
  Sequence result;
  result.push_back(std::move(item));
  return result;
}
Sequence OneString(std::u16string text) {
  return One(Item::OfString(std::move(text)));
}
Sequence OneNumber(double value) {
  return One(Item::OfNumber(value));
}
Sequence OneBoolean(bool value) {
  return One(Item::OfBoolean(value));
}

std::u16string StringArgument(const Arguments& arguments, std::size_t index) {
  return index < arguments.size() ? ToString(arguments[index]) : std::u16string();
}

double NumberArgument(const Arguments& arguments, std::size_t index) {
  return ToNumber(arguments[index]);
}

// The context item as the implicit argument of string(), string-length() and the like.
const Item& ContextItemOf(FunctionContext& context) {
  const Item* item = context.ContextItem();
  if (!item) context.ContextNode();  // throws: there is no context item
  return *item;
}

std::u16string StringOrContext(FunctionContext& context, const Arguments& arguments) {
  return arguments.empty() ? ToString(ContextItemOf(context)) : ToString(arguments[0]);
}

// The node a function with an optional node argument works on: the first item of the argument,
// or the context node without one. Null for an empty argument.
DOMNode* NodeOrContext(FunctionContext& context, const Arguments& arguments,
                       std::u16string_view function) {
  if (arguments.empty()) return context.ContextNode();
  if (arguments[0].empty()) return nullptr;
  const Item& item = arguments[0].front();
  if (!item.IsNode()) {
    ThrowTypeError(u"XPTY0004",
                   u"The argument of " + std::u16string(function) + u"() must be a node.");
  }
  return item.node;
}

// ---- Code points

bool IsHighSurrogate(char16_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char16_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

// A lone surrogate counts as one character of its own.
std::u32string CodePoints(std::u16string_view text) {
  std::u32string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      out += static_cast<char32_t>(0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00));
      ++i;
    } else {
      out += c;
    }
  }
  return out;
}

void AppendCodePoint(char32_t c, std::u16string& out) {
  if (c >= 0x10000) {
    c -= 0x10000;
    out += static_cast<char16_t>(0xD800 + (c >> 10));
    out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
  } else {
    out += static_cast<char16_t>(c);
  }
}

std::u16string FromCodePoints(const std::u32string& text) {
  std::u16string out;
  out.reserve(text.size());
  for (const char32_t c : text)
    AppendCodePoint(c, out);
  return out;
}

// Code point order of UTF-16 text: surrogates (the supplementary characters) after U+FFFF.
int CompareCodePoints(std::u16string_view a, std::u16string_view b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (a[i] == b[i]) continue;
    auto key = [](char16_t c) -> int {
      if (c < 0xD800) return c;
      return c >= 0xE000 ? c - 0x800 : c + 0x2000;
    };
    return key(a[i]) < key(b[i]) ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

// ---- Numbers

// Nearest integer, halves toward positive infinity; -0 for [-0.5, -0).
double XPathRound(double x) {
  if (std::isnan(x) || std::isinf(x) || x == 0) return x;
  if (x < 0 && x >= -0.5) return -0.0;
  const double below = std::floor(x);
  // Exact for every double: no rounding error in x + 0.5.
  return x - below >= 0.5 ? below + 1 : below;
}

// Rounds to `precision` decimal places, halves to even. Works on the shortest decimal form of
// the double, so that 2.345 rounds as the decimal the reader sees.
double RoundHalfToEven(double x, double precisionValue) {
  if (std::isnan(x) || std::isinf(x) || x == 0) return x;
  const double clamped = std::isnan(precisionValue) ? 0 : std::clamp(precisionValue, -400.0, 400.0);
  const int precision = static_cast<int>(XPathRound(clamped));
  std::string digits;
  int exponent = 0;
  ShortestDigits(x, digits, exponent);
  // Digit i stands for 10^(exponent - i); keep those down to 10^-precision.
  const long keep = static_cast<long>(exponent) + precision + 1;
  if (keep >= static_cast<long>(digits.size())) return x;
  const double sign = x < 0 ? -1 : 1;
  if (keep < 0) return sign * 0.0;
  const auto kept = static_cast<std::size_t>(keep);
  const char first = digits[kept];
  const bool moreAfterFirst = digits.size() > kept + 1;  // shortest digits end in non-zero
  bool up = first > '5' || (first == '5' && moreAfterFirst);
  if (first == '5' && !moreAfterFirst) up = kept > 0 && (digits[kept - 1] - '0') % 2 == 1;
  std::string rounded = digits.substr(0, kept);
  int roundedExponent = exponent;
  if (up) {
    std::size_t i = rounded.size();
    while (i > 0 && rounded[i - 1] == '9')
      rounded[--i] = '0';
    if (i == 0) {
      rounded.insert(rounded.begin(), '1');
      ++roundedExponent;
    } else {
      ++rounded[i - 1];
    }
  }
  if (rounded.empty()) return sign * 0.0;
  const std::string decimal =
      rounded.substr(0, 1) + "." + rounded.substr(1) + "0e" + std::to_string(roundedExponent);
  double value = 0;
  const auto read = std::from_chars(decimal.data(), decimal.data() + decimal.size(), value);
  // Rounding the largest doubles up (1.7976931348623157e308 to 2e308) leaves the range of
  // doubles, and the reader then leaves `value` untouched: give the infinity the rounding reached
  // (or, for a result too close to zero, zero).
  if (read.ec == std::errc::result_out_of_range) {
    return sign * (roundedExponent > 0 ? std::numeric_limits<double>::infinity() : 0.0);
  }
  return sign * value;
}

// ---- Atomic equality (distinct-values, index-of, deep-equal)

// Nodes atomize to their string value.
Item Atomize(const Item& item) {
  return item.IsNode() ? Item::OfString(StringValue(item.node)) : item;
}

// Only items of comparable types are equal; NaN equals NaN.
bool AtomicEqual(const Item& a, const Item& b) {
  if (a.type != b.type) return false;
  switch (a.type) {
    case ItemType::String:
      return a.string == b.string;
    case ItemType::Number:
      return a.number == b.number || (std::isnan(a.number) && std::isnan(b.number));
    case ItemType::Boolean:
      return a.boolean == b.boolean;
    case ItemType::Node:
      return a.node == b.node;
  }
  return false;
}

// ---- Regular expressions

// A compiled pattern with a matcher over the input. The matcher refers to the input and the
// pattern by address: the members are declared so that it goes first, and the whole stays put.
constexpr int32_t RegexStepLimit = 1000;

struct Regex {
  Regex() = default;
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  icu::UnicodeString input;
  std::unique_ptr<icu::RegexPattern> pattern;
  std::unique_ptr<icu::RegexMatcher> matcher;
};

uint32_t RegexFlags(std::u16string_view flags) {
  uint32_t result = 0;
  for (const char16_t c : flags) {
    switch (c) {
      case u's':
        result |= UREGEX_DOTALL;
        break;
      case u'm':
        result |= UREGEX_MULTILINE;
        break;
      case u'i':
        result |= UREGEX_CASE_INSENSITIVE;
        break;
      case u'x':
        result |= UREGEX_COMMENTS;
        break;
      default:
        ThrowInvalidExpression(u"FORX0001", u"Invalid regular expression flags \"" +
                                                std::u16string(flags) +
                                                u"\": only s, m, i and x are allowed.");
    }
  }
  return result;
}

std::unique_ptr<icu::RegexPattern> CompilePattern(const std::u16string& pattern,
                                                  std::u16string_view flags) {
  const uint32_t flagBits = RegexFlags(flags);
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(
      icu::UnicodeString(pattern.data(), static_cast<int32_t>(pattern.size())), flagBits, where,
      status));
  if (U_FAILURE(status) || !compiled) {
    ThrowInvalidExpression(u"FORX0002", u"Invalid regular expression \"" + pattern + u"\": " +
                                            MessageText(u_errorName(status)) + u".");
  }
  return compiled;
}

void MakeRegex(Regex& regex, const std::u16string& pattern, std::u16string_view flags,
               const std::u16string& input) {
  regex.pattern = CompilePattern(pattern, flags);
  regex.input = icu::UnicodeString(input.data(), static_cast<int32_t>(input.size()));
  UErrorCode status = U_ZERO_ERROR;
  regex.matcher.reset(regex.pattern->matcher(regex.input, status));
  // A pattern that backtracks without end ("(a+)+$") must not hold the thread: after this many
  // steps of ICU's match engine (on the order of a second) the match fails.
  if (regex.matcher) regex.matcher->setTimeLimit(RegexStepLimit, status);
  if (U_FAILURE(status) || !regex.matcher) {
    ThrowInvalidExpression(u"FORX0002", u"Cannot match the regular expression \"" + pattern +
                                            u"\": " + MessageText(u_errorName(status)) + u".");
  }
}

// The next match; a match that fails (the step limit, ICU's stack limit) is an error rather
// than a silent "no match".
bool FindNext(Regex& regex, const std::u16string& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  const bool found = regex.matcher->find(status);
  if (U_FAILURE(status)) {
    ThrowInvalidExpression(u"FORX0002", u"The regular expression \"" + pattern +
                                            u"\" could not be matched: " +
                                            MessageText(u_errorName(status)) + u".");
  }
  return found;
}

void RejectEmptyMatch(const Regex& regex, const std::u16string& pattern,
                      std::u16string_view function) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString empty;
  std::unique_ptr<icu::RegexMatcher> probe(regex.pattern->matcher(empty, status));
  if (U_SUCCESS(status) && probe && probe->matches(status) && U_SUCCESS(status)) {
    ThrowInvalidExpression(u"FORX0003", u"The regular expression \"" + pattern + u"\" of " +
                                            std::u16string(function) +
                                            u"() matches the empty string.");
  }
}

std::u16string ToU16(const icu::UnicodeString& text) {
  return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

// ---- XPath 1.0: node sets and names

Sequence Last(FunctionContext& context, Arguments&) {
  return OneNumber(static_cast<double>(context.Size()));
}

Sequence Position(FunctionContext& context, Arguments&) {
  return OneNumber(static_cast<double>(context.Position()));
}

Sequence Count(FunctionContext&, Arguments& arguments) {
  return OneNumber(static_cast<double>(arguments[0].size()));
}

Sequence Id(FunctionContext& context, Arguments& arguments) {
  std::unordered_set<std::u16string> tokens;
  for (const Item& item : arguments[0]) {
    const std::u16string text = ToString(item);
    std::size_t i = 0;
    while (i < text.size()) {
      while (i < text.size() && IsXPathSpace(text[i]))
        ++i;
      const std::size_t start = i;
      while (i < text.size() && !IsXPathSpace(text[i]))
        ++i;
      if (i > start) tokens.insert(text.substr(start, i - start));
    }
  }
  Sequence result;
  if (tokens.empty()) return result;
  const DOMNode* root = context.ContextNode();
  while (const DOMNode* parent = ParentOf(root))
    root = parent;
  // A walk in document order finds each element once.
  DOMNode* node = const_cast<DOMNode*>(root);
  while (node) {
    if (node->getNodeType() == DOMNode::ELEMENT_NODE) {
      const xercesc::DOMNamedNodeMap* attributes = node->getAttributes();
      for (XMLSize_t i = 0, n = attributes ? attributes->getLength() : 0; i < n; ++i) {
        const auto* attribute = static_cast<const xercesc::DOMAttr*>(attributes->item(i));
        const bool isId =
            attribute->isId() || (View(attribute->getNamespaceURI()) == XmlNamespace &&
                                  View(attribute->getLocalName()) == u"id");
        // Of several elements with the same ID, the first one counts.
        if (isId && tokens.erase(std::u16string(View(attribute->getValue()))) > 0) {
          result.push_back(Item::OfNode(node));
          break;
        }
      }
    }
    if (tokens.empty()) break;
    if (DOMNode* child = node->getFirstChild()) {
      node = child;
      continue;
    }
    while (node != root && !node->getNextSibling())
      node = node->getParentNode();
    node = node == root ? nullptr : node->getNextSibling();
  }
  return result;
}

Sequence LocalName(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments, u"local-name");
  if (!node) return OneString(std::u16string());
  switch (node->getNodeType()) {
    case DOMNode::ELEMENT_NODE:
    case DOMNode::ATTRIBUTE_NODE: {
      std::u16string_view local = View(node->getLocalName());
      if (local.empty()) local = View(node->getNodeName());
      if (IsNamespaceDeclaration(node) && local == u"xmlns") local = {};
      return OneString(std::u16string(local));
    }
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return OneString(std::u16string(View(node->getNodeName())));
    default:
      return OneString(std::u16string());
  }
}

Sequence NamespaceUri(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments, u"namespace-uri");
  if (!node || IsNamespaceDeclaration(node)) return OneString(std::u16string());
  const short type = node->getNodeType();
  if (type != DOMNode::ELEMENT_NODE && type != DOMNode::ATTRIBUTE_NODE) {
    return OneString(std::u16string());
  }
  return OneString(std::u16string(View(node->getNamespaceURI())));
}

Sequence Name(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments, u"name");
  if (!node) return OneString(std::u16string());
  if (IsNamespaceDeclaration(node)) return LocalName(context, arguments);
  switch (node->getNodeType()) {
    case DOMNode::ELEMENT_NODE:
    case DOMNode::ATTRIBUTE_NODE:
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return OneString(std::u16string(View(node->getNodeName())));
    default:
      return OneString(std::u16string());
  }
}

Sequence Root(FunctionContext& context, Arguments& arguments) {
  const DOMNode* node = NodeOrContext(context, arguments, u"root");
  if (!node) return Sequence();
  while (const DOMNode* parent = ParentOf(node))
    node = parent;
  return One(Item::OfNode(const_cast<DOMNode*>(node)));
}

Sequence Lang(FunctionContext& context, Arguments& arguments) {
  const std::u16string wanted = ToString(arguments[0]);
  const DOMNode* node = context.ContextNode();
  for (; node; node = ParentOf(node)) {
    if (node->getNodeType() != DOMNode::ELEMENT_NODE) continue;
    const auto* element = static_cast<const xercesc::DOMElement*>(node);
    const xercesc::DOMAttr* attribute = element->getAttributeNodeNS(XmlNamespace.data(), u"lang");
    if (!attribute) continue;
    const std::u16string_view lang = View(attribute->getValue());
    if (lang.size() < wanted.size()) return OneBoolean(false);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? c + (u'a' - u'A') : c; };
      if (lower(lang[i]) != lower(wanted[i])) return OneBoolean(false);
    }
    return OneBoolean(lang.size() == wanted.size() || lang[wanted.size()] == u'-');
  }
  return OneBoolean(false);
}

// ---- XPath 1.0: strings

Sequence String(FunctionContext& context, Arguments& arguments) {
  return OneString(StringOrContext(context, arguments));
}

Sequence Concat(FunctionContext&, Arguments& arguments) {
  std::u16string out;
  for (const Sequence& argument : arguments)
    out += ToString(argument);
  return OneString(std::move(out));
}

Sequence StartsWith(FunctionContext&, Arguments& arguments) {
  const std::u16string text = ToString(arguments[0]);
  const std::u16string prefix = ToString(arguments[1]);
  return OneBoolean(text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0);
}

Sequence EndsWith(FunctionContext&, Arguments& arguments) {
  const std::u16string text = ToString(arguments[0]);
  const std::u16string suffix = ToString(arguments[1]);
  return OneBoolean(text.size() >= suffix.size() &&
                    text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0);
}

Sequence Contains(FunctionContext&, Arguments& arguments) {
  return OneBoolean(ToString(arguments[0]).find(ToString(arguments[1])) != std::u16string::npos);
}

Sequence SubstringBefore(FunctionContext&, Arguments& arguments) {
  const std::u16string text = ToString(arguments[0]);
  const std::size_t at = text.find(ToString(arguments[1]));
  return OneString(at == std::u16string::npos ? std::u16string() : text.substr(0, at));
}

Sequence SubstringAfter(FunctionContext&, Arguments& arguments) {
  const std::u16string text = ToString(arguments[0]);
  const std::u16string separator = ToString(arguments[1]);
  const std::size_t at = text.find(separator);
  return OneString(at == std::u16string::npos ? std::u16string()
                                              : text.substr(at + separator.size()));
}

// Characters at positions p (from 1) with round(start) <= p < round(start) + round(length),
// comparisons with NaN being false.
Sequence Substring(FunctionContext&, Arguments& arguments) {
  const std::u32string text = CodePoints(ToString(arguments[0]));
  const double first = XPathRound(NumberArgument(arguments, 1));
  const double end = arguments.size() > 2 ? first + XPathRound(NumberArgument(arguments, 2))
                                          : std::numeric_limits<double>::infinity();
  std::u32string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const double position = static_cast<double>(i + 1);
    if (position >= first && position < end) out += text[i];
  }
  return OneString(FromCodePoints(out));
}

Sequence StringLength(FunctionContext& context, Arguments& arguments) {
  return OneNumber(static_cast<double>(CodePoints(StringOrContext(context, arguments)).size()));
}

Sequence NormalizeSpace(FunctionContext& context, Arguments& arguments) {
  const std::u16string text = StringOrContext(context, arguments);
  std::u16string out;
  bool space = false;
  for (const char16_t c : text) {
    if (IsXPathSpace(c)) {
      space = !out.empty();
    } else {
      if (space) out += u' ';
      space = false;
      out += c;
    }
  }
  return OneString(std::move(out));
}

Sequence Translate(FunctionContext&, Arguments& arguments) {
  const std::u32string text = CodePoints(ToString(arguments[0]));
  const std::u32string from = CodePoints(ToString(arguments[1]));
  const std::u32string to = CodePoints(ToString(arguments[2]));
  std::u32string out;
  out.reserve(text.size());
  for (const char32_t c : text) {
    const std::size_t at = from.find(c);  // the first occurrence wins
    if (at == std::u32string::npos) {
      out += c;
    } else if (at < to.size()) {
      out += to[at];
    }
  }
  return OneString(FromCodePoints(out));
}

// ---- XPath 1.0: booleans and numbers

Sequence Boolean(FunctionContext&, Arguments& arguments) {
  return OneBoolean(EffectiveBoolean(arguments[0]));
}

Sequence Not(FunctionContext&, Arguments& arguments) {
  return OneBoolean(!EffectiveBoolean(arguments[0]));
}

Sequence True(FunctionContext&, Arguments&) {
  return OneBoolean(true);
}
Sequence False(FunctionContext&, Arguments&) {
  return OneBoolean(false);
}

Sequence Number(FunctionContext& context, Arguments& arguments) {
  return OneNumber(arguments.empty() ? ToNumber(ContextItemOf(context)) : ToNumber(arguments[0]));
}

Sequence Sum(FunctionContext&, Arguments& arguments) {
  double total = 0;
  for (const Item& item : arguments[0])
    total += ToNumber(item);
  return OneNumber(total);
}

Sequence Floor(FunctionContext&, Arguments& arguments) {
  return OneNumber(std::floor(NumberArgument(arguments, 0)));
}

Sequence Ceiling(FunctionContext&, Arguments& arguments) {
  return OneNumber(std::ceil(NumberArgument(arguments, 0)));
}

Sequence Round(FunctionContext&, Arguments& arguments) {
  return OneNumber(XPathRound(NumberArgument(arguments, 0)));
}

Sequence Abs(FunctionContext&, Arguments& arguments) {
  return OneNumber(std::fabs(NumberArgument(arguments, 0)));
}

Sequence RoundHalfToEvenFunction(FunctionContext&, Arguments& arguments) {
  const double precision = arguments.size() > 1 ? NumberArgument(arguments, 1) : 0;
  return OneNumber(RoundHalfToEven(NumberArgument(arguments, 0), precision));
}

// min() and max(): numbers when every item is one or reads as one, otherwise the string values
// in code point order.
Sequence Extreme(Arguments& arguments, bool wantMax) {
  const Sequence& items = arguments[0];
  if (items.empty()) return Sequence();
  std::vector<double> numbers;
  numbers.reserve(items.size());
  bool numeric = true;
  for (const Item& item : items) {
    const double value = ToNumber(item);
    if (std::isnan(value) && item.type != ItemType::Number) {
      numeric = false;
      break;
    }
    numbers.push_back(value);
  }
  if (numeric) {
    double best = numbers.front();
    for (const double value : numbers) {
      if (std::isnan(value)) return OneNumber(NaN);
      if (wantMax ? value > best : value < best) best = value;
    }
    return OneNumber(best);
  }
  std::u16string best = ToString(items.front());
  for (std::size_t i = 1; i < items.size(); ++i) {
    std::u16string value = ToString(items[i]);
    const int order = CompareCodePoints(value, best);
    if (wantMax ? order > 0 : order < 0) best = std::move(value);
  }
  return OneString(std::move(best));
}

Sequence Min(FunctionContext&, Arguments& arguments) {
  return Extreme(arguments, false);
}
Sequence Max(FunctionContext&, Arguments& arguments) {
  return Extreme(arguments, true);
}

Sequence Avg(FunctionContext&, Arguments& arguments) {
  const Sequence& items = arguments[0];
  if (items.empty()) return Sequence();
  double total = 0;
  for (const Item& item : items)
    total += ToNumber(item);
  return OneNumber(total / static_cast<double>(items.size()));
}

// ---- XPath 2.0: strings

Sequence CaseMapped(Arguments& arguments, bool upper) {
  const std::u16string text = ToString(arguments[0]);
  icu::UnicodeString mapped(text.data(), static_cast<int32_t>(text.size()));
  if (upper) {
    mapped.toUpper(icu::Locale::getRoot());
  } else {
    mapped.toLower(icu::Locale::getRoot());
  }
  return OneString(ToU16(mapped));
}

Sequence LowerCase(FunctionContext&, Arguments& arguments) {
  return CaseMapped(arguments, false);
}
Sequence UpperCase(FunctionContext&, Arguments& arguments) {
  return CaseMapped(arguments, true);
}

Sequence Compare(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty() || arguments[1].empty()) return Sequence();
  return OneNumber(CompareCodePoints(ToString(arguments[0]), ToString(arguments[1])));
}

Sequence StringJoin(FunctionContext&, Arguments& arguments) {
  const std::u16string separator = StringArgument(arguments, 1);
  std::u16string out;
  bool first = true;
  for (const Item& item : arguments[0]) {
    if (!first) out += separator;
    first = false;
    out += ToString(item);
  }
  return OneString(std::move(out));
}

Sequence CodepointsToString(FunctionContext&, Arguments& arguments) {
  std::u16string out;
  for (const Item& item : arguments[0]) {
    const double value = ToNumber(item);
    const bool valid =
        value == std::floor(value) &&
        (value == 0x9 || value == 0xA || value == 0xD || (value >= 0x20 && value <= 0xD7FF) ||
         (value >= 0xE000 && value <= 0xFFFD) || (value >= 0x10000 && value <= 0x10FFFF));
    if (!valid) {
      ThrowInvalidExpression(u"FOCH0001", u"codepoints-to-string(): " + ToString(item) +
                                              u" is not the code point of an XML character.");
    }
    AppendCodePoint(static_cast<char32_t>(value), out);
  }
  return OneString(std::move(out));
}

Sequence StringToCodepoints(FunctionContext&, Arguments& arguments) {
  Sequence result;
  for (const char32_t c : CodePoints(ToString(arguments[0]))) {
    result.push_back(Item::OfNumber(static_cast<double>(c)));
  }
  return result;
}

Sequence NormalizeUnicode(FunctionContext&, Arguments& arguments) {
  const std::u16string text = ToString(arguments[0]);
  std::u16string form = u"NFC";
  if (arguments.size() > 1) {
    form.clear();
    for (const char16_t c : ToString(arguments[1])) {
      if (IsXPathSpace(c)) continue;
      form += c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - (u'a' - u'A')) : c;
    }
    if (form.empty()) return OneString(text);
  }
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* normalizer = nullptr;
  if (form == u"NFC") {
    normalizer = icu::Normalizer2::getNFCInstance(status);
  } else if (form == u"NFD") {
    normalizer = icu::Normalizer2::getNFDInstance(status);
  } else if (form == u"NFKC") {
    normalizer = icu::Normalizer2::getNFKCInstance(status);
  } else if (form == u"NFKD") {
    normalizer = icu::Normalizer2::getNFKDInstance(status);
  } else {
    ThrowInvalidExpression(
        u"FOCH0003", u"normalize-unicode(): unsupported normalization form \"" + form + u"\".");
  }
  icu::UnicodeString normalized;
  if (U_SUCCESS(status)) {
    normalized = normalizer->normalize(
        icu::UnicodeString(text.data(), static_cast<int32_t>(text.size())), status);
  }
  if (U_FAILURE(status)) {
    ThrowInvalidExpression(
        u"FOCH0003", u"normalize-unicode() failed: " + MessageText(u_errorName(status)) + u".");
  }
  return OneString(ToU16(normalized));
}

Sequence EncodeForUri(FunctionContext&, Arguments& arguments) {
  static constexpr char Hex[] = "0123456789ABCDEF";
  std::u16string out;
  auto byte = [&out](unsigned value) {
    out += u'%';
    out += static_cast<char16_t>(Hex[(value >> 4) & 0xF]);
    out += static_cast<char16_t>(Hex[value & 0xF]);
  };
  for (char32_t c : CodePoints(ToString(arguments[0]))) {
    if ((c >= U'A' && c <= U'Z') || (c >= U'a' && c <= U'z') || (c >= U'0' && c <= U'9') ||
        c == U'-' || c == U'_' || c == U'.' || c == U'~') {
      out += static_cast<char16_t>(c);
      continue;
    }
    if (c >= 0xD800 && c <= 0xDFFF) c = 0xFFFD;  // a lone surrogate has no UTF-8 form
    if (c < 0x80) {
      byte(c);
    } else if (c < 0x800) {
      byte(0xC0 | (c >> 6));
      byte(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      byte(0xE0 | (c >> 12));
      byte(0x80 | ((c >> 6) & 0x3F));
      byte(0x80 | (c & 0x3F));
    } else {
      byte(0xF0 | (c >> 18));
      byte(0x80 | ((c >> 12) & 0x3F));
      byte(0x80 | ((c >> 6) & 0x3F));
      byte(0x80 | (c & 0x3F));
    }
  }
  return OneString(std::move(out));
}

Sequence Matches(FunctionContext&, Arguments& arguments) {
  const std::u16string input = ToString(arguments[0]);
  const std::u16string pattern = ToString(arguments[1]);
  Regex regex;
  MakeRegex(regex, pattern, StringArgument(arguments, 2), input);
  return OneBoolean(FindNext(regex, pattern));
}

// $N is group N, taking further digits while they still name a group; \$ and \\ are the
// characters themselves.
void AppendReplacement(const std::u16string& replacement, icu::RegexMatcher& matcher,
                       std::u16string& out) {
  const auto groups = static_cast<std::size_t>(matcher.groupCount());
  for (std::size_t i = 0; i < replacement.size(); ++i) {
    const char16_t c = replacement[i];
    if (c == u'\\') {
      out += replacement[++i];
    } else if (c == u'$') {
      std::size_t group = static_cast<std::size_t>(replacement[++i] - u'0');
      while (i + 1 < replacement.size() && replacement[i + 1] >= u'0' &&
             replacement[i + 1] <= u'9' &&
             group * 10 + static_cast<std::size_t>(replacement[i + 1] - u'0') <= groups) {
        group = group * 10 + static_cast<std::size_t>(replacement[++i] - u'0');
      }
      if (group <= groups) {
        UErrorCode status = U_ZERO_ERROR;
        out += ToU16(matcher.group(static_cast<int32_t>(group), status));
      }
    } else {
      out += c;
    }
  }
}

void CheckReplacement(const std::u16string& replacement) {
  for (std::size_t i = 0; i < replacement.size(); ++i) {
    const char16_t c = replacement[i];
    const char16_t next = i + 1 < replacement.size() ? replacement[i + 1] : u'\0';
    if ((c == u'\\' && next != u'\\' && next != u'$') ||
        (c == u'$' && (next < u'0' || next > u'9'))) {
      ThrowInvalidExpression(u"FORX0004",
                             u"Invalid replacement string \"" + replacement +
                                 u"\" in replace(): write \\$ for '$' and \\\\ for '\\'.");
    }
    if (c == u'\\') ++i;
  }
}

Sequence Replace(FunctionContext&, Arguments& arguments) {
  const std::u16string input = ToString(arguments[0]);
  const std::u16string pattern = ToString(arguments[1]);
  const std::u16string replacement = ToString(arguments[2]);
  Regex regex;
  MakeRegex(regex, pattern, StringArgument(arguments, 3), input);
  RejectEmptyMatch(regex, pattern, u"replace");
  CheckReplacement(replacement);
  std::u16string out;
  int32_t last = 0;
  UErrorCode status = U_ZERO_ERROR;
  while (FindNext(regex, pattern)) {
    const int32_t start = regex.matcher->start(status);
    const int32_t end = regex.matcher->end(status);
    if (U_FAILURE(status)) break;
    out.append(input, static_cast<std::size_t>(last), static_cast<std::size_t>(start - last));
    AppendReplacement(replacement, *regex.matcher, out);
    last = end;
  }
  out.append(input, static_cast<std::size_t>(last), std::u16string::npos);
  return OneString(std::move(out));
}

Sequence Tokenize(FunctionContext&, Arguments& arguments) {
  const std::u16string input = ToString(arguments[0]);
  const std::u16string pattern = ToString(arguments[1]);
  Regex regex;
  MakeRegex(regex, pattern, StringArgument(arguments, 2), input);
  RejectEmptyMatch(regex, pattern, u"tokenize");
  Sequence result;
  if (input.empty()) return result;
  int32_t last = 0;
  UErrorCode status = U_ZERO_ERROR;
  while (FindNext(regex, pattern)) {
    const int32_t start = regex.matcher->start(status);
    const int32_t end = regex.matcher->end(status);
    if (U_FAILURE(status)) break;
    result.push_back(Item::OfString(
        input.substr(static_cast<std::size_t>(last), static_cast<std::size_t>(start - last))));
    last = end;
  }
  result.push_back(Item::OfString(input.substr(static_cast<std::size_t>(last))));
  return result;
}

// ---- XPath 2.0: sequences

Sequence Exists(FunctionContext&, Arguments& arguments) {
  return OneBoolean(!arguments[0].empty());
}

Sequence Empty(FunctionContext&, Arguments& arguments) {
  return OneBoolean(arguments[0].empty());
}

Sequence DistinctValues(FunctionContext&, Arguments& arguments) {
  std::unordered_set<std::u16string> strings;
  std::unordered_set<double> numbers;
  bool seenNaN = false;
  bool seenBoolean[2] = {false, false};
  Sequence result;
  for (const Item& original : arguments[0]) {
    Item item = Atomize(original);
    bool fresh = false;
    switch (item.type) {
      case ItemType::String:
        fresh = strings.insert(item.string).second;
        break;
      case ItemType::Number:
        if (std::isnan(item.number)) {
          fresh = !seenNaN;
          seenNaN = true;
        } else {
          // -0 and 0 are equal: hash them alike.
          fresh = numbers.insert(item.number == 0 ? 0.0 : item.number).second;
        }
        break;
      case ItemType::Boolean:
        fresh = !seenBoolean[item.boolean];
        seenBoolean[item.boolean] = true;
        break;
      case ItemType::Node:
        break;
    }
    if (fresh) result.push_back(std::move(item));
  }
  return result;
}

Sequence IndexOf(FunctionContext&, Arguments& arguments) {
  Sequence result;
  if (arguments[1].empty()) return result;
  const Item wanted = Atomize(arguments[1].front());
  const Sequence& items = arguments[0];
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (AtomicEqual(Atomize(items[i]), wanted)) {
      result.push_back(Item::OfNumber(static_cast<double>(i + 1)));
    }
  }
  return result;
}

Sequence Reverse(FunctionContext&, Arguments& arguments) {
  Sequence result = std::move(arguments[0]);
  std::reverse(result.begin(), result.end());
  return result;
}

Sequence Subsequence(FunctionContext&, Arguments& arguments) {
  const double first = XPathRound(NumberArgument(arguments, 1));
  const double end = arguments.size() > 2 ? first + XPathRound(NumberArgument(arguments, 2))
                                          : std::numeric_limits<double>::infinity();
  Sequence result;
  Sequence& items = arguments[0];
  for (std::size_t i = 0; i < items.size(); ++i) {
    const double position = static_cast<double>(i + 1);
    if (position >= first && position < end) result.push_back(std::move(items[i]));
  }
  return result;
}

// A position argument as an index from 0, clamped to [0, size]; NaN counts as 0.
std::size_t PositionIndex(double position, std::size_t size) {
  const double rounded = XPathRound(position);
  if (!(rounded >= 1)) return 0;
  if (rounded > static_cast<double>(size)) return size;
  return static_cast<std::size_t>(rounded) - 1;
}

Sequence InsertBefore(FunctionContext&, Arguments& arguments) {
  Sequence result = std::move(arguments[0]);
  const std::size_t at = PositionIndex(NumberArgument(arguments, 1), result.size());
  result.insert(result.begin() + static_cast<std::ptrdiff_t>(at),
                std::make_move_iterator(arguments[2].begin()),
                std::make_move_iterator(arguments[2].end()));
  return result;
}

Sequence Remove(FunctionContext&, Arguments& arguments) {
  Sequence result = std::move(arguments[0]);
  const double position = XPathRound(NumberArgument(arguments, 1));
  if (position >= 1 && position <= static_cast<double>(result.size())) {
    result.erase(result.begin() + static_cast<std::ptrdiff_t>(position) - 1);
  }
  return result;
}

Sequence Unordered(FunctionContext&, Arguments& arguments) {
  return std::move(arguments[0]);
}

Sequence ZeroOrOne(FunctionContext&, Arguments& arguments) {
  if (arguments[0].size() > 1) {
    ThrowTypeError(u"FORG0003", u"zero-or-one() was given a sequence of more than one item.");
  }
  return std::move(arguments[0]);
}

Sequence OneOrMore(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty())
    ThrowTypeError(u"FORG0004", u"one-or-more() was given an empty sequence.");
  return std::move(arguments[0]);
}

Sequence ExactlyOne(FunctionContext&, Arguments& arguments) {
  if (arguments[0].size() != 1) {
    ThrowTypeError(u"FORG0005", u"exactly-one() was given a sequence of " +
                                    NumberToString(static_cast<double>(arguments[0].size())) +
                                    u" items instead of one.");
  }
  return std::move(arguments[0]);
}

Sequence Data(FunctionContext&, Arguments& arguments) {
  Sequence result;
  result.reserve(arguments[0].size());
  for (const Item& item : arguments[0])
    result.push_back(Atomize(item));
  return result;
}

Sequence DeepEqual(FunctionContext&, Arguments& arguments) {
  const Sequence& a = arguments[0];
  const Sequence& b = arguments[1];
  if (a.size() != b.size()) return OneBoolean(false);
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].IsNode() != b[i].IsNode()) return OneBoolean(false);
    if (!AtomicEqual(Atomize(a[i]), Atomize(b[i]))) return OneBoolean(false);
  }
  return OneBoolean(true);
}

// ---- Errors

Sequence Error(FunctionContext&, Arguments& arguments) {
  std::u16string message;
  if (arguments.size() > 1) message = ToString(arguments[1]);
  if (message.empty() && !arguments.empty() && !arguments[0].empty()) {
    message = u"Error " + ToString(arguments[0]) + u" raised by error().";
  }
  if (message.empty()) message = u"error() was called.";
  // The code is the first argument's local name (err:FOER0000 when none is given).
  std::u16string code =
      arguments.empty() || arguments[0].empty() ? u"FOER0000" : ToString(arguments[0]);
  code = code.substr(code.find(u':') == std::u16string::npos ? 0 : code.find(u':') + 1);
  ThrowInvalidExpression(code.empty() ? u"FOER0000" : code, std::move(message));
}

constexpr int Any = -1;

const FunctionDefinition Library[] = {
    {u"abs", 1, 1, Abs},
    {u"avg", 1, 1, Avg},
    {u"boolean", 1, 1, Boolean},
    {u"ceiling", 1, 1, Ceiling},
    {u"codepoints-to-string", 1, 1, CodepointsToString},
    {u"compare", 2, 2, Compare},
    {u"concat", 2, Any, Concat},
    {u"contains", 2, 2, Contains},
    {u"count", 1, 1, Count},
    {u"data", 1, 1, Data},
    {u"deep-equal", 2, 2, DeepEqual},
    {u"distinct-values", 1, 1, DistinctValues},
    {u"empty", 1, 1, Empty},
    {u"encode-for-uri", 1, 1, EncodeForUri},
    {u"ends-with", 2, 2, EndsWith},
    {u"error", 0, 3, Error},
    {u"exactly-one", 1, 1, ExactlyOne},
    {u"exists", 1, 1, Exists},
    {u"false", 0, 0, False},
    {u"floor", 1, 1, Floor},
    {u"id", 1, 1, Id},
    {u"index-of", 2, 2, IndexOf},
    {u"insert-before", 3, 3, InsertBefore},
    {u"lang", 1, 1, Lang},
    {u"last", 0, 0, Last},
    {u"local-name", 0, 1, LocalName},
    {u"lower-case", 1, 1, LowerCase},
    {u"matches", 2, 3, Matches},
    {u"max", 1, 1, Max},
    {u"min", 1, 1, Min},
    {u"name", 0, 1, Name},
    {u"namespace-uri", 0, 1, NamespaceUri},
    {u"normalize-space", 0, 1, NormalizeSpace},
    {u"normalize-unicode", 1, 2, NormalizeUnicode},
    {u"not", 1, 1, Not},
    {u"number", 0, 1, Number},
    {u"one-or-more", 1, 1, OneOrMore},
    {u"position", 0, 0, Position},
    {u"remove", 2, 2, Remove},
    {u"replace", 3, 4, Replace},
    {u"reverse", 1, 1, Reverse},
    {u"root", 0, 1, Root},
    {u"round", 1, 1, Round},
    {u"round-half-to-even", 1, 2, RoundHalfToEvenFunction},
    {u"starts-with", 2, 2, StartsWith},
    {u"string", 0, 1, String},
    {u"string-join", 1, 2, StringJoin},
    {u"string-length", 0, 1, StringLength},
    {u"string-to-codepoints", 1, 1, StringToCodepoints},
    {u"subsequence", 2, 3, Subsequence},
    {u"substring", 2, 3, Substring},
    {u"substring-after", 2, 2, SubstringAfter},
    {u"substring-before", 2, 2, SubstringBefore},
    {u"sum", 1, 1, Sum},
    {u"tokenize", 2, 3, Tokenize},
    {u"translate", 3, 3, Translate},
    {u"true", 0, 0, True},
    {u"unordered", 1, 1, Unordered},
    {u"upper-case", 1, 1, UpperCase},
    {u"zero-or-one", 1, 1, ZeroOrOne},
};

// ---- xs: constructor functions: the cast of one value to a schema type

constexpr std::u16string_view SchemaNamespace = u"http://www.w3.org/2001/XMLSchema";

[[noreturn]] void ThrowCast(const Item& item, std::u16string_view type) {
  ThrowTypeError(u"FORG0001", u"\"" + ToString(item) + u"\" cannot be cast to xs:" +
                                  std::u16string(type) + u".");
}

std::u16string Trimmed(const std::u16string& text) {
  const std::size_t first = text.find_first_not_of(u" \t\r\n");
  if (first == std::u16string::npos) return std::u16string();
  return text.substr(first, text.find_last_not_of(u" \t\r\n") - first + 1);
}

// The item a cast converts, or null for an empty argument (the cast of nothing is nothing).
const Item* CastSource(const Arguments& arguments, std::u16string_view type) {
  if (arguments[0].empty()) return nullptr;
  if (arguments[0].size() > 1) {
    ThrowTypeError(u"XPTY0004",
                   u"xs:" + std::u16string(type) + u"() casts one item, not a sequence.");
  }
  return &arguments[0].front();
}

// The power of ten of the first non-zero digit of decimal or scientific text that the number
// reader accepted ("-0.05e3": 1); very low for zero.
long DecimalExponent(std::string_view text) {
  constexpr long Far = std::numeric_limits<long>::max() / 4;
  const std::size_t e = text.find_first_of("eE");
  const std::string_view mantissa = text.substr(0, e);
  long exponent = 0;
  if (e != std::string_view::npos) {
    std::string_view digits = text.substr(e + 1);
    if (!digits.empty() && digits[0] == '+') digits.remove_prefix(1);
    const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
    // An exponent beyond `long` is as far out as any: its sign says which way.
    if (read.ec == std::errc::result_out_of_range) exponent = digits[0] == '-' ? -Far : Far;
    exponent = std::clamp(exponent, -Far, Far);
  }
  const std::size_t first = mantissa.find_first_of("123456789");
  if (first == std::string_view::npos) return -Far;
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const long position =
      first < point ? static_cast<long>(point - first - 1) : -static_cast<long>(first - point);
  return position + exponent;
}

// Text as a schema double: decimal or scientific notation, INF, -INF, NaN.
double SchemaDouble(const Item& item, std::u16string_view type) {
  if (item.type == ItemType::Number) return item.number;
  if (item.type == ItemType::Boolean) return item.boolean ? 1 : 0;
  const std::u16string text = Trimmed(ToString(item));
  if (text == u"INF") return std::numeric_limits<double>::infinity();
  if (text == u"-INF") return -std::numeric_limits<double>::infinity();
  if (text == u"NaN") return NaN;
  std::string ascii;
  for (const char16_t c : text) {
    if (c > 0x7F || (std::isalpha(static_cast<unsigned char>(c)) != 0) != (c == u'e' || c == u'E'))
      ThrowCast(item, type);
    ascii += static_cast<char>(c);
  }
  // One sign at most: "+-1" is no number.
  if (!ascii.empty() && ascii[0] == '+') {
    ascii.erase(0, 1);
    if (!ascii.empty() && ascii[0] == '-') ThrowCast(item, type);
  }
  double value = 0;
  const auto result = std::from_chars(ascii.data(), ascii.data() + ascii.size(), value);
  if (ascii.empty() || result.ptr != ascii.data() + ascii.size() ||
      (result.ec != std::errc() && result.ec != std::errc::result_out_of_range)) {
    ThrowCast(item, type);
  }
  if (result.ec == std::errc::result_out_of_range) {
    // The reader leaves `value` as it was for text beyond the range of doubles: far above it
    // ("1e400", or 400 digits) the value is infinite, far below it ("1e-400") zero.
    const double magnitude =
        DecimalExponent(ascii) > 0 ? std::numeric_limits<double>::infinity() : 0.0;
    value = ascii[0] == '-' ? -magnitude : magnitude;
  }
  return value;
}

Sequence CastString(FunctionContext&, Arguments& arguments) {
  const Item* item = CastSource(arguments, u"string");
  return item ? OneString(ToString(*item)) : Sequence();
}

Sequence CastDouble(FunctionContext&, Arguments& arguments) {
  const Item* item = CastSource(arguments, u"double");
  return item ? OneNumber(SchemaDouble(*item, u"double")) : Sequence();
}

Sequence CastDecimal(FunctionContext&, Arguments& arguments) {
  const Item* item = CastSource(arguments, u"decimal");
  if (!item) return Sequence();
  const double value = SchemaDouble(*item, u"decimal");
  const bool text = item->type == ItemType::String || item->IsNode();
  if (std::isnan(value) || std::isinf(value) ||
      (text && ToString(*item).find_first_of(u"eEIN") != std::u16string::npos)) {
    ThrowCast(*item, u"decimal");
  }
  return OneNumber(value);
}

Sequence CastInteger(FunctionContext&, Arguments& arguments) {
  const Item* item = CastSource(arguments, u"integer");
  if (!item) return Sequence();
  const double value = SchemaDouble(*item, u"integer");
  const bool text = item->type == ItemType::String || item->IsNode();
  if (std::isnan(value) || std::isinf(value) ||
      (text && ToString(*item).find_first_of(u".eEIN") != std::u16string::npos)) {
    ThrowCast(*item, u"integer");
  }
  return OneNumber(std::trunc(value));
}

Sequence CastBoolean(FunctionContext&, Arguments& arguments) {
  const Item* item = CastSource(arguments, u"boolean");
  if (!item) return Sequence();
  if (item->type == ItemType::Number || item->type == ItemType::Boolean) {
    return OneBoolean(ToBoolean(*item));
  }
  const std::u16string text = Trimmed(ToString(*item));
  if (text == u"true" || text == u"1") return OneBoolean(true);
  if (text == u"false" || text == u"0") return OneBoolean(false);
  ThrowCast(*item, u"boolean");
}

constexpr FunctionDefinition SchemaConstructors[] = {
    {u"boolean", 1, 1, CastBoolean}, {u"decimal", 1, 1, CastDecimal}, {u"double", 1, 1, CastDouble},
    {u"integer", 1, 1, CastInteger}, {u"string", 1, 1, CastString},
};

}  // namespace

const FunctionDefinition* FindFunction(std::u16string_view namespaceUri,
                                       std::u16string_view localName) {
  if (namespaceUri == SchemaNamespace) {
    for (const FunctionDefinition& definition : SchemaConstructors) {
      if (definition.localName == localName) return &definition;
    }
    return nullptr;
  }
  if (namespaceUri != FunctionsNamespace) return nullptr;
  // Sorted once, searched by halving on every call.
  static const std::vector<const FunctionDefinition*> sorted = [] {
    std::vector<const FunctionDefinition*> table;
    for (const FunctionDefinition& definition : Library)
      table.push_back(&definition);
    std::sort(table.begin(), table.end(),
              [](const auto* a, const auto* b) { return a->localName < b->localName; });
    return table;
  }();
  const auto found =
      std::lower_bound(sorted.begin(), sorted.end(), localName,
                       [](const FunctionDefinition* definition, std::u16string_view name) {
                         return definition->localName < name;
                       });
  return found != sorted.end() && (*found)->localName == localName ? *found : nullptr;
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
