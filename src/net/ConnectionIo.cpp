// Daemon: moving a connection's bytes between its socket and the protocol cores (the request
// reader, the reply writer, the TLS session, the WebSocket support), handing what they produce to
// the host, and closing.
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/Server.h>
#include <veskan/WSData.h>

#include "http/ObjectPool.h"
#include "net/Connection.h"
#include "net/EngineCounters.h"
#include "net/EngineLog.h"
#include "net/ReplyWriter.h"
#include "net/RequestReader.h"
#include "net/websocket/WebSocketSupport.h"
#include "sys/Socket.h"

#include <boost/container/small_vector.hpp>

#include <cstring>

namespace Veskan {

namespace {

using Counters = NetworkPerformanceMonitor::Counters;
using Detail::Connection;
using Detail::EventNanoseconds;
using Detail::ReaderEvent;
using Detail::ReaderEvents;
using Detail::ReadOutcome;

// Receives at most this often per readable event, so that one busy connection cannot starve the
// others.
constexpr int ReceivesPerEvent = 4;

// Events of one connection for the host's slots: what the request reader or the WebSocket frame
// reader produced from one batch of bytes.
struct HostDelivery {
  std::shared_ptr<Connection> connection;
  std::shared_ptr<Server> server;
  std::shared_ptr<Client> owner;
  ReaderEvents reader;
  std::vector<std::shared_ptr<WSData>> frames;
  // The requests the slots have answered (404 when nobody did), marked under the connection's
  // lock by whoever takes it next.
  Detail::AnsweredRequests answered;
};

void RunReaderEvent(HostDelivery& delivery, const ReaderEvent& event) {
  Connection& connection = *delivery.connection;
  const std::shared_ptr<Server>& server = delivery.server;
  const std::shared_ptr<Client>& owner = delivery.owner;
  DaemonMarshaller& marshaller = *connection.marshaller;
  switch (event.What) {
    case ReaderEvent::Kind::HeadersComplete:
    case ReaderEvent::Kind::PartComplete: {
      bool headers = event.What == ReaderEvent::Kind::HeadersComplete;
      if (!headers) Detail::CountEvent(Counters::PartsReceived, 1);
      if (connection.serverSide) {
        auto* signal = !server   ? nullptr
                       : headers ? &server->HeadersComplete
                                 : &server->PartReceived;
        if (signal && !signal->empty()) {
          marshaller.Marshal_ServerClientMessagePartInt(*signal, server, owner, event.Subject,
                                                        event.Piece, event.Value);
        }
      } else if (owner) {
        auto& signal = headers ? owner->HeadersComplete : owner->PartReceived;
        if (!signal.empty()) {
          marshaller.Marshal_ClientMessagePartInt(signal, owner, event.Subject, event.Piece,
                                                  event.Value);
        }
      }
      return;
    }
    case ReaderEvent::Kind::ContinueExpected:
    case ReaderEvent::Kind::UpgradeRequested:
      return;
    case ReaderEvent::Kind::MessageComplete: {
      Detail::CountEvent(Counters::RequestsReceived, 1);
      {
        std::unique_lock<std::recursive_mutex> messageLock = event.Subject->Lock();
        Message::UnlockAndNotifyReadyStateChanged(&marshaller, event.Subject, ReadyStates::Loaded,
                                                  messageLock);
      }
      if (connection.serverSide) {
        bool answerLater = false;
        if (server && server->MessageReceived.Heard()) {
          marshaller.Marshal_ServerClientMessage(server->MessageReceived, server, owner,
                                                 event.Subject);
        }
        if (server && !server->MessageReceivedDeferrable.empty()) {
          marshaller.Marshal_ServerClientMessageBool(server->MessageReceivedDeferrable, server,
                                                     owner, event.Subject, answerLater);
        }
        // Written once the slots have returned, unless a slot answers later itself.
        if (!answerLater) delivery.answered.push_back(event.Subject.get());
      } else if (owner && owner->MessageReceived.Heard()) {
        marshaller.Marshal_ClientMessage(owner->MessageReceived, owner, event.Subject);
      }
      return;
    }
  }
}

// Runs the slots of a delivery, in order, where the marshaller runs slots; given up (`run` false),
// its requests are still answered, with 404, so that the connection does not wait for them.
void RunDelivery(HostDelivery& delivery, bool run) {
  Connection& connection = *delivery.connection;
  if (!run) {
    for (const ReaderEvent& event : delivery.reader) {
      if (event.What == ReaderEvent::Kind::MessageComplete) {
        delivery.answered.push_back(event.Subject.get());
      }
    }
    return;
  }
  for (const ReaderEvent& event : delivery.reader)
    RunReaderEvent(delivery, event);
  for (const std::shared_ptr<WSData>& frame : delivery.frames) {
    if (frame->Method == Methods::WEBSOCKETMESSAGE) {
      Detail::CountEvent(Counters::WebSocketMessages, static_cast<int>(frame->Messages.size()));
    }
    if (delivery.server && delivery.server->WebSocketMessage.Heard()) {
      connection.marshaller->Marshal_ServerWebSocketMessage(delivery.server->WebSocketMessage,
                                                            delivery.server, delivery.owner, frame);
    }
  }
}

// A delivery queued for the host's thread comes from a pool: a worker in window mode queues one
// per batch of bytes read, and the host's thread drops it.
struct RecycleDelivery {
  void operator()(HostDelivery* delivery) const {
    delivery->connection.reset();
    delivery->server.reset();
    delivery->owner.reset();
    delivery->reader.clear();
    delivery->frames.clear();
    delivery->answered.clear();
    // A pipelined batch may have grown them: what stays pooled keeps only its inline room.
    if (delivery->reader.capacity() > ReaderEvents::static_capacity)
      ReaderEvents().swap(delivery->reader);
    if (delivery->frames.capacity() > 0)
      std::vector<std::shared_ptr<WSData>>().swap(delivery->frames);
    Detail::ObjectPool<HostDelivery>::Give(delivery);
  }
};
using PostedDelivery = std::unique_ptr<HostDelivery, RecycleDelivery>;

HostDelivery* NewPostedDelivery(HostDelivery&& delivery) {
  HostDelivery* posted = Detail::ObjectPool<HostDelivery>::Take();
  if (posted == nullptr) return new HostDelivery(std::move(delivery));
  *posted = std::move(delivery);
  return posted;
}

// Hands a delivery to the host, without the connection's lock (which `lock` holds on entry and
// exit). In direct mode the slots run now. Otherwise the delivery is queued for the host's thread
// and the worker goes on with its other connections; this connection reads no further until the
// host has run it, which keeps its events in order and its requests answered one at a time.
void HandToHost(HostDelivery&& delivery, std::unique_lock<std::recursive_mutex>& lock) {
  Connection& connection = *delivery.connection;
  delivery.server = connection.server.lock();
  delivery.owner = connection.owner;
  DaemonMarshaller& marshaller = *connection.marshaller;
  // An outgoing connection's host may block on its replies (HttpClient): its worker waits.
  const bool queued = !marshaller.IsDirect() && connection.serverSide;
  if (queued) connection.hostBusy = true;
  lock.unlock();
  if (!queued) {
    RunDelivery(delivery, true);
  } else {
    marshaller.Post(
        [](void* context, bool run) {
          PostedDelivery posted(static_cast<HostDelivery*>(context));
          RunDelivery(*posted, run);
          Connection::AfterHost(posted->connection, posted->answered);
        },
        NewPostedDelivery(std::move(delivery)));
  }
  lock.lock();
  if (!queued) connection.MarkAnswered(delivery.answered);
}

}  // namespace

void Daemon::ProcessSocketReadable(const ConnectionPointer& pointer) {
  Connection& connection = *pointer;
  std::unique_lock<std::recursive_mutex> lock(connection.mutex);
  for (int round = 0; round < ReceivesPerEvent; ++round) {
    if (connection.closing || connection.socket < 0) return;
    std::int64_t now = EventNanoseconds();
    connection.lastActivity = now;
    int error = 0;
    if (connection.ReadPaused()) {
      // An event that was not asked for: the socket hung up or failed. A look at its bytes,
      // which stay where they are, tells whether the peer is gone.
      char probe;
      long peeked = Sys::SocketCalls::Peek(connection.socket, &probe, 1, error);
      if (peeked > 0 || (peeked < 0 && Sys::SocketCalls::WouldBlock(error))) break;
      lock.unlock();
      CloseClient(
          pointer,
          peeked == 0 ? SocketExceptions::NoMoreData : SocketExceptions::DefaultException(error),
          StringBuffer(u"recv"));
      return;
    }

    Client::ParseData& parse = connection.parse;
    // The reader refuses a header block above the limit before the buffer is full.
    if (!parse.MakeRoom(connection.limits.MaxHeaderBytes)) {
      lock.unlock();
      CloseClient(pointer, SocketExceptions::HTTPProtocolViolation,
                  StringBuffer(u"header block too large"));
      return;
    }
    long received;
    if (connection.tls) {
      char wire[16384];
      received = Sys::SocketCalls::Receive(connection.socket, wire, sizeof wire, error);
      if (received > 0) {
        std::vector<char> plain;
        std::vector<char> answer;
        if (!connection.tls->Incoming(wire, static_cast<std::size_t>(received), plain, answer)) {
          lock.unlock();
          CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"tls"));
          return;
        }
        if (!connection.HasOutput()) connection.lastSendProgress = now;
        connection.out.Append(std::move(answer));  // handshake records go straight to the wire
        if (plain.empty()) continue;               // handshake records only: no end of the stream
        int needed = parse.WritePosition + static_cast<int>(plain.size());
        if (needed > parse.ReadBuffer.Size()) parse.ReadBuffer.Resize(needed);
        std::memcpy(parse.ReadBuffer.Data() + parse.WritePosition, plain.data(), plain.size());
        received = static_cast<long>(plain.size());
      }
    } else {
      received = Sys::SocketCalls::Receive(
          connection.socket, parse.ReadBuffer.Data() + parse.WritePosition,
          static_cast<std::size_t>(parse.ReadBuffer.Size() - parse.WritePosition), error);
    }
    if (received < 0) {
      if (Sys::SocketCalls::WouldBlock(error)) break;
      Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketReadable")
          << " 7 CloseClient: sockex = "
          << static_cast<int>(SocketExceptions::DefaultException(error)) << ", en = " << error;
      lock.unlock();
      CloseClient(pointer, SocketExceptions::DefaultException(error), StringBuffer(u"recv"));
      return;
    }
    bool final = received == 0;
    parse.WritePosition += static_cast<int>(received);
    Detail::CountEvent(Counters::BytesReceived, static_cast<int>(received));
    Detail::CountEvent(Counters::ReadableEvents, 1);

