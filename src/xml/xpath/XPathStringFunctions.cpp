// The string functions of the function library: building and taking apart strings by code point,
// case mapping and Unicode normalization, URI escaping, comparisons in code point order, and the
// regular expression functions matches(), replace() and tokenize().
//
// The regular expressions are those of XML Schema with the XPath additions (anchors, reluctant
// quantifiers, back-references, flags). ICU runs them, but ICU reads several constructs
// differently (character class subtraction, \s, \w, \i, \c, '.', '$', block names, case-blind
// matching of property classes), so each pattern is parsed and checked here and handed to ICU in
// a form that leaves it nothing to interpret.
#include "xml/xpath/XPathFunctionSupport.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/uniset.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

std::u16string ToU16(const icu::UnicodeString& text) {
  return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

icu::UnicodeString ToIcu(const std::u16string& text) {
  return icu::UnicodeString(text.data(), static_cast<int32_t>(text.size()));
}

// ---- Building and taking apart strings

Sequence Concat(FunctionContext&, Arguments& arguments) {
  std::u16string out;
  for (const Sequence& argument : arguments) {
    if (!argument.empty()) out += ToString(argument.front());
  }
  return OneString(std::move(out));
}

Sequence StringJoin(FunctionContext&, Arguments& arguments) {
  const std::u16string separator = StringOf(arguments[1]);
  // A long separator between many items makes a result far longer than the arguments.
  std::size_t length = arguments[0].empty() ? 0 : separator.size() * (arguments[0].size() - 1);
  for (const Item& item : arguments[0])
    length += item.string.size();
  CheckTextLength(length);
  std::u16string out;
  out.reserve(length);
  for (std::size_t i = 0; i < arguments[0].size(); ++i) {
    if (i > 0) out += separator;
    out += arguments[0][i].string;
  }
  return OneString(std::move(out));
}

// The nearest integer, halves toward positive infinity, as substring() positions round.
double RoundHalfUp(double x) {
  if (std::isnan(x) || std::isinf(x)) return x;
  const double below = std::floor(x);
  // x - below is exact for every double, unlike x + 0.5.
  return x - below >= 0.5 ? below + 1 : below;
}

// The characters at positions p (from 1) with round(start) <= p < round(start) + round(length).
// Comparisons with NaN are false, so a NaN start or length, or -INF + INF, selects nothing.
Sequence Substring(FunctionContext&, Arguments& arguments) {
  const std::u32string text = CodePoints(StringOf(arguments[0]));
  const double first = RoundHalfUp(arguments[1].front().number);
  const double end = arguments.size() > 2 ? first + RoundHalfUp(arguments[2].front().number)
                                          : std::numeric_limits<double>::infinity();
  std::u32string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const double position = static_cast<double>(i + 1);
    if (position >= first && position < end) out += text[i];
  }
  return OneString(FromCodePoints(out));
}

std::u16string StringOrContext(FunctionContext& context, const Arguments& arguments) {
  return arguments.empty() ? ContextString(context) : StringOf(arguments[0]);
}

Sequence StringLength(FunctionContext& context, Arguments& arguments) {
  return OneInteger(
      static_cast<std::int64_t>(CodePoints(StringOrContext(context, arguments)).size()));
}

Sequence NormalizeSpace(FunctionContext& context, Arguments& arguments) {
  const std::u16string text = StringOrContext(context, arguments);
  std::u16string out;
  bool space = false;
  for (const char16_t c : text) {
    if (IsXPathSpace(c)) {
      space = !out.empty();
    } else {
      if (space) out += u' ';
      space = false;
      out += c;
    }
  }
  return OneString(std::move(out));
}

// The form name is read without surrounding whitespace and regardless of case; "" leaves the
// text as it is. Fully normalized text is not supported.
Sequence NormalizeUnicode(FunctionContext&, Arguments& arguments) {
  const std::u16string text = StringOf(arguments[0]);
  std::u16string form = u"NFC";
  if (arguments.size() > 1) {
    form.clear();
    const std::u16string name = StringOf(arguments[1]);
    for (const char16_t c : TrimSpace(name)) {
      form += c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - (u'a' - u'A')) : c;
    }
    if (form.empty()) return OneString(text);
  }
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* normalizer = nullptr;
  if (form == u"NFC") {
    normalizer = icu::Normalizer2::getNFCInstance(status);
  } else if (form == u"NFD") {
    normalizer = icu::Normalizer2::getNFDInstance(status);
  } else if (form == u"NFKC") {
    normalizer = icu::Normalizer2::getNFKCInstance(status);
  } else if (form == u"NFKD") {
    normalizer = icu::Normalizer2::getNFKDInstance(status);
  } else {
    ThrowTypeError(u"FOCH0003",
                   u"normalize-unicode(): unsupported normalization form \"" + form + u"\".");
  }
  icu::UnicodeString normalized;
  if (U_SUCCESS(status)) normalized = normalizer->normalize(ToIcu(text), status);
  if (U_FAILURE(status)) {
    ThrowTypeError(u"FOCH0003",
                   u"normalize-unicode() failed: " + MessageText(u_errorName(status)) + u".");
  }
  return OneString(ToU16(normalized));
}

