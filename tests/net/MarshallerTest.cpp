// DaemonMarshaller: direct and window-mode hand-overs, the per-thread event loop, Join, failing
// slots and the release of waiting workers.
#include <veskan/Body.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Logger.h>
#include <veskan/Message.h>
#include <veskan/StringBuffer.h>

#include "net/EventQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// How long a test waits for something that must happen.
constexpr auto Patience = 10s;

// Runs the current thread's event loop until `done` holds; false when it did not in time.
bool PumpUntil(const std::function<bool()>& done) {
  const auto deadline = Clock::now() + Patience;
  while (!done()) {
    if (Clock::now() > deadline) return false;
    DaemonMarshaller::RunEventLoopOnce();
  }
  return true;
}

// The number of hand-overs queued for the current thread and not yet begun.
std::size_t PendingHandOvers() {
  const auto queue = Detail::EventQueue::OfCurrentThread();
  return queue ? queue->Pending() : 0;
}

// Waits, without running anything, until `count` hand-overs are queued for the current thread.
bool WaitForPending(std::size_t count) {
  const auto deadline = Clock::now() + Patience;
  while (PendingHandOvers() < count) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// A thread that runs `work` once and reports when it has returned. On destruction it keeps the
// current thread's event loop running until the thread ends, so that a failed expectation cannot
// leave it blocked in a hand-over.
class Worker {
 public:
  explicit Worker(std::function<void()> work)
      : thread_([this, work = std::move(work)] {
          work();
          finished_ = true;
        }) {}
  ~Worker() {
    while (!finished_)
      DaemonMarshaller::RunEventLoopOnce();
    thread_.join();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  bool Finished() const { return finished_; }
  std::thread::id Id() const { return thread_.get_id(); }

  // Waits for the thread to return, without running the event loop.
  bool WaitWithoutPumping() const {
    const auto deadline = Clock::now() + Patience;
    while (!finished_) {
      if (Clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

 private:
  std::atomic<bool> finished_{false};
  std::thread thread_;
};

// Clears the test thread's quit request however the test ends.
struct QuitGuard {
  QuitGuard() = default;
  QuitGuard(const QuitGuard&) = delete;
  QuitGuard& operator=(const QuitGuard&) = delete;
  ~QuitGuard() { DaemonMarshaller::ResetQuit(); }
};

// Captures the logger's lines of Warning and above for the life of the object.
class CapturedLog {
 public:
  CapturedLog() : previousThreshold_(Logger::Threshold()) {
    Logger::SetThreshold(Logger::Severity::Warning);
    previous_ =
        Logger::SetSink([this](Logger::Severity::Enumeration severity, const char* message, int) {
          std::lock_guard<std::mutex> lock(mutex_);
          lines_.push_back(std::to_string(static_cast<int>(severity)) + " " + message);
        });
  }
  ~CapturedLog() {
    Logger::SetSink(previous_);
    Logger::SetThreshold(previousThreshold_);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // Every line as "<severity number> <message>".
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  Logger::Sink previous_;
  Logger::Severity::Enumeration previousThreshold_;
};

void* PointerFor(std::intptr_t value) {
  return reinterpret_cast<void*>(value);
}

std::intptr_t ValueOf(void* pointer) {
  return reinterpret_cast<std::intptr_t>(pointer);
}

TEST(DaemonMarshallerTest, DirectModeRunsSlotsOnTheCallingThreadBeforeReturning) {
  DaemonMarshaller marshaller(true);
  EXPECT_TRUE(marshaller.IsDirect());
  EXPECT_FALSE(DaemonMarshaller::CurrentThreadHasEventLoop());

  DaemonMarshaller::ClientSignal signal;
  std::thread::id slotThread;
  signal.connect(
      [&slotThread](const std::shared_ptr<Client>&) { slotThread = std::this_thread::get_id(); });
  std::thread::id workerThread;
  bool ranBeforeReturn = false;
  std::thread worker([&] {
    workerThread = std::this_thread::get_id();
    marshaller.Marshal_Client(signal, nullptr);
    ranBeforeReturn = slotThread == workerThread;
  });
  worker.join();
  EXPECT_EQ(workerThread, slotThread);
  EXPECT_TRUE(ranBeforeReturn);
}

TEST(DaemonMarshallerTest, WindowModeRunsSlotsOnTheOwnerThreadWhileTheWorkerWaits) {
  DaemonMarshaller marshaller(false);
  EXPECT_FALSE(marshaller.IsDirect());
  const std::shared_ptr<Client> client;

  DaemonMarshaller::ClientSignal signal;
  std::atomic<bool> slotRan{false};
  std::atomic<bool> workerReturned{false};
  std::thread::id slotThread;
  bool sameArgument = false;
  bool workerWaitedForSlot = false;
  signal.connect([&](const std::shared_ptr<Client>& argument) {
    slotThread = std::this_thread::get_id();
    sameArgument = &argument == &client;
    workerWaitedForSlot = !workerReturned;
    slotRan = true;
  });

  bool slotRanBeforeReturn = false;
  {
    Worker worker([&] {
      marshaller.Marshal_Client(signal, client);
      slotRanBeforeReturn = slotRan;
      workerReturned = true;
    });
    ASSERT_TRUE(WaitForPending(1));
    EXPECT_FALSE(slotRan);
    EXPECT_FALSE(workerReturned);
    ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
  }
  EXPECT_EQ(std::this_thread::get_id(), slotThread);
  EXPECT_TRUE(sameArgument);
  EXPECT_TRUE(workerWaitedForSlot);
  EXPECT_TRUE(slotRanBeforeReturn);
  EXPECT_EQ(0u, PendingHandOvers());
}

TEST(DaemonMarshallerTest, HandOversOfEachWorkerKeepTheirOrder) {
  constexpr std::intptr_t Workers = 3;
  constexpr std::intptr_t HandOvers = 20;
  DaemonMarshaller marshaller(false);
  const std::thread::id owner = std::this_thread::get_id();
  DaemonMarshaller::VoidPointerSignal signal;
  std::vector<std::intptr_t> seen;
  bool allOnOwner = true;
  signal.connect([&](void* pointer) {
    allOnOwner = allOnOwner && std::this_thread::get_id() == owner;
    seen.push_back(ValueOf(pointer));
  });

  {
    std::vector<std::unique_ptr<Worker>> workers;
    for (std::intptr_t w = 0; w < Workers; ++w) {
      workers.push_back(std::make_unique<Worker>([&marshaller, &signal, w] {
        for (std::intptr_t i = 0; i < HandOvers; ++i) {
          marshaller.Marshal_VoidPointer(signal, PointerFor(w * 100 + i));
        }
      }));
    }
    ASSERT_TRUE(PumpUntil([&workers] {
      for (const auto& worker : workers) {
        if (!worker->Finished()) return false;
      }
      return true;
    }));
  }

  EXPECT_TRUE(allOnOwner);
  ASSERT_EQ(static_cast<std::size_t>(Workers * HandOvers), seen.size());
  for (std::intptr_t w = 0; w < Workers; ++w) {
    SCOPED_TRACE(w);
    std::vector<std::intptr_t> ofWorker;
    for (std::intptr_t value : seen) {
      if (value / 100 == w) ofWorker.push_back(value % 100);
    }
    std::vector<std::intptr_t> expected;
    for (std::intptr_t i = 0; i < HandOvers; ++i)
      expected.push_back(i);
    EXPECT_EQ(expected, ofWorker);
  }
}

TEST(DaemonMarshallerTest, HandOverOnTheOwnerThreadRunsBeforeReturning) {
  DaemonMarshaller marshaller(false);
  const std::shared_ptr<Client> client;
  DaemonMarshaller::ClientSignal signal;
  int calls = 0;
  std::thread::id slotThread;
  signal.connect([&](const std::shared_ptr<Client>& argument) {
    ++calls;
    slotThread = std::this_thread::get_id();
    EXPECT_EQ(&client, &argument);
  });
  marshaller.Marshal_Client(signal, client);
  EXPECT_EQ(1, calls);
  EXPECT_EQ(std::this_thread::get_id(), slotThread);
  EXPECT_EQ(0u, PendingHandOvers());
}

TEST(DaemonMarshallerTest, HandOversPostedDuringATurnRunInTheNextTurn) {
  DaemonMarshaller marshaller(false);
  DaemonMarshaller::VoidPointerSignal signal;
  std::vector<std::intptr_t> seen;
  std::unique_ptr<Worker> second;
  bool secondQueuedDuringFirst = false;
  signal.connect([&](void* pointer) {
    seen.push_back(ValueOf(pointer));
    if (ValueOf(pointer) == 1) {
      second = std::make_unique<Worker>(
          [&marshaller, &signal] { marshaller.Marshal_VoidPointer(signal, PointerFor(2)); });
      secondQueuedDuringFirst = WaitForPending(1);
    }
  });

  Worker first([&marshaller, &signal] { marshaller.Marshal_VoidPointer(signal, PointerFor(1)); });
  ASSERT_TRUE(WaitForPending(1));
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  ASSERT_TRUE(secondQueuedDuringFirst);
  EXPECT_EQ(std::vector<std::intptr_t>{1}, seen);
  EXPECT_EQ(1u, PendingHandOvers());

  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  EXPECT_EQ((std::vector<std::intptr_t>{1, 2}), seen);
  EXPECT_EQ(0u, PendingHandOvers());
  second.reset();
}

TEST(DaemonMarshallerTest, RunEventLoopOnceWaitsAboutTwentyMillisecondsWhenNothingArrives) {
  // Measures one turn on the current thread: {returned, elapsed}.
  const auto measure = [] {
    const auto start = Clock::now();
    const bool result = DaemonMarshaller::RunEventLoopOnce();
    return std::make_pair(result, Clock::now() - start);
  };
  {
    SCOPED_TRACE("thread with an event queue");
    DaemonMarshaller marshaller(false);
    ASSERT_TRUE(DaemonMarshaller::CurrentThreadHasEventLoop());
    const auto [result, elapsed] = measure();
    EXPECT_TRUE(result);
    EXPECT_GE(elapsed, 15ms);
    EXPECT_LT(elapsed, 2s);
  }
  {
    SCOPED_TRACE("thread without an event queue");
    bool hasLoop = true;
    std::pair<bool, Clock::duration> turn;
    std::thread other([&] {
      hasLoop = DaemonMarshaller::CurrentThreadHasEventLoop();
      turn = measure();
    });
    other.join();
    EXPECT_FALSE(hasLoop);
    EXPECT_TRUE(turn.first);
    EXPECT_GE(turn.second, 15ms);
    EXPECT_LT(turn.second, 2s);
  }
}

TEST(DaemonMarshallerTest, TheEventLoopBelongsToTheThreadAndToItsLiveMarshallers) {
  EXPECT_FALSE(DaemonMarshaller::CurrentThreadHasEventLoop());
  auto first = std::make_unique<DaemonMarshaller>(false);
  auto second = std::make_unique<DaemonMarshaller>(false);
  EXPECT_TRUE(DaemonMarshaller::CurrentThreadHasEventLoop());
  bool otherThreadHasLoop = true;
  std::thread other([&otherThreadHasLoop] {
    otherThreadHasLoop = DaemonMarshaller::CurrentThreadHasEventLoop();
  });
  other.join();
  EXPECT_FALSE(otherThreadHasLoop);

  // Both marshallers share the thread's queue: one turn runs the hand-overs of each.
  DaemonMarshaller::VoidSignal signal;
  int calls = 0;
  signal.connect([&calls] { ++calls; });
  {
    Worker viaFirst([&] { first->Marshal_Void(signal); });
    Worker viaSecond([&] { second->Marshal_Void(signal); });
    ASSERT_TRUE(WaitForPending(2));
    EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
    EXPECT_EQ(2, calls);
  }

  first.reset();
  EXPECT_TRUE(DaemonMarshaller::CurrentThreadHasEventLoop());
  second.reset();
  EXPECT_FALSE(DaemonMarshaller::CurrentThreadHasEventLoop());
}

TEST(DaemonMarshallerTest, QuitStaysVisibleUntilResetAndQueuedHandOversStillRun) {
  QuitGuard guard;
  DaemonMarshaller marshaller(false);
  DaemonMarshaller::VoidSignal signal;
  int calls = 0;
  signal.connect([&calls] { ++calls; });

  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  DaemonMarshaller::PostQuit();
  EXPECT_FALSE(DaemonMarshaller::RunEventLoopOnce());
  EXPECT_FALSE(DaemonMarshaller::RunEventLoopOnce());
  {
    Worker worker([&] { marshaller.Marshal_Void(signal); });
    ASSERT_TRUE(WaitForPending(1));
    EXPECT_FALSE(DaemonMarshaller::RunEventLoopOnce());
    EXPECT_EQ(1, calls);
    EXPECT_TRUE(worker.WaitWithoutPumping());
  }
  EXPECT_FALSE(DaemonMarshaller::RunEventLoopOnce());

  // The request belongs to the thread that made it.
  bool otherThreadSeesQuit = true;
  std::thread other([&otherThreadSeesQuit] {
    otherThreadSeesQuit = !DaemonMarshaller::RunEventLoopOnce();
    DaemonMarshaller::PostQuit();
  });
  other.join();
  EXPECT_FALSE(otherThreadSeesQuit);

  DaemonMarshaller::ResetQuit();
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
}

TEST(DaemonMarshallerTest, QuitPostedByASlotEndsThatTurn) {
  QuitGuard guard;
  DaemonMarshaller marshaller(false);
  DaemonMarshaller::VoidSignal signal;
  signal.connect([] { DaemonMarshaller::PostQuit(); });
  Worker worker([&] { marshaller.Marshal_Void(signal); });
  ASSERT_TRUE(WaitForPending(1));
  EXPECT_FALSE(DaemonMarshaller::RunEventLoopOnce());
  EXPECT_TRUE(worker.WaitWithoutPumping());
}

TEST(DaemonMarshallerTest, JoinOnTheOwnerThreadRunsTheHandOversOfTheEndingThread) {
  for (const bool quitPending : {false, true}) {
    SCOPED_TRACE(quitPending ? "quit pending" : "no quit pending");
    QuitGuard guard;
    if (quitPending) DaemonMarshaller::PostQuit();
    DaemonMarshaller marshaller(false);
    DaemonMarshaller::VoidSignal signal;
    int calls = 0;
    bool allOnOwner = true;
    const std::thread::id owner = std::this_thread::get_id();
    signal.connect([&] {
      ++calls;
      allOnOwner = allOnOwner && std::this_thread::get_id() == owner;
    });
    std::thread worker([&] {
      for (int i = 0; i < 3; ++i)
        marshaller.Marshal_Void(signal);
    });
    bool ended = false;
    marshaller.Join(worker, &ended);
    EXPECT_TRUE(ended);
    EXPECT_FALSE(worker.joinable());
    EXPECT_EQ(3, calls);
    EXPECT_TRUE(allOnOwner);
  }
}

TEST(DaemonMarshallerTest, JoinWithoutAnEventLoopJoinsAndSkipsThreadsItCannotJoin) {
  DaemonMarshaller marshaller(true);
  DaemonMarshaller::VoidSignal signal;
  std::atomic<int> calls{0};
  signal.connect([&calls] { ++calls; });
  std::thread worker([&] { marshaller.Marshal_Void(signal); });
  bool ended = false;
  marshaller.Join(worker, &ended);
  EXPECT_TRUE(ended);
  EXPECT_FALSE(worker.joinable());
  EXPECT_EQ(1, calls);

  std::thread notStarted;
  ended = true;
  marshaller.Join(notStarted, &ended);
  EXPECT_FALSE(ended);
  marshaller.Join(notStarted);
}

// Every signal family with a slot that records which kind fired and whether it received the
// very arguments handed over.
class EveryKind {
 public:
  struct Call {
    int kind;
    bool argumentsMatch;
    std::thread::id thread;
  };

  EveryKind() {
    message.connect([this](const std::shared_ptr<Message>& m) { Record(1, &m == &message_); });
    client.connect([this](const std::shared_ptr<Client>& c) { Record(2, &c == &client_); });
    clientMessage.connect(
        [this](const std::shared_ptr<Client>& c, const std::shared_ptr<Message>& m) {
          Record(3, &c == &client_ && &m == &message_);
        });
    clientMessageStringBufferStringBuffer.connect(
        [this](const std::shared_ptr<Client>& c, const std::shared_ptr<Message>& m,
               const StringBuffer& t, const StringBuffer& u) {
          Record(4, &c == &client_ && &m == &message_ && &t == &text_ && &u == &secondText_);
        });
    serverClient.connect(
        [this](const std::shared_ptr<Server>& s, const std::shared_ptr<Client>& c) {
          Record(5, &s == &server_ && &c == &client_);
        });
    serverClientMessage.connect([this](const std::shared_ptr<Server>& s,
                                       const std::shared_ptr<Client>& c,
                                       const std::shared_ptr<Message>& m) {
      Record(6, &s == &server_ && &c == &client_ && &m == &message_);
    });
    server.connect([this](const std::shared_ptr<Server>& s) { Record(7, &s == &server_); });
    serverClientMessageBool.connect([this](const std::shared_ptr<Server>& s,
                                           const std::shared_ptr<Client>& c,
                                           const std::shared_ptr<Message>& m, bool& b) {
      Record(8, &s == &server_ && &c == &client_ && &m == &message_ && &b == &answerLater_);
      b = true;
    });
    void_.connect([this] { Record(9, true); });
    serverClientMessagePartInt.connect(
        [this](const std::shared_ptr<Server>& s, const std::shared_ptr<Client>& c,
               const std::shared_ptr<Message>& m, const std::shared_ptr<Part>& p, int i) {
          Record(10, &s == &server_ && &c == &client_ && &m == &message_ && &p == &part_ && i == 7);
        });
    clientMessagePartInt.connect([this](const std::shared_ptr<Client>& c,
                                        const std::shared_ptr<Message>& m,
                                        const std::shared_ptr<Part>& p, int i) {
      Record(11, &c == &client_ && &m == &message_ && &p == &part_ && i == -8);
    });
    messageBoolIntInt.connect([this](const std::shared_ptr<Message>& m, bool b, int i, int j) {
      Record(12, &m == &message_ && b && i == 3 && j == -4);
    });
    serverWebSocketMessage.connect([this](const std::shared_ptr<Server>& s,
                                          const std::shared_ptr<Client>& c,
                                          const std::shared_ptr<WSData>& d) {
      Record(13, &s == &server_ && &c == &client_ && &d == &data_);
    });
    voidPointer.connect([this](void* p) { Record(14, p == &pointee_); });
  }

  // Hands over one event of `kind` (1..14) with the fixture's arguments through the Marshal_
  // operation of that kind.
  void MarshalKind(DaemonMarshaller& marshaller, int kind) {
    switch (kind) {
      case 1:
        marshaller.Marshal_Message(message, message_);
        break;
      case 2:
        marshaller.Marshal_Client(client, client_);
        break;
      case 3:
        marshaller.Marshal_ClientMessage(clientMessage, client_, message_);
        break;
      case 4:
        marshaller.Marshal_ClientMessageStringBufferStringBuffer(
            clientMessageStringBufferStringBuffer, client_, message_, text_, secondText_);
        break;
      case 5:
        marshaller.Marshal_ServerClient(serverClient, server_, client_);
        break;
      case 6:
        marshaller.Marshal_ServerClientMessage(serverClientMessage, server_, client_, message_);
        break;
      case 7:
        marshaller.Marshal_Server(server, server_);
        break;
      case 8:
        marshaller.Marshal_ServerClientMessageBool(serverClientMessageBool, server_, client_,
                                                   message_, answerLater_);
        break;
      case 9:
        marshaller.Marshal_Void(void_);
        break;
      case 10:
        marshaller.Marshal_ServerClientMessagePartInt(serverClientMessagePartInt, server_, client_,
                                                      message_, part_, 7);
        break;
      case 11:
        marshaller.Marshal_ClientMessagePartInt(clientMessagePartInt, client_, message_, part_, -8);
        break;
      case 12:
        marshaller.Marshal_MessageBoolIntInt(messageBoolIntInt, message_, true, 3, -4);
        break;
      case 13:
        marshaller.Marshal_ServerWebSocketMessage(serverWebSocketMessage, server_, client_, data_);
        break;
      case 14:
        marshaller.Marshal_VoidPointer(voidPointer, &pointee_);
        break;
      default:
        ADD_FAILURE() << "no Marshal_ operation of kind " << kind;
    }
  }

  // A record of `kind` whose every signal pointer and argument is set.
  DaemonMarshaller::MarshalData FullRecord(int kind) {
    DaemonMarshaller::MarshalData data;
    data.Kind = kind;
    data.Message = &message;
    data.Client = &client;
    data.ClientMessage = &clientMessage;
    data.ClientMessageStringBufferStringBuffer = &clientMessageStringBufferStringBuffer;
    data.ServerClient = &serverClient;
    data.ServerClientMessage = &serverClientMessage;
    data.Server = &server;
    data.ServerClientMessageBool = &serverClientMessageBool;
    data.Void = &void_;
    data.ServerClientMessagePartInt = &serverClientMessagePartInt;
    data.ClientMessagePartInt = &clientMessagePartInt;
    data.MessageBoolIntInt = &messageBoolIntInt;
    data.ServerWebSocketMessage = &serverWebSocketMessage;
    data.VoidPointer = &voidPointer;
    data.ServerArgument = &server_;
    data.ClientArgument = &client_;
    data.MessageArgument = &message_;
    data.PartArgument = &part_;
    data.WSDataArgument = &data_;
    data.BoolReference = &answerLater_;
    data.BoolArgument = true;
    data.IntArgument = 3;
    data.SecondIntArgument = -4;
    data.TextArgument = &text_;
    data.SecondTextArgument = &secondText_;
    data.PointerArgument = &pointee_;
    return data;
  }

  std::vector<Call> TakeCalls() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Call> calls;
    calls.swap(calls_);
    return calls;
  }

  // Read after the hand-over that a slot of kind 8 set it in.
  bool answerLater_ = false;

  DaemonMarshaller::MessageSignal message;
  DaemonMarshaller::ClientSignal client;
  DaemonMarshaller::ClientMessageSignal clientMessage;
  DaemonMarshaller::ClientMessageStringBufferStringBufferSignal
      clientMessageStringBufferStringBuffer;
  DaemonMarshaller::ServerClientSignal serverClient;
  DaemonMarshaller::ServerClientMessageSignal serverClientMessage;
  DaemonMarshaller::ServerSignal server;
  DaemonMarshaller::ServerClientMessageBoolSignal serverClientMessageBool;
  DaemonMarshaller::VoidSignal void_;
  DaemonMarshaller::ServerClientMessagePartIntSignal serverClientMessagePartInt;
  DaemonMarshaller::ClientMessagePartIntSignal clientMessagePartInt;
  DaemonMarshaller::MessageBoolIntIntSignal messageBoolIntInt;
  DaemonMarshaller::ServerWebSocketMessageSignal serverWebSocketMessage;
  DaemonMarshaller::VoidPointerSignal voidPointer;

  std::shared_ptr<Message> message_ = Message::New();

 private:
  void Record(int kind, bool argumentsMatch) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({kind, argumentsMatch, std::this_thread::get_id()});
  }

  // Server and Client objects need a running engine, and WSData is only declared here: the
  // slots tell these apart by the address of the reference they receive.
  std::shared_ptr<Server> server_;
  std::shared_ptr<Client> client_;
  std::shared_ptr<Part> part_ = std::make_shared<Part>();
  std::shared_ptr<WSData> data_;
  StringBuffer text_{u"first text"};
  StringBuffer secondText_{u"second text"};
  int pointee_ = 0;
  std::mutex mutex_;
  std::vector<Call> calls_;
};

TEST(DaemonMarshallerTest, EveryKindReachesItsSignalWithItsArguments) {
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct, on the calling thread" : "window mode, from a worker");
    DaemonMarshaller marshaller(direct);
    EveryKind kinds;
    const std::thread::id owner = std::this_thread::get_id();
    // Each row hands one event over; all but the last two go through the kind's Marshal_.
    struct Row {
      int kind;
      std::function<void()> handOver;
    };
    std::vector<Row> rows;
    for (int kind = 1; kind <= 14; ++kind) {
      rows.push_back({kind, [&kinds, &marshaller, kind] { kinds.MarshalKind(marshaller, kind); }});
    }
    rows.push_back({1, [&] { marshaller.Deliver(kinds.message, kinds.message_); }});
    rows.push_back({12, [&] {
                      DaemonMarshaller::MarshalData data = kinds.FullRecord(12);
                      marshaller.Marshal(&data);
                    }});

    for (const Row& row : rows) {
      SCOPED_TRACE(row.kind);
      kinds.answerLater_ = false;
      if (direct) {
        row.handOver();
      } else {
        Worker worker(row.handOver);
        ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
      }
      const std::vector<EveryKind::Call> calls = kinds.TakeCalls();
      ASSERT_EQ(1u, calls.size());
      EXPECT_EQ(row.kind, calls[0].kind);
      EXPECT_TRUE(calls[0].argumentsMatch);
      EXPECT_EQ(owner, calls[0].thread);
      // The slot's answer through the bool reference reaches the handing-over thread.
      EXPECT_EQ(row.kind == 8, kinds.answerLater_);
    }
  }
}

TEST(DaemonMarshallerTest, KindsOutsideOneToFourteenAreIgnored) {
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "window mode");
    DaemonMarshaller marshaller(direct);
    EveryKind kinds;
    for (const int kind : {0, -1, 15, 99}) {
      SCOPED_TRACE(kind);
      // From a worker, and nobody runs the event loop: an ignored kind must not wait.
      Worker worker([&] {
        DaemonMarshaller::MarshalData data = kinds.FullRecord(kind);
        marshaller.Marshal(&data);
      });
      EXPECT_TRUE(worker.WaitWithoutPumping());
      EXPECT_EQ(0u, kinds.TakeCalls().size());
    }
    marshaller.Marshal(nullptr);
    EXPECT_EQ(0u, kinds.TakeCalls().size());
  }
}

TEST(DaemonMarshallerTest, AThrowingSlotIsLoggedAndTheWorkerGoesOn) {
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "window mode");
    CapturedLog log;
    DaemonMarshaller marshaller(direct);
    DaemonMarshaller::VoidSignal failing;
    failing.connect([]() -> void { throw std::runtime_error("slot failed"); });
    DaemonMarshaller::VoidPointerSignal strange;
    strange.connect([](void*) -> void { throw 42; });
    DaemonMarshaller::ClientSignal healthy;
    int healthyCalls = 0;
    healthy.connect([&healthyCalls](const std::shared_ptr<Client>&) { ++healthyCalls; });

    bool workerCompleted = false;
    {
      Worker worker([&] {
        marshaller.Marshal_Void(failing);
        marshaller.Marshal_VoidPointer(strange, nullptr);
        marshaller.Marshal_Client(healthy, nullptr);
        workerCompleted = true;
      });
      ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
    }
    EXPECT_TRUE(workerCompleted);
    EXPECT_EQ(1, healthyCalls);
    const std::string error = std::to_string(static_cast<int>(Logger::Severity::Error));
    EXPECT_EQ((std::vector<std::string>{
                  error + " Veskan::DaemonMarshaller::Marshal kind: 9 error: slot failed",
                  error + " Veskan::DaemonMarshaller::Marshal kind: 14 error: unknown exception"}),
              log.Lines());
  }
}

