#include "NetTestSupport.h"

#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/Daemon.h>
#include <veskan/Header.h>
#include <veskan/Url.h>
#include <veskan/Vocabulary.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Veskan {
namespace Testing {

RawConnection::RawConnection(int port, double timeoutSeconds) {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  timeval timeout{};
  timeout.tv_sec = static_cast<time_t>(timeoutSeconds);
  timeout.tv_usec =
      static_cast<suseconds_t>((timeoutSeconds - static_cast<double>(timeout.tv_sec)) * 1e6);
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  int on = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Close();
}

RawConnection::~RawConnection() {
  Close();
}

bool RawConnection::Send(const std::string& bytes) {
  std::size_t sent = 0;
  while (fd_ >= 0 && sent < bytes.size()) {
    ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return fd_ >= 0;
}

bool RawConnection::Fill() {
  if (fd_ < 0) return false;
  char chunk[65536];
  for (;;) {
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
}

std::string RawConnection::ReadResponse() {
  std::size_t headersEnd;
  while ((headersEnd = buffer_.find("\r\n\r\n")) == std::string::npos) {
    if (!Fill()) return std::string();
  }
  std::string head = buffer_.substr(0, headersEnd + 4);
  std::string length = HeaderOf(head, "Content-Length");
  std::size_t total = headersEnd + 4 + static_cast<std::size_t>(std::atoll(length.c_str()));
  while (buffer_.size() < total) {
    if (!Fill()) return std::string();
  }
  std::string response = buffer_.substr(0, total);
  buffer_.erase(0, total);
  return response;
}

std::string RawConnection::ReadBytes(std::size_t count) {
  while (buffer_.size() < count) {
    if (!Fill()) return std::string();
  }
  std::string bytes = buffer_.substr(0, count);
  buffer_.erase(0, count);
  return bytes;
}

std::string RawConnection::ReadUntilClosed() {
  while (Fill()) {
  }
  std::string all;
  all.swap(buffer_);
  return all;
}

bool RawConnection::WaitForClose() {
  if (fd_ < 0) return true;
  char chunk[65536];
  for (;;) {
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) return true;
    if (n < 0) return errno == ECONNRESET;  // a time-out is not a close
  }
}

void RawConnection::ShutdownSend() {
  if (fd_ >= 0) ::shutdown(fd_, SHUT_WR);
}

void RawConnection::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

std::string BodyOf(const std::string& response) {
  std::size_t end = response.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : response.substr(end + 4);
}

std::string HeaderOf(const std::string& response, const std::string& name) {
  std::string key = "\r\n" + name + ": ";
  std::size_t at = response.find(key);
  if (at == std::string::npos) return std::string();
  at += key.size();
  return response.substr(at, response.find("\r\n", at) - at);
}

std::string RunCommand(const std::string& command, int* exitStatus) {
  std::string output;
  FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
  if (pipe == nullptr) return output;
  char chunk[4096];
  std::size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
    output.append(chunk, n);
  const int status = pclose(pipe);
  if (exitStatus != nullptr) *exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return output;
}

std::string Get(const std::string& target, const std::string& headers) {
  return "GET " + target + " HTTP/1.1\r\nHost: test\r\n" + headers + "\r\n";
}

void AnswerWithTheRequest(const std::shared_ptr<Message>& message) {
  auto lock = message->Lock();
  std::string text = StringBuffer(Methods::ToString(message->Method)).ToUTF8() + " " +
                     message->Url->Text.ToUTF8() + "|";
  if (message->Request->Content) {
    text.append(reinterpret_cast<const char*>(message->Request->Content->Data()),
                static_cast<std::size_t>(message->Request->Content->Size()));
  }
  message->StatusCode = 200;
  message->Reply->Headers.Add(Header(StringBuffer(u"Content-Type"), StringBuffer(u"text/plain")));
  message->Reply->Content = std::make_shared<Content>(
      reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
}

LoggerLines::LoggerLines(Logger::Severity::Enumeration threshold, const std::string& prefix)
    : threshold_(Logger::Threshold()) {
  Logger::SetThreshold(threshold);
  previous_ = Logger::SetSink(
      [this, prefix](Logger::Severity::Enumeration severity, const char* text, int) {
        if (std::strncmp(text, prefix.c_str(), prefix.size()) != 0) return;
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(StringBuffer(Logger::Severity::ToString(severity)).ToUTF8() + ": " + text);
      });
}

LoggerLines::~LoggerLines() {
  Logger::SetSink(previous_);
  Logger::SetThreshold(threshold_);
}

std::vector<std::string> LoggerLines::Take() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> taken;
  taken.swap(lines_);
  return taken;
}

void ServerFixture::TearDown() {
  if (server_) server_->Stop(200);
  server_.reset();
  EXPECT_TRUE(Daemon::WaitForAllThreads(10)) << "daemon threads still running";
}

void ServerFixture::StartServer(bool direct, const Server::Limits& limits,
                                const StringBuffer& certificate, const StringBuffer& key) {
  StringBuffer certificateFile = certificate;
  StringBuffer keyFile = key;
  server_ = std::make_shared<Server>(
      direct, certificate.isEmpty() ? nullptr : certificateFile.getTerminatedBuffer(),
      key.isEmpty() ? nullptr : keyFile.getTerminatedBuffer());
  server_->SetLimits(limits);
  server_->MessageReceivedDeferrable.connect(
      [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client,
             const std::shared_ptr<Message>& message, bool& answerLater) {
        Note([this] { seen_.handlerThreads.push_back(std::this_thread::get_id()); });
        if (handler_) return handler_(client, message, answerLater);
        AnswerWithTheRequest(message);
      });
  server_->ClientConnected.connect([this](const std::shared_ptr<Server>&,
                                          const std::shared_ptr<Client>& client) {
    Note([this] { ++seen_.connected; });
    client->Closed.connect([this](const std::shared_ptr<Client>&, const std::shared_ptr<Message>&,
                                  const StringBuffer&, const StringBuffer& detail) {
      Note([&] { seen_.closeDetails.push_back(detail.ToUTF8()); });
    });
  });
  server_->ClientDisconnected.connect(
      [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client) {
        Note([&] {
          seen_.closeReasons.push_back(client->CloseReason());
          seen_.order.push_back("-");
        });
      });
  server_->StateChanged.connect([this](const std::shared_ptr<Server>& server) {
    Note([&] {
      seen_.order.push_back(StringBuffer(ServerStates::ToString(server->State())).ToUTF8());
    });
  });
  server_->HeadersComplete.connect(
      [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
             const std::shared_ptr<Message>& message, const std::shared_ptr<Part>&, int length) {
        bool bodyRead;
        {
          auto lock = message->Lock();
          bodyRead = message->Request->Content != nullptr;
        }
        Note([&] {
          seen_.declaredLengths.push_back(length);
          seen_.bodiesReadBeforeTheirHeaders += bodyRead ? 1 : 0;
        });
      });
  server_->PartReceived.connect(
      [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
             const std::shared_ptr<Message>&, const std::shared_ptr<Part>& part, int index) {
        std::string payload(reinterpret_cast<const char*>(part->Content->Data()),
                            static_cast<std::size_t>(part->Content->Size()));
        Note([&] { seen_.parts.emplace_back(index, payload); });
      });
  ConnectSlots();
  ASSERT_TRUE(server_->Start(u"http://127.0.0.1:0/", false));
  ASSERT_EQ(ServerStates::Started, server_->State());
  port_ = server_->Port();
  ASSERT_GT(port_, 0);
}

bool ServerFixture::WaitForConnectionCount(int count) {
  for (int i = 0; i < 200 && server_->Connections().Count() != count; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return server_->Connections().Count() == count;
}

}  // namespace Testing
}  // namespace Veskan
