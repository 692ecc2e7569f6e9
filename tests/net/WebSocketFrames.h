// What a WebSocket client sends, for tests: upgrade requests and masked frames.
#ifndef VESKAN_TESTS_NET_WEBSOCKETFRAMES_H
#define VESKAN_TESTS_NET_WEBSOCKETFRAMES_H

#include <cstddef>
#include <string>
#include <vector>

namespace Veskan {
namespace Testing {

// An RFC 6455 upgrade request as a browser sends it for `target`, without the header line that
// begins with `without` when one is named.
inline std::string Hybi17Request(const std::string& target = "/ws?room=1",
                                 const std::string& without = std::string()) {
  const std::vector<std::string> lines = {"Host: 127.0.0.1:8080",
                                          "Connection: keep-alive, Upgrade",
                                          "Upgrade: websocket",
                                          "Origin: http://127.0.0.1:8080",
                                          "Sec-WebSocket-Version: 13",
                                          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==",
                                          "Sec-WebSocket-Extensions: permessage-deflate"};
  std::string request = "GET " + target + " HTTP/1.1\r\n";
  for (const std::string& line : lines) {
    if (without.empty() || line.compare(0, without.size(), without) != 0) request += line + "\r\n";
  }
  return request + "\r\n";
}

// The example request of the hybi-00 protocol draft (with its 8 challenge bytes) and the 16-byte
// answer the draft gives for it.
constexpr char Hybi00Request[] =
    "GET /demo HTTP/1.1\r\n"
    "Host: example.com\r\n"
    "Connection: Upgrade\r\n"
    "Sec-WebSocket-Key2: 12998 5 Y3 1  .P00\r\n"
    "Sec-WebSocket-Protocol: sample\r\n"
    "Upgrade: WebSocket\r\n"
    "Sec-WebSocket-Key1: 4 @1  46546xW%0l 1 5\r\n"
    "Origin: http://example.com\r\n"
    "\r\n"
    "^n:ds[4U";
constexpr char Hybi00Answer[] = "8jKS'y:G*Co,Wxa-";

// A client frame with first byte `first`: masked unless told otherwise, with the length form the
// payload needs.
inline std::string ClientFrame(unsigned char first, const std::string& payload,
                               bool masked = true) {
  static const unsigned char key[4] = {0x37, 0xfa, 0x21, 0x3d};
  std::string frame(1, static_cast<char>(first));
  const unsigned char maskBit = masked ? 0x80 : 0;
  if (payload.size() < 126) {
    frame.push_back(static_cast<char>(maskBit | payload.size()));
  } else if (payload.size() <= 65535) {
    frame.push_back(static_cast<char>(maskBit | 126));
    frame.push_back(static_cast<char>(payload.size() >> 8));
    frame.push_back(static_cast<char>(payload.size() & 0xff));
  } else {
    frame.push_back(static_cast<char>(maskBit | 127));
    for (int shift = 56; shift >= 0; shift -= 8)
      frame.push_back(static_cast<char>((payload.size() >> shift) & 0xff));
  }
  if (masked) frame.append(reinterpret_cast<const char*>(key), 4);
  for (std::size_t i = 0; i < payload.size(); ++i)
    frame.push_back(masked ? static_cast<char>(payload[i] ^ key[i % 4]) : payload[i]);
  return frame;
}

// A masked final text frame.
inline std::string TextFrame(const std::string& payload) {
  return ClientFrame(0x81, payload);
}

}  // namespace Testing
}  // namespace Veskan

#endif
