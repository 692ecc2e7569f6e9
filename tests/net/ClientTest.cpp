// Outgoing connections against a plain listening socket of the test, and the shared buffer map.
#include <veskan/Client.h>
#include <veskan/Daemon.h>
#include <veskan/DaemonMarshaller.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace Veskan {
namespace {

// A listening socket on a loopback port of the system's choice; accepts one connection at a time.
class Listener {
 public:
  Listener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd_, 8) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ::close(fd_);
      fd_ = -1;
      return;
    }
    port_ = ntohs(address.sin_port);
  }
  ~Listener() {
    if (peer_ >= 0) ::close(peer_);
    if (fd_ >= 0) ::close(fd_);
  }

  int Port() const { return port_; }
  // Accepts the next connection (closing the one before); false when none came within 10 s.
  bool Accept() {
    timeval timeout{10, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (peer_ >= 0) ::close(peer_);
    peer_ = ::accept(fd_, nullptr, nullptr);
    if (peer_ >= 0) ::setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return peer_ >= 0;
  }
  // Reads what the accepted peer sent until `end` appears or it closes; the text read.
  std::string ReadUntil(const std::string& end) {
    std::string text;
    char chunk[4096];
    while (text.find(end) == std::string::npos) {
      ssize_t n = ::recv(peer_, chunk, sizeof chunk, 0);
      if (n <= 0) break;
      text.append(chunk, static_cast<std::size_t>(n));
    }
    return text;
  }
  bool Reply(const std::string& bytes) {
    return ::send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // True when the accepted peer has shut its sending side (a read gives 0).
  bool PeerFinished() {
    char byte;
    return ::recv(peer_, &byte, 1, 0) == 0;
  }
  void ClosePeer() {
    ::close(peer_);
    peer_ = -1;
  }

 private:
  int fd_ = -1;
  int peer_ = -1;
  int port_ = 0;
};

std::u16string UrlFor(int port, const char* path = "/") {
  std::string url = "http://127.0.0.1:" + std::to_string(port) + path;
  return std::u16string(url.begin(), url.end());
}

class ClientTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(Daemon::WaitForAllThreads(10)); }

  // Connects `client` to the listener and accepts the connection.
  void Connect(const std::shared_ptr<Client>& client) {
    ASSERT_TRUE(client->Connect(UrlFor(listener_.Port()).c_str()));
    ASSERT_TRUE(listener_.Accept());
    ASSERT_EQ(ClientStates::Connected, client->BlockUntil(ClientStates::Connected, 10));
  }

  // Sends a request for `path` and returns the head the listener received.
  std::shared_ptr<Message> Send(Client& client, Methods::Enumeration method, const char* path,
                                std::string& head) {
    auto message = Message::New();
    message->Open(method, UrlFor(listener_.Port(), path).c_str());
    EXPECT_TRUE(client.Send(message));
    head = listener_.ReadUntil("\r\n\r\n");
    return message;
  }

  Listener listener_;
};

TEST_F(ClientTest, RefusesUrlsWithoutAHostAndGivesUpOnAPortNobodyListensOn) {
  auto client = std::make_shared<Client>(true, nullptr, nullptr);
  EXPECT_FALSE(client->Connect(u"/relative"));
  EXPECT_FALSE(client->Connect(u"urn:isbn:0451450523"));
  EXPECT_EQ(ClientStates::Disconnected, client->State());
  int port;
  {
    Listener closed;
    port = closed.Port();
  }
  if (client->Connect(UrlFor(port).c_str())) {
    EXPECT_EQ(ClientStates::Disconnected, client->BlockUntil(ClientStates::Connected, 30));
    EXPECT_EQ(-1, client->BlockUntilCheck(ClientStates::Connected)) << "BlockUntil gives up";
  }
  EXPECT_EQ(SocketExceptions::ConnectionRefused, client->CloseReason());
}

TEST_F(ClientTest, DisconnectKeepsReadingUntilThePeerCloses) {
  auto client = std::make_shared<Client>(true, nullptr, nullptr);
  Connect(client);
  client->Disconnect(false);
  EXPECT_TRUE(listener_.PeerFinished()) << "the sending side is shut down";
  EXPECT_EQ(ClientStates::Disconnecting, client->State());
  EXPECT_GE(client->GetSocket(), 0) << "still open for reading";
  listener_.ClosePeer();
  EXPECT_EQ(ClientStates::Disconnected, client->BlockUntil(ClientStates::Disconnected, 10));
  EXPECT_EQ(SocketExceptions::NoMoreData, client->CloseReason());
}

