// A process for the named-object tests: each mode does one thing another process checks, and
// reports it on standard output.
//
//   single NAME            "first" or "another", then waits to be killed
//   cli NAME COUNT TEXT    a SingleInstanceCLI: the first copy prints "first" and "got TEXT" for
//                          COUNT later command lines, then exits; a later copy prints
//                          "delivered" or "lost"
//   hold-mutex NAME        takes the named mutex, prints "held", waits to be killed
//   hold-cli-lock NAME     takes NAME's command-line lock and its spin lock, as a copy writing
//                          its command line does, prints "held", waits to be killed
//   wait-event NAME        prints "waiting", then waits on the named event and prints "woken"
//   request                sets the shutdown request, prints "requested", waits to be killed
//   watch                  a Shutdowner: prints "watching", then "callback" from its callback
//                          and "requested" once HasRequestedShutdown holds; exits 0
#include <veskan/IPC.h>
#include <veskan/Shutdowner.h>

#include "host/NamedState.h"
#include "sys/NamedObject.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

using namespace Veskan;

namespace {

[[noreturn]] void WaitToBeKilled() {
  for (;;)
    pause();
}

int Cli(const StringBuffer& name, int count, const char* text) {
  SingleInstanceCLI cli(name, StringBuffer(text));
  if (!cli.IsFirst()) {
    std::cout << (cli.Delivered() ? "delivered" : "lost") << std::endl;
    return 0;
  }
  int received = 0;
  const std::thread::id host = std::this_thread::get_id();
  cli.CommandLineArrived.connect([&](void* from) {
    // Only on the host's thread: a line from anywhere else does not count.
    std::cout << (std::this_thread::get_id() == host ? "got " : "elsewhere ")
              << static_cast<SingleInstanceCLI*>(from)->CommandLine().ToUTF8() << std::endl;
    ++received;
  });
  std::cout << "first" << std::endl;
  while (received < count)
    DaemonMarshaller::RunEventLoopOnce();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string mode = argv[1];
  const StringBuffer name(argc > 2 ? argv[2] : "");
  if (mode == "single") {
    LimitSingleInstance instance(name);
    std::cout << (instance.IsAnotherInstanceRunning() ? "another" : "first") << std::endl;
    WaitToBeKilled();
  }
  if (mode == "cli" && argc == 5) return Cli(name, std::atoi(argv[3]), argv[4]);
  if (mode == "hold-mutex") {
    IPC mutex(name, IPC::Mutex, false, true);
    if (!mutex.Wait()) return 1;
    std::cout << "held" << std::endl;
    WaitToBeKilled();
  }
  if (mode == "hold-cli-lock") {
    // The lock is the first thing in the delivery region, the spin lock the first word of the
    // command-line region.
    int error = 0;
    auto lock = Sys::NamedRegion::Open((name + StringBuffer(u"#clilock")).ToUTF8(),
                                       sizeof(Sys::SharedMutex), false, false,
                                       Sys::NameScope::CurrentUser, error);
    SharedMemory region(name + StringBuffer(u"#clidata"), 2016, false, false);
    if (!lock || !region.IsValid()) return 1;
    Sys::LockSharedMutex(*static_cast<Sys::SharedMutex*>(lock->Address()), -1);
    static_cast<std::atomic<std::int32_t>*>(static_cast<void*>(region))->store(1);
    std::cout << "held" << std::endl;
    WaitToBeKilled();
  }
  if (mode == "wait-event") {
    IPC event(name, IPC::Event, false, false);
    std::cout << "waiting" << std::endl;
    if (!event.Wait()) return 1;
    std::cout << "woken" << std::endl;
    return 0;
  }
  if (mode == "request") {
    auto shutdowner = Shutdowner::Create();
    if (!shutdowner->RequestShutdown()) return 1;
    std::cout << "requested" << std::endl;
    WaitToBeKilled();
  }
  if (mode == "watch") {
    auto shutdowner = Shutdowner::Create();
    std::atomic<bool> called{false};
    shutdowner->ShutdownRequested.connect([&called] {
      std::cout << "callback" << std::endl;
      called = true;
    });
    if (!shutdowner->Start()) return 1;
    std::cout << "watching" << std::endl;
    while (!called)
      usleep(1000);
    if (!shutdowner->HasRequestedShutdown()) return 1;
    std::cout << "requested" << std::endl;
    return 0;
  }
  return 2;
}
