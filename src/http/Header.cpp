// Header fields and the ordered header block.
#include <veskan/Header.h>

#include "foundation/Utf.h"

#include <veskan/Logger.h>

#include <unicode/ustring.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

namespace Veskan {

namespace {

// Named arrays rather than literals, so that no other equal literal shares their address.
constexpr char16_t ContentTypeText[] = u"Content-Type";
constexpr char16_t ContentLengthText[] = u"Content-Length";
constexpr char16_t ContentIdText[] = u"Content-ID";
constexpr char16_t HostText[] = u"Host";
constexpr char16_t CacheControlText[] = u"Cache-Control";
constexpr char16_t SetCookieText[] = u"Set-Cookie";
constexpr char16_t CookieText[] = u"Cookie";
constexpr char16_t WWWAuthenticateText[] = u"WWW-Authenticate";
constexpr char16_t AuthorizationText[] = u"Authorization";
constexpr char16_t ConnectionText[] = u"Connection";
constexpr char16_t ContentDispositionText[] = u"Content-Disposition";
constexpr char16_t UserAgentText[] = u"User-Agent";
constexpr char16_t AcceptText[] = u"Accept";
constexpr char16_t XCalvorcoVeskanEndpointText[] = u"X-Calvorco-Veskan-Endpoint";
constexpr char16_t InvalidHeaderText[] = u"##invalid header##";

// tchar of RFC 9110 section 5.6.2.
bool IsTokenUnit(char16_t c) {
  if ((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9')) {
    return true;
  }
  return c != 0 && c < 0x80 && std::strchr("!#$%&'*+-.^_`|~", static_cast<char>(c)) != nullptr;
}

// A control other than HTAB (RFC 9110 section 5.5): CR and LF end a line, NUL ends it for many
// readers.
bool IsControl(char16_t c) {
  return (c < 0x20 && c != u'\t') || c == 0x7F;
}

// True when the header can be printed as one line that reads back as this one header.
bool IsWritable(const Header& header) {
  const StringBuffer& name = header.Name;
  if (name.isEmpty()) return false;
  for (int i = 0; i < name.length(); ++i) {
    if (!IsTokenUnit(name.charAt(i))) return false;
  }
  // No control, and every surrogate in a pair: a value without a UTF-8 form would lose its line.
  const StringBuffer& value = header.Value;
  for (int i = 0; i < value.length(); ++i) {
    const char16_t unit = value.charAt(i);
    if (IsControl(unit)) return false;
    if (unit >= 0xD800 && unit <= 0xDFFF) {
      if (unit > 0xDBFF || i + 1 == value.length() || value.charAt(i + 1) < 0xDC00 ||
          value.charAt(i + 1) > 0xDFFF) {
        return false;
      }
      ++i;
    }
  }
  return true;
}

// The name for a log line, with controls written as "\xNN" and cut after 64 units, so that it
// cannot forge lines of its own.
std::string ForLog(const StringBuffer& text) {
  StringBuffer shown;
  for (int i = 0; i < text.length() && i < 64; ++i) {
    const char16_t unit = text.charAt(i);
    if (IsControl(unit) || unit == u'\t') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned>(unit));
      shown += StringBuffer(escaped);
    } else {
      shown += unit;
    }
  }
  if (text.length() > 64) shown += u"...";
  return shown.ToUTF8();
}

// Whole-name, case-sensitive comparison; a null name is the empty name.
bool NameIs(const StringBuffer& stored, const char16_t* name) {
  return stored == name;
}

}  // namespace

const char16_t* const Header::ContentType = ContentTypeText;
const char16_t* const Header::ContentLength = ContentLengthText;
const char16_t* const Header::ContentId = ContentIdText;
const char16_t* const Header::Host = HostText;
const char16_t* const Header::CacheControl = CacheControlText;
const char16_t* const Header::SetCookie = SetCookieText;
const char16_t* const Header::Cookie = CookieText;
const char16_t* const Header::WWWAuthenticate = WWWAuthenticateText;
const char16_t* const Header::Authorization = AuthorizationText;
const char16_t* const Header::Connection = ConnectionText;
const char16_t* const Header::ContentDisposition = ContentDispositionText;
const char16_t* const Header::UserAgent = UserAgentText;
const char16_t* const Header::Accept = AcceptText;
const char16_t* const Header::XCalvorcoVeskanEndpoint = XCalvorcoVeskanEndpointText;
const char16_t* const Header::InvalidHeader = InvalidHeaderText;

