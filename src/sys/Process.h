// Starting other programs: never through a shell, so no argument is ever read as shell syntax.
#ifndef VESKAN_SYS_PROCESS_H
#define VESKAN_SYS_PROCESS_H

#include <cstddef>
#include <string>
#include <vector>

namespace Veskan {
namespace Sys {

// Starts `arguments[0]` (searched in PATH when it has no slash) with the rest as its arguments,
// its standard input from /dev/null. The process id, or -1 with the system's error number in
// `error`.
int StartProcess(const std::vector<std::string>& arguments, int& error);
// Waits for the process to end: its exit status, or -1 when it was killed or cannot be waited for.
int WaitForProcess(int pid);
// Runs the program to its end, its standard output kept in `output` (at most `maxBytes`, the rest
// read and dropped): its exit status, or -1 when it could not be started or did not exit.
int RunCapturingOutput(const std::vector<std::string>& arguments, std::string& output,
                       std::size_t maxBytes);
// Whether a program of that name is found in PATH (or at that path).
bool ProgramExists(const std::string& name);

}  // namespace Sys
}  // namespace Veskan

#endif
