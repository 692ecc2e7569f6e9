// Server::Log: names of severities, start counting, thresholds and alert mode; the engine's log
// lines.
#include <veskan/Logger.h>
#include <veskan/Server.h>

#include "net/EngineLog.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Veskan {
namespace {

using Log = Server::Log;

TEST(ServerLogNames, ToStringNamesEverySeverity) {
  const struct {
    int value;
    const char16_t* name;
  } cases[] = {{0, u"None"},
               {1, u"Error"},
               {2, u"Warning"},
               {3, u"Information"},
               {4, u"##invalid value##"},
               {-1, u"##invalid value##"}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.value);
    EXPECT_EQ(StringBuffer(Log::ToString(static_cast<Log::Enumeration>(entry.value))), entry.name);
  }
}

TEST(ServerLogNames, ParseIgnoresCaseAndKnowsThePlurals) {
  const struct {
    const char16_t* text;
    Log::Enumeration value;
  } cases[] = {{u"error", Log::Error},
               {u"Errors", Log::Error},
               {u"ERROR", Log::Error},
               {u"warning", Log::Warning},
               {u"Warnings", Log::Warning},
               {u"wArNiNg", Log::Warning},
               {u"information", Log::Information},
               {u"Information", Log::Information},
               {u"informations", Log::None},
               {u"info", Log::None},
               {u"none", Log::None},
               {u" error", Log::None},
               {u"3", Log::None},
               {u"", Log::None},
               {nullptr, Log::None}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.text ? StringBuffer(entry.text).ToUTF8() : "(null)");
    EXPECT_EQ(Log::Parse(entry.text), entry.value);
  }
}

// One alert as the handler received it.
struct Alert {
  std::u16string title;
  std::u16string text;
  Log::Enumeration severity;
};

// Every test starts and ends with the log stopped and the default alert handler.
class ServerLogTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    while (Log::StartCount() > 0)
      Log::Stop();
    Log::SetAlertHandler(nullptr);
  }

  // Installs a handler that records the alerts.
  void RecordAlerts() {
    Log::SetAlertHandler([this](const char16_t* title, const char16_t* text, Log::Enumeration s) {
      std::lock_guard<std::mutex> lock(mutex_);
      alerts_.push_back(Alert{title, text, s});
    });
  }

  std::vector<Alert> Alerts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return alerts_;
  }

 private:
  std::mutex mutex_;
  std::vector<Alert> alerts_;
};

TEST_F(ServerLogTest, TwoStartsAndOneStopLeaveTheSystemLogOpen) {
  EXPECT_FALSE(Log::SystemLogOpen());
  Log::Start(u"veskan-tests", Log::Warning);
  EXPECT_TRUE(Log::SystemLogOpen());
  EXPECT_FALSE(Log::AlertMode());
  EXPECT_EQ(Log::Threshold(), Log::Warning);
  Log::Start(u"veskan-tests", Log::Information);
  EXPECT_EQ(Log::StartCount(), 2);
  EXPECT_EQ(Log::Threshold(), Log::Warning);  // the first start chose it

  Log::Stop();
  EXPECT_EQ(Log::StartCount(), 1);
  EXPECT_TRUE(Log::SystemLogOpen());
  Log::Stop();
  EXPECT_EQ(Log::StartCount(), 0);
  EXPECT_FALSE(Log::SystemLogOpen());
}

TEST_F(ServerLogTest, AbsentOrEmptySourceOpensTheSystemLogUnderTheProductName) {
  for (const char16_t* source : {static_cast<const char16_t*>(nullptr), u""}) {
    SCOPED_TRACE(source ? "empty" : "null");
    Log::Start(source, Log::Error);
    EXPECT_TRUE(Log::SystemLogOpen());
    EXPECT_FALSE(Log::AlertMode());
    Log::Stop();
    EXPECT_FALSE(Log::SystemLogOpen());
  }
}

TEST_F(ServerLogTest, StopWithoutStartChangesNothing) {
  Log::Stop();
  EXPECT_EQ(Log::StartCount(), 0);
  Log::Start(u"MessageBox", Log::Error);
  EXPECT_EQ(Log::StartCount(), 1);
  EXPECT_TRUE(Log::AlertMode());
}

TEST_F(ServerLogTest, AlertModeOnlyForTheExactSource) {
  Log::Start(u"messagebox", Log::Error);
  EXPECT_FALSE(Log::AlertMode());
  EXPECT_TRUE(Log::SystemLogOpen());
  Log::Stop();

  Log::Start(u"MessageBox", Log::Error);
  EXPECT_TRUE(Log::AlertMode());
  EXPECT_FALSE(Log::SystemLogOpen());
  // A later start while alert mode is on changes neither the sink nor the threshold.
  Log::Start(u"veskan-tests", Log::Information);
  EXPECT_TRUE(Log::AlertMode());
  EXPECT_FALSE(Log::SystemLogOpen());
  EXPECT_EQ(Log::Threshold(), Log::Error);
  Log::Stop();
  EXPECT_TRUE(Log::AlertMode());
  Log::Stop();
  EXPECT_FALSE(Log::AlertMode());
}

