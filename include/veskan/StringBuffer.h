// StringBuffer, the library's one string type, with StringList and the free functions that
// convert, format, parse, escape and compare text.
//
// Text is UTF-16 in char16_t units; narrow text (const char*) is always UTF-8. Wherever a text
// pointer is taken, a null pointer means the empty string. None of these functions throws for bad
// text: a failed conversion gives the empty string, a failed parse gives 0 or false.
#ifndef VESKAN_STRINGBUFFER_H
#define VESKAN_STRINGBUFFER_H

#include <veskan/Export.h>

#include <unicode/fmtable.h>
#include <unicode/unistr.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

namespace Veskan {

// A UTF-16 string on ICU's UnicodeString that is kept NUL-terminated, so that its
// `const char16_t*` view is available at any time without copying.
//
// Every constructor, assignment and operator declared here leaves the buffer terminated, the
// moves included, on both sides: a moved-from object is empty. Mutating members inherited from
// icu::UnicodeString (append, insert, replace, remove, truncate, setTo, releaseBuffer, ...) may
// leave it unterminated; call KeepTerminated() after them, before other threads read the object,
// so that readers get its own buffer. c_str() never writes: on a buffer left unterminated it
// still gives the right text, from a terminated copy kept beside the object (slower, and held
// until the object changes or goes).
//
// Thread safety: like icu::UnicodeString, and concurrent const use of one object is safe, c_str()
// and the pointer conversion included. Changing an object while other threads read it is not.
class VESKAN_API StringBuffer : public icu::UnicodeString {
 public:
  StringBuffer();
  StringBuffer(const StringBuffer& other);
  StringBuffer(StringBuffer&& other) noexcept;
  StringBuffer(const icu::UnicodeString& other);
  StringBuffer(icu::UnicodeString&& other) noexcept;
  StringBuffer(std::nullptr_t);
  // Up to the first NUL; null gives the empty string.
  StringBuffer(const char16_t* text);
  // `length` code units of `text`; a negative length reads up to the first NUL.
  StringBuffer(const char16_t* text, int length);
  // `length` code units of `text` from `start` (a negative start counts as 0); a negative length
  // reads up to the first NUL.
  StringBuffer(const char16_t* text, int start, int length);
  // UTF-8 up to the first NUL byte; ill-formed UTF-8 gives the empty string.
  StringBuffer(const char* utf8);
  // All bytes of `utf8`, which is UTF-8; ill-formed UTF-8 gives the empty string.
  StringBuffer(const std::string& utf8);
  virtual ~StringBuffer();

  StringBuffer& operator=(const StringBuffer& other);
  StringBuffer& operator=(StringBuffer&& other) noexcept;
  StringBuffer& operator=(const icu::UnicodeString& other);
  StringBuffer& operator=(const char16_t* text);
  StringBuffer& operator=(const char* utf8);

  StringBuffer& operator+=(const icu::UnicodeString& other);
  StringBuffer& operator+=(const char16_t* text);
  StringBuffer& operator+=(char16_t unit);

  // Exact code-unit comparison; a null pointer compares as the empty string.
  bool operator==(const char16_t* text) const;
  bool operator!=(const char16_t* text) const;
  bool operator==(const StringBuffer& other) const { return UnicodeString::operator==(other); }
  bool operator!=(const StringBuffer& other) const { return UnicodeString::operator!=(other); }
  bool operator==(const icu::UnicodeString& other) const {
    return UnicodeString::operator==(other);
  }
  bool operator!=(const icu::UnicodeString& other) const {
    return UnicodeString::operator!=(other);
  }

  // True when empty.
  bool operator!() const;
  // True when not empty.
  operator bool() const;

  // The text, NUL-terminated: the object's own buffer, or, when an inherited member left that
  // unterminated, a terminated copy of it. An invalid (bogus) string gives the empty literal. The
  // pointer lives until the next change of this object. Never writes to the object.
  operator const char16_t*() const;
  const char16_t* c_str() const;

  // The text as UTF-8.
  std::string ToUTF8() const;

