// Client, one TCP connection (accepted by a server, or opened by the host to a URL) with its HTTP
// parse state; Client::ParseData; Client::Collection.
#ifndef VESKAN_CLIENT_H
#define VESKAN_CLIENT_H

#include <veskan/Body.h>
#include <veskan/ByteBuffer.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Export.h>
#include <veskan/Message.h>
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Veskan {

class Content;
class Daemon;
class Server;

namespace Detail {
class Connection;
}  // namespace Detail

// One connection. Server-side connections are made by the daemon for an accepted socket and start
// Connected; outgoing ones are made by the host and opened with Connect. The daemon's worker reads
// and writes the connection; the host sends messages with Send.
//
// Each connection attempt has its own engine state (socket, parse state, queues), which the worker
// keeps for as long as it works on it: Connect and Abort start afresh without waiting for the
// worker, so a handler may call them from anywhere.
//
// Thread safety: every operation may be called from any thread. The signals are delivered through
// the connection's marshaller (the server's for a server-side connection), never while the
// connection's lock is held.
class VESKAN_API Client : public std::enable_shared_from_this<Client> {
 public:
  class ParseData;
  class Collection;

  // An outgoing connection, not yet connected. `direct` selects the marshaller's direct mode
  // (otherwise signals are delivered on the constructing thread). `key` and `certificate` name
  // TLS material for later use (null: none).
  Client(bool direct, const char16_t* key, const char16_t* certificate);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  virtual ~Client();

  // Aborts an earlier connection, then connects to the host and port of `url` (http only) on a
  // daemon's worker. The state is Connecting on return; StateChanged reports Connected, or
  // Disconnected with Closed telling why. False for a URL without a host.
  bool Connect(const char16_t* url);
  // Connect with the URL of the last Connect.
  bool Reconnect();
  // `disconnectSlots`: every slot of the seven signals is disconnected first. A connecting
  // connection is closed at once; a connected one is shut down for sending and closed by the
  // worker when the peer has closed its side.
  void Disconnect(bool disconnectSlots = false);
  // Ends the connection at once: messages waiting for an answer are finished (ready state
  // Uninitialized, so that waiters wake), the state becomes Disconnected. `notify`: report the
  // change through StateChanged.
  void Abort(bool notify = true);
  // Queues `message` for writing (see the class comment of Server for replies). Open or Loaded:
  // prepared and queued; Sent or Receiving: marked to be sent again; Uninitialized: returned to the
  // host (its state is announced again) and false. A connection that is not Connected sends
  // nothing and gives false.
  bool Send(const std::shared_ptr<Message>& message);
  // Waits until the state is `state`, or Disconnected, or `seconds` have passed; returns the
  // state then.
  ClientStates::Enumeration BlockUntil(ClientStates::Enumeration state, double seconds);
  // 1 when the state is `state`, -1 when it is Disconnected (give up), 0 otherwise.
  int BlockUntilCheck(ClientStates::Enumeration state) const;
  // Attaches the performance counters instance `instanceName` to the engine.
  void MonitorPerformance(const char16_t* instanceName);

  // On a connection upgraded to WebSocket: sends `text` as one text message (UTF-8), or the
  // content's bytes as one message (a text message for a "text/..." or guessed text type, else
  // binary). The frame leaves at once when nothing else waits to be sent. False when the
  // connection is not an open WebSocket, or when the peer has left more than the server's
  // MaxWebSocketBacklog bytes untaken (the connection is then closed: a client that does not
  // read cannot make the server hold unbounded data).
  bool WriteThroughWebSocket(const StringBuffer& text);
  bool WriteThroughWebSocket(const std::shared_ptr<Content>& content);
  // True when the request of `message` carries credentials the server's lookup accepts
  // (Server::SetAuthorization): Basic, or Digest with MD5 or SHA-256, qop "auth", a nonce this
  // server issued within the last five minutes and a nonce count higher than any accepted with
  // that nonce. Otherwise the message is answered 401 with one "WWW-Authenticate" challenge per
  // scheme (Digest SHA-256, Digest MD5, Basic; stale=true when only the nonce had expired), to be
  // sent as any reply is, and the result is false. Credentials never appear in log lines.
  bool Authorized(const std::shared_ptr<Message>& message);
  // The same against the one user `userName` with `password` instead of the lookup; a refusal is
  // answered 401 only when `answerRefusal` is true.
  bool Authorized(const std::shared_ptr<Message>& message, const char16_t* userName,
                  const char16_t* password, bool answerRefusal);

  // Sends the protocol's closing frame (with `code` where the protocol carries one) and closes
  // the connection once it has left. Nothing on a connection that is not an open WebSocket.
  void CloseWebSocket(int code = 1000);
  // True from the completed handshake until the WebSocket is closed.
  bool IsWebSocket() const;
  // The request target of the upgrade ("/ws?room=1"); empty for a connection never upgraded.
  StringBuffer WebSocketTarget() const;
  // The process-wide number of the upgrade (1 for the first); 0 for a connection never upgraded.
  std::uint32_t WebSocketNumber() const;

  int GetSocket() const;
  ClientStates::Enumeration State() const;
  // The peer's dotted IPv4 address and port; empty and 0 before a connection.
  StringBuffer PeerAddress() const;
  int PeerPort() const;
  // Why the connection was closed; None while it is open or when the host closed it.
  SocketExceptions::Enumeration CloseReason() const;
  // The server of a server-side connection; null for an outgoing one.
  std::shared_ptr<Server> GetServer() const;
  // A number unique in the process, for logs and maps.
  std::uint64_t Id() const { return id_; }

 private:
  // The seven signals, taken from and given back to a pool; declared here because the signal
  // references below are bound to them.
  struct Signals;
  static Signals* TakeSignals();
  static void GiveBack(Signals* signals);
  std::unique_ptr<Signals, void (*)(Signals*)> signals_;

 public:
  // Signals (the marshaller kind in brackets).
  // The connection state changed [2].
  DaemonMarshaller::ClientSignal& StateChanged;
  // Once a second while the connection is open [2].
  DaemonMarshaller::ClientSignal& Tick;
  // An outgoing connection's reply headers are complete: part null, the declared length [11].
  DaemonMarshaller::ClientMessagePartIntSignal& HeadersComplete;
  // A part of a multipart reply is complete; the int is its index [11].
  DaemonMarshaller::ClientMessagePartIntSignal& PartReceived;
  // An outgoing connection's reply is complete (ready state Loaded) [3].
  DaemonMarshaller::ClientMessageSignal& MessageReceived;
  // A message has been written completely [3].
  DaemonMarshaller::ClientMessageSignal& MessageSent;
  // The connection was closed: the close reason's text and a detail (may be empty); the message
  // is the one in progress, or null [4].
  DaemonMarshaller::ClientMessageStringBufferStringBufferSignal& Closed;

 private:
  friend class Daemon;
  friend class Server;

  // A server-side connection for an accepted socket, Connected; the daemon gives it its engine
  // state.
  Client(const std::shared_ptr<Server>& server,
         const std::shared_ptr<DaemonMarshaller>& marshaller);

  // The engine state of the current connection attempt; null before the first.
  std::shared_ptr<Detail::Connection> CurrentConnection() const;
  bool IsCurrent(const Detail::Connection* connection) const;
  // The engine reports on `connection`; an attempt that Connect has replaced reports nothing.
  // Moves the state to `state` and signals the change.
  void ConnectionStateChanged(const Detail::Connection* connection,
                              ClientStates::Enumeration state);
  // Records why `connection` was closed.
  void ConnectionClosed(const Detail::Connection* connection, SocketExceptions::Enumeration reason);
  void SetState(ClientStates::Enumeration state);
  // Frames and queues bytes on an upgraded connection (see WriteThroughWebSocket).
  bool WriteWebSocketFrame(const char* data, std::size_t length, bool binary);

  const std::uint64_t id_;
  const bool serverSide_;  // accepted by a server, rather than opened by the host
  const std::weak_ptr<Server> server_;
  const std::shared_ptr<DaemonMarshaller> marshaller_;
  // Guards what follows; taken last, with no other lock taken while it is held.
  mutable std::recursive_mutex mutex_;
  std::condition_variable_any changed_;
  ClientStates::Enumeration state_ = ClientStates::Disconnected;
  SocketExceptions::Enumeration closeReason_ = SocketExceptions::None;
  StringBuffer url_;
  std::shared_ptr<Detail::Connection> connection_;
};

// The parse state of one connection: the bytes received and not yet consumed, the body of the
// message being read and where the reader stands.
//
// Thread safety: none; the daemon guards it with its connection's lock.
class VESKAN_API Client::ParseData {
 public:
  // Waiting, 0 to 4 and 6 (the gap is deliberate): ReadingChunkSize and ReadingChunkData are the
  // chunked body states and print as "##invalid value##".
  class VESKAN_API States {
   public:
    enum Enumeration : int {
      Waiting = 0,
      ReadingHeaders = 1,
      ReadingContent = 2,
      ReadingChunkSize = 3,
      ReadingChunkData = 4,
      SendingContent = 6,
    };
    static const char16_t* ToString(Enumeration value);
  };

  // A read buffer of ChunkSize bytes, an empty content buffer, state Waiting.
  ParseData();
  ParseData(const ParseData& other);
  ParseData& operator=(const ParseData& other);
  virtual ~ParseData();

  // Empties the content buffer and both maps, sets the positions, the content length and the
  // received count to 0 and the state to Waiting. The read buffer keeps its capacity.
  void ResetAll();
  // Gives an empty read buffer ChunkSize bytes again (an idle connection gives its buffer back).
  // The bytes are not cleared: only [ReadPosition, WritePosition) is ever read, and memory that
  // is never written costs nothing.
  void EnsureReadBuffer();
  // Makes room in the read buffer before bytes are received into it: gives it its bytes back if
  // it had none, moves the unread bytes to the front, and grows a full buffer up to
  // `maxHeaderBytes` + ChunkSize (only a header block in progress fills it; bodies move out of
  // it). False when it is full even so.
  bool MakeRoom(int maxHeaderBytes);

  // Received bytes; [ReadPosition, WritePosition) are not consumed yet.
  ByteBuffer ReadBuffer;
  // The body of the message being read.
  ByteBuffer ContentBuffer;
  // The size by which buffers are allocated.
  int ChunkSize = 16384;
  int ReadPosition = 0;
  int WritePosition = 0;
  // Multipart parts completed so far, by index, and where each one's payload starts in
  // ContentBuffer.
  std::map<int, std::shared_ptr<Part>> Parts;
  std::map<int, int> PartOffsets;
  // The declared length of the current body (-1: until the peer closes; for a chunked body the
  // current chunk's size) and the body bytes received.
  int ContentLength = 0;
  int ContentReceived = 0;
  States::Enumeration State = States::Waiting;

  // Header bytes of the current message so far.
  int HeaderBytes = 0;
  // Chunked body: set once the body is known to be chunked; the bytes left of the current chunk
  // (0 after the last one: its CR LF is awaited).
  bool Chunked = false;
  int ChunkRemaining = 0;
  // Multipart body: the delimiter ("--" and the boundary, UTF-8; empty for other bodies) and the
  // offset in ContentBuffer up to which parts have been split off.
  std::string Delimiter;
  int MultipartScan = 0;
  // Where the search for the end of the current part resumes.
  int MultipartSearched = 0;
  // Whether the connection stays open after the current message.
  bool KeepAlive = false;
};

// Connections in order. Indexing out of range gives a null pointer.
//
// Thread safety: none; the owner guards it.
class VESKAN_API Client::Collection {
 public:
  Collection();
  Collection(const Collection& other) = default;
  Collection& operator=(const Collection& other) = default;
  virtual ~Collection();

  int Count() const { return static_cast<int>(clients_.size()); }
  std::shared_ptr<Client> operator[](int index) const;
  void Add(const std::shared_ptr<Client>& client);
  // Removes the connection at `index`; nothing for an index out of range.
  void RemoveAt(int index);
  // Removes `client` when present; true when it was.
  bool Remove(const Client* client);

  std::vector<std::shared_ptr<Client>>::const_iterator begin() const { return clients_.begin(); }
  std::vector<std::shared_ptr<Client>>::const_iterator end() const { return clients_.end(); }

 private:
  std::vector<std::shared_ptr<Client>> clients_;
};

}  // namespace Veskan

#endif