TEST_F(ServerLogTest, WarningIsDroppedBelowAnErrorThreshold) {
  RecordAlerts();
  Log::Start(u"MessageBox", Log::Error);
  Log::Write(Log::Warning, u"dropped warning");
  Log::Write(Log::Information, u"dropped information");
  Log::Write(Log::Error, u"kept error");
  const std::vector<Alert> alerts = Alerts();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].text, u"kept error");
  EXPECT_EQ(alerts[0].severity, Log::Error);
}

TEST_F(ServerLogTest, AlertsCarryTitleTextAndSeverity) {
  RecordAlerts();
  Log::Start(u"MessageBox", Log::Information);
  Log::Write(Log::Information, u"first");
  Log::Write(Log::Warning, u"second");
  Log::Write(Log::Error, u"third");
  Log::Write(Log::Error, nullptr);
  const std::vector<Alert> alerts = Alerts();
  ASSERT_EQ(alerts.size(), 4u);
  const Log::Enumeration severities[] = {Log::Information, Log::Warning, Log::Error, Log::Error};
  const char16_t* texts[] = {u"first", u"second", u"third", u""};
  for (std::size_t i = 0; i < alerts.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(alerts[i].title, u"Event Log Message");
    EXPECT_EQ(alerts[i].text, texts[i]);
    EXPECT_EQ(alerts[i].severity, severities[i]);
  }
}

TEST_F(ServerLogTest, NothingIsWrittenForNoneInvalidSeveritiesOrWhenStopped) {
  RecordAlerts();
  Log::Write(Log::Error, u"before start");
  Log::Start(u"MessageBox", Log::Information);
  Log::Write(Log::None, u"none");
  Log::Write(static_cast<Log::Enumeration>(-1), u"negative");
  Log::Write(static_cast<Log::Enumeration>(7), u"seven");
  Log::Stop();
  Log::Write(Log::Error, u"after stop");
  EXPECT_TRUE(Alerts().empty());
}

TEST_F(ServerLogTest, NoneThresholdDropsEverything) {
  RecordAlerts();
  Log::Start(u"MessageBox", Log::None);
  Log::Write(Log::Error, u"error");
  EXPECT_TRUE(Alerts().empty());
}

TEST_F(ServerLogTest, DefaultAlertHandlerWritesOneLineToStandardError) {
  RecordAlerts();
  Log::SetAlertHandler(nullptr);  // back to the default
  Log::Start(u"MessageBox", Log::Warning);
  ::testing::internal::CaptureStderr();
  Log::Write(Log::Warning, u"disk almost full");
  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(written, "Event Log Message (Warning): disk almost full\n");
  EXPECT_TRUE(Alerts().empty());
}

// Records the engine's Logger lines while it lives.
class LoggerLines {
 public:
  LoggerLines() : threshold_(Logger::Threshold()) {
    Logger::SetThreshold(Logger::Severity::Trace);
    previous_ =
        Logger::SetSink([this](Logger::Severity::Enumeration severity, const char* text, int) {
          const std::string line(text);
          if (line.rfind("Veskan::Test::", 0) != 0) return;
          std::lock_guard<std::mutex> lock(mutex_);
          lines_.emplace_back(severity, line);
        });
  }
  ~LoggerLines() {
    Logger::SetSink(previous_);
    Logger::SetThreshold(threshold_);
  }
  std::vector<std::pair<Logger::Severity::Enumeration, std::string>> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  Logger::Severity::Enumeration threshold_;
  Logger::Sink previous_;
  std::mutex mutex_;
  std::vector<std::pair<Logger::Severity::Enumeration, std::string>> lines_;
};

TEST_F(ServerLogTest, EngineLinesReachTheServerLogFromInformationOn) {
  LoggerLines logger;
  RecordAlerts();
  Log::Start(u"MessageBox", Log::Information);
  const struct {
    Logger::Severity::Enumeration severity;
    const char* text;
  } lines[] = {{Logger::Severity::Trace, "trace"},
               {Logger::Severity::Debug, "debug"},
               {Logger::Severity::Information, "information"},
               {Logger::Severity::Warning, "warning"},
               {Logger::Severity::Error, "error"}};
  for (const auto& line : lines) {
    Detail::EngineLog(line.severity, "Veskan::Test::Method", StringBuffer(line.text));
  }

  const auto written = logger.Lines();
  ASSERT_EQ(written.size(), 5u);
  for (std::size_t i = 0; i < written.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(written[i].first, lines[i].severity);
    EXPECT_EQ(written[i].second, std::string("Veskan::Test::Method ") + lines[i].text);
  }

  const std::vector<Alert> alerts = Alerts();
  ASSERT_EQ(alerts.size(), 3u);
  EXPECT_EQ(alerts[0].text, u"information");
  EXPECT_EQ(alerts[0].severity, Log::Information);
  EXPECT_EQ(alerts[1].text, u"warning");
  EXPECT_EQ(alerts[1].severity, Log::Warning);
  EXPECT_EQ(alerts[2].text, u"error");
  EXPECT_EQ(alerts[2].severity, Log::Error);
}

TEST_F(ServerLogTest, ConcurrentWritersAllReachTheHandler) {
  RecordAlerts();
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
  EXPECT_EQ(Alerts().size(), 400u);
}

}  // namespace
}  // namespace Veskan
