// The WebSocket protocol cores on bytes alone: both handshakes, frame reading at every split
// point, the frames that are not acted on, limits, frame writing and closing.
#include "net/RequestReader.h"
#include "net/websocket/WebSocketSupport.h"
#include "net/websocket/WebsocketSpecifications.h"

#include "WebSocketFrames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using Detail::WebSocketSupport;
using Testing::ClientFrame;
using Testing::Hybi00Answer;
using Testing::Hybi00Request;
using Testing::TextFrame;
using WebsocketSpecifications::Hybi00KeyNumber;

std::string Hybi17Request(const std::string& without = std::string()) {
  return Testing::Hybi17Request("/ws?room=1", without);
}

using WebsocketSpecifications::hybi_17;

constexpr std::size_t Limit = 1 << 20;

// What a support made of a series of feeds: answer bytes, and one line per event.
struct Fed {
  std::string wire;
  std::vector<std::string> events;
  int lastResult = -1;
};

void Record(const std::vector<std::shared_ptr<WSData>>& events, Fed& fed) {
  for (const std::shared_ptr<WSData>& event : events) {
    std::string line = Methods::ToString(event->Method) == nullptr
                           ? std::string("?")
                           : StringBuffer(Methods::ToString(event->Method)).ToUTF8();
    for (const StringBuffer& message : event->Messages)
      line += " [" + message.ToUTF8() + "]";
    fed.events.push_back(line);
  }
}

void Feed(WebSocketSupport& support, const std::string& bytes, Fed& fed) {
  std::vector<std::shared_ptr<WSData>> events;
  fed.lastResult = support.Feed(bytes.data(), bytes.size(), events, fed.wire);
  Record(events, fed);
}

// Feeds `bytes` in two pieces split at `at`.
Fed FeedSplit(WebSocketSupport& support, const std::string& bytes, std::size_t at) {
  Fed fed;
  Feed(support, bytes.substr(0, at), fed);
  Feed(support, bytes.substr(at), fed);
  return fed;
}

// The messages of every WEBSOCKETMESSAGE event, in order, each in brackets.
std::string MessagesOf(const Fed& fed) {
  static const std::string prefix = "WEBSOCKETMESSAGE";
  std::string all;
  for (const std::string& event : fed.events) {
    if (event.compare(0, prefix.size(), prefix) == 0) all += event.substr(prefix.size());
  }
  return all;
}

std::vector<std::string> Lines(std::initializer_list<const char*> lines) {
  return std::vector<std::string>(lines.begin(), lines.end());
}

// --- Handshakes ------------------------------------------------------------------------------

// Reads `text` as the daemon does: the HTTP reader takes the request apart, and its upgrade
// request (with the first `restCount` bytes behind its header block, all by default) goes to the
// support. False when the reader did not hand over an upgrade request.
bool Upgrade(WebSocketSupport& support, const std::string& text, Fed& fed,
             std::size_t restCount = std::string::npos) {
  Client::ParseData parse;
  parse.ReadBuffer.Resize(static_cast<int>(text.size()));
  std::memcpy(parse.ReadBuffer.Data(), text.data(), text.size());
  parse.WritePosition = static_cast<int>(text.size());
  std::shared_ptr<Message> current;
  Detail::ReaderEvents read;
  if (Detail::RequestReader::Read(parse, current, true, false, Server::Limits(), read) !=
      Detail::ReadOutcome::Upgrade) {
    return false;
  }
  std::string rest = text.substr(static_cast<std::size_t>(parse.ReadPosition), restCount);
  WebsocketSpecifications::UpgradeRequest request("");
  {
    auto lock = read.back().Subject->Lock();
    request = WebSocketSupport::RequestOf(*read.back().Subject);
  }
  std::vector<std::shared_ptr<WSData>> events;
  fed.lastResult = support.Upgrade(request, rest.data(), rest.size(), events, fed.wire);
  Record(events, fed);
  return true;
}

