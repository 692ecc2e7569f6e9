// Message, one request/reply exchange shared between the thread that drives it and the host code
// that waits for it or listens to it, and ReadyStateDelivery, the seam through which a marshaller
// delivers its ready-state changes on another thread.
#ifndef VESKAN_MESSAGE_H
#define VESKAN_MESSAGE_H

#include <veskan/Body.h>
#include <veskan/EngineSignal.h>
#include <veskan/Export.h>
#include <veskan/StringBuffer.h>
#include <veskan/Url.h>
#include <veskan/Vocabulary.h>

#include <boost/container/small_vector.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace Veskan {

class ReadyStateDelivery;

// One exchange: method, URL, request and reply bodies, status code and a ready state that moves
// Uninitialized -> Open -> Sent -> Receiving -> Loaded, or back to Uninitialized on failure.
//
// Every ready-state change goes through UnlockAndNotifyReadyStateChanged, which delivers each
// announced state to ReadyStateChanged exactly once, in the order announced, one delivery of a
// message at a time, without the message's lock held, after waking the threads in BlockUntil.
// ReadyState is the state being delivered, not the newest one announced.
//
// Thread safety: every operation may be called from any thread and takes the message's recursive
// mutex. The reference members are read and written under Lock(). ReadyStateChanged is emitted on
// the thread that announced the state which found no delivery running (the thread that called
// Open, Reopen or Drop, or an engine thread), or, when that thread passed a marshaller, on the
// marshaller's thread. ConnectionEvent is emitted by the connection layer on its worker thread.
class VESKAN_API Message : public std::enable_shared_from_this<Message> {
 public:
  using Signal = EngineSignal<const std::shared_ptr<Message>&>;

  // A new message: Uninitialized, no URL, no bodies, status code 0. Messages live in shared
  // pointers only, so that deliveries can hand themselves on.
  static std::shared_ptr<Message> New();

  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  virtual ~Message();

  // Sets the method and a new Url from `url`, new empty request and reply bodies, clears
  // ResendRequested and announces Open. The caller does not hold the lock.
  void Open(Methods::Enumeration method, const char16_t* url);
  // With a URL and a state other than Open: new empty bodies, ResendRequested cleared, Open
  // announced. Otherwise nothing.
  void Reopen();
  // Sets ResendRequested and replaces the reply by a new empty body; the request stays.
  void Resend();
  // In state Open only: clears ResendRequested and announces Uninitialized.
  void Drop();

  // Loaded or Uninitialized: the exchange is over.
  bool Ready() const;
  // Uninitialized, or Loaded with a status code outside 2xx.
  bool Failure() const;
  // Loaded with a 2xx status code and: a null `mediaType`; or, for the very pointer
  // Content::Types::TextXml, a reply holding an XML document; or else a reply with content whose
  // "Content-Type" equals `mediaType` exactly. The last test creates an empty "Content-Type"
  // header in the reply when it has none.
  bool Success(const char16_t* mediaType = nullptr) const;

  // Blocks until ReadyState is `state`, or is Uninitialized while `state` is not, or `seconds`
  // (a monotonic clock) have passed, and returns ReadyState at that moment. Checks at once before
  // waiting. The caller does not hold the lock. A listener that waits here cannot see a state
  // announced after the one it is being given (that one is delivered after it returns).
  ReadyStates::Enumeration BlockUntil(ReadyStates::Enumeration state, double seconds);

  // The only way to change a message's ready state. `lock` holds `message`'s mutex (once, not
  // recursively) and is released here. Queues `state`; when no delivery of the message is
  // running, delivers the queued states one after the other on this thread: wakes the waiters,
  // then fires ReadyStateChanged directly (null `marshaller`) or through the marshaller. A state
  // announced meanwhile, from a listener or another thread, is delivered in turn by this loop.
  // A listener's exception is logged (Error) and the delivery goes on with the next state.
  static void UnlockAndNotifyReadyStateChanged(ReadyStateDelivery* marshaller,
                                               const std::shared_ptr<Message>& message,
                                               ReadyStates::Enumeration state,
                                               std::unique_lock<std::recursive_mutex>& lock);

  // The message's lock, taken.
  std::unique_lock<std::recursive_mutex> Lock() const {
    return std::unique_lock<std::recursive_mutex>(mutex_);
  }
  std::recursive_mutex& Mutex() const { return mutex_; }

 private:
  // The two signals; declared here because the signal references below are bound to them.
  struct Signals;
  std::unique_ptr<Signals> signals_;

 public:
  const Methods::Enumeration& Method;
  const std::shared_ptr<Veskan::Url>& Url;
  std::shared_ptr<Body>& Request;
  int& StatusCode;
  // The URL text given to Open without one trailing "/", and its last segment behind the last
  // "/"; used by the connection layer.
  StringBuffer& Location;
  StringBuffer& Resource;
  std::shared_ptr<Body>& Reply;
  const ReadyStates::Enumeration& ReadyState;
  const bool& ResendRequested;
  // Fired once per announced state with the message.
  Signal& ReadyStateChanged;
  // Fired by the connection layer for its own events.
  Signal& ConnectionEvent;

 private:
  Message();
  // What the last owner of a message made by New() calls: the message is renewed and kept for
  // a later New().
  static void Recycle(Message* message);
  // Back to the state of a new message, every slot disconnected; nobody holds the message.
  void Renew();

  static void Deliver(ReadyStateDelivery* marshaller, const std::shared_ptr<Message>& message);
  // New empty bodies, ResendRequested cleared, Open announced; `lock` is held.
  void Restart(std::unique_lock<std::recursive_mutex>& lock);

  Methods::Enumeration method_ = Methods::GET;
  std::shared_ptr<Veskan::Url> url_;
  std::shared_ptr<Body> request_;
  int statusCode_ = 0;
  StringBuffer location_;
  StringBuffer resource_;
  std::shared_ptr<Body> reply_;
  ReadyStates::Enumeration readyState_ = ReadyStates::Uninitialized;
  // Front: the state being delivered. Rarely more than one, so kept in the message itself.
  boost::container::small_vector<ReadyStates::Enumeration, 2> pending_;
  mutable std::recursive_mutex mutex_;
  // Made by the first BlockUntil, under the lock: most messages are never waited for, and the
  // condition variable allocates a mutex of its own. Kept until the message goes.
  std::unique_ptr<std::condition_variable_any> wakeUp_;
  int waiters_ = 0;  // threads in BlockUntil: without any, a state change wakes nobody
  bool resendRequested_ = false;
};

// How a marshaller delivers a message's ready-state change on its own thread.
//
// Thread safety: Deliver is called on the announcing thread, never with the message's lock held,
// and for one message never twice at a time.
class VESKAN_API ReadyStateDelivery {
 public:
  virtual ~ReadyStateDelivery();
  // Called once per announced state: fires `signal` with `message` on the marshaller's thread and
  // returns when the listeners have run (or when the marshaller has given the delivery up).
  virtual void Deliver(Message::Signal& signal, const std::shared_ptr<Message>& message) = 0;
};

}  // namespace Veskan

#endif
