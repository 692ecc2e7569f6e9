// Daemon: the worker's loop on poll(), listening sockets and accepting, and the periodic pass that
// holds every connection to its server's limits.
#include <veskan/Address.h>
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/Server.h>
#include <veskan/Url.h>

#include "net/Connection.h"
#include "net/EngineCounters.h"
#include "net/EngineLog.h"
#include "net/TlsContext.h"
#include "net/websocket/WebSocketSupport.h"
#include "sys/Memory.h"
#include "sys/Socket.h"
#include "sys/Turns.h"

#include <algorithm>
#include <atomic>

namespace Veskan {

namespace {

using Counters = NetworkPerformanceMonitor::Counters;
using Detail::Connection;
using Detail::MonotonicNanoseconds;
using Detail::NanosecondsPerSecond;

// At most this many connections are accepted per readable event of a listening socket, so that
// a flood of connections cannot starve the connections already served.
constexpr int AcceptsPerEvent = 64;
// How long a worker waits for its turn before it goes on without one: longer than a round of
// turns of a busy server, shorter than anything a person would notice; it only matters when a
// worker holding a turn blocks on another.
constexpr auto TurnPatience = std::chrono::milliseconds(100);
// How long a worker runs cycles without waiting before it yields the processor. A worker woken
// from its poll cannot take its turn before it runs: this bounds how long its connections wait
// for a busy one (50 busy connections on one processor: a p99 of 0.8 ms when yielding after
// 0.5 ms, 0.4 ms after 0.1 ms).
constexpr std::int64_t YieldAfter = 100 * 1000;
// How long listening sockets rest after accepting failed (out of descriptors, usually).
constexpr std::int64_t AcceptPause = 100 * 1000000;

std::int64_t Seconds(int seconds) {
  return static_cast<std::int64_t>(seconds) * NanosecondsPerSecond;
}

// Gives the allocator's free pages back, at most once a second for the whole process (a trim
// walks every arena). Called when read buffers were given back: after a burst of connections
// that went idle, their freed buffers would otherwise stay resident, and be most of their cost.
void ReleaseFreeMemorySometimes(std::int64_t now) {
  static std::atomic<std::int64_t> last{0};
  std::int64_t previous = last.load(std::memory_order_relaxed);
  if (now - previous < NanosecondsPerSecond) return;
  if (!last.compare_exchange_strong(previous, now)) return;
  Sys::ReleaseFreeMemory();
}

// Why a connection must go, found by the periodic pass.
struct Verdict {
  SocketExceptions::Enumeration reason = SocketExceptions::None;
  const char16_t* detail = nullptr;  // null: it stays
};

// Holds one connection to its limits at `now`; its lock is held.
Verdict Judge(Connection& connection, std::int64_t now) {
  const Server::Limits& limits = connection.limits;
  if (connection.connecting) {
    if (--connection.connectSecondsLeft <= 0) {
      return Verdict{SocketExceptions::ConnectionRefused, u"time-out"};
    }
    return Verdict{};
  }
  if (connection.headStarted != 0 &&
      now - connection.headStarted >= Seconds(limits.HeadTimeoutSeconds)) {
    return Verdict{SocketExceptions::DataRefused, u"request head too slow"};
  }
  if (connection.bodyStarted != 0) {
    std::int64_t allowed = Seconds(limits.BodyTimeoutSeconds);
    if (limits.MinBodyBytesPerSecond > 0) {
      allowed += static_cast<std::int64_t>(connection.parse.ContentReceived) *
                 NanosecondsPerSecond / limits.MinBodyBytesPerSecond;
    }
    if (now - connection.bodyStarted >= allowed) {
      return Verdict{SocketExceptions::DataRefused, u"request body too slow"};
    }
  }
  if (connection.HasOutput() &&
      now - connection.lastSendProgress >= Seconds(limits.SendTimeoutSeconds)) {
    return Verdict{SocketExceptions::DataRefused, u"peer does not read"};
  }
  // An open WebSocket is a channel the host keeps on purpose, quiet or not.
  bool quiet = connection.serverSide && connection.exchanges.empty() && !connection.HasOutput() &&
               !connection.hostBusy && connection.headStarted == 0 && connection.bodyStarted == 0 &&
               !(connection.webSocket && connection.webSocket->IsOpen());
  if (quiet && now - connection.lastActivity >= Seconds(limits.IdleTimeoutSeconds)) {
    return Verdict{SocketExceptions::NoMoreData, u"idle"};
  }
  return Verdict{};
}

}  // namespace

// What one cycle of the worker looks at, kept between cycles to reuse its memory.
struct Daemon::Cycle {
  Sys::Poller poller;
  std::vector<std::shared_ptr<Server>> servers;
  std::vector<int> listening;
  std::vector<ConnectionPointer> clients;
  std::vector<int> positions;  // poller position of each connection, -1 when not polled
  std::int64_t nextPass = 0;
  std::int64_t acceptPausedUntil = 0;
  std::int64_t busySince = 0;  // when the thread last waited or yielded
};

// What the worker waits for on a connection.
struct Daemon::Interest {
  int socket = -1;  // -1: not polled
  bool read = false;
  bool write = false;
  bool busy = false;  // requests wait in the read buffer that may be read now: do not sleep
};

void Daemon::LoadSocketLibraries() {
  // POSIX sockets need no start-up; the guard keeps the once-per-process contract for systems
  // whose socket library does.
  static std::atomic<bool> loaded{false};
  loaded.exchange(true);
}

bool Daemon::UseSocket(int socket, const Sys::SocketAddress& address) {
  int error = 0;
  if (!Sys::SocketCalls::Bind(socket, address, error)) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::UseSocket")
        << " bind_errno: " << error << " sin.addr_.sin_addr: " << address.DottedAddress()
        << " sin.addr_.sin_port: " << address.port;
    return false;
  }
  // The largest backlog there is; the system caps it at its own maximum.
  if (!Sys::SocketCalls::Listen(socket, 2147483647, error)) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::UseSocket")
        << " listen_errno: " << error << " sin.addr_.sin_addr: " << address.DottedAddress()
        << " sin.addr_.sin_port: " << address.port;
    return false;
  }
  return true;
}

