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

// One event as the host saw it: "CONNECT /ws", "MESSAGE a|b", "DISCONNECT".
struct Event {
  std::shared_ptr<Client> client;
  std::string text;
};

// Reads one unmasked server frame: its first byte and its payload; {-1, ""} when none came.
std::pair<int, std::string> ReadFrame(RawConnection& connection) {
  std::string head = connection.ReadBytes(2);
  if (head.size() != 2) return {-1, std::string()};
  std::uint64_t length = static_cast<unsigned char>(head[1]) & 0x7f;
  int extended = length == 126 ? 2 : length == 127 ? 8 : 0;
  if (extended > 0) {
    std::string bytes = connection.ReadBytes(static_cast<std::size_t>(extended));
    length = 0;
    for (char byte : bytes)
      length = (length << 8) | static_cast<unsigned char>(byte);
  }
  return {static_cast<unsigned char>(head[0]),
          connection.ReadBytes(static_cast<std::size_t>(length))};
}

class WebSocketServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = std::make_shared<Server>(true, nullptr, nullptr);
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
      {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(Event{client, text});
      }
      changed_.notify_all();
    });
    server_->MessageReceived.connect([](const std::shared_ptr<Server>&,
                                        const std::shared_ptr<Client>&,
                                        const std::shared_ptr<Message>& message) {
      auto lock = message->Lock();
      message->StatusCode = 200;
    });
    ASSERT_TRUE(server_->Start(u"http://localhost:0/"));
  }

  void TearDown() override {
    server_->Stop(200);
    server_.reset();
    EXPECT_TRUE(Daemon::WaitForAllThreads(10));
  }

  // Waits (at most 10 s) until `count` events have been seen; returns their texts.
  std::vector<std::string> WaitForEvents(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return events_.size() >= count; });
    std::vector<std::string> texts;
    for (const Event& event : events_)
      texts.push_back(event.text);
    return texts;
  }

  // Waits (at most 10 s) until the events, joined by ";", contain `text`; returns them joined.
  std::string WaitForText(const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::string joined;
    changed_.wait_for(lock, std::chrono::seconds(10), [&] {
      joined.clear();
      for (const Event& event : events_)
        joined += event.text + ";";
      return joined.find(text) != std::string::npos;
    });
    return joined;
  }

  std::shared_ptr<Client> ClientOfEvent(std::size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    return index < events_.size() ? events_[index].client : nullptr;
  }

  // Upgrades `connection` with the RFC 6455 handshake; true on "101".
  static bool Upgrade(RawConnection& connection, const std::string& target = "/ws") {
    connection.Send(Testing::Hybi17Request(target));
    return connection.ReadResponse().compare(0, 12, "HTTP/1.1 101") == 0;
  }

  std::shared_ptr<Server> server_;
  bool echo_ = true;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

TEST_F(WebSocketServerTest, EchoesMessagesOfTheRfc6455Protocol) {
  RawConnection connection(server_->Port());
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
  RawConnection connection(server_->Port());
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
  RawConnection connection(server_->Port());
  ASSERT_TRUE(Upgrade(connection));
  ASSERT_EQ(1u, WaitForEvents(1).size());
  std::shared_ptr<Client> client = ClientOfEvent(0);
  server_->CloseWebSocket(client);
  EXPECT_EQ(std::string("\x88\x02\x03\xe8", 4), connection.ReadUntilClosed());
  EXPECT_EQ((std::vector<std::string>{"CONNECT /ws", "DISCONNECT"}), WaitForEvents(2));
  EXPECT_FALSE(client->IsWebSocket());
  EXPECT_FALSE(client->WriteThroughWebSocket(StringBuffer(u"late")));
  client->CloseWebSocket(1000);  // a second close changes nothing

  RawConnection leaving(server_->Port());
  ASSERT_TRUE(Upgrade(leaving, "/leaving"));
  leaving.Close();
  EXPECT_EQ(
      (std::vector<std::string>{"CONNECT /ws", "DISCONNECT", "CONNECT /leaving", "DISCONNECT"}),
      WaitForEvents(4))
      << "one DISCONNECT each, the first before the next connection";
}