Header::Header(StringBuffer name, StringBuffer value)
    : Name(std::move(name)), Value(std::move(value)) {}

bool Header::operator==(const Header& other) const {
  return Name == other.Name && Value == other.Value;
}

Header::Collection::Collection(const Collection& other) {
  Copy(other);
}

Header::Collection::Collection(Collection&& other) noexcept
    : headers_(std::move(other.headers_)), count_(std::exchange(other.count_, 0)) {
  other.headers_.clear();
}

Header::Collection& Header::Collection::operator=(const Collection& other) {
  if (this != &other) {
    Clear();
    Copy(other);
  }
  return *this;
}

Header::Collection& Header::Collection::operator=(Collection&& other) noexcept {
  headers_ = std::move(other.headers_);
  other.headers_.clear();
  Recount();
  other.Recount();
  return *this;
}

Header::Collection::~Collection() = default;

const Header* Header::Collection::Find(const char16_t* name) const {
  for (const Header& header : headers_) {
    if (NameIs(header.Name, name)) return &header;
  }
  return nullptr;
}

StringBuffer Header::Collection::operator[](const char16_t* name) const {
  const Header* header = Find(name);
  return header ? header->Value : StringBuffer();
}

StringBuffer& Header::Collection::operator[](const char16_t* name) {
  for (Header& header : headers_) {
    if (NameIs(header.Name, name)) return header.Value;
  }
  headers_.emplace_back(name);
  Recount();
  return headers_.back().Value;
}

const Header& Header::Collection::operator()(int index) const {
  if (index >= 0 && index < count_) return headers_[static_cast<std::size_t>(index)];
  static const Header invalid(InvalidHeaderText);
  return invalid;
}

bool Header::Collection::Contains(const char16_t* name) const {
  return Find(name) != nullptr;
}

void Header::Collection::AddAnother(const Header& header) {
  for (const Header& present : headers_) {
    if (present == header) return;
  }
  Add(header);
}

void Header::Collection::Add(Header header) {
  headers_.push_back(std::move(header));
  Recount();
}

void Header::Collection::Remove(const char16_t* name) {
  for (std::size_t i = headers_.size(); i-- > 0;) {
    if (NameIs(headers_[i].Name, name)) headers_.erase(headers_.begin() + static_cast<long>(i));
  }
  Recount();
}

void Header::Collection::RemoveAt(int index) {
  if (index < 0 || index >= count_) return;
  headers_.erase(headers_.begin() + index);
  Recount();
}

void Header::Collection::Clear() {
  headers_.clear();
  Recount();
}

void Header::Collection::Copy(const Collection& other) {
  // Reserving first keeps `other` valid when it is this collection.
  const std::size_t copies = other.headers_.size();
  headers_.reserve(headers_.size() + copies);
  for (std::size_t i = 0; i < copies; ++i)
    headers_.push_back(other.headers_[i]);
  Recount();
}

int Header::Collection::Write(ByteBuffer& buffer, int offset, bool grow) const {
  int total = 0;
  std::u16string line;
  for (const Header& header : headers_) {
    // A line break in a value, or a name that is no token, would print a line that reads as other
    // headers or as the end of the block (header injection); a value without a UTF-8 form would
    // print nothing at all. Such a header is left out, never silently.
    if (!IsWritable(header)) {
      Logger::Line(Logger::Severity::Warning, "Veskan::Header::Collection::Write")
          << " header dropped, its name is no token or its value holds a control character or"
          << " an unpaired surrogate, name: " << ForLog(header.Name);
      continue;
    }
    line.assign(header.Name.getBuffer(), static_cast<std::size_t>(header.Name.length()));
    line += u": ";
    line.append(header.Value.getBuffer(), static_cast<std::size_t>(header.Value.length()));
    line += u"\r\n";
    const std::string bytes =
        Detail::EncodeUtf8(line.data(), static_cast<std::int32_t>(line.size()));
    total += buffer.Write(offset + total, reinterpret_cast<const unsigned char*>(bytes.data()), 0,
                          static_cast<int>(bytes.size()), grow);
  }
  if (static_cast<long long>(offset) + total < 0) return total;
  return total +
         buffer.Write(offset + total, reinterpret_cast<const unsigned char*>("\r\n"), 0, 2, grow);
}

}  // namespace Veskan