    if (connection.webSocket) {  // frames: the HTTP reader is done with this connection
      const char* data =
          reinterpret_cast<const char*>(parse.ReadBuffer.Data()) + parse.ReadPosition;
      std::size_t length = static_cast<std::size_t>(connection.Unread());
      parse.ReadPosition = parse.WritePosition;
      if (!connection.readStopped) FeedWebSocket(pointer, lock, data, length);
    } else if (connection.readStopped) {  // bytes after the last message are dropped
      parse.ReadPosition = parse.WritePosition;
    } else if (Detail::IsPolicyFileRequest(parse)) {
      parse.ReadPosition = parse.WritePosition;
      const char* answer = Detail::PolicyFileResponse;
      connection.Queue(answer, std::strlen(answer) + 1);  // with its NUL
      connection.closeAfterWrite = true;
      connection.readStopped = true;
    } else if (!ProcessIn(pointer, lock, final)) {
      Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketReadable")
          << " 3 CloseClient: ex = ProtocolViolation, n = " << received;
      Detail::CountEvent(Counters::ProtocolViolations, 1);
      lock.unlock();
      CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer());
      return;
    }
    if (final) {
      lock.unlock();
      ProcessOut(pointer);  // what is answered still leaves if the peer only half-closed
      Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketReadable")
          << " 2 CloseCLient: n = " << received << ", en = " << error;
      CloseClient(pointer, SocketExceptions::NoMoreData, StringBuffer());
      return;
    }
    if (connection.hostBusy) break;  // the rest waits until the host has run what was read
    if (parse.WritePosition < parse.ReadBuffer.Size()) break;  // the socket is drained
  }
  lock.unlock();
  if (!ProcessOut(pointer)) {
    CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
  }
}

