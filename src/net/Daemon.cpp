// Daemon: the ring of worker threads, the worker loop on poll(), accepting, reading with the
// request reader, writing replies, closing; and the shared buffer map.
#include <veskan/Address.h>
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/NetworkPerformanceMonitor.h>
#include <veskan/Server.h>
#include <veskan/TransportLayerSecurity.h>
#include <veskan/Url.h>
#include <veskan/WSData.h>

#include "net/EngineCounters.h"
#include "net/EngineLog.h"
#include "net/ReplyWriter.h"
#include "net/RequestReader.h"
#include "net/TlsContext.h"
#include "net/websocket/WebSocketSupport.h"
#include "sys/Clock.h"
#include "sys/Socket.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>

namespace Veskan {

namespace {

using Counters = NetworkPerformanceMonitor::Counters;

// The ring: every daemon of the process, linked through next_ while its thread runs.
Daemon* ringHead = nullptr;
int daemonCount = 0;
std::atomic<int> nextDaemonId{1};

std::mutex threadsMutex;
std::condition_variable threadsEnded;
int runningThreads = 0;

std::recursive_mutex byteBufferMutex;
std::map<StringBuffer, ByteBuffer>& ByteBufferMap() {
  static std::map<StringBuffer, ByteBuffer> map;
  return map;
}

// The attached counters. Replaced monitors stay alive, so that a worker reading the pointer
// never sees one destroyed under it.
std::atomic<NetworkPerformanceMonitor*> currentMonitor{nullptr};
std::mutex monitorsMutex;
std::vector<std::shared_ptr<NetworkPerformanceMonitor>>& Monitors() {
  static std::vector<std::shared_ptr<NetworkPerformanceMonitor>> monitors;
  return monitors;
}

// Monotonic time in nanoseconds.
std::int64_t Now() {
  static const std::int64_t perSecond = Sys::MonotonicTicksPerSecond();
  std::int64_t ticks = Sys::MonotonicTicks();
  return ticks / perSecond * 1000000000 + (ticks % perSecond) * 1000000000 / perSecond;
}

constexpr std::int64_t NanosecondsPerSecond = 1000000000;
// At most this many connections are accepted per readable event of a listening socket, so that
// a flood of connections cannot starve the connections already served.
constexpr int AcceptsPerEvent = 64;
// How long a worker runs cycles without waiting before it yields the processor.
constexpr std::int64_t YieldAfter = 500 * 1000;
// How long listening sockets rest after accepting failed (out of descriptors, usually).
constexpr std::int64_t AcceptPause = 100 * 1000000;
// Receives at most per readable event, so that one busy connection cannot starve the others.
constexpr int ReceivesPerEvent = 4;

}  // namespace

namespace Detail {
void CountEvent(NetworkPerformanceMonitor::Counters::Enumeration counter, int amount) {
  NetworkPerformanceMonitor* monitor = currentMonitor.load(std::memory_order_acquire);
  if (monitor != nullptr) monitor->Increment(counter, amount);
}
}  // namespace Detail

std::recursive_mutex Daemon::LinkListMutex;

// What one cycle of the worker looks at, kept between cycles to reuse its memory.
struct Daemon::Cycle {
  Sys::Poller poller;
  std::vector<std::shared_ptr<Server>> servers;
  std::vector<int> listening;
  std::vector<std::shared_ptr<Client>> clients;
  std::vector<int> positions;  // poller position of each client, -1 when not polled
  std::int64_t nextPass = 0;
  std::int64_t acceptPausedUntil = 0;
  std::int64_t busySince = 0;  // when the thread last waited or yielded
};

Daemon::Daemon(const std::shared_ptr<DaemonMarshaller>& marshaller, Daemon* parent)
    : id_(nextDaemonId++),
      marshaller_(marshaller),
      next_(this),
      parent_(parent),
      wakeUp_(std::make_unique<Sys::WakeUp>()) {
  clientSockets_.fill(-1);
}

Daemon::~Daemon() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::~Daemon") << " id_: " << id_;
}

// ---------------------------------------------------------------------------------------------
// The ring

std::shared_ptr<Daemon> Daemon::GetInstance(const std::shared_ptr<DaemonMarshaller>& marshaller) {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  if (ringHead != nullptr) {
    Daemon* daemon = ringHead;
    do {
      if (daemon->marshaller_ == marshaller && !daemon->ended_) return daemon->shared_from_this();
      daemon = daemon->next_;
    } while (daemon != ringHead);
  }
  std::shared_ptr<Daemon> daemon(new Daemon(marshaller, nullptr));
  daemon->LinkToParent(ringHead);
  return daemon;
}

std::shared_ptr<Daemon> Daemon::Place(const std::shared_ptr<DaemonMarshaller>& marshaller,
                                      const std::shared_ptr<Client>& client) {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  std::shared_ptr<Daemon> first = GetInstance(marshaller);
  bool created = false;
  std::shared_ptr<Daemon> chosen = first->ChooseNextAvailableDaemon(created);
  {
    std::lock_guard<std::recursive_mutex> clientLock(client->mutex_);
    client->daemon_ = chosen;
  }
  chosen->Include(client);
  chosen->Start();
  return chosen;
}

