// Server, the embedded HTTP/1.1 server a host starts on a base URL, and Server::Log, the
// process-wide diagnostic sink of the network engine (the system log, or alerts).
#ifndef VESKAN_SERVER_H
#define VESKAN_SERVER_H

#include <veskan/Client.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Export.h>
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace Veskan {

class Daemon;
class NetworkPerformanceMonitor;
class TransportLayerSecurity;

namespace Detail {
class Authenticator;
class TlsContext;
}  // namespace Detail

// A listening HTTP/1.1 server. Its socket and connections are served by the daemon ring; its
// signals are delivered through its DaemonMarshaller: on the thread that constructed the server
// (window mode, while that thread runs DaemonMarshaller::RunEventLoopOnce or waits in BlockUntil
// or Stop), or directly on a daemon's worker thread (direct mode).
//
// Which signal a host uses for what:
// - MessageReceived: the usual way to answer. Fill the Message it gives (StatusCode, the reply's
//   headers and content); the reply is written when every slot has returned.
// - MessageReceivedDeferrable: for answers that take time (a question still open, a long poll).
//   A slot that sets `answerLater` keeps the reply back; the host calls Client::Send(message)
//   later, from any thread, and the reply leaves at once.
//   Both fire for every request, MessageReceived first; a host connects one of them.
// - HeadersComplete: before the body is read, so that a host can prepare for a large upload;
//   PartReceived: each part of a multipart body as it completes.
// - ClientConnected, ClientDisconnected, StateChanged: the life of connections and the server.
// - WebSocketMessage: everything of upgraded connections.
// A message nobody answered (status 0) is answered 404. Replies of one connection leave in the
// order of its requests. A reply's Content is sent from the object itself, not from a copy:
// leave it unchanged until MessageSent.
//
// Thread safety: Start, Stop and BlockUntil are called from the host's threads (in window mode
// from the owner thread, or from threads that do not wait for the owner thread). Every accessor
// may be called from any thread.
class VESKAN_API Server : public std::enable_shared_from_this<Server> {
 public:
  class Log;

  // Every limit that keeps one connection from costing the server more than its share. A
  // connection that passes one is closed with the reason named here (Client::CloseReason, the
  // Closed signal's texts: reason and detail) and a line in the engine's log, and the server's
  // other connections go on being served. Times are checked once a second.
  struct Limits {
    // The start line and header block of one request. Above it: "HTTP Protocol violation".
    int MaxHeaderBytes = 64 * 1024;
    // The declared or received body of one request. Above it: "HTTP Protocol violation".
    int MaxBodySize = 64 * 1024 * 1024;
    // One chunk-size line of a chunked body, with its extensions. Above it: "HTTP Protocol
    // violation".
    int MaxChunkLineBytes = 1024;
    // Seconds a connection may stay without traffic while no request is under way. After it:
    // "No more data", detail "idle". An open WebSocket is exempt.
    int IdleTimeoutSeconds = 120;
    // Seconds from the first byte of a request to the end of its header block. After it: "Data
    // refused", detail "request head too slow".
    int HeadTimeoutSeconds = 20;
    // A body must be whole within BodyTimeoutSeconds from its start plus one second for every
    // MinBodyBytesPerSecond bytes received. After it: "Data refused", detail "request body too
    // slow".
    int BodyTimeoutSeconds = 20;
    int MinBodyBytesPerSecond = 500;
    // Bytes queued for the peer and not yet taken by it, above which the connection is not read
    // from until they drain, so that a client that sends without reading is held back by the
    // kernel's buffers rather than by the server's memory.
    int MaxUnsentBytes = 1024 * 1024;
    // Requests received and not yet answered, above which the connection is not read from until
    // answers have left.
    int MaxUnansweredRequests = 16;
    // Seconds the peer may leave queued bytes untaken. After it: "Data refused", detail "peer
    // does not read".
    int SendTimeoutSeconds = 60;
    // WebSocket: bytes queued for a peer, above which Client::WriteThroughWebSocket refuses the
    // message and closes the connection ("Data refused", detail "peer does not read").
    int MaxWebSocketBacklog = 16 * 1024 * 1024;
    // WebSocket: the payload of one received frame, delivered or skipped. Above it the
    // connection closes with code 1009.
    int MaxWebSocketFrameBytes = 16 * 1024 * 1024;
  };

  // `direct` selects the marshaller's direct mode. `certificate` and `key` name the TLS files
  // (null or empty: plain HTTP).
  Server(bool direct, const char16_t* certificate, const char16_t* key);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  // A started server is held by its daemon until Stop.
  virtual ~Server();

  // Stops a running instance, then listens on the port of `baseUrl` ("http://*:8080/",
  // "http://localhost:0/"; host "*" or none: every address). With `retryWithSystemPort`, a taken
  // port is replaced by one the system chooses. Returns false, with the state Stopped, when no
  // socket could be bound ("Port occupied" is logged); true once the state is Started. A secure
  // server first reads its certificate and key (see TransportLayerSecurity::CreateServer): when
  // they cannot be used, the reason is written to Server::Log, and Start returns false with the
  // state Stopped, without listening.
  bool Start(const char16_t* baseUrl, bool retryWithSystemPort = true);
  // Closes the listening socket and every connection: each is shut down for sending, and the ones
  // still open after `graceMilliseconds` are aborted. Every ClientDisconnected has been delivered
  // before the state becomes Stopped; the state is Stopped when it returns.
  void Stop(int graceMilliseconds = 1000);

  // Waits until the state is `state`, or is Stopped while `state` is not, or `seconds` have
  // passed; returns the state then. On the owner thread of a window-mode server the event loop
  // runs meanwhile.
  ServerStates::Enumeration BlockUntil(ServerStates::Enumeration state, double seconds);
  // 1 when the state is `state`, -1 when it is Stopped and `state` is not, 0 otherwise.
  int BlockUntilCheck(ServerStates::Enumeration state) const;

  // Attaches the performance counters instance `instanceName` to the engine.
  void MonitorPerformance(const char16_t* instanceName);

  // Closes a connection upgraded to WebSocket, as Client::CloseWebSocket(1000) does.
  void CloseWebSocket(const std::shared_ptr<Client>& client);

  ServerStates::Enumeration State() const;
  // The port listened on (the system's choice after a retry or for port 0); 0 when not listening.
  int Port() const;
  StringBuffer BaseUrl() const;
  // True when a certificate or a key file was given: every connection then speaks TLS.
  bool IsSecure() const;
  // A copy of the open connections.
  Client::Collection Connections() const;
  DaemonMarshaller& Marshaller() { return *marshaller_; }

  // The limits of connections accepted from now on (see Limits).
  void SetLimits(const Limits& limits);
  Limits GetLimits() const;

  // What the host's credential lookup answers for a user name: the password, or, for Digest
  // only, H(user ":" realm ":" password) in lower-case hexadecimal per algorithm, so that the
  // host need not keep the password itself.
  struct Credential {
    StringBuffer Password;
    std::string DigestMD5;     // used when Password is empty
    std::string DigestSHA256;  // used when Password is empty
  };
  // Returns true with `credential` filled in for a known user, false for an unknown one. Called
  // by Client::Authorized on the thread that calls it.
  using CredentialLookup =
      std::function<bool(const StringBuffer& userName, Credential& credential)>;
  // The realm and the lookup that Client::Authorized checks requests against (Basic, and Digest
  // with MD5 or SHA-256 and qop "auth"). Without a lookup only the second form of Authorized
  // accepts anyone.
  void SetAuthorization(const StringBuffer& realm, CredentialLookup lookup);

  // Signals (the marshaller kind in brackets).
  // The state changed [7].
  DaemonMarshaller::ServerSignal StateChanged;
  // A connection was accepted [5].
  DaemonMarshaller::ServerClientSignal ClientConnected;
  // A connection was closed [5].
  DaemonMarshaller::ServerClientSignal ClientDisconnected;
  // A request's headers are complete, before its body is read: the part is null and the int is
  // the declared content length (-1: chunked) [10].
  DaemonMarshaller::ServerClientMessagePartIntSignal HeadersComplete;
  // A part of a multipart request body is complete; the int is its index [10].
  DaemonMarshaller::ServerClientMessagePartIntSignal PartReceived;
  // A request is complete (ready state Loaded); answer it by filling the message [6].
  DaemonMarshaller::ServerClientMessageSignal MessageReceived;
  // The same request, after MessageReceived: a slot that sets the bool answers later with
  // Client::Send [8].
  DaemonMarshaller::ServerClientMessageBoolSignal MessageReceivedDeferrable;
  // A reply has been written to the socket completely [6].
  DaemonMarshaller::ServerClientMessageSignal MessageSent;
  // A WebSocket event of a connection [13]: WEBSOCKETCONNECT once its upgrade completed,
  // WEBSOCKETMESSAGE with the text messages received (in order, each delivered once), and
  // WEBSOCKETDISCONNECT once when it is no longer open, before its socket is closed. A GET request
  // with "Upgrade: websocket" is answered by the engine (both the hybi-00 and the RFC 6455
  // handshake); it never reaches MessageReceived. Use Client::WebSocketTarget to route by path.
  DaemonMarshaller::ServerWebSocketMessageSignal WebSocketMessage;

 private:
  friend class Daemon;
  friend class Client;

  void SetState(ServerStates::Enumeration state);
  // Adds an accepted connection before any worker can serve it, so that its closing always finds
  // it; removes it after its last signal.
  void RememberConnection(const std::shared_ptr<Client>& client);
  void ForgetConnection(const Client* client);
  // The listening socket, or -1.
  int ListeningSocket() const;
  // A TLS session for a new connection of a started secure server; null otherwise.
  std::shared_ptr<TransportLayerSecurity> NewTlsSession() const;
  // The checks of Client::Authorized (made on first use when the host set none).
  std::shared_ptr<Detail::Authenticator> Authentication();

  std::shared_ptr<DaemonMarshaller> marshaller_;
  StringBuffer certificate_;
  StringBuffer key_;
  bool direct_;

  mutable std::recursive_mutex mutex_;
  std::condition_variable_any changed_;
  ServerStates::Enumeration state_ = ServerStates::Stopped;
  StringBuffer baseUrl_;
  int port_ = 0;
  Limits limits_;
  std::shared_ptr<Daemon> daemon_;  // the daemon watching the listening socket
  int listeningSocket_ = -1;
  Client::Collection connections_;
  std::shared_ptr<Detail::TlsContext> tlsContext_;  // a secure server's settings, built by Start
  std::shared_ptr<Detail::Authenticator> authenticator_;
};

// The engine's diagnostic sink: lines at or above a threshold go to the system log (syslog with
// the source as ident) or, with the source "MessageBox", to an alert handler.
//
// Thread safety: Start and Stop are called from the host's thread; Write and the accessors from
// any thread.
class VESKAN_API Server::Log {
 public:
  enum Enumeration : int {
    None = 0,
    Error = 1,
    Warning = 2,
    Information = 3,
  };

  // "None", "Error", "Warning", "Information"; "##invalid value##" for other values.
  static const char16_t* ToString(Enumeration value);
  // Case-insensitive: "error"/"errors", "warning"/"warnings", "information"; else None.
  static Enumeration Parse(const char16_t* text);

  // Counts a start. When no sink is active yet: takes `threshold`, and selects alert mode for the
  // source "MessageBox" (exact), else opens the system log under `source` (the product name when
  // null or empty).
  static void Start(const char16_t* source, Enumeration threshold);
  // Counts a stop; the last one closes the system log and ends alert mode. Without a start not
  // yet stopped, nothing happens.
  static void Stop();
  // Writes `text` when `severity` is Error, Warning or Information, not above the threshold, and a
  // sink is active. In alert mode the handler is called on the writing thread, with no lock held.
  static void Write(Enumeration severity, const char16_t* text);

  // In alert mode, receives the title "Event Log Message", the text and the severity. The default
  // handler (also restored by an empty function) writes one line to stderr.
  using AlertHandler =
      std::function<void(const char16_t* title, const char16_t* text, Enumeration severity)>;
  static void SetAlertHandler(AlertHandler handler);

  // The number of Start calls not yet matched by Stop; whether the system log is open; whether
  // alert mode is on; the threshold.
  static int StartCount();
  static bool SystemLogOpen();
  static bool AlertMode();
  static Enumeration Threshold();
};

}  // namespace Veskan

#endif
