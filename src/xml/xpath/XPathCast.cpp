// The casting table: each pair of primitive types either converts by value, goes through the
// source's canonical string and the target's lexical form, or is not allowed.
#include "xml/xpath/XPathCast.h"

#include "xml/xpath/XPathCalendar.h"

#include <xercesc/util/XMLChar.hpp>

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

[[noreturn]] void ThrowInvalidValue(std::u16string_view text, Type target) {
  ThrowTypeError(u"FORG0001", u"\"" + std::u16string(text) + u"\" is not a valid xs:" +
                                  std::u16string(TypeName(target)) + u".");
}

[[noreturn]] void ThrowNotAllowed(const Item& value, Type target) {
  ThrowTypeError(u"XPTY0004", u"An " + TypeLabel(value) + u" cannot be cast to xs:" +
                                  std::u16string(TypeName(target)) + u".");
}

// ---- Whitespace

// Tabs, carriage returns and line feeds to spaces.
std::u16string Replaced(std::u16string_view text) {
  std::u16string out(text);
  for (char16_t& c : out) {
    if (c == u'\t' || c == u'\r' || c == u'\n') c = u' ';
  }
  return out;
}

// Runs of whitespace to one space, none at either end.
std::u16string Collapsed(std::u16string_view text) {
  std::u16string out;
  out.reserve(text.size());
  bool space = false;
  for (const char16_t c : text) {
    if (IsXPathSpace(c)) {
      space = !out.empty();
      continue;
    }
    if (space) out += u' ';
    space = false;
    out += c;
  }
  return out;
}

// ---- Numbers

struct IntegerBounds {
  Type type;
  const char16_t* minimum;  // null: unbounded
  const char16_t* maximum;
};

constexpr IntegerBounds Bounds[] = {
    {Type::NonPositiveInteger, nullptr, u"0"},
    {Type::NegativeInteger, nullptr, u"-1"},
    {Type::Long, u"-9223372036854775808", u"9223372036854775807"},
    {Type::Int, u"-2147483648", u"2147483647"},
    {Type::Short, u"-32768", u"32767"},
    {Type::Byte, u"-128", u"127"},
    {Type::NonNegativeInteger, u"0", nullptr},
    {Type::UnsignedLong, u"0", u"18446744073709551615"},
    {Type::UnsignedInt, u"0", u"4294967295"},
    {Type::UnsignedShort, u"0", u"65535"},
    {Type::UnsignedByte, u"0", u"255"},
    {Type::PositiveInteger, u"1", nullptr},
};

bool InRange(const Decimal& value, Type type) {
  // Read once: a cast to an integer type is common, the bounds never change.
  struct Range {
    Type type;
    std::optional<Decimal> minimum;
    std::optional<Decimal> maximum;
  };
  static const std::vector<Range> ranges = [] {
    std::vector<Range> table;
    for (const IntegerBounds& bounds : Bounds) {
      table.push_back({bounds.type,
                       bounds.minimum ? Decimal::ParseInteger(bounds.minimum) : std::nullopt,
                       bounds.maximum ? Decimal::ParseInteger(bounds.maximum) : std::nullopt});
    }
    return table;
  }();
  for (const Range& range : ranges) {
    if (range.type != type) continue;
    return (!range.minimum || value.Compare(*range.minimum) >= 0) &&
           (!range.maximum || value.Compare(*range.maximum) <= 0);
  }
  return true;
}

Item IntegerItem(Decimal value, Type target, std::u16string_view text) {
  if (!InRange(value, target)) ThrowInvalidValue(text, target);
  return Item::OfDecimal(std::move(value), target);
}

Decimal DecimalOfDouble(double value, bool isFloat, Type target) {
  if (std::isnan(value) || std::isinf(value)) {
    ThrowTypeError(u"FOCA0002", u"The " + DoubleToString(value) + u" cannot be cast to xs:" +
                                    std::u16string(TypeName(target)) + u".");
  }
  return isFloat ? Decimal::FromFloat(static_cast<float>(value)) : Decimal::FromDouble(value);
}

Decimal Truncated(const Decimal& value) {
  return value.IsInteger() ? value : *Decimal::IntegerDivide(value, Decimal::FromInt64(1));
}

// ---- Lexical forms

std::optional<bool> ParseBoolean(std::u16string_view text) {
  if (text == u"true" || text == u"1") return true;
  if (text == u"false" || text == u"0") return false;
  return std::nullopt;
}

int HexValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

std::optional<std::string> ParseHex(std::u16string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::string octets;
  octets.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = HexValue(text[i]);
    const int low = HexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    octets += static_cast<char>(high << 4 | low);
  }
  return octets;
}

int Base64Value(char16_t c) {
  if (c >= u'A' && c <= u'Z') return c - u'A';
  if (c >= u'a' && c <= u'z') return c - u'a' + 26;
  if (c >= u'0' && c <= u'9') return c - u'0' + 52;
  if (c == u'+') return 62;
  if (c == u'/') return 63;
  return -1;
}

// Base64 with white space allowed between characters (the type collapses white space, so line
// breaks are spaces too); padding only at the end, and the character before it may not carry
// bits the padding says are absent.
std::optional<std::string> ParseBase64(std::u16string_view text) {
  std::u16string compact;
  for (const char16_t c : text) {
    if (c != u' ' && c != u'\t' && c != u'\n' && c != u'\r') compact += c;
  }
  if (compact.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < compact.size() && compact[compact.size() - 1 - padding] == u'=')
    ++padding;
  const std::size_t data = compact.size() - padding;
  std::string octets;
  std::uint32_t bits = 0;
  int count = 0;
  for (std::size_t i = 0; i < data; ++i) {
    const int value = Base64Value(compact[i]);
    if (value < 0) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    if (++count == 4) {
      octets += static_cast<char>(bits >> 16);
      octets += static_cast<char>(bits >> 8);
      octets += static_cast<char>(bits);
      bits = 0;
      count = 0;
    }
  }
  if (padding == 2) {
    if (count != 2 || (bits & 15) != 0) return std::nullopt;
    octets += static_cast<char>(bits >> 4);
  } else if (padding == 1) {
    if (count != 3 || (bits & 3) != 0) return std::nullopt;
    octets += static_cast<char>(bits >> 10);
    octets += static_cast<char>(bits >> 2);
  }
  return octets;
}

bool IsLanguage(std::u16string_view text) {
  // [a-zA-Z]{1,8}(-[a-zA-Z0-9]{1,8})*
  std::size_t i = 0;
  bool first = true;
  while (true) {
    std::size_t length = 0;
    while (i < text.size() && text[i] != u'-') {
      const char16_t c = text[i];
      const bool letter = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
      if (!letter && (first || c < u'0' || c > u'9')) return false;
      ++length;
      ++i;
    }
    if (length < 1 || length > 8) return false;
    if (i == text.size()) return true;
    ++i;
    first = false;
  }
}

bool ValidForStringType(const std::u16string& text, Type target) {
  const XMLCh* chars = text.c_str();
  const XMLSize_t length = text.size();
  switch (target) {
    case Type::Language:
      return IsLanguage(text);
    case Type::NmToken:
      return length > 0 && xercesc::XMLChar1_0::isValidNmtoken(chars, length);
    case Type::Name:
      return length > 0 && xercesc::XMLChar1_0::isValidName(chars, length);
    case Type::NcName:
    case Type::Id:
    case Type::IdRef:
    case Type::Entity:
      return length > 0 && xercesc::XMLChar1_0::isValidNCName(chars, length);
    default:
      return true;
  }
}

// URI references are read leniently (spaces and other characters are escaped when used), but
// a broken percent escape or an empty scheme cannot be repaired.
bool ValidUri(std::u16string_view uri) {
  if (!uri.empty() && uri[0] == u':') return false;
  for (std::size_t i = 0; i < uri.size(); ++i) {
    if (uri[i] != u'%') continue;
    if (i + 2 >= uri.size() || HexValue(uri[i + 1]) < 0 || HexValue(uri[i + 2]) < 0) return false;
    i += 2;
  }
  return true;
}

CalendarKind CalendarKindOf(Type type) {
  switch (type) {
    case Type::Date:
      return CalendarKind::Date;
    case Type::Time:
      return CalendarKind::Time;
    case Type::GYearMonth:
      return CalendarKind::GYearMonth;
    case Type::GYear:
      return CalendarKind::GYear;
    case Type::GMonthDay:
      return CalendarKind::GMonthDay;
    case Type::GDay:
      return CalendarKind::GDay;
    case Type::GMonth:
      return CalendarKind::GMonth;
    default:
      return CalendarKind::DateTime;
  }
}