std::shared_ptr<Daemon> Daemon::ChooseNextAvailableDaemon(bool& created) {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  created = false;
  auto hasRoom = [this](Daemon* daemon) {
    std::lock_guard<std::recursive_mutex> lock(daemon->mutex_);
    return daemon->marshaller_ == marshaller_ && !daemon->ended_ &&
           daemon->clientSocketCount_ < static_cast<int>(MaxClientsPerDaemon);
  };
  if (hasRoom(this)) return shared_from_this();
  for (Daemon* daemon = next_; daemon != this; daemon = daemon->next_) {
    if (hasRoom(daemon)) return daemon->shared_from_this();
  }
  std::shared_ptr<Daemon> daemon(new Daemon(marshaller_, this));
  daemon->LinkToParent(this);
  created = true;
  Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ChooseNextAvailableDaemon")
      << " New Daemon Created: " << daemon->id_;
  return daemon;
}

void Daemon::LinkToParent(Daemon* parent) {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  if (parent == nullptr) {
    next_ = this;
    if (ringHead == nullptr) {
      ringHead = this;
    } else {  // behind the head
      next_ = ringHead->next_;
      ringHead->next_ = this;
    }
  } else {
    next_ = parent->next_;
    parent->next_ = this;
  }
  parent_ = parent;
  ++daemonCount;
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::LinkToParent")
      << " pParent:0x" << reinterpret_cast<std::uintptr_t>(parent) << " this:0x"
      << reinterpret_cast<std::uintptr_t>(this) << " daemonCount_: " << daemonCount;
}

void Daemon::Unlink() {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  Daemon* previous = this;
  while (previous->next_ != this)
    previous = previous->next_;
  previous->next_ = next_;
  if (ringHead == this) ringHead = next_ == this ? nullptr : next_;
  for (Daemon* daemon = ringHead; daemon != nullptr;) {  // nobody keeps us as parent
    if (daemon->parent_ == this) daemon->parent_ = parent_;
    daemon = daemon->next_;
    if (daemon == ringHead) break;
  }
  next_ = this;
  --daemonCount;
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Unlink")
      << " pParent:0x" << reinterpret_cast<std::uintptr_t>(parent_) << " this:0x"
      << reinterpret_cast<std::uintptr_t>(this) << " daemonCount_: " << daemonCount;
}

void Daemon::Start() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (started_ || ended_) return;
  started_ = true;
  {
    std::lock_guard<std::mutex> threads(threadsMutex);
    ++runningThreads;
  }
  std::shared_ptr<Daemon> self = shared_from_this();
  // Detached: the thread holds the daemon alive and ends by itself once it has nothing to serve.
  thread_ = std::thread([self] { self->ThreadProc(); });
  thread_.detach();
  Detail::CountEvent(Counters::DaemonsRunning, 1);
}

int Daemon::DaemonCount() {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  return daemonCount;
}

int Daemon::RunningThreadCount() {
  std::lock_guard<std::mutex> threads(threadsMutex);
  return runningThreads;
}

bool Daemon::WaitForAllThreads(double seconds) {
  std::unique_lock<std::mutex> threads(threadsMutex);
  return threadsEnded.wait_for(threads, std::chrono::duration<double>(seconds),
                               [] { return runningThreads == 0; });
}

int Daemon::ClientCount() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return clientSocketCount_;
}

void Daemon::MonitorPerformance(const std::shared_ptr<NetworkPerformanceMonitor>& monitor) {
  std::lock_guard<std::mutex> lock(monitorsMutex);
  if (monitor) Monitors().push_back(monitor);
  currentMonitor.store(monitor.get(), std::memory_order_release);
}

// ---------------------------------------------------------------------------------------------
// Membership

bool Daemon::Include(const std::shared_ptr<Server>& server) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (ended_) return false;
  servers_.push_back(server);
  WakeUp();
  return true;
}

bool Daemon::Include(const std::shared_ptr<Client>& client) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (ended_ || clientSocketCount_ >= static_cast<int>(MaxClientsPerDaemon)) return false;
  clients_[static_cast<std::size_t>(clientSocketCount_)] = client;
  clientSockets_[static_cast<std::size_t>(clientSocketCount_)] = client->GetSocket();
  ++clientSocketCount_;
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Include")
      << " client socket: " << client->GetSocket() << " clientSocketCount: " << clientSocketCount_;
  WakeUp();
  return true;
}

void Daemon::Exclude(const Server* server) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  servers_.erase(std::remove_if(servers_.begin(), servers_.end(),
                                [server](const std::shared_ptr<Server>& entry) {
                                  return entry.get() == server;
                                }),
                 servers_.end());
  WakeUp();
}

void Daemon::Exclude(const Client* client) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (int position = 0; position < clientSocketCount_; ++position) {
    if (clients_[static_cast<std::size_t>(position)].get() != client) continue;
    // Keep the used slots packed, in order of inclusion.
    for (int next = position + 1; next < clientSocketCount_; ++next) {
      clients_[static_cast<std::size_t>(next - 1)] =
          std::move(clients_[static_cast<std::size_t>(next)]);
      clientSockets_[static_cast<std::size_t>(next - 1)] =
          clientSockets_[static_cast<std::size_t>(next)];
    }
    --clientSocketCount_;
    clients_[static_cast<std::size_t>(clientSocketCount_)].reset();
    clientSockets_[static_cast<std::size_t>(clientSocketCount_)] = -1;
    Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Exclude")
        << " closesock: threadPos = " << position << ", n = " << clientSocketCount_;
    return;
  }
}

void Daemon::WakeUp() {
  // The worker itself rebuilds its poll set before it waits again.
  if (std::this_thread::get_id() != worker_) wakeUp_->Signal();
}

