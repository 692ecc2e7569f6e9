// Client: the host's operations on one connection. The worker's side lives in Daemon.cpp.
#include <veskan/Address.h>
#include <veskan/Client.h>
#include <veskan/Content.h>
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/NetworkPerformanceMonitor.h>
#include <veskan/Server.h>
#include <veskan/Url.h>

#include "http/ObjectPool.h"
#include "http/Pooled.h"
#include "net/Connection.h"
#include "net/EngineCounters.h"
#include "net/EngineLog.h"
#include "net/websocket/WebSocketSupport.h"
#include "sys/Socket.h"

#include <atomic>

namespace Veskan {

namespace {

std::atomic<std::uint64_t> nextClientId{1};

// The Host header of a request to `url` (RFC 7230 section 5.4): the host, and the port when it is
// not the scheme's usual one.
StringBuffer HostHeaderFor(const Url& url) {
  int port = url.HasPort ? url.Port
                         : (url.Scheme == Url::HttpScheme    ? 80
                            : url.Scheme == Url::HttpsScheme ? 443
                                                             : 0);
  StringBuffer host(url.Host);
  bool usual = (url.Scheme == Url::HttpScheme && port == 80) ||
               (url.Scheme == Url::HttpsScheme && port == 443);
  if (!usual && port != 0) host.append(u':').append(FormatInteger(port));
  return host;
}

}  // namespace

struct Client::Signals {
  DaemonMarshaller::ClientSignal stateChanged;
  DaemonMarshaller::ClientSignal tick;
  DaemonMarshaller::ClientMessagePartIntSignal headersComplete;
  DaemonMarshaller::ClientMessagePartIntSignal partReceived;
  DaemonMarshaller::ClientMessageSignal messageReceived;
  DaemonMarshaller::ClientMessageSignal messageSent;
  DaemonMarshaller::ClientMessageStringBufferStringBufferSignal closed;
  void DisconnectAll() {
    stateChanged.disconnect_all_slots();
    tick.disconnect_all_slots();
    headersComplete.disconnect_all_slots();
    partReceived.disconnect_all_slots();
    messageReceived.disconnect_all_slots();
    messageSent.disconnect_all_slots();
    closed.disconnect_all_slots();
  }
};

void Client::GiveBack(Signals* signals) {
  signals->DisconnectAll();  // no slot of the connection is called once it is gone
  Detail::ObjectPool<Signals>::Give(signals);
}

Client::Signals* Client::TakeSignals() {
  Signals* pooled = Detail::ObjectPool<Signals>::Take();
  return pooled != nullptr ? pooled : new Signals();
}

Client::Client(bool direct, const char16_t* key, const char16_t* certificate)
    : Client(nullptr, std::make_shared<DaemonMarshaller>(direct)) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Client")
      << " key: " << StringBuffer(key) << " certificate: " << StringBuffer(certificate);
}

Client::Client(const std::shared_ptr<Server>& server,
               const std::shared_ptr<DaemonMarshaller>& marshaller)
    : signals_(TakeSignals(), &Client::GiveBack),
      StateChanged(signals_->stateChanged),
      Tick(signals_->tick),
      HeadersComplete(signals_->headersComplete),
      PartReceived(signals_->partReceived),
      MessageReceived(signals_->messageReceived),
      MessageSent(signals_->messageSent),
      Closed(signals_->closed),
      id_(nextClientId++),
      serverSide_(server != nullptr),
      server_(server),
      marshaller_(marshaller),
      state_(server ? ClientStates::Connected : ClientStates::Disconnected) {}

Client::~Client() = default;

