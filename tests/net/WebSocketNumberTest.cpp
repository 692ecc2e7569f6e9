// The first connection upgraded in a process is number 1: a process of its own, so that no other
// test has upgraded one before.
#include "net/websocket/WebSocketSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace Veskan {
namespace {

TEST(WebSocketNumberTest, TheFirstUpgradedConnectionIsNumberOne) {
  WebsocketSpecifications::UpgradeRequest request("/");
  request.Add("Host", "h");
  request.Add("Upgrade", "websocket");
  request.Add("Connection", "Upgrade");
  request.Add("Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ==");
  request.Add("Sec-WebSocket-Version", "13");
  Detail::WebSocketSupport refused(1024);
  Detail::WebSocketSupport first(1024);
  Detail::WebSocketSupport second(1024);
  std::vector<std::shared_ptr<WSData>> events;
  std::string wire;
  // A refused handshake takes no number.
  refused.Upgrade(WebsocketSpecifications::UpgradeRequest("/"), nullptr, 0, events, wire);
  EXPECT_EQ(0u, refused.ConnectionNumber());
  EXPECT_EQ(0u, first.ConnectionNumber());
  ASSERT_EQ(Detail::WebSocketSupport::Deliver, first.Upgrade(request, nullptr, 0, events, wire));
  ASSERT_EQ(Detail::WebSocketSupport::Deliver, second.Upgrade(request, nullptr, 0, events, wire));
  EXPECT_EQ(1u, first.ConnectionNumber());
  EXPECT_EQ(2u, second.ConnectionNumber());
}

}  // namespace
}  // namespace Veskan