bool Daemon::ProcessIn(const ConnectionPointer& pointer,
                       std::unique_lock<std::recursive_mutex>& lock, bool final) {
  Connection& connection = *pointer;
  const bool serverSide = connection.serverSide;
  Client::ParseData& parse = connection.parse;
  ReaderEvents events;
  connection.unparsed = false;
  for (;;) {
    if (connection.ReadPaused()) {
      // Requests behind this point wait in the read buffer until the peer has taken enough of
      // the replies, or the host has answered enough of the requests.
      connection.unparsed = connection.Unread() > 0;
      break;
    }
    // An outgoing connection's replies fill its requests in the order they were written.
    if (!serverSide && !connection.current && !connection.inFlight.empty()) {
      connection.current = connection.inFlight.front();
    }
    events.clear();
    ReadOutcome outcome = Detail::RequestReader::Read(parse, connection.current, serverSide, final,
                                                      connection.limits, events);
    bool progressed = false;
    for (const ReaderEvent& event : events) {
      switch (event.What) {
        case ReaderEvent::Kind::ContinueExpected:
          if (connection.exchanges.empty()) {  // with replies outstanding it would come too early
            static const char interim[] = "HTTP/1.1 100 Continue\r\n\r\n";
            connection.Queue(interim, sizeof interim - 1);
          }
          break;
        case ReaderEvent::Kind::MessageComplete:
          progressed = true;
          connection.headStarted = connection.bodyStarted = 0;  // the next request has its own
          if (serverSide) {
            connection.exchanges.push_back(Detail::Exchange{event.Subject, event.KeepAlive, false});
          } else if (!connection.inFlight.empty()) {
            connection.inFlight.erase(connection.inFlight.begin());
          }
          break;
        case ReaderEvent::Kind::HeadersComplete:
          progressed = true;
          break;
        case ReaderEvent::Kind::PartComplete:
        case ReaderEvent::Kind::UpgradeRequested:
          break;
      }
    }
    if (outcome == ReadOutcome::Upgrade) {
      // An upgrade behind requests not yet answered would put the handshake's answer before
      // their replies; no browser does that.
      if (events.size() != 1 || !connection.exchanges.empty()) return false;
      return UpgradeToWebSocket(pointer, lock, events.back().Subject);
    }
    if (outcome == ReadOutcome::Stop) connection.readStopped = true;
    if (!events.empty()) {
      HandToHost(HostDelivery{pointer, nullptr, nullptr, std::move(events), {}, {}}, lock);
    }
    if (serverSide) FormatAnswered(connection, lock);
    if (connection.closing) return true;
    if (outcome == ReadOutcome::Violation) return false;
    if (outcome != ReadOutcome::NeedMore || !progressed || connection.Unread() == 0) break;
  }
  connection.UpdateRequestClocks(EventNanoseconds());
  return true;
}

