// Formatting of replies and requests into the bytes a connection sends.
#include "net/ReplyWriter.h"

#include "http/FieldSyntax.h"
#include "http/Pooled.h"

#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/Cookie.h>
#include <veskan/Header.h>
#include <veskan/Logger.h>
#include <veskan/StringBuffer.h>
#include <veskan/Url.h>
#include <veskan/Vocabulary.h>

#include <charconv>
#include <cstring>

namespace Veskan {
namespace Detail {

namespace {

void Append(std::vector<char>& out, const char* text, std::size_t length) {
  out.insert(out.end(), text, text + length);
}

template <std::size_t Size>
void AppendLiteral(std::vector<char>& out, const char (&text)[Size]) {
  Append(out, text, Size - 1);
}

// UTF-8 of `text`; header texts are nearly always ASCII, which is copied without conversion.
void AppendUtf8(std::vector<char>& out, const icu::UnicodeString& text) {
  const char16_t* units = text.getBuffer();
  int length = text.length();
  std::size_t start = out.size();
  out.resize(start + static_cast<std::size_t>(length));
  for (int i = 0; i < length; ++i) {
    if (units[i] >= 0x80) {
      out.resize(start + static_cast<std::size_t>(i));
      ByteBuffer rest = UTF16to8(text.tempSubString(i));
      Append(out, rest, static_cast<std::size_t>(rest.Size()));
      return;
    }
    out[start + static_cast<std::size_t>(i)] = static_cast<char>(units[i]);
  }
}

// A text of the protocol's own vocabulary (a reason phrase, a method), which is ASCII.
void AppendVocabulary(std::vector<char>& out, const char16_t* text) {
  for (; *text != 0; ++text)
    out.push_back(static_cast<char>(*text));
}

void AppendInteger(std::vector<char>& out, long long value) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof digits, value);
  Append(out, digits, static_cast<std::size_t>(result.ptr - digits));
}

// The usual header, ASCII throughout, checked and copied in one pass; false, with nothing
// appended, for any other, which takes the general path.
bool AppendAsciiHeader(std::vector<char>& out, const Header& header) {
  const char16_t* name = header.Name.getBuffer();
  const char16_t* value = header.Value.getBuffer();
  const std::size_t nameLength = static_cast<std::size_t>(header.Name.length());
  const std::size_t valueLength = static_cast<std::size_t>(header.Value.length());
  if (nameLength == 0 || name == nullptr || (valueLength > 0 && value == nullptr)) return false;
  const std::size_t start = out.size();
  out.resize(start + nameLength + valueLength + 4);
  char* at = out.data() + start;
  for (std::size_t i = 0; i < nameLength; ++i) {
    if (name[i] >= 0x80 || !IsTokenChar(name[i])) {
      out.resize(start);
      return false;
    }
    *at++ = static_cast<char>(name[i]);
  }
  *at++ = ':';
  *at++ = ' ';
  for (std::size_t i = 0; i < valueLength; ++i) {
    if (value[i] >= 0x80 || !IsFieldValueChar(value[i])) {
      out.resize(start);
      return false;
    }
    *at++ = static_cast<char>(value[i]);
  }
  *at++ = '\r';
  *at = '\n';
  return true;
}

// Appends "Name: Value" unless the header could split the message: a name that is not a token
// (RFC 9110 section 5.6.2) or a value holding CR, LF, NUL or another control (section 5.5) would
// let text the host took from a user end the line and begin headers or a body of its own
// (response splitting). Such a header is dropped with a warning, and so is one whose value has no
// UTF-8 form (an unpaired surrogate), rather than sent cut short.
void AppendHeader(std::vector<char>& out, const Header& header) {
  if (AppendAsciiHeader(out, header)) return;
  if (!IsWritableField(header.Name, header.Value)) {
    Logger::Line(Logger::Severity::Warning, "Veskan::Daemon::ProcessOut")
        << " header dropped, its name is no token or its value holds a control character or"
        << " an unpaired surrogate, name: " << ForLog(header.Name);
    return;
  }
  AppendUtf8(out, header.Name);
  AppendLiteral(out, ": ");
  AppendUtf8(out, header.Value);
  AppendLiteral(out, "\r\n");
}

// The request target in UTF-8, with every blank and control percent-encoded (RFC 3986 section
// 2.1), so that the start line stays one line of three parts (RFC 9112 section 3); a control is
// worth a warning, since only a broken or hostile text puts one in a URL.
void AppendTarget(std::vector<char>& out, const StringBuffer& target) {
  static const char hex[] = "0123456789ABCDEF";
  std::vector<char> bytes;
  AppendUtf8(bytes, target);
  bool control = false;
  for (char byte : bytes) {
    const unsigned char c = static_cast<unsigned char>(byte);
    if (c > 0x20 && c != 0x7F) {
      out.push_back(byte);
      continue;
    }
    control = control || c != 0x20;
    out.push_back('%');
    out.push_back(hex[c >> 4]);
    out.push_back(hex[c & 0x0F]);
  }
  if (control) {
    Logger::Line(Logger::Severity::Warning, "Veskan::Daemon::ProcessOut")
        << " control character in the request target percent-encoded, target: " << ForLog(target);
  }
}

bool IsNamed(const Header& header, const char16_t* name) {
  return EqualsIgnoringAsciiCase(header.Name, name);
}

// Room for a usual head and a short body from the start: growing the head byte by byte would
// move it several times.
constexpr std::size_t HeadBytesReserved = 512;

// Bodies up to this size are copied behind the head, so that a small reply leaves in one piece.
constexpr int InlineBodyBytes = 4096;

// Empties `wire` for a new message and returns its head, with room for a usual one; the room of
// a head far above that is given back.
std::vector<char>& Renew(WireMessage& wire) {
  wire.body.reset();
  if (wire.head.capacity() > 16 * HeadBytesReserved) std::vector<char>().swap(wire.head);
  wire.head.clear();
  wire.head.reserve(HeadBytesReserved);
  return wire.head;
}

// Headers, cookies as `cookieHeader` lines, the length and the body of `body`.
void AppendEntity(WireMessage& wire, Body& body, const char16_t* cookieHeader,
                  const char* connection, bool alwaysLength) {
  std::vector<char>& out = wire.head;
  const Content* content = body.Content.get();
  // Joining parts, guessing a type and sealing are needed unless a sealed content already has its
  // type, as in replies that share one prepared content.
  if (body.Parts.Count() > 0 || content == nullptr || !content->IsSealed ||
      !body.Headers.Contains(Header::ContentType)) {
    body.FormatMultipartMessage();
    content = body.Content.get();
  }
  int length = content != nullptr ? content->Size() : 0;
  for (const Header& header : body.Headers) {
    // The body always goes by its length, so no framing field of the host's may contradict it:
    // a "Transfer-Encoding" beside the true "Content-Length" is read by the chunks by some
    // recipients and by the length by others (RFC 9112 section 6.3).
    if (IsNamed(header, u"Content-Length") || IsNamed(header, u"Transfer-Encoding") ||
        (connection && IsNamed(header, u"Connection"))) {
      continue;
    }
    AppendHeader(out, header);
  }
  if (body.Cookies.Count() > 0) {
    Header::Collection lines;
    if (cookieHeader == Header::Cookie) {  // a request carries its cookies in one line
      body.Cookies.Write(cookieHeader, lines);
    } else {  // a reply sets each one on a line of its own (RFC 6265 section 4.1)
      for (const auto& entry : body.Cookies) {
        Cookie::Collection one;
        *one[entry.second->Name.getTerminatedBuffer()] = *entry.second;
        one.Write(cookieHeader, lines);
        for (const Header& line : lines)
          AppendHeader(out, line);
        lines.Clear();
      }
    }
    for (const Header& line : lines)
      AppendHeader(out, line);
  }
  if (alwaysLength || length > 0) {
    AppendLiteral(out, "Content-Length: ");
    AppendInteger(out, length);
    AppendLiteral(out, "\r\n");
  }
  if (connection != nullptr) Append(out, connection, std::strlen(connection));
  AppendLiteral(out, "\r\n");
  if (length > InlineBodyBytes) {
    wire.body = body.Content;
  } else if (length > 0) {
    Append(out, reinterpret_cast<const char*>(content->Data()), static_cast<std::size_t>(length));
  }
}

}  // namespace

