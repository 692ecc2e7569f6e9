// The XPath engine's error, node string-values, atomization and the canonical strings of atomic
// values.
#include "xml/xpath/XPathValue.h"

#include "xml/xpath/XPathCalendar.h"
#include "xml/xpath/XPathNodes.h"

#include <veskan/StringBuffer.h>

#include <xercesc/dom/DOMCharacterData.hpp>

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <system_error>

namespace Veskan {
namespace Detail {
namespace XPath {

using xercesc::DOMNode;

// ---- XPathError

// The base class keeps `msg` as a plain pointer and frees it only when it owns it, which its
// default constructor says it does not: `msg` always points into our own `message_`.
XPathError::XPathError(short errorCode, std::u16string message)
    : xercesc::DOMXPathException(), message_(std::move(message)) {
  code = errorCode;
  msg = message_.c_str();
}

XPathError::XPathError(const XPathError& other)
    : xercesc::DOMXPathException(), message_(other.message_) {
  code = other.code;
  msg = message_.c_str();
}

XPathError::~XPathError() {
  msg = nullptr;
}

void ThrowInvalidExpression(std::u16string_view code, std::u16string message) {
  throw XPathError(xercesc::DOMXPathException::INVALID_EXPRESSION_ERR,
                   std::u16string(code) + u": " + message);
}

void ThrowTypeError(std::u16string_view code, std::u16string message) {
  throw XPathError(xercesc::DOMXPathException::TYPE_ERR, std::u16string(code) + u": " + message);
}

std::size_t TextLength(const Item& item) {
  if (item.type == Type::QName) {
    const QNameValue& name = item.AsQName();
    return name.uri.size() + name.prefix.size() + name.local.size();
  }
  if (IsBinaryType(item.type)) return item.AsOctets().size();
  // Members the type does not use keep their empty defaults; numbers within 64 bits live in the
  // item itself.
  return item.string.size() + item.decimal.HeapDigits();
}

void CheckTextLength(std::size_t length) {
  if (length > MaxTextLength) {
    ThrowTypeError(u"XPDY0130", u"The expression builds values of more than " +
                                    MessageText(std::to_string(MaxTextLength)) + u" characters.");
  }
}

std::u16string MessageText(std::string_view utf8) {
  const StringBuffer text = UTF8to16(utf8.data(), 0, static_cast<int>(utf8.size()));
  return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

// ---- String-values

namespace {

bool IsCharacterData(short type) {
  return type == DOMNode::TEXT_NODE || type == DOMNode::CDATA_SECTION_NODE;
}

void AppendCharacterData(const DOMNode* node, std::u16string& out) {
  const auto* data = static_cast<const xercesc::DOMCharacterData*>(node);
  const XMLCh* text = data->getData();
  if (text) out.append(text, data->getLength());
}

void AppendText(const XMLCh* text, std::u16string& out) {
  if (text) out.append(text);
}

// The text and CDATA descendants of `root` in document order, without recursion: trees may be
// far deeper than the stack.
void AppendDescendantText(const DOMNode* root, std::u16string& out) {
  const DOMNode* first = root->getFirstChild();
  if (!first) return;
  // The common case of an element holding one piece of text needs no walk.
  if (!first->getNextSibling() && IsCharacterData(first->getNodeType())) {
    AppendCharacterData(first, out);
    return;
  }
  const DOMNode* node = first;
  while (node) {
    if (IsCharacterData(node->getNodeType())) {
      AppendCharacterData(node, out);
    } else if (const DOMNode* child = node->getFirstChild()) {
      node = child;
      continue;
    }
    while (node != root && !node->getNextSibling())
      node = node->getParentNode();
    node = node == root ? nullptr : node->getNextSibling();
  }
}

}  // namespace

void AppendStringValue(const DOMNode* node, std::u16string& out) {
  switch (node->getNodeType()) {
    case DOMNode::ELEMENT_NODE:
    case DOMNode::DOCUMENT_NODE:
    case DOMNode::DOCUMENT_FRAGMENT_NODE:
    case DOMNode::ENTITY_REFERENCE_NODE:
    // An attribute's value is its text children: read here, since Xerces' getValue() copies a
    // value of several children into the document's heap.
    case DOMNode::ATTRIBUTE_NODE:
      AppendDescendantText(node, out);
      break;
    case DOMNode::TEXT_NODE:
    case DOMNode::CDATA_SECTION_NODE:
    case DOMNode::COMMENT_NODE:
      AppendCharacterData(node, out);
      break;
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      AppendText(node->getNodeValue(), out);
      break;
    default:
      break;
  }
}

std::u16string StringValue(const DOMNode* node) {
  std::u16string out;
  AppendStringValue(node, out);
  return out;
}

// ---- Items

Item Item::OfQName(std::u16string uri, std::u16string prefix, std::u16string local) {
  Item item;
  item.type = Type::QName;
  item.payload = std::make_shared<const QNameValue>(
      QNameValue{std::move(uri), std::move(prefix), std::move(local)});
  return item;
}

Item Item::OfCalendar(Type type, const Calendar& value) {
  Item item;
  item.type = type;
  item.payload = std::make_shared<const Calendar>(value);
  return item;
}

Item Item::OfDuration(Type type, const Duration& value) {
  Item item;
  item.type = type;
  item.payload = std::make_shared<const Duration>(value);
  return item;
}

Item Item::OfBinary(Type type, std::string octets) {
  Item item;
  item.type = type;
  item.payload = std::make_shared<const std::string>(std::move(octets));
  return item;
}

// ---- Numbers

void ShortestDigits(double value, std::string& digits, int& exponent, bool isFloat) {
  // std::to_chars gives the shortest round-trip form; its scientific notation "d.ddde[+-]xx"
  // splits into the digits and the exponent.
  std::array<char, 64> buffer{};
  const auto result = isFloat
                          ? std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                                          static_cast<float>(value), std::chars_format::scientific)
                          : std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                          std::chars_format::scientific);
  const std::string_view text(buffer.data(), static_cast<std::size_t>(result.ptr - buffer.data()));
  const std::size_t e = text.find('e');
  digits.clear();
  for (std::size_t i = 0; i < e; ++i) {
    if (text[i] >= '0' && text[i] <= '9') digits += text[i];
  }
  exponent = 0;
  std::from_chars(text.data() + e + 1 + (text[e + 1] == '+' ? 1 : 0), text.data() + text.size(),
                  exponent);
}

std::u16string DoubleToString(double value, bool isFloat) {
  if (std::isnan(value)) return u"NaN";
  if (std::isinf(value)) return value > 0 ? u"INF" : u"-INF";
  if (value == 0) return std::signbit(value) ? u"-0" : u"0";

  std::string digits;
  int exponent = 0;
  ShortestDigits(value, digits, exponent, isFloat);
  std::u16string out;
  if (value < 0) out += u'-';
  const double magnitude = std::fabs(value);
  if (magnitude >= 1e-6 && magnitude < 1e6) {
    // Decimal notation, as the value's xs:decimal would print: `exponent` + 1 digits before
    // the point, no trailing zeros after it.
    const int integerDigits = exponent + 1;
    if (integerDigits <= 0) {
      out += u"0.";
      out.append(static_cast<std::size_t>(-integerDigits), u'0');
      out.append(digits.begin(), digits.end());
      return out;
    }
    const auto whole = static_cast<std::size_t>(integerDigits);
    for (std::size_t i = 0; i < whole; ++i)
      out += i < digits.size() ? static_cast<char16_t>(digits[i]) : u'0';
    if (digits.size() > whole) {
      out += u'.';
      out.append(digits.begin() + static_cast<std::ptrdiff_t>(whole), digits.end());
    }
    return out;
  }
  out += static_cast<char16_t>(digits[0]);
  out += u'.';
  if (digits.size() > 1) {
    out.append(digits.begin() + 1, digits.end());
  } else {
    out += u'0';
  }
  out += u'E';
  for (const char c : std::to_string(exponent))
    out += static_cast<char16_t>(c);
  return out;
}

double ToDouble(const Item& item) {
  if (item.type == Type::Float || item.type == Type::Double) return item.number;
  if (XPath::IsNumeric(item.type)) return item.decimal.ToDouble();
  return std::numeric_limits<double>::quiet_NaN();
}

// ---- Atomization and strings

Item Atomize(const Item& item) {
  if (!item.IsNode()) return item;
  switch (item.node->getNodeType()) {
    case DOMNode::COMMENT_NODE:
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
      return Item::OfString(StringValue(item.node));
    case DOMNode::ATTRIBUTE_NODE:
      // A namespace declaration stands for a namespace node, whose typed value is a string.
      if (View(item.node->getNamespaceURI()) == XmlnsNamespace)
        return Item::OfString(StringValue(item.node));
      return Item::OfUntyped(StringValue(item.node));
    default:
      return Item::OfUntyped(StringValue(item.node));
  }
}

Sequence Atomize(const Sequence& sequence) {
  Sequence out;
  out.reserve(sequence.size());
  std::size_t length = 0;
  for (const Item& item : sequence) {
    out.push_back(Atomize(item));
    length += TextLength(out.back());
    CheckTextLength(length);
  }
  return out;
}

namespace {

std::u16string HexString(const std::string& octets) {
  static const char16_t digits[] = u"0123456789ABCDEF";
  std::u16string out;
  out.reserve(octets.size() * 2);
  for (const char c : octets) {
    const auto octet = static_cast<unsigned char>(c);
    out += digits[octet >> 4];
    out += digits[octet & 15];
  }
  return out;
}

std::u16string Base64String(const std::string& octets) {
  static const char16_t alphabet[] =
      u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::u16string out;
  out.reserve((octets.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= octets.size(); i += 3) {
    const std::uint32_t n = static_cast<unsigned char>(octets[i]) << 16 |
                            static_cast<unsigned char>(octets[i + 1]) << 8 |
                            static_cast<unsigned char>(octets[i + 2]);
    out += alphabet[n >> 18];
    out += alphabet[(n >> 12) & 63];
    out += alphabet[(n >> 6) & 63];
    out += alphabet[n & 63];
  }
  const std::size_t rest = octets.size() - i;
  if (rest > 0) {
    std::uint32_t n = static_cast<unsigned char>(octets[i]) << 16;
    if (rest == 2) n |= static_cast<unsigned char>(octets[i + 1]) << 8;
    out += alphabet[n >> 18];
    out += alphabet[(n >> 12) & 63];
    out += rest == 2 ? alphabet[(n >> 6) & 63] : u'=';
    out += u'=';
  }
  return out;
}

}  // namespace

std::u16string ToString(const Item& item) {
  switch (item.type) {
    case Type::Node:
      return StringValue(item.node);
    case Type::Boolean:
      return item.boolean ? u"true" : u"false";
    case Type::Float:
      return DoubleToString(item.number, true);
    case Type::Double:
      return DoubleToString(item.number);
    case Type::QName: {
      const QNameValue& name = item.AsQName();
      return name.prefix.empty() ? name.local : name.prefix + u":" + name.local;
    }
    case Type::HexBinary:
      return HexString(item.AsOctets());
    case Type::Base64Binary:
      return Base64String(item.AsOctets());
    default:
      break;
  }
  if (XPath::IsNumeric(item.type)) return item.decimal.ToString();
  if (IsCalendarType(item.type)) return XPath::ToString(item.AsCalendar());
  if (IsDurationType(item.type)) return XPath::ToString(item.AsDuration());
  return item.string;
}

std::u16string ToString(const Sequence& sequence) {
  return sequence.empty() ? std::u16string() : ToString(sequence.front());
}

bool EffectiveBoolean(const Sequence& sequence) {
  if (sequence.empty()) return false;
  const Item& first = sequence.front();
  if (first.IsNode()) return true;
  if (sequence.size() == 1) {
    if (first.type == Type::Boolean) return first.boolean;
    if (IsStringType(first.type) || first.type == Type::UntypedAtomic ||
        first.type == Type::AnyUri) {
      return !first.string.empty();
    }
    if (first.type == Type::Float || first.type == Type::Double)
      return first.number != 0 && !std::isnan(first.number);
    if (XPath::IsNumeric(first.type)) return first.decimal.Sign() != 0;
  }
  ThrowTypeError(
      u"FORG0006",
      sequence.size() > 1
          ? u"The effective boolean value of a sequence of several atomic values is "
            u"not defined."
          : u"The effective boolean value of an " + TypeLabel(first) + u" is not defined.");
}

std::u16string_view TrimSpace(std::u16string_view text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsXPathSpace(text[begin]))
    ++begin;
  while (end > begin && IsXPathSpace(text[end - 1]))
    --end;
  return text.substr(begin, end - begin);
}

std::u16string TypeLabel(const Item& item) {
  if (item.IsNode()) return u"node";
  return u"xs:" + std::u16string(TypeName(item.type));
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
