// The server with real peers on loopback: raw sockets for protocol details, the library's own
// outgoing connection, and curl for ordinary use.
#include <veskan/Client.h>
#include <veskan/Daemon.h>
#include <veskan/Server.h>

#include "NetTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

using Testing::AnswerWithTheRequest;
using Testing::BodyOf;
using Testing::Get;
using Testing::HeaderOf;
using Testing::RawConnection;

using ServerTest = Testing::ServerFixture;

TEST_F(ServerTest, KeepsTheConnectionOnlyForAConnectionHeaderOtherThanClose) {
  StartServer();
  const std::pair<std::string, bool> cases[] = {
      {"", false}, {"Connection: close\r\n", false}, {"Connection: Keep-Alive\r\n", true}};
  for (const auto& [header, keepAlive] : cases) {
    SCOPED_TRACE(header);
    RawConnection connection(port_);
    for (const std::string target : {"/a", "/b", "/c"}) {
      ASSERT_TRUE(connection.Send(Get(target, header)));
      const std::string response = connection.ReadResponse();
      EXPECT_EQ("HTTP/1.1 200 OK\r\n", response.substr(0, 17));
      EXPECT_EQ("GET " + target + "|", BodyOf(response));
      EXPECT_EQ(keepAlive ? "keep-alive" : "close", HeaderOf(response, "Connection"));
      if (!keepAlive) {
        EXPECT_TRUE(connection.WaitForClose()) << "closed after the reply";
        break;
      }
    }
  }
}

TEST_F(ServerTest, AnswersPipelinedRequestsInOrder) {
  // In window mode each request waits for the owner's event loop before the next is read.
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "window mode");
    StartServer(direct);
    std::atomic<bool> done{false};
    std::vector<std::string> bodies;
    std::thread peer([&] {
      RawConnection connection(port_);
      std::string requests;
      for (int i = 0; i < 20; ++i) {
        requests += Get("/p" + std::to_string(i), "Connection: keep-alive\r\n");
      }
      requests += "POST /last HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";  // no keep-alive: the end
      if (connection.Send(requests)) {
        for (int i = 0; i < 21; ++i)
          bodies.push_back(BodyOf(connection.ReadResponse()));
        EXPECT_TRUE(connection.WaitForClose());
      }
      done = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done && std::chrono::steady_clock::now() < deadline)
      DaemonMarshaller::RunEventLoopOnce();
    peer.join();
    ASSERT_EQ(21u, bodies.size());
    for (int i = 0; i < 20; ++i)
      EXPECT_EQ("GET /p" + std::to_string(i) + "|", bodies[static_cast<std::size_t>(i)]);
    EXPECT_EQ("POST /last|body", bodies.back());
    server_->Stop(200);
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(0, seen_.bodiesReadBeforeTheirHeaders)
        << "HeadersComplete reaches the host before the body is read, however it arrives";
  }
}

TEST_F(ServerTest, ReadsBodiesAndPartsThatArriveInPieces) {
  StartServer();
  RawConnection connection(port_);
  // Each body follows only once the server has read its headers, in pieces cut inside sizes,
  // data, line ends and delimiters.
  const std::string form =
      "--XyZ\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nfirst\r\n"
      "--XyZ\r\nContent-Disposition: form-data; name=\"b\"; filename=\"b.txt\"\r\n"
      "Content-Type: text/plain\r\n\r\nsecond\r\nline\r\n--XyZ--\r\n";
  const struct {
    std::string head;
    int declaredLength;
    std::vector<std::string> pieces;
    std::string answer;
  } cases[] = {
      {"PUT /length HTTP/1.1\r\nContent-Length: 11\r\n",
       11,
       {"hel", "lo ", "wor", "ld"},
       "PUT /length|hello world"},
      {"POST /chunked HTTP/1.1\r\nTransfer-Encoding: chunked\r\n",
       -1,
       {"5\r", "\nhel", "lo\r\n", "A;ext=1\r\n 0123456", "78\r\n0\r\n", "Trailer: x\r\n", "\r\n"},
       "POST /chunked|hello 012345678"},
      {"POST /upload HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=XyZ\r\n"
       "Content-Length: " +
           std::to_string(form.size()) + "\r\n",
       static_cast<int>(form.size()),
       {form.substr(0, 60), form.substr(60)},
       "POST /upload|" + form},
  };
  std::size_t headers = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.head);
    ASSERT_TRUE(connection.Send(c.head + "Connection: keep-alive\r\n\r\n"));
    ASSERT_TRUE(WaitFor([&] { return seen_.declaredLengths.size() == headers + 1; }));
    EXPECT_EQ(c.declaredLength, Read(seen_.declaredLengths)[headers++]);
    for (const std::string& piece : c.pieces)
      ASSERT_TRUE(connection.Send(piece));
    EXPECT_EQ(c.answer, BodyOf(connection.ReadResponse()));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_EQ((std::vector<std::pair<int, std::string>>{{0, "first"}, {1, "second\r\nline"}}),
            seen_.parts);
}

