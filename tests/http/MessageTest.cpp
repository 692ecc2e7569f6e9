// Message: opening, reopening, dropping, the reply tests, waiting, and the delivery of ready
// states from several threads, from listeners and through a marshaller.
#include <veskan/Logger.h>
#include <veskan/Message.h>
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

using State = ReadyStates::Enumeration;

void Announce(const std::shared_ptr<Message>& message, State state,
              ReadyStateDelivery* marshaller = nullptr) {
  std::unique_lock<std::recursive_mutex> lock = message->Lock();
  Message::UnlockAndNotifyReadyStateChanged(marshaller, message, state, lock);
}

State CurrentState(const std::shared_ptr<Message>& message) {
  const auto lock = message->Lock();
  return message->ReadyState;
}

// A flag one thread sets and another waits for.
class Flag {
 public:
  void Set() {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = true;
    changed_.notify_all();
  }
  // True when set; gives up after a minute so that a defect fails instead of hanging.
  bool Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(1), [this] { return set_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool set_ = false;
};

// ---- Operations
// -----------------------------------------------------------------------------------

// Messages, URLs and bodies are renewed after use: a used and dropped one must come back as new,
// with no slot, header, cookie, content or media type of its earlier life.
TEST(MessageOperations, NewMessageEvenAfterEarlierOnesWereUsed) {
  std::weak_ptr<Message> earlier;
  int calls[3] = {0, 0, 0};
  for (int round = 0; round < 3; ++round) {
    const auto message = Message::New();
    EXPECT_TRUE(earlier.expired());
    EXPECT_EQ(message->ReadyState, ReadyStates::Uninitialized);
    EXPECT_EQ(message->Url, nullptr);
    EXPECT_EQ(message->Request, nullptr);
    EXPECT_EQ(message->Reply, nullptr);
    EXPECT_EQ(message->StatusCode, 0);
    EXPECT_TRUE(message->Location.isEmpty());
    EXPECT_FALSE(message->ResendRequested);
    EXPECT_TRUE(message->Ready());
    EXPECT_TRUE(message->Failure());

    message->ReadyStateChanged.connect(
        [&calls, round](const std::shared_ptr<Message>&) { ++calls[round]; });
    message->Open(Methods::POST, u"/a/b?x=1");
    for (int before = 0; before <= round; ++before)
      EXPECT_EQ(calls[before], 1);  // an earlier round's slot is not called again
    EXPECT_EQ(message->Url->Path, u"/a/b");
    EXPECT_EQ(message->Url->Query.Count(), 1);
    EXPECT_FALSE(message->Url->HasHost);
    for (const std::shared_ptr<Body>& body : {message->Request, message->Reply}) {
      EXPECT_EQ(body->Headers.Count(), 0);
      EXPECT_EQ(body->Content, nullptr);
      EXPECT_EQ(body->Cookies.Count(), 0);
      EXPECT_EQ(body->MediaType.Text, u"application/octet-stream");
      EXPECT_EQ(body->MediaType.Minor, u"octet-stream");
      EXPECT_EQ(body->MediaType.IsXml, 0);
      body->Headers[Header::ContentType] = u"text/xml; charset=utf-8";
      body->MediaType.SetTo(u"text/xml; charset=utf-8");
      body->Content = std::make_shared<Content>(u"<a/>");
      body->Cookies[u"id"]->Value = u"1";
    }
    message->StatusCode = 201;
    message->Resend();
    earlier = message;
  }
  // A URL renewed after a full one keeps nothing of it.
  { const auto full = Url::New(u"http://host:81/p?q=1#f"); }
  const auto url = Url::New(u"/x");
  EXPECT_EQ(url->Text, u"/x");
  EXPECT_FALSE(url->HasHost);
  EXPECT_FALSE(url->HasPort);
  EXPECT_FALSE(url->IsAbsolute);
  EXPECT_EQ(url->Port, 0);
  EXPECT_EQ(url->Query.Count(), 0);
  EXPECT_TRUE(url->Host.isEmpty());
}

TEST(MessageOperations, OpenSetsEverythingAndAnnounces) {
  const auto message = Message::New();
  std::vector<State> delivered;
  message->ReadyStateChanged.connect(
      [&delivered](const std::shared_ptr<Message>& m) { delivered.push_back(m->ReadyState); });
  message->Resend();
  message->Open(Methods::POST, u"http://host:8080/quiz/answers/");
  EXPECT_EQ(delivered, std::vector<State>{ReadyStates::Open});
  EXPECT_EQ(message->Method, Methods::POST);
  ASSERT_NE(message->Url, nullptr);
  EXPECT_EQ(message->Url->Text, u"http://host:8080/quiz/answers/");
  EXPECT_EQ(message->Location, u"http://host:8080/quiz/answers");
  EXPECT_EQ(message->Resource, u"answers");
  ASSERT_NE(message->Request, nullptr);
  ASSERT_NE(message->Reply, nullptr);
  EXPECT_NE(message->Request, message->Reply);
  EXPECT_FALSE(message->ResendRequested);
  EXPECT_FALSE(message->Ready());
  EXPECT_FALSE(message->Failure());

  message->Open(Methods::GET, u"plain");
  EXPECT_EQ(message->Resource, u"plain");
  EXPECT_EQ(delivered.size(), 2u);
}

TEST(MessageOperations, ResendKeepsTheRequestAndReopenOnlyRestartsAFinishedMessageWithUrl) {
  const auto message = Message::New();
  int deliveries = 0;
  message->ReadyStateChanged.connect(
      [&deliveries](const std::shared_ptr<Message>&) { ++deliveries; });
  message->Reopen();  // no URL
  EXPECT_EQ(deliveries, 0);
  message->Open(Methods::GET, u"http://h/a");
  const auto request = message->Request;
  message->Reopen();  // already Open
  EXPECT_EQ(deliveries, 1);
  EXPECT_EQ(message->Request, request);
  Announce(message, ReadyStates::Sent);
  Announce(message, ReadyStates::Loaded);
  const auto reply = message->Reply;
  message->Resend();
  EXPECT_TRUE(message->ResendRequested);
  EXPECT_EQ(message->Request, request);
  EXPECT_NE(message->Reply, reply);
  EXPECT_NE(message->Reply, nullptr);
  message->Reopen();
  EXPECT_EQ(deliveries, 4);
  EXPECT_EQ(message->ReadyState, ReadyStates::Open);
  EXPECT_NE(message->Request, request);
  EXPECT_FALSE(message->ResendRequested);
}

TEST(MessageOperations, DropOnlyWhenOpen) {
  const auto message = Message::New();
  std::vector<State> delivered;
  message->ReadyStateChanged.connect(
      [&delivered](const std::shared_ptr<Message>& m) { delivered.push_back(m->ReadyState); });
  message->Drop();
  EXPECT_TRUE(delivered.empty());
  message->Open(Methods::GET, u"http://h/a");
  Announce(message, ReadyStates::Sent);
  message->Drop();
  EXPECT_EQ(message->ReadyState, ReadyStates::Sent);
  message->Open(Methods::GET, u"http://h/a");
  message->Resend();
  message->Drop();
  EXPECT_EQ(message->ReadyState, ReadyStates::Uninitialized);
  EXPECT_FALSE(message->ResendRequested);
  EXPECT_EQ(delivered, (std::vector<State>{ReadyStates::Open, ReadyStates::Sent, ReadyStates::Open,
                                           ReadyStates::Uninitialized}));
}

// ---- Reply tests
// ----------------------------------------------------------------------------------

std::shared_ptr<Message> Loaded(int statusCode) {
  const auto message = Message::New();
  message->Open(Methods::GET, u"http://h/a");
  auto lock = message->Lock();
  message->StatusCode = statusCode;
  Message::UnlockAndNotifyReadyStateChanged(nullptr, message, ReadyStates::Loaded, lock);
  return message;
}

TEST(MessageReply, StatusCodes) {
  struct Case {
    int status;
    bool success;
    bool failure;
  };
  const Case cases[] = {{200, true, false}, {204, true, false}, {299, true, false},
                        {404, false, true}, {199, false, true}, {300, false, true},
                        {0, false, true},   {-200, false, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    const auto message = Loaded(c.status);
    EXPECT_TRUE(message->Ready());
    EXPECT_EQ(message->Success(nullptr), c.success);
    EXPECT_EQ(message->Failure(), c.failure);
  }
  const auto sent = Message::New();
  sent->Open(Methods::GET, u"http://h/");
  Announce(sent, ReadyStates::Sent);
  EXPECT_FALSE(sent->Success(nullptr));
  EXPECT_FALSE(sent->Failure());
  EXPECT_FALSE(sent->Ready());
}

TEST(MessageReply, SuccessByMediaType) {
  const auto message = Loaded(200);
  Body& reply = *message->Reply;
  reply.Headers[Header::ContentType] = u"text/xml; charset=utf-8";
  reply.Content = std::make_shared<Content>(u"<a/>");
  const char16_t copyOfTextXml[] = u"text/xml";

  EXPECT_FALSE(message->Success(Content::Types::TextXml));  // not parsed yet
  reply.Content->Sealed(u"text/xml");
  EXPECT_TRUE(message->Success(Content::Types::TextXml));  // the constant: the document decides
  EXPECT_FALSE(message->Success(copyOfTextXml));           // a copy: the header decides
  EXPECT_TRUE(message->Success(u"text/xml; charset=utf-8"));
  EXPECT_FALSE(message->Success(u"TEXT/XML; charset=utf-8"));

  reply.Content = nullptr;
  EXPECT_FALSE(message->Success(u"text/xml; charset=utf-8"));

  // Asking for a type of a reply without the header leaves an empty header behind.
  const auto bare = Loaded(200);
  bare->Reply->Content = std::make_shared<Content>(u"x");
  EXPECT_FALSE(bare->Success(u"text/plain"));
  EXPECT_EQ(bare->Reply->Headers.Count(), 1);
  EXPECT_EQ(bare->Reply->Headers(0).Name, u"Content-Type");
  EXPECT_TRUE(bare->Reply->Headers(0).Value.isEmpty());
}

TEST(MessageReply, TestsWriteTraceLines) {
  std::vector<std::string> lines;
  const auto threshold = Logger::Threshold();
  Logger::SetThreshold(Logger::Severity::Trace);
  auto previous =
      Logger::SetSink([&lines](Logger::Severity::Enumeration severity, const char* text, int) {
        if (severity == Logger::Severity::Trace) lines.emplace_back(text);
      });
  const auto message = Message::New();
  message->Ready();
  message->Failure();
  message->Success(nullptr);
  Logger::SetSink(previous);
  Logger::SetThreshold(threshold);
  EXPECT_EQ(lines, (std::vector<std::string>{"Veskan::Message::Ready", "Veskan::Message::Failure",
                                             "Veskan::Message::Success"}));
}

// ---- Waiting
// ----------------------------------------------------------------------------------------

TEST(MessageWaiting, FailureEndsWaitForLoaded) {
  const auto message = Message::New();
  message->Open(Methods::GET, u"http://h/a");
  Flag waiting;
  State result = ReadyStates::Open;
  std::thread waiter([&] {
    waiting.Set();
    result = message->BlockUntil(ReadyStates::Loaded, 3600.0);
  });
  ASSERT_TRUE(waiting.Wait());
  Announce(message, ReadyStates::Sent);
  Announce(message, ReadyStates::Uninitialized);
  waiter.join();
  EXPECT_EQ(result, ReadyStates::Uninitialized);
}

TEST(MessageWaiting, ReachedStateEndsWait) {
  const auto message = Message::New();
  message->Open(Methods::GET, u"http://h/a");
  State result = ReadyStates::Open;
  std::thread waiter([&] { result = message->BlockUntil(ReadyStates::Receiving, 3600.0); });
  Announce(message, ReadyStates::Sent);
  Announce(message, ReadyStates::Receiving);
  waiter.join();
  EXPECT_EQ(result, ReadyStates::Receiving);
}

TEST(MessageWaiting, TimeOutGivesCurrentState) {
  const auto message = Message::New();
  message->Open(Methods::GET, u"http://h/a");
  Announce(message, ReadyStates::Sent);
  EXPECT_EQ(message->BlockUntil(ReadyStates::Loaded, 0.02), ReadyStates::Sent);
  EXPECT_EQ(message->BlockUntil(ReadyStates::Loaded, 0.0), ReadyStates::Sent);
  EXPECT_EQ(message->BlockUntil(ReadyStates::Loaded, -1.0), ReadyStates::Sent);
  EXPECT_EQ(message->BlockUntil(ReadyStates::Loaded, std::nan("")), ReadyStates::Sent);
  EXPECT_EQ(message->BlockUntil(ReadyStates::Sent, 1e300), ReadyStates::Sent);
  EXPECT_EQ(Message::New()->BlockUntil(ReadyStates::Loaded, 1e300), ReadyStates::Uninitialized);
}

TEST(MessageWaiting, WaitersWakeBeforeListenersRun) {
  const auto message = Message::New();
  message->Open(Methods::GET, u"http://h/a");
  Flag waiting;
  Flag woken;
  bool wokenBeforeListenerReturned = false;
  message->ReadyStateChanged.connect([&](const std::shared_ptr<Message>& m) {
    if (m->ReadyState == ReadyStates::Loaded) wokenBeforeListenerReturned = woken.Wait();
  });
  std::thread waiter([&] {
    waiting.Set();
    message->BlockUntil(ReadyStates::Loaded, 3600.0);
    woken.Set();
  });
  ASSERT_TRUE(waiting.Wait());
  Announce(message, ReadyStates::Loaded);
  waiter.join();
  EXPECT_TRUE(wokenBeforeListenerReturned);
}

// ---- Delivery
// ---------------------------------------------------------------------------------------

TEST(MessageDelivery, StateAnnouncedByListenerFollowsItsReturn) {
  const auto message = Message::New();
  std::vector<std::string> events;
  message->ReadyStateChanged.connect([&events](const std::shared_ptr<Message>& m) {
    const State state = CurrentState(m);
    events.push_back("begin " + StringBuffer(ReadyStates::ToString(state)).ToUTF8());
    if (state == ReadyStates::Open) {
      Announce(m, ReadyStates::Sent);
      events.push_back("announced, state " +
                       StringBuffer(ReadyStates::ToString(CurrentState(m))).ToUTF8());
      Announce(m, ReadyStates::Receiving);
    }
    events.push_back("end");
  });
  message->Open(Methods::GET, u"http://h/a");
  EXPECT_EQ(events, (std::vector<std::string>{"begin Open", "announced, state Open", "end",
                                              "begin Sent", "end", "begin Receiving", "end"}));
  EXPECT_EQ(CurrentState(message), ReadyStates::Receiving);
}

// Announcements skip the delivery machinery while nobody has listened: a listener connected late,
// or one that has gone, must not change what the others see.
TEST(MessageDelivery, ListenersConnectedLateOrGoneEarly) {
  const auto message = Message::New();
  EXPECT_FALSE(message->ReadyStateChanged.Heard());
  EXPECT_TRUE(message->ReadyStateChanged.empty());
  message->Open(Methods::GET, u"http://h/a");

  std::vector<State> seen;
  boost::signals2::connection connection = message->ReadyStateChanged.connect(
      [&seen](const std::shared_ptr<Message>& m) { seen.push_back(m->ReadyState); });
  EXPECT_TRUE(message->ReadyStateChanged.Heard());
  EXPECT_FALSE(message->ReadyStateChanged.empty());
  Announce(message, ReadyStates::Sent);
  connection.disconnect();
  EXPECT_TRUE(message->ReadyStateChanged.Heard());  // heard once, asked the slow way from now
  EXPECT_TRUE(message->ReadyStateChanged.empty());
  Announce(message, ReadyStates::Loaded);
  EXPECT_EQ(seen, std::vector<State>{ReadyStates::Sent});
  EXPECT_EQ(CurrentState(message), ReadyStates::Loaded);

  message->ReadyStateChanged.Forget();
  EXPECT_FALSE(message->ReadyStateChanged.Heard());
  message->ReadyStateChanged.connect(
      0, [&seen](const std::shared_ptr<Message>& m) { seen.push_back(m->ReadyState); });
  Announce(message, ReadyStates::Uninitialized);
  EXPECT_EQ(seen, (std::vector<State>{ReadyStates::Sent, ReadyStates::Uninitialized}));
}

TEST(MessageDelivery, ListenersRunWithoutTheLock) {
  const auto message = Message::New();
  bool lockedElsewhere = false;
  message->ReadyStateChanged.connect([&](const std::shared_ptr<Message>& m) {
    std::thread other([&] {
      std::unique_lock<std::recursive_mutex> lock(m->Mutex(), std::try_to_lock);
      lockedElsewhere = lock.owns_lock();
    });
    other.join();
  });
  message->Open(Methods::GET, u"http://h/a");
  EXPECT_TRUE(lockedElsewhere);
}

TEST(MessageDelivery, ThrowingListenerIsLoggedAndDeliveryGoesOn) {
  const auto message = Message::New();
  std::vector<State> delivered;
  message->ReadyStateChanged.connect([&](const std::shared_ptr<Message>& m) {
    delivered.push_back(m->ReadyState);
    if (m->ReadyState == ReadyStates::Open) {
      Announce(m, ReadyStates::Sent);
      throw std::runtime_error("listener failed");
    }
  });
  std::vector<std::string> lines;
  auto previous = Logger::SetSink(
      [&lines](Logger::Severity::Enumeration, const char* text, int) { lines.emplace_back(text); });
  message->Open(Methods::GET, u"http://h/a");
  Logger::SetSink(previous);
  EXPECT_EQ(delivered, (std::vector<State>{ReadyStates::Open, ReadyStates::Sent}));
  EXPECT_EQ(lines,
            std::vector<std::string>{
                "Veskan::Message::UnlockAndNotifyReadyStateChanged exception: listener failed"});
  Announce(message, ReadyStates::Loaded);
  EXPECT_EQ(delivered.size(), 3u);
}

// Several threads announce the whole life of an exchange at once, and the listener announces a
// further state now and then. Every state is delivered once, one at a time, each thread's states
// in its order, and ReadyState is the state being delivered.
TEST(MessageDelivery, ConcurrentAnnouncements) {
  constexpr int Threads = 8;
  constexpr int Rounds = 300;
  const State life[] = {ReadyStates::Open, ReadyStates::Sent, ReadyStates::Receiving,
                        ReadyStates::Loaded};
  const auto message = Message::New();
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> mismatches{0};
  std::atomic<int> fromListener{0};
  std::vector<State> delivered;  // written by one delivery at a time
  message->ReadyStateChanged.connect([&](const std::shared_ptr<Message>& m) {
    if (inside.fetch_add(1) != 0) ++overlaps;
    const State state = CurrentState(m);
    delivered.push_back(state);
    if (state == ReadyStates::Loaded && delivered.size() % 7 == 0) {
      ++fromListener;
      Announce(m, ReadyStates::Uninitialized);
      if (CurrentState(m) != state) ++mismatches;
    }
    inside.fetch_sub(1);
  });

  std::mutex startMutex;
  std::condition_variable startSignal;
  bool go = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < Threads; ++t) {
    threads.emplace_back([&] {
      {
        std::unique_lock<std::mutex> lock(startMutex);
        startSignal.wait(lock, [&go] { return go; });
      }
      for (int round = 0; round < Rounds; ++round) {
        for (const State state : life)
          Announce(message, state);
      }
    });
  }
  {
    std::lock_guard<std::mutex> lock(startMutex);
    go = true;
  }
  startSignal.notify_all();
  for (std::thread& thread : threads)
    thread.join();

  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(mismatches.load(), 0);
  ASSERT_EQ(delivered.size(), static_cast<std::size_t>(Threads * Rounds * 4 + fromListener.load()));
  // Each thread's states come in its order: in every prefix there are at least as many Open as
  // Sent, Sent as Receiving, Receiving as Loaded.
  int counts[5] = {0, 0, 0, 0, 0};
  bool ordered = true;
  for (const State state : delivered) {
    ++counts[state];
    ordered = ordered && counts[1] >= counts[2] && counts[2] >= counts[3] && counts[3] >= counts[4];
  }
  EXPECT_TRUE(ordered);
  EXPECT_EQ(counts[ReadyStates::Uninitialized], fromListener.load());
  EXPECT_EQ(counts[ReadyStates::Loaded], Threads * Rounds);
  EXPECT_EQ(CurrentState(message), delivered.back());
  EXPECT_EQ(message->BlockUntil(delivered.back(), 0.0), delivered.back());
}

// A marshaller that runs every delivery on its own thread and waits for it, as the host's event
// queue does.
class ThreadMarshaller : public ReadyStateDelivery {
 public:
  ThreadMarshaller() : thread_([this] { Run(); }) {}
  ~ThreadMarshaller() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  std::thread::id Id() const { return thread_.get_id(); }

