// WebSocket connections of a real server on loopback, driven by raw sockets: both handshakes,
// echoes, events in order, closing from either side, and clients that misbehave.
#include <veskan/Client.h>
#include <veskan/Daemon.h>
#include <veskan/Server.h>
#include <veskan/WSData.h>

#include "NetTestSupport.h"
#include "WebSocketFrames.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

using Testing::ClientFrame;
using Testing::RawConnection;
using Testing::TextFrame;

// Reads one unmasked server frame: its first byte and its payload; {-1, ""} when none came.
std::pair<int, std::string> ReadFrame(RawConnection& connection) {
  std::string head = connection.ReadBytes(2);
  if (head.size() != 2) return {-1, std::string()};
  std::uint64_t length = static_cast<unsigned char>(head[1]) & 0x7f;
  const int extended = length == 126 ? 2 : length == 127 ? 8 : 0;
  if (extended > 0) {
    length = 0;
    for (char byte : connection.ReadBytes(static_cast<std::size_t>(extended)))
      length = (length << 8) | static_cast<unsigned char>(byte);
  }
  return {static_cast<unsigned char>(head[0]),
          connection.ReadBytes(static_cast<std::size_t>(length))};
}

// Every test starts a server whose host notes each WebSocket event, as "CONNECT /ws", "MESSAGE a|b"
// or "DISCONNECT", with its connection and thread, and echoes each message while echo_ holds.
class WebSocketServerTest : public Testing::ServerFixture {
 protected:
  void SetUp() override { StartServer(); }

  void ConnectSlots() override {
    server_->WebSocketMessage.connect([this](const std::shared_ptr<Server>&,
                                             const std::shared_ptr<Client>& client,
                                             const std::shared_ptr<WSData>& data) {
      std::string text;
      switch (data->Method) {
        case Methods::WEBSOCKETCONNECT:
          text = "CONNECT " + client->WebSocketTarget().ToUTF8();
          break;
        case Methods::WEBSOCKETMESSAGE:
          text = "MESSAGE";
          for (const StringBuffer& message : data->Messages) {
            text += (text == "MESSAGE" ? " " : "|") + message.ToUTF8();
            if (echo_) client->WriteThroughWebSocket(message);
          }
          break;
        default:
          // Delivered while the socket is still open.
          text = client->GetSocket() >= 0 ? "DISCONNECT" : "DISCONNECT after the socket closed";
          break;
      }
      Note([&] {
        events_.emplace_back(client, text);
        eventThreads_.push_back(std::this_thread::get_id());
      });
    });
  }

  // Waits until `count` events have been seen; returns their texts.
  std::vector<std::string> WaitForEvents(std::size_t count) {
    std::vector<std::string> texts;
    WaitFor([&] {
      texts.clear();
      for (const auto& event : events_)
        texts.push_back(event.second);
      return events_.size() >= count;
    });
    return texts;
  }

  // Waits until the events, joined by ";", contain `text`; returns them joined.
  std::string WaitForText(const std::string& text) {
    std::string joined;
    WaitFor([&] {
      joined.clear();
      for (const auto& event : events_)
        joined += event.second + ";";
      return joined.find(text) != std::string::npos;
    });
    return joined;
  }

  std::shared_ptr<Client> ClientOfEvent(std::size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    return index < events_.size() ? events_[index].first : nullptr;
  }

  // Upgrades `connection` with the RFC 6455 handshake; true on "101".
  static bool Upgrade(RawConnection& connection, const std::string& target = "/ws") {
    connection.Send(Testing::Hybi17Request(target));
    return connection.ReadResponse().compare(0, 12, "HTTP/1.1 101") == 0;
  }

  bool echo_ = true;
  std::vector<std::pair<std::shared_ptr<Client>, std::string>> events_;
  std::vector<std::thread::id> eventThreads_;
};

