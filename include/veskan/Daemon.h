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

// One worker thread and the connections it serves. Daemons of one marshaller form a ring: a new
// connection goes to the first daemon with room, and a new daemon (with its own thread) is linked
// in when all are full. A daemon's thread ends by itself once it has neither connections nor
// listening sockets.
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

  int Id() const { return id_; }
  // The number of connections this daemon serves now.
  int ClientCount() const;

  // Attaches the counters every daemon reports to (null: none).
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
  struct Cycle;

  Daemon(const std::shared_ptr<DaemonMarshaller>& marshaller, Daemon* parent);

  // The first daemon of `marshaller`'s ring, created and started when there is none.
  static std::shared_ptr<Daemon> GetInstance(const std::shared_ptr<DaemonMarshaller>& marshaller);
  // Places `client` on the first daemon of `marshaller`'s ring with room, creating one if needed.
  static std::shared_ptr<Daemon> Place(const std::shared_ptr<DaemonMarshaller>& marshaller,
                                       const std::shared_ptr<Client>& client);
  // This daemon if it has room, else the next one in the ring with room, else a new one linked
  // behind this one (`created` then true). Called with LinkListMutex held.
  std::shared_ptr<Daemon> ChooseNextAvailableDaemon(bool& created);
  void LinkToParent(Daemon* parent);
  void Unlink();
  void Start();

  bool Include(const std::shared_ptr<Server>& server);
  bool Include(const std::shared_ptr<Client>& client);
  void Exclude(const Server* server);
  void Exclude(const Client* client);
  // Wakes the worker so that a change made from another thread takes effect now.
  void WakeUp();
  // Closes `client` at the end of the worker's current cycle (the worker may be polling it now).
  void ScheduleCloseClient(const std::shared_ptr<Client>& client);

  // Starts the system's socket library once per process (nothing to start on POSIX systems).
  static void LoadSocketLibraries();
  // A bound listening socket for the server's base URL (`retry`: on a port the system chooses),
  // with its port; -1 on failure.
  static int AllocateNewSocket(const std::shared_ptr<Server>& server, bool retry, int& port);
  // Binds `socket` to `address` and listens.
  static bool UseSocket(int socket, const Sys::SocketAddress& address);
  // Sends until everything is gone or the socket would block; the count sent, or -1 on error.
  static long sendall(int socket, const char* data, std::size_t length, int& error);

  void ThreadProc();
  bool IsThreadTerminationTime();
  void RunCycle(Cycle& cycle, std::unique_lock<std::recursive_mutex>& lock);
  // Accepts what is pending; false when accepting failed for another reason than none pending.
  bool ProcessFirstSocket(const std::shared_ptr<Server>& server, int listening);
  // Makes the connection of an accepted socket and places it on a daemon; null on failure.
  std::shared_ptr<Client> FinalizeNewConnection(int socket, const StringBuffer& peerAddress,
                                                int peerPort,
                                                const std::shared_ptr<Server>& server);
  void ProcessSocketReadable(const std::shared_ptr<Client>& client);
  void ProcessSocketWritable(const std::shared_ptr<Client>& client);
  void HandleConnectingClient(const std::shared_ptr<Client>& client, int error);
  bool ProcessIn(const std::shared_ptr<Client>& client,
                 std::unique_lock<std::recursive_mutex>& lock, bool final);
  bool ProcessOut(const std::shared_ptr<Client>& client);
  // Appends bytes for `client` to send, through its transform when it has one; its lock is held.
  static void QueueBytes(Client& client, const char* bytes, std::size_t length);
  // Sends the queued bytes of `client` as far as its socket takes them; its lock is held. False
  // when sending failed.
  static bool SendQueued(Client& client);
  // Starts the WebSocket support of a connection whose upgrade request `request` was read, and
  // feeds it the request and the bytes behind it. False: the connection breaks the protocol.
  bool UpgradeToWebSocket(const std::shared_ptr<Client>& client,
                          std::unique_lock<std::recursive_mutex>& lock,
                          const std::shared_ptr<Message>& request);
  // Answers an upgrade request that is not taken with 400 and closes once that has left.
  static void RefuseUpgrade(Client& client);
  // Feeds bytes to the connection's WebSocket support, queues what it answers and delivers its
  // events to the host (without the connection's lock, which `lock` holds on entry and exit).
  void FeedWebSocket(const std::shared_ptr<Client>& client,
                     std::unique_lock<std::recursive_mutex>& lock, const char* data,
                     std::size_t length);
  void ProcessAllClients();
  void CloseClient(const std::shared_ptr<Client>& client, SocketExceptions::Enumeration reason,
                   const StringBuffer& detail);
  void ReleaseDeferredClients();

  static std::recursive_mutex LinkListMutex;

  const int id_;
  std::shared_ptr<DaemonMarshaller> marshaller_;
  std::array<std::shared_ptr<Client>, MaxClientsPerDaemon> clients_;
  std::array<int, MaxClientsPerDaemon> clientSockets_{};
  int clientSocketCount_ = 0;
  std::vector<std::shared_ptr<Server>> servers_;
  Daemon* next_;
  Daemon* parent_;
  mutable std::recursive_mutex mutex_;
  std::condition_variable_any changed_;
  std::thread thread_;
  std::atomic<std::thread::id> worker_{};  // the worker thread, once it runs
  std::unique_ptr<Sys::WakeUp> wakeUp_;
  std::vector<std::shared_ptr<Client>> deferred_;
  bool started_ = false;
  bool ended_ = false;
  std::uint64_t cycles_ = 0;
};

}  // namespace Veskan

#endif
