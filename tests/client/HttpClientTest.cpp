// HttpClient against real peers: veskan-serve (plain and TLS with a throw-away certificate) and
// small Python servers that challenge, stall, never end their headers or their content, or play
// a proxy.
#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/HttpClient.h>
#include <veskan/Message.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using Testing::ChildProcess;

// A peer process and the base URL it listens on.
struct Peer {
  std::unique_ptr<ChildProcess> process;
  std::string base;  // "http://127.0.0.1:PORT"
  std::string port;
};

Peer StartPython(const std::string& mode) {
  Peer peer;
  peer.process.reset(new ChildProcess({"/usr/bin/python3", VESKAN_CLIENT_PEER, mode}, 1));
  std::string line = peer.process->LineWith("listening on ", 30);
  peer.port = line.empty() ? "" : line.substr(line.rfind(' ') + 1);
  peer.base = "http://127.0.0.1:" + peer.port;
  return peer;
}

Peer StartVeskanServe(const std::vector<std::string>& options = {}) {
  std::vector<std::string> arguments{VESKAN_SERVE_PATH, "--port", "0", "--direct"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  Peer peer;
  peer.process.reset(new ChildProcess(arguments, 1));
  std::string line = peer.process->LineWith("listening on ", 30);
  std::size_t scheme = line.find("://");
  if (scheme == std::string::npos) return peer;
  peer.base = line.substr(line.find("http"), line.size() - 1 - line.find("http"));
  peer.port = line.substr(line.rfind(':') + 1, line.size() - line.rfind(':') - 2);
  return peer;
}

std::shared_ptr<Message> Opened(Methods::Enumeration method, const std::string& target) {
  std::shared_ptr<Message> message = Message::New();
  message->Open(method, StringBuffer(target.c_str()).getTerminatedBuffer());
  return message;
}

// The reply's content as bytes ("" without content).
std::string ReplyBytes(const std::shared_ptr<Message>& message) {
  auto lock = message->Lock();
  const std::shared_ptr<Content>& content = message->Reply->Content;
  if (!content) return std::string();
  return std::string(static_cast<const char*>(*content), static_cast<std::size_t>(content->Size()));
}

std::string ReplyHeader(const std::shared_ptr<Message>& message, const char16_t* name) {
  auto lock = message->Lock();
  const Header::Collection& headers = message->Reply->Headers;
  return headers[name].ToUTF8();
}

// The ready states a message is announced, in order.
class StateLog {
 public:
  explicit StateLog(const std::shared_ptr<Message>& message) {
    message->ReadyStateChanged.connect([this](const std::shared_ptr<Message>& changed) {
      std::lock_guard<std::mutex> lock(mutex_);
      states_.push_back(changed->ReadyState);
    });
  }
  std::vector<ReadyStates::Enumeration> States() {
    std::lock_guard<std::mutex> lock(mutex_);
    return states_;
  }

 private:
  std::mutex mutex_;
  std::vector<ReadyStates::Enumeration> states_;
};

// A port on which nothing listens: bound by the system's choice, then closed.
std::string RefusedPort() {
  int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(socket);
  return std::to_string(ntohs(address.sin_port));
}

TEST(HttpClientTest, PreparesSendsAndReadsTheReplyOfVeskanServe) {
  Peer serve = StartVeskanServe();
  ASSERT_FALSE(serve.port.empty());
  HttpClient client;
  EXPECT_FALSE(client.Send(Opened(Methods::GET, "/hello"), false));  // not connected yet
  ASSERT_TRUE(client.Connect(StringBuffer((serve.base + "/").c_str()).getTerminatedBuffer()));
  EXPECT_EQ(client.State(), ClientStates::Connected);

  std::shared_ptr<Message> hello = Opened(Methods::GET, "/hello");
  StateLog log(hello);
  EXPECT_TRUE(client.Send(hello, false));
  EXPECT_EQ(log.States(), (std::vector<ReadyStates::Enumeration>{
                              ReadyStates::Sent, ReadyStates::Receiving, ReadyStates::Loaded}));
  EXPECT_EQ(hello->StatusCode, 200);
  EXPECT_EQ(ReplyBytes(hello), "Hello, world!");
  EXPECT_EQ(ReplyHeader(hello, u"Content-Length"), "13");
  EXPECT_FALSE(client.Send(hello, false));  // Loaded, not Open

  // The request as the server parsed it: Host with the port, a guessed and sealed type, the
  // length in bytes, the cookies, the host's own headers as given, and the request to keep the
  // connection, without which this server closes it after every reply.
  std::shared_ptr<Message> echo = Opened(Methods::POST, "/echo?quiz=7");
  {
    auto lock = echo->Lock();
    echo->Request->Content = std::make_shared<Content>(u"r\u00e9ponse");
    echo->Request->Headers.Add(Header(u"X-Quiz", u"  seven "));
    echo->Request->Cookies[u"session"]->Value = u"abc";
  }
  EXPECT_TRUE(client.Send(echo, false));
  EXPECT_EQ(echo->StatusCode, 200);
  ASSERT_TRUE(echo->Reply->IsXml());
  const std::string described = ReplyBytes(echo);
  for (const std::string& expected : std::vector<std::string>{
           "method=\"POST\"", "<query name=\"quiz\">7</query>",
           "<header name=\"Host\">127.0.0.1:" + serve.port + "</header>",
           "<header name=\"Content-Type\">text/plain</header>",
           "<header name=\"Content-Length\">8</header>", "<header name=\"X-Quiz\">seven</header>",
           "<header name=\"Connection\">Keep-Alive</header>", " name=\"session\">abc</cookie>",
           "<content length=\"8\""})
    EXPECT_NE(described.find(expected), std::string::npos) << expected << " in " << described;
  EXPECT_EQ(described.find("Accept"), std::string::npos) << "no header of libcurl's own";
  {
    auto lock = echo->Lock();
    EXPECT_EQ(StringBuffer(echo->Request->MediaType.Text), StringBuffer(u"text/plain"));
  }

  client.Disconnect(true);
  EXPECT_EQ(client.State(), ClientStates::Disconnected);
  EXPECT_FALSE(client.Send(Opened(Methods::GET, "/hello"), false));
  EXPECT_FALSE(client.Connect(u"ftp://127.0.0.1/"));
  EXPECT_FALSE(client.Connect(u"/no/host"));
}

// One connection carries the sequential sends; background sends all end Loaded, and
// Disconnect(true) waits for the ones still in flight.
TEST(HttpClientTest, ReusesConnectionsAndRunsTransfersInTheBackground) {
  Peer peer = StartPython("port");
  ASSERT_FALSE(peer.port.empty());
  auto client = std::make_shared<HttpClient>();
  ASSERT_TRUE(client->Connect(Opened(Methods::GET, peer.base + "/any")));
  std::vector<std::string> ports;
  for (int send = 0; send < 3; ++send) {
    std::shared_ptr<Message> message = Opened(Methods::GET, "/port");
    ASSERT_TRUE(client->Send(message, false));
    ports.push_back(ReplyBytes(message));
  }
  EXPECT_EQ(ports[0], ports[1]);
  EXPECT_EQ(ports[1], ports[2]);

  std::vector<std::shared_ptr<Message>> messages;
  std::vector<std::unique_ptr<StateLog>> logs;
  for (int send = 0; send < 40; ++send) {
    messages.push_back(Opened(Methods::GET, "/port"));
    logs.emplace_back(new StateLog(messages.back()));
    ASSERT_TRUE(client->Send(messages.back(), true));
  }
  client->Disconnect(true);
  for (std::size_t index = 0; index < messages.size(); ++index) {
    EXPECT_EQ(messages[index]->ReadyState, ReadyStates::Loaded);
    EXPECT_EQ(messages[index]->StatusCode, 200);
    EXPECT_EQ(logs[index]->States().size(), 3u);
  }
}

TEST(HttpClientTest, DisconnectWithoutWaitingCancelsTransfersInFlight) {
  Peer peer = StartPython("silent");
  ASSERT_FALSE(peer.port.empty());
  HttpClient client;
  ASSERT_TRUE(client.Connect(StringBuffer(peer.base.c_str()).getTerminatedBuffer()));
  std::vector<std::shared_ptr<Message>> messages;
  for (int send = 0; send < 3; ++send) {
    messages.push_back(Opened(Methods::GET, "/never"));
    ASSERT_TRUE(client.Send(messages.back(), true));
  }
  ASSERT_EQ(messages[0]->BlockUntil(ReadyStates::Loaded, 0.3), ReadyStates::Sent);
  client.Disconnect(false);
  for (const std::shared_ptr<Message>& message : messages) {
    EXPECT_EQ(message->StatusCode, 500);
    EXPECT_EQ(ReplyBytes(message), "42");
    EXPECT_EQ(ReplyHeader(message, u"Content-Type"), "text/plain");
  }
}

// Every failure ends Loaded with 504 for a time-out, 500 otherwise, and libcurl's number; a
// server that never ends its headers or its content costs a bounded amount.
TEST(HttpClientTest, FailedTransfersCarryLibcurlsNumber) {
  struct Case {
    std::string mode;  // a Python peer, or "" for a refused port
    int status;
    std::string number;
  };
  const std::vector<Case> cases{{"", 500, "7"},
                                {"silent", 504, "28"},
                                {"headers", 500, "23"},
                                {"body", 500, "23"},
                                {"length", 500, "63"}};
  for (const Case& failing : cases) {
    SCOPED_TRACE(failing.mode);
    Peer peer;
    if (failing.mode.empty())
      peer.base = "http://127.0.0.1:" + RefusedPort();
    else
      peer = StartPython(failing.mode);
    HttpClient client;
    client.SetRequestTimeOut(1);
    client.SetMaxReplyBytes(1024 * 1024);
    ASSERT_TRUE(client.Connect(StringBuffer(peer.base.c_str()).getTerminatedBuffer()));
    std::shared_ptr<Message> message = Opened(Methods::GET, "/fail");
    StateLog log(message);
    EXPECT_FALSE(client.Send(message, false));
    EXPECT_EQ(message->StatusCode, failing.status);
    EXPECT_EQ(ReplyBytes(message), failing.number);
    EXPECT_EQ(ReplyHeader(message, u"Content-Type"), "text/plain");
    EXPECT_TRUE(message->Failure());
    EXPECT_EQ(log.States().back(), ReadyStates::Loaded);
  }
}

TEST(HttpClientTest, ACredentialPromptIsAskedAtMostThreeTimes) {
  Peer peer = StartPython("challenge");
  ASSERT_FALSE(peer.port.empty());
  HttpClient client;
  ASSERT_TRUE(client.Connect(StringBuffer(peer.base.c_str()).getTerminatedBuffer()));

  std::shared_ptr<Message> unprompted = Opened(Methods::GET, "/private/");
  EXPECT_TRUE(client.Send(unprompted, false));
  EXPECT_EQ(unprompted->StatusCode, 401);
  EXPECT_EQ(ReplyBytes(unprompted), "0");

  std::vector<HttpClient::CredentialRequest> asked;
  client.SetCredentialPrompt(
      [&asked](const HttpClient::CredentialRequest& request, HttpClient::Credentials& answer) {
        asked.push_back(request);
        answer.UserName = u"teacher";
        answer.Password = u"wrong";
        return true;
      });
  std::shared_ptr<Message> prompted = Opened(Methods::GET, "/private/");
  EXPECT_TRUE(client.Send(prompted, false));
  EXPECT_EQ(prompted->StatusCode, 401);
  // One request with credentials per answer.
  EXPECT_EQ(ReplyBytes(prompted), "3");
  ASSERT_EQ(asked.size(), 3u);
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_EQ(asked[attempt].Attempt, attempt + 1);
    EXPECT_EQ(asked[attempt].StatusCode, 401);
    EXPECT_EQ(asked[attempt].Realm, StringBuffer(u"Basic realm=\"quiz\""));
    EXPECT_EQ(asked[attempt].Url.ToUTF8(), peer.base + "/private/");
  }
}

