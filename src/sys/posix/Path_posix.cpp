// File-system paths on POSIX: getcwd, realpath and lstat.
#include "sys/Path.h"

#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <memory>

namespace Veskan {
namespace Sys {

namespace {

struct FreeDeleter {
  void operator()(char* text) const noexcept { std::free(text); }
};

}  // namespace

std::string CurrentFolder() {
  // getcwd with a null buffer allocates one of the right size.
  std::unique_ptr<char, FreeDeleter> folder(::getcwd(nullptr, 0));
  return folder ? std::string(folder.get()) : std::string();
}

std::string ResolveExistingPath(const std::string& path) {
  std::unique_ptr<char, FreeDeleter> resolved(::realpath(path.c_str(), nullptr));
  return resolved ? std::string(resolved.get()) : std::string();
}

bool PathExists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

}  // namespace Sys
}  // namespace Veskan
