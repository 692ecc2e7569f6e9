// The HTTP/1.1 message reader, fed the way the daemon feeds it. Every input is read whole, split in
// two at every byte offset, byte by byte and in random pieces, and must give the same events,
// messages and outcome each way.
#include "net/RequestReader.h"

#include <veskan/Body.h>
#include <veskan/Client.h>
#include <veskan/Content.h>
#include <veskan/Cookie.h>
#include <veskan/Header.h>
#include <veskan/Message.h>
#include <veskan/Url.h>
#include <veskan/Vocabulary.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using Detail::ReaderEvent;
using Detail::ReadOutcome;
using Detail::RequestReader;
using States = Client::ParseData::States;

// The connection one input is read on.
struct ReadSetup {
  bool serverSide = true;
  int maxHeaderBytes = 64 * 1024;
  int maxBodySize = 64 * 1024 * 1024;
  int requestsInFlight = 0;  // client side: requests "/r0", "/r1", ... waiting for their replies
  bool peerCloses = false;   // the peer closes its side after the last byte
};

// A server with small limits, so that inputs reach them while staying short.
ReadSetup SmallLimits() {
  ReadSetup setup;
  setup.maxHeaderBytes = 256;
  setup.maxBodySize = 1024;
  return setup;
}

ReadSetup ClientSide(int requests, bool peerCloses = false) {
  ReadSetup setup;
  setup.serverSide = false;
  setup.requestsInFlight = requests;
  setup.peerCloses = peerCloses;
  return setup;
}