void Daemon::ScheduleCloseClient(const std::shared_ptr<Client>& client) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  deferred_.push_back(client);
  WakeUp();
}

// ---------------------------------------------------------------------------------------------
// Listening sockets

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

// ---------------------------------------------------------------------------------------------
// The worker

void Daemon::LoadSocketLibraries() {
  // POSIX sockets need no start-up; the guard keeps the once-per-process contract for systems
  // whose socket library does.
  static std::atomic<bool> loaded{false};
  loaded.exchange(true);
}

void Daemon::ThreadProc() {
  LoadSocketLibraries();
  Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ThreadProc") << " id_: " << id_;
  Cycle cycle;
  cycle.nextPass = Now() + NanosecondsPerSecond;
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
  Detail::CountEvent(Counters::DaemonsRunning, -1);
  Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ThreadProc") << " ended id_: " << id_;
  std::lock_guard<std::mutex> threads(threadsMutex);
  --runningThreads;
  threadsEnded.notify_all();
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
  std::int64_t now = Now();
  if (now >= cycle.nextPass) {
    lock.unlock();
    ProcessAllClients();
    lock.lock();
    cycle.nextPass = now + NanosecondsPerSecond;
  }

  cycle.servers = servers_;
  cycle.clients.assign(clients_.begin(), clients_.begin() + clientSocketCount_);
  lock.unlock();

  cycle.poller.Clear();
  cycle.poller.Add(wakeUp_->Descriptor(), true, false);
  cycle.listening.clear();
  for (const std::shared_ptr<Server>& server : cycle.servers) {
    int socket;
    {
      std::lock_guard<std::recursive_mutex> serverLock(server->mutex_);
      socket = server->listeningSocket_;
    }
    if (now < cycle.acceptPausedUntil) socket = -1;
    cycle.listening.push_back(socket);
    if (socket >= 0) cycle.poller.Add(socket, true, false);
  }
  cycle.positions.assign(cycle.clients.size(), -1);
  for (std::size_t i = 0; i < cycle.clients.size(); ++i) {
    const std::shared_ptr<Client>& client = cycle.clients[i];
    std::unique_lock<std::recursive_mutex> clientLock(client->mutex_);
    if (client->closing_ || client->socket_ < 0) continue;
    bool connecting = client->state_ == ClientStates::Connecting;
    bool pending = !client->out_.empty() ||
                   (!client->exchanges_.empty() && client->exchanges_.front().answered);
    if (pending && !connecting) {  // answered since the last cycle: written now, not a poll later
      clientLock.unlock();
      if (!ProcessOut(client)) {
        CloseClient(client, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
        continue;
      }
      clientLock.lock();
      if (client->closing_ || client->socket_ < 0) continue;
      pending = !client->out_.empty();
    }
    cycle.positions[i] = cycle.poller.Add(client->socket_, true, connecting || pending);
  }

  std::int64_t until = cycle.nextPass;
  if (cycle.acceptPausedUntil > now) until = std::min(until, cycle.acceptPausedUntil);
  int timeout = static_cast<int>((until - Now()) / 1000000);
  timeout = std::max(0, std::min(timeout, 1000));
  int ready = cycle.poller.Wait(timeout);

  if (ready > 0) {
    if (cycle.poller.Readable(0)) wakeUp_->Drain();
    int position = 1;
    for (std::size_t i = 0; i < cycle.servers.size(); ++i) {
      if (cycle.listening[i] < 0) continue;
      if (cycle.poller.Readable(position) &&
          !ProcessFirstSocket(cycle.servers[i], cycle.listening[i])) {
        cycle.acceptPausedUntil = Now() + AcceptPause;
      }
      ++position;
    }
    for (std::size_t i = 0; i < cycle.clients.size(); ++i) {
      int at = cycle.positions[i];
      if (at < 0) continue;
      const std::shared_ptr<Client>& client = cycle.clients[i];
      if (cycle.poller.Writable(at) || cycle.poller.Failed(at)) ProcessSocketWritable(client);
      if (cycle.poller.Readable(at)) ProcessSocketReadable(client);
    }
  }
  ReleaseDeferredClients();
  cycle.clients.clear();  // ReleaseAllClients: this cycle's references go
  // A daemon busy for a while lets the other daemons' threads have their turn: a thread that
  // always finds work would otherwise keep the processor for whole time slices while the
  // connections of the others wait, and the slowest replies would take several times longer.
  if (ready > 0) {
    std::int64_t end = Now();
    if (end - cycle.busySince >= YieldAfter) {
      std::this_thread::yield();
      cycle.busySince = Now();
    }
  } else {
    cycle.busySince = Now();
  }
  cycle.servers.clear();
  lock.lock();
  ++cycles_;
  changed_.notify_all();  // Server::Stop waits for a cycle that no longer polls its socket
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
    std::shared_ptr<Client> client =
        FinalizeNewConnection(socket, UTF8to16(peer.DottedAddress().c_str()), peer.port, server);
    // A client usually sends its request right behind the connect: read it now rather than
    // after another wait, when the connection stays with this worker.
    if (client && client->daemon_.get() == this) ProcessSocketReadable(client);
  }
  return true;
}