bool Client::Connect(const char16_t* url) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Connect") << " url: " << StringBuffer(url);
  if (State() != ClientStates::Disconnected) Abort(false);
  Url target(url);
  if (!target.HasHost || target.Scheme != Url::HttpScheme) {
    Detail::EngineLog(Logger::Severity::Warning, "Veskan::Client::Connect",
                      StringBuffer(" unsupported url: ") + StringBuffer(url));
    return false;
  }
  int port = target.HasPort ? target.Port : 80;
  {
    // The earlier attempt, if any, is its worker's to close; this one starts with fresh state.
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    url_ = url;
    closeReason_ = SocketExceptions::None;
    connection_.reset();
  }
  SetState(ClientStates::Connecting);

  // A dotted address is taken as it is; the local machine is reached over loopback.
  StringBuffer host(target.Host);
  Address address(host.getTerminatedBuffer(), port, Address::NslookupOnlyIfNeeded);
  StringBuffer dotted = address.IsLocal                 ? StringBuffer(u"127.0.0.1")
                        : address.Addresses.Count() > 0 ? address.Addresses[0]
                                                        : StringBuffer();
  Sys::SocketAddress endpoint;
  endpoint.port = port;
  int error = 0;
  Sys::Socket socket;
  if (!Sys::SocketAddress::FromDotted(UTF16to8(dotted), endpoint.address)) {
    error = -1;
  } else {
    socket = Sys::Socket::OpenTcp(error);
    if (socket.IsOpen() && !Sys::SocketCalls::Connect(socket.Get(), endpoint, error)) {
      socket.Close();
    }
  }
  if (!socket.IsOpen()) {
    SocketExceptions::Enumeration reason =
        error == -1 ? SocketExceptions::HostNotFound : SocketExceptions::ConnectionRefused;
    {
      std::lock_guard<std::recursive_mutex> lock(mutex_);
      closeReason_ = reason;
    }
    if (!Closed.empty()) {
      marshaller_->Marshal_ClientMessageStringBufferStringBuffer(
          Closed, shared_from_this(), nullptr, StringBuffer(SocketExceptions::ToString(reason)),
          StringBuffer(target.Host));
    }
    SetState(ClientStates::Disconnected);
    return false;
  }
  auto connection = std::make_shared<Detail::Connection>(shared_from_this(), socket.Release(),
                                                         nullptr, marshaller_, Server::Limits());
  connection->peerAddress = dotted;
  connection->peerPort = port;
  connection->connecting = true;
  connection->connectSecondsLeft = 30;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (state_ != ClientStates::Connecting) return false;  // aborted meanwhile
    connection_ = connection;
  }
  Detail::CountEvent(NetworkPerformanceMonitor::Counters::OutgoingConnections, 1);
  Daemon::Place(marshaller_, connection);
  return true;
}

bool Client::Reconnect() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Reconnect");
  StringBuffer url;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    url = url_;
  }
  return Connect(url.getTerminatedBuffer());
}

void Client::Disconnect(bool disconnectSlots) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Disconnect");
  if (disconnectSlots) signals_->DisconnectAll();
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  switch (State()) {
    case ClientStates::Connecting: {
      if (Logger::IsEnabled(Logger::Severity::Debug)) {
        Logger::Line(Logger::Severity::Debug, "Veskan::Client::Disconnect")
            << " "
            << MessageFormat(u"closesock: Client::Disconnect, __LINE__ = {0,number}", {__LINE__});
      }
      std::shared_ptr<Daemon> daemon;
      if (connection) {
        std::lock_guard<std::recursive_mutex> lock(connection->mutex);
        connection->closing = true;  // the worker closes the socket, which it may be polling now
        daemon = connection->daemon;
      }
      SetState(ClientStates::Disconnected);
      if (daemon) {
        daemon->ScheduleCloseClient(connection, SocketExceptions::None,
                                    StringBuffer(u"closed by the host"));
      }
      return;
    }
    case ClientStates::Connected: {
      if (Logger::IsEnabled(Logger::Severity::Debug)) {
        Logger::Line(Logger::Severity::Debug, "Veskan::Client::Disconnect")
            << " "
            << MessageFormat(u"shutdown: Client::Disconnect, __LINE__ = {0,number}", {__LINE__});
      }
      std::shared_ptr<Daemon> daemon;
      if (connection) {
        // What is queued still leaves; then the sending side is shut, and the worker closes the
        // connection when the peer has closed its own ("No more data").
        std::lock_guard<std::recursive_mutex> lock(connection->mutex);
        connection->readStopped = true;
        connection->shutdownOwed = true;
        connection->QueueEndOfStream();
        daemon = connection->daemon;
      }
      SetState(ClientStates::Disconnecting);
      if (daemon) daemon->WakeUp();
      return;
    }
    case ClientStates::Disconnected:
    case ClientStates::Disconnecting:
      return;
  }
}