std::string Lines(std::initializer_list<std::string> lines) {
  std::string text;
  for (const std::string& line : lines) {
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

// The bytes with CR, LF, quotes, backslashes and anything outside printable ASCII escaped.
std::string Escape(const std::string& bytes) {
  std::string text;
  for (unsigned char c : bytes) {
    if (c == '\r') {
      text += "\\r";
    } else if (c == '\n') {
      text += "\\n";
    } else if (c == '"' || c == '\\') {
      text += '\\';
      text += static_cast<char>(c);
    } else if (c < 0x20 || c > 0x7E) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      text += hex;
    } else {
      text += static_cast<char>(c);
    }
  }
  return text;
}

// The transcript line of the raw header line `line`: the name up to the first colon, the value
// behind it without surrounding blanks.
std::string HeaderLine(const std::string& line) {
  const std::size_t colon = line.find(':');
  std::string value = line.substr(colon + 1);
  value.erase(0, value.find_first_not_of(' '));
  value.erase(value.find_last_not_of(' ') + 1);
  return "  header " + line.substr(0, colon) + ": " + value;
}

std::string Text(const StringBuffer& text) {
  return Escape(text.ToUTF8());
}

std::string Bytes(const ByteBuffer& bytes) {
  return "\"" + Escape(std::string(bytes, static_cast<std::size_t>(bytes.Size()))) + "\"";
}

// `[Name: Value|Name: Value] "payload"`.
std::string Describe(const Part& part) {
  std::string text = "[";
  for (const Header& header : part.Headers) {
    if (text.size() > 1) text += '|';
    text += Text(header.Name) + ": " + Text(header.Value);
  }
  text += "] ";
  text += part.Content ? Bytes(*part.Content) : std::string("no content");
  return text;
}

// The message lines of a transcript: the request line (server side) or the request and the
// status code (client side), then the body's headers, cookies, content and parts.
std::string Describe(const std::shared_ptr<Message>& message, bool serverSide) {
  auto lock = message->Lock();
  std::string text = "  " + Text(StringBuffer(Methods::ToString(message->Method))) + " " +
                     Text(message->Url->Text);
  if (!serverSide) text += " " + std::to_string(message->StatusCode);
  const std::shared_ptr<Body>& body = serverSide ? message->Request : message->Reply;
  if (!body) return text + "\n  no body";
  for (const Header& header : body->Headers)
    text += "\n  header " + Text(header.Name) + ": " + Text(header.Value);
  for (const auto& entry : body->Cookies)
    text += "\n  cookie " + Text(entry.second->Name) + "=" + Text(entry.second->Value);
  if (body->Content) text += "\n  content " + Bytes(*body->Content);
  for (int i = 0; i < body->Parts.Count(); ++i)
    text += "\n  part " + std::to_string(i) + " " + Describe(*body->Parts[i]);
  return text;
}

const char* ToText(ReadOutcome outcome) {
  switch (outcome) {
    case ReadOutcome::NeedMore:
      return "NeedMore";
    case ReadOutcome::Violation:
      return "Violation";
    case ReadOutcome::Stop:
      return "Stop";
    case ReadOutcome::Upgrade:
      return "Upgrade";
  }
  return "?";
}

// One connection's parse state inside the daemon's receive loop: before each receive the unread
// bytes move to the front of the read buffer, a full buffer grows (doubling, up to the header
// limit plus one chunk; when it cannot, the daemon closes the connection), one receive takes
// what fits, then the reader runs. After Violation or Stop nothing more is read. The invariants
// of the parse state are checked after every read; a broken one is written into the transcript.
class Feeder {
 public:
  explicit Feeder(const ReadSetup& setup) : setup_(setup) {
    parse.MaxHeaderBytes = setup.maxHeaderBytes;
    parse.MaxBodySize = setup.maxBodySize;
    for (int i = 0; i < setup.requestsInFlight; ++i) {
      std::shared_ptr<Message> request = Message::New();
      request->Open(Methods::GET,
                    StringBuffer(("/r" + std::to_string(i)).c_str()).getTerminatedBuffer());
      inFlight_.push_back(request);
    }
  }

  void Arrive(const std::string& bytes) {
    std::size_t at = 0;
    while (at < bytes.size() && !Ended()) {
      if (!parse.MakeRoom()) {
        bufferFull = true;
        return;
      }
      const std::size_t count =
          std::min(bytes.size() - at,
                   static_cast<std::size_t>(parse.ReadBuffer.Size() - parse.WritePosition));
      std::memcpy(parse.ReadBuffer.Data() + parse.WritePosition, bytes.data() + at, count);
      parse.WritePosition += static_cast<int>(count);
      at += count;
      arrived_ += static_cast<long long>(count);
      Read(false);
    }
  }

  void PeerCloses() {
    if (!Ended()) Read(true);
  }

  bool Ended() const { return bufferFull || outcome != ReadOutcome::NeedMore; }

  // Each event on a line, a completed message followed by its description, then the outcome.
  std::string Transcript() const {
    std::string text;
    for (const ReaderEvent& event : events) {
      switch (event.What) {
        case ReaderEvent::Kind::HeadersComplete:
          text += "headers " + std::to_string(event.Value) + "\n";
          break;
        case ReaderEvent::Kind::PartComplete:
          text += "part " + std::to_string(event.Value) + " " +
                  (event.Piece ? Describe(*event.Piece) : std::string("null")) + "\n";
          break;
        case ReaderEvent::Kind::MessageComplete:
          text += "message " + std::to_string(event.Value) +
                  (event.KeepAlive ? " keep-alive\n" : " close\n");
          text += Describe(event.Subject, setup_.serverSide) + "\n";
          break;
        case ReaderEvent::Kind::ContinueExpected:
          break;  // depends on how the bytes arrive: only asked for before the body has begun
        case ReaderEvent::Kind::UpgradeRequested:
          text += "upgrade\n" + Describe(event.Subject, setup_.serverSide) + "\n";
          break;
      }
    }
    text += broken_;
    return text + "outcome " + (bufferFull ? "buffer full" : ToText(outcome));
  }

  // The bytes received and not read.
  std::string Unread() const {
    return std::string(reinterpret_cast<const char*>(parse.ReadBuffer.Data()) + parse.ReadPosition,
                       static_cast<std::size_t>(parse.WritePosition - parse.ReadPosition));
  }

  Client::ParseData parse;
  std::shared_ptr<Message> current;
  std::vector<ReaderEvent> events;
  ReadOutcome outcome = ReadOutcome::NeedMore;
  bool bufferFull = false;

 private:
  // Client side, the request in flight is handed to the reader when it has none; a reply that
  // completes takes its request off the queue, and while unread bytes remain the reader runs
  // again (with the next request, or with none, which refuses a reply nobody asked for).
  void Read(bool final) {
    for (;;) {
      if (!setup_.serverSide && !current && !inFlight_.empty()) current = inFlight_.front();
      const std::size_t before = events.size();
      outcome = RequestReader::Read(parse, current, setup_.serverSide, final, events);
      Check(before);
      bool replied = false;
      for (std::size_t i = before; i < events.size(); ++i) {
        if (!setup_.serverSide && events[i].What == ReaderEvent::Kind::MessageComplete) {
          inFlight_.pop_front();
          replied = true;
        }
      }
      if (!replied || outcome != ReadOutcome::NeedMore ||
          parse.ReadPosition == parse.WritePosition) {
        return;
      }
    }
  }

  void Check(std::size_t firstNew) {
    auto expect = [this](bool holds, const char* what) {
      if (!holds && broken_.find(what) == std::string::npos) broken_ += std::string(what) + "\n";
    };
    expect(0 <= parse.ReadPosition && parse.ReadPosition <= parse.WritePosition &&
               parse.WritePosition <= parse.ReadBuffer.Size(),
           "broken: positions");
    expect(parse.ContentBuffer.Size() <= arrived_, "broken: content beyond what arrived");
    expect(parse.ContentBuffer.Size() <= parse.MaxBodySize, "broken: content above the limit");
    if (setup_.serverSide && outcome != ReadOutcome::Violation) {
      expect((parse.State == States::Waiting) == !current, "broken: message while waiting");
    }
    for (std::size_t i = firstNew; i < events.size(); ++i) {
      const ReaderEvent& event = events[i];
      expect(event.Subject != nullptr, "broken: event without a message");
      if (event.What == ReaderEvent::Kind::HeadersComplete ||
          event.What == ReaderEvent::Kind::UpgradeRequested) {
        subject_ = event.Subject;
      } else {
        expect(event.Subject == subject_, "broken: event for another message");
      }
      if (event.What == ReaderEvent::Kind::PartComplete) {
        expect(event.Value == parts_++, "broken: part index");
      }
      if (event.What == ReaderEvent::Kind::MessageComplete) parts_ = 0;
    }
  }

  ReadSetup setup_;
  std::deque<std::shared_ptr<Message>> inFlight_;
  long long arrived_ = 0;
  std::shared_ptr<Message> subject_;
  int parts_ = 0;
  std::string broken_;
};

// The transcript of `input` arriving in pieces that end at `cuts` (ascending) and at its end.
std::string Feed(const std::string& input, const std::vector<std::size_t>& cuts,
                 const ReadSetup& setup) {
  Feeder feeder(setup);
  std::size_t start = 0;
  for (std::size_t cut : cuts) {
    feeder.Arrive(input.substr(start, cut - start));
    start = cut;
  }
  feeder.Arrive(input.substr(start));
  if (setup.peerCloses) feeder.PeerCloses();
  return feeder.Transcript();
}

// Reads `input` whole, split in two at every offset, byte by byte and in random pieces of up to
// 16 bytes (eight fixed seeds); expects the same transcript every way and returns it. Inputs above
// 4 KiB, which only the tests of the default limits use, are split at 512 offsets and cut in
// random pieces of up to 8 KiB instead.
std::string ReadEveryWay(const std::string& input, const ReadSetup& setup = ReadSetup()) {
  const std::string whole = Feed(input, {}, setup);
  const bool small = input.size() <= 4096;
  const std::size_t stride = small ? 1 : input.size() / 512;
  for (std::size_t cut = 1; cut < input.size(); cut += stride) {
    const std::string split = Feed(input, {cut}, setup);
    if (split != whole) {
      ADD_FAILURE() << "split at " << cut << "\nwhole:\n" << whole << "\nsplit:\n" << split;
      return whole;
    }
  }
  if (small) {
    std::vector<std::size_t> everyByte;
    for (std::size_t cut = 1; cut < input.size(); ++cut)
      everyByte.push_back(cut);
    const std::string bytes = Feed(input, everyByte, setup);
    if (bytes != whole) {
      ADD_FAILURE() << "byte by byte\nwhole:\n" << whole << "\npieces:\n" << bytes;
      return whole;
    }
  }
  const std::uint32_t largestPiece = small ? 16 : 8192;
  for (std::uint32_t seed = 1; seed <= 8; ++seed) {
    std::mt19937 random(seed);
    std::vector<std::size_t> cuts;
    for (std::size_t cut = random() % largestPiece + 1; cut < input.size();
         cut += random() % largestPiece + 1) {
      cuts.push_back(cut);
    }
    const std::string pieces = Feed(input, cuts, setup);
    if (pieces != whole) {
      ADD_FAILURE() << "random pieces, seed " << seed << "\nwhole:\n"
                    << whole << "\npieces:\n"
                    << pieces;
      return whole;
    }
  }
  return whole;
}

// --- Start lines -----------------------------------------------------------------------------

TEST(RequestReaderStartLineTest, AcceptsEachMethodDownToItsShortestLine) {
  struct Case {
    const char* line;
    const char* request;  // the method and target read from it
  };
  const Case cases[] = {
      {"GET / HTTP/1.1", "GET /"},
      {"POST / HTTP/1.1", "POST /"},
      {"PUT / HTTP/1.1", "PUT /"},
      {"DELETE / HTTP/1.1", "DELETE /"},
      {"OPTIONS * HTTP/1.1", "OPTIONS *"},
      {"GET /a/b?c=d&e HTTP/1.1", "GET /a/b?c=d&e"},
      {"POST /upload/file.bin HTTP/1.1", "POST /upload/file.bin"},
      {"GET /caf\xC3\xA9 HTTP/1.1", "GET /caf\\xC3\\xA9"},  // UTF-8 in the target
      {"GET http://host:8080/p HTTP/1.1", "GET http://host:8080/p"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(
        Lines({"headers 0", "message 0 close", std::string("  ") + c.request, "outcome Stop"}),
        ReadEveryWay(std::string(c.line) + "\r\n\r\n"));
  }
}

TEST(RequestReaderStartLineTest, RefusesShortLinesOtherVersionsAndUnknownMethods) {
  const char* const lines[] = {
      "GET  HTTP/1.1",      // 13 bytes: no target
      "POST  HTTP/1.1",     // 14 bytes
      "PUT  HTTP/1.1",      // 13 bytes
      "DELETE  HTTP/1.1",   // 16 bytes
      "OPTIONS  HTTP/1.1",  // 17 bytes
      "GET /HTTP/1.1",
      "GET / HTTP/1.0",
      "GET / HTTP/2.0",
      "GET / http/1.1",
      "GET / HTTP/1.1 ",
      "GET /",
      "HEAD / HTTP/1.1",
      "PATCH / HTTP/1.1",
      "CONNECT host:443 HTTP/1.1",
      "get / HTTP/1.1",
      " GET / HTTP/1.1",
      "GET\t/ HTTP/1.1",
      "GETS / HTTP/1.1",
      "HTTP/1.1 200 OK",  // a reply is no request
      "x",
  };
  for (const char* line : lines) {
    SCOPED_TRACE(line);
    EXPECT_EQ("outcome Violation", ReadEveryWay(std::string(line) + "\r\n\r\n"));
  }
}

TEST(RequestReaderStartLineTest, RefusesBytesThatCannotBeginARequestBeforeTheLineEnd) {
  for (const std::string& input :
       {std::string("\x16\x03\x01\x02\x00", 5), std::string("XGET"), std::string("GET/"),
        std::string("POST\t"), std::string("get "), std::string("<policy-file-request/ ")}) {
    SCOPED_TRACE(Escape(input));
    EXPECT_EQ("outcome Violation", ReadEveryWay(input));
  }
}

TEST(RequestReaderStartLineTest, WaitsForTheLineEnd) {
  for (const char* input : {"GET / HTTP/1.1", "GET / HTTP/1.1\r", "GET / HTTP/1.1\r\nHost: a\r\n",
                            "\r\n\r\n", "\r", "P", "DELE", "<policy-file"}) {
    SCOPED_TRACE(Escape(input));
    EXPECT_EQ("outcome NeedMore", ReadEveryWay(input));
  }
}

// --- Connections: keep-alive, pipelining ------------------------------------------------------

TEST(RequestReaderConnectionTest, KeepsAliveOnlyWithAConnectionHeaderOtherThanClose) {
  struct Case {
    const char* header;  // empty: none
    bool keepAlive;
  };
  const Case cases[] = {
      {"", false},
      {"Connection: keep-alive", true},
      {"Connection: Keep-Alive", true},
      {"Connection: Upgrade", true},
      {"Connection:", true},
      {"Connection: clo", true},
      {"Connection: closed", true},
      {"Connection: close", false},
      {"Connection: Close", false},
      {"Connection: CLOSE", false},
      {"Connection:   close  ", false},
      {"connection: keep-alive", true},
      {"CONNECTION: close", false},
      {"X-Connection: keep-alive", false},
      {"Proxy-Connection: keep-alive", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header);
    std::string input = "GET /k HTTP/1.1\r\n";
    std::string expected =
        Lines({"headers 0", c.keepAlive ? "message 0 keep-alive" : "message 0 close", "  GET /k"});
    if (*c.header != '\0') {
      input += std::string(c.header) + "\r\n";
      expected += "\n" + HeaderLine(c.header);
    }
    input += "\r\n";
    expected += c.keepAlive ? "\noutcome NeedMore" : "\noutcome Stop";
    EXPECT_EQ(expected, ReadEveryWay(input));
  }
}

TEST(RequestReaderConnectionTest, ReadsPipelinedRequestsAndNothingAfterTheLastOne) {
  const std::string last = "GET /d HTTP/1.1\r\nConnection: keep-alive\r\n\r\n";
  const std::string input =
      "\r\n"  // empty lines before and between messages are tolerated
      "GET /a HTTP/1.1\r\nConnection: keep-alive\r\n\r\n"
      "POST /b HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: 3\r\n\r\nabc"
      "\r\n\r\n"
      "DELETE /c HTTP/1.1\r\n\r\n" +
      last;
  EXPECT_EQ(
      Lines({"headers 0", "message 0 keep-alive", "  GET /a", "  header Connection: keep-alive",
             "headers 3", "message 3 keep-alive", "  POST /b", "  header Connection: keep-alive",
             "  header Content-Length: 3", "  content \"abc\"", "headers 0", "message 0 close",
             "  DELETE /c", "outcome Stop"}),
      ReadEveryWay(input));

  Feeder feeder(ReadSetup{});
  feeder.Arrive(input);
  EXPECT_EQ(last, feeder.Unread());
  EXPECT_EQ(nullptr, feeder.current);
  EXPECT_EQ(States::Waiting, feeder.parse.State);
}

TEST(RequestReaderConnectionTest, HoldsTheMessageInCurrentUntilItIsComplete) {
  Feeder feeder(ReadSetup{});
  feeder.Arrive("PUT /x HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: 10\r\n\r\nabc");
  EXPECT_EQ(ReadOutcome::NeedMore, feeder.outcome);
  ASSERT_EQ(1U, feeder.events.size());
  EXPECT_EQ(ReaderEvent::Kind::HeadersComplete, feeder.events[0].What);
  EXPECT_EQ(10, feeder.events[0].Value);
  ASSERT_NE(nullptr, feeder.current);
  EXPECT_EQ(feeder.events[0].Subject, feeder.current);
  EXPECT_EQ(States::ReadingContent, feeder.parse.State);
  EXPECT_EQ("abc", std::string(feeder.parse.ContentBuffer, 3));
  EXPECT_EQ(3, feeder.parse.ContentReceived);

  feeder.Arrive("defghij");
  ASSERT_EQ(2U, feeder.events.size());
  EXPECT_EQ(ReaderEvent::Kind::MessageComplete, feeder.events[1].What);
  EXPECT_TRUE(feeder.events[1].KeepAlive);
  EXPECT_EQ(nullptr, feeder.current);
  EXPECT_EQ(States::Waiting, feeder.parse.State);
  EXPECT_EQ(0, feeder.parse.ContentBuffer.Size());
  EXPECT_EQ(0, feeder.parse.ContentReceived);
  auto lock = feeder.events[1].Subject->Lock();
  EXPECT_EQ(Methods::PUT, feeder.events[1].Subject->Method);
  ASSERT_NE(nullptr, feeder.events[1].Subject->Request->Content);
  EXPECT_EQ("\"abcdefghij\"", Bytes(*feeder.events[1].Subject->Request->Content));
}

// --- Headers and cookies ----------------------------------------------------------------------

TEST(RequestReaderHeaderTest, KeepsHeadersInOrderWithTrimmedValues) {
  EXPECT_EQ(Lines({"headers 0", "message 0 close", "  GET /h", "  header Host: example.org",
                   "  header X-Empty: ", "  header x-lower: v", "  header X-Multi: 1",
                   "  header X-Multi: 2", "  header X-Colon: a:b: c", "  header X-Utf8: \\xC3\\xA4",
                   "outcome Stop"}),
            ReadEveryWay("GET /h HTTP/1.1\r\nHost:   example.org  \r\nX-Empty:\r\n"
                         "x-lower: v\r\nX-Multi: 1\r\nX-Multi: 2\r\nX-Colon: a:b: c\r\n"
                         "X-Utf8: \xC3\xA4\r\n\r\n"));
}

TEST(RequestReaderHeaderTest, ReadsCookiesIntoTheRequestBody) {
  EXPECT_EQ(
      Lines({"headers 0", "message 0 close", "  GET /", "  header Host: h", "  header Accept: */*",
             "  cookie a=1", "  cookie b=2", "  cookie c=3", "outcome Stop"}),
      ReadEveryWay("GET / HTTP/1.1\r\nHost: h\r\nCookie: b=2;a=1\r\nAccept: */*\r\n"
                   "Cookie: c=3\r\n\r\n"));
}

TEST(RequestReaderHeaderTest, ReadsTheFramingHeadersAroundCookieHeaders) {
  // The cookie headers leave the collection; the headers behind them still frame the message.
  EXPECT_EQ(Lines({"headers 5", "message 5 keep-alive", "  POST /c", "  header Content-Length: 5",
                   "  header Connection: keep-alive", "  header Content-Type: text/plain",
                   "  cookie a=1", "  cookie b=2", "  content \"hello\"", "outcome NeedMore"}),
            ReadEveryWay("POST /c HTTP/1.1\r\nCookie: a=1\r\nContent-Length: 5\r\n"
                         "Cookie: b=2\r\nConnection: keep-alive\r\nContent-Type: text/plain\r\n"
                         "\r\nhello"));
  EXPECT_EQ(Lines({"headers 2", "message 2 close", "  GET /r0 200", "  header Content-Length: 2",
                   "  header Connection: close", "  cookie s=1", "  cookie t=2", "  content \"ok\"",
                   "outcome NeedMore"}),
            ReadEveryWay("HTTP/1.1 200 OK\r\nSet-Cookie: s=1\r\nSet-Cookie: t=2\r\n"
                         "Content-Length: 2\r\nConnection: close\r\n\r\nok",
                         ClientSide(1)));
}

// --- Bodies -----------------------------------------------------------------------------------

TEST(RequestReaderBodyTest, ReadsContentLengthBodies) {
  struct Case {
    std::string header;
    std::string body;
    const char* content;  // the content line, or null for none
  };
  const Case cases[] = {
      {"Content-Length: 5", "hello", "\"hello\""},
      {"Content-Length:   5  ", "hello", "\"hello\""},
      {"Content-Length: 005", "hello", "\"hello\""},
      {"content-length: 5", "hello", "\"hello\""},
      {"Content-Length: 0", "", nullptr},
      {"Content-Length: 6", std::string("a\r\nb\0c", 6), "\"a\\r\\nb\\x00c\""},
      {"Content-Length: 14", "GET / HTTP/1.1", "\"GET / HTTP/1.1\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header);
    const std::string length = std::to_string(c.body.size());
    std::string expected = Lines(
        {"headers " + length, "message " + length + " close", "  POST /p", HeaderLine(c.header)});
    if (c.content != nullptr) expected += std::string("\n  content ") + c.content;
    expected += "\noutcome Stop";
    EXPECT_EQ(expected, ReadEveryWay("POST /p HTTP/1.1\r\n" + c.header + "\r\n\r\n" + c.body));
  }
}

TEST(RequestReaderBodyTest, ReadsChunkedBodiesWithExtensionsAndTrailers) {
  const std::string sixteen = "0123456789ABCDEF";
  const std::string input =
      "POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\nConnection: keep-alive\r\n\r\n"
      "5\r\nhello\r\n"
      "1;name=value\r\n \r\n"
      "A\r\n0123456789\r\n"
      "a;x=1;y\r\nabcdefghij\r\n"
      "010\r\n" +
      sixteen +
      "\r\n"
      "0\r\nX-Checksum: 42\r\n\r\n"
      "GET /next HTTP/1.1\r\n\r\n";
  EXPECT_EQ(
      Lines({"headers -1", "message 42 keep-alive", "  POST /c",
             "  header Transfer-Encoding: chunked", "  header Connection: keep-alive",
             "  header X-Checksum: 42", "  content \"hello 0123456789abcdefghij0123456789ABCDEF\"",
             "headers 0", "message 0 close", "  GET /next", "outcome Stop"}),
      ReadEveryWay(input));
}

TEST(RequestReaderBodyTest, ReadsChunkedBodiesWhateverTheCaseOfTheHeader) {
  for (const char* header :
       {"Transfer-Encoding: chunked", "transfer-encoding: chunked", "TRANSFER-ENCODING: Chunked"}) {
    SCOPED_TRACE(header);
    const std::string input =
        "PUT /t HTTP/1.1\r\n" + std::string(header) + "\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n";
    EXPECT_EQ(Lines({"headers -1", "message 5 close", "  PUT /t", HeaderLine(header),
                     "  content \"abcde\"", "outcome Stop"}),
              ReadEveryWay(input));
  }
}

TEST(RequestReaderBodyTest, ReadsAnEmptyChunkedBody) {
  EXPECT_EQ(Lines({"headers -1", "message 0 close", "  POST /e",
                   "  header Transfer-Encoding: chunked", "outcome Stop"}),
            ReadEveryWay("POST /e HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"));
}

TEST(RequestReaderBodyTest, HandsAWebSocketUpgradeOverAfterItsHeaders) {
  // The bytes behind the header block are frames, never a body or a next request, whatever the
  // headers claim.
  EXPECT_EQ(Lines({"upgrade", "  GET /ws", "  header Upgrade: WebSocket",
                   "  header Transfer-Encoding: chunked", "outcome Upgrade"}),
            ReadEveryWay("GET /ws HTTP/1.1\r\nUpgrade: WebSocket\r\n"
                         "Transfer-Encoding: chunked\r\n\r\n"));
  // Only a GET upgrades; a POST claiming it is read as an ordinary request.
  EXPECT_EQ(Lines({"headers 0", "message 0 close", "  POST /ws", "  header Upgrade: websocket",
                   "outcome Stop"}),
            ReadEveryWay("POST /ws HTTP/1.1\r\nUpgrade: websocket\r\n\r\n"));
}

// --- Multipart bodies -------------------------------------------------------------------------

const char FormBody[] =
    "--XyZ\r\n"
    "Content-Disposition: form-data; name=\"a\"\r\n"
    "\r\n"
    "one\r\n"
    "--XyZ\r\n"
    "Content-Disposition: form-data; name=\"f\"; filename=\"f.txt\"\r\n"
    "Content-Type: text/plain\r\n"
    "\r\n"
    "two\r\n--XyZ-not-yet\r\n"
    "--XyZ--\r\n";

const char FormPart0[] = "[Content-Disposition: form-data; name=\\\"a\\\"] \"one\"";
const char FormPart1[] =
    "[Content-Disposition: form-data; name=\\\"f\\\"; filename=\\\"f.txt\\\"|Content-Type: "
    "text/plain] \"two\"";

TEST(RequestReaderMultipartTest, SplitsFormDataIntoParts) {
  const std::string body = FormBody;
  const std::string length = std::to_string(body.size());
  const std::string input =
      "POST /upload HTTP/1.1\r\n"
      "Content-Type: multipart/form-data; boundary=XyZ\r\n"
      "Content-Length: " +
      length + "\r\n\r\n" + body;
  // "--XyZ-not-yet" begins with the delimiter: a part ends at any line that begins with it.
  EXPECT_EQ(Lines({"headers " + length, std::string("part 0 ") + FormPart0,
                   std::string("part 1 ") + FormPart1, "message " + length + " close",
                   "  POST /upload", "  header Content-Type: multipart/form-data; boundary=XyZ",
                   "  header Content-Length: " + length, "  content \"" + Escape(body) + "\"",
                   std::string("  part 0 ") + FormPart0, std::string("  part 1 ") + FormPart1,
                   "outcome Stop"}),
            ReadEveryWay(input));
}

TEST(RequestReaderMultipartTest, SplitsMixedBodiesWithAQuotedBoundaryPreambleAndEpilogue) {
  const std::string body =
      "This is the preamble.\r\n"
      "--simple boundary\r\n"
      "\r\n"
      "Implicitly typed.\r\nNo line break at the end.\r\n"
      "--simple boundary\r\n"
      "Content-type: text/plain; charset=us-ascii\r\n"
      "\r\n"
      "Explicitly typed.\r\n"
      "\r\n"
      "--simple boundary--\r\n"
      "This is the epilogue.\r\n--simple boundary\r\n\r\nnot a part\r\n--simple boundary--\r\n";
  const std::string length = std::to_string(body.size());
  const std::string input =
      "PUT /m HTTP/1.1\r\nContent-Type: multipart/mixed; boundary=\"simple boundary\"\r\n"
      "Content-Length: " +
      length + "\r\nConnection: keep-alive\r\n\r\n" + body;
  const std::string part0 = "[] \"Implicitly typed.\\r\\nNo line break at the end.\"";
  const std::string part1 =
      "[Content-type: text/plain; charset=us-ascii] \"Explicitly typed.\\r\\n\"";
  EXPECT_EQ(Lines({"headers " + length, "part 0 " + part0, "part 1 " + part1,
                   "message " + length + " keep-alive", "  PUT /m",
                   "  header Content-Type: multipart/mixed; boundary=\\\"simple boundary\\\"",
                   "  header Content-Length: " + length, "  header Connection: keep-alive",
                   "  content \"" + Escape(body) + "\"", "  part 0 " + part0, "  part 1 " + part1,
                   "outcome NeedMore"}),
            ReadEveryWay(input));
}

TEST(RequestReaderMultipartTest, SplitsChunkedMultipartBodies) {
  const std::string body = FormBody;
  // Chunks of 7 bytes, so that chunk boundaries fall inside delimiters and part headers.
  std::string chunked;
  for (std::size_t at = 0; at < body.size(); at += 7) {
    const std::string chunk = body.substr(at, 7);
    chunked += std::to_string(chunk.size()) + "\r\n" + chunk + "\r\n";
  }
  chunked += "0\r\n\r\n";
  const std::string input =
      "POST /upload HTTP/1.1\r\n"
      "Content-Type: multipart/form-data; boundary=\"XyZ\"\r\n"
      "Transfer-Encoding: chunked\r\n\r\n" +
      chunked;
  const std::string length = std::to_string(body.size());
  EXPECT_EQ(
      Lines({"headers -1", std::string("part 0 ") + FormPart0, std::string("part 1 ") + FormPart1,
             "message " + length + " close", "  POST /upload",
             "  header Content-Type: multipart/form-data; boundary=\\\"XyZ\\\"",
             "  header Transfer-Encoding: chunked", "  content \"" + Escape(body) + "\"",
             std::string("  part 0 ") + FormPart0, std::string("  part 1 ") + FormPart1,
             "outcome Stop"}),
      ReadEveryWay(input));
}

TEST(RequestReaderMultipartTest, AnnouncesEachPartBeforeTheMessageWithTheObjectItKeeps) {
  const std::string body = FormBody;
  Feeder feeder(ReadSetup{});
  feeder.Arrive(
      "POST /upload HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=XyZ\r\n"
      "Content-Length: " +
      std::to_string(body.size()) + "\r\n\r\n" + body.substr(0, 61));
  // The first part's closing delimiter has arrived, the second part's has not.
  ASSERT_EQ(2U, feeder.events.size());
  EXPECT_EQ(ReaderEvent::Kind::PartComplete, feeder.events[1].What);
  EXPECT_EQ(0, feeder.events[1].Value);
  feeder.Arrive(body.substr(61));
  ASSERT_EQ(4U, feeder.events.size());
  EXPECT_EQ(ReaderEvent::Kind::PartComplete, feeder.events[2].What);
  EXPECT_EQ(1, feeder.events[2].Value);
  EXPECT_EQ(ReaderEvent::Kind::MessageComplete, feeder.events[3].What);
  const std::shared_ptr<Message>& message = feeder.events[3].Subject;
  auto lock = message->Lock();
  ASSERT_EQ(2, message->Request->Parts.Count());
  EXPECT_EQ(feeder.events[1].Piece, message->Request->Parts[0]);
  EXPECT_EQ(feeder.events[2].Piece, message->Request->Parts[1]);
}

// --- Client side: replies ---------------------------------------------------------------------

TEST(RequestReaderClientTest, ReadsRepliesIntoTheRequestInFlight) {
  struct Case {
    const char* name;
    std::string input;
    ReadSetup setup;
    std::string transcript;
  };
  const Case cases[] = {
      {"length", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: keep-alive\r\n\r\nok",
       ClientSide(1),
       Lines({"headers 2", "message 2 keep-alive", "  GET /r0 200", "  header Content-Length: 2",
              "  header Connection: keep-alive", "  content \"ok\"", "outcome NeedMore"})},
      {"until the peer closes", "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nuntil the end",
       ClientSide(1, true),
       Lines({"headers -1", "message 13 close", "  GET /r0 200",
              "  header Content-Type: text/plain", "  content \"until the end\"",
              "outcome NeedMore"})},
      {"until the peer closes, still open", "HTTP/1.1 500 Oops\r\n\r\npartial", ClientSide(1),
       Lines({"headers -1", "outcome NeedMore"})},
      {"no content", "HTTP/1.1 204 No Content\r\n\r\n", ClientSide(1),
       Lines({"headers 0", "message 0 close", "  GET /r0 204", "outcome NeedMore"})},
      {"not modified", "HTTP/1.1 304 Not Modified\r\nETag: x\r\n\r\n", ClientSide(1),
       Lines({"headers 0", "message 0 close", "  GET /r0 304", "  header ETag: x",
              "outcome NeedMore"})},
      {"no reason phrase", "HTTP/1.1 404\r\nContent-Length: 0\r\n\r\n", ClientSide(1),
       Lines({"headers 0", "message 0 close", "  GET /r0 404", "  header Content-Length: 0",
              "outcome NeedMore"})},
      {"chunked", "HTTP/1.1 201 Created\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n",
       ClientSide(1),
       Lines({"headers -1", "message 2 close", "  GET /r0 201",
              "  header Transfer-Encoding: chunked", "  content \"ab\"", "outcome NeedMore"})},
      {"cookies", "HTTP/1.1 200 OK\r\nSet-Cookie: s=1;Max-Age=60\r\nContent-Length: 0\r\n\r\n",
       ClientSide(1),
       Lines({"headers 0", "message 0 close", "  GET /r0 200", "  header Content-Length: 0",
              "  cookie s=1", "outcome NeedMore"})},
      {"two replies",
       "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\na"
       "HTTP/1.1 202 Accepted\r\nContent-Length: 1\r\n\r\nb",
       ClientSide(2),
       Lines({"headers 1", "message 1 close", "  GET /r0 200", "  header Content-Length: 1",
              "  content \"a\"", "headers 1", "message 1 close", "  GET /r1 202",
              "  header Content-Length: 1", "  content \"b\"", "outcome NeedMore"})},
      {"interim replies skipped",
       "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\nX: 1\r\n\r\n"
       "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nz",
       ClientSide(1),
       Lines({"headers 1", "message 1 close", "  GET /r0 200", "  header Content-Length: 1",
              "  content \"z\"", "outcome NeedMore"})},
      {"no request in flight", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", ClientSide(0),
       "outcome Violation"},
      {"a reply too many", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\nHTTP/1.1 200 OK\r\n\r\n",
       ClientSide(1),
       Lines({"headers 0", "message 0 close", "  GET /r0 200", "  header Content-Length: 0",
              "outcome Violation"})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.transcript, ReadEveryWay(c.input, c.setup));
  }
}

TEST(RequestReaderClientTest, RefusesOtherStatusLines) {
  for (const char* line :
       {"HTTP/1.1 600 Bad", "HTTP/1.1 20 OK", "HTTP/1.1 2000", "HTTP/1.1 200OK", "HTTP/1.1 2x0 OK",
        "HTTP/1.0 200 OK", "HTTP/1.1  200 OK", "HTTP/1.1", "GET / HTTP/1.1"}) {
    SCOPED_TRACE(line);
    EXPECT_EQ("outcome Violation",
              ReadEveryWay(std::string(line) + "\r\nContent-Length: 0\r\n\r\n", ClientSide(1)));
  }
}

// --- Bad input and limits ---------------------------------------------------------------------

TEST(RequestReaderViolationTest, RefusesBrokenInputAndInputBeyondTheLimits) {
  const std::string post = "POST /v HTTP/1.1\r\n";
  const std::string chunked = post + "Transfer-Encoding: chunked\r\n\r\n";
  struct Case {
    const char* name;
    std::string input;
    ReadSetup setup;
    std::string transcript;
  };
  const Case cases[] = {
      // The header block: 64 KiB by default, 256 bytes in the small setup.
      {"header line above the limit", post + "X-Fill: " + std::string(300, 'a') + "\r\n\r\n",
       SmallLimits(), "outcome Violation"},
      {"header block one byte above the limit",
       "GET / HTTP/1.1\r\nX: " + std::string(234, 'a') + "\r\n\r\n", SmallLimits(),
       "outcome Violation"},
      {"start line above the limit", "GET /" + std::string(300, 'a'), SmallLimits(),
       "outcome Violation"},
      {"trailers above the limit",
       chunked + "0\r\nX-Trailer: " + std::string(250, 't') + "\r\n\r\n", SmallLimits(),
       "headers -1\noutcome Violation"},
      {"no line end in 64 KiB and more", std::string(70000, 'a'), ReadSetup(), "outcome Violation"},
      {"header line of 64 KiB and more", post + "X: " + std::string(70000, 'a') + "\r\n\r\n",
       ReadSetup(), "outcome Violation"},
      {"many header lines of 64 KiB and more",
       [&post] {
         std::string input = post;
         for (int i = 0; i < 4000; ++i)
           input += "X-" + std::to_string(i) + ": some value\r\n";
         return input + "\r\n";
       }(),
       ReadSetup(), "outcome Violation"},
      // Content-Length.
      {"length above the body limit", post + "Content-Length: 67108865\r\n\r\n", ReadSetup(),
       "outcome Violation"},
      {"length above the small body limit",
       post + "Content-Length: 1025\r\n\r\n" + std::string(1025, 'b'), SmallLimits(),
       "outcome Violation"},
      {"length far above any limit", post + "Content-Length: 99999999999999999999999\r\n\r\n",
       ReadSetup(), "outcome Violation"},
      {"negative length", post + "Content-Length: -1\r\n\r\n", ReadSetup(), "outcome Violation"},
      {"signed length", post + "Content-Length: +5\r\n\r\nhello", ReadSetup(), "outcome Violation"},
      {"empty length", post + "Content-Length:\r\n\r\n", ReadSetup(), "outcome Violation"},
      {"letters", post + "Content-Length: abc\r\n\r\n", ReadSetup(), "outcome Violation"},
      {"trailing garbage", post + "Content-Length: 5x\r\n\r\nhello", ReadSetup(),
       "outcome Violation"},
      {"hexadecimal length", post + "Content-Length: 0x10\r\n\r\n", ReadSetup(),
       "outcome Violation"},
      {"two numbers", post + "Content-Length: 1 2\r\n\r\n", ReadSetup(), "outcome Violation"},
      {"differing lengths", post + "Content-Length: 3\r\nContent-Length: 4\r\n\r\nabcd",
       ReadSetup(), "outcome Violation"},
      {"differing lengths, other case", post + "Content-Length: 3\r\ncontent-length: 4\r\n\r\nabcd",
       ReadSetup(), "outcome Violation"},
      // Transfer-Encoding with Content-Length.
      {"chunked and length", post + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n",
       ReadSetup(), "outcome Violation"},
      {"length and chunked", post + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
       ReadSetup(), "outcome Violation"},
      {"length and chunked, lower case",
       post + "Content-Length: 5\r\ntransfer-encoding: chunked\r\n\r\n", ReadSetup(),
       "outcome Violation"},
      {"chunked and length with an empty Upgrade",
       post + "Upgrade:\r\nTransfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n", ReadSetup(),
       "outcome Violation"},
      // Line structure.
      {"NUL in the start line", std::string("GET /\0 HTTP/1.1\r\n\r\n", 19), ReadSetup(),
       "outcome Violation"},
      {"NUL in a header", post + std::string("X: a\0b\r\n\r\n", 10), ReadSetup(),
       "outcome Violation"},
      {"bare LF after the start line", "GET / HTTP/1.1\n\n", ReadSetup(), "outcome Violation"},
      {"bare LF after a header", "GET / HTTP/1.1\r\nHost: h\n\r\n", ReadSetup(),
       "outcome Violation"},
      {"bare LF ending the header block", "GET / HTTP/1.1\r\nHost: h\r\n\n", ReadSetup(),
       "outcome Violation"},
      {"bare LF between messages", "\n", ReadSetup(), "outcome Violation"},
      {"header without a colon", "GET / HTTP/1.1\r\nNoColon\r\n\r\n", ReadSetup(),
       "outcome Violation"},
      {"header without a name", "GET / HTTP/1.1\r\n: value\r\n\r\n", ReadSetup(),
       "outcome Violation"},
      // Chunked bodies.
      {"chunk size not hexadecimal", chunked + "zz\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk size missing", chunked + "\r\n", ReadSetup(), "headers -1\noutcome Violation"},
      {"chunk size negative", chunked + "-1\r\n", ReadSetup(), "headers -1\noutcome Violation"},
      {"chunk size with garbage", chunked + "5x\r\nhello\r\n0\r\n\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk size after a blank", chunked + " 5\r\nhello\r\n0\r\n\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk size line with a bare LF", chunked + "5\nhello\r\n0\r\n\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk size line of 1 KiB and more", chunked + "5;" + std::string(1100, 'x'), ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk data not followed by CR LF", chunked + "5\r\nhelloXY\r\n0\r\n\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk data followed by a bare LF", chunked + "5\r\nhello\n0\r\n\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      {"chunk above the body limit", chunked + "401\r\n", SmallLimits(),
       "headers -1\noutcome Violation"},
      {"chunks above the body limit together",
       chunked + "400\r\n" + std::string(1024, 'c') + "\r\n1\r\nc\r\n0\r\n\r\n", SmallLimits(),
       "headers -1\noutcome Violation"},
      {"chunk size beyond any number", chunked + "FFFFFFFFFFFFFFFFFFFFFFFF\r\n", ReadSetup(),
       "headers -1\noutcome Violation"},
      // A reply read until the peer closes.
      {"reply above the body limit", "HTTP/1.1 200 OK\r\n\r\n" + std::string(1025, 'r'),
       [] {
         ReadSetup setup = SmallLimits();
         setup.serverSide = false;
         setup.requestsInFlight = 1;
         return setup;
       }(),
       "headers -1\noutcome Violation"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.transcript, ReadEveryWay(c.input, c.setup));
  }
}

TEST(RequestReaderLimitTest, ReadsUpToTheLimitsExactly) {
  // 16 bytes of start line, 3 + 233 + 2 of header line and 2 of empty line: 256 bytes.
  const std::string fill(233, 'a');
  EXPECT_EQ(
      Lines({"headers 0", "message 0 close", "  GET /", "  header X: " + fill, "outcome Stop"}),
      ReadEveryWay("GET / HTTP/1.1\r\nX: " + fill + "\r\n\r\n", SmallLimits()));

  const std::string body(1024, 'b');
  EXPECT_EQ(Lines({"headers 1024", "message 1024 close", "  POST /",
                   "  header Content-Length: 1024", "  content \"" + body + "\"", "outcome Stop"}),
            ReadEveryWay("POST / HTTP/1.1\r\nContent-Length: 1024\r\n\r\n" + body, SmallLimits()));

  EXPECT_EQ(
      Lines({"headers -1", "message 1024 close", "  POST /", "  header Transfer-Encoding: chunked",
             "  content \"" + body + "\"", "outcome Stop"}),
      ReadEveryWay("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n200\r\n" +
                       body.substr(0, 512) + "\r\n200\r\n" + body.substr(512) + "\r\n0\r\n\r\n",
                   SmallLimits()));

  // A start line without its end that fills the limit exactly is still waited for.
  EXPECT_EQ("outcome NeedMore", ReadEveryWay("GET /" + std::string(251, 'a'), SmallLimits()));
}

TEST(RequestReaderLimitTest, ContentBufferHoldsOnlyWhatArrived) {
  struct Case {
    const char* name;
    std::string head;
    ReadSetup setup;
  };
  const Case cases[] = {
      {"declared length at the limit", "POST / HTTP/1.1\r\nContent-Length: 67108864\r\n\r\n",
       ReadSetup()},
      {"chunk just below the limit",
       "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3FFFFFF\r\n", ReadSetup()},
      {"reply until the peer closes", "HTTP/1.1 200 OK\r\n\r\n", ClientSide(1)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Feeder feeder(c.setup);
    feeder.Arrive(c.head + "0123456789");
    EXPECT_EQ(ReadOutcome::NeedMore, feeder.outcome);
    EXPECT_EQ("0123456789", std::string(feeder.parse.ContentBuffer, 10));
    EXPECT_EQ(10, feeder.parse.ContentBuffer.Size());
    EXPECT_LT(feeder.parse.ContentBuffer.Capacity(), 4096);
    EXPECT_EQ("", feeder.Unread());
  }
}

// --- The policy probe -------------------------------------------------------------------------

TEST(RequestReaderPolicyTest, RecognisesTheProbeOnlyWhileWaitingAtTheReadPosition) {
  const std::string probe = "<policy-file-request/>";
  ASSERT_EQ(22U, probe.size());
  EXPECT_EQ(probe, Detail::PolicyFileRequest);
  struct Case {
    const char* name;
    std::string bytes;
    int readPosition;
    States::Enumeration state;
    bool recognised;
  };
  const Case cases[] = {
      {"the probe", probe, 0, States::Waiting, true},
      {"the probe with its NUL", probe + '\0', 0, States::Waiting, true},
      {"behind consumed bytes", "GET / HTTP/1.1\r\n\r\n" + probe, 18, States::Waiting, true},
      {"not at the read position", "x" + probe, 0, States::Waiting, false},
      {"read position inside it", probe, 1, States::Waiting, false},
      {"cut short", probe.substr(0, 21), 0, States::Waiting, false},
      {"misspelt", "<policy-file-request />", 0, States::Waiting, false},
      {"while reading headers", probe, 0, States::ReadingHeaders, false},
      {"while reading content", probe, 0, States::ReadingContent, false},
      {"while reading a chunk", probe, 0, States::ReadingChunkData, false},
      {"nothing", "", 0, States::Waiting, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Client::ParseData parse;
    std::memcpy(parse.ReadBuffer.Data(), c.bytes.data(), c.bytes.size());
    parse.WritePosition = static_cast<int>(c.bytes.size());
    parse.ReadPosition = c.readPosition;
    parse.State = c.state;
    EXPECT_EQ(c.recognised, Detail::IsPolicyFileRequest(parse));
  }
  // The probe is no request.
  EXPECT_EQ("outcome NeedMore", ReadEveryWay(probe + '\0'));
  EXPECT_EQ("outcome Violation", ReadEveryWay(probe + "\r\n"));
}

// --- The parse state the reader is given ------------------------------------------------------

TEST(RequestReaderStateTest, RefusesInconsistentParseStates) {
  struct Case {
    const char* name;
    int readPosition;
    int writePosition;
    States::Enumeration state;
    bool withMessage;
  };
  const Case cases[] = {
      {"negative read position", -1, 0, States::Waiting, false},
      {"read position behind the write position", 5, 4, States::Waiting, false},
      {"write position beyond the buffer", 0, 16385, States::Waiting, false},
      {"reading headers without a message", 0, 0, States::ReadingHeaders, false},
      {"reading content without a message", 0, 0, States::ReadingContent, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Client::ParseData parse;
    parse.ReadPosition = c.readPosition;
    parse.WritePosition = c.writePosition;
    parse.State = c.state;
    std::shared_ptr<Message> current = c.withMessage ? Message::New() : nullptr;
    std::vector<ReaderEvent> events;
    EXPECT_EQ(ReadOutcome::Violation, RequestReader::Read(parse, current, true, false, events));
    EXPECT_TRUE(events.empty());
  }
}

}  // namespace
}  // namespace Veskan

namespace Veskan {
namespace {

// Reads `input` in one piece on a server-side parse state and returns the event kinds.
std::vector<ReaderEvent::Kind> KindsOf(const std::string& input) {
  Client::ParseData parse;
  parse.ReadBuffer.Resize(static_cast<int>(input.size()) + 1);
  std::memcpy(parse.ReadBuffer.Data(), input.data(), input.size());
  parse.WritePosition = static_cast<int>(input.size());
  std::shared_ptr<Message> current;
  std::vector<ReaderEvent> events;
  RequestReader::Read(parse, current, true, false, events);
  std::vector<ReaderEvent::Kind> kinds;
  for (const ReaderEvent& event : events)
    kinds.push_back(event.What);
  return kinds;
}

TEST(RequestReaderExpectTest, AsksForContinueOnlyBeforeTheBodyHasBegun) {
  using Kind = ReaderEvent::Kind;
  const std::string head = "PUT /x HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 3\r\n\r\n";
  EXPECT_EQ((std::vector<Kind>{Kind::HeadersComplete, Kind::ContinueExpected}), KindsOf(head));
  EXPECT_EQ((std::vector<Kind>{Kind::HeadersComplete, Kind::MessageComplete}),
            KindsOf(head + "abc"))
      << "the body is there already";
  EXPECT_EQ(
      (std::vector<Kind>{Kind::HeadersComplete, Kind::ContinueExpected}),
      KindsOf("POST /c HTTP/1.1\r\nExpect: 100-continue\r\nTransfer-Encoding: chunked\r\n\r\n"));
  EXPECT_EQ((std::vector<Kind>{Kind::HeadersComplete, Kind::MessageComplete}),
            KindsOf("GET / HTTP/1.1\r\nExpect: 100-continue\r\n\r\n"))
      << "no body, nothing to wait for";
}

TEST(RequestReaderBodyTest, AcceptsOnlyChunkedAsTheLastTransferCoding) {
  auto request = [](const char* coding) {
    return std::string("POST / HTTP/1.1\r\nTransfer-Encoding: ") + coding +
           "\r\nConnection: keep-alive\r\n\r\n3\r\nabc\r\n0\r\n\r\n";
  };
  for (const char* coding : {"chunked", "CHUNKED", "gzip, chunked", "gzip,chunked "}) {
    SCOPED_TRACE(coding);
    std::string transcript = ReadEveryWay(request(coding), ReadSetup());
    EXPECT_NE(std::string::npos, transcript.find("  content \"abc\"\noutcome NeedMore"));
  }
  for (const char* coding : {"gzip", "chunked, gzip", "identity", ""}) {
    SCOPED_TRACE(coding);
    EXPECT_EQ("outcome Violation", ReadEveryWay(request(coding), ReadSetup()));
  }
}

TEST(RequestReaderMultipartTest, FindsTheBoundaryWhateverTheCaseOfTheType) {
  const std::string body = "--Ab\r\nX: 1\r\n\r\none\r\n--Ab--\r\n";
  for (const char* type : {"Multipart/Form-Data; Boundary=Ab", "MULTIPART/MIXED; BOUNDARY=Ab"}) {
    SCOPED_TRACE(type);
    std::string transcript =
        ReadEveryWay(std::string("POST / HTTP/1.1\r\nContent-Type: ") + type +
                         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body,
                     ReadSetup());
    EXPECT_NE(std::string::npos, transcript.find("part 0 [X: 1] \"one\"")) << transcript;
  }
}

}  // namespace
}  // namespace Veskan
