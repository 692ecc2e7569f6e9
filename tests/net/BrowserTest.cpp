// A real browser against veskan-serve: headless Chromium loads a page from /files, exchanges
// WebSocket messages with /ws, triggers /broadcast, and reports the outcome on its console, which
// the test reads from the browser's log.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

using Veskan::Testing::ChildProcess;

TEST(BrowserTest, ChromiumExchangesWebSocketMessagesWithVeskanServe) {
  const std::string chromium = "/usr/bin/chromium";
  ASSERT_TRUE(std::filesystem::exists(chromium)) << "scripts/setup.sh installs chromium";

  ChildProcess server(
      {VESKAN_SERVE_PATH, "--port", "0", "--direct", "--root", VESKAN_BROWSER_PAGES}, 1);
  ASSERT_TRUE(server.Started());
  std::string listening = server.LineWith("listening on http://127.0.0.1:", 30);
  ASSERT_FALSE(listening.empty());
  std::string base = listening.substr(listening.find("http://"));

  std::filesystem::path profile =
      std::filesystem::temp_directory_path() / ("veskan-chromium-" + std::to_string(::getpid()));
  // Headless as root needs --no-sandbox; the networking switches keep the browser off the
  // closed outside network, whose refused connections would otherwise flood it.
  ChildProcess browser(
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
