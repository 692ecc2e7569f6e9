// Server: starting and stopping a listening server on the daemon ring.
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/NetworkPerformanceMonitor.h>
#include <veskan/Server.h>
#include <veskan/TransportLayerSecurity.h>

#include "net/Authorization.h"
#include "net/Connection.h"
#include "net/EngineLog.h"
#include "net/TlsContext.h"
#include "sys/Socket.h"

#include <algorithm>

namespace Veskan {

Server::Server(bool direct, const char16_t* certificate, const char16_t* key)
    : marshaller_(std::make_shared<DaemonMarshaller>(direct)),
      certificate_(certificate),
      key_(key),
      direct_(direct) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Server::Server")
      << " cert: " << certificate_ << " async: " << !direct;
}

Server::~Server() {
  // A started server is kept alive by its daemon, so a running one never gets here; this only
  // releases a socket left by a start that did not complete.
  if (listeningSocket_ >= 0) Sys::SocketCalls::Close(listeningSocket_);
}

bool Server::Start(const char16_t* baseUrl, bool retryWithSystemPort) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Server::Start")
      << " base: " << StringBuffer(baseUrl);
  if (State() != ServerStates::Stopped) Stop();
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    baseUrl_ = baseUrl;
  }
  SetState(ServerStates::Starting);

  if (IsSecure()) {
    // Checked before listening: a server asked to be secure never serves plain HTTP.
    TransportLayerSecurity::StatusCodes::Enumeration status;
    std::shared_ptr<Detail::TlsContext> context =
        Detail::TlsContext::AcquireServer(certificate_, key_, status);
    {
      std::lock_guard<std::recursive_mutex> lock(mutex_);
      tlsContext_ = context;
    }
    if (!context) {
      SetState(ServerStates::Stopped);
      return false;
    }
  }

  std::shared_ptr<Server> self = shared_from_this();
  int port = 0;
  int socket = Daemon::AllocateNewSocket(self, false, port);
  if (socket < 0 && retryWithSystemPort) socket = Daemon::AllocateNewSocket(self, true, port);
  if (socket < 0) {
    Detail::EngineLog(Logger::Severity::Error, "Veskan::Server::Start",
                      StringBuffer(SocketExceptions::ToString(SocketExceptions::PortOccupied)) +
                          u" " + StringBuffer(baseUrl));
    SetState(ServerStates::Stopped);
    return false;
  }
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    listeningSocket_ = socket;
    port_ = port;
  }
  std::shared_ptr<Daemon> daemon;
  {
    std::lock_guard<std::recursive_mutex> ring(Daemon::LinkListMutex);
    daemon = Daemon::GetInstance(marshaller_);
    daemon->Include(self);
    daemon->Start();
  }
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    daemon_ = daemon;
  }
  SetState(ServerStates::Started);
  return true;
}

void Server::Stop(int graceMilliseconds) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Server::Stop");
  std::shared_ptr<Daemon> daemon;
  int socket;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (state_ == ServerStates::Stopped) return;
    daemon = std::move(daemon_);
    socket = listeningSocket_;
  }
  SetState(ServerStates::Stopping);

  if (daemon) {
    // The worker may be polling the socket: it is closed once the worker has left that poll.
    std::uint64_t cycle;
    {
      std::lock_guard<std::recursive_mutex> lock(daemon->mutex_);
      cycle = daemon->cycles_;
    }
    daemon->Exclude(this);
    Daemon::BlockUntil(
        [&daemon, cycle] { return daemon->cycles_ > cycle || daemon->ended_ ? 1 : 0; }, 2.0,
        daemon->mutex_, daemon->changed_);
  }
  if (socket >= 0) Sys::SocketCalls::Close(socket);
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    listeningSocket_ = -1;
    port_ = 0;
  }

  auto allGone = [this] {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    return connections_.Count() == 0 ? 1 : 0;
  };
  for (const std::shared_ptr<Client>& client : Connections())
    client->Disconnect(false);
  if (!Daemon::BlockUntil(allGone, graceMilliseconds / 1000.0, mutex_, changed_)) {
    // What did not go away by itself is closed at once by the daemons serving it.
    std::vector<std::shared_ptr<Daemon>> daemons;
    for (const std::shared_ptr<Client>& client : Connections()) {
      std::shared_ptr<Detail::Connection> connection = client->CurrentConnection();
      if (!connection) continue;
      std::lock_guard<std::recursive_mutex> lock(connection->mutex);
      if (connection->daemon &&
          std::find(daemons.begin(), daemons.end(), connection->daemon) == daemons.end()) {
        daemons.push_back(connection->daemon);
      }
    }
    for (const std::shared_ptr<Daemon>& serving : daemons)
      serving->Abort();
    Daemon::BlockUntil(allGone, 2.0, mutex_, changed_);
  }
  Daemon::Release(daemon);
  SetState(ServerStates::Stopped);
}

ServerStates::Enumeration Server::BlockUntil(ServerStates::Enumeration state, double seconds) {
  Daemon::BlockUntil([this, state] { return BlockUntilCheck(state); }, seconds, mutex_, changed_);
  return State();
}

int Server::BlockUntilCheck(ServerStates::Enumeration state) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (state_ == state) return 1;
  if (state_ == ServerStates::Stopped) return -1;
  return 0;
}

void Server::MonitorPerformance(const char16_t* instanceName) {
  Daemon::MonitorPerformance(std::make_shared<NetworkPerformanceMonitor>(instanceName));
}

void Server::CloseWebSocket(const std::shared_ptr<Client>& client) {
  if (client) client->CloseWebSocket(1000);
}

ServerStates::Enumeration Server::State() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return state_;
}

int Server::Port() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return port_;
}

StringBuffer Server::BaseUrl() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return baseUrl_;
}

Client::Collection Server::Connections() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return connections_;
}

void Server::SetLimits(const Limits& limits) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  limits_ = limits;
}

Server::Limits Server::GetLimits() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return limits_;
}

void Server::SetAuthorization(const StringBuffer& realm, CredentialLookup lookup) {
  auto authenticator = std::make_shared<Detail::Authenticator>(realm, std::move(lookup));
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  authenticator_ = std::move(authenticator);
}

std::shared_ptr<Detail::Authenticator> Server::Authentication() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!authenticator_)
    authenticator_ = std::make_shared<Detail::Authenticator>(StringBuffer(u"Veskan"), nullptr);
  return authenticator_;
}

int Server::ListeningSocket() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return listeningSocket_;
}

bool Server::IsSecure() const {
  return !certificate_.isEmpty() || !key_.isEmpty();
}

std::shared_ptr<TransportLayerSecurity> Server::NewTlsSession() const {
  std::shared_ptr<Detail::TlsContext> context;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    context = tlsContext_;
  }
  return context ? context->NewSession() : nullptr;
}

void Server::SetState(ServerStates::Enumeration state) {
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (state_ == state) return;
    state_ = state;
    changed_.notify_all();
  }
  if (!StateChanged.empty()) marshaller_->Marshal_Server(StateChanged, shared_from_this());
}

void Server::RememberConnection(const std::shared_ptr<Client>& client) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  connections_.Add(client);
}

void Server::ForgetConnection(const Client* client) {
  bool lastWhileStopping;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    connections_.Remove(client);
    changed_.notify_all();
    lastWhileStopping = state_ == ServerStates::Stopping && connections_.Count() == 0;
  }
  if (lastWhileStopping) SetState(ServerStates::Stopped);
}

}  // namespace Veskan