TEST(DaemonMarshallerTest, DestroyingTheMarshallerReleasesItsWaitingWorkersOnly) {
  CapturedLog log;
  auto released = std::make_unique<DaemonMarshaller>(false);
  DaemonMarshaller kept(false);
  DaemonMarshaller::VoidPointerSignal signal;
  std::vector<std::intptr_t> seen;
  signal.connect([&seen](void* pointer) { seen.push_back(ValueOf(pointer)); });

  DaemonMarshaller* viaReleased = released.get();
  Worker first([&signal, viaReleased] { viaReleased->Marshal_VoidPointer(signal, PointerFor(1)); });
  ASSERT_TRUE(WaitForPending(1));
  Worker second([&signal, &kept] { kept.Marshal_VoidPointer(signal, PointerFor(2)); });
  ASSERT_TRUE(WaitForPending(2));

  released.reset();
  EXPECT_TRUE(first.WaitWithoutPumping());
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(std::vector<std::string>{std::to_string(static_cast<int>(Logger::Severity::Warning)) +
                                     " Veskan::DaemonMarshaller::~DaemonMarshaller released: 1"},
            log.Lines());
  EXPECT_EQ(1u, PendingHandOvers());
  EXPECT_FALSE(second.Finished());

  ASSERT_TRUE(PumpUntil([&second] { return second.Finished(); }));
  EXPECT_EQ(std::vector<std::intptr_t>{2}, seen);
}

TEST(DaemonMarshallerTest, DestroyingTheLastMarshallerOfTheThreadReleasesAWaitingWorker) {
  CapturedLog log;
  auto marshaller = std::make_unique<DaemonMarshaller>(false);
  DaemonMarshaller::VoidSignal signal;
  int calls = 0;
  signal.connect([&calls] { ++calls; });
  DaemonMarshaller* target = marshaller.get();
  Worker worker([&signal, target] { target->Marshal_Void(signal); });
  ASSERT_TRUE(WaitForPending(1));
  marshaller.reset();
  EXPECT_TRUE(worker.WaitWithoutPumping());
  EXPECT_EQ(0, calls);
  EXPECT_FALSE(DaemonMarshaller::CurrentThreadHasEventLoop());
}

}  // namespace
}  // namespace Veskan