void Client::Abort(bool notify) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Abort");
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  std::vector<std::shared_ptr<Message>> unfinished;
  if (connection) {
    std::shared_ptr<Daemon> daemon;
    {
      std::lock_guard<std::recursive_mutex> lock(connection->mutex);
      unfinished = connection->TakeUnfinished();
      connection->parse.ResetAll();
      connection->closing = true;
      daemon = connection->daemon;
    }
    if (daemon) {
      daemon->ScheduleCloseClient(connection, SocketExceptions::None, StringBuffer(u"aborted"));
    }
  }
  Detail::FinishMessages(*marshaller_, unfinished);
  if (notify) {
    SetState(ClientStates::Disconnected);
  } else {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    state_ = ClientStates::Disconnected;
    changed_.notify_all();
  }
}

bool Client::Send(const std::shared_ptr<Message>& message) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Send");
  if (!message) return false;
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection || State() != ClientStates::Connected) return false;
  std::unique_lock<std::recursive_mutex> messageLock = message->Lock();
  ReadyStates::Enumeration readyState = message->ReadyState;
  if (readyState == ReadyStates::Uninitialized) {
    Message::UnlockAndNotifyReadyStateChanged(marshaller_.get(), message,
                                              ReadyStates::Uninitialized, messageLock);
    return false;
  }
  if (!serverSide_) {
    if (readyState == ReadyStates::Sent || readyState == ReadyStates::Receiving) {
      messageLock.unlock();
      message->Resend();
    } else {
      message->Reply = Detail::NewBody();
      Header::Collection& headers = message->Request->Headers;
      if (!static_cast<const Header::Collection&>(headers).Contains(u"Host") && message->Url) {
        StringBuffer url;
        {
          std::lock_guard<std::recursive_mutex> lock(mutex_);
          url = url_;
        }
        Url joined = Url(url.getTerminatedBuffer()) + *message->Url;
        headers.Add(Header(StringBuffer(u"Host"), HostHeaderFor(joined)));
      }
    }
  }
  if (messageLock.owns_lock()) messageLock.unlock();  // never held with the connection's lock

  std::shared_ptr<Daemon> daemon;
  {
    std::lock_guard<std::recursive_mutex> lock(connection->mutex);
    if (connection->closing || connection->closed) return false;
    bool found = false;
    if (serverSide_) {
      for (Detail::Exchange& exchange : connection->exchanges) {
        if (exchange.message == message) {
          exchange.answered = true;
          found = true;
        }
      }
    }
    // A server may also send a message of its own; an outgoing connection queues its request.
    if (!found) connection->exchanges.push_back(Detail::Exchange{message, true, true});
    daemon = connection->daemon;
  }
  if (daemon) daemon->WakeUp();
  return true;
}

ClientStates::Enumeration Client::BlockUntil(ClientStates::Enumeration state, double seconds) {
  Daemon::BlockUntil([this, state] { return BlockUntilCheck(state); }, seconds, mutex_, changed_);
  return State();
}

int Client::BlockUntilCheck(ClientStates::Enumeration state) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (state_ == state) return 1;
  if (state_ == ClientStates::Disconnected) return -1;
  return 0;
}

void Client::MonitorPerformance(const char16_t* instanceName) {
  Daemon::MonitorPerformance(std::make_shared<NetworkPerformanceMonitor>(instanceName));
}

bool Client::WriteThroughWebSocket(const StringBuffer& text) {
  std::string bytes = text.ToUTF8();
  return WriteWebSocketFrame(bytes.data(), bytes.size(), false);
}

bool Client::WriteThroughWebSocket(const std::shared_ptr<Content>& content) {
  if (!content) return false;
  if (content->Length < 0) return WriteThroughWebSocket(content->Text);
  bool binary = StringBuffer(content->GuessType()) == Content::Types::ApplicationOctetStream;
  return WriteWebSocketFrame(reinterpret_cast<const char*>(content->Bytes.Data()),
                             static_cast<std::size_t>(content->Length), binary);
}

bool Client::WriteWebSocketFrame(const char* data, std::size_t length, bool binary) {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return false;
  std::unique_lock<std::recursive_mutex> lock(connection->mutex);
  if (!connection->webSocket || connection->closing || connection->socket < 0 ||
      connection->closeAfterWrite) {
    return false;
  }
  std::shared_ptr<Daemon> daemon = connection->daemon;
  if (connection->Unsent() > static_cast<std::size_t>(connection->limits.MaxWebSocketBacklog)) {
    connection->closing = true;
    lock.unlock();
    Detail::EngineLog(Logger::Severity::Warning, "Veskan::Client::WriteThroughWebSocket",
                      StringBuffer(" peer does not read, closing: ") + PeerAddress());
    if (daemon) {
      daemon->ScheduleCloseClient(connection, SocketExceptions::DataRefused,
                                  StringBuffer(u"peer does not read"));
    }
    return false;
  }
  std::string frame;
  if (!connection->webSocket->Write(data, length, binary, frame)) return false;
  bool wasIdle = !connection->HasOutput();
  connection->Queue(frame.data(), frame.size());
  // Sent from this thread right away: a broadcast to thousands of connections does not wait for
  // each worker to wake up. What the socket does not take now the worker sends when writable.
  if (wasIdle) {
    int error = 0;
    if (connection->Flush(Detail::EventNanoseconds(), error) && !connection->HasOutput()) {
      return true;
    }
  }
  lock.unlock();
  if (daemon) daemon->WakeUp();
  return true;
}