TEST_F(WebSocketServerTest, EchoesMessagesOfTheRfc6455Protocol) {
  RawConnection connection(port_);
  connection.Send(Testing::Hybi17Request("/ws?room=1"));
  std::string answer = connection.ReadResponse();
  EXPECT_EQ(0u, answer.find("HTTP/1.1 101 Switching Protocols\r\n")) << answer;
  EXPECT_EQ("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", Testing::HeaderOf(answer, "Sec-WebSocket-Accept"));
  ASSERT_EQ("CONNECT /ws?room=1", WaitForEvents(1)[0]);
  std::shared_ptr<Client> client = ClientOfEvent(0);
  EXPECT_TRUE(client->IsWebSocket());
  EXPECT_GT(client->WebSocketNumber(), 0u);

  // Frames in one send, then a 300-byte frame one byte at a time, and a ping between them that
  // is neither delivered nor answered.
  connection.Send(TextFrame("one") + TextFrame("tw\xC3\xB6") + ClientFrame(0x89, "ping"));
  const std::string medium(300, 'm');
  for (char byte : TextFrame(medium))
    ASSERT_TRUE(connection.Send(std::string(1, byte)));
  EXPECT_EQ(std::make_pair(0x81, std::string("one")), ReadFrame(connection));
  EXPECT_EQ(std::make_pair(0x81, std::string("tw\xC3\xB6")), ReadFrame(connection));
  EXPECT_EQ(std::make_pair(0x81, medium), ReadFrame(connection));

  // A message the host writes on its own, from this thread, as UTF-8 text.
  EXPECT_TRUE(client->WriteThroughWebSocket(StringBuffer(u"from host \u00e9")));
  EXPECT_EQ(std::make_pair(0x81, std::string("from host \xC3\xA9")), ReadFrame(connection));

  std::string all = WaitForText(medium);
  // In order, however the reads divided them.
  EXPECT_LT(all.find("one"), all.find("tw\xC3\xB6")) << all;
  EXPECT_LT(all.find("tw\xC3\xB6"), all.find(medium)) << all;
  EXPECT_EQ(std::string::npos, all.find("ping")) << all;
}

TEST_F(WebSocketServerTest, EchoesMessagesOfTheHybi00ProtocolWithTheChallengeSentLater) {
  RawConnection connection(port_);
  const std::string request = Testing::Hybi00Request;
  connection.Send(request.substr(0, request.size() - 8));
  connection.Send(request.substr(request.size() - 8));
  std::string answer = connection.ReadResponse();
  EXPECT_EQ(0u, answer.find("HTTP/1.1 101 WebSocket Protocol Handshake\r\n")) << answer;
  EXPECT_EQ("ws://example.com/demo", Testing::HeaderOf(answer, "Sec-WebSocket-Location"));
  EXPECT_EQ(Testing::Hybi00Answer, connection.ReadBytes(16));
  ASSERT_EQ("CONNECT /demo", WaitForEvents(1)[0]);

  connection.Send(std::string("\x00hi\xff\x00", 5));
  connection.Send(std::string("there\xff", 6));
  EXPECT_EQ(std::string("\x00hi\xff\x00there\xff", 11), connection.ReadBytes(11));

  connection.Send(std::string("\xff\x00", 2));  // the closing frame: answered, then closed
  EXPECT_EQ(std::string("\xff\x00", 2), connection.ReadUntilClosed());
  std::string all = WaitForText("DISCONNECT");
  EXPECT_NE(std::string::npos, all.find("hi")) << all;
  EXPECT_NE(std::string::npos, all.find("there;DISCONNECT;")) << all;
}

TEST_F(WebSocketServerTest, EitherSideMayCloseAndTheHostHearsOfItOnce) {
  RawConnection connection(port_);
  ASSERT_TRUE(Upgrade(connection));
  ASSERT_EQ(1u, WaitForEvents(1).size());
  std::shared_ptr<Client> client = ClientOfEvent(0);
  server_->CloseWebSocket(client);
  EXPECT_EQ(std::string("\x88\x02\x03\xe8", 4), connection.ReadUntilClosed());
  EXPECT_EQ((std::vector<std::string>{"CONNECT /ws", "DISCONNECT"}), WaitForEvents(2));
  EXPECT_FALSE(client->IsWebSocket());
  EXPECT_FALSE(client->WriteThroughWebSocket(StringBuffer(u"late")));
  client->CloseWebSocket(1000);  // a second close changes nothing

  RawConnection leaving(port_);
  ASSERT_TRUE(Upgrade(leaving, "/leaving"));
  leaving.Close();
  EXPECT_EQ(
      (std::vector<std::string>{"CONNECT /ws", "DISCONNECT", "CONNECT /leaving", "DISCONNECT"}),
      WaitForEvents(4))
      << "one DISCONNECT each, the first before the next connection";
}

