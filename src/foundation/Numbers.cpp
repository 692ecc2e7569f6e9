// Formatting and parsing of booleans and numbers. Independent of the C locale: the decimal point
// is always '.'.
#include <veskan/StringBuffer.h>

#include <unicode/stringoptions.h>
#include <unicode/ustring.h>

#include <cfloat>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace Veskan {

namespace {

constexpr double Epsilon = DBL_EPSILON;  // 2.220446049250313e-16

// ASCII text as a StringBuffer (no UTF-8 decoding needed).
StringBuffer FromAscii(const char* text, std::size_t length) {
  StringBuffer result;
  char16_t* block = result.getBuffer(static_cast<std::int32_t>(length) + 1);
  if (!block) return result;
  for (std::size_t i = 0; i < length; ++i)
    block[i] = static_cast<unsigned char>(text[i]);
  block[length] = 0;
  result.releaseBuffer(static_cast<std::int32_t>(length));
  return result;
}

template <typename Integer>
StringBuffer FormatWholeNumber(Integer value, int style) {
  char text[24];
  char* next = text;
  std::to_chars_result result;
  if (style == FormattingStyles::HexadecimalYesNo) {
    *next++ = '#';
    result =
        std::to_chars(next, std::end(text), static_cast<std::make_unsigned_t<Integer>>(value), 16);
  } else {
    result = std::to_chars(next, std::end(text), value);
  }
  return FromAscii(text, static_cast<std::size_t>(result.ptr - text));
}

// The number of decimals of a fixed-point text once trailing zeros are dropped.
int SignificantDecimals(const char* begin, const char* end) {
  const char* point =
      std::char_traits<char>::find(begin, static_cast<std::size_t>(end - begin), '.');
  if (!point) return 0;
  while (end > point + 1 && end[-1] == '0')
    --end;
  return static_cast<int>(end - point - 1);
}

bool EqualsIgnoringCase(const char16_t* text, std::int32_t length, const char16_t* word) {
  UErrorCode status = U_ZERO_ERROR;
  return u_strCaseCompare(text, length, word, -1, U_FOLD_CASE_DEFAULT, &status) == 0 &&
         U_SUCCESS(status);
}

bool IsAsciiSpace(char16_t unit) {
  return unit == u' ' || (unit >= u'\t' && unit <= u'\r');
}

// The value of hexadecimal or decimal digits at `text` (ASCII only), saturating at UINT64_MAX.
// `digits` counts the digits read.
std::uint64_t ReadDigits(const char16_t*& text, int base, int& digits) {
  std::uint64_t value = 0;
  bool saturated = false;
  digits = 0;
  for (;; ++text) {
    int digit;
    const char16_t unit = *text;
    if (unit >= u'0' && unit <= u'9') {
      digit = unit - u'0';
    } else if (base == 16 && unit >= u'a' && unit <= u'f') {
      digit = unit - u'a' + 10;
    } else if (base == 16 && unit >= u'A' && unit <= u'F') {
      digit = unit - u'A' + 10;
    } else {
      break;
    }
    ++digits;
    if (saturated || value > (UINT64_MAX - static_cast<unsigned>(digit)) / base) {
      saturated = true;
      continue;
    }
    value = value * base + static_cast<unsigned>(digit);
  }
  return saturated ? UINT64_MAX : value;
}

// The shared reading of ParseInteger and ParseInteger64; `bits` is 32 or 64.
long long ParseWholeNumber(const char16_t* text, int bits) {
  const std::int32_t length = StringLength(text);
  if (length == 0) return 0;
  if (EqualsIgnoringCase(text, length, u"min")) return INT_MIN;
  if (EqualsIgnoringCase(text, length, u"max")) return INT_MAX;
  const long long lowest = bits == 32 ? INT_MIN : LLONG_MIN;
  const long long highest = bits == 32 ? INT_MAX : LLONG_MAX;
  const std::uint64_t allBits = bits == 32 ? UINT32_MAX : UINT64_MAX;

  int base = 10;
  if (length >= 2 && text[0] == u'#') {
    base = 16;
    text += 1;
  } else if (length >= 3 && text[0] == u'0' && (text[1] == u'x' || text[1] == u'X')) {
    base = 16;
    text += 2;
  }
  while (IsAsciiSpace(*text))
    ++text;
  const bool negative = *text == u'-';
  if (*text == u'-' || *text == u'+') ++text;
  int digits = 0;
  const std::uint64_t magnitude = ReadDigits(text, base, digits);
  if (digits == 0) return 0;

  if (base == 16) {
    // A bit pattern: "#FFFFFFFF" is -1 in 32 bits.
    std::uint64_t pattern = magnitude > allBits ? allBits : magnitude;
    if (negative) pattern = (~pattern + 1) & allBits;
    return bits == 32 ? static_cast<std::int32_t>(static_cast<std::uint32_t>(pattern))
                      : static_cast<long long>(pattern);
  }
  if (negative) {
    return magnitude > static_cast<std::uint64_t>(-(lowest + 1)) + 1
               ? lowest
               : static_cast<long long>(0 - magnitude);
  }
  return magnitude > static_cast<std::uint64_t>(highest) ? highest
                                                         : static_cast<long long>(magnitude);
}

}  // namespace

