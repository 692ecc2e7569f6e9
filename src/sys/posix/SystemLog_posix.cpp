// The system log on POSIX: syslog(3).
#include "sys/SystemLog.h"

#include <syslog.h>

#include <utility>

namespace Veskan {
namespace Sys {

SystemLog::SystemLog(std::string source) : source_(std::move(source)) {
  openlog(source_.c_str(), LOG_PID, LOG_USER);
}

SystemLog::~SystemLog() {
  closelog();
}

void SystemLog::Write(Level level, const std::string& text) {
  int priority = LOG_INFO;
  switch (level) {
    case Level::Error:
      priority = LOG_ERR;
      break;
    case Level::Warning:
      priority = LOG_WARNING;
      break;
    case Level::Information:
      priority = LOG_INFO;
      break;
  }
  syslog(priority, "%s", text.c_str());
}

}  // namespace Sys
}  // namespace Veskan