std::shared_ptr<Client> Daemon::FinalizeNewConnection(int socket, const StringBuffer& peerAddress,
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
  std::shared_ptr<Client> client;
  {
    std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
    bool created = false;
    std::shared_ptr<Daemon> chosen = ChooseNextAvailableDaemon(created);
    client.reset(new Client(socket, server, chosen));
    client->peerAddress_ = peerAddress;
    client->peerPort_ = peerPort;
    client->tls_ = std::move(tls);
    client->parse_->MaxBodySize = server->MaxBodySize();
    client->lastActivitySeconds_ = Now() / NanosecondsPerSecond;
    if (!chosen->Include(client)) {  // cannot happen under the ring lock; the socket goes
      Detail::EngineLog(Logger::Severity::Error, "Veskan::Daemon::AbortConnection",
                        StringBuffer(" socket: ") + FormatInteger(socket));
      return nullptr;  // the client's destructor closes the socket
    }
    chosen->Start();
    Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FinalizeNewConnection")
        << " TWO sin.addr_.sin_addr: " << peerAddress << " daemon: " << chosen->id_;
  }
  {
    std::lock_guard<std::recursive_mutex> serverLock(server->mutex_);
    server->connections_.Add(client);
  }
  Detail::CountEvent(Counters::ConnectionsAccepted, 1);
  Detail::CountEvent(Counters::OpenConnections, 1);
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FinalizeNewConnection")
      << " THREE sin.addr_.sin_addr: " << peerAddress;
  if (!server->ClientConnected.empty()) {
    server->marshaller_->Marshal_ServerClient(server->ClientConnected, server, client);
  }
  return client;
}

void Daemon::ProcessSocketReadable(const std::shared_ptr<Client>& client) {
  std::unique_lock<std::recursive_mutex> lock(client->mutex_);
  for (int round = 0; round < ReceivesPerEvent; ++round) {
    if (client->closing_ || client->socket_ < 0) return;
    client->activity_ = true;
    std::int64_t now = Now();
    client->lastActivitySeconds_ = now / NanosecondsPerSecond;
    client->lastActivityNanoseconds_ = now % NanosecondsPerSecond;

    Client::ParseData& parse = *client->parse_;
    if (!parse.MakeRoom()) {  // the reader refuses a header block above the limit before this
      lock.unlock();
      CloseClient(client, SocketExceptions::HTTPProtocolViolation,
                  StringBuffer(u"header block too large"));
      return;
    }

    int error = 0;
    int socket = client->socket_;
    bool final = false;
    long received;
    if (client->tls_) {
      char wire[16384];
      received = Sys::SocketCalls::Receive(socket, wire, sizeof wire, error);
      if (received > 0) {
        std::vector<char> plain;
        std::vector<char> answer;
        if (!client->tls_->Incoming(wire, static_cast<std::size_t>(received), plain, answer)) {
          lock.unlock();
          CloseClient(client, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"tls"));
          return;
        }
        client->out_.insert(client->out_.end(), answer.begin(), answer.end());
        if (plain.empty()) continue;  // handshake records only: no end of the stream
        int needed = parse.WritePosition + static_cast<int>(plain.size());
        if (needed > parse.ReadBuffer.Size()) parse.ReadBuffer.Resize(needed);
        std::memcpy(parse.ReadBuffer.Data() + parse.WritePosition, plain.data(), plain.size());
        received = static_cast<long>(plain.size());
      }
    } else {
      received = Sys::SocketCalls::Receive(
          socket, parse.ReadBuffer.Data() + parse.WritePosition,
          static_cast<std::size_t>(parse.ReadBuffer.Size() - parse.WritePosition), error);
    }
    if (received < 0) {
      if (Sys::SocketCalls::WouldBlock(error)) break;
      Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketReadable")
          << " 7 CloseClient: sockex = "
          << static_cast<int>(SocketExceptions::DefaultException(error)) << ", en = " << error;
      lock.unlock();
      CloseClient(client, SocketExceptions::DefaultException(error), StringBuffer(u"recv"));
      return;
    }
    final = received == 0;
    parse.WritePosition += static_cast<int>(received);
    Detail::CountEvent(Counters::BytesReceived, static_cast<int>(received));
    Detail::CountEvent(Counters::ReadableEvents, 1);

    if (client->webSocket_) {  // frames: the HTTP reader is done with this connection
      const char* data =
          reinterpret_cast<const char*>(parse.ReadBuffer.Data()) + parse.ReadPosition;
      std::size_t length = static_cast<std::size_t>(parse.WritePosition - parse.ReadPosition);
      parse.ReadPosition = parse.WritePosition;
      if (!client->readStopped_) FeedWebSocket(client, lock, data, length);
    } else if (client->readStopped_) {  // bytes after the last message are dropped
      parse.ReadPosition = parse.WritePosition;
    } else if (Detail::IsPolicyFileRequest(parse)) {
      parse.ReadPosition = parse.WritePosition;
      const char* answer = Detail::PolicyFileResponse;
      QueueBytes(*client, answer, std::strlen(answer) + 1);  // with its NUL
      client->closeAfterWrite_ = true;
      client->readStopped_ = true;
    } else if (!ProcessIn(client, lock, final)) {
      Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketReadable")
          << " 3 CloseClient: ex = ProtocolViolation, n = " << received;
      Detail::CountEvent(Counters::ProtocolViolations, 1);
      lock.unlock();
      CloseClient(client, SocketExceptions::HTTPProtocolViolation, StringBuffer());
      return;
    }
    if (final) {
      lock.unlock();
      ProcessOut(client);  // what is answered still leaves if the peer only half-closed
      Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketReadable")
          << " 2 CloseCLient: n = " << received << ", en = " << error;
      CloseClient(client, SocketExceptions::NoMoreData, StringBuffer());
      return;
    }
    if (parse.WritePosition < parse.ReadBuffer.Size()) break;  // the socket is drained
  }
  lock.unlock();
  if (!ProcessOut(client)) {
    CloseClient(client, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
  }
}

