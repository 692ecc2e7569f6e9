// Escaping, white-space folding, splitting, matching and message formatting of text.
#include <veskan/StringBuffer.h>

#include <unicode/msgfmt.h>
#include <unicode/regex.h>
#include <unicode/ustring.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Veskan {

namespace {

// Fills `target` through a block of `capacity` units; `fill` returns the units it wrote.
template <typename Fill>
StringBuffer Build(std::int32_t capacity, Fill fill) {
  StringBuffer target;
  char16_t* block = target.getBuffer(capacity + 1);
  if (!block) return target;
  const std::int32_t written = fill(block);
  block[written] = 0;
  target.releaseBuffer(written);
  return target;
}

bool IsFoldedWhitespace(char16_t unit) {
  return unit == u' ' || unit == u'\n' || unit == 0x00A0 || unit == u'\r' || unit == u'\t';
}

// The escape of a markup character, or null.
const char16_t* XmlEntity(char16_t unit) {
  switch (unit) {
    case u'<':
      return u"&lt;";
    case u'>':
      return u"&gt;";
    case u'&':
      return u"&amp;";
    case u'\'':
      return u"&apos;";
    case u'"':
      return u"&quot;";
    default:
      return nullptr;
  }
}

constexpr std::int32_t XmlEntityLength(char16_t unit) {
  return unit == u'<' || unit == u'>'    ? 4
         : unit == u'&'                  ? 5
         : unit == u'\'' || unit == u'"' ? 6
                                         : 1;
}

bool NeedsNumericReference(char16_t unit) {
  return unit < 32 || unit > 126;
}

// For each ASCII unit, whether SafeForXml changes it.
constexpr std::array<bool, 128> AsciiEscapes = [] {
  std::array<bool, 128> escapes{};
  for (int unit = 0; unit < 128; ++unit) {
    escapes[unit] = unit < 32 || unit > 126 || unit == '<' || unit == '>' || unit == '&' ||
                    unit == '\'' || unit == '"';
  }
  return escapes;
}();

// True when SafeForXml changes `unit`; NUL included.
bool NeedsEscape(char16_t unit) {
  return unit >= 128 || AsciiEscapes[unit];
}

template <typename Vector>
bool AnyLaneSet(const Vector& lanes) {
  std::uint64_t halves[2];
  static_assert(sizeof lanes == sizeof halves, "16-byte vectors");
  std::memcpy(halves, &lanes, sizeof halves);
  return (halves[0] | halves[1]) != 0;
}

#if defined(__SSE2__)
// Sixteen bytes, compared all at once (GCC and Clang vector extension).
typedef std::uint8_t Bytes16 __attribute__((vector_size(16)));

// Lanes of all ones where a byte needs escaping: outside printable ASCII, '"', '&' or '\''
// (0x26 and 0x27 become 0x27 with the low bit set), '<' or '>' (0x3C and 0x3E become 0x3E with
// bit 1 set).
Bytes16 EscapeLanes(Bytes16 bytes) {
  return ((bytes - 32) > 94) | (bytes == 0x22) | ((bytes | 1) == 0x27) | ((bytes | 2) == 0x3E);
}

// Whether any of the 32 units at `text` needs escaping. The units are packed into bytes with
// unsigned saturation first (values from 0x100 become 0xFF, values from 0x8000 become 0: both
// need escaping anyway), so one compare covers sixteen units.
bool AnyToEscapeIn32(const char16_t* text) {
  __m128i units[4];
  std::memcpy(units, text, sizeof units);
  const __m128i packed[2] = {_mm_packus_epi16(units[0], units[1]),
                             _mm_packus_epi16(units[2], units[3])};
  Bytes16 bytes[2];
  std::memcpy(bytes, packed, sizeof bytes);
  return AnyLaneSet(EscapeLanes(bytes[0]) | EscapeLanes(bytes[1]));
}
#else
// Whether any of the 32 units at `text` needs escaping, eight units a compare.
bool AnyToEscapeIn32(const char16_t* text) {
  typedef std::uint16_t Units8 __attribute__((vector_size(16)));
  Units8 units[4];
  std::memcpy(units, text, sizeof units);
  Units8 found{};
  for (const Units8& u : units) {
    found |= ((u - 32) > 94) | (u == 0x22) | ((u | 1) == 0x27) | ((u | 2) == 0x3E);
  }
  return AnyLaneSet(found);
}
#endif

// The index of the first unit of `length` that needs escaping, or `length`. Clean text is the
// common case, so it is scanned 32 units at a time. With `copy`, the units are copied there on
// the way, which costs little more than the scan: those before the returned index, and up to 31
// more, so `copy` must have room for `length` units.
std::int32_t FirstToEscape(const char16_t* text, std::int32_t length, char16_t* copy = nullptr) {
  std::int32_t i = 0;
  for (; i + 32 <= length; i += 32) {
    if (copy) std::memcpy(copy + i, text + i, 32 * sizeof *text);
    if (AnyToEscapeIn32(text + i)) break;
  }
  for (; i < length && !NeedsEscape(text[i]); ++i) {
    if (copy) copy[i] = text[i];
  }
  return i;
}

// The escaped form of `length` units of `text`, the first `first` of which need no escaping.
// Both passes jump over clean runs with the vector scan.
StringBuffer Escape(const char16_t* text, std::int32_t length, std::int32_t first) {
  std::int64_t outputLength = first;
  for (std::int32_t i = first; i < length;) {
    const char16_t unit = text[i++];
    outputLength += NeedsNumericReference(unit) ? 8 : XmlEntityLength(unit);
    const std::int32_t run = FirstToEscape(text + i, length - i);
    outputLength += run;
    i += run;
  }
  if (outputLength >= INT32_MAX) return StringBuffer();
  static const char16_t Hex[] = u"0123456789ABCDEF";
  return Build(static_cast<std::int32_t>(outputLength), [&](char16_t* out) {
    u_memcpy(out, text, first);
    char16_t* next = out + first;
    for (std::int32_t i = first; i < length;) {
      const char16_t unit = text[i++];
      if (NeedsNumericReference(unit)) {
        *next++ = u'&';
        *next++ = u'#';
        *next++ = u'x';
        for (int shift = 12; shift >= 0; shift -= 4)
          *next++ = Hex[(unit >> shift) & 0xF];
        *next++ = u';';
      } else {
        for (const char16_t* entity = XmlEntity(unit); *entity; ++entity)
          *next++ = *entity;
      }
      const std::int32_t run = FirstToEscape(text + i, length - i, next);
      next += run;
      i += run;
    }
    return static_cast<std::int32_t>(next - out);
  });
}

// Doubles each `brace` that is not already followed by another, then skips past the pair.
StringBuffer DoubleBrace(const icu::UnicodeString& text, char16_t brace) {
  const std::int32_t length = text.length();
  const char16_t* units = text.getBuffer();
  return Build(length * 2, [&](char16_t* out) {
    char16_t* next = out;
    std::int32_t i = 0;
    while (i < length) {
      const char16_t unit = units[i];
      *next++ = unit;
      if (unit != brace) {
        ++i;
        continue;
      }
      *next++ = brace;  // the second of the pair, inserted or already there
      i += (i + 1 < length && units[i + 1] == brace) ? 2 : 1;
    }
    return static_cast<std::int32_t>(next - out);
  });
}

}  // namespace

