// Header fields and the ordered header block.
#include <veskan/Header.h>

#include "foundation/Utf.h"
#include "http/FieldSyntax.h"

#include <veskan/Logger.h>

#include <unicode/ustring.h>

#include <algorithm>
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

// A spare header (one cleared and kept for reuse) keeps the room of texts up to this many units.
constexpr int32_t LongestSpareText = 256;

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
  count_ = std::exchange(other.count_, 0);
  other.headers_.clear();
  return *this;
}

Header::Collection::~Collection() = default;

const Header* Header::Collection::Find(const char16_t* name) const {
  for (const Header& header : *this) {
    if (NameIs(header.Name, name)) return &header;
  }
  return nullptr;
}

StringBuffer Header::Collection::operator[](const char16_t* name) const {
  const Header* header = Find(name);
  return header ? header->Value : StringBuffer();
}

StringBuffer& Header::Collection::operator[](const char16_t* name) {
  for (int i = 0; i < count_; ++i) {
    Header& header = headers_[static_cast<std::size_t>(i)];
    if (NameIs(header.Name, name)) return header.Value;
  }
  if (static_cast<std::size_t>(count_) < headers_.size()) {
    // A spare is named in place (a reply's fields, for every request): the list does not move,
    // and the name is copied before the spare's old value goes, should it point into it.
    Header& spare = headers_[static_cast<std::size_t>(count_++)];
    spare.Name = name;
    spare.Value.remove();
    return spare.Value;
  }
  // Copied before the list may move: `name` can point into one of its values.
  StringBuffer copied(name);
  Header& added = Append();
  added.Name = std::move(copied);
  return added.Value;
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
  for (const Header& present : *this) {
    if (present == header) return;
  }
  Add(header);
}

void Header::Collection::Add(Header header) {
  Append() = std::move(header);
}

Header& Header::Collection::Append() {
  if (static_cast<std::size_t>(count_) < headers_.size()) {
    Header& spare = headers_[static_cast<std::size_t>(count_++)];
    spare.Name.remove();
    spare.Value.remove();
    return spare;
  }
  // Room for a typical request's fields at once, rather than moving them at every doubling.
  if (headers_.capacity() == 0) headers_.reserve(8);
  headers_.emplace_back();
  ++count_;
  return headers_.back();
}

void Header::Collection::Remove(const char16_t* name) {
  for (int i = count_; i-- > 0;) {
    if (NameIs(headers_[static_cast<std::size_t>(i)].Name, name)) RemoveAt(i);
  }
}

void Header::Collection::RemoveAt(int index) {
  if (index < 0 || index >= count_) return;
  // The removed header moves behind the others and stays as a spare.
  std::rotate(headers_.begin() + index, headers_.begin() + index + 1, headers_.begin() + count_);
  --count_;
}

void Header::Collection::Clear() {
  // A typical block's headers stay for the next one, as spares; a long block's are given back,
  // and so is the room of a long text.
  if (headers_.capacity() > 16) {
    std::vector<Header>().swap(headers_);
  } else {
    for (Header& header : headers_) {
      if (header.Name.getCapacity() > LongestSpareText ||
          header.Value.getCapacity() > LongestSpareText) {
        header = Header();
      }
    }
  }
  count_ = 0;
}

void Header::Collection::Copy(const Collection& other) {
  // Reserving first keeps `other` valid when it is this collection.
  const std::size_t copies = static_cast<std::size_t>(other.count_);
  headers_.reserve(std::max(headers_.size(), static_cast<std::size_t>(count_) + copies));
  for (std::size_t i = 0; i < copies; ++i)
    Append() = other.headers_[i];
}

int Header::Collection::Write(ByteBuffer& buffer, int offset, bool grow) const {
  int total = 0;
  std::u16string line;
  for (const Header& header : *this) {
    // A line break in a value, or a name that is no token, would print a line that reads as other
    // headers or as the end of the block (header injection); a value without a UTF-8 form would
    // print nothing at all. Such a header is left out, never silently.
    if (!Detail::IsWritableField(header.Name, header.Value)) {
      Logger::Line(Logger::Severity::Warning, "Veskan::Header::Collection::Write")
          << " header dropped, its name is no token or its value holds a control character or"
          << " an unpaired surrogate, name: " << Detail::ForLog(header.Name);
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
