// DaemonMarshaller: direct and window-mode hand-overs, the per-thread event loop, Join, failing
// slots and the release of waiting workers.
#include <veskan/Body.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Logger.h>
#include <veskan/Message.h>
#include <veskan/StringBuffer.h>

#include "net/EventQueue.h"

#include "NetTestSupport.h"

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

using Clock = std::chrono::steady_clock;

// How long a test waits for something that must happen.
constexpr auto Patience = std::chrono::seconds(10);

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
  ~QuitGuard() { DaemonMarshaller::ResetQuit(); }
};

void* PointerFor(std::intptr_t value) {
  return reinterpret_cast<void*>(value);
}

TEST(DaemonMarshallerTest, WindowModeRunsSlotsOnTheOwnerThreadWhileTheWorkerWaits) {
  DaemonMarshaller marshaller(false);
  EXPECT_FALSE(marshaller.IsDirect());
  DaemonMarshaller::VoidSignal signal;
  std::atomic<bool> slotRan{false};
  std::atomic<bool> workerReturned{false};
  bool workerWaitedForSlot = false;
  signal.connect([&] {
    workerWaitedForSlot = !workerReturned;
    slotRan = true;
  });
  bool slotRanBeforeReturn = false;
  {
    Worker worker([&] {
      marshaller.Marshal_Void(signal);
      slotRanBeforeReturn = slotRan;
      workerReturned = true;
    });
    ASSERT_TRUE(WaitForPending(1));
    EXPECT_FALSE(slotRan);
    EXPECT_FALSE(workerReturned);
    ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
  }
  EXPECT_TRUE(workerWaitedForSlot);
  EXPECT_TRUE(slotRanBeforeReturn);
  EXPECT_EQ(0u, PendingHandOvers());
}

TEST(DaemonMarshallerTest, HandOversOfEachWorkerKeepTheirOrder) {
  constexpr std::intptr_t Workers = 3;
  constexpr std::intptr_t HandOvers = 20;
  DaemonMarshaller marshaller(false);
  DaemonMarshaller::VoidPointerSignal signal;
  std::vector<std::vector<std::intptr_t>> seen(Workers);
  signal.connect([&](void* pointer) {
    const auto value = reinterpret_cast<std::intptr_t>(pointer);
    seen[value / 100].push_back(value % 100);
  });
  {
    std::vector<std::unique_ptr<Worker>> workers;
    for (std::intptr_t w = 0; w < Workers; ++w) {
      workers.push_back(std::make_unique<Worker>([&marshaller, &signal, w] {
        for (std::intptr_t i = 0; i < HandOvers; ++i)
          marshaller.Marshal_VoidPointer(signal, PointerFor(w * 100 + i));
      }));
    }
    ASSERT_TRUE(PumpUntil([&workers] {
      for (const auto& worker : workers) {
        if (!worker->Finished()) return false;
      }
      return true;
    }));
  }
  std::vector<std::intptr_t> expected;
  for (std::intptr_t i = 0; i < HandOvers; ++i)
    expected.push_back(i);
  for (std::intptr_t w = 0; w < Workers; ++w)
    EXPECT_EQ(expected, seen[w]) << "worker " << w;
}

TEST(DaemonMarshallerTest, HandOversPostedDuringATurnRunInTheNextTurn) {
  DaemonMarshaller marshaller(false);
  DaemonMarshaller::VoidPointerSignal signal;
  std::vector<void*> seen;
  std::unique_ptr<Worker> second;
  bool secondQueuedDuringFirst = false;
  signal.connect([&](void* pointer) {
    seen.push_back(pointer);
    if (pointer != PointerFor(1)) return;
    second = std::make_unique<Worker>(
        [&marshaller, &signal] { marshaller.Marshal_VoidPointer(signal, PointerFor(2)); });
    secondQueuedDuringFirst = WaitForPending(1);
  });
  Worker first([&marshaller, &signal] { marshaller.Marshal_VoidPointer(signal, PointerFor(1)); });
  ASSERT_TRUE(WaitForPending(1));
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  ASSERT_TRUE(secondQueuedDuringFirst);
  EXPECT_EQ(std::vector<void*>{PointerFor(1)}, seen);
  EXPECT_EQ(1u, PendingHandOvers());
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  EXPECT_EQ((std::vector<void*>{PointerFor(1), PointerFor(2)}), seen);
  EXPECT_EQ(0u, PendingHandOvers());
  second.reset();
}

