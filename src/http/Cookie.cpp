// Cookies and their header forms.
#include <veskan/Cookie.h>

#include <veskan/Logger.h>

#include "http/FieldSyntax.h"

#include <unicode/stringoptions.h>
#include <unicode/ustring.h>

#include <iterator>
#include <string>

namespace Veskan {

namespace {

bool EqualsIgnoringCase(const StringBuffer& text, const char16_t* word) {
  return text.caseCompare(word, U_FOLD_CASE_DEFAULT) == 0;
}

// The text with every "=", ";", "," and blank replaced by "_", so that it cannot break the
// header's syntax.
StringBuffer Sanitized(const StringBuffer& text) {
  StringBuffer sanitized(text);
  for (const char16_t unsafe : {u'=', u';', u',', u' '})
    sanitized.findAndReplace(unsafe, u'_');
  sanitized.getTerminatedBuffer();
  return sanitized;
}

// False when `text` holds a control character (HTAB included): no cookie may carry one (RFC 6265
// section 4.1.1), and CR, LF or NUL would end the header line it is written into. False too for
// an unpaired surrogate, which has no UTF-8 form and would cost the line every other cookie.
bool CanBeWritten(const StringBuffer& text) {
  for (int i = 0; i < text.length(); ++i) {
    if (text.charAt(i) == u'\t' || !Detail::IsFieldValueChar(text.charAt(i))) return false;
  }
  return Detail::IsWellFormedUtf16(text);
}

}  // namespace

bool Cookie::Attributes::Reserved(const char16_t* name) {
  const StringBuffer text(name);
  if (text.length() > 1 && text[0] == u'$') return true;
  for (const char16_t* attribute :
       {u"Max-Age", u"Comment", u"Domain", u"Path", u"Secure", u"Version", u"Discard"}) {
    if (EqualsIgnoringCase(text, attribute)) return true;
  }
  return false;
}

Cookie::Collection::Collection(const Collection& other) {
  *this = other;
}

Cookie::Collection& Cookie::Collection::operator=(const Collection& other) {
  if (this == &other) return *this;
  Map copies;
  for (const auto& [name, cookie] : other.cookies_) {
    copies.emplace(name, std::make_shared<Cookie>(*cookie));
  }
  cookies_.swap(copies);
  return *this;
}

Cookie::Collection::~Collection() = default;

std::shared_ptr<Cookie> Cookie::Collection::operator[](const char16_t* name) {
  std::shared_ptr<Cookie>& cookie = cookies_[StringBuffer(name)];
  if (!cookie) cookie = std::make_shared<Cookie>(name);
  return cookie;
}

std::shared_ptr<Cookie> Cookie::Collection::operator()(int index) const {
  if (index < 0 || index >= Count()) return nullptr;
  return std::next(cookies_.begin(), index)->second;
}

bool Cookie::Collection::Contains(const char16_t* name) const {
  return cookies_.count(StringBuffer(name)) != 0;
}

void Cookie::Collection::Remove(const char16_t* name) {
  cookies_.erase(StringBuffer(name));
}

void Cookie::Collection::Clear() {
  cookies_.clear();
}

void Cookie::Collection::Read(Header::Collection& headers) {
  for (int index = headers.Count() - 1; index >= 0; --index) {
    const Header& header = headers(index);
    if (header.Name != Header::SetCookie && header.Name != Header::Cookie) continue;
    const StringBuffer text = header.Value;
    const int32_t length = text.length();
    std::shared_ptr<Cookie> current;
    // Flag attributes such as "Discard" have no "=": they stand between ";" before the next name
    // or at the end. Only "Discard" means something.
    auto applyFlags = [&](int32_t start, int32_t end) {
      while (start < end) {
        int32_t flagEnd = text.indexOf(u';', start, end - start);
        if (flagEnd < 0) flagEnd = end;
        const StringBuffer flag(text.tempSubString(start, flagEnd - start));
        if (current && EqualsIgnoringCase(flag, u"Discard")) current->Discard = true;
        start = flagEnd + 1;
      }
    };
    int32_t position = 0;
    while (position < length) {
      const int32_t equals = text.indexOf(u'=', position);
      if (equals < 0) {
        applyFlags(position, length);
        break;
      }
      int32_t nameStart = position;
      const int32_t lastSemicolon = text.lastIndexOf(u';', position, equals - position);
      if (lastSemicolon >= 0) {
        applyFlags(position, lastSemicolon);
        nameStart = lastSemicolon + 1;
      }
      const StringBuffer name(text.tempSubString(nameStart, equals - nameStart));
      int32_t valueEnd = text.indexOf(u';', equals + 1);
      if (valueEnd < 0) valueEnd = text.indexOf(u',', equals + 1);
      if (valueEnd < 0) valueEnd = length;
      const StringBuffer value(text.tempSubString(equals + 1, valueEnd - equals - 1));
      position = valueEnd + 1;

      if (Attributes::Reserved(name.c_str())) {
        if (!current) continue;  // an attribute before any cookie belongs to none
        if (EqualsIgnoringCase(name, u"Max-Age")) current->MaxAge = ParseInteger(value.c_str());
        if (EqualsIgnoringCase(name, u"Discard")) current->Discard = true;
      } else {
        current = (*this)[name.c_str()];
        current->Value = value;
      }
    }
    headers.RemoveAt(index);
  }
}

void Cookie::Collection::Write(const char16_t* headerName, Header::Collection& headers) const {
  const bool reply = headerName == Header::SetCookie;
  if (!reply && headerName != Header::Cookie) return;
  headers.Remove(headerName);
  StringBuffer text;
  int dropped = 0;
  for (const auto& entry : cookies_) {
    const Cookie& cookie = *entry.second;
    if (!CanBeWritten(cookie.Name) || !CanBeWritten(cookie.Value)) {
      Logger::Line(Logger::Severity::Warning, "Veskan::Cookie::Collection::Write")
          << " cookie dropped, a control character or an unpaired surrogate in its name or"
          << " value, name: " << Detail::ForLog(cookie.Name);
      ++dropped;
      continue;
    }
    // A ";" between cookies lets a reader (Read above among them) tell where the next begins.
    if (!text.isEmpty()) text += u';';
    const icu::Formattable name(Sanitized(cookie.Name));
    const icu::Formattable value(Sanitized(cookie.Value));
    if (reply) {
      // Plain digits for Max-Age: a grouped "86,400" would be read back as 86.
      text += MessageFormat(u"{0}={1};Max-Age={2}{3};Version=1",
                            {name, value, icu::Formattable(FormatInteger(cookie.MaxAge)),
                             icu::Formattable(StringBuffer(cookie.Discard ? u";Discard" : u""))});
    } else {
      text += MessageFormat(u"{0}={1};$Version=1", {name, value});
    }
  }
  if (dropped > 0 && dropped == Count()) return;  // nothing left to send
  headers.Add(Header(StringBuffer(headerName), text));
}

}  // namespace Veskan