TEST_F(ClientTest, SendsRequestsReconnectsAndAbortFinishesTheOneInFlight) {
  auto client = std::make_shared<Client>(true, nullptr, nullptr);
  Connect(client);
  EXPECT_FALSE(client->Send(Message::New())) << "an uninitialized message is refused";
  std::string head;
  auto message = Send(*client, Methods::GET, "/quiz?id=7", head);
  EXPECT_EQ(0u, head.find("GET /quiz?id=7 HTTP/1.1\r\n"));
  EXPECT_NE(std::string::npos,
            head.find("\r\nHost: 127.0.0.1:" + std::to_string(listener_.Port()) + "\r\n"));
  EXPECT_EQ(ReadyStates::Sent, message->BlockUntil(ReadyStates::Sent, 10));
  client->Abort(true);  // no reply will come: the waiting sender is released
  EXPECT_EQ(ReadyStates::Uninitialized, message->BlockUntil(ReadyStates::Loaded, 10));
  EXPECT_EQ(ClientStates::Disconnected, client->State());
  EXPECT_TRUE(listener_.PeerFinished());

  ASSERT_TRUE(client->Reconnect());
  ASSERT_TRUE(listener_.Accept());
  ASSERT_EQ(ClientStates::Connected, client->BlockUntil(ClientStates::Connected, 10));
  ASSERT_TRUE(client->Reconnect());
  EXPECT_TRUE(listener_.PeerFinished()) << "the connection before is closed";
  ASSERT_TRUE(listener_.Accept());
  ASSERT_EQ(ClientStates::Connected, client->BlockUntil(ClientStates::Connected, 10));
  Send(*client, Methods::DELETE, "/answer/3", head);
  EXPECT_EQ(0u, head.find("DELETE /answer/3 HTTP/1.1\r\n")) << "the new connection carries them";
  client->Abort(true);
}

TEST_F(ClientTest, AHandlerOnTheOwnerThreadMayStartAfresh) {
  // Window mode: the handlers run on this thread while the worker waits for them, in the middle
  // of reading the reply.
  auto client = std::make_shared<Client>(false, nullptr, nullptr);
  bool reconnected = false;
  client->MessageReceived.connect(
      [&reconnected](const std::shared_ptr<Client>& self, const std::shared_ptr<Message>&) {
        reconnected = self->Reconnect();
      });
  Connect(client);
  std::string head;
  Send(*client, Methods::GET, "/first", head);
  EXPECT_EQ(0u, head.find("GET /first HTTP/1.1\r\n"));
  ASSERT_TRUE(listener_.Reply("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!reconnected && std::chrono::steady_clock::now() < deadline)
    DaemonMarshaller::RunEventLoopOnce();
  ASSERT_TRUE(reconnected);

  ASSERT_TRUE(listener_.Accept());
  ASSERT_EQ(ClientStates::Connected, client->BlockUntil(ClientStates::Connected, 10));
  auto second = Send(*client, Methods::GET, "/second", head);
  EXPECT_EQ(0u, head.find("GET /second HTTP/1.1\r\n"));
  client->Abort(true);
  EXPECT_EQ(ReadyStates::Uninitialized, second->BlockUntil(ReadyStates::Loaded, 10));
}

TEST(SharedBufferMapTest, HandsBuffersOverByName) {
  Daemon::ClearByteBuffer();
  const unsigned char bytes[] = {1, 2, 3};
  Daemon::AddByteBuffer(StringBuffer(u"upload"), ByteBuffer(bytes, 0, 3));
  EXPECT_EQ(1, Daemon::ByteBufferMapCount());
  ByteBuffer found = Daemon::FindOrInsertByteBuffer(StringBuffer(u"upload"));
  ASSERT_EQ(3, found.Size());
  EXPECT_EQ(2, found[1]);
  EXPECT_EQ(0, Daemon::FindOrInsertByteBuffer(StringBuffer(u"new")).Size());
  EXPECT_EQ(2, Daemon::ByteBufferMapCount()) << "a missing name is inserted empty";
  Daemon::RemoveByteBuffer(StringBuffer(u"upload"));
  EXPECT_EQ(1, Daemon::ByteBufferMapCount());
  Daemon::ClearByteBuffer();
  EXPECT_EQ(0, Daemon::ByteBufferMapCount());
}

}  // namespace
}  // namespace Veskan