TEST_F(ServerTest, AnswersThePolicyProbeWithoutHttp) {
  StartServer();
  RawConnection connection(port_);
  ASSERT_TRUE(connection.Send("<policy-file-request/>"));
  std::string answer = connection.ReadUntilClosed();
  ASSERT_FALSE(answer.empty());
  EXPECT_EQ('\0', answer.back()) << "the answer ends with a NUL byte";
  EXPECT_EQ(0u, answer.find("<?xml version=\"1.0\" encoding=\"UTF-8\"?><cross-domain-policy"));
  EXPECT_NE(std::string::npos,
            answer.find("<allow-access-from domain=\"127.0.0.1\" to-ports=\"*\"  />"));
  EXPECT_EQ(std::string::npos, answer.find("HTTP/1.1"));
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_TRUE(seen_.handlerThreads.empty());
}

TEST_F(ServerTest, PlacesThe31stAnd61stConnectionsOnNewDaemons) {
  StartServer();
  EXPECT_EQ(1, Daemon::DaemonCount());
  std::vector<std::unique_ptr<RawConnection>> connections;
  std::vector<int> daemonsAfter;
  for (int i = 0; i < 61; ++i) {
    connections.push_back(std::make_unique<RawConnection>(port_));
    ASSERT_TRUE(connections.back()->Send(Get("/n", "Connection: keep-alive\r\n")));
    ASSERT_EQ("GET /n|", BodyOf(connections.back()->ReadResponse()));
    daemonsAfter.push_back(Daemon::DaemonCount());
  }
  EXPECT_EQ(1, daemonsAfter[29]);
  EXPECT_EQ(2, daemonsAfter[30]) << "the 31st connection";
  EXPECT_EQ(2, daemonsAfter[59]);
  EXPECT_EQ(3, daemonsAfter[60]) << "the 61st connection";
}

TEST_F(ServerTest, RunsHandlersOnAWorkerOrInWindowModeOnTheOwnerThread) {
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "window mode");
    StartServer(direct);
    std::atomic<bool> done{false};
    std::string responses;
    std::thread peer([&] {
      RawConnection connection(port_);
      connection.Send(Get("/one", "Connection: keep-alive\r\n"));
      responses = BodyOf(connection.ReadResponse());
      connection.Send(Get("/two"));
      responses += BodyOf(connection.ReadResponse());
      done = true;
    });
    // In window mode the owner's event loop runs the handlers.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done && std::chrono::steady_clock::now() < deadline)
      DaemonMarshaller::RunEventLoopOnce();
    peer.join();
    EXPECT_EQ("GET /one|GET /two|", responses);
    server_->Stop(200);
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_EQ(2u, seen_.handlerThreads.size());
    for (const std::thread::id& id : seen_.handlerThreads)
      EXPECT_EQ(!direct, std::this_thread::get_id() == id);
    seen_.handlerThreads.clear();
  }
}

