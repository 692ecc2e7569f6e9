// POSIX sockets, poll() and eventfd.
#include "sys/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

#include <cstdint>

namespace Veskan {
namespace Sys {

namespace {

sockaddr_in ToNative(const SocketAddress& address) {
  sockaddr_in native{};
  native.sin_family = AF_INET;
  native.sin_port = htons(static_cast<std::uint16_t>(address.port));
  native.sin_addr.s_addr = htonl(address.address);
  return native;
}

}  // namespace

std::string SocketAddress::DottedAddress() const {
  in_addr native{};
  native.s_addr = htonl(address);
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &native, text, sizeof text);
  return text;
}

bool SocketAddress::FromDotted(const char* text, std::uint32_t& address) {
  in_addr native{};
  if (text == nullptr || inet_pton(AF_INET, text, &native) != 1) return false;
  address = ntohl(native.s_addr);
  return true;
}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    native_ = other.Release();
  }
  return *this;
}

Socket Socket::OpenTcp(int& error) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  error = fd < 0 ? errno : 0;
  return Socket(fd);
}

int Socket::Release() {
  int native = native_;
  native_ = -1;
  return native;
}

void Socket::Close() {
  if (native_ >= 0) ::close(native_);
  native_ = -1;
}

namespace SocketCalls {

namespace {
bool Succeeded(int result, int& error) {
  error = result < 0 ? errno : 0;
  return result >= 0;
}
}  // namespace

bool SetReuseAddress(int socket, int& error) {
  int on = 1;
  return Succeeded(::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), error);
}

bool SetNoDelay(int socket, bool on, int& error) {
  int value = on ? 1 : 0;
  return Succeeded(::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value), error);
}

bool Bind(int socket, const SocketAddress& address, int& error) {
  sockaddr_in native = ToNative(address);
  return Succeeded(::bind(socket, reinterpret_cast<sockaddr*>(&native), sizeof native), error);
}

bool Listen(int socket, int backlog, int& error) {
  return Succeeded(::listen(socket, backlog), error);
}

int Accept(int listening, SocketAddress& peer, int& error) {
  sockaddr_in native{};
  socklen_t length = sizeof native;
  int fd = ::accept4(listening, reinterpret_cast<sockaddr*>(&native), &length,
                     SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    error = errno;
    return -1;
  }
  error = 0;
  peer.address = ntohl(native.sin_addr.s_addr);
  peer.port = ntohs(native.sin_port);
  return fd;
}

bool Connect(int socket, const SocketAddress& address, int& error) {
  sockaddr_in native = ToNative(address);
  if (::connect(socket, reinterpret_cast<sockaddr*>(&native), sizeof native) == 0) {
    error = 0;
    return true;
  }
  error = errno;
  return error == EINPROGRESS || WouldBlock(error);
}

int PendingError(int socket) {
  int value = 0;
  socklen_t length = sizeof value;
  if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &value, &length) != 0) return errno;
  return value;
}

long Receive(int socket, void* destination, std::size_t capacity, int& error) {
  ssize_t count;
  do {
    count = ::recv(socket, destination, capacity, 0);
  } while (count < 0 && errno == EINTR);
  error = count < 0 ? errno : 0;
  return static_cast<long>(count);
}

long Peek(int socket, void* destination, std::size_t capacity, int& error) {
  ssize_t count;
  do {
    count = ::recv(socket, destination, capacity, MSG_PEEK);
  } while (count < 0 && errno == EINTR);
  error = count < 0 ? errno : 0;
  return static_cast<long>(count);
}

long Send(int socket, const void* source, std::size_t count, int& error) {
  ssize_t sent;
  do {
    sent = ::send(socket, source, count, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  error = sent < 0 ? errno : 0;
  return static_cast<long>(sent);
}

long SendSpans(int socket, const ByteSpan* spans, std::size_t count, int& error) {
  constexpr std::size_t most = 64;
  iovec vectors[most];
  count = std::min(count, most);
  for (std::size_t i = 0; i < count; ++i) {
    vectors[i].iov_base = const_cast<char*>(spans[i].data);  // sendmsg does not write through it
    vectors[i].iov_len = spans[i].length;
  }
  msghdr header{};
  header.msg_iov = vectors;
  header.msg_iovlen = count;
  ssize_t sent;
  do {
    sent = ::sendmsg(socket, &header, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  error = sent < 0 ? errno : 0;
  return static_cast<long>(sent);
}

bool ShutdownSend(int socket, int& error) {
  return Succeeded(::shutdown(socket, SHUT_WR), error);
}

int LocalPort(int socket) {
  sockaddr_in native{};
  socklen_t length = sizeof native;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&native), &length) != 0) return -1;
  return ntohs(native.sin_port);
}

void Close(int socket) {
  if (socket >= 0) ::close(socket);
}

bool WouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace SocketCalls

int Poller::Add(int socket, bool read, bool write) {
  short events = 0;
  if (read) events |= POLLIN;
  if (write) events |= POLLOUT;
  entries_.push_back(Entry{socket, events, 0});
  return static_cast<int>(entries_.size()) - 1;
}

int Poller::Wait(int milliseconds) {
  static_assert(sizeof(Entry) == sizeof(pollfd), "Entry mirrors pollfd");
  int result = ::poll(reinterpret_cast<pollfd*>(entries_.data()),
                      static_cast<nfds_t>(entries_.size()), milliseconds);
  if (result < 0) {
    for (Entry& entry : entries_)
      entry.revents = 0;
    return errno == EINTR ? 0 : -1;
  }
  return result;
}

bool Poller::Readable(int position) const {
  return (entries_[static_cast<std::size_t>(position)].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

bool Poller::Writable(int position) const {
  return (entries_[static_cast<std::size_t>(position)].revents & POLLOUT) != 0;
}

bool Poller::Failed(int position) const {
  short revents = entries_[static_cast<std::size_t>(position)].revents;
  return (revents & (POLLERR | POLLNVAL)) != 0 && (revents & POLLIN) == 0;
}

WakeUp::WakeUp() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

WakeUp::~WakeUp() {
  if (fd_ >= 0) ::close(fd_);
}

void WakeUp::Signal() {
  std::uint64_t one = 1;
  ssize_t written = ::write(fd_, &one, sizeof one);
  (void)written;  // a full counter is still readable, which is all a wake-up needs
}

void WakeUp::Drain() {
  std::uint64_t value = 0;
  ssize_t got = ::read(fd_, &value, sizeof value);
  (void)got;  // nothing to read is fine: already drained
}

}  // namespace Sys
}  // namespace Veskan
