// Named objects across real processes: single instance, command lines handed to the first copy,
// the shutdown request, and processes killed while holding locks.
#include <veskan/IPC.h>
#include <veskan/Shutdowner.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace Veskan {
namespace {

using Testing::ChildProcess;

// These tests and the processes they start keep their objects apart from every other program's:
// a shutdown request here must not close a real one.
const bool isolated = [] {
  return setenv("VESKAN_NAMESPACE", ("test" + std::to_string(getpid())).c_str(), 1) == 0;
}();

// A name of the test's own, so that runs at once do not meet.
StringBuffer UniqueName(const char* what) {
  static int counter = 0;
  return StringBuffer(("veskan-test-" + std::string(what) + "-" + std::to_string(getpid()) + "-" +
                       std::to_string(++counter))
                          .c_str());
}

std::unique_ptr<ChildProcess> Worker(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VESKAN_IPC_WORKER);
  return std::make_unique<ChildProcess>(arguments, 1);
}

TEST(IpcTest, ObjectsOfOneNameAreOneObjectUntilTheLastHandleGoes) {
  ASSERT_TRUE(isolated);
  const StringBuffer name = UniqueName("event");
  {
    IPC first(name, IPC::Event, true, false);
    ASSERT_TRUE(first.IsValid());
    EXPECT_TRUE(first.Created());
    IPC again(name, IPC::Event, true, false);  // must create, but it exists
    EXPECT_FALSE(again.IsValid());
    EXPECT_FALSE(again.Created());
    EXPECT_FALSE(again.Wait());
    IPC opened(name, IPC::Event, false, false);
    EXPECT_FALSE(opened.Created());
    EXPECT_FALSE(opened.TryWait());
    opened.Signal();
    EXPECT_TRUE(first.TryWait());  // auto-reset: taken once
    EXPECT_FALSE(first.TryWait());
    IPC mutex(name, IPC::Mutex, false, true);  // the name is an event's
    EXPECT_FALSE(mutex.IsValid());
  }
  // Every handle gone: the name makes a new object.
  IPC fresh(name, IPC::Event, true, true);
  EXPECT_TRUE(fresh.Created());
  EXPECT_TRUE(fresh.TryWait());

  int value = 5;
  EXPECT_EQ(IPC::AtomicIncrement(&value), 6);
  EXPECT_EQ(IPC::AtomicDecrement(&value), 5);
  EXPECT_EQ(IPC::AtomicExchange(&value, 9), 5);
  EXPECT_EQ(IPC::AtomicCompareExchange(&value, 1, 8), 9);  // not 8: unchanged
  EXPECT_EQ(IPC::AtomicCompareExchange(&value, 1, 9), 9);
  EXPECT_EQ(value, 1);

  SharedMemory absent(UniqueName("memory"), 64, false, false);
  EXPECT_FALSE(absent.IsValid());
  const StringBuffer memoryName = UniqueName("memory");
  SharedMemory made(memoryName, 64, false, true);
  ASSERT_TRUE(made.IsValid());
  static_cast<char*>(static_cast<void*>(made))[63] = 'x';
  SharedMemory seen(memoryName, 64, true, false);
  ASSERT_TRUE(seen.IsValid());
  EXPECT_EQ(static_cast<const char*>(static_cast<const void*>(seen))[63], 'x');
  EXPECT_FALSE(SharedMemory(memoryName, 65, true, false).IsValid());  // larger than it is
}