std::vector<std::shared_ptr<Message>> Daemon::FormatAnswered(
    Connection& connection, std::unique_lock<std::recursive_mutex>& lock) {
  std::vector<std::shared_ptr<Message>> requestsWritten;
  // One thread formats at a time, and takes whatever is answered while it does: the worker and,
  // in window mode, the host's thread both send replies.
  if (connection.formatting) return requestsWritten;
  struct Formatting {  // cleared however the loop ends
    bool& flag;
    explicit Formatting(bool& on) : flag(on) { flag = true; }
    ~Formatting() { flag = false; }
  } formatting(connection.formatting);
  while (!connection.closing && !connection.closeAfterWrite && !connection.exchanges.empty() &&
         connection.exchanges.front().answered) {
    Detail::Exchange exchange = std::move(connection.exchanges.front());
    connection.exchanges.erase(connection.exchanges.begin());
    // Only this thread formats for the connection, so the order of the queue is kept while the
    // message is formatted under its own lock alone.
    lock.unlock();
    // The thread's head buffer: its room serves every reply this thread formats. A large body
    // stays referenced only until queued.
    static thread_local Detail::WireMessage wire;
    if (connection.serverSide) {
      Detail::FormatReply(*exchange.message, exchange.keepAlive, wire);
    } else {
      Detail::FormatRequest(*exchange.message, wire);
    }
    lock.lock();
    std::shared_ptr<const Content> body = std::move(wire.body);
    if (connection.closing) break;
    connection.Queue(wire.head.data(), wire.head.size());
    if (body) {
      const char* bytes = reinterpret_cast<const char*>(body->Data());
      const auto size = static_cast<std::size_t>(body->Size());
      connection.Queue(std::move(body), bytes, size);
    }
    if (connection.serverSide) {
      if (!exchange.keepAlive) {
        connection.closeAfterWrite = true;
        // The last reply of a secure connection ends with close_notify, so that it is not taken
        // for a truncation.
        connection.QueueEndOfStream();
      }
    } else {
      connection.inFlight.push_back(exchange.message);
      requestsWritten.push_back(exchange.message);
    }
    connection.written.push_back(Detail::WrittenMark{connection.QueuedEnd(), exchange.message});
  }
  return requestsWritten;
}