int Daemon::AllocateNewSocket(const std::shared_ptr<Server>& server, bool retry, int& port) {
  LoadSocketLibraries();
  int error = 0;
  Sys::Socket socket = Sys::Socket::OpenTcp(error);
  StringBuffer base = server->BaseUrl();
  if (!socket.IsOpen() || base.isEmpty()) return -1;
  Url url(base.getTerminatedBuffer());
  Sys::SocketCalls::SetNoDelay(socket.Get(), false, error);  // Nagle stays on: one send a reply

  Sys::SocketAddress address;
  if (url.HasHost && !url.Host.isEmpty() && url.Host != StringBuffer(u"*")) {
    StringBuffer host(url.Host);
    Address resolved(host.getTerminatedBuffer(), 0, Address::NslookupOnlyIfNeeded);
    StringBuffer dotted = resolved.IsLocal                 ? StringBuffer(u"127.0.0.1")
                          : resolved.Addresses.Count() > 0 ? resolved.Addresses[0]
                                                           : StringBuffer();
    if (!Sys::SocketAddress::FromDotted(UTF16to8(dotted), address.address)) return -1;
  }
  address.port = retry ? 0 : url.Port;
  if (!retry) Sys::SocketCalls::SetReuseAddress(socket.Get(), error);

  if (!UseSocket(socket.Get(), address)) return -1;
  port = Sys::SocketCalls::LocalPort(socket.Get());
  return socket.Release();
}