const char16_t* FormatBoolean(bool value, int style) {
  switch (style) {
    case FormattingStyles::HexadecimalYesNo:
      return value ? u"yes" : u"no";
    case FormattingStyles::NumericBoolean:
      return value ? u"1" : u"0";
    default:
      return value ? u"true" : u"false";
  }
}

StringBuffer FormatInteger(int value, int style) {
  return FormatWholeNumber(value, style);
}

StringBuffer FormatInteger64(long long value, int style) {
  return FormatWholeNumber(value, style);
}

StringBuffer FormatDouble(double value) {
  if (std::isnan(value)) return StringBuffer(u"NaN");
  if (std::isinf(value)) return StringBuffer(value > 0 ? u"Infinity" : u"-Infinity");

  // Values within one epsilon of a whole number print as that number.
  double whole;
  if (std::modf(value + Epsilon, &whole) == 0.0) {
    value += Epsilon;
  } else if (std::modf(value - Epsilon, &whole) == 0.0) {
    value -= Epsilon;
  }

  // Six decimals, or fifteen when all six are used; the text then loses its trailing zeros, which
  // is what printing again with that many decimals would give. to_chars rounds exactly like
  // printf's "%lf" but is several times faster.
  char text[DBL_MAX_10_EXP + 32];
  auto printed = std::to_chars(text, std::end(text), value, std::chars_format::fixed, 6);
  int decimals = SignificantDecimals(text, printed.ptr);
  if (decimals == 6) {
    printed = std::to_chars(text, std::end(text), value, std::chars_format::fixed, 15);
    decimals = SignificantDecimals(text, printed.ptr);
  }
  if (decimals > 0) {
    const char* point = std::char_traits<char>::find(text, sizeof text, '.');
    return FromAscii(text, static_cast<std::size_t>(point + 1 + decimals - text));
  }

  // No decimals left: round half away from zero and print the whole number.
  const double rounded = value < 0 ? std::ceil(value - 0.5) : std::trunc(value + 0.5);
  if (rounded >= INT_MIN && rounded <= INT_MAX) {
    return FormatInteger(static_cast<int>(rounded));
  }
  printed = std::to_chars(text, std::end(text), rounded, std::chars_format::fixed, 0);
  return FromAscii(text, static_cast<std::size_t>(printed.ptr - text));
}

bool ParseBoolean(const char16_t* text) {
  const std::int32_t length = StringLength(text);
  if (length == 0) return false;
  if (EqualsIgnoringCase(text, length, u"true") || EqualsIgnoringCase(text, length, u"yes")) {
    return true;
  }
  return text[0] == u'1' && length == 1;
}

int ParseInteger(const char16_t* text) {
  return static_cast<int>(ParseWholeNumber(text, 32));
}

long long ParseInteger64(const char16_t* text) {
  return ParseWholeNumber(text, 64);
}

double ParseDouble(const char16_t* text) {
  const std::int32_t length = StringLength(text);
  if (length == 0) return 0.0;
  if (EqualsIgnoringCase(text, length, u"NaN")) return std::numeric_limits<double>::quiet_NaN();
  if (EqualsIgnoringCase(text, length, u"Infinity")) return HUGE_VAL;
  if (EqualsIgnoringCase(text, length, u"-Infinity")) return -HUGE_VAL;
  if (EqualsIgnoringCase(text, length, u"max")) return DBL_MAX;
  if (EqualsIgnoringCase(text, length, u"min")) return DBL_MIN;

  // A number is ASCII: narrow the leading ASCII run instead of a full UTF-8 conversion.
  std::string narrow;
  std::int32_t start = 0;
  while (start < length && IsAsciiSpace(text[start]))
    ++start;
  for (std::int32_t i = start; i < length && text[i] < 0x80; ++i) {
    narrow += static_cast<char>(text[i]);
  }
  const char* begin = narrow.c_str();
  const char* end = begin + narrow.size();
  const bool negative = *begin == '-';
  if (*begin == '+' || *begin == '-') ++begin;
  if (*begin == '+' || *begin == '-') return 0.0;  // from_chars would take a second sign

  double value = 0.0;
  const auto result = std::from_chars(begin, end, value);
  if (result.ec == std::errc::result_out_of_range) {
    // Too large or too small for a double: strtod's answers are infinity and zero.
    long double wide = 0.0L;
    const auto retry = std::from_chars(begin, end, wide);
    if (retry.ec == std::errc()) {
      value = static_cast<double>(wide);
    } else {
      const char* exponent = std::char_traits<char>::find(begin, result.ptr - begin, 'e');
      if (!exponent) exponent = std::char_traits<char>::find(begin, result.ptr - begin, 'E');
      value = exponent && exponent[1] == '-' ? 0.0 : HUGE_VAL;
    }
  } else if (result.ec != std::errc()) {
    return 0.0;
  }
  return negative ? -value : value;
}

}  // namespace Veskan