StringBuffer NormalizeWhitespace(const char16_t* text) {
  const std::int32_t length = StringLength(text);
  if (length == 0) return StringBuffer();
  return Build(length, [&](char16_t* out) {
    std::int32_t written = 0;
    char16_t last = u' ';
    for (std::int32_t i = 0; i < length; ++i) {
      char16_t unit = text[i];
      if (IsFoldedWhitespace(unit)) {
        if (IsFoldedWhitespace(last)) continue;
        unit = u' ';
      }
      out[written++] = unit;
      last = unit;
    }
    while (written > 0 && out[written - 1] == u' ')
      --written;
    return written;
  });
}

StringBuffer SafeForXml(const char16_t* text) {
  const std::int32_t length = StringLength(text);
  if (length == 0) return StringBuffer();
  // Clean text comes back as a copy, made while scanning it.
  StringBuffer result;
  char16_t* block = result.getBuffer(length + 1);
  if (!block) return result;
  const std::int32_t clean = FirstToEscape(text, length, block);
  block[clean] = 0;
  result.releaseBuffer(clean);
  return clean == length ? result : Escape(text, length, clean);
}

StringBuffer SafeForXml(const StringBuffer& text) {
  const std::int32_t length = text.length();
  const std::int32_t clean = FirstToEscape(text.getBuffer(), length);
  if (clean == length) return text;  // shares the buffer
  return Escape(text.getBuffer(), length, clean);
}

StringBuffer DoubleBracesForXQuery(const char16_t* text) {
  if (IsEmptyString(text)) return StringBuffer();
  return DoubleBrace(DoubleBrace(StringBuffer(text), u'{'), u'}');
}

int Tokenize(const char16_t* text, StringList& list, const char16_t* delimiters) {
  const std::int32_t length = StringLength(text);
  const std::int32_t delimiterCount = StringLength(delimiters);
  int added = 0;
  std::int32_t start = 0;
  while (start < length) {
    std::int32_t end = start;
    while (end < length && !u_memchr(delimiters ? delimiters : u"", text[end], delimiterCount)) {
      ++end;
    }
    list.Add(StringBuffer(text, start, end - start));
    ++added;
    start = end + 1;
  }
  return added;
}

bool Regex(const char16_t* text, const char16_t* pattern) {
  // The steps of RegexPattern::matches, which crashes on a pattern that does not compile.
  UParseError where;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexPattern> compiled(
      icu::RegexPattern::compile(StringBuffer(pattern), 0, where, status));
  if (U_FAILURE(status) || !compiled) return false;
  const StringBuffer input(text);
  std::unique_ptr<icu::RegexMatcher> matcher(compiled->matcher(input, status));
  if (U_FAILURE(status) || !matcher) return false;
  const bool matched = matcher->matches(status);
  return U_SUCCESS(status) && matched;
}

StringBuffer MessageFormat(const char16_t* pattern, const icu::Formattable* args, int count) {
  StringBuffer result;
  UErrorCode status = U_ZERO_ERROR;
  if (count < 0 || (count > 0 && !args)) {
    status = U_ILLEGAL_ARGUMENT_ERROR;
  } else {
    icu::MessageFormat::format(StringBuffer(pattern), args, count, result, status);
  }
  if (U_FAILURE(status)) {
    result.setToBogus();
  } else {
    result.getTerminatedBuffer();
  }
  return result;
}

StringBuffer MessageFormat(const char16_t* pattern, std::initializer_list<icu::Formattable> args) {
  return MessageFormat(pattern, args.begin(), static_cast<int>(args.size()));
}

}  // namespace Veskan