  // Terminates the buffer again after a member inherited from icu::UnicodeString changed it, so
  // that c_str() gives the object's own buffer. A buffer that is terminated already is left as it
  // is (one shared with copies stays shared).
  void KeepTerminated();

 private:
  bool IsTerminated() const;
  // Empties a moved-from object, terminated; allocates nothing.
  void EmptyAfterMove() noexcept;
};

// A new buffer holding `left` then `right`.
VESKAN_API StringBuffer operator+(const StringBuffer& left, const StringBuffer& right);
VESKAN_API StringBuffer operator+(const StringBuffer& left, const icu::UnicodeString& right);
VESKAN_API StringBuffer operator+(const StringBuffer& left, const char16_t* right);
VESKAN_API StringBuffer operator+(const char16_t* left, const StringBuffer& right);

// Text compared with a StringBuffer, the text on the left (exact code units).
VESKAN_API bool operator==(const char16_t* left, const StringBuffer& right);
VESKAN_API bool operator!=(const char16_t* left, const StringBuffer& right);

// Writes the text as UTF-8.
VESKAN_API std::ostream& operator<<(std::ostream& stream, const StringBuffer& text);

// Orders StringBuffer keys without regard to case (ICU's default case folding), for maps of
// headers, cookies and variables.
struct VESKAN_API UnicodeStringTraitsI {
  bool operator()(const icu::UnicodeString& a, const icu::UnicodeString& b) const;
};

// Styles of FormatBoolean, FormatInteger and FormatInteger64.
class VESKAN_API FormattingStyles {
 public:
  enum Enumeration : int {
    Default = 0,           // "true"/"false" and decimal numbers
    HexadecimalYesNo = 1,  // "yes"/"no" and "#" followed by lower-case hexadecimal
    NumericBoolean = 2,    // "1"/"0" and decimal numbers
  };
  static const char16_t* ToString(Enumeration value);
};

// Flags of StringList::Sort. Without flags the order is ascending, locale-aware and
// case-insensitive.
class VESKAN_API SortMethods {
 public:
  enum Enumeration : int {
    Ascending = 0,
    Descending = 1,  // reverse the order
    Exact = 2,       // compare UTF-16 code units
    Numeric = 4,     // compare the values of ParseDouble; wins over Exact
  };
  // The names of the flags set in `value`, joined by "|" ("Ascending" for none).
  static StringBuffer ToString(int value);
};

// An indexed list of StringBuffer. Reading at a bad index gives the empty string, never an error.
//
// Thread safety: none; guard a shared list yourself.
class VESKAN_API StringList {
 public:
  StringList();
  StringList(std::initializer_list<StringBuffer> entries);
  StringList(const StringList& other);
  StringList(StringList&& other) noexcept;
  virtual ~StringList();
  StringList& operator=(const StringList& other);
  StringList& operator=(StringList&& other) noexcept;

  // Appends `text` (null appends the empty string); returns the new entry's index.
  int Add(const char16_t* text);
  int Add(StringBuffer text);
  // Removes the entry at `index`; a bad index changes nothing.
  void RemoveAt(int index);
  void RemoveAll();

  int Count() const { return count_; }

  // The entry at `index`, or the empty literal for a bad index.
  const char16_t* operator[](int index) const;
  // The entry at `index` for change. For a bad index: a per-thread spare that is emptied on every
  // such call, so a bad index never throws and never shows what an earlier caller wrote there.
  StringBuffer& operator[](int index);

  // Sorts in place (not stable) in the order that the SortMethods flags select.
  void Sort(int methods = SortMethods::Ascending);

  std::vector<StringBuffer>::const_iterator begin() const { return entries_.begin(); }
  std::vector<StringBuffer>::const_iterator end() const { return entries_.end(); }

 private:
  void Recount() { count_ = static_cast<int>(entries_.size()); }