// A posted call: records its value when run, or that it was given up.
struct PostedCall {
  std::vector<std::intptr_t>* seen;
  std::intptr_t value;
  std::atomic<int>* givenUp;
  static void Work(void* context, bool run) {
    std::unique_ptr<PostedCall> call(static_cast<PostedCall*>(context));
    if (run) {
      call->seen->push_back(call->value);
    } else {
      ++*call->givenUp;
    }
  }
  static void Post(DaemonMarshaller& marshaller, std::vector<std::intptr_t>& seen,
                   std::intptr_t value, std::atomic<int>& givenUp) {
    marshaller.Post(&Work, new PostedCall{&seen, value, &givenUp});
  }
};

TEST(DaemonMarshallerTest, PostedCallsKeepTheirPlaceAmongHandOversAndGoWithTheirMarshaller) {
  std::vector<std::intptr_t> seen;
  std::atomic<int> givenUp{0};
  DaemonMarshaller direct(true);
  PostedCall::Post(direct, seen, 0, givenUp);
  EXPECT_EQ(std::vector<std::intptr_t>{0}, seen) << "direct mode runs it at once";

  DaemonMarshaller marshaller(false);
  auto released = std::make_unique<DaemonMarshaller>(false);
  DaemonMarshaller* viaReleased = released.get();
  DaemonMarshaller::VoidPointerSignal signal;
  signal.connect(
      [&seen](void* pointer) { seen.push_back(reinterpret_cast<std::intptr_t>(pointer)); });
  PostedCall::Post(marshaller, seen, 9, givenUp);
  EXPECT_EQ((std::vector<std::intptr_t>{0, 9}), seen) << "on the owner thread it runs at once";
  {
    Worker worker([&] {
      PostedCall::Post(marshaller, seen, 1, givenUp);
      PostedCall::Post(*viaReleased, seen, 2, givenUp);
      PostedCall::Post(marshaller, seen, 3, givenUp);
      marshaller.WakeOwner();
      marshaller.Marshal_VoidPointer(signal, PointerFor(4));
    });
    ASSERT_TRUE(WaitForPending(4));
    EXPECT_EQ((std::vector<std::intptr_t>{0, 9}), seen) << "posting did not wait";
    released.reset();
    EXPECT_EQ(1, givenUp.load());
    ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
  }
  EXPECT_EQ((std::vector<std::intptr_t>{0, 9, 1, 3, 4}), seen);
  // The queue reuses the records of calls that ran: the next batch keeps its order too.
  {
    Worker worker([&] {
      for (std::intptr_t value = 5; value < 8; ++value)
        PostedCall::Post(marshaller, seen, value, givenUp);
      marshaller.WakeOwner();
      marshaller.Marshal_VoidPointer(signal, PointerFor(8));
    });
    ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
  }
  EXPECT_EQ((std::vector<std::intptr_t>{0, 9, 1, 3, 4, 5, 6, 7, 8}), seen);
  EXPECT_EQ(0u, PendingHandOvers());
}