// Full case mappings, independent of any locale (the German sharp s upper-cases to "SS").
Sequence CaseMapped(Arguments& arguments, bool upper) {
  icu::UnicodeString mapped = ToIcu(StringOf(arguments[0]));
  if (upper) {
    mapped.toUpper(icu::Locale::getRoot());
  } else {
    mapped.toLower(icu::Locale::getRoot());
  }
  return OneString(ToU16(mapped));
}

Sequence UpperCase(FunctionContext&, Arguments& arguments) {
  return CaseMapped(arguments, true);
}
Sequence LowerCase(FunctionContext&, Arguments& arguments) {
  return CaseMapped(arguments, false);
}

Sequence Translate(FunctionContext&, Arguments& arguments) {
  const std::u32string text = CodePoints(StringOf(arguments[0]));
  const std::u32string from = CodePoints(StringOf(arguments[1]));
  const std::u32string to = CodePoints(StringOf(arguments[2]));
  std::u32string out;
  out.reserve(text.size());
  for (const char32_t c : text) {
    const std::size_t at = from.find(c);  // the first occurrence wins
    if (at == std::u32string::npos) {
      out += c;
    } else if (at < to.size()) {
      out += to[at];
    }
  }
  return OneString(FromCodePoints(out));
}

// ---- URI escaping

// `text` with every character that `keep` rejects written as %HH escapes of its UTF-8 bytes.
template <typename Keep>
std::u16string PercentEncoded(const std::u16string& text, Keep keep) {
  static constexpr char Hex[] = "0123456789ABCDEF";
  std::u16string out;
  auto byte = [&out](unsigned value) {
    out += u'%';
    out += static_cast<char16_t>(Hex[(value >> 4) & 0xF]);
    out += static_cast<char16_t>(Hex[value & 0xF]);
  };
  for (char32_t c : CodePoints(text)) {
    if (keep(c)) {
      out += static_cast<char16_t>(c);
      continue;
    }
    if (c >= 0xD800 && c <= 0xDFFF) c = 0xFFFD;  // a lone surrogate has no UTF-8 form
    if (c < 0x80) {
      byte(c);
    } else if (c < 0x800) {
      byte(0xC0 | (c >> 6));
      byte(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      byte(0xE0 | (c >> 12));
      byte(0x80 | ((c >> 6) & 0x3F));
      byte(0x80 | (c & 0x3F));
    } else {
      byte(0xF0 | (c >> 18));
      byte(0x80 | ((c >> 12) & 0x3F));
      byte(0x80 | ((c >> 6) & 0x3F));
      byte(0x80 | (c & 0x3F));
    }
    // An escaped character takes up to nine times its length.
    CheckTextLength(out.size());
  }
  return out;
}

bool IsAsciiAlphanumeric(char32_t c) {
  return (c >= U'A' && c <= U'Z') || (c >= U'a' && c <= U'z') || (c >= U'0' && c <= U'9');
}

// Everything but the URI's unreserved characters is escaped, so that the result can stand in
// any part of a URI.
Sequence EncodeForUri(FunctionContext&, Arguments& arguments) {
  return OneString(PercentEncoded(StringOf(arguments[0]), [](char32_t c) {
    return IsAsciiAlphanumeric(c) || c == U'-' || c == U'_' || c == U'.' || c == U'~';
  }));
}

// Only what may not appear in a URI at all is escaped: reserved characters and '%' stay.
Sequence IriToUri(FunctionContext&, Arguments& arguments) {
  static constexpr std::u32string_view Kept = U"-_.!~*'();/?:@&=+$,[]%#";
  return OneString(PercentEncoded(StringOf(arguments[0]), [](char32_t c) {
    return IsAsciiAlphanumeric(c) || Kept.find(c) != std::u32string_view::npos;
  }));
}

// Only characters outside printable ASCII are escaped, as HTML user agents expect.
Sequence EscapeHtmlUri(FunctionContext&, Arguments& arguments) {
  return OneString(
      PercentEncoded(StringOf(arguments[0]), [](char32_t c) { return c >= 0x20 && c <= 0x7E; }));
}

// ---- Substring matching (Unicode codepoint collation only)

Sequence Contains(FunctionContext&, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  return OneBoolean(StringOf(arguments[0]).find(StringOf(arguments[1])) != std::u16string::npos);
}

Sequence StartsWith(FunctionContext&, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  const std::u16string text = StringOf(arguments[0]);
  const std::u16string prefix = StringOf(arguments[1]);
  return OneBoolean(text.compare(0, prefix.size(), prefix) == 0);
}

Sequence EndsWith(FunctionContext&, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  const std::u16string text = StringOf(arguments[0]);
  const std::u16string suffix = StringOf(arguments[1]);
  return OneBoolean(text.size() >= suffix.size() &&
                    text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0);
}

Sequence SubstringBefore(FunctionContext&, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  const std::u16string text = StringOf(arguments[0]);
  const std::size_t at = text.find(StringOf(arguments[1]));
  return OneString(at == std::u16string::npos ? std::u16string() : text.substr(0, at));
}

Sequence SubstringAfter(FunctionContext&, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  const std::u16string text = StringOf(arguments[0]);
  const std::u16string separator = StringOf(arguments[1]);
  const std::size_t at = text.find(separator);
  return OneString(at == std::u16string::npos ? std::u16string()
                                              : text.substr(at + separator.size()));
}

// ---- Code point comparisons and conversions

Sequence Compare(FunctionContext&, Arguments& arguments) {
  if (arguments.size() > 2) CheckCollation(arguments[2]);
  if (arguments[0].empty() || arguments[1].empty()) return Sequence();
  return OneInteger(CompareCodePoints(arguments[0].front().string, arguments[1].front().string));
}

Sequence CodepointEqual(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty() || arguments[1].empty()) return Sequence();
  return OneBoolean(arguments[0].front().string == arguments[1].front().string);
}

