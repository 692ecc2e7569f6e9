// File-system paths: the working folder and resolving links.
#ifndef VESKAN_SYS_PATH_H
#define VESKAN_SYS_PATH_H

#include <string>

namespace Veskan {
namespace Sys {

// The process's working folder (UTF-8), or "" when it cannot be read.
std::string CurrentFolder();

// The canonical absolute form of an existing path (symbolic links, "." and ".." resolved), or ""
// when the path does not exist or cannot be resolved.
std::string ResolveExistingPath(const std::string& path);

// True when something (a file, a folder, a link, even a dangling one) exists at `path`.
bool PathExists(const std::string& path);

// Makes the folder at `path` and any missing parents (readable by all, writable by the owner).
// False, with the system's error number in `error`, when one cannot be made.
bool MakeFolders(const std::string& path, int& error);

// The user's home folder: $HOME, else the account's; "" when neither is known.
std::string HomeFolder();

// True for an existing regular file (links followed).
bool IsRegularFile(const std::string& path);
// True for a regular file the process may execute.
bool IsExecutableFile(const std::string& path);
// Replaces `to` by `from` in one step (both in one file system).
bool RenamePath(const std::string& from, const std::string& to, int& error);
// Removes a file; false when it could not be removed.
bool RemoveFile(const std::string& path);
// The path of the running program's executable, or "".
std::string ExecutablePath();
// A new empty file named `prefix` and a unique suffix, open for writing (permissions 0666 less
// the umask); its path in `path`. -1 on failure.
int MakeUniqueFile(const std::string& prefix, std::string& path, int& error);

// The separator between the segments of a path.
constexpr char PathSeparator = '/';

}  // namespace Sys
}  // namespace Veskan

#endif
