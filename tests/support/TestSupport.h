// Helpers shared by the test suites: temporary folders, descriptor counts and child processes.
#ifndef VESKAN_TESTS_TESTSUPPORT_H
#define VESKAN_TESTS_TESTSUPPORT_H

#include <veskan/StringBuffer.h>

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace Veskan {
namespace Testing {

// A fresh folder under the system's temporary folder, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // The path of `name` inside the folder, as the library takes paths.
  StringBuffer File(const std::string& name) const;
  // Writes `bytes` to `name` inside the folder and returns its path.
  StringBuffer WriteFile(const std::string& name, const std::string& bytes) const;

 private:
  std::filesystem::path path_;
};

// The number of descriptors this process has open.
int CountOpenDescriptors();

// The contents of a file, or "" when it cannot be read.
std::string ReadWholeFile(const StringBuffer& path);

// A child process in a process group of its own (a browser starts several), with one of its
// output streams readable line by line. The group is killed when the object goes.
class ChildProcess {
 public:
  // Starts `arguments` (the program by path first); `stream` (1 or 2) is captured, the other
  // goes to /dev/null.
  ChildProcess(const std::vector<std::string>& arguments, int stream);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  bool Started() const { return pid_ > 0; }
  // The first line of the captured stream that contains `text`, waiting at most `seconds`;
  // empty when none came.
  std::string LineWith(const std::string& text, double seconds);
  void Kill(int signal);
  // The exit status, or -1 when it did not exit normally.
  int Wait();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  std::string buffer_;
};

}  // namespace Testing
}  // namespace Veskan

#endif
