// Helpers for the network engine's tests: a blocking loopback TCP client that speaks HTTP byte by
// byte, the engine's log lines, commands run with a shell, and a fixture with a running server.
#ifndef VESKAN_TESTS_NET_NETTESTSUPPORT_H
#define VESKAN_TESTS_NET_NETTESTSUPPORT_H

#include <veskan/Client.h>
#include <veskan/Logger.h>
#include <veskan/Message.h>
#include <veskan/Server.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
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

// A fixture with a server on a loopback port of the system's choice that notes in seen_ what its
// host sees. Its requests go to handler_, by default AnswerWithTheRequest. TearDown stops it and
// waits for every daemon thread.
class ServerFixture : public ::testing::Test {
 protected:
  using Handler =
      std::function<void(const std::shared_ptr<Client>&, const std::shared_ptr<Message>&, bool&)>;

  void TearDown() override;
  // Called before the server starts, for a fixture's own slots.
  virtual void ConnectSlots() {}

  // Starts a server of the marshaller mode `direct`, secure when `certificate` is not empty.
  void StartServer(bool direct = true, const Server::Limits& limits = Server::Limits(),
                   const StringBuffer& certificate = StringBuffer(),
                   const StringBuffer& key = StringBuffer());

  // Applies `change` to what the fixture keeps under its lock, and wakes WaitFor.
  template <typename Change>
  void Note(Change change) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      change();
    }
    changed_.notify_all();
  }

  // Waits (at most 20 s) until `condition` holds under the lock.
  template <typename Condition>
  bool WaitFor(Condition condition) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), condition);
  }

  // `value`, read under the lock.
  template <typename T>
  T Read(const T& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    return value;
  }

  // Waits (at most 2 s) until the server lists `count` connections: a connection leaves the list
  // right after its ClientDisconnected.
  bool WaitForConnectionCount(int count);

  std::shared_ptr<Server> server_;
  int port_ = 0;
  Handler handler_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // What the host saw, guarded by mutex_ for the worker threads that report it.
  struct {
    std::vector<std::thread::id> handlerThreads;
    std::vector<SocketExceptions::Enumeration> closeReasons;  // one per ClientDisconnected
    std::vector<std::string> closeDetails;
    std::vector<std::pair<int, std::string>> parts;  // index and payload
    std::vector<int> declaredLengths;
    int bodiesReadBeforeTheirHeaders = 0;  // HeadersComplete came after the body was read
    // ClientDisconnected ("-") and server states ("Stopping", "Stopped"...) in delivery order.
    std::vector<std::string> order;
    int connected = 0;
  } seen_;
};

}  // namespace Testing
}  // namespace Veskan

#endif
