// The seam through which a connection's bytes pass on their way between the socket and the HTTP
// reader and writer (TLS is such a transform).
#ifndef VESKAN_NET_CONNECTIONTRANSFORM_H
#define VESKAN_NET_CONNECTIONTRANSFORM_H

#include <cstddef>
#include <vector>

namespace Veskan {
namespace Detail {

// Thread safety: called by the connection's worker with the connection's lock held.
class ConnectionTransform {
 public:
  virtual ~ConnectionTransform() = default;
  // Called with bytes received from the socket: appends the plaintext they yield to `plain` and
  // any bytes the transform must send back (a handshake) to `wire`. False: the session failed
  // and the connection is closed.
  virtual bool Incoming(const char* data, std::size_t length, std::vector<char>& plain,
                        std::vector<char>& wire) = 0;
  // Called with plaintext to send: appends the bytes to put on the socket to `wire`.
  virtual bool Outgoing(const char* data, std::size_t length, std::vector<char>& wire) = 0;
};

}  // namespace Detail
}  // namespace Veskan

#endif
