// StringBuffer's own members, its comparisons and the enumeration holders of the string family.
#include <veskan/StringBuffer.h>

#include "foundation/Utf.h"

#include <unicode/stringoptions.h>
#include <unicode/ustring.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <ostream>
#include <string>
#include <unordered_map>
#include <utility>

namespace Veskan {

namespace {

constexpr char16_t EmptyLiteral[] = u"";

// The objects that may have an entry in TerminatedCopies, by a hash of their address: every
// destructor reads its bucket without a lock, and looks for an entry only when the bucket is not
// empty. Changed only under the copies' mutex.
constexpr std::size_t CopyBuckets = 256;
std::atomic<std::uint32_t> copyBuckets[CopyBuckets]{};

std::atomic<std::uint32_t>& BucketOf(const StringBuffer* text) {
  return copyBuckets[(reinterpret_cast<std::uintptr_t>(text) >> 4) % CopyBuckets];
}

// Terminated copies of objects whose buffer a member inherited from icu::UnicodeString left
// unterminated, for c_str(), which never writes to the object it reads. One copy per object,
// renewed when the object's text has changed and dropped when the object is destroyed, so a
// pointer to it lives as long as one to the object's own buffer would.
class TerminatedCopies {
 public:
  const char16_t* Of(const StringBuffer& text, const char16_t* units, std::size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto [entry, added] = copies_.try_emplace(&text);
    std::u16string& copy = entry->second;
    if (added) {
      BucketOf(&text).fetch_add(1, std::memory_order_relaxed);
    } else if (copy.size() == length &&
               std::char_traits<char16_t>::compare(copy.data(), units, length) == 0) {
      return copy.c_str();  // unchanged: the pointer handed out before stays valid
    }
    copy.assign(units, length);
    return copy.c_str();
  }

  void Forget(const StringBuffer* text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (copies_.erase(text) > 0) BucketOf(text).fetch_sub(1, std::memory_order_relaxed);
  }

