// Formats a message for the wire: a server's reply, or an outgoing connection's request.
#ifndef VESKAN_NET_REPLYWRITER_H
#define VESKAN_NET_REPLYWRITER_H

#include <veskan/Message.h>

#include <vector>

namespace Veskan {
namespace Detail {

// Appends the reply of `message` (RFC 7230 section 3): "HTTP/1.1 code reason", the reply's
// headers, one "Set-Cookie" per cookie, "Content-Length", "Connection" and the body. A status of
// 0 (nobody answered) is sent as 404. The body is sealed and multipart bodies are joined first.
// The "Content-Length" and "Connection" the host may have set are replaced by the true ones.
void FormatReply(Message& message, bool keepAlive, std::vector<char>& out);

// Appends the request of `message`: "METHOD target HTTP/1.1", its headers, "Content-Length"
// when it has a body, and the body.
void FormatRequest(Message& message, std::vector<char>& out);

}  // namespace Detail
}  // namespace Veskan

#endif