TEST(DaemonMarshallerTest, TheEventLoopBelongsToTheThreadAndToItsLiveMarshallers) {
  // A turn with nothing to run, on a thread without a queue and on one with it, goes on.
  EXPECT_FALSE(DaemonMarshaller::CurrentThreadHasEventLoop());
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  DaemonMarshaller direct(true);
  EXPECT_FALSE(DaemonMarshaller::CurrentThreadHasEventLoop());
  auto first = std::make_unique<DaemonMarshaller>(false);
  auto second = std::make_unique<DaemonMarshaller>(false);
  EXPECT_TRUE(DaemonMarshaller::CurrentThreadHasEventLoop());
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());
  bool otherThreadHasLoop = true;
  std::thread([&otherThreadHasLoop] {
    otherThreadHasLoop = DaemonMarshaller::CurrentThreadHasEventLoop();
  }).join();
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
  DaemonMarshaller::PostQuit();
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
  std::thread([&otherThreadSeesQuit] {
    otherThreadSeesQuit = !DaemonMarshaller::RunEventLoopOnce();
    DaemonMarshaller::PostQuit();
  }).join();
  EXPECT_FALSE(otherThreadSeesQuit);
  DaemonMarshaller::ResetQuit();
  EXPECT_TRUE(DaemonMarshaller::RunEventLoopOnce());

  // A quit posted by a slot ends that turn.
  DaemonMarshaller::VoidSignal quitting;
  quitting.connect([] { DaemonMarshaller::PostQuit(); });
  Worker worker([&] { marshaller.Marshal_Void(quitting); });
  ASSERT_TRUE(WaitForPending(1));
  EXPECT_FALSE(DaemonMarshaller::RunEventLoopOnce());
  EXPECT_TRUE(worker.WaitWithoutPumping());
}

