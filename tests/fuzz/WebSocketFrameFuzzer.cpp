// Arbitrary bytes through both WebSocket frame readers, and as an upgrade request.
//
// The first byte chooses the protocol version and how the rest is divided into reads. The bytes
// are read once whole and once in pieces: the messages, the bytes sent back and whether the
// connection is open must not depend on how the transport divided them. Messages never exceed
// the limit, and the only bytes a reader sends back are one closing frame (hybi-17: with 1002 for
// a malformed frame or 1009 for one above the limit, delivered or skipped).
#include "net/RequestReader.h"
#include "net/websocket/WebSocketSupport.h"

#include "FuzzInput.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Veskan::Detail::WebSocketSupport;

constexpr std::size_t Limit = 4096;

const char Hybi17Request[] =
    "GET /ws HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
const char Hybi00Request[] =
    "GET /demo HTTP/1.1\r\nHost: example.com\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key2: 12998 5 Y3 1  .P00\r\nUpgrade: WebSocket\r\n"
    "Sec-WebSocket-Key1: 4 @1  46546xW%0l 1 5\r\nOrigin: http://example.com\r\n\r\n^n:ds[4U";

// Reads `size` bytes as the daemon does: the HTTP reader, then the upgrade request and the bytes
// behind it to the support. False when the reader hands over no upgrade request.
bool Upgrade(WebSocketSupport& support, const std::uint8_t* data, std::size_t size,
             std::vector<std::shared_ptr<Veskan::WSData>>& events, std::string& wire) {
  Veskan::Client::ParseData parse;
  parse.ReadBuffer.Resize(static_cast<int>(size));
  if (size > 0) std::memcpy(parse.ReadBuffer.Data(), data, size);
  parse.WritePosition = static_cast<int>(size);
  std::shared_ptr<Veskan::Message> current;
  Veskan::Detail::ReaderEvents read;
  if (Veskan::Detail::RequestReader::Read(parse, current, true, false, Veskan::Server::Limits(),
                                          read) != Veskan::Detail::ReadOutcome::Upgrade) {
    return false;
  }
  Veskan::WebsocketSpecifications::UpgradeRequest request("");
  {
    auto lock = read.back().Subject->Lock();
    request = WebSocketSupport::RequestOf(*read.back().Subject);
  }
  const char* rest = reinterpret_cast<const char*>(data) + parse.ReadPosition;
  support.Upgrade(request, rest, size - static_cast<std::size_t>(parse.ReadPosition), events, wire);
  return true;
}

struct Outcome {
  std::vector<std::string> messages;
  std::string wire;
  bool open = false;

  bool operator==(const Outcome& other) const {
    return messages == other.messages && wire == other.wire && open == other.open;
  }
};

void Feed(WebSocketSupport& support, const std::uint8_t* data, std::size_t size, Outcome& outcome) {
  std::vector<std::shared_ptr<Veskan::WSData>> events;
  int result = support.Feed(reinterpret_cast<const char*>(data), size, events, outcome.wire);
  Veskan::Fuzzing::Require(result >= 0 && result <= 2);
  Veskan::Fuzzing::Require((result == WebSocketSupport::Deliver) == !events.empty());
  for (const auto& event : events) {
    for (const Veskan::StringBuffer& message : event->Messages) {
      Veskan::Fuzzing::Require(static_cast<std::size_t>(message.length()) <= Limit);
      outcome.messages.push_back(message.ToUTF8());
    }
  }
}

Outcome Read(bool hybi00, const std::uint8_t* data, std::size_t size, std::uint8_t seed) {
  WebSocketSupport support(Limit);
  Outcome outcome;
  const char* request = hybi00 ? Hybi00Request : Hybi17Request;
  std::vector<std::shared_ptr<Veskan::WSData>> events;
  Veskan::Fuzzing::Require(Upgrade(support, reinterpret_cast<const std::uint8_t*>(request),
                                   std::char_traits<char>::length(request), events, outcome.wire));
  Veskan::Fuzzing::Require(support.IsOpen());
  outcome.wire.clear();
  if (seed == 0) {
    Feed(support, data, size, outcome);
  } else {
    // Pieces of 1 to `seed` bytes, their lengths drawn from a simple sequence.
    std::size_t at = 0;
    unsigned state = seed;
    while (at < size) {
      state = state * 1103515245u + 12345u;
      std::size_t piece = 1 + (state >> 16) % seed;
      if (piece > size - at) piece = size - at;
      Feed(support, data + at, piece, outcome);
      at += piece;
    }
  }
  outcome.open = support.IsOpen();
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool hybi00 = (data[0] & 1) != 0;
  const std::uint8_t seed = static_cast<std::uint8_t>(1 + (data[0] >> 1));
  Outcome whole = Read(hybi00, data + 1, size - 1, 0);
  Outcome pieces = Read(hybi00, data + 1, size - 1, seed);
  // Once closed, a reader takes nothing more: a difference can only come before that point, so
  // the outcomes must agree whole.
  Veskan::Fuzzing::Require(whole == pieces);
  if (hybi00) {
    Veskan::Fuzzing::Require(whole.wire.empty() || whole.wire == std::string("\xff\x00", 2));
  } else {
    Veskan::Fuzzing::Require(whole.wire.empty() ||
                             whole.wire == std::string("\x88\x02\x03\xea", 4) ||
                             whole.wire == std::string("\x88\x02\x03\xf1", 4));
  }
  Veskan::Fuzzing::Require(whole.wire.empty() == whole.open);

  // The same bytes as an upgrade request must never crash, and a refused one answers nothing.
  WebSocketSupport handshake(Limit);
  std::vector<std::shared_ptr<Veskan::WSData>> events;
  std::string answer;
  if (Upgrade(handshake, data + 1, size - 1, events, answer) && handshake.HandshakeFailed()) {
    Veskan::Fuzzing::Require(answer.empty() && events.empty());
  }
  return 0;
}
