// Client: the host's operations on one connection. The worker's side lives in Daemon.cpp.
#include <veskan/Address.h>
#include <veskan/Client.h>
#include <veskan/Content.h>
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/NetworkPerformanceMonitor.h>
#include <veskan/Server.h>
#include <veskan/Url.h>

#include "http/SignalPool.h"
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
  Detail::SignalPool<Signals>::Give(signals);
}

Client::Client(bool direct, const char16_t* key, const char16_t* certificate)
    : Client(-1, nullptr, nullptr, std::make_shared<DaemonMarshaller>(direct)) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Client")
      << " key: " << StringBuffer(key) << " certificate: " << StringBuffer(certificate);
}

Client::Client(int socket, const std::shared_ptr<Server>& server,
               const std::shared_ptr<Daemon>& daemon)
    : Client(socket, server, daemon, server->marshaller_) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Client") << " socket: " << socket;
  parse_->MaxBodySize = server->MaxBodySize();
}

Client::Client(int socket, const std::shared_ptr<Server>& server,
               const std::shared_ptr<Daemon>& daemon,
               const std::shared_ptr<DaemonMarshaller>& marshaller)
    : signals_(Detail::SignalPool<Signals>::Take(), &Client::GiveBack),
      StateChanged(signals_->stateChanged),
      Tick(signals_->tick),
      HeadersComplete(signals_->headersComplete),
      PartReceived(signals_->partReceived),
      MessageReceived(signals_->messageReceived),
      MessageSent(signals_->messageSent),
      Closed(signals_->closed),
      id_(nextClientId++),
      socket_(socket),
      state_(server ? ClientStates::Connected : ClientStates::Disconnected),
      serverSide_(server != nullptr),
      server_(server),
      daemon_(daemon),
      marshaller_(marshaller),
      parse_(std::make_unique<ParseData>()) {}

Client::~Client() {
  // The worker closes sockets; this one never reached a daemon (or the daemon is gone).
  if (socket_ >= 0) Sys::SocketCalls::Close(socket_);
}

bool Client::Connect(const char16_t* url) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Connect") << " url: " << StringBuffer(url);
  if (State() != ClientStates::Disconnected) Abort(false);
  // The worker closes the aborted socket; the new one must not be taken for it.
  Daemon::BlockUntil([this] { return socket_ < 0 ? 1 : 0; }, 5.0, mutex_, changed_);
  Url target(url);
  if (!target.HasHost || target.Scheme != Url::HttpScheme) {
    Detail::EngineLog(Logger::Severity::Warning, "Veskan::Client::Connect",
                      StringBuffer(" unsupported url: ") + StringBuffer(url));
    return false;
  }
  int port = target.HasPort ? target.Port : 80;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    url_ = url;
    disconnectRequested_ = false;
    parse_ = std::make_unique<ParseData>();
    message_.reset();
    out_.clear();
    outSent_ = 0;
    written_.clear();
    readStopped_ = false;
    closing_ = false;
    closeAfterWrite_ = false;
    shutDown_ = false;
    closeReason_ = SocketExceptions::None;
    connectTimeout_ = 30;
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
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    socket_ = socket.Release();
    peerAddress_ = dotted;
    peerPort_ = port;
  }
  Detail::CountEvent(NetworkPerformanceMonitor::Counters::OutgoingConnections, 1);
  std::shared_ptr<Client> self = shared_from_this();
  std::shared_ptr<Daemon> daemon = Daemon::Place(marshaller_, self);
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  daemon_ = daemon;
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
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  disconnectRequested_ = true;
  switch (state_) {
    case ClientStates::Connecting: {
      if (Logger::IsEnabled(Logger::Severity::Debug)) {
        Logger::Line(Logger::Severity::Debug, "Veskan::Client::Disconnect")
            << " "
            << MessageFormat(u"closesock: Client::Disconnect, __LINE__ = {0,number}", {__LINE__});
      }
      tls_.reset();
      closing_ = true;  // the worker closes the socket, which it may be polling right now
      std::shared_ptr<Daemon> daemon = daemon_;
      lock.unlock();
      Detail::CountEvent(NetworkPerformanceMonitor::Counters::OpenConnections, -1);
      SetState(ClientStates::Disconnected);
      if (daemon) daemon->ScheduleCloseClient(shared_from_this());
      return;
    }
    case ClientStates::Connected: {
      if (Logger::IsEnabled(Logger::Severity::Debug)) {
        Logger::Line(Logger::Severity::Debug, "Veskan::Client::Disconnect")
            << " "
            << MessageFormat(u"shutdown: Client::Disconnect, __LINE__ = {0,number}", {__LINE__});
      }
      int error = 0;
      if (socket_ >= 0) Sys::SocketCalls::ShutdownSend(socket_, error);
      lock.unlock();
      SetState(ClientStates::Disconnecting);
      return;
    }
    case ClientStates::Disconnected:
    case ClientStates::Disconnecting:
      return;
  }
}

void Client::Abort(bool notify) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Abort");
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  std::vector<std::shared_ptr<Message>> unfinished = TakeUnfinished();
  parse_->ResetAll();
  bool wasOpen = state_ != ClientStates::Disconnected;
  closing_ = true;
  if (socket_ >= 0) {
    int error = 0;
    Sys::SocketCalls::ShutdownSend(socket_, error);
  }
  std::shared_ptr<Daemon> daemon = daemon_;
  lock.unlock();
  if (daemon) {
    daemon->ScheduleCloseClient(shared_from_this());
  }
  FinishMessages(marshaller_, unfinished);
  if (wasOpen) {
    if (notify) {
      SetState(ClientStates::Disconnected);
    } else {
      std::lock_guard<std::recursive_mutex> relock(mutex_);
      state_ = ClientStates::Disconnected;
      changed_.notify_all();
    }
  }
}