bool IsXmlCharacter(std::int64_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

Sequence CodepointsToString(FunctionContext&, Arguments& arguments) {
  std::u16string out;
  for (const Item& item : arguments[0]) {
    const bool fits = item.decimal.FitsInt64();
    if (!fits || !IsXmlCharacter(item.decimal.ToInt64())) {
      ThrowTypeError(u"FOCH0001", u"codepoints-to-string(): " + item.decimal.ToString() +
                                      u" is not the code point of an XML character.");
    }
    AppendCodePoint(static_cast<char32_t>(item.decimal.ToInt64()), out);
  }
  return OneString(std::move(out));
}

Sequence StringToCodepoints(FunctionContext&, Arguments& arguments) {
  Sequence result;
  for (const char32_t c : CodePoints(StringOf(arguments[0])))
    result.push_back(Item::OfInteger(static_cast<std::int64_t>(c)));
  return result;
}

// ---- Regular expressions: the translation to ICU

struct RegexFlags {
  bool dotAll = false;           // s: '.' matches every character
  bool multiline = false;        // m: '^' and '$' match at line boundaries
  bool caseInsensitive = false;  // i
  bool extended = false;         // x: whitespace outside character classes is left out
};

RegexFlags ReadFlags(std::u16string_view flags) {
  RegexFlags result;
  for (const char16_t c : flags) {
    switch (c) {
      case u's':
        result.dotAll = true;
        break;
      case u'm':
        result.multiline = true;
        break;
      case u'i':
        result.caseInsensitive = true;
        break;
      case u'x':
        result.extended = true;
        break;
      default:
        ThrowTypeError(u"FORX0001", u"Invalid regular expression flags \"" + std::u16string(flags) +
                                        u"\": only s, m, i and x are allowed.");
    }
  }
  return result;
}

// XML name characters, for \i and \c.
constexpr std::u16string_view NameStartSet =
    u"[:A-Z_a-z\\x{C0}-\\x{D6}\\x{D8}-\\x{F6}\\x{F8}-\\x{2FF}\\x{370}-\\x{37D}\\x{37F}-\\x{1FFF}"
    u"\\x{200C}-\\x{200D}\\x{2070}-\\x{218F}\\x{2C00}-\\x{2FEF}\\x{3001}-\\x{D7FF}"
    u"\\x{F900}-\\x{FDCF}\\x{FDF0}-\\x{FFFD}\\x{10000}-\\x{EFFFF}]";
constexpr std::u16string_view NameCharExtra = u"\\-.0-9\\x{B7}\\x{300}-\\x{36F}\\x{203F}-\\x{2040}";

// The general categories a \p{..} escape may name.
bool IsCategoryName(std::u16string_view name) {
  static const std::set<std::u16string_view> names = {
      u"L",  u"Lu", u"Ll", u"Lt", u"Lm", u"Lo", u"M",  u"Mn", u"Mc", u"Me", u"N",  u"Nd",
      u"Nl", u"No", u"P",  u"Pc", u"Pd", u"Ps", u"Pe", u"Pi", u"Pf", u"Po", u"Z",  u"Zs",
      u"Zl", u"Zp", u"S",  u"Sm", u"Sc", u"Sk", u"So", u"C",  u"Cc", u"Cf", u"Co", u"Cn"};
  return names.count(name) > 0;
}

// Parses a pattern and writes the ICU pattern that matches the same strings. Every character
// is written as \x{..} and every class as an explicit set, so that ICU's own reading of
// metacharacters, line terminators and flags never comes into play. Case-blind matching is
// done here too (by adding the case variants of characters and ranges) because ICU would also
// extend property classes and negated classes, which must stay as written.
class RegexTranslator {
 public:
  // `inputLength` is the length of the text the pattern is to match.
  RegexTranslator(const std::u16string& pattern, const RegexFlags& flags, std::size_t inputLength)
      : source_(pattern), flags_(flags), inputLength_(inputLength) {
    text_ = CodePoints(pattern);
    if (flags.extended) RemoveWhitespace();
  }

  // The ICU pattern; FORX0002 for a pattern that is not a valid regular expression.
  std::u16string Translate() {
    ParseRegExp();
    if (position_ < text_.size()) Fail(u"unmatched ')'");
    return std::move(out_);
  }

 private:
  [[noreturn]] void Fail(std::u16string_view why) const {
    ThrowTypeError(u"FORX0002", u"Invalid regular expression \"" + source_ + u"\": " +
                                    std::u16string(why) + u".");
  }

  bool AtEnd() const { return position_ >= text_.size(); }
  char32_t Peek(std::size_t ahead = 0) const {
    return position_ + ahead < text_.size() ? text_[position_ + ahead] : U'\0';
  }
  bool HasAhead(std::size_t ahead) const { return position_ + ahead < text_.size(); }

  // Groups and subtractions nest by recursion: a limit keeps the stack safe.
  void Nest() {
    constexpr int MaxNesting = 500;
    if (++nesting_ > MaxNesting) Fail(u"groups or classes nested too deeply");
  }

  // With the x flag, whitespace goes except inside character class expressions.
  void RemoveWhitespace() {
    std::u32string kept;
    int depth = 0;
    bool escaped = false;
    for (const char32_t c : text_) {
      const bool space = c == U' ' || c == U'\t' || c == U'\n' || c == U'\r';
      if (space && depth == 0) continue;
      kept += c;
      if (escaped) {
        escaped = false;
      } else if (c == U'\\') {
        escaped = true;
      } else if (c == U'[') {
        ++depth;
      } else if (c == U']' && depth > 0) {
        --depth;
      }
    }
    text_ = std::move(kept);
  }

  static void AppendEscaped(char32_t c, std::u16string& out) {
    static constexpr char Hex[] = "0123456789ABCDEF";
    std::u16string digits;
    do {
      digits.insert(digits.begin(), static_cast<char16_t>(Hex[c & 0xF]));
      c >>= 4;
    } while (c != 0);
    out += u"\\x{" + digits + u"}";
  }

  // The set of `c` and, when matching ignores case, its case variants.
  std::u16string CharacterSet(char32_t c) const {
    if (!flags_.caseInsensitive) {
      std::u16string out;
      AppendEscaped(c, out);
      return out;
    }
    icu::UnicodeSet set(static_cast<UChar32>(c), static_cast<UChar32>(c));
    return SetPattern(set);
  }

  // A closed set written as ranges: "[\x{41}-\x{5A}\x{61}]".
  std::u16string SetPattern(icu::UnicodeSet& set) const {
    if (flags_.caseInsensitive) {
      set.closeOver(USET_CASE_INSENSITIVE);
      set.removeAllStrings();
    }
    std::u16string out = u"[";
    for (int32_t i = 0; i < set.getRangeCount(); ++i) {
      const auto start = static_cast<char32_t>(set.getRangeStart(i));
      const auto end = static_cast<char32_t>(set.getRangeEnd(i));
      AppendEscaped(start, out);
      if (end != start) {
        out += u'-';
        AppendEscaped(end, out);
      }
    }
    return out + u"]";
  }

  // regExp ::= branch ('|' branch)*
  void ParseRegExp() {
    ParseBranch();
    while (!AtEnd() && Peek() == U'|') {
      ++position_;
      out_ += u'|';
      ParseBranch();
    }
  }

  void ParseBranch() {
    while (!AtEnd() && Peek() != U'|' && Peek() != U')')
      ParsePiece();
  }

  // piece ::= atom quantifier?
  void ParsePiece() {
    const char32_t c = text_[position_++];
    switch (c) {
      case U'(': {
        if (Peek() == U'?') Fail(u"'(?' constructs are not supported");
        const int group = ++groupsOpened_;
        Nest();
        out_ += u'(';
        ParseRegExp();
        if (AtEnd() || Peek() != U')') Fail(u"missing ')'");
        ++position_;
        out_ += u')';
        --nesting_;
        closedGroups_.insert(group);
        break;
      }
      case U'[':
        out_ += ParseCharClassExpression();
        break;
      case U'.':
        out_ += flags_.dotAll ? u"[\\x{0}-\\x{10FFFF}]" : u"[^\\x{A}\\x{D}]";
        break;
      case U'^':
        // Only the start of the string, or of a line with the m flag: after a newline that is
        // not the last character.
        out_ += flags_.multiline ? u"(?:^|(?<=\\x{A})(?!\\z))" : u"(?:^)";
        break;
      case U'$':
        // Only the end of the string: ICU's '$' would also match before a final newline.
        out_ += flags_.multiline ? u"(?:\\z|(?=\\x{A}))" : u"(?:\\z)";
        break;
      case U'\\':
        if (Peek() >= U'0' && Peek() <= U'9') {
          ParseBackReference();
        } else {
          out_ += ParseEscape(false);
        }
        break;
      case U'?':
      case U'*':
      case U'+':
      case U'{':
        Fail(u"a quantifier must follow something to repeat");
      case U'}':
      case U']':
        Fail(u"unescaped '" + FromCodePoints(std::u32string(1, c)) + u"'");
      default:
        out_ += CharacterSet(c);
        break;
    }
    ParseQuantifier();
  }

  // A back-reference takes as many digits as still name a group; the group must be closed.
  void ParseBackReference() {
    if (Peek() == U'0') Fail(u"\\0 is not a back-reference");
    int group = static_cast<int>(text_[position_++] - U'0');
    while (!AtEnd() && Peek() >= U'0' && Peek() <= U'9' &&
           group * 10 + static_cast<int>(Peek() - U'0') <= groupsOpened_) {
      group = group * 10 + static_cast<int>(text_[position_++] - U'0');
    }
    if (closedGroups_.count(group) == 0) {
      Fail(u"back-reference \\" + MessageText(std::to_string(group)) +
           u" to a group that is not complete before it");
    }
    const std::u16string number = MessageText(std::to_string(group));
    // Case-blind matching of the referenced text needs ICU's own flag, on this alone.
    out_ += flags_.caseInsensitive ? u"(?i:\\" + number + u")" : u"(?:\\" + number + u")";
  }

  // quantifier ::= ('?' | '*' | '+' | '{' n (',' m?)? '}') '?'?
  void ParseQuantifier() {
    if (AtEnd()) return;
    const char32_t c = Peek();
    if (c == U'?' || c == U'*' || c == U'+') {
      ++position_;
      out_ += static_cast<char16_t>(c);
    } else if (c == U'{') {
      ++position_;
      const std::uint64_t low = ReadCount();
      std::u16string text = u"{" + CountText(low);
      if (Peek() == U',') {
        ++position_;
        text += u',';
        if (Peek() != U'}') {
          const std::uint64_t high = ReadCount();
          if (high < low) Fail(u"a quantifier's maximum is below its minimum");
          text += CountText(high);
        }
      }
      if (AtEnd() || Peek() != U'}') Fail(u"malformed quantifier");
      ++position_;
      out_ += text + u'}';
    } else {
      return;
    }
    if (Peek() == U'?') {
      ++position_;
      out_ += u'?';
    }
  }

  // A quantifier's count; huge ones saturate, as they end up limited to the input's length.
  std::uint64_t ReadCount() {
    constexpr std::uint64_t Saturated = std::uint64_t{1} << 62;
    std::uint64_t count = 0;
    bool any = false;
    while (!AtEnd() && Peek() >= U'0' && Peek() <= U'9') {
      count = std::min(Saturated, count * 10 + (text_[position_++] - U'0'));
      any = true;
    }
    if (!any) Fail(u"malformed quantifier");
    return count;
  }

  // ICU counts repetitions up to 2^24 - 1. At most one repetition per character of the input
  // can take up text; any further ones match nothing, and one such makes any number: so a
  // count beyond the input's length plus one means the same as that, whatever the count.
  std::u16string CountText(std::uint64_t count) const {
    constexpr std::uint64_t IcuLimit = (std::uint64_t{1} << 24) - 1;
    if (count > IcuLimit) {
      count = std::min<std::uint64_t>(count, inputLength_ + 1);
      if (count > IcuLimit) Fail(u"quantifier count too large");
    }
    return MessageText(std::to_string(count));
  }

  // After a backslash: a single character escape (as a set with its case variants), a
  // multi-character escape or a category escape. Within a character class, `single` receives
  // the character of a single character escape so that it can start or end a range.
  std::u16string ParseEscape(bool inClass, char32_t* single = nullptr) {
    if (AtEnd()) Fail(u"a pattern cannot end with '\\'");
    const char32_t c = text_[position_++];
    char32_t literal = 0;
    switch (c) {
      case U'n':
        literal = U'\n';
        break;
      case U'r':
        literal = U'\r';
        break;
      case U't':
        literal = U'\t';
        break;
      case U'\\':
      case U'|':
      case U'.':
      case U'?':
      case U'*':
      case U'+':
      case U'(':
      case U')':
      case U'{':
      case U'}':
      case U'-':
      case U'[':
      case U']':
      case U'^':
      case U'$':
        literal = c;
        break;
      case U's':
        return u"[\\x{20}\\x{9}\\x{A}\\x{D}]";
      case U'S':
        return u"[^\\x{20}\\x{9}\\x{A}\\x{D}]";
      case U'd':
        return u"\\p{Nd}";
      case U'D':
        return u"\\P{Nd}";
      case U'w':
        return u"[^\\p{P}\\p{Z}\\p{C}]";
      case U'W':
        return u"[\\p{P}\\p{Z}\\p{C}]";
      case U'i':
        return std::u16string(NameStartSet);
      case U'I':
        return u"[^" + std::u16string(NameStartSet) + u"]";
      case U'c':
        return u"[" + std::u16string(NameStartSet) + std::u16string(NameCharExtra) + u"]";
      case U'C':
        return u"[^" + std::u16string(NameStartSet) + std::u16string(NameCharExtra) + u"]";
      case U'p':
      case U'P':
        return ParseProperty(c == U'P');
      default:
        Fail(inClass ? u"invalid escape in a character class" : u"invalid escape");
    }
    if (single) *single = literal;
    return CharacterSet(literal);
  }

  // \p{Name} or \P{Name}: a general category or "Is" and a Unicode block name.
  std::u16string ParseProperty(bool complement) {
    if (Peek() != U'{') Fail(u"'\\p' and '\\P' need a name in braces");
    ++position_;
    std::u16string name;
    while (!AtEnd() && Peek() != U'}')
      name += static_cast<char16_t>(text_[position_++]);
    if (AtEnd()) Fail(u"unterminated '\\p{'");
    ++position_;
    const std::u16string prefix = complement ? u"\\P{" : u"\\p{";
    if (IsCategoryName(name)) return prefix + name + u"}";
    if (name.size() > 2 && name.compare(0, 2, u"Is") == 0) {
      // Block names are ASCII letters, digits and hyphens; ICU matches them loosely.
      std::string block;
      for (std::size_t i = 2; i < name.size(); ++i) {
        const char16_t c = name[i];
        if (!IsAsciiAlphanumeric(c) && c != u'-') {
          block.clear();
          break;
        }
        block += static_cast<char>(c);
      }
      const int32_t value =
          block.empty() ? UCHAR_INVALID_CODE : u_getPropertyValueEnum(UCHAR_BLOCK, block.c_str());
      if (value != UCHAR_INVALID_CODE) {
        const char* canonical = u_getPropertyValueName(UCHAR_BLOCK, value, U_LONG_PROPERTY_NAME);
        if (canonical) return prefix + u"Block=" + MessageText(canonical) + u"}";
      }
      Fail(u"unknown Unicode block \"" + name.substr(2) + u"\"");
    }
    Fail(u"unknown character property \"" + name + u"\"");
  }

  // charClassExpr ::= '[' charGroup ']', the '[' read already.
  std::u16string ParseCharClassExpression() {
    const bool negated = Peek() == U'^';
    if (negated) ++position_;
    // Characters and ranges collect in `literal` (to take in case variants together); escapes
    // that stand for classes go to `classes` as they are.
    icu::UnicodeSet literal;
    std::u16string classes;
    bool empty = true;
    std::u16string subtracted;
    for (;;) {
      if (AtEnd()) Fail(u"missing ']'");
      const char32_t c = Peek();
      if (c == U']') {
        if (empty) Fail(u"empty character class");
        ++position_;
        break;
      }
      if (c == U'-' && !empty) {
        if (Peek(1) == U'[') {
          position_ += 2;
          Nest();
          subtracted = ParseCharClassExpression();
          --nesting_;
          if (AtEnd() || Peek() != U']') Fail(u"a class subtraction must end the class");
          ++position_;
          break;
        }
        // '-' stands for itself only first or last in a class.
        if (Peek(1) != U']') Fail(u"'-' inside a character class must be escaped");
      }
      char32_t start = 0;
      if (c == U'\\') {
        ++position_;
        const std::u16string set = ParseEscape(true, &start);
        if (start == 0) {
          classes += set;
          empty = false;
          continue;
        }
      } else if (c == U'[') {
        Fail(u"'[' inside a character class must be escaped");
      } else {
        ++position_;
        start = c;
      }
      char32_t end = start;
      if (Peek() == U'-' && HasAhead(1) && Peek(1) != U']' && Peek(1) != U'[') {
        ++position_;
        const char32_t last = text_[position_];
        if (last == U'\\') {
          ++position_;
          end = 0;
          ParseEscape(true, &end);
          if (end == 0) Fail(u"a range cannot end with a class escape");
        } else if (last == U'-') {
          Fail(u"'-' inside a character class must be escaped");
        } else {
          ++position_;
          end = last;
        }
        if (end < start) Fail(u"a range's end is before its start");
      }
      literal.add(static_cast<UChar32>(start), static_cast<UChar32>(end));
      empty = false;
    }
    std::u16string group = u"[";
    if (negated) group += u'^';
    if (!literal.isEmpty()) group += SetPattern(literal);
    group += classes + u"]";
    if (!subtracted.empty()) group = u"[" + group + u"--" + subtracted + u"]";
    return group;
  }

  const std::u16string& source_;
  RegexFlags flags_;
  std::size_t inputLength_;
  std::u32string text_;
  std::size_t position_ = 0;
  int nesting_ = 0;
  int groupsOpened_ = 0;
  std::set<int> closedGroups_;
  std::u16string out_;
};

// ---- Regular expressions: matching

// A compiled pattern with a matcher over the input. The matcher refers to the input and the
// pattern by address, so the whole stays put.
struct Regex {
  Regex() = default;
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  std::u16string source;
  icu::UnicodeString input;
  std::unique_ptr<icu::RegexPattern> pattern;
  std::unique_ptr<icu::RegexMatcher> matcher;
};

// A pattern that backtracks without end ("(a+)+$" against a long non-match) must not hold the
// thread: after this much of ICU's match engine's work (on the order of a second) the match
// fails with an error.
constexpr int32_t RegexTimeLimit = 1000;

void MakeRegex(Regex& regex, const std::u16string& pattern, std::u16string_view flags,
               const std::u16string& input) {
  regex.source = pattern;
  const RegexFlags read = ReadFlags(flags);
  const std::u16string translated = RegexTranslator(pattern, read, input.size()).Translate();
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  regex.pattern.reset(icu::RegexPattern::compile(ToIcu(translated), 0, where, status));
  if (U_FAILURE(status) || !regex.pattern) {
    ThrowTypeError(u"FORX0002", u"Invalid regular expression \"" + pattern + u"\": " +
                                    MessageText(u_errorName(status)) + u".");
  }
  regex.input = ToIcu(input);
  regex.matcher.reset(regex.pattern->matcher(regex.input, status));
  if (regex.matcher) regex.matcher->setTimeLimit(RegexTimeLimit, status);
  if (U_FAILURE(status) || !regex.matcher) {
    ThrowTypeError(u"FORX0002", u"Cannot match the regular expression \"" + pattern + u"\": " +
                                    MessageText(u_errorName(status)) + u".");
  }
}

// The next match. A match that gives up (the time limit, ICU's stack limit) is an error rather
// than a silent "no match".
bool FindNext(Regex& regex) {
  UErrorCode status = U_ZERO_ERROR;
  const bool found = regex.matcher->find(status);
  if (U_FAILURE(status)) {
    ThrowTypeError(u"FORX0002", u"The regular expression \"" + regex.source +
                                    u"\" could not be matched: " +
                                    MessageText(u_errorName(status)) + u".");
  }
  return found;
}

// replace() and tokenize() would loop on a match of nothing.
void RejectEmptyMatch(const Regex& regex, std::u16string_view function) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString empty;
  std::unique_ptr<icu::RegexMatcher> probe(regex.pattern->matcher(empty, status));
  if (U_SUCCESS(status) && probe && probe->matches(status) && U_SUCCESS(status)) {
    ThrowTypeError(u"FORX0003", u"The regular expression \"" + regex.source + u"\" of " +
                                    std::u16string(function) + u"() matches the empty string.");
  }
}