// libcurl answers veskan-serve's challenges with what the prompt gives.
TEST(HttpClientTest, AuthorizedByVeskanServeWithThePromptsCredentials) {
  Peer serve = StartVeskanServe({"--user", "teacher:s3cret"});
  ASSERT_FALSE(serve.port.empty());
  HttpClient client;
  ASSERT_TRUE(client.Connect(StringBuffer(serve.base.c_str()).getTerminatedBuffer()));
  std::string password = "s3cret";
  int prompts = 0;
  client.SetCredentialPrompt(
      [&](const HttpClient::CredentialRequest& request, HttpClient::Credentials& answer) {
        ++prompts;
        EXPECT_NE(request.Realm.indexOf(u"realm=\"veskan-serve\""), -1);
        answer.UserName = u"teacher";
        answer.Password = StringBuffer(password.c_str());
        return true;
      });
  std::shared_ptr<Message> allowed = Opened(Methods::GET, "/private/lesson");
  EXPECT_TRUE(client.Send(allowed, false));
  EXPECT_EQ(allowed->StatusCode, 200);
  EXPECT_EQ(ReplyBytes(allowed), "Hello, world!");
  EXPECT_EQ(prompts, 1);

  password = "wrong";
  std::shared_ptr<Message> refused = Opened(Methods::GET, "/private/lesson");
  EXPECT_TRUE(client.Send(refused, false));
  EXPECT_EQ(refused->StatusCode, 401);
  EXPECT_EQ(prompts, 1 + HttpClient::MAX_RETRY_COUNT);
}

