// The engine's state of one connection: its output, its pace and its clocks.
#include "net/Connection.h"

#include <veskan/Daemon.h>
#include <veskan/NetworkPerformanceMonitor.h>

#include "net/EngineCounters.h"
#include "net/websocket/WebSocketSupport.h"
#include "sys/Clock.h"

#include <algorithm>
#include <atomic>

namespace Veskan {
namespace Detail {

namespace {

std::atomic<std::uint64_t> nextConnectionId{1};

// Plaintext is encrypted no further ahead of the socket than this, so that a large reply over
// TLS is not held twice in memory.
constexpr std::size_t EncryptAhead = 64 * 1024;
// The plaintext of one TLS record (RFC 8446 section 5.1).
constexpr std::size_t TlsRecordBytes = 16 * 1024;

}  // namespace

std::int64_t MonotonicNanoseconds() {
  static const std::int64_t perSecond = Sys::MonotonicTicksPerSecond();
  std::int64_t ticks = Sys::MonotonicTicks();
  if (perSecond == NanosecondsPerSecond) return ticks;  // no divisions on every event
  return ticks / perSecond * NanosecondsPerSecond +
         (ticks % perSecond) * NanosecondsPerSecond / perSecond;
}

std::int64_t EventNanoseconds() {
  return Sys::CoarseMonotonicNanoseconds();
}

Connection::Connection(const std::shared_ptr<Client>& client, int socketHandle,
                       const std::shared_ptr<Server>& owningServer,
                       const std::shared_ptr<DaemonMarshaller>& deliverer,
                       const Server::Limits& connectionLimits)
    : id(nextConnectionId++),
      serverSide(owningServer != nullptr),
      server(owningServer),
      marshaller(deliverer),
      limits(connectionLimits),
      owner(client),
      socket(socketHandle),
      lastActivity(EventNanoseconds()) {}

Connection::~Connection() {
  // The worker closes sockets; this one never reached a daemon, or the daemon ended before.
  if (socket >= 0) Sys::SocketCalls::Close(socket);
}

void Connection::Queue(const char* data, std::size_t length) {
  if (!HasOutput()) lastSendProgress = EventNanoseconds();
  (tls ? plain : out).Append(data, length);
}

void Connection::Queue(std::shared_ptr<const void> bytesOwner, const char* data,
                       std::size_t length) {
  if (!HasOutput()) lastSendProgress = EventNanoseconds();
  (tls ? plain : out).Append(std::move(bytesOwner), data, length);
}

std::uint64_t Connection::QueuedEnd() const {
  return tls ? plain.End() : out.End();
}

bool Connection::HasSent(std::uint64_t end) const {
  return tls ? plain.Consumed() >= end && out.Empty() : out.Consumed() >= end;
}

std::size_t Connection::Unsent() const {
  return out.Unsent() + plain.Unsent();
}

void Connection::QueueEndOfStream() {
  if (tls) closeNotifyOwed = true;
}

bool Connection::Flush(std::int64_t now, int& error) {
  error = 0;
  for (;;) {
    if (tls) {
      while (out.Unsent() < EncryptAhead && !plain.Empty()) {
        Sys::ByteSpan span;
        plain.Front(&span, 1);
        std::size_t count = std::min(span.length, TlsRecordBytes);
        std::vector<char> wire;
        if (!tls->Outgoing(span.data, count, wire)) return false;
        plain.Consume(count);
        out.Append(std::move(wire));
      }
      if (closeNotifyOwed && plain.Empty()) {
        std::vector<char> wire;
        tls->Close(wire);
        out.Append(std::move(wire));
        closeNotifyOwed = false;
      }
    }
    if (out.Empty()) return true;
    Sys::ByteSpan spans[32];
    std::size_t count = out.Front(spans, 32);
    std::size_t offered = 0;
    for (std::size_t i = 0; i < count; ++i)
      offered += spans[i].length;
    long sent = Sys::SocketCalls::SendSpans(socket, spans, count, error);
    if (sent < 0) {
      if (!Sys::SocketCalls::WouldBlock(error)) return false;
      error = 0;
      return true;
    }
    out.Consume(static_cast<std::size_t>(sent));
    lastSendProgress = now;
    CountEvent(NetworkPerformanceMonitor::Counters::BytesSent, static_cast<int>(sent));
    if (static_cast<std::size_t>(sent) < offered) return true;  // the socket is full
  }
}

void Connection::MarkAnswered(const AnsweredRequests& answered) {
  for (const Message* request : answered) {
    for (Exchange& exchange : exchanges) {
      if (exchange.message.get() == request) exchange.answered = true;
    }
  }
}

void Connection::AfterHost(const std::shared_ptr<Connection>& connection,
                           const AnsweredRequests& answered) {
  std::shared_ptr<Daemon> worker;
  {
    std::lock_guard<std::recursive_mutex> lock(connection->mutex);
    connection->MarkAnswered(answered);
    worker = connection->daemon;
  }
  if (worker && !worker->ProcessOut(connection)) {
    worker->ScheduleCloseClient(connection, SocketExceptions::HTTPProtocolViolation,
                                StringBuffer(u"send"));
  }
  {
    std::lock_guard<std::recursive_mutex> lock(connection->mutex);
    connection->hostBusy = false;
  }
  if (worker) worker->WakeUp();
}

int Connection::Unanswered() const {
  int count = 0;
  for (const Exchange& exchange : exchanges) {
    if (!exchange.answered) ++count;
  }
  return count;
}

bool Connection::ReadPaused() const {
  // An outgoing connection always reads: the peer may answer before it has read the request.
  if (!serverSide) return false;
  return hostBusy || Unsent() >= static_cast<std::size_t>(limits.MaxUnsentBytes) ||
         Unanswered() >= limits.MaxUnansweredRequests;
}

void Connection::UpdateRequestClocks(std::int64_t now) {
  using States = Client::ParseData::States;
  bool inHead = false;
  bool inBody = false;
  // Only a server reading requests holds its peer to a pace; a paused connection is not reading,
  // so its peer is not to blame.
  if (serverSide && !webSocket && !readStopped && !ReadPaused()) {
    switch (parse.State) {
      case States::Waiting:
        inHead = Unread() > 0;
        break;
      case States::ReadingHeaders:
        inHead = true;
        break;
      case States::ReadingContent:
      case States::ReadingChunkSize:
      case States::ReadingChunkData:
        inBody = true;
        break;
      case States::SendingContent:
        break;
    }
  }
  if (!inHead) {
    headStarted = 0;
  } else if (headStarted == 0) {
    headStarted = now;
  }
  if (!inBody) {
    bodyStarted = 0;
  } else if (bodyStarted == 0) {
    bodyStarted = now;
  }
}

std::vector<std::shared_ptr<Message>> Connection::TakeUnfinished() {
  std::vector<std::shared_ptr<Message>> unfinished;
  for (Exchange& exchange : exchanges) {
    if (!serverSide) unfinished.push_back(exchange.message);  // requests never written
  }
  for (std::shared_ptr<Message>& message : inFlight)
    unfinished.push_back(message);
  exchanges.clear();
  inFlight.clear();
  written.clear();
  current.reset();  // outgoing: the head of inFlight; server side: a request half read
  return unfinished;
}

}  // namespace Detail
}  // namespace Veskan