TEST(WebSocketHandshakeTest, AnswersTheRfc6455Handshake) {
  WebSocketSupport support(Limit);
  Fed fed;
  ASSERT_TRUE(Upgrade(support, Hybi17Request() + TextFrame("right behind"), fed));
  EXPECT_EQ(Lines({"WEBSOCKETCONNECT", "WEBSOCKETMESSAGE [right behind]"}), fed.events);
  EXPECT_EQ(
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n",
      fed.wire);
  EXPECT_TRUE(support.IsOpen());
  EXPECT_EQ(17, support.Revision());
  EXPECT_EQ("/ws?room=1", support.Target());

  WebSocketSupport second(Limit);
  ASSERT_TRUE(Upgrade(second, Hybi17Request(), fed));
  EXPECT_EQ(support.ConnectionNumber() + 1, second.ConnectionNumber()) << "numbered in order";
}

TEST(WebSocketHandshakeTest, RefusesRequestsWithoutARequiredHeaderOrWithWrongValues) {
  // Refused by the reader (no upgrade handed over) or by the handshake: never a WebSocket.
  auto refused = [](const std::string& request) {
    WebSocketSupport support(Limit);
    Fed fed;
    if (!Upgrade(support, request, fed)) return true;
    bool failed = support.HandshakeFailed() && fed.events.empty() && fed.wire.empty() &&
                  fed.lastResult == WebSocketSupport::NothingToDeliver;
    Feed(support, TextFrame("hi"), fed);  // nothing afterwards is taken for frames
    return failed && fed.events.empty();
  };
  auto replaced = [](std::string request, const std::string& from, const std::string& to) {
    request.replace(request.find(from), from.size(), to);
    return request;
  };
  for (const char* header :
       {"Host", "Connection", "Upgrade", "Sec-WebSocket-Version", "Sec-WebSocket-Key"}) {
    EXPECT_TRUE(refused(Hybi17Request(header))) << header;
  }
  const std::string request = Hybi17Request();
  EXPECT_TRUE(refused(replaced(request, "Version: 13", "Version: 8")));
  EXPECT_TRUE(refused(replaced(request, "dGhlIHNhbXBsZSBub25jZQ==", "short")));
  EXPECT_TRUE(refused(replaced(request, "Upgrade: websocket", "Upgrade: h2c")));
  EXPECT_TRUE(refused(replaced(request, "keep-alive, Upgrade", "keep-alive")));
  EXPECT_TRUE(refused(replaced(request, " HTTP/1.1\r\n", " HTTP/1.0\r\n")));
  EXPECT_TRUE(refused(replaced(request, "GET ", "POST ")));
  // A control in a value (the hybi-00 answer echoes Origin and Host).
  EXPECT_TRUE(
      refused(replaced(Hybi00Request, "Origin: http://example.com", "Origin: http://a\x01")));
  // Origin is what browsers add; other clients may leave it out. Names and the token lists
  // compare without regard to case.
  EXPECT_FALSE(refused(Hybi17Request("Origin")));
  EXPECT_FALSE(refused(replaced(request, "Upgrade: websocket", "upgrade: WebSocket")));
  EXPECT_FALSE(refused(replaced(request, "keep-alive, Upgrade", "upgrade")));
}

