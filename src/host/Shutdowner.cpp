// Shutdowner: the shared shutdown request and its watcher thread.
#include <veskan/IPC.h>
#include <veskan/Shutdowner.h>

namespace Veskan {

std::shared_ptr<Shutdowner> Shutdowner::Create() {
  return std::shared_ptr<Shutdowner>(new Shutdowner);
}

Shutdowner::Shutdowner() : event_(new IPC(StringBuffer(EventName), IPC::AllUsersManualReset{})) {}

Shutdowner::~Shutdowner() {
  Stop();
}

bool Shutdowner::Start() {
  if (!event_->IsValid() || watcher_.joinable()) return false;
  stop_.store(false);
  // The thread holds the object until it ends, so the owner may let go of it meanwhile.
  watcher_ = std::thread(&Shutdowner::Watch, this, shared_from_this());
  while (!running_.load())
    std::this_thread::yield();
  return true;
}

void Shutdowner::Watch(std::shared_ptr<Shutdowner> self) {
  running_.store(true);
  if (event_->WaitOrStop(stop_) && !stop_.load()) ShutdownRequested();
  // The last reference may be this one: the object then ends here, on its own thread.
  if (self.use_count() == 1) watcher_.detach();
}

void Shutdowner::Stop() {
  stop_.store(true);
  event_->WakeWaiters();
  if (!watcher_.joinable()) return;
  if (watcher_.get_id() == std::this_thread::get_id())
    watcher_.detach();
  else
    watcher_.join();
  running_.store(false);
}

bool Shutdowner::HasRequestedShutdown() const {
  return event_->IsSet();
}

bool Shutdowner::RequestShutdown() {
  if (!event_->IsValid()) return false;
  event_->Signal();
  return true;
}

bool Shutdowner::Request() {
  return Create()->RequestShutdown();
}

}  // namespace Veskan
