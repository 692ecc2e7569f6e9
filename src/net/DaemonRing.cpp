// Daemon: the ring of daemons, their threads, and which connections and servers each one serves.
#include <veskan/Daemon.h>
#include <veskan/Logger.h>
#include <veskan/Server.h>

#include "net/Connection.h"
#include "net/EngineCounters.h"
#include "sys/Socket.h"
#include "sys/Turns.h"

#include <algorithm>
#include <chrono>

namespace Veskan {

namespace {

using Counters = NetworkPerformanceMonitor::Counters;

// The ring: every daemon of the process, linked through next_ while its thread runs. Guarded by
// Daemon::LinkListMutex.
Daemon* ringHead = nullptr;
int daemonCount = 0;
std::atomic<int> nextDaemonId{1};

std::mutex threadsMutex;
std::condition_variable threadsEnded;
int runningThreads = 0;

}  // namespace

std::recursive_mutex Daemon::LinkListMutex;

Daemon::Daemon(const std::shared_ptr<DaemonMarshaller>& marshaller, Daemon* parent)
    : id_(nextDaemonId++),
      marshaller_(marshaller),
      next_(this),
      parent_(parent),
      wakeUp_(std::make_unique<Sys::WakeUp>()) {}

Daemon::~Daemon() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::~Daemon") << " id_: " << id_;
}

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

void Daemon::Release(std::shared_ptr<Daemon>& daemon) {
  if (daemon) {
    Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Release") << " id_: " << daemon->id_;
  }
  daemon.reset();
}

std::shared_ptr<Daemon> Daemon::Place(const std::shared_ptr<DaemonMarshaller>& marshaller,
                                      const ConnectionPointer& connection) {
  std::lock_guard<std::recursive_mutex> ring(LinkListMutex);
  bool created = false;
  std::shared_ptr<Daemon> chosen = GetInstance(marshaller)->ChooseNextAvailableDaemon(created);
  chosen->Include(connection);
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
  thread_ = std::thread([self]() mutable {
    self->ThreadProc();
    self.reset();  // a thread counted as ended leaves nothing of its daemon behind
    std::lock_guard<std::mutex> threads(threadsMutex);
    --runningThreads;
    threadsEnded.notify_all();
  });
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
  Detail::AttachMonitor(monitor);
}

bool Daemon::Include(const std::shared_ptr<Server>& server) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (ended_) return false;
  servers_.push_back(server);
  WakeUp();
  return true;
}

bool Daemon::Include(const ConnectionPointer& connection) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (ended_ || clientSocketCount_ >= static_cast<int>(MaxClientsPerDaemon)) return false;
  int socket;
  bool closedMeanwhile;
  {
    std::lock_guard<std::recursive_mutex> connectionLock(connection->mutex);
    connection->daemon = shared_from_this();
    socket = connection->socket;
    closedMeanwhile = connection->closing && !connection->closed;
  }
  clients_[static_cast<std::size_t>(clientSocketCount_)] = connection;
  ++clientSocketCount_;
  // The host may have closed it before it had a daemon to do that (in ClientConnected, say).
  if (closedMeanwhile) {
    deferred_.push_back(
        Deferred{connection, SocketExceptions::None, StringBuffer(u"closed by the host")});
  }
  Detail::CountEvent(Counters::OpenConnections, 1);
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Include")
      << " client socket: " << socket << " clientSocketCount: " << clientSocketCount_;
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

void Daemon::Exclude(const Detail::Connection* connection) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto used = clients_.begin() + clientSocketCount_;
  auto found = std::find_if(clients_.begin(), used, [connection](const ConnectionPointer& entry) {
    return entry.get() == connection;
  });
  if (found == used) return;
  // The used slots stay packed, in order of inclusion.
  int position = static_cast<int>(found - clients_.begin());
  std::move(found + 1, used, found);
  --clientSocketCount_;
  clients_[static_cast<std::size_t>(clientSocketCount_)].reset();
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Exclude")
      << " closesock: threadPos = " << position << ", n = " << clientSocketCount_;
}

void Daemon::WakeUp() {
  // The worker itself rebuilds its poll set before it waits again.
  if (std::this_thread::get_id() != worker_ && !wakePending_.exchange(true)) wakeUp_->Signal();
}

void Daemon::ScheduleCloseClient(const ConnectionPointer& connection,
                                 SocketExceptions::Enumeration reason, const StringBuffer& detail) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  deferred_.push_back(Deferred{connection, reason, detail});
  WakeUp();
}

void Daemon::Abort() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Daemon::Abort") << " id_: " << id_;
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (int position = 0; position < clientSocketCount_; ++position) {
    const ConnectionPointer& connection = clients_[static_cast<std::size_t>(position)];
    {
      std::lock_guard<std::recursive_mutex> connectionLock(connection->mutex);
      connection->closing = true;
    }
    deferred_.push_back(Deferred{connection, SocketExceptions::None, StringBuffer(u"aborted")});
  }
  WakeUp();
}

bool Daemon::BlockUntil(const std::function<int()>& check, double seconds,
                        std::recursive_mutex& mutex, std::condition_variable_any& condition) {
  auto deadline =
      std::chrono::steady_clock::now() +
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
  bool pump = DaemonMarshaller::CurrentThreadHasEventLoop();
  Sys::TurnAway away;  // a worker waiting here lets the others, maybe the one awaited, go on
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

}  // namespace Veskan