bool Daemon::ProcessIn(const std::shared_ptr<Client>& client,
                       std::unique_lock<std::recursive_mutex>& lock, bool final) {
  std::shared_ptr<Server> server = client->server_.lock();
  bool serverSide = client->serverSide_;
  Client::ParseData& parse = *client->parse_;
  std::vector<Detail::ReaderEvent> events;
  Detail::ReadOutcome outcome;
  for (;;) {
    // An outgoing connection's replies fill its requests in the order they were written.
    if (!serverSide && !client->message_ && !client->inFlight_.empty()) {
      client->message_ = client->inFlight_.front();
    }
    std::size_t first = events.size();
    outcome = Detail::RequestReader::Read(parse, client->message_, serverSide, final, events);
    bool completed = false;
    for (std::size_t i = first; i < events.size(); ++i) {
      const Detail::ReaderEvent& event = events[i];
      if (event.What == Detail::ReaderEvent::Kind::ContinueExpected &&
          client->exchanges_.empty()) {  // with replies outstanding it would come too early
        static const char interim[] = "HTTP/1.1 100 Continue\r\n\r\n";
        QueueBytes(*client, interim, sizeof interim - 1);
      }
      if (event.What != Detail::ReaderEvent::Kind::MessageComplete) continue;
      completed = true;
      if (serverSide) {
        client->exchanges_.push_back(Client::Exchange{event.Subject, event.KeepAlive, false});
      } else if (!client->inFlight_.empty()) {
        client->inFlight_.pop_front();
      }
    }
    if (serverSide || !completed || outcome != Detail::ReadOutcome::NeedMore ||
        parse.ReadPosition == parse.WritePosition) {
      break;
    }
  }
  if (outcome == Detail::ReadOutcome::Stop) client->readStopped_ = true;
  if (outcome == Detail::ReadOutcome::Upgrade) {
    // An upgrade behind requests not yet answered would put the handshake's answer before
    // their replies; no browser does that.
    if (events.size() != 1 || !client->exchanges_.empty()) return false;
    return UpgradeToWebSocket(client, lock, events.back().Subject);
  }
  if (events.empty()) return outcome != Detail::ReadOutcome::Violation;

  // The host hears about it without the connection's lock.
  DaemonMarshaller& marshaller = *client->marshaller_;
  lock.unlock();
  for (const Detail::ReaderEvent& event : events) {
    switch (event.What) {
      case Detail::ReaderEvent::Kind::HeadersComplete:
        if (server && !server->HeadersComplete.empty()) {
          marshaller.Marshal_ServerClientMessagePartInt(server->HeadersComplete, server, client,
                                                        event.Subject, nullptr, event.Value);
        } else if (!serverSide && !client->HeadersComplete.empty()) {
          marshaller.Marshal_ClientMessagePartInt(client->HeadersComplete, client, event.Subject,
                                                  nullptr, event.Value);
        }
        break;
      case Detail::ReaderEvent::Kind::ContinueExpected:
      case Detail::ReaderEvent::Kind::UpgradeRequested:
        break;
      case Detail::ReaderEvent::Kind::PartComplete:
        Detail::CountEvent(Counters::PartsReceived, 1);
        if (server && !server->PartReceived.empty()) {
          marshaller.Marshal_ServerClientMessagePartInt(server->PartReceived, server, client,
                                                        event.Subject, event.Piece, event.Value);
        } else if (!serverSide && !client->PartReceived.empty()) {
          marshaller.Marshal_ClientMessagePartInt(client->PartReceived, client, event.Subject,
                                                  event.Piece, event.Value);
        }
        break;
      case Detail::ReaderEvent::Kind::MessageComplete: {
        Detail::CountEvent(Counters::RequestsReceived, 1);
        {
          std::unique_lock<std::recursive_mutex> messageLock = event.Subject->Lock();
          Message::UnlockAndNotifyReadyStateChanged(&marshaller, event.Subject, ReadyStates::Loaded,
                                                    messageLock);
        }
        if (server) {
          bool answerLater = false;
          if (!server->MessageReceived.empty()) {
            marshaller.Marshal_ServerClientMessageBool(server->MessageReceived, server, client,
                                                       event.Subject, answerLater);
          }
          if (!answerLater) {
            std::lock_guard<std::recursive_mutex> clientLock(client->mutex_);
            for (Client::Exchange& exchange : client->exchanges_) {
              if (exchange.message == event.Subject) exchange.answered = true;
            }
          }
        } else if (!client->MessageReceived.empty()) {
          marshaller.Marshal_ClientMessage(client->MessageReceived, client, event.Subject);
        }
        break;
      }
    }
  }
  lock.lock();
  return outcome != Detail::ReadOutcome::Violation;
}

