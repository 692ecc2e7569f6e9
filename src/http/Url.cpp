// The URL parser, joining, percent-encoding, and file URLs.
#include <veskan/Url.h>

#include <veskan/Vocabulary.h>

#include "foundation/Utf.h"
#include "http/ObjectPool.h"
#include "sys/Path.h"

#include <unicode/ustring.h>

#include <climits>
#include <string>
#include <vector>

namespace Veskan {

namespace {

struct SchemePrefix {
  const char16_t* text;
  int length;
  int scheme;
};

// Compared case-sensitively, in this order.
constexpr SchemePrefix SchemePrefixes[] = {{u"http://", 7, Url::HttpScheme},
                                           {u"https://", 8, Url::HttpsScheme},
                                           {u"file://", 7, Url::FileScheme},
                                           {u"urn:", 4, Url::UrnScheme}};

constexpr char16_t FilePrefix[] = u"file://";

bool IsUnreserved(char16_t unit) {
  return (unit >= u'0' && unit <= u'9') || (unit >= u'A' && unit <= u'Z') ||
         (unit >= u'a' && unit <= u'z') || unit == u'-' || unit == u'_' || unit == u'.' ||
         unit == u'!' || unit == u'~' || unit == u'*' || unit == u'\'' || unit == u'(' ||
         unit == u')';
}

// The value of a hexadecimal digit; any other character counts as 0.
int HexValue(char16_t unit) {
  if (unit >= u'0' && unit <= u'9') return unit - u'0';
  if (unit >= u'A' && unit <= u'F') return unit - u'A' + 10;
  if (unit >= u'a' && unit <= u'f') return unit - u'a' + 10;
  return 0;
}

// The text of `text` from `start` on.
StringBuffer From(const icu::UnicodeString& text, int32_t start) {
  return StringBuffer(text.tempSubString(start));
}

// The text of `text` before `end`.
StringBuffer Before(const icu::UnicodeString& text, int32_t end) {
  return StringBuffer(text.tempSubString(0, end));
}

// "." and ".." segments and repeated separators of an absolute path resolved by their text alone.
std::string NormalizeAbsolutePath(const std::string& path) {
  std::vector<std::string> segments;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(Sys::PathSeparator, start);
    if (end == std::string::npos) end = path.size();
    const std::string segment = path.substr(start, end - start);
    if (segment == "..") {
      if (!segments.empty()) segments.pop_back();
    } else if (!segment.empty() && segment != ".") {
      segments.push_back(segment);
    }
    start = end + 1;
  }
  std::string normalized;
  for (const std::string& segment : segments)
    normalized += Sys::PathSeparator + segment;
  return normalized.empty() ? std::string(1, Sys::PathSeparator) : normalized;
}

// The absolute form of a local path: resolved when it exists, else made absolute by its text.
std::string FullPath(const std::string& path) {
  std::string resolved = Sys::ResolveExistingPath(path);
  if (!resolved.empty()) return resolved;
  const std::string absolute = !path.empty() && path[0] == Sys::PathSeparator
                                   ? path
                                   : Sys::CurrentFolder() + Sys::PathSeparator + path;
  return NormalizeAbsolutePath(absolute);
}

}  // namespace

Url::Url()
    : Text(text_),
      Host(host_),
      Path(path_),
      PathAndQuery(pathAndQuery_),
      Fragment(fragment_),
      Scheme(scheme_),
      IsAbsolute(isAbsolute_),
      HasHost(hasHost_),
      Port(port_),
      HasPort(hasPort_),
      Query(query_) {}

Url::Url(const char16_t* text) : Url() {
  Assign(text);
}

std::shared_ptr<Url> Url::New(const char16_t* text) {
  std::shared_ptr<Url> url =
      Detail::ObjectPool<Url>::TakeShared([] { return new Url(); }, &Url::Recycle);
  url->Assign(text);
  return url;
}

void Url::Recycle(Url* url) {
  for (StringBuffer* text :
       {&url->text_, &url->host_, &url->path_, &url->pathAndQuery_, &url->fragment_}) {
    text->remove();
    text->KeepTerminated();
  }
  url->scheme_ = HttpScheme;
  url->isAbsolute_ = false;
  url->hasHost_ = false;
  url->port_ = 0;
  url->hasPort_ = false;
  url->query_.Clear();
  Detail::ObjectPool<Url>::Give(url);
}

void Url::Assign(const char16_t* text) {
  // Nobody else sees this object yet, so `text` cannot point into it.
  if (text) text_.setTo(text, u_strlen(text));
  text_.KeepTerminated();
  Parse();
}