bool Daemon::ProcessOut(const ConnectionPointer& pointer) {
  Connection& connection = *pointer;
  std::unique_lock<std::recursive_mutex> lock(connection.mutex);
  if (connection.closing || connection.socket < 0 || connection.connecting) return true;
  std::vector<std::shared_ptr<Message>> requestsWritten = FormatAnswered(connection, lock);
  if (connection.closing) return true;
  int error = 0;
  if (!connection.Flush(EventNanoseconds(), error)) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessOut")
        << " send: out_octetStreamSize = " << connection.Unsent() << ", lastError = " << error;
    return false;
  }

  boost::container::small_vector<std::shared_ptr<Message>, 4> sent;
  while (!connection.written.empty() && connection.HasSent(connection.written.front().end)) {
    sent.push_back(std::move(connection.written.front().message));
    connection.written.erase(connection.written.begin());
  }
  bool closeNow = false;
  if (!connection.HasOutput() && !connection.shutDown) {
    if (connection.closeAfterWrite) {
      // With nothing unread the connection is closed now. Bytes still unread would turn the
      // close into a reset that can destroy the reply in flight: then only the sending side is
      // shut, and the peer's own close ends it ("No more data"), the idle time-out at the latest.
      char probe[512];
      long unread = Sys::SocketCalls::Receive(connection.socket, probe, sizeof probe, error);
      closeNow = unread == 0 || (unread < 0 && Sys::SocketCalls::WouldBlock(error));
    }
    if (!closeNow && (connection.closeAfterWrite || connection.shutdownOwed)) {
      Sys::SocketCalls::ShutdownSend(connection.socket, error);
      connection.shutDown = true;
    }
  }
  std::shared_ptr<Server> server = connection.server.lock();
  std::shared_ptr<Client> owner = connection.owner;
  DaemonMarshaller& marshaller = *connection.marshaller;
  lock.unlock();

  for (const std::shared_ptr<Message>& message : requestsWritten) {
    std::unique_lock<std::recursive_mutex> messageLock = message->Lock();
    Message::UnlockAndNotifyReadyStateChanged(&marshaller, message, ReadyStates::Sent, messageLock);
  }
  for (const std::shared_ptr<Message>& message : sent) {
    Detail::CountEvent(Counters::RepliesSent, 1);
    if (connection.serverSide) {
      if (server && !server->MessageSent.empty()) {
        marshaller.Marshal_ServerClientMessage(server->MessageSent, server, owner, message);
      }
    } else if (owner && !owner->MessageSent.empty()) {
      marshaller.Marshal_ClientMessage(owner->MessageSent, owner, message);
    }
  }
  if (closeNow) {
    // Sockets are closed by their worker: the host's thread leaves it to the end of its cycle.
    if (std::this_thread::get_id() == worker_) {
      CloseClient(pointer, SocketExceptions::None, StringBuffer(u"reply sent"));
    } else {
      ScheduleCloseClient(pointer, SocketExceptions::None, StringBuffer(u"reply sent"));
    }
  }
  return true;
}