void Daemon::ThreadProc() {
  LoadSocketLibraries();
  Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ThreadProc") << " id_: " << id_;
  Cycle cycle;
  cycle.nextPass = MonotonicNanoseconds() + NanosecondsPerSecond;
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  worker_ = std::this_thread::get_id();
  while (!IsThreadTerminationTime()) {
    try {
      RunCycle(cycle, lock);
    } catch (const std::exception& exception) {
      // Nothing may leave the worker: the cycle is abandoned and the next one starts afresh.
      if (!lock.owns_lock()) lock.lock();
      Detail::EngineLog(Logger::Severity::Error, "Veskan::Daemon::ThreadProc",
                        StringBuffer(" exception: ") + StringBuffer(exception.what()));
    }
  }
  lock.unlock();
  Detail::ReleaseTlsThreadState();
  Sys::ReleaseFreeMemory();
  Detail::CountEvent(Counters::DaemonsRunning, -1);
  Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ThreadProc") << " ended id_: " << id_;
}

bool Daemon::IsThreadTerminationTime() {
  if (clientSocketCount_ > 0 || !servers_.empty() || !deferred_.empty()) return false;
  // Lock order: the ring before this daemon.
  mutex_.unlock();
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  mutex_.lock();
  if (clientSocketCount_ > 0 || !servers_.empty() || !deferred_.empty()) return false;
  ended_ = true;
  Unlink();
  changed_.notify_all();
  return true;
}

void Daemon::RunCycle(Cycle& cycle, std::unique_lock<std::recursive_mutex>& lock) {
  std::int64_t now = MonotonicNanoseconds();
  if (now >= cycle.nextPass) {
    lock.unlock();
    ProcessAllClients();
    lock.lock();
    cycle.nextPass = now + NanosecondsPerSecond;
  }

  // Cleared before the connections are looked at: a change made after this point wakes the poll.
  wakePending_.store(false);
  cycle.servers = servers_;
  cycle.clients.assign(clients_.begin(), clients_.begin() + clientSocketCount_);
  lock.unlock();
  // The workers take turns at the processors for everything but their waits; see Sys::TurnGate.
  Sys::TurnGate& turns = Sys::TurnGate::Workers();
  turns.Take(TurnPatience);

  cycle.poller.Clear();
  cycle.poller.Add(wakeUp_->Descriptor(), true, false);
  cycle.listening.clear();
  for (const std::shared_ptr<Server>& server : cycle.servers) {
    int socket = now < cycle.acceptPausedUntil ? -1 : server->ListeningSocket();
    cycle.listening.push_back(socket);
    if (socket >= 0) cycle.poller.Add(socket, true, false);
  }
  cycle.positions.assign(cycle.clients.size(), -1);
  bool busy = false;
  for (std::size_t i = 0; i < cycle.clients.size(); ++i) {
    Interest interest = PrepareConnection(cycle.clients[i]);
    busy = busy || interest.busy;
    if (interest.socket >= 0) {
      cycle.positions[i] = cycle.poller.Add(interest.socket, interest.read, interest.write);
    }
  }

  std::int64_t until = cycle.nextPass;
  if (cycle.acceptPausedUntil > now) until = std::min(until, cycle.acceptPausedUntil);
  int timeout = static_cast<int>((until - MonotonicNanoseconds()) / 1000000);
  timeout = busy ? 0 : std::max(0, std::min(timeout, 1000));
  int ready = cycle.poller.Wait(0);
  if (ready == 0 && timeout > 0) {
    turns.Give();
    ready = cycle.poller.Wait(timeout);
    // Its connections had nothing when its turn came: now that they have, they are served next
    // rather than a whole round of the other workers later.
    if (ready > 0) turns.Take(TurnPatience, true);
  }

  if (ready > 0) {
    if (cycle.poller.Readable(0)) wakeUp_->Drain();
    int position = 1;
    for (std::size_t i = 0; i < cycle.servers.size(); ++i) {
      if (cycle.listening[i] < 0) continue;
      if (cycle.poller.Readable(position) &&
          !ProcessFirstSocket(cycle.servers[i], cycle.listening[i])) {
        cycle.acceptPausedUntil = MonotonicNanoseconds() + AcceptPause;
      }
      ++position;
    }
    for (std::size_t i = 0; i < cycle.clients.size(); ++i) {
      int at = cycle.positions[i];
      if (at < 0) continue;
      const ConnectionPointer& connection = cycle.clients[i];
      if (cycle.poller.Writable(at) || cycle.poller.Failed(at)) ProcessSocketWritable(connection);
      if (cycle.poller.Readable(at)) ProcessSocketReadable(connection);
    }
  }
  ReleaseDeferredClients();
  cycle.clients.clear();  // ReleaseAllClients: this cycle's references go
  // What the cycle handed to the host's thread goes in one wake-up; the host then runs before
  // the next worker, so that the replies it gives leave without waiting for a round of turns.
  if (marshaller_->WakeOwner()) std::this_thread::yield();
  // The next worker in line has its turn; this one takes its place at the end of the line. With
  // nobody in line, workers woken from their polls may still wait to run at all: the kernel may
  // put them off for a whole time slice while a busy worker goes on, so it yields now and then.
  bool handedOver = turns.Give();
  if (handedOver) {
    cycle.busySince = MonotonicNanoseconds();
  } else if (ready > 0) {
    if (MonotonicNanoseconds() - cycle.busySince >= YieldAfter) {
      std::this_thread::yield();
      cycle.busySince = MonotonicNanoseconds();
    }
  } else {
    cycle.busySince = MonotonicNanoseconds();
  }
  cycle.servers.clear();
  lock.lock();
  ++cycles_;
  changed_.notify_all();  // Server::Stop waits for a cycle that no longer polls its socket
}