TEST_F(ServerTest, AReplyGivenLaterFromAnotherThreadLeaves) {
  std::mutex mutex;
  std::condition_variable ready;
  std::vector<std::pair<std::shared_ptr<Client>, std::shared_ptr<Message>>> pending;
  handler_ = [&](const std::shared_ptr<Client>& client, const std::shared_ptr<Message>& message,
                 bool& answerLater) {
    answerLater = true;
    std::lock_guard<std::mutex> lock(mutex);
    pending.emplace_back(client, message);
    ready.notify_all();
  };
  StartServer();
  RawConnection connection(port_);
  for (int round = 0; round < 3; ++round) {
    const std::string target = "/later" + std::to_string(round);
    ASSERT_TRUE(connection.Send(Get(target, "Connection: keep-alive\r\n")));
    std::pair<std::shared_ptr<Client>, std::shared_ptr<Message>> exchange;
    {
      std::unique_lock<std::mutex> lock(mutex);
      ASSERT_TRUE(ready.wait_for(lock, std::chrono::seconds(10), [&] { return !pending.empty(); }));
      exchange = pending.front();
      pending.clear();
    }
    std::thread answering([&] {
      AnswerWithTheRequest(exchange.second);
      EXPECT_TRUE(exchange.first->Send(exchange.second));
    });
    EXPECT_EQ("GET " + target + "|", BodyOf(connection.ReadResponse()));
    answering.join();
  }
}

TEST_F(ServerTest, StopClosesOpenConnectionsAndEndsWithStopped) {
  StartServer();
  // More than one daemon's worth, so that the disconnections come from several threads.
  std::vector<std::unique_ptr<RawConnection>> connections;
  for (int i = 0; i < 35; ++i) {
    connections.push_back(std::make_unique<RawConnection>(port_));
    ASSERT_TRUE(connections.back()->Send(Get("/s", "Connection: keep-alive\r\n")));
    ASSERT_FALSE(connections.back()->ReadResponse().empty());
  }
  ASSERT_TRUE(WaitFor([this] { return seen_.connected == 35; }));
  server_->Stop(300);  // the peers do not close: they are aborted after the grace time
  EXPECT_EQ(ServerStates::Stopped, server_->State());
  EXPECT_EQ(0, server_->Port());
  for (auto& connection : connections)
    EXPECT_TRUE(connection->WaitForClose());
  EXPECT_EQ(0, server_->Connections().Count());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(35u, seen_.closeReasons.size());
    ASSERT_GE(seen_.order.size(), 37u);
    EXPECT_EQ("Stopping", seen_.order[seen_.order.size() - 37]);
    EXPECT_EQ("Stopped", seen_.order.back()) << "every ClientDisconnected came before Stopped";
  }
  RawConnection refused(port_, 2);
  EXPECT_FALSE(refused.IsOpen() && refused.Send(Get("/x")) && !refused.ReadResponse().empty());
}

TEST_F(ServerTest, AClientThatPipelinesWithoutReadingIsHeldBackNotBuffered) {
  // A megabyte reply, shared: what a pipelining client costs must not grow with its requests.
  const std::string big(1 << 20, 'x');
  auto bigContent = std::make_shared<Content>(reinterpret_cast<const unsigned char*>(big.data()),
                                              static_cast<int>(big.size()));
  bigContent->Sealed(Content::Types::ApplicationOctetStream);
  std::atomic<int> bigAnswered{0};
  handler_ = [&](const std::shared_ptr<Client>&, const std::shared_ptr<Message>& message, bool&) {
    auto lock = message->Lock();
    if (message->Url->Path != StringBuffer(u"/big")) return AnswerWithTheRequest(message);
    ++bigAnswered;
    message->StatusCode = 200;
    message->Reply->Headers.Add(Header(StringBuffer(u"Content-Type"),
                                       StringBuffer(Content::Types::ApplicationOctetStream)));
    message->Reply->Content = bigContent;
  };
  StartServer();
  constexpr int Requests = 60;
  std::string requests;
  for (int i = 0; i < Requests; ++i)
    requests += Get("/big", "Connection: keep-alive\r\n");
  RawConnection greedy(port_, 30);
  ASSERT_TRUE(greedy.Send(requests));  // all of it fits the socket buffers
  ASSERT_TRUE(WaitFor([this] { return !seen_.handlerThreads.empty(); }));
  RawConnection bystander(port_);  // the same worker serves both
  ASSERT_TRUE(bystander.Send(Get("/fresh")));
  EXPECT_EQ("GET /fresh|", BodyOf(bystander.ReadResponse()));
  // Only what the kernel's buffers take, and a reply beyond, was answered; the rest waits unread.
  EXPECT_LT(bigAnswered.load(), 20);
  // Nothing is lost: once the client reads, every reply arrives whole and in order.
  for (int i = 0; i < Requests; ++i) {
    std::string response = greedy.ReadResponse();
    ASSERT_EQ(big.size(), BodyOf(response).size()) << "reply " << i;
  }
  EXPECT_EQ(Requests, bigAnswered.load());
}

