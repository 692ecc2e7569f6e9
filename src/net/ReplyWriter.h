// Formats a message for the wire: a server's reply, or an outgoing connection's request.
#ifndef VESKAN_NET_REPLYWRITER_H
#define VESKAN_NET_REPLYWRITER_H

#include <veskan/Content.h>
#include <veskan/Message.h>

#include <memory>
#include <vector>

namespace Veskan {
namespace Detail {

// Both writers put out only what one reading of the bytes can give: a header whose name is not a
// token (RFC 9110 section 5.6.2) or whose value holds CR, LF, NUL or another control except HTAB
// (section 5.5) is dropped with a warning, never written, and so is a cookie holding a control
// (see Cookie::Collection::Write). The body always goes by its "Content-Length"; the
// "Content-Length" and "Transfer-Encoding" the host may have set are left out.

// A message ready for the wire: its head as bytes, and its body, which is copied behind the head
// when it is short and otherwise left in its content (`body`, null when copied or empty), so
// that a large reply is sent from the host's own object rather than copied for each request.
// Formatting replaces what a WireMessage held and reuses its head's room, so that a writer that
// keeps one formats request after request without allocating.
struct WireMessage {
  std::vector<char> head;
  std::shared_ptr<const Content> body;
};

// The reply of `message` (RFC 9112 sections 4 to 6): "HTTP/1.1 code reason", the reply's
// headers, one "Set-Cookie" per cookie, "Content-Length", "Connection" and the body. A status of
// 0 (nobody answered) is sent as 404, one outside 100 to 999 as 500. The body is sealed and
// multipart bodies are joined first. The "Connection" the host may have set is replaced by the
// true one.
void FormatReply(Message& message, bool keepAlive, WireMessage& wire);

// The request of `message`: "METHOD target HTTP/1.1", its headers, "Content-Length" when it has
// a body, and the body. Blanks and controls in the target are percent-encoded.
void FormatRequest(Message& message, WireMessage& wire);

}  // namespace Detail
}  // namespace Veskan

#endif
