#include "TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

extern char** environ;

namespace Veskan {
namespace Testing {

TemporaryFolder::TemporaryFolder() {
  std::random_device entropy;
  std::ostringstream name;
  name << "veskan-test-" << std::hex << entropy() << entropy();
  path_ = std::filesystem::temp_directory_path() / name.str();
  std::filesystem::create_directories(path_);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

StringBuffer TemporaryFolder::File(const std::string& name) const {
  return StringBuffer((path_ / name).string());
}

StringBuffer TemporaryFolder::WriteFile(const std::string& name, const std::string& bytes) const {
  std::ofstream((path_ / name).string(), std::ios::binary) << bytes;
  return File(name);
}

int CountOpenDescriptors() {
  int count = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd");
       it != std::filesystem::directory_iterator(); ++it) {
    ++count;
  }
  return count;
}

std::string ReadWholeFile(const StringBuffer& path) {
  std::ifstream stream(path.ToUTF8(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, int stream) {
  int pipeEnds[2];
  if (::pipe(pipeEnds) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], stream);
  posix_spawn_file_actions_addopen(&actions, stream == 1 ? 2 : 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
  posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  std::vector<char*> argv;
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, argv[0], &actions, &attributes, argv.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(pipeEnds[1]);
  output_ = pipeEnds[0];
}

ChildProcess::~ChildProcess() {
  Kill(SIGKILL);
  Wait();
  if (output_ >= 0) ::close(output_);
}

std::string ChildProcess::LineWith(const std::string& text, double seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    std::size_t end;
    while ((end = buffer_.find('\n')) != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      if (line.find(text) != std::string::npos) return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::string();
    pollfd watched{output_, POLLIN, 0};
    if (::poll(&watched, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[4096];
    ssize_t got = ::read(output_, chunk, sizeof chunk);
    if (got <= 0) return std::string();  // the process has ended
    buffer_.append(chunk, static_cast<std::size_t>(got));
  }
}

void ChildProcess::Kill(int signal) {
  if (pid_ > 0) ::kill(-pid_, signal);
}

int ChildProcess::Wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  pid_t waited = ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return waited > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace Testing
}  // namespace Veskan
