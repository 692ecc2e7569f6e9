// The engine's state of one connection: what a daemon's worker reads and writes for it.
#ifndef VESKAN_NET_CONNECTION_H
#define VESKAN_NET_CONNECTION_H

#include <veskan/Client.h>
#include <veskan/Message.h>
#include <veskan/Server.h>
#include <veskan/TransportLayerSecurity.h>

#include "net/OutputQueue.h"

#include <boost/container/small_vector.hpp>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Veskan {

class Daemon;

namespace Detail {

class WebSocketSupport;

// A message of a connection on its way: a received request awaiting its reply (server side), or
// a request to write (outgoing).
struct Exchange {
  std::shared_ptr<Message> message;
  bool keepAlive = true;
  bool answered = false;  // ready to be written
};

// Received requests whose slots have run: ready to be written once marked so.
using AnsweredRequests = boost::container::small_vector<const Message*, 4>;

// The bytes of a written message end at `end` (a position of the queue its plaintext went to).
struct WrittenMark {
  std::uint64_t end = 0;
  std::shared_ptr<Message> message;
};

// One connection attempt. A Client has one at a time: the daemon makes it for an accepted socket,
// and Client::Connect makes a new one for each attempt. The daemon holds it while it is included,
// and the worker keeps it alive while it works on it, so a host that starts afresh never pulls
// state from under the worker.
//
// Thread safety: the constant members may be read from any thread; everything else is guarded by
// `mutex` (the connection's lock). Lock order: a daemon's mutex, then this one, then a WebSocket
// support's or the Client's; a Message's lock is never taken while this one is held, and no
// host signal is delivered while it is held.
class Connection {
 public:
  Connection(const std::shared_ptr<Client>& owner, int socket,
             const std::shared_ptr<Server>& server,
             const std::shared_ptr<DaemonMarshaller>& marshaller, const Server::Limits& limits);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // Queues bytes to send, through the TLS session when there is one. With `owner`, the bytes are
  // referenced rather than copied and `owner` keeps them alive.
  void Queue(const char* data, std::size_t length);
  void Queue(std::shared_ptr<const void> owner, const char* data, std::size_t length);
  // The position the bytes queued so far end at (for WrittenMark).
  std::uint64_t QueuedEnd() const;
  // True once every byte queued up to `end` has gone to the socket.
  bool HasSent(std::uint64_t end) const;
  // Bytes queued and not yet taken by the socket.
  std::size_t Unsent() const;
  bool HasOutput() const { return Unsent() > 0 || closeNotifyOwed; }
  // Ends the TLS stream with close_notify behind the bytes queued so far; nothing in plain text.
  void QueueEndOfStream();
  // Sends what the socket takes now (encrypting as it goes); false when sending failed, with the
  // system's error number in `error`.
  bool Flush(std::int64_t now, int& error);

  // Marks the exchanges of `answered` ready to be written; the lock is held.
  void MarkAnswered(const AnsweredRequests& answered);
  // On the host's thread, once the slots of a delivery have run: marks `answered`, and what is
  // answered leaves now, rather than at the worker's next turn; then the connection reads again
  // and its worker is woken. Takes the lock.
  static void AfterHost(const std::shared_ptr<Connection>& connection,
                        const AnsweredRequests& answered);

  // Requests received and not yet answered by the host.
  int Unanswered() const;
  // The worker does not read from a connection whose peer has not taken enough of what it was
  // sent, or whose host has not answered enough of what it received: the kernel's buffers then
  // hold the peer back.
  bool ReadPaused() const;
  // Unread bytes in the read buffer.
  int Unread() const { return parse.WritePosition - parse.ReadPosition; }

  // Starts or stops the clocks of the request being read, from where the reader stands.
  void UpdateRequestClocks(std::int64_t now);
  // Takes the messages that must be finished because the connection goes: outgoing requests not
  // yet answered. Leaves the exchanges empty.
  std::vector<std::shared_ptr<Message>> TakeUnfinished();

  const std::uint64_t id;
  const bool serverSide;
  const std::weak_ptr<Server> server;
  const std::shared_ptr<DaemonMarshaller> marshaller;
  const Server::Limits limits;

  mutable std::recursive_mutex mutex;
  // The host's face of the connection, for its signals; released once closed.
  std::shared_ptr<Client> owner;
  // The daemon that serves it, once placed; released once closed.
  std::shared_ptr<Daemon> daemon;
  int socket = -1;
  StringBuffer peerAddress;
  int peerPort = 0;
  bool connecting = false;  // an outgoing connect in progress

  Client::ParseData parse;
  std::shared_ptr<Message> current;  // the message being read
  std::shared_ptr<TransportLayerSecurity> tls;
  std::shared_ptr<WebSocketSupport> webSocket;  // set by an upgrade request
  bool webSocketAnnounced = false;  // WEBSOCKETCONNECT delivered, WEBSOCKETDISCONNECT owed

  // The lists below hold a handful of entries at most and are empty while the connection is
  // idle, so they are vectors, which allocate nothing while empty.
  std::vector<Exchange> exchanges;  // in order of arrival (server) or of Send (outgoing)
  std::vector<std::shared_ptr<Message>> inFlight;  // outgoing: written, reply not complete
  OutputQueue out;                                 // bytes for the socket
  OutputQueue plain;             // TLS: plaintext not yet encrypted (bounded by what `out` holds)
  bool closeNotifyOwed = false;  // TLS: close_notify goes out behind `plain`
  std::vector<WrittenMark> written;

  bool closeAfterWrite = false;  // the last queued reply ends the connection
  bool readStopped = false;      // no further message is read
  bool shutdownOwed = false;     // the sending direction is shut once the queue is empty
  bool shutDown = false;         // the sending direction is shut down
  bool unparsed = false;         // bytes wait in the read buffer while reading is paused
  bool hostBusy = false;         // events handed to the host's thread have not all run yet
  bool formatting = false;       // a thread formats answered messages into the queue
  bool closing = false;          // no more I/O: the worker closes it at the end of its cycle
  bool closed = false;           // closing is under way or done
  int connectSecondsLeft = 0;    // outgoing connect

  // Monotonic nanoseconds: the last traffic, the start of the current request's head and body
  // (0: none under way), and the last time the peer took bytes while some were queued.
  std::int64_t lastActivity = 0;
  std::int64_t headStarted = 0;
  std::int64_t bodyStarted = 0;
  std::int64_t lastSendProgress = 0;
};

// Moves each message that is not over yet to Uninitialized, so that whoever waits for it wakes.
void FinishMessages(ReadyStateDelivery& marshaller,
                    const std::vector<std::shared_ptr<Message>>& messages);

// Monotonic time in nanoseconds.
std::int64_t MonotonicNanoseconds();
// The clock of a connection's time stamps, read on every event: MonotonicNanoseconds read more
// cheaply and up to a few milliseconds behind, which time-outs counted in seconds do not notice.
std::int64_t EventNanoseconds();
constexpr std::int64_t NanosecondsPerSecond = 1000000000;

}  // namespace Detail
}  // namespace Veskan

#endif
