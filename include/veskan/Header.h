// Header, one HTTP header field, and Header::Collection, the ordered header block of a message.
#ifndef VESKAN_HEADER_H
#define VESKAN_HEADER_H

#include <veskan/ByteBuffer.h>
#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <vector>

namespace Veskan {

// One header field. Name and value are stored exactly as given: no trimming, no case folding.
class VESKAN_API Header {
 public:
  // Well-known header names. Compare and look up with these, since lookups are case-sensitive.
  // Each is a distinct object, so the pointers can be told apart from equal texts elsewhere.
  static const char16_t* const ContentType;              // "Content-Type"
  static const char16_t* const ContentLength;            // "Content-Length"
  static const char16_t* const ContentId;                // "Content-ID"
  static const char16_t* const Host;                     // "Host"
  static const char16_t* const CacheControl;             // "Cache-Control"
  static const char16_t* const SetCookie;                // "Set-Cookie"
  static const char16_t* const Cookie;                   // "Cookie"
  static const char16_t* const WWWAuthenticate;          // "WWW-Authenticate"
  static const char16_t* const Authorization;            // "Authorization"
  static const char16_t* const Connection;               // "Connection"
  static const char16_t* const ContentDisposition;       // "Content-Disposition"
  static const char16_t* const UserAgent;                // "User-Agent"
  static const char16_t* const Accept;                   // "Accept"
  static const char16_t* const XCalvorcoVeskanEndpoint;  // "X-Calvorco-Veskan-Endpoint"
  static const char16_t* const InvalidHeader;            // "##invalid header##"

  class Collection;

  Header() = default;
  // Null text pointers are empty texts.
  explicit Header(StringBuffer name, StringBuffer value = StringBuffer());

  // True when names and values are equal unit by unit (case-sensitive).
  bool operator==(const Header& other) const;
  bool operator!=(const Header& other) const { return !(*this == other); }

  StringBuffer Name;
  StringBuffer Value;
};

// Header fields in the order they were added; a name may occur several times. Lookups compare
// whole names, case-sensitively, and the first match in list order wins. Indexing never throws.
//
// Thread safety: none; a collection belongs to one message, which guards it.
class VESKAN_API Header::Collection {
 public:
  Collection() = default;
  // An empty collection followed by Copy(other).
  Collection(const Collection& other);
  Collection(Collection&& other) noexcept;
  Collection& operator=(const Collection& other);
  Collection& operator=(Collection&& other) noexcept;
  virtual ~Collection();

  int Count() const { return count_; }

  // A copy of the value of the first header named `name`, or the empty string.
  StringBuffer operator[](const char16_t* name) const;
  // The value of the first header named `name` for change; when there is none, a header of that
  // name with an empty value is appended first. Assigning through it sets or creates a header.
  StringBuffer& operator[](const char16_t* name);
  // The header at `index`, or a shared constant header named "##invalid header##" with an empty
  // value for a bad index.
  const Header& operator()(int index) const;

  bool Contains(const char16_t* name) const;
  // Appends `header` unless an equal one (same name and value) is already present; this is how
  // repeated fields such as several "Set-Cookie" lines are kept.
  void AddAnother(const Header& header);
  // Appends `header` as it is.
  void Add(Header header);
  // Appends an empty header and returns it to be filled in where it stays; the reference is valid
  // until the collection changes next.
  Header& Append();
  // Removes every header named `name`.
  void Remove(const char16_t* name);
  // Removes the entry at `index`; a bad index changes nothing.
  void RemoveAt(int index);
  void Clear();
  // Appends copies of all of `other`'s headers behind the present ones; `other` may be this
  // collection, which is then doubled.
  void Copy(const Collection& other);

  // Prints the block, one "Name: Value" line each in UTF-8 and an empty line after them, into
  // `buffer` at byte `offset`, and returns the number of bytes written. Without `grow` only what
  // fits in the buffer is written. Nothing is trimmed, quoted or folded; a header that cannot be
  // printed as one such line (a name that is not an RFC 9110 token, or a value holding CR, LF,
  // NUL or another control except HTAB, or an unpaired surrogate) is left out with a warning to
  // the Logger, so that no stored text can add lines to the block, end it, or vanish unnoticed.
  int Write(ByteBuffer& buffer, int offset, bool grow) const;

  std::vector<Header>::const_iterator begin() const { return headers_.begin(); }
  std::vector<Header>::const_iterator end() const { return headers_.begin() + count_; }

 private:
  const Header* Find(const char16_t* name) const;

  // The first `count_` are the collection's headers; those behind them are spares, emptied when
  // taken, so that a message renewed for the next request fills in the texts of its last one.
  std::vector<Header> headers_;
  int count_ = 0;
};

}  // namespace Veskan

#endif
