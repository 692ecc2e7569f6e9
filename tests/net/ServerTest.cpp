// The server with real peers on loopback: raw sockets for protocol details, the library's own
// outgoing connection, and curl for ordinary use.
#include <veskan/Client.h>
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/Server.h>

#include "RawConnection.h"

#include <gtest/gtest.h>

#include <dirent.h>
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

using Testing::BodyOf;
using Testing::HeaderOf;
using Testing::RawConnection;

std::string Text(const StringBuffer& text) {
  return std::string(static_cast<const char*>(UTF16to8(text)));
}

// What the host saw, guarded for the worker threads that report it.
struct Observations {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::thread::id> handlerThreads;
  std::vector<SocketExceptions::Enumeration> closeReasons;
  std::vector<std::pair<int, std::string>> parts;  // index and payload
  std::vector<int> declaredLengths;
  std::vector<std::string> closeDetails;
  int bodiesReadBeforeTheirHeaders = 0;  // HeadersComplete came after the body was read
  // ClientDisconnected ("-") and server states ("Stopping", "Stopped"...) in the order delivered.
  std::vector<std::string> order;
  int connected = 0;
  int disconnected = 0;

  // Waits (at most 10 s) until `condition` holds under the lock.
  template <typename Condition>
  bool WaitFor(Condition condition) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), condition);
  }
};

class ServerTest : public ::testing::Test {
 protected:
  using Handler =
      std::function<void(const std::shared_ptr<Client>&, const std::shared_ptr<Message>&, bool&)>;

  void TearDown() override {
    if (server_) server_->Stop(200);
    server_.reset();
    EXPECT_TRUE(Daemon::WaitForAllThreads(10)) << "daemon threads still running";
  }

  // Starts a server on a port the system chooses. The default handler answers 200 with
  // "METHOD target|body".
  void StartServer(bool direct = true, const Server::Limits& limits = Server::Limits()) {
    server_ = std::make_shared<Server>(direct, nullptr, nullptr);
    server_->SetLimits(limits);
    server_->MessageReceivedDeferrable.connect(
        [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client,
               const std::shared_ptr<Message>& message, bool& answerLater) {
          {
            std::lock_guard<std::mutex> lock(seen_.mutex);
            seen_.handlerThreads.push_back(std::this_thread::get_id());
          }
          seen_.changed.notify_all();
          if (handler_) {
            handler_(client, message, answerLater);
            return;
          }
          Answer(message);
        });
    server_->ClientConnected.connect(
        [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&) {
          std::lock_guard<std::mutex> lock(seen_.mutex);
          ++seen_.connected;
          seen_.changed.notify_all();
        });
    server_->ClientConnected.connect([this](const std::shared_ptr<Server>&,
                                            const std::shared_ptr<Client>& client) {
      client->Closed.connect([this](const std::shared_ptr<Client>&, const std::shared_ptr<Message>&,
                                    const StringBuffer&, const StringBuffer& detail) {
        std::lock_guard<std::mutex> lock(seen_.mutex);
        seen_.closeDetails.push_back(Text(detail));
      });
    });
    server_->ClientDisconnected.connect(
        [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client) {
          std::lock_guard<std::mutex> lock(seen_.mutex);
          ++seen_.disconnected;
          seen_.closeReasons.push_back(client->CloseReason());
          seen_.order.push_back("-");
          seen_.changed.notify_all();
        });
    server_->StateChanged.connect([this](const std::shared_ptr<Server>& server) {
      std::lock_guard<std::mutex> lock(seen_.mutex);
      seen_.order.push_back(Text(StringBuffer(ServerStates::ToString(server->State()))));
    });
    server_->HeadersComplete.connect(
        [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
               const std::shared_ptr<Message>& message, const std::shared_ptr<Part>&, int length) {
          bool bodyRead;
          {
            auto messageLock = message->Lock();
            bodyRead = message->Request->Content != nullptr;
          }
          std::lock_guard<std::mutex> lock(seen_.mutex);
          seen_.declaredLengths.push_back(length);
          seen_.bodiesReadBeforeTheirHeaders += bodyRead ? 1 : 0;
          seen_.changed.notify_all();
        });
    server_->PartReceived.connect(
        [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
               const std::shared_ptr<Message>&, const std::shared_ptr<Part>& part, int index) {
          std::lock_guard<std::mutex> lock(seen_.mutex);
          seen_.parts.emplace_back(index,
                                   std::string(reinterpret_cast<const char*>(part->Content->Data()),
                                               static_cast<std::size_t>(part->Content->Size())));
          seen_.changed.notify_all();
        });
    ASSERT_TRUE(server_->Start(u"http://127.0.0.1:0/", false));
    ASSERT_EQ(ServerStates::Started, server_->State());
    port_ = server_->Port();
    ASSERT_GT(port_, 0);
  }

