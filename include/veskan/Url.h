// Url: the parts of a URL text, joining, and percent-encoding.
#ifndef VESKAN_URL_H
#define VESKAN_URL_H

#include <veskan/Export.h>
#include <veskan/Header.h>
#include <veskan/StringBuffer.h>

#include <memory>

namespace Veskan {

// A URL parsed by the library's own small parser: request targets, client addresses, "file://"
// locations and "urn:" names. It knows the schemes "http://", "https://", "file://" and "urn:";
// any other text is a relative reference, whose first segment is read as a host ("a/b" has the
// host "a"). Parsing never fails. The query is kept as name and value pairs, neither decoded.
//
// The parts are read through constant reference members bound to the object's own values.
//
// Thread safety: a value; concurrent const use is safe.
class VESKAN_API Url {
 public:
  // Values of Scheme.
  static constexpr int HttpScheme = 0;
  static constexpr int HttpsScheme = 1;
  static constexpr int FileScheme = 2;
  static constexpr int UrnScheme = 3;

  explicit Url(const char16_t* text);
  // A shared Url of `text`, as std::make_shared<Url>(text) would make it. A server makes one per
  // request: these are renewed from a pool rather than built.
  static std::shared_ptr<Url> New(const char16_t* text);
  Url(const Url& other);
  Url& operator=(const Url& other);
  virtual ~Url();

  // This URL as the base joined with `relative`: scheme, host and port come from the base when it
  // has them, else from `relative`; the paths are joined with one "/" between them; the query
  // parameters are merged by name, those of `relative` winning. Dot segments are not resolved.
  Url operator+(const Url& relative) const;

  // `text` with every character outside the unreserved set (letters, digits and "-_.!~*'()")
  // written as "%" and two upper-case hexadecimal digits per UTF-8 byte; a blank is "%20".
  static StringBuffer Encode(const char16_t* text);
  // Undoes Encode: each "%" with two characters behind it is the byte those hexadecimal digits
  // give (a character that is not a digit counts as 0); the bytes are then read as UTF-8, up to a
  // NUL byte. Text without such an escape is returned as it is; "+" stays "+".
  static StringBuffer Decode(const char16_t* text);
  // The "file://" URL of a local path, made absolute against the working folder and with
  // symbolic links resolved when the file exists; "" for an empty path.
  static StringBuffer FileUrlFromPath(const char16_t* path);
  // The absolute local path of a "file://" URL (with an empty host or "localhost"); "" for any
  // other text.
  static StringBuffer PathFromFileUrl(const char16_t* url);

  const StringBuffer& Text;          // the text given to the constructor (joins: the printed URL)
  const StringBuffer& Host;          // the host; for "urn:" the namespace identifier
  const StringBuffer& Path;          // the path without the query; begins with "/" (not for urn)
  const StringBuffer& PathAndQuery;  // the request target: everything behind the authority
  const StringBuffer& Fragment;      // printed behind "#" by joins when not empty
  const int& Scheme;                 // HttpScheme, HttpsScheme, FileScheme or UrnScheme
  const bool& IsAbsolute;            // the text began with one of the four scheme prefixes
  const bool& HasHost;
  const int& Port;      // as written, else the scheme's default for absolute URLs, else 0
  const bool& HasPort;  // a port was written in the text
  const Header::Collection& Query;

 private:
  Url();
  static void Recycle(Url* url);
  // Sets the text and parses it; the object holds the values of Url() before.
  void Assign(const char16_t* text);
  void Parse();
  // The part of the text behind the authority: the path with its query.
  void ParsePathAndQuery(const StringBuffer& rest);

  StringBuffer text_;
  StringBuffer host_;
  StringBuffer path_;
  StringBuffer pathAndQuery_;
  StringBuffer fragment_;
  int scheme_ = HttpScheme;
  bool isAbsolute_ = false;
  bool hasHost_ = false;
  int port_ = 0;
  bool hasPort_ = false;
  Header::Collection query_;
};

}  // namespace Veskan

#endif