Url::Url(const Url& other) : Url() {
  *this = other;
}

Url& Url::operator=(const Url& other) {
  text_ = other.text_;
  host_ = other.host_;
  path_ = other.path_;
  pathAndQuery_ = other.pathAndQuery_;
  fragment_ = other.fragment_;
  scheme_ = other.scheme_;
  isAbsolute_ = other.isAbsolute_;
  hasHost_ = other.hasHost_;
  port_ = other.port_;
  hasPort_ = other.hasPort_;
  query_ = other.query_;
  return *this;
}

Url::~Url() = default;

void Url::Parse() {
  if (text_.charAt(0) == u'/') {  // a request target: no scheme, nothing else to split off
    ParsePathAndQuery(text_);
    return;
  }
  int32_t at = 0;
  for (const SchemePrefix& prefix : SchemePrefixes) {
    if (text_.startsWith(prefix.text, prefix.length)) {  // compared in place, not copied first
      scheme_ = prefix.scheme;
      isAbsolute_ = true;
      at = prefix.length;
      break;
    }
  }
  StringBuffer rest = From(text_, at);

  if (scheme_ == UrnScheme) {
    // "urn:" NID ":" NSS: the namespace stands where a host would.
    const int32_t colon = rest.indexOf(u':');
    host_ = colon < 0 ? rest : Before(rest, colon);
    hasHost_ = true;
    path_ = colon < 0 ? StringBuffer() : From(rest, colon + 1);
    pathAndQuery_ = path_;
    return;
  }

  if (scheme_ == FileScheme && rest.startsWith(u"/")) {
    host_ = u"localhost";  // a local file, though no host was written
  } else if (!rest.isEmpty() && rest[0] != u'/' && scheme_ != FileScheme) {
    // The authority: a host up to "/" or ":", then an optional port.
    int32_t hostEnd = 0;
    while (hostEnd < rest.length() && rest[hostEnd] != u'/' && rest[hostEnd] != u':')
      ++hostEnd;
    if (hostEnd > 0) {
      hasHost_ = true;
      host_ = Before(rest, hostEnd);
      int32_t next = hostEnd;
      if (next < rest.length() && rest[next] == u':') {
        hasPort_ = true;
        ++next;
        long long port = 0;
        for (; next < rest.length() && rest[next] >= u'0' && rest[next] <= u'9'; ++next) {
          if (port <= INT_MAX) port = port * 10 + (rest[next] - u'0');
        }
        port_ = port > INT_MAX ? INT_MAX : static_cast<int>(port);
        while (next < rest.length() && rest[next] != u'/')
          ++next;  // "80abc": abc is skipped
      }
      rest = From(rest, next);
    }
  }
  // A "file://" host is not skipped: it is read as part of the path.
  ParsePathAndQuery(rest);

  if (isAbsolute_ && !hasPort_) {
    port_ = scheme_ == FileScheme
                ? 0
                : Schemes::DefaultPort(static_cast<Schemes::Enumeration>(scheme_));
  }
}

void Url::ParsePathAndQuery(const StringBuffer& rest) {
  const int32_t question = rest.indexOf(u'?');
  if (rest.isEmpty()) {
    path_ = u"/";
    pathAndQuery_ = u"/";
  } else if (question == 0) {
    path_ = u"/";
    pathAndQuery_ = StringBuffer(u"/") + rest;
  } else {
    pathAndQuery_ = rest;
    path_.setTo(rest, 0, question < 0 ? rest.length() : question);
    path_.KeepTerminated();
    if (path_[0] != u'/') path_ = StringBuffer(u"/") + path_;
  }
  if (question < 0) return;

  // name=value pairs between "&"; a bare name has an empty value; a repeated name keeps its
  // first position and its last value.
  int32_t start = question + 1;
  while (start < rest.length()) {
    int32_t end = rest.indexOf(u'&', start);
    if (end < 0) end = rest.length();
    if (end > start) {
      const int32_t equals = rest.indexOf(u'=', start, end - start);
      const int32_t nameEnd = equals < 0 ? end : equals;
      const StringBuffer name(rest.tempSubString(start, nameEnd - start));
      query_[name.c_str()] = equals < 0
                                 ? StringBuffer()
                                 : StringBuffer(rest.tempSubString(equals + 1, end - equals - 1));
    }
    start = end + 1;
  }
}