  static void Answer(const std::shared_ptr<Message>& message) {
    auto lock = message->Lock();
    std::string text = Text(StringBuffer(Methods::ToString(message->Method))) + " " +
                       Text(message->Url->Text) + "|";
    if (message->Request->Content) {
      text.append(reinterpret_cast<const char*>(message->Request->Content->Data()),
                  static_cast<std::size_t>(message->Request->Content->Size()));
    }
    message->StatusCode = 200;
    message->Reply->Headers.Add(Header(StringBuffer(u"Content-Type"), StringBuffer(u"text/plain")));
    message->Reply->Content = std::make_shared<Content>(
        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  }

  // Waits (at most 2 s) until the server lists `count` connections: a connection leaves the list
  // right after its ClientDisconnected.
  bool WaitForConnectionCount(int count) {
    for (int i = 0; i < 200 && server_->Connections().Count() != count; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return server_->Connections().Count() == count;
  }

  std::string Get(const std::string& target, const std::string& headers = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: test\r\n" + headers + "\r\n";
  }

  std::shared_ptr<Server> server_;
  int port_ = 0;
  Observations seen_;
  Handler handler_;
};

TEST_F(ServerTest, KeepsTheConnectionOnlyForAConnectionHeaderOtherThanClose) {
  StartServer();
  {
    RawConnection connection(port_);
    ASSERT_TRUE(connection.Send(Get("/a")));
    std::string response = connection.ReadResponse();
    EXPECT_EQ("HTTP/1.1 200 OK", response.substr(0, response.find("\r\n")));
    EXPECT_EQ("GET /a|", BodyOf(response));
    EXPECT_EQ("close", HeaderOf(response, "Connection"));
    EXPECT_TRUE(connection.WaitForClose()) << "no Connection header: closed after the reply";
  }
  {
    RawConnection connection(port_);
    ASSERT_TRUE(connection.Send(Get("/b", "Connection: close\r\n")));
    EXPECT_EQ("GET /b|", BodyOf(connection.ReadResponse()));
    EXPECT_TRUE(connection.WaitForClose());
  }
  {
    RawConnection connection(port_);
    for (const char* target : {"/c", "/d", "/e"}) {
      ASSERT_TRUE(connection.Send(Get(target, "Connection: Keep-Alive\r\n")));
      std::string response = connection.ReadResponse();
      EXPECT_EQ(std::string("GET ") + target + "|", BodyOf(response));
      EXPECT_EQ("keep-alive", HeaderOf(response, "Connection"));
    }
  }
}

TEST_F(ServerTest, AnswersPipelinedRequestsInOrder) {
  StartServer();
  RawConnection connection(port_);
  std::string requests;
  for (int i = 0; i < 20; ++i) {
    requests += Get("/p" + std::to_string(i), "Connection: keep-alive\r\n");
  }
  requests += "POST /last HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";  // no keep-alive: the end
  ASSERT_TRUE(connection.Send(requests));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ("GET /p" + std::to_string(i) + "|", BodyOf(connection.ReadResponse()));
  }
  EXPECT_EQ("POST /last|body", BodyOf(connection.ReadResponse()));
  EXPECT_TRUE(connection.WaitForClose());
  std::lock_guard<std::mutex> lock(seen_.mutex);
  EXPECT_EQ(0, seen_.bodiesReadBeforeTheirHeaders)
      << "HeadersComplete reaches the host before the body is read, however it arrives";
}

TEST_F(ServerTest, ReadsBodiesThatArriveInPieces) {
  StartServer();
  RawConnection connection(port_);
  // Length-delimited: the body follows only once the server has read the headers.
  ASSERT_TRUE(connection.Send(
      "PUT /length HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: 11\r\n\r\n"));
  ASSERT_TRUE(seen_.WaitFor([this] { return seen_.declaredLengths.size() == 1; }));
  EXPECT_EQ(11, seen_.declaredLengths[0]);
  for (const char* piece : {"hel", "lo ", "wor", "ld"})
    ASSERT_TRUE(connection.Send(piece));
  EXPECT_EQ("PUT /length|hello world", BodyOf(connection.ReadResponse()));

  // Chunked (RFC 7230 section 4.1), cut inside sizes, data and line ends.
  ASSERT_TRUE(connection.Send(
      "POST /chunked HTTP/1.1\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n"));
  ASSERT_TRUE(seen_.WaitFor([this] { return seen_.declaredLengths.size() == 2; }));
  EXPECT_EQ(-1, seen_.declaredLengths[1]);
  for (const char* piece :
       {"5\r", "\nhel", "lo\r\n", "A;ext=1\r\n 0123456", "78\r\n0\r\n", "Trailer: x\r\n", "\r\n"}) {
    ASSERT_TRUE(connection.Send(piece));
  }
  EXPECT_EQ("POST /chunked|hello 012345678", BodyOf(connection.ReadResponse()));
}

TEST_F(ServerTest, DeliversMultipartPartsThroughThePartSignal) {
  StartServer();
  RawConnection connection(port_);
  std::string body =
      "--XyZ\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nfirst\r\n"
      "--XyZ\r\nContent-Disposition: form-data; name=\"b\"; filename=\"b.txt\"\r\n"
      "Content-Type: text/plain\r\n\r\nsecond\r\nline\r\n"
      "--XyZ--\r\n";
  ASSERT_TRUE(
      connection.Send("POST /upload HTTP/1.1\r\nContent-Type: multipart/form-data; "
                      "boundary=XyZ\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body.substr(0, 60)));
  ASSERT_TRUE(connection.Send(body.substr(60)));
  EXPECT_EQ("POST /upload|" + body, BodyOf(connection.ReadResponse()));
  std::lock_guard<std::mutex> lock(seen_.mutex);
  ASSERT_EQ(2u, seen_.parts.size());
  EXPECT_EQ(std::make_pair(0, std::string("first")), seen_.parts[0]);
  EXPECT_EQ(std::make_pair(1, std::string("second\r\nline")), seen_.parts[1]);
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
  std::lock_guard<std::mutex> lock(seen_.mutex);
  EXPECT_TRUE(seen_.handlerThreads.empty());
}

TEST_F(ServerTest, PlacesThe31stAnd61stConnectionsOnNewDaemons) {
  std::mutex linesMutex;
  std::vector<std::string> created;
  Logger::Severity::Enumeration threshold = Logger::Threshold();
  Logger::SetThreshold(Logger::Severity::Debug);
  Logger::Sink previous =
      Logger::SetSink([&](Logger::Severity::Enumeration, const char* message, int) {
        std::string line(message);
        if (line.find("New Daemon Created:") != std::string::npos) {
          std::lock_guard<std::mutex> lock(linesMutex);
          created.push_back(line);
        }
      });
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
  Logger::SetSink(previous);
  Logger::SetThreshold(threshold);
  EXPECT_EQ(1, daemonsAfter[29]);
  EXPECT_EQ(2, daemonsAfter[30]) << "the 31st connection";
  EXPECT_EQ(2, daemonsAfter[59]);
  EXPECT_EQ(3, daemonsAfter[60]) << "the 61st connection";
  std::lock_guard<std::mutex> lock(linesMutex);
  EXPECT_EQ(2u, created.size());
}

TEST_F(ServerTest, DirectModeRunsHandlersOnAWorker) {
  StartServer(true);
  RawConnection connection(port_);
  ASSERT_TRUE(connection.Send(Get("/direct")));
  EXPECT_EQ("GET /direct|", BodyOf(connection.ReadResponse()));
  std::lock_guard<std::mutex> lock(seen_.mutex);
  ASSERT_EQ(1u, seen_.handlerThreads.size());
  EXPECT_NE(std::this_thread::get_id(), seen_.handlerThreads[0]);
}

TEST_F(ServerTest, WindowModeRunsHandlersOnTheOwnerThread) {
  StartServer(false);
  std::atomic<bool> done{false};
  std::string response;
  std::thread peer([&] {
    RawConnection connection(port_);
    connection.Send(Get("/window", "Connection: keep-alive\r\n"));
    response = connection.ReadResponse();
    connection.Send(Get("/again"));
    response += connection.ReadResponse();
    done = true;
  });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done && std::chrono::steady_clock::now() < deadline) {
    DaemonMarshaller::RunEventLoopOnce();  // the owner's event loop runs the handlers
  }
  peer.join();
  EXPECT_NE(std::string::npos, response.find("GET /window|"));
  EXPECT_NE(std::string::npos, response.find("GET /again|"));
  std::lock_guard<std::mutex> lock(seen_.mutex);
  ASSERT_EQ(2u, seen_.handlerThreads.size());
  for (const std::thread::id& id : seen_.handlerThreads)
    EXPECT_EQ(std::this_thread::get_id(), id);
}

TEST_F(ServerTest, AReplyGivenLaterFromAnotherThreadLeavesAtOnce) {
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
  std::vector<double> delays;
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(
        connection.Send(Get("/later" + std::to_string(round), "Connection: keep-alive\r\n")));
    std::pair<std::shared_ptr<Client>, std::shared_ptr<Message>> exchange;
    {
      std::unique_lock<std::mutex> lock(mutex);
      ASSERT_TRUE(ready.wait_for(lock, std::chrono::seconds(10), [&] { return !pending.empty(); }));
      exchange = pending.front();
      pending.clear();
    }
    std::chrono::steady_clock::time_point sent;
    std::thread answering([&] {
      Answer(exchange.second);
      sent = std::chrono::steady_clock::now();
      EXPECT_TRUE(exchange.first->Send(exchange.second));
    });
    std::string response = connection.ReadResponse();
    auto arrived = std::chrono::steady_clock::now();
    answering.join();
    EXPECT_EQ("GET /later" + std::to_string(round) + "|", BodyOf(response));
    delays.push_back(std::chrono::duration<double, std::milli>(arrived - sent).count());
  }
  std::sort(delays.begin(), delays.end());
  // The worker is woken by the send: waiting for a poll time-out instead would take up to a
  // second. The bound is loose for slow, shared machines.
  EXPECT_LT(delays[delays.size() / 2], 100.0);
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
  ASSERT_TRUE(seen_.WaitFor([this] { return seen_.connected == 35; }));
  server_->Stop(300);  // the peers do not close: they are aborted after the grace time
  EXPECT_EQ(ServerStates::Stopped, server_->State());
  EXPECT_EQ(0, server_->Port());
  for (auto& connection : connections)
    EXPECT_TRUE(connection->WaitForClose());
  EXPECT_EQ(0, server_->Connections().Count());
  {
    std::lock_guard<std::mutex> lock(seen_.mutex);
    EXPECT_EQ(35, seen_.disconnected);
    ASSERT_GE(seen_.order.size(), 37u);
    EXPECT_EQ("Stopping", seen_.order[seen_.order.size() - 37]);
    EXPECT_EQ("Stopped", seen_.order.back()) << "every ClientDisconnected came before Stopped";
  }
  RawConnection refused(port_, 2);
  EXPECT_FALSE(refused.IsOpen() && refused.Send(Get("/x")) && !refused.ReadResponse().empty());
}

// The number of descriptors this process holds.
int OpenDescriptors() {
  int count = 0;
  if (DIR* folder = opendir("/proc/self/fd")) {
    while (readdir(folder) != nullptr)
      ++count;
    closedir(folder);
  }
  return count;
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
    if (message->Url->Path != StringBuffer(u"/big")) return Answer(message);
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
  ASSERT_TRUE(seen_.WaitFor([this] { return !seen_.handlerThreads.empty(); }));
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
  ASSERT_TRUE(seen_.WaitFor([this] { return seen_.disconnected == Threads * PerThread; }));
  EXPECT_TRUE(WaitForConnectionCount(40));
}

TEST_F(ServerTest, RequestsThatTrickleInAreCutOffAndTheirDescriptorsGiveBack) {
  Server::Limits limits;
  limits.HeadTimeoutSeconds = 1;
  limits.BodyTimeoutSeconds = 1;
  limits.MinBodyBytesPerSecond = 1000;
  StartServer(true, limits);
  const int descriptorsBefore = OpenDescriptors();
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
      ASSERT_TRUE(seen_.WaitFor([&] { return !seen_.closeDetails.empty(); }));
      std::lock_guard<std::mutex> lock(seen_.mutex);
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
    ASSERT_TRUE(seen_.WaitFor([this] { return seen_.disconnected == 202; }));
    EXPECT_TRUE(WaitForConnectionCount(0));
  }
  // The daemons that served them end, and every descriptor is given back.
  for (int i = 0; i < 100 && OpenDescriptors() != descriptorsBefore; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(descriptorsBefore, OpenDescriptors());
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
      {"garbage without a line end", "BREW /pot", SocketExceptions::HTTPProtocolViolation},
      {"HTTP/1.0", "GET / HTTP/1.0\r\n\r\n", SocketExceptions::HTTPProtocolViolation},
      {"1 MiB header block", headerBlock, SocketExceptions::HTTPProtocolViolation},
      {"huge Content-Length", "POST / HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\nabc",
       SocketExceptions::HTTPProtocolViolation},
      {"body above the limit",
       "POST / HTTP/1.1\r\nContent-Length: 2097152\r\n\r\n" + std::string(64 * 1024, 'b'),
       SocketExceptions::HTTPProtocolViolation},
      {"both lengths",
       "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n3\r\nabc\r\n",
       SocketExceptions::HTTPProtocolViolation},
      {"NUL byte", std::string("GET /\0 HTTP/1.1\r\n\r\n", 19),
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
    ASSERT_TRUE(
        seen_.WaitFor([&] { return static_cast<int>(seen_.closeReasons.size()) == closed; }));
    {
      std::lock_guard<std::mutex> lock(seen_.mutex);
      EXPECT_EQ(bad.reason, seen_.closeReasons.back());
    }
    ASSERT_TRUE(bystander.Send(Get("/still", "Connection: keep-alive\r\n")));
    EXPECT_EQ("GET /still|", BodyOf(bystander.ReadResponse()));
  }
  std::lock_guard<std::mutex> lock(seen_.mutex);
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
  ASSERT_TRUE(seen_.WaitFor([this] { return seen_.declaredLengths.size() == 8; }));
  RawConnection bystander(port_);
  ASSERT_TRUE(bystander.Send(Get("/small")));
  EXPECT_EQ("GET /small|", BodyOf(bystander.ReadResponse()));
  EXPECT_EQ(2000000000, seen_.declaredLengths[0]);
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
  std::string base = "http://127.0.0.1:" + std::to_string(port_);
  auto run = [](const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return output;
    char chunk[4096];
    std::size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
      output.append(chunk, n);
    pclose(pipe);
    return output;
  };
  EXPECT_EQ("GET /plain?q=1|", run("curl -s '" + base + "/plain?q=1'"));
  EXPECT_EQ("POST /form|a=1&b=2", run("curl -s -d 'a=1&b=2' " + base + "/form"));
  EXPECT_EQ("PUT /put|data", run("curl -s -X PUT --data-binary data " + base + "/put"));
  EXPECT_EQ("DELETE /gone|", run("curl -s -X DELETE " + base + "/gone"));
  EXPECT_EQ(
      "GET /one|GET /two|",
      run("curl -s " + base + "/one " + base + "/two"));  // two connections, one after the other
  std::string multipart = run("curl -s -F a=hello -F b=world " + base + "/multi");
  EXPECT_EQ(0u, multipart.find("POST /multi|--"));
  std::lock_guard<std::mutex> lock(seen_.mutex);
  ASSERT_EQ(2u, seen_.parts.size());
  EXPECT_EQ("hello", seen_.parts[0].second);
  EXPECT_EQ("world", seen_.parts[1].second);
}

}  // namespace
}  // namespace Veskan
