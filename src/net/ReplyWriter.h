// Formats a message for the wire: a server's reply, or an outgoing connection's request.
#ifndef VESKAN_NET_REPLYWRITER_H
#define VESKAN_NET_REPLYWRITER_H

#include <veskan/Content.h>
#include <veskan/Message.h>

#include <memory>
#include <vector>

namespace Veskan {
namespace Detail {

// A message ready for the wire: its head as bytes, and its body, which is copied behind the head
// when it is short and otherwise left in its content (`body`, null when copied or empty), so
// that a large reply is sent from the host's own object rather than copied for each request.
struct WireMessage {
  std::vector<char> head;
  std::shared_ptr<const Content> body;
};

// The reply of `message` (RFC 7230 section 3): "HTTP/1.1 code reason", the reply's headers, one
// "Set-Cookie" per cookie, "Content-Length", "Connection" and the body. A status of 0 (nobody
// answered) is sent as 404. The body is sealed and multipart bodies are joined first. The
// "Content-Length" and "Connection" the host may have set are replaced by the true ones.
WireMessage FormatReply(Message& message, bool keepAlive);

// The request of `message`: "METHOD target HTTP/1.1", its headers, "Content-Length" when it has
// a body, and the body.
WireMessage FormatRequest(Message& message);

}  // namespace Detail
}  // namespace Veskan

#endif