TEST_F(WebSocketServerTest, AMalformedFrameClosesOnlyItsConnection) {
  RawConnection bystander(server_->Port());
  ASSERT_TRUE(Upgrade(bystander));
  RawConnection bad(server_->Port());
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
  RawConnection http(server_->Port());
  http.Send("GET /x HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(0u, http.ReadResponse().find("HTTP/1.1 200"));
}

TEST_F(WebSocketServerTest, ARefusedHandshakeOrAServerWithoutListenersAnswers400AndCloses) {
  RawConnection connection(server_->Port());
  connection.Send(Testing::Hybi17Request("/ws", "Sec-WebSocket-Key"));
  EXPECT_EQ(0u, connection.ReadUntilClosed().find("HTTP/1.1 400 Bad Request\r\n"));
  // Nothing reached the host; a good upgrade afterwards is the first event.
  RawConnection good(server_->Port());
  ASSERT_TRUE(Upgrade(good, "/second"));
  EXPECT_EQ("CONNECT /second", WaitForEvents(1)[0]);

  server_->WebSocketMessage.disconnect_all_slots();
  RawConnection unheard(server_->Port());
  unheard.Send(Testing::Hybi17Request("/ws"));
  EXPECT_EQ(0u, unheard.ReadUntilClosed().find("HTTP/1.1 400 Bad Request\r\n"));
}

TEST_F(WebSocketServerTest, AnUpgradeBehindARequestWaitsForItsReplyOrBreaksTheProtocol) {
  // Answered at once: the reply leaves before the handshake's answer.
  {
    RawConnection connection(server_->Port());
    connection.Send("GET /a HTTP/1.1\r\nHost: h\r\nConnection: keep-alive\r\n\r\n" +
                    Testing::Hybi17Request("/ws"));
    EXPECT_EQ(0u, connection.ReadResponse().find("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(0u, connection.ReadBytes(34).find("HTTP/1.1 101 Switching Protocols\r\n"));
  }
  // Not answered yet: the handshake's answer would overtake the reply, so the connection goes.
  server_->MessageReceivedDeferrable.connect(
      [](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
         const std::shared_ptr<Message>&, bool& answerLater) { answerLater = true; });
  RawConnection connection(server_->Port());
  connection.Send("GET /a HTTP/1.1\r\nHost: h\r\nConnection: keep-alive\r\n\r\n" +
                  Testing::Hybi17Request("/ws"));
  std::string all = connection.ReadUntilClosed();
  EXPECT_EQ(std::string::npos, all.find("101")) << all;
}

TEST_F(WebSocketServerTest, AClientThatDoesNotReadIsClosedAtTheBacklogLimit) {
  echo_ = false;
  RawConnection connection(server_->Port(), 30);
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

TEST(WebSocketWindowModeTest, EventsArriveOnTheOwnerThreadAndItsAnswersLeave) {
  auto server = std::make_shared<Server>(false, nullptr, nullptr);
  std::vector<std::thread::id> threads;
  std::vector<Methods::Enumeration> methods;
  server->WebSocketMessage.connect([&](const std::shared_ptr<Server>&,
                                       const std::shared_ptr<Client>& client,
                                       const std::shared_ptr<WSData>& data) {
    threads.push_back(std::this_thread::get_id());
    methods.push_back(data->Method);
    for (const StringBuffer& message : data->Messages)
      client->WriteThroughWebSocket(StringBuffer(u"re: ") + message);
  });
  ASSERT_TRUE(server->Start(u"http://localhost:0/"));
  RawConnection connection(server->Port());
  connection.Send(Testing::Hybi17Request("/ws") + TextFrame("window"));
  // The answers need this thread's event loop: read them on another one meanwhile.
  std::string answer;
  std::pair<int, std::string> echo;
  std::thread reader([&] {
    answer = connection.ReadResponse();
    echo = ReadFrame(connection);
    connection.Close();
  });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (methods.size() < 3 && std::chrono::steady_clock::now() < deadline)
    DaemonMarshaller::RunEventLoopOnce();
  reader.join();
  EXPECT_EQ(0u, answer.find("HTTP/1.1 101"));
  EXPECT_EQ(std::make_pair(0x81, std::string("re: window")), echo);
  EXPECT_EQ((std::vector<Methods::Enumeration>{Methods::WEBSOCKETCONNECT, Methods::WEBSOCKETMESSAGE,
                                               Methods::WEBSOCKETDISCONNECT}),
            methods);
  for (std::thread::id id : threads)
    EXPECT_EQ(std::this_thread::get_id(), id);
  server->Stop(200);
  EXPECT_TRUE(Daemon::WaitForAllThreads(10));
}

}  // namespace
}  // namespace Veskan