Url Url::operator+(const Url& relative) const {
  Url joined;
  const Url& schemeSource = isAbsolute_ ? *this : relative;
  joined.isAbsolute_ = schemeSource.isAbsolute_;
  joined.scheme_ = schemeSource.scheme_;
  const Url& hostSource = hasHost_ ? *this : relative;
  joined.hasHost_ = hostSource.hasHost_;
  joined.host_ = hostSource.host_;
  const Url& portSource = hasPort_ ? *this : relative;
  joined.hasPort_ = portSource.hasPort_;
  joined.port_ = portSource.port_;
  if (joined.isAbsolute_ && !joined.hasPort_ && joined.scheme_ != UrnScheme) {
    joined.port_ = joined.scheme_ == FileScheme
                       ? 0
                       : Schemes::DefaultPort(static_cast<Schemes::Enumeration>(joined.scheme_));
  }

  // Exactly one "/" between the two paths.
  StringBuffer basePath = path_;
  while (basePath.endsWith(u"/"))
    basePath.truncate(basePath.length() - 1);
  int32_t skip = 0;
  while (skip < relative.path_.length() && relative.path_[skip] == u'/')
    ++skip;
  joined.path_ = basePath + u"/" + From(relative.path_, skip);

  joined.query_ = query_;
  for (const Header& parameter : relative.query_) {
    joined.query_[parameter.Name.c_str()] = parameter.Value;
  }
  joined.fragment_ = relative.fragment_.isEmpty() ? fragment_ : relative.fragment_;

  StringBuffer query;
  for (const Header& parameter : joined.query_) {
    query += query.isEmpty() ? u"?" : u"&";
    query += parameter.Name;
    query += u'=';
    query += Encode(parameter.Value.c_str());
  }
  joined.pathAndQuery_ = joined.path_ + query;

  StringBuffer text;
  if (joined.isAbsolute_) {
    text += Schemes::SchemeName(static_cast<Schemes::Enumeration>(joined.scheme_));
  }
  if (joined.hasHost_) text += joined.host_;
  if (joined.hasPort_) text += StringBuffer(u":") + FormatInteger(joined.port_);
  text += joined.pathAndQuery_;
  if (!joined.fragment_.isEmpty()) text += StringBuffer(u"#") + joined.fragment_;
  joined.text_ = text;
  return joined;
}

StringBuffer Url::Encode(const char16_t* text) {
  const int length = StringLength(text);
  int clean = 0;
  while (clean < length && IsUnreserved(text[clean]))
    ++clean;
  if (clean == length) return StringBuffer(text);

  static const char16_t Hex[] = u"0123456789ABCDEF";
  const std::string bytes = Detail::EncodeUtf8(text, length);
  StringBuffer encoded;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (IsUnreserved(value)) {
      encoded.append(static_cast<char16_t>(value));
    } else {
      encoded.append(u'%').append(Hex[value >> 4]).append(Hex[value & 0xF]);
    }
  }
  return StringBuffer(encoded);
}

StringBuffer Url::Decode(const char16_t* text) {
  const int length = StringLength(text);
  bool escaped = false;
  for (int i = 0; i + 2 < length && !escaped; ++i)
    escaped = text[i] == u'%';
  if (!escaped) return StringBuffer(text);

  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(length));
  for (int i = 0; i < length; ++i) {
    if (text[i] == u'%' && i + 2 < length) {
      bytes += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      bytes += static_cast<char>(text[i] & 0xFF);  // units beyond Latin-1 are cut to 8 bits
    }
  }
  return UTF8to16(bytes.c_str());  // up to the first NUL byte
}

StringBuffer Url::FileUrlFromPath(const char16_t* path) {
  const std::string native = Detail::PathToNative(path);
  if (native.empty()) return StringBuffer();
  const StringBuffer full(FullPath(native));
  // Each segment percent-encoded; the separators stay.
  StringBuffer url(FilePrefix);
  int32_t start = 1;
  while (start <= full.length()) {
    int32_t end = full.indexOf(u'/', start);
    if (end < 0) end = full.length();
    url += u'/';
    url += Encode(StringBuffer(full.tempSubString(start, end - start)).c_str());
    start = end + 1;
  }
  return url;
}

StringBuffer Url::PathFromFileUrl(const char16_t* url) {
  const StringBuffer text(url);
  if (!text.startsWith(FilePrefix)) return StringBuffer();
  StringBuffer rest = From(text, StringLength(FilePrefix));
  if (rest.startsWith(u"localhost/")) rest = From(rest, 9);
  if (!rest.startsWith(u"/")) return StringBuffer();  // another machine's file
  const std::string native = Decode(rest.c_str()).ToUTF8();
  return native.empty() ? StringBuffer() : StringBuffer(FullPath(native));
}

}  // namespace Veskan
