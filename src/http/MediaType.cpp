// Media types: splitting a media-type text and suggesting file names for downloaded bodies.
#include <veskan/Content.h>

#include "http/Pooled.h"
#include "sys/Path.h"

#include <random>

namespace Veskan {

namespace {

constexpr char16_t DefaultType[] = u"application/octet-stream";
constexpr char16_t DefaultMajor[] = u"application";
constexpr char16_t DefaultMinor[] = u"octet-stream";

// The extensions of the media types the system saves, looked up without regard to case.
struct Extension {
  const char16_t* major;
  const char16_t* minor;
  const char16_t* extension;
};
constexpr Extension Extensions[] = {
    {u"text", u"plain", u".txt"},
    {u"text", u"html", u".html"},
    {u"image", u"svg+xml", u".svg"},
    {u"image", u"png", u".png"},
    {u"image", u"jpeg", u".jpg"},
    {u"image", u"gif", u".gif"},
    {u"application", u"zip", u".zip"},
    {u"application", u"vnd.calvor.folivo", u".folivo"},
    {u"application", u"vnd.calvor.albumitem", u".albumitem"},
    {u"application", u"vnd.calvor.album", u".album"},
    {u"application", u"x-shockwave-flash", u".swf"},
    {u"audio", u"mpeg", u".mp3"},
};

bool IsSpace(char16_t unit) {
  return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n';
}

bool IsForbiddenInFileName(char16_t unit) {
  switch (unit) {
    case u'"':
    case u'*':
    case u'/':
    case u'<':
    case u'>':
    case u'?':
    case u'\\':
    case u'|':
      return true;
    default:
      return false;
  }
}

char16_t AsciiLower(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

// The value of the first "filename=" (the letters in either case), or false when there is none.
bool FindFileName(const StringBuffer& disposition, StringBuffer& value) {
  static constexpr char16_t Name[] = u"filename=";
  constexpr int NameLength = 9;
  const int length = disposition.length();
  int start = -1;
  for (int i = 0; i + NameLength <= length && start < 0; ++i) {
    int matched = 0;
    while (matched < NameLength && AsciiLower(disposition[i + matched]) == Name[matched]) {
      ++matched;
    }
    if (matched == NameLength) start = i + NameLength;
  }
  if (start < 0) return false;

  value.remove();
  if (start < length && disposition[start] == u'"') {
    for (int i = start + 1; i < length && disposition[i] != u'"'; ++i) {
      if (disposition[i] == u'\\' && i + 1 < length) ++i;
      value += disposition[i];
    }
  } else {
    for (int i = start; i < length && disposition[i] != u';' && !IsSpace(disposition[i]); ++i) {
      value += disposition[i];
    }
  }
  return true;
}

StringBuffer Joined(const StringBuffer& folder, const StringBuffer& name) {
  StringBuffer path(folder);
  if (!path.endsWith(icu::UnicodeString(Sys::PathSeparator))) path += char16_t(Sys::PathSeparator);
  path += name;
  return path;
}

bool Exists(const StringBuffer& path) {
  return Sys::PathExists(path.ToUTF8());
}

}  // namespace

namespace {

// Makes `text` alias a literal, whose length is known without counting; set in place, the
// text is neither built nor moved twice.
template <std::size_t Size>
void Alias(StringBuffer& text, const char16_t (&literal)[Size]) {
  text.setTo(true, literal, static_cast<int32_t>(Size - 1));
  text.KeepTerminated();  // the literal's own NUL: nothing is copied
}

}  // namespace

// Every part starts with the default type, so the texts alias the literals instead of copying
// them; a later change copies on write.
MediaType::MediaType() {
  Alias(Text, DefaultType);
  Alias(TypeAndSubtype, DefaultType);
  Alias(Major, DefaultMajor);
  Alias(Minor, DefaultMinor);
}

MediaType::MediaType(const char16_t* text) {
  SetTo(text);
}

MediaType::~MediaType() = default;

void Detail::RenewMediaType(MediaType& type) {
  // The texts still alias the literals only while nobody has changed them.
  const bool unchanged =
      type.Text.getBuffer() == DefaultType && type.TypeAndSubtype.getBuffer() == DefaultType &&
      type.Major.getBuffer() == DefaultMajor && type.Minor.getBuffer() == DefaultMinor &&
      type.IsXml == 0 && type.Parameters.Count() == 0;
  if (!unchanged) type = MediaType();
}

void MediaType::SetTo(const char16_t* text) {
  Text = text;
  const int length = Text.length();
  int semicolon = Text.indexOf(u';');
  if (semicolon < 0) semicolon = length;
  int slash = Text.indexOf(u'/');
  if (slash < 0) slash = length;
  TypeAndSubtype = Text.tempSubString(0, semicolon);
  Major = Text.tempSubString(0, slash);
  Minor = slash < semicolon ? StringBuffer(Text.tempSubString(slash + 1, semicolon - slash - 1))
                            : StringBuffer();
  IsXml = (Minor == u"xml" || Minor.endsWith(icu::UnicodeString(u"+xml"))) ? 1 : 0;
  if (semicolon == length) return;

  Parameters.RemoveAll();
  const StringBuffer rest(Text.tempSubString(semicolon + 1));
  Tokenize(rest.c_str(), Parameters, u";");
  for (int i = Parameters.Count() - 1; i >= 0; --i) {
    Parameters[i].trim();
    if (Parameters[i].isEmpty()) Parameters.RemoveAt(i);
  }
}

StringBuffer MediaType::SuggestFileName(const char16_t* contentDisposition,
                                        const char16_t* mediaType, const char16_t* folder) {
  const StringBuffer folderText(folder);
  StringBuffer name;
  if (FindFileName(StringBuffer(contentDisposition), name)) {
    for (int i = 0; i < name.length(); ++i) {
      if (IsForbiddenInFileName(name[i])) name.setCharAt(i, u'_');
    }
    return Joined(folderText, name);
  }

  const MediaType type(mediaType);
  const char16_t* extension = u".file";
  for (const Extension& entry : Extensions) {
    if (CompareStringLiterals(type.Major.c_str(), entry.major, true) &&
        CompareStringLiterals(type.Minor.c_str(), entry.minor, true)) {
      extension = entry.extension;
      break;
    }
  }
  StringBuffer path = Joined(folderText, StringBuffer(u"download") + extension);
  thread_local std::mt19937 generator{std::random_device{}()};
  std::uniform_int_distribution<int> numbers(0, 0x7FFF);
  while (Exists(path)) {
    StringBuffer numbered(u"download(");
    numbered += FormatInteger(numbers(generator));
    numbered += u")";
    numbered += extension;
    path = Joined(folderText, numbered);
  }
  return path;
}

}  // namespace Veskan
