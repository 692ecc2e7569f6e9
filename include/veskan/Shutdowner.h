// Shutdowner: any process of any user asks every running program of the system to close, and
// each program learns of it by asking or through a callback.
#ifndef VESKAN_SHUTDOWNER_H
#define VESKAN_SHUTDOWNER_H

#include <veskan/Export.h>

#include <boost/signals2/signal.hpp>

#include <atomic>
#include <memory>
#include <thread>

namespace Veskan {

class IPC;

// The request is the manual-reset event "Veskan.Shutdowner", which every user's processes may
// open and set. Once set it stays set for as long as some process has it open; when the last
// one closes, or dies, the request goes with it, so a request left by a crashed or rebooted
// system does not stop the next start.
//
// Thread safety: the callbacks run on the watcher thread, never on the host's; a host that must
// act on its own thread marshals the call itself.
class VESKAN_API Shutdowner : public std::enable_shared_from_this<Shutdowner> {
 public:
  static constexpr const char16_t* EventName = u"Veskan.Shutdowner";

  static std::shared_ptr<Shutdowner> Create();
  // Stops the watcher (when the last reference goes on the watcher thread itself, it ends there).
  ~Shutdowner();
  Shutdowner(const Shutdowner&) = delete;
  Shutdowner& operator=(const Shutdowner&) = delete;

  // Starts the watcher thread; true once it runs (false when there is no event, or it runs).
  bool Start();
  // Ends the watcher without calling the callbacks; waits for it unless called on it.
  void Stop();
  // Whether a shutdown was requested; false when there is no event.
  bool HasRequestedShutdown() const;
  // Sets the request for every process (this one included).
  bool RequestShutdown();
  // Sets the request through the event alone, for a process that only asks.
  static bool Request();

  // Called on the watcher thread when a shutdown is requested.
  boost::signals2::signal<void()> ShutdownRequested;

 private:
  Shutdowner();
  void Watch(std::shared_ptr<Shutdowner> self);

  std::unique_ptr<IPC> event_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> running_{false};
  std::thread watcher_;
};

}  // namespace Veskan

#endif