TEST(DaemonMarshallerTest, JoinRunsTheHandOversOfTheEndingThreadOnlyWhereThereIsALoop) {
  // On the owner thread, whether or not a quit is pending; in direct mode it simply joins.
  const struct {
    const char* name;
    bool direct;
    bool quitPending;
  } cases[] = {
      {"owner", false, false}, {"owner, quit pending", false, true}, {"direct", true, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    QuitGuard guard;
    if (c.quitPending) DaemonMarshaller::PostQuit();
    DaemonMarshaller marshaller(c.direct);
    DaemonMarshaller::VoidSignal signal;
    std::atomic<int> calls{0};
    std::atomic<int> onOwner{0};
    const std::thread::id owner = std::this_thread::get_id();
    signal.connect([&] {
      ++calls;
      onOwner += std::this_thread::get_id() == owner ? 1 : 0;
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
    EXPECT_EQ(c.direct ? 0 : 3, onOwner);
    // A thread that cannot be joined is skipped.
    std::thread notStarted;
    marshaller.Join(notStarted, &ended);
    EXPECT_FALSE(ended);
  }
}

// Every signal family with a slot that records its kind and the arguments it received, each
// named by its address among the ones handed over ("server", "answerLater") or by its value.
struct EveryKind {
  EveryKind() {
    Watch(message, 1);
    Watch(client, 2);
    Watch(clientMessage, 3);
    Watch(clientMessageStringBufferStringBuffer, 4);
    Watch(serverClient, 5);
    Watch(serverClientMessage, 6);
    Watch(server, 7);
    Watch(serverClientMessageBool, 8);
    Watch(void_, 9);
    Watch(serverClientMessagePartInt, 10);
    Watch(clientMessagePartInt, 11);
    Watch(messageBoolIntInt, 12);
    Watch(serverWebSocketMessage, 13);
    Watch(voidPointer, 14);
  }

  template <typename Signal>
  void Watch(Signal& signal, int kind) {
    signal.connect([this, kind](const auto&... arguments) {
      std::string call = std::to_string(kind) + ":";
      ((call += " " + Name(arguments)), ...);
      std::lock_guard<std::mutex> lock(mutex);
      calls.push_back(call);
      threads.push_back(std::this_thread::get_id());
    });
  }

  template <typename T>
  std::string Name(const std::shared_ptr<T>& argument) {
    const std::pair<const void*, const char*> names[] = {
        {&server_, "server"}, {&client_, "client"}, {&message_, "message"},
        {&part_, "part"},     {&data_, "data"},
    };
    for (const auto& [address, name] : names) {
      if (address == &argument) return name;
    }
    return "another";
  }
  std::string Name(const StringBuffer& text) {
    return &text == &text_ ? "text" : &text == &secondText_ ? "secondText" : "another";
  }
  std::string Name(const bool& flag) {
    if (&flag != &answerLater_) return flag ? "true" : "false";
    answerLater_ = true;  // the slot's answer, for the handing-over thread to see
    return "answerLater";
  }
  std::string Name(int value) { return std::to_string(value); }
  std::string Name(void* pointer) { return pointer == &pointee_ ? "pointee" : "another"; }

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

  // The arguments. Server and Client objects need a running engine, and WSData is only declared
  // here: the slots tell these apart by the address of the reference they receive.
  std::shared_ptr<Server> server_;
  std::shared_ptr<Client> client_;
  std::shared_ptr<Message> message_ = Message::New();
  std::shared_ptr<Part> part_ = std::make_shared<Part>();
  std::shared_ptr<WSData> data_;
  StringBuffer text_{u"first text"};
  StringBuffer secondText_{u"second text"};
  int pointee_ = 0;
  bool answerLater_ = false;

  std::mutex mutex;
  std::vector<std::string> calls;
  std::vector<std::thread::id> threads;
};

TEST(DaemonMarshallerTest, EveryKindReachesItsSignalWithItsArguments) {
  // Direct from a worker: on the worker. Window mode from a worker: on the owner, pumped. Window
  // mode on the owner thread: at once, nothing queued.
  enum Way { DirectFromAWorker, FromAWorker, OnTheOwner };
  for (const Way way : {DirectFromAWorker, FromAWorker, OnTheOwner}) {
    SCOPED_TRACE(way);
    DaemonMarshaller marshaller(way == DirectFromAWorker);
    EveryKind k;
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"1: message", [&] { marshaller.Marshal_Message(k.message, k.message_); }},
        {"2: client", [&] { marshaller.Marshal_Client(k.client, k.client_); }},
        {"3: client message",
         [&] { marshaller.Marshal_ClientMessage(k.clientMessage, k.client_, k.message_); }},
        {"4: client message text secondText",
         [&] {
           marshaller.Marshal_ClientMessageStringBufferStringBuffer(
               k.clientMessageStringBufferStringBuffer, k.client_, k.message_, k.text_,
               k.secondText_);
         }},
        {"5: server client",
         [&] { marshaller.Marshal_ServerClient(k.serverClient, k.server_, k.client_); }},
        {"6: server client message",
         [&] {
           marshaller.Marshal_ServerClientMessage(k.serverClientMessage, k.server_, k.client_,
                                                  k.message_);
         }},
        {"7: server", [&] { marshaller.Marshal_Server(k.server, k.server_); }},
        {"8: server client message answerLater",
         [&] {
           marshaller.Marshal_ServerClientMessageBool(k.serverClientMessageBool, k.server_,
                                                      k.client_, k.message_, k.answerLater_);
         }},
        {"9:", [&] { marshaller.Marshal_Void(k.void_); }},
        {"10: server client message part 7",
         [&] {
           marshaller.Marshal_ServerClientMessagePartInt(k.serverClientMessagePartInt, k.server_,
                                                         k.client_, k.message_, k.part_, 7);
         }},
        {"11: client message part -8",
         [&] {
           marshaller.Marshal_ClientMessagePartInt(k.clientMessagePartInt, k.client_, k.message_,
                                                   k.part_, -8);
         }},
        {"12: message true 3 -4",
         [&] {
           marshaller.Marshal_MessageBoolIntInt(k.messageBoolIntInt, k.message_, true, 3, -4);
         }},
        {"13: server client data",
         [&] {
           marshaller.Marshal_ServerWebSocketMessage(k.serverWebSocketMessage, k.server_, k.client_,
                                                     k.data_);
         }},
        {"14: pointee", [&] { marshaller.Marshal_VoidPointer(k.voidPointer, &k.pointee_); }},
        // Ready-state changes, and a full record through the common hand-over.
        {"1: message", [&] { marshaller.Deliver(k.message, k.message_); }},
        {"12: message true 3 -4",
         [&] {
           DaemonMarshaller::MarshalData data = k.FullRecord(12);
           marshaller.Marshal(&data);
         }},
    };
    for (const auto& [call, handOver] : rows) {
      SCOPED_TRACE(call);
      k.answerLater_ = false;
      std::thread::id expectedThread = std::this_thread::get_id();
      if (way == DirectFromAWorker) {
        std::thread worker(handOver);
        expectedThread = worker.get_id();
        worker.join();
      } else if (way == FromAWorker) {
        Worker worker(handOver);
        ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
      } else {
        handOver();
        EXPECT_EQ(0u, PendingHandOvers());
      }
      EXPECT_EQ(std::vector<std::string>{call}, k.calls);
      EXPECT_EQ(std::vector<std::thread::id>{expectedThread}, k.threads);
      // The slot's answer through the bool reference reaches the handing-over thread.
      EXPECT_EQ(std::string(call).rfind("8:", 0) == 0, k.answerLater_);
      k.calls.clear();
      k.threads.clear();
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
    }
    marshaller.Marshal(nullptr);
    EXPECT_TRUE(kinds.calls.empty());
  }
}

TEST(DaemonMarshallerTest, AThrowingSlotIsLoggedAndTheWorkerGoesOn) {
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "window mode");
    Testing::LoggerLines log(Logger::Severity::Warning);
    DaemonMarshaller marshaller(direct);
    DaemonMarshaller::VoidSignal failing;
    failing.connect([]() -> void { throw std::runtime_error("slot failed"); });
    DaemonMarshaller::VoidPointerSignal strange;
    strange.connect([](void*) -> void { throw 42; });
    DaemonMarshaller::VoidSignal healthy;
    int healthyCalls = 0;
    healthy.connect([&healthyCalls] { ++healthyCalls; });
    {
      Worker worker([&] {
        marshaller.Marshal_Void(failing);
        marshaller.Marshal_VoidPointer(strange, nullptr);
        marshaller.Marshal_Void(healthy);
      });
      ASSERT_TRUE(PumpUntil([&worker] { return worker.Finished(); }));
    }
    EXPECT_EQ(1, healthyCalls);
    EXPECT_EQ((std::vector<std::string>{
                  "Error: Veskan::DaemonMarshaller::Marshal kind: 9 error: slot failed",
                  "Error: Veskan::DaemonMarshaller::Marshal kind: 14 error: unknown exception"}),
              log.Take());
  }
}

