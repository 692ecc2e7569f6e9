// veskan-shutdown: asks every running program of the system, of every user, to close.
//
//   veskan-shutdown [--hold SECONDS]
//
// The request lives while some program has it open; --hold keeps it open for a while after
// this command, for programs that are still starting. Exit status 0, or 1 with a reason.
#include <veskan/Shutdowner.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>

int main(int argc, char** argv) {
  double hold = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--hold") == 0 && i + 1 < argc) {
      hold = std::atof(argv[++i]);
    } else {
      std::cerr << "usage: veskan-shutdown [--hold SECONDS]\n";
      return 1;
    }
  }
  auto shutdowner = Veskan::Shutdowner::Create();
  if (!shutdowner->RequestShutdown()) {
    std::cerr << "veskan-shutdown: the shutdown request cannot be opened\n";
    return 1;
  }
  if (hold > 0) std::this_thread::sleep_for(std::chrono::duration<double>(hold));
  return 0;
}