TEST_F(WebSocketServerTest, AMalformedFrameClosesOnlyItsConnection) {
  RawConnection bystander(port_);
  ASSERT_TRUE(Upgrade(bystander));
  RawConnection bad(port_);
  ASSERT_TRUE(Upgrade(bad));
  ASSERT_EQ(2u, WaitForEvents(2).size());
  // A length with its top bit set: protocol error 1002, then the connection goes.
  bad.Send(std::string("\x81\xff\x80\0\0\0\0\0\0\0\x01\x02\x03\x04", 14));
  EXPECT_EQ(std::string("\x88\x02\x03\xea", 4), bad.ReadUntilClosed());
  std::vector<std::string> events = WaitForEvents(3);
  ASSERT_EQ(3u, events.size());
  EXPECT_EQ("DISCONNECT", events[2]);

  bystander.Send(TextFrame("still here"));
  EXPECT_EQ(std::make_pair(0x81, std::string("still here")), ReadFrame(bystander));
  RawConnection http(port_);
  http.Send("GET /x HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(0u, http.ReadResponse().find("HTTP/1.1 200"));
}

TEST_F(WebSocketServerTest, ARefusedHandshakeOrAServerWithoutListenersAnswers400AndCloses) {
  RawConnection connection(port_);
  connection.Send(Testing::Hybi17Request("/ws", "Sec-WebSocket-Key"));
  EXPECT_EQ(0u, connection.ReadUntilClosed().find("HTTP/1.1 400 Bad Request\r\n"));
  // Nothing reached the host; a good upgrade afterwards is the first event.
  RawConnection good(port_);
  ASSERT_TRUE(Upgrade(good, "/second"));
  EXPECT_EQ("CONNECT /second", WaitForEvents(1)[0]);

  server_->WebSocketMessage.disconnect_all_slots();
  RawConnection unheard(port_);
  unheard.Send(Testing::Hybi17Request("/ws"));
  EXPECT_EQ(0u, unheard.ReadUntilClosed().find("HTTP/1.1 400 Bad Request\r\n"));
}

TEST_F(WebSocketServerTest, AnUpgradeBehindARequestWaitsForItsReplyOrBreaksTheProtocol) {
  // Answered at once: the reply leaves before the handshake's answer.
  {
    RawConnection connection(port_);
    connection.Send("GET /a HTTP/1.1\r\nHost: h\r\nConnection: keep-alive\r\n\r\n" +
                    Testing::Hybi17Request("/ws"));
    EXPECT_EQ(0u, connection.ReadResponse().find("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(0u, connection.ReadBytes(34).find("HTTP/1.1 101 Switching Protocols\r\n"));
  }
  // Not answered yet: the handshake's answer would overtake the reply, so the connection goes.
  server_->MessageReceivedDeferrable.connect(
      [](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
         const std::shared_ptr<Message>&, bool& answerLater) { answerLater = true; });
  RawConnection connection(port_);
  connection.Send("GET /a HTTP/1.1\r\nHost: h\r\nConnection: keep-alive\r\n\r\n" +
                  Testing::Hybi17Request("/ws"));
  std::string all = connection.ReadUntilClosed();
  EXPECT_EQ(std::string::npos, all.find("101")) << all;
}

TEST_F(WebSocketServerTest, AClientThatDoesNotReadIsClosedAtTheBacklogLimit) {
  echo_ = false;
  RawConnection connection(port_, 30);
  ASSERT_TRUE(Upgrade(connection));
  ASSERT_EQ(1u, WaitForEvents(1).size());
  std::shared_ptr<Client> client = ClientOfEvent(0);
  const StringBuffer megabyte(UTF8to16(std::string(1 << 20, 'x').c_str()));
  // The socket's buffers take a few megabytes; the engine holds up to the backlog limit more.
  const int most = static_cast<int>(Server::Limits().MaxWebSocketBacklog >> 20) + 64;
  int written = 0;
  while (written < most && client->WriteThroughWebSocket(megabyte))
    ++written;
  EXPECT_LT(written, most);
  EXPECT_GE(written, static_cast<int>(Server::Limits().MaxWebSocketBacklog >> 20));
  EXPECT_EQ("DISCONNECT", WaitForEvents(2).back());
}

class WebSocketWindowModeTest : public WebSocketServerTest {
 protected:
  void SetUp() override { StartServer(false); }
};

TEST_F(WebSocketWindowModeTest, EventsArriveOnTheOwnerThreadAndItsAnswersLeave) {
  RawConnection connection(port_);
  connection.Send(Testing::Hybi17Request("/ws") + TextFrame("window"));
  // The answers need this thread's event loop: read them on another one meanwhile.
  std::string answer;
  std::pair<int, std::string> echo;
  std::thread reader([&] {
    answer = connection.ReadResponse();
    echo = ReadFrame(connection);
    connection.Close();
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (Read(events_).size() < 3 && std::chrono::steady_clock::now() < deadline)
    DaemonMarshaller::RunEventLoopOnce();
  reader.join();
  EXPECT_EQ(0u, answer.find("HTTP/1.1 101"));
  EXPECT_EQ(std::make_pair(0x81, std::string("window")), echo);
  EXPECT_EQ((std::vector<std::string>{"CONNECT /ws", "MESSAGE window", "DISCONNECT"}),
            WaitForEvents(3));
  EXPECT_EQ(std::vector<std::thread::id>(3, std::this_thread::get_id()), Read(eventThreads_));
}

}  // namespace
}  // namespace Veskan