DurationKind DurationKindOf(Type type) {
  if (type == Type::YearMonthDuration) return DurationKind::YearMonth;
  if (type == Type::DayTimeDuration) return DurationKind::DayTime;
  return DurationKind::Duration;
}

Item QNameFromText(std::u16string_view text, const PrefixResolver& resolver) {
  const std::size_t colon = text.find(u':');
  const std::u16string prefix(colon == std::u16string_view::npos ? u"" : text.substr(0, colon));
  const std::u16string local(colon == std::u16string_view::npos ? text : text.substr(colon + 1));
  auto valid = [](const std::u16string& name) {
    return !name.empty() && xercesc::XMLChar1_0::isValidNCName(name.c_str(), name.size());
  };
  if ((colon != std::u16string_view::npos && !valid(prefix)) || !valid(local))
    ThrowInvalidValue(text, Type::QName);
  std::u16string uri;
  if (!resolver(prefix, uri) && !prefix.empty()) {
    ThrowTypeError(u"FONS0004", u"The prefix \"" + prefix + u"\" is not bound to a namespace.");
  }
  return Item::OfQName(std::move(uri), prefix, local);
}

// A value read from a string (whitespace not yet handled) as the target type.
Item FromText(std::u16string_view text, Type target, const PrefixResolver* resolver) {
  if (IsStringType(target)) {
    std::u16string value;
    if (target == Type::String) {
      value = std::u16string(text);
    } else if (target == Type::NormalizedString) {
      value = Replaced(text);
    } else {
      value = Collapsed(text);
    }
    if (!ValidForStringType(value, target)) ThrowInvalidValue(text, target);
    return Item::OfString(std::move(value), target);
  }
  if (target == Type::UntypedAtomic) return Item::OfUntyped(std::u16string(text));
  const std::u16string_view trimmed = TrimSpace(text);
  switch (target) {
    case Type::AnyUri: {
      std::u16string uri = Collapsed(text);
      if (!ValidUri(uri)) ThrowInvalidValue(text, target);
      return Item::OfString(std::move(uri), Type::AnyUri);
    }
    case Type::Boolean:
      if (const auto value = ParseBoolean(trimmed)) return Item::OfBoolean(*value);
      break;
    case Type::Float:
    case Type::Double: {
      double value = 0;
      if (ParseDouble(trimmed, value, target == Type::Float)) {
        return target == Type::Float ? Item::OfFloat(value) : Item::OfDouble(value);
      }
      break;
    }
    case Type::Decimal:
      if (auto value = Decimal::ParseDecimal(trimmed)) return Item::OfDecimal(std::move(*value));
      break;
    case Type::HexBinary:
      if (auto octets = ParseHex(trimmed)) return Item::OfBinary(target, std::move(*octets));
      break;
    case Type::Base64Binary:
      if (auto octets = ParseBase64(trimmed)) return Item::OfBinary(target, std::move(*octets));
      break;
    case Type::QName:
      if (!resolver) ThrowNotAllowed(Item::OfString(std::u16string(text)), target);
      return QNameFromText(trimmed, *resolver);
    default:
      break;
  }
  if (IsIntegerType(target)) {
    if (auto value = Decimal::ParseInteger(trimmed)) {
      return IntegerItem(std::move(*value), target, text);
    }
  } else if (IsCalendarType(target)) {
    if (auto value = ParseCalendar(CalendarKindOf(target), trimmed))
      return Item::OfCalendar(target, *value);
  } else if (IsDurationType(target)) {
    if (auto value = ParseDuration(DurationKindOf(target), trimmed))
      return Item::OfDuration(target, *value);
  }
  ThrowInvalidValue(text, target);
}

}  // namespace

bool ParseDouble(std::u16string_view text, double& value, bool isFloat) {
  text = TrimSpace(text);
  if (text == u"INF") {
    value = std::numeric_limits<double>::infinity();
    return true;
  }
  if (text == u"-INF") {
    value = -std::numeric_limits<double>::infinity();
    return true;
  }
  if (text == u"NaN") {
    value = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  // (+|-)? (digits (. digits?)? | . digits) ((e|E) (+|-)? digits)?
  std::string ascii;
  std::size_t i = 0;
  if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
    if (text[i] == u'-') ascii += '-';
    ++i;
  }
  bool digits = false;
  bool point = false;
  for (; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c >= u'0' && c <= u'9') {
      digits = true;
    } else if (c == u'.' && !point) {
      point = true;
    } else {
      break;
    }
    ascii += static_cast<char>(c);
  }
  if (!digits) return false;
  if (i < text.size() && (text[i] == u'e' || text[i] == u'E')) {
    ascii += 'e';
    ++i;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-'))
      ascii += static_cast<char>(text[i++]);
    bool exponentDigits = false;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
      ascii += static_cast<char>(text[i]);
      exponentDigits = true;
    }
    if (!exponentDigits) return false;
  }
  if (i != text.size()) return false;
  // from_chars gives out-of-range for overflow and underflow alike, without a value: strtod
  // gives the infinity or zero the value rounds to.
  if (isFloat) {
    value = static_cast<double>(std::strtof(ascii.c_str(), nullptr));
  } else {
    value = std::strtod(ascii.c_str(), nullptr);
  }
  return true;
}