Sequence Matches(FunctionContext&, Arguments& arguments) {
  Regex regex;
  MakeRegex(regex, StringOf(arguments[1]),
            arguments.size() > 2 ? StringOf(arguments[2]) : std::u16string(),
            StringOf(arguments[0]));
  return OneBoolean(FindNext(regex));
}

// '\' only escapes '\' and '$'; '$' must start a group number.
void CheckReplacement(const std::u16string& replacement) {
  for (std::size_t i = 0; i < replacement.size(); ++i) {
    const char16_t c = replacement[i];
    const char16_t next = i + 1 < replacement.size() ? replacement[i + 1] : u'\0';
    if ((c == u'\\' && next != u'\\' && next != u'$') ||
        (c == u'$' && (next < u'0' || next > u'9'))) {
      ThrowTypeError(u"FORX0004", u"Invalid replacement string \"" + replacement +
                                      u"\" in replace(): write \\$ for '$' and \\\\ for '\\'.");
    }
    if (c == u'\\') ++i;
  }
}

// $N is group N (nothing for a group that did not take part or does not exist), taking further
// digits while they still name a group; \$ and \\ are the characters themselves.
void AppendReplacement(const std::u16string& replacement, icu::RegexMatcher& matcher,
                       std::u16string& out) {
  const auto groups = static_cast<std::size_t>(matcher.groupCount());
  for (std::size_t i = 0; i < replacement.size(); ++i) {
    const char16_t c = replacement[i];
    if (c == u'\\') {
      out += replacement[++i];
    } else if (c == u'$') {
      std::size_t group = static_cast<std::size_t>(replacement[++i] - u'0');
      while (i + 1 < replacement.size() && replacement[i + 1] >= u'0' &&
             replacement[i + 1] <= u'9' &&
             group * 10 + static_cast<std::size_t>(replacement[i + 1] - u'0') <= groups) {
        group = group * 10 + static_cast<std::size_t>(replacement[++i] - u'0');
      }
      if (group <= groups) {
        UErrorCode status = U_ZERO_ERROR;
        out += ToU16(matcher.group(static_cast<int32_t>(group), status));
        // Each reference repeats a group: the result may far outgrow the input.
        CheckTextLength(out.size());
      }
    } else {
      out += c;
    }
  }
}