TEST(HttpClientTest, CertificatesThatDoNotVerifyNeedTheFlagOrThePrompt) {
  Testing::TemporaryFolder folder;
  const std::string certificate = (folder.Path() / "server.pem").string();
  const std::string make =
      "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=localhost -days 1 "
      "-keyout '" +
      certificate + "' -out '" + certificate + "' 2>/dev/null";
  ASSERT_EQ(std::system(make.c_str()), 0);
  Peer serve = StartVeskanServe({"--cert", certificate});
  ASSERT_EQ(serve.base.rfind("https://", 0), 0u) << serve.base;

  HttpClient client;
  ASSERT_TRUE(client.Connect(StringBuffer(serve.base.c_str()).getTerminatedBuffer()));
  std::shared_ptr<Message> refused = Opened(Methods::GET, "/hello");
  EXPECT_FALSE(client.Send(refused, false));
  EXPECT_EQ(refused->StatusCode, 500);
  EXPECT_EQ(ReplyBytes(refused), "60");

  int prompts = 0;
  bool accept = false;
  client.SetCertificatePrompt([&](int error, const StringBuffer& url) {
    ++prompts;
    EXPECT_EQ(error, 60);
    EXPECT_EQ(url.ToUTF8(), serve.base + "/hello");
    return accept;
  });
  std::shared_ptr<Message> declined = Opened(Methods::GET, "/hello");
  EXPECT_FALSE(client.Send(declined, false));
  EXPECT_EQ(declined->StatusCode, 500);
  accept = true;
  std::shared_ptr<Message> accepted = Opened(Methods::GET, "/hello");
  EXPECT_TRUE(client.Send(accepted, false));
  EXPECT_EQ(accepted->StatusCode, 200);
  EXPECT_EQ(prompts, 2);

  // The flag accepts without asking.
  client.SetNoCertificatePrompt(true);
  std::shared_ptr<Message> unasked = Opened(Methods::GET, "/hello");
  EXPECT_TRUE(client.Send(unasked, false));
  EXPECT_EQ(ReplyBytes(unasked), "Hello, world!");
  EXPECT_EQ(prompts, 2);
}