TEST(WebSocketHandshakeTest, AnswersTheHybi00HandshakeWhereverItsChallengeIsCut) {
  const std::string request = std::string(Hybi00Request) + std::string("\x00hi\xff", 4);
  const std::string expected =
      "HTTP/1.1 101 WebSocket Protocol Handshake\r\nUpgrade: WebSocket\r\n"
      "Connection: Upgrade\r\nSec-WebSocket-Origin: http://example.com\r\n"
      "Sec-WebSocket-Location: ws://example.com/demo\r\n\r\n" +
      std::string(Hybi00Answer);
  const std::size_t behindHeaders = request.find("\r\n\r\n") + 4;
  for (std::size_t at = 0; at <= request.size() - behindHeaders; ++at) {
    WebSocketSupport support(Limit);
    Fed fed;
    ASSERT_TRUE(Upgrade(support, request, fed, at));
    Feed(support, request.substr(behindHeaders + at), fed);
    ASSERT_EQ(Lines({"WEBSOCKETCONNECT", "WEBSOCKETMESSAGE [hi]"}), fed.events) << "cut at " << at;
    ASSERT_EQ(expected, fed.wire);
    EXPECT_EQ(0, support.Revision());
  }
  // A key's number is its digits divided by its blanks, which must divide them and fit 32 bits.
  std::uint32_t number = 0;
  ASSERT_TRUE(Hybi00KeyNumber("4 @1  46546xW%0l 1 5", number));  // 4146546015, 5 blanks
  EXPECT_EQ(829309203u, number);
  for (const std::string& key : {std::string("12  3"), std::string("12345"),
                                 std::string("99999999999 "), std::string(40, '9') + " "})
    EXPECT_FALSE(Hybi00KeyNumber(key, number)) << key;
  std::string bad = request;
  bad.replace(bad.find(".P00"), 4, ".P01");
  WebSocketSupport support(Limit);
  Fed fed;
  ASSERT_TRUE(Upgrade(support, bad, fed));
  EXPECT_TRUE(support.HandshakeFailed());
  EXPECT_TRUE(fed.wire.empty());
}

// --- hybi-17 frames --------------------------------------------------------------------------

WebSocketSupport& Upgraded17(WebSocketSupport& support) {
  Fed fed;
  Upgrade(support, Hybi17Request(), fed);
  return support;
}

TEST(WebSocketFramesTest, ReadsEveryLengthFormAndSkipsFramesNotActedOnAtEverySplitPoint) {
  // Ping, pong, close, binary and continuation frames, and an unmasked text frame: none is
  // delivered, none closes the connection, and what follows each is read correctly.
  const std::string medium(300, 'm');
  const std::string stream = TextFrame("one") + TextFrame("") + TextFrame(medium) +
                             ClientFrame(0x01, "fin bit not needed") + TextFrame("t\xC3\xA9st") +
                             ClientFrame(0x89, "ping") + TextFrame("a") +
                             ClientFrame(0x8A, "pong") +
                             ClientFrame(0x82, std::string(200, '\x81')) + TextFrame("b") +
                             ClientFrame(0x80, "continued") + ClientFrame(0x81, "unmasked", false) +
                             ClientFrame(0x88, "\x03\xe8") + TextFrame("c");
  for (std::size_t at = 0; at <= stream.size(); ++at) {
    WebSocketSupport support(Limit);
    Fed fed = FeedSplit(Upgraded17(support), stream, at);
    ASSERT_EQ(" [one] [] [" + medium + "] [fin bit not needed] [t\xC3\xA9st] [a] [b] [c]",
              MessagesOf(fed))
        << "split at " << at;
    EXPECT_TRUE(support.IsOpen());
    EXPECT_TRUE(fed.wire.empty());
  }
  // A lone ping is not delivered: more bytes needed, connection open.
  WebSocketSupport support(Limit);
  Fed fed;
  Feed(Upgraded17(support), ClientFrame(0x89, ""), fed);
  EXPECT_EQ(WebSocketSupport::NeedMore, fed.lastResult);
  EXPECT_TRUE(fed.events.empty());
  EXPECT_TRUE(support.IsOpen());
}

TEST(WebSocketFramesTest, ReadsA64BitLengthFrameByteByByte) {
  const std::string big(70000, 'b');
  const std::string frame = TextFrame(big);
  ASSERT_EQ(127, frame[1] & 0x7f);
  WebSocketSupport support(Limit);
  Upgraded17(support);
  Fed fed;
  for (char byte : frame) {
    Feed(support, std::string(1, byte), fed);
    if (fed.events.empty()) {
      ASSERT_EQ(WebSocketSupport::NeedMore, fed.lastResult);
    }
  }
  ASSERT_EQ(1u, fed.events.size());
  EXPECT_EQ(WebSocketSupport::Deliver, fed.lastResult);
  EXPECT_EQ("WEBSOCKETMESSAGE [" + big + "]", fed.events[0]);
}

