// The network engine's diagnostic lines.
#include "net/EngineLog.h"

#include <veskan/Server.h>

namespace Veskan {
namespace Detail {

namespace {

Server::Log::Enumeration ServerLogSeverity(Logger::Severity::Enumeration severity) {
  switch (severity) {
    case Logger::Severity::Trace:
    case Logger::Severity::Debug:
    case Logger::Severity::Off:
      return Server::Log::None;
    case Logger::Severity::Information:
      return Server::Log::Information;
    case Logger::Severity::Warning:
      return Server::Log::Warning;
    case Logger::Severity::Error:
      return Server::Log::Error;
  }
  return Server::Log::None;
}

}  // namespace

void EngineLog(Logger::Severity::Enumeration severity, const char* method,
               const StringBuffer& text) {
  Logger::Line(severity, method) << ' ' << text;
  const Server::Log::Enumeration logSeverity = ServerLogSeverity(severity);
  if (logSeverity != Server::Log::None) Server::Log::Write(logSeverity, text);
}

}  // namespace Detail
}  // namespace Veskan