// The environment's proxy carries requests to named hosts; the local names go direct.
TEST(HttpClientTest, LocalHostsBypassTheEnvironmentsProxy) {
  Peer proxy = StartPython("proxy");
  ASSERT_FALSE(proxy.port.empty());
  const char* saved = std::getenv("http_proxy");
  const std::string savedProxy = saved ? saved : "";
  ::setenv("http_proxy", proxy.base.c_str(), 1);
  ::unsetenv("no_proxy");
  ::unsetenv("NO_PROXY");

  const auto requestLine = [](const std::string& base) {
    HttpClient client;
    client.Connect(StringBuffer(base.c_str()).getTerminatedBuffer());
    std::shared_ptr<Message> message = Opened(Methods::GET, "/quiz?id=1");
    client.Send(message, false);
    return ReplyBytes(message);
  };
  EXPECT_EQ(requestLine("http://quiz.invalid:8080"),
            "GET http://quiz.invalid:8080/quiz?id=1 HTTP/1.1");
  // The proxy is also the origin server here: it sees the request as a server does.
  EXPECT_EQ(requestLine("http://localhost:" + proxy.port), "GET /quiz?id=1 HTTP/1.1");
  EXPECT_EQ(requestLine(proxy.base), "GET /quiz?id=1 HTTP/1.1");

  if (saved)
    ::setenv("http_proxy", savedProxy.c_str(), 1);
  else
    ::unsetenv("http_proxy");
}

}  // namespace
}  // namespace Veskan
