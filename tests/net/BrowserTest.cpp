// A real browser against veskan-serve: headless Chromium loads a page from /files, exchanges
// WebSocket messages with /ws, triggers /broadcast, and reports the outcome on its console, which
// the test reads from the browser's log.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

extern char** environ;

namespace {

// A child process in a process group of its own (a browser starts several), with one of its
// output streams readable line by line.
class Process {
 public:
  // Starts `arguments`; `stream` (1 or 2) is captured, the other goes to /dev/null.
  Process(const std::vector<std::string>& arguments, int stream) {
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
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    Kill(SIGKILL);
    Wait();
    if (output_ >= 0) ::close(output_);
  }

  bool Started() const { return pid_ > 0; }

  // The first line of the captured stream that contains `text`, waiting at most `seconds`;
  // empty when none came.
  std::string LineWith(const std::string& text, double seconds) {
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

  void Kill(int signal) {
    if (pid_ > 0) ::kill(-pid_, signal);
  }

  // The exit status, or -1 when it did not exit normally.
  int Wait() {
    if (pid_ <= 0) return -1;
    int status = 0;
    pid_t waited = ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return waited > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  std::string buffer_;
};

TEST(BrowserTest, ChromiumExchangesWebSocketMessagesWithVeskanServe) {
  const std::string chromium = "/usr/bin/chromium";
  ASSERT_TRUE(std::filesystem::exists(chromium)) << "scripts/setup.sh installs chromium";

  Process server({VESKAN_SERVE_PATH, "--port", "0", "--direct", "--root", VESKAN_BROWSER_PAGES}, 1);
  ASSERT_TRUE(server.Started());
  std::string listening = server.LineWith("listening on http://127.0.0.1:", 30);
  ASSERT_FALSE(listening.empty());
  std::string base = listening.substr(listening.find("http://"));

  std::filesystem::path profile =
      std::filesystem::temp_directory_path() / ("veskan-chromium-" + std::to_string(::getpid()));
  // Headless as root needs --no-sandbox; the networking switches keep the browser off the
  // closed outside network, whose refused connections would otherwise flood it.
  Process browser(
      {chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
       "--disable-background-networking", "--disable-component-update", "--disable-sync",
       "--user-data-dir=" + profile.string(), "--enable-logging=stderr", "--v=0",
       base + "files/websocket.html"},
      2);
  ASSERT_TRUE(browser.Started());
  std::string result = browser.LineWith("WS-RESULT", 90);
  browser.Kill(SIGKILL);
  browser.Wait();
  std::error_code ignored;
  std::filesystem::remove_all(profile, ignored);

  // 21 echoes (one of 70,000 characters) in order, then the broadcast text.
  EXPECT_NE(std::string::npos, result.find("WS-RESULT ok 21")) << "browser said: " << result;

  server.Kill(SIGTERM);
  EXPECT_EQ(0, server.Wait());
}

}  // namespace