void Client::CloseWebSocket(int code) {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return;
  std::unique_lock<std::recursive_mutex> lock(connection->mutex);
  if (!connection->webSocket || !connection->webSocket->IsOpen() || connection->closing ||
      connection->socket < 0) {
    return;
  }
  std::string frame;
  connection->webSocket->Close(code, frame);
  connection->Queue(frame.data(), frame.size());
  connection->QueueEndOfStream();
  connection->closeAfterWrite = true;  // the worker closes the connection once the frame has left
  connection->readStopped = true;
  std::shared_ptr<Daemon> daemon = connection->daemon;
  lock.unlock();
  if (daemon) daemon->WakeUp();
}

bool Client::IsWebSocket() const {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return false;
  std::lock_guard<std::recursive_mutex> lock(connection->mutex);
  return connection->webSocket && connection->webSocket->IsOpen() && !connection->closing;
}

StringBuffer Client::WebSocketTarget() const {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return StringBuffer();
  std::lock_guard<std::recursive_mutex> lock(connection->mutex);
  return connection->webSocket ? UTF8to16(connection->webSocket->Target().c_str()) : StringBuffer();
}

std::uint32_t Client::WebSocketNumber() const {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return 0;
  std::lock_guard<std::recursive_mutex> lock(connection->mutex);
  return connection->webSocket ? connection->webSocket->ConnectionNumber() : 0;
}

int Client::GetSocket() const {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return -1;
  std::lock_guard<std::recursive_mutex> lock(connection->mutex);
  return connection->socket;
}

ClientStates::Enumeration Client::State() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return state_;
}

StringBuffer Client::PeerAddress() const {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return StringBuffer();
  std::lock_guard<std::recursive_mutex> lock(connection->mutex);
  return connection->peerAddress;
}

int Client::PeerPort() const {
  std::shared_ptr<Detail::Connection> connection = CurrentConnection();
  if (!connection) return 0;
  std::lock_guard<std::recursive_mutex> lock(connection->mutex);
  return connection->peerPort;
}

SocketExceptions::Enumeration Client::CloseReason() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return closeReason_;
}

std::shared_ptr<Server> Client::GetServer() const {
  return server_.lock();
}

std::shared_ptr<Detail::Connection> Client::CurrentConnection() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return connection_;
}

bool Client::IsCurrent(const Detail::Connection* connection) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return connection_.get() == connection;
}

void Client::ConnectionStateChanged(const Detail::Connection* connection,
                                    ClientStates::Enumeration state) {
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (connection_.get() != connection || state_ == state) return;
    state_ = state;
    changed_.notify_all();
  }
  if (!StateChanged.empty()) marshaller_->Marshal_Client(StateChanged, shared_from_this());
}

void Client::ConnectionClosed(const Detail::Connection* connection,
                              SocketExceptions::Enumeration reason) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (connection_.get() == connection) closeReason_ = reason;
}

void Client::SetState(ClientStates::Enumeration state) {
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (state_ == state) return;
    state_ = state;
    changed_.notify_all();
  }
  if (!StateChanged.empty()) marshaller_->Marshal_Client(StateChanged, shared_from_this());
}

namespace Detail {

void FinishMessages(ReadyStateDelivery& marshaller,
                    const std::vector<std::shared_ptr<Message>>& messages) {
  for (const std::shared_ptr<Message>& message : messages) {
    std::unique_lock<std::recursive_mutex> lock = message->Lock();
    if (message->Ready()) continue;
    Message::UnlockAndNotifyReadyStateChanged(&marshaller, message, ReadyStates::Uninitialized,
                                              lock);
  }
}

}  // namespace Detail

}  // namespace Veskan
