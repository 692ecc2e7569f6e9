// Server::Log: severity names read back, start counting, thresholds and alert mode; the engine's
// log lines.
#include <veskan/Logger.h>
#include <veskan/Server.h>

#include "net/EngineLog.h"

#include "NetTestSupport.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Veskan {
namespace {

using Log = Server::Log;

TEST(ServerLogNames, ParseIgnoresCaseAndKnowsThePlurals) {
  const std::pair<Log::Enumeration, std::vector<const char16_t*>> groups[] = {
      {Log::Error, {u"error", u"Errors", u"ERROR"}},
      {Log::Warning, {u"warning", u"Warnings", u"wArNiNg"}},
      {Log::Information, {u"information", u"Information"}},
      {Log::None, {u"informations", u"info", u"none", u" error", u"3", u"", nullptr}},
  };
  for (const auto& [value, texts] : groups) {
    for (const char16_t* text : texts) {
      SCOPED_TRACE(text ? StringBuffer(text).ToUTF8() : "(null)");
      EXPECT_EQ(value, Log::Parse(text));
    }
  }
}

// Every test starts and ends with the log stopped and the default alert handler; Record installs
// a handler that keeps the alerts as "title|text|severity".
class ServerLogTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    while (Log::StartCount() > 0)
      Log::Stop();
    Log::SetAlertHandler(nullptr);
  }

  void Record() {
    Log::SetAlertHandler([this](const char16_t* title, const char16_t* text, Log::Enumeration s) {
      std::lock_guard<std::mutex> lock(mutex_);
      alerts_.push_back(StringBuffer(title).ToUTF8() + "|" + StringBuffer(text).ToUTF8() + "|" +
                        std::to_string(static_cast<int>(s)));
    });
  }

  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> taken;
    taken.swap(alerts_);
    return taken;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> alerts_;
};

TEST_F(ServerLogTest, StartsAreCountedAndTheFirstChoosesTheSinkAndTheThreshold) {
  Log::Stop();  // without a start: nothing to stop
  EXPECT_EQ(0, Log::StartCount());
  for (const char16_t* source : {u"veskan-tests", u"", static_cast<const char16_t*>(nullptr)}) {
    SCOPED_TRACE(source ? StringBuffer(source).ToUTF8() : "(null)");
    Log::Start(source, Log::Warning);
    EXPECT_TRUE(Log::SystemLogOpen());
    EXPECT_FALSE(Log::AlertMode());
    Log::Start(u"MessageBox", Log::Information);
    EXPECT_EQ(2, Log::StartCount());
    EXPECT_EQ(Log::Warning, Log::Threshold());
    EXPECT_FALSE(Log::AlertMode());
    Log::Stop();
    EXPECT_TRUE(Log::SystemLogOpen()) << "one start is left";
    Log::Stop();
    EXPECT_FALSE(Log::SystemLogOpen());
  }
  // Alert mode only for the exact source.
  Log::Start(u"messagebox", Log::Error);
  EXPECT_FALSE(Log::AlertMode());
  Log::Stop();
  Log::Start(u"MessageBox", Log::Error);
  Log::Start(u"veskan-tests", Log::Information);
  EXPECT_TRUE(Log::AlertMode());
  EXPECT_FALSE(Log::SystemLogOpen());
  EXPECT_EQ(Log::Error, Log::Threshold());
  Log::Stop();
  EXPECT_TRUE(Log::AlertMode());
  Log::Stop();
  EXPECT_FALSE(Log::AlertMode());
}

TEST_F(ServerLogTest, WritesReachTheAlertHandlerFromTheThresholdUp) {
  Record();
  Log::Write(Log::Error, u"before start");
  const std::pair<Log::Enumeration, std::vector<std::string>> cases[] = {
      {Log::None, {}},
      {Log::Error, {"Event Log Message|3|1", "Event Log Message||1"}},
      {Log::Warning, {"Event Log Message|2|2", "Event Log Message|3|1", "Event Log Message||1"}},
      {Log::Information,
       {"Event Log Message|1|3", "Event Log Message|2|2", "Event Log Message|3|1",
        "Event Log Message||1"}},
  };
  for (const auto& [threshold, alerts] : cases) {
    SCOPED_TRACE(static_cast<int>(threshold));
    Log::Start(u"MessageBox", threshold);
    Log::Write(Log::Information, u"1");
    Log::Write(Log::Warning, u"2");
    Log::Write(Log::Error, u"3");
    Log::Write(Log::Error, nullptr);
    Log::Write(Log::None, u"none");
    Log::Write(static_cast<Log::Enumeration>(-1), u"negative");
    Log::Write(static_cast<Log::Enumeration>(7), u"seven");
    Log::Stop();
    Log::Write(Log::Error, u"after stop");
    EXPECT_EQ(alerts, Take());
  }
}

TEST_F(ServerLogTest, TheDefaultAlertHandlerWritesOneLineToStandardError) {
  Record();
  Log::SetAlertHandler(nullptr);
  Log::Start(u"MessageBox", Log::Warning);
  ::testing::internal::CaptureStderr();
  Log::Write(Log::Warning, u"disk almost full");
  EXPECT_EQ("Event Log Message (Warning): disk almost full\n",
            ::testing::internal::GetCapturedStderr());
  EXPECT_TRUE(Take().empty());
}

TEST_F(ServerLogTest, EngineLinesGoToTheLoggerAndFromInformationOnToTheServerLog) {
  Testing::LoggerLines logger(Logger::Severity::Trace, "Veskan::Test::");
  Record();
  Log::Start(u"MessageBox", Log::Information);
  using Severity = Logger::Severity;
  for (Severity::Enumeration severity : {Severity::Trace, Severity::Debug, Severity::Information,
                                         Severity::Warning, Severity::Error}) {
    Detail::EngineLog(severity, "Veskan::Test::Method", StringBuffer(u"line"));
  }
  EXPECT_EQ((std::vector<std::string>{
                "Trace: Veskan::Test::Method line", "Debug: Veskan::Test::Method line",
                "Information: Veskan::Test::Method line", "Warning: Veskan::Test::Method line",
                "Error: Veskan::Test::Method line"}),
            logger.Take());
  EXPECT_EQ((std::vector<std::string>{"Event Log Message|line|3", "Event Log Message|line|2",
                                      "Event Log Message|line|1"}),
            Take());
}

TEST_F(ServerLogTest, ConcurrentWritersAllReachTheHandler) {
  Record();
  Log::Start(u"MessageBox", Log::Information);
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([] {
      for (int i = 0; i < 100; ++i)
        Log::Write(Log::Warning, u"line");
    });
  }
  for (std::thread& writer : writers)
    writer.join();
  EXPECT_EQ(400u, Take().size());
}

}  // namespace
}  // namespace Veskan