void Daemon::ProcessSocketWritable(const std::shared_ptr<Client>& client) {
  std::unique_lock<std::recursive_mutex> lock(client->mutex_);
  if (client->closing_ || client->socket_ < 0) return;
  std::int64_t now = Now();
  client->lastActivitySeconds_ = now / NanosecondsPerSecond;
  client->lastActivityNanoseconds_ = now % NanosecondsPerSecond;
  Detail::CountEvent(Counters::WritableEvents, 1);
  ClientStates::Enumeration state = client->state_;
  int socket = client->socket_;
  lock.unlock();
  switch (state) {
    case ClientStates::Connecting:
      HandleConnectingClient(client, Sys::SocketCalls::PendingError(socket));
      return;
    case ClientStates::Connected:
    case ClientStates::Disconnecting:
      if (!ProcessOut(client)) {
        CloseClient(client, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
      }
      return;
    case ClientStates::Disconnected:
      return;
  }
}

void Daemon::HandleConnectingClient(const std::shared_ptr<Client>& client, int error) {
  if (error != 0) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessSocketException")
        << " errno: " << error;
    CloseClient(client, SocketExceptions::ConnectionRefused, StringBuffer());
    return;
  }
  client->SetState(ClientStates::Connected);
  if (!ProcessOut(client)) {
    CloseClient(client, SocketExceptions::HTTPProtocolViolation, StringBuffer(u"send"));
  }
}

void Daemon::QueueBytes(Client& client, const char* bytes, std::size_t length) {
  if (client.tls_) {
    client.tls_->Outgoing(bytes, length, client.out_);
  } else {
    client.out_.insert(client.out_.end(), bytes, bytes + length);
  }
}

long Daemon::sendall(int socket, const char* data, std::size_t length, int& error) {
  std::size_t sent = 0;
  while (sent < length) {
    long count = Sys::SocketCalls::Send(socket, data + sent, length - sent, error);
    if (count < 0) {
      if (Sys::SocketCalls::WouldBlock(error)) break;
      return -1;
    }
    sent += static_cast<std::size_t>(count);
  }
  return static_cast<long>(sent);
}

bool Daemon::SendQueued(Client& client) {
  if (client.outSent_ >= client.out_.size()) return true;
  int error = 0;
  long sent = sendall(client.socket_, client.out_.data() + client.outSent_,
                      client.out_.size() - client.outSent_, error);
  if (sent < 0) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::ProcessOut")
        << " send: n = " << client.outSent_ << ", out_octetStreamSize = " << client.out_.size()
        << ", lastError = " << error;
    return false;
  }
  client.outSent_ += static_cast<std::size_t>(sent);  // a partial send waits for writable
  if (sent > 0) Detail::CountEvent(Counters::BytesSent, static_cast<int>(sent));
  return true;
}

void Daemon::RefuseUpgrade(Client& client) {
  static const char refusal[] =
      "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  QueueBytes(client, refusal, sizeof refusal - 1);
  client.closeAfterWrite_ = true;
  client.readStopped_ = true;
}

bool Daemon::UpgradeToWebSocket(const std::shared_ptr<Client>& client,
                                std::unique_lock<std::recursive_mutex>& lock,
                                const std::shared_ptr<Message>& request) {
  Client::ParseData& parse = *client->parse_;
  std::shared_ptr<Server> server = client->server_.lock();
  if (!server || server->WebSocketMessage.empty()) {
    // A server that takes no WebSocket events would hold such connections for nothing.
    parse.ReadPosition = parse.WritePosition;
    RefuseUpgrade(*client);
    return true;
  }
  // The handshake reads the request as it came; the reader has taken it apart, so it is put
  // back together (names, values and target are kept exactly).
  std::string bytes;
  {
    auto messageLock = request->Lock();
    bytes = "GET " + request->Url->Text.ToUTF8() + " HTTP/1.1\r\n";
    for (const Header& header : request->Request->Headers) {
      bytes += header.Name.ToUTF8() + ": " + header.Value.ToUTF8() + "\r\n";
    }
    bytes += "\r\n";
  }
  bytes.append(reinterpret_cast<const char*>(parse.ReadBuffer.Data()) + parse.ReadPosition,
               static_cast<std::size_t>(parse.WritePosition - parse.ReadPosition));
  parse.ReadPosition = parse.WritePosition;
  client->webSocket_ =
      std::make_shared<Detail::WebSocketSupport>(static_cast<std::size_t>(parse.MaxBodySize));
  FeedWebSocket(client, lock, bytes.data(), bytes.size());
  return true;
}

void Daemon::FeedWebSocket(const std::shared_ptr<Client>& client,
                           std::unique_lock<std::recursive_mutex>& lock, const char* data,
                           std::size_t length) {
  std::shared_ptr<Detail::WebSocketSupport> support = client->webSocket_;
  bool wasOpen = support->IsOpen();
  std::vector<std::shared_ptr<WSData>> events;
  std::string wire;
  int result = support->Feed(data, length, events, wire);
  if (!wire.empty()) QueueBytes(*client, wire.data(), wire.size());
  if (support->HandshakeFailed()) {
    RefuseUpgrade(*client);
    return;
  }
  if ((wasOpen || result == Detail::WebSocketSupport::Deliver) && !support->IsOpen()) {
    // A closing or malformed frame closed it: the closing bytes leave, then the connection goes.
    client->closeAfterWrite_ = true;
    client->readStopped_ = true;
  }
  if (events.empty()) return;
  if (events.front()->Method == Methods::WEBSOCKETCONNECT) client->webSocketAnnounced_ = true;
  std::shared_ptr<Server> server = client->server_.lock();
  lock.unlock();
  for (const std::shared_ptr<WSData>& event : events) {
    if (event->Method == Methods::WEBSOCKETMESSAGE) {
      Detail::CountEvent(Counters::WebSocketMessages, static_cast<int>(event->Messages.size()));
    }
    if (server && !server->WebSocketMessage.empty()) {
      client->marshaller_->Marshal_ServerWebSocketMessage(server->WebSocketMessage, server, client,
                                                          event);
    }
  }
  lock.lock();
}

