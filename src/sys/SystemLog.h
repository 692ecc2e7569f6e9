// The system log: the operating system's side of Server::Log.
#ifndef VESKAN_SYS_SYSTEMLOG_H
#define VESKAN_SYS_SYSTEMLOG_H

#include <string>

namespace Veskan {
namespace Sys {

// The system log opened under one source name, closed when destroyed. The system keeps one
// such connection per process: at most one SystemLog may exist at a time.
//
// Thread safety: Write may be called from several threads at once; construction and destruction
// must not overlap any other use.
class SystemLog {
 public:
  enum class Level { Error, Warning, Information };

  // Opens the log with `source` (UTF-8) naming the lines' origin.
  explicit SystemLog(std::string source);
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  ~SystemLog();

  // Writes `text` (UTF-8) as one line of `level`.
  void Write(Level level, const std::string& text);

 private:
  std::string source_;  // the system keeps a pointer to it while the log is open
};

}  // namespace Sys
}  // namespace Veskan

#endif