void Daemon::ProcessSocketWritable(const ConnectionPointer& pointer) {
  Connection& connection = *pointer;
  std::unique_lock<std::recursive_mutex> lock(connection.mutex);
  if (connection.closing || connection.socket < 0) return;
  connection.lastActivity = EventNanoseconds();
  Detail::CountEvent(Counters::WritableEvents, 1);
  if (connection.connecting) {
    int error = Sys::SocketCalls::PendingError(connection.socket);
    lock.unlock();
    HandleConnectingClient(pointer, error);
    return;
  }
  lock.unlock();
  if (ProcessOut(pointer)) {
    Resume(pointer);
  } else {
    CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
  }
}

bool Daemon::Resume(const ConnectionPointer& pointer) {
  Connection& connection = *pointer;
  std::unique_lock<std::recursive_mutex> lock(connection.mutex);
  // A few rounds, then the other connections have their turn: the cycle comes back at once.
  for (int round = 0; round < ReceivesPerEvent; ++round) {
    if (connection.closing || !connection.unparsed || connection.ReadPaused()) return true;
    if (!ProcessIn(pointer, lock, false)) {
      lock.unlock();
      Detail::CountEvent(Counters::ProtocolViolations, 1);
      CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer());
      return false;
    }
    lock.unlock();
    if (!ProcessOut(pointer)) {
      CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
      return false;
    }
    lock.lock();
  }
  return true;
}

void Daemon::HandleConnectingClient(const ConnectionPointer& pointer, int error) {
  if (error != 0) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketException")
        << " errno: " << error;
    CloseClient(pointer, SocketExceptions::ConnectionRefused, StringBuffer());
    return;
  }
  std::shared_ptr<Client> owner;
  {
    std::lock_guard<std::recursive_mutex> lock(pointer->mutex);
    pointer->connecting = false;
    owner = pointer->owner;
  }
  if (owner) owner->ConnectionStateChanged(pointer.get(), ClientStates::Connected);
  if (!ProcessOut(pointer)) {
    CloseClient(pointer, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
  }
}

void Daemon::RefuseUpgrade(Connection& connection) {
  static const char refusal[] =
      "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  connection.Queue(refusal, sizeof refusal - 1);
  connection.QueueEndOfStream();
  connection.closeAfterWrite = true;
  connection.readStopped = true;
}

bool Daemon::UpgradeToWebSocket(const ConnectionPointer& pointer,
                                std::unique_lock<std::recursive_mutex>& lock,
                                const std::shared_ptr<Message>& request) {
  Connection& connection = *pointer;
  Client::ParseData& parse = connection.parse;
  std::shared_ptr<Server> server = connection.server.lock();
  if (!server || server->WebSocketMessage.empty()) {
    // A server that takes no WebSocket events would hold such connections for nothing.
    parse.ReadPosition = parse.WritePosition;
    RefuseUpgrade(connection);
    return true;
  }
  // The handshake reads the header fields the reader has parsed; the bytes behind the header
  // block belong to the WebSocket protocol.
  WebsocketSpecifications::UpgradeRequest upgrade("");
  {
    auto messageLock = request->Lock();
    upgrade = Detail::WebSocketSupport::RequestOf(*request);
  }
  std::string rest(reinterpret_cast<const char*>(parse.ReadBuffer.Data()) + parse.ReadPosition,
                   static_cast<std::size_t>(connection.Unread()));
  parse.ReadPosition = parse.WritePosition;
  connection.webSocket = std::make_shared<Detail::WebSocketSupport>(
      static_cast<std::size_t>(connection.limits.MaxWebSocketFrameBytes));
  connection.UpdateRequestClocks(EventNanoseconds());
  FeedWebSocket(pointer, lock, rest.data(), rest.size(), &upgrade);
  return true;
}

