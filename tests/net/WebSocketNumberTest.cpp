// The first connection upgraded in a process is number 1: a process of its own, so that no other
// test has upgraded one before.
#include "net/websocket/WebSocketSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace Veskan {
namespace {

TEST(WebSocketNumberTest, TheFirstUpgradedConnectionIsNumberOne) {
  const std::string request =
      "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
  Detail::WebSocketSupport refused(1024);
  Detail::WebSocketSupport first(1024);
  Detail::WebSocketSupport second(1024);
  std::vector<std::shared_ptr<WSData>> events;
  std::string wire;
  const std::string bad = "GET / HTTP/1.1\r\n\r\n";
  refused.Feed(bad.data(), bad.size(), events, wire);  // a refused handshake takes no number
  EXPECT_EQ(0u, refused.ConnectionNumber());
  EXPECT_EQ(0u, first.ConnectionNumber());
  ASSERT_EQ(Detail::WebSocketSupport::Deliver,
            first.Feed(request.data(), request.size(), events, wire));
  ASSERT_EQ(Detail::WebSocketSupport::Deliver,
            second.Feed(request.data(), request.size(), events, wire));
  EXPECT_EQ(1u, first.ConnectionNumber());
  EXPECT_EQ(2u, second.ConnectionNumber());
}

}  // namespace
}  // namespace Veskan
