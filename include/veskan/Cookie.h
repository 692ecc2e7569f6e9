// Cookie and Cookie::Collection: the cookies of one message exchange, and their conversion from
// and to the "Cookie" and "Set-Cookie" headers.
#ifndef VESKAN_COOKIE_H
#define VESKAN_COOKIE_H

#include <veskan/Export.h>
#include <veskan/Header.h>
#include <veskan/StringBuffer.h>

#include <map>
#include <memory>

namespace Veskan {

// One cookie.
class VESKAN_API Cookie {
 public:
  class Attributes;
  class Collection;

  Cookie() = default;
  explicit Cookie(const char16_t* name) : Name(name) {}

  StringBuffer Name;
  StringBuffer Value;
  int MaxAge = 0;  // seconds
  bool Discard = false;
};

// Names that are cookie attributes rather than cookies.
class VESKAN_API Cookie::Attributes {
 public:
  // True for a name longer than one character that begins with "$", and for "Max-Age",
  // "Comment", "Domain", "Path", "Secure", "Version" and "Discard" in any letter case.
  static bool Reserved(const char16_t* name);
};

// The cookies of a message by name, names compared without regard to case and iterated in that
// order.
//
// Thread safety: none; a collection belongs to one message, which guards it.
class VESKAN_API Cookie::Collection {
 public:
  using Map = std::map<StringBuffer, std::shared_ptr<Cookie>, UnicodeStringTraitsI>;

  Collection() = default;
  // Copies of the other collection's cookies (the two collections share none).
  Collection(const Collection& other);
  Collection& operator=(const Collection& other);
  Collection(Collection&&) noexcept = default;
  Collection& operator=(Collection&&) noexcept = default;
  virtual ~Collection();

  int Count() const { return static_cast<int>(cookies_.size()); }

  // The cookie named `name`; an empty cookie of that name is added when there is none.
  std::shared_ptr<Cookie> operator[](const char16_t* name);
  // The cookie at `index` in name order, or null for a bad index.
  std::shared_ptr<Cookie> operator()(int index) const;
  bool Contains(const char16_t* name) const;
  void Remove(const char16_t* name);
  void Clear();

  // Moves the cookies of every "Set-Cookie" and "Cookie" header of `headers` into this
  // collection, last header first, and removes those headers. A header value is a list of
  // name=value pairs ended by ";" (or, lacking one, ","); "Max-Age" and "Discard" apply to the
  // cookie before them, other attributes are dropped. Nothing is trimmed or unquoted.
  void Read(Header::Collection& headers);
  // Replaces the headers named `headerName` with one header holding every cookie, in name order
  // and separated by ";": "name=value;Max-Age=N[;Discard];Version=1" for Header::SetCookie,
  // "name=value;$Version=1" for Header::Cookie; "=", ";", "," and blanks in names and values
  // become "_". A cookie whose name or value holds a control character (CR, LF, NUL, HTAB ...)
  // or an unpaired surrogate is left out with a warning to the Logger, since it would end the
  // header line and begin another (RFC 6265 section 4.1.1) or could not be written in UTF-8;
  // when every cookie is left out no header is added.
  // `headerName` must be one of those two constants themselves (the pointer is compared, not the
  // text); anything else changes nothing.
  void Write(const char16_t* headerName, Header::Collection& headers) const;

  Map::const_iterator begin() const { return cookies_.begin(); }
  Map::const_iterator end() const { return cookies_.end(); }

 private:
  Map cookies_;
};

}  // namespace Veskan

#endif
