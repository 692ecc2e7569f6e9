// Logger: thresholds, replaceable sinks and the line builder.
#include <veskan/Logger.h>
#include <veskan/StringBuffer.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {
namespace {

struct CapturedLine {
  Logger::Severity::Enumeration severity;
  std::string message;
  int number;
};

// Installs a capturing sink and a threshold for one test and restores both afterwards.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousThreshold_ = Logger::Threshold();
    previousSink_ = Logger::SetSink(
        [this](Logger::Severity::Enumeration severity, const char* message, int number) {
          std::lock_guard<std::mutex> lock(mutex_);
          lines_.push_back({severity, message, number});
        });
    Logger::SetThreshold(Logger::Severity::Information);
  }
  void TearDown() override {
    Logger::SetSink(previousSink_);
    Logger::SetThreshold(previousThreshold_);
  }

  std::mutex mutex_;
  std::vector<CapturedLine> lines_;
  Logger::Sink previousSink_;
  Logger::Severity::Enumeration previousThreshold_ = Logger::Severity::Warning;
};

TEST_F(LoggerTest, LinesBelowTheThresholdAreDropped) {
  Logger::Write(Logger::Severity::Debug, "dropped");
  Logger::Write(Logger::Severity::Information, "kept", 7);
  Logger::Write(Logger::Severity::Error, nullptr);
  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_EQ(lines_[0].message, "kept");
  EXPECT_EQ(lines_[0].number, 7);
  EXPECT_EQ(lines_[1].severity, Logger::Severity::Error);
  EXPECT_EQ(lines_[1].message, "");
  EXPECT_FALSE(Logger::IsEnabled(Logger::Severity::Trace));
  Logger::SetThreshold(Logger::Severity::Off);
  Logger::Write(Logger::Severity::Error, "silenced");
  EXPECT_EQ(lines_.size(), 2u);
}

TEST_F(LoggerTest, LineBuildsQualifiedNameAndLabelledValues) {
  Logger::Line(Logger::Severity::Warning, "Veskan::Daemon::Accept", 10035)
      << " socket: " << 12 << " peer: " << StringBuffer(u"caf\u00E9") << " ok: " << true
      << " ratio: " << 2.5 << " name: " << u"x";
  {
    // Below the threshold nothing is formatted or written.
    Logger::Line line(Logger::Severity::Debug, "Veskan::Hidden::Method");
    line << " value: " << 1;
  }
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0].message,
            "Veskan::Daemon::Accept socket: 12 peer: caf\xC3\xA9 ok: true ratio: 2.5 name: x");
  EXPECT_EQ(lines_[0].number, 10035);
}

TEST_F(LoggerTest, SetSinkReturnsTheReplacedSink) {
  int other = 0;
  Logger::Sink mine =
      Logger::SetSink([&other](Logger::Severity::Enumeration, const char*, int) { ++other; });
  Logger::Write(Logger::Severity::Warning, "to the other sink");
  EXPECT_EQ(other, 1);
  EXPECT_TRUE(lines_.empty());
  Logger::SetSink(mine);
  Logger::Write(Logger::Severity::Warning, "back");
  EXPECT_EQ(lines_.size(), 1u);
  EXPECT_EQ(other, 1);
}

TEST_F(LoggerTest, ConcurrentWritersLoseNoLine) {
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < 250; ++i)
        Logger::Line(Logger::Severity::Error, "Veskan::T::W") << t;
    });
  }
  for (std::thread& writer : writers)
    writer.join();
  EXPECT_EQ(lines_.size(), 1000u);
}

TEST(LoggerSeverityTest, ParseAndNames) {
  using S = Logger::Severity;
  EXPECT_EQ(S::Parse("TRACE", S::Warning), S::Trace);
  EXPECT_EQ(S::Parse("info", S::Warning), S::Information);
  EXPECT_EQ(S::Parse("None", S::Warning), S::Off);
  EXPECT_EQ(S::Parse("5", S::Warning), S::Error);
  EXPECT_EQ(S::Parse("7", S::Debug), S::Debug);
  EXPECT_EQ(S::Parse("loud", S::Debug), S::Debug);
  EXPECT_EQ(S::Parse(nullptr, S::Error), S::Error);
  EXPECT_EQ(StringBuffer(S::ToString(S::Information)), u"Information");
  EXPECT_EQ(StringBuffer(S::ToString(static_cast<S::Enumeration>(0))), u"##invalid value##");
}

}  // namespace
}  // namespace Veskan