bool CastAllowed(Type from, Type to) {
  if (from == Type::Node || !IsAtomic(to)) return false;
  if (from == to) return true;
  const Type source = PrimitiveOf(from);
  const Type target = PrimitiveOf(to);
  if (source == Type::UntypedAtomic || source == Type::String)
    return to != Type::Notation && (to != Type::QName || source == Type::String);
  if (to == Type::UntypedAtomic || target == Type::String) return true;
  switch (source) {
    case Type::Float:
    case Type::Double:
    case Type::Decimal:
    case Type::Boolean:
      return XPath::IsNumeric(to) || to == Type::Boolean;
    case Type::Duration:
      return target == Type::Duration;
    case Type::HexBinary:
    case Type::Base64Binary:
      return IsBinaryType(to);
    case Type::AnyUri:
      return to == Type::AnyUri;
    case Type::QName:
      return to == Type::QName;
    default:
      break;
  }
  if (IsCalendarType(from))
    return IsCalendarType(to) && CanCast(CalendarKindOf(from), CalendarKindOf(to));
  return false;
}

Item Cast(const Item& value, Type target, const PrefixResolver* resolver) {
  if (value.type == target) return value;
  if (!CastAllowed(value.type, target)) ThrowNotAllowed(value, target);
  const Type source = PrimitiveOf(value.type);
  if (source == Type::String || source == Type::UntypedAtomic) {
    return FromText(value.string, target, resolver);
  }
  if (IsStringType(target) || target == Type::UntypedAtomic) {
    return FromText(ToString(value), target, resolver);
  }
  if (source == Type::Boolean) {
    if (target == Type::Float || target == Type::Double) {
      return target == Type::Float ? Item::OfFloat(value.boolean) : Item::OfDouble(value.boolean);
    }
    return IntegerItem(Decimal::FromInt64(value.boolean ? 1 : 0),
                       IsIntegerType(target) ? target : Type::Decimal, ToString(value));
  }
  if (XPath::IsNumeric(value.type)) {
    const bool fromDouble = value.type == Type::Float || value.type == Type::Double;
    switch (target) {
      case Type::Boolean:
        return Item::OfBoolean(fromDouble ? value.number != 0 && !std::isnan(value.number)
                                          : value.decimal.Sign() != 0);
      case Type::Float:
        return Item::OfFloat(fromDouble ? value.number : value.decimal.ToFloat());
      case Type::Double:
        return Item::OfDouble(fromDouble ? value.number : value.decimal.ToDouble());
      case Type::Decimal:
        return Item::OfDecimal(
            fromDouble ? DecimalOfDouble(value.number, value.type == Type::Float, target)
                       : value.decimal);
      default: {
        const Decimal exact = fromDouble
                                  ? DecimalOfDouble(value.number, value.type == Type::Float, target)
                                  : value.decimal;
        return IntegerItem(Truncated(exact), target, ToString(value));
      }
    }
  }
  if (IsDurationType(value.type)) {
    return Item::OfDuration(target, XPath::Cast(value.AsDuration(), DurationKindOf(target)));
  }
  if (IsCalendarType(value.type)) {
    return Item::OfCalendar(target, XPath::Cast(value.AsCalendar(), CalendarKindOf(target)));
  }
  if (IsBinaryType(value.type)) return Item::OfBinary(target, value.AsOctets());
  ThrowNotAllowed(value, target);
}

bool Castable(const Item& value, Type target, const PrefixResolver* resolver) {
  if (!CastAllowed(value.type, target)) return false;
  try {
    Cast(value, target, resolver);
    return true;
  } catch (const XPathError&) {
    return false;
  }
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