TEST(DaemonMarshallerTest, DestroyingAMarshallerReleasesItsWaitingWorkersOnly) {
  Testing::LoggerLines log(Logger::Severity::Warning);
  auto released = std::make_unique<DaemonMarshaller>(false);
  DaemonMarshaller kept(false);
  DaemonMarshaller::VoidPointerSignal signal;
  std::vector<void*> seen;
  signal.connect([&seen](void* pointer) { seen.push_back(pointer); });

  DaemonMarshaller* viaReleased = released.get();
  Worker first([&signal, viaReleased] { viaReleased->Marshal_VoidPointer(signal, PointerFor(1)); });
  ASSERT_TRUE(WaitForPending(1));
  Worker second([&signal, &kept] { kept.Marshal_VoidPointer(signal, PointerFor(2)); });
  ASSERT_TRUE(WaitForPending(2));
  released.reset();
  EXPECT_TRUE(first.WaitWithoutPumping());
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(
      std::vector<std::string>{"Warning: Veskan::DaemonMarshaller::~DaemonMarshaller released: 1"},
      log.Take());
  EXPECT_EQ(1u, PendingHandOvers());
  EXPECT_FALSE(second.Finished());
  ASSERT_TRUE(PumpUntil([&second] { return second.Finished(); }));
  EXPECT_EQ(std::vector<void*>{PointerFor(2)}, seen);
}

TEST(DaemonMarshallerTest, DestroyingTheLastMarshallerOfTheThreadReleasesAWaitingWorker) {
  Testing::LoggerLines log(Logger::Severity::Warning);
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
