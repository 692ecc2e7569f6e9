// What every long-running program of the tools folder does around its server: more descriptors,
// a start that reports the engine's own errors, and a stop on signals and shutdown requests.
#ifndef VESKAN_TOOLS_HOST_PROCESS_H
#define VESKAN_TOOLS_HOST_PROCESS_H

#include <veskan/Server.h>
#include <veskan/Shutdowner.h>
#include <veskan/StringBuffer.h>

#include <memory>
#include <string>

namespace Veskan::Tools {

// Reads a TCP port (0 to 65535, 0: any free one) from a command-line argument; false for
// anything else.
bool ParsePort(const std::string& text, int& port);

// Raises the soft limit on open descriptors to the hard one: every connection is a descriptor,
// and a school's worth of browsers needs more than the usual 1024.
void RaiseOpenFileLimit();

// Starts `server` on `base` without falling back to another port. The engine's errors logged
// meanwhile (a certificate that cannot be used, a taken port) are appended to `errors`, a line
// each.
bool StartServer(Server& server, const StringBuffer& base, std::string& errors);

// From now on SIGINT, SIGTERM and a shutdown request of any process (veskan-shutdown) make
// StopRequested() true. The returned watcher runs until it is stopped; stop it before exiting.
std::shared_ptr<Shutdowner> WatchForStop();
bool StopRequested();

}  // namespace Veskan::Tools

#endif
