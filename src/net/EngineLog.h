// The network engine's diagnostic lines: to the Logger, and from Information on to Server::Log.
#ifndef VESKAN_NET_ENGINELOG_H
#define VESKAN_NET_ENGINELOG_H

#include <veskan/Logger.h>
#include <veskan/StringBuffer.h>

namespace Veskan {
namespace Detail {

// Writes "`method` `text`" to the Logger at `severity`; when `severity` is Information, Warning or
// Error, also writes `text` to Server::Log at the same severity. Thread-safe.
void EngineLog(Logger::Severity::Enumeration severity, const char* method,
               const StringBuffer& text);

}  // namespace Detail
}  // namespace Veskan

#endif