TEST_F(ServerTest, TheConnectionListHoldsExactlyTheOpenConnections) {
  StartServer();
  // Held connections spread the new ones over several daemons, whose workers race the accepting
  // one to serve and close them.
  std::vector<std::unique_ptr<RawConnection>> held;
  for (int i = 0; i < 40; ++i) {
    held.push_back(std::make_unique<RawConnection>(port_));
    ASSERT_TRUE(held.back()->Send(Get("/held", "Connection: keep-alive\r\n")));
    ASSERT_FALSE(held.back()->ReadResponse().empty());
  }
  constexpr int Threads = 4;
  constexpr int PerThread = 60;
  std::vector<std::thread> peers;
  for (int t = 0; t < Threads; ++t) {
    peers.emplace_back([this] {
      for (int i = 0; i < PerThread; ++i) {
        RawConnection once(port_);
        once.Send(Get("/once", "Connection: close\r\n"));
        once.ReadResponse();
      }
    });
  }
  for (std::thread& peer : peers)
    peer.join();
  ASSERT_TRUE(WaitFor([this] { return seen_.closeReasons.size() == Threads * PerThread; }));
  EXPECT_TRUE(WaitForConnectionCount(40));
}

TEST_F(ServerTest, RequestsThatTrickleInAreCutOffAndTheirDescriptorsGiveBack) {
  Server::Limits limits;
  limits.HeadTimeoutSeconds = 1;
  limits.BodyTimeoutSeconds = 1;
  limits.MinBodyBytesPerSecond = 1000;
  StartServer(true, limits);
  const int descriptorsBefore = Testing::CountOpenDescriptors();
  {
    // A head and a body that keep coming, a byte at a time: never idle, never complete.
    struct Trickle {
      std::string start;
      std::string detail;
    };
    const Trickle trickles[] = {
        {"GET /slow HTTP/1.1\r\nX-", "request head too slow"},
        {"POST /slow HTTP/1.1\r\nContent-Length: 100000\r\n\r\n", "request body too slow"},
    };
    for (const Trickle& trickle : trickles) {
      SCOPED_TRACE(trickle.detail);
      RawConnection slow(port_);
      ASSERT_TRUE(slow.Send(trickle.start));
      bool cut = false;
      for (int i = 0; i < 100 && !cut; ++i) {                         // 10 s at most
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the peer's pace
        cut = !slow.Send("a");
      }
      EXPECT_TRUE(cut || slow.WaitForClose());
      ASSERT_TRUE(WaitFor([&] { return !seen_.closeDetails.empty(); }));
      std::lock_guard<std::mutex> lock(mutex_);
      EXPECT_EQ(SocketExceptions::DataRefused, seen_.closeReasons.back());
      EXPECT_EQ(trickle.detail, seen_.closeDetails.back());
      seen_.closeDetails.clear();
    }
    // Many heads that stall: each is closed once its time is up, on every daemon.
    std::vector<std::unique_ptr<RawConnection>> stalled;
    for (int i = 0; i < 200; ++i) {
      stalled.push_back(std::make_unique<RawConnection>(port_));
      ASSERT_TRUE(stalled.back()->Send("GET / HTTP/1.1\r\nHost"));
    }
    for (auto& connection : stalled)
      EXPECT_TRUE(connection->WaitForClose());
    ASSERT_TRUE(WaitFor([this] { return seen_.closeReasons.size() == 202; }));
    EXPECT_TRUE(WaitForConnectionCount(0));
  }
  // The daemons that served them end, and every descriptor is given back.
  for (int i = 0; i < 100 && Testing::CountOpenDescriptors() != descriptorsBefore; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(descriptorsBefore, Testing::CountOpenDescriptors());
}

TEST_F(ServerTest, TakesAPortOfTheSystemsChoiceWhenItsPortIsTaken) {
  StartServer();
  std::string base = "http://127.0.0.1:" + std::to_string(port_) + "/";
  StringBuffer url = UTF8to16(base.c_str());

  auto strict = std::make_shared<Server>(true, nullptr, nullptr);
  EXPECT_FALSE(strict->Start(url.getTerminatedBuffer(), false));
  EXPECT_EQ(ServerStates::Stopped, strict->State());

  auto retrying = std::make_shared<Server>(true, nullptr, nullptr);
  ASSERT_TRUE(retrying->Start(url.getTerminatedBuffer(), true));
  EXPECT_NE(port_, retrying->Port());
  EXPECT_GT(retrying->Port(), 0);
  RawConnection connection(retrying->Port());
  ASSERT_TRUE(connection.Send(Get("/retry")));
  EXPECT_EQ("HTTP/1.1 404 Not Found", connection.ReadResponse().substr(0, 22))
      << "nobody answers on that server";
  retrying->Stop(200);
}

// One case per way the daemon ends a request: a violation the reader finds, a header block that
// fills the buffer, a declared body above the limit, a peer that stops. What the reader refuses is
// tested on the reader.
TEST_F(ServerTest, BadClientsLoseOnlyTheirOwnConnection) {
  StartServer();
  Server::Limits limits;
  limits.MaxBodySize = 1 << 20;
  server_->SetLimits(limits);
  RawConnection bystander(port_);
  std::string headerBlock = "GET / HTTP/1.1\r\n";
  while (headerBlock.size() < (1 << 20))
    headerBlock += "X-Filler: " + std::string(100, 'f') + "\r\n";
  const struct {
    const char* name;
    std::string bytes;
    SocketExceptions::Enumeration reason;
  } cases[] = {
      {"garbage", std::string("\x16\x03\x01\x02\x00 no request\r\n\r\n", 19),
       SocketExceptions::HTTPProtocolViolation},
      {"1 MiB header block", headerBlock, SocketExceptions::HTTPProtocolViolation},
      {"huge Content-Length", "POST / HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\nabc",
       SocketExceptions::HTTPProtocolViolation},
      {"stops mid-request", "POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc",
       SocketExceptions::NoMoreData},
  };
  int closed = 0;
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.name);
    {
      RawConnection connection(port_);
      connection.Send(bad.bytes);  // may fail half-way: the server stops reading
      if (bad.reason == SocketExceptions::NoMoreData) connection.ShutdownSend();
      EXPECT_TRUE(connection.WaitForClose());
    }
    ++closed;
    ASSERT_TRUE(WaitFor([&] { return static_cast<int>(seen_.closeReasons.size()) == closed; }));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      EXPECT_EQ(bad.reason, seen_.closeReasons.back());
    }
    ASSERT_TRUE(bystander.Send(Get("/still", "Connection: keep-alive\r\n")));
    EXPECT_EQ("GET /still|", BodyOf(bystander.ReadResponse()));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_EQ(static_cast<std::size_t>(closed), seen_.handlerThreads.size())
      << "only the bystander's requests reached the host";
}