void Daemon::FeedWebSocket(const ConnectionPointer& pointer,
                           std::unique_lock<std::recursive_mutex>& lock, const char* data,
                           std::size_t length,
                           const WebsocketSpecifications::UpgradeRequest* upgrade) {
  Connection& connection = *pointer;
  std::shared_ptr<Detail::WebSocketSupport> support = connection.webSocket;
  bool wasOpen = support->IsOpen();
  std::vector<std::shared_ptr<WSData>> events;
  std::string wire;
  int result = upgrade ? support->Upgrade(*upgrade, data, length, events, wire)
                       : support->Feed(data, length, events, wire);
  if (!wire.empty()) connection.Queue(wire.data(), wire.size());
  if (support->HandshakeFailed()) {
    RefuseUpgrade(connection);
    return;
  }
  if ((wasOpen || result == Detail::WebSocketSupport::Deliver) && !support->IsOpen()) {
    // A closing or malformed frame closed it: the closing bytes leave, then the connection goes.
    connection.QueueEndOfStream();
    connection.closeAfterWrite = true;
    connection.readStopped = true;
  }
  if (events.empty()) return;
  if (events.front()->Method == Methods::WEBSOCKETCONNECT) {
    connection.webSocketAnnounced = true;
    // Frames are small and leave one by one, when the host writes them: with Nagle's algorithm a
    // frame that follows another unacknowledged one would wait for the peer's delayed
    // acknowledgement, up to 40 ms, on every live update.
    int error = 0;
    Sys::SocketCalls::SetNoDelay(connection.socket, true, error);
  }
  HandToHost(HostDelivery{pointer, nullptr, nullptr, {}, std::move(events), {}}, lock);
}

void Daemon::CloseClient(const ConnectionPointer& pointer, SocketExceptions::Enumeration reason,
                         const StringBuffer& detail) {
  Connection& connection = *pointer;
  std::unique_lock<std::recursive_mutex> lock(connection.mutex);
  if (connection.closed) {  // each connection is closed once
    lock.unlock();
    Exclude(pointer.get());
    return;
  }
  connection.closed = true;
  connection.closing = true;
  bool webSocketGone = connection.webSocketAnnounced;
  connection.webSocketAnnounced = false;
  std::vector<std::shared_ptr<Message>> unfinished = connection.TakeUnfinished();
  std::shared_ptr<Server> server = connection.server.lock();
  std::shared_ptr<Client> owner = connection.owner;
  DaemonMarshaller& marshaller = *connection.marshaller;
  lock.unlock();

  // The host hears of a WebSocket's end while its socket is still open.
  if (webSocketGone && server && !server->WebSocketMessage.empty()) {
    auto event = std::make_shared<WSData>();
    event->Method = Methods::WEBSOCKETDISCONNECT;
    marshaller.Marshal_ServerWebSocketMessage(server->WebSocketMessage, server, owner, event);
  }

  lock.lock();
  int socket = connection.socket;
  connection.socket = -1;
  connection.tls.reset();
  connection.out.Clear();
  connection.plain.Clear();
  connection.parse.ResetAll();
  connection.parse.ReadBuffer.Resize(0);
  connection.owner.reset();  // the Client and its connection no longer hold each other
  std::shared_ptr<Daemon> daemon = std::move(connection.daemon);
  lock.unlock();

  Sys::SocketCalls::Close(socket);
  Exclude(pointer.get());
  if (daemon) Detail::CountEvent(Counters::OpenConnections, -1);
  Detail::CountEvent(Counters::ConnectionsClosed, 1);
  if (reason != SocketExceptions::None && reason != SocketExceptions::NoMoreData &&
      Logger::IsEnabled(Logger::Severity::Debug)) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::CloseClient")
        << " reason: " << SocketExceptions::ToString(reason) << " detail: " << detail;
  }
  Detail::FinishMessages(marshaller, unfinished);
  if (!owner) return;
  if (owner->IsCurrent(pointer.get())) {
    owner->ConnectionClosed(pointer.get(), reason);
    if (!owner->Closed.empty()) {
      marshaller.Marshal_ClientMessageStringBufferStringBuffer(
          owner->Closed, owner, nullptr, StringBuffer(SocketExceptions::ToString(reason)), detail);
    }
    owner->ConnectionStateChanged(pointer.get(), ClientStates::Disconnected);
  }
  if (server) {
    if (!server->ClientDisconnected.empty()) {
      marshaller.Marshal_ServerClient(server->ClientDisconnected, server, owner);
    }
    // Last: a server waiting to stop counts this connection gone only after its signals.
    server->ForgetConnection(owner.get());
  }
}

void Daemon::ReleaseDeferredClients() {
  std::vector<Deferred> deferred;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    deferred.swap(deferred_);
  }
  for (const Deferred& entry : deferred)
    CloseClient(entry.connection, entry.reason, entry.detail);
}

}  // namespace Veskan
