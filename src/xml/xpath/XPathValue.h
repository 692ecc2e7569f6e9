// The values of the library's XPath engine: items (a DOM node or a typed atomic value), sequences
// of them, the engine's error, atomization, string-values and effective boolean values.
//
// Atomic values carry their XML Schema type (XPathTypes.h). Numbers keep their type's precision:
// xs:integer and xs:decimal are exact (Decimal), xs:float and xs:double are IEEE values.
#ifndef VESKAN_XML_XPATH_XPATHVALUE_H
#define VESKAN_XML_XPATH_XPATHVALUE_H

#include "xml/xpath/XPathDecimal.h"
#include "xml/xpath/XPathTypes.h"

#include <xercesc/dom/DOMNode.hpp>
#include <xercesc/dom/DOMXPathException.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

struct Calendar;
struct Duration;

// An xs:QName value: the namespace URI (empty for none), the prefix it was written with (empty
// for none) and the local name. Equality ignores the prefix.
struct QNameValue {
  std::u16string uri;
  std::u16string prefix;
  std::u16string local;
};

// One item of a sequence: a node when `type` is Type::Node, else an atomic value of that type.
// Which member holds the value follows from the type: `node`; `string` for the string types,
// xs:untypedAtomic and xs:anyURI; `boolean`; `decimal` for xs:decimal and the integer types;
// `number` for xs:float (rounded to float) and xs:double; `payload` for xs:QName (QNameValue),
// the date, time and g* types (Calendar), the duration types (Duration) and the binary types
// (std::string of octets). Other members keep their defaults.
struct Item {
  Type type = Type::Double;
  bool boolean = false;
  double number = 0;
  xercesc::DOMNode* node = nullptr;
  std::u16string string;
  Decimal decimal;
  std::shared_ptr<const void> payload;

  static Item OfNode(xercesc::DOMNode* node) {
    Item item;
    item.type = Type::Node;
    item.node = node;
    return item;
  }
  static Item OfString(std::u16string text, Type type = Type::String) {
    Item item;
    item.type = type;
    item.string = std::move(text);
    return item;
  }
  static Item OfUntyped(std::u16string text) {
    return OfString(std::move(text), Type::UntypedAtomic);
  }
  static Item OfBoolean(bool value) {
    Item item;
    item.type = Type::Boolean;
    item.boolean = value;
    return item;
  }
  static Item OfDouble(double value) {
    Item item;
    item.type = Type::Double;
    item.number = value;
    return item;
  }
  static Item OfFloat(double value) {
    Item item;
    item.type = Type::Float;
    item.number = static_cast<double>(static_cast<float>(value));
    return item;
  }
  static Item OfDecimal(Decimal value, Type type = Type::Decimal) {
    Item item;
    item.type = type;
    item.decimal = std::move(value);
    return item;
  }
  static Item OfInteger(std::int64_t value) {
    return OfDecimal(Decimal::FromInt64(value), Type::Integer);
  }
  static Item OfQName(std::u16string uri, std::u16string prefix, std::u16string local);
  static Item OfCalendar(Type type, const Calendar& value);
  static Item OfDuration(Type type, const Duration& value);
  static Item OfBinary(Type type, std::string octets);

  bool IsNode() const { return type == Type::Node; }
  bool IsNumeric() const { return XPath::IsNumeric(type); }
  const QNameValue& AsQName() const { return *static_cast<const QNameValue*>(payload.get()); }
  const Calendar& AsCalendar() const { return *static_cast<const Calendar*>(payload.get()); }
  const Duration& AsDuration() const { return *static_cast<const Duration*>(payload.get()); }
  const std::string& AsOctets() const { return *static_cast<const std::string*>(payload.get()); }
};

using Sequence = std::vector<Item>;

// The engine's error: a Xerces DOMXPathException carrying the engine's own message, so that the
// code that catches it reads `code` and `getMessage()` as from any DOM exception. Codes:
// INVALID_EXPRESSION_ERR for static errors (syntax, unknown prefixes, functions, variables and
// types, wrong argument counts); TYPE_ERR for type errors and dynamic errors.
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

// The most characters one sequence (or one string) may hold, counting the code units of
// strings and QNames, the digits of numbers beyond 64 bits and the octets of binary values: the
// limit on a sequence's items alone would let millions of copies of one long string, or
// doubling concatenations, exhaust memory. Far above what any document the library keeps gives.
constexpr std::size_t MaxTextLength = std::size_t{1} << 26;

// The characters an item holds by that count (none for a node: its text is the document's).
std::size_t TextLength(const Item& item);
// XPDY0130 when `length` exceeds MaxTextLength.
void CheckTextLength(std::size_t length);

// ASCII or UTF-8 text for messages.
std::u16string MessageText(std::string_view utf8);

// ---- Nodes

// The string-value of a node: the concatenated text and CDATA descendants of an element or a
// document, the value of an attribute, the data of a text, CDATA, comment or processing
// instruction node. Appends to `out`.
void AppendStringValue(const xercesc::DOMNode* node, std::u16string& out);
std::u16string StringValue(const xercesc::DOMNode* node);

// ---- Atomic values

// A node's typed value (xs:untypedAtomic, or xs:string for comments, processing instructions
// and namespace nodes); an atomic value itself.
Item Atomize(const Item& item);
// Every item atomized, in order; XPDY0130 when their text exceeds MaxTextLength.
Sequence Atomize(const Sequence& sequence);

// The value as xs:string: a node's string-value, or the canonical form of an atomic value
// ("1.0E6" for the double 1e6, "0.5", "true", "P1Y2M", "2002-10-10Z", "FF00" ...).
std::u16string ToString(const Item& item);
// The first item's string, empty for an empty sequence.
std::u16string ToString(const Sequence& sequence);

// The canonical form of an xs:double (or, with `isFloat`, of the xs:float it holds): decimal
// notation for magnitudes in [1e-6, 1e6), else a mantissa with one digit before the point and an
// exponent ("1.0E6", "-1.5E-7"); "0", "-0", "NaN", "INF", "-INF".
std::u16string DoubleToString(double value, bool isFloat = false);

// The shortest decimal digits that read back as `value` (finite, not zero), sign left out, and
// the power of ten of the first digit: 0.015 gives "15" and -2. With `isFloat`, the shortest
// that read back as the same float.
void ShortestDigits(double value, std::string& digits, int& exponent, bool isFloat = false);

// The numeric value of a numeric item as a double (xs:decimal rounded).
double ToDouble(const Item& item);

// The effective boolean value: false for an empty sequence; true when the first item is a node;
// a single boolean, string, xs:anyURI, xs:untypedAtomic or number by its own rule. Throws
// FORG0006 for anything else.
bool EffectiveBoolean(const Sequence& sequence);

// XML whitespace: space, tab, carriage return, line feed.
inline bool IsXPathSpace(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

// `text` without leading and trailing whitespace.
std::u16string_view TrimSpace(std::u16string_view text);

// The name of an item's type for messages: "xs:integer", "node".
std::u16string TypeLabel(const Item& item);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
