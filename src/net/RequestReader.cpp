// The HTTP/1.1 message reader: start line, header block, chunked or length-delimited body and
// multipart splitting, over the unread bytes of a connection's parse state.
#include "net/RequestReader.h"

#include "foundation/Utf.h"
#include "http/FieldSyntax.h"
#include "http/Pooled.h"

#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/Header.h>
#include <veskan/Logger.h>
#include <veskan/StringBuffer.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace Veskan {
namespace Detail {

const char PolicyFileRequest[] = "<policy-file-request/>";
const char PolicyFileResponse[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><cross-domain-policy "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xsi:noNamespaceSchemaLocation=\"http://www.adobe.com/xml/schemas/PolicyFileSocket.xsd\">"
    "<allow-access-from domain=\"127.0.0.1\" to-ports=\"*\"  /></cross-domain-policy>";

bool IsPolicyFileRequest(const Client::ParseData& parse) {
  constexpr int length = sizeof PolicyFileRequest - 1;
  return parse.State == Client::ParseData::States::Waiting &&
         parse.WritePosition - parse.ReadPosition >= length &&
         std::memcmp(parse.ReadBuffer.Data() + parse.ReadPosition, PolicyFileRequest, length) == 0;
}

namespace {

using States = Client::ParseData::States;

constexpr char HttpSuffix[] = " HTTP/1.1";
constexpr int HttpSuffixLength = sizeof HttpSuffix - 1;

// A request method: its prefix with the blank and the shortest start line it allows.
struct MethodForm {
  const char* prefix;
  int prefixLength;
  int minimumLine;
  Methods::Enumeration method;
};

constexpr MethodForm MethodForms[] = {
    {"GET ", 4, 14, Methods::GET},         {"POST ", 5, 15, Methods::POST},
    {"PUT ", 4, 14, Methods::PUT},         {"DELETE ", 7, 17, Methods::DELETE},
    {"OPTIONS ", 8, 18, Methods::OPTIONS},
};

// The unread bytes of the parse state.
struct Unread {
  const char* data;
  int length;
};

Unread UnreadBytes(const Client::ParseData& parse) {
  return Unread{reinterpret_cast<const char*>(parse.ReadBuffer.Data()) + parse.ReadPosition,
                parse.WritePosition - parse.ReadPosition};
}

// The length of the line that starts the unread bytes (without its CR LF), or -1 when its CR LF
// has not arrived. A line holding NUL or a bare LF is a violation (-2).
int LineLength(const Unread& unread) {
  const char* end = static_cast<const char*>(std::memchr(unread.data, '\n', unread.length));
  if (end == nullptr) return -1;
  int length = static_cast<int>(end - unread.data);
  if (length == 0 || unread.data[length - 1] != '\r') return -2;
  if (std::memchr(unread.data, '\0', static_cast<std::size_t>(length)) != nullptr) return -2;
  return length - 1;
}

bool StartsWith(const char* data, int length, const char* prefix, int prefixLength) {
  return length >= prefixLength && std::memcmp(data, prefix, prefixLength) == 0;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// Skips optional white space (OWS and BWS, RFC 9110 section 5.6.3) from `at`.
int SkipBlanks(const char* data, int at, int end) {
  while (at < end && IsBlank(data[at]))
    ++at;
  return at;
}

// The position behind the token that begins at `at` (`at` itself when none does).
int SkipToken(const char* data, int at, int end) {
  while (at < end && IsTokenChar(static_cast<unsigned char>(data[at])))
    ++at;
  return at;
}

// The position behind the quoted-string that begins at `at` (RFC 9110 section 5.6.4), or -1.
int SkipQuotedString(const char* data, int at, int end) {
  if (at >= end || data[at] != '"') return -1;
  for (++at; at < end; ++at) {
    unsigned char c = static_cast<unsigned char>(data[at]);
    if (c == '"') return at + 1;
    if (c == '\\') {
      if (++at == end) return -1;
      c = static_cast<unsigned char>(data[at]);
    }
    if (!IsFieldValueChar(c)) return -1;
  }
  return -1;
}

// The position behind the parameters that follow `at`, each `BWS ";" BWS name [BWS "=" BWS
// value]` with a token for the name and a token or quoted-string for the value, or -1 when one is
// malformed. The grammar of chunk extensions (RFC 9112 section 7.1.1) and, with `valueRequired`,
// of transfer-coding parameters (RFC 9112 section 7). Blanks after the last one are left.
int SkipParameters(const char* data, int at, int end, bool valueRequired) {
  for (;;) {
    int next = SkipBlanks(data, at, end);
    if (next == end || data[next] != ';') return at;
    next = SkipBlanks(data, next + 1, end);
    int nameEnd = SkipToken(data, next, end);
    if (nameEnd == next) return -1;
    int equals = SkipBlanks(data, nameEnd, end);
    if (equals == end || data[equals] != '=') {
      if (valueRequired) return -1;
      at = nameEnd;
      continue;
    }
    int value = SkipBlanks(data, equals + 1, end);
    at = value < end && data[value] == '"' ? SkipQuotedString(data, value, end)
                                           : SkipToken(data, value, end);
    if (at <= value) return -1;
  }
}

bool IsChunked(const char* data, int length) {
  static constexpr char chunked[] = "chunked";
  if (length != sizeof chunked - 1) return false;
  for (int i = 0; i < length; ++i) {
    char c = data[i] >= 'A' && data[i] <= 'Z' ? static_cast<char>(data[i] + 32) : data[i];
    if (c != chunked[i]) return false;
  }
  return true;
}

// True when `codings`, the values of every Transfer-Encoding line joined in order into one list
// (RFC 9110 section 5.3), is well formed and names chunked last and only there, without
// parameters (RFC 9112 sections 6.1 and 7). Any other list leaves the end of the body to
// interpretation: a recipient that reads "chunked, gzip" or "chunked, chunked" differently sees
// part of the body as a request of its own.
bool IsChunkedLast(const std::string& codings) {
  const char* data = codings.data();
  const int end = static_cast<int>(codings.size());
  bool chunkedSeen = false;
  for (int at = 0;;) {
    at = SkipBlanks(data, at, end);
    if (at == end) return chunkedSeen;
    if (data[at] == ',') {  // empty list elements are allowed (RFC 9110 section 5.6.1)
      ++at;
      continue;
    }
    if (chunkedSeen) return false;  // a coding after chunked
    int nameEnd = SkipToken(data, at, end);
    if (nameEnd == at) return false;
    chunkedSeen = IsChunked(data + at, nameEnd - at);
    at = SkipParameters(data, nameEnd, end, true);
    if (at < 0 || (chunkedSeen && at != nameEnd)) return false;
    at = SkipBlanks(data, at, end);
    if (at < end && data[at] != ',') return false;
  }
}

// The UTF-16 text of `length` UTF-8 bytes.
StringBuffer TextOf(const char* data, int length) {
  return UTF8to16(data, 0, length);  // ASCII, the usual case, is widened without a converter
}

// The same, written into `text`: a header field's texts are decoded where they stay.
void DecodeInto(const char* data, int length, StringBuffer& text) {
  Detail::DecodeUtf8(data, length, text);
  text.KeepTerminated();
}

std::shared_ptr<Body>& BodyOf(const std::shared_ptr<Message>& message, bool serverSide) {
  return serverSide ? message->Request : message->Reply;
}

// Reads a non-negative decimal length; false for anything else or a value above `limit`.
bool ParseLength(const StringBuffer& text, int limit, int& length) {
  if (text.isEmpty()) return false;
  long long value = 0;
  for (int i = 0; i < text.length(); ++i) {
    char16_t digit = text.charAt(i);
    if (digit < u'0' || digit > u'9') return false;
    value = value * 10 + (digit - u'0');
    if (value > limit) return false;
  }
  length = static_cast<int>(value);
  return true;
}

// The multipart delimiter of a "multipart/...; boundary=..." type (RFC 2046 section 5.1.1), or
// an empty text.
std::string MultipartDelimiter(const StringBuffer& contentType) {
  // Type and parameter names compare without regard to case (RFC 2045 section 5.1).
  std::u16string lower(contentType.getBuffer(), static_cast<std::size_t>(contentType.length()));
  for (char16_t& unit : lower) {
    if (unit >= u'A' && unit <= u'Z') unit = static_cast<char16_t>(unit + 32);
  }
  if (lower.compare(0, 10, u"multipart/") != 0) return std::string();
  std::size_t found = lower.find(u"boundary=");
  if (found == std::u16string::npos) return std::string();
  int at = static_cast<int>(found);
  StringBuffer boundary(contentType.tempSubString(at + 9));
  int end = boundary.indexOf(u';');
  if (end >= 0) boundary.truncate(end);
  boundary.trim();
  if (boundary.length() >= 2 && boundary.charAt(0) == u'"' &&
      boundary.charAt(boundary.length() - 1) == u'"') {
    boundary = StringBuffer(boundary.tempSubString(1, boundary.length() - 2));
  }
  if (boundary.isEmpty()) return std::string();
  return "--" + std::string(static_cast<const char*>(UTF16to8(boundary)));
}

class Reader {
 public:
  Reader(Client::ParseData& parse, std::shared_ptr<Message>& current, bool serverSide, bool final,
         const Server::Limits& limits, ReaderEvents& events)
      : parse_(parse),
        current_(current),
        serverSide_(serverSide),
        final_(final),
        limits_(limits),
        events_(events) {}

  ReadOutcome Run() {
    for (;;) {
      Step step = Step::Wait;
      switch (parse_.State) {
        case States::Waiting:
          step = ReadStartLine();
          break;
        case States::ReadingHeaders:
          step = ReadHeaderLine();
          break;
        case States::ReadingContent:
          step = ReadContent();
          break;
        case States::ReadingChunkSize:
          step = ReadChunkSize();
          break;
        case States::ReadingChunkData:
          step = ReadChunkData();
          break;
        case States::SendingContent:
          step = Step::Wait;
          break;
      }
      switch (step) {
        case Step::Continue:
          continue;
        case Step::Wait:
          return ReadOutcome::NeedMore;
        case Step::Violation:
          return ReadOutcome::Violation;
        case Step::Stop:
          return ReadOutcome::Stop;
        case Step::Upgrade:
          return ReadOutcome::Upgrade;
      }
    }
  }

 private:
  enum class Step { Continue, Wait, Violation, Stop, Upgrade };

  void Consume(int count) { parse_.ReadPosition += count; }

  Step ReadStartLine() {
    Unread unread = UnreadBytes(parse_);
    if (unread.length == 0) return Step::Wait;
    int length = LineLength(unread);
    if (length == -1) {
      // Bytes that cannot begin any request are refused at once rather than after a time-out.
      if (serverSide_ && !CouldBeginRequest(unread)) return Step::Violation;
      return unread.length > limits_.MaxHeaderBytes ? Step::Violation : Step::Wait;
    }
    if (length == -2) return Step::Violation;
    if (length == 0) {  // an empty line between messages is tolerated (RFC 9112 section 2.2)
      Consume(2);
      return Step::Continue;
    }
    bool started =
        serverSide_ ? OpenRequest(unread.data, length) : OpenResponse(unread.data, length);
    if (!started) return Step::Violation;
    Consume(length + 2);
    parse_.HeaderBytes = length + 2;
    parse_.State = States::ReadingHeaders;
    return Step::Continue;
  }

  // True when `unread` is a prefix of a start line of a known method, or begins with one, or is
  // a blank line in the making.
  static bool CouldBeginRequest(const Unread& unread) {
    if (unread.data[0] == '\r') return true;
    for (const MethodForm& form : MethodForms) {
      int compared = std::min(unread.length, form.prefixLength);
      if (std::memcmp(unread.data, form.prefix, static_cast<std::size_t>(compared)) == 0) {
        return true;
      }
    }
    int probe = std::min(unread.length, static_cast<int>(sizeof PolicyFileRequest) - 1);
    return std::memcmp(unread.data, PolicyFileRequest, static_cast<std::size_t>(probe)) == 0;
  }

  bool OpenRequest(const char* line, int length) {
    if (length < HttpSuffixLength ||
        std::memcmp(line + length - HttpSuffixLength, HttpSuffix, HttpSuffixLength) != 0) {
      return false;
    }
    for (const MethodForm& form : MethodForms) {
      if (length < form.minimumLine || !StartsWith(line, length, form.prefix, form.prefixLength)) {
        continue;
      }
      int targetLength = length - form.prefixLength - HttpSuffixLength;
      // A blank or control in the target means the line does not split into method, target and
      // version the way we read it; another recipient may split it elsewhere (RFC 9112 section
      // 3).
      const char* targetBytes = line + form.prefixLength;
      if (std::any_of(targetBytes, targetBytes + targetLength,
                      [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F; })) {
        return false;
      }
      StringBuffer target = TextOf(line + form.prefixLength, targetLength);
      current_ = Message::New();
      current_->Open(form.method, target);
      Hold();
      if (Logger::IsEnabled(Logger::Severity::Trace)) {  // a line per request: not even built
        Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::ProcessIn")
            << " Allocated new message size: " << static_cast<int>(sizeof(Message));
      }
      return true;
    }
    return false;
  }

  bool OpenResponse(const char* line, int length) {
    static constexpr char prefix[] = "HTTP/1.1 ";
    if (!current_ || length < 12 || !StartsWith(line, length, prefix, 9)) return false;
    const char* code = line + 9;
    if (code[0] < '0' || code[0] > '5' || code[1] < '0' || code[1] > '9' || code[2] < '0' ||
        code[2] > '9' || (length > 12 && code[3] != ' ') ||
        !IsFieldValue(line + 12, static_cast<std::size_t>(length - 12))) {  // RFC 9112 section 4
      return false;
    }
    Hold();
    current_->StatusCode = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
    current_->Reply = Detail::NewBody();
    return true;
  }

  Step ReadHeaderLine() {
    Unread unread = UnreadBytes(parse_);
    int length = LineLength(unread);
    if (length == -1) {
      return parse_.HeaderBytes + unread.length > limits_.MaxHeaderBytes ? Step::Violation
                                                                         : Step::Wait;
    }
    if (length == -2) return Step::Violation;
    parse_.HeaderBytes += length + 2;
    if (parse_.HeaderBytes > limits_.MaxHeaderBytes) return Step::Violation;
    Consume(length + 2);
    if (length == 0) return parse_.Chunked ? CompleteMessage() : HeadersComplete();

    const char* line = unread.data;
    if (IsBlank(line[0])) return Unfold(line, length);
    // The name runs to the colon and must be a token: "Content-Length : 5" would otherwise be
    // stored under a name no lookup finds while a proxy frames the message by it (RFC 9112
    // section 5.1).
    const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
    if (colon == nullptr) return Step::Violation;
    int nameLength = static_cast<int>(colon - line);
    if (!IsToken(line, static_cast<std::size_t>(nameLength))) return Step::Violation;
    // Optional white space around the value is not part of it (RFC 9110 section 5.5).
    int valueStart = SkipBlanks(line, nameLength + 1, length);
    int valueEnd = length;
    while (valueEnd > valueStart && IsBlank(line[valueEnd - 1]))
      --valueEnd;
    if (!IsFieldValue(line + valueStart, static_cast<std::size_t>(valueEnd - valueStart))) {
      return Step::Violation;
    }
    // Trailer fields are checked like header fields but never merged into the header section: a
    // field sent behind the body must not change, after the fact, how the message was framed,
    // routed or authorised (RFC 9112 section 7.1.2, RFC 9110 section 6.5.1).
    if (parse_.Chunked) return Step::Continue;
    Hold();
    Header& field = BodyOf(current_, serverSide_)->Headers.Append();
    DecodeInto(line, nameLength, field.Name);
    DecodeInto(line + valueStart, valueEnd - valueStart, field.Value);
    return Step::Continue;
  }

  // A line that begins with a blank continues the field line before it (obs-fold, RFC 9112
  // section 5.2). A request carrying one is refused: a recipient that reads it as a line of its
  // own sees other fields than we do. A reply is read the way a user agent must read it: the fold
  // becomes one SP in the value of the field it continues. A fold among trailers, or before the
  // first field, continues nothing and is refused on both sides.
  Step Unfold(const char* line, int length) {
    if (serverSide_ || parse_.Chunked) return Step::Violation;
    int start = SkipBlanks(line, 0, length);
    int end = length;
    while (end > start && IsBlank(line[end - 1]))
      --end;
    if (!IsFieldValue(line + start, static_cast<std::size_t>(end - start))) return Step::Violation;
    Hold();
    Header::Collection& headers = BodyOf(current_, serverSide_)->Headers;
    if (headers.Count() == 0) return Step::Violation;
    if (start == end) return Step::Continue;
    Header folded = headers(headers.Count() - 1);
    if (!folded.Value.isEmpty()) folded.Value += u' ';
    folded.Value += TextOf(line + start, end - start);
    headers.RemoveAt(headers.Count() - 1);
    headers.Add(std::move(folded));
    return Step::Continue;
  }

  // The header fields that frame the message, found in one pass; names compare without regard
  // to case (RFC 9110 section 5.1).
  struct Framing {
    const Header* connection = nullptr;
    const Header* upgrade = nullptr;
    const Header* contentLength = nullptr;
    const Header* contentType = nullptr;
    const Header* expect = nullptr;
    bool transferEncoding = false;
    std::string transferCodings;  // the values of every Transfer-Encoding line as one list
    int hosts = 0;
    bool cookies = false;
    bool conflictingLengths = false;
  };

  static Framing FindFraming(const Header::Collection& headers) {
    Framing framing;
    for (const Header& header : headers) {
      switch (header.Name.length()) {
        case 4:
          if (EqualsIgnoringAsciiCase(header.Name, u"Host")) ++framing.hosts;
          break;
        case 6:
          framing.cookies = framing.cookies || EqualsIgnoringAsciiCase(header.Name, u"Cookie");
          if (EqualsIgnoringAsciiCase(header.Name, u"Expect")) framing.expect = &header;
          break;
        case 7:
          if (EqualsIgnoringAsciiCase(header.Name, u"Upgrade")) framing.upgrade = &header;
          break;
        case 10:
          if (EqualsIgnoringAsciiCase(header.Name, u"Connection")) framing.connection = &header;
          framing.cookies = framing.cookies || EqualsIgnoringAsciiCase(header.Name, u"Set-Cookie");
          break;
        case 12:
          if (EqualsIgnoringAsciiCase(header.Name, u"Content-Type") && !framing.contentType) {
            framing.contentType = &header;
          }
          break;
        case 14:
          if (EqualsIgnoringAsciiCase(header.Name, u"Content-Length")) {
            // Two different lengths leave the message's end in doubt (RFC 9110 section 8.6).
            if (framing.contentLength && framing.contentLength->Value != header.Value) {
              framing.conflictingLengths = true;
            }
            framing.contentLength = &header;
          }
          break;
        case 17:
          if (EqualsIgnoringAsciiCase(header.Name, u"Transfer-Encoding")) {
            if (framing.transferEncoding) framing.transferCodings += ',';
            framing.transferEncoding = true;
            framing.transferCodings += header.Value.ToUTF8();
          }
          break;
        default:
          break;
      }
    }
    return framing;
  }

  Step HeadersComplete() {
    Hold();
    std::shared_ptr<Body>& body = BodyOf(current_, serverSide_);
    Framing framing = FindFraming(body->Headers);
    if (framing.cookies) {
      // Reading the cookies removes their headers, which moves the others: find them again.
      body->Cookies.Read(body->Headers);
      framing = FindFraming(body->Headers);
    }
    if (framing.conflictingLengths) return Step::Violation;
    // Which of two Host lines names the target is left to each recipient (RFC 9112 section 3.2).
    if (serverSide_ && framing.hosts > 1) return Step::Violation;
    // With both, one recipient reads the body by its length and another by its chunks, and what
    // lies between is a request of its own to one of them (RFC 9112 section 6.3): refused whatever
    // else the message carries, Upgrade included.
    if (framing.transferEncoding && framing.contentLength) return Step::Violation;
    int length = 0;
    if (framing.contentLength &&
        !ParseLength(framing.contentLength->Value, limits_.MaxBodySize, length)) {
      return Step::Violation;
    }
    // Only a chunked body can be delimited here; other codings end at the close, which a request
    // cannot use (RFC 9112 section 6.3).
    if (framing.transferEncoding && !IsChunkedLast(framing.transferCodings)) {
      return Step::Violation;
    }

    parse_.KeepAlive = framing.connection != nullptr &&
                       !EqualsIgnoringAsciiCase(framing.connection->Value, u"close");

    if (!serverSide_ && current_->StatusCode / 100 == 1 && current_->StatusCode != 101) {
      // An interim reply ("100 Continue"): the final one follows (RFC 9110 section 15.2).
      current_->Reply = Detail::NewBody();
      parse_.HeaderBytes = 0;
      parse_.State = States::Waiting;
      return Step::Continue;
    }
    bool upgrade = framing.upgrade && EqualsIgnoringAsciiCase(framing.upgrade->Value, u"websocket");
    if (upgrade && serverSide_ && current_->Method == Methods::GET) {
      // The bytes behind the header block are frames to us but a body to anyone who reads the
      // request by its framing fields: an upgrade request that declares a body is refused.
      if (framing.transferEncoding || length != 0) return Step::Violation;
      // The WebSocket handshake takes over from here; the request never becomes an exchange.
      Release();
      events_.push_back(
          ReaderEvent{ReaderEvent::Kind::UpgradeRequested, current_, nullptr, 0, true});
      current_.reset();
      parse_.HeaderBytes = 0;
      parse_.Delimiter.clear();
      parse_.State = States::Waiting;
      return Step::Upgrade;
    }
    bool continueExpected = serverSide_ && framing.expect &&
                            EqualsIgnoringAsciiCase(framing.expect->Value, u"100-continue");
    // Chunked or not, a multipart body is split into parts as it arrives.
    if (framing.contentType) parse_.Delimiter = MultipartDelimiter(framing.contentType->Value);
    if (framing.transferEncoding) {
      parse_.Chunked = true;
      parse_.ContentLength = -1;
      parse_.State = States::ReadingChunkSize;
      events_.push_back(
          ReaderEvent{ReaderEvent::Kind::HeadersComplete, current_, nullptr, -1, false});
      if (continueExpected) {
        events_.push_back(
            ReaderEvent{ReaderEvent::Kind::ContinueExpected, current_, nullptr, -1, false});
      }
      return Step::Wait;  // the header block is handed over before the body is read
    }

    if (!framing.contentLength && !serverSide_ && DelimitedByClose(current_->StatusCode)) {
      length = -1;
    }
    parse_.ContentLength = length;
    events_.push_back(
        ReaderEvent{ReaderEvent::Kind::HeadersComplete, current_, nullptr, length, false});
    if (length == 0) return CompleteMessage();
    if (continueExpected && parse_.WritePosition == parse_.ReadPosition) {
      events_.push_back(
          ReaderEvent{ReaderEvent::Kind::ContinueExpected, current_, nullptr, length, false});
    }
    parse_.State = States::ReadingContent;
    return Step::Wait;  // the header block is handed over before the body is read
  }

  // A reply without a length runs until the peer closes, except those that never have a body
  // (RFC 9112 section 6.3).
  static bool DelimitedByClose(int statusCode) {
    return statusCode >= 200 && statusCode != 204 && statusCode != 304;
  }

  // Moves up to `wanted` unread bytes into the content buffer; returns the number moved.
  int TakeContent(int wanted) {
    Unread unread = UnreadBytes(parse_);
    int count = std::min(wanted, unread.length);
    if (count <= 0) return 0;
    parse_.ContentBuffer.Append(unread.data, count);
    parse_.ContentReceived += count;
    Consume(count);
    return count;
  }

  Step ReadContent() {
    if (parse_.ContentLength < 0) {
      if (parse_.ContentReceived + (parse_.WritePosition - parse_.ReadPosition) >
          limits_.MaxBodySize) {
        return Step::Violation;
      }
      TakeContent(parse_.WritePosition - parse_.ReadPosition);
      SplitParts();
      return final_ ? CompleteMessage() : Step::Wait;
    }
    TakeContent(parse_.ContentLength - parse_.ContentReceived);
    SplitParts();
    if (parse_.ContentReceived < parse_.ContentLength) return Step::Wait;
    return CompleteMessage();
  }

  Step ReadChunkSize() {
    Unread unread = UnreadBytes(parse_);
    int length = LineLength(unread);
    // However the line arrives, it is refused when it outgrows 1 KiB with its CR LF.
    const int maxLine = limits_.MaxChunkLineBytes;
    if (length == -1) return unread.length > maxLine ? Step::Violation : Step::Wait;
    if (length == -2 || length + 2 > maxLine) return Step::Violation;
    long long size = 0;
    int digits = 0;
    for (; digits < length; ++digits) {
      char c = unread.data[digits];
      int value;
      if (c >= '0' && c <= '9') {
        value = c - '0';
      } else if (c >= 'A' && c <= 'F') {
        value = c - 'A' + 10;
      } else if (c >= 'a' && c <= 'f') {
        value = c - 'a' + 10;
      } else {
        break;
      }
      size = size * 16 + value;
      if (size > limits_.MaxBodySize) return Step::Violation;
    }
    // Extensions are read past but must be well formed: a stray byte, a bare CR or a blank
    // where the grammar has none is where parsers part ways on the chunk's length (RFC 9112
    // section 7.1.1).
    if (digits == 0 || SkipParameters(unread.data, digits, length, false) != length) {
      return Step::Violation;
    }
    if (parse_.ContentReceived + size > limits_.MaxBodySize) return Step::Violation;
    Consume(length + 2);
    if (size == 0) {
      parse_.State = States::ReadingHeaders;  // trailers, then the empty line
      return Step::Continue;
    }
    parse_.ContentLength = static_cast<int>(size);
    parse_.ChunkRemaining = static_cast<int>(size);
    parse_.State = States::ReadingChunkData;
    return Step::Continue;
  }

  Step ReadChunkData() {
    if (parse_.ChunkRemaining > 0) {
      parse_.ChunkRemaining -= TakeContent(parse_.ChunkRemaining);
      SplitParts();
      if (parse_.ChunkRemaining > 0) return Step::Wait;
    }
    Unread unread = UnreadBytes(parse_);
    if (unread.length < 2) return Step::Wait;
    if (unread.data[0] != '\r' || unread.data[1] != '\n') return Step::Violation;
    Consume(2);
    parse_.State = States::ReadingChunkSize;
    return Step::Continue;
  }

  // Splits off every part whose closing delimiter has arrived (RFC 2046 section 5.1.1): a part
  // runs from behind a delimiter line to the CR LF before the next delimiter.
  void SplitParts() {
    if (parse_.Delimiter.empty()) return;
    const std::string& delimiter = parse_.Delimiter;
    const char* content = reinterpret_cast<const char*>(parse_.ContentBuffer.Data());
    int size = parse_.ContentBuffer.Size();
    for (;;) {
      int start = parse_.MultipartScan;
      const char* first = Find(content + start, size - start, delimiter);
      if (first == nullptr) {  // a preamble: what cannot hold the delimiter's start is skipped
        parse_.MultipartScan = std::max(start, size - static_cast<int>(delimiter.size()) + 1);
        return;
      }
      int afterFirst = static_cast<int>(first - content) + static_cast<int>(delimiter.size());
      if (afterFirst + 2 > size) return;
      if (content[afterFirst] == '-' && content[afterFirst + 1] == '-') {  // the close delimiter
        parse_.MultipartScan = size;
        parse_.Delimiter.clear();
        return;
      }
      const char* lineEnd =
          static_cast<const char*>(std::memchr(content + afterFirst, '\n', size - afterFirst));
      if (lineEnd == nullptr) return;
      int partStart = static_cast<int>(lineEnd - content) + 1;
      std::string next = "\r\n" + delimiter;
      // Bytes searched before are not searched again, so that a large part costs linear time.
      int from = std::max(partStart, parse_.MultipartSearched);
      const char* second = Find(content + from, size - from, next);
      if (second == nullptr) {
        parse_.MultipartSearched = std::max(partStart, size - static_cast<int>(next.size()) + 1);
        return;
      }
      int partEnd = static_cast<int>(second - content);
      DeliverPart(partStart, partEnd);
      parse_.MultipartScan = partEnd + 2;
      parse_.MultipartSearched = 0;
    }
  }

  static const char* Find(const char* data, int length, const std::string& needle) {
    if (length < static_cast<int>(needle.size())) return nullptr;
    const char* end = data + length;
    const char* found = std::search(data, end, needle.begin(), needle.end());
    return found == end ? nullptr : found;
  }

  void DeliverPart(int start, int end) {
    int position = start;
    auto part = std::make_shared<Part>(parse_.ContentBuffer, position, end);
    int payload = position;
    if (payload > end) payload = end;
    part->Content = std::make_shared<Content>(parse_.ContentBuffer.Data() + payload, end - payload);
    int index = static_cast<int>(parse_.Parts.size());
    parse_.Parts[index] = part;
    parse_.PartOffsets[index] = payload;
    events_.push_back(ReaderEvent{ReaderEvent::Kind::PartComplete, current_, part, index, false});
  }

  Step CompleteMessage() {
    Hold();
    std::shared_ptr<Body>& body = BodyOf(current_, serverSide_);
    if (parse_.ContentReceived > 0) {
      body->Content =
          std::make_shared<Content>(parse_.ContentBuffer.Data(), parse_.ContentReceived);
    }
    for (const auto& entry : parse_.Parts)
      body->Parts.Add(entry.second);
    Release();
    bool keepAlive = parse_.KeepAlive;
    events_.push_back(ReaderEvent{ReaderEvent::Kind::MessageComplete, current_, nullptr,
                                  parse_.ContentReceived, keepAlive});
    current_.reset();
    // Ready for the next message on the same bytes.
    parse_.Parts.clear();
    parse_.PartOffsets.clear();
    parse_.ContentBuffer.Resize(0);
    parse_.ContentLength = 0;
    parse_.ContentReceived = 0;
    parse_.HeaderBytes = 0;
    parse_.Chunked = false;
    parse_.ChunkRemaining = 0;
    parse_.Delimiter.clear();
    parse_.MultipartScan = 0;
    parse_.MultipartSearched = 0;
    parse_.State = States::Waiting;
    if (serverSide_ && !keepAlive) return Step::Stop;
    return Step::Wait;  // the message is handed over before the next one is read
  }

  // Takes the current message's lock unless this reader holds it already: it is kept while the
  // reader fills the message, so that a header block costs one lock, not one per field.
  void Hold() {
    if (held_.owns_lock() && held_.mutex() == &current_->Mutex()) return;
    Release();
    held_ = current_->Lock();
  }
  // Before the message is let go: a lock must not outlive the message it belongs to.
  void Release() { held_ = std::unique_lock<std::recursive_mutex>(); }  // unlocks what it held

  Client::ParseData& parse_;
  std::shared_ptr<Message>& current_;
  // The current message's lock while this reader fills it; released when Run returns.
  std::unique_lock<std::recursive_mutex> held_;
  bool serverSide_;
  bool final_;
  const Server::Limits& limits_;
  ReaderEvents& events_;
};

}  // namespace

ReadOutcome RequestReader::Read(Client::ParseData& parse, std::shared_ptr<Message>& current,
                                bool serverSide, bool final, const Server::Limits& limits,
                                ReaderEvents& events) {
  if (parse.ReadPosition < 0 || parse.ReadPosition > parse.WritePosition ||
      parse.WritePosition > parse.ReadBuffer.Size()) {
    return ReadOutcome::Violation;
  }
  if (parse.State != States::Waiting && !current) return ReadOutcome::Violation;
  return Reader(parse, current, serverSide, final, limits, events).Run();
}

}  // namespace Detail
}  // namespace Veskan
