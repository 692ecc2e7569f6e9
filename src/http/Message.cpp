// Message: the request/reply exchange object and the delivery of its ready-state changes.
#include <veskan/Message.h>

#include <veskan/Logger.h>

#include "http/ObjectPool.h"
#include "http/Pooled.h"
#include "sys/Turns.h"

#include <chrono>
#include <exception>

namespace Veskan {

namespace {

// The longest wait BlockUntil honours (about 115 days), so that the deadline cannot overflow.
constexpr double LongestWait = 1e7;

bool IsSuccessCode(int statusCode) {
  return statusCode / 100 == 2;
}

}  // namespace

ReadyStateDelivery::~ReadyStateDelivery() = default;

struct Message::Signals {
  Signal readyStateChanged;
  Signal connectionEvent;
  void Forget() {
    readyStateChanged.Forget();
    connectionEvent.Forget();
  }
};

Message::Message()
    : signals_(std::make_unique<Signals>()),
      Method(method_),
      Url(url_),
      Request(request_),
      StatusCode(statusCode_),
      Location(location_),
      Resource(resource_),
      Reply(reply_),
      ReadyState(readyState_),
      ResendRequested(resendRequested_),
      ReadyStateChanged(signals_->readyStateChanged),
      ConnectionEvent(signals_->connectionEvent) {}

Message::~Message() = default;

// A server makes and drops a message, its URL and two bodies per request: they are renewed
// rather than built again.
std::shared_ptr<Message> Message::New() {
  return Detail::ObjectPool<Message>::TakeShared([] { return new Message(); }, &Message::Recycle);
}

void Message::Recycle(Message* message) {
  message->Renew();
  Detail::ObjectPool<Message>::Give(message);
}

void Message::Renew() {
  signals_->Forget();
  method_ = Methods::GET;
  url_.reset();
  request_.reset();
  reply_.reset();
  statusCode_ = 0;
  location_.remove();
  location_.KeepTerminated();
  resource_.remove();
  resource_.KeepTerminated();
  readyState_ = ReadyStates::Uninitialized;
  pending_.clear();
  waiters_ = 0;
  resendRequested_ = false;
}

void Message::Restart(std::unique_lock<std::recursive_mutex>& lock) {
  request_ = Detail::NewBody();
  reply_ = Detail::NewBody();
  resendRequested_ = false;
  UnlockAndNotifyReadyStateChanged(nullptr, shared_from_this(), ReadyStates::Open, lock);
}

void Message::Open(Methods::Enumeration method, const char16_t* url) {
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  method_ = method;
  url_ = Veskan::Url::New(url);
  // Both texts are cut from the new URL's copy of `url`, which may point into one of them.
  const StringBuffer& text = url_->Text;
  int32_t length = text.length();
  if (length > 0 && text[length - 1] == u'/') --length;
  int32_t slash = length;
  while (slash > 0 && text[slash - 1] != u'/')
    --slash;
  location_.setTo(text, 0, length);
  location_.KeepTerminated();
  resource_.setTo(text, slash, length - slash);
  resource_.KeepTerminated();
  Restart(lock);
}

void Message::Reopen() {
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (!url_ || readyState_ == ReadyStates::Open) return;
  Restart(lock);
}

void Message::Resend() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  resendRequested_ = true;
  reply_ = Detail::NewBody();
}

void Message::Drop() {
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (readyState_ != ReadyStates::Open) return;
  resendRequested_ = false;
  UnlockAndNotifyReadyStateChanged(nullptr, shared_from_this(), ReadyStates::Uninitialized, lock);
}

bool Message::Ready() const {
  Logger::Line(Logger::Severity::Trace, "Veskan::Message::Ready");
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return readyState_ == ReadyStates::Loaded || readyState_ == ReadyStates::Uninitialized;
}

bool Message::Failure() const {
  Logger::Line(Logger::Severity::Trace, "Veskan::Message::Failure");
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return readyState_ == ReadyStates::Uninitialized ||
         (readyState_ == ReadyStates::Loaded && !IsSuccessCode(statusCode_));
}

bool Message::Success(const char16_t* mediaType) const {
  Logger::Line(Logger::Severity::Trace, "Veskan::Message::Success");
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (readyState_ != ReadyStates::Loaded || !IsSuccessCode(statusCode_)) return false;
  if (mediaType == nullptr) return true;
  if (!reply_) return false;
  if (mediaType == Content::Types::TextXml) return reply_->IsXml();
  return reply_->Headers[Header::ContentType] == mediaType && reply_->Content != nullptr;
}

ReadyStates::Enumeration Message::BlockUntil(ReadyStates::Enumeration state, double seconds) {
  // A worker waiting here lets the others, maybe the one awaited, go on; it takes its turn back
  // once the message's lock is released again.
  Sys::TurnAway away;
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  const auto over = [this, state] {
    return readyState_ == state ||
           (readyState_ == ReadyStates::Uninitialized && state != ReadyStates::Uninitialized);
  };
  if (!(seconds > 0)) seconds = 0;
  if (seconds > LongestWait) seconds = LongestWait;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(seconds));
  if (!wakeUp_) wakeUp_ = std::make_unique<std::condition_variable_any>();
  ++waiters_;
  wakeUp_->wait_until(lock, deadline, over);
  --waiters_;
  return readyState_;
}

void Message::Deliver(ReadyStateDelivery* marshaller, const std::shared_ptr<Message>& message) {
  try {
    if (marshaller != nullptr) {
      marshaller->Deliver(message->signals_->readyStateChanged, message);
    } else {
      message->signals_->readyStateChanged(message);
    }
  } catch (const std::exception& error) {
    Logger::Line(Logger::Severity::Error, "Veskan::Message::UnlockAndNotifyReadyStateChanged")
        << " exception: " << error.what();
  } catch (...) {
    Logger::Line(Logger::Severity::Error, "Veskan::Message::UnlockAndNotifyReadyStateChanged")
        << " exception: unknown";
  }
}

void Message::UnlockAndNotifyReadyStateChanged(ReadyStateDelivery* marshaller,
                                               const std::shared_ptr<Message>& message,
                                               ReadyStates::Enumeration state,
                                               std::unique_lock<std::recursive_mutex>& lock) {
  Message& self = *message;
  const bool delivering = !self.pending_.empty();
  if (!delivering && !self.signals_->readyStateChanged.Heard()) {
    // Nobody listens (a server's requests, mostly): only the waiters are told.
    self.readyState_ = state;
    const bool waited = self.waiters_ > 0;
    lock.unlock();
    if (waited) self.wakeUp_->notify_all();
    return;
  }
  self.pending_.push_back(state);
  if (!delivering) self.readyState_ = state;
  // Read with the state set under the lock: a thread that begins to wait later sees the state.
  bool waited = self.waiters_ > 0;
  lock.unlock();
  if (delivering) return;  // the running delivery loop delivers this state in turn

  for (;;) {
    if (waited) self.wakeUp_->notify_all();  // made before the waiter counted itself
    Deliver(marshaller, message);
    lock.lock();
    self.pending_.erase(self.pending_.begin());
    if (self.pending_.empty()) {
      lock.unlock();
      return;
    }
    self.readyState_ = self.pending_.front();
    waited = self.waiters_ > 0;
    lock.unlock();
  }
}

}  // namespace Veskan
