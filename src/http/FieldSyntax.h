// The syntax of HTTP fields (RFC 9110 section 5): what a name and a value may hold, shared by the
// reader and the writers of messages, headers and cookies, and a safe form of field text for log
// lines.
#ifndef VESKAN_HTTP_FIELDSYNTAX_H
#define VESKAN_HTTP_FIELDSYNTAX_H

#include <veskan/StringBuffer.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <type_traits>

namespace Veskan {
namespace Detail {

// Compares without regard to ASCII case, as HTTP compares field names and tokens such as "close"
// (RFC 7230 sections 3.2 and 6.1); other characters must match exactly.
inline bool EqualsIgnoringAsciiCase(const StringBuffer& text, const char16_t* other) {
  const char16_t* units = text.getBuffer();
  int length = text.length();
  auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c + 32) : c; };
  for (int i = 0; i < length; ++i) {
    if (other[i] == 0 || lower(units[i]) != lower(other[i])) return false;
  }
  return other[length] == 0;
}

// tchar of RFC 9110 section 5.6.2: the characters of field names, methods and transfer codings.
inline bool IsTokenChar(unsigned c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '!':
    case '#':
    case '$':
    case '%':
    case '&':
    case '\'':
    case '*':
    case '+':
    case '-':
    case '.':
    case '^':
    case '_':
    case '`':
    case '|':
    case '~':
      return true;
    default:
      return false;
  }
}

// A field value character (RFC 9110 section 5.5): HTAB, SP, visible ASCII and, as obs-text,
// anything above ASCII. CR, LF, NUL and every other control would let a value end its line and
// begin another, or be read differently by the next recipient.
inline bool IsFieldValueChar(unsigned c) {
  return c == '\t' || (c >= 0x20 && c != 0x7F);
}

// `Unit` is char (bytes on the wire) or char16_t (texts the host set); units are compared as
// unsigned values, so a UTF-16 unit above 0xFF is never taken for a byte of the same low value.
template <typename Unit>
bool IsToken(const Unit* units, std::size_t length) {
  if (length == 0) return false;
  for (std::size_t i = 0; i < length; ++i) {
    if (!IsTokenChar(static_cast<unsigned>(static_cast<std::make_unsigned_t<Unit>>(units[i]))))
      return false;
  }
  return true;
}

template <typename Unit>
bool IsFieldValue(const Unit* units, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    if (!IsFieldValueChar(static_cast<unsigned>(static_cast<std::make_unsigned_t<Unit>>(units[i]))))
      return false;
  }
  return true;
}

// True when every surrogate of `text` belongs to a pair, so that the text has a UTF-8 form.
inline bool IsWellFormedUtf16(const StringBuffer& text) {
  for (int i = 0; i < text.length(); ++i) {
    const char16_t unit = text.charAt(i);
    if (unit < 0xD800 || unit > 0xDFFF) continue;
    if (unit > 0xDBFF || i + 1 == text.length() || text.charAt(i + 1) < 0xDC00 ||
        text.charAt(i + 1) > 0xDFFF) {
      return false;
    }
    ++i;
  }
  return true;
}

// A header the writers may put on the wire as it is: a token for a name and a value free of
// controls that has a UTF-8 form (a value cut short at an unpaired surrogate would be corrupt).
inline bool IsWritableField(const StringBuffer& name, const StringBuffer& value) {
  return IsToken(name.getBuffer(), static_cast<std::size_t>(name.length())) &&
         IsFieldValue(value.getBuffer(), static_cast<std::size_t>(value.length())) &&
         IsWellFormedUtf16(value);
}

// `text` for a log line: UTF-8 with every control (HTAB too) written as "\xNN", cut after 64
// units, so that what a peer or host put in a field cannot forge log lines.
inline std::string ForLog(const StringBuffer& text) {
  constexpr int Shown = 64;
  StringBuffer shown;
  for (int i = 0; i < text.length() && i < Shown; ++i) {
    char16_t unit = text.charAt(i);
    if (unit < 0x20 || unit == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned>(unit));
      shown += StringBuffer(escaped);
    } else {
      shown += unit;
    }
  }
  if (text.length() > Shown) shown += StringBuffer("...");
  return shown.ToUTF8();
}

}  // namespace Detail
}  // namespace Veskan

#endif