Daemon::Interest Daemon::PrepareConnection(const ConnectionPointer& connection) {
  std::unique_lock<std::recursive_mutex> lock(connection->mutex);
  if (connection->closing || connection->socket < 0) return Interest{};
  if (connection->connecting) return Interest{connection->socket, false, true};
  bool answered = !connection->exchanges.empty() && connection->exchanges.front().answered &&
                  !connection->closeAfterWrite;
  bool shutdown = connection->shutdownOwed && !connection->shutDown;
  bool resume = connection->unparsed && !connection->ReadPaused();
  if (answered || shutdown || resume) {
    // Answered since the last cycle, or drained enough to go on with requests that waited in the
    // read buffer: done now, not a poll later.
    lock.unlock();
    if (!ProcessOut(connection)) {
      CloseClient(connection, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
      return Interest{};
    }
    if (!Resume(connection)) return Interest{};
    lock.lock();
    if (connection->closing || connection->socket < 0) return Interest{};
  }
  return Interest{connection->socket, !connection->ReadPaused(), connection->HasOutput(),
                  connection->unparsed && !connection->ReadPaused()};
}

bool Daemon::ProcessFirstSocket(const std::shared_ptr<Server>& server, int listening) {
  for (int accepted = 0; accepted < AcceptsPerEvent; ++accepted) {
    Sys::SocketAddress peer;
    int error = 0;
    int socket = Sys::SocketCalls::Accept(listening, peer, error);
    if (socket < 0) {
      if (Sys::SocketCalls::WouldBlock(error)) return true;
      // Out of descriptors, typically: the pending connection stays queued and the socket
      // readable, so the caller pauses accepting instead of spinning on it.
      Detail::EngineLog(Logger::Severity::Warning, "Veskan::Daemon::ProcessFirstSocket",
                        StringBuffer(" accept_errno: ") + FormatInteger(error));
      return false;
    }
    ConnectionPointer connection =
        FinalizeNewConnection(socket, UTF8to16(peer.DottedAddress().c_str()), peer.port, server);
    if (!connection) continue;
    bool mine;
    {
      std::lock_guard<std::recursive_mutex> lock(connection->mutex);
      mine = connection->daemon.get() == this;
    }
    // A client usually sends its request right behind the connect: read it now rather than
    // after another wait, when the connection stays with this worker.
    if (mine) ProcessSocketReadable(connection);
  }
  return true;
}

Daemon::ConnectionPointer Daemon::FinalizeNewConnection(int socket, const StringBuffer& peerAddress,
                                                        int peerPort,
                                                        const std::shared_ptr<Server>& server) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FinalizeNewConnection")
      << " sin.addr_.sin_addr: " << peerAddress;
  // A secure server's connection has its session before a worker can read it; without one it is
  // not served at all, never in plain HTTP.
  std::shared_ptr<TransportLayerSecurity> tls;
  if (server->IsSecure()) {
    tls = server->NewTlsSession();
    if (!tls) {
      Detail::EngineLog(Logger::Severity::Error, "Veskan::Daemon::FinalizeNewConnection",
                        StringBuffer(u"no TLS session, socket: ") + FormatInteger(socket));
      Sys::SocketCalls::Close(socket);
      return nullptr;
    }
  }
  std::shared_ptr<Client> client(new Client(server, server->marshaller_));
  auto connection = std::make_shared<Connection>(client, socket, server, server->marshaller_,
                                                 server->GetLimits());
  connection->peerAddress = peerAddress;
  connection->peerPort = peerPort;
  connection->tls = std::move(tls);
  {
    std::lock_guard<std::recursive_mutex> lock(client->mutex_);
    client->connection_ = connection;
  }
  // Known to the server, and announced to the host, before any worker can serve or close it.
  server->RememberConnection(client);
  Detail::CountEvent(Counters::ConnectionsAccepted, 1);
  if (!server->ClientConnected.empty()) {
    server->marshaller_->Marshal_ServerClient(server->ClientConnected, server, client);
  }
  std::shared_ptr<Daemon> chosen;
  {
    std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
    bool created = false;
    chosen = ChooseNextAvailableDaemon(created);
    chosen->Include(connection);  // cannot fail: chosen under the ring's lock
    chosen->Start();
  }
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FinalizeNewConnection")
      << " TWO sin.addr_.sin_addr: " << peerAddress << " daemon: " << chosen->id_;
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FinalizeNewConnection")
      << " THREE sin.addr_.sin_addr: " << peerAddress;
  return connection;
}