bool Client::Send(const std::shared_ptr<Message>& message) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Send");
  if (!message) return false;
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (state_ != ClientStates::Connected || closing_) return false;
  std::unique_lock<std::recursive_mutex> messageLock = message->Lock();
  ReadyStates::Enumeration readyState = message->ReadyState;
  if (readyState == ReadyStates::Uninitialized) {
    lock.unlock();
    Message::UnlockAndNotifyReadyStateChanged(marshaller_.get(), message,
                                              ReadyStates::Uninitialized, messageLock);
    return false;
  }
  if (serverSide_) {
    messageLock.unlock();
    bool found = false;
    for (Exchange& exchange : exchanges_) {
      if (exchange.message == message) {
        exchange.answered = true;
        found = true;
      }
    }
    if (!found) exchanges_.push_back(Exchange{message, true, true});  // a message of our own
  } else {
    if (readyState == ReadyStates::Sent || readyState == ReadyStates::Receiving) {
      messageLock.unlock();
      message->Resend();
    } else {
      message->Reply = std::make_shared<Body>();
      Header::Collection& headers = message->Request->Headers;
      if (!static_cast<const Header::Collection&>(headers).Contains(u"Host") && message->Url) {
        Url joined = Url(url_.getTerminatedBuffer()) + *message->Url;
        headers.Add(Header(StringBuffer(u"Host"), HostHeaderFor(joined)));
      }
      messageLock.unlock();
    }
    exchanges_.push_back(Exchange{message, true, true});
  }
  std::shared_ptr<Daemon> daemon = daemon_;
  lock.unlock();
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
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (!webSocket_ || closing_ || socket_ < 0 || closeAfterWrite_) return false;
  std::shared_ptr<Daemon> daemon = daemon_;
  if (out_.size() - outSent_ > MaxWebSocketBacklog) {
    lock.unlock();
    Detail::EngineLog(Logger::Severity::Warning, "Veskan::Client::WriteThroughWebSocket",
                      StringBuffer(" peer does not read, closing: ") + PeerAddress());
    if (daemon) daemon->ScheduleCloseClient(shared_from_this());
    return false;
  }
  std::string frame;
  if (!webSocket_->Write(data, length, binary, frame)) return false;
  bool wasIdle = outSent_ == out_.size();
  Daemon::QueueBytes(*this, frame.data(), frame.size());
  // Sent from this thread right away: a broadcast to thousands of connections does not wait for
  // each worker to wake up. What the socket does not take now the worker sends when writable.
  if (wasIdle && Daemon::SendQueued(*this) && outSent_ == out_.size() && written_.empty()) {
    out_.clear();
    outSent_ = 0;
    if (out_.capacity() > 65536) out_.shrink_to_fit();
    return true;
  }
  lock.unlock();
  if (daemon) daemon->WakeUp();
  return true;
}

void Client::CloseWebSocket(int code) {
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (!webSocket_ || !webSocket_->IsOpen() || closing_ || socket_ < 0) return;
  std::string frame;
  webSocket_->Close(code, frame);
  Daemon::QueueBytes(*this, frame.data(), frame.size());
  closeAfterWrite_ = true;  // the worker closes the connection once the frame has left
  readStopped_ = true;
  std::shared_ptr<Daemon> daemon = daemon_;
  lock.unlock();
  if (daemon) daemon->WakeUp();
}

bool Client::IsWebSocket() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return webSocket_ && webSocket_->IsOpen() && !closing_;
}

StringBuffer Client::WebSocketTarget() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return webSocket_ ? UTF8to16(webSocket_->Target().c_str()) : StringBuffer();
}

std::uint32_t Client::WebSocketNumber() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return webSocket_ ? webSocket_->ConnectionNumber() : 0;
}

int Client::GetSocket() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return socket_;
}

ClientStates::Enumeration Client::State() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return state_;
}

StringBuffer Client::PeerAddress() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return peerAddress_;
}

int Client::PeerPort() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return peerPort_;
}

SocketExceptions::Enumeration Client::CloseReason() const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return closeReason_;
}

std::shared_ptr<Server> Client::GetServer() const {
  return server_.lock();
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

std::vector<std::shared_ptr<Message>> Client::TakeUnfinished() {
  std::vector<std::shared_ptr<Message>> unfinished;
  for (Exchange& exchange : exchanges_) {
    if (!serverSide_) unfinished.push_back(exchange.message);  // unsent requests
  }
  for (std::shared_ptr<Message>& message : inFlight_)
    unfinished.push_back(message);
  exchanges_.clear();
  inFlight_.clear();
  written_.clear();
  message_.reset();  // outgoing: the head of inFlight_; server side: a request half read
  return unfinished;
}

void Client::FinishMessages(const std::shared_ptr<DaemonMarshaller>& marshaller,
                            const std::vector<std::shared_ptr<Message>>& messages) {
  for (const std::shared_ptr<Message>& message : messages) {
    std::unique_lock<std::recursive_mutex> lock = message->Lock();
    if (message->Ready()) continue;
    Message::UnlockAndNotifyReadyStateChanged(marshaller.get(), message, ReadyStates::Uninitialized,
                                              lock);
  }
}

}  // namespace Veskan
