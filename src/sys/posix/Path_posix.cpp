// File-system paths on POSIX: getcwd, realpath, lstat, mkdir and the password database.
#include "sys/Path.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

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

bool MakeFolders(const std::string& path, int& error) {
  error = 0;
  if (path.empty()) return true;
  // Each prefix ending before a separator, then the whole path.
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string folder = path.substr(0, end);
    struct stat status {};
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
      error = errno;
      return false;
    }
    if (::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      error = ENOTDIR;
      return false;
    }
    if (end == std::string::npos) return true;
  }
}

std::string HomeFolder() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 16384));
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir)
    return found->pw_dir;
  return std::string();
}

bool IsRegularFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool IsExecutableFile(const std::string& path) {
  return IsRegularFile(path) && ::access(path.c_str(), X_OK) == 0;
}

bool RenamePath(const std::string& from, const std::string& to, int& error) {
  error = 0;
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  error = errno;
  return false;
}

bool RemoveFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0;
}

std::string ExecutablePath() {
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

int MakeUniqueFile(const std::string& prefix, std::string& path, int& error) {
  // Not mkstemp: its files are the owner's alone, and a file made here replaces another whose
  // readers expect the usual permissions (0666 less the umask).
  static std::atomic<unsigned> counter{0};
  for (int attempt = 0; attempt < 100; ++attempt) {
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "%d-%u", static_cast<int>(::getpid()), counter++);
    const std::string candidate = prefix + suffix;
    const int descriptor =
        ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (descriptor >= 0) {
      path = candidate;
      error = 0;
      return descriptor;
    }
    if (errno != EEXIST) break;
  }
  error = errno;
  return -1;
}

}  // namespace Sys
}  // namespace Veskan