TEST(WebSocketFramesTest, RefusedFramesCloseWithTheirCodeAtEverySplitPoint) {
  // With a limit of 200 bytes, between a message before and one after: the one before is
  // delivered, the closing frame is sent once, nothing after it is read.
  const std::string protocolError("\x88\x02\x03\xea", 4);  // 1002
  const std::string tooBig("\x88\x02\x03\xf1", 4);         // 1009
  const std::string big(201, '\x81');
  struct Case {
    const char* name;
    std::string frame;
    std::string wire;
  };
  const Case cases[] = {
      {"text above the limit", TextFrame(big), tooBig},
      // Frames that are skipped are held to the limit as well.
      {"binary above the limit", ClientFrame(0x82, big), tooBig},
      {"continuation above the limit", ClientFrame(0x80, big), tooBig},
      {"unmasked text above the limit", ClientFrame(0x81, big, false), tooBig},
      {"a length with the top bit set",
       std::string("\x81\xff\x80\0\0\0\0\0\0\0\x01\x02\x03\x04", 14), protocolError},
      // Control frames carry at most 125 bytes and are never fragmented (RFC 6455 5.5).
      {"ping of 126 bytes", ClientFrame(0x89, std::string(126, 'p')), protocolError},
      {"close of 126 bytes", ClientFrame(0x88, std::string(126, 'c')), protocolError},
      {"pong without FIN", ClientFrame(0x0A, "p"), protocolError},
      {"close without FIN", ClientFrame(0x08, ""), protocolError},
      {"reserved control opcode without FIN", ClientFrame(0x0B, ""), protocolError},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string stream = TextFrame("fits") + c.frame + TextFrame("late");
    for (std::size_t at = 0; at <= stream.size(); ++at) {
      WebSocketSupport support(200);
      Fed fed = FeedSplit(Upgraded17(support), stream, at);
      ASSERT_EQ(" [fits]", MessagesOf(fed)) << "split at " << at;
      ASSERT_FALSE(support.IsOpen()) << "split at " << at;
      ASSERT_EQ(c.wire, fed.wire) << "split at " << at;
    }
  }
  WebSocketSupport support(200);
  Fed fed;
  Feed(Upgraded17(support), TextFrame(big), fed);
  Feed(support, TextFrame("late"), fed);
  EXPECT_EQ(WebSocketSupport::NothingToDeliver, fed.lastResult);
}

TEST(WebSocketFramesTest, WritesTheThreeLengthForms) {
  WebSocketSupport support(Limit);
  std::string wire;
  EXPECT_FALSE(support.Write("x", 1, false, wire));  // not upgraded
  Upgraded17(support);
  struct Case {
    std::size_t length;
    std::string header;
  };
  const Case cases[] = {
      {0, std::string("\x81\x00", 2)},
      {125, std::string("\x81\x7d", 2)},
      {126, std::string("\x81\x7e\x00\x7e", 4)},
      {65535, std::string("\x81\x7e\xff\xff", 4)},
      {65536, std::string("\x81\x7f\0\0\0\0\0\x01\0\0", 10)},
  };
  for (const Case& c : cases) {
    std::string payload(c.length, 'p');
    wire.clear();
    ASSERT_TRUE(support.Write(payload.data(), payload.size(), false, wire));
    EXPECT_EQ(c.header, wire.substr(0, c.header.size())) << c.length;
    EXPECT_EQ(payload, wire.substr(c.header.size())) << c.length;
  }
  wire.clear();
  ASSERT_TRUE(support.Write("\x01\x02", 2, true, wire));
  EXPECT_EQ(std::string("\x82\x02\x01\x02", 4), wire);

  wire.clear();
  support.Close(1000, wire);
  EXPECT_EQ(std::string("\x88\x02\x03\xe8", 4), wire);
  wire.clear();
  support.Close(1000, wire);  // only once
  EXPECT_TRUE(wire.empty());
  EXPECT_FALSE(support.Write("x", 1, false, wire));

  hybi_17 noCode(Limit);
  WebsocketSpecifications::UpgradeRequest request("/ws");
  request.Add("Host", "h");
  request.Add("Connection", "Upgrade");
  request.Add("Upgrade", "websocket");
  request.Add("Sec-WebSocket-Version", "13");
  request.Add("Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ==");
  ASSERT_TRUE(noCode.Handshake(request, nullptr, 0, wire));
  wire.clear();
  noCode.Close(1005, wire);  // a code that never travels: a closing frame without one
  EXPECT_EQ(std::string("\x88\x00", 2), wire);
  // Nothing is read before the handshake or after the close.
  hybi_17 fresh(Limit);
  const std::string frame = TextFrame("x");
  for (hybi_17* specification : {&fresh, &noCode}) {
    std::vector<std::string> messages;
    EXPECT_EQ(hybi_17::Closed,
              specification->ReadFrames(frame.data(), frame.size(), messages, wire));
    EXPECT_TRUE(messages.empty());
  }
}