Sequence Replace(FunctionContext&, Arguments& arguments) {
  const std::u16string input = StringOf(arguments[0]);
  const std::u16string replacement = StringOf(arguments[2]);
  Regex regex;
  MakeRegex(regex, StringOf(arguments[1]),
            arguments.size() > 3 ? StringOf(arguments[3]) : std::u16string(), input);
  RejectEmptyMatch(regex, u"replace");
  CheckReplacement(replacement);
  std::u16string out;
  int32_t last = 0;
  UErrorCode status = U_ZERO_ERROR;
  while (FindNext(regex)) {
    const int32_t start = regex.matcher->start(status);
    const int32_t end = regex.matcher->end(status);
    if (U_FAILURE(status)) break;
    out.append(input, static_cast<std::size_t>(last), static_cast<std::size_t>(start - last));
    AppendReplacement(replacement, *regex.matcher, out);
    CheckTextLength(out.size());
    last = end;
  }
  out.append(input, static_cast<std::size_t>(last), std::u16string::npos);
  return OneString(std::move(out));
}

Sequence Tokenize(FunctionContext&, Arguments& arguments) {
  const std::u16string input = StringOf(arguments[0]);
  Regex regex;
  MakeRegex(regex, StringOf(arguments[1]),
            arguments.size() > 2 ? StringOf(arguments[2]) : std::u16string(), input);
  RejectEmptyMatch(regex, u"tokenize");
  Sequence result;
  if (input.empty()) return result;
  int32_t last = 0;
  UErrorCode status = U_ZERO_ERROR;
  while (FindNext(regex)) {
    const int32_t start = regex.matcher->start(status);
    const int32_t end = regex.matcher->end(status);
    if (U_FAILURE(status)) break;
    result.push_back(Item::OfString(
        input.substr(static_cast<std::size_t>(last), static_cast<std::size_t>(start - last))));
    last = end;
  }
  result.push_back(Item::OfString(input.substr(static_cast<std::size_t>(last))));
  return result;
}

}  // namespace

