// The HTTP/1.1 message reader of a connection: turns the bytes in a Client::ParseData into
// messages, without touching a socket, a lock or a host handler. The daemon feeds it after every
// receive and delivers the events it reports.
#ifndef VESKAN_NET_REQUESTREADER_H
#define VESKAN_NET_REQUESTREADER_H

#include <veskan/Client.h>
#include <veskan/Message.h>
#include <veskan/Server.h>

#include <boost/container/small_vector.hpp>

#include <memory>

namespace Veskan {
namespace Detail {

// Something the host must hear about, in the order it happened.
struct ReaderEvent {
  enum class Kind {
    HeadersComplete,   // Value: the declared content length (-1: until the peer closes)
    PartComplete,      // Part and its index in Value
    MessageComplete,   // the message is ready to be announced Loaded
    ContinueExpected,  // the client waits for "100 Continue" before sending the body
    UpgradeRequested,  // a WebSocket upgrade request's headers are complete
  };
  Kind What;
  std::shared_ptr<Message> Subject;
  std::shared_ptr<Part> Piece;
  int Value = 0;
  bool KeepAlive = false;  // MessageComplete: whether the connection stays open after it
};

// The events of one read; a request's headers and its end fit without a heap block.
using ReaderEvents = boost::container::small_vector<ReaderEvent, 4>;

enum class ReadOutcome {
  NeedMore,   // every complete message has been read; more bytes are needed
  Violation,  // the bytes break the protocol or a limit: close the connection
  Stop,       // a message ended the connection's exchanges (no keep-alive): read no further
  Upgrade,    // a WebSocket upgrade request (UpgradeRequested): the bytes after its header block
              // belong to the WebSocket protocol
};

// The socket policy probe that browser plug-ins send, and the engine's answer to it.
extern const char PolicyFileRequest[];   // "<policy-file-request/>", 22 bytes
extern const char PolicyFileResponse[];  // the one-line policy document, NUL-terminated

// True when the unread bytes of `parse` begin with the policy probe.
bool IsPolicyFileRequest(const Client::ParseData& parse);

class RequestReader {
 public:
  // Reads the unread bytes (RFC 9112 sections 2 to 7) as far as the next complete header block
  // or message, held to the header, body and chunk-line sizes of `limits`. Server side
  // (`serverSide`): each start line "METHOD target HTTP/1.1" opens a new Message in `current`;
  // its headers, cookies and body go into the message's Request. Client side: the start line
  // must be "HTTP/1.1 NNN reason" and `current` is the request in flight, whose StatusCode and
  // Reply are filled. `final`: the peer has closed, so a body delimited by closing is complete.
  // Appends events to `events`; consumed bytes advance parse.ReadPosition. The message is left
  // in `current` until its MessageComplete event; after it `current` is null.
  //
  // It returns NeedMore after each HeadersComplete and each MessageComplete, so that the caller
  // can hand them over before the body or the next message is read (a host prepares for an
  // upload; a server holds back a client whose replies it has not taken yet; an outgoing
  // connection hands over its next request in flight), and calls again while unread bytes
  // remain.
  //
  // Anything that another recipient (a proxy in front of the server) could frame differently is
  // a Violation rather than a guess: a field name that is not a token or has blanks before its
  // colon, a control other than HTAB in a value, a target or a reason phrase, Transfer-Encoding
  // together with Content-Length, a coding list that does not end in a single "chunked", a
  // Content-Length that is not one plain number, two Host lines in a request, an upgrade request
  // that declares a body, a malformed chunk-size line. A folded field line (obs-fold) is refused
  // in a request; in a reply it is unfolded into one SP, as RFC 9112 section 5.2 asks of user
  // agents. Trailer fields are checked and then dropped, never merged into the header section.
  static ReadOutcome Read(Client::ParseData& parse, std::shared_ptr<Message>& current,
                          bool serverSide, bool final, const Server::Limits& limits,
                          ReaderEvents& events);
};

}  // namespace Detail
}  // namespace Veskan

#endif