void FormatReply(Message& message, bool keepAlive, WireMessage& wire) {
  std::vector<char>& out = Renew(wire);
  std::unique_lock<std::recursive_mutex> lock = message.Lock();
  int status = message.StatusCode == 0 ? StatusCodes::NotFound : message.StatusCode;
  if (status < 100 || status > 999) {  // the status is three digits (RFC 9112 section 4)
    Logger::Line(Logger::Severity::Warning, "Veskan::Daemon::ProcessOut")
        << " status code out of range, sent as 500: " << status;
    status = StatusCodes::InternalServerError;
  }
  if (!message.Reply) message.Reply = Detail::NewBody();
  AppendLiteral(out, "HTTP/1.1 ");
  AppendInteger(out, status);
  out.push_back(' ');
  AppendVocabulary(out, StatusCodes::DefaultReasonPhrase(status));
  AppendLiteral(out, "\r\n");
  AppendEntity(wire, *message.Reply, Header::SetCookie,
               keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n", true);
}

void FormatRequest(Message& message, WireMessage& wire) {
  std::vector<char>& out = Renew(wire);
  std::unique_lock<std::recursive_mutex> lock = message.Lock();
  AppendVocabulary(out, Methods::ToString(message.Method));
  out.push_back(' ');
  if (message.Url && !message.Url->PathAndQuery.isEmpty()) {
    AppendTarget(out, message.Url->PathAndQuery);
  } else {
    out.push_back('/');
  }
  AppendLiteral(out, " HTTP/1.1\r\n");
  if (!message.Request) message.Request = Detail::NewBody();
  AppendEntity(wire, *message.Request, Header::Cookie, nullptr, false);
}

}  // namespace Detail
}  // namespace Veskan
