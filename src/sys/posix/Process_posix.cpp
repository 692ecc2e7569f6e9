#include "sys/Process.h"

#include "sys/Path.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace Veskan {
namespace Sys {

namespace {

// Owns the spawn attributes' file actions.
class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  posix_spawn_file_actions_t* Get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

// Starts the program with standard output to `outputDescriptor` (-1: inherited).
int Start(const std::vector<std::string>& arguments, int outputDescriptor, int& error) {
  error = 0;
  if (arguments.empty() || arguments[0].empty()) {
    error = EINVAL;
    return -1;
  }
  std::vector<char*> argv;
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  FileActions actions;
  posix_spawn_file_actions_addopen(actions.Get(), 0, "/dev/null", O_RDONLY, 0);
  if (outputDescriptor >= 0) posix_spawn_file_actions_adddup2(actions.Get(), outputDescriptor, 1);
  pid_t pid = -1;
  error = posix_spawnp(&pid, argv[0], actions.Get(), nullptr, argv.data(), environ);
  return error == 0 ? pid : -1;
}

}  // namespace

int StartProcess(const std::vector<std::string>& arguments, int& error) {
  return Start(arguments, -1, error);
}

int WaitForProcess(int pid) {
  int status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  return waited == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunCapturingOutput(const std::vector<std::string>& arguments, std::string& output,
                       std::size_t maxBytes) {
  output.clear();
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) return -1;
  int error = 0;
  const int pid = Start(arguments, pipeEnds[1], error);
  ::close(pipeEnds[1]);
  if (pid < 0) {
    ::close(pipeEnds[0]);
    return -1;
  }
  char chunk[4096];
  for (;;) {
    const ssize_t got = ::read(pipeEnds[0], chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    const std::size_t room = maxBytes > output.size() ? maxBytes - output.size() : 0;
    output.append(chunk, std::min(room, static_cast<std::size_t>(got)));
  }
  ::close(pipeEnds[0]);
  return WaitForProcess(pid);
}

bool ProgramExists(const std::string& name) {
  if (name.find('/') != std::string::npos) return IsExecutableFile(name);
  const char* path = std::getenv("PATH");
  std::string folders = path ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= folders.size()) {
    std::size_t end = folders.find(':', start);
    if (end == std::string::npos) end = folders.size();
    const std::string folder = end > start ? folders.substr(start, end - start) : ".";
    if (IsExecutableFile(folder + "/" + name)) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace Sys
}  // namespace Veskan
