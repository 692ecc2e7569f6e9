// The values of the library's XPath engine: items (a DOM node or an atomic value), sequences of
// them, the engine's error, and the XPath 1.0 conversions between strings, numbers and booleans.
//
// The engine evaluates XPath 2.0 in its XPath 1.0 compatibility mode: every number is an IEEE
// double, converted to and from text by the XPath 1.0 rules, so the expressions hosts wrote for
// XPath 1.0 give the answers they always gave.
#ifndef VESKAN_XML_XPATH_XPATHVALUE_H
#define VESKAN_XML_XPATH_XPATHVALUE_H

#include <xercesc/dom/DOMNode.hpp>
#include <xercesc/dom/DOMXPathException.hpp>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

enum class ItemType : unsigned char { Node, String, Number, Boolean };

// One item of a sequence. Only the member its type names is meaningful.
struct Item {
  ItemType type = ItemType::Number;
  bool boolean = false;
  double number = 0;
  xercesc::DOMNode* node = nullptr;
  std::u16string string;

  static Item OfNode(xercesc::DOMNode* node) {
    Item item;
    item.type = ItemType::Node;
    item.node = node;
    return item;
  }
  static Item OfString(std::u16string text) {
    Item item;
    item.type = ItemType::String;
    item.string = std::move(text);
    return item;
  }
  static Item OfNumber(double value) {
    Item item;
    item.type = ItemType::Number;
    item.number = value;
    return item;
  }
  static Item OfBoolean(bool value) {
    Item item;
    item.type = ItemType::Boolean;
    item.boolean = value;
    return item;
  }
  bool IsNode() const { return type == ItemType::Node; }
};

using Sequence = std::vector<Item>;

// The engine's error: a Xerces DOMXPathException carrying the engine's own message, so that the
// code that catches it reads `code` and `getMessage()` as from any DOM exception. Codes:
// INVALID_EXPRESSION_ERR for syntax errors, unknown prefixes, functions and variables and wrong
// argument counts; TYPE_ERR for an operand or argument of the wrong type.
//
// Catch it by reference: copies own their message too.
class XPathError : public xercesc::DOMXPathException {
 public:
  XPathError(short code, std::u16string message);
  XPathError(const XPathError& other);
  XPathError& operator=(const XPathError&) = delete;
  ~XPathError() override;

 private:
  std::u16string message_;
};

// The standard error code (XPST0003, XPTY0004, FORG0001, ...) leads the message, followed by
// ": ", so that a host reads it from the recorded error message.
[[noreturn]] void ThrowInvalidExpression(std::u16string_view code, std::u16string message);
[[noreturn]] void ThrowTypeError(std::u16string_view code, std::u16string message);

// ASCII or UTF-8 text for messages.
std::u16string MessageText(std::string_view utf8);

// ---- Conversions (XPath 1.0)

// The string-value of a node: the concatenated text and CDATA descendants of an element or a
// document, the value of an attribute, the data of a text, CDATA, comment or processing
// instruction node. Appends to `out`.
void AppendStringValue(const xercesc::DOMNode* node, std::u16string& out);
std::u16string StringValue(const xercesc::DOMNode* node);

// "NaN", "Infinity", "-Infinity", "0" for both zeros; an integer without point or exponent;
// otherwise the shortest decimal that reads back as the same double, without exponent
// ("0.000001", "123456789012345680000").
std::u16string NumberToString(double value);

// The shortest decimal digits that read back as `value` (finite, not zero), sign left out, and
// the power of ten of the first digit: 0.015 gives "15" and -2.
void ShortestDigits(double value, std::string& digits, int& exponent);

// Optional whitespace, an optional '-', digits with an optional '.' (at least one digit), optional
// whitespace; anything else is NaN.
double StringToNumber(std::u16string_view text);

std::u16string ToString(const Item& item);
double ToNumber(const Item& item);
bool ToBoolean(const Item& item);

// The first item's string (empty for an empty sequence): the XPath 1.0 string() of a node-set
// is the string-value of its first node in document order, which callers pass first.
std::u16string ToString(const Sequence& sequence);
double ToNumber(const Sequence& sequence);  // NaN for an empty sequence

// The effective boolean value: false for an empty sequence; true when the first item is a node;
// a single string, number or boolean by its own rule. Throws a type error for several items of
// which the first is not a node.
bool EffectiveBoolean(const Sequence& sequence);

// XPath whitespace: space, tab, carriage return, line feed.
inline bool IsXPathSpace(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