// The virtual size of this process in KiB: an allocation of a declared length would show here
// even while its pages are untouched.
long VirtualSizeKiB() {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) return -1;
  char line[256];
  long size = -1;
  while (std::fgets(line, sizeof line, status) != nullptr) {
    if (std::sscanf(line, "VmSize: %ld kB", &size) == 1) break;
  }
  std::fclose(status);
  return size;
}

TEST_F(ServerTest, MemoryFollowsTheBytesThatArriveNotTheDeclaredLength) {
  StartServer();
  Server::Limits limits;
  limits.MaxBodySize = 2000000000;
  server_->SetLimits(limits);
  long before = VirtualSizeKiB();
  ASSERT_GT(before, 0);
  std::vector<std::unique_ptr<RawConnection>> liars;
  for (int i = 0; i < 8; ++i) {
    liars.push_back(std::make_unique<RawConnection>(port_));
    ASSERT_TRUE(liars.back()->Send("POST /big HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\nabc"));
  }
  ASSERT_TRUE(WaitFor([this] { return seen_.declaredLengths.size() == 8; }));
  RawConnection bystander(port_);
  ASSERT_TRUE(bystander.Send(Get("/small")));
  EXPECT_EQ("GET /small|", BodyOf(bystander.ReadResponse()));
  EXPECT_EQ(2000000000, Read(seen_.declaredLengths)[0]);
  EXPECT_LT(VirtualSizeKiB() - before, 256 * 1024) << "8 bodies of 2 GB were not allocated";
}