  void Deliver(Message::Signal& signal, const std::shared_ptr<Message>& message) override {
    std::unique_lock<std::mutex> lock(mutex_);
    job_ = [&signal, &message] { signal(message); };
    changed_.notify_all();
    changed_.wait(lock, [this] { return !job_; });
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return stop_ || job_; });
      if (stop_) return;
      lock.unlock();
      job_();
      lock.lock();
      job_ = nullptr;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> job_;
  bool stop_ = false;
  std::thread thread_;
};

TEST(MessageDelivery, MarshallerDeliversOnItsThread) {
  ThreadMarshaller marshaller;
  const auto message = Message::New();
  message->Open(Methods::GET, u"http://h/a");
  std::vector<State> delivered;
  bool onMarshallerThread = true;
  message->ReadyStateChanged.connect([&](const std::shared_ptr<Message>& m) {
    onMarshallerThread = onMarshallerThread && std::this_thread::get_id() == marshaller.Id();
    delivered.push_back(CurrentState(m));
    if (CurrentState(m) == ReadyStates::Sent) Announce(m, ReadyStates::Receiving, &marshaller);
  });
  std::thread engine([&] {
    Announce(message, ReadyStates::Sent, &marshaller);
    Announce(message, ReadyStates::Loaded, &marshaller);
  });
  engine.join();
  EXPECT_TRUE(onMarshallerThread);
  EXPECT_EQ(delivered,
            (std::vector<State>{ReadyStates::Sent, ReadyStates::Receiving, ReadyStates::Loaded}));
}

}  // namespace
}  // namespace Veskan