const FunctionDefinition StringFunctions[] = {
    {u"codepoint-equal", 2, 2, CodepointEqual, u"xs:string?, xs:string?"},
    {u"codepoints-to-string", 1, 1, CodepointsToString, u"xs:integer*"},
    {u"compare", 2, 3, Compare, u"xs:string?, xs:string?, xs:string"},
    {u"concat", 2, AnyNumber, Concat, u"xs:anyAtomicType?"},
    {u"contains", 2, 3, Contains, u"xs:string?, xs:string?, xs:string"},
    {u"encode-for-uri", 1, 1, EncodeForUri, u"xs:string?"},
    {u"ends-with", 2, 3, EndsWith, u"xs:string?, xs:string?, xs:string"},
    {u"escape-html-uri", 1, 1, EscapeHtmlUri, u"xs:string?"},
    {u"iri-to-uri", 1, 1, IriToUri, u"xs:string?"},
    {u"lower-case", 1, 1, LowerCase, u"xs:string?"},
    {u"matches", 2, 3, Matches, u"xs:string?, xs:string, xs:string"},
    {u"normalize-space", 0, 1, NormalizeSpace, u"xs:string?"},
    {u"normalize-unicode", 1, 2, NormalizeUnicode, u"xs:string?, xs:string"},
    {u"replace", 3, 4, Replace, u"xs:string?, xs:string, xs:string, xs:string"},
    {u"starts-with", 2, 3, StartsWith, u"xs:string?, xs:string?, xs:string"},
    {u"string-join", 2, 2, StringJoin, u"xs:string*, xs:string"},
    {u"string-length", 0, 1, StringLength, u"xs:string?"},
    {u"string-to-codepoints", 1, 1, StringToCodepoints, u"xs:string?"},
    {u"substring", 2, 3, Substring, u"xs:string?, xs:double, xs:double"},
    {u"substring-after", 2, 3, SubstringAfter, u"xs:string?, xs:string?, xs:string"},
    {u"substring-before", 2, 3, SubstringBefore, u"xs:string?, xs:string?, xs:string"},
    {u"tokenize", 2, 3, Tokenize, u"xs:string?, xs:string, xs:string"},
    {u"translate", 3, 3, Translate, u"xs:string?, xs:string, xs:string"},
    {u"upper-case", 1, 1, UpperCase, u"xs:string?"},
    {u"", 0, 0, nullptr, u""},
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