bool Daemon::ProcessOut(const std::shared_ptr<Client>& client) {
  std::unique_lock<std::recursive_mutex> lock(client->mutex_);
  if (client->closing_ || client->socket_ < 0 || client->state_ == ClientStates::Connecting) {
    return true;
  }
  bool serverSide = client->serverSide_;
  bool closeNow = false;
  std::vector<std::shared_ptr<Message>> requestsWritten;
  std::vector<char> plain;  // a message's bytes before the transform, when there is one
  while (!client->exchanges_.empty() && client->exchanges_.front().answered &&
         !client->closeAfterWrite_) {
    Client::Exchange exchange = std::move(client->exchanges_.front());
    client->exchanges_.pop_front();
    std::vector<char>& target = client->tls_ ? plain : client->out_;
    if (serverSide) {
      Detail::FormatReply(*exchange.message, exchange.keepAlive, target);
      if (!exchange.keepAlive) client->closeAfterWrite_ = true;
    } else {
      Detail::FormatRequest(*exchange.message, target);
      client->inFlight_.push_back(exchange.message);
      requestsWritten.push_back(exchange.message);
    }
    if (client->tls_) {
      if (!client->tls_->Outgoing(plain.data(), plain.size(), client->out_)) return false;
      plain.clear();
    }
    client->written_.push_back(Client::Written{client->out_.size(), exchange.message});
    // The last reply of a secure connection ends with close_notify, so that it is not taken for
    // a truncation.
    if (client->closeAfterWrite_ && client->tls_) client->tls_->Close(client->out_);
  }

  if (!SendQueued(*client)) return false;

  std::vector<std::shared_ptr<Message>> sent;
  while (!client->written_.empty() && client->written_.front().end <= client->outSent_) {
    sent.push_back(std::move(client->written_.front().message));
    client->written_.pop_front();
  }
  if (!client->out_.empty() && client->outSent_ == client->out_.size()) {
    client->out_.clear();
    client->outSent_ = 0;
    if (client->out_.capacity() > 65536) client->out_.shrink_to_fit();  // bounded per connection
    for (Client::Written& written : client->written_)
      written.end = 0;
    if (client->closeAfterWrite_ && !client->shutDown_) {
      // With nothing unread the connection is closed now. Bytes still unread would turn the
      // close into a reset that can destroy the reply in flight: then only the sending side is
      // shut, and the peer's own close ends it ("No more data"), the idle time-out at the latest.
      char probe[512];
      int error = 0;
      long unread = Sys::SocketCalls::Receive(client->socket_, probe, sizeof probe, error);
      if (unread == 0 || (unread < 0 && Sys::SocketCalls::WouldBlock(error))) {
        closeNow = true;
      } else {
        Sys::SocketCalls::ShutdownSend(client->socket_, error);
      }
      client->shutDown_ = true;
    }
  }
  std::shared_ptr<Server> server = client->server_.lock();
  DaemonMarshaller& marshaller = *client->marshaller_;
  lock.unlock();

  for (const std::shared_ptr<Message>& message : requestsWritten) {
    std::unique_lock<std::recursive_mutex> messageLock = message->Lock();
    Message::UnlockAndNotifyReadyStateChanged(&marshaller, message, ReadyStates::Sent, messageLock);
  }
  for (const std::shared_ptr<Message>& message : sent) {
    Detail::CountEvent(Counters::RepliesSent, 1);
    if (server && !server->MessageSent.empty()) {
      marshaller.Marshal_ServerClientMessage(server->MessageSent, server, client, message);
    } else if (!server && !client->MessageSent.empty()) {
      marshaller.Marshal_ClientMessage(client->MessageSent, client, message);
    }
  }
  if (closeNow) CloseClient(client, SocketExceptions::None, StringBuffer(u"reply sent"));
  return true;
}

void Daemon::ProcessAllClients() {
  std::vector<std::shared_ptr<Client>> clients;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    clients.assign(clients_.begin(), clients_.begin() + clientSocketCount_);
  }
  int connected = 0;
  int connecting = 0;
  int other = 0;
  std::int64_t now = Now() / NanosecondsPerSecond;
  for (const std::shared_ptr<Client>& client : clients) {
    std::unique_lock<std::recursive_mutex> lock(client->mutex_);
    ClientStates::Enumeration state = client->state_;
    std::shared_ptr<Server> server = client->server_.lock();
    int idleLimit = server ? server->IdleTimeout() : 0;
    // An open WebSocket is a channel the host keeps on purpose, quiet or not.
    bool idle = idleLimit > 0 && now - client->lastActivitySeconds_ >= idleLimit &&
                client->exchanges_.empty() && client->out_.empty() &&
                !(client->webSocket_ && client->webSocket_->IsOpen());
    bool connectExpired = state == ClientStates::Connecting && --client->connectTimeout_ <= 0;
    // A connection quiet for a second gives its read buffer back until bytes arrive again, so
    // that thousands of idle keep-alive connections cost little memory.
    Client::ParseData& parse = *client->parse_;
    if (now - client->lastActivitySeconds_ >= 1 && parse.ReadPosition == parse.WritePosition &&
        parse.State == Client::ParseData::States::Waiting && parse.ReadBuffer.Size() > 0) {
      parse.ReadBuffer.Resize(0);
      parse.ReadPosition = parse.WritePosition = 0;
    }
    lock.unlock();
    switch (state) {
      case ClientStates::Connected:
        ++connected;
        break;
      case ClientStates::Connecting:
        ++connecting;
        break;
      case ClientStates::Disconnected:
      case ClientStates::Disconnecting:
        ++other;
        break;
    }
    if (!client->Tick.empty()) client->marshaller_->Marshal_Client(client->Tick, client);
    if (idle) {
      CloseClient(client, SocketExceptions::NoMoreData, StringBuffer(u"idle"));
    } else if (connectExpired) {
      CloseClient(client, SocketExceptions::ConnectionRefused, StringBuffer(u"time-out"));
    }
  }
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::ProcessAllClients")
      << " connectedClientCount: " << connected << " connectingClientCount: " << connecting
      << " otherStateCount: " << other << " totalSockets: " << clients.size();
}