void Daemon::ProcessAllClients() {
  std::vector<ConnectionPointer> connections;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    connections.assign(clients_.begin(), clients_.begin() + clientSocketCount_);
  }
  int connecting = 0;
  int other = 0;
  bool buffersGiven = false;
  std::int64_t now = MonotonicNanoseconds();
  for (const ConnectionPointer& connection : connections) {
    std::unique_lock<std::recursive_mutex> lock(connection->mutex);
    if (connection->closing) {
      ++other;
      continue;
    }
    if (connection->connecting) ++connecting;
    Verdict verdict = Judge(*connection, now);
    // A connection quiet for a second gives its read buffer back until bytes arrive again, so
    // that thousands of idle keep-alive connections cost little memory.
    Client::ParseData& parse = connection->parse;
    if (now - connection->lastActivity >= NanosecondsPerSecond && connection->Unread() == 0 &&
        parse.State == Client::ParseData::States::Waiting && parse.ReadBuffer.Size() > 0) {
      parse.ReadBuffer.Resize(0);
      parse.ReadPosition = parse.WritePosition = 0;
      buffersGiven = true;
    }
    std::shared_ptr<Client> owner = connection->owner;
    StringBuffer peer = connection->peerAddress;
    lock.unlock();

    if (owner && !owner->Tick.empty()) connection->marshaller->Marshal_Client(owner->Tick, owner);
    if (verdict.detail != nullptr) {
      if (verdict.reason == SocketExceptions::DataRefused) {
        Detail::EngineLog(Logger::Severity::Information, "Veskan::Daemon::ProcessAllClients",
                          StringBuffer(u"closing: ") + verdict.detail + u" peer: " + peer);
      }
      CloseClient(connection, verdict.reason, StringBuffer(verdict.detail));
    }
  }
  if (buffersGiven) ReleaseFreeMemorySometimes(now);
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::ProcessAllClients")
      << " connectedClientCount: " << static_cast<int>(connections.size()) - connecting - other
      << " connectingClientCount: " << connecting << " otherStateCount: " << other
      << " totalSockets: " << connections.size();
}

}  // namespace Veskan