 private:
  std::mutex mutex_;
  // Node-based: an entry's text stays where it is while other entries come and go.
  std::unordered_map<const StringBuffer*, std::u16string> copies_;
};

// Never destroyed: a StringBuffer of static storage may die after the statics of this file.
TerminatedCopies& Copies() {
  static TerminatedCopies* const copies = new TerminatedCopies;
  return *copies;
}

}  // namespace

StringBuffer::StringBuffer() {
  KeepTerminated();
}

StringBuffer::StringBuffer(const StringBuffer& other) : icu::UnicodeString(other) {
  KeepTerminated();
}

// ICU's move copies a short text's units into the new object's own storage without the NUL, and
// leaves the moved-from object bogus (a long text) or still holding its text (a short one).
StringBuffer::StringBuffer(StringBuffer&& other) noexcept : icu::UnicodeString(std::move(other)) {
  KeepTerminated();
  other.EmptyAfterMove();
}

StringBuffer::StringBuffer(const icu::UnicodeString& other) : icu::UnicodeString(other) {
  KeepTerminated();
}

StringBuffer::StringBuffer(icu::UnicodeString&& other) noexcept
    : icu::UnicodeString(std::move(other)) {
  KeepTerminated();
}

StringBuffer::StringBuffer(std::nullptr_t) {
  KeepTerminated();
}

StringBuffer::StringBuffer(const char16_t* text) : StringBuffer(text, -1) {}

StringBuffer::StringBuffer(const char16_t* text, int length) {
  if (text) setTo(text, length < 0 ? u_strlen(text) : length);
  KeepTerminated();
}

StringBuffer::StringBuffer(const char16_t* text, int start, int length)
    : StringBuffer(text ? text + (start > 0 ? start : 0) : nullptr, length) {}

StringBuffer::StringBuffer(const char* utf8) {
  if (utf8) Detail::DecodeUtf8(utf8, static_cast<int32_t>(std::strlen(utf8)), *this);
  KeepTerminated();
}

StringBuffer::StringBuffer(const std::string& utf8) {
  Detail::DecodeUtf8(utf8.data(), static_cast<int32_t>(utf8.size()), *this);
  KeepTerminated();
}

StringBuffer::~StringBuffer() {
  // The relaxed read sees this object's own entry, if any: c_str() made it before destruction.
  if (BucketOf(this).load(std::memory_order_relaxed) != 0) Copies().Forget(this);
}

StringBuffer& StringBuffer::operator=(const StringBuffer& other) {
  icu::UnicodeString::operator=(other);
  KeepTerminated();
  return *this;
}

StringBuffer& StringBuffer::operator=(StringBuffer&& other) noexcept {
  if (this == &other) return *this;
  icu::UnicodeString::operator=(std::move(other));
  KeepTerminated();
  other.EmptyAfterMove();
  return *this;
}

StringBuffer& StringBuffer::operator=(const icu::UnicodeString& other) {
  icu::UnicodeString::operator=(other);
  KeepTerminated();
  return *this;
}

StringBuffer& StringBuffer::operator=(const char16_t* text) {
  // ICU copies a text that lies in this object's own buffer before replacing it.
  if (text == nullptr) {
    remove();
  } else {
    setTo(text, u_strlen(text));
  }
  KeepTerminated();
  return *this;
}

StringBuffer& StringBuffer::operator=(const char* utf8) {
  return *this = StringBuffer(utf8);
}

StringBuffer& StringBuffer::operator+=(const icu::UnicodeString& other) {
  append(other);
  KeepTerminated();
  return *this;
}

StringBuffer& StringBuffer::operator+=(const char16_t* text) {
  if (text) append(text, u_strlen(text));
  KeepTerminated();
  return *this;
}

StringBuffer& StringBuffer::operator+=(char16_t unit) {
  append(unit);
  KeepTerminated();
  return *this;
}

// One pass that stops at the first difference, rather than measuring `text` first: hosts and
// the engine compare against literals for every request.
bool StringBuffer::operator==(const char16_t* text) const {
  if (!text) return isEmpty();
  const char16_t* units = getBuffer();
  if (!units) return false;  // bogus
  const int32_t used = length();
  for (int32_t i = 0; i < used; ++i) {
    if (text[i] != units[i] || text[i] == 0) return false;  // never read past text's end
  }
  return text[used] == 0;
}

bool StringBuffer::operator!=(const char16_t* text) const {
  return !(*this == text);
}

bool StringBuffer::operator!() const {
  return isEmpty();
}

StringBuffer::operator bool() const {
  return !isEmpty();
}

StringBuffer::operator const char16_t*() const {
  return c_str();
}

const char16_t* StringBuffer::c_str() const {
  if (IsTerminated()) return getBuffer();  // the usual case: a read, safe from many threads
  const char16_t* units = getBuffer();     // null when bogus or opened by getBuffer(capacity)
  if (!units) return EmptyLiteral;
  return Copies().Of(*this, units, static_cast<std::size_t>(length()));
}

bool StringBuffer::IsTerminated() const {
  const char16_t* buffer = getBuffer();
  const int32_t used = length();
  return buffer && used < getCapacity() && buffer[used] == 0;
}

// A buffer shared with the StringBuffer it was copied from already ends in NUL; terminating it
// again would unshare it, copying the whole text. A short text lives inside the object, never
// shared: it is terminated in place, without reading the slot after it, which may never have
// been written, and without a call into ICU (most texts of a message are short, and this runs
// for every one of them).
void StringBuffer::KeepTerminated() {
  const char16_t* buffer = getBuffer();
  const int32_t used = length();
  if (buffer != nullptr && used < getCapacity()) {
    const auto at = reinterpret_cast<std::uintptr_t>(buffer);
    const auto self = reinterpret_cast<std::uintptr_t>(this);
    if (at >= self && at < self + sizeof(*this)) {
      const_cast<char16_t*>(buffer)[used] = 0;
      return;
    }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
    // Inlined next to a short text, GCC cannot see that this reads a buffer outside the object.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
    if (buffer[used] == 0) return;
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
  }
  getTerminatedBuffer();
}

void StringBuffer::EmptyAfterMove() noexcept {
  // remove() turns a bogus string into an empty one in the object's own storage: no allocation.
  remove();
  KeepTerminated();
}

std::string StringBuffer::ToUTF8() const {
  return Detail::EncodeUtf8(*this);
}

StringBuffer operator+(const StringBuffer& left, const StringBuffer& right) {
  return left + static_cast<const icu::UnicodeString&>(right);
}

StringBuffer operator+(const StringBuffer& left, const icu::UnicodeString& right) {
  StringBuffer result;
  result.getBuffer(left.length() + right.length() + 1);  // one allocation for both halves
  result.releaseBuffer(0);
  result.append(left).append(right);
  result.KeepTerminated();
  return result;
}

StringBuffer operator+(const StringBuffer& left, const char16_t* right) {
  return left + StringBuffer(right);
}

StringBuffer operator+(const char16_t* left, const StringBuffer& right) {
  return StringBuffer(left) + right;
}

bool operator==(const char16_t* left, const StringBuffer& right) {
  return right == left;
}

bool operator!=(const char16_t* left, const StringBuffer& right) {
  return right != left;
}

std::ostream& operator<<(std::ostream& stream, const StringBuffer& text) {
  return stream << text.ToUTF8();
}

bool UnicodeStringTraitsI::operator()(const icu::UnicodeString& a,
                                      const icu::UnicodeString& b) const {
  return a.caseCompare(b, U_FOLD_CASE_DEFAULT) < 0;
}

const char16_t* FormattingStyles::ToString(Enumeration value) {
  switch (value) {
    case Default:
      return u"Default";
    case HexadecimalYesNo:
      return u"HexadecimalYesNo";
    case NumericBoolean:
      return u"NumericBoolean";
  }
  return u"##invalid value##";
}

StringBuffer SortMethods::ToString(int value) {
  if (value == Ascending) return StringBuffer(u"Ascending");
  if (value & ~(Descending | Exact | Numeric)) return StringBuffer(u"##invalid value##");
  StringBuffer names;
  for (auto [flag, name] : {std::pair<int, const char16_t*>{Descending, u"Descending"},
                            {Exact, u"Exact"},
                            {Numeric, u"Numeric"}}) {
    if (!(value & flag)) continue;
    if (!names.isEmpty()) names += u'|';
    names += name;
  }
  return names;
}

const char16_t* SafeStringLiteral(const char16_t* text) {
  return text ? text : EmptyLiteral;
}

int StringLength(const char16_t* text) {
  return text ? u_strlen(text) : 0;
}

bool IsEmptyString(const char16_t* text) {
  return !text || !*text;
}

bool IsEmptyString(const StringBuffer& text) {
  return text.isEmpty();
}

bool CompareStringLiterals(const char16_t* a, const char16_t* b, bool ignoreCase) {
  a = SafeStringLiteral(a);
  b = SafeStringLiteral(b);
  return ignoreCase ? u_strcasecmp(a, b, U_FOLD_CASE_DEFAULT) == 0 : u_strcmp(a, b) == 0;
}

}  // namespace Veskan
