// The XPath engine's error and the XPath 1.0 conversions between node string-values, strings,
// numbers and booleans.
#include "xml/xpath/XPathValue.h"

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

// ---- Numbers

void ShortestDigits(double value, std::string& digits, int& exponent) {
  // std::to_chars gives the shortest round-trip form; its scientific notation "d.ddde[+-]xx"
  // splits into the digits and the exponent.
  std::array<char, 64> buffer{};
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
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

std::u16string NumberToString(double value) {
  if (std::isnan(value)) return u"NaN";
  if (std::isinf(value)) return value > 0 ? u"Infinity" : u"-Infinity";
  if (value == 0) return u"0";

  std::string digits;
  int exponent = 0;
  ShortestDigits(value, digits, exponent);
  const bool negative = value < 0;

  // `exponent` + 1 digits stand before the point.
  const int integerDigits = exponent + 1;
  std::u16string out;
  if (negative) out += u'-';
  if (integerDigits <= 0) {
    out += u"0.";
    out.append(static_cast<std::size_t>(-integerDigits), u'0');
    for (const char c : digits)
      out += static_cast<char16_t>(c);
    return out;
  }
  const auto whole = static_cast<std::size_t>(integerDigits);
  for (std::size_t i = 0; i < whole; ++i) {
    out += i < digits.size() ? static_cast<char16_t>(digits[i]) : u'0';
  }
  if (digits.size() > whole) {
    out += u'.';
    for (std::size_t i = whole; i < digits.size(); ++i)
      out += static_cast<char16_t>(digits[i]);
  }
  return out;
}

double StringToNumber(std::u16string_view text) {
  constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsXPathSpace(text[begin]))
    ++begin;
  while (end > begin && IsXPathSpace(text[end - 1]))
    --end;

  // Check the grammar while copying to ASCII for the conversion.
  std::string ascii;
  ascii.reserve(end - begin);
  std::size_t i = begin;
  if (i < end && text[i] == u'-') {
    ascii += '-';
    ++i;
  }
  bool anyDigit = false;
  bool nonZeroBeforePoint = false;
  bool point = false;
  for (; i < end; ++i) {
    const char16_t c = text[i];
    if (c >= u'0' && c <= u'9') {
      anyDigit = true;
      if (!point && c != u'0') nonZeroBeforePoint = true;
    } else if (c == u'.' && !point) {
      point = true;
    } else {
      return NaN;
    }
    ascii += static_cast<char>(c);
  }
  if (!anyDigit) return NaN;

  double value = 0;
  const auto result =
      std::from_chars(ascii.data(), ascii.data() + ascii.size(), value, std::chars_format::fixed);
  if (result.ec == std::errc::result_out_of_range) {
    // Too large for a double, or so small that it rounds to zero.
    const bool negative = ascii[0] == '-';
    value = nonZeroBeforePoint ? std::numeric_limits<double>::infinity() : 0.0;
    return negative ? -value : value;
  }
  if (result.ec != std::errc() || result.ptr != ascii.data() + ascii.size()) return NaN;
  return value;
}

// ---- Items and sequences

std::u16string ToString(const Item& item) {
  switch (item.type) {
    case ItemType::Node:
      return StringValue(item.node);
    case ItemType::String:
      return item.string;
    case ItemType::Number:
      return NumberToString(item.number);
    case ItemType::Boolean:
      return item.boolean ? u"true" : u"false";
  }
  return std::u16string();
}

double ToNumber(const Item& item) {
  switch (item.type) {
    case ItemType::Node:
      return StringToNumber(StringValue(item.node));
    case ItemType::String:
      return StringToNumber(item.string);
    case ItemType::Number:
      return item.number;
    case ItemType::Boolean:
      return item.boolean ? 1 : 0;
  }
  return std::numeric_limits<double>::quiet_NaN();
}

bool ToBoolean(const Item& item) {
  switch (item.type) {
    case ItemType::Node:
      return true;
    case ItemType::String:
      return !item.string.empty();
    case ItemType::Number:
      return item.number != 0 && !std::isnan(item.number);
    case ItemType::Boolean:
      return item.boolean;
  }
  return false;
}

std::u16string ToString(const Sequence& sequence) {
  return sequence.empty() ? std::u16string() : ToString(sequence.front());
}

double ToNumber(const Sequence& sequence) {
  return sequence.empty() ? std::numeric_limits<double>::quiet_NaN() : ToNumber(sequence.front());
}

bool EffectiveBoolean(const Sequence& sequence) {
  if (sequence.empty()) return false;
  if (sequence.front().IsNode()) return true;
  if (sequence.size() > 1) {
    ThrowTypeError(u"FORG0006",
                   u"The effective boolean value of a sequence of several atomic values is not "
                   u"defined.");
  }
  return ToBoolean(sequence.front());
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
