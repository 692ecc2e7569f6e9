// Server::Log, the engine's process-wide diagnostic sink.
#include <veskan/Logger.h>
#include <veskan/Server.h>
#include <veskan/Version.h>

#include "sys/SystemLog.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace Veskan {

namespace {

constexpr const char16_t* AlertSource = u"MessageBox";
constexpr const char16_t* AlertTitle = u"Event Log Message";

struct LogState {
  std::mutex mutex;
  int startCount = 0;
  Server::Log::Enumeration threshold = Server::Log::None;
  std::unique_ptr<Sys::SystemLog> systemLog;  // set while the system log is the sink
  bool alertMode = false;
  std::shared_ptr<const Server::Log::AlertHandler> alertHandler;  // null: the default handler
};

LogState& TheLogState() {
  static LogState* state = new LogState();  // never destroyed: threads may write during exit
  return *state;
}

void AlertOnStandardError(const char16_t* title, const char16_t* text,
                          Server::Log::Enumeration severity) {
  // One fprintf per alert, so alerts of concurrent writers do not interleave.
  std::fprintf(stderr, "%s (%s): %s\n", StringBuffer(title).ToUTF8().c_str(),
               StringBuffer(Server::Log::ToString(severity)).ToUTF8().c_str(),
               StringBuffer(text).ToUTF8().c_str());
}

// The system log's level for `severity`; false for None and for values that are no severity.
bool SystemLogLevel(Server::Log::Enumeration severity, Sys::SystemLog::Level& level) {
  switch (severity) {
    case Server::Log::None:
      return false;
    case Server::Log::Error:
      level = Sys::SystemLog::Level::Error;
      return true;
    case Server::Log::Warning:
      level = Sys::SystemLog::Level::Warning;
      return true;
    case Server::Log::Information:
      level = Sys::SystemLog::Level::Information;
      return true;
  }
  return false;
}

}  // namespace

const char16_t* Server::Log::ToString(Enumeration value) {
  switch (value) {
    case None:
      return u"None";
    case Error:
      return u"Error";
    case Warning:
      return u"Warning";
    case Information:
      return u"Information";
  }
  return u"##invalid value##";
}

Server::Log::Enumeration Server::Log::Parse(const char16_t* text) {
  static const struct {
    const char16_t* name;
    Enumeration value;
  } Names[] = {{u"error", Error},
               {u"errors", Error},
               {u"warning", Warning},
               {u"warnings", Warning},
               {u"information", Information}};
  if (IsEmptyString(text)) return None;
  for (const auto& entry : Names) {
    if (CompareStringLiterals(text, entry.name, true)) return entry.value;
  }
  return None;
}

void Server::Log::Start(const char16_t* source, Enumeration threshold) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Server::Log::Start")
      << " source: " << SafeStringLiteral(source) << " threshold: " << ToString(threshold);
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  ++state.startCount;
  if (state.systemLog || state.alertMode) return;
  state.threshold = threshold;
  if (StringBuffer(source) == AlertSource) {
    state.alertMode = true;
  } else {
    const StringBuffer name(IsEmptyString(source) ? ProductName() : source);
    state.systemLog = std::make_unique<Sys::SystemLog>(name.ToUTF8());
  }
}

void Server::Log::Stop() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Server::Log::Stop");
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.startCount == 0) return;
  if (--state.startCount > 0) return;
  state.systemLog.reset();
  state.alertMode = false;
}

void Server::Log::Write(Enumeration severity, const char16_t* text) {
  Sys::SystemLog::Level level = Sys::SystemLog::Level::Information;
  if (!SystemLogLevel(severity, level)) return;

  LogState& state = TheLogState();
  std::shared_ptr<const AlertHandler> handler;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    if (severity > state.threshold) return;
    if (state.systemLog) {
      // Under the lock, so that Stop cannot close the log during the write.
      state.systemLog->Write(level, StringBuffer(text).ToUTF8());
      return;
    }
    if (!state.alertMode) return;
    handler = state.alertHandler;
  }
  // The handler runs without the lock: it may show a dialog, or write to the log itself.
  const char16_t* message = SafeStringLiteral(text);
  if (handler) {
    (*handler)(AlertTitle, message, severity);
  } else {
    AlertOnStandardError(AlertTitle, message, severity);
  }
}

void Server::Log::SetAlertHandler(AlertHandler handler) {
  auto replacement = handler ? std::make_shared<const AlertHandler>(std::move(handler)) : nullptr;
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.alertHandler = std::move(replacement);
}

int Server::Log::StartCount() {
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.startCount;
}

bool Server::Log::SystemLogOpen() {
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.systemLog != nullptr;
}

bool Server::Log::AlertMode() {
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.alertMode;
}

Server::Log::Enumeration Server::Log::Threshold() {
  LogState& state = TheLogState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.threshold;
}

}  // namespace Veskan
