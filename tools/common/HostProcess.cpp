#include "HostProcess.h"

#include <veskan/DaemonMarshaller.h>

#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace Veskan::Tools {

namespace {

std::atomic<bool> stopRequested{false};

void RequestStop(int) {
  stopRequested = true;
}

void ShutdownRequested() {
  stopRequested = true;
  DaemonMarshaller::PostQuit();
}

}  // namespace

bool ParsePort(const std::string& text, int& port) {
  if (text.empty()) return false;
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || value < 0 || value > 65535) return false;
  port = static_cast<int>(value);
  return true;
}

void RaiseOpenFileLimit() {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
}

bool StartServer(Server& server, const StringBuffer& base, std::string& errors) {
  Server::Log::SetAlertHandler(
      [&errors](const char16_t*, const char16_t* text, Server::Log::Enumeration) {
        errors += StringBuffer(text).ToUTF8() + "\n";
      });
  Server::Log::Start(u"MessageBox", Server::Log::Error);
  bool started = server.Start(StringBuffer(base).getTerminatedBuffer(), false);
  Server::Log::Stop();
  Server::Log::SetAlertHandler(nullptr);
  return started;
}

std::shared_ptr<Shutdowner> WatchForStop() {
  std::signal(SIGINT, RequestStop);
  std::signal(SIGTERM, RequestStop);
  auto shutdowner = Shutdowner::Create();
  shutdowner->ShutdownRequested.connect(&ShutdownRequested);
  shutdowner->Start();
  return shutdowner;
}

bool StopRequested() {
  return stopRequested;
}

}  // namespace Veskan::Tools
