// Sockets, readiness polling and the wake-up descriptor: the operating system's side of the
// network engine. Every descriptor here is non-blocking and close-on-exec.
#ifndef VESKAN_SYS_SOCKET_H
#define VESKAN_SYS_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Veskan {
namespace Sys {

// An IPv4 endpoint in host byte order.
struct SocketAddress {
  std::uint32_t address = 0;  // 0: any address
  int port = 0;

  // Dotted text ("127.0.0.1").
  std::string DottedAddress() const;
  // Parses a dotted address; false for anything else.
  static bool FromDotted(const char* text, std::uint32_t& address);
};

// Bytes to send, described without owning them (an iovec).
struct ByteSpan {
  const char* data = nullptr;
  std::size_t length = 0;
};

// Owns one socket descriptor.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int native) : native_(native) {}
  Socket(Socket&& other) noexcept : native_(other.Release()) {}
  Socket& operator=(Socket&& other) noexcept;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { Close(); }

  // A new non-blocking IPv4 stream socket; invalid on failure with the error in `error`.
  static Socket OpenTcp(int& error);

  bool IsOpen() const { return native_ >= 0; }
  int Get() const { return native_; }
  int Release();
  void Close();

 private:
  int native_ = -1;
};

// Operations on a socket descriptor owned elsewhere. Failing calls return false or -1 and leave
// the system's error number in `error`.
namespace SocketCalls {
bool SetReuseAddress(int socket, int& error);
bool SetNoDelay(int socket, bool on, int& error);
bool Bind(int socket, const SocketAddress& address, int& error);
bool Listen(int socket, int backlog, int& error);
// Accepts one pending connection as a non-blocking socket; -1 when none is pending or on error.
int Accept(int listening, SocketAddress& peer, int& error);
// Starts connecting; true when connected or in progress (WouldBlock(error) then says which).
bool Connect(int socket, const SocketAddress& address, int& error);
// The outcome of a finished non-blocking connect: 0 or the error number.
int PendingError(int socket);
// Bytes received (0: the peer closed its side), or -1.
long Receive(int socket, void* destination, std::size_t capacity, int& error);
// Like Receive, but the bytes stay in the socket.
long Peek(int socket, void* destination, std::size_t capacity, int& error);
// Bytes sent, or -1; never raises SIGPIPE.
long Send(int socket, const void* source, std::size_t count, int& error);
// Sends the spans in order with one call (at most 64 are taken); bytes sent, or -1; never raises
// SIGPIPE.
long SendSpans(int socket, const ByteSpan* spans, std::size_t count, int& error);
// Shuts the sending direction down.
bool ShutdownSend(int socket, int& error);
// The locally bound port, or -1.
int LocalPort(int socket);
// Closes a descriptor owned by the caller.
void Close(int socket);
// True for the error numbers that mean "try again later".
bool WouldBlock(int error);
}  // namespace SocketCalls

// One poll() over a set of descriptors, rebuilt for each wait.
class Poller {
 public:
  void Clear() { entries_.clear(); }
  // Adds `socket`; returns its position.
  int Add(int socket, bool read, bool write);
  // Waits at most `milliseconds` (0: do not wait); returns the number of descriptors with events,
  // 0 on time-out, -1 on error (an interrupted wait counts as a time-out).
  int Wait(int milliseconds);
  int Count() const { return static_cast<int>(entries_.size()); }
  bool Readable(int position) const;
  bool Writable(int position) const;
  // An error or hang-up condition without readable data.
  bool Failed(int position) const;

 private:
  struct Entry {
    int fd;
    short events;
    short revents;
  };
  std::vector<Entry> entries_;
};

// A descriptor that becomes readable when another thread signals it (an eventfd).
class WakeUp {
 public:
  WakeUp();
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;
  ~WakeUp();

  int Descriptor() const { return fd_; }
  // Makes the descriptor readable; cheap and safe from any thread.
  void Signal();
  // Makes it unreadable again.
  void Drain();

 private:
  int fd_ = -1;
};

}  // namespace Sys
}  // namespace Veskan

#endif