void Daemon::CloseClient(const std::shared_ptr<Client>& client,
                         SocketExceptions::Enumeration reason, const StringBuffer& detail) {
  std::unique_lock<std::recursive_mutex> lock(client->mutex_);
  int socket = client->socket_;
  if (socket < 0) {
    lock.unlock();
    Exclude(client.get());
    return;
  }
  ClientStates::Enumeration before = client->state_;
  bool webSocketGone = client->webSocketAnnounced_;
  client->webSocketAnnounced_ = false;
  client->socket_ = -1;
  client->closing_ = true;
  client->closeReason_ = reason;
  client->state_ = ClientStates::Disconnected;
  client->tls_.reset();
  std::vector<std::shared_ptr<Message>> unfinished = client->TakeUnfinished();
  client->out_.clear();
  client->out_.shrink_to_fit();
  client->changed_.notify_all();
  std::shared_ptr<Server> server = client->server_.lock();
  lock.unlock();

  Sys::SocketCalls::Close(socket);
  Exclude(client.get());
  Detail::CountEvent(Counters::OpenConnections, -1);
  Detail::CountEvent(Counters::ConnectionsClosed, 1);
  if (reason != SocketExceptions::None && reason != SocketExceptions::NoMoreData &&
      Logger::IsEnabled(Logger::Severity::Debug)) {
    Logger::Line(Logger::Severity::Debug, "Veskan::Daemon::CloseClient")
        << " reason: " << SocketExceptions::ToString(reason) << " detail: " << detail;
  }
  Client::FinishMessages(client->marshaller_, unfinished);
  DaemonMarshaller& marshaller = *client->marshaller_;
  if (webSocketGone && server && !server->WebSocketMessage.empty()) {
    auto event = std::make_shared<WSData>();
    event->Method = Methods::WEBSOCKETDISCONNECT;
    marshaller.Marshal_ServerWebSocketMessage(server->WebSocketMessage, server, client, event);
  }
  if (!client->Closed.empty()) {
    marshaller.Marshal_ClientMessageStringBufferStringBuffer(
        client->Closed, client, nullptr, StringBuffer(SocketExceptions::ToString(reason)), detail);
  }
  if (before != ClientStates::Disconnected && !client->StateChanged.empty()) {
    marshaller.Marshal_Client(client->StateChanged, client);
  }
  if (server) {
    server->ForgetConnection(client.get());
    if (!server->ClientDisconnected.empty()) {
      marshaller.Marshal_ServerClient(server->ClientDisconnected, server, client);
    }
  }
}

void Daemon::ReleaseDeferredClients() {
  std::vector<std::shared_ptr<Client>> deferred;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    deferred.swap(deferred_);
  }
  for (const std::shared_ptr<Client>& client : deferred) {
    CloseClient(client, SocketExceptions::None, StringBuffer(u"closed by the host"));
  }
}

// ---------------------------------------------------------------------------------------------
// Waiting

bool Daemon::BlockUntil(const std::function<int()>& check, double seconds,
                        std::recursive_mutex& mutex, std::condition_variable_any& condition) {
  auto deadline =
      std::chrono::steady_clock::now() +
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
  bool pump = DaemonMarshaller::CurrentThreadHasEventLoop();
  std::unique_lock<std::recursive_mutex> lock(mutex);
  for (;;) {
    int result = check();
    if (result != 0) return result == 1;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (pump) {  // hand-overs to this thread must run, or the worker we wait for never moves
      lock.unlock();
      DaemonMarshaller::RunEventLoopOnce();
      lock.lock();
    } else {
      condition.wait_until(lock, std::min(deadline, std::chrono::steady_clock::now() +
                                                        std::chrono::milliseconds(100)));
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The shared buffer map

void Daemon::AddByteBuffer(const StringBuffer& key, const ByteBuffer& buffer) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::AddByteBuffer") << " keyString: " << key;
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  ByteBufferMap()[key] = buffer;
}

ByteBuffer Daemon::FindOrInsertByteBuffer(const StringBuffer& key) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::FindOrInsertByteBuffer")
      << " keyString: " << key;
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  return ByteBufferMap()[key];
}

void Daemon::RemoveByteBuffer(const StringBuffer& key) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::RemoveByteBuffer")
      << " keyString: " << key;
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  ByteBufferMap().erase(key);
}

void Daemon::ClearByteBuffer() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::ClearByteBuffer");
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  ByteBufferMap().clear();
}

int Daemon::ByteBufferMapCount() {
  std::lock_guard<std::recursive_mutex> lock(byteBufferMutex);
  return static_cast<int>(ByteBufferMap().size());
}

}  // namespace Veskan