  std::vector<StringBuffer> entries_;
  int count_ = 0;
};

// `text`, or the empty literal when `text` is null.
VESKAN_API const char16_t* SafeStringLiteral(const char16_t* text);
// 0 for null, else the number of code units before the NUL.
VESKAN_API int StringLength(const char16_t* text);
VESKAN_API bool IsEmptyString(const char16_t* text);
VESKAN_API bool IsEmptyString(const StringBuffer& text);
// True when equal: exact code units, or ICU's case folding when `ignoreCase`.
VESKAN_API bool CompareStringLiterals(const char16_t* a, const char16_t* b, bool ignoreCase);

// `length` UTF-8 bytes from `offset` (-1: up to the first NUL byte) as UTF-16. Null, a length
// below 1, a negative offset or ill-formed UTF-8 give the empty string, never half a conversion.
VESKAN_API StringBuffer UTF8to16(const char* bytes, int offset = 0, int length = -1);
VESKAN_API StringBuffer UTF8to16(const unsigned char* bytes, int offset, int length);

// The whole UTF-8 file at `path` as text without a leading byte-order mark. A file that cannot be
// opened, is empty, is 2 GiB or larger or is not UTF-8 gives the empty string.
VESKAN_API StringBuffer StringFromFile(const char16_t* path);

// Runs of space, tab, CR, LF and no-break space become one space; leading and trailing ones go.
VESKAN_API StringBuffer NormalizeWhitespace(const char16_t* text);
// Pure-ASCII XML text: the five markup characters as entities, every code unit below 32 or above
// 126 as "&#xHHHH;" (each half of a surrogate pair separately).
VESKAN_API StringBuffer SafeForXml(const char16_t* text);
VESKAN_API StringBuffer SafeForXml(const StringBuffer& text);
// Doubles every single '{' and '}' so the text can stand in an XQuery string; pairs stay.
VESKAN_API StringBuffer DoubleBracesForXQuery(const char16_t* text);
// Appends the tokens of `text` between any of the code units in `delimiters` to `list`; adjacent
// delimiters give empty tokens, a trailing one gives none. Returns the number appended.
VESKAN_API int Tokenize(const char16_t* text, StringList& list, const char16_t* delimiters);
// True when the ICU regular expression `pattern` matches all of `text`; a bad pattern gives false.
VESKAN_API bool Regex(const char16_t* text, const char16_t* pattern);
// ICU MessageFormat of `pattern` ("{0}", "{1,number}", ...) over `count` arguments; any failure
// gives an invalid string, which reads as empty.
VESKAN_API StringBuffer MessageFormat(const char16_t* pattern, const icu::Formattable* args,
                                      int count);
VESKAN_API StringBuffer MessageFormat(const char16_t* pattern,
                                      std::initializer_list<icu::Formattable> args);

// "true"/"false", "yes"/"no" or "1"/"0" by style (unknown styles: the default).
VESKAN_API const char16_t* FormatBoolean(bool value, int style = FormattingStyles::Default);
// "%d" or, in the HexadecimalYesNo style, "#%x" (two's complement for negatives).
VESKAN_API StringBuffer FormatInteger(int value, int style = FormattingStyles::Default);
VESKAN_API StringBuffer FormatInteger64(long long value, int style = FormattingStyles::Default);
// The shortest of six or fifteen decimals that shows the value, without trailing zeros; whole
// numbers without a point; "NaN", "Infinity", "-Infinity". The point is always '.'.
VESKAN_API StringBuffer FormatDouble(double value);

// "true", "yes" and "1" give true (case-insensitive); anything else false.
VESKAN_API bool ParseBoolean(const char16_t* text);
// Decimal with an optional sign, "#hex", "0xhex", "min" or "max"; leading white space and
// trailing characters are ignored; hexadecimal is read as an unsigned bit pattern; values out of
// range saturate; text that does not scan gives 0.
VESKAN_API int ParseInteger(const char16_t* text);
// As ParseInteger with 64 bits, except that "min" and "max" still give the 32-bit limits.
VESKAN_API long long ParseInteger64(const char16_t* text);
// A decimal number with '.' whatever the locale; "NaN", "Infinity", "-Infinity"; "max" gives the
// largest finite double and "min" the smallest positive normal one; failure gives 0.0.
VESKAN_API double ParseDouble(const char16_t* text);

// `prefix` followed by a fresh random UUID in 25 base-32 digits (0-9, A-V).
VESKAN_API StringBuffer NewId(const char16_t* prefix = nullptr);

}  // namespace Veskan

#endif