TEST_F(ServerTest, OutgoingConnectionSendsARequestAndReadsTheReply) {
  StartServer();
  auto client = std::make_shared<Client>(true, nullptr, nullptr);
  std::string url = "http://127.0.0.1:" + std::to_string(port_) + "/";
  ASSERT_TRUE(client->Connect(UTF8to16(url.c_str()).getTerminatedBuffer()));
  ASSERT_EQ(ClientStates::Connected, client->BlockUntil(ClientStates::Connected, 10));

  auto message = Message::New();
  std::string target = url + "out?x=1";
  message->Open(Methods::POST, UTF8to16(target.c_str()).getTerminatedBuffer());
  {
    auto lock = message->Lock();
    message->Request->Headers.Add(Header(StringBuffer(u"Connection"), StringBuffer(u"keep-alive")));
    message->Request->Content = std::make_shared<Content>(u"payload");
  }
  ASSERT_TRUE(client->Send(message));
  ASSERT_EQ(ReadyStates::Loaded, message->BlockUntil(ReadyStates::Loaded, 10));
  {
    auto lock = message->Lock();
    EXPECT_EQ(200, message->StatusCode);
    ASSERT_TRUE(message->Reply->Content);
    EXPECT_EQ("POST /out?x=1|payload",
              std::string(reinterpret_cast<const char*>(message->Reply->Content->Data()),
                          static_cast<std::size_t>(message->Reply->Content->Size())));
  }
  client->Disconnect(false);
  EXPECT_EQ(ClientStates::Disconnected, client->BlockUntil(ClientStates::Disconnected, 10));
}

TEST_F(ServerTest, ServesCurl) {
  StartServer();
  const std::string curl = "curl -s http://127.0.0.1:" + std::to_string(port_);
  const auto run = [&curl](const std::string& arguments) {
    return Testing::RunCommand(curl + arguments);
  };
  EXPECT_EQ("GET /plain?q=1|", run("'/plain?q=1'"));
  EXPECT_EQ("POST /form|a=1&b=2", run("/form -d 'a=1&b=2'"));
  EXPECT_EQ("PUT /put|data", run("/put -X PUT --data-binary data"));
  EXPECT_EQ("DELETE /gone|", run("/gone -X DELETE"));
  EXPECT_EQ(0u, run("/multi -F a=hello -F b=world").find("POST /multi|--"));
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_EQ((std::vector<std::pair<int, std::string>>{{0, "hello"}, {1, "world"}}), seen_.parts);
}

}  // namespace
}  // namespace Veskan
