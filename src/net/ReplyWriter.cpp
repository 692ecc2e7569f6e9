// Formatting of replies and requests into the bytes a connection sends.
#include "net/ReplyWriter.h"

#include "net/HttpText.h"

#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/Cookie.h>
#include <veskan/Header.h>
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

void AppendInteger(std::vector<char>& out, long long value) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof digits, value);
  Append(out, digits, static_cast<std::size_t>(result.ptr - digits));
}

void AppendHeader(std::vector<char>& out, const Header& header) {
  AppendUtf8(out, header.Name);
  AppendLiteral(out, ": ");
  AppendUtf8(out, header.Value);
  AppendLiteral(out, "\r\n");
}

bool IsNamed(const Header& header, const char16_t* name) {
  return EqualsIgnoringAsciiCase(header.Name, name);
}

// Bodies up to this size are copied behind the head, so that a small reply leaves in one piece.
constexpr int InlineBodyBytes = 4096;

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
    if (IsNamed(header, u"Content-Length") || (connection && IsNamed(header, u"Connection"))) {
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

WireMessage FormatReply(Message& message, bool keepAlive) {
  WireMessage wire;
  std::vector<char>& out = wire.head;
  std::unique_lock<std::recursive_mutex> lock = message.Lock();
  int status = message.StatusCode == 0 ? StatusCodes::NotFound : message.StatusCode;
  if (!message.Reply) message.Reply = std::make_shared<Body>();
  AppendLiteral(out, "HTTP/1.1 ");
  AppendInteger(out, status);
  out.push_back(' ');
  AppendUtf8(out, StringBuffer(StatusCodes::DefaultReasonPhrase(status)));
  AppendLiteral(out, "\r\n");
  AppendEntity(wire, *message.Reply, Header::SetCookie,
               keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n", true);
  return wire;
}

WireMessage FormatRequest(Message& message) {
  WireMessage wire;
  std::vector<char>& out = wire.head;
  std::unique_lock<std::recursive_mutex> lock = message.Lock();
  AppendUtf8(out, StringBuffer(Methods::ToString(message.Method)));
  out.push_back(' ');
  if (message.Url && !message.Url->PathAndQuery.isEmpty()) {
    AppendUtf8(out, message.Url->PathAndQuery);
  } else {
    out.push_back('/');
  }
  AppendLiteral(out, " HTTP/1.1\r\n");
  if (!message.Request) message.Request = std::make_shared<Body>();
  AppendEntity(wire, *message.Request, Header::Cookie, nullptr, false);
  return wire;
}

}  // namespace Detail
}  // namespace Veskan
