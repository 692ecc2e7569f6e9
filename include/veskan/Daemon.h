// Daemon, the socket engine behind servers and outgoing connections: a ring of worker threads,
// each serving up to 30 connections and the listening sockets it was given, and the shared buffer
// map through which large bodies are handed over by name.
#ifndef VESKAN_DAEMON_H
#define VESKAN_DAEMON_H

#include <veskan/ByteBuffer.h>
#include <veskan/Client.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Export.h>
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Veskan {

class NetworkPerformanceMonitor;
class Server;

namespace Sys {
class WakeUp;
struct SocketAddress;
}  // namespace Sys

namespace Detail {
class Connection;
}  // namespace Detail

namespace WebsocketSpecifications {
struct UpgradeRequest;
}  // namespace WebsocketSpecifications

// One worker thread and the connections it serves. Daemons of one marshaller form a ring: a new
// connection goes to the first daemon with room, and a new daemon (with its own thread) is linked
// in when all are full. A daemon's thread ends by itself once it has neither connections nor
// listening sockets.
//
// The code is split by job: DaemonRing.cpp (the ring, membership, threads), DaemonLoop.cpp (the
// poll loop, accepting, the periodic pass with the connections' clocks), ConnectionIo.cpp (moving
// bytes between sockets and the protocol cores, handing events to the host, closing) and
// ByteBufferMap.cpp.
//
// Thread safety: the worker thread reads and writes the sockets; the host's threads include and
// exclude servers and connections through Server and Client. Locks are taken in the order
// LinkListMutex, a daemon's mutex, a connection's mutex; none is held while a host handler runs.
class VESKAN_API Daemon : public std::enable_shared_from_this<Daemon> {
 public:
  static constexpr unsigned MaxClientsPerDaemon = 30;

  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  virtual ~Daemon();

  // The shared buffer map: bodies handed between host and engine by name. Every function may be
  // called from any thread.
  static void AddByteBuffer(const StringBuffer& key, const ByteBuffer& buffer);
  // The buffer stored under `key`; an empty one is stored first when there is none.
  static ByteBuffer FindOrInsertByteBuffer(const StringBuffer& key);
  static void RemoveByteBuffer(const StringBuffer& key);
  static void ClearByteBuffer();
  static int ByteBufferMapCount();

  // The number of daemons in the ring, and of daemon threads still running.
  static int DaemonCount();
  static int RunningThreadCount();
  // Waits up to `seconds` until no daemon thread runs; true when none does.
  static bool WaitForAllThreads(double seconds);

  // Drops the caller's hold on `daemon` and clears it. The daemon goes on serving what it has,
  // and its thread ends once it has nothing left.
  static void Release(std::shared_ptr<Daemon>& daemon);
  // Closes every connection of this daemon at once (at the end of its worker's current cycle),
  // finishing their messages: for shutdown, when connections do not go away by themselves.
  void Abort();

  int Id() const { return id_; }
  // The number of connections this daemon serves now.
  int ClientCount() const;

  // Attaches the counters every daemon reports to (null: none). A replaced monitor is released
  // once no worker uses it.
  static void MonitorPerformance(const std::shared_ptr<NetworkPerformanceMonitor>& monitor);

  // Waits until `check` returns non-zero or `seconds` pass, on `condition` with `mutex` held
  // (taken here); `check` gives 1 (done), -1 (give up) or 0 (wait on). On a thread that owns an
  // event loop the loop runs meanwhile, so that hand-overs to this very thread complete. True
  // when it ended with 1.
  static bool BlockUntil(const std::function<int()>& check, double seconds,
                         std::recursive_mutex& mutex, std::condition_variable_any& condition);

 private:
  friend class Server;
  friend class Client;
  friend class DaemonMarshaller;
  friend class Detail::Connection;
  struct Cycle;
  struct Interest;
  using ConnectionPointer = std::shared_ptr<Detail::Connection>;

  Daemon(const std::shared_ptr<DaemonMarshaller>& marshaller, Daemon* parent);

  // --- the ring (DaemonRing.cpp)
  // The first daemon of `marshaller`'s ring, created when there is none.
  static std::shared_ptr<Daemon> GetInstance(const std::shared_ptr<DaemonMarshaller>& marshaller);
  // Places `connection` on the first daemon of `marshaller`'s ring with room, creating one if
  // needed, and starts that daemon.
  static std::shared_ptr<Daemon> Place(const std::shared_ptr<DaemonMarshaller>& marshaller,
                                       const ConnectionPointer& connection);
  // This daemon if it has room, else the next one in the ring with room, else a new one linked
  // behind this one (`created` then true). Called with LinkListMutex held.
  std::shared_ptr<Daemon> ChooseNextAvailableDaemon(bool& created);
  void LinkToParent(Daemon* parent);
  void Unlink();
  void Start();
  bool Include(const std::shared_ptr<Server>& server);
  bool Include(const ConnectionPointer& connection);
  void Exclude(const Server* server);
  void Exclude(const Detail::Connection* connection);
  // Wakes the worker so that a change made from another thread takes effect now.
  void WakeUp();
  // Closes `connection` at the end of the worker's current cycle (the worker may be polling it
  // now), with `reason` and `detail` as its close reason.
  void ScheduleCloseClient(const ConnectionPointer& connection,
                           SocketExceptions::Enumeration reason, const StringBuffer& detail);

  // --- the loop (DaemonLoop.cpp)
  // Starts the system's socket library once per process (nothing to start on POSIX systems).
  static void LoadSocketLibraries();
  // A bound listening socket for the server's base URL (`retry`: on a port the system chooses),
  // with its port; -1 on failure.
  static int AllocateNewSocket(const std::shared_ptr<Server>& server, bool retry, int& port);
  // Binds `socket` to `address` and listens.
  static bool UseSocket(int socket, const Sys::SocketAddress& address);
  void ThreadProc();
  bool IsThreadTerminationTime();
  void RunCycle(Cycle& cycle, std::unique_lock<std::recursive_mutex>& lock);
  // Does the work a connection has before the worker waits (replies answered meanwhile, requests
  // that waited in its read buffer while reading was paused) and tells what to wait for on it.
  Interest PrepareConnection(const ConnectionPointer& connection);
  // Accepts what is pending; false when accepting failed for another reason than none pending.
  bool ProcessFirstSocket(const std::shared_ptr<Server>& server, int listening);
  // Makes the connection of an accepted socket and places it on a daemon; null on failure.
  ConnectionPointer FinalizeNewConnection(int socket, const StringBuffer& peerAddress, int peerPort,
                                          const std::shared_ptr<Server>& server);
  // Once a second: the connections' ticks, and their clocks against the server's limits.
  void ProcessAllClients();

  // --- moving bytes (ConnectionIo.cpp)
  void ProcessSocketReadable(const ConnectionPointer& connection);
  void ProcessSocketWritable(const ConnectionPointer& connection);
  void HandleConnectingClient(const ConnectionPointer& connection, int error);
  // Reads messages out of the read buffer and hands their events to the host, a message (or a
  // header block) at a time, until the bytes run out or reading is paused. `lock` holds the
  // connection's lock on entry and exit. False: the bytes break the protocol.
  bool ProcessIn(const ConnectionPointer& connection, std::unique_lock<std::recursive_mutex>& lock,
                 bool final);
  // Goes on with requests that waited in the read buffer while reading was paused, as far as the
  // connection's pace allows, and sends their replies. False when the connection was closed (it
  // broke the protocol, or sending failed).
  bool Resume(const ConnectionPointer& connection);
  // Formats the answered messages at the front into the output queue, in order; `lock` holds the
  // connection's lock on entry and exit, and is released while each message is formatted.
  // Returns the requests of an outgoing connection written so, to be announced Sent.
  std::vector<std::shared_ptr<Message>> FormatAnswered(
      Detail::Connection& connection, std::unique_lock<std::recursive_mutex>& lock);
  // Formats what is answered and sends what the socket takes; false when sending failed.
  bool ProcessOut(const ConnectionPointer& connection);
  // Starts the WebSocket support of a connection whose upgrade request `request` was read, and
  // feeds it the bytes behind it. False: the connection breaks the protocol.
  bool UpgradeToWebSocket(const ConnectionPointer& connection,
                          std::unique_lock<std::recursive_mutex>& lock,
                          const std::shared_ptr<Message>& request);
  // Answers an upgrade request that is not taken with 400 and closes once that has left.
  static void RefuseUpgrade(Detail::Connection& connection);
  // Feeds bytes to the connection's WebSocket support (with `upgrade`, the upgrade request and
  // the bytes behind it), queues what it answers and delivers its events to the host (without
  // the connection's lock, which `lock` holds on entry and exit).
  void FeedWebSocket(const ConnectionPointer& connection,
                     std::unique_lock<std::recursive_mutex>& lock, const char* data,
                     std::size_t length,
                     const WebsocketSpecifications::UpgradeRequest* upgrade = nullptr);
  void CloseClient(const ConnectionPointer& connection, SocketExceptions::Enumeration reason,
                   const StringBuffer& detail);
  void ReleaseDeferredClients();

  static std::recursive_mutex LinkListMutex;

  const int id_;
  std::shared_ptr<DaemonMarshaller> marshaller_;
  std::array<ConnectionPointer, MaxClientsPerDaemon> clients_;
  int clientSocketCount_ = 0;
  std::vector<std::shared_ptr<Server>> servers_;
  Daemon* next_;
  Daemon* parent_;
  mutable std::recursive_mutex mutex_;
  std::condition_variable_any changed_;
  std::thread thread_;
  std::atomic<std::thread::id> worker_{};  // the worker thread, once it runs
  std::unique_ptr<Sys::WakeUp> wakeUp_;
  // Set by the first wake-up since the worker last looked at its connections: the ones after it
  // need no system call, the worker will see their changes anyway.
  std::atomic<bool> wakePending_{false};
  struct Deferred {
    ConnectionPointer connection;
    SocketExceptions::Enumeration reason;
    StringBuffer detail;
  };
  std::vector<Deferred> deferred_;
  bool started_ = false;
  bool ended_ = false;
  std::uint64_t cycles_ = 0;
};

}  // namespace Veskan

#endif