TEST(IpcTest, OnlyTheFirstCopyIsFirstAndACrashedOneLeavesNothingBehind) {
  const StringBuffer name = UniqueName("single");
  auto first = Worker({"single", name.ToUTF8()});
  ASSERT_FALSE(first->LineWith("first", 30).empty());
  EXPECT_TRUE(LimitSingleInstance(name).IsAnotherInstanceRunning());
  auto second = Worker({"single", name.ToUTF8()});
  EXPECT_FALSE(second->LineWith("another", 30).empty());
  first->Kill(SIGKILL);
  first->Wait();
  second->Kill(SIGKILL);
  second->Wait();
  // Both gone, however they ended: the next copy is the first again.
  LimitSingleInstance next(name);
  EXPECT_FALSE(next.IsAnotherInstanceRunning());
  EXPECT_TRUE(LimitSingleInstance(name).IsAnotherInstanceRunning());

  // A later copy calls the first to the front; the handler runs on the first copy's thread.
  EXPECT_FALSE(LimitSingleInstance(name).BringToFront(1, 2));  // no handler yet
  std::intptr_t got = 0;
  std::thread::id ranOn;
  next.OnBringToFront([&](std::intptr_t w, std::intptr_t l) {
    got = w * 10 + l;
    ranOn = std::this_thread::get_id();
  });
  EXPECT_TRUE(LimitSingleInstance(name).BringToFront(4, 2));
  for (int turn = 0; turn < 500 && got == 0; ++turn)
    DaemonMarshaller::RunEventLoopOnce();
  EXPECT_EQ(got, 42);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(IpcTest, FiftyLaterCopiesHandTheirCommandLinesToTheFirst) {
  const StringBuffer name = UniqueName("cli");
  constexpr int Copies = 50;
  auto first = Worker({"cli", name.ToUTF8(), std::to_string(Copies), "first copy"});
  ASSERT_FALSE(first->LineWith("first", 30).empty());
  std::vector<std::unique_ptr<ChildProcess>> later;
  for (int i = 0; i < Copies; ++i)
    later.push_back(Worker({"cli", name.ToUTF8(), "0", "open quiz-" + std::to_string(i) + ".rdf"}));
  std::set<std::string> received;
  for (int i = 0; i < Copies; ++i) {
    const std::string line = first->LineWith("got ", 30);
    if (line.empty()) break;
    received.insert(line);
  }
  for (auto& copy : later) {
    EXPECT_FALSE(copy->LineWith("delivered", 30).empty());
    EXPECT_EQ(copy->Wait(), 0);
  }
  EXPECT_EQ(first->Wait(), 0);
  ASSERT_EQ(received.size(), static_cast<std::size_t>(Copies));  // none lost, none twice
  for (int i = 0; i < Copies; ++i)
    EXPECT_EQ(received.count("got open quiz-" + std::to_string(i) + ".rdf"), 1u) << i;
}

TEST(IpcTest, CommandLinesAreCutAndJoinedAsTheySplitAgain) {
  const StringBuffer name = UniqueName("cli");
  SingleInstanceCLI cli(name, StringBuffer(std::string(1500, 'a').c_str()));
  ASSERT_TRUE(cli.IsFirst());
  EXPECT_EQ(cli.CommandLine().length(), SingleInstanceCLI::MaxCommandLine);
  const char16_t* arguments[] = {u"quiz", u"my quiz.rdf", u"", u"say \"hi\"", u"'x"};
  EXPECT_EQ(SingleInstanceCLI::JoinArguments(5, arguments),
            StringBuffer(u"quiz \"my quiz.rdf\" \"\" 'say \"hi\"' \"'x\""));
}

TEST(IpcTest, AProcessKilledHoldingALockDoesNotWedgeTheOthers) {
  // A named mutex: the next waiter takes it.
  const StringBuffer mutexName = UniqueName("mutex");
  auto holder = Worker({"hold-mutex", mutexName.ToUTF8()});
  ASSERT_FALSE(holder->LineWith("held", 30).empty());
  IPC mutex(mutexName, IPC::Mutex, false, true);
  EXPECT_FALSE(mutex.TryWait());
  holder->Kill(SIGKILL);
  holder->Wait();
  EXPECT_TRUE(mutex.TimedWait(10000));
  mutex.Signal();

  // The command-line locks: a later copy still delivers.
  const StringBuffer cliName = UniqueName("cli");
  auto first = Worker({"cli", cliName.ToUTF8(), "1", "first"});
  ASSERT_FALSE(first->LineWith("first", 30).empty());
  auto writer = Worker({"hold-cli-lock", cliName.ToUTF8()});
  ASSERT_FALSE(writer->LineWith("held", 30).empty());
  writer->Kill(SIGKILL);
  writer->Wait();
  auto later = Worker({"cli", cliName.ToUTF8(), "0", "after the crash"});
  EXPECT_FALSE(later->LineWith("delivered", 30).empty());
  EXPECT_FALSE(first->LineWith("got after the crash", 30).empty());
  EXPECT_EQ(first->Wait(), 0);

  // An event has no lock to leave held: a waiter killed in its wait costs the others nothing.
  const StringBuffer eventName = UniqueName("event");
  IPC event(eventName, IPC::Event, false, false);
  auto killed = Worker({"wait-event", eventName.ToUTF8()});
  auto waiter = Worker({"wait-event", eventName.ToUTF8()});
  ASSERT_FALSE(killed->LineWith("waiting", 30).empty());
  ASSERT_FALSE(waiter->LineWith("waiting", 30).empty());
  killed->Kill(SIGKILL);
  killed->Wait();
  event.Signal();
  EXPECT_FALSE(waiter->LineWith("woken", 30).empty());
  EXPECT_EQ(waiter->Wait(), 0);
}

TEST(IpcTest, AShutdownRequestReachesEveryProcessAndDiesWithTheLastOfThem) {
  {
    // Stop before any request: no callback.
    auto quiet = Shutdowner::Create();
    bool called = false;
    quiet->ShutdownRequested.connect([&called] { called = true; });
    ASSERT_TRUE(quiet->Start());
    quiet->Stop();
    EXPECT_FALSE(called);
  }
  std::vector<std::unique_ptr<ChildProcess>> watchers;
  for (int i = 0; i < 3; ++i) {
    watchers.push_back(Worker({"watch"}));
    ASSERT_FALSE(watchers.back()->LineWith("watching", 30).empty());
  }
  // Any user may ask: as root the request comes from a process of the user nobody.
  if (geteuid() == 0) {
    ChildProcess asNobody({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                           VESKAN_SHUTDOWN_PATH},
                          2);
    EXPECT_EQ(asNobody.Wait(), 0);
  } else {
    ASSERT_TRUE(Shutdowner::Request());
  }
  for (auto& watcher : watchers) {
    EXPECT_FALSE(watcher->LineWith("callback", 30).empty());
    EXPECT_FALSE(watcher->LineWith("requested", 30).empty());
    EXPECT_EQ(watcher->Wait(), 0);
  }
  // The request stays set while a process holds it.
  auto holder = Shutdowner::Create();
  holder->RequestShutdown();
  EXPECT_TRUE(Shutdowner::Create()->HasRequestedShutdown());
  holder.reset();
  // Everyone gone: the next start sees no request; nor after the last holder was killed.
  EXPECT_FALSE(Shutdowner::Create()->HasRequestedShutdown());
  auto crashing = Worker({"request"});
  ASSERT_FALSE(crashing->LineWith("requested", 30).empty());
  EXPECT_TRUE(Shutdowner::Create()->HasRequestedShutdown());
  crashing->Kill(SIGKILL);
  crashing->Wait();
  EXPECT_FALSE(Shutdowner::Create()->HasRequestedShutdown());
}

TEST(IpcTest, VeskanServeStopsWhenVeskanShutdownAsks) {
  ChildProcess serve({VESKAN_SERVE_PATH, "--port", "0", "--direct"}, 1);
  ASSERT_FALSE(serve.LineWith("listening on", 30).empty());
  ChildProcess shutdown({VESKAN_SHUTDOWN_PATH}, 1);
  EXPECT_EQ(shutdown.Wait(), 0);
  EXPECT_EQ(serve.Wait(), 0);
}

// Every object goes with its last handle; the guards that order the openers of a name stay,
// and go with the test's namespace.
class RemoveGuards : public ::testing::Environment {
 public:
  void TearDown() override {
    const std::string prefix = "veskan-test" + std::to_string(getpid()) + "-";
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
      const std::string file = entry.path().filename().string();
      if (file.compare(0, prefix.size(), prefix) != 0) continue;
      EXPECT_EQ(file.substr(file.size() - 6), ".guard") << file << " outlived its handles";
      std::filesystem::remove(entry.path());
    }
  }
};
const auto* const removeGuards = ::testing::AddGlobalTestEnvironment(new RemoveGuards);

}  // namespace
}  // namespace Veskan
