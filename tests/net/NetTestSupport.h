// A blocking loopback TCP client for tests that speak HTTP byte by byte.
#ifndef VESKAN_TESTS_NET_RAWCONNECTION_H
#define VESKAN_TESTS_NET_RAWCONNECTION_H

#include <string>

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

}  // namespace Testing
}  // namespace Veskan

#endif
