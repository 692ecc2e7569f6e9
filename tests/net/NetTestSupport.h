// Helpers for the network engine's tests: a blocking loopback TCP client that speaks HTTP byte by
// byte, the engine's log lines, commands run with a shell, and the answer the test servers give.
#ifndef VESKAN_TESTS_NET_NETTESTSUPPORT_H
#define VESKAN_TESTS_NET_NETTESTSUPPORT_H

#include <veskan/Logger.h>
#include <veskan/Message.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Veskan {
namespace Testing {

class RawConnection {
 public:
  // Connects to 127.0.0.1:`port`; every receive gives up after `timeoutSeconds`.
  explicit RawConnection(int port, double timeoutSeconds = 10);
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;
  ~RawConnection();

  bool IsOpen() const { return fd_ >= 0; }
  // Sends everything; false when the peer is gone.
  bool Send(const std::string& bytes);
  // Reads one HTTP response (status line, headers, Content-Length body); empty on EOF, error or
  // time-out. Bytes behind it stay buffered for the next call.
  std::string ReadResponse();
  // Reads exactly `count` bytes; empty on EOF, error or time-out.
  std::string ReadBytes(std::size_t count);
  // Reads until the peer closes (or the time-out); returns everything read.
  std::string ReadUntilClosed();
  // True when the peer has closed the connection (EOF or reset) within the time-out.
  bool WaitForClose();
  // Shuts the sending direction down.
  void ShutdownSend();
  void Close();

 private:
  // Reads more bytes into buffer_; false on EOF, error or time-out.
  bool Fill();

  int fd_ = -1;
  std::string buffer_;
};

// The body of a response read by ReadResponse (behind the empty line).
std::string BodyOf(const std::string& response);
// The value of the first header `name` of a response, or empty.
std::string HeaderOf(const std::string& response, const std::string& name);

// Runs `command` with a shell (its stderr discarded); returns what it printed on stdout, and its
// exit status in `exitStatus` when given (-1 when it did not exit normally).
std::string RunCommand(const std::string& command, int* exitStatus = nullptr);

// "GET `target` HTTP/1.1" with a Host header and `headers` (each ending in CR LF).
std::string Get(const std::string& target, const std::string& headers = "");

// Answers `message` 200, text/plain, with "METHOD target|body" (the request's body as it came).
void AnswerWithTheRequest(const std::shared_ptr<Message>& message);

// While it lives, keeps the Logger's lines of `threshold` and above whose text begins with
// `prefix`, each as "Severity: text" ("Warning: Veskan::..."), and restores the sink and the
// threshold afterwards. Lines may come from any thread.
class LoggerLines {
 public:
  explicit LoggerLines(Logger::Severity::Enumeration threshold, const std::string& prefix = "");
  LoggerLines(const LoggerLines&) = delete;
  LoggerLines& operator=(const LoggerLines&) = delete;
  ~LoggerLines();

  // The lines kept since the last call.
  std::vector<std::string> Take();

 private:
  const Logger::Severity::Enumeration threshold_;
  Logger::Sink previous_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace Testing
}  // namespace Veskan

#endif