// --- hybi-00 frames --------------------------------------------------------------------------

WebSocketSupport& Upgraded00(WebSocketSupport& support) {
  Fed fed;
  Upgrade(support, Hybi00Request, fed);
  return support;
}

TEST(WebSocketHybi00Test, ReadsSentinelFramesAtEverySplitPoint) {
  const std::string stream = std::string("\x00one\xff", 5) + std::string("\x00\xff", 2) +
                             std::string("\xff\x83\x01", 3) + std::string(385, 'z') +
                             std::string("\x05skipped\xff", 9) +
                             std::string("\x00tw\xC3\xA9\xff", 7);
  for (std::size_t at = 0; at <= stream.size(); ++at) {
    WebSocketSupport support(Limit);
    Fed fed = FeedSplit(Upgraded00(support), stream, at);
    ASSERT_EQ(" [one] [] [tw\xC3\xA9]", MessagesOf(fed)) << "split at " << at;
    EXPECT_TRUE(support.IsOpen());
  }
}

TEST(WebSocketHybi00Test, ClosingFramesUnknownTypesAndFramesAboveTheLimitClose) {
  // With a limit of 64 bytes, behind a message that is delivered.
  const std::string closing[] = {
      std::string("\xff\x00", 2),
      std::string("\x80\x01", 2),
      std::string("\x00", 1) + std::string(65, 'a'),           // an unending text frame
      std::string("\x05", 1) + std::string(65, 'a') + "\xff",  // a skipped text frame
      std::string("\xff\x81\x00", 3) + std::string(128, 's'),  // a skipped length frame
      std::string("\xff\x80\x81\x81", 4),                      // a length growing past the limit
  };
  for (const std::string& frame : closing) {
    const std::string stream = std::string("\x00hi\xff", 4) + frame;
    for (std::size_t at = 0; at <= stream.size(); ++at) {
      WebSocketSupport support(64);
      Fed fed = FeedSplit(Upgraded00(support), stream, at);
      ASSERT_EQ(" [hi]", MessagesOf(fed)) << "split at " << at << " of " << frame.size();
      ASSERT_FALSE(support.IsOpen()) << "split at " << at << " of " << frame.size();
      ASSERT_EQ(std::string("\xff\x00", 2), fed.wire);  // answered with our own closing frame
    }
  }
}

TEST(WebSocketHybi00Test, WritesSentinelFrames) {
  WebSocketSupport support(Limit);
  Upgraded00(support);
  std::string wire;
  ASSERT_TRUE(support.Write("h\xC3\xA9", 3, false, wire));
  EXPECT_EQ(std::string("\x00h\xC3\xA9\xff", 5), wire);
  wire.clear();
  EXPECT_FALSE(support.Write("\xff", 1, true, wire));  // cannot be framed
  EXPECT_TRUE(wire.empty());
  support.Close(1000, wire);
  EXPECT_EQ(std::string("\xff\x00", 2), wire);
}

}  // namespace
}  // namespace Veskan
