// Escaping, white-space folding, splitting, matching and message formatting of text.
#include <veskan/StringBuffer.h>

#include <unicode/msgfmt.h>
#include <unicode/regex.h>
#include <unicode/ustring.h>

#include <memory>

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
  return unit == u'<' || unit == u'>' ? 4 : unit == u'&' ? 5 : unit == u'\'' || unit == u'"' ? 6 : 1;
}

bool NeedsNumericReference(char16_t unit) { return unit < 32 || unit > 126; }

StringBuffer SafeForXml(const char16_t* text, std::int32_t length,
                        const icu::UnicodeString* original) {
  std::int64_t outputLength = 0;
  for (std::int32_t i = 0; i < length; ++i) {
    const char16_t unit = text[i];
    outputLength += NeedsNumericReference(unit) ? 8 : XmlEntityLength(unit);
  }
  if (outputLength == length) return original ? StringBuffer(*original) : StringBuffer(text, length);
  if (outputLength >= INT32_MAX) return StringBuffer();
  static const char16_t Hex[] = u"0123456789ABCDEF";
  return Build(static_cast<std::int32_t>(outputLength), [&](char16_t* out) {
    char16_t* next = out;
    for (std::int32_t i = 0; i < length; ++i) {
      const char16_t unit = text[i];
      if (NeedsNumericReference(unit)) {
        *next++ = u'&';
        *next++ = u'#';
        *next++ = u'x';
        for (int shift = 12; shift >= 0; shift -= 4) *next++ = Hex[(unit >> shift) & 0xF];
        *next++ = u';';
      } else if (const char16_t* entity = XmlEntity(unit)) {
        while (*entity) *next++ = *entity++;
      } else {
        *next++ = unit;
      }
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
    while (written > 0 && out[written - 1] == u' ') --written;
    return written;
  });
}

StringBuffer SafeForXml(const char16_t* text) {
  return SafeForXml(SafeStringLiteral(text), StringLength(text), nullptr);
}

StringBuffer SafeForXml(const icu::UnicodeString& text) {
  return SafeForXml(text.getBuffer(), text.isBogus() ? 0 : text.length(), &text);
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

StringBuffer MessageFormat(const char16_t* pattern,
                           std::initializer_list<icu::Formattable> args) {
  return MessageFormat(pattern, args.begin(), static_cast<int>(args.size()));
}

}  // namespace Veskan
